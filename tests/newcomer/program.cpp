// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// What somebody writes who has just installed the libraries: two agents' events, and a loop of the
// program's own that goes on until all is up.
#include <Ordovan/Ordovan.h>

#include <cstdio>
#include <poll.h>

int main() {
   auto agents = Kiv::Dir::DirIs( "agents" );
   auto config = Stage::Config::ConfigIs( "config" );
   auto status = Stage::Status::StatusIs( "status" );
   auto log = Stage::Log::LogIs( "log" );
   auto declare = [ & ]( Kiv::Name agent, Kiv::Name stage ) {
      auto entry = Stage::AgentConfig::AgentConfigIs( agent );
      auto event = Stage::EventConfig::EventConfigIs( stage, agent );
      entry->eventIs( stage, event );
      agents->entityPtrIs( entry );
      return event;
   };
   auto disks = declare( "Storage", "Disks" );
   auto web = declare( "Server", "Web" );
   web->dependencyIs( "Disks", true );
   auto manager = Stage::Ordovan::OrdovanIs( "manager" );
   manager->configSmIs( config, status, agents );
   manager->statusSmIs( "Newcomer", config, status, Stage::Progress::ProgressIs( "progress" ), log );
   config->enabledIs( true );
   auto loop = Kiv::activityManager();
   while( !status->complete() ) {
      pollfd ready{ loop->descriptor(), POLLIN, 0 };
      poll( &ready, 1, -1 );
      loop->runDue();
      disks->completeIs( status->activeStage( "Disks" ) ? true : false );
      web->completeIs( status->activeStage( "Web" ) ? true : false );
   }
   for( Stage::LogEntry entry; log->logDeq( entry ); )
      std::puts( entry.msg.charPtr() );
}
