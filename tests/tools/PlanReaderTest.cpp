// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <tools/PlanReader.h>

#include <cmath>
#include <string>

#include <gtest/gtest.h>

namespace {

using namespace Simulation;

Plan planOf( std::string_view text ) {
   auto [ plan, mistakes ] = Tools::readPlan( text );
   for( auto const & mistake : mistakes )
      ADD_FAILURE() << mistake.place.line << ':' << mistake.place.column << ": " << mistake.text;
   return plan;
}

Event eventOf( std::string const & text ) {
   auto const plan = planOf( "agents: {A: {S: " + text + "}}" );
   return plan.agent.at( 0 ).event.at( 0 );
}

template< class T >
T operationOf( std::string const & entry ) {
   return std::get< T >(
      planOf( "agents: {A: {S: {}}}\ntimeline: [" + entry + "]" ).timeline.at( 0 ).operation );
}

TEST( PlanReader, AnEmptyMapIsAPlanWithTheDefaults ) {
   auto const plan = planOf( "{}" );
   EXPECT_EQ( plan.application, "application" );
   EXPECT_TRUE( plan.enabled );
   EXPECT_TRUE( plan.agent.empty() );
   EXPECT_TRUE( plan.timeline.empty() );
}

TEST( PlanReader, ApplicationAndEnabledAreRead ) {
   auto const plan = planOf( "enabled: false\napplication: Router\n" );
   EXPECT_EQ( plan.application, "Router" );
   EXPECT_FALSE( plan.enabled );
}

TEST( PlanReader, AnEventWithoutAttributesHasTheDefaults ) {
   auto const event = eventOf( "{}" );
   EXPECT_EQ( event.stage, "S" );
   EXPECT_EQ( event.timeout, infinity );
   EXPECT_FALSE( event.critical );
   EXPECT_TRUE( event.dependency.empty() );
   EXPECT_EQ( event.complete.kind, Behaviour::Kind::afterSeconds );
   EXPECT_EQ( event.complete.seconds, 0 );
}

TEST( PlanReader, EveryAttributeOfAnEventIsRead ) {
   auto const event =
      eventOf( "{timeout: 0x1E, critical: true, dependency: [B, A, B], complete: 2.5}" );
   EXPECT_EQ( event.timeout, 30 );
   EXPECT_TRUE( event.critical );
   ASSERT_EQ( event.dependency.size(), 3U );
   EXPECT_EQ( event.dependency[ 0 ].stage, "B" );
   EXPECT_EQ( event.dependency[ 1 ].stage, "A" );
   EXPECT_TRUE( event.dependency[ 2 ].value );
   EXPECT_EQ( event.complete.seconds, 2.5 );
}

TEST( PlanReader, DependenciesMayBeAMapOfNamesToBooleans ) {
   auto const event = eventOf( "{dependency: {Hardware: true, Optional: false, 1: true}}" );
   ASSERT_EQ( event.dependency.size(), 3U );
   EXPECT_EQ( event.dependency[ 1 ].stage, "Optional" );
   EXPECT_FALSE( event.dependency[ 1 ].value );
   EXPECT_EQ( event.dependency[ 2 ].stage, "1" );
}

TEST( PlanReader, NeverAndInfinityAreTheSameBehaviour ) {
   for( auto text : { "never", "'never'", ".inf", "+.INF" } ) {
      EXPECT_EQ( eventOf( "{complete: " + std::string( text ) + "}" ).complete.kind,
                 Behaviour::Kind::never )
         << text;
   }
   EXPECT_EQ( eventOf( "{complete: true}" ).complete.kind, Behaviour::Kind::already );
   EXPECT_EQ( eventOf( "{timeout: .inf}" ).timeout, infinity );
}

TEST( PlanReader, ZeroHasNoSign ) {
   EXPECT_FALSE( std::signbit( eventOf( "{timeout: -0.0}" ).timeout ) );
   EXPECT_FALSE( std::signbit( eventOf( "{complete: -0}" ).complete.seconds ) );
}

TEST( PlanReader, KeysThatLookLikeNumbersOrBooleansAreNames ) {
   auto const plan = planOf( "agents: {1: {true: {}, 0x1: {}, 1.5: {}}, false: {}, yes: {}}" );
   ASSERT_EQ( plan.agent.size(), 3U );
   EXPECT_EQ( plan.agent[ 0 ].name, "1" );
   EXPECT_EQ( plan.agent[ 0 ].event[ 0 ].stage, "true" );
   EXPECT_EQ( plan.agent[ 0 ].event[ 1 ].stage, "0x1" );
   EXPECT_EQ( plan.agent[ 1 ].name, "false" );
   EXPECT_TRUE( plan.agent[ 1 ].event.empty() );
}

TEST( PlanReader, AgentsAndEventsKeepTheOrderOfTheFile ) {
   auto const plan = planOf( "agents:\n  Z: {S2: {}, S1: {}}\n  A: {}\n  M: {}\n" );
   ASSERT_EQ( plan.agent.size(), 3U );
   EXPECT_EQ( plan.agent[ 0 ].name, "Z" );
   EXPECT_EQ( plan.agent[ 2 ].name, "M" );
   EXPECT_EQ( plan.agent[ 0 ].event[ 0 ].stage, "S2" );
   EXPECT_EQ( plan.agent[ 0 ].place, ( Place{ 2, 3 } ) );
   EXPECT_EQ( plan.agent[ 0 ].event[ 1 ].place, ( Place{ 2, 15 } ) );
}

TEST( PlanReader, EveryOperationOfTheTimelineIsRead ) {
   auto const join = operationOf< Join >( "{at: 1, agent: B, join: {S: {timeout: 4}, T: {}}}" );
   EXPECT_EQ( join.agent, "B" );
   ASSERT_EQ( join.event.size(), 2U );
   EXPECT_EQ( join.event[ 0 ].timeout, 4 );
   EXPECT_EQ( join.event[ 1 ].stage, "T" );

   EXPECT_EQ( operationOf< Leave >( "{at: 1, agent: A, leave: true}" ).agent, "A" );

   auto const declare =
      operationOf< Declare >( "{at: 1, agent: A, stage: T, declare: {critical: true}}" );
   EXPECT_EQ( declare.agent, "A" );
   EXPECT_EQ( declare.event.stage, "T" );
   EXPECT_TRUE( declare.event.critical );

   auto const withdraw = operationOf< Withdraw >( "{at: 1, agent: A, stage: S, withdraw: True}" );
   EXPECT_EQ( withdraw.agent, "A" );
   EXPECT_EQ( withdraw.stage, "S" );

   EXPECT_FALSE( operationOf< Enable >( "{at: 1, enabled: false}" ).value );
}

TEST( PlanReader, ASetKeepsTheOrderOfItsAttributes ) {
   auto const set = operationOf< Set >( "{at: 1, agent: A, stage: S, set: {timeout: 60, dependency:"
                                        " {Z: true, B: null, C: ~, D: false}, complete: true,"
                                        " critical: false}}" );
   EXPECT_EQ( set.agent, "A" );
   EXPECT_EQ( set.stage, "S" );
   ASSERT_EQ( set.write.size(), 7U );
   EXPECT_EQ( std::get< TimeoutWrite >( set.write[ 0 ] ).value, 60 );
   EXPECT_EQ( std::get< DependencyWrite >( set.write[ 1 ] ).stage, "Z" );
   EXPECT_EQ( std::get< DependencyWrite >( set.write[ 1 ] ).value, true );
   EXPECT_EQ( std::get< DependencyWrite >( set.write[ 2 ] ).value, std::nullopt );
   EXPECT_EQ( std::get< DependencyWrite >( set.write[ 3 ] ).value, std::nullopt );
   EXPECT_EQ( std::get< DependencyWrite >( set.write[ 4 ] ).value, false );
   EXPECT_TRUE( std::get< CompleteWrite >( set.write[ 5 ] ).value );
   EXPECT_FALSE( std::get< CriticalWrite >( set.write[ 6 ] ).value );
}

TEST( PlanReader, ASetMayBeEmptyAndATimelineToo ) {
   EXPECT_TRUE( operationOf< Set >( "{at: 1, agent: A, stage: S, set: {}}" ).write.empty() );
   EXPECT_TRUE( planOf( "timeline: []" ).timeline.empty() );
}

TEST( PlanReader, EntriesKeepTheOrderOfTheFileAndTheirPlaces ) {
   auto const plan = planOf( "agents: {A: {S: {}}}\n"
                             "timeline:\n"
                             "  - {at: 2, agent: A, stage: S, set: {}}\n"
                             "  - {at: 1e0, enabled: true}\n" );
   ASSERT_EQ( plan.timeline.size(), 2U );
   EXPECT_EQ( plan.timeline[ 0 ].at, 2 );
   EXPECT_EQ( plan.timeline[ 1 ].at, 1 );
   EXPECT_EQ( plan.timeline[ 0 ].place, ( Place{ 3, 5 } ) );
   EXPECT_EQ( plan.timeline[ 0 ].agentPlace, ( Place{ 3, 20 } ) );
   EXPECT_EQ( plan.timeline[ 0 ].stagePlace, ( Place{ 3, 30 } ) );
}

TEST( PlanReader, JsonIsAcceptedAsWell ) {
   auto const plan =
      planOf( "{\"application\":\"Router\",\"enabled\":true,\n"
              "\t\"agents\":{\"A\":{\"S\":{\"timeout\":1E1,\"dependency\":[\"T\\u00f6\"],"
              "\"complete\":0.5}}},\"timeline\":[{\"at\":1,\"agent\":\"A\","
              "\"stage\":\"S\",\"set\":{\"dependency\":{\"T\":null}}}]}\n" );
   EXPECT_EQ( plan.application, "Router" );
   EXPECT_EQ( plan.agent.at( 0 ).event.at( 0 ).timeout, 10 );
   EXPECT_EQ( plan.agent.at( 0 ).event.at( 0 ).dependency.at( 0 ).stage, "T\u00f6" );
   EXPECT_EQ( plan.timeline.size(), 1U );
}

TEST( PlanReader, AnchorsAndAliasesStandForWhatTheyReferTo ) {
   auto const plan = planOf( "agents:\n  A: {S: &slow {timeout: 60, complete: 5}, T: *slow}\n"
                             "  B: {S: *slow}\n" );
   EXPECT_EQ( plan.agent.at( 0 ).event.at( 1 ).stage, "T" );
   EXPECT_EQ( plan.agent.at( 0 ).event.at( 1 ).timeout, 60 );
   EXPECT_EQ( plan.agent.at( 1 ).event.at( 0 ).complete.seconds, 5 );
}

TEST( PlanReader, AnAliasMayBeUsedManyTimes ) {
   std::string text = "agents:\n  A0: &a {S: {timeout: 1}}\n";
   for( int i = 1; i <= 10000; ++i )
      text += "  A" + std::to_string( i ) + ": *a\n";
   EXPECT_EQ( planOf( text ).agent.size(), 10001U );
}

} // namespace
