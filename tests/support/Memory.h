// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Counts the framework's allocations, and makes chosen ones fail.
#pragma once

#include <Kiv/Memory.h>

#include <cstddef>
#include <limits>
#include <new>

namespace testing_support {

// Installed while it lives. One at a time, as the hooks have no argument to tell two apart.
class Memory {
 public:
   enum class Failing { once, fromThenOn };

   Memory() : before_( Kiv::memoryHooksIs( { &allocate, &release } ) ) { state() = {}; }
   ~Memory() { Kiv::memoryHooksIs( before_ ); }
   Memory( Memory const & ) = delete;
   Memory & operator=( Memory const & ) = delete;

   // The allocation after `others` more fails.
   void failAfter( std::size_t others, Failing failing = Failing::once ) {
      state().left = others;
      state().failing = failing;
   }
   void failNever() { state().left = never; }

   // Since this was made.
   std::size_t allocations() const { return state().allocations; }
   std::size_t failures() const { return state().failures; }
   std::size_t releases() const { return state().releases; }

 private:
   static constexpr std::size_t never = std::numeric_limits< std::size_t >::max();

   struct State {
      std::size_t left = never;
      Failing failing = Failing::once;
      std::size_t allocations = 0;
      std::size_t failures = 0;
      std::size_t releases = 0;
   };
   static State & state() {
      static State theState;
      return theState;
   }

   static void * allocate( std::size_t size ) {
      State & s = state();
      if( s.left == 0 ) {
         ++s.failures;
         if( s.failing == Failing::once )
            s.left = never;
         return nullptr;
      }
      if( s.left != never )
         --s.left;
      ++s.allocations;
      return ::operator new( size, std::nothrow );
   }
   static void release( void * memory, std::size_t ) {
      ++state().releases;
      ::operator delete( memory );
   }

   Kiv::MemoryHooks const before_;
};

} // namespace testing_support
