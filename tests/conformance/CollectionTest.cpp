// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// What holds for every keyed collection, of every entity type.
#include "../support/Loop.h"
#include "Lines.h"

#include <gtest/gtest.h>

#include <algorithm>

using conformance::KeyedLine;
using conformance::Trail;
using testing_support::Loop;

namespace {

class CollectionAttribute : public testing::TestWithParam< std::shared_ptr< KeyedLine > > {
 protected:
   // "a(Net)" as "a.onEvent(Net)", "a" as the deferred callback; nothing if nobody is told.
   Trail told( Trail const & callbacks ) const {
      Trail full;
      if( line.notifies() )
         for( std::string const & c : callbacks )
            full.push_back( c.size() == 1
                               ? c + "." + line.callback() + "kivImmediate()"
                               : c.substr( 0, 1 ) + "." + line.callback() + c.substr( 1 ) );
      return full;
   }
   void putAll() {
      for( std::string const & key : KeyedLine::keys() )
         line.put( *entity, key, 0 );
      loop.idle();
   }
   static Trail sorted( Trail keys ) {
      std::sort( keys.begin(), keys.end() );
      return keys;
   }
   static void nothing( std::string const & ) {}

   Loop loop;
   KeyedLine const & line = *GetParam();
   Kiv::Ptr< Kiv::Entity > const entity = line.make();
   Trail trail;
};

// Those whose members can be replaced by others under the same key.
class ReplaceableCollectionAttribute : public CollectionAttribute {
 public:
   static std::vector< ParamType > lines() {
      std::vector< ParamType > all = conformance::keyedLines();
      std::erase_if( all, []( ParamType const & l ) { return l->values() < 2; } );
      return all;
   }
};

} // namespace

// --------------------------------------------------------------------------------- reading,
// writing

TEST_P( CollectionAttribute, OfANewEntityIsEmpty ) {
   EXPECT_EQ( line.count( *entity ), 0U );
   EXPECT_TRUE( line.absent( *entity, "Net" ) );
   EXPECT_TRUE( line.absent( *entity, "" ) );
   EXPECT_TRUE( line.iterated( *entity, nothing ).empty() );
   EXPECT_TRUE( line.iteratedConst( *entity, nothing ).empty() );
}

TEST_P( CollectionAttribute, ReadsUnderEachKeyWhatWasPutThere ) {
   line.put( *entity, "Net", 0 );
   line.put( *entity, "Disk", line.values() - 1 );
   EXPECT_TRUE( line.holds( *entity, "Net", 0 ) );
   EXPECT_TRUE( line.holds( *entity, "Disk", line.values() - 1 ) );
   EXPECT_TRUE( line.absent( *entity, "Boot" ) );
   EXPECT_EQ( line.count( *entity ), 2U );
}

TEST_P( CollectionAttribute, HoldsOneMemberUnderAKeyTheLastOnePut ) {
   for( std::size_t value : { std::size_t{ 0 }, line.values() - 1, std::size_t{ 0 } } ) {
      line.put( *entity, "Net", value );
      EXPECT_TRUE( line.holds( *entity, "Net", value ) );
      EXPECT_EQ( line.values() > 1 && line.holds( *entity, "Net", 1 ), value == 1 );
      EXPECT_EQ( line.count( *entity ), 1U );
   }
}

TEST_P( CollectionAttribute, ForgetsTheMemberThatIsDeletedAndNoOther ) {
   line.put( *entity, "Net", 0 );
   line.put( *entity, "Disk", 0 );
   line.del( *entity, "Net" );
   EXPECT_TRUE( line.absent( *entity, "Net" ) );
   EXPECT_TRUE( line.holds( *entity, "Disk", 0 ) );
   EXPECT_EQ( line.count( *entity ), 1U );
   EXPECT_EQ( line.iterated( *entity, nothing ), Trail{ "Disk" } );
}

TEST_P( CollectionAttribute, ForgetsAllMembersAtOnce ) {
   putAll();
   line.delAll( *entity );
   EXPECT_EQ( line.count( *entity ), 0U );
   for( std::string const & key : KeyedLine::keys() )
      EXPECT_TRUE( line.absent( *entity, key ) );
   line.delAll( *entity );
   line.put( *entity, "Net", 0 );
   EXPECT_TRUE( line.holds( *entity, "Net", 0 ) );
}

// -------------------------------------------------------------------------------------
// notification

TEST_P( CollectionAttribute, TellsEveryReactorOfEachKeyInOrderAndOnceDeferred ) {
   auto const a = line.watch( *entity, trail, "a" );
   auto const b = line.watch( *entity, trail, "b" );
   auto const c = line.watch( *entity, trail, "c" );
   line.put( *entity, "Net", 0 );
   line.put( *entity, "Boot", 0 );
   line.put( *entity, "Disk", 0 );
   EXPECT_TRUE( trail.empty() ) << "not inside the setter";
   loop.idle();
   EXPECT_EQ( trail, told( { "a(Net)", "b(Net)", "c(Net)", "a(Boot)", "b(Boot)", "c(Boot)",
                             "a(Disk)", "b(Disk)", "c(Disk)", "a", "b", "c" } ) );
}

TEST_P( CollectionAttribute, TellsOfOneKeyWithoutTheDeferredCallback ) {
   auto const a = line.watch( *entity, trail, "a" );
   line.put( *entity, "Net", 0 );
   loop.idle();
   line.put( *entity, "Disk", 0 );
   loop.idle();
   line.del( *entity, "Net" );
   loop.idle();
   EXPECT_EQ( trail, told( { "a(Net)", "a(Disk)", "a(Net)" } ) );
}

TEST_P( CollectionAttribute, HasOneCallbackPendingPerReactorAndKeyInItsFirstPlace ) {
   auto const a = line.watch( *entity, trail, "a" );
   line.put( *entity, "Net", 0 );
   line.put( *entity, "Disk", 0 );
   line.del( *entity, "Net" );
   line.put( *entity, "Net", line.values() - 1 );
   line.del( *entity, "Disk" );
   EXPECT_EQ( a->pendingNotifications(), told( { "a(Net)", "a(Disk)", "a" } ).size() );
   loop.idle();
   EXPECT_EQ( trail, told( { "a(Net)", "a(Disk)", "a" } ) );
}

TEST_P( CollectionAttribute, TellsOfAMemberThatCameAndWent ) {
   auto const a = line.watch( *entity, trail, "a" );
   line.put( *entity, "Net", 0 );
   line.del( *entity, "Net" );
   loop.idle();
   EXPECT_EQ( trail, told( { "a(Net)" } ) );
   EXPECT_TRUE( line.absent( *entity, "Net" ) );
}

TEST_P( ReplaceableCollectionAttribute, TellsOfAReplacedMember ) {
   line.put( *entity, "Net", 0 );
   auto const a = line.watch( *entity, trail, "a" );
   line.put( *entity, "Net", 1 );
   loop.idle();
   EXPECT_EQ( trail, told( { "a(Net)" } ) );
}

TEST_P( CollectionAttribute, IsNotChangedByTheMemberItHolds ) {
   for( std::size_t value = 0; value != line.values(); ++value ) {
      line.put( *entity, "Net", value );
      auto const a = line.watch( *entity, trail, "a" );
      line.put( *entity, "Net", value );
      EXPECT_EQ( a->pendingNotifications(), 0U );
      loop.idle();
      EXPECT_TRUE( trail.empty() );
      EXPECT_TRUE( line.holds( *entity, "Net", value ) );
   }
}

TEST_P( CollectionAttribute, IsNotChangedByTheDeletionOfAnAbsentKey ) {
   line.put( *entity, "Net", 0 );
   auto const a = line.watch( *entity, trail, "a" );
   line.del( *entity, "Disk" );
   line.del( *entity, "" );
   EXPECT_EQ( a->pendingNotifications(), 0U );
   loop.idle();
   EXPECT_TRUE( trail.empty() );
   EXPECT_EQ( line.count( *entity ), 1U );
   line.del( *entity, "Net" );
   loop.idle();
   trail.clear();
   line.delAll( *entity );
   loop.idle();
   EXPECT_TRUE( trail.empty() ) << "nothing was left to delete";
}

TEST_P( CollectionAttribute, TellsOfEveryMemberWhenAllAreDeleted ) {
   for( char const * key : { "Net", "Boot", "Disk" } )
      line.put( *entity, key, 0 );
   auto const a = line.watch( *entity, trail, "a" );
   line.delAll( *entity );
   loop.idle();
   EXPECT_EQ( sorted( trail ), sorted( told( { "a(Net)", "a(Boot)", "a(Disk)", "a" } ) ) );
   if( line.notifies() )
      EXPECT_EQ( trail.back(), told( { "a" } )[ 0 ] ) << "the deferred one follows";
}

TEST_P( CollectionAttribute, MayBeLeftUnwatchedAndCallbacksMayBeLeftOut ) {
   line.put( *entity, "Net", 0 );
   auto const silent = line.watchSilently( *entity );
   line.put( *entity, "Disk", 0 );
   line.del( *entity, "Net" );
   EXPECT_EQ( silent->pendingNotifications(), told( { "s(Disk)", "s(Net)", "s" } ).size() );
   loop.idle();
   EXPECT_EQ( silent->pendingNotifications(), 0U );
   EXPECT_TRUE( line.holds( *entity, "Disk", 0 ) );
}

// -----------------------------------------------------------------------------------------
// iterators

TEST_P( CollectionAttribute, IsIteratedOverOnceEachInOneOrderByBothIterators ) {
   putAll();
   Trail const keys = line.iterated( *entity, nothing );
   EXPECT_EQ( sorted( keys ), sorted( KeyedLine::keys() ) );
   EXPECT_EQ( line.iteratedConst( *entity, nothing ), keys );
   auto const other = line.make();
   for( auto key = KeyedLine::keys().rbegin(); key != KeyedLine::keys().rend(); ++key )
      line.put( *other, *key, 0 );
   EXPECT_EQ( line.iterated( *other, nothing ), keys ) << "whatever the order of insertion";
}

TEST_P( CollectionAttribute, MayBeChangedWhileItIsIteratedOver ) {
   putAll();
   Trail const all = line.iterated( *entity, nothing );
   EXPECT_EQ(
      line.iterated( *entity, [ & ]( std::string const & key ) { line.del( *entity, key ); } ),
      all )
      << "each deletes itself";
   EXPECT_EQ( line.count( *entity ), 0U );

   putAll();
   EXPECT_EQ(
      line.iteratedConst( *entity, [ & ]( std::string const & ) { line.delAll( *entity ); } ),
      Trail{ all[ 0 ] } )
      << "the first deletes all";

   for( std::size_t n = 0; n != 3; ++n )
      line.put( *entity, all[ 10 * n ], 0 );
   Trail const seen = line.iterated( *entity, [ & ]( std::string const & ) { putAll(); } );
   EXPECT_EQ( seen, all ) << "the first adds all the others, which stand behind it";
}

INSTANTIATE_TEST_SUITE_P( Every, CollectionAttribute,
                          testing::ValuesIn( conformance::keyedLines() ),
                          []( auto const & tested ) { return tested.param->name(); } );
INSTANTIATE_TEST_SUITE_P( Every, ReplaceableCollectionAttribute,
                          testing::ValuesIn( ReplaceableCollectionAttribute::lines() ),
                          []( auto const & tested ) { return tested.param->name(); } );
