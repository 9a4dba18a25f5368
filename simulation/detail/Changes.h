// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include <Kiv/Kiv.h>
#include <Ordovan/Ordovan.h>
#include <Stage/Stage.h>

namespace Simulation::detail {

// Counts the instants that changed something, and knows in which of them each stage changed last.
class Changes {
 public:
   // In the present instant.
   void stageChanged( std::string const & stage ) { changed_.insert( stage ); }
   // The present instant is over; start-up is complete or not.
   void over( bool complete );

   std::uint64_t sequence() const { return sequence_; }
   // Sorted. Cost: linear in their number, plus a logarithmic step.
   std::vector< std::string > since( std::uint64_t after ) const;

 private:
   std::set< std::string > changed_;
   std::uint64_t sequence_ = 0;
   std::unordered_map< std::string, std::uint64_t > last_;          // by stage
   std::set< std::pair< std::uint64_t, std::string > > byLastTime_; // the same
   bool complete_ = false;
};

// Tells `Changes` of whatever there is to see of the status and its stages. REQUIRES: is made after
// the library's own reactor on the status, and `changes` outlives it.
class ChangeWatch : public Stage::Status::NotifieeConst {
 public:
   ChangeWatch( Kiv::Ptr< Stage::Status const > const & status,
                Kiv::Ptr< Stage::StatusSm > const & statusSm, Changes & changes );
   ~ChangeWatch() override;

   using Stage::Status::NotifieeConst::onActiveStage;
   using Stage::Status::NotifieeConst::onStage;
   void onStage( Kiv::Name name ) override;
   void onActiveStage( Kiv::Name name ) override;

 private:
   class OfEvent;
   class OfMachine;
   class OfStage;

   Kiv::Ptr< Stage::Status const > status_;
   Kiv::Ptr< Stage::StatusSm > statusSm_;
   Changes & changes_;
   std::unordered_map< std::string, Kiv::Ptr< OfStage > > stage_;
   std::unordered_map< std::string, Kiv::Ptr< OfMachine > > machine_;
};

} // namespace Simulation::detail
