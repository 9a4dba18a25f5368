// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <Explain/Explain.h>

#include <simulation/Determined.h>
#include <simulation/Plan.h>

// How a run ended, as plain values read from the entities and state machines.

namespace Simulation {

// The first that holds, in this order.
enum class Outcome {
   complete,  // the status is complete, every known stage is active and complete
   suspended, // a stage that is critical at the end timed out and is not complete
   disabled,  // progression never started
   stalled
};

// The name of an outcome in records.
std::string_view outcomeName( Outcome outcome );

struct StageResult {
   // As in the record. Of a stage without a state machine the second group is false, 0 and empty.
   bool active = false;
   bool critical = false;
   double timeout = infinity;
   std::vector< std::string > dependency; // sorted
   std::map< std::string, bool > event;   // is it complete, by the agent's name

   bool complete = false;
   bool timedOut = false;
   double completionTime = 0;
   std::map< std::string, double > pending; // since when, by the event's uid

   // Seen by the engine while it ran, for people.
   double activeSince = 0; // of an active stage
   double timedOutAt = 0;  // of a stage that timed out
   // How long events have been pending, in all, by their uids; those that never were are not there.
   std::map< std::string, double > pendingFor;
   // Of an active stage that is not complete: when its timer goes off, as it was armed when the
   // stage became active; a timeout that was changed since moves nothing. Infinite without a time
   // limit, and after the timer has gone off.
   double timeIsUp = infinity;

   bool finished() const { return active && complete; }
};

struct Result {
   double t = 0;          // of the last thing that was due; 0 if nothing was
   double now = 0;        // on the clock at the end
   bool exhausted = true; // nothing was due any more; else the run was ended before
   Outcome outcome = Outcome::stalled;
   bool complete = false; // what the status says
   bool started = false;  // progression was started
   bool enabled = false;  // the configuration's value at the end
   std::map< std::string, StageResult > stage;
   std::map< std::string, bool > progress;
   // Why it took as long as it did; of a run that is complete.
   std::optional< Determined > determined;
   // Why the outcome is not `complete`, with the times that the run saw; empty if it is.
   Stage::Explanation explanation;
};

// The outcome that the other members of `result` amount to.
Outcome outcomeOf( Result const & result );

// How things stand, in a word or two: "complete", the name of the outcome when nothing is due any
// more, and otherwise, as more is to come, "in progress" or "not started".
std::string_view stateName( Result const & result );

} // namespace Simulation
