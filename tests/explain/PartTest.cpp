// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The part of an explanation that concerns one stage.
#include "ExplainTestSupport.h"

using namespace testing_support;

namespace {

struct PartTest : ExplainTest {
   Explanation part( char const * stage ) const { return Stage::explain( *sm, stage ); }
};

TEST_F( PartTest, HoldsWhatTheStageWaitsForAndNothingElse ) {
   event( "A", "Boot" );
   event( "A", "Disk" );
   event( "B", "Net", { "Boot" } );
   event( "B", "Web", { "Net", "Gone" } );
   event( "B", "Logs", { "Disk", "Net" } );
   start();
   auto const net = part( "Net" );
   EXPECT_EQ( stages( net ), ( Lines{ "Boot", "Net" } ) );
   EXPECT_EQ( roots( net ), ( Lines{ "events Boot 3" } ) ) << "counted over the whole";
   EXPECT_EQ( names( net, waitingFor( net, net.root[ 0 ] ) ), ( Lines{ "Net" } ) );
   auto const web = part( "Web" );
   EXPECT_EQ( stages( web ), ( Lines{ "Boot", "Net", "Web" } ) );
   EXPECT_EQ( roots( web ), ( Lines{ "events Boot 3", "undeclared Gone 1" } ) );
   auto const dependency = stageOf( web, "Net" ).dependency.at( 0 );
   EXPECT_EQ( name( web, dependency.unfinished.value() ), "Boot" );
   EXPECT_EQ( stageOf( web, "Web" ).dependency.at( 1 ).unfinished, 1U ) << "its place in the part";
   EXPECT_EQ( uids( stageOf( web, "Boot" ).event ), ( Lines{ "Boot:A of A" } ) );
   EXPECT_EQ( stages( part( "Disk" ) ), ( Lines{ "Disk" } ) );
}

TEST_F( PartTest, FollowsWhatHoldsTheStageBack ) {
   event( "A", "Boot" );
   event( "A", "Vital", { "Boot" }, true );
   event( "B", "Free" );
   start();
   auto const free = part( "Free" );
   EXPECT_EQ( stages( free ), ( Lines{ "Boot", "Free", "Vital" } ) );
   EXPECT_EQ( names( free, free.critical ), ( Lines{ "Vital" } ) );
   EXPECT_EQ( roots( free ), ( Lines{ "events Boot 2" } ) );
}

TEST_F( PartTest, KeepsTheCyclesThatItMeets ) {
   event( "A", "A1", { "A1" } );
   event( "A", "X", { "Y" } );
   event( "A", "Y", { "X" } );
   event( "B", "Net", { "Y" } );
   start();
   auto const net = part( "Net" );
   EXPECT_EQ( roots( net ), ( Lines{ "cycle X,Y 1" } ) );
   EXPECT_EQ( stageOf( net, "X" ).cycle, 0U );
   EXPECT_EQ( name( net, net.root[ 0 ].path[ 1 ].stage ), "Y" );
   EXPECT_EQ( stages( part( "X" ) ), ( Lines{ "X", "Y" } ) );
}

TEST_F( PartTest, KeepsOfADecisionTheStagesThatItMeets ) {
   event( "A", "Boot" )->completeIs( true );
   start();
   event( "B", "Late" );
   event( "B", "Later" );
   event( "B", "Last", { "Later" } );
   idle();
   auto const last = part( "Last" );
   EXPECT_EQ( roots( last ), ( Lines{ "decision Later 2" } ) ) << "Last, and Late as well";
   EXPECT_EQ( Stage::causes( last ), ( Lines{ "stage \"Later\" waits for nothing but the next "
                                              "decision, which only a change elsewhere brings "
                                              "about; 2 more stages wait for this." } ) );
   EXPECT_EQ( roots( Stage::explain( *sm ) ), ( Lines{ "decision Late,Later 1" } ) );
   EXPECT_EQ( last.root[ 0 ].stage, "Later" );
}

TEST_F( PartTest, OfAStageThatIsCompleteIsEmpty ) {
   event( "A", "Boot" )->completeIs( true );
   event( "A", "Net", { "Gone" } );
   start();
   EXPECT_TRUE( part( "Boot" ).stage.empty() );
   EXPECT_TRUE( part( "Boot" ).root.empty() );
}

TEST_F( PartTest, OfAStageThatNobodyDeclaresSaysThat ) {
   event( "A", "Net", { "Gone" } );
   start();
   auto const gone = part( "Gone" );
   EXPECT_EQ( roots( gone ), ( Lines{ "undeclared Gone 1" } ) );
   EXPECT_EQ( uids( gone.root[ 0 ].by ), ( Lines{ "Net:A of A" } ) );
   EXPECT_TRUE( waitingFor( gone, gone.root[ 0 ] ).empty() );
   EXPECT_EQ( roots( part( "Unheard" ) ), ( Lines{ "undeclared Unheard 0" } ) );
   EXPECT_TRUE( part( "Unheard" ).root[ 0 ].by.empty() );
}

TEST_F( PartTest, SaysThatProgressionIsNotEnabled ) {
   config->enabledIs( false );
   event( "A", "Boot" );
   event( "A", "Net", { "Gone" } );
   start();
   EXPECT_EQ( roots( part( "Boot" ) ), ( Lines{ "disabled  2" } ) );
   EXPECT_FALSE( part( "Boot" ).enabled );
}

} // namespace
