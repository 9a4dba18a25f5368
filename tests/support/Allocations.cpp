// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include "Allocations.h"

#include <cstdlib>
#include <new>

namespace {

struct State {
   std::size_t left = 0;   // that do not fail before the first that does
   std::size_t toFail = 0; // from that one on
   std::size_t made = 0;
   bool failed = false;
   bool counts = true;
};
State state;

void * allocate( std::size_t size ) noexcept {
   if( state.counts ) {
      ++state.made;
      if( state.left != 0 ) {
         --state.left;
      } else if( state.toFail != 0 ) {
         --state.toFail;
         state.failed = true;
         return nullptr;
      }
   }
   return std::malloc( size != 0 ? size : 1 );
}

} // namespace

namespace testing_support {

Allocations::Allocations( std::size_t others, FailingAllocations failing,
                          AllocationsOf of ) noexcept {
   state = { others, static_cast< std::size_t >( failing ), 0, false,
             of == AllocationsOf::everything };
}
Allocations::~Allocations() {
   failNone();
   state.counts = true;
}
bool Allocations::hasFailed() noexcept { return state.failed; }
std::size_t Allocations::count() noexcept { return state.made; }
void Allocations::failNone() noexcept { state.toFail = 0; }

Allocations::Counted::Counted() noexcept : before_( state.counts ) { state.counts = true; }
Allocations::Counted::~Counted() { state.counts = before_; }
Allocations::Apart::Apart() noexcept : before_( state.counts ) { state.counts = false; }
Allocations::Apart::~Apart() { state.counts = before_; }

} // namespace testing_support

void * operator new( std::size_t size ) {
   if( void * memory = allocate( size ) )
      return memory;
   throw std::bad_alloc();
}
void * operator new[]( std::size_t size ) { return operator new( size ); }
void * operator new( std::size_t size, std::nothrow_t const & ) noexcept {
   return allocate( size );
}
void * operator new[]( std::size_t size, std::nothrow_t const & ) noexcept {
   return allocate( size );
}
void operator delete( void * memory ) noexcept { std::free( memory ); }
void operator delete[]( void * memory ) noexcept { std::free( memory ); }
void operator delete( void * memory, std::size_t ) noexcept { std::free( memory ); }
void operator delete[]( void * memory, std::size_t ) noexcept { std::free( memory ); }
void operator delete( void * memory, std::nothrow_t const & ) noexcept { std::free( memory ); }
void operator delete[]( void * memory, std::nothrow_t const & ) noexcept { std::free( memory ); }
