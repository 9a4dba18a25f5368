// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <simulation/detail/Outside.h>

namespace Simulation::detail {

namespace {

// Writes the attributes of one event.
class Writer {
 public:
   explicit Writer( Stage::EventConfig & event ) : event_( event ) {}

   void operator()( CriticalWrite const & write ) const { event_.criticalIs( write.value ); }
   void operator()( TimeoutWrite const & write ) const { event_.timeoutIs( write.value ); }
   void operator()( CompleteWrite const & write ) const { event_.completeIs( write.value ); }
   void operator()( DependencyWrite const & write ) const {
      if( write.value )
         event_.dependencyIs( write.stage, *write.value );
      else
         event_.dependencyDel( write.stage );
   }

 private:
   Stage::EventConfig & event_;
};

} // namespace

Outside::Outside( bool enabled )
   : config_( Stage::Config::ConfigIs( "config" ) ), agentDir_( Kiv::Dir::DirIs( "agents" ) ) {
   config_->agentDirIs( agentDir_ );
   config_->enabledIs( enabled );
}

void Outside::join( std::string const & name, std::vector< Event > const & events ) {
   auto & agent = agent_[ name ];
   agent.config = Stage::AgentConfig::AgentConfigIs( name );
   for( auto const & event : events )
      declare( name, agent, event );
   agentDir_->entityPtrIs( agent.config );
}

bool Outside::isDeclared( std::string const & agent, std::string const & stage ) const {
   auto const found = agent_.find( agent );
   return found != agent_.end() && found->second.event.count( stage ) != 0;
}

std::size_t Outside::events( std::string const & agent ) const {
   auto const found = agent_.find( agent );
   return found == agent_.end() ? 0 : found->second.event.size();
}

void Outside::write( Operation const & operation ) {
   std::visit( [ this ]( auto const & o ) { make( o ); }, operation );
}

void Outside::make( Join const & join ) { this->join( join.agent, join.event ); }

void Outside::make( Leave const & leave ) {
   auto const agent = agent_.find( leave.agent );
   for( auto & [ stage, event ] : agent->second.event )
      event->there = false;
   events_ -= agent->second.event.size();
   agentDir_->entityPtrDel( leave.agent );
   agent_.erase( agent );
}

void Outside::make( Declare const & declaration ) {
   declare( declaration.agent, agent_.at( declaration.agent ), declaration.event );
}

void Outside::make( Withdraw const & withdraw ) {
   auto & agent = agent_.at( withdraw.agent );
   auto const event = agent.event.find( withdraw.stage );
   event->second->there = false;
   agent.config->eventDel( withdraw.stage );
   agent.event.erase( event );
   --events_;
}

void Outside::make( Set const & set ) {
   auto const & event = agent_.at( set.agent ).event.at( set.stage );
   for( auto const & write : set.write )
      std::visit( Writer( *event->config ), write );
}

void Outside::make( Enable const & enable ) { config_->enabledIs( enable.value ); }

void Outside::declare( std::string const & name, Agent & agent, Event const & event ) {
   auto const config = Stage::EventConfig::EventConfigIs( event.stage, name );
   config->timeoutIs( event.timeout );
   config->criticalIs( event.critical );
   for( auto const & dependency : event.dependency )
      config->dependencyIs( dependency.stage, dependency.value );
   config->completeIs( event.complete.kind == Behaviour::Kind::already );
   agent.config->eventIs( event.stage, config );
   auto const simulated = std::make_shared< SimulatedEvent >(
      SimulatedEvent{ config, event.stage, event.complete, true } );
   agent.event[ event.stage ] = simulated;
   ++events_;
   declaration_( simulated );
}

} // namespace Simulation::detail
