// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Iterators survive every change of the map that they go over.
#include "../support/Memory.h"
#include "Maps.h"

#include <gtest/gtest.h>

#include <list>
#include <map>
#include <memory>
#include <random>
#include <set>

using Kiv::Name;
using Kiv::Ptr;
using namespace testing_support;

namespace {

using Keys = std::vector< Name >;

// Visits the whole map and calls `change` at every member.
template< class Change >
Keys visited( Map const & map, Change change ) {
   Keys keys;
   for( auto i = map.iterator(); i; ++i ) {
      keys.push_back( i.key() );
      change( i );
   }
   return keys;
}

bool noneTwice( Keys const & keys ) {
   return std::set< Name, MapOrder >( keys.begin(), keys.end() ).size() == keys.size();
}

} // namespace

TEST( HashMapIterator, VisitsEveryMemberOnceInOrderAndThenHasNoBookmark ) {
   for( int count : { 0, 1, 2, 3, 100 } ) {
      Map map;
      Keys const expected = fill( map, count );
      auto i = map.iterator();
      for( Name const & k : expected ) {
         ASSERT_TRUE( i );
         EXPECT_TRUE( i.hasBookmark() );
         EXPECT_EQ( i.key(), k );
         EXPECT_EQ( i.value(), map.member( k ) );
         EXPECT_EQ( i.ptr(), i.value() );
         i.advance();
      }
      EXPECT_FALSE( i );
      EXPECT_FALSE( i.hasBookmark() );
      i.advance();
      EXPECT_FALSE( i ) << "the end is the end";
   }
}

TEST( HashMapIterator, WithoutAMapHasNoBookmark ) {
   Map::IteratorConst i;
   EXPECT_FALSE( i );
   EXPECT_FALSE( i.hasBookmark() );
   i.advance();
   EXPECT_FALSE( i );
}

TEST( HashMapIterator, StartsAnewWhenItIsReset ) {
   Map map;
   Keys const expected = fill( map, 3 );
   auto i = map.iterator();
   ++i;
   i.reset();
   EXPECT_EQ( i.key(), expected[ 0 ] );
   for( ; i; ++i ) {
   }
   map.memberDel( expected[ 0 ] );
   i.reset();
   EXPECT_EQ( i.key(), expected[ 1 ] );
}

TEST( HashMapIterator, CopiedGoesOnByItself ) {
   Map map;
   Keys const expected = fill( map, 3 );
   auto i = map.iterator();
   auto j = i;
   ++i;
   EXPECT_EQ( i.key(), expected[ 1 ] );
   EXPECT_EQ( j.key(), expected[ 0 ] );
   j = i;
   EXPECT_EQ( j.key(), expected[ 1 ] );
}

TEST( HashMapIterator, SurvivesTheDeletionOfTheMemberItStandsAt ) {
   Map map;
   Keys const expected = fill( map, 100 );
   EXPECT_EQ( visited( map,
                       [ & ]( auto & i ) {
                          EXPECT_TRUE( map.memberDel( i.key() ) );
                          EXPECT_TRUE( i ) << "it still stands at a place";
                          EXPECT_EQ( i.value(), nullptr ) << "but the member is gone";
                       } ),
              expected );
   EXPECT_EQ( map.size(), 0U );
}

TEST( HashMapIterator, KeepsTheKeyOfAMemberThatIsGone ) {
   Map map;
   map.memberIs( "only", new Member );
   auto const i = map.iterator();
   map.clear();
   EXPECT_EQ( i.key(), Name( "only" ) );
   EXPECT_EQ( i.value(), nullptr );
   map.memberIs( "only", new Member( 2 ) );
   EXPECT_EQ( i.value()->number, 2 ) << "what stands under the key now";
}

TEST( HashMapIterator, DoesNotVisitAMemberThatWasDeletedBeforeItsTurn ) {
   Map map;
   Keys const all = fill( map, 100 );
   Keys expected;
   for( std::size_t n = 0; n < all.size(); n += 2 )
      expected.push_back( all[ n ] );
   std::size_t at = 0;
   EXPECT_EQ( visited( map,
                       [ & ]( auto & ) {
                          map.memberDel( all[ at + 1 ] );
                          at += 2;
                       } ),
              expected );
}

TEST( HashMapIterator, EndsWhenAllMembersAreDeletedOnTheWay ) {
   for( bool byClear : { false, true } ) {
      Map map;
      Keys const all = fill( map, 50 );
      EXPECT_EQ( visited( map,
                          [ & ]( auto & ) {
                             if( byClear )
                                map.clear();
                             else
                                for( Name const & k : all )
                                   map.memberDel( k );
                          } ),
                 Keys{ all[ 0 ] } );
   }
}

TEST( HashMapIterator, VisitsThoseThatStayOnceWhileTheMapGrows ) {
   Map map;
   Keys const all = fill( map, 20 );
   std::uint32_t const buckets = map.buckets();
   int next = 1000;
   Keys const seen = visited( map, [ & ]( auto & ) {
      for( int n = 0; n != 20 && next != 1400; ++n )
         map.memberIs( key( next++ ), new Member );
   } );
   EXPECT_GT( map.buckets(), buckets );
   EXPECT_TRUE( noneTwice( seen ) );
   for( Name const & k : all )
      EXPECT_EQ( std::count( seen.begin(), seen.end(), k ), 1 ) << k;
   EXPECT_EQ( seen, inMapOrder( seen ) );
}

TEST( HashMapIterator, VisitsThoseThatStayOnceWhileTheMapShrinks ) {
   Map map;
   Keys const staying = fill( map, 10 );
   for( int n = 1000; n != 2000; ++n )
      map.memberIs( key( n ), new Member );
   std::uint32_t const buckets = map.buckets();
   Keys const seen = visited( map, [ & ]( auto & i ) {
      for( int n = 1000; n != 2000; ++n )
         if( key( n ) != i.key() )
            map.memberDel( key( n ) );
   } );
   EXPECT_LT( map.buckets(), buckets );
   for( Name const & k : staying )
      EXPECT_EQ( std::count( seen.begin(), seen.end(), k ), 1 ) << k;
}

TEST( HashMapIterator, SurvivesTheReplacementOfTheMemberItStandsAt ) {
   Map map;
   Keys const all = fill( map, 10 );
   EXPECT_EQ( visited( map,
                       [ & ]( auto & i ) {
                          map.memberIs( i.key(), new Member( 77 ) );
                          EXPECT_EQ( i.value()->number, 77 );
                       } ),
              all );
}

TEST( HashMapIterator, GoesOnFromAMemberThatWasDeletedAndAddedAgain ) {
   Map map;
   Keys const all = fill( map, 10 );
   EXPECT_EQ( visited( map,
                       [ & ]( auto & i ) {
                          Name const k = i.key();
                          map.memberDel( k );
                          map.memberIs( k, new Member );
                       } ),
              all );
}

TEST( HashMapIterator, GoesThroughKeysOfOneHashOneByOneWhateverIsDeleted ) {
   std::vector< std::string > const & names = keysOfOneHash();
   Keys const all( names.begin(), names.end() );
   for( std::size_t deleted = 0; deleted != all.size(); ++deleted )
      for( std::size_t when = 0; when != all.size(); ++when ) {
         Map map;
         for( Name const & k : all )
            map.memberIs( k, new Member );
         Keys expected = all;
         if( deleted > when )
            expected.erase( expected.begin() + static_cast< std::ptrdiff_t >( deleted ) );
         std::size_t at = 0;
         EXPECT_EQ( visited( map,
                             [ & ]( auto & ) {
                                if( at++ == when )
                                   map.memberDel( all[ deleted ] );
                             } ),
                    expected )
            << deleted << " deleted at " << when;
      }
}

TEST( HashMapIterator, VisitsAMemberOfTheSameHashThatIsAddedAheadOfIt ) {
   std::vector< std::string > const & names = keysOfOneHash();
   Map map;
   map.memberIs( names[ 3 ], new Member );
   EXPECT_EQ( visited( map,
                       [ & ]( auto & i ) {
                          if( i.key() == Name( names[ 3 ] ) ) {
                             map.memberDel( names[ 3 ] );
                             map.memberIs( names[ 5 ], new Member );
                             map.memberIs( names[ 1 ], new Member );
                          }
                       } ),
              ( Keys{ names[ 3 ], names[ 5 ] } ) )
      << "one behind it is past its turn";
}

// ------------------------------------------------------------- many iterators, and none of a map

TEST( HashMapIterator, OfWhichThereAreManyGoesOnByItselfWhateverIsDeletedAndAdded ) {
   Map map;
   Keys const all = fill( map, 60 );
   std::vector< Map::IteratorConst > places;
   for( auto i = map.iterator(); i; ++i )
      places.push_back( i ); // moved in memory many times while the vector grows
   for( std::size_t n = 0; n < all.size(); n += 3 )
      map.memberDel( all[ n ] );
   for( std::size_t n = 0; n != all.size(); ++n ) {
      EXPECT_EQ( places[ n ].key(), all[ n ] );
      EXPECT_EQ( places[ n ].value(), map.member( all[ n ] ) );
   }
   places.erase( places.begin() + 10, places.begin() + 20 ); // some end between the others
   for( int n = 0; n != 200; ++n )
      map.memberIs( key( 1000 + n ), nullptr );
   for( int n = 0; n != 200; ++n )
      map.memberDel( key( 1000 + n ) );
   for( std::size_t n = 0; n != places.size(); ++n ) {
      std::size_t next = ( n < 10 ? n : n + 10 ) + 1;
      next += next % 3 == 0; // deleted
      ++places[ n ];
      ASSERT_EQ( static_cast< bool >( places[ n ] ), next < all.size() );
      if( places[ n ] )
         EXPECT_EQ( places[ n ].key(), all[ next ] );
   }
}

TEST( HashMapIterator, WhoseMemberWasRemovedAndAddedAgainStandsAtTheNewOne ) {
   for( int others : { 0, 6, 7, 8, 40 } ) {
      Map map;
      Keys const all = fill( map, others + 1 );
      for( std::size_t at = 0; at != all.size(); ++at ) {
         auto i = map.iterator();
         for( std::size_t n = 0; n != at; ++n )
            ++i;
         map.memberDel( all[ at ] );
         EXPECT_EQ( i.value(), nullptr );
         for( int n = 0; n != 20; ++n ) // the table grows, and shrinks again
            map.memberIs( key( 1000 + n ), nullptr );
         for( int n = 0; n != 20; ++n )
            map.memberDel( key( 1000 + n ) );
         map.memberIs( all[ at ], new Member( 77 ) );
         EXPECT_EQ( i.key(), all[ at ] );
         ASSERT_NE( i.value(), nullptr );
         EXPECT_EQ( i.value()->number, 77 );
         ++i;
         ASSERT_EQ( static_cast< bool >( i ), at + 1 < all.size() );
         if( i )
            EXPECT_EQ( i.key(), all[ at + 1 ] );
      }
   }
}

TEST( HashMapIterator, OutlivesItsMapAtItsKeyWhereNoMemberIsAndGoesToTheEnd ) {
   auto map = std::make_unique< Map >();
   Keys const all = fill( *map, 3 );
   auto standing = map->iterator();
   auto last = map->iterator();
   ++last;
   ++last;
   auto atNone = map->iterator();
   map->memberDel( all[ 0 ] );
   auto ended = map->iterator();
   ++ended;
   ++ended;
   auto copy = standing;
   map.reset();
   EXPECT_EQ( Member::alive, 0 );
   for( auto * i : { &standing, &atNone, &copy } ) {
      EXPECT_TRUE( *i );
      EXPECT_EQ( i->key(), all[ 0 ] );
      EXPECT_EQ( i->value(), nullptr );
      ++*i;
      EXPECT_FALSE( *i );
   }
   EXPECT_EQ( last.key(), all[ 2 ] );
   last.reset();
   EXPECT_FALSE( last );
   EXPECT_FALSE( ended );
   ++ended;
   EXPECT_FALSE( ended );
}

TEST( HashMapIterator, MayBeAssignedOneOfAnotherMap ) {
   auto first = std::make_unique< Map >();
   Map second;
   Keys const all = fill( *first, 3 );
   second.memberIs( "other", new Member( 7 ) );
   auto i = first->iterator();
   i = second.iterator();
   first.reset(); // is none of its business any more
   EXPECT_EQ( i.value()->number, 7 );
   second.memberDel( "other" );
   EXPECT_EQ( i.value(), nullptr );
   EXPECT_EQ( i.key(), Name( "other" ) );
   i = Map::IteratorConst();
   EXPECT_FALSE( i );
   i.reset();
   EXPECT_FALSE( i );
}

TEST( HashMapIterator, NeedsNoMemoryWhateverHappensToItsMap ) {
   Map map;
   Keys const all = fill( map, 100 );
   testing_support::Memory memory;
   for( auto i = map.iterator(); i; ++i )
      map.memberDel( i.key() );
   EXPECT_EQ( map.size(), 0U );
   EXPECT_LE( memory.allocations(), 8U ) << "tables that shrink, nothing else";
}

// ----------------------------------------------------------------------------------- at random

namespace {

// An iterator under way, with what it has to visit and what it must not.
struct Walk {
   Map::IteratorConst place;
   Name at;
   std::set< Name, MapOrder > due; // present since the walk began and not visited
   Keys seen;
};

} // namespace

TEST( HashMapIterator, KeepsItsPromisesWhileOthersAndTheMapChangeAtRandom ) {
   for( unsigned seed = 1; seed <= 200; ++seed ) {
      std::mt19937 random( seed );
      unsigned const range = 1U << ( 2 + random() % 7 );
      Map map;
      std::set< Name, MapOrder > present;
      std::list< Walk > walks;
      auto const randomKey = [ & ] {
         auto const n = static_cast< unsigned >( random() % range );
         return n % 8 == 0 ? Name( keysOfOneHash()[ n / 8 % 8 ] ) : key( static_cast< int >( n ) );
      };
      for( int step = 0; step != 600; ++step ) {
         Name const k = randomKey();
         switch( random() % 8 ) {
         case 0: // a walk begins
            if( walks.size() < 8 ) {
               Walk walk{ map.iterator(), {}, present, {} };
               ASSERT_EQ( static_cast< bool >( walk.place ), !present.empty() );
               if( walk.place ) {
                  walk.seen.push_back( walk.place.key() );
                  walk.due.erase( walk.place.key() );
                  walks.push_back( std::move( walk ) );
               }
            }
            break;
         case 1:
         case 2:
         case 3: // a walk takes a step
            if( !walks.empty() ) {
               auto walk = walks.begin();
               std::advance( walk, random() % walks.size() );
               Name const before = walk->place.key();
               walk->place.advance();
               auto const expected = present.upper_bound( before );
               ASSERT_EQ( static_cast< bool >( walk->place ), expected != present.end() );
               if( !walk->place ) {
                  ASSERT_TRUE( walk->due.empty() ) << "seed " << seed << ": not visited";
                  walks.erase( walk );
                  break;
               }
               ASSERT_EQ( walk->place.key(), *expected ) << "seed " << seed;
               ASSERT_EQ( walk->place.value(), map.member( *expected ) );
               walk->due.erase( walk->place.key() );
               walk->seen.push_back( walk->place.key() );
               ASSERT_TRUE( noneTwice( walk->seen ) ) << "seed " << seed;
            }
            break;
         case 4:
         case 5:
            if( random() % 50 == 0 ) {
               map.clear();
               present.clear();
               for( Walk & walk : walks )
                  walk.due.clear();
            } else {
               map.memberDel( k );
               present.erase( k );
               for( Walk & walk : walks )
                  walk.due.erase( k );
            }
            break;
         default:
            map.memberIs( k, new Member );
            present.insert( k );
         }
      }
   }
}
