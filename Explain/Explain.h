// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Why a start-up is not complete.
//
//    for( std::string const & line : Stage::causes( Stage::explain( *statusSm ) ) )
//       std::fprintf( stderr, "%s\n", line.c_str() );
//
// Every unfinished stage waits for something: for stages that it depends on, for critical stages
// that have not started, or for a thing that waits for nothing itself. These last are the roots:
// whoever wants the start-up to go on has to do something about them and about nothing else.
//
//    stage Gui  --depends on-->  stage Net  --depends on-->  stage Boot  <-- root: event Boot:Disks
//    stage Log  --held back by the critical Net-->  Net                      is not complete
#pragma once

#include <Kiv/Text.h>
#include <Ordovan/Export.h>

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

namespace Stage {

class StatusSm;

// A value: it holds nothing of what it was made from, and everything is in an order that depends on
// the names alone. Times are in seconds on the scale of Kiv::now(); +infinity: never.
struct Explanation {
   using Index = std::uint32_t; // a place in `stage`
   static constexpr double never = std::numeric_limits< double >::infinity();

   // The declaration of an event by an agent.
   struct Event {
      Kiv::String8 uid;
      Kiv::String8 agent;
   };

   // An event that an active stage waits for.
   struct PendingEvent {
      Kiv::String8 uid;
      Kiv::String8 agent;
      std::optional< double > since; // the state machines do not know; for who watched to fill in
   };

   enum class State {
      waiting,   // it has not started
      active,    // it is not complete, and its time is not up
      suspended, // it was critical when its time was up: only its events complete it
      untracked  // active without a StageSm, so that nobody waits for its events: it has become so
                 // this instant, or it was so before its StatusSm was made
   };

   // A stage on which a stage that waits depends, and which is not complete.
   struct Dependency {
      Kiv::Name stage;
      std::optional< Index > unfinished; // where it stands; nowhere when no agent declares it
      std::vector< Event > by;           // the events of the stage that waits which say so, by uid
   };

   struct UnfinishedStage {
      Kiv::Name name;
      State state = State::waiting;
      bool critical = false;
      double timeout = never; // as declared now

      // While it waits. It lacks nothing but a decision if it is not held back and no dependency
      // stands here.
      bool heldBack = false;                // by all `critical` ones, as it is not critical itself
      std::vector< Dependency > dependency; // those that are not met, by name
      std::optional< Index > cycle;         // its place in `root`, when it waits for itself

      // Once it is active. When its time is up it is declared complete all the same, unless it is
      // critical then: then it is suspended.
      std::vector< PendingEvent > event; // by uid
      double timeIsUp = never; // as armed when it became active, whatever `timeout` is now

      // The state machines do not know; for who watched to fill in.
      std::optional< double > activeSince;
      std::optional< double > timedOutAt;
   };

   // A step of a cycle: `stage` waits for the stage of the next link, that of the last one for that
   // of the first.
   struct Link {
      Index stage = 0;
      bool heldBack = false;   // because that one is critical and has not started; else it depends
      std::vector< Event > by; // on that one, and these events say so
   };

   // What waits for nothing itself.
   struct Root {
      enum class Kind {
         events,     // of an active or suspended stage, the first of `of`
         undeclared, // a stage that no agent declares, but on which the events `by` depend
         cycle,      // stages that wait for each other, all of which are `of`; `path` is a shortest
                     // way from the first of them back to itself
         untracked,  // an active stage, the first of `of`, whose events nobody waits for
         disabled,   // the configuration is not enabled
         decision    // `of` lack nothing but the next decision
      };
      Kind kind = Kind::events;
      Kiv::Name stage;         // the first of `of`, or the one not declared; empty when disabled
      std::vector< Index > of; // the stages that are this root, in order
      std::vector< Event > by;
      std::vector< Link > path;
      // How many stages wait for it, directly or through others, not counting `of`. A stage that
      // waits for several roots counts for each of them.
      std::uint32_t waiting = 0;
      // When it is over by itself: when the stage's time is up, or the decision is due.
      double goesOnAt = never;
   };

   double now = 0;
   bool enabled = false;                 // progression has begun, or may
   double nextDecision = never;          // when it is due; one that is not asked for is never
   std::vector< UnfinishedStage > stage; // by name
   std::vector< Index > critical;        // those that are critical and have not started
   // Those that most stages wait for first, and among equals by name. Each unfinished stage is one
   // or waits for at least one.
   std::vector< Root > root;
};

// Why the start-up of `sm` is not complete, as it stands now. Without stages and roots if it is.
// Changes nothing, queues nothing, tells nobody; may be called at any moment, inside callbacks too,
// where it sees what handlers have done so far.
// Throws std::bad_alloc.
// Cost: linear in the known stages and in the dependencies and events of unfinished ones, with a
// logarithm for sorting; and once more over unfinished stages and their dependencies for every 64
// roots. No recursion: a chain of stages may be as long as memory allows.
ORDOVAN_EXPORT Explanation explain( StatusSm const & sm );

// The part of it that says why stage `name` is not complete: that stage, those that it waits for,
// directly or through others, and the roots among them. How many stages wait for a root is counted
// over the whole, those that are the root itself but not of this part included. Without stages and
// roots if `name` is complete; if no agent declares it, one root says so. Cost: as the whole.
ORDOVAN_EXPORT Explanation explain( StatusSm const & sm, Kiv::Name const & name );

// The stages that wait for a root of the explanation, directly or through others, in order; those
// that are the root itself left out. Of a part (above), those of the part.
// REQUIRES: `root` is one of `explanation.root`, or a copy of one.
// Cost: linear in the explanation.
ORDOVAN_EXPORT std::vector< Explanation::Index > waitingFor( Explanation const & explanation,
                                                             Explanation::Root const & root );

// ---- for people: UTF-8 sentences without line ends, in which no name can steer a terminal

// What the root is, what becomes of it by itself, and how many more stages wait for it.
ORDOVAN_EXPORT std::string sentence( Explanation const & explanation,
                                     Explanation::Root const & root );
// What the stage waits for.
ORDOVAN_EXPORT std::string sentence( Explanation const & explanation,
                                     Explanation::UnfinishedStage const & stage );
// A sentence for each root, in their order.
ORDOVAN_EXPORT std::vector< std::string > causes( Explanation const & explanation );

} // namespace Stage
