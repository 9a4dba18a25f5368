// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// What those who watch a StageSm are told.
#include "ProgressionTest.h"

using namespace testing_support;
using Kiv::Ptr;

namespace {

// Writes down every callback.
struct Observer : Stage::StageSm::NotifieeConst {
   explicit Observer( Ptr< Stage::StageSm > const & watched ) { watch( watched ); }
   void onComplete() override { calls.emplace_back( "complete" ); }
   void onTimedOut() override { calls.emplace_back( "timedOut" ); }
   void onCompletionTime() override { calls.emplace_back( "completionTime" ); }
   void onPendingEvent( Kiv::String8 uid ) override {
      calls.push_back( "pendingEvent " + uid.str() );
   }
   void onPendingEventkivImmediate() override { calls.emplace_back( "pendingEvents" ); }
   void onPendingEvent() override { calls.emplace_back( "whole pendingEvent" ); }
   void onEvent( Kiv::String8 agent ) override { calls.push_back( "event " + agent.str() ); }
   void onEventkivImmediate() override { calls.emplace_back( "events" ); }
   void onEvent() override { calls.emplace_back( "whole event" ); }
   void onStageUncompleted() override { calls.emplace_back( "stageUncompleted" ); }
   void onInitialized() override { calls.emplace_back( "initialized" ); }

   Lines taken() { return std::exchange( calls, {} ); }
   Lines calls;
};

class StageSmObserverTest : public ProgressionTest {
 protected:
   StageSmObserverTest() {
      make();
      stage_ = newStage( "S" );
   }
   void activate() {
      s = sm->stageSmIs( stage_, sm->logSm() );
      observer = new Observer( s );
   }
   Lines told() {
      deliver();
      return observer->taken();
   }

   Ptr< Stage::StageStatus > stage_;
   Ptr< Stage::StageSm > s;
   Ptr< Observer > observer;
};

} // namespace

TEST_F( StageSmObserverTest, EachSetterTellsOfAChangeAndOfNothingElse ) {
   newEvent( "S", "a" );
   activate();
   s->completeIs( false );
   s->timedOutIs( false );
   s->completionTimeIs( 0.0 );
   s->initializedIs( true );
   EXPECT_EQ( told(), Lines() ) << "the values were held already";
   s->completeIs( true );
   EXPECT_TRUE( s->complete() );
   EXPECT_EQ( told(), ( Lines{ "complete" } ) );
   s->timedOutIs( true );
   EXPECT_TRUE( s->timedOut() );
   EXPECT_EQ( told(), ( Lines{ "timedOut" } ) );
   s->completionTimeIs( 7.5 );
   EXPECT_EQ( s->completionTime(), 7.5 );
   EXPECT_EQ( told(), ( Lines{ "completionTime" } ) );
   s->initializedIs( false );
   EXPECT_FALSE( s->initialized() );
   EXPECT_EQ( told(), ( Lines{ "initialized" } ) );
   s->completeIs( true );
   s->timedOutIs( true );
   s->completionTimeIs( 7.5 );
   s->initializedIs( false );
   EXPECT_EQ( told(), Lines() );
}

TEST_F( StageSmObserverTest, TheTimerTellsWhenItIsMadeAndWhenItGoes ) {
   newEvent( "S", "a" );
   activate();
   s->stageUncompletedDel();
   EXPECT_EQ( told(), ( Lines{ "stageUncompleted" } ) );
   s->stageUncompletedDel();
   EXPECT_EQ( told(), Lines() );
   s->stageUncompletedIs( clock );
   EXPECT_EQ( told(), ( Lines{ "stageUncompleted" } ) );
   s->stageUncompletedIs( clock );
   EXPECT_EQ( told(), Lines() );
}

// Nobody can watch a StageSm while it is made, so it is initialised once more.
TEST_F( StageSmObserverTest, WithoutPendingEventsNoTimerIsMadeNotEvenForAMoment ) {
   newEvent( "S", "a", true );
   activate();
   s->handleInitialized();
   for( auto const & call : told() )
      EXPECT_NE( call, "stageUncompleted" );
   EXPECT_FALSE( s->stageUncompleted() );
}

TEST_F( StageSmObserverTest, PendingEventsTellByUid ) {
   newEvent( "S", "a" );
   activate();
   auto const other = Stage::EventConfig::EventConfigIs( "S", "b" );
   s->pendingEventIs( other );
   EXPECT_EQ( told(), ( Lines{ "pendingEvent S:b" } ) );
   s->pendingEventIs( other );
   EXPECT_EQ( told(), Lines() );
   s->pendingEventDel( "S:b" );
   EXPECT_EQ( told(), ( Lines{ "pendingEvent S:b" } ) );
   s->pendingEventDel( "S:b" );
   EXPECT_EQ( told(), Lines() );
}

TEST_F( StageSmObserverTest, EventReactorsTellByAgent ) {
   newEvent( "S", "a" );
   activate();
   auto const other = Stage::EventConfig::EventConfigIs( "S", "b" );
   other->completeIs( true );
   s->eventIs( "b", other );
   EXPECT_EQ( told(), ( Lines{ "event b" } ) );
   s->eventIs( "b", other );
   EXPECT_EQ( told(), Lines() );
   auto const replacement = Stage::EventConfig::EventConfigIs( "S", "b" );
   replacement->completeIs( true );
   s->eventIs( "b", replacement );
   EXPECT_EQ( told(), ( Lines{ "event b" } ) );
   s->eventDel( "b" );
   EXPECT_EQ( told(), ( Lines{ "event b" } ) );
   s->eventDel( "b" );
   EXPECT_EQ( told(), Lines() );
}

TEST_F( StageSmObserverTest, TwoKeysAtOnceAreFollowedByTheDeferredForm ) {
   newEvent( "S", "a" );
   newEvent( "S", "b" );
   newEvent( "S", "c" );
   activate();
   s->pendingEventDel( "S:a" );
   s->pendingEventDel( "S:b" );
   EXPECT_EQ( told(), ( Lines{ "pendingEvent S:a", "pendingEvent S:b", "pendingEvents" } ) );
   s->eventDel( "a" );
   s->eventDel( "b" );
   EXPECT_EQ( told(), ( Lines{ "event a", "event b", "events" } ) );
}

TEST_F( StageSmObserverTest, CompletionIsToldTimeFirstThenTheFlagThenTheEventThatWasLast ) {
   auto const a = newEvent( "S", "a" );
   activate();
   a->completeIs( true );
   EXPECT_EQ( told(), ( Lines{ "completionTime", "complete", "pendingEvent S:a" } ) );
}

TEST_F( StageSmObserverTest, ATimeoutIsToldTimeThenTimedOutThenComplete ) {
   stage_->timeoutIs( 5 );
   newEvent( "S", "a" );
   activate();
   pass( 5 );
   EXPECT_EQ( told(), ( Lines{ "completionTime", "timedOut", "complete" } ) );
}

TEST_F( StageSmObserverTest, TheTimeoutOfACriticalStageTellsTimedOutAlone ) {
   MessageRecorder messages;
   stage_->timeoutIs( 5 );
   stage_->criticalIs( true );
   newEvent( "S", "a" );
   activate();
   testing::internal::CaptureStdout();
   pass( 5 );
   testing::internal::GetCapturedStdout();
   EXPECT_EQ( told(), ( Lines{ "timedOut" } ) );
}

TEST_F( StageSmObserverTest, ALateCompletionAfterATimeoutTellsTheNewTimeAlone ) {
   stage_->timeoutIs( 5 );
   auto const a = newEvent( "S", "a" );
   activate();
   pass( 6 );
   told();
   a->completeIs( true );
   EXPECT_EQ( told(), ( Lines{ "completionTime", "pendingEvent S:a" } ) )
      << "it was complete already";
}

TEST_F( StageSmObserverTest, TellingOfAMemberTellsThemByItsKey ) {
   newEvent( "S", "a" );
   activate();
   told();
   s->eventNotify( "a", s->event( "a" ) );
   s->pendingEventNotify( "S:a", s->pendingEvent( "S:a" ) );
   EXPECT_EQ( told(), ( Lines{ "event a", "pendingEvent S:a" } ) );
   s->eventNotify( "gone", nullptr );
   s->pendingEventNotify( "S:gone", nullptr );
   EXPECT_EQ( told(), ( Lines{ "event gone", "pendingEvent S:gone" } ) );
   EXPECT_EQ( s->events(), 1U );
   EXPECT_EQ( s->pendingEvents(), 1U );
}

TEST_F( StageSmObserverTest, TheDefaultsDoNothing ) {
   newEvent( "S", "a" );
   activate();
   Ptr< Stage::StageSm::NotifieeConst > const silent = new Stage::StageSm::NotifieeConst;
   silent->watch( s );
   texts();
   s->completeIs( true );
   s->timedOutIs( true );
   s->completionTimeIs( 1 );
   s->stageUncompletedDel();
   s->eventDel( "a" );
   s->initializedIs( false );
   s->pendingEventDel( "S:a" );
   deliver();
   EXPECT_EQ( silent->pendingNotifications(), 0U );
   EXPECT_EQ( texts(), Lines() );
}
