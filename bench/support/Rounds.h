// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Rows in which several ways to do one job are measured in turn.
//
//    Row row( "what", 1000 );                       operations in one call
//    row.add( "HashMap", bytes, [ & ] { ... } );    the subject first, then its controls
//    row.add( "by hand", bytes, [ & ] { ... } );
//    row.measure();                                 measures and prints
//
// In each round every way has its turn: one call for nothing, which brings what it needs into the
// caches, and then as many as fill the time. So what else the machine does meets all of them, and
// the fastest of many rounds is the figure. The median beside it says how steady it was.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace Bench {

// How long and how often.
struct Rounds {
   int rounds = 15;
   double seconds = 0.004; // of one turn
};

// Sees to it that a value is computed.
template< class T >
void keep( T const & value ) {
   asm volatile( "" : : "g"( value ) : "memory" );
}

// Bytes of the heap in use, what the allocator adds included, and how often it was asked: all that
// goes through the global operator new.
std::int64_t heapBytes();
std::int64_t allocations();

class Row {
 public:
   Row( std::string what, std::int64_t operations )
      : what_( std::move( what ) ), operations_( static_cast< double >( operations ) ) {}
   // `bytes`: of an entry, 0 when the row is not about that.
   void add( std::string by, double bytes, std::function< void() > call );
   // A way that measures itself: `call` returns the seconds that its operations took, and may do
   // what is not counted.
   void addTimed( std::string by, double bytes, std::function< double() > call );
   void measure( Rounds const & rounds );

   static void head();

 private:
   struct Way {
      std::string by;
      double bytes;
      std::function< double() > call; // seconds
      std::vector< double > seconds;  // of one call, in each round
      double allocations = 0;         // of one operation
   };
   void turn( Way & way, double seconds ) const;
   void print( Way const & way ) const;

   std::string what_;
   double operations_;
   std::vector< Way > ways_;
};

} // namespace Bench
