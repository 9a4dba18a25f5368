// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include "Traced.h"

#include "../support/World.h"

#include <algorithm>

using Kiv::Ptr;
using Stage::ConfigSm;

namespace traces {
namespace {

class AggregationTraces : public testing::Test, protected testing_support::World {
 protected:
   ~AggregationTraces() override { sm = nullptr; }
   // The reactor of a stage that a declares an event for. The stage depends on B, which exists.
   Ptr< ConfigSm::KivStageStatus > stageReactor() {
      declare( "b", "B" );
      event = declare( "a", "S", { "B" }, 30 );
      idle();
      return sm->stageStatus( "S" );
   }
   Ptr< ConfigSm::KivStageStatus::KivEventConfig > eventReactor() {
      return stageReactor()->eventConfig( "a" );
   }

   Ptr< ConfigSm > sm = configSm();
   Ptr< Stage::EventConfig > event;
};

// ---- agents and their events

TEST_F( AggregationTraces, HandleAgentNamesTheDirectory ) {
   EXPECT_EQ( tracedBy( [ & ] { sm->handleAgent(); } ),
              ( Lines{ "8 handleAgent: void Stage::ConfigSm::handleAgent() AgentDir: " } ) );
   EXPECT_EQ(
      tracedBy( [ & ] { sm->handleAgent( "nobody" ); } ),
      ( Lines{ "8 handleAgent: void Stage::ConfigSm::handleAgent(Kiv::Name) AgentDir: agents" } ) );
}

TEST_F( AggregationTraces, HandleEventNamesTheAgent ) {
   agent( "a" );
   idle();
   EXPECT_EQ( tracedBy( [ & ] { sm->agentConfig( "a" )->handleEvent(); } ),
              ( Lines{ "8 handleEvent: void Stage::ConfigSm::KivAgentConfig::handleEvent() a" } ) );
}

TEST_F( AggregationTraces, TheFirstEventOfAStageAddsTheStageAndTheEvent ) {
   agent( "a" );
   idle();
   declare( "a", "S" );
   EXPECT_EQ(
      tracedBy( [ & ] { sm->agentConfig( "a" )->handleEvent( "S" ); } ),
      ( Lines{ "8 handleEvent: void Stage::ConfigSm::KivAgentConfig::handleEvent(Kiv::Name) a S",
               "8 handleEvent: Adding stage S to status.",
               "8 handleEvent: Adding event a to stage S" } ) );
   // Nothing is left to do for it.
   EXPECT_EQ(
      tracedBy( [ & ] { sm->agentConfig( "a" )->handleEvent( "S" ); } ),
      ( Lines{
         "8 handleEvent: void Stage::ConfigSm::KivAgentConfig::handleEvent(Kiv::Name) a S" } ) );
}

TEST_F( AggregationTraces, ASecondEventOfAStageAddsTheEventOnly ) {
   declare( "a", "S" );
   agent( "b" );
   idle();
   declare( "b", "S" );
   EXPECT_EQ(
      tracedBy( [ & ] { sm->agentConfig( "b" )->handleEvent( "S" ); } ),
      ( Lines{ "8 handleEvent: void Stage::ConfigSm::KivAgentConfig::handleEvent(Kiv::Name) b S",
               "8 handleEvent: Adding event b to stage S" } ) );
}

TEST_F( AggregationTraces, AWithdrawnEventIsDeletedWithEveryDependencyThatItAloneHad ) {
   stageReactor();
   agent( "a" )->eventDel( "S" );
   EXPECT_EQ(
      tracedBy( [ & ] { sm->agentConfig( "a" )->handleEvent( "S" ); } ),
      ( Lines{ "8 handleEvent: void Stage::ConfigSm::KivAgentConfig::handleEvent(Kiv::Name) a S",
               "8 handleEvent: Deleting S:a from status/S",
               "8 handleEventDel: void "
               "Stage::ConfigSm::KivStageStatus::handleEventDel(Kiv::String8) S (event:a)",
               "9 handleEventDel: Handling dependency deletion of B from event S:a",
               "8 handleDependencyDel: void "
               "Stage::ConfigSm::KivStageStatus::handleDependencyDel(Kiv::String8) for some event "
               "in stage S (dependency: B)",
               "8 handleDependencyDel: Deleting dependency B from stage S",
               "8 handleCritical: void Stage::ConfigSm::KivStageStatus::handleCritical() for stage "
               "S critical=false",
               "8 handleCritical: S: No change to critical (false).",
               "8 handleCritical:    Force dependents of S to recompute based on our criticalfalse",
               "8 handleTimeout: void Stage::ConfigSm::KivStageStatus::handleTimeout() S  "
               "timeout=30",
               "8 handleTimeout:   new timeout = 0" } ) );
}

TEST_F( AggregationTraces, HandleStageTellsEveryStageReactor ) {
   stageReactor();
   Lines lines = tracedBy( [ & ] { sm->handleStage( "X" ); } );
   ASSERT_EQ( lines.size(), 3U );
   EXPECT_EQ( lines[ 0 ], "8 handleStage: void Stage::ConfigSm::handleStage(Kiv::Name) stage=X" );
   std::sort( lines.begin() + 1, lines.end() );
   EXPECT_EQ( lines[ 1 ], "9 handleStage: void "
                          "Stage::ConfigSm::KivStageStatus::handleStage(Kiv::String8) for stage B "
                          "detected stage X" );
   EXPECT_EQ( lines[ 2 ], "9 handleStage: void "
                          "Stage::ConfigSm::KivStageStatus::handleStage(Kiv::String8) for stage S "
                          "detected stage X" );
}

// ---- dependencies

TEST_F( AggregationTraces, HandleDependencyOfAnEventNamesItsUidAndTheDependency ) {
   auto const reactor = eventReactor();
   event->dependencyIs( "C", true );
   EXPECT_EQ(
      tracedBy( [ & ] { reactor->handleDependency( "C" ); } ),
      ( Lines{ "8 handleDependency: void "
               "Stage::ConfigSm::KivStageStatus::KivEventConfig::handleDependency(Kiv::String8) "
               "S:a (dependency:C)" } ) );
   EXPECT_TRUE( stage( "S" )->hasDependency( "C" ) );
}

TEST_F( AggregationTraces, ADependencyThatAnEventKeepsIsFoundInIt ) {
   auto const reactor = eventReactor();
   // All of the event's: first the stage's names, then the event's, so B is handled twice.
   Lines const once = {
      "8 handleDependency: void "
      "Stage::ConfigSm::KivStageStatus::KivEventConfig::handleDependency(Kiv::String8) S:a "
      "(dependency:B)",
      "8 handleDependencyDel: void "
      "Stage::ConfigSm::KivStageStatus::handleDependencyDel(Kiv::String8) for some event in stage "
      "S (dependency: B)",
      "9 handleDependencyDel: Dependency found in event S:a" };
   Lines twice = { "8 handleDependency: void "
                   "Stage::ConfigSm::KivStageStatus::KivEventConfig::handleDependency() S:a" };
   twice.insert( twice.end(), once.begin(), once.end() );
   twice.insert( twice.end(), once.begin(), once.end() );
   EXPECT_EQ( tracedBy( [ & ] { reactor->handleDependency(); } ), twice );
}

TEST_F( AggregationTraces, ADependencyOnAStageThatIsNotThereIsNotLinked ) {
   auto const reactor = stageReactor();
   EXPECT_EQ( tracedBy( [ & ] { reactor->handleDependency( "X" ); } ),
              ( Lines{ "8 handleDependency: void "
                       "Stage::ConfigSm::KivStageStatus::handleDependency(Kiv::String8) for stage "
                       "S (dependency:X)" } ) );
}

TEST_F( AggregationTraces, ALinkTellsWhatItWasWhatItIsAndHowManyThereAre ) {
   auto const reactor = stageReactor();
   std::string const entry = "8 handleDependency: void "
                             "Stage::ConfigSm::KivStageStatus::handleDependency(Kiv::String8) for "
                             "stage S (dependency:B)";
   EXPECT_EQ( tracedBy( [ & ] { reactor->handleDependency( "B" ); } ),
              ( Lines{ entry, "8 handleDependency:   Adjusting criticalAncestor for B",
                       "8 handleDependency:   criticalAncestor was false now dep && critic = false",
                       "8 handleDependency:  criticalAncestors 0",
                       "8 handleDependency:  criticalAncestors after 0" } ) );
   stage( "S" )->criticalIs( true );
   EXPECT_EQ(
      tracedBy( [ & ] { reactor->handleDependency( "B" ); } ),
      ( Lines{ entry, "8 handleDependency:   Adjusting criticalAncestor for B",
               "8 handleDependency:   criticalAncestor was false now dep && critic = true",
               "8 handleDependency:  criticalAncestors 0",
               "8 handleCritical: void "
               "Stage::ConfigSm::KivStageStatus::handleCritical(Kiv::String8) key S",
               "8 handleCritical: void Stage::ConfigSm::KivStageStatus::handleCritical() for stage "
               "B critical=false",
               "8 handleCritical:  Critical because exists a critical ancestor",
               "8 handleCritical:  Setting critical for stage B to true",
               "8 handleCritical:    Force dependents of B to recompute based on our criticaltrue",
               "8 handleDependency:  criticalAncestors after 1" } ) );
}

// ---- critical stages

TEST_F( AggregationTraces, ACriticalEventMakesItsStageAndThoseItDependsOnCritical ) {
   auto const reactor = eventReactor();
   event->criticalIs( true );
   EXPECT_EQ(
      tracedBy( [ & ] { reactor->handleCritical(); } ),
      ( Lines{
         "8 handleCritical: void "
         "Stage::ConfigSm::KivStageStatus::KivEventConfig::handleCritical() S:a  critical=true",
         "8 handleCritical: void Stage::ConfigSm::KivStageStatus::handleCritical() for stage S "
         "critical=false",
         "8 handleCritical:  Critical because S:a is critical",
         "8 handleCritical:  Setting critical for stage S to true",
         "8 handleCritical:    Force dependents of S to recompute based on our criticaltrue",
         "9 handleCritical:   Adjusting criticalAncestor for B (was false)",
         "8 handleCritical: void Stage::ConfigSm::KivStageStatus::handleCritical(Kiv::String8) "
         "key "
         "S",
         "8 handleCritical: void Stage::ConfigSm::KivStageStatus::handleCritical() for stage B "
         "critical=false",
         "8 handleCritical:  Critical because exists a critical ancestor",
         "8 handleCritical:  Setting critical for stage B to true",
         "8 handleCritical:    Force dependents of B to recompute based on our criticaltrue" } ) );
   // Again: the same is written and pushed, and B, which has the link, does nothing.
   EXPECT_EQ(
      tracedBy( [ & ] { sm->stageStatus( "S" )->handleCritical(); } ),
      ( Lines{
         "8 handleCritical: void Stage::ConfigSm::KivStageStatus::handleCritical() for stage S "
         "critical=true",
         "8 handleCritical:  Critical because S:a is critical",
         "8 handleCritical: S: No change to critical (true).",
         "8 handleCritical:    Force dependents of S to recompute based on our criticaltrue",
         "9 handleCritical:   Adjusting criticalAncestor for B (was true)" } ) );
}

TEST_F( AggregationTraces, HandleCriticalOfOneKeyNamesIt ) {
   auto const reactor = stageReactor();
   Lines const lines = tracedBy( [ & ] { reactor->handleCritical( "X" ); } );
   ASSERT_EQ( lines.size(), 5U );
   EXPECT_EQ( lines[ 0 ], "8 handleCritical: void "
                          "Stage::ConfigSm::KivStageStatus::handleCritical(Kiv::String8) key X" );
}

// ---- timeouts

TEST_F( AggregationTraces, TimeoutsOfAnEventAndOfItsStage ) {
   auto const reactor = eventReactor();
   event->timeoutIs( 120.5 );
   EXPECT_EQ(
      tracedBy( [ & ] { reactor->handleTimeout(); } ),
      ( Lines{
         "8 handleTimeout: void "
         "Stage::ConfigSm::KivStageStatus::KivEventConfig::handleTimeout() S:a  timeout=120.5",
         "8 handleTimeout: void Stage::ConfigSm::KivStageStatus::handleTimeout() S  timeout=30",
         "8 handleTimeout:   new timeout = 120.5" } ) );
   EXPECT_EQ( tracedBy( [ & ] { sm->stageStatus( "S" )->handleTimeout(); } ),
              ( Lines{ "8 handleTimeout: void Stage::ConfigSm::KivStageStatus::handleTimeout() S  "
                       "timeout=120.5" } ) );
}

} // namespace
} // namespace traces
