// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Everything that a start-up is made of, on a clock that moves only when it is told to.
//
//    World w;
//    w.declare( "agent", "stage" )->timeoutIs( 30 );
//    Kiv::Ptr< Stage::ConfigSm > const sm = w.configSm();
//    w.idle();
#pragma once

#include <Kiv/Kiv.h>
#include <Ordovan/Ordovan.h>
#include <Stage/Stage.h>

#include <set>
#include <string>

namespace testing_support {

struct World {
   World() { Kiv::activityManager()->clockIs( clock ); }
   ~World() { idle(); }
   World( World const & ) = delete;
   World & operator=( World const & ) = delete;

   // Delivers and fires what is due now, until nothing is left.
   void idle() {
      Kiv::Ptr< Kiv::ActivityManager > const & manager = Kiv::activityManager();
      while( manager->runQueued() != 0 || manager->fireOne() ) {
      }
   }
   // Lets `seconds` pass, firing every timer at its own time.
   void pass( double seconds ) {
      double const end = clock->now() + seconds;
      idle();
      while( Kiv::activityManager()->nextTime() <= end ) {
         if( Kiv::activityManager()->nextTime() > clock->now() )
            clock->nowIs( Kiv::activityManager()->nextTime() );
         idle();
      }
      clock->nowIs( end );
   }

   // The agent's declarations; made and filed in the directory when there are none.
   Kiv::Ptr< Stage::AgentConfig > agent( Kiv::Name const & name ) {
      if( Kiv::Ptr< Stage::AgentConfig > const held =
             Kiv::ptrCast< Stage::AgentConfig >( dir->entityPtr( name ) ) )
         return held;
      Kiv::Ptr< Stage::AgentConfig > const made = Stage::AgentConfig::AgentConfigIs( name );
      dir->entityPtrIs( made );
      return made;
   }
   // A new event that the agent declares for the stage.
   Kiv::Ptr< Stage::EventConfig > declare( Kiv::Name const & agentName, Kiv::Name const & stage ) {
      Kiv::Ptr< Stage::EventConfig > const event =
         Stage::EventConfig::EventConfigIs( stage, agentName );
      agent( agentName )->eventIs( stage, event );
      return event;
   }
   Kiv::Ptr< Stage::EventConfig > declare( Kiv::Name const & agentName, Kiv::Name const & stage,
                                           std::set< std::string > const & dependencies,
                                           double timeout = 0, bool critical = false ) {
      Kiv::Ptr< Stage::EventConfig > const event =
         Stage::EventConfig::EventConfigIs( stage, agentName );
      for( std::string const & name : dependencies )
         event->dependencyIs( name, true );
      event->timeoutIs( timeout );
      event->criticalIs( critical );
      agent( agentName )->eventIs( stage, event );
      return event;
   }

   // An aggregation over this world, with its notifications on.
   Kiv::Ptr< Stage::ConfigSm > configSm() { return Stage::configSmFactory( config, status, dir ); }

   Kiv::Ptr< Stage::StageStatus > stage( Kiv::Name const & name ) const {
      return status->stage( name );
   }

   Kiv::Ptr< Kiv::ManualClock > clock = Kiv::ManualClock::ManualClockIs( 1000 );
   Kiv::Ptr< Stage::Config > config = Stage::Config::ConfigIs( "config" );
   Kiv::Ptr< Stage::Status > status = Stage::Status::StatusIs( "status" );
   Kiv::Ptr< Kiv::Dir > dir = Kiv::Dir::DirIs( "agents" );
   Kiv::Ptr< Stage::Progress > progress = Stage::Progress::ProgressIs( "progress" );
   Kiv::Ptr< Stage::Log > log = Stage::Log::LogIs( "log" );
};

// The names in a stage's collections, to be compared with sets written out.
inline std::set< std::string > dependenciesOf( Kiv::Ptr< Stage::StageStatus > const & stage ) {
   std::set< std::string > names;
   for( auto i = stage->dependencyIteratorConst(); i; ++i )
      names.insert( i.key().str() );
   return names;
}
inline std::set< std::string > agentsOf( Kiv::Ptr< Stage::StageStatus > const & stage ) {
   std::set< std::string > names;
   for( auto i = stage->eventIteratorConst(); i; ++i )
      names.insert( i.key().str() );
   return names;
}
inline std::set< std::string > stagesOf( Kiv::Ptr< Stage::Status > const & status ) {
   std::set< std::string > names;
   for( auto i = status->stageIteratorConst(); i; ++i )
      names.insert( i.key().str() );
   return names;
}

} // namespace testing_support
