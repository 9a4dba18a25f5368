// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// An aggregation that is made late: over agents, stages or both that exist already.

#include "Handles.h"

#include <algorithm>
#include <array>
#include <functional>

namespace aggregation {
namespace {

TEST( CatchUp, TheConstructorTakesInTheAgentsThatAreThereBeforeTheLoopRuns ) {
   World w;
   w.declare( "a", "S", { "T" }, 30, true );
   w.declare( "b", "S", {}, 60 );
   Ptr< ConfigSm > const machine = silentConfigSm( w );
   EXPECT_EQ( machine->agentConfigs(), 2U );
   EXPECT_EQ( agentsOf( w.stage( "S" ) ), ( Names{ "a", "b" } ) );
   ASSERT_TRUE( machine->stageStatus( "S" ) ) << "stages that the agents have made are watched";
   EXPECT_EQ( machine->stageStatus( "S" )->eventConfigs(), 2U );
   EXPECT_EQ( dependenciesOf( w.stage( "S" ) ), ( Names{ "T" } ) );
   EXPECT_EQ( w.stage( "S" )->timeout(), 60 );
   EXPECT_TRUE( w.stage( "S" )->critical() );
   EXPECT_FALSE( w.stage( "T" ) );
}

TEST( CatchUp, StagesThatAreThereAreWatched ) {
   World w;
   w.status->stageIs( "S" );
   w.status->stageIs( "T" );
   Ptr< ConfigSm > const machine = silentConfigSm( w );
   EXPECT_EQ( machine->stageStatuss(), 2U );
   EXPECT_EQ( machine->stageStatus( "S" )->stage(), w.stage( "S" ) );
}

TEST( CatchUp, EventsThatAStageHoldsAreWatchedAndCounted ) {
   World w;
   Ptr< EventConfig > const event = w.declare( "a", "S", { "X" }, 30, true );
   w.status->stageIs( "S" )->eventIs( event );
   Ptr< ConfigSm > const machine = silentConfigSm( w );
   EXPECT_EQ( machine->stageStatus( "S" )->eventConfig( "a" )->notifier(), event );
   EXPECT_EQ( dependenciesOf( w.stage( "S" ) ), ( Names{ "X" } ) );
   EXPECT_EQ( w.stage( "S" )->timeout(), 30 );
   EXPECT_TRUE( w.stage( "S" )->critical() );
}

TEST( CatchUp, AnEventWithdrawnInTheMeantimeLeavesItsStage ) {
   World w;
   Ptr< EventConfig > const event = w.declare( "a", "S", { "X" }, 30, true );
   w.configSm();
   ASSERT_EQ( agentsOf( w.stage( "S" ) ), ( Names{ "a" } ) );
   w.agent( "a" )->eventDel( "S" );
   Ptr< ConfigSm > const machine = silentConfigSm( w );
   EXPECT_EQ( w.stage( "S" )->events(), 0U );
   EXPECT_EQ( w.stage( "S" )->dependencys(), 0U );
   EXPECT_EQ( w.stage( "S" )->timeout(), 0 );
   EXPECT_FALSE( w.stage( "S" )->critical() );
}

TEST( CatchUp, AnEventChangedInTheMeantimeIsFollowed ) {
   World w;
   Ptr< EventConfig > const event = w.declare( "a", "S", { "X", "Y" }, 30, true );
   w.configSm();
   event->dependencyDel( "X" );
   event->dependencyIs( "Z", true );
   event->timeoutIs( 10 );
   event->criticalIs( false );
   Ptr< ConfigSm > const machine = silentConfigSm( w );
   EXPECT_EQ( dependenciesOf( w.stage( "S" ) ), ( Names{ "Y", "Z" } ) );
   EXPECT_EQ( w.stage( "S" )->timeout(), 10 );
   EXPECT_FALSE( w.stage( "S" )->critical() );
}

// No notification comes for stages that were there before; which reactor is made first depends on
// names alone, so both directions are tried.
TEST( CatchUp, StagesThatWereThereAreLinkedWhicheverReactorIsMadeFirst ) {
   for( bool const swapped : { false, true } ) {
      Name const critical = swapped ? "T" : "S";
      Name const other = swapped ? "S" : "T";
      World w;
      w.declare( "a", critical, { other.str() }, 0, true );
      w.declare( "a", other );
      w.configSm();
      ASSERT_EQ( w.status->stages(), 2U );
      Ptr< ConfigSm > const machine = silentConfigSm( w );
      EXPECT_TRUE( machine->stageStatus( other )->criticalAncestor( String8( critical ) ) );
      EXPECT_TRUE( w.stage( other )->critical() );
      EXPECT_FALSE( machine->stageStatus( critical )->hasCriticalAncestor( String8( other ) ) );
   }
}

TEST( CatchUp, EveryStageThatWasThereIsToldOfOnceAndNewOnesAreNot ) {
   World w;
   w.status->stageIs( "S" );
   w.status->stageIs( "T" );
   w.declare( "a", "U" );
   TraceRecorder traces;
   Ptr< ConfigSm > const machine = silentConfigSm( w );
   EXPECT_EQ( traces.count( sm + "handleStage(Kiv::Name) stage=S" ), 1U );
   EXPECT_EQ( traces.count( sm + "handleStage(Kiv::Name) stage=T" ), 1U );
   EXPECT_EQ( traces.countStarting( sm + "handleStage(" ), 2U );
   EXPECT_EQ( traces.lines().front().text, sm + "handleAgent() AgentDir: " );
}

TEST( CatchUp, WhatHappensBetweenConstructionAndActivationIsNotLost ) {
   World w;
   w.agent( "a" );
   Ptr< ConfigSm > const machine = silentConfigSm( w );
   w.declare( "a", "S", { "T" }, 30, true );
   w.declare( "b", "T" );
   w.status->stageIs( "U" );
   w.idle();
   EXPECT_EQ( stagesOf( w.status ), ( Names{ "U" } ) ) << "not active yet";
   machine->hasNotificationActiveIs( true );
   w.idle();
   EXPECT_EQ( stagesOf( w.status ), ( Names{ "S", "T", "U" } ) );
   EXPECT_TRUE( w.stage( "T" )->critical() );
   EXPECT_TRUE( machine->stageStatus( "U" ) );
}

TEST( CatchUp, ActivationReachesEveryNestedReactor ) {
   World w;
   w.declare( "a", "S" );
   Ptr< ConfigSm > const machine = silentConfigSm( w );
   auto const active = [ & ] {
      return std::array< bool, 4 >{
         machine->hasNotificationActive(), machine->agentConfig( "a" )->hasNotificationActive(),
         machine->stageStatus( "S" )->hasNotificationActive(),
         machine->stageStatus( "S" )->eventConfig( "a" )->hasNotificationActive() };
   };
   EXPECT_EQ( active(), ( std::array< bool, 4 >{} ) );
   machine->hasNotificationActiveIs( true );
   EXPECT_EQ( active(), ( std::array< bool, 4 >{ true, true, true, true } ) );
   machine->hasNotificationActiveIs( false );
   EXPECT_EQ( active(), ( std::array< bool, 4 >{} ) );
}

TEST( CatchUp, AReactorMadeLaterTakesItsOwnersState ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   w.declare( "a", "S" );
   w.idle();
   EXPECT_TRUE( machine->agentConfig( "a" )->hasNotificationActive() );
   EXPECT_TRUE( machine->stageStatus( "S" )->hasNotificationActive() );
   EXPECT_TRUE( machine->stageStatus( "S" )->eventConfig( "a" )->hasNotificationActive() );
   Ptr< EventConfig > const second = w.declare( "b", "S", {}, 30 );
   w.idle();
   EXPECT_TRUE( machine->stageStatus( "S" )->eventConfig( "b" )->hasNotificationActive() )
      << "in a stage that was there before";
   w.agent( "a" )->eventDel( "S" );
   second->timeoutIs( 45 );
   w.idle();
   EXPECT_EQ( w.stage( "S" )->timeout(), 45 );
   machine->hasNotificationActiveIs( false );
   w.agent( "c" );
   machine->handleAgent();
   EXPECT_FALSE( machine->agentConfig( "c" )->hasNotificationActive() );
}

// ---------------------------------------------------------------------------- in every order

// Four things that make up a start-up's configuration, done in each of their 24 orders, with the
// loop running after every set of them.
class EveryOrder : public testing::TestWithParam< unsigned > {};

TEST_P( EveryOrder, TheResultIsTheSame ) {
   std::array< unsigned, 4 > order{ 0, 1, 2, 3 };
   do {
      World w;
      Ptr< ConfigSm > machine;
      std::array< std::function< void() >, 4 > const steps{
         [ & ] {
            w.declare( "a", "S", { "T", "U" }, 30, true );
         },
         [ & ] {
            w.declare( "b", "T", { "U" }, 20 );
            w.declare( "b", "S", { "V" }, 10 );
         },
         [ & ] {
            w.status->stageIs( "S" );
            w.status->stageIs( "U" );
         },
         [ & ] { machine = w.configSm(); } };
      std::string shown;
      for( unsigned i = 0; i != 4; ++i ) {
         steps[ order[ i ] ]();
         shown += std::to_string( order[ i ] ) + " ";
         if( ( GetParam() >> i & 1U ) != 0 ) {
            w.idle();
            shown += "loop ";
         }
      }
      w.idle();
      SCOPED_TRACE( shown );
      ASSERT_EQ( stagesOf( w.status ), ( Names{ "S", "T", "U" } ) );
      EXPECT_EQ( machine->agentConfigs(), 2U );
      EXPECT_EQ( machine->stageStatuss(), 3U );
      EXPECT_EQ( agentsOf( w.stage( "S" ) ), ( Names{ "a", "b" } ) );
      EXPECT_EQ( agentsOf( w.stage( "T" ) ), ( Names{ "b" } ) );
      EXPECT_EQ( agentsOf( w.stage( "U" ) ), ( Names{} ) );
      EXPECT_EQ( dependenciesOf( w.stage( "S" ) ), ( Names{ "T", "U", "V" } ) );
      EXPECT_EQ( dependenciesOf( w.stage( "T" ) ), ( Names{ "U" } ) );
      EXPECT_EQ( w.stage( "S" )->timeout(), 30 );
      EXPECT_EQ( w.stage( "T" )->timeout(), 20 );
      EXPECT_EQ( w.stage( "U" )->timeout(), 0 );
      EXPECT_TRUE( w.stage( "S" )->critical() );
      EXPECT_TRUE( w.stage( "T" )->critical() );
      EXPECT_TRUE( w.stage( "U" )->critical() );
      EXPECT_TRUE( machine->stageStatus( "U" )->hasCriticalAncestor( "S" ) );
      EXPECT_TRUE( machine->stageStatus( "U" )->hasCriticalAncestor( "T" ) );
   } while( std::next_permutation( order.begin(), order.end() ) );
}

INSTANTIATE_TEST_SUITE_P( OfWritesAndLoops, EveryOrder, testing::Range( 0U, 8U ) );

} // namespace
} // namespace aggregation
