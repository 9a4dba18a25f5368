// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <simulation/Reasons.h>

#include <gtest/gtest.h>

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
              "\"Slow\", which timed out and is suspended." );
}

TEST_F( Reasons, NameTheCriticalStagesThatHoldAStageBack ) {
   waiting( "Net" );
   waiting( "Disk", { "Boot" } ).critical = true;
   active( "Boot" ).critical = true;
   EXPECT_EQ( sentence( "Net" ),
              "stage \"Net\" is held back until critical stage \"Disk\" has started." );
   EXPECT_EQ( sentence( "Disk" ),
              "critical stage \"Disk\" waits for stage \"Boot\", which is not complete." );
}

TEST_F( Reasons, NameBothWhatHoldsBackAndWhatIsMissing ) {
   waiting( "Net", { "Boot" } );
   waiting( "C1" ).critical = true;
   waiting( "C2" ).critical = true;
   EXPECT_EQ( sentence( "Net" ), "stage \"Net\" is held back until critical stages \"C1\" and "
                                 "\"C2\" have started, and waits for stage \"Boot\", which no "
                                 "agent has declared." );
}

TEST_F( Reasons, NameThreeCriticalStagesAndCountTheRest ) {
   waiting( "Net" );
   for( auto name : { "C1", "C2", "C3", "C4", "C5" } ) {
      waiting( name, { "Net" } ).critical = true;
   }
   EXPECT_EQ( sentence( "Net" ), "stage \"Net\" is held back until critical stages \"C1\", "
                                 "\"C2\", \"C3\" and 2 more have started." );
}

TEST_F( Reasons, SayThatAStageDependsOnItself ) {
   waiting( "A", { "C" } );
   waiting( "B", { "A" } );
   waiting( "C", { "B" } );
   waiting( "D", { "A" } );
   waiting( "E", { "E" } );
   EXPECT_EQ( sentence( "A" ), "stage \"A\" waits for stage \"C\", which has not started; it "
                               "depends on itself by way of stage \"C\"." );
   EXPECT_EQ( sentence( "D" ), "stage \"D\" waits for stage \"A\", which has not started." );
   EXPECT_EQ( sentence( "E" ),
              "stage \"E\" waits for stage \"E\", which has not started; it depends on itself." );
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
                                  "4 s)." );
}

TEST_F( Reasons, SayThatACriticalStageTimedOutAndIsSuspended ) {
   auto & stage = active( "Boot" );
   stage.critical = stage.timedOut = true;
   stage.timedOutAt = 30;
   EXPECT_EQ( sentence( "Boot" ), "critical stage \"Boot\" timed out at 30 s and is suspended; it "
                                  "waits for the event of agent \"X\" (pending since 2.5 s)." );
}

TEST_F( Reasons, SayThatProgressionWasNotEnabled ) {
   result.started = false;
   waiting( "Boot", { "Net" } );
   EXPECT_EQ( sentence( "Boot" ), "stage \"Boot\" waits for progression to be enabled." );
}

TEST_F( Reasons, SayThatAStageLacksNothingButADecision ) {
   waiting( "Late", { "Boot" } );
   finished( "Boot" );
   EXPECT_EQ( sentence( "Late" ), "stage \"Late\" waits for nothing but the next decision, which "
                                  "only a change elsewhere brings about." );
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
