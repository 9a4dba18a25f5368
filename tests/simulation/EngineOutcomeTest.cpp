// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include "EngineTestSupport.h"

#include <simulation/Reasons.h>

#include <gtest/gtest.h>

namespace {

using namespace Simulation;

std::string reasonFor( Result const & result, std::string const & stage ) {
   for( auto const & reason : reasons( result ) ) {
      if( reason.stage == stage ) {
         return reason.sentence;
      }
   }
   return "none";
}

// Runs that suspend print the library's own line; the tests' output is no place for it.
Result runQuietly( Plan const & plan ) {
   testing::internal::CaptureStdout();
   auto result = run( plan );
   testing::internal::GetCapturedStdout();
   return result;
}

TEST( EngineOutcome, ARunThatFinishesIsComplete ) {
   auto const result = run( planOf( { agent( "A", { event( "Boot", after( 1 ) ),
                                                    event( "Net", after( 2 ), { "Boot" } ) } ) } ) );
   EXPECT_EQ( result.outcome, Outcome::complete );
   EXPECT_TRUE( result.complete );
   EXPECT_EQ( result.t, 3 );
   EXPECT_EQ( result.progress, ( std::map< std::string, bool >{ { "Boot", true }, { "Net", true } } ) );
   auto const & net = result.stage.at( "Net" );
   EXPECT_TRUE( net.active );
   EXPECT_TRUE( net.complete );
   EXPECT_FALSE( net.timedOut );
   EXPECT_EQ( net.activeSince, 1 );
   EXPECT_EQ( net.completionTime, 3 );
   EXPECT_EQ( net.dependency, ( Lines{ "Boot" } ) );
   EXPECT_EQ( net.timeout, infinity );
   EXPECT_TRUE( reasons( result ).empty() );
}

TEST( EngineOutcome, APlanWithoutAgentsIsCompleteAtOnce ) {
   auto const result = run( planOf( {} ) );
   EXPECT_EQ( result.outcome, Outcome::complete );
   EXPECT_EQ( result.t, 0 );
}

TEST( EngineOutcome, ARunThatIsNeverEnabledIsDisabled ) {
   auto plan = planOf( { agent( "A", { event( "Boot", after( 5 ) ) } ) } );
   plan.enabled = false;
   auto const result = run( plan );
   EXPECT_EQ( result.outcome, Outcome::disabled );
   EXPECT_EQ( result.t, 0 );
   EXPECT_TRUE( result.progress.empty() );
   EXPECT_EQ( reasonFor( result, "Boot" ), "stage \"Boot\" waits for progression to be enabled." );
}

TEST( EngineOutcome, AnEventThatIsNeverReportedStallsTheRun ) {
   auto const result = run( planOf( { agent( "A", { event( "Boot", after( 1 ) ) } ),
                                      agent( "B", { event( "Boot", never() ) } ),
                                      agent( "C", { event( "Net", after( 1 ), { "Boot" } ) } ) } ) );
   EXPECT_EQ( result.outcome, Outcome::stalled );
   EXPECT_EQ( result.t, 1 );
   EXPECT_FALSE( result.stage.at( "Net" ).active );
   EXPECT_EQ( reasonFor( result, "Boot" ), "stage \"Boot\" is active and waits for the event of "
                                           "agent \"B\" (pending since 0 s)." );
   EXPECT_EQ( reasonFor( result, "Net" ),
              "stage \"Net\" waits for stage \"Boot\", which is not complete." );
}

TEST( EngineOutcome, APendingEventCountsFromWhenItWasDeclared ) {
   auto const result = run( planOf( { agent( "A", { event( "Boot", never() ) } ) },
                                    { at( 4, Join{ "B", { event( "Boot", never() ) } } ),
                                      at( 6, Set{ "A", "Boot", { CompleteWrite{ true } } } ),
                                      at( 7, Set{ "A", "Boot", { CompleteWrite{ false } } } ) } ) );
   EXPECT_EQ( result.stage.at( "Boot" ).pending,
              ( std::map< std::string, double >{ { "Boot:A", 7 }, { "Boot:B", 4 } } ) );
}

TEST( EngineOutcome, ADependencyThatNobodyDeclaresStallsTheRun ) {
   auto const result = run( planOf( { agent( "A", { event( "Net", after( 0 ), { "Gone" } ) } ) } ) );
   EXPECT_EQ( result.outcome, Outcome::stalled );
   EXPECT_EQ( result.stage.count( "Gone" ), 0U );
   EXPECT_EQ( reasonFor( result, "Net" ),
              "stage \"Net\" waits for stage \"Gone\", which no agent has declared." );
}

TEST( EngineOutcome, ACycleStallsTheRun ) {
   auto const result = run( planOf( { agent( "A", { event( "S1", after( 0 ), { "S2" } ),
                                                    event( "S2", after( 0 ), { "S1" } ) } ) } ) );
   EXPECT_EQ( result.outcome, Outcome::stalled );
   EXPECT_NE( reasonFor( result, "S1" ).find( "depends on itself by way of stage \"S2\"" ),
              std::string::npos );
}

TEST( EngineOutcome, ACriticalStageThatCannotStartHoldsTheOthersBack ) {
   auto const result =
      run( planOf( { agent( "A", { critical( event( "Vital", after( 0 ), { "Gone" } ) ) } ),
                     agent( "B", { event( "Net" ) } ) } ) );
   EXPECT_EQ( result.outcome, Outcome::stalled );
   EXPECT_EQ( reasonFor( result, "Net" ),
              "stage \"Net\" is held back until critical stage \"Vital\" has started." );
}

TEST( EngineOutcome, ACriticalStageThatTimesOutSuspendsTheRun ) {
   auto const result = runQuietly(
      planOf( { agent( "A", { critical( withTimeout( 5, event( "Boot", never() ) ) ) } ) } ) );
   EXPECT_EQ( result.outcome, Outcome::suspended );
   EXPECT_EQ( result.t, 5 );
   auto const & boot = result.stage.at( "Boot" );
   EXPECT_TRUE( boot.timedOut );
   EXPECT_FALSE( boot.complete );
   EXPECT_EQ( boot.timedOutAt, 5 );
   EXPECT_EQ( boot.timeout, 5 );
   EXPECT_EQ( reasonFor( result, "Boot" ),
              "critical stage \"Boot\" timed out at 5 s and is suspended; it waits for the event "
              "of agent \"A\" (pending since 0 s)." );
}

TEST( EngineOutcome, AStageThatIsCriticalNoMoreAtTheEndDoesNotSuspend ) {
   auto const result = runQuietly(
      planOf( { agent( "A", { critical( withTimeout( 5, event( "Boot", never() ) ) ) } ) },
              { at( 6, Set{ "A", "Boot", { CriticalWrite{ false } } } ) } ) );
   EXPECT_EQ( result.outcome, Outcome::stalled );
}

TEST( EngineOutcome, ASuspendedStageThatCompletesLetsTheRunComplete ) {
   auto const result = runQuietly(
      planOf( { agent( "A", { critical( withTimeout( 5, event( "Boot", never() ) ) ) } ) },
              { at( 9, Set{ "A", "Boot", { CompleteWrite{ true } } } ) } ) );
   EXPECT_EQ( result.outcome, Outcome::complete );
   EXPECT_TRUE( result.stage.at( "Boot" ).timedOut );
   EXPECT_EQ( result.stage.at( "Boot" ).completionTime, 9 );
}

TEST( EngineOutcome, AStageThatTimedOutIsCompleteWithPendingEvents ) {
   auto const result =
      run( planOf( { agent( "A", { withTimeout( 5, event( "Boot", never() ) ) } ) } ) );
   EXPECT_EQ( result.outcome, Outcome::complete );
   EXPECT_TRUE( result.stage.at( "Boot" ).timedOut );
   EXPECT_EQ( result.stage.at( "Boot" ).pending.count( "Boot:A" ), 1U );
}

TEST( EngineOutcome, AStageThatIsDeclaredTooLateIsNotStarted ) {
   auto const result = run( planOf( { agent( "A", { event( "Boot", after( 1 ) ) } ) },
                                    { at( 5, Join{ "B", { event( "Late" ) } } ) } ) );
   EXPECT_EQ( result.outcome, Outcome::stalled );
   EXPECT_TRUE( result.complete );
   EXPECT_FALSE( result.stage.at( "Late" ).active );
   EXPECT_EQ( reasonFor( result, "Late" ),
              "stage \"Late\" waits for nothing but the next decision, which only a change "
              "elsewhere brings about." );
}

}  // namespace
