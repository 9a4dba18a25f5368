// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Keyed collections. An operation is one look-up, insertion, removal or step.
#include <support/Table.h>

#include <Kiv/Kiv.h>

#include <algorithm>
#include <memory>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace Bench {

namespace {

using KivMap = Kiv::HashMap< double, Kiv::Name >;
using StdMap = std::unordered_map< std::string, double >;

std::vector< std::string > texts( int count, char const * prefix ) {
   std::vector< std::string > all;
   for( int i = 0; i != count; ++i )
      all.push_back( prefix + std::to_string( i ) );
   Random random;
   for( std::size_t i = all.size(); i > 1; --i )
      std::swap( all[ i - 1 ], all[ random.next() % i ] );
   return all;
}

std::vector< Kiv::Name > names( int count, char const * prefix ) {
   std::vector< Kiv::Name > all;
   for( std::string const & text : texts( count, prefix ) )
      all.push_back( text );
   return all;
}

void fill( KivMap & map, std::vector< Kiv::Name > const & keys ) {
   for( Kiv::Name const & key : keys )
      map.memberIs( key, 1.0 );
}
StdMap filled( std::vector< std::string > const & keys ) {
   StdMap map;
   for( std::string const & key : keys )
      map.emplace( key, 1.0 );
   return map;
}

void find( int count, char const * wanted, char const * means ) {
   std::string const what = means + std::to_string( count );
   subject( what, [ count, wanted ]( benchmark::State & state ) {
      KivMap map;
      fill( map, names( count, "Stage" ) );
      auto const key = names( count, wanted );
      measure( state, count, [ & ] {
         for( Kiv::Name const & k : key )
            benchmark::DoNotOptimize( map.find( k ) );
      } );
   } );
   control( what, "std::unordered_map", [ count, wanted ]( benchmark::State & state ) {
      StdMap const map = filled( texts( count, "Stage" ) );
      auto const key = texts( count, wanted );
      measure( state, count, [ & ] {
         for( std::string const & k : key )
            benchmark::DoNotOptimize( map.find( k ) );
      } );
   } );
}

void fillAndEmpty( int count ) {
   std::string const what = "insert " + std::to_string( count ) + ", then erase them";
   subject( what, [ count ]( benchmark::State & state ) {
      KivMap map;
      auto const key = names( count, "Stage" );
      measure( state, 2 * count, [ & ] {
         fill( map, key );
         for( Kiv::Name const & k : key )
            map.memberDel( k );
      } );
   } );
   control( what, "std::unordered_map", [ count ]( benchmark::State & state ) {
      StdMap map;
      auto const key = texts( count, "Stage" );
      measure( state, 2 * count, [ & ] {
         for( std::string const & k : key )
            map.emplace( k, 1.0 );
         for( std::string const & k : key )
            map.erase( k );
      } );
   } );
}

void replaceOne( int count ) {
   std::string const what = "erase one, insert it again, of " + std::to_string( count );
   subject( what, [ count ]( benchmark::State & state ) {
      KivMap map;
      auto const key = names( count, "Stage" );
      fill( map, key );
      measure( state, 2 * count, [ & ] {
         for( Kiv::Name const & k : key ) {
            map.memberDel( k );
            map.memberIs( k, 2.0 );
         }
      } );
   } );
   control( what, "std::unordered_map", [ count ]( benchmark::State & state ) {
      auto const key = texts( count, "Stage" );
      StdMap map = filled( key );
      measure( state, 2 * count, [ & ] {
         for( std::string const & k : key ) {
            map.erase( k );
            map.emplace( k, 2.0 );
         }
      } );
   } );
}

void iterate( int count ) {
   std::string const what = "iterate over " + std::to_string( count );
   subject( what, [ count ]( benchmark::State & state ) {
      KivMap map;
      fill( map, names( count, "Stage" ) );
      measure( state, count, [ & ] {
         double sum = 0;
         for( auto i = map.iterator(); i; ++i )
            sum += i.value();
         benchmark::DoNotOptimize( sum );
      } );
   } );
   control( what, "std::unordered_map", [ count ]( benchmark::State & state ) {
      StdMap const map = filled( texts( count, "Stage" ) );
      measure( state, count, [ & ] {
         double sum = 0;
         for( auto const & [ key, value ] : map )
            sum += value;
         benchmark::DoNotOptimize( sum );
      } );
   } );
}

// -------------------------------------------------------------------- counted objects by Name

class Thing : public Kiv::PtrInterface {};

struct Things {
   explicit Things( int count ) : name( names( count, "Stage" ) ) {
      for( Kiv::Name const & n : name )
         map.memberIs( n, Kiv::Ptr< Thing >( new Thing ) );
   }
   std::vector< Kiv::Name > name;
   Kiv::HashMap< Thing, Kiv::Name > map;
};

// Interned names: each text exists once, and its address stands for it.
class Interned {
 public:
   std::string const * intern( std::string const & text ) { return &*text_.insert( text ).first; }

 private:
   std::unordered_set< std::string > text_;
};

// A table by address: open addressing, at most half full.
class AddressTable {
 public:
   explicit AddressTable( std::size_t count ) {
      while( ( std::size_t{ 1 } << log2_ ) < 2 * count )
         ++log2_;
      slot_.resize( std::size_t{ 1 } << log2_ );
   }
   void insert( std::string const * name, int * thing ) {
      slot_[ place( name ) ] = { name, thing };
   }
   int * find( std::string const * name ) const { return slot_[ place( name ) ].thing; }

 private:
   struct Slot {
      std::string const * name = nullptr;
      int * thing = nullptr;
   };
   std::size_t place( std::string const * name ) const {
      auto const address = reinterpret_cast< std::uintptr_t >( name );
      std::uint64_t const mixed = std::uint64_t{ address } * 0x9e3779b97f4a7c15U;
      auto at = static_cast< std::size_t >( mixed >> ( 64 - log2_ ) );
      while( slot_[ at ].name && slot_[ at ].name != name )
         at = ( at + 1 ) & ( slot_.size() - 1 );
      return at;
   }
   unsigned log2_ = 1;
   std::vector< Slot > slot_;
};

struct InternedThings {
   explicit InternedThings( int count )
      : text( texts( count, "Stage" ) ), table( text.size() ), thing( text.size() ) {
      for( std::size_t i = 0; i != text.size(); ++i ) {
         name.push_back( interned.intern( text[ i ] ) );
         table.insert( name[ i ], &thing[ i ] );
         map.emplace( name[ i ], &thing[ i ] );
      }
   }
   std::vector< std::string > text;
   Interned interned;
   std::vector< std::string const * > name;
   AddressTable table;
   std::unordered_map< std::string const *, int * > map;
   std::vector< int > thing;
};

// The names that ask are the very ones under which the objects were filed.
void byName( int count ) {
   std::string const what = "object by its Name, of " + std::to_string( count );
   subject( what, [ count ]( benchmark::State & state ) {
      Things const things( count );
      measure( state, count, [ & ] {
         for( Kiv::Name const & n : things.name )
            benchmark::DoNotOptimize( things.map.member( n ).get() );
      } );
   } );
   control( what, "interned, open addressing", [ count ]( benchmark::State & state ) {
      InternedThings const things( count );
      measure( state, count, [ & ] {
         for( std::string const * n : things.name )
            benchmark::DoNotOptimize( things.table.find( n ) );
      } );
   } );
   control( what, "interned, unordered_map", [ count ]( benchmark::State & state ) {
      InternedThings const things( count );
      measure( state, count, [ & ] {
         for( std::string const * n : things.name )
            benchmark::DoNotOptimize( things.map.find( n )->second );
      } );
   } );
}

// The names that ask were made apart: equal bytes at another place.
void byEqualName( int count ) {
   std::string const what = "object by an equal Name, of " + std::to_string( count );
   subject( what, [ count ]( benchmark::State & state ) {
      Things const things( count );
      auto const asked = names( count, "Stage" );
      measure( state, count, [ & ] {
         for( Kiv::Name const & n : asked )
            benchmark::DoNotOptimize( things.map.member( n ).get() );
      } );
   } );
   control( what, "intern, open addressing", [ count ]( benchmark::State & state ) {
      InternedThings things( count );
      measure( state, count, [ & ] {
         for( std::string const & t : things.text )
            benchmark::DoNotOptimize( things.table.find( things.interned.intern( t ) ) );
      } );
   } );
}

// And the names are made from text first.
void byText( int count ) {
   std::string const what = "object by text, of " + std::to_string( count );
   subject( what, [ count ]( benchmark::State & state ) {
      Things const things( count );
      auto const text = texts( count, "Stage" );
      measure( state, count, [ & ] {
         for( std::string const & t : text )
            benchmark::DoNotOptimize( things.map.member( t ).get() );
      } );
   } );
   control( what, "intern, open addressing", [ count ]( benchmark::State & state ) {
      InternedThings things( count );
      measure( state, count, [ & ] {
         for( std::string const & t : things.text )
            benchmark::DoNotOptimize( things.table.find( things.interned.intern( t ) ) );
      } );
   } );
}

} // namespace

void benchmarks() {
   for( int count : { 100, 10000 } ) {
      find( count, "Stage", "find, of " );
      find( count, "Absent", "find what is absent, of " );
      fillAndEmpty( count );
      replaceOne( count );
      iterate( count );
      byName( count );
      byEqualName( count );
      byText( count );
   }
}

} // namespace Bench
