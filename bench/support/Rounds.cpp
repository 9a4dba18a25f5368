// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <support/Rounds.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <malloc.h>
#include <new>
#include <utility>

namespace {

// Counted without a locked instruction, so that counting costs nothing. Where two threads ask for
// memory at once, a few are missed.
class Counter {
 public:
   void operator+=( std::int64_t more ) { value_.store( *this + more, std::memory_order_relaxed ); }
   operator std::int64_t() const { return value_.load( std::memory_order_relaxed ); }

 private:
   std::atomic< std::int64_t > value_ = 0;
};
Counter heapBytes_;
Counter allocations_;

// What glibc keeps in front of every block.
constexpr std::int64_t blockHead = sizeof( std::size_t );

std::int64_t blockBytes( void * memory ) {
   return static_cast< std::int64_t >( malloc_usable_size( memory ) ) + blockHead;
}

double now() {
   using namespace std::chrono;
   return duration< double >( steady_clock::now().time_since_epoch() ).count();
}

double fastest( std::vector< double > const & all ) {
   return *std::min_element( all.begin(), all.end() );
}
double median( std::vector< double > all ) {
   auto const middle = all.begin() + static_cast< std::ptrdiff_t >( all.size() / 2 );
   std::nth_element( all.begin(), middle, all.end() );
   return *middle;
}

} // namespace

void * operator new( std::size_t size ) {
   void * const memory = std::malloc( size ? size : 1 );
   if( !memory )
      throw std::bad_alloc();
   allocations_ += 1;
   heapBytes_ += blockBytes( memory );
   return memory;
}
void operator delete( void * memory ) noexcept {
   if( memory )
      heapBytes_ += -blockBytes( memory );
   std::free( memory );
}
void operator delete( void * memory, std::size_t ) noexcept { operator delete( memory ); }

namespace Bench {

std::int64_t heapBytes() { return heapBytes_; }
std::int64_t allocations() { return allocations_; }

void Row::add( std::string by, double bytes, std::function< void() > call ) {
   addTimed( std::move( by ), bytes, [ call = std::move( call ) ] {
      double const start = now();
      call();
      return now() - start;
   } );
}

void Row::addTimed( std::string by, double bytes, std::function< double() > call ) {
   ways_.push_back( { std::move( by ), bytes, std::move( call ), {}, 0 } );
}

void Row::turn( Way & way, double seconds ) const {
   way.call();
   std::int64_t const before = allocations_;
   double spent = 0;
   int calls = 0;
   for( double const start = now(); calls == 0 || now() - start < seconds; ++calls )
      spent += way.call();
   way.allocations = static_cast< double >( allocations_ - before ) / calls / operations_;
   way.seconds.push_back( spent / calls );
}

void Row::measure( Rounds const & rounds ) {
   for( int round = 0; round != rounds.rounds; ++round )
      for( Way & way : ways_ )
         turn( way, rounds.seconds );
   for( Way const & way : ways_ )
      print( way );
}

void Row::head() {
   std::printf( "%-37s %-25s %8s %8s %7s %6s %6s\n", "", "", "ns", "median", "allocs", "bytes",
                "times" );
}

void Row::print( Way const & way ) const {
   bool const subject = &way == &ways_.front();
   std::printf( "%-37s %-25s %8.2f %8.2f %7.2f ", subject ? what_.c_str() : "", way.by.c_str(),
                1e9 * fastest( way.seconds ) / operations_,
                1e9 * median( way.seconds ) / operations_, way.allocations );
   if( way.bytes > 0 )
      std::printf( "%6.1f", way.bytes );
   else
      std::printf( "%6s", "" );
   if( !subject )
      std::printf( " %6.2f", fastest( ways_.front().seconds ) / fastest( way.seconds ) );
   std::printf( "\n" );
   std::fflush( stdout );
}

} // namespace Bench
