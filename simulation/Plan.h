// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <limits>
#include <optional>
#include <string>
#include <variant>
#include <vector>

// A plan says what the agents of a system declare, how simulated agents behave, and what the
// outside changes while the system starts. These are plain values: copied, compared by their
// members, tied to no entity. Names are counted bytes. All times are seconds from the start of
// the run.

namespace Simulation {

// Where in its file something stands, for messages; both count from 1, columns in characters.
// Line 0: it was not read from a file.
struct Place {
   unsigned line = 0;
   unsigned column = 0;
   friend auto operator<=>( Place const &, Place const & ) = default;
};

// Something that is wrong with a plan: what, and what is allowed instead.
struct Mistake {
   Place place;
   std::string text;
   friend auto operator<=>( Mistake const &, Mistake const & ) = default;
};

double constexpr infinity = std::numeric_limits< double >::infinity();

// How a simulated agent behaves toward one event.
struct Behaviour {
   enum class Kind {
      afterSeconds, // reports the event complete when the stage has been active that long
      never,        // does not report it
      already       // declares it complete
   };
   Kind kind = Kind::afterSeconds;
   double seconds = 0; // of afterSeconds: finite, not negative
};

struct Dependency {
   std::string stage;
   bool value = true;
};

// What an agent declares for one stage.
struct Event {
   std::string stage;
   double timeout = infinity;
   bool critical = false;
   std::vector< Dependency > dependency; // in the order in which they are written
   Behaviour complete;
   Place place;
};

struct Agent {
   std::string name;
   std::vector< Event > event; // in the order in which they are declared, one per stage
   Place place;
};

// The attributes that a `Set` writes, one at a time.
struct CriticalWrite {
   bool value;
};
struct TimeoutWrite {
   double value;
};
struct CompleteWrite {
   bool value;
};
struct DependencyWrite {
   std::string stage;
   std::optional< bool > value; // none: the entry is removed
};
using Write = std::variant< CriticalWrite, TimeoutWrite, CompleteWrite, DependencyWrite >;

// What the outside does: a new agent files its declarations,
struct Join {
   std::string agent;
   std::vector< Event > event;
};
// an agent's entry leaves the directory,
struct Leave {
   std::string agent;
};
// an agent adds an event for a stage for which it has none,
struct Declare {
   std::string agent;
   Event event;
};
// removes its event for a stage,
struct Withdraw {
   std::string agent;
   std::string stage;
};
// attributes of its event are written, in this order,
struct Set {
   std::string agent;
   std::string stage;
   std::vector< Write > write;
};
// or the configuration is enabled or disabled.
struct Enable {
   bool value = true;
};
using Operation = std::variant< Join, Leave, Declare, Withdraw, Set, Enable >;

struct TimelineEntry {
   double at = 0; // finite, not negative
   Operation operation;
   Place place;      // of the entry
   Place agentPlace; // of the agent's name in it
   Place stagePlace; // of the stage's name in it
};

// The agents' names differ, and so do the stages' names within one agent.
struct Plan {
   std::string application = "application";
   bool enabled = true;
   std::vector< Agent > agent;            // in the order in which they are filed
   std::vector< TimelineEntry > timeline; // in the order of the file; they run in order of `at`
};

} // namespace Simulation
