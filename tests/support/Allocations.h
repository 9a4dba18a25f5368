// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Makes allocations of a whole program fail, those of the standard library's strings and containers
// included. A program that uses it lists ../support/Allocations.cpp among its sources, which
// replaces the global operators new and delete.
#pragma once

#include <cstddef>

namespace testing_support {

enum class FailingAllocations { one, allFromThenOn };

// The allocation after `others` more fails, until this goes.
class Allocations {
 public:
   explicit Allocations( std::size_t others,
                         FailingAllocations failing = FailingAllocations::one ) noexcept;
   ~Allocations();
   Allocations( Allocations const & ) = delete;
   Allocations & operator=( Allocations const & ) = delete;

   // Since this was made.
   static bool hasFailed() noexcept;
   static std::size_t count() noexcept;
   // From here on none fails.
   static void failNone() noexcept;
};

} // namespace testing_support
