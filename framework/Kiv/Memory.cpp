// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Kiv/Memory.h>

namespace Kiv {

namespace {

MemoryHooks hooks_;

void * allocate( std::size_t size ) noexcept {
   if( hooks_.allocate )
      return hooks_.allocate( size );
   return ::operator new( size, std::nothrow );
}

} // namespace

MemoryHooks memoryHooksIs( MemoryHooks hooks ) {
   MemoryHooks const before = hooks_;
   hooks_ = hooks;
   return before;
}

void * KivMemPool::operator new( std::size_t size ) {
   if( void * memory = allocate( size ) )
      return memory;
   throw std::bad_alloc();
}

void * KivMemPool::operator new( std::size_t size, std::nothrow_t const & ) noexcept {
   return allocate( size );
}

void KivMemPool::operator delete( void * memory, std::size_t size ) noexcept {
   if( !memory )
      return;
   if( hooks_.release )
      hooks_.release( memory, size );
   else
      ::operator delete( memory );
}

} // namespace Kiv
