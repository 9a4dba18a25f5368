// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// What is measured of one whole start-up.
#pragma once

#include <startup/Declarations.h>

#include <cstdint>

namespace Bench {

// Times are processor seconds of this process, user and system: nothing in a start-up sleeps, and
// what else runs on the machine counts for less that way.
struct Measured {
   double declare = 0;   // agents make their entities and file them
   double aggregate = 0; // declarations become stages
   double progress = 0;  // stages are walked to completion
   // Of the heap, once everything is complete, above what was in use before.
   std::uint64_t heapBytes = 0;
   std::uint32_t stages = 0; // started, in an order that the dependencies allow; else 0
   std::uint32_t criticalStages = 0;
   std::uint64_t peakKilobytes = 0; // of the whole process; filled in by who waits for it

   double total() const { return declare + aggregate + progress; }
};

// Takes the three times, one after the other, and the memory.
class Meter {
 public:
   Meter();
   // Seconds since the last call, or since the making.
   double lap();
   // Of the heap, since the making.
   std::uint64_t heapBytes() const;

 private:
   std::uint64_t heapBefore_;
   double last_;
};

// Through the public interface of the libraries, on a manual clock.
Measured startLibrary( Declarations const & declared );
// Plain structs and a topological walk, by hand.
Measured startControl( Declarations const & declared );

} // namespace Bench
