// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Small start-ups from the first declaration to the last entry of the log.
#include "../support/Invariants.h"
#include "ProgressionTest.h"

#include <algorithm>
#include <optional>

using namespace testing_support;
using Kiv::Ptr;

namespace {

class StartUpTest : public ProgressionTest {
 protected:
   StartUpTest() {
      config->agentDirIs( dir );
      config->enabledIs( true );
   }
   // Begins with what is declared so far.
   void begin() {
      manager->configSmIs( config, status, dir );
      always.emplace( status, manager->statusSmIs( "App", config, status, progress, log ),
                      progress );
      idle();
   }
   void TearDown() override {
      if( always )
         EXPECT_EQ( always->broken(), "" );
   }
   // As in a World, with a look at what must always hold after every step.
   void idle() { always ? always->settle() : World::idle(); }
   void pass( double seconds ) {
      double const end = clock->now() + seconds;
      idle();
      for( double next; ( next = Kiv::activityManager()->nextTime() ) <= end; idle() )
         clock->nowIs( std::max( next, clock->now() ) );
      clock->nowIs( end );
   }
   // At `time`, which has not come yet, the event completes.
   void completes( double time, Ptr< Stage::EventConfig > const & event ) {
      pass( time - clock->now() );
      event->completeIs( true );
      idle();
   }

   Ptr< Stage::Ordovan > manager = Stage::Ordovan::OrdovanIs( "manager" );
   MessageRecorder messages;
   std::optional< Invariants > always; // once it has begun
};

} // namespace

TEST_F( StartUpTest, TwoStagesOneAfterTheOther ) {
   auto const a = declare( "a", "A", {}, 60 );
   auto const b = declare( "b", "B", { "A" }, 60 );
   begin();
   completes( 1010, a );
   EXPECT_FALSE( status->complete() );
   completes( 1025.5, b );
   EXPECT_EQ( logged(), ( Lines{
                           "1000 Stage progression started",
                           "1000 stage A started",
                           "1000   event A:a started",
                           "1010   event A:a completed",
                           "1010 stage A is complete",
                           "1010 stage B started",
                           "1010   event B:b started",
                           "1025.5   event B:b completed",
                           "1025.5 stage B is complete",
                           "1025.5 Stage progression is complete",
                        } ) );
   EXPECT_TRUE( status->complete() );
   EXPECT_EQ( status->activeStages(), 2U );
   EXPECT_EQ( progress->stages(), 2U );
   pass( 1000 );
   EXPECT_EQ( logged(), Lines() );
   EXPECT_EQ( messages.lines, Lines() );
}

TEST_F( StartUpTest, AStageOfTwoAgentsWaitsForBoth ) {
   auto const a1 = declare( "a1", "A", {}, 60 );
   auto const a2 = declare( "a2", "A", {}, 60 );
   auto const b = declare( "a1", "B", { "A" }, 60 );
   begin();
   auto lines = logged();
   ASSERT_EQ( lines.size(), 4U );
   std::sort( lines.begin() + 2, lines.end() );
   EXPECT_EQ( lines, ( Lines{ "1000 Stage progression started", "1000 stage A started",
                              "1000   event A:a1 started", "1000   event A:a2 started" } ) );
   completes( 1003, a2 );
   EXPECT_EQ( logged(), ( Lines{ "1003   event A:a2 completed" } ) );
   completes( 1007, a1 );
   completes( 1008, b );
   EXPECT_EQ( logged(), ( Lines{ "1007   event A:a1 completed", "1007 stage A is complete",
                                 "1007 stage B started", "1007   event B:a1 started",
                                 "1008   event B:a1 completed", "1008 stage B is complete",
                                 "1008 Stage progression is complete" } ) );
}

TEST_F( StartUpTest, ACriticalChainHoldsBackAStageThatNothingElseHolds ) {
   auto const base = declare( "a", "Base", {}, 60 );
   auto const top = declare( "b", "Top", { "Base" }, 60, true );
   auto const free = declare( "c", "Free", {}, 60 );
   begin();
   EXPECT_TRUE( status->stage( "Base" )->critical() );
   completes( 1004, base );
   completes( 1009, top );
   completes( 1011, free );
   EXPECT_EQ( logged(), ( Lines{
                           "1000 Stage progression started",
                           "1000 stage Base started",
                           "1000   event Base:a started",
                           "1004   event Base:a completed",
                           "1004 stage Base is complete",
                           "1004 stage Top started",
                           "1004   event Top:b started",
                           "1009   event Top:b completed",
                           "1009 stage Top is complete",
                           "1009 stage Free started",
                           "1009   event Free:c started",
                           "1011   event Free:c completed",
                           "1011 stage Free is complete",
                           "1011 Stage progression is complete",
                        } ) );
}

TEST_F( StartUpTest, AStageThatTurnsCriticalWhileItWaitsIsNotHeldBackAnyLonger ) {
   auto const top = declare( "a", "Top", { "Missing" }, 60, true );
   auto const free = declare( "b", "Free", {}, 60 );
   begin();
   EXPECT_EQ( logged(), ( Lines{ "1000 Stage progression started" } ) );
   pass( 2 );
   free->criticalIs( true );
   idle();
   EXPECT_EQ( logged(), ( Lines{ "1002 stage Free started", "1002   event Free:b started" } ) );
   top->dependencyDel( "Missing" );
   idle();
   EXPECT_EQ( logged(), ( Lines{ "1002 stage Top started", "1002   event Top:a started" } ) );
}

TEST_F( StartUpTest, ATimeoutLetsTheNextStageStartAndTheLateCompletionIsLoggedToo ) {
   auto const slow = declare( "a", "Slow", {}, 5 );
   auto const next = declare( "b", "Next", { "Slow" }, 60 );
   begin();
   completes( 1008, slow );
   completes( 1010, next );
   EXPECT_EQ( logged(), ( Lines{
                           "1000 Stage progression started",
                           "1000 stage Slow started",
                           "1000   event Slow:a started",
                           "1005 stage Slow is complete (timeout)",
                           "1005 stage Next started",
                           "1005   event Next:b started",
                           "1008   event Slow:a completed",
                           "1008 stage Slow is complete",
                           "1010   event Next:b completed",
                           "1010 stage Next is complete",
                           "1010 Stage progression is complete",
                        } ) );
   EXPECT_EQ( messages.lines, Lines() );
}

TEST_F( StartUpTest, ALateCompletionAfterTheEndRecordsTheEndAgain ) {
   auto const slow = declare( "a", "Slow", {}, 5 );
   begin();
   completes( 1008, slow );
   EXPECT_EQ( logged(), ( Lines{
                           "1000 Stage progression started",
                           "1000 stage Slow started",
                           "1000   event Slow:a started",
                           "1005 stage Slow is complete (timeout)",
                           "1005 Stage progression is complete",
                           "1008   event Slow:a completed",
                           "1008 stage Slow is complete",
                           "1008 Stage progression is complete",
                        } ) );
}

TEST_F( StartUpTest, ASlowCriticalStageSuspendsProgressionAndItsCompletionLiftsThat ) {
   auto const slow = declare( "a", "S", {}, 5, true );
   auto const next = declare( "b", "Next", { "S" }, 60 );
   begin();
   testing::internal::CaptureStdout();
   pass( 20 );
   EXPECT_EQ( testing::internal::GetCapturedStdout(), suspensionLine );
   EXPECT_EQ( messages.lines, ( Lines{ slowMessage } ) );
   EXPECT_FALSE( status->activeStage( "Next" ) );
   completes( 1030, slow );
   completes( 1031, next );
   EXPECT_EQ( messages.lines, ( Lines{ slowMessage, lateMessage } ) );
   EXPECT_EQ( messages.messages[ 0 ].time, 1005 );
   EXPECT_EQ( messages.messages[ 1 ].time, 1030 );
   EXPECT_EQ( logged(), ( Lines{
                           "1000 Stage progression started",
                           "1000 stage S started",
                           "1000   event S:a started",
                           "1005 stage S is complete (timeout)",
                           "1030   event S:a completed",
                           "1030 stage S is complete",
                           "1030 stage Next started",
                           "1030   event Next:b started",
                           "1031   event Next:b completed",
                           "1031 stage Next is complete",
                           "1031 Stage progression is complete",
                        } ) );
}

TEST_F( StartUpTest, ALateAgentIsWaitedForByAStageThatIsActive ) {
   auto const a = declare( "a", "A", {}, 60 );
   begin();
   pass( 3 );
   auto const late = declare( "late", "A", {}, 60 );
   idle();
   completes( 1005, a );
   completes( 1006, late );
   EXPECT_EQ( logged(), ( Lines{
                           "1000 Stage progression started",
                           "1000 stage A started",
                           "1000   event A:a started",
                           "1003   event A:late started",
                           "1005   event A:a completed",
                           "1006   event A:late completed",
                           "1006 stage A is complete",
                           "1006 Stage progression is complete",
                        } ) );
}

TEST_F( StartUpTest, ALateAgentsNewStageIsFoundByTheNextDecision ) {
   auto const a = declare( "a", "A", {}, 60 );
   begin();
   pass( 3 );
   auto const late = declare( "late", "New", {}, 60 );
   idle();
   EXPECT_EQ( manager->statusSm()->stageEnableSms(), 0U );
   completes( 1005, a );
   completes( 1009, late );
   EXPECT_EQ( logged(), ( Lines{
                           "1000 Stage progression started",
                           "1000 stage A started",
                           "1000   event A:a started",
                           "1005   event A:a completed",
                           "1005 stage A is complete",
                           "1005 stage New started",
                           "1005   event New:late started",
                           "1009   event New:late completed",
                           "1009 stage New is complete",
                           "1009 Stage progression is complete",
                        } ) );
}

TEST_F( StartUpTest, ALateAgentOfACompleteStageIsLoggedAndHoldsUpNobody ) {
   auto const a = declare( "a", "A", {}, 60 );
   auto const b = declare( "b", "B", { "A" }, 60 );
   begin();
   completes( 1002, a );
   logged();
   auto const late = declare( "late", "A", {}, 60 );
   idle();
   completes( 1004, b );
   completes( 1006, late );
   EXPECT_EQ( logged(), ( Lines{
                           "1002   event A:late started",
                           "1004   event B:b completed",
                           "1004 stage B is complete",
                           "1004 Stage progression is complete",
                           "1006   event A:late completed",
                           "1006 stage A is complete",
                           "1006 Stage progression is complete",
                        } ) );
}

TEST_F( StartUpTest, AnEventWithdrawnWhilePendingCompletesItsStage ) {
   declare( "a", "A", {}, 60 );
   auto const b = declare( "b", "B", { "A" }, 60 );
   begin();
   pass( 4 );
   agent( "a" )->eventDel( "A" );
   idle();
   completes( 1006, b );
   EXPECT_EQ( logged(), ( Lines{
                           "1000 Stage progression started",
                           "1000 stage A started",
                           "1000   event A:a started",
                           "1004 stage A is complete",
                           "1004 stage B started",
                           "1004   event B:b started",
                           "1006   event B:b completed",
                           "1006 stage B is complete",
                           "1006 Stage progression is complete",
                        } ) );
}

TEST_F( StartUpTest, AnAgentThatLeavesTakesItsPendingEventsAlong ) {
   declare( "a", "A", {}, 60 );
   auto const b = declare( "b", "A", {}, 60 );
   begin();
   logged();
   dir->entityPtrDel( "a" );
   idle();
   EXPECT_EQ( logged(), Lines() );
   completes( 1001, b );
   EXPECT_EQ( logged(), ( Lines{ "1001   event A:b completed", "1001 stage A is complete",
                                 "1001 Stage progression is complete" } ) );
}

TEST_F( StartUpTest, AWithdrawnDependencyReleasesAWaitingStage ) {
   auto const b = declare( "b", "B", { "A", "Missing" }, 60 );
   auto const a = declare( "a", "A", {}, 60 );
   begin();
   completes( 1002, a );
   logged();
   pass( 1 );
   b->dependencyDel( "Missing" );
   idle();
   completes( 1005, b );
   EXPECT_EQ( logged(), ( Lines{ "1003 stage B started", "1003   event B:b started",
                                 "1005   event B:b completed", "1005 stage B is complete",
                                 "1005 Stage progression is complete" } ) );
}

TEST_F( StartUpTest, AnAgentThatIsDoneBeforeItsStageStartsHoldsUpNothing ) {
   auto const a = declare( "a", "A", {}, 60 );
   auto const b = declare( "b", "B", { "A" }, 60 );
   b->completeIs( true );
   begin();
   completes( 1002, a );
   EXPECT_EQ( logged(), ( Lines{
                           "1000 Stage progression started",
                           "1000 stage A started",
                           "1000   event A:a started",
                           "1002   event A:a completed",
                           "1002 stage A is complete",
                           "1002 stage B started",
                           "1002   event B:b completed",
                           "1002 stage B is complete",
                           "1002 Stage progression is complete",
                        } ) );
}

TEST_F( StartUpTest, TheOrderInWhichTheTwoStateMachinesAreMadeChangesNothing ) {
   auto const a = declare( "a", "A", {}, 60 );
   config->enabledIs( false );
   manager->statusSmIs( "App", config, status, progress, log );
   manager->configSmIs( config, status, dir );
   idle();
   config->enabledIs( true );
   idle();
   completes( 1002, a );
   EXPECT_EQ( logged(), ( Lines{
                           "1000 Stage progression started",
                           "1000 stage A started",
                           "1000   event A:a started",
                           "1002   event A:a completed",
                           "1002 stage A is complete",
                           "1002 Stage progression is complete",
                        } ) );
}

TEST_F( StartUpTest, TwoApplicationsWalkTheirOwnStatusEach ) {
   auto const a = declare( "a", "A", {}, 60 );
   auto const other = Stage::Status::StatusIs( "other" );
   auto const otherLog = Stage::Log::LogIs( "otherLog" );
   auto const otherProgress = Stage::Progress::ProgressIs( "otherProgress" );
   auto const otherManager = Stage::Ordovan::OrdovanIs( "otherManager" );
   begin();
   otherManager->configSmIs( config, other, dir );
   otherManager->statusSmIs( "Other", config, other, otherProgress, otherLog );
   idle();
   always.reset(); // which holds the StatusSm, too
   manager->statusSmDel();
   completes( 1001, a );
   EXPECT_FALSE( status->complete() );
   EXPECT_TRUE( other->complete() );
   EXPECT_TRUE( otherProgress->stage( "A" ) );
}
