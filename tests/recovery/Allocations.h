// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Makes chosen allocations of the whole program fail: those of the framework and those that the
// standard library's containers make. The program replaces the global operator new for it.
#pragma once

#include <cstddef>

namespace testing_support {

struct Allocations {
   // From now on the allocation after `others` more fails, and `failures - 1` that follow it.
   // Counts from 0 again.
   static void failAfter( std::size_t others, std::size_t failures );
   static void failNever();
   // How many were asked for since failAfter() was called last, those that failed included.
   static std::size_t counted();
   static std::size_t failed();

   // Only what is allocated while one of these lives is counted and can fail; an Apart within it is
   // for what a test does for itself.
   class Counted {
    public:
      Counted();
      ~Counted();
      Counted( Counted const & ) = delete;
      Counted & operator=( Counted const & ) = delete;

    private:
      bool const before_;
   };
   class Apart {
    public:
      Apart();
      ~Apart();
      Apart( Apart const & ) = delete;
      Apart & operator=( Apart const & ) = delete;

    private:
      bool const before_;
   };
};

} // namespace testing_support
