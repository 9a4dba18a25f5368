// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Makes allocations of a whole program fail, those of the standard library's strings and containers
// included. A program that uses it lists ../support/Allocations.cpp among its sources, which
// replaces the global operators new and delete.
#pragma once

#include <cstddef>
#include <limits>

namespace testing_support {

// How many fail, one after the other.
enum class FailingAllocations : std::size_t {
   none = 0,
   one = 1,
   allFromThenOn = std::numeric_limits< std::size_t >::max()
};

enum class AllocationsOf {
   everything,
   whatIsCounted // while a Counted lives
};

// The allocation after `others` more fails, and as many that follow it as `failing` says, until
// this goes. One at a time.
class Allocations {
 public:
   explicit Allocations( std::size_t others, FailingAllocations failing = FailingAllocations::one,
                         AllocationsOf of = AllocationsOf::everything ) noexcept;
   ~Allocations();
   Allocations( Allocations const & ) = delete;
   Allocations & operator=( Allocations const & ) = delete;

   // Since this was made.
   static bool hasFailed() noexcept;
   // Those that failed included.
   static std::size_t count() noexcept;
   // From here on none fails.
   static void failNone() noexcept;

   // What is allocated while one of these lives counts and can fail; an Apart within it is for what
   // a test does for itself.
   class Counted {
    public:
      Counted() noexcept;
      ~Counted();
      Counted( Counted const & ) = delete;
      Counted & operator=( Counted const & ) = delete;

    private:
      bool const before_;
   };
   class Apart {
    public:
      Apart() noexcept;
      ~Apart();
      Apart( Apart const & ) = delete;
      Apart & operator=( Apart const & ) = delete;

    private:
      bool const before_;
   };
};

} // namespace testing_support
