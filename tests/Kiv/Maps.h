// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// What the tests of maps share: keys, the order that a map promises, and counted members.
#pragma once

#include <Kiv/HashMap.h>

#include <algorithm>
#include <string>
#include <vector>

namespace testing_support {

// A member that is told apart by its number and counts those that are alive.
class Member : public Kiv::PtrInterface {
 public:
   explicit Member( int n = 0 ) : number( n ) { ++alive; }
   ~Member() override { --alive; }
   int const number;
   inline static int alive = 0;
};

using Map = Kiv::HashMap< Member, Kiv::Name >;

inline Kiv::Name key( int n ) { return Kiv::Name( "key" + std::to_string( n ) ); }

// Eight keys of one hash, in ascending order of their bytes.
inline std::vector< std::string > const & keysOfOneHash() {
   static std::vector< std::string > const keys = { "IHFP8hlMO1vJ", "IHFP8hlMkFjQ", "IHFPJ5MYO1vJ",
                                                    "IHFPJ5MYkFjQ", "U9nI8hlMO1vJ", "U9nI8hlMkFjQ",
                                                    "U9nIJ5MYO1vJ", "U9nIJ5MYkFjQ" };
   return keys;
}

// Keys whose hashes are the least and the highest, in the order of a map: tables keep a value of
// their own for slots without a member.
inline std::vector< std::string > const & keysAtTheEnds() {
   static std::vector< std::string > const keys = {
      "nmkuaaC3", "u2wgaamQ",                           // 0x00000000
      "1rziaaEN",                                       // 0x00000001
      "FSJ0aahQ", "KMRIaact", "4WF6aauQ", "pOWwaaBZ" }; // 0xfffffffe twice, 0xffffffff twice
   return keys;
}

// So many keys that begin with the same eight bits of hash, the highest: in tables of up to 256
// buckets they all belong into the last one.
inline std::vector< Kiv::Name > keysOfTheLastBucket( std::size_t count ) {
   std::vector< Kiv::Name > keys;
   for( int n = 0; keys.size() != count; ++n )
      if( Kiv::Name const k( "last" + std::to_string( n ) ); k.hash() >> 24 == 0xffU )
         keys.push_back( k );
   return keys;
}

// Whether a stands before b in every map.
struct MapOrder {
   bool operator()( Kiv::Name const & a, Kiv::Name const & b ) const {
      return a.hash() != b.hash() ? a.hash() < b.hash() : a.view() < b.view();
   }
};
inline std::vector< Kiv::Name > inMapOrder( std::vector< Kiv::Name > keys ) {
   std::sort( keys.begin(), keys.end(), MapOrder() );
   return keys;
}

// The keys of a map as its iterator gives them.
template< class T >
std::vector< Kiv::Name > keysOf( Kiv::HashMap< T, Kiv::Name > const & map ) {
   std::vector< Kiv::Name > keys;
   for( auto i = map.iterator(); i; ++i )
      keys.push_back( i.key() );
   return keys;
}

// Fills the map with key( 0 ) to key( count - 1 ), and returns these in the map's order.
inline std::vector< Kiv::Name > fill( Map & map, int count ) {
   std::vector< Kiv::Name > keys;
   for( int n = 0; n != count; ++n ) {
      map.memberIs( key( n ), new Member( n ) );
      keys.push_back( key( n ) );
   }
   return inMapOrder( keys );
}

} // namespace testing_support
