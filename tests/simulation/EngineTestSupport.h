// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <utility>
#include <vector>

#include <simulation/Json.h>
#include <simulation/Run.h>

// Plans in a few words, and a recorder of everything that an observer is told.

namespace Simulation {

using Lines = std::vector< std::string >;

inline Behaviour after( double seconds ) { return { Behaviour::Kind::afterSeconds, seconds }; }
inline Behaviour never() { return { Behaviour::Kind::never, 0 }; }
inline Behaviour already() { return { Behaviour::Kind::already, 0 }; }

inline Event event( std::string stage, Behaviour complete = after( 0 ),
                    std::vector< std::string > const & dependencies = {} ) {
   Event event;
   event.stage = std::move( stage );
   event.complete = complete;
   for( auto const & dependency : dependencies )
      event.dependency.push_back( { dependency, true } );
   return event;
}

inline Event withTimeout( double seconds, Event event ) {
   event.timeout = seconds;
   return event;
}

inline Event critical( Event event ) {
   event.critical = true;
   return event;
}

inline Agent agent( std::string name, std::vector< Event > events ) {
   return { std::move( name ), std::move( events ), {} };
}

inline TimelineEntry at( double t, Operation operation ) {
   return { t, std::move( operation ), {}, {}, {} };
}

inline Plan planOf( std::vector< Agent > agents, std::vector< TimelineEntry > timeline = {} ) {
   Plan plan;
   plan.application = "Router";
   plan.agent = std::move( agents );
   plan.timeline = std::move( timeline );
   return plan;
}

// What the observers are told, each as one line that begins with its time.
class Recorder : public Observer {
 public:
   void onLogEntry( double t, std::string const & msg ) override {
      log.push_back( line( t, msg ) );
   }
   void onMessage( Message const & message ) override {
      log.push_back( line( message.t, "! " + message.text ) );
   }
   void onStage( StageChange const & change ) override {
      static char const * const kinds[] = { "active",    "complete", "timed out",
                                            "suspended", "resumed",  "completed late" };
      auto text = change.stage + ' ' + kinds[ static_cast< int >( change.kind ) ];
      for( auto const & uid : change.pending )
         text += ' ' + uid;
      stages.push_back( line( change.t, text ) );
   }
   void onEnd( Result const & ) override { log.push_back( "end" ); }

   Lines log;
   Lines stages;

 private:
   static std::string line( double t, std::string const & text ) {
      return jsonNumber( t ) + ' ' + text;
   }
};

// The log entries and messages of a run of `plan`.
inline Lines logOf( Plan const & plan ) {
   Recorder recorder;
   run( plan, { &recorder } );
   return recorder.log;
}

// What is said of an unfinished stage; the words are tested where they are made.
inline std::string reasonFor( Result const & result, std::string const & stage ) {
   for( auto const & unfinished : result.explanation.stage )
      if( unfinished.name == stage )
         return sentence( result.explanation, unfinished );
   return "none";
}

inline Lines stagesOf( Plan const & plan ) {
   Recorder recorder;
   run( plan, { &recorder } );
   return recorder.stages;
}

} // namespace Simulation
