// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// An agent with several events, and what it has to keep in order to report them.
#include <Ordovan/Ordovan.h>

#include <cstdio>
#include <map>
#include <type_traits>

class Agent : public Stage::Status::NotifieeConst {
 public:
   Agent( Kiv::Name const & name, Kiv::Ptr< Kiv::Dir > const & agents,
          Kiv::Ptr< Stage::Status > const & status )
      : config_( Stage::AgentConfig::AgentConfigIs( name ) ) {
      watch( status );
      agents->entityPtrIs( config_ );
   }
   // Declares an event for the stage, with dependencies and all that its caller writes to it.
   Kiv::Ptr< Stage::EventConfig > eventIs( Kiv::Name const & stage ) {
      auto const event = Stage::EventConfig::EventConfigIs( stage, config_->name() );
      config_->eventIs( stage, event );
      event_[ stage ] = event; // to write to it later: the configuration gives it out as const
      return event;
   }
   using NotifieeConst::onActiveStage;
   void onActiveStage( Kiv::Name stage ) override {
      if( auto const mine = event_.find( stage ); mine != event_.end() ) {
         std::printf( "%s reports %s\n", config_->name().charPtr(), stage.charPtr() );
         mine->second->completeIs( true );
      }
   }
   void onComplete() override { Kiv::activityManager()->stop(); }

 private:
   Kiv::Ptr< Stage::AgentConfig > const config_;
   std::map< Kiv::Name, Kiv::Ptr< Stage::EventConfig > > event_;
   // What is declared can be read by everybody and written by nobody who did not keep it.
   static_assert( std::is_same_v< decltype( config_->event( Kiv::Name() ) ),
                                  Kiv::Ptr< Stage::EventConfig const > > );
};

int main() {
   auto const agents = Kiv::Dir::DirIs( "agents" );
   auto const config = Stage::Config::ConfigIs( "config" );
   config->agentDirIs( agents );
   config->enabledIs( true );
   auto const status = Stage::Status::StatusIs( "status" );
   auto const agent = Kiv::newReactor< Agent >( "Core", agents, status ); // status does not hold it
   agent->eventIs( "Boot" );
   agent->eventIs( "Network" )->dependencyIs( "Boot", true );
   agent->eventIs( "Shell" )->dependencyIs( "Network", true );

   auto const manager = Stage::Ordovan::OrdovanIs( "manager" );
   manager->configSmIs( config, status, agents );
   manager->statusSmIs( "Server", config, status, Stage::Progress::ProgressIs( "progress" ),
                        Stage::Log::LogIs( "log" ) );
   Kiv::activityManager()->run();
   std::puts( "Everything is up" );
}
