// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include "Allocations.h"

#include <cstdlib>
#include <limits>
#include <new>

namespace {

struct State {
   std::size_t left = std::numeric_limits< std::size_t >::max();
   std::size_t toFail = 0;
   std::size_t counted = 0;
   std::size_t failed = 0;
   bool counts = false;
};
State state;

void * allocated( std::size_t size ) {
   if( state.counts ) {
      ++state.counted;
      if( state.left != 0 ) {
         --state.left;
      } else if( state.toFail != 0 ) {
         --state.toFail;
         ++state.failed;
         return nullptr;
      }
   }
   return std::malloc( size ? size : 1 );
}

void * orThrow( void * memory ) {
   if( !memory )
      throw std::bad_alloc();
   return memory;
}

} // namespace

void * operator new( std::size_t size ) { return orThrow( allocated( size ) ); }
void * operator new[]( std::size_t size ) { return orThrow( allocated( size ) ); }
void * operator new( std::size_t size, std::nothrow_t const & ) noexcept {
   return allocated( size );
}
void * operator new[]( std::size_t size, std::nothrow_t const & ) noexcept {
   return allocated( size );
}
void operator delete( void * memory ) noexcept { std::free( memory ); }
void operator delete[]( void * memory ) noexcept { std::free( memory ); }
void operator delete( void * memory, std::size_t ) noexcept { std::free( memory ); }
void operator delete[]( void * memory, std::size_t ) noexcept { std::free( memory ); }

namespace testing_support {

void Allocations::failAfter( std::size_t others, std::size_t failures ) {
   state = { others, failures, 0, 0, false };
}
void Allocations::failNever() { state = {}; }
std::size_t Allocations::counted() { return state.counted; }
std::size_t Allocations::failed() { return state.failed; }

Allocations::Counted::Counted() : before_( state.counts ) { state.counts = true; }
Allocations::Counted::~Counted() { state.counts = before_; }
Allocations::Apart::Apart() : before_( state.counts ) { state.counts = false; }
Allocations::Apart::~Apart() { state.counts = before_; }

} // namespace testing_support
