// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include "EngineTestSupport.h"

#include <algorithm>
#include <limits>
#include <stdexcept>

#include <Kiv/Kiv.h>
#include <gtest/gtest.h>

namespace {

using namespace Simulation;

bool has( Lines const & lines, std::string const & line ) {
   return std::find( lines.begin(), lines.end(), line ) != lines.end();
}

TEST( Engine, AStageIsActiveAtOnceAndCompleteWhenItsAgentReports ) {
   EXPECT_EQ(
      logOf( planOf( { agent( "Platform", { event( "Boot", after( 2.5 ) ) } ) } ) ),
      ( Lines{ "0 Stage progression started", "0 stage Boot started",
               "0   event Boot:Platform started", "2.5   event Boot:Platform completed",
               "2.5 stage Boot is complete", "2.5 Stage progression is complete", "end" } ) );
}

TEST( Engine, InsideACallbackOfTheActivityARunIsRefusedAndNothingHasHappened ) {
   auto const & manager = Kiv::activityManager();
   auto const clock = manager->clock();
   auto const plan = planOf( { agent( "Platform", { event( "Boot" ) } ) } );
   int refused = 0;
   manager->post( [ & ] {
      EXPECT_THROW( run( plan ), std::logic_error );
      EXPECT_EQ( manager->clock(), clock );
      ++refused;
   } );
   EXPECT_EQ( manager->runDue(), 1U );
   EXPECT_EQ( refused, 1 );
   EXPECT_TRUE( manager->idle() );
   EXPECT_TRUE( has( logOf( plan ), "0 stage Boot started" ) );
}

TEST( Engine, AReportAfterZeroSecondsIsMadeWhenTheStageHasStarted ) {
   EXPECT_EQ( logOf( planOf( { agent( "Platform", { event( "Boot" ) } ) } ) ),
              ( Lines{ "0 Stage progression started", "0 stage Boot started",
                       "0   event Boot:Platform started", "0   event Boot:Platform completed",
                       "0 stage Boot is complete", "0 Stage progression is complete", "end" } ) );
}

TEST( Engine, AnEventThatIsDeclaredCompleteNeverStarts ) {
   EXPECT_EQ( logOf( planOf( { agent( "Platform", { event( "Boot", already() ) } ) } ) ),
              ( Lines{ "0 Stage progression started", "0 stage Boot started",
                       "0   event Boot:Platform completed", "0 stage Boot is complete",
                       "0 Stage progression is complete", "end" } ) );
}

TEST( Engine, SecondsCountFromWhenTheStageBecomesActive ) {
   auto const plan = planOf(
      { agent( "A", { event( "Boot", after( 2 ) ), event( "Net", after( 3 ), { "Boot" } ) } ) } );
   EXPECT_EQ( stagesOf( plan ),
              ( Lines{ "0 Boot active", "2 Boot complete", "2 Net active", "5 Net complete" } ) );
}

TEST( Engine, SecondsCountFromTheDeclarationWhenTheStageIsActiveAlready ) {
   auto const plan =
      planOf( { agent( "A", { event( "Boot", after( 10 ) ) } ) },
              { at( 3, Join{ "B", { event( "Boot", after( 2 ) ) } } ), at( 4, Join{ "C", {} } ),
                at( 4, Declare{ "C", event( "Boot", after( 2.5 ) ) } ) } );
   auto const log = logOf( plan );
   EXPECT_TRUE( has( log, "5   event Boot:B completed" ) );
   EXPECT_TRUE( has( log, "6.5   event Boot:C completed" ) );
   EXPECT_TRUE( has( log, "10 stage Boot is complete" ) );
}

TEST( Engine, WritesOfTimeZeroComeBeforeTheFirstDecision ) {
   auto const plan = planOf( { agent( "A", { event( "Boot" ) } ) },
                             { at( 0, Set{ "A", "Boot", { DependencyWrite{ "Gone", true } } } ) } );
   EXPECT_EQ( logOf( plan ), ( Lines{ "0 Stage progression started", "end" } ) );
}

TEST( Engine, NothingReactsBeforeTheLastWriteOfAnInstant ) {
   auto plan = planOf( { agent( "A", { event( "Boot" ) } ) },
                       { at( 1, Enable{ true } ), at( 1, Enable{ false } ) } );
   plan.enabled = false;
   EXPECT_EQ( logOf( plan ), ( Lines{ "end" } ) );
   plan.timeline[ 1 ].at = 2;
   EXPECT_EQ( logOf( plan ).front(), "1 Stage progression started" );
}

TEST( Engine, EntriesOfOneInstantRunInOrderOfTheFile ) {
   auto plan = planOf( { agent( "A", { event( "Boot" ) } ) },
                       { at( 1, Enable{ false } ), at( 1, Enable{ true } ) } );
   plan.enabled = false;
   EXPECT_EQ( logOf( plan ).front(), "1 Stage progression started" );
}

TEST( Engine, EntriesRunInOrderOfTimeWhateverTheOrderOfTheFile ) {
   auto plan =
      planOf( { agent( "A", { event( "Boot", never() ) } ) },
              { at( 4, Set{ "A", "Boot", { CompleteWrite{ true } } } ), at( 2, Enable{ true } ) } );
   plan.enabled = false;
   EXPECT_EQ( stagesOf( plan ), ( Lines{ "2 Boot active", "4 Boot complete" } ) );
}

TEST( Engine, AttributesOfOneSetAreWrittenInTheirOrder ) {
   auto const plan = [ & ]( Write const & first, Write const & second ) {
      return planOf( { agent( "A", { event( "Boot" ) } ) },
                     { at( 0, Set{ "A", "Boot", { first, second } } ) } );
   };
   DependencyWrite const add{ "Gone", true }, clear{ "Gone", false }, remove{ "Gone", {} };
   EXPECT_EQ( run( plan( add, clear ) ).outcome, Outcome::complete );
   EXPECT_EQ( run( plan( add, remove ) ).outcome, Outcome::complete );
   EXPECT_EQ( run( plan( remove, add ) ).outcome, Outcome::stalled );
   EXPECT_EQ( run( plan( clear, add ) ).outcome, Outcome::stalled );
}

TEST( Engine, EveryAttributeOfAnEventCanBeSet ) {
   auto const plan =
      planOf( { agent( "A", { event( "Boot", never() ) } ) },
              { at( 1, Set{ "A",
                            "Boot",
                            { CriticalWrite{ true }, TimeoutWrite{ 60 },
                              DependencyWrite{ "Net", true }, CompleteWrite{ true } } } ) } );
   auto const boot = run( plan ).stage.at( "Boot" );
   EXPECT_TRUE( boot.critical );
   EXPECT_EQ( boot.timeout, 60 );
   EXPECT_EQ( boot.dependency, ( Lines{ "Net" } ) );
   EXPECT_EQ( boot.event.at( "A" ), true );
}

TEST( Engine, ReportsOfOneStageAtOneTimeAreMadeInOrderOfDeclaration ) {
   Lines const names = { "Q", "B", "Z", "A", "M", "C", "Y", "K" };
   std::vector< Agent > agents;
   Lines expected;
   for( auto const & name : names ) {
      agents.push_back( agent( name, { event( "Boot", after( 1 ) ) } ) );
      expected.push_back( "1   event Boot:" + name + " completed" );
   }
   auto log = logOf( planOf( agents ) );
   log.erase( std::remove_if( log.begin(), log.end(),
                              []( auto const & line ) {
                                 return line.find( " completed" ) == std::string::npos;
                              } ),
              log.end() );
   EXPECT_EQ( log, expected );
}

TEST( Engine, ReportsAreMadeInOrderOfTime ) {
   auto const log = logOf( planOf( { agent( "A", { event( "Boot", after( 3 ) ) } ),
                                     agent( "B", { event( "Boot", after( 1 ) ) } ),
                                     agent( "C", { event( "Boot", after( 2 ) ) } ) } ) );
   Lines const tail( log.end() - 6, log.end() );
   EXPECT_EQ( tail, ( Lines{ "1   event Boot:B completed", "2   event Boot:C completed",
                             "3   event Boot:A completed", "3 stage Boot is complete",
                             "3 Stage progression is complete", "end" } ) );
}

TEST( Engine, ReportsComeBeforeTheLibrarysTimersOfTheSameInstant ) {
   // Both stages complete at 1 before the decision that the first of them asks for.
   auto const log = logOf( planOf( { agent( "A", { event( "S1", after( 1 ) ) } ),
                                     agent( "B", { event( "S2", after( 1 ) ) } ),
                                     agent( "C", { event( "S3", after( 0 ), { "S1" } ) } ) } ) );
   auto const position = [ & ]( std::string const & line ) {
      return std::find( log.begin(), log.end(), line ) - log.begin();
   };
   EXPECT_LT( position( "1 stage S1 is complete" ), position( "1 stage S3 started" ) );
   EXPECT_LT( position( "1 stage S2 is complete" ), position( "1 stage S3 started" ) );
   EXPECT_TRUE( has( log, "1 stage S3 is complete" ) );
}

TEST( Engine, AReportDueWithTheTimeoutOfItsStageIsInTime ) {
   auto const plan = planOf( { agent( "A", { withTimeout( 5, event( "Boot", after( 5 ) ) ) } ) } );
   EXPECT_EQ( stagesOf( plan ), ( Lines{ "0 Boot active", "5 Boot complete" } ) );
}

TEST( Engine, AWithdrawnEventIsNotReportedNorWaitedFor ) {
   for( double withdrawn : { 5.0, 10.0 } ) {
      auto const plan = planOf( { agent( "A", { event( "Boot", after( 10 ) ) } ) },
                                { at( withdrawn, Withdraw{ "A", "Boot" } ) } );
      Recorder recorder;
      auto const result = run( plan, { &recorder } );
      EXPECT_EQ( result.t, withdrawn );
      EXPECT_TRUE( result.stage.at( "Boot" ).event.empty() );
      for( auto const & line : recorder.log )
         EXPECT_EQ( line.find( " completed" ), std::string::npos ) << line;
   }
}

TEST( Engine, TheEventsOfAnAgentThatLeavesAreNotReported ) {
   auto const plan =
      planOf( { agent( "A", { event( "Boot", after( 10 ) ), event( "Net", after( 20 ) ) } ),
                agent( "B", { event( "Boot", after( 1 ) ) } ) },
              { at( 5, Leave{ "A" } ) } );
   auto const result = run( plan );
   EXPECT_EQ( result.t, 5 );
   EXPECT_EQ( result.outcome, Outcome::complete );
   EXPECT_EQ( result.stage.at( "Boot" ).completionTime, 5 );
   EXPECT_FALSE( has( logOf( plan ), "10   event Boot:A completed" ) );
}

TEST( Engine, AnAgentThatJoinsAgainStartsToCountAnew ) {
   auto const plan =
      planOf( { agent( "A", { event( "Boot", after( 10 ) ) } ) },
              { at( 4, Leave{ "A" } ), at( 6, Join{ "A", { event( "Boot", after( 10 ) ) } } ) } );
   auto const log = logOf( plan );
   EXPECT_FALSE( has( log, "10   event Boot:A completed" ) );
   EXPECT_TRUE( has( log, "16   event Boot:A completed" ) );
}

TEST( Engine, AnEventThatIsDeclaredAnewIsReportedForItself ) {
   auto const plan = planOf(
      { agent( "A", { event( "Boot", after( 10 ) ) } ),
        agent( "B", { event( "Boot", after( 30 ) ) } ) },
      { at( 4, Withdraw{ "A", "Boot" } ), at( 5, Declare{ "A", event( "Boot", after( 10 ) ) } ) } );
   auto const log = logOf( plan );
   EXPECT_FALSE( has( log, "10   event Boot:A completed" ) );
   EXPECT_TRUE( has( log, "15   event Boot:A completed" ) );
}

TEST( Engine, AnEventIsReportedOnce ) {
   auto const plan = planOf( { agent( "A", { event( "Boot", after( 1 ) ) } ) },
                             { at( 2, Set{ "A", "Boot", { CompleteWrite{ false } } } ) } );
   auto const result = run( plan );
   EXPECT_EQ( result.t, 2 );
   EXPECT_FALSE( result.stage.at( "Boot" ).event.at( "A" ) );
   EXPECT_EQ( result.stage.at( "Boot" ).pending.count( "Boot:A" ), 1U );
}

TEST( Engine, AReportOfAnEventThatIsCompleteIsDueAndChangesNothing ) {
   auto const plan = planOf( { agent( "A", { event( "Boot", after( 10 ) ) } ) },
                             { at( 3, Set{ "A", "Boot", { CompleteWrite{ true } } } ) } );
   Recorder recorder;
   auto const result = run( plan, { &recorder } );
   EXPECT_EQ( result.t, 10 );
   EXPECT_EQ( result.stage.at( "Boot" ).completionTime, 3 );
   EXPECT_EQ( recorder.log.back(), "end" );
   EXPECT_EQ( recorder.log[ recorder.log.size() - 2 ], "3 Stage progression is complete" );
}

TEST( Engine, AReportThatIsNeverDueIsNotWaitedFor ) {
   auto const most = std::numeric_limits< double >::max();
   auto const plan = planOf(
      { agent( "A", { event( "Boot", after( most ) ) } ) },
      { at( most, Enable{ true } ), at( most, Join{ "B", { event( "Boot", after( most ) ) } } ) } );
   EXPECT_EQ( run( plan ).t, most );
}

TEST( Engine, LaterInstantsHaveTheirOwnTimeInTheLog ) {
   auto plan = planOf( {}, { at( 3600, Enable{ true } ) } );
   plan.enabled = false;
   EXPECT_EQ( logOf( plan ), ( Lines{ "3600 Stage progression started",
                                      "3600 Stage progression is complete", "end" } ) );
}

TEST( Engine, AMessageStandsAfterTheLogEntriesThatCameBeforeIt ) {
   testing::internal::CaptureStdout();
   auto const plan =
      planOf( { agent( "A", { critical( withTimeout( 5, event( "Boot", after( 8 ) ) ) ) } ) } );
   Recorder recorder;
   run( plan, { &recorder } );
   EXPECT_EQ( testing::internal::GetCapturedStdout(),
              " Critical stage Boot timed out! Router suspended for debugging." );
   Lines const tail( recorder.log.begin() + 3, recorder.log.end() );
   EXPECT_EQ( tail,
              ( Lines{ "5 stage Boot is complete (timeout)", "5 ! Router stage Boot timed out",
                       "8   event Boot:A completed",
                       "8 ! Router resumed after stage Boot completed after timeout.",
                       "8 stage Boot is complete", "8 Stage progression is complete", "end" } ) );
   EXPECT_EQ( recorder.stages,
              ( Lines{ "0 Boot active", "5 Boot suspended Boot:A", "8 Boot resumed" } ) );
}

TEST( Engine, AStageThatTimesOutGoesOnWithoutItsPendingEvents ) {
   auto const plan = planOf( { agent( "A", { withTimeout( 5, event( "Boot", after( 8 ) ) ),
                                             event( "Net", after( 1 ), { "Boot" } ) } ) } );
   EXPECT_EQ( stagesOf( plan ), ( Lines{ "0 Boot active", "5 Boot timed out Boot:A", "5 Net active",
                                         "6 Net complete", "8 Boot completed late" } ) );
}

TEST( Engine, ClockAndMessageSinkAreGivenBack ) {
   auto const clock = Kiv::activityManager()->clock();
   int messages = 0;
   auto const before = Kiv::logSinkIs( [ & ]( Kiv::LogMessage const & ) { ++messages; } );
   run( planOf( { agent( "A", { event( "Boot" ) } ) } ) );
   EXPECT_EQ( Kiv::activityManager()->clock(), clock );
   Kiv::logSinkIs( before )( Kiv::LogMessage{} );
   EXPECT_EQ( messages, 1 );
}

struct Thrower : Observer {
   void onLogEntry( double, std::string const & msg ) override {
      if( msg == when )
         throw std::runtime_error( "disk full" );
   }
   void onMessage( Message const & ) override {
      ++messages;
      throw std::runtime_error( "disk full" );
   }
   std::string when;
   int messages = 0;
};

TEST( Engine, WhatAnObserverThrowsEndsTheRunAndReachesTheCaller ) {
   auto const clock = Kiv::activityManager()->clock();
   Thrower thrower;
   Recorder recorder;
   thrower.when = "stage Boot started";
   auto const plan = planOf( { agent( "A", { event( "Boot" ) } ) } );
   EXPECT_THROW( run( plan, { &thrower, &recorder } ), std::runtime_error );
   EXPECT_EQ( recorder.log, ( Lines{ "0 Stage progression started" } ) );
   EXPECT_EQ( Kiv::activityManager()->clock(), clock );
   EXPECT_EQ( logOf( plan ).back(), "end" );
}

TEST( Engine, WhatAnObserverThrowsAtAMessageReachesTheCallerToo ) {
   testing::internal::CaptureStdout();
   Thrower thrower;
   auto const plan =
      planOf( { agent( "A", { critical( withTimeout( 5, event( "Boot", never() ) ) ) } ),
                agent( "B", { critical( withTimeout( 6, event( "Net", never() ) ) ) } ) } );
   EXPECT_THROW( run( plan, { &thrower } ), std::runtime_error );
   EXPECT_EQ( thrower.messages, 1 );
   testing::internal::GetCapturedStdout();
}

TEST( Engine, APlanWithMistakesIsRefused ) {
   EXPECT_THROW( run( planOf( {}, { at( 1, Leave{ "A" } ) } ) ), std::invalid_argument );
   EXPECT_THROW( run( planOf( { agent( "A", {} ), agent( "A", {} ) } ) ), std::invalid_argument );
   for( double t : { -1.0, infinity, std::numeric_limits< double >::quiet_NaN() } )
      EXPECT_THROW( run( planOf( {}, { at( t, Enable() ) } ) ), std::invalid_argument ) << t;
}

TEST( Engine, OneRunLeavesNothingBehindForTheNext ) {
   auto const plan = planOf(
      { agent( "A", { event( "Boot", after( 1 ) ), event( "Net", after( 2 ), { "Boot" } ) } ) } );
   auto const first = logOf( plan );
   run( planOf( { agent( "B", { withTimeout( 9, event( "Boot", never() ) ) } ) } ) );
   EXPECT_EQ( logOf( plan ), first );
}

TEST( Engine, AChainOfThreeHundredStagesTakesTheSumOfItsSeconds ) {
   std::vector< Agent > agents;
   Lines before;
   for( int i = 0; i < 300; ++i ) {
      auto const name = std::to_string( i );
      agents.push_back( agent( name, { event( name, after( 0.5 ), before ) } ) );
      before = { name };
   }
   auto const result = run( planOf( agents ) );
   EXPECT_EQ( result.outcome, Outcome::complete );
   EXPECT_EQ( result.t, 150 );
}

} // namespace
