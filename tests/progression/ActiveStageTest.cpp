// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// What happens when a stage enters the active stages.
#include "../support/AtTrace.h"
#include "ProgressionTest.h"

using namespace testing_support;
using Kiv::Ptr;

namespace {

class ActiveStageTest : public ProgressionTest {
 protected:
   static std::string signature( char const * name ) {
      return std::string( "void Stage::StatusSm::handleActiveStage(Kiv::String) " ) + name;
   }
   static std::string replacing( char const * name ) {
      return std::string( "Replacing Stage Enable Sm with Stage Sm for " ) + name;
   }
};

} // namespace

TEST_F( ActiveStageTest, AnActivatedStageGetsItsStageSmInPlaceOfItsStageEnableSm ) {
   newEvent( "A", "a" );
   newStage( "B", { "A" } );
   config->enabledIs( true );
   make();
   Ptr< Stage::StageEnableSm > const waited = sm->stageEnableSm( "A" );
   TraceRecorder trace;
   fire();
   EXPECT_FALSE( sm->stageSm( "A" ) );
   trace.clear();
   deliver();
   auto const lines = trace.taken();
   ASSERT_GE( lines.size(), 2U );
   EXPECT_EQ( lines[ 0 ], signature( "A" ) );
   EXPECT_EQ( lines[ 1 ], replacing( "A" ) );
   ASSERT_TRUE( sm->stageSm( "A" ) );
   EXPECT_EQ( sm->stageSms(), 1U );
   EXPECT_EQ( sm->stageSm( "A" )->stage(), status->stage( "A" ) );
   EXPECT_EQ( sm->stageSm( "A" )->logSm(), sm->logSm() );
   EXPECT_TRUE( sm->stageSm( "A" )->hasNotificationActive() );
   EXPECT_FALSE( sm->stageEnableSm( "A" ) );
   EXPECT_TRUE( waited->kivMarkedForDeletion() );
   EXPECT_TRUE( sm->stageEnableSm( "B" ) ) << "the others stay";
   EXPECT_EQ( progressed(), ( Lines{ "A=true" } ) );
}

TEST_F( ActiveStageTest, TheStageEnableSmGoesBeforeTheStageSmIsMade ) {
   newEvent( "A", "a" );
   config->enabledIs( true );
   make();
   fire();
   ASSERT_TRUE( sm->stageEnableSm( "A" ) );
   AtTrace const moment( "void Stage::StageSm::handleInitialized() A", [ & ] {
      EXPECT_FALSE( sm->stageEnableSm( "A" ) );
      EXPECT_FALSE( progress->stage( "A" ) );
   } );
   deliver();
   EXPECT_TRUE( moment.happened() );
   EXPECT_TRUE( progress->stage( "A" ) );
}

TEST_F( ActiveStageTest, TheReplacedStageEnableSmReactsNoMore ) {
   newEvent( "A", "a" );
   start();
   ASSERT_FALSE( sm->stageEnableSm( "A" ) );
   TraceRecorder trace;
   status->stage( "A" )->criticalIs( true );
   idle();
   EXPECT_EQ( trace.count( decisionAsked ), 0U );
}

TEST_F( ActiveStageTest, ProgressIsRecordedRightAfterTheStageSmIsMadeAlsoForACompleteStage ) {
   newStage( "A" );
   start();
   EXPECT_TRUE( sm->stageSm( "A" )->complete() );
   EXPECT_EQ( progressed(), ( Lines{ "A=true" } ) );
}

TEST_F( ActiveStageTest, CompletionChangesNothingInProgress ) {
   auto const a = newEvent( "A", "a" );
   start();
   progress->stageIs( "A", false );
   a->completeIs( true );
   idle();
   EXPECT_EQ( progressed(), ( Lines{ "A=false" } ) );
}

TEST_F( ActiveStageTest, AStageIsReplacedOnce ) {
   newEvent( "A", "a" );
   start();
   auto const held = stageSm( "A" );
   progress->stageIs( "A", false );
   texts();
   TraceRecorder trace;
   sm->handleActiveStage( "A" );
   EXPECT_EQ( trace.taken(), ( Lines{ signature( "A" ) } ) );
   EXPECT_EQ( stageSm( "A" ), held );
   EXPECT_EQ( progressed(), ( Lines{ "A=false" } ) ) << "progress is written again";
   EXPECT_EQ( texts(), Lines() );
}

TEST_F( ActiveStageTest, AStageThatHasLeftAgainGetsNothing ) {
   newStage( "A", { "Nowhere" } );
   start();
   status->activeStageIs( status->stage( "A" ) );
   status->activeStageDel( "A" );
   TraceRecorder trace;
   idle();
   EXPECT_EQ( trace.taken(), ( Lines{ signature( "A" ) } ) );
   EXPECT_FALSE( sm->stageSm( "A" ) );
   EXPECT_TRUE( sm->stageEnableSm( "A" ) );
   EXPECT_EQ( progressed(), Lines() );
}

TEST_F( ActiveStageTest, AStageThatLeavesLaterKeepsItsStageSm ) {
   auto const a = newEvent( "A", "a" );
   start();
   auto const held = stageSm( "A" );
   status->activeStageDel( "A" );
   idle();
   EXPECT_EQ( stageSm( "A" ), held );
   EXPECT_EQ( progressed(), ( Lines{ "A=true" } ) );
   texts();
   a->completeIs( true );
   deliver();
   EXPECT_EQ( texts(), ( Lines{ "  event A:a completed", "stage A is complete" } ) )
      << "it does not react any more";
}

TEST_F( ActiveStageTest, AStageThatNeverHadAStageEnableSmGetsItsStageSm ) {
   newStage( "A", { "Nowhere" } );
   start();
   newEvent( "Late", "l" );
   ASSERT_FALSE( sm->stageEnableSm( "Late" ) );
   TraceRecorder trace;
   status->activeStageIs( status->stage( "Late" ) );
   idle();
   EXPECT_TRUE( trace.count( replacing( "Late" ) ) );
   EXPECT_TRUE( sm->stageSm( "Late" ) );
   EXPECT_TRUE( sm->stageEnableSm( "A" ) );
   EXPECT_EQ( progressed(), ( Lines{ "Late=true" } ) );
}

TEST_F( ActiveStageTest, BeforeInitialisationANotificationOnlyTraces ) {
   newStage( "A" );
   make();
   sm->initializedIs( false );
   status->activeStageIs( status->stage( "A" ) );
   TraceRecorder trace;
   idle();
   EXPECT_EQ( trace.taken(),
              ( Lines{ signature( "A" ),
                       "Not initialized.  Return from void "
                       "Stage::StatusSm::handleActiveStage(Kiv::String) for stage A" } ) );
   EXPECT_FALSE( sm->stageSm( "A" ) );
   EXPECT_EQ( progressed(), Lines() );
   // The next notification picks it up.
   sm->initializedIs( true );
   status->activeStageDel( "A" );
   status->activeStageIs( status->stage( "A" ) );
   idle();
   EXPECT_TRUE( sm->stageSm( "A" ) );
}

TEST_F( ActiveStageTest, AllActiveStagesAreHandledInTheOrderOfTheirCollection ) {
   make();
   for( char const * name : { "A", "B", "C" } )
      newEvent( name, "a" );
   newEvent( "Idle", "a" );
   sm->kivStatus()->kivDoZombieReactors( true );
   for( char const * name : { "A", "B", "C" } )
      status->activeStageIs( status->stage( name ) );
   TraceRecorder trace;
   sm->handleActiveStage();
   Lines expected{ "void Stage::StatusSm::handleActiveStage()" };
   for( auto i = status->activeStageIteratorConst(); i; ++i ) {
      expected.push_back( signature( i.key().charPtr() ) );
      expected.push_back( replacing( i.key().charPtr() ) );
   }
   Lines handled;
   for( auto const & text : trace.taken() )
      if( text.find( "Stage::StatusSm::handleActiveStage" ) != std::string::npos ||
          text.rfind( "Replacing", 0 ) == 0 )
         handled.push_back( text );
   EXPECT_EQ( handled, expected );
   EXPECT_EQ( sm->stageSms(), 3U );
   EXPECT_FALSE( sm->stageSm( "Idle" ) );
   EXPECT_EQ( progress->stages(), 3U );
}

TEST_F( ActiveStageTest, BeforeInitialisationAllActiveStagesAreLeftAlone ) {
   newStage( "A" );
   make();
   sm->initializedIs( false );
   status->activeStageIs( status->stage( "A" ) );
   TraceRecorder trace;
   sm->handleActiveStage();
   EXPECT_EQ( trace.taken(), ( Lines{ "void Stage::StatusSm::handleActiveStage()",
                                      "Not initialized.  Return from "
                                      "void Stage::StatusSm::handleActiveStage()" } ) );
   EXPECT_EQ( sm->stageSms(), 0U );
}

TEST_F( ActiveStageTest, WithoutAProgressTheNotificationFailsAndTheLoopGoesOn ) {
   config->enabledIs( true );
   newEvent( "A", "a" );
   newEvent( "B", "b" );
   sm = new Stage::StatusSm( "App", config, status, nullptr, log );
   sm->hasNotificationActiveIs( true );
   testing::internal::CaptureStderr();
   idle();
   auto const reported = testing::internal::GetCapturedStderr();
   EXPECT_NE( reported.find( "null ValidPtr" ), std::string::npos );
   EXPECT_TRUE( sm->stageSm( "A" ) );
   EXPECT_TRUE( sm->stageSm( "B" ) ) << "the loop stopped at the first";
   EXPECT_EQ( sm->stageEnableSms(), 0U );
}
