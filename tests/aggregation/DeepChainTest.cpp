// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Long chains of stages: the push of critical flags must not need the thread's stack.

#include "Handles.h"

#include <pthread.h>

namespace aggregation {
namespace {

std::string stageName( unsigned i ) { return "S" + std::to_string( i ); }

// Runs `body` on a thread with an 8 MiB stack, which owns the activity meanwhile.
template< class Body >
void onEightMebibytes( Body body ) {
   pthread_attr_t attributes;
   ASSERT_EQ( pthread_attr_init( &attributes ), 0 );
   ASSERT_EQ( pthread_attr_setstacksize( &attributes, std::size_t{ 8 } << 20 ), 0 );
   pthread_t thread;
   ASSERT_EQ( pthread_create(
                 &thread, &attributes,
                 []( void * argument ) -> void * {
                    Kiv::activityManager()->ownerThreadIs();
                    ( *static_cast< Body * >( argument ) )();
                    return nullptr;
                 },
                 &body ),
              0 );
   ASSERT_EQ( pthread_join( thread, nullptr ), 0 );
   Kiv::activityManager()->ownerThreadIs();
   pthread_attr_destroy( &attributes );
}

unsigned criticalCount( World const & w ) {
   unsigned count = 0;
   for( auto i = w.status->stageIteratorConst(); i; ++i )
      count += i.ptr()->critical() ? 1U : 0U;
   return count;
}

// The chain is laid by hand under a silent machine: told of 100,000 stages one by one, every stage
// would look at every other.
TEST( DeepChain, AHundredThousandStagesBecomeCriticalAndAreReleasedWithinAnOrdinaryStack ) {
   static constexpr unsigned stages = 100000;
   onEightMebibytes( [] {
      World w;
      Ptr< ConfigSm > machine = silentConfigSm( w );
      for( unsigned i = 0; i != stages; ++i ) {
         Ptr< StageStatus > const stage = w.status->stageIs( stageName( i ) );
         if( i != 0 )
            stage->dependencyIs( stageName( i - 1 ), true );
         machine->stageStatusIs( stage );
      }
      EXPECT_EQ( criticalCount( w ), 0U );
      Name const last( stageName( stages - 1 ) );
      Ptr< EventConfig > const event = fileEvent( w, "a", last );
      event->dependencyIs( stageName( stages - 2 ), true );
      event->criticalIs( true );
      machine->stageStatus( last )->eventConfigIs( event );
      EXPECT_EQ( criticalCount( w ), stages );
      EXPECT_TRUE( machine->stageStatus( stageName( 0 ) )->criticalAncestor( stageName( 1 ) ) );
      event->criticalIs( false );
      machine->stageStatus( last )->handleCritical();
      EXPECT_EQ( criticalCount( w ), 0U );
      machine = nullptr;
   } );
}

// A ring closes on itself after having gone all the way round.
TEST( DeepChain, ALongRingEndsWhereItBegan ) {
   static constexpr unsigned stages = 20000;
   onEightMebibytes( [] {
      World w;
      Ptr< ConfigSm > const machine = silentConfigSm( w );
      for( unsigned i = 0; i != stages; ++i ) {
         Ptr< StageStatus > const stage = w.status->stageIs( stageName( i ) );
         stage->dependencyIs( stageName( ( i + 1 ) % stages ), true );
         machine->stageStatusIs( stage );
      }
      machine->stageStatus( stageName( 7 ) )->criticalAncestorIs( "outside", true );
      EXPECT_EQ( criticalCount( w ), stages );
      EXPECT_TRUE( machine->stageStatus( stageName( 7 ) )->hasCriticalAncestor( stageName( 6 ) ) );
   } );
}

// The whole road, declared by agents and delivered by the loop; of a length at which stages that
// look at each other cost about a second without optimisation.
TEST( DeepChain, AChainDeclaredByAgentsIsCriticalFromItsEnd ) {
   constexpr unsigned stages = 2000;
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   Ptr< EventConfig > last;
   for( unsigned i = 0; i != stages; ++i )
      last = w.declare( "agent" + std::to_string( i % 10 ), stageName( i ),
                        i == 0 ? Names{} : Names{ stageName( i - 1 ) }, 1 + i );
   w.idle();
   EXPECT_EQ( w.status->stages(), stages );
   EXPECT_EQ( criticalCount( w ), 0U );
   last->criticalIs( true );
   w.idle();
   EXPECT_EQ( criticalCount( w ), stages );
   last->criticalIs( false );
   w.idle();
   EXPECT_EQ( criticalCount( w ), 0U );
   EXPECT_EQ( w.stage( stageName( stages - 1 ) )->timeout(), stages );
}

} // namespace
} // namespace aggregation
