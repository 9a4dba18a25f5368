// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The same start-up by hand: what somebody would write who needs this one graph walked once, and
// needs neither changes on the way, nor timers, nor anybody watching.
#include <startup/Measure.h>

#include <algorithm>
#include <deque>
#include <unordered_map>

namespace Bench {

namespace {

struct Event {
   std::string stage;
   std::string agent;
   std::vector< std::string > dependency;
   double timeout;
   bool critical;
   bool complete;
   std::uint32_t place;
};

struct Agent {
   std::string name;
   std::vector< Event > event;
};

struct Stage {
   std::vector< Event * > event;
   std::vector< Stage * > dependency;
   std::vector< Stage * > dependent;
   double timeout = 0;
   std::uint32_t waitsFor = 0; // dependencies that are not complete
   bool critical = false;
};

using Stages = std::unordered_map< std::string, Stage >;

std::vector< Agent > declare( Declarations const & declared ) {
   std::vector< Agent > agent;
   std::unordered_map< std::string, std::size_t > number;
   for( std::string const & name : declared.agent ) {
      number.emplace( name, agent.size() );
      agent.push_back( { name, {} } );
   }
   for( std::uint32_t place = 0; place != declared.event.size(); ++place ) {
      Declaration const & d = declared.event[ place ];
      std::vector< std::string > needed;
      for( std::uint32_t other : d.dependency )
         needed.push_back( declared.event[ other ].stage );
      agent[ number.at( d.agent ) ].event.push_back(
         { d.stage, d.agent, std::move( needed ), d.timeout, d.critical, false, place } );
   }
   return agent;
}

// A stage that a critical one depends on is critical, at any distance.
void spreadCritical( Stages & stages ) {
   std::vector< Stage * > todo;
   for( auto & [ name, stage ] : stages )
      if( stage.critical )
         todo.push_back( &stage );
   while( !todo.empty() ) {
      Stage * const stage = todo.back();
      todo.pop_back();
      for( Stage * needed : stage->dependency )
         if( !needed->critical ) {
            needed->critical = true;
            todo.push_back( needed );
         }
   }
}

Stages aggregate( std::vector< Agent > & agents ) {
   Stages stages;
   for( Agent & agent : agents )
      for( Event & event : agent.event ) {
         Stage & stage = stages[ event.stage ];
         stage.event.push_back( &event );
         stage.timeout = std::max( stage.timeout, event.timeout );
         stage.critical = stage.critical || event.critical;
         for( std::string const & needed : event.dependency )
            stage.dependency.push_back( &stages[ needed ] );
      }
   for( auto & [ name, stage ] : stages ) {
      auto & all = stage.dependency;
      std::sort( all.begin(), all.end() );
      all.erase( std::unique( all.begin(), all.end() ), all.end() );
      for( Stage * needed : all )
         needed->dependent.push_back( &stage );
      stage.waitsFor = static_cast< std::uint32_t >( all.size() );
   }
   spreadCritical( stages );
   return stages;
}

// Starts what is ready, critical stages first: the others wait while a critical one has not
// started. Each completes at once.
std::vector< std::uint32_t > walk( Stages & stages ) {
   std::vector< std::uint32_t > order;
   order.reserve( stages.size() );
   std::deque< Stage * > ready;
   std::deque< Stage * > readyCritical;
   std::size_t criticalWaiting = 0;
   auto const isReady = [ & ]( Stage & s ) {
      ( s.critical ? readyCritical : ready ).push_back( &s );
   };
   for( auto & [ name, stage ] : stages ) {
      criticalWaiting += stage.critical;
      if( stage.waitsFor == 0 )
         isReady( stage );
   }
   while( !readyCritical.empty() || ( criticalWaiting == 0 && !ready.empty() ) ) {
      auto & from = readyCritical.empty() ? ready : readyCritical;
      Stage & stage = *from.front();
      from.pop_front();
      criticalWaiting -= stage.critical;
      for( Event * event : stage.event ) {
         order.push_back( event->place );
         event->complete = true;
      }
      for( Stage * dependent : stage.dependent )
         if( --dependent->waitsFor == 0 )
            isReady( *dependent );
   }
   return order;
}

} // namespace

Measured startControl( Declarations const & declared ) {
   Measured result;
   Meter meter;
   std::vector< Agent > agents = declare( declared );
   result.declare = meter.lap();
   Stages stages = aggregate( agents );
   result.aggregate = meter.lap();
   std::vector< std::uint32_t > const order = walk( stages );
   result.progress = meter.lap();
   result.heapBytes = meter.heapBytes();

   for( auto const & [ name, stage ] : stages )
      result.criticalStages += stage.critical;
   if( isOrderOf( order, declared ) )
      result.stages = static_cast< std::uint32_t >( stages.size() );
   return result;
}

} // namespace Bench
