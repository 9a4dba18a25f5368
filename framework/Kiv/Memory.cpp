// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Kiv/Memory.h>

namespace Kiv {

namespace {

constinit MemoryHooks hooks_;

} // namespace

MemoryHooks memoryHooksIs( MemoryHooks hooks ) {
   MemoryHooks const before = hooks_;
   hooks_ = hooks;
   return before;
}

void * KivMemPool::operator new( std::size_t size ) {
   if( !hooks_.allocate ) [[likely]]
      return ::operator new( size );
   if( void * memory = hooks_.allocate( size ) )
      return memory;
   throw std::bad_alloc();
}

void * KivMemPool::operator new( std::size_t size, std::nothrow_t const & ) noexcept {
   return hooks_.allocate ? hooks_.allocate( size ) : ::operator new( size, std::nothrow );
}

void KivMemPool::operator delete( void * memory, std::size_t size ) noexcept {
   if( !hooks_.release ) [[likely]]
      ::operator delete( memory );
   else if( memory )
      hooks_.release( memory, size );
}

} // namespace Kiv
