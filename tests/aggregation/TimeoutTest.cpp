// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// A stage's timeout is the largest of its events', kept in single precision.

#include "Handles.h"

#include <cmath>
#include <limits>

namespace aggregation {
namespace {

constexpr double nan = std::numeric_limits< double >::quiet_NaN();
constexpr double inf = std::numeric_limits< double >::infinity();
constexpr double largestFloat = std::numeric_limits< float >::max();

TEST( Timeouts, TheStageFollowsTheLargestOfItsEvents ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   w.declare( "a", "S", {}, 30 );
   Ptr< EventConfig > const b = w.declare( "b", "S", {}, 120 );
   w.idle();
   EXPECT_EQ( w.stage( "S" )->timeout(), 120 );
   b->timeoutIs( 60 );
   w.idle();
   EXPECT_EQ( w.stage( "S" )->timeout(), 60 );
   w.agent( "b" )->eventDel( "S" );
   w.idle();
   EXPECT_EQ( w.stage( "S" )->timeout(), 30 );
}

TEST( Timeouts, AChangeBelowTheLargestChangesNothing ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   Ptr< EventConfig > const a = w.declare( "a", "S", {}, 30 );
   w.declare( "b", "S", {}, 120 );
   w.idle();
   a->timeoutIs( 100 );
   w.idle();
   EXPECT_EQ( w.stage( "S" )->timeout(), 120 );
   a->timeoutIs( 121 );
   w.idle();
   EXPECT_EQ( w.stage( "S" )->timeout(), 121 );
}

TEST( Timeouts, RemovingAnEventBelowTheStagesTimeoutRecomputesNothing ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   w.declare( "a", "S", {}, 30 );
   w.declare( "b", "S", {}, 120 );
   w.idle();
   TraceRecorder traces;
   w.agent( "a" )->eventDel( "S" );
   w.idle();
   EXPECT_EQ( w.stage( "S" )->timeout(), 120 );
   EXPECT_EQ( traces.countStarting( ofStage + "handleTimeout()" ), 0U );
}

TEST( Timeouts, RemovingOneOfTwoLargestKeepsTheValueOfTheOther ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   w.declare( "a", "S", {}, 120 );
   w.declare( "b", "S", {}, 120 );
   w.idle();
   TraceRecorder traces;
   w.agent( "a" )->eventDel( "S" );
   w.idle();
   EXPECT_EQ( w.stage( "S" )->timeout(), 120 );
   EXPECT_EQ( traces.countStarting( ofStage + "handleTimeout()" ), 1U );
   EXPECT_EQ( traces.countStarting( "  new timeout = " ), 0U );
}

TEST( Timeouts, AStageWithoutEventsHasNoneAfterARecomputation ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   w.declare( "a", "S", {}, 30 );
   w.idle();
   w.agent( "a" )->eventDel( "S" );
   w.idle();
   EXPECT_EQ( w.stage( "S" )->timeout(), 0 );
}

// Readers compare against the stored value, which is single precision.
TEST( Timeouts, AFractionIsKeptInSinglePrecision ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   w.declare( "a", "S", {}, 0.1 );
   w.idle();
   EXPECT_EQ( w.stage( "S" )->timeout(), double{ 0.1F } );
   EXPECT_NE( w.stage( "S" )->timeout(), 0.1 );
}

// The event's own value is not the narrowed one, so the comparison on removal fails.
TEST( Timeouts, ANarrowedMaximumStaysAfterTheEventThatGaveIt ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   w.declare( "a", "S", {}, 0.1 );
   w.idle();
   w.agent( "a" )->eventDel( "S" );
   w.idle();
   EXPECT_EQ( w.stage( "S" )->events(), 0U );
   EXPECT_EQ( w.stage( "S" )->timeout(), double{ 0.1F } );
   // The next recomputation corrects it.
   w.declare( "a", "S", {}, 0.0625 );
   w.idle();
   EXPECT_EQ( w.stage( "S" )->timeout(), 0.0625 );
}

TEST( Timeouts, AnEventWhoseTimeoutIsNoNumberIsNeverEqualSoItsRemovalRecomputesNothing ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   w.declare( "a", "S", {}, nan );
   w.idle();
   EXPECT_TRUE( std::isnan( w.stage( "S" )->timeout() ) );
   w.agent( "a" )->eventDel( "S" );
   w.idle();
   EXPECT_TRUE( std::isnan( w.stage( "S" )->timeout() ) );
}

TEST( Timeouts, AnEventWithoutTimeoutLastsForEver ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   w.declare( "a", "S" );
   w.idle();
   EXPECT_EQ( w.stage( "S" )->timeout(), inf );
   w.agent( "a" )->eventDel( "S" );
   w.idle();
   EXPECT_EQ( w.stage( "S" )->timeout(), 0 );
}

TEST( Timeouts, ATimeoutChangedInTheBatchThatWithdrawsTheEventIsForgottenInEitherOrder ) {
   for( bool const timeoutFirst : { true, false } ) {
      World w;
      Ptr< ConfigSm > const machine = w.configSm();
      Ptr< EventConfig > const a = w.declare( "a", "S", {}, 120 );
      w.declare( "b", "S", {}, 30 );
      w.idle();
      if( timeoutFirst )
         a->timeoutIs( 60 );
      w.agent( "a" )->eventDel( "S" );
      if( !timeoutFirst )
         a->timeoutIs( 60 );
      w.idle();
      EXPECT_EQ( w.stage( "S" )->timeout(), 30 ) << timeoutFirst;
   }
}

// ------------------------------------------------------------------ the maximum, step by step

// What a stage gets from events with these timeouts, handed over in the order of its collection.
double maximumOf( std::vector< double > const & timeouts, double before = -7 ) {
   World w;
   Ptr< ConfigSm > const machine = silentConfigSm( w );
   for( std::size_t i = 0; i != timeouts.size(); ++i )
      fileEvent( w, std::string( "agent" ) + std::to_string( i ), "S" );
   Ptr< StageStatus > const stage = w.status->stageIs( "S" );
   std::size_t next = 0;
   for( auto i = stage->eventIterator(); i; ++i )
      const_cast< EventConfig & >( *i.ptr() ).timeoutIs( timeouts[ next++ ] );
   Ptr< ConfigSm::KivStageStatus > const reactor = machine->stageStatusIs( stage );
   stage->timeoutIs( before );
   reactor->handleTimeout();
   return stage->timeout();
}

TEST( MaximumOfTimeouts, IsTheLargestInEveryPosition ) {
   EXPECT_EQ( maximumOf( { 120, 30, 60 } ), 120 );
   EXPECT_EQ( maximumOf( { 30, 120, 60 } ), 120 );
   EXPECT_EQ( maximumOf( { 30, 60, 120 } ), 120 );
   EXPECT_EQ( maximumOf( { 60, 60, 60 } ), 60 );
   EXPECT_EQ( maximumOf( { 30 } ), 30 );
}

TEST( MaximumOfTimeouts, StartsAtZero ) {
   EXPECT_EQ( maximumOf( {} ), 0 );
   EXPECT_EQ( maximumOf( { -1 } ), 0 );
   EXPECT_EQ( maximumOf( { -1, -5 } ), 0 );
   EXPECT_EQ( maximumOf( { 0 } ), 0 );
   EXPECT_EQ( maximumOf( { -inf } ), 0 );
   EXPECT_EQ( maximumOf( { -1e300 } ), 0 );
   EXPECT_EQ( maximumOf( { -1, 5, -1 } ), 5 );
}

// Seen only by the sign of a zero: 0 is not greater than -0, so -0 is taken.
TEST( MaximumOfTimeouts, TakesAnEqualValueAgain ) {
   EXPECT_TRUE( std::signbit( maximumOf( { -0.0 } ) ) );
   EXPECT_FALSE( std::signbit( maximumOf( { -0.0, 0.0 } ) ) );
}

TEST( MaximumOfTimeouts, IsNarrowedToSinglePrecision ) {
   EXPECT_EQ( maximumOf( { 0.1 } ), double{ 0.1F } );
   EXPECT_EQ( maximumOf( { 16777217.0 } ), 16777216.0 );
   EXPECT_EQ( maximumOf( { 1e-50 } ), 0 );
   // 0.1F is above 0.1, so a following 0.1 is left; it is below 0.7, which is taken.
   EXPECT_EQ( maximumOf( { 0.1, 0.1 } ), double{ 0.1F } );
   EXPECT_EQ( maximumOf( { 0.1, 0.7, 0.1 } ), double{ 0.7F } );
   // 0.7F is below 0.7: the comparison is made with the event's own value.
   EXPECT_EQ( maximumOf( { 0.7, 0.7 } ), double{ 0.7F } );
}

// The running maximum is compared in single precision: a value between 0.1 and 0.1F is not above.
TEST( MaximumOfTimeouts, ComparesTheNarrowedMaximumWithTheWholeValue ) {
   double const between = ( 0.1 + double{ 0.1F } ) / 2;
   ASSERT_GT( between, 0.1 );
   ASSERT_LT( between, double{ 0.1F } );
   EXPECT_EQ( maximumOf( { 0.1, between } ), double{ 0.1F } );
   double const above = std::nextafter( double{ 0.1F }, 1 );
   EXPECT_EQ( maximumOf( { 0.1, above } ), double{ 0.1F } );
}

TEST( MaximumOfTimeouts, NoNumberIsTakenAndReplacedByTheNextValue ) {
   EXPECT_TRUE( std::isnan( maximumOf( { nan } ) ) );
   EXPECT_EQ( maximumOf( { nan, 5 } ), 5 );
   EXPECT_EQ( maximumOf( { nan, -5 } ), -5 );
   EXPECT_TRUE( std::isnan( maximumOf( { 5, nan } ) ) );
   EXPECT_EQ( maximumOf( { 100, nan, 5 } ), 5 );
   EXPECT_EQ( maximumOf( { nan, 100, 5 } ), 100 );
   EXPECT_TRUE( std::isnan( maximumOf( { 100, 5, nan } ) ) );
   EXPECT_EQ( maximumOf( { nan, nan, 5 } ), 5 );
   EXPECT_EQ( maximumOf( { nan, -5, -3 } ), -3 );
   EXPECT_EQ( maximumOf( { nan, -5, -8 } ), -5 );
}

TEST( MaximumOfTimeouts, WhatSinglePrecisionCannotHoldIsInfinite ) {
   EXPECT_EQ( maximumOf( { 1e39 } ), inf );
   EXPECT_EQ( maximumOf( { 1e308, 30 } ), inf );
   EXPECT_EQ( maximumOf( { inf } ), inf );
   EXPECT_EQ( maximumOf( { inf, 1e39 } ), inf );
   // Below zero only what follows a NaN is ever taken.
   EXPECT_EQ( maximumOf( { nan, -1e39 } ), -inf );
   EXPECT_EQ( maximumOf( { nan, -inf } ), -inf );
   EXPECT_EQ( maximumOf( { nan, -largestFloat } ), -largestFloat );
   EXPECT_EQ( maximumOf( { nan, -inf, -inf } ), -inf );
}

// To the nearest, and of two that are equally near to the even one: the largest float is odd.
TEST( MaximumOfTimeouts, WhatIsNearestToTheLargestFloatBecomesThat ) {
   double const half = std::ldexp( 1, 103 ); // of the last place of the largest float
   EXPECT_EQ( maximumOf( { largestFloat } ), largestFloat );
   EXPECT_EQ( maximumOf( { std::nextafter( largestFloat, inf ) } ), largestFloat );
   EXPECT_EQ( maximumOf( { std::nextafter( largestFloat + half, 0 ) } ), largestFloat );
   EXPECT_EQ( maximumOf( { largestFloat + half } ), inf );
   EXPECT_EQ( maximumOf( { std::nextafter( largestFloat + half, inf ) } ), inf );
   EXPECT_EQ( maximumOf( { nan, std::nextafter( -largestFloat, -inf ) } ), -largestFloat );
   EXPECT_EQ( maximumOf( { nan, std::nextafter( -largestFloat - half, 0 ) } ), -largestFloat );
   EXPECT_EQ( maximumOf( { nan, -largestFloat - half } ), -inf );
}

// ------------------------------------------------------------------------------------- traces

TEST( TimeoutTraces, ARecomputationTracesTheOldValueAndANewOne ) {
   World w;
   Ptr< ConfigSm > const machine = silentConfigSm( w );
   fileEvent( w, "a", "S" )->timeoutIs( 0.5 );
   Ptr< ConfigSm::KivStageStatus > const reactor = machine->stageStatusIs( w.stage( "S" ) );
   w.stage( "S" )->timeoutIs( 0.25 );
   TraceRecorder traces;
   reactor->handleTimeout();
   EXPECT_EQ( traces.taken(),
              ( Lines{ ofStage + "handleTimeout() S  timeout=0.25", "  new timeout = 0.5" } ) );
   reactor->handleTimeout();
   EXPECT_EQ( traces.taken(), ( Lines{ ofStage + "handleTimeout() S  timeout=0.5" } ) );
   reactor->eventConfig( "a" )->handleTimeout();
   EXPECT_EQ( traces.taken(), ( Lines{ ofEvent + "handleTimeout() S:a  timeout=0.5",
                                       ofStage + "handleTimeout() S  timeout=0.5" } ) );
}

TEST( TimeoutTraces, TheNarrowedValueIsTheNewOne ) {
   World w;
   Ptr< ConfigSm > const machine = silentConfigSm( w );
   fileEvent( w, "a", "S" )->timeoutIs( 0.1 );
   TraceRecorder traces;
   machine->stageStatusIs( w.stage( "S" ) );
   EXPECT_EQ( traces.count( "  new timeout = 0.10000000149011612" ), 1U );
   EXPECT_EQ( traces.count( ofEvent + "handleTimeout() S:a  timeout=0.1" ), 1U );
}

TEST( TimeoutTraces, AChangedTimeoutRunsFromTheEventToTheStage ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   Ptr< EventConfig > const event = w.declare( "a", "S", {}, 30 );
   w.idle();
   TraceRecorder traces;
   event->timeoutIs( 45 );
   w.idle();
   EXPECT_EQ( traces.taken(),
              ( Lines{ ofEvent + "handleTimeout() S:a  timeout=45",
                       ofStage + "handleTimeout() S  timeout=30", "  new timeout = 45" } ) );
}

} // namespace
} // namespace aggregation
