// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// For each agent, the stages of a status that hold an event of it, kept up to date inside the
// setters of both.
//
// Without it aggregation walks all stages for each agent that comes or goes: agents times stages.
// Costs an entry of a table for each event.
#pragma once

#include <Kiv/HashMap.h>
#include <Kiv/Memory.h>
#include <Kiv/Ptr.h>
#include <Kiv/Text.h>

namespace Stage::detail {

class StagesByAgent : public Kiv::KivMemPool {
 public:
   // By the stage's name; the value says nothing. In the order of Status::stage.
   class Stages : public Kiv::PtrInterface {
    public:
      Kiv::HashMap< bool, Kiv::Name > names;
   };

   // A stage is about to get an event of the agent's, the first one of it. Throws std::bad_alloc,
   // having changed nothing.
   void add( Kiv::String8 const & agent, Kiv::Name const & stage );
   // It has gone. Nothing happens when it was not there.
   void del( Kiv::String8 const & agent, Kiv::Name const & stage ) noexcept;
   // Null for none. The names change with what is added and deleted.
   Kiv::Ptr< Stages const > of( Kiv::String8 const & agent ) const {
      return agents_.member( agent );
   }
   // To be walked where there are none.
   Kiv::HashMap< bool, Kiv::Name > const none;

 private:
   Kiv::HashMap< Stages, Kiv::String8 > agents_; // none that is empty
};

} // namespace Stage::detail
