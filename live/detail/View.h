// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// How a start-up stands, as values of the protocol.
#pragma once

#include <live/Protocol.h>

#include <simulation/Engine.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <sys/types.h>

namespace Live::detail {

// What the hub knows of an agent besides its declaration, which stands in the entities.
struct KnownAgent {
   Kiv::Ptr< Varlink::Connection > connection; // that speaks for it; null: none
   bool joined = false;
   Protocol::Lost lost = Protocol::Lost::keep;
   uid_t user = 0;                            // who has spoken for it first
   std::map< std::string, std::string > note; // by stage
};

// Ordered by name, which is the order in which they are told.
using KnownAgents = std::map< std::string, KnownAgent, std::less<> >;

// Reads entities and state machines, when it is asked. Names of stages are of known ones.
class View {
 public:
   View( Simulation::Engine const & engine, KnownAgents const & agents )
      : engine_( engine ), agents_( agents ) {}

   bool known( std::string const & stage ) const;
   bool active( std::string const & stage ) const;
   // As Wait means it: a stage that nobody knows is neither active nor complete.
   bool complete( std::string const & stage ) const;
   bool timedOut( std::string const & stage ) const;
   // Sorted.
   std::vector< std::string > stages( bool activeAlone ) const;
   // `events` left out: none.
   Protocol::Stage stage( std::string const & name, bool events ) const;
   // REQUIRES: it is known.
   Protocol::Agent agent( std::string const & name ) const;
   // Behind so many, at most `most`.
   std::vector< Protocol::Entry > log( std::int64_t after, std::size_t most ) const;

   Simulation::Engine const & engine() const { return engine_; }

 private:
   Simulation::Engine const & engine_;
   KnownAgents const & agents_;
};

} // namespace Live::detail
