// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <simulation/Result.h>

#include <gtest/gtest.h>

namespace {

using namespace Simulation;

StageResult finished() {
   StageResult stage;
   stage.active = stage.complete = true;
   return stage;
}

StageResult suspended() {
   StageResult stage;
   stage.active = stage.critical = stage.timedOut = true;
   return stage;
}

Result started() {
   Result result;
   result.started = true;
   return result;
}

TEST( Outcome, IsCompleteWhenTheStatusAndEveryStageAre ) {
   auto result = started();
   result.complete = true;
   EXPECT_EQ( outcomeOf( result ), Outcome::complete );
   result.stage[ "A" ] = finished();
   EXPECT_EQ( outcomeOf( result ), Outcome::complete );
}

TEST( Outcome, IsNotCompleteWithAStageThatIsNot ) {
   auto result = started();
   result.complete = true;
   result.stage[ "A" ] = finished();
   result.stage[ "B" ].active = true;
   EXPECT_EQ( outcomeOf( result ), Outcome::stalled );
   result.stage[ "B" ] = {};
   result.stage[ "B" ].complete = true;
   EXPECT_EQ( outcomeOf( result ), Outcome::stalled );
}

TEST( Outcome, IsNotCompleteBeforeTheStatusIs ) {
   auto result = started();
   result.stage[ "A" ] = finished();
   EXPECT_EQ( outcomeOf( result ), Outcome::stalled );
}

TEST( Outcome, IsCompleteThoughAStageTimedOutAndHasPendingEvents ) {
   auto result = started();
   result.complete = true;
   result.stage[ "A" ] = finished();
   result.stage[ "A" ].timedOut = result.stage[ "A" ].critical = true;
   result.stage[ "A" ].pending[ "A:X" ] = 0;
   EXPECT_EQ( outcomeOf( result ), Outcome::complete );
}

TEST( Outcome, IsSuspendedOnlyByAStageThatIsCriticalTimedOutAndNotComplete ) {
   auto result = started();
   result.stage[ "A" ] = suspended();
   EXPECT_EQ( outcomeOf( result ), Outcome::suspended );
   result.stage[ "A" ].critical = false;
   EXPECT_EQ( outcomeOf( result ), Outcome::stalled );
   result.stage[ "A" ] = suspended();
   result.stage[ "A" ].timedOut = false;
   EXPECT_EQ( outcomeOf( result ), Outcome::stalled );
   result.stage[ "A" ] = suspended();
   result.stage[ "A" ].complete = true;
   EXPECT_EQ( outcomeOf( result ), Outcome::stalled );
}

TEST( Outcome, IsDisabledOnlyWhenProgressionNeverStarted ) {
   Result result;
   result.stage[ "A" ] = {};
   EXPECT_EQ( outcomeOf( result ), Outcome::disabled );
   result.started = true;
   EXPECT_EQ( outcomeOf( result ), Outcome::stalled );
}

TEST( Outcome, CompleteComesBeforeSuspendedAndSuspendedBeforeDisabled ) {
   Result result;
   result.complete = true;
   EXPECT_EQ( outcomeOf( result ), Outcome::complete );
   result.stage[ "A" ] = suspended();
   EXPECT_EQ( outcomeOf( result ), Outcome::suspended );
}

TEST( Outcome, HasANameForEachValue ) {
   EXPECT_EQ( outcomeName( Outcome::complete ), "complete" );
   EXPECT_EQ( outcomeName( Outcome::suspended ), "suspended" );
   EXPECT_EQ( outcomeName( Outcome::disabled ), "disabled" );
   EXPECT_EQ( outcomeName( Outcome::stalled ), "stalled" );
}

TEST( State, IsTheOutcomeWhenNothingMoreIsDue ) {
   auto result = started();
   EXPECT_EQ( stateName( result ), "stalled" );
   result.outcome = Outcome::suspended;
   EXPECT_EQ( stateName( result ), "suspended" );
}

TEST( State, IsNoOutcomeButCompleteWhileMoreIsDue ) {
   auto result = started();
   result.exhausted = false;
   result.outcome = Outcome::suspended;
   EXPECT_EQ( stateName( result ), "in progress" );
   result.outcome = Outcome::complete;
   EXPECT_EQ( stateName( result ), "complete" );
   result = {};
   result.exhausted = false;
   result.outcome = Outcome::disabled;
   EXPECT_EQ( stateName( result ), "not started" );
}

} // namespace
