// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The aggregation's own life: what its mutators refuse, marking, detaching, destruction.

#include "Handles.h"

#include <tests/support/AtTrace.h>

namespace aggregation {
namespace {

using testing_support::AtTrace;

Ptr< Kiv::PtrInterface const > const nothing;

// ----------------------------------------------------------------------------------- refusals

TEST( Refusals, AMutatorHandedNullNamesItsParameterAndCollection ) {
   World w;
   w.declare( "a", "S" );
   Ptr< ConfigSm > const machine = silentConfigSm( w );
   EXPECT_EQ( rangeText( [ & ] { machine->agentConfigIs( nullptr ); } ),
              "null _agentConfig parameter to mutator for Stage::ConfigSm::agentConfig not "
              "allowed" );
   EXPECT_EQ( rangeText( [ & ] { machine->stageStatusIs( nullptr ); } ),
              "null _stageStatus parameter to mutator for Stage::ConfigSm::stageStatus not "
              "allowed" );
   EXPECT_EQ( rangeText( [ & ] { machine->stageStatus( "S" )->eventConfigIs( nullptr ); } ),
              "null _eventConfig parameter to mutator for "
              "Stage::ConfigSm::KivStageStatus::eventConfig not allowed" );
   EXPECT_EQ( machine->agentConfigs(), 1U );
   EXPECT_EQ( machine->stageStatuss(), 1U );
   EXPECT_EQ( machine->stageStatus( "S" )->eventConfigs(), 1U );
   machine->hasNotificationActiveIs( true );
   w.declare( "a", "T" );
   w.idle();
   EXPECT_TRUE( w.stage( "T" ) ) << "the loop works afterwards";
}

TEST( Refusals, AFactoryHandedNullSaysSo ) {
   World w;
   Ptr< ConfigSm > const machine = silentConfigSm( w );
   EXPECT_EQ( rangeText( [ & ] { machine->newAgentConfig( nullptr ); } ), "null ValidPtr" );
   EXPECT_EQ( rangeText( [ & ] { machine->newStageStatus( nullptr ); } ), "null ValidPtr" );
   EXPECT_EQ( rangeText( [ & ] { machine->newAgentDir( nullptr ); } ), "null ValidPtr" );
   EXPECT_EQ( rangeText( [ & ] { machine->newStatus( nullptr ); } ), "null ValidPtr" );
}

TEST( Refusals, AnEventReactorIsNotMadeForNull ) {
   World w;
   w.status->stageIs( "S" );
   Ptr< ConfigSm > const machine = silentConfigSm( w );
   EXPECT_EQ( rangeText( [ & ] { machine->stageStatus( "S" )->newEventConfig( nullptr ); } ),
              "null ValidPtr" );
}

TEST( Refusals, AnAggregationNeedsAStatusAndADirectory ) {
   World w;
   w.declare( "a", "S" );
   EXPECT_EQ( rangeText( [ & ] { Stage::configSmFactory( w.config, nullptr, w.dir ); } ),
              "null ValidPtr" );
   EXPECT_EQ( rangeText( [ & ] { Stage::configSmFactory( w.config, w.status, nullptr ); } ),
              "null ValidPtr" );
   EXPECT_EQ( w.status->stages(), 0U );
   Ptr< ConfigSm > const machine = w.configSm();
   EXPECT_TRUE( w.stage( "S" ) );
}

TEST( Refusals, AnAbsentKeyIsNullOrNothingEverywhere ) {
   World w;
   w.declare( "a", "S" );
   Ptr< ConfigSm > const machine = silentConfigSm( w );
   EXPECT_FALSE( machine->agentConfig( "b" ) );
   EXPECT_FALSE( machine->stageStatus( "T" ) );
   EXPECT_FALSE( machine->stageStatus( "S" )->eventConfig( "b" ) );
   TraceRecorder traces;
   machine->agentConfigDel( "b" );
   machine->stageStatusDel( "T" );
   machine->stageStatus( "S" )->eventConfigDel( "b" );
   EXPECT_TRUE( traces.lines().empty() );
   EXPECT_EQ( machine->agentConfigs(), 1U );
   EXPECT_EQ( machine->stageStatuss(), 1U );
   EXPECT_EQ( machine->stageStatus( "S" )->eventConfigs(), 1U );
}

// ----------------------------------------------------------------------------------- mutators

TEST( Mutators, NewReactorsAreNotStored ) {
   World w;
   Ptr< ConfigSm > const machine = silentConfigSm( w );
   w.declare( "a", "S" );
   Ptr< ConfigSm::KivAgentConfig > const agent = machine->newAgentConfig( w.agent( "a" ) );
   EXPECT_EQ( machine->agentConfigs(), 0U );
   EXPECT_EQ( agent->fwkKey(), "a" );
   EXPECT_EQ( agent->configSm(), machine.get() );
   EXPECT_EQ( agentsOf( w.stage( "S" ) ), ( Names{ "a" } ) ) << "it reacts when it is made";
   Ptr< ConfigSm::KivStageStatus > const stage = machine->newStageStatus( w.stage( "S" ) );
   EXPECT_EQ( machine->stageStatuss(), 0U );
   EXPECT_EQ( stage->fwkKey(), "S" );
   EXPECT_EQ( stage->configSm(), machine.get() );
   EXPECT_EQ( stage->eventConfigs(), 1U );
   Ptr< ConfigSm::KivStageStatus::KivEventConfig > const event = stage->eventConfig( "a" );
   EXPECT_EQ( event->fwkKey(), "a" );
   EXPECT_EQ( event->kivStageStatus(), stage.get() );
}

TEST( Mutators, AskedForWhatIsWatchedAlreadyTheyDoNothing ) {
   World w;
   w.declare( "a", "S" );
   Ptr< ConfigSm > const machine = silentConfigSm( w );
   Ptr< ConfigSm::KivAgentConfig > const agent = machine->agentConfig( "a" );
   Ptr< ConfigSm::KivStageStatus > const stage = machine->stageStatus( "S" );
   Ptr< ConfigSm::KivStageStatus::KivEventConfig > const event = stage->eventConfig( "a" );
   TraceRecorder traces;
   EXPECT_EQ( machine->agentConfigIs( w.agent( "a" ) ), agent );
   EXPECT_EQ( machine->stageStatusIs( w.stage( "S" ) ), stage );
   EXPECT_EQ( stage->eventConfigIs( w.agent( "a" )->event( "S" ) ), event );
   EXPECT_TRUE( traces.lines().empty() );
}

// A factory's own act of attaching again runs what its construction ran, in the same order.
TEST( Mutators, AnEventReactorAttachedToAnotherEventHandlesAllThree ) {
   World w;
   w.declare( "a", "S" );
   Ptr< ConfigSm > const machine = silentConfigSm( w );
   Ptr< EventConfig > const next = EventConfig::EventConfigIs( "S", "a" );
   next->timeoutIs( 7 );
   w.stage( "S" )->eventIs( next );
   TraceRecorder traces;
   machine->stageStatus( "S" )->eventConfigIs( next );
   Lines const lines = traces.taken();
   EXPECT_EQ(
      lines,
      ( Lines{ ofEvent + "handleDependency() S:a", ofEvent + "handleTimeout() S:a  timeout=7",
               ofStage + "handleTimeout() S  timeout=inf", "  new timeout = 7",
               ofEvent + "handleCritical() S:a  critical=false",
               ofStage + "handleCritical() for stage S critical=false",
               "S: No change to critical (false).",
               "   Force dependents of S to recompute based on our criticalfalse" } ) );
}

TEST( Mutators, DetachingAnEventOrStageReactorRunsNoHandler ) {
   World w;
   w.declare( "a", "S", { "X" }, 30, true );
   Ptr< ConfigSm > const machine = w.configSm();
   w.idle();
   Ptr< ConfigSm::KivStageStatus > const stage = machine->stageStatus( "S" );
   TraceRecorder traces;
   stage->eventConfig( "a" )->notifierIs( nothing );
   stage->notifierIs( nothing );
   EXPECT_TRUE( traces.lines().empty() );
   EXPECT_EQ( dependenciesOf( w.stage( "S" ) ), ( Names{ "X" } ) );
   stage->notifierIs( w.stage( "S" ) );
   EXPECT_EQ( stage->stage(), w.stage( "S" ) );
   EXPECT_EQ( stage->eventConfig( "a" )->notifier(), w.agent( "a" )->event( "S" ) );
   EXPECT_TRUE( stage->isRegisteredNotifiee() );
}

TEST( Mutators, ADetachedStageReactorIsPassedOver ) {
   World w;
   w.declare( "a", "S", { "T" }, 30 );
   w.declare( "b", "U", { "S" }, 30 );
   Ptr< ConfigSm > const machine = w.configSm();
   w.idle();
   Ptr< ConfigSm::KivStageStatus > const stage = machine->stageStatus( "S" );
   stage->notifierIs( nothing );
   w.declare( "b", "T" );
   Ptr< EventConfig > const event = w.declare( "c", "U", {}, 0, true );
   w.idle();
   EXPECT_TRUE( w.stage( "U" )->critical() );
   event->criticalIs( false );
   w.agent( "a" )->eventDel( "S" );
   w.idle();
   EXPECT_FALSE( w.stage( "U" )->critical() );
   EXPECT_FALSE( w.stage( "T" )->critical() );
   EXPECT_TRUE( w.stage( "T" ) ) << "the loop works on";
}

// The event's own reactor is attached still, and tells of what it hears.
TEST( Mutators, EventsOfADetachedStageReactorChangeNothing ) {
   World w;
   Ptr< EventConfig > const event = w.declare( "a", "S", { "T", "Y" }, 30 );
   Ptr< ConfigSm > const machine = w.configSm();
   w.idle();
   Ptr< ConfigSm::KivStageStatus > const stage = machine->stageStatus( "S" );
   stage->notifierIs( nothing );
   event->criticalIs( true );
   event->timeoutIs( 60 );
   event->dependencyIs( "X", true );
   event->dependencyDel( "Y" );
   w.idle();
   EXPECT_FALSE( w.stage( "S" )->critical() );
   EXPECT_EQ( w.stage( "S" )->timeout(), 30 );
   EXPECT_EQ( dependenciesOf( w.stage( "S" ) ), ( Names{ "T", "Y" } ) );
   stage->handleCritical();
   stage->handleTimeout();
   stage->handleDependency( "T" );
   stage->handleDependencyDel( "T" );
   stage->handleEventDel( "a" );
   EXPECT_EQ( agentsOf( w.stage( "S" ) ), ( Names{ "a" } ) );
}

TEST( Mutators, LinksThatChangeWhileAStageReactorIsDetachedHoldWhenItIsAttachedAgain ) {
   for( bool const critical : { true, false } ) {
      World w;
      w.declare( "a", "S" );
      Ptr< EventConfig > const event = w.declare( "b", "U", { "S" }, 0, !critical );
      Ptr< ConfigSm > const machine = w.configSm();
      w.idle();
      ASSERT_EQ( w.stage( "S" )->critical(), !critical );
      Ptr< ConfigSm::KivStageStatus > const stage = machine->stageStatus( "S" );
      stage->notifierIs( nothing );
      event->criticalIs( critical );
      w.idle();
      stage->notifierIs( w.stage( "S" ) );
      w.idle();
      EXPECT_EQ( w.stage( "S" )->critical(), critical );
      EXPECT_EQ( stage->hasCriticalAncestor( "U" ), critical );
   }
}

TEST( Mutators, DetachingAnAgentReactorRunsItsFullHandler ) {
   World w;
   w.declare( "a", "S" );
   Ptr< ConfigSm > const machine = silentConfigSm( w );
   TraceRecorder traces;
   machine->agentConfig( "a" )->notifierIs( nothing );
   EXPECT_EQ( traces.taken(),
              ( Lines{ ofAgent + "handleEvent() a", ofAgent + "handleEvent(Kiv::Name) a S" } ) );
   EXPECT_EQ( agentsOf( w.stage( "S" ) ), ( Names{ "a" } ) ) << "it is in the directory still";
   EXPECT_EQ( machine->agentConfig( "a" )->fwkKey(), "a" ) << "known although nothing is watched";
}

TEST( Mutators, DeletingAnAgentReactorOfAnAgentThatIsThereKeepsItsEvents ) {
   World w;
   w.declare( "a", "S" );
   Ptr< ConfigSm > const machine = w.configSm();
   Ptr< ConfigSm::KivAgentConfig > const reactor = machine->agentConfig( "a" );
   machine->agentConfigDel( "a" );
   EXPECT_EQ( machine->agentConfigs(), 0U );
   EXPECT_TRUE( reactor->kivMarkedForDeletion() );
   EXPECT_FALSE( reactor->configSm() );
   EXPECT_EQ( agentsOf( w.stage( "S" ) ), ( Names{ "a" } ) );
}

TEST( Mutators, AllMembersCanBeDeletedAtOnce ) {
   World w;
   for( char const * agent : { "a", "b", "c" } )
      for( char const * stage : { "S", "T" } )
         w.declare( agent, stage );
   Ptr< ConfigSm > const machine = w.configSm();
   ASSERT_EQ( machine->stageStatus( "S" )->eventConfigs(), 3U );
   machine->stageStatus( "S" )->eventConfigDelAll();
   EXPECT_EQ( machine->stageStatus( "S" )->eventConfigs(), 0U );
   EXPECT_EQ( w.stage( "S" )->events(), 3U );
   machine->stageStatusDelAll();
   EXPECT_EQ( machine->stageStatuss(), 0U );
   EXPECT_EQ( w.status->stages(), 2U );
   machine->agentConfigDelAll();
   EXPECT_EQ( machine->agentConfigs(), 0U );
   machine->handleAgent();
   EXPECT_EQ( machine->agentConfigs(), 3U );
}

TEST( Mutators, TheirIteratorsVisitEveryMember ) {
   World w;
   w.declare( "a", "S" );
   w.declare( "b", "S" );
   w.declare( "b", "T" );
   Ptr< ConfigSm > const machine = silentConfigSm( w );
   Names agents;
   for( auto i = machine->agentConfigIteratorConst(); i; ++i )
      agents.insert( i.ptr()->fwkKey().str() );
   EXPECT_EQ( agents, ( Names{ "a", "b" } ) );
   Names stages;
   for( auto i = machine->stageStatusIteratorConst(); i; ++i )
      stages.insert( i.ptr()->fwkKey().str() );
   EXPECT_EQ( stages, ( Names{ "S", "T" } ) );
   Names events;
   for( auto i = machine->stageStatus( "S" )->eventConfigIteratorConst(); i; ++i )
      events.insert( i.ptr()->fwkKey().str() );
   EXPECT_EQ( events, ( Names{ "a", "b" } ) );
   for( auto i = machine->stageStatus( "S" )->eventConfigIterator(); i; ++i )
      machine->stageStatus( "S" )->eventConfigDel( i.key() );
   EXPECT_EQ( machine->stageStatus( "S" )->eventConfigs(), 0U );
}

// Each member is a reactor, so the iterators named after the reactors are the same.
TEST( Mutators, TheirIteratorsAreNamedAfterTheReactorsInBothForms ) {
   World w;
   w.declare( "a", "S" );
   Ptr< ConfigSm > const machine = silentConfigSm( w );
   ConfigSm::KivAgentConfigIterator const agent = machine->agentConfigIterator();
   ConfigSm::KivAgentConfigIteratorConst const agentConst = machine->agentConfigIteratorConst();
   EXPECT_EQ( agent.ptr(), machine->agentConfig( "a" ) );
   EXPECT_EQ( agentConst.ptr(), machine->agentConfig( "a" ) );
   ConfigSm::KivStageStatusIterator const stage = machine->stageStatusIterator();
   ConfigSm::KivStageStatusIteratorConst const stageConst = machine->stageStatusIteratorConst();
   Ptr< ConfigSm::KivStageStatus > const reactor = machine->stageStatus( "S" );
   EXPECT_EQ( stage.ptr(), reactor );
   EXPECT_EQ( stageConst.ptr(), reactor );
   using Reactor = ConfigSm::KivStageStatus;
   Reactor::KivEventConfigIterator const event = reactor->eventConfigIterator();
   Reactor::KivEventConfigIteratorConst const eventConst = reactor->eventConfigIteratorConst();
   EXPECT_EQ( event.ptr(), reactor->eventConfig( "a" ) );
   EXPECT_EQ( eventConst.ptr(), reactor->eventConfig( "a" ) );
}

// ------------------------------------------------------------------------------------- marking

TEST( Marking, AMarkedAggregationIgnoresWhatHappens ) {
   World w;
   w.declare( "a", "S" );
   Ptr< ConfigSm > const machine = w.configSm();
   w.idle();
   machine->kivDoZombieReactors( true );
   EXPECT_TRUE( machine->kivMarkedForDeletion() );
   EXPECT_TRUE( machine->agentConfig( "a" )->kivMarkedForDeletion() );
   EXPECT_TRUE( machine->stageStatus( "S" )->kivMarkedForDeletion() );
   EXPECT_TRUE( machine->stageStatus( "S" )->eventConfig( "a" )->kivMarkedForDeletion() );
   EXPECT_FALSE( machine->hasNotificationActive() );
   TraceRecorder traces;
   w.declare( "a", "T" );
   w.declare( "b", "T" );
   w.dir->entityPtrDel( "a" );
   w.status->stageIs( "U" );
   w.idle();
   EXPECT_TRUE( traces.lines().empty() );
   EXPECT_EQ( stagesOf( w.status ), ( Names{ "S", "U" } ) );
}

TEST( Marking, ANewStageIsNotToldToTheOthersWhenTheMarkIsSetMeanwhile ) {
   World w;
   w.declare( "a", "S", { "T" } );
   Ptr< ConfigSm > const machine = w.configSm();
   w.idle();
   w.status->stageIs( "T" );
   AtTrace const moment( ofStage + "handleCritical() for stage T",
                         [ & ] { machine->kivDoZombieReactors( true ); } );
   AtTrace const told( sm + "handleStage(Kiv::Name)", [] {} );
   w.idle();
   EXPECT_FALSE( told.happened() );
}

TEST( Marking, WithTheMarkTakenBackItFollowsWhatHappensFromThenOn ) {
   World w;
   w.declare( "a", "S" );
   Ptr< ConfigSm > const machine = w.configSm();
   machine->kivDoZombieReactors( true );
   w.declare( "a", "T" );
   machine->kivDoZombieReactors( false );
   EXPECT_FALSE( machine->kivMarkedForDeletion() );
   EXPECT_FALSE( machine->stageStatus( "S" )->eventConfig( "a" )->kivMarkedForDeletion() );
   EXPECT_TRUE( machine->hasNotificationActive() );
   w.idle();
   EXPECT_FALSE( w.stage( "T" ) ) << "what was told to a marked reactor is lost";
   w.declare( "a", "U" );
   w.agent( "a" )->eventDel( "S" );
   w.idle();
   EXPECT_TRUE( w.stage( "U" ) );
   EXPECT_EQ( w.stage( "S" )->events(), 0U );
}

TEST( Marking, WhatIsPendingWhenTheMarkIsSetIsDropped ) {
   World w;
   w.declare( "a", "S" );
   Ptr< ConfigSm > const machine = w.configSm();
   w.idle();
   w.declare( "a", "T" );
   machine->kivDoZombieReactors( true );
   machine->kivDoZombieReactors( false );
   w.idle();
   EXPECT_FALSE( w.stage( "T" ) );
}

// --------------------------------------------------------------------------------- destruction

TEST( Destruction, TheStatusKeepsWhatWasWritten ) {
   World w;
   Ptr< ConfigSm > machine = w.configSm();
   w.declare( "a", "S", { "T" }, 30, true );
   w.declare( "b", "T", {}, 20 );
   w.idle();
   machine = nullptr;
   EXPECT_EQ( stagesOf( w.status ), ( Names{ "S", "T" } ) );
   EXPECT_EQ( agentsOf( w.stage( "S" ) ), ( Names{ "a" } ) );
   EXPECT_EQ( dependenciesOf( w.stage( "S" ) ), ( Names{ "T" } ) );
   EXPECT_EQ( w.stage( "S" )->timeout(), 30 );
   EXPECT_TRUE( w.stage( "S" )->critical() );
   EXPECT_TRUE( w.stage( "T" )->critical() );
}

TEST( Destruction, NobodyReactsAfterwards ) {
   World w;
   Ptr< ConfigSm > machine = w.configSm();
   Ptr< EventConfig > const event = w.declare( "a", "S", {}, 30 );
   w.idle();
   TraceRecorder traces;
   // Half of it is pending when it goes, half happens later.
   w.declare( "a", "T" );
   event->timeoutIs( 60 );
   machine = nullptr;
   w.declare( "b", "U" );
   event->criticalIs( true );
   event->dependencyIs( "X", true );
   w.dir->entityPtrDel( "a" );
   w.status->stageIs( "V" );
   w.idle();
   EXPECT_TRUE( traces.lines().empty() );
   EXPECT_EQ( stagesOf( w.status ), ( Names{ "S", "V" } ) );
   EXPECT_EQ( agentsOf( w.stage( "S" ) ), ( Names{ "a" } ) );
   EXPECT_EQ( w.stage( "S" )->timeout(), 30 );
   EXPECT_FALSE( w.stage( "S" )->critical() );
}

TEST( Destruction, NestedReactorsThatSomebodyHoldsAreMarkedAndSilent ) {
   World w;
   Ptr< ConfigSm > machine = w.configSm();
   Ptr< EventConfig > const event = w.declare( "a", "S" );
   w.idle();
   Ptr< ConfigSm::KivAgentConfig > const agent = machine->agentConfig( "a" );
   Ptr< ConfigSm::KivStageStatus > const stage = machine->stageStatus( "S" );
   Ptr< ConfigSm::KivStageStatus::KivEventConfig > const ofEventA = stage->eventConfig( "a" );
   machine = nullptr;
   EXPECT_TRUE( agent->kivMarkedForDeletion() );
   EXPECT_TRUE( stage->kivMarkedForDeletion() );
   EXPECT_TRUE( ofEventA->kivMarkedForDeletion() );
   EXPECT_FALSE( agent->configSm() );
   EXPECT_FALSE( stage->configSm() );
   TraceRecorder traces;
   w.declare( "a", "T" );
   event->criticalIs( true );
   event->timeoutIs( 5 );
   event->dependencyIs( "T", true );
   w.stage( "S" )->dependencyIs( "Q", true );
   w.idle();
   agent->onEvent( "T" );
   agent->onEventkivImmediate();
   stage->onDependency( "Q" );
   stage->onEvent( "a" );
   ofEventA->onCritical();
   ofEventA->onTimeout();
   ofEventA->onDependency( "T" );
   EXPECT_TRUE( traces.lines().empty() );
   EXPECT_FALSE( w.stage( "T" ) );
}

TEST( Destruction, AnotherOneMayTakeOverWhereTheFirstLeftOff ) {
   World w;
   w.declare( "a", "S", { "T" }, 30, true );
   w.declare( "a", "T" );
   w.configSm();
   Ptr< ConfigSm > const machine = w.configSm();
   w.idle();
   w.agent( "a" )->eventDel( "S" );
   w.idle();
   EXPECT_EQ( w.stage( "S" )->events(), 0U );
   EXPECT_FALSE( w.stage( "T" )->critical() );
}

// The reactor that is being delivered belongs to what goes away during the delivery.
TEST( Destruction, InTheMiddleOfADeliveryEndsItQuietly ) {
   struct Vice : Stage::Status::NotifieeConst {
      explicit Vice( Ptr< Stage::Status > const & status, Ptr< ConfigSm > & machine )
         : victim( machine ) {
         watch( status );
      }
      using Stage::Status::NotifieeConst::onStage;
      void onStage( Name ) override { victim = nullptr; }
      Ptr< ConfigSm > & victim;
   };
   World w;
   Ptr< ConfigSm > machine;
   Ptr< Vice > const vice = new Vice( w.status, machine );
   machine = w.configSm();
   w.declare( "a", "S" );
   w.declare( "a", "T" );
   w.idle();
   EXPECT_FALSE( machine );
   EXPECT_EQ( agentsOf( w.stage( "S" ) ), ( Names{ "a" } ) );
   EXPECT_EQ( agentsOf( w.stage( "T" ) ), ( Names{ "a" } ) );
}

} // namespace
} // namespace aggregation
