// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include "EngineTestSupport.h"

#include <gtest/gtest.h>

namespace {

using namespace Simulation;

bool contains( std::string const & text, std::string const & part ) {
   return text.find( part ) != std::string::npos;
}

TEST( Reasons, AreGivenForUnfinishedStagesOnlyInOrderOfName ) {
   auto const result =
      run( planOf( { agent( "X", { event( "B", never(), { "C" } ), event( "C", after( 1 ) ),
                                   event( "A", after( 1 ), { "B" } ) } ) } ) );
   auto const & found = result.explanation.stage;
   ASSERT_EQ( found.size(), 2U );
   EXPECT_EQ( found[ 0 ].name, "A" );
   EXPECT_EQ( found[ 0 ].state, Stage::Explanation::State::waiting );
   EXPECT_EQ( found[ 1 ].name, "B" );
   EXPECT_EQ( found[ 1 ].state, Stage::Explanation::State::active );
}

TEST( Reasons, SayWhatTheRunSawOfTimes ) {
   auto const plan =
      planOf( { agent( "X", { event( "First", after( 2 ) ),
                              withTimeout( 30, event( "Boot", never(), { "First" } ) ) } ) },
              { at( 5, Declare{ "Y", withTimeout( 30, event( "Boot", never() ) ) } ),
                at( 6, Set{ "X", "Boot", { TimeoutWrite{ 60 } } } ) } );
   auto joined = plan;
   joined.agent.push_back( agent( "Y", {} ) );
   auto const result = run( joined, {}, 7 );
   EXPECT_EQ( reasonFor( result, "Boot" ),
              "stage \"Boot\" is active and waits for events \"Boot:X\" of agent \"X\" (pending "
              "since 2 s) and \"Boot:Y\" of agent \"Y\" (pending since 5 s); its time is up at 32 "
              "s, in 25 s, whatever its timeout is now, and it would then be declared complete all "
              "the same." );
   ASSERT_EQ( causes( result.explanation ).size(), 1U );
   EXPECT_TRUE( contains( causes( result.explanation )[ 0 ], "(pending since 5 s)" ) );
}

TEST( Reasons, SayWhenASuspendedStageTimedOut ) {
   testing::internal::CaptureStdout();
   auto const result =
      run( planOf( { agent( "X", { critical( withTimeout( 5, event( "Boot", never() ) ) ) } ) } ) );
   testing::internal::GetCapturedStdout();
   EXPECT_TRUE( contains( reasonFor( result, "Boot" ),
                          "timed out at 5 s and is suspended; it waits "
                          "for event \"Boot:X\" of agent \"X\" "
                          "(pending since 0 s)" ) );
}

TEST( Reasons, NeedNothingOfTheRunAnyMore ) {
   auto const result = run( planOf(
      { agent( "A", { event( "S1", never(), { "S2" } ), event( "S2", never(), { "S1", "Gone" } ),
                      event( "S3", never(), { "S1" } ) } ) } ) );
   ASSERT_EQ( result.explanation.root.size(), 2U );
   EXPECT_EQ( causes( result.explanation ),
              ( Lines{ "stage \"Gone\" is declared by no agent, but event \"S2:A\" of agent \"A\" "
                       "depends on it; 3 stages wait for this.",
                       "stage \"S1\" waits for itself: it depends on stage \"S2\" (event \"S1:A\" "
                       "of agent \"A\"), which depends on stage \"S1\" (event \"S2:A\" of agent "
                       "\"A\"); 1 more stage waits for this." } ) );
}

TEST( Reasons, AreNoneWhenTheStartUpIsComplete ) {
   auto const result = run( planOf( { agent( "A", { event( "Boot" ) } ) } ) );
   EXPECT_TRUE( result.explanation.stage.empty() );
   EXPECT_TRUE( result.explanation.root.empty() );
}

} // namespace
