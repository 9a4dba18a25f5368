// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Maps and iterators against the plainest table that keeps the same promises: a sorted list, and
// iterators that know a key and look for the next one from the beginning.
#include "Maps.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <random>

using Kiv::Name;
using namespace testing_support;

namespace {

struct Entry {
   Name key;
   int number;
};

class Model {
 public:
   std::vector< Entry > entries;

   int const * find( Name const & key ) const {
      for( Entry const & e : entries )
         if( e.key == key )
            return &e.number;
      return nullptr;
   }
   void set( Name const & key, int number ) {
      for( Entry & e : entries )
         if( e.key == key ) {
            e.number = number;
            return;
         }
      auto place = entries.begin();
      while( place != entries.end() && MapOrder()( place->key, key ) )
         ++place;
      entries.insert( place, { key, number } );
   }
   bool del( Name const & key ) {
      return std::erase_if( entries, [ & ]( Entry const & e ) { return e.key == key; } ) != 0;
   }
   std::optional< Name > after( Name const & key ) const {
      for( Entry const & e : entries )
         if( MapOrder()( key, e.key ) )
            return e.key;
      return {};
   }
   std::optional< Name > first() const {
      return entries.empty() ? std::optional< Name >() : entries.front().key;
   }
};

// A map with its model. Ends when it is told to, before its iterators.
struct Both {
   std::unique_ptr< Map > map = std::make_unique< Map >();
   Model model;
};

struct Walk {
   Map::IteratorConst place;
   std::optional< Name > at; // none: at the end
   std::size_t of;           // which of the maps
   bool orphan = false;      // that map is gone
};

class Play {
 public:
   explicit Play( unsigned seed ) : random_( seed ), range_( 1U << ( 2 + below( 8 ) ) ) {
      static std::vector< Name > const last = keysOfTheLastBucket( 64 );
      last_ = &last;
   }
   void step() {
      Both & both = both_[ below( 2 ) ];
      switch( below( 12 ) ) {
      case 0:
      case 1:
      case 2:
      case 3:
         add( both );
         break;
      case 4:
      case 5:
         del( both );
         break;
      case 6:
         begin();
         break;
      case 7:
      case 8:
      case 9:
         if( !walks_.empty() )
            advance( walks_[ below( walks_.size() ) ] );
         break;
      case 10:
         copyOrEnd();
         break;
      default:
         if( below( 40 ) == 0 )
            empty( below( 2 ) );
      }
      compare();
   }

 private:
   std::size_t below( std::size_t n ) { return random_() % n; }

   Name randomKey() {
      std::size_t const n = below( range_ );
      switch( n % 8 ) {
      case 0:
         return keysOfOneHash()[ n / 8 % 8 ];
      case 1:
         return keysAtTheEnds()[ n / 8 % keysAtTheEnds().size() ];
      case 2:
         return ( *last_ )[ n / 8 % last_->size() ];
      default:
         return key( static_cast< int >( n ) );
      }
   }

   void add( Both & both ) {
      Name const k = randomKey();
      both.map->memberIs( k, new Member( ++number_ ) );
      both.model.set( k, number_ );
   }
   void del( Both & both ) {
      Name const k = randomKey();
      // At times what a walk stands at.
      Name const gone = below( 2 ) && !walks_.empty() && walks_[ 0 ].at ? *walks_[ 0 ].at : k;
      ASSERT_EQ( both.map->memberDel( gone ), both.model.del( gone ) );
   }
   void begin() {
      std::size_t const of = below( 2 );
      Walk walk{ both_[ of ].map->iterator(), both_[ of ].model.first(), of };
      if( walks_.size() < 12 )
         walks_.push_back( walk );
      else
         walks_[ below( walks_.size() ) ] = walk;
   }
   void advance( Walk & walk ) {
      if( below( 20 ) == 0 ) {
         walk.place.reset();
         walk.at = walk.orphan ? std::nullopt : both_[ walk.of ].model.first();
         return;
      }
      walk.place.advance();
      if( walk.at )
         walk.at = walk.orphan ? std::nullopt : both_[ walk.of ].model.after( *walk.at );
   }
   void copyOrEnd() {
      if( walks_.empty() )
         return;
      std::size_t const to = below( walks_.size() );
      if( below( 3 ) == 0 )
         walks_.erase( walks_.begin() + static_cast< std::ptrdiff_t >( to ) );
      else
         walks_[ to ] = walks_[ below( walks_.size() ) ];
   }
   void empty( std::size_t of ) {
      if( below( 2 ) ) {
         both_[ of ].map->clear();
      } else {
         both_[ of ].map = std::make_unique< Map >();
         for( Walk & walk : walks_ )
            walk.orphan = walk.orphan || walk.of == of;
      }
      both_[ of ].model.entries.clear();
   }

   void compare() {
      for( Both const & both : both_ )
         ASSERT_EQ( both.map->size(), both.model.entries.size() );
      for( Walk const & walk : walks_ ) {
         ASSERT_EQ( static_cast< bool >( walk.place ), walk.at.has_value() );
         if( !walk.at )
            continue;
         ASSERT_EQ( walk.place.key(), *walk.at );
         int const * const there = walk.orphan ? nullptr : both_[ walk.of ].model.find( *walk.at );
         auto const value = walk.place.value();
         ASSERT_EQ( value != nullptr, there != nullptr );
         if( there )
            ASSERT_EQ( value->number, *there );
      }
      if( below( 16 ) == 0 )
         for( Both const & both : both_ ) {
            auto expected = both.model.entries.begin();
            for( auto i = both.map->iterator(); i; ++i, ++expected ) {
               ASSERT_EQ( i.key(), expected->key );
               ASSERT_EQ( i.value()->number, expected->number );
            }
            ASSERT_EQ( expected, both.model.entries.end() );
         }
      std::size_t alive = 0;
      for( Both const & both : both_ )
         alive += both.model.entries.size();
      ASSERT_EQ( static_cast< std::size_t >( Member::alive ), alive );
   }

   std::mt19937 random_;
   std::size_t range_;
   std::vector< Name > const * last_;
   Both both_[ 2 ];
   std::vector< Walk > walks_;
   int number_ = 0;
};

} // namespace

TEST( HashMapModel, MapsAndTheirIteratorsDoWhatAPlainListDoesInLongRandomSequences ) {
   for( unsigned seed = 1; seed <= 300; ++seed ) {
      Play play( seed );
      for( int n = 0; n != 400; ++n ) {
         play.step();
         ASSERT_FALSE( HasFailure() ) << "seed " << seed << ", step " << n;
      }
   }
}

// Thousands of members: look-ups in tables of that size go another way.
TEST( HashMapModel, ALargeMapFindsEveryMemberAndNothingElse ) {
   std::mt19937 random( 1 );
   Map map;
   std::vector< Name > keys;
   for( int n = 0; n != 12000; ++n )
      keys.push_back( key( n ) );
   for( std::string const & k : keysOfOneHash() )
      keys.push_back( k );
   for( std::string const & k : keysAtTheEnds() )
      keys.push_back( k );
   for( Name const & k : keysOfTheLastBucket( 500 ) )
      keys.push_back( k );
   std::shuffle( keys.begin(), keys.end(), random );
   std::size_t const filed = keys.size() / 2;
   for( std::size_t n = 0; n != filed; ++n )
      map.memberIs( keys[ n ], new Member( static_cast< int >( n ) ) );
   ASSERT_GE( map.buckets(), 4096U );
   for( int round = 0; round != 2; ++round )
      for( std::size_t n = 0; n != keys.size(); ++n ) {
         // The name that was filed, and one that was made elsewhere.
         Name const asked = round == 0 ? keys[ n ] : Name( keys[ n ].str() );
         auto const member = map.member( asked );
         ASSERT_EQ( member != nullptr, n < filed ) << asked;
         if( member )
            ASSERT_EQ( member->number, static_cast< int >( n ) );
      }
   for( std::size_t n = 0; n != keys.size(); ++n )
      ASSERT_EQ( map.memberDel( keys[ n ] ), n < filed );
   EXPECT_EQ( map.slots(), 0U );
}
