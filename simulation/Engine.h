// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <Ordovan/Ordovan.h>

#include <simulation/Instant.h>
#include <simulation/Observer.h>
#include <simulation/Result.h>

namespace Simulation {

struct EngineOptions {
   // Has `sequence()` and `changedSince()` counted; they are 0 and empty otherwise.
   bool countChanges = false;
   // A beginning that is not enabled becomes so with the instant in which a stage is declared
   // and all these agents are in the directory; never if there is no list.
   std::optional< std::vector< std::string > > expected;
};

// One start-up, on a clock of its own: a run of a plan, one that goes on right now, or one that is
// played again. It owns the entities and the state machines, and takes in what the outside says.
//
// Time stands still between instants. The clock, which begins at 0, is moved to the stamp of what
// is taken in, and to the due time of what is due, and nowhere else; so it makes no difference how
// late something was really fired. At each instant:
//
//    1  the writes, together              (nothing reacts before the last of them)
//    2  all callbacks
//    3  one thing that is due, looked up afresh: a simulated report before a timer of the library,
//       each kind by time, then by order of arming; then back to 2
//
// What is due before a stamp has its own instants first; what is due at a stamp comes after the
// writes, so that a report at the time of a timer beats it.
//
// While it lives, the activity manager runs on its clock and log messages go to its observers;
// clock and sink are given back as they were. At most one may live at a time, but for one that is
// made and gone while another is not used. Every function that moves the clock runs whatever else
// is queued, throws std::logic_error when called inside a callback of the activity, and passes on
// what an observer throws; after that the engine is good for nothing but to be destroyed.
// Cost: that of the library, plus a logarithmic step for each event.
class Engine {
 public:
   // Files the agents, makes the state machines and runs all callbacks. The observers are told in
   // the order given; none may be null. Throws std::invalid_argument when an agent, or a stage of
   // one agent, stands there twice.
   explicit Engine( Beginning const & beginning, std::vector< Observer * > const & observers = {},
                    EngineOptions const & options = {} );
   ~Engine();
   Engine( Engine const & ) = delete;
   Engine & operator=( Engine const & ) = delete;

   // ---- time

   // Of the last instant; 0 before the first.
   double now() const;
   // When something is due next; infinity if nothing is. After an instant that lies in the future.
   double nextDue() const;
   // The instant of what is due next. REQUIRES: something is.
   void fire();
   // The instants of all that is due at `t` or before.
   void fireUntil( double t );
   // Ends the start-up at `t`, so that what is shown of it is how things stand then: the clock goes
   // there though nothing happens. Throws std::invalid_argument when something is due until then,
   // or when it lies in the past.
   void stopAt( double t );

   // ---- input

   // The instant at which `input` is taken in when the time is `seconds`: the stamp is in whole
   // microseconds, not later than that unless it must be to lie after the last instant. If
   // start-up begins with it (EngineOptions::expected), that is an input as well, the last one.
   // Throws as check() does.
   Instant instant( double seconds, std::vector< Input > input ) const;
   // Throws std::invalid_argument, and says what is wrong and what is allowed, unless all of this
   // can be taken in together: the agents and events named are there, those added are not.
   void check( std::vector< Input > const & input ) const;
   // First the instants of what is due before, then this one. An instant without input is that of
   // what is due then. Throws std::invalid_argument, with nothing changed, as check() does, and for
   // a time that is none or does not lie after the last instant.
   void takeIn( Instant const & instant );

   // ---- how things stand

   // Progression was started.
   bool started() const;
   // Start-up is complete: the status says so, and every known stage is active and complete. A
   // declaration can make it false again. Cost: constant.
   bool complete() const;
   // How many instants changed what there is to see of a stage, or whether start-up is complete.
   std::uint64_t sequence() const;
   // The stages that have changed after the sequence was `after`, sorted.
   std::vector< std::string > changedSince( std::uint64_t after ) const;
   // Everything, as the record of a run that ended now has it.
   Result result() const;
   // Tells the observers that it has ended so.
   void end( Result const & result );

   // The entities and state machines. They may be read, and must not be written.
   Kiv::Ptr< Stage::Config > const & config() const;
   Kiv::Ptr< Kiv::Dir > const & agentDir() const;
   Kiv::Ptr< Stage::Status > const & status() const;
   Kiv::Ptr< Stage::Log > const & log() const;
   Kiv::Ptr< Stage::Ordovan > const & manager() const;

 private:
   class Parts;
   std::unique_ptr< Parts > parts_;
};

} // namespace Simulation
