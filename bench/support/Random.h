// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

namespace Bench {

// Numbers that look random and are the same in every run.
class Random {
 public:
   std::uint32_t next() {
      state_ ^= state_ << 13;
      state_ ^= state_ >> 7;
      state_ ^= state_ << 17;
      return static_cast< std::uint32_t >( state_ >> 32 );
   }
   // From 0 to below 1.
   double fraction() { return next() / 4294967296.0; }

 private:
   std::uint64_t state_ = 0x2545f4914f6cdd1dU;
};

} // namespace Bench
