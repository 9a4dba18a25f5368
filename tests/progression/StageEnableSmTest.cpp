// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// A stage that waits: when it asks for a decision, and when it does not.
#include "ProgressionTest.h"

using namespace testing_support;
using Kiv::Ptr;

namespace {

class StageEnableSmTest : public ProgressionTest {
 protected:
   StageEnableSmTest() { make(); }

   // Delivers what is queued and forgets the decision that it asked for, so that nothing starts.
   void settle() {
      deliver();
      sm->needRecalculateNextStageIs( false );
      sm->recalculateNextStage()->timeMinIs( Kiv::infinity );
   }
   // A stage that waits, watched by the StatusSm.
   void watch( Lines const & dependencies = {} ) {
      stage_ = newStage( "W", dependencies );
      waits = sm->stageEnableSmIs( stage_ );
      settle();
   }
   // A stage of that name with a StageSm, complete or not.
   Ptr< Stage::EventConfig > activate( char const * name, bool complete ) {
      auto const event = newEvent( name, "a", complete );
      sm->stageSmIs( status->stage( name ), sm->logSm() );
      settle();
      return event;
   }
   // How many decisions are asked for by what is queued.
   std::size_t asked() {
      TraceRecorder trace;
      settle();
      auto const count = trace.count( decisionAsked );
      EXPECT_EQ( trace.lines().size(), count ) << "a waiting stage traces nothing itself";
      return count;
   }

   Ptr< Stage::StageStatus > stage_;
   Ptr< Stage::StageEnableSm > waits;
};

} // namespace

TEST_F( StageEnableSmTest, ANewOneWatchesItsStage ) {
   watch();
   EXPECT_EQ( waits->stage(), stage_ );
   EXPECT_EQ( waits->mainSm(), sm.get() );
   EXPECT_EQ( waits->name(), "W" );
   EXPECT_EQ( waits->fwkKey(), "W" );
   EXPECT_TRUE( waits->isRegisteredNotifiee() );
   EXPECT_FALSE( waits->kivFwkActivity() );
}

TEST_F( StageEnableSmTest, MakingOneForACriticalStageAsksForNothing ) {
   auto const critical = newStage( "W" );
   critical->criticalIs( true );
   TraceRecorder trace;
   Ptr< Stage::StageEnableSm > const made = new Stage::StageEnableSm( critical, sm.get() );
   made->hasNotificationActiveIs( true );
   EXPECT_TRUE( made->isRegisteredNotifiee() );
   deliver();
   EXPECT_EQ( trace.taken(), Lines() );
}

// ---- another stage

TEST_F( StageEnableSmTest, ReattachingToACriticalStageAsksOnceAtOnce ) {
   watch();
   auto const otherStatus = Stage::Status::StatusIs( "other" );
   auto const other = otherStatus->stageIs( "W" );
   other->criticalIs( true );
   TraceRecorder trace;
   waits->notifierIs( other );
   EXPECT_EQ( trace.taken(), ( Lines{ decisionAsked } ) );
   EXPECT_EQ( waits->stage(), other );
   EXPECT_TRUE( waits->isRegisteredNotifiee() );
   deliver();
   EXPECT_EQ( trace.taken(), Lines() );
   other->criticalIs( false );
   other->criticalIs( true );
   EXPECT_EQ( asked(), 1U ) << "it does not react to the new stage";
   EXPECT_FALSE( stage_->hasNotifiees() );
}

TEST_F( StageEnableSmTest, ReattachingToAStageThatIsNotCriticalAsksForNothing ) {
   watch();
   stage_->criticalIs( true );
   auto const other = Stage::Status::StatusIs( "other" )->stageIs( "W" );
   TraceRecorder trace;
   waits->stageIs( other );
   deliver();
   EXPECT_EQ( trace.taken(), Lines() ) << "what was queued of the stage before is delivered";
   EXPECT_EQ( waits->stage(), other );
}

TEST_F( StageEnableSmTest, ReattachingToTheSameStageDoesNothing ) {
   watch();
   stage_->criticalIs( true );
   settle();
   TraceRecorder trace;
   waits->notifierIs( stage_ );
   EXPECT_EQ( trace.taken(), Lines() );
   stage_->criticalIs( false );
   stage_->criticalIs( true );
   waits->notifierIs( stage_ );
   EXPECT_EQ( asked(), 1U ) << "what was queued is dropped";
}

TEST_F( StageEnableSmTest, DetachingRunsNothingAndAttachingAgainLooksAgain ) {
   watch();
   stage_->criticalIs( true );
   TraceRecorder trace;
   waits->notifierIs( nullptr );
   EXPECT_FALSE( waits->stage() );
   EXPECT_FALSE( stage_->hasNotifiees() );
   deliver();
   EXPECT_EQ( trace.taken(), Lines() );
   waits->notifierIs( stage_ );
   EXPECT_EQ( trace.taken(), ( Lines{ decisionAsked } ) );
   EXPECT_TRUE( waits->isRegisteredNotifiee() );
}

TEST_F( StageEnableSmTest, AMarkedOneIsReattachedWithoutALook ) {
   watch();
   auto const other = Stage::Status::StatusIs( "other" )->stageIs( "W" );
   other->criticalIs( true );
   waits->kivDoZombieReactors( true );
   TraceRecorder trace;
   waits->notifierIs( other );
   EXPECT_EQ( trace.taken(), Lines() );
   EXPECT_EQ( waits->stage(), other );
   EXPECT_TRUE( waits->isRegisteredNotifiee() );
}

// ---- critical

TEST_F( StageEnableSmTest, TurningCriticalAsksOnce ) {
   watch();
   stage_->criticalIs( true );
   EXPECT_EQ( asked(), 1U );
   stage_->criticalIs( true );
   EXPECT_EQ( asked(), 0U );
}

TEST_F( StageEnableSmTest, TurningNonCriticalAsksForNothing ) {
   watch();
   stage_->criticalIs( true );
   settle();
   stage_->criticalIs( false );
   EXPECT_EQ( asked(), 0U );
}

TEST_F( StageEnableSmTest, AFlagThatIsGoneAgainWhenItIsHeardOfAsksForNothing ) {
   watch();
   stage_->criticalIs( true );
   stage_->criticalIs( false );
   EXPECT_EQ( asked(), 0U );
}

// ---- dependencies

TEST_F( StageEnableSmTest, AddingADependencyAsksForNothing ) {
   activate( "Done", true );
   watch();
   stage_->dependencyIs( "Done", true );
   EXPECT_EQ( asked(), 0U );
}

TEST_F( StageEnableSmTest, SettingADependencyTrueAsksForNothing ) {
   activate( "Done", true );
   watch();
   stage_->dependencyIs( "Done", false );
   settle();
   stage_->dependencyIs( "Done", true );
   EXPECT_EQ( asked(), 0U );
}

TEST_F( StageEnableSmTest, DeletingTheLastDependencyAsksOnceWhateverItsStage ) {
   watch( { "Nowhere" } );
   stage_->dependencyDel( "Nowhere" );
   EXPECT_EQ( asked(), 1U );
}

TEST_F( StageEnableSmTest, DeletingOneWhileAnothersStageHasNoStateMachineAsksForNothing ) {
   watch( { "Gone", "Nowhere" } );
   stage_->dependencyDel( "Gone" );
   EXPECT_EQ( asked(), 0U );
}

TEST_F( StageEnableSmTest, DeletingOneWhileAnothersStageIsNotCompleteAsksForNothing ) {
   activate( "Running", false );
   watch( { "Gone", "Running" } );
   stage_->dependencyDel( "Gone" );
   EXPECT_EQ( asked(), 0U );
}

TEST_F( StageEnableSmTest, DeletingOneWhileAllOthersAreCompleteAsksOnce ) {
   activate( "Done", true );
   activate( "Finished", true );
   watch( { "Gone", "Done", "Finished" } );
   stage_->dependencyDel( "Gone" );
   EXPECT_EQ( asked(), 1U );
}

TEST_F( StageEnableSmTest, EveryOtherDependencyHasToBeComplete ) {
   for( char const * name : { "A", "B", "C", "D", "E", "F" } )
      activate( name, true );
   activate( "Running", false );
   watch( { "Gone", "A", "B", "C", "Running", "D", "E", "F" } );
   stage_->dependencyDel( "Gone" );
   EXPECT_EQ( asked(), 0U );
}

TEST_F( StageEnableSmTest, ADependencySetFalseCountsAsGoneForTheQuestionButIsWalkedOver ) {
   activate( "Done", true );
   watch( { "Done", "Nowhere" } );
   stage_->dependencyIs( "Done", false );
   EXPECT_EQ( asked(), 0U ) << "Nowhere has no state machine";
   stage_->dependencyDel( "Nowhere" );
   EXPECT_EQ( asked(), 1U );
   stage_->dependencyIs( "Done", true );
   EXPECT_EQ( asked(), 0U );
   stage_->dependencyIs( "Done", false );
   EXPECT_EQ( asked(), 1U ) << "its own stage is complete";
}

TEST_F( StageEnableSmTest, OnlyTheKeysOfTheOtherDependenciesCountNotTheirValues ) {
   activate( "Running", false );
   watch( { "Gone" } );
   stage_->dependencyIs( "Running", false );
   settle();
   stage_->dependencyDel( "Gone" );
   EXPECT_EQ( asked(), 0U );
}

TEST_F( StageEnableSmTest, TheStageOfADependencyNeedNotBeActive ) {
   activate( "Done", true );
   ASSERT_FALSE( status->activeStage( "Done" ) );
   watch( { "Gone", "Done" } );
   stage_->dependencyDel( "Gone" );
   EXPECT_EQ( asked(), 1U ) << "the state machine alone is looked at";
}

TEST_F( StageEnableSmTest, ADependencyThatCompletesLaterIsNotItsBusiness ) {
   auto const event = activate( "Running", false );
   watch( { "Running" } );
   TraceRecorder trace;
   event->completeIs( true );
   deliver();
   EXPECT_EQ( trace.count( decisionAsked ), 1U ) << "asked by the StageSm alone";
}

TEST_F( StageEnableSmTest, TheDeferredFormIsSilent ) {
   watch( { "A", "B" } );
   TraceRecorder trace;
   waits->onDependencykivImmediate();
   EXPECT_EQ( trace.taken(), Lines() );
   // Two keys at once are two questions, and the deferred form that follows them is none.
   stage_->dependencyDel( "A" );
   stage_->dependencyDel( "B" );
   EXPECT_EQ( asked(), 2U );
}

TEST_F( StageEnableSmTest, AMarkedOneReactsToNothing ) {
   watch( { "A" } );
   waits->kivDoZombieReactors( true );
   stage_->criticalIs( true );
   stage_->dependencyDel( "A" );
   TraceRecorder trace;
   idle();
   waits->onCritical();
   waits->onDependency( "A" );
   EXPECT_EQ( trace.taken(), Lines() );
}

TEST_F( StageEnableSmTest, TheHandlersCanBeCalledByName ) {
   watch();
   TraceRecorder trace;
   waits->handleCritical();
   EXPECT_EQ( trace.taken(), Lines() );
   waits->handleDependencyDel( "Nowhere" );
   EXPECT_EQ( trace.taken(), ( Lines{ decisionAsked } ) );
}

TEST_F( StageEnableSmTest, AStageWhoseLastDependencyGoesIsStarted ) {
   watch( { "Nowhere" } );
   config->enabledIs( true );
   idle();
   EXPECT_FALSE( status->activeStage( "W" ) );
   stage_->dependencyDel( "Nowhere" );
   idle();
   EXPECT_TRUE( status->activeStage( "W" ) );
   EXPECT_TRUE( status->complete() );
}
