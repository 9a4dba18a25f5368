// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Agents come to the directory, change there, and leave it.

#include "Handles.h"

namespace aggregation {
namespace {

Names agentReactors( Ptr< ConfigSm > const & machine ) {
   Names names;
   for( auto i = machine->agentConfigIterator(); i; ++i )
      names.insert( i.key().str() );
   return names;
}

TEST( Agents, AnAgentThatJoinsGetsAReactorAndItsEventsEnterTheirStages ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   w.declare( "a", "S" );
   w.declare( "a", "T" );
   EXPECT_EQ( machine->agentConfigs(), 0U );
   EXPECT_EQ( w.status->stages(), 0U );
   w.idle();
   EXPECT_EQ( agentReactors( machine ), ( Names{ "a" } ) );
   EXPECT_EQ( machine->agentConfig( "a" )->notifier(), w.agent( "a" ) );
   EXPECT_EQ( stagesOf( w.status ), ( Names{ "S", "T" } ) );
   EXPECT_EQ( agentsOf( w.stage( "S" ) ), ( Names{ "a" } ) );
   EXPECT_EQ( w.stage( "S" )->event( "a" ), w.agent( "a" )->event( "S" ) );
}

TEST( Agents, AnAgentThatLeavesTakesItsEventsOutOfEveryStageAndNobodyElses ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   w.declare( "a", "S" );
   w.declare( "a", "T" );
   w.declare( "b", "S" );
   w.idle();
   w.dir->entityPtrDel( "a" );
   EXPECT_EQ( agentsOf( w.stage( "S" ) ), ( Names{ "a", "b" } ) );
   w.idle();
   EXPECT_EQ( agentReactors( machine ), ( Names{ "b" } ) );
   EXPECT_EQ( stagesOf( w.status ), ( Names{ "S", "T" } ) ) << "stages stay";
   EXPECT_EQ( agentsOf( w.stage( "S" ) ), ( Names{ "b" } ) );
   EXPECT_EQ( agentsOf( w.stage( "T" ) ), ( Names{} ) );
}

TEST( Agents, AnAgentThatComesBackLaterIsFollowedAgain ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   w.declare( "a", "S" );
   w.idle();
   w.dir->entityPtrDel( "a" );
   w.idle();
   Ptr< EventConfig > const again = w.declare( "a", "S" );
   w.idle();
   EXPECT_EQ( w.stage( "S" )->event( "a" ), again );
   w.agent( "a" )->eventDel( "S" );
   w.idle();
   EXPECT_EQ( w.stage( "S" )->events(), 0U );
   EXPECT_EQ( machine->agentConfigs(), 1U );
}

TEST( Agents, AnEntryReplacedByAnEntityOfAnotherTypeCostsTheAgentAllItsEvents ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   w.declare( "a", "S" );
   w.declare( "a", "T" );
   w.idle();
   w.dir->entityPtrIs( Kiv::Dir::DirIs( "a" ) );
   w.idle();
   EXPECT_EQ( machine->agentConfigs(), 0U );
   EXPECT_EQ( w.stage( "S" )->events(), 0U );
   EXPECT_EQ( w.stage( "T" )->events(), 0U );
}

TEST( Agents, AnEntryOfAnotherTypeIsNoAgentUntilItIsReplacedByOne ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   w.dir->entityPtrIs( Kiv::Dir::DirIs( "a" ) );
   w.idle();
   EXPECT_EQ( machine->agentConfigs(), 0U );
   Ptr< AgentConfig > const agent = AgentConfig::AgentConfigIs( "a" );
   agent->eventIs( "S", EventConfig::EventConfigIs( "S", "a" ) );
   w.dir->entityPtrIs( agent );
   w.idle();
   EXPECT_EQ( machine->agentConfigs(), 1U );
   EXPECT_EQ( agentsOf( w.stage( "S" ) ), ( Names{ "a" } ) );
}

// The reactor is left alone on purpose: what the old object declared is in the stages and must go
// with it, not be forgotten.
TEST( Agents, AReplacedAgentObjectIsWatchedUntilTheAgentLeaves ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   Ptr< EventConfig > const oldEvent = w.declare( "a", "S" );
   w.idle();
   Ptr< AgentConfig > const old = w.agent( "a" );
   Ptr< AgentConfig > const next = AgentConfig::AgentConfigIs( "a" );
   next->eventIs( "T", EventConfig::EventConfigIs( "T", "a" ) );
   w.dir->entityPtrIs( next );
   w.idle();
   EXPECT_EQ( machine->agentConfig( "a" )->notifier(), old );
   EXPECT_EQ( w.stage( "S" )->event( "a" ), oldEvent );
   EXPECT_FALSE( w.stage( "T" ) );

   w.dir->entityPtrDel( "a" );
   w.idle();
   EXPECT_EQ( w.stage( "S" )->events(), 0U );
   w.dir->entityPtrIs( next );
   w.idle();
   EXPECT_EQ( machine->agentConfig( "a" )->notifier(), next );
   EXPECT_EQ( agentsOf( w.stage( "T" ) ), ( Names{ "a" } ) );
}

TEST( Agents, LeavingAndJoiningInOneBatchCountsAsReplacing ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   Ptr< EventConfig > const oldEvent = w.declare( "a", "S" );
   w.idle();
   Ptr< AgentConfig > const old = w.agent( "a" );
   w.dir->entityPtrDel( "a" );
   Ptr< EventConfig > const newEvent = w.declare( "a", "S" );
   w.idle();
   EXPECT_EQ( machine->agentConfig( "a" )->notifier(), old );
   EXPECT_EQ( w.stage( "S" )->event( "a" ), oldEvent );
   w.dir->entityPtrDel( "a" );
   w.idle();
   w.agent( "a" )->eventIs( "S", newEvent );
   w.idle();
   EXPECT_EQ( w.stage( "S" )->event( "a" ), newEvent );
}

TEST( Agents, AnAgentThatJoinsAndLeavesBeforeTheLoopRunsLeavesNoTrace ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   w.declare( "a", "S" );
   w.dir->entityPtrDel( "a" );
   w.idle();
   EXPECT_EQ( machine->agentConfigs(), 0U );
   EXPECT_EQ( w.status->stages(), 0U );
}

TEST( Agents, AnAgentWithoutEventsIsWatchedAndMakesNoStage ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   w.agent( "a" );
   w.idle();
   EXPECT_EQ( machine->agentConfigs(), 1U );
   EXPECT_EQ( w.status->stages(), 0U );
   w.declare( "a", "S" );
   w.idle();
   EXPECT_EQ( agentsOf( w.stage( "S" ) ), ( Names{ "a" } ) );
}

// ------------------------------------------------------------------- the handlers, one at a time

TEST( HandleAgent, AnEntryWithoutReactorIsTakenIn ) {
   World w;
   Ptr< ConfigSm > const machine = silentConfigSm( w );
   w.declare( "a", "S" );
   w.declare( "b", "S" );
   machine->handleAgent( "a" );
   EXPECT_EQ( agentReactors( machine ), ( Names{ "a" } ) );
   EXPECT_EQ( agentsOf( w.stage( "S" ) ), ( Names{ "a" } ) );
}

TEST( HandleAgent, AReactorThatWatchesNothingIsAttachedAgainAndCatchesUp ) {
   World w;
   Ptr< ConfigSm > const machine = silentConfigSm( w );
   w.declare( "a", "S" );
   machine->handleAgent( "a" );
   Ptr< ConfigSm::KivAgentConfig > const reactor = machine->agentConfig( "a" );
   reactor->notifierIs( Ptr< Kiv::PtrInterface const >() );
   w.declare( "a", "T" );
   machine->handleAgent( "a" );
   EXPECT_EQ( machine->agentConfig( "a" ), reactor );
   EXPECT_EQ( reactor->notifier(), w.agent( "a" ) );
   EXPECT_TRUE( reactor->isRegisteredNotifiee() );
   EXPECT_EQ( agentsOf( w.stage( "T" ) ), ( Names{ "a" } ) );
}

TEST( HandleAgent, AReactorThatWatchesSomethingIsLeftAloneForAnotherObject ) {
   World w;
   Ptr< ConfigSm > const machine = silentConfigSm( w );
   w.declare( "a", "S" );
   Ptr< AgentConfig > const old = w.agent( "a" );
   machine->handleAgent( "a" );
   w.dir->entityPtrIs( AgentConfig::AgentConfigIs( "a" ) );
   machine->handleAgent( "a" );
   machine->handleAgent();
   EXPECT_EQ( machine->agentConfig( "a" )->notifier(), old );
   EXPECT_EQ( agentsOf( w.stage( "S" ) ), ( Names{ "a" } ) );
}

TEST( HandleAgent, AReactorThatWatchesNothingStaysWhenItsEntryHasGone ) {
   World w;
   Ptr< ConfigSm > const machine = silentConfigSm( w );
   w.declare( "a", "S" );
   machine->handleAgent( "a" );
   machine->agentConfig( "a" )->notifierIs( Ptr< Kiv::PtrInterface const >() );
   w.dir->entityPtrDel( "a" );
   machine->handleAgent( "a" );
   EXPECT_EQ( machine->agentConfigs(), 1U );
   EXPECT_EQ( agentsOf( w.stage( "S" ) ), ( Names{ "a" } ) ) << "nothing else happens";
}

TEST( HandleAgent, AnUnknownNameDoesNothing ) {
   World w;
   Ptr< ConfigSm > const machine = silentConfigSm( w );
   w.declare( "a", "S" );
   machine->handleAgent( "nobody" );
   EXPECT_EQ( machine->agentConfigs(), 0U );
   EXPECT_EQ( w.status->stages(), 0U );
}

TEST( HandleAgent, TheFullFormTakesInAllWhoCameAndReleasesAllWhoLeft ) {
   World w;
   Ptr< ConfigSm > const machine = silentConfigSm( w );
   for( int i = 0; i != 20; ++i )
      w.declare( std::string( "old" ) + std::to_string( i ), "S" );
   machine->handleAgent();
   EXPECT_EQ( machine->agentConfigs(), 20U );
   for( int i = 0; i != 20; ++i )
      w.dir->entityPtrDel( std::string( "old" ) + std::to_string( i ) );
   w.declare( "new", "S" );
   machine->handleAgent();
   EXPECT_EQ( agentReactors( machine ), ( Names{ "new" } ) );
   EXPECT_EQ( agentsOf( w.stage( "S" ) ), ( Names{ "new" } ) );
}

TEST( HandleAgent, EveryCallbackOfTheDirectoryLeadsToItsHandler ) {
   World w;
   Ptr< ConfigSm > const machine = silentConfigSm( w );
   Ptr< ConfigSm::KivAgentDir > const reactor = machine->newAgentDir( w.dir );
   w.declare( "a", "S" );
   w.declare( "b", "S" );
   reactor->onEntityPtr( "a" );
   EXPECT_EQ( agentReactors( machine ), ( Names{ "a" } ) );
   reactor->onEntityPtrkivImmediate();
   EXPECT_EQ( agentReactors( machine ), ( Names{ "a", "b" } ) );
   w.dir->entityPtrDel( "a" );
   reactor->onEntityPtr();
   EXPECT_EQ( agentReactors( machine ), ( Names{ "b" } ) );

   reactor->kivDoZombieReactors( true );
   w.dir->entityPtrDel( "b" );
   reactor->onEntityPtr( "b" );
   reactor->onEntityPtrkivImmediate();
   reactor->onEntityPtr();
   EXPECT_EQ( agentReactors( machine ), ( Names{ "b" } ) ) << "marked for deletion";
}

// ------------------------------------------------------------------------------------- traces

TEST( AgentTraces, TheRoadOfTheFirstEventIsTracedStepByStep ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   w.declare( "a", "S", {}, 30 );
   TraceRecorder traces;
   w.idle();
   EXPECT_EQ( traces.taken(), ( Lines{
                                 sm + "handleAgent(Kiv::Name) AgentDir: agents",
                                 ofAgent + "handleEvent() a",
                                 ofAgent + "handleEvent(Kiv::Name) a S",
                                 "Adding stage S to status.",
                                 "Adding event a to stage S",
                                 ofAgent + "handleEvent(Kiv::Name) a S",
                                 ofEvent + "handleDependency() S:a",
                                 ofEvent + "handleTimeout() S:a  timeout=30",
                                 ofStage + "handleTimeout() S  timeout=30",
                                 ofEvent + "handleCritical() S:a  critical=false",
                                 ofStage + "handleCritical() for stage S critical=false",
                                 "S: No change to critical (false).",
                                 "   Force dependents of S to recompute based on our criticalfalse",
                                 ofStage + "handleCritical() for stage S critical=false",
                                 "S: No change to critical (false).",
                                 "   Force dependents of S to recompute based on our criticalfalse",
                                 sm + "handleStage(Kiv::Name) stage=S",
                                 ofStage + "handleStage(Kiv::String8) for stage S detected stage S",
                              } ) );
}

TEST( AgentTraces, TheFullFormTracesItselfAndThenEveryName ) {
   World w;
   Ptr< ConfigSm > const machine = silentConfigSm( w );
   TraceRecorder traces;
   machine->handleAgent();
   EXPECT_EQ( traces.taken(), ( Lines{ sm + "handleAgent() AgentDir: " } ) );
   w.agent( "a" );
   machine->handleAgent();
   EXPECT_EQ(
      traces.taken(),
      ( Lines{ sm + "handleAgent() AgentDir: ", sm + "handleAgent(Kiv::Name) AgentDir: agents",
               ofAgent + "handleEvent() a", sm + "handleAgent(Kiv::Name) AgentDir: agents" } ) )
      << "once as an entry of the directory, once as a reactor";
}

TEST( AgentTraces, TwoAgentsOfOneBatchAreToldByNameAndThenTogether ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   TraceRecorder traces;
   w.agent( "a" );
   w.idle();
   EXPECT_EQ( traces.count( sm + "handleAgent() AgentDir: " ), 0U );
   traces.clear();
   w.agent( "b" );
   w.agent( "c" );
   w.idle();
   ASSERT_GE( traces.lines().size(), 5U );
   EXPECT_EQ( traces.lines()[ 0 ].text, sm + "handleAgent(Kiv::Name) AgentDir: agents" );
   EXPECT_EQ( traces.lines()[ 2 ].text, sm + "handleAgent(Kiv::Name) AgentDir: agents" );
   EXPECT_EQ( traces.lines()[ 4 ].text, sm + "handleAgent() AgentDir: " );
   EXPECT_EQ( traces.count( sm + "handleAgent() AgentDir: " ), 1U );
}

TEST( AgentTraces, EveryLineNamesItsSourceItsFunctionAndALevelOfHandlers ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   TraceRecorder traces;
   w.declare( "a", "S", { "T" }, 30, true );
   w.declare( "b", "T" );
   w.idle();
   w.dir->entityPtrDel( "a" );
   w.idle();
   ASSERT_FALSE( traces.lines().empty() );
   for( Kiv::TraceLine const & line : traces.lines() ) {
      EXPECT_EQ( std::string( line.source ), "Ordovan" );
      EXPECT_TRUE( line.level == 8 || line.level == 9 ) << line.level << ": " << line.text;
      EXPECT_GT( line.line, 0 );
      EXPECT_EQ( std::string( line.function ).substr( 0, 6 ), "handle" ) << line.text;
      // A line that starts with a signature comes from the function of that name.
      if( line.text.view().substr( 0, 5 ) == "void " ) {
         EXPECT_NE( line.text.view().find( std::string( "::" ) + line.function + "(" ),
                    std::string_view::npos )
            << line.function << ": " << line.text;
      }
   }
}

} // namespace
} // namespace aggregation
