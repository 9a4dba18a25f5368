// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Which stages depend on a stage, whether or not there is a stage of that name.
//
// Without it every new stage would have to be shown to all others: declaring N stages would take N
// times N steps (the rows of bench/startup, and bench/growth).
#pragma once

#include <Kiv/Text.h>

#include <unordered_map>
#include <vector>

namespace Stage {

class Dependents {
 public:
   // For want of memory it becomes incomplete, and stays so.
   void add( Kiv::String8 const & stage, Kiv::Name const & dependent ) noexcept;
   void remove( Kiv::String8 const & stage, Kiv::Name const & dependent ) noexcept;

   // Whether `of()` can be relied on.
   bool complete() const { return complete_; }
   // Those that depend on `stage`, in the order of a table of stages (Kiv/HashMap.h).
   std::vector< Kiv::Name > of( Kiv::Name const & stage ) const;

 private:
   std::unordered_map< Kiv::String8, std::vector< Kiv::Name > > dependents_;
   bool complete_ = true;
};

} // namespace Stage
