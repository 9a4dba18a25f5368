// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include "EngineTestSupport.h"

#include <gtest/gtest.h>

namespace {

using namespace Simulation;
using Link = Determined::Link;

// A link as a line: the stage, its share of the time, why it ended and why it began.
std::string lineOf( Link const & link ) {
   static char const * const ends[] = { "event", "time up", "no events", "change" };
   static char const * const begins[] = { "dependency", "critical", "decision", "enabled",
                                          "change" };
   auto text = link.stage + ' ' + jsonNumber( link.begin ) + " to " + jsonNumber( link.end ) +
               ", " + ends[ static_cast< int >( link.ended ) ];
   text += link.event.empty() ? "" : ' ' + link.event;
   text += std::string( "; " ) + begins[ static_cast< int >( link.begun ) ];
   if( link.begun == Link::Begin::critical || link.begun == Link::Begin::decision )
      text += " since " + jsonNumber( link.ready );
   return text + ( link.heldFor.empty() ? "" : " for " + link.heldFor );
}

Determined determinedOf( Plan const & plan ) {
   testing::internal::CaptureStdout();
   auto const result = run( plan );
   testing::internal::GetCapturedStdout();
   EXPECT_EQ( result.outcome, Outcome::complete );
   return result.determined.value_or( Determined() );
}

Lines linesOf( Plan const & plan ) {
   Lines lines;
   for( auto const & link : determinedOf( plan ).link )
      lines.push_back( lineOf( link ) );
   return lines;
}

TEST( Determined, GoesBackFromTheLastStageByTheLastDependencies ) {
   auto const plan =
      planOf( { agent( "A", { event( "Boot", after( 1 ) ), event( "Disk", after( 3 ) ),
                              event( "Net", after( 2 ), { "Boot", "Disk" } ) } ),
                agent( "B", { event( "Net", after( 1 ) ) } ) } );
   EXPECT_EQ( linesOf( plan ), ( Lines{ "Net 3 to 5, event Net:A; dependency",
                                        "Disk 0 to 3, event Disk:A; enabled" } ) );
   auto const determined = determinedOf( plan );
   EXPECT_EQ( determined.t, 5 );
   EXPECT_EQ( determined.since, 0 );
   EXPECT_EQ( determined.held, 0 );
}

TEST( Determined, EndsWhereTheLastStageCompletedThoughMoreHappensLater ) {
   auto const plan = planOf( { agent( "A", { withTimeout( 4, event( "Boot", after( 9 ) ) ),
                                             event( "Net", after( 1 ), { "Boot" } ) } ) },
                             { at( 20, Enable{ false } ) } );
   EXPECT_EQ( linesOf( plan ),
              ( Lines{ "Net 4 to 5, event Net:A; dependency", "Boot 0 to 4, time up; enabled" } ) );
   EXPECT_EQ( determinedOf( plan ).t, 5 );
}

TEST( Determined, AStageWithNothingToWaitForHasNoShare ) {
   EXPECT_EQ(
      linesOf( planOf( { agent(
         "A", { event( "Boot", after( 1 ) ), event( "Net", already(), { "Boot" } ) } ) } ) ),
      ( Lines{ "Net 1 to 1, no events; dependency", "Boot 0 to 1, event Boot:A; enabled" } ) );
}

TEST( Determined, TheTimelineCanCompleteAStage ) {
   auto const plan = []( Operation const & operation ) {
      return planOf(
         { agent( "A", { event( "Boot", never() ), event( "Net", after( 2 ), { "Boot" } ) } ),
           agent( "B", { event( "Boot", after( 1 ) ) } ) },
         { at( 5, operation ) } );
   };
   Lines const expected{ "Net 5 to 7, event Net:A; dependency", "Boot 5 to 5, change; change" };
   EXPECT_EQ( linesOf( plan( Set{ "A", "Boot", { CompleteWrite{ true } } } ) ), expected );
   EXPECT_EQ( linesOf( plan( Withdraw{ "A", "Boot" } ) ), expected );
   EXPECT_EQ( determinedOf( plan( Withdraw{ "A", "Boot" } ) ).since, 5 );
}

TEST( Determined, AnEventThatIsDeclaredLateHasItsShareFromThenOn ) {
   auto const plan = planOf( { agent( "A", { event( "Boot", after( 4 ) ) } ) },
                             { at( 3, Join{ "B", { event( "Boot", after( 2 ) ) } } ) } );
   EXPECT_EQ( linesOf( plan ), ( Lines{ "Boot 3 to 5, event Boot:B; change" } ) );
   EXPECT_EQ( determinedOf( plan ).since, 3 );
}

TEST( Determined, BeginsWhenProgressionIsEnabled ) {
   auto plan =
      planOf( { agent( "A", { event( "Boot", after( 1 ) ) } ) }, { at( 4, Enable{ true } ) } );
   plan.enabled = false;
   EXPECT_EQ( linesOf( plan ), ( Lines{ "Boot 4 to 5, event Boot:A; enabled" } ) );
   plan.agent.clear();
   EXPECT_EQ( linesOf( plan ), Lines() );
   EXPECT_EQ( determinedOf( plan ).t, 4 );
   EXPECT_EQ( determinedOf( plan ).since, 4 );
}

TEST( Determined, BeginsWhenTheTimelineRemovesADependency ) {
   auto const plan = planOf( { agent( "A", { event( "Net", after( 1 ), { "Gone" } ) } ) },
                             { at( 6, Set{ "A", "Net", { DependencyWrite{ "Gone", {} } } } ) } );
   EXPECT_EQ( linesOf( plan ), ( Lines{ "Net 6 to 7, event Net:A; change" } ) );
}

// Of the stages, Disk and Swap are critical: Swap starts at 10 and completes at 11, and nothing
// but critical stages starts before that.
Plan held( std::vector< Event > const & events,
           std::vector< TimelineEntry > const & timeline = {} ) {
   return planOf( { agent( "A", { critical( event( "Boot", after( 3 ) ) ),
                                  critical( event( "Disk", after( 10 ) ) ),
                                  critical( event( "Swap", after( 1 ), { "Disk" } ) ) } ),
                    agent( "B", events ) },
                  timeline );
}

Lines heldSince( std::string const & ready ) {
   return { "Net 11 to 13, event Net:B; critical since " + ready + " for Swap",
            "Swap 10 to 11, event Swap:A; dependency", "Disk 0 to 10, event Disk:A; enabled" };
}

TEST( Determined, CriticalStagesFirstHoldsAStageThatCouldHaveStarted ) {
   EXPECT_EQ( linesOf( held( { event( "Net", after( 2 ), { "Boot" } ) } ) ), heldSince( "3" ) );
   EXPECT_EQ( linesOf( held( { event( "Net", after( 2 ) ) } ) ), heldSince( "0" ) );
   EXPECT_EQ( determinedOf( held( { event( "Net", after( 2 ), { "Boot" } ) } ) ).held, 8 );
   auto const last = held( { event( "Net", after( 2 ) ), event( "Web", after( 1 ), { "Net" } ) } );
   EXPECT_EQ( determinedOf( last ).held, 11 ) << "also when it is not the last that was held";
}

TEST( Determined, AStageThatBecomesCriticalIsHeldNoMore ) {
   auto plan = held( { event( "Net", after( 20 ) ) },
                     { at( 5, Set{ "B", "Net", { CriticalWrite{ true } } } ) } );
   EXPECT_EQ( linesOf( plan ), ( Lines{ "Net 5 to 25, event Net:B; critical since 0" } ) );
   EXPECT_EQ( determinedOf( plan ).since, 5 );
   EXPECT_EQ( determinedOf( plan ).held, 5 );
}

TEST( Determined, ADependencyThatComesOrGoesWhenItIsCompleteHoldsNothing ) {
   auto const change = []( std::optional< bool > value ) {
      return std::vector{ at( 5, Set{ "B", "Net", { DependencyWrite{ "Boot", value } } } ) };
   };
   EXPECT_EQ( linesOf( held( { event( "Net", after( 2 ), { "Boot" } ) }, change( {} ) ) ),
              heldSince( "3" ) );
   EXPECT_EQ( linesOf( held( { event( "Net", after( 2 ) ) }, change( true ) ) ), heldSince( "0" ) );
}

TEST( Determined, AStageIsNotHeldBeforeADecisionCouldHaveStartedIt ) {
   EXPECT_EQ( linesOf( held( {}, { at( 2, Declare{ "B", event( "Net", after( 2 ) ) } ) } ) ),
              heldSince( "3" ) );
}

TEST( Determined, AStageThatIsDeclaredLateWaitsForTheNextDecision ) {
   auto const plan = planOf( { agent( "A", { event( "Boot", after( 5 ) ) } ) },
                             { at( 2, Join{ "B", { event( "Net", after( 1 ), { "Gone" } ) } } ),
                               at( 4, Set{ "B", "Net", { DependencyWrite{ "Gone", {} } } } ) } );
   EXPECT_EQ( linesOf( plan ), ( Lines{ "Net 5 to 6, event Net:B; decision since 4",
                                        "Boot 0 to 5, event Boot:A; enabled" } ) );
}

TEST( Determined, AnEventOfAStageThatWasGivenUpCanAskForTheDecision ) {
   auto const plan = planOf( { agent( "A", { withTimeout( 2, event( "Boot", after( 6 ) ) ) } ) },
                             { at( 4, Join{ "B", { event( "Net", after( 1 ) ) } } ) } );
   EXPECT_EQ( linesOf( plan ), ( Lines{ "Net 6 to 7, event Net:B; decision since 4",
                                        "Boot 0 to 6, event Boot:A; enabled" } ) );
}

TEST( Determined, IsOfCompleteStartUpsOnly ) {
   auto const plan = planOf(
      { agent( "A", { event( "Boot", after( 1 ) ), event( "Net", after( 2 ), { "Boot" } ) } ) } );
   EXPECT_FALSE( run( plan, {}, 2 ).determined );
   EXPECT_TRUE( run( plan, {}, 3 ).determined );
}

TEST( Determined, AnEventIsPendingForAsLongAsItWas ) {
   auto const plan = planOf( { agent( "A", { event( "Boot", after( 3 ) ) } ),
                               agent( "B", { event( "Boot", already() ) } ),
                               agent( "C", { event( "Boot", never() ) } ) },
                             { at( 1, Set{ "C", "Boot", { CompleteWrite{ true } } } ),
                               at( 2.5, Set{ "C", "Boot", { CompleteWrite{ false } } } ) } );
   using Times = std::map< std::string, double >;
   EXPECT_EQ( run( plan, {}, 2.75 ).stage.at( "Boot" ).pendingFor,
              ( Times{ { "Boot:A", 2.75 }, { "Boot:C", 1.25 } } ) );
   EXPECT_EQ( run( plan, {}, 4 ).stage.at( "Boot" ).pendingFor,
              ( Times{ { "Boot:A", 3 }, { "Boot:C", 1.5 } } ) );
}

} // namespace
