// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Ordovan/Ordovan.h>

#include <cstdio>

// An agent with one event. It does its part when the event's stage becomes active.
struct Agent : Stage::Status::NotifieeConst {
   Agent( Kiv::Name stage, Kiv::Name name, Kiv::Ptr< Kiv::Dir > agents,
          Kiv::Ptr< Stage::Status > status )
      : config( Stage::AgentConfig::AgentConfigIs( name ) ),
        event( Stage::EventConfig::EventConfigIs( stage, name ) ) {
      config->eventIs( stage, event );
      agents->entityPtrIs( config );
      watch( status );
   }
   using NotifieeConst::onActiveStage;
   void onActiveStage( Kiv::Name stage ) override {
      if( config->event( stage ) ) {
         std::printf( "%s does its part in %s\n", config->name().charPtr(), stage.charPtr() );
         event->completeIs( true );
      }
   }
   void onComplete() override { Kiv::activityManager()->stop(); }

   Kiv::Ptr< Stage::AgentConfig > config;
   Kiv::Ptr< Stage::EventConfig > event;
};

int main() {
   auto agents = Kiv::Dir::DirIs( "agents" );
   auto config = Stage::Config::ConfigIs( "config" );
   config->agentDirIs( agents );
   config->enabledIs( true );
   auto status = Stage::Status::StatusIs( "status" );
   auto routing = Kiv::newReactor< Agent >( "Protocols", "Routing", agents, status );
   auto platform = Kiv::newReactor< Agent >( "Hardware", "Platform", agents, status );
   routing->event->dependencyIs( "Hardware", true );

   auto manager = Stage::Ordovan::OrdovanIs( "manager" );
   manager->configSmIs( config, status, agents );
   manager->statusSmIs( "Router", config, status, Stage::Progress::ProgressIs( "progress" ),
                        Stage::Log::LogIs( "log" ) );
   Kiv::activityManager()->run();
   std::puts( status->complete() ? "Everything is up" : "Something is missing" );
}
