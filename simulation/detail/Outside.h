// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include <Kiv/Kiv.h>
#include <Stage/Stage.h>

#include <simulation/Plan.h>

namespace Simulation::detail {

// One event object of a simulated agent. A stage that is declared anew gets a new one.
struct SimulatedEvent {
   Kiv::Ptr< Stage::EventConfig > config;
   std::string stage;
   Behaviour behaviour;
   bool there = true; // neither withdrawn nor gone with its agent
};
using SimulatedEventPtr = std::shared_ptr< SimulatedEvent >;

// The side that the library only reads: the configuration, the directory of agents, and all that
// the agents declare. Writes are made as asked, at once; REQUIRES for each: the agents and events
// that it names are there, and those that it adds are not.
class Outside {
 public:
   using Declaration = std::function< void( SimulatedEventPtr const & ) >;

   explicit Outside( bool enabled );

   // `declaration` is called for each event when it has been declared.
   void declarationIs( Declaration declaration ) { declaration_ = std::move( declaration ); }

   Kiv::Ptr< Stage::Config > const & config() const { return config_; }
   Kiv::Ptr< Kiv::Dir > const & agentDir() const { return agentDir_; }

   void join( std::string const & agent, std::vector< Event > const & events );
   void write( Operation const & operation );

   // What has been written: an agent is in the directory, has an event for a stage, how many it
   // has, and how many all have together.
   bool isThere( std::string const & agent ) const { return agent_.count( agent ) != 0; }
   bool isDeclared( std::string const & agent, std::string const & stage ) const;
   std::size_t events( std::string const & agent ) const;
   std::size_t events() const { return events_; }

 private:
   struct Agent {
      Kiv::Ptr< Stage::AgentConfig > config;
      std::unordered_map< std::string, SimulatedEventPtr > event; // by stage
   };

   void make( Join const & join );
   void make( Leave const & leave );
   void make( Declare const & declare );
   void make( Withdraw const & withdraw );
   void make( Set const & set );
   void make( Enable const & enable );
   void declare( std::string const & name, Agent & agent, Event const & event );

   Kiv::Ptr< Stage::Config > config_;
   Kiv::Ptr< Kiv::Dir > agentDir_;
   std::unordered_map< std::string, Agent > agent_;
   std::size_t events_ = 0;
   Declaration declaration_;
};

} // namespace Simulation::detail
