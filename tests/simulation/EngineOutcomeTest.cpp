// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include "EngineTestSupport.h"

#include <gtest/gtest.h>

#include <limits>
#include <stdexcept>

namespace {

using namespace Simulation;

// Runs that suspend print the library's own line; the tests' output is no place for it.
Result runQuietly( Plan const & plan ) {
   testing::internal::CaptureStdout();
   auto result = run( plan );
   testing::internal::GetCapturedStdout();
   return result;
}

TEST( EngineOutcome, ARunThatFinishesIsComplete ) {
   auto const result = run( planOf(
      { agent( "A", { event( "Boot", after( 1 ) ), event( "Net", after( 2 ), { "Boot" } ) } ) } ) );
   EXPECT_EQ( result.outcome, Outcome::complete );
   EXPECT_TRUE( result.complete );
   EXPECT_EQ( result.t, 3 );
   EXPECT_EQ( result.progress,
              ( std::map< std::string, bool >{ { "Boot", true }, { "Net", true } } ) );
   auto const & net = result.stage.at( "Net" );
   EXPECT_TRUE( net.active );
   EXPECT_TRUE( net.complete );
   EXPECT_FALSE( net.timedOut );
   EXPECT_EQ( net.activeSince, 1 );
   EXPECT_EQ( net.completionTime, 3 );
   EXPECT_EQ( net.dependency, ( Lines{ "Boot" } ) );
   EXPECT_EQ( net.timeout, infinity );
   EXPECT_TRUE( result.explanation.stage.empty() );
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
   EXPECT_EQ( reasonFor( result, "Boot" ),
              "stage \"Boot\" waits for progression to be enabled; it has no time limit." );
}

TEST( EngineOutcome, AnEventThatIsNeverReportedStallsTheRun ) {
   auto const result = run( planOf(
      { agent( "A", { event( "Boot", after( 1 ) ) } ), agent( "B", { event( "Boot", never() ) } ),
        agent( "C", { event( "Net", after( 1 ), { "Boot" } ) } ) } ) );
   EXPECT_EQ( result.outcome, Outcome::stalled );
   EXPECT_EQ( result.t, 1 );
   EXPECT_FALSE( result.stage.at( "Net" ).active );
   EXPECT_EQ( reasonFor( result, "Boot" ),
              "stage \"Boot\" is active and waits for event "
              "\"Boot:B\" of agent \"B\" (pending since 0 s); it has no time limit "
              "and waits for ever." );
   EXPECT_EQ( reasonFor( result, "Net" ),
              "stage \"Net\" waits for stage \"Boot\", which is not complete; it has no time "
              "limit." );
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
   auto const result =
      run( planOf( { agent( "A", { event( "Net", after( 0 ), { "Gone" } ) } ) } ) );
   EXPECT_EQ( result.outcome, Outcome::stalled );
   EXPECT_EQ( result.stage.count( "Gone" ), 0U );
   EXPECT_EQ( reasonFor( result, "Net" ),
              "stage \"Net\" waits for stage \"Gone\", which no agent has declared; it has no time "
              "limit." );
}

TEST( EngineOutcome, ACycleStallsTheRun ) {
   auto const result = run( planOf( { agent(
      "A", { event( "S1", after( 0 ), { "S2" } ), event( "S2", after( 0 ), { "S1" } ) } ) } ) );
   EXPECT_EQ( result.outcome, Outcome::stalled );
   EXPECT_NE( reasonFor( result, "S1" ).find( "depends on itself by way of stage \"S2\"" ),
              std::string::npos );
}

TEST( EngineOutcome, ACriticalStageThatCannotStartHoldsTheOthersBack ) {
   auto const result =
      run( planOf( { agent( "A", { critical( event( "Vital", after( 0 ), { "Gone" } ) ) } ),
                     agent( "B", { event( "Net" ) } ) } ) );
   EXPECT_EQ( result.outcome, Outcome::stalled );
   EXPECT_EQ(
      reasonFor( result, "Net" ),
      "stage \"Net\" is held back until critical stage \"Vital\" has started; it has no time "
      "limit." );
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
              "critical stage \"Boot\" timed out at 5 s and is suspended; it waits for event "
              "\"Boot:A\" of agent \"A\" (pending since 0 s), with no time limit any more." );
}

// Boot's time runs from 2 s on, when it starts; nobody reports its event.
Plan slowBoot( std::vector< Write > const & at5 ) {
   return planOf( { agent( "A", { event( "First", after( 2 ) ),
                                  withTimeout( 30, event( "Boot", never(), { "First" } ) ),
                                  withTimeout( 7, event( "Net", never(), { "Boot" } ) ) } ) },
                  { at( 5, Set{ "A", "Boot", at5 } ) } );
}

TEST( EngineOutcome, ARunThatIsEndedShowsHowThingsStand ) {
   auto const result = run( slowBoot( {} ), {}, 12.5 );
   EXPECT_EQ( result.outcome, Outcome::stalled );
   EXPECT_EQ( result.t, 5 );
   EXPECT_EQ( result.now, 12.5 );
   EXPECT_FALSE( result.exhausted );
   EXPECT_EQ( result.stage.at( "Boot" ).timeIsUp, 32 );
   EXPECT_EQ(
      reasonFor( result, "Boot" ),
      "stage \"Boot\" is active and waits for event \"Boot:A\" of agent \"A\" (pending since "
      "2 s); its time is up at 32 s, in 19.5 s, and it would then be declared complete all the "
      "same." );
   EXPECT_EQ( reasonFor( result, "Net" ),
              "stage \"Net\" waits for stage \"Boot\", which is not complete; its time of 7 s does "
              "not run before it has started." );
}

TEST( EngineOutcome, AnEndedRunKnowsTheTimersAsTheyWereArmed ) {
   auto const longer = run( slowBoot( { TimeoutWrite{ 60 } } ), {}, 12 );
   EXPECT_EQ( longer.stage.at( "Boot" ).timeout, 60 );
   EXPECT_EQ( longer.stage.at( "Boot" ).timeIsUp, 32 );
   EXPECT_NE( reasonFor( longer, "Boot" ).find( "at 32 s, in 20 s, whatever its timeout is now" ),
              std::string::npos );
   auto const critical = run( slowBoot( { CriticalWrite{ true } } ), {}, 12 );
   EXPECT_NE( reasonFor( critical, "Boot" ).find( "would then be suspended" ), std::string::npos );
}

TEST( EngineOutcome, WhatIsDueWhenARunIsEndedStillHappens ) {
   auto const result = run( slowBoot( {} ), {}, 32 );
   EXPECT_TRUE( result.stage.at( "Boot" ).timedOut );
   EXPECT_TRUE( result.stage.at( "Net" ).active );
   EXPECT_EQ( result.stage.at( "Boot" ).timeIsUp, infinity );
   EXPECT_EQ( result.stage.at( "Net" ).timeIsUp, 39 );
}

TEST( EngineOutcome, ARunThatEndsByItselfBeforeItIsEndedIsTheSame ) {
   auto const result = run( slowBoot( {} ), {}, 1000 );
   EXPECT_TRUE( result.exhausted );
   EXPECT_EQ( result.outcome, Outcome::complete );
   EXPECT_EQ( result.t, 39 );
   EXPECT_EQ( result.now, 39 );
}

TEST( EngineOutcome, ARunCannotBeEndedBeforeItBegins ) {
   EXPECT_THROW( run( slowBoot( {} ), {}, -1 ), std::invalid_argument );
   EXPECT_THROW( run( slowBoot( {} ), {}, std::numeric_limits< double >::quiet_NaN() ),
                 std::invalid_argument );
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
              "elsewhere brings about; it has no time limit." );
}

} // namespace
