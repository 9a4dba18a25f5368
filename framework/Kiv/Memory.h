// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Where the objects of this framework get their memory from.
#pragma once

#include <Kiv/Export.h>

#include <cstddef>
#include <new>

namespace Kiv {

// A seam: what allocates every entity, reactor, string, map and queue of the framework (timers'
// heaps, tasks and the log's entries use the standard library's containers). Replace it in a test
// that wants to count allocations or to make one fail.
struct MemoryHooks {
   // Returns `size` bytes aligned for any type, or null when there are none.
   void * ( *allocate )( std::size_t size ) = nullptr;
   void ( *release )( void * memory, std::size_t size ) = nullptr;
};

// Installs `hooks` (null members: the global operators new and delete) and returns what was there
// before. From now on memory is released by these hooks, whichever have allocated it: a replacement
// passes on to the ones before it, or is installed while nothing of the framework is alive.
KIV_EXPORT MemoryHooks memoryHooksIs( MemoryHooks hooks );

// Memory for parts that are not counted objects: characters, table nodes, queue items.
class KIV_EXPORT KivMemPool {
 public:
   // Throws std::bad_alloc; the nothrow form returns null.
   static void * operator new( std::size_t size );
   static void * operator new( std::size_t size, std::nothrow_t const & ) noexcept;
   static void * operator new( std::size_t, void * place ) noexcept { return place; }
   static void operator delete( void * memory, std::size_t size ) noexcept;
   static void operator delete( void *, void * ) noexcept {}
};

// Base of everything that is counted: gives it the framework's operators new and delete.
class KIV_EXPORT VFPtrInterface {
 public:
   static void * operator new( std::size_t size ) { return KivMemPool::operator new( size ); }
   static void * operator new( std::size_t, void * place ) noexcept { return place; }
   static void operator delete( void * memory, std::size_t size ) noexcept {
      KivMemPool::operator delete( memory, size );
   }
   static void operator delete( void *, void * ) noexcept {}

 protected:
   VFPtrInterface() = default;
   ~VFPtrInterface() = default;
};

} // namespace Kiv
