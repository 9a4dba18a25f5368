// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include "Model.h"

#include <algorithm>
#include <cmath>
#include <deque>
#include <limits>
#include <map>
#include <optional>
#include <set>

namespace model {

namespace {

using Simulation::infinity;

// Names are numbered in the order in which tables are walked, so a table is a map by number.
using Id = int;
Id constexpr none = -1;
template< class T >
using Table = std::map< Id, T >;

// Visits members by number. What `f` removes before its turn is not visited, what it adds after
// the current member is.
template< class T, class F >
void walk( Table< T > & table, F f ) {
   for( auto i = table.begin(); i != table.end(); ) {
      Id const id = i->first;
      f( id );
      i = table.upper_bound( id );
   }
}

template< class T >
T at( Table< T > const & table, Id id, T absent ) {
   auto const i = table.find( id );
   return i == table.end() ? absent : i->second;
}

// An event object; one that is declared anew is another object.
struct Event {
   Id stage;
   Id agent;
   double timeout;
   bool critical;
   bool complete;
   Table< bool > dependency;
   Simulation::Behaviour behaviour;
   bool declared = true;
   bool reportArmed = false;
};

// What an agent filed in the directory; one that joins again files another object.
struct Entry {
   Table< int > event; // by stage
};

// Who is told of changes.
enum class Who {
   directory,  // aggregation: agents that come and go
   agent,      //    one agent's declarations
   stages,     //    new stages
   stage,      //    one stage's events and dependencies
   event,      //    one event of a stage: dependencies, timeout, critical
   enabled,    // progression: the configuration
   activated,  //    stages that became active
   waiting,    //    a stage that waits
   running,    //    the events of an active stage
   completion, //    one event of an active stage: complete
   reports     // the simulated agents: stages that became active
};
enum class What { member, dependency, timeout, critical, complete };

// Something that has to be told; `whole` is the one that follows several keys at once.
struct Work {
   Who who;
   Id stage = none;
   Id agent = none;
   What what = What::member;
   Id key = none;
   bool whole = false;
   friend bool operator==( Work const &, Work const & ) = default;
};

struct Timer {
   double time = infinity;
   unsigned order = 0;
};

struct Report {
   double time;
   int event;
};

struct Stage {
   // What the status shows.
   Table< int > event; // by agent
   Table< bool > dependency;
   double timeout = 0;
   bool critical = false;
   bool active = false;

   std::vector< Who > told; // of changes of the four above, in the order in which they came

   // Aggregation.
   bool aggregated = false;
   Table< int > followed; // events, by agent
   std::set< Id > ancestor;

   // Progression: first it waits, then it runs.
   bool waiting = false;
   bool running = false;
   bool initialized = false;
   bool complete = false;
   bool timedOut = false;
   double completionTime = 0;
   Table< int > mirrored; // events, by agent
   Table< int > pending;  // the same
   Timer timer;

   // For people.
   double activeSince = 0;
   double timedOutAt = 0;
};

class Model {
 public:
   Model( Simulation::Plan const & plan, Rank const & rank ) : plan_( plan ) {
      numberNames( rank );
      enabled_ = plan.enabled;
      for( std::size_t i = 0; i != plan.timeline.size(); ++i )
         timeline_.push_back( i );
      std::stable_sort( timeline_.begin(), timeline_.end(), [ & ]( auto a, auto b ) {
         return plan.timeline[ a ].at < plan.timeline[ b ].at;
      } );
   }

   Played play() {
      for( auto const & agent : plan_.agent )
         join( agent.name, agent.event );
      startAggregation();
      handleEnabled();
      tellAll();
      for( now_ = 0; now_ != infinity; now_ = nextTime() )
         instant();
      return { result(), line_, printed_ };
   }

 private:
   // ------------------------------------------------------------------------------------- names

   void numberNames( Rank const & rank ) {
      std::set< std::string > names;
      auto const takeEvent = [ & ]( Simulation::Event const & event ) {
         names.insert( event.stage );
         for( auto const & dependency : event.dependency )
            names.insert( dependency.stage );
      };
      for( auto const & agent : plan_.agent ) {
         names.insert( agent.name );
         std::for_each( agent.event.begin(), agent.event.end(), takeEvent );
      }
      for( auto const & entry : plan_.timeline ) {
         if( auto const * join = std::get_if< Simulation::Join >( &entry.operation ) ) {
            names.insert( join->agent );
            std::for_each( join->event.begin(), join->event.end(), takeEvent );
         } else if( auto const * declare =
                       std::get_if< Simulation::Declare >( &entry.operation ) ) {
            takeEvent( declare->event );
         } else if( auto const * set = std::get_if< Simulation::Set >( &entry.operation ) ) {
            for( auto const & write : set->write )
               if( auto const * d = std::get_if< Simulation::DependencyWrite >( &write ) )
                  names.insert( d->stage );
         }
      }
      std::vector< std::pair< std::uint64_t, std::string > > ranked;
      for( auto const & name : names )
         ranked.emplace_back( rank( name ), name );
      std::sort( ranked.begin(), ranked.end() );
      for( auto const & [ number, name ] : ranked ) {
         id_[ name ] = static_cast< Id >( name_.size() );
         name_.push_back( name );
      }
   }

   std::string const & name( Id id ) const { return name_[ static_cast< std::size_t >( id ) ]; }
   std::string uid( Event const & event ) const {
      return name( event.stage ) + ":" + name( event.agent );
   }
   Event & event( int number ) { return event_[ static_cast< std::size_t >( number ) ]; }
   Entry & entry( int number ) { return entry_[ static_cast< std::size_t >( number ) ]; }
   Stage * stageIf( Id id ) {
      auto const i = stage_.find( id );
      return i == stage_.end() ? nullptr : &i->second;
   }

   // ------------------------------------------------------------------------------ list of work

   // The same piece of work stands in the list once, at its first place. When several keys of one
   // collection wait for the same listener, one piece for the whole follows in the second list.
   void tell( Work const & work ) {
      if( std::find( first_.begin(), first_.end(), work ) != first_.end() )
         return;
      first_.push_back( work );
      if( work.key == none )
         return;
      Work whole = work;
      whole.key = none;
      whole.whole = true;
      auto const same = std::count_if( first_.begin(), first_.end(), [ & ]( Work const & other ) {
         return other.key != none && other.who == work.who && other.stage == work.stage &&
                other.agent == work.agent && other.what == work.what;
      } );
      if( same >= 2 && std::find( second_.begin(), second_.end(), whole ) == second_.end() )
         second_.push_back( whole );
   }

   // A listener that goes, or turns to another object, hears nothing of what was queued for it.
   void forget( Who who, Id stage, Id agent ) {
      auto const gone = [ & ]( Work const & work ) {
         return work.who == who && work.stage == stage && work.agent == agent;
      };
      std::erase_if( first_, gone );
      std::erase_if( second_, gone );
   }

   void tellAll() {
      while( !first_.empty() || !second_.empty() ) {
         auto & list = first_.empty() ? second_ : first_;
         Work const work = list.front();
         list.pop_front();
         work.whole ? doWhole( work ) : doOne( work );
      }
   }

   void doOne( Work const & work ) {
      switch( work.who ) {
      case Who::directory:
         handleAgent( work.key );
         break;
      case Who::agent:
         handleAgentEvent( work.agent, work.key );
         break;
      case Who::stages:
         aggregate( work.key );
         stageAppeared( work.key );
         break;
      case Who::stage:
         if( work.what == What::member )
            followOrLeave( work.stage, work.key );
         else
            link( work.stage, work.key );
         break;
      case Who::event:
         if( work.what == What::dependency )
            eventDependency( work.stage, work.agent, work.key );
         else if( work.what == What::timeout )
            recomputeTimeout( work.stage );
         else
            decideCritical( work.stage );
         break;
      case Who::enabled:
         handleEnabled();
         break;
      case Who::activated:
         run( work.key );
         break;
      case Who::waiting:
         if( work.what == What::dependency )
            waitingDependency( work.stage, work.key );
         else if( stage_.at( work.stage ).critical )
            askForDecision();
         break;
      case Who::running:
         runningEvent( work.stage, work.key );
         break;
      case Who::completion:
         eventChanged( work.stage, work.agent );
         break;
      case Who::reports:
         armReports( work.key );
         break;
      }
   }

   void doWhole( Work const & work ) {
      if( work.who == Who::directory ) {
         handleAgents();
      } else if( work.who == Who::agent ) {
         handleAgentEvents( work.agent );
      } else if( work.who == Who::stages ) {
         walk( stage_, [ & ]( Id stage ) { aggregate( stage ); } );
      } else if( work.who == Who::stage && work.what == What::member ) {
         Stage & stage = stage_.at( work.stage );
         walk( stage.event, [ & ]( Id agent ) { followOrLeave( work.stage, agent ); } );
         walk( stage.followed, [ & ]( Id agent ) { followOrLeave( work.stage, agent ); } );
      } else if( work.who == Who::event ) {
         eventDependencies( work.stage, work.agent );
      } else if( work.who == Who::running ) {
         Stage & stage = stage_.at( work.stage );
         walk( stage.event, [ & ]( Id agent ) { mirrorOrDrop( work.stage, agent ); } );
         walk( stage.mirrored, [ & ]( Id agent ) { mirrorOrDrop( work.stage, agent ); } );
      }
   }

   // ------------------------------------------------------------------------ what is written

   void tellStage( Id id, What what, Id key ) {
      for( Who const who : stage_.at( id ).told ) {
         bool const hears = who == Who::stage     ? what != What::critical
                            : who == Who::waiting ? what != What::member
                                                  : what == What::member;
         if( hears )
            tell( { .who = who, .stage = id, .what = what, .key = key } );
      }
   }

   void stageCriticalIs( Id id, bool critical ) {
      Stage & stage = stage_.at( id );
      if( stage.critical != critical ) {
         stage.critical = critical;
         tellStage( id, What::critical, none );
      }
   }

   void eventCompleteIs( int number, bool complete ) {
      Event & changed = event( number );
      if( changed.complete == complete )
         return;
      changed.complete = complete;
      Stage const * const stage = stageIf( changed.stage );
      if( stage && at( stage->mirrored, changed.agent, none ) == number )
         tell( { .who = Who::completion, .stage = changed.stage, .agent = changed.agent } );
   }

   void tellOfEvent( int number, What what, Id key ) {
      Event const & changed = event( number );
      Stage const * const stage = stageIf( changed.stage );
      if( stage && at( stage->followed, changed.agent, none ) == number )
         tell( { .who = Who::event,
                 .stage = changed.stage,
                 .agent = changed.agent,
                 .what = what,
                 .key = key } );
   }

   void write( int number, Simulation::CriticalWrite const & write ) {
      if( event( number ).critical != write.value ) {
         event( number ).critical = write.value;
         tellOfEvent( number, What::critical, none );
      }
   }
   void write( int number, Simulation::TimeoutWrite const & write ) {
      if( event( number ).timeout != write.value ) {
         event( number ).timeout = write.value;
         tellOfEvent( number, What::timeout, none );
      }
   }
   void write( int number, Simulation::CompleteWrite const & write ) {
      eventCompleteIs( number, write.value );
   }
   void write( int number, Simulation::DependencyWrite const & write ) {
      Id const on = id_.at( write.stage );
      auto & dependency = event( number ).dependency;
      auto const held = dependency.find( on );
      if( !write.value ) {
         if( held == dependency.end() )
            return;
         dependency.erase( held );
      } else if( held != dependency.end() && held->second == *write.value ) {
         return;
      } else {
         dependency[ on ] = *write.value;
      }
      tellOfEvent( number, What::dependency, on );
   }

   // ----------------------------------------------------------------------- what the outside does

   int declare( Id agent, Simulation::Event const & plan ) {
      Event made{ .stage = id_.at( plan.stage ),
                  .agent = agent,
                  .timeout = plan.timeout,
                  .critical = plan.critical,
                  .complete = plan.complete.kind == Simulation::Behaviour::Kind::already,
                  .dependency = {},
                  .behaviour = plan.complete };
      for( auto const & dependency : plan.dependency )
         made.dependency[ id_.at( dependency.stage ) ] = dependency.value;
      event_.push_back( made );
      int const number = static_cast< int >( event_.size() ) - 1;
      Stage const * const stage = stageIf( made.stage );
      if( stage && stage->active )
         armReport( number );
      return number;
   }

   void join( std::string const & agentName, std::vector< Simulation::Event > const & events ) {
      Id const agent = id_.at( agentName );
      Entry made;
      for( auto const & plan : events )
         made.event[ id_.at( plan.stage ) ] = declare( agent, plan );
      entry_.push_back( made );
      directory_[ agent ] = static_cast< int >( entry_.size() ) - 1;
      if( aggregating_ )
         tell( { .who = Who::directory, .key = agent } );
   }

   void tellOfEntry( Id agent, Id stage ) {
      if( at( watched_, agent, none ) == directory_.at( agent ) )
         tell( { .who = Who::agent, .agent = agent, .key = stage } );
   }

   void operate( Simulation::Join const & join ) { this->join( join.agent, join.event ); }
   void operate( Simulation::Leave const & leave ) {
      Id const agent = id_.at( leave.agent );
      for( auto const & [ stage, number ] : entry( directory_.at( agent ) ).event )
         event( number ).declared = false;
      directory_.erase( agent );
      tell( { .who = Who::directory, .key = agent } );
   }
   void operate( Simulation::Declare const & declare ) {
      Id const agent = id_.at( declare.agent );
      Id const stage = id_.at( declare.event.stage );
      entry( directory_.at( agent ) ).event[ stage ] = this->declare( agent, declare.event );
      tellOfEntry( agent, stage );
   }
   void operate( Simulation::Withdraw const & withdraw ) {
      Id const agent = id_.at( withdraw.agent );
      Id const stage = id_.at( withdraw.stage );
      auto & events = entry( directory_.at( agent ) ).event;
      event( events.at( stage ) ).declared = false;
      events.erase( stage );
      tellOfEntry( agent, stage );
   }
   void operate( Simulation::Set const & set ) {
      int const number =
         entry( directory_.at( id_.at( set.agent ) ) ).event.at( id_.at( set.stage ) );
      for( auto const & one : set.write )
         std::visit( [ & ]( auto const & value ) { write( number, value ); }, one );
   }
   void operate( Simulation::Enable const & enable ) {
      if( enabled_ != enable.value ) {
         enabled_ = enable.value;
         tell( { .who = Who::enabled } );
      }
   }

   // ----------------------------------------------------------- aggregation: agents and events

   void startAggregation() {
      aggregating_ = true;
      handleAgents();
      walk( stage_, [ & ]( Id stage ) { aggregate( stage ); } );
   }

   void handleAgents() {
      walk( directory_, [ & ]( Id agent ) { handleAgent( agent ); } );
      walk( watched_, [ & ]( Id agent ) { handleAgent( agent ); } );
   }

   // An agent that is watched stays so, also when it has filed another entry meanwhile.
   void handleAgent( Id agent ) {
      int const filed = at( directory_, agent, none );
      if( filed != none ) {
         if( watched_.contains( agent ) )
            return;
         watched_[ agent ] = filed;
         handleAgentEvents( agent );
      } else if( watched_.contains( agent ) ) {
         watched_[ agent ] = none;
         forget( Who::agent, none, agent );
         handleAgentEvents( agent );
         watched_.erase( agent );
      }
   }

   void handleAgentEvents( Id agent ) {
      int const number = watched_.at( agent );
      if( number != none )
         walk( entry( number ).event, [ & ]( Id stage ) { handleAgentEvent( agent, stage ); } );
      walk( stage_, [ & ]( Id stage ) {
         if( stage_.at( stage ).event.contains( agent ) )
            handleAgentEvent( agent, stage );
      } );
   }

   void handleAgentEvent( Id agent, Id id ) {
      int const filed = at( directory_, agent, none );
      int const declared = filed == none ? none : at( entry( filed ).event, id, none );
      Stage * stage = stageIf( id );
      if( stage && stage->event.contains( agent ) ) {
         if( declared == none )
            removeEvent( id, agent );
         return;
      }
      if( declared == none )
         return;
      if( !stage ) {
         stage = &stage_[ id ];
         tell( { .who = Who::stages, .key = id } );
      }
      stage->event[ agent ] = declared;
      tellStage( id, What::member, agent );
      stage->timeout = std::max( stage->timeout, event( declared ).timeout );
   }

   void removeEvent( Id id, Id agent ) {
      Stage & stage = stage_.at( id );
      Event & gone = event( stage.event.at( agent ) );
      double const timeoutBefore = stage.timeout;
      stage.event.erase( agent );
      tellStage( id, What::member, agent );
      walk( gone.dependency, [ & ]( Id on ) { dependencyDropped( id, on ); } );
      decideCritical( id );
      if( gone.timeout == timeoutBefore )
         recomputeTimeout( id );
   }

   // ---------------------------------------------------------- aggregation: one stage's events

   void aggregate( Id id ) {
      Stage & stage = stage_.at( id );
      if( stage.aggregated )
         return;
      stage.aggregated = true;
      stage.told.push_back( Who::stage );
      walk( stage.event, [ & ]( Id agent ) { followOrLeave( id, agent ); } );
      decideCritical( id );
   }

   void followOrLeave( Id id, Id agent ) {
      Stage & stage = stage_.at( id );
      int const number = at( stage.event, agent, none );
      if( number == at( stage.followed, agent, none ) )
         return;
      forget( Who::event, id, agent );
      if( number == none ) {
         stage.followed.erase( agent );
         return;
      }
      stage.followed[ agent ] = number;
      eventDependencies( id, agent );
      recomputeTimeout( id );
      decideCritical( id );
   }

   void eventDependencies( Id id, Id agent ) {
      walk( stage_.at( id ).dependency, [ & ]( Id on ) { eventDependency( id, agent, on ); } );
      walk( event( stage_.at( id ).followed.at( agent ) ).dependency,
            [ & ]( Id on ) { eventDependency( id, agent, on ); } );
   }

   void eventDependency( Id id, Id agent, Id on ) {
      Stage & stage = stage_.at( id );
      int const number = stage.followed.at( agent );
      if( stage.dependency.contains( on ) ) {
         dependencyDropped( id, on );
      } else if( at( event( number ).dependency, on, false ) &&
                 at( stage.event, agent, none ) == number ) {
         stage.dependency[ on ] = true;
         tellStage( id, What::dependency, on );
      }
   }

   // Of some event: the stage keeps it while another has it.
   void dependencyDropped( Id id, Id on ) {
      Stage & stage = stage_.at( id );
      for( auto const & [ agent, number ] : stage.event )
         if( at( event( number ).dependency, on, false ) )
            return;
      if( stage.dependency.erase( on ) )
         tellStage( id, What::dependency, on );
   }

   // Of the 24 bits of a float one more is asked for here: from there on rounding leads out of all
   // floats. What is less is one of them or, beyond the last, rounds to that.
   static float inSinglePrecision( double timeout ) {
      if( timeout >= std::ldexp( ( 1 << 25 ) - 1, 103 ) )
         return std::numeric_limits< float >::infinity();
      return static_cast< float >(
         std::min( timeout, double{ std::numeric_limits< float >::max() } ) );
   }

   void recomputeTimeout( Id id ) {
      Stage & stage = stage_.at( id );
      float largest = 0;
      for( auto const & [ agent, number ] : stage.event ) {
         double const timeout = event( number ).timeout;
         if( largest > timeout )
            continue;
         largest = inSinglePrecision( timeout );
      }
      stage.timeout = largest;
   }

   // ------------------------------------------------------------- aggregation: critical stages

   void stageAppeared( Id appeared ) {
      walk( stage_, [ & ]( Id id ) {
         if( stage_.at( id ).aggregated && stage_.at( id ).dependency.contains( appeared ) )
            link( id, appeared );
      } );
   }

   void link( Id id, Id on ) {
      Stage const & stage = stage_.at( id );
      linkIs( id, on, stage.dependency.contains( on ) && stage.critical );
   }

   void linkIs( Id id, Id on, bool critical ) {
      Stage * const target = stageIf( on );
      if( !target || !target->aggregated )
         return;
      bool const changed =
         critical ? target->ancestor.insert( id ).second : target->ancestor.erase( id ) != 0;
      if( changed )
         decideCritical( on );
   }

   void decideCritical( Id id ) {
      Stage & stage = stage_.at( id );
      bool const critical =
         !stage.ancestor.empty() ||
         std::any_of( stage.event.begin(), stage.event.end(),
                      [ & ]( auto const & held ) { return event( held.second ).critical; } );
      stageCriticalIs( id, critical );
      // A cycle may bring another decision about, which is the one that holds.
      walk( stage.dependency, [ & ]( Id on ) {
         if( stage.critical == critical )
            linkIs( id, on, critical );
      } );
   }

   // ---------------------------------------------------------------------- progression: decisions

   void handleEnabled() {
      auto const any = [ & ]( bool Stage::*flag ) {
         return std::any_of( stage_.begin(), stage_.end(),
                             [ & ]( auto const & held ) { return held.second.*flag; } );
      };
      if( !enabled_ || any( &Stage::active ) )
         return;
      if( !any( &Stage::waiting ) && !any( &Stage::running ) ) {
         for( auto & [ id, stage ] : stage_ ) {
            stage.waiting = true;
            stage.told.push_back( Who::waiting );
         }
      }
      if( !complete_ ) {
         started_ = true;
         log( "Stage progression started" );
         askForDecision();
      }
   }

   void askForDecision() { arm( decision_, now_ ); }

   void decide() {
      bool const criticalWaits =
         std::any_of( stage_.begin(), stage_.end(), []( auto const & held ) {
            return !held.second.active && held.second.critical;
         } );
      bool inactive = false;
      bool incomplete = false;
      for( auto & [ id, stage ] : stage_ ) {
         if( stage.active ) {
            incomplete = incomplete || !stage.running || !stage.complete;
            continue;
         }
         inactive = true;
         if( ( criticalWaits && !stage.critical ) || !ready( stage ) )
            continue;
         log( "stage " + name( id ) + " started" );
         stage.active = true;
         stage.activeSince = now_;
         tell( { .who = Who::activated, .key = id } );
         tell( { .who = Who::reports, .key = id } );
      }
      if( !inactive && !incomplete ) {
         complete_ = true;
         log( "Stage progression is complete" );
      }
   }

   bool finished( Id id ) {
      Stage const * const stage = stageIf( id );
      return stage && stage->running && stage->complete;
   }

   bool ready( Stage const & stage ) {
      return std::all_of( stage.dependency.begin(), stage.dependency.end(),
                          [ & ]( auto const & held ) { return finished( held.first ); } );
   }

   void waitingDependency( Id id, Id on ) {
      Stage const & stage = stage_.at( id );
      if( !stage.dependency.contains( on ) && ready( stage ) )
         askForDecision();
   }

   // ------------------------------------------------------------------ progression: active stages

   void run( Id id ) {
      Stage & stage = stage_.at( id );
      if( stage.running )
         return;
      stage.waiting = false;
      std::erase( stage.told, Who::waiting );
      forget( Who::waiting, id, none );
      stage.running = true;
      stage.told.push_back( Who::running );
      walk( stage.event, [ & ]( Id agent ) { mirrorOrDrop( id, agent ); } );
      stage.initialized = true;
      check( id );
      if( !stage.pending.empty() )
         arm( stage.timer, now_ + stage.timeout );
      progress_[ name( id ) ] = true;
   }

   void runningEvent( Id id, Id agent ) {
      Stage & stage = stage_.at( id );
      int const number = at( stage.event, agent, none );
      if( number == none )
         pendingDel( id, agent );
      else if( !event( number ).complete && !stage.pending.contains( agent ) )
         pendingIs( id, agent, number );
      mirrorOrDrop( id, agent );
   }

   void mirrorOrDrop( Id id, Id agent ) {
      Stage & stage = stage_.at( id );
      int const number = at( stage.event, agent, none );
      if( number == at( stage.mirrored, agent, none ) )
         return;
      forget( Who::completion, id, agent );
      if( number == none ) {
         stage.mirrored.erase( agent );
         return;
      }
      stage.mirrored[ agent ] = number;
      eventChanged( id, agent );
   }

   void eventChanged( Id id, Id agent ) {
      int const number = stage_.at( id ).mirrored.at( agent );
      bool const complete = event( number ).complete;
      log( "  event " + uid( event( number ) ) + ( complete ? " completed" : " started" ) );
      if( complete )
         pendingDel( id, agent );
      else
         pendingIs( id, agent, number );
   }

   void pendingIs( Id id, Id agent, int number ) {
      auto & pending = stage_.at( id ).pending;
      if( at( pending, agent, none ) != number ) {
         pending[ agent ] = number;
         check( id );
      }
   }

   void pendingDel( Id id, Id agent ) {
      if( stage_.at( id ).pending.erase( agent ) )
         check( id );
   }

   void check( Id id ) {
      Stage & stage = stage_.at( id );
      if( !stage.initialized || !stage.pending.empty() )
         return;
      if( stage.timedOut && stage.critical )
         message( "ORDOVAN_STAGE_COMPLETE_AFTER_TIMEOUT: " + plan_.application +
                  " resumed after stage " + name( id ) + " completed after timeout." );
      stage.timer.time = infinity;
      stage.completionTime = now_;
      stage.complete = true;
      log( "stage " + name( id ) + " is complete" );
      askForDecision();
   }

   void timeIsUp( Id id ) {
      Stage & stage = stage_.at( id );
      log( "stage " + name( id ) + " is complete (timeout)" );
      stage.timedOut = true;
      stage.timedOutAt = now_;
      if( stage.critical ) {
         message( "ORDOVAN_STAGE_SLOW: " + plan_.application + " stage " + name( id ) +
                  " timed out" );
         printed_ += " Critical stage " + name( id ) + " timed out! " + plan_.application +
                     " suspended for debugging.";
         return;
      }
      stage.completionTime = now_;
      stage.complete = true;
      askForDecision();
   }

   void log( std::string const & text ) { line_.push_back( { now_, text } ); }
   void message( std::string const & text ) { line_.push_back( { now_, text } ); }

   // ---------------------------------------------------------------------------------------- time

   void arm( Timer & timer, double time ) {
      if( timer.time != time )
         timer = { time, ++armed_ };
   }

   // Once for an event object, for those that report after some time.
   void armReport( int number ) {
      Event & declared = event( number );
      if( declared.reportArmed || !declared.declared ||
          declared.behaviour.kind != Simulation::Behaviour::Kind::afterSeconds )
         return;
      declared.reportArmed = true;
      report_.push_back( { now_ + declared.behaviour.seconds, number } );
   }

   void armReports( Id stage ) {
      for( std::size_t i = 0; i != event_.size(); ++i )
         if( event_[ i ].stage == stage )
            armReport( static_cast< int >( i ) );
   }

   // The first of the earliest; reports of events that are withdrawn are none.
   std::vector< Report >::iterator nextReport() {
      std::erase_if( report_, [ & ]( auto const & one ) { return !event( one.event ).declared; } );
      return std::min_element( report_.begin(), report_.end(),
                               []( auto const & a, auto const & b ) { return a.time < b.time; } );
   }

   // The stage of the next timer, none for the decision.
   std::pair< Id, Timer * > nextTimer() {
      std::pair< Id, Timer * > next{ none, &decision_ };
      for( auto & [ id, stage ] : stage_ )
         if( stage.timer.time < next.second->time ||
             ( stage.timer.time == next.second->time && stage.timer.order < next.second->order ) )
            next = { id, &stage.timer };
      return next;
   }

   double nextTime() {
      double next = nextTimer().second->time;
      if( auto const report = nextReport(); report != report_.end() )
         next = std::min( next, report->time );
      if( written_ != timeline_.size() )
         next = std::min( next, plan_.timeline[ timeline_[ written_ ] ].at );
      return next;
   }

   void instant() {
      for( ; written_ != timeline_.size(); ++written_ ) {
         auto const & entry = plan_.timeline[ timeline_[ written_ ] ];
         if( entry.at > now_ )
            break;
         std::visit( [ & ]( auto const & operation ) { operate( operation ); }, entry.operation );
         lastDue_ = now_;
      }
      do {
         tellAll();
      } while( oneThingThatIsDue() );
   }

   bool oneThingThatIsDue() {
      auto const report = nextReport();
      if( report != report_.end() && report->time <= now_ ) {
         int const number = report->event;
         report_.erase( report );
         eventCompleteIs( number, true );
      } else {
         auto const [ id, timer ] = nextTimer();
         if( timer->time > now_ || timer->time == infinity )
            return false;
         timer->time = infinity;
         id == none ? decide() : timeIsUp( id );
      }
      lastDue_ = now_;
      return true;
   }

   // ------------------------------------------------------------------------------------- the end

   Simulation::Result result() {
      Simulation::Result result;
      result.t = lastDue_;
      result.complete = complete_;
      result.started = started_;
      result.enabled = enabled_;
      result.progress = progress_;
      bool allFinished = true;
      bool suspended = false;
      for( auto const & [ id, stage ] : stage_ ) {
         result.stage[ name( id ) ] = stageResult( stage );
         allFinished = allFinished && stage.active && stage.complete;
         suspended = suspended || ( stage.critical && stage.timedOut && !stage.complete );
      }
      result.outcome = complete_ && allFinished ? Simulation::Outcome::complete
                       : suspended              ? Simulation::Outcome::suspended
                       : !started_              ? Simulation::Outcome::disabled
                                                : Simulation::Outcome::stalled;
      return result;
   }

   Simulation::StageResult stageResult( Stage const & stage ) {
      Simulation::StageResult shown;
      shown.active = stage.active;
      shown.critical = stage.critical;
      shown.timeout = stage.timeout;
      for( auto const & [ on, counts ] : stage.dependency )
         shown.dependency.push_back( name( on ) );
      std::sort( shown.dependency.begin(), shown.dependency.end() );
      for( auto const & [ agent, number ] : stage.event )
         shown.event[ name( agent ) ] = event( number ).complete;
      shown.complete = stage.complete;
      shown.timedOut = stage.timedOut;
      shown.completionTime = stage.completionTime;
      for( auto const & [ agent, number ] : stage.pending )
         shown.pending[ uid( event( number ) ) ] = 0;
      shown.activeSince = stage.activeSince;
      shown.timedOutAt = stage.timedOutAt;
      return shown;
   }

   Simulation::Plan const & plan_;
   std::map< std::string, Id > id_;
   std::vector< std::string > name_;
   std::vector< std::size_t > timeline_; // in order of time
   std::size_t written_ = 0;             // of it

   std::deque< Event > event_; // in the order in which they were declared
   std::deque< Entry > entry_;
   Table< int > directory_; // by agent
   bool enabled_ = true;

   bool aggregating_ = false;
   Table< int > watched_; // entries, by agent; none while the agent is being removed
   Table< Stage > stage_;

   bool started_ = false;
   bool complete_ = false;
   std::map< std::string, bool > progress_;
   Timer decision_;

   double now_ = 0;
   double lastDue_ = 0;
   unsigned armed_ = 0;
   std::vector< Report > report_; // in the order in which they were armed
   std::deque< Work > first_;
   std::deque< Work > second_;
   std::vector< Line > line_;
   std::string printed_;
};

} // namespace

Played play( Simulation::Plan const & plan, Rank const & rank ) {
   return Model( plan, rank ).play();
}

} // namespace model
