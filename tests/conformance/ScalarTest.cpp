// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// What holds for every attribute with one value, of every entity type.
#include "../support/Loop.h"
#include "Lines.h"

#include <gtest/gtest.h>

using conformance::ScalarLine;
using conformance::Trail;
using testing_support::Loop;

namespace {

class ScalarAttribute : public testing::TestWithParam< std::shared_ptr< ScalarLine > > {
 protected:
   // The callbacks of those reactors, if the attribute tells anybody.
   Trail told( Trail const & who ) const {
      Trail callbacks;
      if( line.notifies() )
         for( std::string const & w : who )
            callbacks.push_back( w + "." + line.callback() + "()" );
      return callbacks;
   }

   Loop loop;
   ScalarLine const & line = *GetParam();
   Kiv::Ptr< Kiv::Entity > const entity = line.make();
   Trail trail;
};

} // namespace

TEST_P( ScalarAttribute, OfANewEntityHasItsFirstValue ) { EXPECT_TRUE( line.holds( *entity, 0 ) ); }

TEST_P( ScalarAttribute, ReadsWhatWasWritten ) {
   ASSERT_GE( line.values(), 2U );
   for( std::size_t from = 0; from != line.values(); ++from )
      for( std::size_t to = 0; to != line.values(); ++to ) {
         line.set( *entity, from );
         line.set( *entity, to );
         for( std::size_t value = 0; value != line.values(); ++value )
            EXPECT_EQ( line.holds( *entity, value ), value == to ) << from << " " << to;
      }
}

TEST_P( ScalarAttribute, TellsEveryReactorLaterInOrderOfRegistration ) {
   auto const a = line.watch( *entity, trail, "a" );
   auto const b = line.watch( *entity, trail, "b" );
   auto const c = line.watch( *entity, trail, "c" );
   b->isRegisteredNotifieeIs( false );
   b->isRegisteredNotifieeIs( true );
   line.set( *entity, 1 );
   EXPECT_TRUE( trail.empty() ) << "not inside the setter";
   loop.idle();
   EXPECT_EQ( trail, told( { "a", "c", "b" } ) );
   loop.idle();
   EXPECT_EQ( trail, told( { "a", "c", "b" } ) ) << "once";
}

TEST_P( ScalarAttribute, HasOneCallbackPendingPerReactorHoweverOftenItChanges ) {
   auto const a = line.watch( *entity, trail, "a" );
   auto const b = line.watch( *entity, trail, "b" );
   for( std::size_t value : { 1U, 0U, 1U, 0U } )
      line.set( *entity, value );
   EXPECT_EQ( a->pendingNotifications(), told( { "a" } ).size() );
   loop.idle();
   EXPECT_EQ( trail, told( { "a", "b" } ) ) << "also when it is back where it was";
}

TEST_P( ScalarAttribute, TellsOfAChangeThatComesAfterDelivery ) {
   auto const a = line.watch( *entity, trail, "a" );
   line.set( *entity, 1 );
   loop.idle();
   line.set( *entity, 0 );
   loop.idle();
   EXPECT_EQ( trail, told( { "a", "a" } ) );
}

TEST_P( ScalarAttribute, IsNotChangedByTheValueItHolds ) {
   for( std::size_t value = 0; value != line.values(); ++value ) {
      line.set( *entity, value );
      auto const a = line.watch( *entity, trail, "a" );
      line.set( *entity, value );
      EXPECT_EQ( a->pendingNotifications(), 0U );
      loop.idle();
      EXPECT_TRUE( trail.empty() ) << "value " << value;
      EXPECT_TRUE( line.holds( *entity, value ) );
   }
}

TEST_P( ScalarAttribute, MayBeLeftUnwatchedAndCallbacksMayBeLeftOut ) {
   line.set( *entity, 1 );
   auto const silent = line.watchSilently( *entity );
   line.set( *entity, 0 );
   EXPECT_EQ( silent->pendingNotifications(), told( { "silent" } ).size() );
   loop.idle();
   EXPECT_EQ( silent->pendingNotifications(), 0U );
   EXPECT_TRUE( line.holds( *entity, 0 ) );
}

INSTANTIATE_TEST_SUITE_P( Every, ScalarAttribute, testing::ValuesIn( conformance::scalarLines() ),
                          []( auto const & tested ) { return tested.param->name(); } );
