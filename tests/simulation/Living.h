// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Start-ups as a hub would drive them: inputs of random plans arrive at random times, and whoever
// moves the engine wakes up when he does, often too late. The same on every machine.
#pragma once

#include "../model/RandomPlan.h"
#include "EngineTestSupport.h"

#include <algorithm>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>

#include <simulation/Engine.h>
#include <simulation/RecordWriter.h>

namespace living {

using namespace Simulation;

class Random {
 public:
   explicit Random( std::uint64_t seed ) : state_( seed * 0x9e3779b97f4a7c15U + 7 ) {}
   unsigned below( unsigned limit ) {
      std::uint64_t mixed = state_ += 0x9e3779b97f4a7c15U;
      mixed = ( mixed ^ ( mixed >> 30 ) ) * 0xbf58476d1ce4e5b9U;
      mixed = ( mixed ^ ( mixed >> 27 ) ) * 0x94d049bb133111ebU;
      return static_cast< unsigned >( ( mixed ^ ( mixed >> 31 ) ) % limit );
   }

 private:
   std::uint64_t state_;
};

struct Arrival {
   double t = 0;
   Input input;
};

// What random agents do: what a random plan has them do, and reports in place of its seconds.
class World {
 public:
   explicit World( std::uint64_t seed ) : random_( seed ) {
      auto plan = model::randomPlan( seed );
      beginning = { plan.application, plan.enabled, {}, random_.below( 2 ) == 0 };
      for( auto & agent : plan.agent ) {
         real( agent.event );
         if( random_.below( 2 ) == 0 )
            beginning.agent.push_back( agent );
         else
            arrive( 0.5 * random_.below( 3 ), Join{ agent.name, agent.event } );
      }
      for( auto & entry : plan.timeline ) {
         if( auto * const join = std::get_if< Join >( &entry.operation ) )
            real( join->event );
         else if( auto * const declare = std::get_if< Declare >( &entry.operation ) )
            real( declare->event );
         arrive( entry.at, entry.operation );
      }
      for( unsigned count = random_.below( 60 ); count != 0; --count ) {
         auto const agent = "agent" + std::to_string( random_.below( 6 ) );
         std::string const stage( 1, static_cast< char >( 'A' + random_.below( 12 ) ) );
         arrive( 0.25 * random_.below( 32 ),
                 Set{ agent, stage, { CompleteWrite{ random_.below( 12 ) != 0 } } } );
      }
      std::stable_sort( arrival.begin(), arrival.end(),
                        []( auto const & a, auto const & b ) { return a.t < b.t; } );
      if( !beginning.enabled && random_.below( 2 ) == 0 )
         options.expected = std::vector< std::string >{ "agent0" };
      options.countChanges = true;
   }

   Beginning beginning;
   EngineOptions options;
   std::vector< Arrival > arrival;

 private:
   void arrive( double t, Operation operation ) {
      auto const user = random_.below( 3 );
      arrival.push_back(
         { t, { std::move( operation ), user ? std::optional( user ) : std::nullopt } } );
   }
   void real( std::vector< Event > & events ) {
      for( auto & event : events )
         real( event );
   }
   void real( Event & event ) {
      if( event.complete.kind == Behaviour::Kind::afterSeconds )
         event.complete = { Behaviour::Kind::never, 0 };
   }

   Random random_;
};

// Drives an engine through a world until some time.
class Driver {
 public:
   // Is told of each instant before the engine acts on it.
   using Keep = std::function< void( Instant const & ) >;

   Driver( World const & world, std::uint64_t seed, Keep keep )
      : world_( world ), random_( seed + 1000000 ), keep_( std::move( keep ) ) {}

   void keepIs( Keep keep ) { keep_ = std::move( keep ); }

   // Some of the way; false when nothing is to come any more.
   bool go( Engine & engine, unsigned wakeUps ) {
      for( ; wakeUps != 0; --wakeUps ) {
         if( next_ == world_.arrival.size() && engine.nextDue() == infinity )
            return false;
         time_ = std::max( time_, wakeUp( engine ) );
         turn( engine );
      }
      return true;
   }

 private:
   double wakeUp( Engine const & engine ) {
      double const arrives = next_ == world_.arrival.size() ? infinity : world_.arrival[ next_ ].t;
      double const due = std::min( engine.nextDue(), arrives );
      switch( random_.below( 6 ) ) {
      case 0:
         return engine.nextDue() == infinity ? due : engine.nextDue(); // an input may be late
      case 1:
         return due + 0.5 * random_.below( 6 );
      case 2:
         return due + 0.000001 * random_.below( 3 );
      case 3:
         return due + 1e-6 * random_.below( 3000000 );
      default:
         return due;
      }
   }

   void turn( Engine & engine ) {
      if( random_.below( 3 ) == 0 )
         fire( engine ); // timers before what is read
      std::vector< Input > inputs;
      for( ; next_ != world_.arrival.size() && world_.arrival[ next_ ].t <= time_; ++next_ ) {
         inputs.push_back( world_.arrival[ next_ ].input );
         try {
            engine.check( inputs );
         } catch( std::invalid_argument const & ) {
            inputs.pop_back(); // nonsense, which a hub would answer with an error
         }
         if( random_.below( 4 ) == 0 )
            takeIn( engine, inputs );
      }
      takeIn( engine, inputs );
      if( random_.below( 2 ) == 0 )
         fire( engine );
   }

   void takeIn( Engine & engine, std::vector< Input > & inputs ) {
      if( inputs.empty() )
         return;
      auto const instant = engine.instant( time_, std::exchange( inputs, {} ) );
      keep_( instant );
      engine.takeIn( instant );
   }

   void fire( Engine & engine ) {
      while( engine.nextDue() <= time_ ) {
         keep_( { engine.nextDue(), {} } );
         engine.fire();
      }
   }

   World const & world_;
   Random random_;
   Keep keep_;
   std::size_t next_ = 0;
   double time_ = 0;
};

// The lines of a start-up's record.
class Recording : public RecordWriter {
 public:
   explicit Recording( Inputs inputs = Inputs::written )
      : RecordWriter( [ this ]( std::string_view line ) { text += line; }, inputs ) {}
   std::string text;
};

} // namespace living
