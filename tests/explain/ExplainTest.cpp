// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Every kind of reason and of root, on real state machines.
#include "ExplainTestSupport.h"

#include "../support/TraceRecorder.h"

#include <limits>

using namespace testing_support;
using Kiv::infinity;
using Kiv::Ptr;
using Stage::EventConfig;
using State = Explanation::State;

namespace {

// ------------------------------------------------------------------------------------------ events

TEST_F( ExplainTest, NothingIsUnfinishedWhenEverythingIsComplete ) {
   event( "A", "Boot" )->completeIs( true );
   start();
   EXPECT_TRUE( status->complete() );
   EXPECT_TRUE( explained().stage.empty() );
   EXPECT_TRUE( explained().root.empty() );
   EXPECT_TRUE( explained().enabled );
}

TEST_F( ExplainTest, AnIncompleteEventOfAnActiveStageIsARootForAllThatWaitForItsStage ) {
   event( "A", "Boot" );
   event( "B", "Boot" );
   event( "C", "Boot" )->completeIs( true );
   event( "B", "Net", { "Boot" } );
   event( "B", "Web", { "Net" } );
   event( "B", "Other" )->completeIs( true );
   start();
   auto const e = explained();
   EXPECT_EQ( stages( e ), ( Lines{ "Boot", "Net", "Web" } ) );
   EXPECT_EQ( roots( e ), ( Lines{ "events Boot 2" } ) );
   EXPECT_EQ( names( e, waitingFor( e, e.root[ 0 ] ) ), ( Lines{ "Net", "Web" } ) );
   auto const boot = stageOf( e, "Boot" );
   EXPECT_EQ( boot.state, State::active );
   EXPECT_EQ( uids( boot.event ), ( Lines{ "Boot:A of A", "Boot:B of B" } ) );
   EXPECT_TRUE( boot.dependency.empty() );
   auto const web = stageOf( e, "Web" );
   EXPECT_EQ( web.state, State::waiting );
   EXPECT_FALSE( web.heldBack );
   EXPECT_FALSE( web.cycle );
   ASSERT_EQ( web.dependency.size(), 1U );
   EXPECT_EQ( web.dependency[ 0 ].stage, "Net" );
   EXPECT_EQ( name( e, web.dependency[ 0 ].unfinished.value() ), "Net" );
   EXPECT_EQ( uids( web.dependency[ 0 ].by ), ( Lines{ "Web:B of B" } ) );
}

TEST_F( ExplainTest, ADependencyThatIsMetIsNoReason ) {
   event( "A", "Boot" )->completeIs( true );
   event( "A", "Disk" );
   event( "A", "Net", { "Boot", "Disk" } );
   start();
   auto const net = stageOf( explained(), "Net" );
   ASSERT_EQ( net.dependency.size(), 1U );
   EXPECT_EQ( net.dependency[ 0 ].stage, "Disk" );
}

TEST_F( ExplainTest, AStageThatWaitsForTwoRootsCountsForBoth ) {
   event( "A", "Boot" );
   event( "A", "Disk" );
   event( "A", "Net", { "Boot", "Disk" } );
   event( "A", "Fan", { "Disk" } );
   start();
   EXPECT_EQ( roots( explained() ), ( Lines{ "events Disk 2", "events Boot 1" } ) );
}

TEST_F( ExplainTest, RootsForWhichAsManyWaitAreInOrderOfTheirNames ) {
   for( auto name : { "C", "A", "B" } )
      event( "X", name );
   start();
   EXPECT_EQ( roots( explained() ), ( Lines{ "events A 0", "events B 0", "events C 0" } ) );
}

TEST_F( ExplainTest, AllDeclarersOfADependencyAreNamedAndNoOthers ) {
   event( "A", "Boot" );
   event( "A", "Net", { "Boot" } );
   event( "C", "Net", { "Boot" } );
   event( "B", "Net" );
   event( "D", "Net" )->dependencyIs( "Boot", false );
   start();
   EXPECT_EQ( uids( stageOf( explained(), "Net" ).dependency[ 0 ].by ),
              ( Lines{ "Net:A of A", "Net:C of C" } ) );
}

TEST_F( ExplainTest, AnEventThatTurnsIncompleteAfterItsStageCompletedIsNoReason ) {
   auto const boot = event( "A", "Boot" );
   event( "A", "Net", { "Boot" } );
   start();
   boot->completeIs( true );
   idle();
   boot->completeIs( false );
   idle();
   EXPECT_EQ( stages( explained() ), ( Lines{ "Net" } ) );
}

TEST_F( ExplainTest, APendingEntryWithoutItsEventIsNamedByItsUid ) {
   event( "A", "Boot" );
   start();
   sm->stageSm( "Boot" )->pendingEvent( "Boot:A" )->pendingEventIs( nullptr );
   EXPECT_EQ( uids( stageOf( explained(), "Boot" ).event ), ( Lines{ "Boot:A of A" } ) );
}

// ------------------------------------------------------------------------------------------ timing

TEST_F( ExplainTest, ATimerThatRunsIsToldAsItWasArmedAndWhenItGoesOn ) {
   auto const boot = event( "A", "Boot" );
   boot->timeoutIs( 30 );
   event( "A", "Net", { "Boot" } )->timeoutIs( 7 );
   start();
   pass( 12 );
   boot->timeoutIs( 60 );
   idle();
   auto const e = explained();
   EXPECT_EQ( e.now, 1012 );
   EXPECT_EQ( stageOf( e, "Boot" ).timeIsUp, 1030 );
   EXPECT_EQ( stageOf( e, "Boot" ).timeout, 60 );
   EXPECT_EQ( e.root[ 0 ].goesOnAt, 1030 );
   EXPECT_EQ( stageOf( e, "Net" ).timeIsUp, infinity ) << "its time does not run yet";
   EXPECT_EQ( stageOf( e, "Net" ).timeout, 7 );
   pass( 18 );
   EXPECT_EQ( stages( explained() ), ( Lines{ "Net" } ) );
   EXPECT_EQ( explained().root[ 0 ].goesOnAt, 1037 );
}

TEST_F( ExplainTest, ACriticalStageDoesNotGoOnWhenItsTimeIsUp ) {
   auto const boot = event( "A", "Boot", {}, true );
   boot->timeoutIs( 30 );
   start();
   auto const e = explained();
   EXPECT_TRUE( stageOf( e, "Boot" ).critical );
   EXPECT_EQ( stageOf( e, "Boot" ).timeIsUp, 1030 );
   EXPECT_EQ( e.root[ 0 ].goesOnAt, infinity );
   boot->criticalIs( false );
   idle();
   EXPECT_EQ( explained().root[ 0 ].goesOnAt, 1030 );
}

TEST_F( ExplainTest, AStageWithoutALimitOfTimeNeverGoesOnByItself ) {
   event( "A", "Boot" );
   event( "A", "Nan" )->timeoutIs( std::numeric_limits< double >::quiet_NaN() );
   start();
   for( auto const & root : explained().root ) {
      EXPECT_EQ( root.goesOnAt, infinity );
      EXPECT_EQ( stageOf( explained(), root.stage.charPtr() ).timeIsUp, infinity );
   }
}

TEST_F( ExplainTest, ASuspendedStageIsARootAlsoOnceItIsCriticalNoMore ) {
   auto const boot = event( "A", "Boot", {}, true );
   boot->timeoutIs( 5 );
   event( "B", "Net", { "Boot" } );
   start();
   testing::internal::CaptureStdout();
   pass( 6 );
   testing::internal::GetCapturedStdout();
   for( bool const critical : { true, false } ) {
      boot->criticalIs( critical );
      idle();
      auto const e = explained();
      EXPECT_EQ( stageOf( e, "Boot" ).state, State::suspended );
      EXPECT_EQ( stageOf( e, "Boot" ).critical, critical );
      EXPECT_EQ( stageOf( e, "Boot" ).timeIsUp, infinity );
      EXPECT_EQ( uids( stageOf( e, "Boot" ).event ), ( Lines{ "Boot:A of A" } ) );
      EXPECT_EQ( roots( e ), ( Lines{ "events Boot 1" } ) );
      EXPECT_EQ( e.root[ 0 ].goesOnAt, infinity );
   }
}

// -------------------------------------------------------------------------------------- undeclared

TEST_F( ExplainTest, AStageThatNobodyDeclaresIsARootWithWhoDependsOnIt ) {
   event( "A", "Net", { "Gone" } );
   event( "B", "Net", { "Gone" } );
   event( "C", "Net" );
   event( "B", "Web", { "Net" } );
   event( "B", "Mail", { "Gone", "Lost" } );
   start();
   auto const e = explained();
   EXPECT_EQ( roots( e ), ( Lines{ "undeclared Gone 3", "undeclared Lost 1" } ) );
   EXPECT_EQ( uids( e.root[ 0 ].by ), ( Lines{ "Mail:B of B", "Net:A of A", "Net:B of B" } ) );
   EXPECT_EQ( uids( e.root[ 1 ].by ), ( Lines{ "Mail:B of B" } ) );
   EXPECT_FALSE( stageOf( e, "Net" ).dependency[ 0 ].unfinished );
   EXPECT_EQ( names( e, waitingFor( e, e.root[ 0 ] ) ), ( Lines{ "Mail", "Net", "Web" } ) );
   EXPECT_EQ( names( e, waitingFor( e, e.root[ 1 ] ) ), ( Lines{ "Mail" } ) );
}

TEST_F( ExplainTest, AStageThatLostAllItsEventsIsKnown ) {
   event( "A", "Boot" );
   event( "B", "Net", { "Boot" } );
   start();
   agent( "A" )->eventDel( "Boot" );
   idle();
   EXPECT_EQ( roots( explained() ), ( Lines{ "events Net 0" } ) );
}

// ------------------------------------------------------------------------------------------ cycles

TEST_F( ExplainTest, ACycleIsOneRootWithAPathAndWhoDeclaresIt ) {
   event( "A", "X", { "Z" } );
   event( "B", "X", { "Z" } );
   event( "A", "Y", { "X" } );
   event( "C", "Z", { "Y" } );
   event( "D", "After", { "Y" } );
   start();
   auto const e = explained();
   EXPECT_EQ( roots( e ), ( Lines{ "cycle X,Y,Z 1" } ) );
   auto const & path = e.root[ 0 ].path;
   ASSERT_EQ( path.size(), 3U );
   EXPECT_EQ( name( e, path[ 0 ].stage ), "X" );
   EXPECT_EQ( name( e, path[ 1 ].stage ), "Z" );
   EXPECT_EQ( name( e, path[ 2 ].stage ), "Y" );
   EXPECT_EQ( uids( path[ 0 ].by ), ( Lines{ "X:A of A", "X:B of B" } ) );
   EXPECT_EQ( uids( path[ 1 ].by ), ( Lines{ "Z:C of C" } ) );
   EXPECT_EQ( uids( path[ 2 ].by ), ( Lines{ "Y:A of A" } ) );
   for( auto name : { "X", "Y", "Z" } )
      EXPECT_EQ( stageOf( e, name ).cycle, 0U );
   EXPECT_FALSE( stageOf( e, "After" ).cycle );
   EXPECT_EQ( names( e, waitingFor( e, e.root[ 0 ] ) ), ( Lines{ "After" } ) );
}

TEST_F( ExplainTest, AStageThatDependsOnItselfIsACycleOfOne ) {
   event( "A", "Self", { "Self" } );
   start();
   auto const e = explained();
   EXPECT_EQ( roots( e ), ( Lines{ "cycle Self 0" } ) );
   ASSERT_EQ( e.root[ 0 ].path.size(), 1U );
   EXPECT_EQ( uids( e.root[ 0 ].path[ 0 ].by ), ( Lines{ "Self:A of A" } ) );
}

TEST_F( ExplainTest, CyclesThatShareAStageAreOneRootWithAShortestPath ) {
   event( "A", "M", { "N", "P" } );
   event( "A", "N", { "O" } );
   event( "A", "O", { "M" } );
   event( "A", "P", { "M" } );
   start();
   auto const e = explained();
   EXPECT_EQ( roots( e ), ( Lines{ "cycle M,N,O,P 0" } ) );
   ASSERT_EQ( e.root[ 0 ].path.size(), 2U );
   EXPECT_EQ( name( e, e.root[ 0 ].path[ 1 ].stage ), "P" );
}

TEST_F( ExplainTest, ACycleThatLeadsToAnotherIsAnotherRoot ) {
   event( "A", "A1", { "A2", "B1" } );
   event( "A", "A2", { "A1" } );
   event( "A", "B1", { "B2" } );
   event( "A", "B2", { "B1" } );
   start();
   auto const e = explained();
   EXPECT_EQ( roots( e ), ( Lines{ "cycle B1,B2 2", "cycle A1,A2 0" } ) );
   EXPECT_EQ( stageOf( e, "A1" ).cycle, 1U );
   EXPECT_EQ( stageOf( e, "B2" ).cycle, 0U );
}

// --------------------------------------------------------------------------------- critical stages

TEST_F( ExplainTest, AStageThatIsHeldBackWaitsForWhatTheCriticalOnesWaitFor ) {
   event( "A", "Boot" );
   event( "A", "Vital", { "Boot" }, true );
   event( "B", "Free" );
   event( "B", "Late", { "Free" } );
   start();
   auto const e = explained();
   EXPECT_EQ( names( e, e.critical ), ( Lines{ "Vital" } ) );
   EXPECT_TRUE( stageOf( e, "Free" ).heldBack );
   EXPECT_TRUE( stageOf( e, "Free" ).dependency.empty() );
   EXPECT_FALSE( stageOf( e, "Vital" ).heldBack );
   EXPECT_EQ( roots( e ), ( Lines{ "events Boot 3" } ) );
}

TEST_F( ExplainTest, AnActiveStageIsNotHeldBack ) {
   auto const free = event( "B", "Free" );
   start();
   event( "A", "Vital", { "Gone" }, true );
   idle();
   auto const e = explained();
   EXPECT_FALSE( stageOf( e, "Free" ).heldBack );
   EXPECT_EQ( roots( e ), ( Lines{ "undeclared Gone 1", "events Free 0" } ) );
}

// Written by hand: aggregation makes critical what a critical stage depends on.
TEST_F( ExplainTest, ACriticalStageThatDependsOnWhatItHoldsBackIsACycle ) {
   status->stageIs( "Common" );
   status->stageIs( "Vital" )->criticalIs( true );
   status->stage( "Vital" )->dependencyIs( "Common", true );
   status->stageIs( "Other" );
   sm = manager->statusSmIs( "App", config, status, progress, log );
   idle();
   auto const e = explained();
   EXPECT_EQ( roots( e ), ( Lines{ "cycle Common,Vital 1" } ) );
   auto const & path = e.root[ 0 ].path;
   ASSERT_EQ( path.size(), 2U );
   EXPECT_TRUE( path[ 0 ].heldBack );
   EXPECT_FALSE( path[ 1 ].heldBack );
   EXPECT_TRUE( path[ 1 ].by.empty() );
   EXPECT_FALSE( stageOf( e, "Other" ).cycle );
}

// --------------------------------------------------------------------------- enabled and decisions

TEST_F( ExplainTest, ProgressionThatIsNotEnabledIsARootBesidesTheOthers ) {
   config->enabledIs( false );
   event( "A", "Boot", { "Gone" } );
   event( "A", "Net" );
   start();
   auto const e = explained();
   EXPECT_FALSE( e.enabled );
   EXPECT_EQ( roots( e ), ( Lines{ "disabled  2", "undeclared Gone 1" } ) );
   config->enabledIs( true );
   idle();
   EXPECT_EQ( roots( explained() ), ( Lines{ "undeclared Gone 1", "events Net 0" } ) );
}

TEST_F( ExplainTest, DisablingWhatHasBegunIsNoReason ) {
   event( "A", "Boot" );
   start();
   config->enabledIs( false );
   idle();
   EXPECT_TRUE( explained().enabled );
   EXPECT_EQ( roots( explained() ), ( Lines{ "events Boot 0" } ) );
}

TEST_F( ExplainTest, ProgressionThatIsNotEnabledIsARootWithoutStagesToo ) {
   config->enabledIs( false );
   start();
   EXPECT_EQ( roots( explained() ), ( Lines{ "disabled  0" } ) );
}

TEST_F( ExplainTest, AStageThatLacksNothingWaitsForADecisionThatNobodyAskedFor ) {
   event( "A", "Boot" )->completeIs( true );
   start();
   event( "B", "Late" );
   event( "B", "Later", { "Boot" } );
   event( "B", "Last", { "Late" } );
   idle();
   auto const e = explained();
   EXPECT_EQ( roots( e ), ( Lines{ "decision Late,Later 1" } ) );
   EXPECT_EQ( e.root[ 0 ].goesOnAt, infinity );
   sm->doNextStage();
   EXPECT_EQ( explained().root[ 0 ].goesOnAt, clock->now() );
   EXPECT_EQ( explained().nextDecision, clock->now() );
   idle();
   EXPECT_EQ( roots( explained() ), ( Lines{ "events Late 1", "events Later 0" } ) );
   EXPECT_EQ( explained().nextDecision, infinity );
}

TEST_F( ExplainTest, AStageThatWasActiveBeforeProgressionIsNotTracked ) {
   event( "A", "Boot" );
   event( "A", "Net", { "Boot" } );
   manager->configSmIs( config, status, dir );
   idle();
   status->activeStageIs( status->stage( "Boot" ) );
   idle();
   start();
   auto const e = explained();
   EXPECT_EQ( stageOf( e, "Boot" ).state, State::untracked );
   EXPECT_EQ( roots( e ), ( Lines{ "untracked Boot 1" } ) );
}

TEST_F( ExplainTest, AStageThatIsNoLongerActiveWaitsAgain ) {
   event( "A", "Boot" )->completeIs( true );
   start();
   status->activeStageDel( "Boot" );
   idle();
   EXPECT_EQ( stageOf( explained(), "Boot" ).state, State::waiting );
   EXPECT_EQ( roots( explained() ), ( Lines{ "decision Boot 0" } ) );
}

TEST_F( ExplainTest, AMachineWithoutStatusOrConfigurationHasNothingToExplain ) {
   event( "A", "Boot" );
   start();
   sm->configDel();
   EXPECT_EQ( roots( explained() ), ( Lines{ "events Boot 0" } ) );
   sm->statusDel();
   EXPECT_TRUE( explained().stage.empty() );
   EXPECT_TRUE( explained().root.empty() || roots( explained() ) == Lines{ "disabled  0" } );
}

// ------------------------------------------------------------------------------------- as a whole

TEST_F( ExplainTest, AskingChangesNothingAndQueuesNothing ) {
   event( "A", "Boot" )->timeoutIs( 10 );
   event( "A", "Net", { "Boot", "Gone" } );
   event( "A", "X", { "Y" } );
   event( "A", "Y", { "X" } );
   start();
   TraceRecorder const traces;
   double const next = Kiv::activityManager()->nextTime();
   auto const logs = log->logs();
   for( int i = 0; i != 3; ++i ) {
      EXPECT_EQ( roots( explained() ).size(), 3U );
      EXPECT_EQ( waitingFor( explained(), explained().root[ 0 ] ).size(),
                 explained().root[ 0 ].waiting );
   }
   EXPECT_TRUE( Kiv::activityManager()->idle() );
   EXPECT_EQ( Kiv::activityManager()->nextTime(), next );
   EXPECT_EQ( log->logs(), logs );
   EXPECT_FALSE( sm->needRecalculateNextStage() );
   EXPECT_TRUE( traces.lines().empty() );
}

// More than 64 of them: they are counted in groups.
TEST_F( ExplainTest, TwoHundredRootsAreCountedEach ) {
   for( int i = 0; i != 200; ++i ) {
      std::string const number = std::to_string( 1000 + i );
      event( "A", ( "Root" + number ).c_str() );
      for( int j = 0; j <= i; j += 20 )
         event( "A", ( "W" + number + "." + std::to_string( j ) ).c_str(), { "Root" + number } );
   }
   start();
   auto const e = explained();
   ASSERT_EQ( e.root.size(), 200U );
   for( auto const & root : e.root ) {
      int const i = std::stoi( root.stage.str().substr( 4 ) ) - 1000;
      EXPECT_EQ( root.waiting, static_cast< unsigned >( i / 20 + 1 ) ) << root.stage;
      EXPECT_EQ( waitingFor( e, root ).size(), root.waiting );
   }
   EXPECT_EQ( e.root.front().stage, "Root1180" );
   EXPECT_EQ( e.root.back().stage, "Root1019" );
}

// The stages are written by hand, to be quick.
TEST_F( ExplainTest, AChainAndACycleOfAHundredThousandStagesNeedNoDeepStack ) {
   int constexpr length = 100000;
   for( int i = 0; i != length; ++i )
      status->stageIs( "S" + std::to_string( i ) )
         ->dependencyIs( "S" + std::to_string( i + 1 ), true );
   sm = manager->statusSmIs( "App", config, status, progress, log );
   idle();
   auto const chain = explained();
   EXPECT_EQ( roots( chain ), ( Lines{ "undeclared S100000 100000" } ) );
   EXPECT_EQ( Stage::explain( *sm, "S0" ).stage.size(), 100000U );
   EXPECT_EQ( Stage::explain( *sm, "S99999" ).stage.size(), 1U );
   status->stageIs( "S100000" )->dependencyIs( "S0", true );
   idle();
   auto const cycle = explained();
   ASSERT_EQ( cycle.root.size(), 1U );
   EXPECT_EQ( cycle.root[ 0 ].of.size(), 100001U );
   EXPECT_EQ( cycle.root[ 0 ].path.size(), 100001U );
   EXPECT_LT( causes( cycle )[ 0 ].size(), 2000U );
}

} // namespace
