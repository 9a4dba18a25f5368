// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include "Allocations.h"

#include <cstdlib>
#include <limits>
#include <new>

namespace {

constexpr std::size_t never = std::numeric_limits< std::size_t >::max();

std::size_t left = never;
std::size_t made = 0;
bool onlyOne = true;
bool failed = false;

void * allocate( std::size_t size ) noexcept {
   ++made;
   if( left == 0 ) {
      failed = true;
      if( onlyOne )
         left = never;
      return nullptr;
   }
   if( left != never )
      --left;
   return std::malloc( size != 0 ? size : 1 );
}

} // namespace

namespace testing_support {

Allocations::Allocations( std::size_t others, FailingAllocations failing ) noexcept {
   left = others;
   onlyOne = failing == FailingAllocations::one;
   failed = false;
   made = 0;
}
Allocations::~Allocations() { failNone(); }
bool Allocations::hasFailed() noexcept { return failed; }
std::size_t Allocations::count() noexcept { return made; }
void Allocations::failNone() noexcept { left = never; }

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
