// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <simulation/Timeline.h>

#include <limits>
#include <stdexcept>

#include <gtest/gtest.h>

namespace {

using namespace Simulation;

Event event( std::string stage ) {
   Event event;
   event.stage = std::move( stage );
   return event;
}

Agent agent( std::string name, std::vector< Event > events ) {
   return { std::move( name ), std::move( events ), {} };
}

// The entry stands in line `line`, its agent's name in column 2, its stage's in column 3.
TimelineEntry entry( unsigned line, double at, Operation operation ) {
   return { at, std::move( operation ), { line, 1 }, { line, 2 }, { line, 3 } };
}

// A: Boot.
Plan planWith( std::vector< TimelineEntry > timeline ) {
   Plan plan;
   plan.agent = { agent( "A", { event( "Boot" ) } ) };
   plan.timeline = std::move( timeline );
   return plan;
}

std::vector< Place > places( Plan const & plan, std::vector< UnclearEntry > const & unclear = {} ) {
   std::vector< Place > found;
   for( auto const & mistake : planMistakes( plan, unclear ) )
      found.push_back( mistake.place );
   return found;
}

using Places = std::vector< Place >;

TEST( Timeline, EntriesRunInOrderOfTimeAndEqualTimesInOrderOfTheFile ) {
   auto const plan = planWith( { entry( 1, 5, Enable() ), entry( 2, 0, Enable() ),
                                 entry( 3, 5, Enable() ), entry( 4, 0, Enable() ) } );
   EXPECT_EQ( timelineOrder( plan.timeline ), ( std::vector< std::size_t >{ 1, 3, 0, 2 } ) );
}

TEST( Timeline, ATimeThatIsNoneIsRefused ) {
   double const nan = std::numeric_limits< double >::quiet_NaN();
   auto const plan = planWith( { entry( 1, 5, Enable() ), entry( 2, nan, Enable() ) } );
   EXPECT_THROW( timelineOrder( plan.timeline ), std::invalid_argument );
   EXPECT_THROW( planMistakes( plan ), std::invalid_argument );
   EXPECT_THROW( planMistakes( planWith( {} ), { { nan, "A" } } ), std::invalid_argument );
   EXPECT_NO_THROW( planMistakes( planWith( {} ), { { -infinity, "A" } } ) );
}

TEST( Timeline, APlanInOrderHasNoMistakes ) {
   EXPECT_EQ(
      places( planWith(
         { entry( 1, 1, Leave{ "A" } ), entry( 2, 1, Join{ "A", { event( "Net" ) } } ),
           entry( 3, 2, Set{ "A", "Net", {} } ), entry( 4, 3, Withdraw{ "A", "Net" } ),
           entry( 5, 3, Declare{ "A", event( "Net" ) } ), entry( 6, 4, Enable{ false } ) } ) ),
      Places{} );
}

TEST( Timeline, OnlyAnAgentThatIsNotThereCanJoin ) {
   auto const mistakes = planMistakes( planWith( { entry( 7, 2.5, Join{ "A", {} } ) } ) );
   ASSERT_EQ( mistakes.size(), 1U );
   EXPECT_EQ( mistakes[ 0 ].place, ( Place{ 7, 2 } ) );
   EXPECT_EQ( mistakes[ 0 ].text, "agent \"A\" is there already at 2.5; only an agent that is not "
                                  "in the directory can join" );
}

TEST( Timeline, OnlyAnAgentThatIsThereCanLeaveDeclareWithdrawOrBeSet ) {
   EXPECT_EQ(
      places( planWith(
         { entry( 1, 1, Leave{ "B" } ), entry( 2, 1, Declare{ "B", event( "Boot" ) } ),
           entry( 3, 1, Withdraw{ "B", "Boot" } ), entry( 4, 1, Set{ "B", "Boot", {} } ) } ) ),
      ( Places{ { 1, 2 }, { 2, 2 }, { 3, 2 }, { 4, 2 } } ) );
}

TEST( Timeline, OnlyAnEventThatIsThereCanBeWithdrawnOrSetAndOnlyAnotherDeclared ) {
   EXPECT_EQ( places( planWith( { entry( 1, 1, Withdraw{ "A", "Net" } ),
                                  entry( 2, 1, Set{ "A", "Net", {} } ),
                                  entry( 3, 1, Declare{ "A", event( "Boot" ) } ) } ) ),
              ( Places{ { 1, 3 }, { 2, 3 }, { 3, 3 } } ) );
}

TEST( Timeline, EntriesAreJudgedInOrderOfTimeNotOfTheFile ) {
   EXPECT_EQ( places( planWith( { entry( 1, 2, Set{ "B", "Boot", {} } ),
                                  entry( 2, 1, Join{ "B", { event( "Boot" ) } } ) } ) ),
              Places{} );
   EXPECT_EQ( places( planWith( { entry( 1, 1, Set{ "B", "Boot", {} } ),
                                  entry( 2, 2, Join{ "B", { event( "Boot" ) } } ) } ) ),
              ( Places{ { 1, 2 } } ) );
}

TEST( Timeline, AnAgentThatLeavesTakesItsEventsWithIt ) {
   EXPECT_EQ( places( planWith( { entry( 1, 1, Leave{ "A" } ), entry( 2, 1, Join{ "A", {} } ),
                                  entry( 3, 1, Set{ "A", "Boot", {} } ) } ) ),
              ( Places{ { 3, 3 } } ) );
}

TEST( Timeline, AWrongEntryCountsAsNotMade ) {
   EXPECT_EQ( places( planWith( { entry( 1, 1, Declare{ "B", event( "Boot" ) } ),
                                  entry( 2, 2, Set{ "B", "Boot", {} } ),
                                  entry( 3, 3, Join{ "B", {} } ) } ) ),
              ( Places{ { 1, 2 }, { 2, 2 } } ) );
}

TEST( Timeline, TheEventsOfAWrongJoinAreNotMissedAgain ) {
   EXPECT_EQ( places( planWith( { entry( 1, 1, Join{ "A", { event( "Net" ) } } ),
                                  entry( 2, 2, Set{ "A", "Net", {} } ) } ) ),
              ( Places{ { 1, 2 } } ) );
}

TEST( Timeline, WhatAnUnclearEntryMayHaveBroughtIsNotMissed ) {
   auto const plan =
      planWith( { entry( 1, 1, Set{ "B", "Boot", {} } ), entry( 2, 1, Set{ "A", "Net", {} } ),
                  entry( 3, 1, Join{ "A", {} } ) } );
   EXPECT_EQ( places( plan, { { -infinity, "A", true, false }, { 1, "B", true, false } } ),
              ( Places{ { 3, 2 } } ) );
   EXPECT_EQ( places( plan, { { 2, "A", true, true }, { 2, "B", true, true } } ),
              ( Places{ { 1, 2 }, { 2, 3 }, { 3, 2 } } ) );
}

TEST( Timeline, WhatAnUnclearEntryMayHaveTakenAwayMayComeAgain ) {
   auto const plan =
      planWith( { entry( 1, 1, Join{ "A", {} } ), entry( 2, 1, Declare{ "A", event( "Boot" ) } ),
                  entry( 3, 1, Set{ "A", "Net", {} } ) } );
   EXPECT_EQ( places( plan, { { 1, "A", false, true } } ), ( Places{ { 3, 3 } } ) );
}

TEST( Timeline, AnAgentOrEventThatStandsTwiceIsAMistake ) {
   Plan plan;
   plan.agent = { agent( "A", { event( "Boot" ), event( "Boot" ) } ), agent( "A", {} ) };
   plan.agent[ 0 ].event[ 1 ].place = { 3, 4 };
   plan.agent[ 1 ].place = { 5, 6 };
   EXPECT_EQ( places( plan ), ( Places{ { 3, 4 }, { 5, 6 } } ) );
}

} // namespace
