// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The engine itself, moved by hand as a hub moves it; runs of plans are tested in EngineTest.cpp.
#include "EngineTestSupport.h"

#include <cmath>
#include <functional>
#include <new>
#include <stdexcept>

#include <Kiv/Kiv.h>
#include <gtest/gtest.h>
#include <simulation/Engine.h>
#include <simulation/Stamp.h>

namespace {

using namespace Simulation;

Input input( Operation operation ) { return { std::move( operation ), std::nullopt }; }

Input report( std::string agent, std::string stage, bool complete = true ) {
   return input( Set{ std::move( agent ), std::move( stage ), { CompleteWrite{ complete } } } );
}

Instant instant( double t, std::vector< Input > inputs = {} ) { return { t, std::move( inputs ) }; }

Beginning beginning( std::vector< Agent > agents, bool enabled = true ) {
   return { "Router", enabled, std::move( agents ), false };
}

Beginning deciding( std::vector< Agent > agents, bool enabled = true ) {
   return { "Router", enabled, std::move( agents ), true };
}

EngineOptions expecting( std::vector< std::string > agents ) {
   return { false, std::move( agents ) };
}

// An engine whose log is kept.
struct Logged {
   explicit Logged( Beginning const & begin, EngineOptions const & options = {} )
      : engine( begin, { &recorder }, options ) {}

   // Since it was asked last.
   Lines log() { return std::exchange( recorder.log, {} ); }

   Recorder recorder;
   Engine engine;
};

TEST( Stepping, TheClockGoesWhereSomethingIsDueOrTakenInAndNowhereElse ) {
   Engine engine( beginning( { agent( "a", { withTimeout( 2.5, event( "A", never() ) ) } ) } ) );
   EXPECT_EQ( engine.now(), 0 );
   EXPECT_EQ( engine.nextDue(), 0 );
   engine.fireUntil( 2 );
   EXPECT_EQ( engine.now(), 0 );
   EXPECT_EQ( engine.nextDue(), 2.5 );
   engine.takeIn( instant( 1, { input( Enable{ true } ) } ) );
   EXPECT_EQ( engine.now(), 1 );
   engine.fireUntil( 100 );
   EXPECT_EQ( engine.now(), 2.5 );
   EXPECT_EQ( engine.nextDue(), infinity );
   engine.fireUntil( infinity );
   EXPECT_EQ( engine.now(), 2.5 );
}

TEST( Stepping, WhatIsDueBeforeAStampHappensFirstAtItsOwnTimes ) {
   Logged run(
      beginning( { agent( "a", { withTimeout( 1, event( "A", never() ) ),
                                 withTimeout( 2, event( "B", never(), { "A" } ) ) } ) } ) );
   run.engine.takeIn( instant( 5, { report( "a", "A" ) } ) );
   EXPECT_EQ( run.log(),
              ( Lines{ "0 Stage progression started", "0 stage A started", "0   event A:a started",
                       "1 stage A is complete (timeout)", "1 stage B started",
                       "1   event B:a started", "3 stage B is complete (timeout)",
                       "3 Stage progression is complete", "5   event A:a completed",
                       "5 stage A is complete", "5 Stage progression is complete" } ) );
}

TEST( Stepping, AReportAtTheTimeOfATimerBeatsIt ) {
   Logged run( beginning( { agent( "a", { withTimeout( 2, event( "A", never() ) ) } ) } ) );
   run.engine.fireUntil( 1 );
   run.log();
   run.engine.takeIn( instant( 2, { report( "a", "A" ) } ) );
   EXPECT_EQ( run.log(), ( Lines{ "2   event A:a completed", "2 stage A is complete",
                                  "2 Stage progression is complete" } ) );
}

TEST( Stepping, AReportAMicrosecondAfterATimerIsLate ) {
   Logged run( beginning( { agent( "a", { withTimeout( 2, event( "A", never() ) ) } ) } ) );
   run.engine.takeIn( instant( 2.000001, { report( "a", "A" ) } ) );
   EXPECT_EQ( run.log()[ 3 ], "2 stage A is complete (timeout)" );
}

TEST( Stepping, NothingReactsBeforeTheLastWriteOfAnInstant ) {
   Logged run( deciding( {}, false ) );
   run.engine.takeIn(
      instant( 1, { input( Join{ "a", { event( "A", never() ) } } ), input( Enable{ true } ),
                    input( Declare{ "a", event( "B", already() ) } ),
                    input( Set{ "a", "A", { DependencyWrite{ "B", true } } } ) } ) );
   EXPECT_EQ( run.log(), ( Lines{ "1 Stage progression started", "1 stage B started",
                                  "1   event B:a completed", "1 stage B is complete",
                                  "1 stage A started", "1   event A:a started" } ) );
}

TEST( Stepping, AnInstantLiesAfterTheLastOneWhateverThatWas ) {
   Engine engine( beginning( { agent( "a", { withTimeout( 2, event( "A", never() ) ) } ) } ) );
   engine.takeIn( instant( 0 ) );
   EXPECT_THROW( engine.takeIn( instant( 0, { report( "a", "A" ) } ) ), std::invalid_argument );
   engine.fire(); // the timer at 2
   for( double const t : { -1.0, 0.0, 1.0, 2.0, infinity, std::nan( "" ) } )
      EXPECT_THROW( engine.takeIn( instant( t, { report( "a", "A" ) } ) ), std::invalid_argument );
   EXPECT_EQ( engine.now(), 2 );
   EXPECT_FALSE( engine.result().stage.at( "A" ).event.at( "a" ) );
   engine.takeIn( instant( 2.000001, { report( "a", "A" ) } ) );
   EXPECT_TRUE( engine.result().stage.at( "A" ).event.at( "a" ) );
}

// ---- stamps

TEST( Stamp, IsInWholeMicroseconds ) {
   EXPECT_EQ( microsecondsOf( 0 ), 0 );
   EXPECT_EQ( microsecondsOf( 1.000001 ), 1000001 );
   EXPECT_EQ( microsecondsOf( 0.1 ), 100000 );
   for( double const none : { -0.5, 1.0000005, 0.1 + 0.2, 1e300, infinity, std::nan( "" ) } )
      EXPECT_EQ( microsecondsOf( none ), std::nullopt ) << none;
   for( std::int64_t microseconds = 1; microseconds < 9007199254740992; microseconds *= 3 )
      EXPECT_EQ( microsecondsOf( secondsOf( microseconds ) ), microseconds );
}

TEST( Stamp, IsTheLatestThatIsNotInTheFuture ) {
   EXPECT_EQ( stampFrom( 1.9999999, std::nullopt ), 1.999999 );
   EXPECT_EQ( stampFrom( 0, std::nullopt ), 0 );
   EXPECT_EQ( stampFrom( -1, std::nullopt ), 0 );
   for( std::int64_t microseconds = 1; microseconds < 1000000000000; microseconds *= 7 )
      EXPECT_EQ( microsecondsOf( stampFrom( secondsOf( microseconds ), 0 ) ), microseconds );
}

// Also of a time so little before a whole microsecond that it is one when it is multiplied.
TEST( Stamp, IsNeverInTheFuture ) {
   for( std::int64_t microseconds = 1; microseconds < 100000; ++microseconds ) {
      auto const before = std::nextafter( secondsOf( microseconds ), 0.0 );
      ASSERT_EQ( microsecondsOf( stampFrom( before, std::nullopt ) ), microseconds - 1 );
   }
}

TEST( Stamp, LiesAfterTheLastInstantAlsoWhereThatWasBetweenTwo ) {
   EXPECT_EQ( stampFrom( 1, 1.0 ), 1.000001 );
   EXPECT_EQ( stampFrom( 1, 5.0000001 ), 5.000001 );
   EXPECT_EQ( stampFrom( 7, 5.0000001 ), 7 );
   double last = 0;
   for( int i = 0; i != 1000; ++i ) {
      double const next = stampFrom( 0, last );
      ASSERT_GT( next, last );
      ASSERT_EQ( microsecondsOf( next ), i + 1 );
      last = next;
   }
}

TEST( Stepping, AStampIsGivenAfterTimersThatHaveFired ) {
   Engine engine( beginning( { agent( "a", { withTimeout( 0.1, event( "A", never() ) ) } ) } ) );
   EXPECT_EQ( engine.instant( 0, {} ).t, 0 );
   engine.fireUntil( 1 ); // the timeout has the precision of a float, so it is no whole microsecond
   EXPECT_GT( engine.now(), 0.1 );
   auto const next = engine.instant( 0.1, {} );
   EXPECT_EQ( next.t, 0.100001 );
   engine.takeIn( next );
   EXPECT_EQ( engine.instant( 0.1, {} ).t, 0.100002 );
}

// ---- what is refused

TEST( Stepping, WhatCannotBeTakenInIsRefusedWholeAndNothingHasChanged ) {
   auto const start = beginning( { agent( "a", { event( "A", never() ) } ) } );
   Logged run( start );
   run.engine.fireUntil( 0 );
   run.log();
   std::vector< std::pair< std::vector< Input >, std::string > > const wrong = {
      { { input( Join{ "a", {} } ) }, "agent \"a\" is there already" },
      { { input( Leave{ "b" } ) }, "agent \"b\" is not there" },
      { { input( Leave{ "a" } ), report( "a", "A" ) }, "agent \"a\" is not there" },
      { { input( Leave{ "a" } ), input( Join{ "a", {} } ), report( "a", "A" ) },
        "agent \"a\" has no event for stage \"A\"" },
      { { input( Declare{ "a", event( "A" ) } ) },
        "agent \"a\" has an event for stage \"A\" already" },
      { { input( Declare{ "a", event( "B" ) } ), input( Declare{ "a", event( "B" ) } ) },
        "agent \"a\" has an event for stage \"B\" already" },
      { { input( Join{ "b", { event( "B" ), event( "B" ) } } ) },
        "agent \"b\" has an event for stage \"B\" already" },
      { { input( Withdraw{ "a", "B" } ) }, "agent \"a\" has no event for stage \"B\"" },
      { { input( Withdraw{ "a", "A" } ), report( "a", "A" ) },
        "agent \"a\" has no event for stage \"A\"" },
      { { input( Join{ "", {} } ) }, "the name of an agent is empty" },
      { { input( Declare{ "a", event( "" ) } ) }, "the name of a stage is empty" },
      { { input( Declare{ "a", event( "B", never(), { "" } ) } ) },
        "the name of a stage is empty" },
   };
   for( auto const & [ inputs, what ] : wrong ) {
      auto all = inputs;
      all.insert( all.begin(), report( "a", "A" ) ); // this one would do
      try {
         run.engine.takeIn( instant( 3, all ) );
         ADD_FAILURE() << "taken in, though " << what;
      } catch( std::invalid_argument const & error ) {
         EXPECT_EQ( std::string( error.what() ).substr( 0, what.size() ), what );
      }
      EXPECT_THROW( run.engine.check( all ), std::invalid_argument ) << what;
      EXPECT_THROW( run.engine.instant( 3, all ), std::invalid_argument ) << what;
   }
   EXPECT_EQ( run.engine.now(), 0 );
   EXPECT_EQ( run.log(), Lines() );
}

TEST( Stepping, AnEventMayComeAndGoAndComeAgainInOneInstant ) {
   Engine engine( beginning( { agent( "a", { event( "A", never() ) } ) } ) );
   engine.takeIn(
      instant( 1, { input( Leave{ "a" } ), input( Join{ "b", { event( "B" ) } } ),
                    input( Withdraw{ "b", "B" } ), input( Declare{ "b", event( "B", never() ) } ),
                    report( "b", "B" ) } ) );
   EXPECT_TRUE( engine.result().stage.at( "B" ).event.at( "b" ) );
}

TEST( Stepping, ABeginningInWhichSomethingStandsTwiceIsRefused ) {
   EXPECT_THROW( Engine( beginning( { agent( "a", {} ), agent( "a", {} ) } ) ),
                 std::invalid_argument );
   EXPECT_THROW( Engine( beginning( { agent( "a", { event( "A" ), event( "A" ) } ) } ) ),
                 std::invalid_argument );
}

TEST( Stepping, InsideACallbackNothingIsTakenInOrFired ) {
   Engine engine( beginning( { agent( "a", { event( "A", never() ) } ) } ) );
   int refused = 0;
   Kiv::activityManager()->post( [ & ] {
      for( auto const & call : std::vector< std::function< void() > >{
              [ & ] { engine.fire(); }, [ & ] { engine.takeIn( instant( 1 ) ); } } ) {
         try {
            call();
         } catch( std::logic_error const & ) {
            ++refused;
         }
      }
   } );
   Kiv::activityManager()->runDue();
   EXPECT_EQ( refused, 2 );
   EXPECT_EQ( engine.now(), 0 );
}

// ---- decisions

TEST( Stepping, AStageThatIsDeclaredLateIsStartedIfDeclarationsDecide ) {
   for( bool const decides : { false, true } ) {
      auto start = beginning( { agent( "a", { event( "A", already() ) } ) } );
      start.decideOnDeclarations = decides;
      Logged run( start );
      run.engine.fireUntil( 0 );
      run.log();
      run.engine.takeIn( instant( 1, { input( Declare{ "a", event( "B", never() ) } ) } ) );
      run.engine.takeIn( instant( 2, { input( Join{ "c", { event( "C", never() ) } } ) } ) );
      EXPECT_EQ( run.log(), decides ? ( Lines{ "1 stage B started", "1   event B:a started",
                                               "2 stage C started", "2   event C:c started" } )
                                    : Lines() );
   }
}

TEST( Stepping, ADependencyThatGoesReleasesAStageThatWasDeclaredLate ) {
   std::vector< std::vector< Input > > const releases = {
      { input( Set{ "b", "B", { DependencyWrite{ "A", std::nullopt } } } ) },
      { input( Withdraw{ "b", "B" } ) },
      { input( Leave{ "b" } ) } };
   for( auto const & release : releases ) {
      Logged run( deciding( { agent( "a", { event( "A", never() ) } ) } ) );
      run.engine.takeIn( instant( 1, { input( Join{ "b", { event( "B", never(), { "A" } ) } } ),
                                       input( Join{ "c", { event( "B", never() ) } } ) } ) );
      run.log();
      run.engine.takeIn( instant( 2, release ) );
      ASSERT_FALSE( run.recorder.log.empty() );
      EXPECT_EQ( run.log().front(), "2 stage B started" );
   }
}

TEST( Stepping, ReportsAskForNoDecisionOfTheirOwn ) {
   Logged run( deciding( { agent( "a", { event( "A", already() ) } ) } ) );
   run.engine.fireUntil( 0 );
   run.log();
   run.engine.takeIn( instant( 1, { report( "a", "A" ), input( Enable{ false } ) } ) );
   EXPECT_EQ( run.log(), Lines() );
}

TEST( Stepping, WhoLeavesAStartUpThatIsCompleteDoesNotCompleteItAgain ) {
   Logged run( deciding(
      { agent( "a", { event( "A", already() ) } ), agent( "b", { event( "A", already() ) } ) } ) );
   run.engine.fireUntil( 0 );
   EXPECT_TRUE( run.engine.complete() );
   run.log();
   run.engine.takeIn( instant( 1, { input( Leave{ "a" } ), input( Withdraw{ "b", "A" } ) } ) );
   EXPECT_EQ( run.log(), Lines() );
}

TEST( Stepping, NothingIsDecidedBeforeProgressionIsEnabled ) {
   Logged run( deciding( {}, false ) );
   run.engine.takeIn( instant( 1, { input( Join{ "a", { event( "A", never() ) } } ) } ) );
   run.engine.takeIn( instant( 2, { input( Declare{ "a", event( "B", never() ) } ) } ) );
   run.engine.fireUntil( 100 );
   EXPECT_EQ( run.log(), Lines() );
   EXPECT_EQ( run.engine.now(), 2 );
   EXPECT_FALSE( run.engine.started() );
}

// ---- beginning

bool enables( Instant const & instant ) {
   return !instant.input.empty() &&
          std::holds_alternative< Enable >( instant.input.back().operation );
}

TEST( Stepping, BeginsWithTheInstantInWhichAStageIsDeclaredAndAllExpectedAreThere ) {
   Logged run( deciding( {}, false ), expecting( { "a", "b" } ) );
   auto & engine = run.engine;
   auto next = engine.instant( 1, { input( Join{ "a", {} } ) } );
   EXPECT_FALSE( enables( next ) );
   engine.takeIn( next );
   next = engine.instant( 2, { input( Join{ "c", { event( "C", never() ) } } ) } );
   EXPECT_FALSE( enables( next ) ); // b is missing
   engine.takeIn( next );
   // Who comes and goes at once is not there.
   EXPECT_FALSE(
      enables( engine.instant( 3, { input( Join{ "b", {} } ), input( Leave{ "b" } ) } ) ) );
   // Nor is a stage declared when what declared it is gone.
   EXPECT_FALSE(
      enables( engine.instant( 3, { input( Join{ "b", {} } ), input( Leave{ "c" } ) } ) ) );
   EXPECT_EQ( run.log(), Lines() );
   next = engine.instant( 3, { input( Join{ "b", {} } ) } );
   ASSERT_EQ( next.input.size(), 2U );
   EXPECT_TRUE( enables( next ) );
   engine.takeIn( next );
   EXPECT_EQ( run.log(), ( Lines{ "3 Stage progression started", "3 stage C started",
                                  "3   event C:c started" } ) );
   EXPECT_FALSE( enables( engine.instant( 4, { input( Leave{ "b" } ) } ) ) ); // once
}

TEST( Stepping, BeginsWithTheFirstStageIfNobodyIsExpected ) {
   Engine engine( deciding( {}, false ), {}, expecting( {} ) );
   EXPECT_FALSE( enables( engine.instant( 1, { input( Join{ "a", {} } ) } ) ) );
   EXPECT_TRUE( enables( engine.instant( 1, { input( Join{ "a", { event( "A" ) } } ) } ) ) );
   Engine filed( deciding( { agent( "a", { event( "A" ) } ) }, false ), {}, expecting( {} ) );
   EXPECT_TRUE( enables( filed.instant( 0, {} ) ) );
}

TEST( Stepping, NeverBeginsByItselfWithoutAListOfWhomToExpect ) {
   Engine engine( deciding( {}, false ) );
   EXPECT_FALSE( enables( engine.instant( 1, { input( Join{ "a", { event( "A" ) } } ) } ) ) );
}

TEST( Stepping, WhoeverSaysWhetherItIsEnabledHasTheChoiceFromThenOn ) {
   Engine engine( deciding( {}, false ), {}, expecting( {} ) );
   auto const disabled =
      engine.instant( 1, { input( Enable{ false } ), input( Join{ "a", { event( "A" ) } } ) } );
   EXPECT_EQ( disabled.input.size(), 2U );
   engine.takeIn( disabled );
   EXPECT_FALSE( enables( engine.instant( 2, { input( Declare{ "a", event( "B" ) } ) } ) ) );
}

// ---- how things stand

TEST( Stepping, IsCompleteWhileEveryKnownStageIs ) {
   Engine engine( deciding( { agent( "a", { event( "A", never() ) } ) } ) );
   engine.fireUntil( 0 );
   EXPECT_FALSE( engine.complete() );
   engine.takeIn( instant( 1, { report( "a", "A" ) } ) );
   EXPECT_TRUE( engine.complete() );
   EXPECT_EQ( engine.result().outcome, Outcome::complete );
   engine.takeIn( instant( 2, { input( Declare{ "a", event( "B", never() ) } ) } ) );
   EXPECT_TRUE( engine.status()->complete() ); // as the rules have it
   EXPECT_FALSE( engine.complete() );
   engine.takeIn( instant( 3, { report( "a", "B" ) } ) );
   EXPECT_TRUE( engine.complete() );
   engine.takeIn( instant( 4, { report( "a", "A", false ) } ) );
   EXPECT_EQ( engine.complete(), engine.result().outcome == Outcome::complete );
}

TEST( Stepping, CountsTheInstantsThatChangedSomething ) {
   Engine engine(
      deciding( { agent( "a", { event( "A", never() ), event( "B", never(), { "A" } ) } ) } ), {},
      { true, std::nullopt } );
   EXPECT_EQ( engine.sequence(), 1U );
   EXPECT_EQ( engine.changedSince( 0 ), ( Lines{ "A", "B" } ) );
   engine.fireUntil( 0 );
   EXPECT_EQ( engine.sequence(), 2U );
   EXPECT_EQ( engine.changedSince( 1 ), Lines{ "A" } ); // is active
   engine.takeIn( instant( 1, { input( Enable{ true } ), report( "a", "A", false ) } ) );
   engine.takeIn( instant( 2, { input( Join{ "b", {} } ) } ) );
   EXPECT_EQ( engine.sequence(), 2U );
   engine.takeIn( instant( 3, { report( "a", "B" ) } ) );
   EXPECT_EQ( engine.sequence(), 3U );
   EXPECT_EQ( engine.changedSince( 2 ), Lines{ "B" } );
   EXPECT_EQ( engine.changedSince( 1 ), ( Lines{ "A", "B" } ) );
   EXPECT_EQ( engine.changedSince( 3 ), Lines() );
   EXPECT_EQ( engine.changedSince( 0 ), ( Lines{ "A", "B" } ) ); // each once
}

TEST( Stepping, EachAttributeThatThereIsToSeeCountsAsAChange ) {
   std::vector< std::vector< Input > > const changes = {
      { input( Set{ "a", "A", { CriticalWrite{ true } } } ) },
      { input( Set{ "a", "A", { TimeoutWrite{ 100 } } } ) },
      { input( Set{ "a", "A", { DependencyWrite{ "C", true } } } ) },
      { input( Join{ "b", { event( "A", never() ) } } ) },
      { report( "b", "A" ) },
      { input( Withdraw{ "b", "A" } ) },
      { input( Declare{ "b", event( "A", never() ) } ) },
      { report( "b", "A" ) } };
   Engine engine( beginning( { agent( "a", { event( "A", never() ) } ) }, false ), {},
                  { true, std::nullopt } );
   double t = 0;
   for( auto const & change : changes ) {
      auto const before = engine.sequence();
      engine.takeIn( instant( ++t, change ) );
      EXPECT_EQ( engine.sequence(), before + 1 ) << t;
      EXPECT_EQ( engine.changedSince( before ), Lines{ "A" } ) << t;
   }
}

TEST( Stepping, ATimerCountsWhenItChangesSomething ) {
   Engine engine( beginning( { agent( "a", { withTimeout( 2, event( "A", never() ) ) } ) } ), {},
                  { true, std::nullopt } );
   engine.fireUntil( 1 );
   auto const before = engine.sequence();
   engine.fireUntil( 2 );
   EXPECT_EQ( engine.sequence(), before + 1 );
   EXPECT_EQ( engine.changedSince( before ), Lines{ "A" } );
}

TEST( Stepping, CountsNothingUnlessAskedTo ) {
   Engine engine( beginning( { agent( "a", { event( "A", already() ) } ) } ) );
   engine.fireUntil( 0 );
   EXPECT_EQ( engine.sequence(), 0U );
   EXPECT_EQ( engine.changedSince( 0 ), Lines() );
}

TEST( Stepping, EndsOnlyWhenWhatIsDueUntilThenIsOver ) {
   Engine engine( beginning( { agent( "a", { withTimeout( 2, event( "A", never() ) ) } ) } ) );
   EXPECT_THROW( engine.stopAt( 0 ), std::invalid_argument );
   engine.fireUntil( 1 );
   EXPECT_THROW( engine.stopAt( 2 ), std::invalid_argument );
   engine.stopAt( 1.5 );
   EXPECT_EQ( engine.now(), 1.5 );
   EXPECT_EQ( engine.result().t, 0 );
   EXPECT_THROW( engine.stopAt( 1 ), std::invalid_argument );
}

// What is taken in is told where it stands among the entries of the log.
TEST( Stepping, ObserversHearOfWhatIsTakenInAfterWhatWasDueBefore ) {
   class Inputs : public Recorder {
    public:
      void onBegin( Beginning const & begin ) override {
         log.push_back( "begin " + begin.application );
      }
      void onInstant( Instant const & instant ) override {
         log.push_back( jsonNumber( instant.t ) + " " + std::to_string( instant.input.size() ) );
      }
   } recorder;
   Engine engine( beginning( { agent( "a", { withTimeout( 1, event( "A", never() ) ) } ) } ),
                  { &recorder } );
   engine.fireUntil( 0 );
   engine.takeIn( instant( 0.5 ) );
   engine.takeIn( instant( 2, { report( "a", "A" ) } ) );
   EXPECT_EQ( recorder.log,
              ( Lines{ "begin Router", "0 Stage progression started", "0 stage A started",
                       "0   event A:a started", "1 stage A is complete (timeout)",
                       "1 Stage progression is complete", "2 1", "2   event A:a completed",
                       "2 stage A is complete", "2 Stage progression is complete" } ) );
}

TEST( Stepping, ClockAndMessageSinkAreGivenBack ) {
   auto const clock = Kiv::activityManager()->clock();
   { Engine const engine( beginning( {} ) ); }
   EXPECT_EQ( Kiv::activityManager()->clock(), clock );
}

// A callback for which there was no memory is due again after a rest, though no timer is.
TEST( Stepping, WhatWasCutShortForWantOfMemoryIsDeliveredAfterItsRest ) {
   struct Short : Stage::Status::NotifieeConst {
      explicit Short( Kiv::Ptr< Stage::Status > const & status ) { watch( status ); }
      using NotifieeConst::onStage;
      void onStage( Kiv::Name ) override {
         if( ++called <= 3 )
            throw std::bad_alloc();
      }
      int called = 0;
   };
   testing::internal::CaptureStderr();
   Engine engine( beginning( {}, false ) );
   auto const reactor = Kiv::newReactor< Short >( engine.status() );
   engine.takeIn( instant( 1, { input( Join{ "a", { event( "A", never() ) } } ) } ) );
   EXPECT_LT( reactor->called, 4 );
   EXPECT_GT( engine.nextDue(), 1 );
   for( int i = 0; i != 100 && engine.nextDue() != infinity; ++i )
      engine.fire();
   EXPECT_EQ( reactor->called, 4 );
   EXPECT_EQ( engine.nextDue(), infinity );
   engine.takeIn( instant( 1000, { report( "a", "A" ) } ) );
   testing::internal::GetCapturedStderr();
}

} // namespace
