// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// A stage's dependencies are the union of what its events depend on with value true.

#include "Handles.h"

#include <Kiv/Memory.h>

#include <csignal>
#include <new>
#include <utility>

namespace aggregation {
namespace {

TEST( Dependencies, AStageHasTheUnionOfItsEventsDependencies ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   w.declare( "a", "S", { "X", "Y" } );
   w.declare( "b", "S", { "Y", "Z" } );
   w.idle();
   EXPECT_EQ( dependenciesOf( w.stage( "S" ) ), ( Names{ "X", "Y", "Z" } ) );
   for( auto i = w.stage( "S" )->dependencyIteratorConst(); i; ++i )
      EXPECT_TRUE( i.value() ) << "only true is ever written";
   EXPECT_FALSE( w.stage( "X" ) ) << "being depended upon makes no stage";
}

TEST( Dependencies, AnEntryWithValueFalseCountsAsNone ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   Ptr< EventConfig > const event = EventConfig::EventConfigIs( "S", "a" );
   event->dependencyIs( "X", false );
   w.agent( "a" )->eventIs( "S", event );
   w.idle();
   EXPECT_EQ( w.stage( "S" )->dependencys(), 0U );
}

TEST( Dependencies, AnEntrySetFalseIsRemovedUnlessAnotherEventKeepsIt ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   Ptr< EventConfig > const a = w.declare( "a", "S", { "X", "Y" } );
   w.declare( "b", "S", { "Y" } );
   w.idle();
   a->dependencyIs( "X", false );
   a->dependencyIs( "Y", false );
   w.idle();
   EXPECT_EQ( dependenciesOf( w.stage( "S" ) ), ( Names{ "Y" } ) );
}

TEST( Dependencies, AnEntryAddedLaterIsAddedAndAnEntryRemovedIsRemoved ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   Ptr< EventConfig > const a = w.declare( "a", "S" );
   w.idle();
   a->dependencyIs( "X", true );
   w.idle();
   EXPECT_EQ( dependenciesOf( w.stage( "S" ) ), ( Names{ "X" } ) );
   a->dependencyDel( "X" );
   w.idle();
   EXPECT_EQ( dependenciesOf( w.stage( "S" ) ), ( Names{} ) );
}

TEST( Dependencies, TheLastEventThatHasADependencyTakesItAlong ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   w.declare( "a", "S", { "B" } );
   w.declare( "b", "S", { "B" } );
   w.idle();
   TraceRecorder traces;
   w.agent( "a" )->eventDel( "S" );
   w.idle();
   EXPECT_EQ( dependenciesOf( w.stage( "S" ) ), ( Names{ "B" } ) );
   EXPECT_EQ( traces.count( "Dependency found in event S:b" ), 1U );
   EXPECT_EQ( traces.count( "Deleting dependency B from stage S" ), 0U );
   traces.clear();
   w.agent( "b" )->eventDel( "S" );
   w.idle();
   EXPECT_EQ( dependenciesOf( w.stage( "S" ) ), ( Names{} ) );
   EXPECT_EQ( traces.countStarting( "Dependency found in event " ), 0U );
   EXPECT_EQ( traces.count( "Deleting dependency B from stage S" ), 1U );
}

TEST( Dependencies, AWithdrawnEventBringsNothingMoreHoweverItChanges ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   Ptr< EventConfig > const gone = w.declare( "a", "S", { "X" } );
   w.declare( "b", "S", { "Y" }, 10 );
   w.idle();
   w.agent( "a" )->eventDel( "S" );
   gone->dependencyIs( "Z", true );
   gone->criticalIs( true );
   gone->timeoutIs( 99 );
   w.idle();
   EXPECT_EQ( dependenciesOf( w.stage( "S" ) ), ( Names{ "Y" } ) );
   EXPECT_FALSE( w.stage( "S" )->critical() );
   EXPECT_EQ( w.stage( "S" )->timeout(), 10 );
   gone->dependencyIs( "W", true );
   w.idle();
   EXPECT_EQ( dependenciesOf( w.stage( "S" ) ), ( Names{ "Y" } ) );
}

TEST( Dependencies, ADependencyLostInTheBatchThatWithdrawsTheEventIsLostInEitherOrder ) {
   for( bool const dependencyFirst : { true, false } ) {
      World w;
      Ptr< ConfigSm > const machine = w.configSm();
      Ptr< EventConfig > const event = w.declare( "a", "S", { "X", "Y" } );
      w.idle();
      if( dependencyFirst )
         event->dependencyDel( "X" );
      w.agent( "a" )->eventDel( "S" );
      if( !dependencyFirst )
         event->dependencyDel( "X" );
      w.idle();
      EXPECT_EQ( dependenciesOf( w.stage( "S" ) ), ( Names{} ) ) << dependencyFirst;
   }
}

TEST( Dependencies, ManyEntriesOfOneBatchAreAllFollowed ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   Ptr< EventConfig > const event = w.declare( "a", "S", { "A", "B", "C" } );
   w.idle();
   TraceRecorder traces;
   event->dependencyDelAll();
   for( char const * name : { "C", "D", "E" } )
      event->dependencyIs( name, true );
   w.idle();
   EXPECT_EQ( dependenciesOf( w.stage( "S" ) ), ( Names{ "C", "D", "E" } ) );
   EXPECT_EQ( traces.count( ofEvent + "handleDependency() S:a" ), 1U ) << "the deferred form";
}

// ------------------------------------------------------------------- the handlers, one at a time

// A silent machine over one stage S with one event of agent a and its reactors.
struct OneEvent {
   OneEvent() : event( w.declare( "a", "S", { "X" }, 30 ) ), machine( silentConfigSm( w ) ) {}
   Ptr< ConfigSm::KivStageStatus > stageReactor() const { return machine->stageStatus( "S" ); }
   Ptr< ConfigSm::KivStageStatus::KivEventConfig > reactor() const {
      return stageReactor()->eventConfig( "a" );
   }
   World w;
   Ptr< EventConfig > event;
   Ptr< ConfigSm > machine;
};

TEST( HandleDependencyOfEvent, ADependencyNewToTheStageIsAddedAndNothingElseHappens ) {
   OneEvent o;
   o.event->dependencyIs( "Y", true );
   TraceRecorder traces;
   o.reactor()->handleDependency( "Y" );
   EXPECT_EQ( dependenciesOf( o.w.stage( "S" ) ), ( Names{ "X", "Y" } ) );
   EXPECT_EQ( traces.taken(),
              ( Lines{ ofEvent + "handleDependency(Kiv::String8) S:a (dependency:Y)" } ) );
}

// The second look is harmless and kept: it finds the dependency in this very event.
TEST( HandleDependencyOfEvent, ADependencyThatBothHaveIsLookedForAgainAndKept ) {
   OneEvent o;
   TraceRecorder traces;
   o.reactor()->handleDependency( "X" );
   EXPECT_EQ( dependenciesOf( o.w.stage( "S" ) ), ( Names{ "X" } ) );
   EXPECT_EQ( traces.taken(),
              ( Lines{ ofEvent + "handleDependency(Kiv::String8) S:a (dependency:X)",
                       ofStage + "handleDependencyDel(Kiv::String8) for some event in stage S "
                                 "(dependency: X)",
                       "Dependency found in event S:a" } ) );
}

TEST( HandleDependencyOfEvent, ADependencyThatTheEventDroppedIsDeleted ) {
   for( bool const removed : { true, false } ) {
      OneEvent o;
      if( removed )
         o.event->dependencyDel( "X" );
      else
         o.event->dependencyIs( "X", false );
      TraceRecorder traces;
      o.reactor()->handleDependency( "X" );
      EXPECT_EQ( dependenciesOf( o.w.stage( "S" ) ), ( Names{} ) );
      EXPECT_EQ( traces.taken(),
                 ( Lines{ ofEvent + "handleDependency(Kiv::String8) S:a (dependency:X)",
                          ofStage + "handleDependencyDel(Kiv::String8) for some event in stage S "
                                    "(dependency: X)",
                          "Deleting dependency X from stage S" } ) );
   }
}

TEST( HandleDependencyOfEvent, ANameThatNeitherHasChangesNothing ) {
   OneEvent o;
   TraceRecorder traces;
   o.reactor()->handleDependency( "Q" );
   EXPECT_EQ( dependenciesOf( o.w.stage( "S" ) ), ( Names{ "X" } ) );
   EXPECT_EQ( traces.taken(),
              ( Lines{ ofEvent + "handleDependency(Kiv::String8) S:a (dependency:Q)" } ) );
}

TEST( HandleDependencyOfEvent, AnEventThatHasLeftItsStageAddsNothing ) {
   OneEvent o;
   o.w.stage( "S" )->eventDel( "a" );
   o.event->dependencyIs( "Y", true );
   o.reactor()->handleDependency( "Y" );
   EXPECT_EQ( dependenciesOf( o.w.stage( "S" ) ), ( Names{ "X" } ) );
}

TEST( HandleDependencyOfEvent, AnEventWhosePlaceAnotherHasTakenAddsNothing ) {
   OneEvent o;
   o.w.stage( "S" )->eventIs( EventConfig::EventConfigIs( "S", "a" ) );
   o.event->dependencyIs( "Y", true );
   o.reactor()->handleDependency( "Y" );
   EXPECT_EQ( dependenciesOf( o.w.stage( "S" ) ), ( Names{ "X" } ) );
}

TEST( HandleDependencyOfEvent, TheFullFormLooksAtTheStagesNamesFirstAndThenAtTheEvents ) {
   OneEvent o;
   o.event->dependencyDel( "X" );
   o.event->dependencyIs( "Y", true );
   TraceRecorder traces;
   o.reactor()->handleDependency();
   EXPECT_EQ( dependenciesOf( o.w.stage( "S" ) ), ( Names{ "Y" } ) );
   EXPECT_EQ( traces.taken(),
              ( Lines{ ofEvent + "handleDependency() S:a",
                       ofEvent + "handleDependency(Kiv::String8) S:a (dependency:X)",
                       ofStage + "handleDependencyDel(Kiv::String8) for some event in stage S "
                                 "(dependency: X)",
                       "Deleting dependency X from stage S",
                       ofEvent + "handleDependency(Kiv::String8) S:a (dependency:Y)" } ) );
}

TEST( HandleDependencyOfEvent, ANameInBothIsHandledTwice ) {
   OneEvent o;
   TraceRecorder traces;
   o.reactor()->handleDependency();
   EXPECT_EQ( traces.count( ofEvent + "handleDependency(Kiv::String8) S:a (dependency:X)" ), 2U );
   EXPECT_EQ( traces.count( "Dependency found in event S:a" ), 2U );
   EXPECT_EQ( dependenciesOf( o.w.stage( "S" ) ), ( Names{ "X" } ) );
}

TEST( HandleDependencyOfEvent, EveryCallbackOfAnEventLeadsToItsHandler ) {
   OneEvent o;
   Ptr< ConfigSm::KivStageStatus::KivEventConfig > const reactor = o.reactor();
   Ptr< StageStatus > const stage = o.w.stage( "S" );
   o.event->dependencyIs( "Y", true );
   o.event->dependencyIs( "Z", true );
   reactor->onDependency( "Y" );
   EXPECT_EQ( dependenciesOf( stage ), ( Names{ "X", "Y" } ) );
   reactor->onDependencykivImmediate();
   EXPECT_EQ( dependenciesOf( stage ), ( Names{ "X", "Y", "Z" } ) );
   o.event->dependencyDel( "Z" );
   reactor->onDependency();
   EXPECT_EQ( dependenciesOf( stage ), ( Names{ "X", "Y" } ) );
   o.event->timeoutIs( 60 );
   reactor->onTimeout();
   EXPECT_EQ( stage->timeout(), 60 );
   o.event->criticalIs( true );
   reactor->onCritical();
   EXPECT_TRUE( stage->critical() );

   reactor->kivDoZombieReactors( true );
   o.event->dependencyIs( "Q", true );
   o.event->timeoutIs( 5 );
   o.event->criticalIs( false );
   reactor->onDependency( "Q" );
   reactor->onDependencykivImmediate();
   reactor->onDependency();
   reactor->onTimeout();
   reactor->onCritical();
   EXPECT_EQ( dependenciesOf( stage ), ( Names{ "X", "Y" } ) ) << "marked for deletion";
   EXPECT_EQ( stage->timeout(), 60 );
   EXPECT_TRUE( stage->critical() );
}

TEST( HandleDependencyDel, TheWalkStopsAtTheFirstEventThatHasIt ) {
   World w;
   w.declare( "a", "S", { "X" } );
   w.declare( "b", "S", { "X" } );
   Ptr< ConfigSm > const machine = silentConfigSm( w );
   std::string first;
   for( auto i = w.stage( "S" )->eventIteratorConst(); i && first.empty(); ++i )
      first = i.ptr()->uid().str();
   TraceRecorder traces;
   machine->stageStatus( "S" )->handleDependencyDel( "X" );
   EXPECT_EQ( traces.taken(),
              ( Lines{ ofStage + "handleDependencyDel(Kiv::String8) for some event in stage S "
                                 "(dependency: X)",
                       "Dependency found in event " + first } ) );
   EXPECT_EQ( dependenciesOf( w.stage( "S" ) ), ( Names{ "X" } ) );
}

TEST( HandleDependencyDel, AnEntryWithValueFalseKeepsNothing ) {
   OneEvent o;
   Ptr< EventConfig > const other = fileEvent( o.w, "b", "S" );
   other->dependencyIs( "X", false );
   o.event->dependencyDel( "X" );
   o.stageReactor()->handleDependencyDel( "X" );
   EXPECT_EQ( dependenciesOf( o.w.stage( "S" ) ), ( Names{} ) );
}

TEST( HandleEventDel, AnAgentWithoutEventInTheStageChangesNothing ) {
   OneEvent o;
   TraceRecorder traces;
   o.stageReactor()->handleEventDel( "nobody" );
   EXPECT_EQ( agentsOf( o.w.stage( "S" ) ), ( Names{ "a" } ) );
   EXPECT_EQ( traces.taken(),
              ( Lines{ ofStage + "handleEventDel(Kiv::String8) S (event:nobody)" } ) );
}

TEST( HandleEventDel, OnlyTheRemainingEventsKeepADependency ) {
   World w;
   w.declare( "a", "S", { "X", "Y" } );
   w.declare( "b", "S", { "Y" } );
   Ptr< ConfigSm > const machine = silentConfigSm( w );
   machine->stageStatus( "S" )->handleEventDel( "a" );
   EXPECT_EQ( agentsOf( w.stage( "S" ) ), ( Names{ "b" } ) );
   EXPECT_EQ( dependenciesOf( w.stage( "S" ) ), ( Names{ "Y" } ) );
   Ptr< EventConfig const > const removed = w.agent( "a" )->event( "S" );
   EXPECT_EQ( removed->dependencys(), 2U ) << "the removed event is not altered";
}

TEST( HandleEventDel, EntriesWithValueFalseAreGoneThroughToo ) {
   OneEvent o;
   o.event->dependencyIs( "X", false );
   o.stageReactor()->handleEventDel( "a" );
   EXPECT_EQ( dependenciesOf( o.w.stage( "S" ) ), ( Names{} ) );
}

TEST( HandleEventDel, TheCriticalFlagIsDecidedAnewBeforeTheTimeout ) {
   OneEvent o;
   o.event->criticalIs( true );
   o.stageReactor()->handleCritical();
   ASSERT_TRUE( o.w.stage( "S" )->critical() );
   TraceRecorder traces;
   o.stageReactor()->handleEventDel( "a" );
   EXPECT_FALSE( o.w.stage( "S" )->critical() );
   EXPECT_EQ( o.w.stage( "S" )->timeout(), 0 );
   EXPECT_EQ( traces.taken(),
              ( Lines{ ofStage + "handleEventDel(Kiv::String8) S (event:a)",
                       "Handling dependency deletion of X from event S:a",
                       ofStage + "handleDependencyDel(Kiv::String8) for some event in stage S "
                                 "(dependency: X)",
                       "Deleting dependency X from stage S",
                       ofStage + "handleCritical() for stage S critical=true",
                       " Setting critical for stage S to false",
                       "   Force dependents of S to recompute based on our criticalfalse",
                       ofStage + "handleTimeout() S  timeout=30", "  new timeout = 0" } ) );
}

TEST( HandleEventDel, AnEventBelowTheStagesTimeoutBringsNoRecomputation ) {
   World w;
   w.declare( "a", "S", {}, 30 );
   w.declare( "b", "S", {}, 120 );
   Ptr< ConfigSm > const machine = silentConfigSm( w );
   w.stage( "S" )->timeoutIs( 500 );
   TraceRecorder traces;
   machine->stageStatus( "S" )->handleEventDel( "a" );
   EXPECT_EQ( w.stage( "S" )->timeout(), 500 );
   EXPECT_EQ( traces.countStarting( ofStage + "handleTimeout()" ), 0U );
}

TEST( HandleEventDel, AnEventAboveTheStagesTimeoutBringsNoRecomputationEither ) {
   World w;
   w.declare( "a", "S", {}, 30 );
   w.declare( "b", "S", {}, 20 );
   Ptr< ConfigSm > const machine = silentConfigSm( w );
   w.stage( "S" )->timeoutIs( 10 );
   machine->stageStatus( "S" )->handleEventDel( "a" );
   EXPECT_EQ( w.stage( "S" )->timeout(), 10 );
}

// Nothing that the removal of an event sets off may change the event. Here the release of memory
// does.
void ( *onRelease )() = nullptr;
Ptr< EventConfig > removed;

TEST( HandleEventDelDeathTest, AnEventChangedByItsRemovalEndsTheProcess ) {
   auto const removal = [] {
      World w;
      Ptr< ConfigSm > const machine = silentConfigSm( w );
      removed = fileEvent( w, "a", "S" );
      Ptr< ConfigSm::KivStageStatus > const reactor = machine->stageStatusIs( w.stage( "S" ) );
      reactor->eventConfigDel( "a" ); // nobody is told of the change
      Kiv::memoryHooksIs( { []( std::size_t size ) { return ::operator new( size, std::nothrow ); },
                            []( void * memory, std::size_t ) {
                               ::operator delete( memory );
                               if( auto const once = std::exchange( onRelease, nullptr ) )
                                  once();
                            } } );
      onRelease = [] { removed->dependencyIs( "T", true ); };
      reactor->handleEventDel( "a" );
   };
   EXPECT_EXIT( removal(), testing::KilledBySignal( SIGABRT ),
                "invariant broken: ec->dependencys\\(\\) == before\n" );
}

// The timeout is recomputed by the reactor that the state machine holds under the stage's name.
TEST( HandleEventDel, AReactorThatIsNotHeldRecomputesNoTimeout ) {
   World w;
   Ptr< ConfigSm > const machine = silentConfigSm( w );
   fileEvent( w, "a", "S" )->timeoutIs( 30 );
   Ptr< ConfigSm::KivStageStatus > const loose = machine->newStageStatus( w.stage( "S" ) );
   ASSERT_EQ( w.stage( "S" )->timeout(), 30 );
   loose->handleEventDel( "a" );
   EXPECT_EQ( w.stage( "S" )->events(), 0U );
   EXPECT_EQ( w.stage( "S" )->timeout(), 30 );
}

// ------------------------------------------------------------------ links between stages' reactors

TEST( HandleDependencyOfStage, ALinkIsMadeWhenACriticalStageDependsOnAnother ) {
   World w;
   Ptr< ConfigSm > const machine = silentConfigSm( w );
   Ptr< StageStatus > const a = w.status->stageIs( "A" );
   Ptr< StageStatus > const b = w.status->stageIs( "B" );
   Ptr< ConfigSm::KivStageStatus > const ofA = machine->stageStatusIs( a );
   Ptr< ConfigSm::KivStageStatus > const ofB = machine->stageStatusIs( b );
   a->dependencyIs( "B", true );
   a->criticalIs( true );
   TraceRecorder traces;
   ofA->handleDependency( "B" );
   EXPECT_TRUE( ofB->criticalAncestor( "A" ) );
   EXPECT_TRUE( b->critical() );
   EXPECT_EQ( traces.taken(),
              ( Lines{ ofStage + "handleDependency(Kiv::String8) for stage A (dependency:B)",
                       "  Adjusting criticalAncestor for B",
                       "  criticalAncestor was false now dep && critic = true",
                       " criticalAncestors 0", ofStage + "handleCritical(Kiv::String8) key A",
                       ofStage + "handleCritical() for stage B critical=false",
                       " Critical because exists a critical ancestor",
                       " Setting critical for stage B to true",
                       "   Force dependents of B to recompute based on our criticaltrue",
                       " criticalAncestors after 1" } ) );

   // Once more: the link is there, so nothing is decided anew.
   ofA->handleDependency( "B" );
   EXPECT_EQ( traces.taken(),
              ( Lines{ ofStage + "handleDependency(Kiv::String8) for stage A (dependency:B)",
                       "  Adjusting criticalAncestor for B",
                       "  criticalAncestor was true now dep && critic = true",
                       " criticalAncestors 1", " criticalAncestors after 1" } ) );

   a->dependencyDel( "B" );
   ofA->handleDependency( "B" );
   EXPECT_FALSE( ofB->hasCriticalAncestor( "A" ) );
   EXPECT_FALSE( b->critical() );
   EXPECT_EQ( traces.taken(),
              ( Lines{ ofStage + "handleDependency(Kiv::String8) for stage A (dependency:B)",
                       "  Adjusting criticalAncestor for B",
                       "  criticalAncestor was true now dep && critic = false",
                       " criticalAncestors 1", ofStage + "handleCritical(Kiv::String8) key A",
                       ofStage + "handleCritical() for stage B critical=true",
                       " Setting critical for stage B to false",
                       "   Force dependents of B to recompute based on our criticalfalse",
                       " criticalAncestors after 0" } ) );
}

TEST( HandleDependencyOfStage, AStageThatIsNotCriticalIsNobodysAncestor ) {
   World w;
   Ptr< ConfigSm > const machine = silentConfigSm( w );
   Ptr< ConfigSm::KivStageStatus > const ofA = machine->stageStatusIs( w.status->stageIs( "A" ) );
   Ptr< ConfigSm::KivStageStatus > const ofB = machine->stageStatusIs( w.status->stageIs( "B" ) );
   w.stage( "A" )->dependencyIs( "B", true );
   ofA->handleDependency( "B" );
   EXPECT_EQ( ofB->criticalAncestors(), 0U );
   // A stage that has stopped being critical loses its link.
   ofB->criticalAncestorIs( "A", true );
   ofA->handleDependency( "B" );
   EXPECT_EQ( ofB->criticalAncestors(), 0U );
   EXPECT_FALSE( w.stage( "B" )->critical() );
}

TEST( HandleDependencyOfStage, AStageThatDoesNotExistIsLeftForLater ) {
   World w;
   Ptr< ConfigSm > const machine = silentConfigSm( w );
   Ptr< ConfigSm::KivStageStatus > const ofA = machine->stageStatusIs( w.status->stageIs( "A" ) );
   w.stage( "A" )->dependencyIs( "B", true );
   w.stage( "A" )->criticalIs( true );
   TraceRecorder traces;
   ofA->handleDependency( "B" );
   EXPECT_EQ( traces.taken(),
              ( Lines{ ofStage + "handleDependency(Kiv::String8) for stage A (dependency:B)" } ) );
}

// A reactor whose stage has left the status, but whose notification has not come.
TEST( HandleDependencyOfStage, AStageThatHasLeftTheStatusIsNotLinked ) {
   World w;
   Ptr< ConfigSm > const machine = silentConfigSm( w );
   Ptr< ConfigSm::KivStageStatus > const ofA = machine->stageStatusIs( w.status->stageIs( "A" ) );
   Ptr< ConfigSm::KivStageStatus > const ofB = machine->stageStatusIs( w.status->stageIs( "B" ) );
   w.stage( "A" )->dependencyIs( "B", true );
   w.stage( "A" )->criticalIs( true );
   w.status->stageDel( "B" );
   ofA->handleDependency( "B" );
   EXPECT_EQ( ofB->criticalAncestors(), 0U );
}

TEST( HandleDependencyOfStage, AStageThatAnotherOfItsNameHasReplacedIsLinked ) {
   World w;
   Ptr< ConfigSm > const machine = silentConfigSm( w );
   Ptr< ConfigSm::KivStageStatus > const ofA = machine->stageStatusIs( w.status->stageIs( "A" ) );
   Ptr< ConfigSm::KivStageStatus > const ofB = machine->stageStatusIs( w.status->stageIs( "B" ) );
   w.stage( "A" )->dependencyIs( "B", true );
   w.stage( "A" )->criticalIs( true );
   w.status->stageDel( "B" );
   w.status->stageIs( "B" );
   ofA->handleDependency( "B" ); // whose reactor watches the one that has left
   EXPECT_TRUE( ofB->criticalAncestor( "A" ) );
}

TEST( HandleDependencyOfStage, AStageWhoseReactorIsNotMadeYetIsLeftForLater ) {
   World w;
   Ptr< ConfigSm > const machine = silentConfigSm( w );
   Ptr< ConfigSm::KivStageStatus > const ofA = machine->stageStatusIs( w.status->stageIs( "A" ) );
   w.stage( "A" )->dependencyIs( "B", true );
   w.stage( "A" )->criticalIs( true );
   w.status->stageIs( "B" );
   TraceRecorder traces;
   ofA->handleDependency( "B" );
   EXPECT_EQ( traces.taken(),
              ( Lines{ ofStage + "handleDependency(Kiv::String8) for stage A (dependency:B)" } ) );
   // The notification that makes the reactor makes the link, too.
   machine->newStatus( w.status )->onStage( "B" );
   EXPECT_TRUE( machine->stageStatus( "B" )->criticalAncestor( "A" ) );
   EXPECT_TRUE( w.stage( "B" )->critical() );
}

TEST( HandleStageOfStage, OnlyAStageThatDependsOnTheNewOneLooksAtIt ) {
   World w;
   Ptr< ConfigSm > const machine = silentConfigSm( w );
   Ptr< ConfigSm::KivStageStatus > const ofA = machine->stageStatusIs( w.status->stageIs( "A" ) );
   w.stage( "A" )->dependencyIs( "B", true );
   TraceRecorder traces;
   ofA->handleStage( "C" );
   EXPECT_EQ( traces.taken(),
              ( Lines{ ofStage + "handleStage(Kiv::String8) for stage A detected stage C" } ) );
   ofA->handleStage( "B" );
   EXPECT_EQ( traces.taken(),
              ( Lines{ ofStage + "handleStage(Kiv::String8) for stage A detected stage B",
                       ofStage + "handleDependency(Kiv::String8) for stage A (dependency:B)" } ) );
}

TEST( StageLinks, ADependencyDeclaredBeforeItsStageExistsIsLinkedWhenItAppears ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   w.declare( "a", "A", { "B" }, 0, true );
   w.idle();
   EXPECT_EQ( dependenciesOf( w.stage( "A" ) ), ( Names{ "B" } ) );
   w.declare( "b", "B" );
   w.idle();
   EXPECT_TRUE( machine->stageStatus( "B" )->criticalAncestor( "A" ) );
   EXPECT_TRUE( w.stage( "B" )->critical() );
}

TEST( StageLinks, ADependencyThatGoesTakesTheLinkAlong ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   Ptr< EventConfig > const event = w.declare( "a", "A", { "B" }, 0, true );
   w.declare( "b", "B" );
   w.idle();
   ASSERT_TRUE( w.stage( "B" )->critical() );
   event->dependencyIs( "B", false );
   w.idle();
   EXPECT_FALSE( machine->stageStatus( "B" )->hasCriticalAncestor( "A" ) );
   EXPECT_FALSE( w.stage( "B" )->critical() );
   EXPECT_TRUE( w.stage( "A" )->critical() );
}

TEST( StageLinks, EveryCallbackOfAStageLeadsToItsHandler ) {
   World w;
   Ptr< ConfigSm > const machine = silentConfigSm( w );
   Ptr< StageStatus > const a = w.status->stageIs( "A" );
   Ptr< ConfigSm::KivStageStatus > const ofA = machine->stageStatusIs( a );
   for( char const * name : { "B", "C", "D" } ) {
      machine->stageStatusIs( w.status->stageIs( name ) );
      a->dependencyIs( name, true );
   }
   a->criticalIs( true );
   ofA->onDependency( "B" );
   EXPECT_TRUE( w.stage( "B" )->critical() );
   EXPECT_FALSE( w.stage( "C" )->critical() );
   a->dependencyDel( "D" );
   ofA->onDependencykivImmediate();
   EXPECT_TRUE( w.stage( "C" )->critical() );
   EXPECT_FALSE( w.stage( "D" )->critical() );
   a->dependencyIs( "D", true );
   ofA->onDependency();
   EXPECT_TRUE( w.stage( "D" )->critical() );

   Ptr< EventConfig > const first = fileEvent( w, "a", "A" );
   fileEvent( w, "b", "A" );
   ofA->onEvent( "a" );
   ASSERT_TRUE( ofA->eventConfig( "a" ) );
   EXPECT_EQ( ofA->eventConfig( "a" )->notifier(), first );
   EXPECT_FALSE( ofA->eventConfig( "b" ) );
   ofA->onEventkivImmediate();
   EXPECT_TRUE( ofA->eventConfig( "b" ) );
   Ptr< EventConfig > const second = EventConfig::EventConfigIs( "A", "a" );
   a->eventIs( second );
   ofA->onEvent( "a" );
   EXPECT_EQ( ofA->eventConfig( "a" )->notifier(), second ) << "attached to the other object";
   a->eventDel( "a" );
   ofA->onEvent( "a" );
   EXPECT_FALSE( ofA->eventConfig( "a" ) );
   a->eventDel( "b" );
   ofA->onEvent();
   EXPECT_EQ( ofA->eventConfigs(), 0U );

   fileEvent( w, "c", "A" );
   ofA->kivDoZombieReactors( true );
   a->criticalIs( false );
   ofA->onEvent( "c" );
   ofA->onEventkivImmediate();
   ofA->onEvent();
   ofA->onDependency( "B" );
   ofA->onDependencykivImmediate();
   ofA->onDependency();
   EXPECT_EQ( ofA->eventConfigs(), 0U ) << "marked for deletion";
   EXPECT_TRUE( machine->stageStatus( "B" )->hasCriticalAncestor( "A" ) );
}

// The other event's dependencies are the stage's now, without those of the first.
TEST( StageLinks, AnotherEventObjectUnderTheSameAgentBringsItsOwnValues ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   w.declare( "a", "S", { "X", "Y" }, 60, true );
   w.idle();
   Ptr< EventConfig > const next = EventConfig::EventConfigIs( "S", "a" );
   next->dependencyIs( "Y", true );
   next->dependencyIs( "Z", true );
   next->timeoutIs( 20 );
   w.stage( "S" )->eventIs( next );
   w.idle();
   EXPECT_EQ( dependenciesOf( w.stage( "S" ) ), ( Names{ "Y", "Z" } ) );
   EXPECT_EQ( w.stage( "S" )->timeout(), 20 );
   EXPECT_FALSE( w.stage( "S" )->critical() );
}

} // namespace
} // namespace aggregation
