// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// An agent with three stages, one of which it is late in: how it sees that. The clock is moved by
// hand, so that the program ends at once.
#include <Ordovan/Ordovan.h>

#include <cstdio>
#include <map>

namespace {

void say( Kiv::Name const & stage, char const * what ) {
   std::printf( "%4g s  %-8s %s\n", Kiv::now(), stage.charPtr(), what );
}

// Is told what becomes of one stage, from its start on: the stage's own machine knows whether the
// stage was late, which no entity says.
class StageWatch : public Stage::StageSm::NotifieeConst {
 public:
   explicit StageWatch( Kiv::Ptr< Stage::StageSm > const & stage ) { watch( stage ); }
   void onTimedOut() override {
      say( stage(), notifier()->complete() ? "is late, and is given up"
                                           : "is late, and everything waits for it" );
   }
   void onCompletionTime() override {
      if( notifier()->pendingEvents() == 0 ) // else it was given up
         say( stage(), notifier()->timedOut() ? "is complete after all" : "is complete" );
   }

 private:
   Kiv::Name stage() const { return notifier()->fwkKey(); }
};

// An agent that needs some seconds for its part in each stage.
class Robot : public Stage::Status::NotifieeConst {
 public:
   // REQUIRES: `progression` is that of `status`. Made before, it is told first of a stage
   // that becomes active, and has made the stage's machine by the time that the agent is told.
   Robot( Kiv::Ptr< Kiv::Dir > const & agents, Kiv::Ptr< Stage::Status > const & status,
          Kiv::Ptr< Stage::StatusSm > const & progression )
      : progression_( progression ) {
      watch( status );
      agents->entityPtrIs( config_ );
   }
   // Its event of the stage, which takes `seconds` and may take `timeout`.
   Kiv::Ptr< Stage::EventConfig > eventIs( Kiv::Name const & stage, double seconds,
                                           double timeout ) {
      auto const part = Kiv::newReactor< Part >( stage, config_->name(), seconds );
      part->event->timeoutIs( timeout );
      config_->eventIs( stage, part->event );
      part_[ stage ] = part;
      return part->event;
   }
   using NotifieeConst::onActiveStage;
   void onActiveStage( Kiv::Name stage ) override {
      if( !part_.contains( stage ) )
         return;
      say( stage, "is active" );
      watch_[ stage ] = Kiv::newReactor< StageWatch >( progression_->stageSm( stage ) );
      part_[ stage ]->begin();
   }

 private:
   // What it does in one stage: a timer stands for the work.
   struct Part : Kiv::Clock::NotifieeConst {
      Part( Kiv::Name const & stage, Kiv::Name const & agent, double s )
         : event( Stage::EventConfig::EventConfigIs( stage, agent ) ), seconds( s ) {
         watch( Kiv::activityManager()->clock() );
      }
      void begin() { timeMinIs( Kiv::now() + seconds ); }
      void onTime() override { event->completeIs( true ); }
      Kiv::Ptr< Stage::EventConfig > const event;
      double const seconds;
   };

   Kiv::Ptr< Stage::StatusSm > const progression_;
   Kiv::Ptr< Stage::AgentConfig > const config_ = Stage::AgentConfig::AgentConfigIs( "Robot" );
   std::map< Kiv::Name, Kiv::Ptr< Part > > part_;
   std::map< Kiv::Name, Kiv::Ptr< StageWatch > > watch_;
};

} // namespace

int main() {
   auto const & manager = Kiv::activityManager();
   auto const clock = Kiv::ManualClock::ManualClockIs( 0 );
   manager->clockIs( clock );

   auto const agents = Kiv::Dir::DirIs( "agents" );
   auto const config = Stage::Config::ConfigIs( "config" );
   config->agentDirIs( agents );
   config->enabledIs( true );
   auto const status = Stage::Status::StatusIs( "status" );
   auto const log = Stage::Log::LogIs( "log" );
   auto const ordovan = Stage::Ordovan::OrdovanIs( "manager" );
   ordovan->configSmIs( config, status, agents );
   auto const progression =
      ordovan->statusSmIs( "Arm", config, status, Stage::Progress::ProgressIs( "progress" ), log );
   auto const robot = Kiv::newReactor< Robot >( agents, status, progression );
   robot->eventIs( "Power", 1, 10 );
   robot->eventIs( "Sensors", 7, 2 )->dependencyIs( "Power", true );
   robot->eventIs( "Motion", 3, 10 )->dependencyIs( "Sensors", true );

   while( manager->runDue() > 0 || clock->nextTime() < Kiv::infinity )
      if( clock->nextTime() > clock->now() && clock->nextTime() < Kiv::infinity )
         clock->nowIs( clock->nextTime() );

   std::puts( "The log has it, too:" );
   for( Stage::LogEntry entry; log->logDeq( entry ); )
      std::printf( "%4g s  %s\n", entry.time, entry.msg.charPtr() );
}
