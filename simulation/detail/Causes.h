// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include <simulation/Determined.h>

namespace Simulation::detail {

// Remembers why what happens in a run happens when it does.
//
// A run is a sequence of steps: the start, the writes of an instant, a report, a timer that goes
// off. A step includes all callbacks that it brings about, so whatever the watchers see was brought
// about by the present step. What makes a step happen when it does is an earlier one:
//
//    a report            the step in which its event's seconds began to count
//    a stage's time      the step in which the stage started
//    a decision          the first step, since the decision before, that asked for it
//
// and why a decision starts a stage that the one before has not started is in that stage's story.
// Cost: linear in the steps and in the dependencies of the stages that start.
class Causes {
 public:
   using Step = std::size_t;
   using Link = Determined::Link;

   // The next step has begun, of the start or the timeline,
   void outside();
   // of a report whose seconds counted from the step `armed`,
   void report( std::string const & stage, std::string const & uid, Step armed );
   // or of a timer: that of the next decision, or of a stage's time. The decision has been made
   // then, but nothing that follows from it.
   void timer( bool decision );
   // It is over; a decision is asked for now or not, progression has been started or not.
   void over( bool decisionWanted, bool started );

   Step now() const { return steps_.size() - 1; }

   // What is seen of a stage: it is declared, has one dependency more or less, has started, and is
   // complete for the first time.
   void stageKnown( std::string const & stage );
   void dependency( std::string const & stage, std::string const & on, bool present );
   void stageStarted( std::string const & stage, bool critical );
   void stageComplete( std::string const & stage, bool timeUp );

   // REQUIRES: start-up is complete.
   Determined determined() const;

 private:
   enum class Kind { outside, report, timer };
   struct Cause {
      double t;
      Kind kind;
      // Of a report.
      Step armed = 0;
      std::string stage;
      std::string uid;
   };
   struct Story {
      std::map< std::string, Step > dependency; // and since when it is one
      // The last step that made it ready, apart from completions of its present dependencies.
      Step ready = 0;
      Step started = 0;
      Link::Begin begun = Link::Begin::dependency;
      std::string by;      // of Begin::dependency: the last dependency to become complete
      Step because = 0;    // of the others: what asked for the decision
      Step couldStart = 0; // of Begin::critical and decision
      std::string heldFor;
      std::optional< Step > complete;
      bool timeUp = false;
   };

   bool isComplete( std::string const & stage ) const;
   // When it became complete, if that was after it had become a dependency: before, it changed
   // nothing that it was one.
   std::optional< Step > satisfied( std::string const & on, Step since ) const;
   void explainStart( Story & story, Step ready ) const;
   std::string const & stageOf( Step step ) const;
   Link endOf( std::string const & stage, Step step ) const;
   void addBegin( Link & link, Story const & story ) const;
   bool isOutside( Step step ) const { return steps_[ step ].kind == Kind::outside; }
   double timeOf( Step step ) const { return steps_[ step ].t; }

   std::vector< Cause > steps_;
   std::vector< Step > decisions_;
   std::optional< Step > wanted_; // what asked for the next decision
   Step because_ = 0;             // what asked for the last one
   std::optional< Step > enabled_;
   std::pair< Step, std::string > lastCritical_;               // to start
   std::vector< std::pair< Step, std::string > > completions_; // each stage once
   std::unordered_map< std::string, Story > story_;
};

} // namespace Simulation::detail
