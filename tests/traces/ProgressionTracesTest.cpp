// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include "Traced.h"

#include "../progression/ProgressionTest.h"

#include <algorithm>

using Kiv::Ptr;
using Kiv::String8;

namespace traces {
namespace {

class ProgressionTraces : public testing_support::ProgressionTest {
 protected:
   // What a decision traces, the trace of each log entry left out.
   Lines decision() {
      sm->needRecalculateNextStageIs( true );
      Lines lines = tracedBy( [ & ] { sm->handleNextStage(); } );
      std::erase_if( lines, []( std::string const & line ) {
         return line.find( "Stage::LogSm::" ) != line.npos;
      } );
      EXPECT_FALSE( lines.empty() );
      if( !lines.empty() ) {
         EXPECT_EQ( lines[ 0 ], "8 handleNextStage: void Stage::StatusSm::handleNextStage()" );
         lines.erase( lines.begin() );
      }
      return lines;
   }
   // A StageSm of S, which is active, and whose event of agent a is pending.
   Ptr< Stage::StageSm > activeStage() {
      event = newEvent( "S", "a" );
      make();
      return sm->stageSmIs( newStage( "S" ), sm->logSm() );
   }

   Ptr< Stage::EventConfig > event;
};

char const logLine[] = "9 logIs: void Stage::LogSm::logIs(Kiv::String8) ";
char const asked[] = "8 doNextStage: void Stage::StatusSm::doNextStage()";
char const enabledLine[] = "8 handleEnabled: void Stage::StatusSm::handleEnabled()";

// ---- made, initialised, enabled

TEST_F( ProgressionTraces, ConstructionTracesEachHandlerThatItRuns ) {
   EXPECT_EQ(
      tracedBy( [ & ] { make(); } ),
      ( Lines{ "8 handleActiveStage: void Stage::StatusSm::handleActiveStage()",
               "8 handleActiveStage: Not initialized.  Return from void "
               "Stage::StatusSm::handleActiveStage()",
               "8 handleInitialized: void Stage::StatusSm::handleInitialized()", enabledLine } ) );
}

TEST_F( ProgressionTraces, BeforeItIsInitialisedEveryHandlerSaysThatItReturns ) {
   make();
   sm->initializedIs( false );
   EXPECT_EQ( tracedBy( [ & ] { sm->handleEnabled(); } ),
              ( Lines{ enabledLine, "8 handleEnabled: Not initialized.  Return from void "
                                    "Stage::StatusSm::handleEnabled()" } ) );
   EXPECT_EQ( tracedBy( [ & ] { sm->doNextStage(); } ),
              ( Lines{ asked, "8 doNextStage: not yet initialized" } ) );
   EXPECT_EQ( tracedBy( [ & ] { sm->handleNextStage(); } ),
              ( Lines{ "8 handleNextStage: void Stage::StatusSm::handleNextStage()",
                       "8 handleNextStage: not yet initialized" } ) );
   EXPECT_EQ(
      tracedBy( [ & ] { sm->handleActiveStage( "S" ); } ),
      ( Lines{ "8 handleActiveStage: void Stage::StatusSm::handleActiveStage(Kiv::String) S",
               "8 handleActiveStage: Not initialized.  Return from void "
               "Stage::StatusSm::handleActiveStage(Kiv::String) for stage S" } ) );
}

TEST_F( ProgressionTraces, EnablingNamesEveryStageThatWaits ) {
   newStage( "S" );
   make();
   config->enabledIs( true );
   EXPECT_EQ( tracedBy( [ & ] { deliver(); } ),
              ( Lines{ enabledLine, "8 handleEnabled: Creating Stage Enable Sm for S",
                       logLine + std::string( "Stage progression started" ), asked } ) );
}

// ---- the decision

TEST_F( ProgressionTraces, ATimerWithoutARequestIsNotNeededYet ) {
   make();
   EXPECT_EQ( tracedBy( [ & ] { sm->handleNextStage(); } ),
              ( Lines{ "8 handleNextStage: void Stage::StatusSm::handleNextStage()",
                       "8 handleNextStage: handleNextStage not needed yet." } ) );
}

TEST_F( ProgressionTraces, AStageThatStartsIsTracedAtALevelOfItsOwn ) {
   make();
   newStage( "S" );
   EXPECT_EQ( decision(),
              ( Lines{ "7 handleNextStage: Activating stage S",
                       "8 handleNextStage:  Inactive stages? true IncompleteActiveStages? "
                       "false" } ) );
}

TEST_F( ProgressionTraces, AnActiveStageIsInProgressUntilItIsComplete ) {
   make();
   status->activeStageIs( newStage( "S" ) );
   EXPECT_EQ( decision(),
              ( Lines{ "9 handleNextStage: Stage S in progress, but not yet complete.",
                       "8 handleNextStage:  Inactive stages? false IncompleteActiveStages? "
                       "true" } ) );
   sm->handleActiveStage( "S" ); // without events: complete at once
   EXPECT_EQ( decision(), Lines() );
}

TEST_F( ProgressionTraces, WhileACriticalStageWaitsTheOthersAreHeldBackAndLookedAtAnew ) {
   make();
   status->activeStageIs( newStage( "Active" ) );
   newStage( "Critical", { "Active" } )->criticalIs( true );
   newStage( "Other" );
   Lines lines = decision();
   std::sort( lines.begin(), lines.end() );
   EXPECT_EQ( lines, ( Lines{ "9 handleNextStage: Other is ready, but some critical stage hasn't "
                              "started yet.",
                              "9 handleNextStage: Stage Active in progress, but not yet complete.",
                              "9 handleNextStage: Stage Active in progress, but now non-critical",
                              "9 handleNextStage: Unactivated stage SM for Active means Critical "
                              "is unready." } ) );
}

TEST_F( ProgressionTraces, TheThreeWaysInWhichADependencyIsNotSatisfied ) {
   make();
   newStage( "S", { "D" } );
   EXPECT_EQ( decision(),
              ( Lines{ "9 handleNextStage: D is not yet ready, which means S is also unready.",
                       "8 handleNextStage:  Inactive stages? true IncompleteActiveStages? "
                       "false" } ) );
   newEvent( "D", "a" );
   status->activeStageIs( status->stage( "D" ) );
   Lines lines = decision();
   std::sort( lines.begin(), lines.end() );
   EXPECT_EQ( lines, ( Lines{ "9 handleNextStage: Stage D in progress, but not yet complete.",
                              "9 handleNextStage: Unactivated stage SM for D means S is "
                              "unready." } ) );
   sm->handleActiveStage( "D" );
   lines = decision();
   std::sort( lines.begin(), lines.end() );
   EXPECT_EQ( lines, ( Lines{ "9 handleNextStage: Incomplete dependency D means S is unready.",
                              "9 handleNextStage: Stage D in progress, but not yet complete." } ) );
}

// ---- a stage becomes active

TEST_F( ProgressionTraces, AnActiveStageReplacesTheOneThatWaited ) {
   make();
   newEvent( "S", "a" );
   status->activeStageIs( newStage( "S" ) );
   Lines const lines = tracedBy( [ & ] { sm->handleActiveStage(); } );
   ASSERT_GE( lines.size(), 3U );
   EXPECT_EQ( lines[ 0 ], "8 handleActiveStage: void Stage::StatusSm::handleActiveStage()" );
   EXPECT_EQ( lines[ 1 ],
              "8 handleActiveStage: void Stage::StatusSm::handleActiveStage(Kiv::String) S" );
   EXPECT_EQ( lines[ 2 ], "8 handleActiveStage: Replacing Stage Enable Sm with Stage Sm for S" );
   EXPECT_EQ( tracedBy( [ & ] { sm->handleActiveStage( "S" ); } ), ( Lines{ lines[ 1 ] } ) );
}

TEST_F( ProgressionTraces, AWaitingStageTracesNothing ) {
   make();
   newStage( "S", { "D" } );
   auto const waiting = sm->stageEnableSmIs( Ptr< Stage::StageStatus const >( newStage( "S" ) ) );
   EXPECT_EQ( tracedBy( [ & ] {
                 waiting->handleCritical();
                 waiting->handleDependencyDel( "D" );
              } ),
              Lines() );
   newStage( "S" )->criticalIs( true );
   newStage( "S" )->dependencyDel( "D" );
   EXPECT_EQ( tracedBy( [ & ] {
                 waiting->handleCritical();
                 waiting->handleDependencyDel( "D" );
              } ),
              ( Lines{ asked, asked } ) );
}

// ---- events of an active stage

TEST_F( ProgressionTraces, AStageThatIsMadeTracesItsInitialPass ) {
   EXPECT_EQ(
      tracedBy( [ & ] { activeStage(); } ),
      ( Lines{ "8 handleActiveStage: void Stage::StatusSm::handleActiveStage()",
               "8 handleActiveStage: Not initialized.  Return from void "
               "Stage::StatusSm::handleActiveStage()",
               "8 handleInitialized: void Stage::StatusSm::handleInitialized()", enabledLine,
               "8 handleComplete: void Stage::StageSm::KivEvent::handleComplete() S:a (stage: S, "
               "agent:a)",
               logLine + std::string( "  event S:a started" ),
               "8 handlePendingEvent: void Stage::StageSm::handlePendingEvent(Kiv::String8) S:a",
               "8 handlePendingEvent: Not initialized.  Return from void "
               "Stage::StageSm::handlePendingEvent(Kiv::String8)",
               "8 handleInitialized: void Stage::StageSm::handleInitialized() S",
               "8 handlePendingEvent: void Stage::StageSm::handlePendingEvent() S",
               "8 handlePendingEvent: S has 1 pendingEvents." } ) );
}

TEST_F( ProgressionTraces, TheCompletionCheckSaysThatItIsNotInitialised ) {
   auto const s = activeStage();
   s->initializedIs( false );
   EXPECT_EQ( tracedBy( [ & ] { s->handlePendingEvent(); } ),
              ( Lines{ "8 handlePendingEvent: void Stage::StageSm::handlePendingEvent() S",
                       "8 handlePendingEvent: Not initialized.  Return from void "
                       "Stage::StageSm::handlePendingEvent()" } ) );
}

TEST_F( ProgressionTraces, AnIncompleteEventThatIsNotPendingIsAdded ) {
   auto const s = activeStage();
   s->initializedIs( false );
   s->pendingEventDel( "S:a" );
   EXPECT_EQ(
      tracedBy( [ & ] { s->handleEventDel( "a" ); } ),
      ( Lines{ "8 handleEventDel: void Stage::StageSm::handleEventDel(Kiv::String8) S a",
               "8 handleEventDel: Incomplete event being added to pending events",
               "8 handlePendingEvent: void Stage::StageSm::handlePendingEvent(Kiv::String8) S:a",
               "8 handlePendingEvent: Not initialized.  Return from void "
               "Stage::StageSm::handlePendingEvent(Kiv::String8)" } ) );
}

TEST_F( ProgressionTraces, TheLastEventCompletesTheStage ) {
   auto const s = activeStage();
   event->completeIs( true );
   EXPECT_EQ(
      tracedBy( [ & ] { s->event( "a" )->handleComplete(); } ),
      ( Lines{ "8 handleComplete: void Stage::StageSm::KivEvent::handleComplete() S:a (stage: S, "
               "agent:a)",
               logLine + std::string( "  event S:a completed" ),
               "8 handlePendingEvent: void Stage::StageSm::handlePendingEvent(Kiv::String8) S:a",
               "8 handlePendingEvent: void Stage::StageSm::handlePendingEvent() S",
               logLine + std::string( "stage S is complete" ), asked } ) );
}

// ---- a stage's time is up

TEST_F( ProgressionTraces, ATimerThatFiresBeforeInitialisationIsIgnored ) {
   auto const s = activeStage();
   s->initializedIs( false );
   EXPECT_EQ( tracedBy( [ & ] { s->handleStageUncompleted(); } ),
              ( Lines{ "8 handleStageUncompleted: void Stage::StageSm::handleStageUncompleted() S",
                       "8 handleStageUncompleted:  not yet initialized; ignore initial handler for "
                       "timeout." } ) );
}

TEST_F( ProgressionTraces, AStageWhoseTimeIsUpNamesItsPendingEventsAndIsCompletedLateInTheEnd ) {
   auto const s = activeStage();
   EXPECT_EQ( tracedBy( [ & ] { s->handleStageUncompleted(); } ),
              ( Lines{ "8 handleStageUncompleted: void Stage::StageSm::handleStageUncompleted() S",
                       "8 handleStageUncompleted: S has 1 pendingEvents remaining",
                       "8 handleStageUncompleted:  Incomplete events:   S:a",
                       logLine + std::string( "stage S is complete (timeout)" ), asked } ) );
   s->initializedIs( false );
   s->pendingEventDelAll();
   s->initializedIs( true );
   EXPECT_EQ( tracedBy( [ & ] { s->handlePendingEvent(); } ),
              ( Lines{ "8 handlePendingEvent: void Stage::StageSm::handlePendingEvent() S",
                       "0 handlePendingEvent:  Stage S completed, but had previously timed out.",
                       logLine + std::string( "stage S is complete" ), asked } ) );
}

TEST_F( ProgressionTraces, ACriticalStageWhoseTimeIsUpTracesTheSuspension ) {
   auto const s = activeStage();
   newStage( "S" )->criticalIs( true );
   testing_support::MessageRecorder const messages; // keeps standard error quiet
   testing::internal::CaptureStdout();
   Lines const lines = tracedBy( [ & ] { s->handleStageUncompleted(); } );
   testing::internal::GetCapturedStdout();
   EXPECT_EQ( lines,
              ( Lines{ "8 handleStageUncompleted: void Stage::StageSm::handleStageUncompleted() S",
                       "8 handleStageUncompleted: S has 1 pendingEvents remaining",
                       "8 handleStageUncompleted:  Incomplete events:   S:a",
                       logLine + std::string( "stage S is complete (timeout)" ),
                       "0 handleStageUncompleted:  Critical stage S timed out! App suspended for "
                       "debugging." } ) );
}

} // namespace
} // namespace traces
