// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include "EngineTestSupport.h"

#include <stdexcept>

#include <gtest/gtest.h>

namespace Simulation {
namespace {

Plan const twoStages = planOf( { agent( "A", { event( "Boot", after( 1 ) ) } ),
                                 agent( "B", { event( "Net", after( 2 ), { "Boot" } ) } ) } );

// The stages that are active at `until`, and the time that it is then.
std::string activeAt( double until ) {
   std::string text;
   run( twoStages, {}, until, [ & ]( Kiv::Ptr< Stage::Ordovan > const & manager ) {
      text = Kiv::valueToString( Kiv::now() ).str();
      for( auto i = manager->statusSm()->stageSmIteratorConst(); i; ++i )
         text += " " + i.key().str() + ( i.ptr()->complete() ? "+" : "" );
   } );
   return text;
}

TEST( EngineLook, SeesTheStateMachinesAsTheyStandAtThatTime ) {
   EXPECT_EQ( activeAt( 0 ), "0 Boot" );
   EXPECT_EQ( activeAt( 0.5 ), "0.5 Boot" );
   EXPECT_EQ( activeAt( infinity ).find( "3 " ), 0U );
   EXPECT_NE( activeAt( 1 ).find( " Boot+" ), std::string::npos ) << "what is due then is over";
   EXPECT_NE( activeAt( 1 ).find( " Net" ), std::string::npos );
}

TEST( EngineLook, ComesAfterTheObserversWereToldOfTheEnd ) {
   struct : Observer {
      void onEnd( Result const & ) override { told += "end "; }
      std::string told;
   } observer;
   run( twoStages, { &observer }, infinity, [ & ]( auto const & ) { observer.told += "look"; } );
   EXPECT_EQ( observer.told, "end look" );
}

TEST( EngineLook, PassesOnWhatItThrowsAndLeavesTheClockAsItWas ) {
   auto const clock = Kiv::activityManager()->clock();
   EXPECT_THROW( run( twoStages, {}, 1, []( auto const & ) { throw std::runtime_error( "no" ); } ),
                 std::runtime_error );
   EXPECT_EQ( Kiv::activityManager()->clock(), clock );
}

} // namespace
} // namespace Simulation
