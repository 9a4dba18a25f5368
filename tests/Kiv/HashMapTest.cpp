// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include "../support/Memory.h"
#include "Maps.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <map>
#include <random>
#include <set>

using Kiv::Name;
using Kiv::Ptr;
using namespace testing_support;

namespace {

// The invariants that show from outside: the number of buckets and slots, the place of every
// member, the order over all.
template< class T >
void expectInvariants( Kiv::HashMap< T, Name > const & map ) {
   std::uint32_t const buckets = map.buckets();
   if( map.size() == 0 ) {
      EXPECT_EQ( buckets, 0U );
      EXPECT_EQ( map.slots(), 0U );
      return;
   }
   if( buckets == 1 ) {
      EXPECT_LE( map.slots(), 8U );
   } else {
      EXPECT_GE( buckets, 16U );
      EXPECT_EQ( buckets % ( std::bit_floor( buckets ) / 2 ), 0U ) << "no step of growth";
      EXPECT_LE( 8 * map.size(), 7 * buckets );
   }
   std::uint32_t count = 0;
   std::uint32_t behindFree = 0; // the first place after the last free one
   Name last;
   for( std::uint32_t place = 0; place != map.slots(); ++place ) {
      if( !map.taken( place ) ) {
         behindFree = place + 1;
         continue;
      }
      Name const here( map.keyAt( place ) );
      auto const bucket =
         static_cast< std::uint32_t >( std::uint64_t{ here.hash() } * buckets >> 32 );
      EXPECT_LE( bucket, place );
      EXPECT_LE( behindFree, bucket ) << "no free slot between a bucket and its members";
      EXPECT_TRUE( count == 0 || MapOrder()( last, here ) );
      last = here;
      ++count;
   }
   EXPECT_EQ( count, map.size() );
}

} // namespace

TEST( HashMap, IsEmptyWithoutATable ) {
   Map const map;
   EXPECT_EQ( map.size(), 0U );
   EXPECT_EQ( map.buckets(), 0U );
   EXPECT_FALSE( map.has( "a" ) );
   EXPECT_EQ( map.member( "a" ), nullptr );
   EXPECT_EQ( map.slots(), 0U );
   EXPECT_TRUE( keysOf( map ).empty() );
}

TEST( HashMap, FindsEveryMemberUnderItsKeyAndNothingUnderOthers ) {
   Map map;
   fill( map, 200 );
   EXPECT_EQ( map.size(), 200U );
   for( int n = 0; n != 200; ++n ) {
      ASSERT_TRUE( map.has( key( n ) ) );
      EXPECT_EQ( map.member( key( n ) )->number, n );
   }
   EXPECT_FALSE( map.has( key( 200 ) ) );
   EXPECT_EQ( map.member( key( 200 ) ), nullptr );
   EXPECT_FALSE( map.has( Name() ) );
}

TEST( HashMap, TakesAnyKeyTheEmptyOneToo ) {
   Map map;
   map.memberIs( Name(), new Member( 1 ) );
   map.memberIs( Name( std::string_view( "\0", 1 ) ), new Member( 2 ) );
   EXPECT_EQ( map.size(), 2U );
   EXPECT_EQ( map.member( Name() )->number, 1 );
   EXPECT_TRUE( map.memberDel( Name() ) );
   EXPECT_FALSE( map.has( Name() ) );
   EXPECT_EQ( map.size(), 1U );
}

TEST( HashMap, ReplacesTheMemberUnderAKeyThatIsThere ) {
   Map map;
   map.memberIs( "a", new Member( 1 ) );
   map.memberIs( "a", new Member( 2 ) );
   EXPECT_EQ( map.size(), 1U );
   EXPECT_EQ( map.member( "a" )->number, 2 );
   EXPECT_EQ( Member::alive, 1 ) << "the one replaced is released";
}

TEST( HashMap, HoldsItsMembersAndReleasesThemWhenTheyGo ) {
   ASSERT_EQ( Member::alive, 0 );
   {
      Map map;
      Ptr< Member > const held = new Member( 1 );
      map.memberIs( "a", held );
      EXPECT_EQ( held->references(), 2U );
      map.memberIs( "b", new Member( 2 ) );
      EXPECT_TRUE( map.memberDel( "a" ) );
      EXPECT_EQ( held->references(), 1U );
      map.memberIs( "c", new Member( 3 ) );
      EXPECT_EQ( Member::alive, 3 );
   }
   EXPECT_EQ( Member::alive, 0 );
}

TEST( HashMap, SaysWhetherThereWasAMemberToDelete ) {
   Map map;
   EXPECT_FALSE( map.memberDel( "a" ) );
   map.memberIs( "a", new Member );
   EXPECT_FALSE( map.memberDel( "b" ) );
   EXPECT_EQ( map.size(), 1U );
   EXPECT_TRUE( map.memberDel( "a" ) );
   EXPECT_FALSE( map.memberDel( "a" ) );
   EXPECT_EQ( map.size(), 0U );
}

TEST( HashMap, HoldsNumbersAndBoolsByValue ) {
   Kiv::HashMap< bool, Kiv::String8 > flags;
   flags.memberIs( "a", true );
   flags.memberIs( "b", false );
   EXPECT_TRUE( flags.member( "a" ) );
   EXPECT_FALSE( flags.member( "b" ) );
   EXPECT_TRUE( flags.has( "b" ) );
   EXPECT_FALSE( flags.member( "absent" ) );
   flags.memberIs( "b", true );
   EXPECT_TRUE( flags.member( "b" ) );
   EXPECT_EQ( flags.size(), 2U );
   Kiv::HashMap< double, Name > times;
   EXPECT_EQ( times.member( "absent" ), 0.0 );
   times.memberIs( "a", 1.5 );
   EXPECT_EQ( times.member( "a" ), 1.5 );
}

// ----------------------------------------------------------------------------- order and buckets

TEST( HashMap, KeepsMembersInOrderOfHashWhateverTheOrderOfInsertion ) {
   std::mt19937 random( 1 );
   std::vector< Name > keys;
   for( int n = 0; n != 100; ++n )
      keys.push_back( key( n ) );
   std::vector< Name > const expected = inMapOrder( keys );
   for( int round = 0; round != 20; ++round ) {
      std::shuffle( keys.begin(), keys.end(), random );
      Map map;
      for( Name const & k : keys )
         map.memberIs( k, new Member );
      EXPECT_EQ( keysOf( map ), expected );
   }
}

// They have the first buckets in common until the last of them is there.
TEST( HashMap, FindsMembersThatCameInTheOrderOfAWalk ) {
   Kiv::HashMap< int, Kiv::Name > walked, map;
   for( int i = 0; i != 3000; ++i )
      walked.memberIs( "member " + std::to_string( i ), i + 1 );
   int present = 0;
   for( auto i = walked.iterator(); i; ++i ) {
      map.memberIs( i.key(), i.value() );
      if( ++present % 97 != 0 )
         continue;
      int found = 0;
      for( auto j = walked.iterator(); j; ++j )
         found += map.member( j.key() ) == j.value();
      ASSERT_EQ( found, present );
      ASSERT_FALSE( map.has( "member " + std::to_string( 3000 + present ) ) );
   }
   auto i = walked.iterator();
   for( auto j = map.iterator(); j; ++j, ++i )
      ASSERT_EQ( i.key(), j.key() );
   EXPECT_FALSE( i );
}

TEST( HashMap, KeepsTheSameOrderWhateverWasThereBefore ) {
   Map map;
   fill( map, 1000 );
   for( int n = 10; n != 1000; ++n )
      map.memberDel( key( n ) );
   Map fresh;
   EXPECT_EQ( keysOf( map ), fill( fresh, 10 ) );
}

TEST( HashMap, KeepsKeysOfOneHashInOrderOfTheirBytes ) {
   std::vector< std::string > keys = keysOfOneHash();
   for( std::string const & k : keys )
      ASSERT_EQ( Name( k ).hash(), Name( keys[ 0 ] ).hash() ) << "the keys have lost their point";
   std::vector< Name > const expected( keys.begin(), keys.end() );
   std::mt19937 random( 1 );
   for( int round = 0; round != 20; ++round ) {
      std::shuffle( keys.begin(), keys.end(), random );
      Map map;
      for( std::string const & k : keys )
         map.memberIs( k, new Member );
      EXPECT_EQ( keysOf( map ), expected );
      expectInvariants( map );
   }
}

TEST( HashMap, TellsKeysOfOneHashApart ) {
   Map map;
   std::vector< std::string > const & keys = keysOfOneHash();
   for( std::size_t n = 0; n != keys.size(); n += 2 )
      map.memberIs( keys[ n ], new Member( static_cast< int >( n ) ) );
   for( std::size_t n = 0; n != keys.size(); ++n ) {
      EXPECT_EQ( map.has( keys[ n ] ), n % 2 == 0 );
      EXPECT_EQ( map.memberDel( keys[ n ] ), n % 2 == 0 );
   }
   EXPECT_EQ( map.size(), 0U );
}

TEST( HashMap, HasBucketsThatShareTheRangeOfHashesEvenly ) {
   Map map;
   for( int n = 0; n != 300; ++n ) {
      map.memberIs( key( n ), new Member );
      expectInvariants( map );
   }
   for( int n = 0; n != 300; ++n ) {
      map.memberDel( key( n ) );
      expectInvariants( map );
   }
}

TEST( HashMap, GrowsWithItsMembers ) {
   Map map;
   std::set< std::uint32_t > sizes;
   for( int n = 0; n != 1025; ++n ) {
      map.memberIs( key( n ), new Member );
      sizes.insert( map.buckets() );
   }
   EXPECT_EQ( sizes, ( std::set< std::uint32_t >{ 1, 16, 24, 32, 48, 64, 96, 128, 192, 256, 384,
                                                  512, 768, 1024, 1536 } ) );
   EXPECT_LE( map.slots(), 1536U + 32U ) << "few slots behind the last bucket";
}

TEST( HashMap, ShrinksWhenItsMembersGo ) {
   Map map;
   fill( map, 1024 );
   for( int n = 0; n != 1024; ++n ) {
      map.memberDel( key( n ) );
      if( map.size() != 0 )
         EXPECT_LE( map.buckets() == 1 ? map.slots() : map.buckets(), 4 * map.size() )
            << map.size();
   }
   EXPECT_EQ( map.buckets(), 0U );
}

// So that it costs each that goes the same to go, and not to move all others.
TEST( HashMap, ThatIsEmptiedInTheOrderOfItsWalkKeepsTheRestNearTheirBuckets ) {
   constexpr std::uint32_t all = 20000;
   Kiv::HashMap< int, Name > map;
   for( std::uint32_t n = 0; n != all; ++n )
      map.memberIs( key( static_cast< int >( n ) ), 1 );
   std::uint32_t const buckets = map.buckets();
   for( auto i = map.iterator(); map.size() > 1000; ++i )
      map.memberDel( i.key() );
   EXPECT_EQ( map.buckets(), buckets ) << "smaller, it would be full at one end";
   expectInvariants( map );
   std::uint32_t behind = 0;
   for( std::uint32_t place = 0; place != map.slots(); ++place ) {
      bool const away =
         map.taken( place ) && std::uint64_t{ map.keyAt( place ).hash() } * buckets >> 32 != place;
      behind = away ? behind + 1 : 0;
      ASSERT_LT( behind, 256U );
   }
   for( std::uint32_t n = 0; n != 500; ++n )
      map.memberIs( key( static_cast< int >( n ) ), 1 );
   while( map.size() > 255 )
      map.memberDel( map.iterator().key() );
   EXPECT_LE( map.buckets(), 4 * 256U ) << "few do not need much, wherever they stand";
   expectInvariants( map );
   while( map.size() != 0 )
      map.memberDel( map.iterator().key() );
   EXPECT_EQ( map.buckets(), 0U );
}

TEST( HashMap, OfAFewMembersHasOneBucketAndHardlyMoreSlotsThanMembers ) {
   Map map;
   for( int n = 0; n != 8; ++n ) {
      map.memberIs( key( n ), new Member );
      EXPECT_EQ( map.buckets(), 1U );
      EXPECT_EQ( map.slots(), std::bit_ceil( map.size() ) );
      expectInvariants( map );
   }
   map.memberIs( key( 8 ), new Member );
   EXPECT_EQ( map.buckets(), 16U );
   expectInvariants( map );
}

TEST( HashMap, TakesKeysWhoseHashesAreTheLeastAndTheHighest ) {
   std::vector< std::string > const & ends = keysAtTheEnds();
   std::vector< std::uint32_t > const hashes = { 0,           0,           1,          0xfffffffeU,
                                                 0xfffffffeU, 0xffffffffU, 0xffffffffU };
   for( std::size_t n = 0; n != ends.size(); ++n )
      ASSERT_EQ( Name( ends[ n ] ).hash(), hashes[ n ] ) << "the keys have lost their point";
   for( int others : { 0, 5, 100, 5000 } ) {
      Map map;
      fill( map, others );
      for( std::string const & k : ends )
         EXPECT_FALSE( map.has( k ) ) << k;
      for( std::size_t n = ends.size(); n-- > 0; )
         map.memberIs( ends[ n ], new Member( static_cast< int >( n ) ) );
      expectInvariants( map );
      std::vector< Name > const all = keysOf( map );
      EXPECT_EQ( all, inMapOrder( all ) );
      EXPECT_EQ( all.size(), map.size() );
      for( std::size_t n = 0; n != ends.size(); ++n ) {
         ASSERT_TRUE( map.has( ends[ n ] ) ) << ends[ n ];
         EXPECT_EQ( map.member( ends[ n ] )->number, static_cast< int >( n ) );
         EXPECT_TRUE( map.memberDel( ends[ n ] ) );
         EXPECT_FALSE( map.has( ends[ n ] ) );
         expectInvariants( map );
      }
      EXPECT_EQ( map.size(), static_cast< std::uint32_t >( others ) );
   }
}

TEST( HashMap, HasRoomBehindTheLastBucketForAllThatBelongIntoIt ) {
   Map map;
   std::vector< Name > const keys = keysOfTheLastBucket( 200 );
   for( std::size_t n = 0; n != keys.size(); ++n ) {
      map.memberIs( keys[ n ], new Member( static_cast< int >( n ) ) );
      expectInvariants( map );
      ASSERT_FALSE( HasFailure() ) << n;
   }
   EXPECT_EQ( map.buckets(), 256U ) << "no more than others would have";
   EXPECT_EQ( keysOf( map ), inMapOrder( keys ) );
   for( std::size_t n = 0; n != keys.size(); ++n ) {
      EXPECT_EQ( map.member( keys[ n ] )->number, static_cast< int >( n ) );
      EXPECT_TRUE( map.memberDel( keys[ n ] ) );
      expectInvariants( map );
      ASSERT_FALSE( HasFailure() ) << n;
   }
}

TEST( HashMap, GivesWhatIsTakenFromItToTheCaller ) {
   Map map;
   map.memberIs( "a", new Member( 1 ) );
   Ptr< Member > taken;
   EXPECT_FALSE( map.take( "b", taken ) );
   EXPECT_EQ( taken, nullptr );
   EXPECT_TRUE( map.take( "a", taken ) );
   ASSERT_NE( taken, nullptr );
   EXPECT_EQ( taken->number, 1 );
   EXPECT_EQ( taken->references(), 1U );
   EXPECT_EQ( map.size(), 0U );
}

TEST( HashMap, TakesAMemberOfItsOwnUnderAnotherKey ) {
   Map map;
   fill( map, 8 );
   map.memberIs( "again", *map.find( key( 3 ) ) ); // the table is made anew meanwhile
   EXPECT_EQ( map.member( "again" ), map.member( key( 3 ) ) );
   EXPECT_EQ( map.member( "again" )->references(), 3U ) << "two members and the one asked for";
}

TEST( HashMap, IsNotResizedByMembersThatComeAndGoAtOneSize ) {
   Map map;
   fill( map, 64 );
   std::uint32_t const buckets = map.buckets();
   testing_support::Memory memory;
   for( int n = 0; n != 100; ++n ) {
      map.memberDel( key( n ) );
      map.memberIs( key( n + 64 ), Ptr< Member >() );
      EXPECT_EQ( map.buckets(), buckets );
   }
   EXPECT_EQ( memory.allocations(), 200U ) << "two keys each time, no table";
}

TEST( HashMap, IsAlreadyEmptyWhenClearingDestroysItsMembers ) {
   struct Looking : Kiv::PtrInterface {
      explicit Looking( Kiv::HashMap< Looking, Name > & m, int & s ) : map( m ), seen( s ) {}
      ~Looking() override {
         EXPECT_EQ( map.size(), 0U );
         EXPECT_EQ( map.member( "a" ), nullptr );
         EXPECT_FALSE( map.iterator() );
         ++seen;
      }
      Kiv::HashMap< Looking, Name > & map;
      int & seen;
   };
   int seen = 0;
   Kiv::HashMap< Looking, Name > map;
   for( char const * k : { "a", "b", "c" } )
      map.memberIs( k, new Looking( map, seen ) );
   map.clear();
   EXPECT_EQ( seen, 3 );
   map.memberIs( "a", nullptr );
   EXPECT_EQ( map.size(), 1U ) << "it can be used again";
}

// ------------------------------------------------------------------------------ lack of memory

TEST( HashMap, IsUnchangedWhenThereIsNoMemoryForAMember ) {
   for( int count : { 0, 1, 2, 4, 8, 14, 28 } ) {
      Map map;
      std::vector< Name > const before = fill( map, count );
      Name const more = key( count );
      Ptr< Member > const member = new Member;
      testing_support::Memory memory;
      for( std::size_t failing = 0;; ++failing ) {
         memory.failAfter( failing );
         try {
            map.memberIs( more, member );
            memory.failNever();
            break;
         } catch( std::bad_alloc const & ) {
            EXPECT_EQ( keysOf( map ), before );
            EXPECT_EQ( member->references(), 1U );
            expectInvariants( map );
         }
      }
      EXPECT_GT( memory.failures(), 0U );
      EXPECT_EQ( map.size(), static_cast< std::uint32_t >( count ) + 1 );
      expectInvariants( map );
   }
}

TEST( HashMap, NeedsNoMemoryForAMemberForWhichRoomWasMade ) {
   for( int count : { 0, 1, 2, 3, 4, 8, 14, 28 } ) {
      Map map;
      fill( map, count );
      Name const more = key( count );
      map.reserve();
      testing_support::Memory memory;
      memory.failAfter( 0, testing_support::Memory::Failing::fromThenOn );
      map.insert( more, nullptr );
      EXPECT_EQ( memory.failures(), 0U );
      EXPECT_TRUE( map.has( more ) );
      expectInvariants( map );
   }
}

TEST( HashMap, IsMadeOnceForAllForWhichRoomWasMade ) {
   for( std::uint32_t const count : { 1U, 8U, 9U, 100U, 1000U } ) {
      Map grown;
      fill( grown, static_cast< int >( count ) );
      Map map;
      map.reserve( count );
      EXPECT_EQ( map.size(), 0U );
      std::uint32_t const buckets = map.buckets();
      EXPECT_EQ( buckets, grown.buckets() ) << "as many as it would have anyway";
      // In the order of a walk, which is the hardest.
      for( auto i = grown.iterator(); i; ++i ) {
         map.memberIs( i.key(), i.value() );
         EXPECT_EQ( map.buckets(), buckets );
      }
      map.reserve( count / 2 );
      EXPECT_EQ( map.buckets(), buckets );
      expectInvariants( map );
      EXPECT_EQ( keysOf( map ), keysOf( grown ) );
   }
}

TEST( HashMap, ForWhichRoomCannotBeMadeStaysAsItIs ) {
   Map map;
   fill( map, 5 );
   std::uint32_t const buckets = map.buckets();
   testing_support::Memory memory;
   memory.failAfter( 0 );
   EXPECT_THROW( map.reserve( 100 ), std::bad_alloc );
   EXPECT_EQ( map.size(), 5U );
   EXPECT_EQ( map.buckets(), buckets );
   expectInvariants( map );
}

TEST( HashMap, ThatCannotShrinkForLackOfMemoryStaysAsItIs ) {
   Map map;
   fill( map, 64 );
   std::vector< Name > left;
   {
      testing_support::Memory memory;
      memory.failAfter( 0, testing_support::Memory::Failing::fromThenOn );
      std::vector< Name > const keys = keysOf( map );
      for( std::size_t n = 0; n != 60; ++n )
         EXPECT_TRUE( map.memberDel( keys[ n ] ) );
      left.assign( keys.begin() + 60, keys.end() );
      EXPECT_EQ( map.buckets(), 96U );
      EXPECT_GT( memory.failures(), 0U );
   }
   EXPECT_EQ( keysOf( map ), left );
   EXPECT_TRUE( map.memberDel( left[ 0 ] ) );
   EXPECT_LT( map.buckets(), 96U ) << "it shrinks when there is memory again";
   expectInvariants( map );
}

// --------------------------------------------------------------------------- against std::map

TEST( HashMap, DoesWhatAnOrderedMapDoesInLongRandomSequences ) {
   for( unsigned seed = 1; seed <= 300; ++seed ) {
      std::mt19937 random( seed );
      int const range = 1 << ( 1 + random() % 9 );
      Map map;
      std::map< Name, int, MapOrder > model;
      for( int step = 0; step != 400; ++step ) {
         // Mostly adding, then mostly deleting: so that it grows and shrinks.
         bool const adding = random() % 10 < ( step / 100 % 2 == 0 ? 8U : 2U );
         int const n = static_cast< int >( random() % static_cast< unsigned >( range ) );
         Name const k = n % 16 == 0
                           ? Name( keysOfOneHash()[ static_cast< unsigned >( n / 16 ) % 8 ] )
                           : key( n );
         if( random() % 200 == 0 ) {
            map.clear();
            model.clear();
         } else if( adding ) {
            map.memberIs( k, new Member( step ) );
            model[ k ] = step;
         } else {
            ASSERT_EQ( map.memberDel( k ), model.erase( k ) == 1 );
         }
         ASSERT_EQ( map.size(), model.size() );
         ASSERT_EQ( map.has( k ), model.count( k ) == 1 );
      }
      auto expected = model.begin();
      for( auto i = map.iterator(); i; ++i, ++expected ) {
         ASSERT_NE( expected, model.end() );
         ASSERT_EQ( i.key(), expected->first );
         ASSERT_EQ( i.value()->number, expected->second );
      }
      ASSERT_EQ( expected, model.end() );
      expectInvariants( map );
      ASSERT_EQ( Member::alive, static_cast< int >( map.size() ) );
      ASSERT_FALSE( HasFailure() ) << "seed " << seed;
   }
}

// ---- what the framework itself owes a map

TEST( MapBaseDeathTest, AMemberWithoutRoomOrOfAKeyThatIsThereEndsTheProcess ) {
   testing::GTEST_FLAG( death_test_style ) = "threadsafe";
   Kiv::HashMap< double, Name > map;
   EXPECT_DEATH( map.insert( "a", 1 ), "invariant broken: room was made for a new member" );
   map.reserve();
   map.insert( "a", 1 );
   EXPECT_DEATH( map.insert( "a", 2 ), "invariant broken: a new member's key is new" );
   EXPECT_DEATH( map.insert( "b", 2 ), "invariant broken: room was made for a new member" );
}
