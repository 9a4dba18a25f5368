// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Every handler of the state machines, in the order of a start-up's life, with the callbacks that
// do more than call one. What makes, holds and attaches the reactors that are called back is in the
// files named after the state machines.
//
// Aggregation (ConfigSm), one road for each thing that an agent can say:
//
//   an agent's entry comes or goes      handleAgent -> a reactor per agent -> handleEvent
//   an event is declared or withdrawn   handleEvent -> the event enters or leaves its stage
//   the stage's events change           a reactor per event -> dependency, timeout, critical
//   the stage's dependencies change     handleDependency -> the link to the stage depended upon
//   a stage appears                     onStage -> a reactor per stage; handleStage -> links that
//                                       had to wait for it
//   another stage under its name        notifierIs: its reactor stays, and does all this anew
//
// Progression (StatusSm), the states of one stage and what moves it on:
//
//   waiting      StageEnableSm   the decision finds every dependency active and complete, and no
//                                critical stage waits (or the stage is critical)  -> active
//   active       StageSm         the last pending event completes                 -> complete
//                                its time is up, not critical          -> timed out and complete
//                                its time is up, critical              -> suspended
//   suspended    StageSm         the last pending event completes                 -> complete
//   complete     StageSm         stays; completes again whenever its pending set empties again
//
// A handler that an exception has cut short, for want of memory or by what others' code throws into
// it, is delivered again (Kiv/Notifiee.h). So each either finds its work still to be done when it
// runs again, or takes back what would keep it from doing it (Kiv::OnException), or remembers
// what it owes (KivStageStatus::settle, StageSm::pendingEventChanged). A line of the log may then
// stand there twice; none is lost.
//
// The first words of a handler's first trace are its signature.

#include <Ordovan/Ordovan.h>

#include <Index/Candidates.h>
#include <Index/Dependents.h>
#include <Index/Oracle.h>
#include <Ordovan/detail/Trace.h>

#include <Kiv/Exception.h>
#include <Kiv/Reactor.h>

#include <cmath>
#include <cstdio>
#include <exception>
#include <limits>
#include <vector>

namespace Stage {

using namespace Kiv;
using KivStageStatus = ConfigSm::KivStageStatus;
using KivEventConfig = ConfigSm::KivStageStatus::KivEventConfig;

// =============================================================================================
// Aggregation: agents and their events
// =============================================================================================

void ConfigSm::handleAgent() {
   ORDOVAN_TRACE( 8, "void Stage::ConfigSm::handleAgent() AgentDir: " );
   agentConfig_.reserve( agentDir()->entityPtrs() );
   for( auto i = agentDir()->entityPtrIteratorConst(); i; ++i )
      handleAgent( i.key() );
   // Agents that have left the directory; a reactor may go while we stand on it.
   for( auto i = agentConfigIterator(); i; ++i )
      handleAgent( i.key() );
}

void ConfigSm::handleAgent( Name agentName ) {
   ORDOVAN_TRACE( 8, "void Stage::ConfigSm::handleAgent(Kiv::Name) AgentDir: ", agentDir() );
   Ptr< AgentConfig > const agent = agentEntry( agentName );
   Ptr< KivAgentConfig > const reactor = agentConfig( agentName );
   if( agent ) {
      // A reactor that watches something is left alone, even when the entry is another object by
      // now: the events it declared are still in their stages, and go when it does.
      if( !reactor || !reactor->notifier() )
         agentConfigIs( Ptr< AgentConfig const >( agent ) );
   } else if( reactor && reactor->notifier() ) {
      agentConfigDel( agentName );
   }
}

void ConfigSm::agentConfigDel( Name const & agent ) {
   Ptr< KivAgentConfig > const gone = agentConfig_.member( agent );
   if( !gone )
      return;
   // Watching nothing any more, the reactor takes the agent's events out of their stages: while it
   // still reacts, and before all else, so that it is all there if that is cut short.
   if( !gone->kivMarkedForDeletion() )
      gone->notifierIs( nullptr );
   agentConfig_.memberDel( gone->fwkKey() );
}

void ConfigSm::KivAgentConfig::handleEvent() {
   ORDOVAN_TRACE( 8, "void Stage::ConfigSm::KivAgentConfig::handleEvent() ", fwkKey() );
   if( !configSm() )
      return;
   if( Ptr< AgentConfig const > const declared = notifier() )
      for( auto i = declared->eventIteratorConst(); i; ++i )
         handleEvent( i.key() );
   handleHeldEvents();
}

// For events that the agent has withdrawn: every stage that holds one of its, in the order of all
// stages.
void ConfigSm::KivAgentConfig::handleHeldEvents() {
   Ptr< Status > const stages = configSm()->status();
   auto held = stages->eventStageIteratorConst( fwkKey() );
   if( answersBy == AnswersBy::index ) {
      for( ; held; ++held )
         handleEvent( held.key() );
      return;
   }
   for( auto i = stages->stageIteratorConst(); i; ++i ) {
      if( !i.ptr()->event( String8( fwkKey() ) ) )
         continue;
      if( answersBy == AnswersBy::both && ( !held || held.key() != i.key() ) )
         differs( "the stages that hold an event of an agent" );
      ++held;
      handleEvent( i.key() );
   }
   if( answersBy == AnswersBy::both && held )
      differs( "the number of stages that hold an event of an agent" );
}

void ConfigSm::KivAgentConfig::handleEvent( Name stageName ) {
   ORDOVAN_TRACE( 8, "void Stage::ConfigSm::KivAgentConfig::handleEvent(Kiv::Name) ", fwkKey(), " ",
                  stageName );
   if( !configSm() )
      return;
   String8 const agentName( fwkKey() );
   Ptr< StageStatus > stage = configSm()->status()->stage( stageName );
   Ptr< AgentConfig > const agent = configSm()->agentEntry( fwkKey() );
   Ptr< EventConfig const > const declared =
      agent ? agent->event( stageName ) : Ptr< EventConfig const >();
   Ptr< EventConfig const > const existing =
      stage ? stage->event( agentName ) : Ptr< EventConfig const >();

   if( existing && !declared ) {
      ORDOVAN_TRACE( 8, "Deleting ", existing, " from ", stage );
      // A stage of an earlier time has no reactor yet while we are being constructed.
      configSm()->stageStatusIs( stage )->handleEventDel( agentName );
      return;
   }
   if( existing )
      return;
   if( !declared )
      return; // declared and withdrawn before this was heard

   if( !stage ) {
      ORDOVAN_TRACE( 8, "Adding stage ", stageName, " to status." );
      stage = configSm()->status()->stageIs( stageName );
   }
   ORDOVAN_TRACE( 8, "Adding event ", agentName, " to stage ", stageName );
   stage->eventIs( declared );
   // Only raised here; the reactor that is made for the event works it out anew (handleTimeout).
   stage->timeoutIs( stage->timeout() < declared->timeout() ? declared->timeout()
                                                            : stage->timeout() );
}

// =============================================================================================
// Aggregation: stages and their events come and go
// =============================================================================================

void ConfigSm::KivStatus::onStage( Name name ) {
   react( [ & ]( ConfigSm & sm ) {
      if( Ptr< StageStatus > const stage = notifier()->stage( name ) )
         sm.stageStatusIs( stage );
      else
         sm.stageStatusDel( name );
      if( !kivMarkedForDeletion() )
         sm.handleStage( name );
   } );
}

void ConfigSm::reconcileStages() {
   Ptr< Status > const watched = status();
   stageStatus_.reserve( watched->stages() );
   for( auto i = watched->stageIterator(); i; ++i )
      stageStatusIs( i.ptr() );
   for( auto i = stageStatusIterator(); i; ++i )
      if( !watched->stage( i.key() ) )
         stageStatusDel( i.key() );
}

void ConfigSm::stageStatusDel( Name const & stage ) {
   // The parting: not before the reactor has left the collection, as a stage in a cycle with it
   // would push its flag back and make it decide anew.
   auto const takeBackLinks = []( KivStageStatus & gone ) {
      Ptr< StageStatus > const before = gone.stage();
      gone.notifierIs( Ptr< PtrInterface const >() );
      gone.withdrawLinks( before );
   };
   if( !stageStatus_.memberDel( stage, takeBackLinks ) )
      // One whose making was cut short has left no reactor, but perhaps links.
      withdrawLinks( String8( stage ), nullptr );
}

// Its stage was replaced by another under its name.
void KivStageStatus::notifierIs( Ptr< PtrInterface const > const & stage ) {
   if( notifierPtr() == stage )
      return;
   Ptr< StageStatus > const before = this->stage();
   OnExit const linked( [ this ] { link(); } );
   attach( stage, [ & ] {
      left_ = nullptr; // it was the other stage's
      if( kivMarkedForDeletion() || !owner() )
         return;
      if( stage ) {
         isRegisteredNotifieeIs( true );
         dropFormerAncestors();
         eventConfigDelAll();
         reconcileEvents();
         handleCritical();
      }
      withdrawLinks( before );
   } );
}

void ConfigSm::handleStage( Name name ) {
   ORDOVAN_TRACE( 8, "void Stage::ConfigSm::handleStage(Kiv::Name) stage=", name );
   // Only those that depend on it have something to do.
   if( answersBy == AnswersBy::index && dependents_->complete() && !detail::traces( 9 ) ) {
      for( Name const & dependent : dependents_->of( name ) )
         if( Ptr< KivStageStatus > const reactor = stageStatus( dependent ) )
            reactor->handleStage( String8( name ) );
      return;
   }
   if( answersBy == AnswersBy::both )
      compareDependents( name );
   for( auto i = stageStatusIterator(); i; ++i )
      if( Ptr< KivStageStatus > const reactor = i.ptr() )
         reactor->handleStage( String8( name ) );
}

// Makes sure that the index knows those that every stage would have been asked for.
void ConfigSm::compareDependents( Name const & name ) {
   std::vector< Name > walked, indexed;
   for( auto i = stageStatusIterator(); i; ++i )
      if( i.ptr()->stage() && i.ptr()->stage()->hasDependency( name ) )
         walked.push_back( i.key() );
   for( Name const & dependent : dependents_->of( name ) )
      if( stageStatus( dependent ) )
         indexed.push_back( dependent );
   if( dependents_->complete() && walked != indexed )
      differs( "the stages that depend on a new one" );
}

void KivStageStatus::onEvent( String8 agent ) {
   react( [ & ]( ConfigSm & ) {
      if( !stage() )
         return;
      if( Ptr< EventConfig const > const event = stage()->event( agent ) )
         eventConfigIs( event );
      else
         eventConfigDel( agent );
   } );
}

void KivStageStatus::reconcileEvents() {
   Ptr< StageStatus > const watched = stage();
   if( !watched )
      return;
   eventConfig_.reserve( watched->events() );
   for( auto i = watched->eventIteratorConst(); i; ++i )
      eventConfigIs( i.ptr() );
   for( auto i = eventConfigIterator(); i; ++i )
      if( !watched->event( i.key() ) )
         eventConfigDel( i.key() );
}

// =============================================================================================
// Aggregation: dependencies of a stage
// =============================================================================================

namespace {

// The rule, event by event.
bool someEventDependsOn( StageStatus const & stage, String8 const & name ) {
   for( auto i = stage.eventIteratorConst(); i; ++i )
      if( i.ptr()->dependency( name ) ) {
         ORDOVAN_TRACE_IN( "handleDependencyDel", 9, "Dependency found in event ", i.ptr()->uid() );
         return true;
      }
   return false;
}

// The same from what the stage knows of its events, unless the walk leaves a line.
bool eventsDependOn( StageStatus const & stage, String8 const & name ) {
   if( answersBy == AnswersBy::index && !detail::traces( 9 ) )
      return stage.eventsDependOn( name );
   bool const walked = someEventDependsOn( stage, name );
   if( answersBy == AnswersBy::both && walked != stage.eventsDependOn( name ) )
      differs( "whether an event has a dependency" );
   return walked;
}

// Whether each dependency of the stage is known to be some event's.
bool dependencysAreOfEvents( StageStatus const & stage ) {
   if( answersBy == AnswersBy::walk || !stage.dependencysAreOfEvents() )
      return false;
   if( answersBy == AnswersBy::both )
      for( auto i = stage.dependencyIteratorConst(); i; ++i ) {
         bool found = false;
         for( auto event = stage.eventIteratorConst(); event; ++event )
            found = found || event.ptr()->dependency( i.key() );
         if( !found )
            differs( "whether a dependency is an event's" );
      }
   return true;
}

} // namespace

void KivEventConfig::handleDependency() {
   if( !reacts() )
      return;
   ORDOVAN_TRACE( 8, "void Stage::ConfigSm::KivStageStatus::KivEventConfig::handleDependency() ",
                  notifier()->uid() );
   // A name in both is handled twice; the second time changes nothing. Of the stage's, those are
   // taken away that no event has; where there are none, every turn leaves but lines of trace.
   Ptr< StageStatus > const stage = kivStageStatus()->stage();
   if( detail::traces( 8 ) || !dependencysAreOfEvents( *stage ) )
      for( auto i = stage->dependencyIteratorConst(); i; ++i )
         handleDependency( i.key() );
   for( auto i = notifier()->dependencyIteratorConst(); i; ++i )
      handleDependency( i.key() );
}

void KivEventConfig::handleDependency( String8 name ) {
   if( !reacts() )
      return;
   Ptr< EventConfig const > const event = notifier();
   ORDOVAN_TRACE( 8,
                  "void Stage::ConfigSm::KivStageStatus::KivEventConfig::handleDependency("
                  "Kiv::String8) ",
                  event->uid(), " ", "(dependency:", name, ")" );
   Ptr< StageStatus > const stage = kivStageStatus()->stage();
   if( event->dependency( name ) && !stage->hasDependency( name ) ) {
      // An event that has left its stage meanwhile brings nothing.
      if( stage->event( fwkKey() ) == event )
         stage->dependencyIs( name, true );
      return;
   }
   // Also when the event still has it: the walk over the events finds it there and keeps it.
   if( stage->hasDependency( name ) )
      kivStageStatus()->handleDependencyDel( name );
}

void KivStageStatus::handleDependencyDel( String8 name ) {
   ORDOVAN_TRACE( 8, "void Stage::ConfigSm::KivStageStatus::handleDependencyDel(Kiv::String8)",
                  " for some event in stage ", fwkKey(), " (dependency: ", name, ")" );
   if( !reacts() )
      return;
   Ptr< StageStatus > const watched = stage();
   if( eventsDependOn( *watched, name ) )
      return;
   ORDOVAN_TRACE( 8, "Deleting dependency ", name, " from stage ", fwkKey() );
   watched->dependencyDel( name );
}

void KivStageStatus::handleEventDel( String8 agentName ) {
   ORDOVAN_TRACE( 8, "void Stage::ConfigSm::KivStageStatus::handleEventDel(Kiv::String8) ",
                  fwkKey(), " ", "(event:", agentName, ")" );
   if( !reacts() )
      return;
   Ptr< StageStatus > const watched = stage();
   Ptr< EventConfig const > const ec = watched->event( agentName );
   if( !ec )
      return;
   double const stageTimeout = watched->timeout();
   double const eventTimeout = ec->timeout();
   std::uint32_t const before = ec->dependencys();
   watched->eventDel( agentName );
   assertInvariant( ec->dependencys() == before, "ec->dependencys() == before" );
   eventHasLeft( ec, eventTimeout == stageTimeout );
}

// What only the event brought goes with it.
void KivStageStatus::eventHasLeft( Ptr< EventConfig const > const & ec, bool setTimeout ) {
   OnException const owed( [ & ] { leftIs( ec, setTimeout ); } );
   // The event is gone from the stage: only the others can keep a dependency now.
   for( auto i = ec->dependencyIteratorConst(); i; ++i ) {
      ORDOVAN_TRACE_IN( "handleEventDel", 9, "Handling dependency deletion of ", i.key(),
                        " from event ", ec->uid() );
      handleDependencyDel( i.key() );
   }
   handleCritical();
   if( setTimeout )
      if( Ptr< KivStageStatus > const reactor = configSm()->stageStatus( fwkKey() ) )
         reactor->handleTimeout();
}

void KivStageStatus::handleStage( String8 name ) {
   ORDOVAN_TRACE( 9, "void Stage::ConfigSm::KivStageStatus::handleStage(Kiv::String8)",
                  " for stage ", fwkKey(), " detected stage ", name );
   // A dependency declared before its stage existed had no reactor to link to until now.
   if( reacts() && stage()->hasDependency( name ) )
      handleDependency( name );
}

void KivStageStatus::onDependencykivImmediate() {
   // What went was told by key; what is there is linked again, which changes nothing.
   react( [ & ]( ConfigSm & ) {
      if( Ptr< StageStatus > const watched = stage() )
         for( auto i = watched->dependencyIteratorConst(); i; ++i )
            handleDependency( i.key() );
   } );
}

void KivStageStatus::handleDependency( String8 name ) {
   ORDOVAN_TRACE( 8, "void Stage::ConfigSm::KivStageStatus::handleDependency(Kiv::String8)",
                  " for stage ", fwkKey(), " (dependency:", name, ")" );
   if( !reacts() )
      return;
   Ptr< KivStageStatus > const other = configSm()->stageStatus( name );
   if( !other )
      return; // its reactor is made by the notification that also calls handleStage
   Ptr< Status > const stages = configSm()->status();
   bool const there = other->stage() && other->stage()->isIn( *stages );
   if( !there && !stages->stage( name ) )
      return; // linked when it appears: handleStage
   ORDOVAN_TRACE( 8, "  Adjusting criticalAncestor for ", name );
   bool const dep = stage()->hasDependency( name );
   bool const critic = dep && stage()->critical();
   String8 const self( fwkKey() );
   ORDOVAN_TRACE( 8, "  criticalAncestor was ", other->hasCriticalAncestor( self ),
                  " now dep && critic = ", critic );
   ORDOVAN_TRACE( 8, " criticalAncestors ", other->criticalAncestors() );
   if( critic )
      other->criticalAncestorIs( self, true );
   else
      other->criticalAncestorDel( self );
   ORDOVAN_TRACE( 8, " criticalAncestors after ", other->criticalAncestors() );
}

// =============================================================================================
// Aggregation: critical stages
// =============================================================================================

void KivEventConfig::handleCritical() {
   if( !reacts() )
      return;
   ORDOVAN_TRACE( 8, "void Stage::ConfigSm::KivStageStatus::KivEventConfig::handleCritical() ",
                  notifier()->uid(), " ", " critical=", notifier()->critical() );
   kivStageStatus()->handleCritical();
}

void KivStageStatus::handleCritical( String8 name ) {
   ORDOVAN_TRACE( 8, "void Stage::ConfigSm::KivStageStatus::handleCritical(Kiv::String8)", " key ",
                  name );
   handleCritical();
}

namespace {

// The rule, event by event.
Ptr< EventConfig const > firstCriticalByWalk( StageStatus const & stage ) {
   for( auto i = stage.eventIteratorConst(); i; ++i )
      if( i.ptr()->critical() )
         return i.ptr();
   return nullptr;
}

Ptr< EventConfig const > firstCriticalEvent( StageStatus const & stage ) {
   if( answersBy == AnswersBy::index )
      return stage.firstCriticalEvent();
   Ptr< EventConfig const > const walked = firstCriticalByWalk( stage );
   if( answersBy == AnswersBy::both && walked != stage.firstCriticalEvent() )
      differs( "the first critical event" );
   return walked;
}

} // namespace

// What the stage's flag has to be.
bool KivStageStatus::decideCritical() const {
   if( criticalAncestors() != 0 ) {
      ORDOVAN_TRACE_IN( "handleCritical", 8, " Critical because exists a critical ancestor" );
      return true;
   }
   Ptr< EventConfig const > const event = firstCriticalEvent( *notifier() );
   if( event )
      ORDOVAN_TRACE_IN( "handleCritical", 8, " Critical because ", event->uid(), " is critical" );
   return static_cast< bool >( event );
}

void KivStageStatus::writeCritical( bool critical ) {
   if( critical != stage()->critical() )
      ORDOVAN_TRACE_IN( "handleCritical", 8, " Setting critical for stage ", fwkKey(), " to ",
                        critical );
   else
      ORDOVAN_TRACE_IN( "handleCritical", 8, fwkKey(), ": No change to critical (", critical,
                        ")." );
   stage()->criticalIs( critical );
   ORDOVAN_TRACE_IN( "handleCritical", 8, "   Force dependents of ", fwkKey(),
                     " to recompute based on our critical", critical );
}

// One stage whose flag was written, and how far its dependencies have been told.
struct KivStageStatus::CriticalFrame {
   Ptr< KivStageStatus > stage;
   StageStatus::DependencyIteratorConst dependency;
   bool critical;
};

// Decides a stage's flag, writes it, and pushes it to every stage that it depends on, which
// decides in turn, depth first. The push is made even when the flag has not changed: it asserts
// the links to the stages depended upon, which matters when a dependency was added. It ends
// because setting a link that is set, or removing one that is not there, decides nothing anew.
void KivStageStatus::handleCritical() {
   if( !reacts() )
      return;
   // A chain of stages can be as long as the configuration makes it, so the walk keeps its frames
   // here and not on the thread's stack.
   std::vector< CriticalFrame > frames;
   Ptr< KivStageStatus > next = this; // who decides now; null: go on at the last frame
   // Of those that an exception keeps from being told to the end, the links are written, and
   // nothing else would tell that what follows from them is not.
   OnException const notDone( [ & ] {
      if( next )
         next->undecidedIs();
      for( CriticalFrame const & frame : frames )
         frame.stage->undecidedIs();
   } );
   do {
      if( next ) {
         ORDOVAN_TRACE( 8, "void Stage::ConfigSm::KivStageStatus::handleCritical()", " for stage ",
                        next->fwkKey(), " critical=", next->stage()->critical() );
         bool const critical = next->decideCritical();
         next->writeCritical( critical );
         frames.push_back( { next, next->notifier()->dependencyIteratorConst(), critical } );
         next = nullptr;
      }
      CriticalFrame & frame = frames.back();
      // In a cycle the push may have come back and made a stage critical whose flag was being taken
      // back. That later decision has been pushed on already; the rest of the earlier one would cut
      // links that hold now.
      bool const overtaken = frame.critical != frame.stage->notifier()->critical();
      if( !frame.dependency || overtaken )
         frames.pop_back();
      else
         next = pushCritical( frame );
   } while( next || !frames.empty() );
}

// Tells the next stage on the way. That stage, when it has to decide anew; else null.
Ptr< KivStageStatus > KivStageStatus::pushCritical( CriticalFrame & frame ) const {
   Name const name( frame.dependency.key() );
   ++frame.dependency;
   Ptr< KivStageStatus > const other = configSm()->stageStatus( name );
   if( !other )
      return nullptr;
   String8 const self( frame.stage->fwkKey() );
   ORDOVAN_TRACE_IN( "handleCritical", 9, "  Adjusting criticalAncestor for ", name, " (was ",
                     other->hasCriticalAncestor( self ), ")" );
   bool const changed = frame.critical ? other->criticalAncestorSet( self, true )
                                       : other->criticalAncestorErase( self );
   if( !changed || !other->stage() )
      return nullptr;
   ORDOVAN_TRACE_IN( "handleCritical", 8,
                     "void Stage::ConfigSm::KivStageStatus::handleCritical(Kiv::String8)", " key ",
                     self );
   return other;
}

// A stage that came back under its name keeps those ancestors that are ancestors still. One that
// ceased to be while the stage was away took no link back: it found no stage to take it from. The
// decision about our own flag is the caller's.
void KivStageStatus::dropFormerAncestors() {
   for( auto i = criticalAncestorIterator(); i; ++i ) {
      Ptr< KivStageStatus > const other = configSm()->stageStatus( i.key() );
      Ptr< StageStatus > const ancestor = other ? other->stage() : Ptr< StageStatus >();
      if( !ancestor || !ancestor->critical() || !ancestor->hasDependency( String8( fwkKey() ) ) )
         criticalAncestorErase( i.key() );
   }
}

// The stage is no critical ancestor any more of what only `before`, which it was, depended on.
void KivStageStatus::withdrawLinks( Ptr< StageStatus > const & before ) {
   if( before )
      configSm()->withdrawLinks( String8( fwkKey() ), stage() );
}

// Stage `name` is a critical ancestor of no stage but those that `present`, if there is one,
// depends on. Whatever a stage throws that decides anew, the others lose the link, too: nobody
// would come back for it.
void ConfigSm::withdrawLinks( String8 const & name, Ptr< StageStatus > const & present ) {
   std::exception_ptr thrown;
   for( auto i = stageStatusIterator(); i; ++i ) {
      if( present && present->hasDependency( String8( i.key() ) ) )
         continue;
      Ptr< KivStageStatus > const other = i.ptr();
      if( !other || !other->criticalAncestorErase( name ) )
         continue;
      if( thrown ) {
         other->undecidedIs();
         continue;
      }
      try {
         other->handleCritical( name );
      } catch( ... ) {
         thrown = std::current_exception();
      }
   }
   if( thrown )
      std::rethrow_exception( thrown );
}

// =============================================================================================
// Aggregation: timeouts
// =============================================================================================

namespace {

// To the nearest in single precision, as a stage's timeout is kept. The language leaves open what
// becomes of a value beyond the largest float; here it is rounded like any other. Less than half a
// unit of the last place beyond, the largest float is the nearest; from there on, with the tie, it
// is infinity.
float narrowed( double seconds ) {
   float const infinity = std::numeric_limits< float >::infinity();
   float const largest = std::numeric_limits< float >::max();
   double const tooLarge = 0x1.ffffffp127;
   if( std::fabs( seconds ) >= tooLarge )
      return seconds < 0 ? -infinity : infinity;
   if( std::fabs( seconds ) > double{ largest } )
      return seconds < 0 ? -largest : largest;
   return static_cast< float >( seconds );
}

// The rule, event by event.
float longestByWalk( StageStatus const & stage ) {
   float longest = 0;
   for( auto i = stage.eventIteratorConst(); i; ++i ) {
      // Not ">=": an equal value is taken again, and no comparison with NaN counts as greater.
      if( double{ longest } > i.ptr()->timeout() )
         continue;
      longest = narrowed( i.ptr()->timeout() );
   }
   return longest;
}

// What the stage's timeout has to be. Narrowing keeps the order, so the narrowed longest is the
// longest of the narrowed; the stage does not know it where the order of its events matters.
double decideTimeout( StageStatus const & stage ) {
   double const known = stage.longestEventTimeout();
   if( std::isnan( known ) || answersBy == AnswersBy::walk )
      return longestByWalk( stage );
   float const longest = known > 0 ? narrowed( known ) : 0.0F;
   if( answersBy == AnswersBy::both ) {
      float const walked = longestByWalk( stage );
      if( walked != longest || std::signbit( walked ) != std::signbit( longest ) )
         differs( "the longest timeout" );
   }
   return longest;
}

} // namespace

void KivEventConfig::handleTimeout() {
   if( !reacts() )
      return;
   ORDOVAN_TRACE( 8, "void Stage::ConfigSm::KivStageStatus::KivEventConfig::handleTimeout() ",
                  notifier()->uid(), " ", " timeout=", notifier()->timeout() );
   kivStageStatus()->handleTimeout();
}

// Called when an event's timeout changes, when an event's reactor is made or gets another event,
// and when an event leaves whose timeout is exactly the stage's: compared as doubles, so that one
// that the narrowing has changed (0.1) does not set this off, and stays the stage's until the next
// time.
void KivStageStatus::handleTimeout() {
   if( !reacts() )
      return;
   Ptr< StageStatus > const watched = stage();
   ORDOVAN_TRACE( 8, "void Stage::ConfigSm::KivStageStatus::handleTimeout() ", fwkKey(), " ",
                  " timeout=", watched->timeout() );
   double const timeout = decideTimeout( *watched );
   if( timeout != watched->timeout() )
      ORDOVAN_TRACE( 8, "  new timeout = ", timeout );
   watched->timeoutIs( timeout );
}

// =============================================================================================
// Aggregation: what callbacks that were cut short have left undone
// =============================================================================================

void KivStageStatus::leftIs( Ptr< EventConfig const > const & event, bool setTimeout ) {
   left_ = event;
   leftSetTimeout_ = setTimeout;
   if( configSm() )
      configSm()->unsettled_ = true;
}
void KivStageStatus::undecidedIs() {
   undecided_ = true;
   if( configSm() )
      configSm()->unsettled_ = true;
}
void KivStageStatus::settle() {
   if( Ptr< EventConfig const > const event = left_ ) {
      left_ = nullptr;
      eventHasLeft( event, leftSetTimeout_ );
   }
   if( undecided_ ) {
      undecided_ = false;
      handleCritical();
   }
}
void ConfigSm::reactionBegins() {
   if( !unsettled_ )
      return;
   for( auto i = stageStatusIterator(); i; ++i )
      if( Ptr< KivStageStatus > const reactor = i.ptr() )
         reactor->settle();
   unsettled_ = false;
}

// =============================================================================================
// Progression: made, initialised, enabled
// =============================================================================================

void StatusSm::handleInitialized() {
   ORDOVAN_TRACE( 8, "void Stage::StatusSm::handleInitialized()" );
   logSmIs( log() );
   recalculateNextStageIs( activityManager()->clock() );
   recalculateNextStage()->timeMinIs( infinity );
   initializedIs( true );
   handleEnabled();
   if( needRecalculateNextStage() )
      doNextStage();
}

void StatusSm::handleEnabled() {
   ORDOVAN_TRACE( 8, "void Stage::StatusSm::handleEnabled()" );
   if( !initialized() ) {
      ORDOVAN_TRACE( 8, "Not initialized.  Return from ", "void Stage::StatusSm::handleEnabled()" );
      return;
   }
   if( !valid( config() )->enabled() )
      return; // stages already under way go on
   Ptr< Status > const stages = valid( status() );
   if( stages->activeStages() != 0 )
      return;
   if( stageEnableSms() == 0 && stageSms() == 0 ) {
      OnException const allOrNone( [ this ] { stageEnableSmDelAll(); } );
      stageEnableSm_.reserve( stages->stages() );
      stageSm_.reserve( stages->stages() );
      for( auto i = stages->stageIteratorConst(); i; ++i ) {
         ORDOVAN_TRACE( 8, "Creating Stage Enable Sm for ", i.key() );
         stageEnableSmIs( Ptr< StageStatus const >( i.ptr() ) );
      }
   }
   if( stages->complete() )
      return;
   valid( logSm() )->logIs( "Stage progression started" );
   doNextStage();
}

// =============================================================================================
// Progression: which stages are next
// =============================================================================================

void StatusSm::doNextStage() {
   ORDOVAN_TRACE( 8, "void Stage::StatusSm::doNextStage()" );
   needRecalculateNextStageIs( true );
   if( !initialized() ) {
      ORDOVAN_TRACE( 8, "not yet initialized" );
      return; // handleInitialized asks again
   }
   valid( recalculateNextStage() )->timeMinIs( now() );
}

// Whether a critical stage has not been activated yet. One that is active holds back only those
// that depend on it, complete or not.
bool StatusSm::criticalStageWaits( Status const & stages ) const {
   for( auto i = stages.stageIteratorConst(); i; ++i )
      if( !stages.activeStage( i.key() ) && i.ptr()->critical() )
         return true;
   return false;
}

// Whether an active stage is not complete.
bool StatusSm::inProgress( StageStatus const & stage, bool criticalWaiting ) const {
   if( criticalWaiting && !stage.critical() )
      ORDOVAN_TRACE_IN( "handleNextStage", 9, "Stage ", stage.name(),
                        " in progress, but now non-critical" );
   Ptr< StageSm > const sm = stageSm( stage.name() );
   if( sm && sm->complete() )
      return false;
   ORDOVAN_TRACE_IN( "handleNextStage", 9, "Stage ", stage.name(),
                     " in progress, but not yet complete." );
   return true;
}

// Whether every stage that this one depends on is active and complete.
bool StatusSm::dependenciesSatisfied( Status const & stages, StageStatus const & stage ) const {
   for( auto i = stage.dependencyIteratorConst(); i; ++i ) {
      String8 const name = i.key();
      if( !stages.activeStage( name ) ) {
         ORDOVAN_TRACE_IN( "handleNextStage", 9, name, " is not yet ready, which means ",
                           stage.name(), " is also unready." );
         return false;
      }
      Ptr< StageSm > const sm = stageSm( name );
      if( !sm ) {
         ORDOVAN_TRACE_IN( "handleNextStage", 9, "Unactivated stage SM for ", name, " means ",
                           stage.name(), " is unready." );
         return false;
      }
      if( !sm->complete() ) {
         ORDOVAN_TRACE_IN( "handleNextStage", 9, "Incomplete dependency ", name, " means ",
                           stage.name(), " is unready." );
         return false;
      }
   }
   return true;
}

void StatusSm::activate( Status & stages, Ptr< StageStatus > const & stage ) {
   ORDOVAN_TRACE_IN( "handleNextStage", 7, "Activating stage ", stage->name() );
   valid( logSm() )->logIs( joined( "stage ", stage->name(), " started" ) );
   stages.activeStageIs( stage );
}

// The rule, stage by stage. Given candidates, makes sure that they say the same.
StatusSm::Found StatusSm::walkStages( Status & stages, Candidates * beside ) {
   Found found;
   bool const criticalWaiting = criticalStageWaits( stages );
   for( auto i = stages.stageIterator(); i; ++i ) {
      Ptr< StageStatus > const stage = i.ptr();
      if( stages.activeStage( i.key() ) ) {
         if( inProgress( *stage, criticalWaiting ) )
            found.incompleteActiveStages = true;
         continue;
      }
      // Also for a stage that is activated here: a decision that activates anything never records
      // completion.
      found.inactiveStages = true;
      if( criticalWaiting && !stage->critical() ) {
         // Called ready because its dependencies are not even looked at.
         ORDOVAN_TRACE_IN( "handleNextStage", 9, stage->name(),
                           " is ready, but some critical stage hasn't started yet." );
         continue;
      }
      if( !dependenciesSatisfied( stages, *stage ) )
         continue;
      if( beside && beside->next() != stage )
         differs( "the next stage to activate" );
      activate( stages, stage );
   }
   return found;
}

// The same by what is known already, for decisions whose every step need not be traced.
StatusSm::Found StatusSm::askCandidates( Status & stages ) {
   Candidates & candidates = candidatesOf( stages );
   Found const found{ candidates.inactiveStages(), candidates.incompleteActiveStages() };
   candidates.passBegins();
   while( Ptr< StageStatus > const stage = candidates.next() )
      activate( stages, stage );
   return found;
}

// The second, with the first beside it.
StatusSm::Found StatusSm::compareBoth( Status & stages ) {
   Candidates & candidates = candidatesOf( stages );
   Found const said{ candidates.inactiveStages(), candidates.incompleteActiveStages() };
   if( candidates.criticalStageWaits() != criticalStageWaits( stages ) )
      differs( "whether a critical stage waits" );
   candidates.passBegins();
   Found const found = walkStages( stages, &candidates );
   if( candidates.next() )
      differs( "the number of stages to activate" );
   if( said != found )
      differs( "whether stages are inactive, or active and not complete" );
   return found;
}

StatusSm::Found StatusSm::decide( Status & stages ) {
   if( answersBy == AnswersBy::both )
      return compareBoth( stages );
   if( answersBy == AnswersBy::walk || detail::traces( 9 ) )
      return walkStages( stages, nullptr );
   return askCandidates( stages );
}

void StatusSm::handleNextStage() {
   ORDOVAN_TRACE( 8, "void Stage::StatusSm::handleNextStage()" );
   if( !initialized() ) {
      ORDOVAN_TRACE( 8, "not yet initialized" );
      return;
   }
   if( !needRecalculateNextStage() ) {
      ORDOVAN_TRACE( 8, "handleNextStage not needed yet." );
      return;
   }
   needRecalculateNextStageIs( false );
   OnException const stillNeeded( [ this ] { needRecalculateNextStageIs( true ); } );
   Ptr< Status > const stages = valid( status() );
   auto const [ inactiveStages, incompleteActiveStages ] = decide( *stages );
   if( !inactiveStages && !incompleteActiveStages ) {
      stages->completeIs( true );
      valid( logSm() )->logIs( "Stage progression is complete" );
   } else if( inactiveStages != incompleteActiveStages ) {
      ORDOVAN_TRACE( 8, " Inactive stages? ", inactiveStages, " IncompleteActiveStages? ",
                     incompleteActiveStages );
   }
}

// =============================================================================================
// Progression: a stage that waits
// =============================================================================================

void StageEnableSm::handleCritical() {
   if( !mainSm() )
      return;
   if( valid( stage() )->critical() )
      mainSm()->doNextStage();
}

void StageEnableSm::handleDependencyDel( String8 key ) {
   if( !mainSm() )
      return;
   Ptr< StageStatus const > const watched = valid( stage() );
   // A dependency that is there and set cannot have made the stage ready.
   if( watched->dependency( key ) )
      return;
   for( auto i = watched->dependencyIteratorConst(); i; ++i ) {
      Ptr< StageSm > const sm = mainSm()->stageSm( i.key() );
      if( !sm || !sm->complete() )
         return;
   }
   mainSm()->doNextStage();
}

// =============================================================================================
// Progression: a stage becomes active
// =============================================================================================

void StatusSm::handleActiveStage() {
   ORDOVAN_TRACE( 8, "void Stage::StatusSm::handleActiveStage()" );
   if( !initialized() ) {
      ORDOVAN_TRACE( 8, "Not initialized.  Return from", " ",
                     "void Stage::StatusSm::handleActiveStage()" );
      return;
   }
   for( auto i = valid( status() )->activeStageIteratorConst(); i; ++i )
      handleActiveStage( String8( i.key() ) );
}

void StatusSm::handleActiveStage( String8 name ) {
   ORDOVAN_TRACE( 8, "void Stage::StatusSm::handleActiveStage(Kiv::String)", " ", name );
   if( !initialized() ) {
      ORDOVAN_TRACE( 8, "Not initialized.  Return from", " ",
                     "void Stage::StatusSm::handleActiveStage(Kiv::String)", " for stage ", name );
      return;
   }
   Ptr< StageSm > const held = stageSm( name );
   if( held && held->progressOwed_ )
      recordProgress( name ); // what an earlier call was kept from
   Ptr< StageStatus > const stage = valid( status() )->activeStage( name );
   if( !stage )
      return; // it has left again: nothing is torn down
   if( held )
      return; // replaced once
   ORDOVAN_TRACE( 8, "Replacing Stage Enable Sm with Stage Sm for ", name );
   stageEnableSmDel( name );
   stageSmIs( Ptr< StageStatus const >( stage ), logSm() );
   recordProgress( name );
}

void StatusSm::recordProgress( String8 const & name ) {
   Ptr< StageSm > const sm = stageSm( name );
   sm->progressOwed_ = true; // until it is written
   valid( progress() )->stageIs( name, true );
   sm->progressOwed_ = false;
}

void StageSm::handleInitialized() {
   ORDOVAN_TRACE( 8, "void Stage::StageSm::handleInitialized() ", name() );
   if( !stage() || !mainSm() )
      return;
   if( pendingEvents() != 0 ) {
      // Not armed before the pending events were looked at once more.
      stageUncompletedIs( activityManager()->clock() );
      stageUncompleted()->timeMinIs( infinity );
   }
   initializedIs( true );
   handlePendingEvent();
   if( pendingEvents() == 0 )
      stageUncompletedDel();
   else if( stage() && stageUncompleted() )
      stageUncompleted()->timeMinIs( now() + stage()->timeout() );
}

// =============================================================================================
// Progression: events of an active stage
// =============================================================================================

void StageSm::onEvent( String8 agentName ) {
   Kept const kept = keep();
   if( !kivMarkedForDeletion() )
      handleEventDel( agentName );
   // The mirror is brought into line in any case.
   if( !stage() )
      return;
   if( Ptr< EventConfig const > const present = stage()->event( agentName ) )
      eventIs( agentName, present );
   else
      eventDel( agentName );
}

void StageSm::onEventkivImmediate() {
   Kept const kept = keep();
   if( stage() && !kivMarkedForDeletion() )
      mirrorEvents();
}

void StageSm::mirrorEvents() {
   Ptr< StageStatus const > const watched = stage();
   event_.reserve( watched->events() );
   for( auto i = watched->eventIteratorConst(); i; ++i )
      eventIs( i.key(), i.ptr() );
   for( auto i = eventIterator(); i; ++i )
      if( !watched->event( i.key() ) )
         eventDel( i.key() );
}

void StageSm::KivEvent::handleComplete() {
   Ptr< EventConfig const > const ev = event();
   if( !ev || !stageSm() )
      return;
   ORDOVAN_TRACE( 8, "void Stage::StageSm::KivEvent::handleComplete() ", ev->uid(),
                  " (stage: ", stageSm()->name(), ", agent:", ev->agent(), ")" );
   bool const complete = ev->complete();
   stageSm()->logSm()->logIs(
      joined( "  event ", ev->uid(), complete ? " completed" : " started" ) );
   if( complete )
      stageSm()->pendingEventDel( ev->uid() );
   else
      stageSm()->pendingEventIs( ev );
}

void StageSm::handleEventDel( String8 agentName ) {
   ORDOVAN_TRACE( 8, "void Stage::StageSm::handleEventDel(Kiv::String8) ", name(), " ", agentName );
   if( !stage() )
      return;
   Ptr< EventConfig const > const ev = stage()->event( agentName );
   String8 const uid = joined( stage()->name(), ":", agentName );
   if( !ev ) {
      pendingEventDel( uid );
      return;
   }
   Ptr< KivPendingEvent > const pending = pendingEvent( uid );
   if( !ev->complete() && ( !pending || !pending->pendingEvent() ) ) {
      ORDOVAN_TRACE( 8, "Incomplete event being added to pending events" );
      pendingEventIs( ev );
   }
}

void StageSm::pendingEventIs( Ptr< EventConfig const > const & event ) {
   Kept const kept = keep();
   String8 const uid = valid( event )->uid();
   tellUntold();
   Ptr< KivPendingEvent > const held = pendingEvent_.member( uid );
   if( held && held->pendingEvent() == event )
      return;
   if( held )
      held->pendingEventIs( event );
   else
      pendingEvent_.memberIs( uid, newPendingEvent( event ) );
   pendingEventChanged( uid );
}

void StageSm::pendingEventDel( String8 const & uid ) {
   Kept const kept = keep();
   String8 const key = uid; // the caller's may belong to what goes
   tellUntold();
   if( pendingEvent_.memberDel( key ) )
      pendingEventChanged( key );
}

void StageSm::pendingEventDelAll() {
   Kept const kept = keep();
   for( auto i = pendingEventIterator(); i; ++i )
      pendingEventDel( i.key() );
}

void StageSm::handlePendingEvent( String8 uid ) {
   ORDOVAN_TRACE( 8, "void Stage::StageSm::handlePendingEvent(Kiv::String8) ", uid );
   if( !initialized() ) {
      ORDOVAN_TRACE( 8, "Not initialized.  Return from", " ",
                     "void Stage::StageSm::handlePendingEvent(Kiv::String8)" );
      return;
   }
   handlePendingEvent();
}

// There is no test of `complete` on purpose: whenever the pending set is found empty the stage is
// completed, also one that a timeout completed before.
void StageSm::handlePendingEvent() {
   ORDOVAN_TRACE( 8, "void Stage::StageSm::handlePendingEvent() ", name() );
   if( !initialized() ) {
      ORDOVAN_TRACE( 8, "Not initialized.  Return from", " ",
                     "void Stage::StageSm::handlePendingEvent()" );
      return;
   }
   if( pendingEvents() != 0 ) {
      ORDOVAN_TRACE( 8, name(), " has ", pendingEvents(), " pendingEvents." );
      return;
   }
   StatusSm * const owner = mainSm(); // what the message sets off may take it from us
   if( !stage() || !owner )
      return;
   Kept const kept = keep();
   String8 const text = joined( "stage ", name(), " is complete" );
   if( timedOut() ) {
      ORDOVAN_TRACE( 0, " Stage ", name(), " completed, but had previously timed out." );
      if( stage()->critical() )
         log( ORDOVAN_STAGE_COMPLETE_AFTER_TIMEOUT, mainSm()->application(), name() );
   }
   if( stageUncompleted() )
      stageUncompleted()->timeMinIs( infinity );
   completionTimeIs( now() );
   completeIs( true );
   logSm()->logIs( text );
   owner->doNextStage();
}

// When the reaction is cut short the entry has changed already, and whoever changes it again finds
// nothing to do: so it is remembered, and made up for by the next who comes.
void StageSm::pendingEventChanged( String8 const & uid ) {
   OnException const owed( [ & ] { untold_ = uid; } );
   StageSm::handlePendingEvent( uid );
   pendingEventNotify( uid, pendingEvent( uid ) );
}
void StageSm::tellUntold() {
   String8 const uid = untold_;
   if( uid.empty() )
      return;
   untold_ = String8();
   pendingEventChanged( uid );
}

// Has been attached to another stage.
void StageSm::catchUp() {
   // What the other stage's completion was kept from is this one's only when all is seen.
   String8 const owed = untold_;
   untold_ = String8();
   OnException const stillOwed( [ & ] {
      if( !owed.empty() ) // else there may be a debt of this stage's own by now
         untold_ = owed;
   } );
   // What is incomplete is pending before any event is looked at: else the set could run empty in
   // between, and the stage complete.
   for( auto i = stage()->eventIteratorConst(); i; ++i )
      if( !i.ptr()->complete() )
         pendingEventIs( i.ptr() );
   mirrorEvents();
   // An event that this stage does not have would be pending for ever.
   for( auto i = pendingEventIterator(); i; ++i ) {
      Ptr< EventConfig const > const pending = i.ptr()->pendingEvent();
      if( !pending || stage()->event( pending->agent() ) != pending )
         pendingEventDel( i.key() );
   }
   if( !owed.empty() )
      pendingEventChanged( owed );
}

// =============================================================================================
// Progression: a stage's time is up
// =============================================================================================

namespace {

// Two blanks and the name of each pending event.
String8 namesOfPending( StageSm const & sm ) {
   String8 names;
   for( auto i = sm.pendingEventIteratorConst(); i; ++i ) {
      Ptr< EventConfig const > const event = i.ptr()->pendingEvent();
      names = joined( names, "  ", event ? event->name() : Kiv::Name( "<unknown>" ) );
   }
   return names;
}

} // namespace

void StageSm::KivStageUncompleted::onTime() {
   react( []( StageSm & sm ) {
      // A completion that was cut short was before this, and disarms the timer.
      bool const owed = !sm.untold_.empty();
      sm.tellUntold();
      if( !owed || sm.pendingEvents() != 0 )
         sm.handleStageUncompleted();
   } );
}

void StageSm::handleStageUncompleted() {
   ORDOVAN_TRACE( 8, "void Stage::StageSm::handleStageUncompleted() ", name() );
   if( !initialized() ) {
      ORDOVAN_TRACE( 8, " not yet initialized; ignore initial handler for timeout." );
      return;
   }
   if( !stage() || !mainSm() )
      return;
   Kept const kept = keep();
   ORDOVAN_TRACE( 8, name(), " has ", pendingEvents(), " pendingEvents remaining" );
   ORDOVAN_TRACE( 8, " Incomplete events: ", namesOfPending( *this ) );
   // Also for a critical stage, although that one is not completed.
   logSm()->logIs( joined( "stage ", name(), " is complete (timeout)" ) );
   if( !stage()->critical() ) {
      // The pending events stay: when the last of them completes, the stage completes again.
      completionTimeIs( now() );
      timedOutIs( true );
      completeIs( true );
      mainSm()->doNextStage();
      return;
   }
   String8 const application = mainSm()->application();
   String8 const slow( name() );
   log( ORDOVAN_STAGE_SLOW, application, slow );
   // The stage first and the application second, a leading blank, no newline and no flush: whoever
   // watches the console knows the line by that.
   std::printf( " Critical stage %s timed out! %s suspended for debugging.", slow.charPtr(),
                application.charPtr() );
   ORDOVAN_TRACE( 0, " Critical stage ", slow, " timed out! ", application,
                  " suspended for debugging." );
   timedOutIs( true );
}

// =============================================================================================
// Log
// =============================================================================================

void LogSm::logIs( String8 msg ) {
   ORDOVAN_TRACE( 9, "void Stage::LogSm::logIs(Kiv::String8) ", msg );
   double const time = now();
   LogEntry const entry{ time, msg };
   Ptr< Log > const log = valid( stageLog() ); // held while it is written to
   log->logEnq( entry );
}

} // namespace Stage
