// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <startup/Measure.h>

#include <Kiv/Kiv.h>
#include <Ordovan/Ordovan.h>
#include <Stage/Stage.h>

#include <unordered_map>

namespace Bench {

namespace {

// All agents' work, and a reader of the log: reports a stage's event complete as soon as the stage
// is active, and throws away what the log says. Has all its memory from the start, so that it does
// not count as the library's.
class World : public Stage::Status::NotifieeConst {
 public:
   explicit World( Declarations const & declared ) {
      event_.reserve( declared.event.size() );
      order_.reserve( declared.event.size() );
      for( Declaration const & d : declared.event )
         place_.emplace( d.stage, static_cast< std::uint32_t >( place_.size() ) );
   }

   void eventAdd( Kiv::Ptr< Stage::EventConfig > const & event ) { event_.push_back( event ); }
   void watch( Kiv::Ptr< Stage::Status > const & status, Kiv::Ptr< Stage::Log > const & log ) {
      log_ = log;
      NotifieeConst::watch( status );
   }
   using Stage::Status::NotifieeConst::onActiveStage;
   void onActiveStage( Kiv::Name stage ) override {
      std::uint32_t const place = place_.at( stage );
      order_.push_back( place );
      event_[ place ]->completeIs( true );
      for( Stage::LogEntry entry; log_->logDeq( entry ); ) {
      }
   }

   std::vector< std::uint32_t > const & order() const { return order_; }

 private:
   std::unordered_map< Kiv::Name, std::uint32_t > place_;
   std::vector< Kiv::Ptr< Stage::EventConfig > > event_; // by place
   std::vector< std::uint32_t > order_;
   Kiv::Ptr< Stage::Log > log_;
};

void declare( Declarations const & declared, Kiv::Dir & agentDir, World & world ) {
   std::unordered_map< std::string, Kiv::Ptr< Stage::AgentConfig > > agents;
   for( std::string const & name : declared.agent )
      agents[ name ] = Stage::AgentConfig::AgentConfigIs( name );
   for( Declaration const & d : declared.event ) {
      Kiv::Name const stage = d.stage;
      Stage::AgentConfig & agent = *agents[ d.agent ];
      auto const event = Stage::EventConfig::EventConfigIs( stage, agent.name() );
      event->timeoutIs( d.timeout );
      event->criticalIs( d.critical );
      for( std::uint32_t needed : d.dependency )
         event->dependencyIs( declared.event[ needed ].stage, true );
      agent.eventIs( stage, event );
      world.eventAdd( event );
   }
   for( auto const & [ name, config ] : agents )
      agentDir.entityPtrIs( config );
}

// What is queued, then the first thing that is due, until there is neither.
void runUntilIdle() {
   Kiv::ActivityManager & manager = *Kiv::activityManager();
   do {
      manager.runQueued();
   } while( manager.fireOne() );
}

} // namespace

Measured startLibrary( Declarations const & declared ) {
   Kiv::activityManager()->clockIs( Kiv::ManualClock::ManualClockIs( 0 ) );
   Measured result;
   Kiv::Ptr< World > const world = new World( declared );
   Meter meter;
   auto const agents = Kiv::Dir::DirIs( "agents" );
   auto const config = Stage::Config::ConfigIs( "config" );
   config->agentDirIs( agents );
   declare( declared, *agents, *world );
   result.declare = meter.lap();

   auto const status = Stage::Status::StatusIs( "status" );
   auto const progress = Stage::Progress::ProgressIs( "progress" );
   auto const log = Stage::Log::LogIs( "log" );
   auto const manager = Stage::Ordovan::OrdovanIs( "manager" );
   manager->configSmIs( config, status, agents );
   manager->statusSmIs( "Router", config, status, progress, log );
   // After the library's own reactor: a stage has its state machine by the time the world hears of
   // it, so that its timer and its pending event are part of what is measured.
   world->watch( status, log );
   runUntilIdle();
   result.aggregate = meter.lap();

   config->enabledIs( true );
   runUntilIdle();
   result.progress = meter.lap();
   result.heapBytes = meter.heapBytes();

   for( auto i = status->stageIteratorConst(); i; ++i )
      result.criticalStages += i.ptr()->critical();
   if( status->complete() && isOrderOf( world->order(), declared ) )
      result.stages = status->stages();
   return result;
}

} // namespace Bench
