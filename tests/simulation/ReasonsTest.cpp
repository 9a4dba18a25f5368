// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <simulation/Reasons.h>

#include <gtest/gtest.h>

#include <limits>

namespace {

using namespace Simulation;

struct Reasons : testing::Test {
   Reasons() { result.started = result.enabled = true; }

   StageResult & waiting( std::string const & name, std::vector< std::string > dependency = {} ) {
      auto & stage = result.stage[ name ];
      stage.dependency = std::move( dependency );
      return stage;
   }
   StageResult & active( std::string const & name ) {
      auto & stage = result.stage[ name ];
      stage.active = true;
      stage.pending = { { name + ":X", 2.5 } };
      return stage;
   }
   StageResult & finished( std::string const & name ) {
      auto & stage = result.stage[ name ];
      stage.active = stage.complete = true;
      return stage;
   }
   std::string sentence( std::string const & name ) const {
      for( auto const & reason : reasons( result ) ) {
         if( reason.stage == name ) {
            return reason.sentence;
         }
      }
      return "none";
   }

   Result result;
};

TEST_F( Reasons, AreGivenForUnfinishedStagesOnlyInOrderOfName ) {
   waiting( "B" );
   finished( "C" );
   active( "A" );
   auto const found = reasons( result );
   ASSERT_EQ( found.size(), 2U );
   EXPECT_EQ( found[ 0 ].stage, "A" );
   EXPECT_EQ( found[ 1 ].stage, "B" );
}

TEST_F( Reasons, NameEachDependencyAndWhatItLacks ) {
   waiting( "Net", { "Boot", "Disk", "Gone", "Kernel", "Slow" } );
   active( "Disk" );
   finished( "Kernel" );
   waiting( "Boot", { "Kernel" } );
   active( "Slow" ).timedOut = true;
   EXPECT_EQ( sentence( "Net" ),
              "stage \"Net\" waits for stage \"Boot\", which has not started, stage \"Disk\", "
              "which is not complete, stage \"Gone\", which no agent has declared and stage "
              "\"Slow\", which timed out and is suspended; it has no time limit." );
}

TEST_F( Reasons, NameTheCriticalStagesThatHoldAStageBack ) {
   waiting( "Net" );
   waiting( "Disk", { "Boot" } ).critical = true;
   active( "Boot" ).critical = true;
   EXPECT_EQ( sentence( "Net" ),
              "stage \"Net\" is held back until critical stage \"Disk\" has started; "
              "it has no time limit." );
   EXPECT_EQ( sentence( "Disk" ),
              "critical stage \"Disk\" waits for stage \"Boot\", which is not complete; it "
              "has no time limit." );
}

TEST_F( Reasons, NameBothWhatHoldsBackAndWhatIsMissing ) {
   waiting( "Net", { "Boot" } );
   waiting( "C1" ).critical = true;
   waiting( "C2" ).critical = true;
   EXPECT_EQ( sentence( "Net" ), "stage \"Net\" is held back until critical stages \"C1\" and "
                                 "\"C2\" have started, and waits for stage \"Boot\", which no "
                                 "agent has declared; it has no time limit." );
}

TEST_F( Reasons, NameThreeCriticalStagesAndCountTheRest ) {
   waiting( "Net" );
   for( auto name : { "C1", "C2", "C3", "C4", "C5" } ) {
      waiting( name, { "Net" } ).critical = true;
   }
   EXPECT_EQ( sentence( "Net" ), "stage \"Net\" is held back until critical stages \"C1\", "
                                 "\"C2\", \"C3\" and 2 more have started; it has no time "
                                 "limit." );
}

TEST_F( Reasons, SayThatAStageDependsOnItself ) {
   waiting( "A", { "C" } );
   waiting( "B", { "A" } );
   waiting( "C", { "B" } );
   waiting( "D", { "A" } );
   waiting( "E", { "E" } );
   EXPECT_EQ( sentence( "A" ), "stage \"A\" waits for stage \"C\", which has not started; it "
                               "depends on itself by way of stage \"C\"; it has no time "
                               "limit." );
   EXPECT_EQ( sentence( "D" ), "stage \"D\" waits for stage \"A\", which has not started; it has "
                               "no time limit." );
   EXPECT_EQ( sentence( "E" ),
              "stage \"E\" waits for stage \"E\", which has not started; it depends on itself; it "
              "has no time limit." );
}

TEST_F( Reasons, TellTwoCyclesThatTouchFromOneThatLeadsToAnother ) {
   waiting( "A", { "B" } );
   waiting( "B", { "A", "C" } );
   waiting( "C", { "D" } );
   waiting( "D", { "C" } );
   EXPECT_NE( sentence( "B" ).find( "by way of stage \"A\"" ), std::string::npos );
   EXPECT_NE( sentence( "C" ).find( "by way of stage \"D\"" ), std::string::npos );
}

TEST_F( Reasons, NameThePendingEventsOfAnActiveStageAndSinceWhen ) {
   active( "Boot" ).pending[ "Boot:Y" ] = 4;
   EXPECT_EQ( sentence( "Boot" ), "stage \"Boot\" is active and waits for the events of agent "
                                  "\"X\" (pending since 2.5 s) and agent \"Y\" (pending since "
                                  "4 s); it has no time limit and waits for ever." );
}

TEST_F( Reasons, SayThatACriticalStageTimedOutAndIsSuspended ) {
   auto & stage = active( "Boot" );
   stage.critical = stage.timedOut = true;
   stage.timedOutAt = 30;
   EXPECT_EQ( sentence( "Boot" ), "critical stage \"Boot\" timed out at 30 s and is suspended; it "
                                  "waits for the event of agent \"X\" (pending since 2.5 s), "
                                  "with no time limit any more." );
   stage.critical = false;
   EXPECT_EQ( sentence( "Boot" ), "stage \"Boot\" timed out at 30 s and is suspended; it waits for "
                                  "the event of agent \"X\" (pending since 2.5 s), with no time "
                                  "limit any more; that it has ceased to be critical does not "
                                  "release it." );
}

TEST_F( Reasons, SayWhenTheTimeOfAnActiveStageIsUpAndThatItWouldBeDeclaredComplete ) {
   auto & stage = active( "Boot" );
   stage.activeSince = 2.5;
   stage.timeout = 30;
   stage.timeIsUp = 32.5;
   result.now = 12.25;
   EXPECT_EQ( sentence( "Boot" ), "stage \"Boot\" is active and waits for the event of agent "
                                  "\"X\" (pending since 2.5 s); its time is up at 32.5 s, in "
                                  "20.25 s, and it would then be declared complete all the same." );
}

TEST_F( Reasons, SayThatACriticalStageWouldBeSuspendedWhenItsTimeIsUp ) {
   auto & stage = active( "Boot" );
   stage.critical = true;
   stage.activeSince = 2.5;
   stage.timeout = 30;
   stage.timeIsUp = 32.5;
   result.now = 12.5;
   EXPECT_EQ( sentence( "Boot" ), "critical stage \"Boot\" is active and waits for the event of "
                                  "agent \"X\" (pending since 2.5 s); its time is up at 32.5 s, in "
                                  "20 s, and it would then be suspended, with the message "
                                  "ORDOVAN_STAGE_SLOW." );
}

TEST_F( Reasons, SayThatATimeoutChangedSinceMovesNothing ) {
   auto & stage = active( "Boot" );
   stage.timeout = 60;
   stage.timeIsUp = 30;
   EXPECT_NE( sentence( "Boot" ).find( "its time is up at 30 s, in 30 s, whatever its timeout is "
                                       "now, and it would then" ),
              std::string::npos )
      << sentence( "Boot" );
   stage.timeIsUp = infinity;
   EXPECT_NE( sentence( "Boot" ).find( "; it has no time limit and waits for ever, whatever its "
                                       "timeout is now." ),
              std::string::npos )
      << sentence( "Boot" );
   stage.timeout = infinity;
   stage.timeIsUp = 30;
   EXPECT_NE( sentence( "Boot" ).find( "in 30 s, whatever its timeout is now" ), std::string::npos )
      << sentence( "Boot" );
}

TEST_F( Reasons, SayThatATimeWhichIsNoNumberIsNoLimit ) {
   auto & stage = active( "Boot" );
   stage.timeout = stage.timeIsUp = std::numeric_limits< double >::quiet_NaN();
   EXPECT_NE( sentence( "Boot" ).find( "; it has no time limit and waits for ever." ),
              std::string::npos )
      << sentence( "Boot" );
   waiting( "Net" ).timeout = stage.timeout;
   EXPECT_NE( sentence( "Net" ).find( "; it has no time limit." ), std::string::npos );
}

TEST_F( Reasons, SayThatTheTimeOfAStageThatWaitsDoesNotRun ) {
   waiting( "Net", { "Gone" } ).timeout = 30;
   EXPECT_EQ( sentence( "Net" ), "stage \"Net\" waits for stage \"Gone\", which no agent has "
                                 "declared; its time of 30 s does not run before it has started." );
}

TEST_F( Reasons, SayThatProgressionWasNotEnabled ) {
   result.started = false;
   waiting( "Boot", { "Net" } );
   EXPECT_EQ( sentence( "Boot" ), "stage \"Boot\" waits for progression to be enabled; it has no time "
                                  "limit." );
}

TEST_F( Reasons, SayThatAStageLacksNothingButADecision ) {
   waiting( "Late", { "Boot" } );
   finished( "Boot" );
   EXPECT_EQ( sentence( "Late" ), "stage \"Late\" waits for nothing but the next decision, which "
                                  "only a change elsewhere brings about; it has no time limit." );
}

TEST_F( Reasons, NamesThatCouldSteerATerminalAreEscaped ) {
   active( "a\x1b[2J" );
   EXPECT_EQ( sentence( "a\x1b[2J" ).find( '\x1b' ), std::string::npos );
}

TEST_F( Reasons, AChainOfAHundredThousandStagesNeedsNoDeepStack ) {
   for( int i = 0; i < 100000; ++i ) {
      waiting( std::to_string( i ), { std::to_string( i + 1 ) } );
   }
   EXPECT_EQ( reasons( result ).size(), 100000U );
}

}  // namespace
