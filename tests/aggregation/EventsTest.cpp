// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Agents declare and withdraw events; the events enter and leave their stages.

#include "Handles.h"

namespace aggregation {
namespace {

TEST( Events, ANewStageIsCreatedByTheFirstEventDeclaredForIt ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   TraceRecorder traces;
   w.declare( "a", "S", {}, 30 );
   w.idle();
   Ptr< StageStatus > const stage = w.stage( "S" );
   ASSERT_TRUE( stage );
   w.declare( "b", "S", {}, 120 );
   w.idle();
   EXPECT_EQ( w.stage( "S" ), stage );
   EXPECT_EQ( agentsOf( stage ), ( Names{ "a", "b" } ) );
   EXPECT_EQ( stage->timeout(), 120 );
   EXPECT_EQ( traces.count( "Adding stage S to status." ), 1U );
   EXPECT_EQ( traces.count( "Adding event a to stage S" ), 1U );
   EXPECT_EQ( traces.count( "Adding event b to stage S" ), 1U );
}

TEST( Events, AnEventDeclaredLaterEntersItsStage ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   w.agent( "a" );
   w.idle();
   Ptr< EventConfig > const event = w.declare( "a", "S" );
   EXPECT_FALSE( w.stage( "S" ) ) << "setters call nobody";
   w.idle();
   EXPECT_EQ( w.stage( "S" )->event( "a" ), event );
   EXPECT_EQ( w.stage( "S" )->events(), 1U );
}

TEST( Events, WithdrawingRemovesThatEventOnlyAndTheStageStays ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   w.declare( "a", "S" );
   w.declare( "a", "T" );
   w.declare( "b", "S" );
   w.idle();
   Ptr< StageStatus > const stage = w.stage( "S" );
   w.agent( "a" )->eventDel( "S" );
   w.idle();
   EXPECT_EQ( agentsOf( stage ), ( Names{ "b" } ) );
   EXPECT_EQ( agentsOf( w.stage( "T" ) ), ( Names{ "a" } ) );
   w.agent( "b" )->eventDel( "S" );
   w.idle();
   EXPECT_EQ( w.stage( "S" ), stage );
   EXPECT_EQ( stage->events(), 0U );
}

TEST( Events, AnEventDeclaredAndWithdrawnBeforeTheLoopRunsMakesNoStage ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   w.agent( "a" );
   w.idle();
   w.declare( "a", "S" );
   w.agent( "a" )->eventDel( "S" );
   TraceRecorder traces;
   w.idle();
   EXPECT_EQ( w.status->stages(), 0U );
   EXPECT_EQ( traces.taken(), ( Lines{ ofAgent + "handleEvent(Kiv::Name) a S" } ) );
}

TEST( Events, AnEventDeclaredAndWithdrawnBeforeTheLoopRunsLeavesAnOldStageAsItIs ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   w.declare( "b", "S", { "X" }, 30 );
   w.idle();
   w.declare( "a", "S", { "Y" }, 60, true );
   w.agent( "a" )->eventDel( "S" );
   w.idle();
   EXPECT_EQ( agentsOf( w.stage( "S" ) ), ( Names{ "b" } ) );
   EXPECT_EQ( dependenciesOf( w.stage( "S" ) ), ( Names{ "X" } ) );
   EXPECT_EQ( w.stage( "S" )->timeout(), 30 );
   EXPECT_FALSE( w.stage( "S" )->critical() );
}

// The stage holds the agent's event and the agent declares one: nothing is added.
TEST( Events, AReplacedEventObjectStaysInItsStageUntilItIsWithdrawn ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   Ptr< EventConfig > const first = w.declare( "a", "S", { "X" }, 30 );
   w.idle();
   Ptr< EventConfig > const second = w.declare( "a", "S", { "Y" }, 60 );
   w.idle();
   EXPECT_EQ( w.stage( "S" )->event( "a" ), first );
   EXPECT_EQ( dependenciesOf( w.stage( "S" ) ), ( Names{ "X" } ) );
   EXPECT_EQ( w.stage( "S" )->timeout(), 30 );
   first->timeoutIs( 45 );
   w.idle();
   EXPECT_EQ( w.stage( "S" )->timeout(), 45 ) << "the first is still watched";

   w.agent( "a" )->eventDel( "S" );
   w.idle();
   EXPECT_EQ( w.stage( "S" )->events(), 0U );
   w.agent( "a" )->eventIs( "S", second );
   w.idle();
   EXPECT_EQ( w.stage( "S" )->event( "a" ), second );
   EXPECT_EQ( dependenciesOf( w.stage( "S" ) ), ( Names{ "Y" } ) );
   EXPECT_EQ( w.stage( "S" )->timeout(), 60 );
}

TEST( Events, WithdrawingAndDeclaringInOneBatchCountsAsReplacing ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   Ptr< EventConfig > const first = w.declare( "a", "S" );
   w.idle();
   w.agent( "a" )->eventDel( "S" );
   w.declare( "a", "S" );
   w.idle();
   EXPECT_EQ( w.stage( "S" )->event( "a" ), first );
}

// What the directory says now counts, not what the reactor happens to watch.
TEST( Events, AChangeOfAReplacedAgentObjectIsJudgedByTheObjectInTheDirectory ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   w.declare( "a", "S" );
   w.declare( "a", "T" );
   w.idle();
   Ptr< AgentConfig > const old = w.agent( "a" );
   Ptr< AgentConfig > const next = AgentConfig::AgentConfigIs( "a" );
   w.dir->entityPtrIs( next );
   w.idle();
   old->eventIs( "S", EventConfig::EventConfigIs( "S", "a" ) );
   w.idle();
   EXPECT_EQ( w.stage( "S" )->events(), 0U ) << "the new object declares nothing for S";
   EXPECT_EQ( agentsOf( w.stage( "T" ) ), ( Names{ "a" } ) ) << "nobody has told of T";
}

// Two keys of one batch bring the deferred form, which goes through all stages of the agent.
TEST( Events, TheDeferredFormAfterAnAgentWasReplacedRemovesWhatTheNewObjectDoesNotDeclare ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   for( char const * stage : { "S", "T", "U" } )
      w.declare( "a", stage );
   w.idle();
   Ptr< AgentConfig > const old = w.agent( "a" );
   Ptr< AgentConfig > const next = AgentConfig::AgentConfigIs( "a" );
   next->eventIs( "U", EventConfig::EventConfigIs( "U", "a" ) );
   w.dir->entityPtrIs( next );
   w.idle();
   old->eventIs( "V", EventConfig::EventConfigIs( "V", "a" ) );
   old->eventIs( "W", EventConfig::EventConfigIs( "W", "a" ) );
   w.idle();
   EXPECT_EQ( w.stage( "S" )->events(), 0U );
   EXPECT_EQ( w.stage( "T" )->events(), 0U );
   EXPECT_EQ( agentsOf( w.stage( "U" ) ), ( Names{ "a" } ) );
   EXPECT_FALSE( w.stage( "V" ) );
   EXPECT_FALSE( w.stage( "W" ) );
}

TEST( Events, ManyEventsOfOneBatchAllArriveAndAllGo ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   w.agent( "a" );
   w.idle();
   for( int i = 0; i != 30; ++i )
      w.declare( "a", std::string( "S" ) + std::to_string( i ) );
   w.idle();
   EXPECT_EQ( w.status->stages(), 30U );
   EXPECT_EQ( machine->stageStatuss(), 30U );
   w.agent( "a" )->eventDelAll();
   w.idle();
   EXPECT_EQ( w.status->stages(), 30U );
   for( auto i = w.status->stageIteratorConst(); i; ++i )
      EXPECT_EQ( i.ptr()->events(), 0U );
}

// ------------------------------------------------------------------- the handlers, one at a time

TEST( HandleEvent, AnAddedEventRaisesTheTimeoutInDoublePrecision ) {
   World w;
   Ptr< ConfigSm > const machine = silentConfigSm( w );
   w.agent( "a" );
   machine->handleAgent();
   w.declare( "a", "S", {}, 0.1 );
   machine->agentConfig( "a" )->handleEvent( "S" );
   EXPECT_EQ( w.stage( "S" )->timeout(), 0.1 );
}

TEST( HandleEvent, AStageWithALargerTimeoutKeepsIt ) {
   World w;
   Ptr< ConfigSm > const machine = silentConfigSm( w );
   w.agent( "a" );
   machine->handleAgent();
   w.status->stageIs( "S" )->timeoutIs( 50 );
   w.declare( "a", "S", {}, 30 );
   machine->agentConfig( "a" )->handleEvent( "S" );
   EXPECT_EQ( agentsOf( w.stage( "S" ) ), ( Names{ "a" } ) );
   EXPECT_EQ( w.stage( "S" )->timeout(), 50 );
}

TEST( HandleEvent, ATimeoutThatIsNoNumberRaisesNothing ) {
   World w;
   Ptr< ConfigSm > const machine = silentConfigSm( w );
   w.agent( "a" );
   machine->handleAgent();
   w.status->stageIs( "S" )->timeoutIs( 50 );
   w.declare( "a", "S", {}, std::numeric_limits< double >::quiet_NaN() );
   machine->agentConfig( "a" )->handleEvent( "S" );
   EXPECT_EQ( w.stage( "S" )->timeout(), 50 );
}

TEST( HandleEvent, ToldAgainOfAnEventThatTheStageHoldsItWritesNothing ) {
   World w;
   Ptr< ConfigSm > const machine = silentConfigSm( w );
   Ptr< EventConfig > const event = w.declare( "a", "S", {}, 30 );
   machine->handleAgent();
   w.stage( "S" )->timeoutIs( 5 );
   TraceRecorder traces;
   machine->agentConfig( "a" )->handleEvent( "S" );
   EXPECT_EQ( w.stage( "S" )->timeout(), 5 ) << "not raised again";
   EXPECT_EQ( w.stage( "S" )->event( "a" ), event );
   EXPECT_EQ( traces.taken(), ( Lines{ ofAgent + "handleEvent(Kiv::Name) a S" } ) );
}

TEST( HandleEvent, AnAgentThatHasLeftTheDirectoryLosesTheEvent ) {
   World w;
   Ptr< ConfigSm > const machine = silentConfigSm( w );
   w.declare( "a", "S" );
   w.declare( "a", "T" );
   machine->handleAgent();
   w.dir->entityPtrDel( "a" );
   machine->agentConfig( "a" )->handleEvent( "S" );
   EXPECT_EQ( w.stage( "S" )->events(), 0U );
   EXPECT_EQ( agentsOf( w.stage( "T" ) ), ( Names{ "a" } ) );
}

TEST( HandleEvent, AnEntryOfAnotherTypeDeclaresNothing ) {
   World w;
   Ptr< ConfigSm > const machine = silentConfigSm( w );
   w.declare( "a", "S" );
   machine->handleAgent();
   w.dir->entityPtrIs( Kiv::Dir::DirIs( "a" ) );
   machine->agentConfig( "a" )->handleEvent( "T" );
   EXPECT_FALSE( w.stage( "T" ) );
   machine->agentConfig( "a" )->handleEvent( "S" );
   EXPECT_EQ( w.stage( "S" )->events(), 0U );
}

TEST( HandleEvent, AStageUnknownToBothSidesIsNotMade ) {
   World w;
   Ptr< ConfigSm > const machine = silentConfigSm( w );
   w.agent( "a" );
   machine->handleAgent();
   machine->agentConfig( "a" )->handleEvent( "S" );
   EXPECT_EQ( w.status->stages(), 0U );
}

TEST( HandleEvent, AnEventThatLeavesAStageWithoutReactorGoesThroughOne ) {
   World w;
   Ptr< ConfigSm > const machine = silentConfigSm( w );
   w.declare( "a", "S", { "X" }, 30 );
   machine->handleAgent();
   ASSERT_EQ( machine->stageStatuss(), 0U ) << "its notification has not come";
   w.agent( "a" )->eventDel( "S" );
   machine->agentConfig( "a" )->handleEvent( "S" );
   EXPECT_EQ( w.stage( "S" )->events(), 0U );
   EXPECT_EQ( w.stage( "S" )->dependencys(), 0U );
   EXPECT_EQ( w.stage( "S" )->timeout(), 0 );
}

TEST( HandleEvent, TheFullFormAddsWhatIsDeclaredAndRemovesWhatIsWithdrawn ) {
   World w;
   Ptr< ConfigSm > const machine = silentConfigSm( w );
   w.declare( "a", "S" );
   w.declare( "a", "T" );
   w.declare( "b", "S" );
   machine->handleAgent();
   w.agent( "a" )->eventDel( "S" );
   w.declare( "a", "U" );
   w.agent( "b" )->eventDel( "S" );
   machine->agentConfig( "a" )->handleEvent();
   EXPECT_EQ( agentsOf( w.stage( "S" ) ), ( Names{ "b" } ) ) << "only this agent's";
   EXPECT_EQ( agentsOf( w.stage( "T" ) ), ( Names{ "a" } ) );
   EXPECT_EQ( agentsOf( w.stage( "U" ) ), ( Names{ "a" } ) );
}

TEST( HandleEvent, EveryCallbackOfAnAgentLeadsToItsHandler ) {
   World w;
   Ptr< ConfigSm > const machine = silentConfigSm( w );
   w.agent( "a" );
   machine->handleAgent();
   Ptr< ConfigSm::KivAgentConfig > const reactor = machine->agentConfig( "a" );
   w.declare( "a", "S" );
   w.declare( "a", "T" );
   reactor->onEvent( "S" );
   EXPECT_EQ( stagesOf( w.status ), ( Names{ "S" } ) );
   reactor->onEventkivImmediate();
   EXPECT_EQ( stagesOf( w.status ), ( Names{ "S", "T" } ) );
   w.declare( "a", "U" );
   reactor->onEvent();
   EXPECT_EQ( stagesOf( w.status ), ( Names{ "S", "T", "U" } ) );

   reactor->kivDoZombieReactors( true );
   w.declare( "a", "V" );
   reactor->onEvent( "V" );
   reactor->onEventkivImmediate();
   reactor->onEvent();
   EXPECT_FALSE( w.stage( "V" ) ) << "marked for deletion";
}

// ------------------------------------------------------- stages that come and go by other hands

TEST( OutsideStages, AStageThatGoesIsNobodysCriticalAncestorAnyMore ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   w.declare( "a", "S", { "T", "U" }, 0, true );
   w.declare( "a", "T", { "V" } );
   w.declare( "a", "U", {}, 0, true );
   w.declare( "a", "V" );
   w.idle();
   ASSERT_TRUE( w.stage( "V" )->critical() );
   w.status->stageDel( "S" );
   w.idle();
   EXPECT_EQ( machine->stageStatus( "T" )->criticalAncestors(), 0U );
   EXPECT_FALSE( w.stage( "T" )->critical() );
   EXPECT_FALSE( w.stage( "V" )->critical() );
   EXPECT_TRUE( w.stage( "U" )->critical() ) << "by its own event";
}

// The stages of a cycle push to each other while the link is taken away; it must not come back.
TEST( OutsideStages, AStageThatGoesIsNobodysCriticalAncestorAlsoWithinACycle ) {
   for( bool const replaced : { false, true } ) {
      World w;
      Ptr< ConfigSm > const machine = w.configSm();
      w.declare( "a", "S", { "T" }, 0, true );
      w.declare( "a", "T", { "S" } );
      w.idle();
      ASSERT_TRUE( w.stage( "T" )->critical() );
      w.status->stageDel( "S" );
      if( replaced )
         w.status->stageIs( "S" );
      w.idle();
      EXPECT_EQ( machine->stageStatus( "T" )->criticalAncestors(), 0U ) << replaced;
      EXPECT_FALSE( w.stage( "T" )->critical() ) << replaced;
      if( replaced )
         EXPECT_FALSE( w.stage( "S" )->critical() );
   }
}

// The stage has lost the dependency by the time it is heard to be gone, but not the link.
TEST( OutsideStages, AStageThatGoesTakesALinkAlongWhoseDependencyWentInTheSameBatch ) {
   for( bool const replaced : { false, true } ) {
      World w;
      Ptr< ConfigSm > const machine = w.configSm();
      Ptr< EventConfig > const event = w.declare( "a", "S", { "T" }, 0, true );
      w.declare( "a", "T" );
      w.idle();
      ASSERT_TRUE( w.stage( "T" )->critical() );
      event->dependencyDel( "T" );
      w.status->stageDel( "S" );
      if( replaced )
         w.status->stageIs( "S" );
      w.idle();
      EXPECT_EQ( machine->stageStatus( "T" )->criticalAncestors(), 0U ) << replaced;
      EXPECT_FALSE( w.stage( "T" )->critical() ) << replaced;
   }
}

TEST( OutsideStages, AStageThatIsReplacedTakesItsLinksAlong ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   w.declare( "a", "S", { "T" }, 0, true );
   w.declare( "a", "T" );
   w.idle();
   ASSERT_TRUE( w.stage( "T" )->critical() );
   w.status->stageDel( "S" );
   w.status->stageIs( "S" );
   w.idle();
   EXPECT_EQ( machine->stageStatus( "T" )->criticalAncestors(), 0U );
   EXPECT_FALSE( w.stage( "T" )->critical() );
}

TEST( OutsideStages, AStageThatTheOutsideCreatesGetsAReactor ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   Ptr< StageStatus > const stage = w.status->stageIs( "S" );
   EXPECT_FALSE( machine->stageStatus( "S" ) );
   w.idle();
   ASSERT_TRUE( machine->stageStatus( "S" ) );
   EXPECT_EQ( machine->stageStatus( "S" )->stage(), stage );
   EXPECT_EQ( stage->timeout(), 0 );
   EXPECT_FALSE( stage->critical() );
}

TEST( OutsideStages, AnEventEntersAStageThatTheOutsideHasCreated ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   Ptr< StageStatus > const stage = w.status->stageIs( "S" );
   TraceRecorder traces;
   w.declare( "a", "S", { "X" }, 30, true );
   w.idle();
   EXPECT_EQ( w.stage( "S" ), stage );
   EXPECT_EQ( agentsOf( stage ), ( Names{ "a" } ) );
   EXPECT_EQ( dependenciesOf( stage ), ( Names{ "X" } ) );
   EXPECT_EQ( stage->timeout(), 30 );
   EXPECT_TRUE( stage->critical() );
   EXPECT_EQ( traces.countStarting( "Adding stage " ), 0U );
}

TEST( OutsideStages, AStageThatTheOutsideRemovesLosesItsReactorAndTheOthersAreTold ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   w.declare( "a", "S" );
   w.declare( "a", "T" );
   w.idle();
   Ptr< ConfigSm::KivStageStatus > const reactor = machine->stageStatus( "S" );
   TraceRecorder traces;
   w.status->stageDel( "S" );
   w.idle();
   EXPECT_FALSE( machine->stageStatus( "S" ) );
   EXPECT_TRUE( reactor->kivMarkedForDeletion() );
   EXPECT_EQ( machine->stageStatuss(), 1U );
   EXPECT_EQ( traces.taken(),
              ( Lines{ sm + "handleStage(Kiv::Name) stage=S",
                       ofStage + "handleStage(Kiv::String8) for stage T detected stage S" } ) );
}

TEST( OutsideStages, AStageReplacedByOneThatHasTheSameReasonsKeepsItsLinks ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   Ptr< EventConfig > const event = w.declare( "a", "S", { "T", "U" }, 0, true );
   w.declare( "a", "T" );
   w.declare( "a", "U" );
   w.idle();
   event->dependencyDel( "U" );
   w.idle();
   w.status->stageDel( "S" );
   Ptr< StageStatus > const next = w.status->stageIs( "S" );
   next->eventIs( event );
   next->dependencyIs( "T", true );
   w.idle();
   EXPECT_TRUE( machine->stageStatus( "T" )->criticalAncestor( "S" ) );
   EXPECT_TRUE( w.stage( "T" )->critical() );
   EXPECT_FALSE( w.stage( "U" )->critical() );
}

// The reactor of the stage finds the very event that it watches already, in another stage.
TEST( OutsideStages, AStageReplacedByOneWithTheSameEventGetsWhatTheEventSays ) {
   for( bool const declared : { false, true } ) {
      World w;
      Ptr< ConfigSm > const machine = w.configSm();
      Ptr< EventConfig > const event = w.declare( "a", "S", { "T" }, 30, true );
      w.declare( "a", "T" );
      w.idle();
      Ptr< StageStatus > const before = w.stage( "S" );
      if( declared ) {
         // Heard after the stage has gone and before that is heard: the agent's event makes it.
         w.agent( "a" )->eventDel( "S" );
         w.agent( "a" )->eventIs( "S", event );
         w.status->stageDel( "S" );
      } else {
         w.status->stageDel( "S" );
         w.status->stageIs( "S" )->eventIs( event );
      }
      w.idle();
      ASSERT_TRUE( w.stage( "S" ) );
      EXPECT_NE( w.stage( "S" ), before );
      EXPECT_EQ( w.stage( "S" )->event( "a" ), event );
      EXPECT_EQ( dependenciesOf( w.stage( "S" ) ), ( Names{ "T" } ) ) << declared;
      EXPECT_EQ( w.stage( "S" )->timeout(), 30 ) << declared;
      EXPECT_TRUE( w.stage( "S" )->critical() ) << declared;
      EXPECT_TRUE( w.stage( "T" )->critical() ) << declared;
      event->dependencyDel( "T" );
      w.idle();
      EXPECT_FALSE( w.stage( "T" )->critical() ) << declared;
   }
}

TEST( OutsideStages, AStageRemovedAndCreatedAgainInOneBatchIsWatchedAsTheNewObject ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   w.declare( "a", "S", {}, 30, true );
   w.idle();
   Ptr< ConfigSm::KivStageStatus > const reactor = machine->stageStatus( "S" );
   w.status->stageDel( "S" );
   Ptr< StageStatus > const next = w.status->stageIs( "S" );
   w.idle();
   EXPECT_EQ( machine->stageStatus( "S" ), reactor );
   EXPECT_EQ( reactor->stage(), next );
   EXPECT_EQ( reactor->eventConfigs(), 0U );
   EXPECT_FALSE( next->critical() );
   // The new object is followed: an event filed in it is seen.
   next->eventIs( w.agent( "a" )->event( "S" ) );
   w.idle();
   EXPECT_EQ( reactor->eventConfigs(), 1U );
   EXPECT_EQ( next->timeout(), 30 );
   EXPECT_TRUE( next->critical() );
}

TEST( OutsideStages, EveryCallbackOfTheStatusLeadsToItsHandler ) {
   World w;
   Ptr< ConfigSm > const machine = silentConfigSm( w );
   Ptr< ConfigSm::KivStatus > const reactor = machine->newStatus( w.status );
   w.status->stageIs( "S" );
   w.status->stageIs( "T" );
   reactor->onStage( "S" );
   EXPECT_TRUE( machine->stageStatus( "S" ) );
   EXPECT_FALSE( machine->stageStatus( "T" ) );
   reactor->onStagekivImmediate();
   EXPECT_TRUE( machine->stageStatus( "T" ) );
   w.status->stageDel( "S" );
   reactor->onStagekivImmediate();
   EXPECT_FALSE( machine->stageStatus( "S" ) );
   EXPECT_TRUE( machine->stageStatus( "T" ) );
   w.status->stageDel( "T" );
   reactor->onStage( "T" );
   EXPECT_FALSE( machine->stageStatus( "T" ) );
   w.status->stageIs( "U" );
   reactor->onStage();
   EXPECT_TRUE( machine->stageStatus( "U" ) );

   reactor->kivDoZombieReactors( true );
   w.status->stageIs( "V" );
   TraceRecorder traces;
   reactor->onStage( "V" );
   reactor->onStagekivImmediate();
   reactor->onStage();
   EXPECT_FALSE( machine->stageStatus( "V" ) ) << "marked for deletion";
   EXPECT_TRUE( traces.lines().empty() ) << "no handleStage either";
}

TEST( HandleStage, EveryStageIsToldInTheOrderOfTheCollection ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   for( char const * stage : { "S", "T", "U", "V" } )
      w.status->stageIs( stage );
   w.idle();
   Lines expected{ sm + "handleStage(Kiv::Name) stage=X" };
   for( auto i = machine->stageStatusIterator(); i; ++i )
      expected.push_back( ofStage + "handleStage(Kiv::String8) for stage " + i.key().str() +
                          " detected stage X" );
   TraceRecorder traces;
   machine->handleStage( "X" );
   EXPECT_EQ( traces.taken(), expected );
}

// ------------------------------------------------------------------------------------- traces

TEST( EventTraces, AWithdrawnEventIsTracedThroughItsDeletion ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   w.declare( "a", "S", { "X" }, 30 );
   w.idle();
   w.agent( "a" )->eventDel( "S" );
   TraceRecorder traces;
   w.idle();
   EXPECT_EQ(
      traces.taken(),
      ( Lines{
         ofAgent + "handleEvent(Kiv::Name) a S",
         "Deleting S:a from status/S",
         ofStage + "handleEventDel(Kiv::String8) S (event:a)",
         "Handling dependency deletion of X from event S:a",
         ofStage + "handleDependencyDel(Kiv::String8) for some event in stage S (dependency: X)",
         "Deleting dependency X from stage S",
         ofStage + "handleCritical() for stage S critical=false",
         "S: No change to critical (false).",
         "   Force dependents of S to recompute based on our criticalfalse",
         ofStage + "handleTimeout() S  timeout=30",
         "  new timeout = 0",
         ofStage + "handleDependency(Kiv::String8) for stage S (dependency:X)",
      } ) );
}

TEST( EventTraces, AnAgentsDepartureIsTracedFromTheDirectoryToItsStages ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   w.declare( "a", "S", {}, 30 );
   w.idle();
   w.dir->entityPtrDel( "a" );
   TraceRecorder traces;
   w.idle();
   Lines const lines = traces.taken();
   ASSERT_GE( lines.size(), 4U );
   EXPECT_EQ( Lines( lines.begin(), lines.begin() + 5 ),
              ( Lines{ sm + "handleAgent(Kiv::Name) AgentDir: agents", ofAgent + "handleEvent() a",
                       ofAgent + "handleEvent(Kiv::Name) a S", "Deleting S:a from status/S",
                       ofStage + "handleEventDel(Kiv::String8) S (event:a)" } ) );
}

TEST( EventTraces, TwoEventsOfOneBatchAreToldByStageAndThenTogether ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   w.agent( "a" );
   w.idle();
   TraceRecorder traces;
   w.declare( "a", "S" );
   w.idle();
   EXPECT_EQ( traces.count( ofAgent + "handleEvent() a" ), 0U );
   w.declare( "a", "T" );
   w.declare( "a", "U" );
   traces.clear();
   w.idle();
   EXPECT_EQ( traces.count( ofAgent + "handleEvent() a" ), 1U );
   EXPECT_EQ( traces.count( "Adding event a to stage T" ), 1U );
   EXPECT_EQ( traces.count( "Adding event a to stage U" ), 1U );
}

} // namespace
} // namespace aggregation
