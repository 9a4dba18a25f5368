// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// A random history of what the outside writes, in a small world, and what must hold whenever the
// loop is idle.
//
// Everything follows from the seed: the world's size, the writes, where the loop runs in between.
// Writes are kept as text, so that a history that fails can be told.
#pragma once

#include <tests/support/World.h>

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace convergence {

using Kiv::Name;
using Kiv::Ptr;
using Kiv::String8;

// Small and the same everywhere, unlike the distributions of the standard library.
class Random {
 public:
   explicit Random( std::uint64_t seed ) : state_( seed * 0x9e3779b97f4a7c15U + 1 ) {}
   // Below `limit`, which is not 0.
   unsigned below( unsigned limit ) {
      state_ ^= state_ << 13;
      state_ ^= state_ >> 7;
      state_ ^= state_ << 17;
      return static_cast< unsigned >( ( state_ >> 33 ) % limit );
   }
   bool oneIn( unsigned n ) { return below( n ) == 0; }

 private:
   std::uint64_t state_;
};

// What a history may contain.
struct Kind {
   // A stage depends only on stages before it in a fixed order.
   bool acyclic = true;
   // No agent leaves and joins, no event is withdrawn and declared, and no object is replaced by
   // another, without the loop having been idle in between.
   bool clean = false;
   // One write between any two idle loops.
   bool single = false;
   // Some callbacks are delivered between the writes of a batch.
   bool partial = false;
   // The aggregation is sometimes released and made anew.
   bool remade = false;
   // The outside also removes stages from the status; some return before that is heard.
   bool stagesGo = false;
   // Nearly all writes change flags and dependencies of events that are there.
   bool links = false;
   // Timeouts that single precision cannot hold, that are below zero or no numbers.
   bool oddTimeouts = false;
};

// What the stages look like, comparable as text.
using Picture = std::map< std::string, std::string >;

class History {
 public:
   History( std::uint64_t seed, Kind const & kind );

   // Plays the history; what is wrong, the first time that something is.
   std::optional< std::string > play();
   // The writes so far, one a line.
   std::string told() const;
   // Without critical flags for dependencies with cycles: whether a cycle catches a reason that
   // passes within one batch, and then stays critical, depends on who is told of it first.
   Picture picture() const;

 private:
   using Event = Ptr< Stage::EventConfig >;
   using Key = std::pair< std::string, std::string >; // agent, stage

   // A stage's timeout and the timeouts of its events, before a write.
   struct Before {
      double timeout;
      std::map< std::string, std::pair< Stage::EventConfig const *, double > > events;
   };

   void write();
   void batch();
   void deliverSome();
   void remake();

   void join( std::string const & agent );
   void leave( std::string const & agent );
   void anotherType( std::string const & agent );
   void declare( std::string const & agent, std::string const & stage );
   void withdraw( std::string const & agent, std::string const & stage );
   void withdrawAll( std::string const & agent );
   void changeEvent();
   void changeDependency( Event const & event );
   void changeStages();

   Ptr< Stage::AgentConfig > entry( std::string const & agent ) const;
   Event newEvent( std::string const & agent, std::string const & stage );
   Event anyEvent();
   double anyTimeout();
   std::string anyDependency( std::string const & stage );
   void say( std::string const & line ) { told_.push_back( line ); }

   std::optional< std::string > check() const;
   std::optional< std::string > checkReactors() const;
   std::optional< std::string > checkEvents() const;
   std::optional< std::string > checkDependencies() const;
   std::optional< std::string > checkCritical() const;
   std::optional< std::string > checkTimeouts() const;
   std::optional< std::string > checkTimeoutSteps() const;
   std::set< std::string > criticalFromScratch() const;
   void remember();

   Random random_;
   Kind kind_;
   std::vector< std::string > agents_;
   std::vector< std::string > stages_;
   testing_support::World w_;
   Ptr< Stage::ConfigSm > machine_;
   std::vector< Event > events_;                     // all that were ever made
   std::vector< Ptr< Stage::AgentConfig > > absent_; // agents' objects that left the directory
   std::set< std::string > left_;                    // since the loop was idle
   std::set< Key > withdrawn_;                       // since the loop was idle
   std::map< std::string, Before > before_;
   bool delivered_ = false; // since the loop was idle
   std::vector< std::string > told_;
};

// Plays `usual` histories, or as many as the environment says; fails the running test, and tells
// the history, for the first few that go wrong.
void playMany( Kind const & kind, unsigned usual );

// The first seed and how many, from the environment where it says so.
std::pair< std::uint64_t, unsigned > seeds( unsigned usual );

// In a build whose hash seed can be changed: changes it, and with it every collection's order.
// REQUIRES: no string made before is used as a key any more.
void orderIs( std::uint64_t order );

} // namespace convergence
