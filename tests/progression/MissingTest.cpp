// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// What somebody deleted is missed by the operation that comes to need it, with the exception that
// says so; what only has nobody left to tell does nothing.
#include "ProgressionTest.h"

#include <functional>

using namespace testing_support;
using Kiv::Ptr;

namespace {

// A is active with a pending event, B waits for it.
class MissingTest : public ProgressionTest {
 protected:
   MissingTest() { setUp(); }
   ~MissingTest() override { sm = nullptr; }
   void setUp() {
      waits = nullptr;
      active = nullptr;
      ofEvent = nullptr;
      timer = nullptr;
      sm = nullptr;
      status = Stage::Status::StatusIs( "status" );
      event = newEvent( "A", "a" );
      newStage( "B", { "A" } );
      newStage( "C", { "B" } );
      start();
      waits = sm->stageEnableSm( "B" );
      active = sm->stageSm( "A" );
      ofEvent = active->event( "a" );
      timer = active->stageUncompleted();
      texts();
   }

   Ptr< Stage::EventConfig > event;
   Ptr< Stage::StageEnableSm > waits;
   Ptr< Stage::StageSm > active;
   Ptr< Stage::StageSm::KivEvent > ofEvent;
   Ptr< Stage::StageSm::KivStageUncompleted > timer;
};

} // namespace

// ---- the log

TEST_F( MissingTest, WithoutLogSmADecisionThatHasSomethingToLogFails ) {
   sm->logSmDel();
   event->completeIs( true );
   deliver(); // A logs through the LogSm that it was made with
   ASSERT_TRUE( sm->needRecalculateNextStage() );
   EXPECT_EQ( thrownBy( [ & ] { sm->handleNextStage(); } ), nullValidPtr );
   EXPECT_FALSE( status->activeStage( "B" ) ) << "activated without its entry in the log";
   sm->logSmIs( log );
   sm->needRecalculateNextStageIs( true );
   sm->handleNextStage();
   EXPECT_TRUE( status->activeStage( "B" ) );
}

TEST_F( MissingTest, WithoutLogSmADecisionWithNothingToLogIsMade ) {
   sm->logSmDel();
   sm->needRecalculateNextStageIs( true );
   EXPECT_EQ( thrownBy( [ & ] { sm->handleNextStage(); } ), "nothing" );
   EXPECT_FALSE( sm->needRecalculateNextStage() );
}

TEST_F( MissingTest, WithoutLogSmTheEndOfProgressionFails ) {
   status->stageDelAll();
   idle();
   sm->logSmDel();
   sm->needRecalculateNextStageIs( true );
   EXPECT_EQ( thrownBy( [ & ] { sm->handleNextStage(); } ), nullValidPtr );
}

TEST_F( MissingTest, WithoutLogSmEnablingFails ) {
   status->activeStageDelAll();
   sm->logSmDel();
   EXPECT_EQ( thrownBy( [ & ] { sm->handleEnabled(); } ), nullValidPtr );
}

TEST_F( MissingTest, WithoutLogSmNoStageSmIsMade ) {
   sm->logSmDel();
   status->activeStageIs( status->stage( "C" ) );
   EXPECT_EQ( thrownBy( [ & ] { sm->handleActiveStage( "C" ); } ), nullValidPtr );
   EXPECT_FALSE( sm->stageSm( "C" ) );
}

// ---- the timer of the decision

TEST_F( MissingTest, WithoutTimerADecisionCannotBeAskedForButIsNotForgotten ) {
   sm->recalculateNextStageDel();
   EXPECT_EQ( thrownBy( [ & ] { sm->doNextStage(); } ), nullValidPtr );
   EXPECT_TRUE( sm->needRecalculateNextStage() );
   sm->recalculateNextStageIs( clock );
   EXPECT_EQ( thrownBy( [ & ] { sm->doNextStage(); } ), "nothing" );
   EXPECT_EQ( sm->recalculateNextStage()->timeMin(), clock->now() );
}

TEST_F( MissingTest, ATimerWithoutClockIsRefused ) {
   auto const before = sm->recalculateNextStage();
   EXPECT_EQ( thrownBy( [ & ] { sm->recalculateNextStageIs( nullptr ); } ), nullValidPtr );
   EXPECT_EQ( sm->recalculateNextStage(), before );
   EXPECT_EQ( before->notifier(), clock ) << "the one there was goes on";
   EXPECT_EQ( thrownBy( [ & ] { sm->newRecalculateNextStage( nullptr ); } ), nullValidPtr );
   sm->recalculateNextStageDel();
   EXPECT_EQ( thrownBy( [ & ] { sm->recalculateNextStageIs( nullptr ); } ), nullValidPtr );
   EXPECT_FALSE( sm->recalculateNextStage() );
}

// ---- the status and the configuration

TEST_F( MissingTest, WithoutStatusNoHandlerThatReadsItRuns ) {
   sm->statusDel();
   EXPECT_EQ( thrownBy( [ & ] { sm->handleActiveStage(); } ), nullValidPtr );
   EXPECT_EQ( thrownBy( [ & ] { sm->handleActiveStage( "A" ); } ), nullValidPtr );
   EXPECT_EQ( thrownBy( [ & ] { sm->handleEnabled(); } ), nullValidPtr );
   sm->needRecalculateNextStageIs( true );
   EXPECT_EQ( thrownBy( [ & ] { sm->handleNextStage(); } ), nullValidPtr );
}

TEST_F( MissingTest, ADetachedStatusIsAsGoodAsNone ) {
   sm->statusIs( nullptr );
   EXPECT_EQ( thrownBy( [ & ] { sm->handleActiveStage(); } ), nullValidPtr );
   EXPECT_EQ( thrownBy( [ & ] { sm->handleActiveStage( "A" ); } ), nullValidPtr );
}

TEST_F( MissingTest, WithoutConfigurationNothingIsEnabled ) {
   sm->configDel();
   EXPECT_EQ( thrownBy( [ & ] { sm->handleEnabled(); } ), nullValidPtr );
}

// ---- a waiting stage

TEST_F( MissingTest, AWaitingStageWhoseOwnerIsGoneAsksNobody ) {
   sm = nullptr;
   EXPECT_EQ( waits->mainSm(), nullptr );
   waits->kivDoZombieReactors( false ); // or it would not get as far as that
   newStage( "Critical" )->criticalIs( true );
   waits->notifierIs( status->stage( "Critical" ) );
   EXPECT_EQ( waits->stage(), status->stage( "Critical" ) );
   EXPECT_TRUE( waits->isRegisteredNotifiee() );
   waits->handleCritical();
   waits->handleDependencyDel( "A" );
   waits->onCritical();
   waits->onDependency( "A" );
}

TEST_F( MissingTest, AWaitingStageOfWhichTheOwnerWasTakenAsksNobody ) {
   Ptr< Stage::StageEnableSm > const alone =
      new Stage::StageEnableSm( status->stage( "B" ), nullptr );
   status->stage( "C" )->criticalIs( true );
   alone->notifierIs( status->stage( "C" ) );
   waits->mainSmIs( nullptr );
   waits->notifierIs( status->stage( "C" ) );
   TraceRecorder traces;
   waits->handleCritical();
   EXPECT_EQ( traces.count( decisionAsked ), 0U );
}

TEST_F( MissingTest, AWaitingStageNeedsItsStage ) {
   waits->notifierIs( nullptr );
   EXPECT_EQ( thrownBy( [ & ] { waits->handleCritical(); } ), nullValidPtr );
   EXPECT_EQ( thrownBy( [ & ] { waits->handleDependencyDel( "A" ); } ), nullValidPtr );
   EXPECT_EQ( thrownBy( [ & ] {
                 Ptr< Stage::StageEnableSm > const none =
                    new Stage::StageEnableSm( nullptr, sm.get() );
              } ),
              nullValidPtr );
}

// ---- an active stage

TEST_F( MissingTest, AnActiveStageThatLostItsTimerIsInitialisedWithANewOne ) {
   active->stageUncompletedDel();
   active->handleInitialized();
   EXPECT_TRUE( active->stageUncompleted() );
   EXPECT_EQ( thrownBy( [ & ] { active->stageUncompletedIs( nullptr ); } ), nullValidPtr );
   EXPECT_EQ( active->stageUncompleted()->notifier(), clock );
   active->stageUncompleted()->notifierIs( nullptr );
   EXPECT_EQ( thrownBy( [ & ] { active->stageUncompletedIs( nullptr ); } ), nullValidPtr );
}

TEST_F( MissingTest, AnActiveStageWithoutStageOrOwnerIsNotInitialised ) {
   active->stageUncompletedDel();
   active->notifierIs( nullptr );
   active->handleInitialized();
   EXPECT_FALSE( active->stageUncompleted() );
   active->notifierIs( status->stage( "A" ) );
   sm->stageSmDel( "A" );
   active->handleInitialized();
   EXPECT_FALSE( active->stageUncompleted() );
}

TEST_F( MissingTest, AnEventReactorThatIsLeftAloneSaysNothing ) {
   active->eventDel( "a" );
   EXPECT_EQ( ofEvent->stageSm(), nullptr );
   ofEvent->handleComplete();
   ofEvent->kivDoZombieReactors( false );
   ofEvent->notifierIs( newEvent( "B", "a" ) );
   auto const made = active->newEvent( "a", event );
   texts();
   made->notifierIs( nullptr );
   made->handleComplete();
   EXPECT_EQ( texts(), Lines() );
}

// ---- everything, after anything

// Each operation of each state machine, whatever was taken away before: it does its work, does
// nothing, or says what it misses.
TEST_F( MissingTest, NoOperationGoesAnyOtherWay ) {
   using Steps = std::vector< std::pair< char const *, std::function< void() > > >;
   Ptr< Stage::LogSm > const anyLogSm = new Stage::LogSm( log );
   Steps const losses = {
      { "configDel", [ & ] { sm->configDel(); } },
      { "statusDel", [ & ] { sm->statusDel(); } },
      { "logSmDel", [ & ] { sm->logSmDel(); } },
      { "recalculateNextStageDel", [ & ] { sm->recalculateNextStageDel(); } },
      { "stageEnableSmDelAll", [ & ] { sm->stageEnableSmDelAll(); } },
      { "stageSmDelAll", [ & ] { sm->stageSmDelAll(); } },
      { "pendingEventDelAll", [ & ] { active->pendingEventDelAll(); } },
      { "eventDelAll", [ & ] { active->eventDelAll(); } },
      { "stageUncompletedDel", [ & ] { active->stageUncompletedDel(); } },
      { "configIs( null )", [ & ] { sm->configIs( nullptr ); } },
      { "statusIs( null )", [ & ] { sm->statusIs( nullptr ); } },
      { "logSmIs( null )", [ & ] { sm->logSmIs( nullptr ); } },
      { "timer without clock", [ & ] { sm->recalculateNextStage()->notifierIs( nullptr ); } },
      { "active without stage", [ & ] { active->notifierIs( nullptr ); } },
      { "waiting without stage", [ & ] { waits->notifierIs( nullptr ); } },
      { "waiting without owner", [ & ] { waits->mainSmIs( nullptr ); } },
      { "event reactor without event", [ & ] { ofEvent->notifierIs( nullptr ); } },
      { "stage's timer without clock", [ & ] { timer->notifierIs( nullptr ); } },
      { "stage's timer without owner", [ & ] { timer->stageSmIs( nullptr ); } },
      { "stageDelAll", [ & ] { status->stageDelAll(); } },
      { "owner", [ & ] { sm = nullptr; } },
      { "mark", [ & ] { sm->kivDoZombieReactors( true ); } },
   };
   Steps const ofOwner = {
      { "handleInitialized", [ & ] { sm->handleInitialized(); } },
      { "handleEnabled", [ & ] { sm->handleEnabled(); } },
      { "doNextStage", [ & ] { sm->doNextStage(); } },
      { "handleNextStage",
        [ & ] {
           sm->needRecalculateNextStageIs( true );
           sm->handleNextStage();
        } },
      { "handleActiveStage", [ & ] { sm->handleActiveStage(); } },
      { "handleActiveStage( A )", [ & ] { sm->handleActiveStage( "A" ); } },
      { "stageEnableSmIs", [ & ] { sm->stageEnableSmIs( newStage( "B" ) ); } },
      { "stageEnableSmIs( null )", [ & ] { sm->stageEnableSmIs( nullptr ); } },
      { "stageSmIs", [ & ] { sm->stageSmIs( newStage( "C" ), sm->logSm() ); } },
      { "stageSmIs( null )", [ & ] { sm->stageSmIs( nullptr, anyLogSm ); } },
      { "logSmIs", [ & ] { sm->logSmIs( log ); } },
      { "configIs", [ & ] { sm->configIs( config ); } },
      { "statusIs", [ & ] { sm->statusIs( status ); } },
      { "recalculateNextStageIs", [ & ] { sm->recalculateNextStageIs( clock ); } },
      { "off and on",
        [ & ] {
           sm->hasNotificationActiveIs( false );
           sm->hasNotificationActiveIs( true );
        } },
      { "mark and back",
        [ & ] {
           sm->kivDoZombieReactors( true );
           sm->kivDoZombieReactors( false );
        } },
   };
   Steps const ofStages = {
      { "StageEnableSm::handleCritical", [ & ] { waits->handleCritical(); } },
      { "StageEnableSm::handleDependencyDel", [ & ] { waits->handleDependencyDel( "X" ); } },
      { "StageEnableSm::notifierIs",
        [ & ] {
           newStage( "D" )->criticalIs( true );
           waits->notifierIs( newStage( "D" ) );
        } },
      { "StageSm::handleInitialized", [ & ] { active->handleInitialized(); } },
      { "StageSm::handleEventDel", [ & ] { active->handleEventDel( "a" ); } },
      { "StageSm::handlePendingEvent( uid )", [ & ] { active->handlePendingEvent( "A:a" ); } },
      { "StageSm::handlePendingEvent", [ & ] { active->handlePendingEvent(); } },
      { "StageSm::handleStageUncompleted", [ & ] { active->handleStageUncompleted(); } },
      { "StageSm::pendingEventIs", [ & ] { active->pendingEventIs( newEvent( "A", "b" ) ); } },
      { "StageSm::pendingEventDelAll", [ & ] { active->pendingEventDelAll(); } },
      { "StageSm::eventIs", [ & ] { active->eventIs( "b", newEvent( "A", "b", true ) ); } },
      { "StageSm::eventDelAll", [ & ] { active->eventDelAll(); } },
      { "StageSm::onEvent( key )", [ & ] { active->onEvent( "a" ); } },
      { "StageSm::onEvent", [ & ] { active->onEvent(); } },
      { "StageSm::notifierIs", [ & ] { active->notifierIs( newStage( "D" ) ); } },
      { "StageSm::stageUncompletedIs", [ & ] { active->stageUncompletedIs( clock ); } },
      { "KivEvent::handleComplete", [ & ] { ofEvent->handleComplete(); } },
      { "KivEvent::onComplete", [ & ] { ofEvent->onComplete(); } },
      { "KivEvent::notifierIs",
        [ & ] {
           ofEvent->kivDoZombieReactors( false );
           ofEvent->notifierIs( newEvent( "A", "c" ) );
        } },
      { "KivStageUncompleted::onTime", [ & ] { timer->onTime(); } },
      { "KivStageUncompleted::timeMinIs", [ & ] { timer->timeMinIs( 1 ); } },
   };
   MessageRecorder messages;
   for( auto const & loss : losses )
      for( Steps const * const operations : { &ofOwner, &ofStages } )
         for( auto const & operation : *operations ) {
            setUp();
            loss.second();
            if( !sm && operations == &ofOwner )
               continue;
            std::string const thrown = thrownBy( operation.second );
            EXPECT_TRUE( thrown == "nothing" || thrown == nullValidPtr ||
                         thrown.starts_with( "name in use: " ) )
               << loss.first << ", then " << operation.first << ": " << thrown;
         }
}
