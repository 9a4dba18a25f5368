// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// An active stage and its events.
#include "ProgressionTest.h"

using namespace testing_support;
using Kiv::Ptr;

namespace {

class StageSmTest : public ProgressionTest {
 protected:
   StageSmTest() {
      make();
      stage_ = newStage( "S" );
   }
   // The StageSm of S, as activation makes it.
   Ptr< Stage::StageSm > activate() {
      s = sm->stageSmIs( stage_, sm->logSm() );
      return s;
   }
   Lines pending() const {
      Lines uids;
      for( auto i = s->pendingEventIteratorConst(); i; ++i )
         uids.push_back( i.key().str() );
      std::sort( uids.begin(), uids.end() );
      return uids;
   }
   Lines mirrored() const {
      Lines agents;
      for( auto i = s->eventIteratorConst(); i; ++i )
         agents.push_back( i.key().str() );
      std::sort( agents.begin(), agents.end() );
      return agents;
   }
   // Takes back a request for a decision.
   void forgetRequest() {
      sm->needRecalculateNextStageIs( false );
      sm->recalculateNextStage()->timeMinIs( Kiv::infinity );
   }

   Ptr< Stage::StageStatus > stage_;
   Ptr< Stage::StageSm > s;
};

char const complete[] = "stage S is complete";

} // namespace

// ---- the initial pass

TEST_F( StageSmTest, AStageWithoutEventsCompletesInsideTheConstructor ) {
   clock->nowIs( 1012.5 );
   TraceRecorder trace;
   activate();
   EXPECT_TRUE( s->complete() );
   EXPECT_FALSE( s->timedOut() );
   EXPECT_EQ( s->completionTime(), 1012.5 );
   EXPECT_TRUE( s->initialized() );
   EXPECT_FALSE( s->stageUncompleted() );
   EXPECT_EQ( logged(), ( Lines{ "1012.5 stage S is complete" } ) );
   EXPECT_EQ( trace.count( decisionAsked ), 1U );
   EXPECT_TRUE( sm->needRecalculateNextStage() );
}

TEST_F( StageSmTest, AStageWhoseEventsAreAllCompleteCompletesInsideTheConstructor ) {
   newEvent( "S", "a", true );
   newEvent( "S", "b", true );
   TraceRecorder trace;
   activate();
   EXPECT_TRUE( s->complete() );
   EXPECT_FALSE( s->stageUncompleted() );
   EXPECT_EQ( pending(), Lines() );
   EXPECT_EQ( mirrored(), ( Lines{ "a", "b" } ) );
   Lines expected;
   for( auto i = stage_->eventIteratorConst(); i; ++i )
      expected.push_back( "  event " + i.ptr()->uid().str() + " completed" );
   expected.emplace_back( complete );
   EXPECT_EQ( texts(), expected );
   EXPECT_EQ( trace.count( decisionAsked ), 1U );
   EXPECT_EQ( trace.count( "void Stage::StageSm::handlePendingEvent() S" ), 1U )
      << "an event that was never pending changes nothing";
}

TEST_F( StageSmTest, AStageWithIncompleteEventsIsMirroredAndWaits ) {
   auto const a = newEvent( "S", "a" );
   newEvent( "S", "b", true );
   auto const c = newEvent( "S", "c" );
   activate();
   EXPECT_FALSE( s->complete() );
   EXPECT_FALSE( s->timedOut() );
   EXPECT_EQ( s->completionTime(), 0.0 );
   EXPECT_TRUE( s->initialized() );
   EXPECT_EQ( mirrored(), ( Lines{ "a", "b", "c" } ) );
   EXPECT_EQ( pending(), ( Lines{ "S:a", "S:c" } ) );
   EXPECT_EQ( s->pendingEvent( "S:a" )->pendingEvent(), a );
   EXPECT_EQ( s->pendingEvent( "S:c" )->pendingEvent(), c );
   EXPECT_FALSE( s->pendingEvent( "S:b" ) );
   EXPECT_FALSE( s->pendingEvent( "a" ) ) << "the key is the event's uid";
   EXPECT_EQ( s->event( "a" )->event(), a );
   EXPECT_EQ( s->event( "a" )->fwkKey(), "a" );
   EXPECT_EQ( s->event( "a" )->stageSm(), s.get() );
   EXPECT_FALSE( s->event( "S:a" ) );
   EXPECT_FALSE( sm->needRecalculateNextStage() );
   Lines expected;
   for( auto i = stage_->eventIteratorConst(); i; ++i )
      expected.push_back( "  event " + i.ptr()->uid().str() +
                          ( i.ptr()->complete() ? " completed" : " started" ) );
   EXPECT_EQ( texts(), expected );
}

TEST_F( StageSmTest, TheInitialPassGoesInOrder ) {
   newEvent( "S", "a" );
   TraceRecorder trace;
   activate();
   EXPECT_EQ( trace.taken(),
              ( Lines{
                 "void Stage::StageSm::KivEvent::handleComplete() S:a (stage: S, agent:a)",
                 "void Stage::LogSm::logIs(Kiv::String8)   event S:a started",
                 "void Stage::StageSm::handlePendingEvent(Kiv::String8) S:a",
                 "Not initialized.  Return from void "
                 "Stage::StageSm::handlePendingEvent(Kiv::String8)",
                 "void Stage::StageSm::handleInitialized() S",
                 "void Stage::StageSm::handlePendingEvent() S",
                 "S has 1 pendingEvents.",
              } ) );
}

TEST_F( StageSmTest, TheConstructorAttachesAndRegistersAndRemembersItsOwner ) {
   newEvent( "S", "a" );
   activate();
   EXPECT_EQ( s->stage(), stage_ );
   EXPECT_EQ( s->name(), "S" );
   EXPECT_EQ( s->fwkKey(), "S" );
   EXPECT_EQ( s->logSm(), sm->logSm() );
   EXPECT_EQ( s->mainSm(), sm.get() );
   EXPECT_TRUE( s->isRegisteredNotifiee() );
   EXPECT_TRUE( s->event( "a" )->isRegisteredNotifiee() );
}

// ---- completion of events

TEST_F( StageSmTest, AnEventThatCompletesLeavesThePendingOnes ) {
   auto const a = newEvent( "S", "a" );
   newEvent( "S", "b" );
   activate();
   texts();
   a->completeIs( true );
   EXPECT_EQ( pending(), ( Lines{ "S:a", "S:b" } ) ) << "a setter calls nobody";
   TraceRecorder trace;
   deliver();
   EXPECT_EQ(
      trace.taken(),
      ( Lines{ "void Stage::StageSm::KivEvent::handleComplete() S:a (stage: S, agent:a)",
               "void Stage::LogSm::logIs(Kiv::String8)   event S:a completed",
               "void Stage::StageSm::handlePendingEvent(Kiv::String8) S:a",
               "void Stage::StageSm::handlePendingEvent() S", "S has 1 pendingEvents." } ) );
   EXPECT_EQ( pending(), ( Lines{ "S:b" } ) );
   EXPECT_EQ( texts(), ( Lines{ "  event S:a completed" } ) );
   EXPECT_FALSE( s->complete() );
   EXPECT_FALSE( sm->needRecalculateNextStage() );
   EXPECT_EQ( mirrored(), ( Lines{ "a", "b" } ) );
}

TEST_F( StageSmTest, TheLastEventCompletesTheStage ) {
   auto const a = newEvent( "S", "a" );
   activate();
   pass( 3 );
   texts();
   a->completeIs( true );
   TraceRecorder trace;
   deliver();
   EXPECT_TRUE( s->complete() );
   EXPECT_FALSE( s->timedOut() );
   EXPECT_EQ( s->completionTime(), 1003 );
   EXPECT_EQ( logged(), ( Lines{ "1003   event S:a completed", "1003 stage S is complete" } ) );
   EXPECT_TRUE( sm->needRecalculateNextStage() );
   EXPECT_EQ(
      trace.taken(),
      ( Lines{ "void Stage::StageSm::KivEvent::handleComplete() S:a (stage: S, agent:a)",
               "void Stage::LogSm::logIs(Kiv::String8)   event S:a completed",
               "void Stage::StageSm::handlePendingEvent(Kiv::String8) S:a",
               "void Stage::StageSm::handlePendingEvent() S",
               "void Stage::LogSm::logIs(Kiv::String8) stage S is complete", decisionAsked } ) );
}

TEST_F( StageSmTest, AnEventThatTurnsIncompleteAgainIsPendingAgainAndTheStageStaysComplete ) {
   auto const a = newEvent( "S", "a", true );
   activate();
   forgetRequest();
   ASSERT_TRUE( s->complete() );
   pass( 1 );
   texts();
   a->completeIs( false );
   deliver();
   EXPECT_EQ( logged(), ( Lines{ "1001   event S:a started" } ) );
   EXPECT_EQ( pending(), ( Lines{ "S:a" } ) );
   EXPECT_TRUE( s->complete() );
   EXPECT_EQ( s->completionTime(), 1000 );
   EXPECT_FALSE( sm->needRecalculateNextStage() );
   pass( 1 );
   a->completeIs( true );
   deliver();
   EXPECT_EQ( logged(), ( Lines{ "1002   event S:a completed", "1002 stage S is complete" } ) );
   EXPECT_EQ( s->completionTime(), 1002 ) << "the second completion has its own time";
   EXPECT_TRUE( sm->needRecalculateNextStage() );
}

TEST_F( StageSmTest, ThereIsNoTestOfCompleteInTheCheckOnPurpose ) {
   activate();
   forgetRequest();
   texts();
   clock->nowIs( 1009 );
   s->handlePendingEvent();
   EXPECT_EQ( logged(), ( Lines{ "1009 stage S is complete" } ) );
   EXPECT_EQ( s->completionTime(), 1009 );
   EXPECT_TRUE( sm->needRecalculateNextStage() );
}

TEST_F( StageSmTest, BeforeInitialisationTheCheckOnlyTraces ) {
   activate();
   forgetRequest();
   texts();
   s->initializedIs( false );
   TraceRecorder trace;
   s->handlePendingEvent();
   s->handlePendingEvent( "S:a" );
   EXPECT_EQ( trace.taken(),
              ( Lines{ "void Stage::StageSm::handlePendingEvent() S",
                       "Not initialized.  Return from void Stage::StageSm::handlePendingEvent()",
                       "void Stage::StageSm::handlePendingEvent(Kiv::String8) S:a",
                       "Not initialized.  Return from void "
                       "Stage::StageSm::handlePendingEvent(Kiv::String8)" } ) );
   EXPECT_EQ( texts(), Lines() );
   EXPECT_FALSE( sm->needRecalculateNextStage() );
}

TEST_F( StageSmTest, TheCheckOfOneEventIsTheCheckOfAll ) {
   activate();
   texts();
   s->handlePendingEvent( "whatever" );
   EXPECT_EQ( texts(), ( Lines{ complete } ) );
}

// ---- events that join and leave

TEST_F( StageSmTest, AnIncompleteEventThatJoinsBecomesPending ) {
   activate();
   forgetRequest();
   texts();
   auto const late = newEvent( "S", "late" );
   TraceRecorder trace;
   deliver();
   EXPECT_EQ( pending(), ( Lines{ "S:late" } ) );
   EXPECT_EQ( s->pendingEvent( "S:late" )->pendingEvent(), late );
   EXPECT_EQ( mirrored(), ( Lines{ "late" } ) );
   EXPECT_TRUE( s->event( "late" )->hasNotificationActive() );
   EXPECT_EQ( texts(), ( Lines{ "  event S:late started" } ) );
   EXPECT_EQ( trace.taken(),
              ( Lines{ "void Stage::StageSm::handleEventDel(Kiv::String8) S late",
                       "Incomplete event being added to pending events",
                       "void Stage::StageSm::handlePendingEvent(Kiv::String8) S:late",
                       "void Stage::StageSm::handlePendingEvent() S", "S has 1 pendingEvents.",
                       "void Stage::StageSm::KivEvent::handleComplete() S:late (stage: S, "
                       "agent:late)",
                       "void Stage::LogSm::logIs(Kiv::String8)   event S:late started" } ) );
   EXPECT_TRUE( s->complete() ) << "completion is never taken back";
   EXPECT_FALSE( sm->needRecalculateNextStage() );
   late->completeIs( true );
   deliver();
   EXPECT_EQ( texts(), ( Lines{ "  event S:late completed", complete } ) );
}

TEST_F( StageSmTest, ACompleteEventThatJoinsIsMirroredAndChangesNothingElse ) {
   newEvent( "S", "a" );
   activate();
   texts();
   newEvent( "S", "late", true );
   deliver();
   EXPECT_EQ( mirrored(), ( Lines{ "a", "late" } ) );
   EXPECT_EQ( pending(), ( Lines{ "S:a" } ) );
   EXPECT_EQ( texts(), ( Lines{ "  event S:late completed" } ) );
   EXPECT_FALSE( s->complete() );
}

TEST_F( StageSmTest, ACompleteEventThatJoinsACompleteStageDoesNotCompleteItAgain ) {
   activate();
   forgetRequest();
   texts();
   newEvent( "S", "late", true );
   deliver();
   EXPECT_EQ( texts(), ( Lines{ "  event S:late completed" } ) );
   EXPECT_FALSE( sm->needRecalculateNextStage() );
}

TEST_F( StageSmTest, APendingEventThatLeavesIsPendingNoMore ) {
   newEvent( "S", "a" );
   newEvent( "S", "b" );
   activate();
   texts();
   stage_->eventDel( "a" );
   deliver();
   EXPECT_EQ( pending(), ( Lines{ "S:b" } ) );
   EXPECT_EQ( mirrored(), ( Lines{ "b" } ) );
   EXPECT_EQ( texts(), Lines() );
   EXPECT_FALSE( s->complete() );
}

TEST_F( StageSmTest, TheLastPendingEventThatLeavesCompletesTheStage ) {
   newEvent( "S", "a" );
   newEvent( "S", "done", true );
   activate();
   texts();
   clock->nowIs( 1006 );
   stage_->eventDel( "a" );
   deliver();
   EXPECT_TRUE( s->complete() );
   EXPECT_EQ( mirrored(), ( Lines{ "done" } ) );
   EXPECT_EQ( logged(), ( Lines{ "1006 stage S is complete" } ) );
   EXPECT_TRUE( sm->needRecalculateNextStage() );
}

TEST_F( StageSmTest, ACompleteEventThatLeavesChangesNothingElse ) {
   newEvent( "S", "a" );
   newEvent( "S", "done", true );
   activate();
   texts();
   stage_->eventDel( "done" );
   deliver();
   EXPECT_EQ( mirrored(), ( Lines{ "a" } ) );
   EXPECT_EQ( pending(), ( Lines{ "S:a" } ) );
   EXPECT_EQ( texts(), Lines() );
}

TEST_F( StageSmTest, AnEventThatLeftIsWatchedNoMore ) {
   auto const a = newEvent( "S", "a" );
   newEvent( "S", "b" );
   activate();
   auto const reactor = s->event( "a" );
   stage_->eventDel( "a" );
   deliver();
   texts();
   EXPECT_TRUE( reactor->kivMarkedForDeletion() );
   EXPECT_EQ( reactor->stageSm(), nullptr );
   a->completeIs( true );
   deliver();
   reactor->onComplete();
   EXPECT_EQ( texts(), Lines() );
}

TEST_F( StageSmTest, AnEventThatLeavesAndComesBackAtOnceStays ) {
   auto const a = newEvent( "S", "a" );
   activate();
   texts();
   auto const reactor = s->event( "a" );
   stage_->eventDel( "a" );
   stage_->eventIs( a );
   deliver();
   EXPECT_EQ( s->event( "a" ), reactor );
   EXPECT_EQ( pending(), ( Lines{ "S:a" } ) );
   EXPECT_EQ( texts(), Lines() );
}

TEST_F( StageSmTest, AReplacedEventObjectIsWatchedInPlaceOfTheOld ) {
   auto const before = newEvent( "S", "a" );
   activate();
   texts();
   auto const reactor = s->event( "a" );
   auto const after = newEvent( "S", "a" );
   deliver();
   EXPECT_EQ( s->event( "a" ), reactor );
   EXPECT_EQ( reactor->event(), after );
   EXPECT_FALSE( before->hasNotifiees() );
   EXPECT_EQ( pending(), ( Lines{ "S:a" } ) );
   EXPECT_EQ( s->pendingEvent( "S:a" )->pendingEvent(), after );
   EXPECT_EQ( texts(), ( Lines{ "  event S:a started" } ) );
   before->completeIs( true );
   deliver();
   EXPECT_FALSE( s->complete() );
   after->completeIs( true );
   deliver();
   EXPECT_TRUE( s->complete() );
}

TEST_F( StageSmTest, ACompleteObjectInPlaceOfAPendingOneCompletesTheStage ) {
   newEvent( "S", "a" );
   activate();
   texts();
   newEvent( "S", "a", true );
   deliver();
   EXPECT_EQ( pending(), Lines() );
   EXPECT_TRUE( s->complete() );
   EXPECT_EQ( texts(), ( Lines{ "  event S:a completed", complete } ) );
}

TEST_F( StageSmTest, APendingEntryWithoutItsEventIsFilledWhenTheEventIsHeardOf ) {
   auto const a = newEvent( "S", "a" );
   activate();
   s->pendingEvent( "S:a" )->pendingEventIs( nullptr );
   TraceRecorder trace;
   s->handleEventDel( "a" );
   EXPECT_EQ( trace.count( "Incomplete event being added to pending events" ), 1U );
   EXPECT_EQ( s->pendingEvent( "S:a" )->pendingEvent(), a );
   trace.clear();
   s->handleEventDel( "a" );
   EXPECT_EQ( trace.taken(), ( Lines{ "void Stage::StageSm::handleEventDel(Kiv::String8) S a" } ) )
      << "it is pending already";
}

TEST_F( StageSmTest, AnEventThatIsHeardOfAndCompleteIsNotAdded ) {
   newEvent( "S", "a", true );
   activate();
   TraceRecorder trace;
   s->handleEventDel( "a" );
   EXPECT_EQ( trace.taken(), ( Lines{ "void Stage::StageSm::handleEventDel(Kiv::String8) S a" } ) );
   EXPECT_EQ( pending(), Lines() );
}

TEST_F( StageSmTest, AnUnknownAgentThatIsHeardOfChangesNothing ) {
   activate();
   forgetRequest();
   texts();
   s->onEvent( "nobody" );
   EXPECT_EQ( mirrored(), Lines() );
   EXPECT_EQ( texts(), Lines() );
   EXPECT_FALSE( sm->needRecalculateNextStage() ) << "an absent key ran the check";
}

// ---- the deferred form, and the marked reactor

TEST_F( StageSmTest, TheDeferredFormBringsTheMirrorIntoLineAndRunsNoHandler ) {
   newEvent( "S", "gone" );
   newEvent( "S", "stays" );
   activate();
   texts();
   // Nothing of this is told by key.
   s->isRegisteredNotifieeIs( false );
   stage_->eventDel( "gone" );
   newEvent( "S", "new" );
   s->isRegisteredNotifieeIs( true );
   TraceRecorder trace;
   s->onEventkivImmediate();
   EXPECT_EQ( mirrored(), ( Lines{ "new", "stays" } ) );
   EXPECT_EQ( trace.countStarting( "void Stage::StageSm::handleEventDel" ), 0U );
   EXPECT_EQ( pending(), ( Lines{ "S:gone", "S:new", "S:stays" } ) )
      << "only the handler by key removes the entry of an event that left";
   EXPECT_EQ( texts(), ( Lines{ "  event S:new started" } ) ) << "said by the new event's reactor";
}

TEST_F( StageSmTest, TheWholeFormIsTheDeferredOne ) {
   newEvent( "S", "gone" );
   activate();
   s->isRegisteredNotifieeIs( false );
   stage_->eventDel( "gone" );
   newEvent( "S", "new" );
   TraceRecorder trace;
   s->onEvent();
   EXPECT_EQ( mirrored(), ( Lines{ "new" } ) );
   EXPECT_EQ( trace.countStarting( "void Stage::StageSm::handleEventDel" ), 0U );
   s->kivDoZombieReactors( true );
   stage_->eventDel( "new" );
   s->onEvent();
   EXPECT_EQ( mirrored(), ( Lines{ "new" } ) ) << "a marked one reacts";
}

TEST_F( StageSmTest, ItsIteratorsAreNamedAfterTheReactorsInBothForms ) {
   newEvent( "S", "a" );
   activate();
   Stage::StageSm::KivEventIterator const event = s->eventIterator();
   Stage::StageSm::KivEventIteratorConst const eventConst = s->eventIteratorConst();
   EXPECT_EQ( event.ptr(), s->event( "a" ) );
   EXPECT_EQ( eventConst.ptr(), s->event( "a" ) );
   Stage::StageSm::KivPendingEventIterator const pendingEvent = s->pendingEventIterator();
   Stage::StageSm::KivPendingEventIteratorConst const pendingConst = s->pendingEventIteratorConst();
   EXPECT_EQ( pendingEvent.ptr(), s->pendingEvent( "S:a" ) );
   EXPECT_EQ( pendingConst.ptr(), s->pendingEvent( "S:a" ) );
}

TEST_F( StageSmTest, TheDeferredFormFollowsTwoChangesAtOnceAndChangesNothingMore ) {
   activate();
   texts();
   newEvent( "S", "a" );
   newEvent( "S", "b" );
   deliver();
   EXPECT_EQ( mirrored(), ( Lines{ "a", "b" } ) );
   auto lines = texts();
   std::sort( lines.begin(), lines.end() );
   EXPECT_EQ( lines, ( Lines{ "  event S:a started", "  event S:b started" } ) );
}

TEST_F( StageSmTest, AMarkedOneStillBringsItsMirrorIntoLineAndRunsNoHandler ) {
   newEvent( "S", "gone" );
   activate();
   forgetRequest();
   texts();
   s->kivDoZombieReactors( true );
   stage_->eventDel( "gone" );
   TraceRecorder trace;
   s->onEvent( "gone" );
   EXPECT_EQ( mirrored(), Lines() );
   EXPECT_EQ( trace.taken(), Lines() );
   EXPECT_EQ( pending(), ( Lines{ "S:gone" } ) );
   EXPECT_EQ( texts(), Lines() );
}

TEST_F( StageSmTest, AMarkedOneDoesNothingInTheDeferredForm ) {
   newEvent( "S", "a" );
   activate();
   s->kivDoZombieReactors( true );
   newEvent( "S", "late" );
   stage_->eventDel( "a" );
   texts();
   s->onEventkivImmediate();
   EXPECT_EQ( mirrored(), ( Lines{ "a" } ) );
   EXPECT_EQ( texts(), Lines() );
}

TEST_F( StageSmTest, AMarkedEventReactorReactsToNothing ) {
   newEvent( "S", "a", true );
   activate();
   texts();
   auto const reactor = s->event( "a" );
   reactor->kivDoZombieReactors( true );
   reactor->onComplete();
   EXPECT_EQ( texts(), Lines() );
   reactor->kivDoZombieReactors( false );
   reactor->onComplete();
   EXPECT_EQ( texts(), ( Lines{ "  event S:a completed" } ) );
}

TEST_F( StageSmTest, MarkingSwitchesNotificationsOffBeforeAnythingIsMarkedAndMarksItselfLast ) {
   struct Watched : Stage::StageSm {
      using StageSm::StageSm;
      void hasNotificationActiveIs( bool active ) override {
         seen.push_back( std::string( active ? "on" : "off" ) +
                         ( event( "a" )->kivMarkedForDeletion() ? " event marked" : "" ) +
                         ( kivMarkedForDeletion() ? " marked" : "" ) );
         StageSm::hasNotificationActiveIs( active );
      }
      Lines seen;
   };
   newEvent( "S", "a" );
   Ptr< Watched > const watched = new Watched( stage_, sm->logSm(), sm.get() );
   watched->hasNotificationActiveIs( true );
   watched->seen.clear();
   watched->kivDoZombieReactors( true );
   EXPECT_EQ( watched->seen, ( Lines{ "off" } ) );
   EXPECT_TRUE( watched->kivMarkedForDeletion() );
   EXPECT_TRUE( watched->event( "a" )->kivMarkedForDeletion() );
   EXPECT_TRUE( watched->stageUncompleted()->kivMarkedForDeletion() );
   EXPECT_FALSE( watched->event( "a" )->hasNotificationActive() );
   watched->kivDoZombieReactors( true );
   EXPECT_EQ( watched->seen, ( Lines{ "off" } ) ) << "it was marked already";
   watched->kivDoZombieReactors( false );
   EXPECT_EQ( watched->seen, ( Lines{ "off", "on event marked marked" } ) );
   EXPECT_FALSE( watched->kivMarkedForDeletion() );
   EXPECT_FALSE( watched->event( "a" )->kivMarkedForDeletion() );
   EXPECT_TRUE( watched->event( "a" )->hasNotificationActive() );
}

TEST_F( StageSmTest, AReactorMadeLaterTakesItsOwnersState ) {
   Ptr< Stage::StageSm > const made = new Stage::StageSm( stage_, sm->logSm(), sm.get() );
   auto const first = newEvent( "S", "a" );
   EXPECT_FALSE( made->eventIs( "a", first )->hasNotificationActive() );
   made->hasNotificationActiveIs( true );
   EXPECT_TRUE( made->event( "a" )->hasNotificationActive() );
   EXPECT_TRUE( made->eventIs( "b", newEvent( "S", "b" ) )->hasNotificationActive() );
   EXPECT_TRUE( made->newStageUncompleted( clock )->hasNotificationActive() );
}

// ---- another stage

TEST_F( StageSmTest, AnotherStageIsMirroredAnewWithoutInitialisation ) {
   newEvent( "S", "gone" );
   newEvent( "S", "both" );
   activate();
   texts();
   auto const other = Stage::Status::StatusIs( "other" )->stageIs( "S" );
   auto const both = Stage::EventConfig::EventConfigIs( "S", "both" );
   auto const fresh = Stage::EventConfig::EventConfigIs( "S", "fresh" );
   other->eventIs( both );
   other->eventIs( fresh );
   auto const timer = s->stageUncompleted();
   TraceRecorder trace;
   s->notifierIs( other );
   EXPECT_EQ( trace.countStarting( "void Stage::StageSm::handleInitialized()" ), 0U );
   EXPECT_EQ( s->stage(), other );
   EXPECT_TRUE( s->isRegisteredNotifiee() );
   EXPECT_EQ( mirrored(), ( Lines{ "both", "fresh" } ) );
   EXPECT_EQ( pending(), ( Lines{ "S:both", "S:fresh" } ) )
      << "an event that the other stage does not have would be pending for ever";
   EXPECT_EQ( s->pendingEvent( "S:both" )->pendingEvent(), both );
   EXPECT_EQ( s->stageUncompleted(), timer );
   fresh->completeIs( true );
   both->completeIs( true );
   deliver();
   EXPECT_TRUE( s->complete() );
}

TEST_F( StageSmTest, AnotherStageIsNotCompletedBecauseNothingIsPendingForAMoment ) {
   // One agent is done there, the other has yet to start: whichever is looked at first.
   for( auto const & [ done, fresh ] : { std::pair{ "a", "b" }, std::pair{ "b", "a" } } ) {
      std::string const name = std::string( "S" ) + done;
      newEvent( name.c_str(), done );
      auto const machine = sm->stageSmIs( status->stage( name ), sm->logSm() );
      auto const other = Stage::Status::StatusIs( "other" )->stageIs( name );
      auto const doneThere = Stage::EventConfig::EventConfigIs( name, done );
      doneThere->completeIs( true );
      other->eventIs( doneThere );
      other->eventIs( Stage::EventConfig::EventConfigIs( name, fresh ) );
      machine->notifierIs( other );
      EXPECT_FALSE( machine->complete() );
      EXPECT_EQ( machine->pendingEvents(), 1U );
      EXPECT_TRUE( machine->pendingEvent( name + ":" + fresh ) );
   }
}

TEST_F( StageSmTest, AnotherStageWithNothingLeftToDoIsCompletedOnce ) {
   newEvent( "S", "a" );
   newEvent( "S", "b" );
   activate();
   texts();
   auto const other = Stage::Status::StatusIs( "other" )->stageIs( "S" );
   s->notifierIs( other );
   EXPECT_TRUE( s->complete() );
   EXPECT_EQ( texts(), ( Lines{ complete } ) );
   EXPECT_EQ( mirrored(), Lines() );
   EXPECT_EQ( pending(), Lines() );
}

TEST_F( StageSmTest, TheSameStageAgainDoesNothing ) {
   newEvent( "S", "a" );
   activate();
   texts();
   newEvent( "S", "late" );
   TraceRecorder trace;
   s->notifierIs( stage_ );
   EXPECT_EQ( trace.taken(), Lines() );
   EXPECT_EQ( mirrored(), ( Lines{ "a" } ) );
   deliver();
   EXPECT_EQ( mirrored(), ( Lines{ "a", "late" } ) ) << "what was queued is dropped";
}

TEST_F( StageSmTest, DetachedItReactsToNothing ) {
   newEvent( "S", "a" );
   activate();
   texts();
   s->notifierIs( nullptr );
   EXPECT_FALSE( s->stage() );
   EXPECT_EQ( mirrored(), ( Lines{ "a" } ) );
   newEvent( "S", "late" );
   deliver();
   s->onEvent( "late" );
   s->onEventkivImmediate();
   s->handleEventDel( "a" );
   EXPECT_EQ( mirrored(), ( Lines{ "a" } ) );
   EXPECT_EQ( pending(), ( Lines{ "S:a" } ) );
   EXPECT_EQ( texts(), Lines() );
}

// ---- setters

TEST_F( StageSmTest, APendingEventIsKeyedByItsUidAndItsCheckRunsInside ) {
   newEvent( "S", "a" );
   activate();
   auto const other = Stage::EventConfig::EventConfigIs( "S", "b" );
   TraceRecorder trace;
   s->pendingEventIs( other );
   EXPECT_EQ( pending(), ( Lines{ "S:a", "S:b" } ) );
   EXPECT_EQ( trace.taken(), ( Lines{ "void Stage::StageSm::handlePendingEvent(Kiv::String8) S:b",
                                      "void Stage::StageSm::handlePendingEvent() S",
                                      "S has 2 pendingEvents." } ) );
   s->pendingEventIs( other );
   EXPECT_EQ( trace.taken(), Lines() ) << "the object was held already";
   auto const replacement = Stage::EventConfig::EventConfigIs( "S", "b" );
   s->pendingEventIs( replacement );
   EXPECT_EQ( s->pendingEvent( "S:b" )->pendingEvent(), replacement );
   EXPECT_EQ( trace.countStarting( "void Stage::StageSm::handlePendingEvent(Kiv::String8) S:b" ),
              1U );
}

TEST_F( StageSmTest, RemovingAPendingEventRunsItsCheckInside ) {
   newEvent( "S", "a" );
   activate();
   texts();
   s->pendingEventDel( "S:nobody" );
   EXPECT_EQ( texts(), Lines() );
   TraceRecorder trace;
   s->pendingEventDel( "S:a" );
   EXPECT_EQ( trace.taken()[ 0 ], "void Stage::StageSm::handlePendingEvent(Kiv::String8) S:a" );
   EXPECT_TRUE( s->complete() );
   EXPECT_EQ( texts(), ( Lines{ complete } ) );
   forgetRequest();
   s->pendingEventDel( "S:a" );
   EXPECT_FALSE( sm->needRecalculateNextStage() ) << "an absent key ran the check";
}

TEST_F( StageSmTest, RemovingAllPendingEventsCompletesOnce ) {
   newEvent( "S", "a" );
   newEvent( "S", "b" );
   newEvent( "S", "c" );
   activate();
   texts();
   s->pendingEventDelAll();
   EXPECT_EQ( pending(), Lines() );
   EXPECT_EQ( texts(), ( Lines{ complete } ) );
}

TEST_F( StageSmTest, AllEventReactorsAreRemovedAtOnceAndPendingEventsStay ) {
   auto const a = newEvent( "S", "a" );
   newEvent( "S", "b" );
   activate();
   texts();
   s->eventDelAll();
   EXPECT_EQ( mirrored(), Lines() );
   EXPECT_EQ( pending(), ( Lines{ "S:a", "S:b" } ) );
   EXPECT_FALSE( a->hasNotifiees() );
   s->eventDel( "a" );
}

TEST_F( StageSmTest, ItIsNotMadeWithoutAStageALogOrAnOwner ) {
   newEvent( "S", "a" );
   activate();
   auto const stage = s->stage();
   TraceRecorder trace;
   EXPECT_EQ( thrownBy( [ & ] { new Stage::StageSm( nullptr, sm->logSm(), sm.get() ); } ),
              nullValidPtr );
   EXPECT_EQ( thrownBy( [ & ] { new Stage::StageSm( stage, nullptr, sm.get() ); } ), nullValidPtr );
   EXPECT_EQ( thrownBy( [ & ] { new Stage::StageSm( stage, sm->logSm(), nullptr ); } ),
              nullValidPtr );
   EXPECT_EQ( trace.taken(), Lines() ); // no handler has run
}

TEST_F( StageSmTest, NullIsRefusedAndChangesNothing ) {
   newEvent( "S", "a" );
   activate();
   EXPECT_EQ( thrownBy( [ & ] { s->eventIs( "b", nullptr ); } ), nullValidPtr );
   EXPECT_EQ( thrownBy( [ & ] { s->newEvent( "b", nullptr ); } ), nullValidPtr );
   EXPECT_EQ( thrownBy( [ & ] { s->pendingEventIs( nullptr ); } ), nullValidPtr );
   EXPECT_EQ( thrownBy( [ & ] { s->newStageUncompleted( nullptr ); } ), nullValidPtr );
   EXPECT_EQ( thrownBy( [ & ] { s->stageUncompletedIs( nullptr ); } ), nullValidPtr );
   EXPECT_TRUE( s->stageUncompleted() );
   EXPECT_EQ( mirrored(), ( Lines{ "a" } ) );
   EXPECT_EQ( pending(), ( Lines{ "S:a" } ) );
}
