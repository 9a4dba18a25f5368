// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Which stages depend on a stage, whether or not there is a stage of that name.
//
// Without it every new stage would have to be shown to all others: declaring N stages would take N
// times N steps (the rows of bench/startup, and bench/growth).
#pragma once

#include <Kiv/HashMap.h>
#include <Kiv/Ptr.h>
#include <Kiv/Text.h>

#include <cstdint>
#include <span>
#include <vector>

namespace Stage {

// Held by the ConfigSm whose index it is, and by the links of its stages. For each stage that
// others depend on: a place in a table, and a block with their names.
class Dependents : public Kiv::PtrInterface {
 public:
   ~Dependents() override;

   // For want of memory it becomes incomplete, and stays so.
   void add( Kiv::String8 const & stage, Kiv::Name const & dependent ) noexcept;
   void remove( Kiv::String8 const & stage, Kiv::Name const & dependent ) noexcept;

   // Whether `of()` can be relied on.
   bool complete() const { return complete_; }
   // Those that depend on `stage`, in the order of a table of stages (Kiv/HashMap.h).
   std::vector< Kiv::Name > of( Kiv::Name const & stage ) const;

 private:
   // The names of some stages. Its size and its room stand in the block, before the names, so that
   // one without a block is a null pointer: that is what the table holds.
   class Names;

   Kiv::HashMap< std::uintptr_t, Kiv::String8 > dependents_; // none that is empty
   bool complete_ = true;
};

} // namespace Stage
