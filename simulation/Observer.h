// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include <simulation/Instant.h>
#include <simulation/Result.h>

namespace Simulation {

// A declared log message that was really emitted.
struct Message {
   double t = 0;
   std::string id;
   unsigned severity = 0;
   std::string text;
};

// What became of a stage, with its state at that moment.
struct StageChange {
   enum class Kind {
      active,
      complete,
      timedOut,     // went on without the events that were pending
      suspended,    // timed out too, but is critical: progression holds until its events complete
      resumed,      // was suspended, is complete now
      completedLate // had timed out; its last pending event has completed after all
   };
   double t = 0;
   std::string stage;
   Kind kind = Kind::active;
   bool critical = false;
   double activeSince = 0;
   std::size_t events = 0;
   std::vector< std::string > pending; // uids, sorted; of the two kinds of time-out
};

// Is told what happens in a run, while it runs. Log entries and messages come in the exact order in
// which they happened, and so does what is taken in; a change of a stage comes at its instant,
// after the handler that made it. An observer must not touch the run's entities. Exceptions that it
// throws end the run and reach the caller of it. Owned by the caller of the engine.
class Observer {
 public:
   virtual ~Observer() = default;
   virtual void onBegin( Beginning const & ) {}
   // Is about to be taken in; what was due before it has happened. Never one without input.
   virtual void onInstant( Instant const & ) {}
   virtual void onLogEntry( double /* t */, std::string const & /* msg */ ) {}
   virtual void onMessage( Message const & ) {}
   virtual void onStage( StageChange const & ) {}
   virtual void onEnd( Result const & ) {}
};

} // namespace Simulation
