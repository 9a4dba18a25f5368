// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Keyed collections. An operation is one look-up, insertion, removal or step.
//
// Small tables are asked for their members thousands of times in an order that does not repeat, so
// that no processor can learn it; large ones once for each member. That order has nothing to do
// with the one in which names were made or filed: neighbours in it lie apart in memory.
#include <support/Random.h>
#include <support/Rounds.h>

#include <Kiv/Kiv.h>

#ifdef BENCH_ABSEIL
#include <absl/container/flat_hash_map.h>
#include <absl/container/node_hash_map.h>
#endif

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

namespace Bench {

namespace {

class Thing : public Kiv::PtrInterface {};

// What tables hold: a number, or a counted object, which is then held by every look-up.
template< class T >
struct Payload;
template<>
struct Payload< double > {
   using Value = double;
   static double make() { return 1.0; }
   static void use( double value ) { keep( value ); }
   static constexpr char const * name = "number";
};
template<>
struct Payload< Thing > {
   using Value = Kiv::Ptr< Thing >;
   static Value make() { return new Thing; }
   static void use( Value const & value ) { keep( value.get() ); }
   static constexpr char const * name = "object";
};

template< class T >
std::vector< T > shuffled( std::vector< T > all, Random & random ) {
   for( std::size_t i = all.size(); i > 1; --i )
      std::swap( all[ i - 1 ], all[ random.next() % i ] );
   return all;
}

std::vector< std::string > texts( std::size_t count, char const * prefix ) {
   Random random;
   std::vector< std::string > all;
   for( std::size_t i = 0; i != count; ++i )
      all.push_back( prefix + std::to_string( i ) );
   return shuffled( std::move( all ), random );
}

std::vector< Kiv::Name > names( std::size_t count, char const * prefix ) {
   auto const text = texts( count, prefix );
   return { text.begin(), text.end() };
}

// The order in which members are asked for: places of a sequence of `count`.
std::vector< std::size_t > asking( std::size_t count ) {
   Random random;
   random.next();
   std::vector< std::size_t > all;
   if( count > 4096 ) {
      for( std::size_t i = 0; i != count; ++i )
         all.push_back( i );
      return shuffled( std::move( all ), random );
   }
   for( int i = 0; i != 8192; ++i )
      all.push_back( random.next() % count );
   return all;
}

// `all`, as they are asked for.
template< class T >
std::vector< T > asked( std::vector< T > const & all ) {
   std::vector< T > asked;
   for( std::size_t const i : asking( all.size() ) )
      asked.push_back( all[ i ] );
   return asked;
}

// A text is asked with by its address, as a Name is: it lies where it was made.
std::vector< std::string const * > addressesOf( std::vector< std::string > const & all ) {
   std::vector< std::string const * > addresses;
   for( std::string const & text : all )
      addresses.push_back( &text );
   return addresses;
}

// ------------------------------------------------------------------------------------ the rivals

// Interned names: each text exists once, and its address stands for it.
class Interned {
 public:
   std::vector< std::string const * > intern( std::vector< std::string > const & all ) {
      std::vector< std::string const * > names;
      for( std::string const & text : all )
         names.push_back( &*text_.insert( text ).first );
      return names;
   }

 private:
   std::unordered_set< std::string > text_;
};

// A table by address: open addressing, at most half full. It has no order and cannot remove.
template< class V >
class AddressTable {
 public:
   AddressTable( std::vector< std::string const * > const & names, V ( *make )() ) {
      while( ( std::size_t{ 1 } << log2_ ) < 2 * names.size() )
         ++log2_;
      slot_.resize( std::size_t{ 1 } << log2_ );
      for( std::string const * name : names )
         slot_[ place( name ) ] = { name, make() };
   }
   V find( std::string const * name ) const { return slot_[ place( name ) ].value; }

 private:
   struct Slot {
      std::string const * name = nullptr;
      V value{};
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

template< class T >
struct Ours {
   using Map = Kiv::HashMap< T, Kiv::Name >;
   static void insert( Map & map, Kiv::Name const & key ) {
      map.memberIs( key, Payload< T >::make() );
   }
   static void erase( Map & map, Kiv::Name const & key ) { map.memberDel( key ); }
};

// Of the standard library and Abseil, from std::string.
template< class M >
struct Others {
   using Map = M;
   static void insert( Map & map, std::string const & key ) { map.emplace( key, 1.0 ); }
   static void erase( Map & map, std::string const & key ) { map.erase( key ); }
};

#ifdef BENCH_ABSEIL
template< class V >
using FlatMap = absl::flat_hash_map< std::string, V >;
using NodeMap = absl::node_hash_map< std::string, double >;
#endif

// Bytes of the heap for an entry, beside keys that were there before.
template< class Operations, class Key >
double bytesOf( std::vector< Key > const & keys ) {
   typename Operations::Map map;
   std::int64_t const before = heapBytes();
   for( Key const & key : keys )
      Operations::insert( map, key );
   return static_cast< double >( heapBytes() - before ) / static_cast< double >( keys.size() );
}

// -------------------------------------------------------------------------------------- the rows

struct Options {
   Rounds rounds;
   std::string filter;
   bool takes( std::string const & what ) const { return what.find( filter ) != what.npos; }
};

std::string of( std::size_t count ) { return ", of " + std::to_string( count ); }

// The names that ask are the very ones under which members were filed, or are in no table.
template< class T >
void byName( std::size_t count, bool hit, Options const & options ) {
   using P = Payload< T >;
   std::string const what =
      std::string( P::name ) + ( hit ? " by its Name" : ", none of that Name" ) + of( count );
   if( !options.takes( what ) )
      return;
   auto const filed = names( count, "Stage" );
   auto const ask = asked( hit ? filed : names( count, "Absent" ) );
   typename Ours< T >::Map map;
   for( Kiv::Name const & name : filed )
      Ours< T >::insert( map, name );

   Interned interned;
   auto const internedFiled = interned.intern( texts( count, "Stage" ) );
   auto const internedAsk =
      asked( hit ? internedFiled : interned.intern( texts( count, "Absent" ) ) );
   AddressTable< typename P::Value > const table( internedFiled, &P::make );

   Row row( what, static_cast< std::int64_t >( ask.size() ) );
   row.add( "HashMap", 0, [ & ] {
      for( Kiv::Name const & name : ask )
         P::use( map.member( name ) );
   } );
   row.add( "interned, by hand", 0, [ & ] {
      for( std::string const * name : internedAsk )
         P::use( table.find( name ) );
   } );
   row.measure( options.rounds );
}

// The names that ask were made apart: equal bytes at another place, with the hash kept. The
// rivals are asked by a text, as they keep no hash with it.
template< class T >
void byEqualName( std::size_t count, bool hit, Options const & options ) {
   using P = Payload< T >;
   std::string const what = std::string( P::name ) +
                            ( hit ? " by an equal Name" : ", none of an equal Name" ) + of( count );
   if( !options.takes( what ) )
      return;
   typename Ours< T >::Map map;
   for( Kiv::Name const & name : names( count, "Stage" ) )
      Ours< T >::insert( map, name );
   // The texts are alike in their first bytes, so that a miss is none by its first byte.
   auto const text = texts( 2 * count, "Stage" );
   std::vector< std::string > wanted;
   for( std::string const & t : text )
      if( ( std::stoul( t.substr( 5 ) ) < count ) == hit )
         wanted.push_back( t );
   auto const askText = asked( addressesOf( wanted ) );
   auto const ask = asked( std::vector< Kiv::Name >( wanted.begin(), wanted.end() ) );
   for( Kiv::Name const & name : ask )
      keep( name.hash() );

   Row row( what, static_cast< std::int64_t >( ask.size() ) );
   row.add( "HashMap", 0, [ & ] {
      for( Kiv::Name const & name : ask )
         P::use( map.member( name ) );
   } );
#ifdef BENCH_ABSEIL
   FlatMap< typename P::Value > flat;
   for( std::string const & t : texts( count, "Stage" ) )
      flat.emplace( t, P::make() );
   row.add( "absl::flat_hash_map", 0, [ & ] {
      for( std::string const * t : askText ) {
         auto const found = flat.find( *t );
         P::use( found == flat.end() ? typename P::Value() : found->second );
      }
   } );
#endif
   row.measure( options.rounds );
}

double secondsOf( auto const & call ) {
   using namespace std::chrono;
   auto const start = steady_clock::now();
   call();
   return duration< double >( steady_clock::now() - start ).count();
}

// Many tables where one is too small to be timed. `erasing` says what is timed: all are filled,
// and all are emptied one member after the other, in another order.
template< class Operations, class Key >
void addFilling( Row & row, char const * by, std::vector< Key > const & keys, std::size_t tables,
                 bool erasing ) {
   double const bytes = bytesOf< Operations >( keys );
   auto const gone = std::make_shared< std::vector< Key > >();
   Random random;
   *gone = shuffled( keys, random );
   row.addTimed( by, bytes, [ &keys, gone, tables, erasing ] {
      std::vector< std::unique_ptr< typename Operations::Map > > all;
      for( std::size_t i = 0; i != tables; ++i )
         all.push_back( std::make_unique< typename Operations::Map >() );
      double const filling = secondsOf( [ & ] {
         for( auto const & map : all )
            for( Key const & key : keys )
               Operations::insert( *map, key );
      } );
      double const emptying = secondsOf( [ & ] {
         for( auto const & map : all )
            for( Key const & key : *gone )
               Operations::erase( *map, key );
      } );
      return erasing ? emptying : filling;
   } );
}

void fillOrEmpty( std::size_t count, bool erasing, Options const & options ) {
   std::string const what = ( erasing ? "erase all" : "insert all" ) + of( count );
   if( !options.takes( what ) )
      return;
   std::size_t const tables = ( 4096 + count - 1 ) / count;
   auto const name = names( count, "Stage" );
   auto const text = texts( count, "Stage" );
   Row row( what, static_cast< std::int64_t >( tables * count ) );
   addFilling< Ours< double > >( row, "HashMap", name, tables, erasing );
#ifdef BENCH_ABSEIL
   addFilling< Others< NodeMap > >( row, "absl::node_hash_map", text, tables, erasing );
#endif
   row.measure( options.rounds );
}

void replaceOne( std::size_t count, Options const & options ) {
   std::string const what = "erase one, insert it again" + of( count );
   if( !options.takes( what ) )
      return;
   auto const name = names( count, "Stage" );
   auto const text = texts( count, "Stage" );
   auto const askName = asked( name );
   auto const askText = asked( addressesOf( text ) );
   Ours< double >::Map map;
   for( Kiv::Name const & n : name )
      map.memberIs( n, 1.0 );
   Row row( what, static_cast< std::int64_t >( 2 * askName.size() ) );
   row.add( "HashMap", 0, [ & ] {
      for( Kiv::Name const & n : askName ) {
         map.memberDel( n );
         map.memberIs( n, 2.0 );
      }
   } );
#ifdef BENCH_ABSEIL
   NodeMap node;
   for( std::string const & t : text )
      node.emplace( t, 1.0 );
   row.add( "absl::node_hash_map", 0, [ & ] {
      for( std::string const * t : askText ) {
         node.erase( *t );
         node.emplace( *t, 2.0 );
      }
   } );
#endif
   row.measure( options.rounds );
}

// A walk by an iterator that survives every change, and one by the table's own parts that survives
// none.
template< class T >
void iterate( std::size_t count, Options const & options ) {
   using P = Payload< T >;
   std::string const what = std::string( "walk over " ) + P::name + "s" + of( count );
   if( !options.takes( what ) )
      return;
   typename Ours< T >::Map map;
   for( Kiv::Name const & name : names( count, "Stage" ) )
      Ours< T >::insert( map, name );
   std::size_t const walks = ( 4096 + count - 1 ) / count;
   Row row( what, static_cast< std::int64_t >( walks * count ) );
   row.add( "HashMap's iterator", 0, [ & ] {
      for( std::size_t n = 0; n != walks; ++n )
         for( auto i = map.iterator(); i; ++i )
            P::use( i.value() );
   } );
   row.add( "plain walk of the table", 0, [ & ] {
      for( std::size_t n = 0; n != walks; ++n )
         for( std::uint32_t place = 0; place != map.slots(); ++place )
            if( map.taken( place ) )
               P::use( typename P::Value( map.valueAt( place ) ) );
   } );
   row.measure( options.rounds );
}

void benchmarks( Options const & options ) {
   Row::head();
   for( std::size_t const count : { 16U, 1000U, 100000U } ) {
      for( bool const hit : { true, false } ) {
         byName< double >( count, hit, options );
         byName< Thing >( count, hit, options );
      }
      for( bool const hit : { true, false } ) {
         byEqualName< double >( count, hit, options );
         byEqualName< Thing >( count, hit, options );
      }
      fillOrEmpty( count, false, options );
      fillOrEmpty( count, true, options );
      replaceOne( count, options );
      iterate< double >( count, options );
      iterate< Thing >( count, options );
   }
}

// The flags of bench/run, by the names that the other programs know them by.
bool taken( Options & options, char const * argument ) {
   auto const value = [ argument ]( char const * flag ) {
      std::size_t const length = std::strlen( flag );
      return std::strncmp( argument, flag, length ) == 0 ? argument + length : nullptr;
   };
   if( char const * seconds = value( "--benchmark_min_time=" ) )
      options.rounds.seconds = std::atof( seconds ) / 25;
   else if( char const * repetitions = value( "--benchmark_repetitions=" ) )
      options.rounds.rounds = 3 * std::atoi( repetitions );
   else if( char const * text = value( "--benchmark_filter=" ) )
      options.filter = text;
   else
      return false;
   return options.rounds.rounds > 0;
}

} // namespace

} // namespace Bench

int main( int count, char ** arguments ) {
   Bench::Options options;
   for( int i = 1; i < count; ++i )
      if( !Bench::taken( options, arguments[ i ] ) ) {
         std::fprintf( stderr,
                       "usage: %s [--benchmark_min_time=SECONDS] [--benchmark_repetitions=N] "
                       "[--benchmark_filter=TEXT]\n",
                       arguments[ 0 ] );
         return 2;
      }
   Bench::benchmarks( options );
   return 0;
}
