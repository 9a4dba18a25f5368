// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <queue>
#include <string>
#include <unordered_map>
#include <vector>

#include <simulation/detail/Causes.h>
#include <simulation/detail/Outside.h>

namespace Simulation::detail {

// What the simulated agents will report, and when. An event is either waiting for its stage, or
// armed, or done with; it is armed at most once.
class Reports {
 public:
   Reports( Kiv::Ptr< Stage::Status const > const & status, Causes & causes )
      : status_( status ), causes_( causes ) {}

   // The seconds of `event` count from now if its stage is active, else from when it becomes so.
   void declared( SimulatedEventPtr const & event );
   // The seconds of the events that waited for `stage` count from now.
   void stageActive( std::string const & stage );

   // When the next report is due; infinity when none is. Events that are gone do not count.
   double nextTime();
   // Makes the first report that is due at `now`, by (time, order of arming); false when none is.
   bool makeOne( double now );

 private:
   struct Report {
      double at;
      std::uint64_t armed; // the how many-th it was
      Causes::Step step;   // in which it was
      SimulatedEventPtr event;

      friend bool operator<( Report const & a, Report const & b ) {
         // The top of a priority queue is its greatest: the earliest.
         return a.at != b.at ? a.at > b.at : a.armed > b.armed;
      }
   };

   void arm( SimulatedEventPtr const & event );

   Kiv::Ptr< Stage::Status const > status_;
   Causes & causes_;
   std::unordered_map< std::string, std::vector< SimulatedEventPtr > > waiting_; // by stage
   std::priority_queue< Report > due_;
   std::uint64_t armed_ = 0;
};

} // namespace Simulation::detail
