// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

namespace Simulation {

// What determined how long a start-up took: the way back from the last stage to the beginning.
//
// What begins a link is the end of the next one: of the stage that it depends on, or of the stage
// that asked for the decision which started it. Where there is no next one it was the timeline, or
// that progression was enabled, at `since`. So `since` and the shares of all links, end - begin,
// add up to `t`. Where several things were waited for until the same time, one of them is on the
// way.
struct Determined {
   // A stage: why it became complete when it did, and why it had begun when it had.
   struct Link {
      enum class End {
         event,    // its last event was reported, or the one that it had been given up without
         timeUp,   // its time was up
         noEvents, // it had nothing to wait for when it started
         change    // the timeline completed its last event, or took it away
      };
      enum class Begin {
         dependency, // the stage of the next link, on which it depends, became complete
         critical,   // it could have started at `ready`, but "critical stages first" held it back
         decision,   // it could have started at `ready`, but nothing asked for a decision before
         enabled,    // progression was enabled
         change      // the timeline changed what is declared
      };
      std::string stage;
      double begin = 0; // when it started; when its event was declared, if that was later
      double end = 0;   // when it became complete
      End ended = End::noEvents;
      std::string event; // the uid of End::event
      Begin begun = Begin::dependency;
      double ready = 0;
      // Of Begin::critical: the critical stage with whose start the waiting ended; empty when it
      // ended because the timeline changed which stages are critical.
      std::string heldFor;
   };

   double t = 0;             // when the last stage became complete; without stages, as `since`
   std::vector< Link > link; // from the last stage back
   double since = 0;
   double held = 0; // how long "critical stages first" held back stages of the way, in all
};

} // namespace Simulation
