// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Plays a plan on the entities themselves, where a test can look at everything in between.
#pragma once

#include "../support/World.h"

#include <simulation/Plan.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

namespace model {

// Simulated agents without finesse: one that reports after some time does so when its stage has
// been active that long, looked at after each quiet loop; one that leaves still reports.
class Player {
 public:
   explicit Player( Simulation::Plan const & plan ) : plan_( plan ) {
      world.config->enabledIs( plan.enabled );
      for( auto const & agent : plan.agent )
         join( agent.name, agent.event );
      configSm = world.configSm();
      statusSm = manager_->statusSmIs( plan.application, world.config, world.status, world.progress,
                                       world.log );
   }

   // Calls `settle` once before and once at each instant at which something is due. Timers that
   // are due fall to it.
   template< class Settle >
   void play( Settle settle ) {
      double const start = world.clock->now();
      std::vector< Simulation::TimelineEntry > entries = plan_.timeline;
      std::stable_sort( entries.begin(), entries.end(),
                        []( auto const & a, auto const & b ) { return a.at < b.at; } );
      auto next = entries.begin();
      settle();
      while( true ) {
         double const written = next == entries.end() ? Kiv::infinity : start + next->at;
         double const time =
            std::min( { written, nextReport(), Kiv::activityManager()->nextTime() } );
         if( time == Kiv::infinity )
            return;
         world.clock->nowIs( std::max( time, world.clock->now() ) );
         for( ; next != entries.end() && start + next->at <= time; ++next )
            std::visit( [ & ]( auto const & one ) { operate( one ); }, next->operation );
         report();
         settle();
      }
   }

   testing_support::World world;
   Kiv::Ptr< Stage::ConfigSm > configSm;
   Kiv::Ptr< Stage::StatusSm > statusSm;

 private:
   struct Report {
      Kiv::Ptr< Stage::EventConfig > event;
      std::string stage;
      double seconds;
      bool made = false;
   };

   double due( Report const & report ) const {
      Kiv::Ptr< Stage::StageSm > const sm = statusSm->stageSm( report.stage );
      if( report.made || !sm )
         return Kiv::infinity;
      return activeSince_.at( report.stage ) + report.seconds;
   }
   double nextReport() {
      for( auto i = statusSm->stageSmIteratorConst(); i; ++i )
         activeSince_.emplace( i.key().str(), world.clock->now() );
      double next = Kiv::infinity;
      for( Report const & one : reports_ )
         next = std::min( next, due( one ) );
      return next;
   }
   void report() {
      for( Report & one : reports_ ) {
         if( due( one ) <= world.clock->now() ) {
            one.made = true;
            one.event->completeIs( true );
         }
      }
   }

   void write( Stage::EventConfig & event, Simulation::CriticalWrite const & one ) {
      event.criticalIs( one.value );
   }
   void write( Stage::EventConfig & event, Simulation::TimeoutWrite const & one ) {
      event.timeoutIs( one.value );
   }
   void write( Stage::EventConfig & event, Simulation::CompleteWrite const & one ) {
      event.completeIs( one.value );
   }
   void write( Stage::EventConfig & event, Simulation::DependencyWrite const & one ) {
      if( one.value )
         event.dependencyIs( one.stage, *one.value );
      else
         event.dependencyDel( one.stage );
   }

   void declare( std::string const & agent, Simulation::Event const & plan ) {
      Kiv::Ptr< Stage::EventConfig > const event =
         Stage::EventConfig::EventConfigIs( plan.stage, agent );
      for( auto const & dependency : plan.dependency )
         event->dependencyIs( dependency.stage, dependency.value );
      event->timeoutIs( plan.timeout );
      event->criticalIs( plan.critical );
      event->completeIs( plan.complete.kind == Simulation::Behaviour::Kind::already );
      if( plan.complete.kind == Simulation::Behaviour::Kind::afterSeconds )
         reports_.push_back( { event, plan.stage, plan.complete.seconds } );
      declared_[ agent ][ plan.stage ] = event;
      world.agent( agent )->eventIs( plan.stage, event );
   }
   void join( std::string const & agent, std::vector< Simulation::Event > const & events ) {
      world.agent( agent );
      for( auto const & event : events )
         declare( agent, event );
   }

   void operate( Simulation::Join const & one ) { join( one.agent, one.event ); }
   void operate( Simulation::Leave const & one ) { world.dir->entityPtrDel( one.agent ); }
   void operate( Simulation::Declare const & one ) { declare( one.agent, one.event ); }
   void operate( Simulation::Withdraw const & one ) {
      world.agent( one.agent )->eventDel( one.stage );
   }
   void operate( Simulation::Set const & set ) {
      Stage::EventConfig & event = *declared_.at( set.agent ).at( set.stage );
      for( auto const & one : set.write )
         std::visit( [ & ]( auto const & value ) { write( event, value ); }, one );
   }
   void operate( Simulation::Enable const & one ) { world.config->enabledIs( one.value ); }

   Simulation::Plan const & plan_;
   Kiv::Ptr< Stage::Ordovan > manager_ = Stage::Ordovan::OrdovanIs( "ordovan" );
   std::map< std::string, std::map< std::string, Kiv::Ptr< Stage::EventConfig > > > declared_;
   std::vector< Report > reports_;
   std::map< std::string, double > activeSince_;
};

} // namespace model
