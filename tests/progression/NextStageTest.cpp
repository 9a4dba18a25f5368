// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The decision which stages are next, one branch at a time.
#include "../support/AtTrace.h"
#include "ProgressionTest.h"

#include <map>

using namespace testing_support;
using Kiv::Ptr;

namespace {

char const notYetInitialized[] = "not yet initialized";
char const logTrace[] = "void Stage::LogSm::logIs(Kiv::String8) ";

class NextStageTest : public ProgressionTest {
 protected:
   NextStageTest() { config->enabledIs( true ); }

   // Makes one decision, and gives what it traced without the lines of the log.
   Lines decision() {
      sm->needRecalculateNextStageIs( true );
      TraceRecorder trace;
      sm->handleNextStage();
      Lines lines;
      for( auto const & text : trace.taken() )
         if( text.rfind( logTrace, 0 ) != 0 )
            lines.push_back( text );
      return lines;
   }
   // A StatusSm whose first decision has not been made.
   void makeUndecided() {
      make();
      sm->needRecalculateNextStageIs( false );
      sm->recalculateNextStage()->timeMinIs( Kiv::infinity );
      texts();
   }
   // What the decision traces for each stage, in the order in which it visits them.
   Lines inVisitingOrder( std::map< std::string, Lines > const & perStage ) const {
      Lines lines{ decisionMade };
      for( auto const & name : stageNames() )
         if( auto const found = perStage.find( name ); found != perStage.end() )
            lines.insert( lines.end(), found->second.begin(), found->second.end() );
      return lines;
   }
   static Lines with( Lines lines, char const * last ) {
      lines.emplace_back( last );
      return lines;
   }
   bool active( char const * name ) const { return !!status->activeStage( name ); }
};

char const onlyInactive[] = " Inactive stages? true IncompleteActiveStages? false";
char const onlyIncomplete[] = " Inactive stages? false IncompleteActiveStages? true";

} // namespace

// ---- asking for a decision

TEST_F( NextStageTest, ARequestIsKeptAndTheTimerIsSetToNow ) {
   makeUndecided();
   clock->nowIs( 1007.25 );
   TraceRecorder trace;
   sm->doNextStage();
   EXPECT_EQ( trace.taken(), ( Lines{ decisionAsked } ) );
   EXPECT_TRUE( sm->needRecalculateNextStage() );
   EXPECT_EQ( sm->recalculateNextStage()->timeMin(), 1007.25 );
   EXPECT_EQ( texts(), Lines() ) << "the decision is made inside the request";
   idle();
   EXPECT_FALSE( sm->needRecalculateNextStage() );
   EXPECT_EQ( sm->recalculateNextStage()->timeMin(), Kiv::infinity );
   EXPECT_EQ( trace.count( decisionMade ), 1U );
}

TEST_F( NextStageTest, ThreeRequestsInOneHandlerGiveOneDecision ) {
   makeUndecided();
   TraceRecorder trace;
   sm->doNextStage();
   sm->doNextStage();
   sm->doNextStage();
   idle();
   EXPECT_EQ( trace.count( decisionAsked ), 3U );
   EXPECT_EQ( trace.count( decisionMade ), 1U );
   EXPECT_EQ( texts(), ( Lines{ "Stage progression is complete" } ) );
}

TEST_F( NextStageTest, RequestsOfDifferentTimesBeforeTheTimerFiresGiveOneDecision ) {
   makeUndecided();
   TraceRecorder trace;
   sm->doNextStage();
   clock->nowIs( 1001 );
   sm->doNextStage();
   idle();
   EXPECT_EQ( trace.count( decisionMade ), 1U );
}

TEST_F( NextStageTest, ARequestBeforeInitialisationIsOnlyKept ) {
   makeUndecided();
   sm->initializedIs( false );
   TraceRecorder trace;
   sm->doNextStage();
   EXPECT_EQ( trace.taken(), ( Lines{ decisionAsked, notYetInitialized } ) );
   EXPECT_TRUE( sm->needRecalculateNextStage() );
   EXPECT_EQ( sm->recalculateNextStage()->timeMin(), Kiv::infinity );
   idle();
   EXPECT_EQ( trace.count( decisionMade ), 0U );
}

// ---- decisions that are not made

TEST_F( NextStageTest, BeforeInitialisationNoDecisionIsMade ) {
   newStage( "A" );
   makeUndecided();
   sm->initializedIs( false );
   EXPECT_EQ( decision(), ( Lines{ decisionMade, notYetInitialized } ) );
   EXPECT_TRUE( sm->needRecalculateNextStage() ) << "the request is lost";
   EXPECT_FALSE( active( "A" ) );
   EXPECT_EQ( texts(), Lines() );
}

TEST_F( NextStageTest, WithoutARequestNoDecisionIsMade ) {
   newStage( "A" );
   makeUndecided();
   TraceRecorder trace;
   sm->handleNextStage();
   EXPECT_EQ( trace.taken(), ( Lines{ decisionMade, "handleNextStage not needed yet." } ) );
   EXPECT_FALSE( active( "A" ) );
   EXPECT_EQ( texts(), Lines() );
}

TEST_F( NextStageTest, ATimerThatFiresWithoutARequestDoesNothing ) {
   newStage( "A" );
   makeUndecided();
   sm->recalculateNextStage()->timeMinIs( 1000 );
   TraceRecorder trace;
   EXPECT_TRUE( fire() );
   EXPECT_EQ( trace.taken(), ( Lines{ decisionMade, "handleNextStage not needed yet." } ) );
   EXPECT_FALSE( active( "A" ) );
}

// ---- the decision

// What asks for a decision while one is being made gets another one.
TEST_F( NextStageTest, TheRequestIsClearedBeforeTheDecision ) {
   newStage( "A" );
   makeUndecided();
   sm->needRecalculateNextStageIs( true );
   AtTrace const moment( "Activating stage A", [ & ] {
      EXPECT_FALSE( sm->needRecalculateNextStage() );
      sm->doNextStage();
   } );
   sm->handleNextStage();
   EXPECT_TRUE( moment.happened() );
   EXPECT_TRUE( sm->needRecalculateNextStage() );
}

TEST_F( NextStageTest, ADecisionLeavesNoRequest ) {
   makeUndecided();
   decision();
   EXPECT_FALSE( sm->needRecalculateNextStage() );
}

TEST_F( NextStageTest, AStageWithoutDependenciesIsActivated ) {
   auto const a = newStage( "A" );
   makeUndecided();
   clock->nowIs( 1003 );
   EXPECT_EQ( decision(), ( Lines{ decisionMade, "Activating stage A", onlyInactive } ) );
   EXPECT_EQ( status->activeStage( "A" ), a );
   EXPECT_EQ( logged(), ( Lines{ "1003 stage A started" } ) );
   EXPECT_FALSE( sm->stageSm( "A" ) ) << "its StageSm is made by the notification";
   EXPECT_TRUE( sm->stageEnableSm( "A" ) );
}

TEST_F( NextStageTest, TheStartIsLoggedBeforeTheStageIsActive ) {
   // The log's own trace point is the one moment between the two that can be seen.
   newStage( "A" );
   makeUndecided();
   sm->needRecalculateNextStageIs( true );
   AtTrace const moment( std::string( logTrace ) + "stage A started",
                         [ & ] { EXPECT_FALSE( active( "A" ) ); } );
   sm->handleNextStage();
   EXPECT_TRUE( moment.happened() );
   EXPECT_TRUE( active( "A" ) );
}

TEST_F( NextStageTest, AllStagesWhoseDependenciesAreSatisfiedAreActivatedInOneDecision ) {
   for( char const * name : { "A", "B", "C", "D", "E" } )
      newStage( name );
   makeUndecided();
   decision();
   EXPECT_EQ( status->activeStages(), 5U );
   Lines expected;
   for( auto const & name : stageNames() )
      expected.push_back( "stage " + name + " started" );
   EXPECT_EQ( texts(), expected );
}

TEST_F( NextStageTest, ADecisionThatActivatesNeverRecordsCompletion ) {
   newStage( "A" );
   makeUndecided();
   decision();
   EXPECT_FALSE( status->complete() );
   EXPECT_EQ( texts(), ( Lines{ "stage A started" } ) );
}

TEST_F( NextStageTest, AStageWaitsForADependencyThatIsNotActive ) {
   newStage( "A", { "Nowhere" } );
   newStage( "B", { "A" } );
   makeUndecided();
   EXPECT_EQ( decision(),
              with( inVisitingOrder(
                       { { "A", { "Nowhere is not yet ready, which means A is also unready." } },
                         { "B", { "A is not yet ready, which means B is also unready." } } } ),
                    onlyInactive ) );
   EXPECT_EQ( status->activeStages(), 0U );
   EXPECT_EQ( texts(), Lines() );
}

TEST_F( NextStageTest, AStageWaitsForADependencyThatHasNoStateMachineYet ) {
   auto const a = newStage( "A" );
   newStage( "B", { "A" } );
   makeUndecided();
   status->activeStageIs( a );
   // Both flags are set at the end: nothing is traced there.
   EXPECT_EQ( decision(), inVisitingOrder(
                             { { "A", { "Stage A in progress, but not yet complete." } },
                               { "B", { "Unactivated stage SM for A means B is unready." } } } ) );
   EXPECT_FALSE( active( "B" ) );
}

TEST_F( NextStageTest, AStageWaitsForADependencyThatIsNotComplete ) {
   newEvent( "A", "a" );
   newStage( "B", { "A" } );
   make();
   idle();
   EXPECT_EQ( decision(),
              inVisitingOrder( { { "A", { "Stage A in progress, but not yet complete." } },
                                 { "B", { "Incomplete dependency A means B is unready." } } } ) );
   EXPECT_FALSE( active( "B" ) );
}

TEST_F( NextStageTest, TheFirstDependencyThatIsNotSatisfiedEndsTheLook ) {
   auto const waits = newStage( "W", { "X", "Y", "Z" } );
   makeUndecided();
   auto const first = waits->dependencyIteratorConst().key().str();
   EXPECT_EQ( decision(),
              ( Lines{ decisionMade, first + " is not yet ready, which means W is also unready.",
                       onlyInactive } ) );
}

TEST_F( NextStageTest, AStageIsActivatedOnceEveryDependencyIsActiveAndComplete ) {
   newEvent( "A", "a", true );
   auto const b = newEvent( "B", "b" );
   newStage( "C", { "A", "B" } );
   make();
   idle();
   EXPECT_FALSE( active( "C" ) );
   b->completeIs( true );
   idle();
   EXPECT_TRUE( active( "C" ) );
}

TEST_F( NextStageTest, ACompleteStateMachineOfAStageThatIsNotActiveSatisfiesNobody ) {
   newEvent( "A", "a", true );
   newStage( "B", { "A" } );
   makeUndecided();
   sm->stageSmIs( status->stage( "A" ), sm->logSm() );
   ASSERT_TRUE( stageSm( "A" )->complete() );
   status->stage( "A" )->dependencyIs( "Nowhere", true );
   EXPECT_EQ( decision(),
              with( inVisitingOrder(
                       { { "A", { "Nowhere is not yet ready, which means A is also unready." } },
                         { "B", { "A is not yet ready, which means B is also unready." } } } ),
                    onlyInactive ) );
}

TEST_F( NextStageTest, ADependencyWithTheValueFalseIsADependency ) {
   newStage( "A" )->dependencyIs( "Nowhere", false );
   makeUndecided();
   decision();
   EXPECT_FALSE( active( "A" ) ) << "the presence of the key is what counts";
}

TEST_F( NextStageTest, AnActiveStageWithACompleteStateMachineHoldsUpNothing ) {
   newEvent( "A", "a", true );
   newStage( "B", { "Nowhere" } );
   make();
   idle();
   EXPECT_EQ( decision(),
              ( Lines{ decisionMade, "Nowhere is not yet ready, which means B is also unready.",
                       onlyInactive } ) );
}

TEST_F( NextStageTest, OneIncompleteActiveStageKeepsProgressionFromBeingComplete ) {
   newEvent( "A", "a" );
   newEvent( "B", "b", true );
   make();
   idle();
   EXPECT_EQ( decision(), ( Lines{ decisionMade, "Stage A in progress, but not yet complete.",
                                   onlyIncomplete } ) );
   EXPECT_FALSE( status->complete() );
}

// ---- critical stages first

TEST_F( NextStageTest, WhileACriticalStageWaitsNoOtherIsEvenLookedAt ) {
   newStage( "Critical", { "Nowhere" } )->criticalIs( true );
   newStage( "Free" );
   newStage( "Bound", { "Nowhere" } );
   makeUndecided();
   EXPECT_EQ(
      decision(),
      with(
         inVisitingOrder(
            { { "Critical", { "Nowhere is not yet ready, which means Critical is also unready." } },
              { "Free", { "Free is ready, but some critical stage hasn't started yet." } },
              { "Bound", { "Bound is ready, but some critical stage hasn't started yet." } } } ),
         onlyInactive ) );
   EXPECT_EQ( status->activeStages(), 0U );
}

TEST_F( NextStageTest, ACriticalStageThatIsActiveHoldsNobodyBack ) {
   newEvent( "Critical", "c" );
   status->stage( "Critical" )->criticalIs( true );
   newStage( "Free" );
   make();
   EXPECT_TRUE( fire() );
   EXPECT_TRUE( active( "Critical" ) );
   EXPECT_FALSE( active( "Free" ) ) << "the flag stands for the whole decision";
   EXPECT_EQ(
      decision(),
      inVisitingOrder( { { "Critical", { "Stage Critical in progress, but not yet complete." } },
                         { "Free", { "Activating stage Free" } } } ) );
   EXPECT_TRUE( active( "Free" ) );
}

TEST_F( NextStageTest, AFurtherCriticalStageThatIsNotActiveStillHoldsBack ) {
   newEvent( "First", "c" );
   status->stage( "First" )->criticalIs( true );
   newStage( "Second", { "First" } )->criticalIs( true );
   newStage( "Free" );
   make();
   idle();
   EXPECT_TRUE( active( "First" ) );
   EXPECT_EQ(
      decision(),
      inVisitingOrder(
         { { "First", { "Stage First in progress, but not yet complete." } },
           { "Second", { "Incomplete dependency First means Second is unready." } },
           { "Free", { "Free is ready, but some critical stage hasn't started yet." } } } ) );
   EXPECT_FALSE( active( "Free" ) );
}

TEST_F( NextStageTest, AnActiveStageThatIsNotCriticalIsOnlyReportedWhileACriticalOneWaits ) {
   newEvent( "Active", "a" );
   make();
   idle();
   newStage( "Critical", { "Nowhere" } )->criticalIs( true );
   EXPECT_EQ( decision(),
              inVisitingOrder(
                 { { "Active",
                     { "Stage Active in progress, but now non-critical",
                       "Stage Active in progress, but not yet complete." } },
                   { "Critical",
                     { "Nowhere is not yet ready, which means Critical is also unready." } } } ) );
}

TEST_F( NextStageTest, TheReportStandsAlsoForAStageThatIsComplete ) {
   newEvent( "Active", "a", true );
   make();
   idle();
   newStage( "Critical", { "Nowhere" } )->criticalIs( true );
   EXPECT_EQ(
      decision(),
      with( inVisitingOrder( { { "Active", { "Stage Active in progress, but now non-critical" } },
                               { "Critical",
                                 { "Nowhere is not yet ready, which means Critical is also "
                                   "unready." } } } ),
            onlyInactive ) );
}

TEST_F( NextStageTest, AnActiveStageThatIsCriticalIsNotReportedSo ) {
   newEvent( "Active", "a" );
   status->stage( "Active" )->criticalIs( true );
   make();
   idle();
   newStage( "Critical", { "Nowhere" } )->criticalIs( true );
   EXPECT_EQ( decision(),
              inVisitingOrder(
                 { { "Active", { "Stage Active in progress, but not yet complete." } },
                   { "Critical",
                     { "Nowhere is not yet ready, which means Critical is also unready." } } } ) );
}

// ---- the result

TEST_F( NextStageTest, CompletionIsRecordedAndLoggedWhenEveryStageIsActiveAndComplete ) {
   newEvent( "A", "a", true );
   makeUndecided();
   decision();
   deliver();
   EXPECT_FALSE( status->complete() );
   texts();
   clock->nowIs( 1004 );
   EXPECT_EQ( decision(), ( Lines{ decisionMade } ) );
   EXPECT_TRUE( status->complete() );
   EXPECT_EQ( logged(), ( Lines{ "1004 Stage progression is complete" } ) );
}

TEST_F( NextStageTest, ALaterRequestRecordsCompletionAgain ) {
   newEvent( "A", "a", true );
   make();
   idle();
   texts();
   sm->doNextStage();
   idle();
   EXPECT_EQ( texts(), ( Lines{ "Stage progression is complete" } ) );
   EXPECT_TRUE( status->complete() );
}

TEST_F( NextStageTest, ADecisionIsNotRepeatedByItself ) {
   newStage( "A", { "Nowhere" } );
   TraceRecorder trace;
   make();
   pass( 1000 );
   EXPECT_EQ( trace.count( decisionMade ), 1U );
}

TEST_F( NextStageTest, ADependencyOnAStageThatDoesNotExistIsNeverSatisfied ) {
   newStage( "A", { "Nowhere" } );
   newEvent( "B", "b", true );
   make();
   pass( 1000 );
   EXPECT_FALSE( active( "A" ) );
   EXPECT_FALSE( status->complete() );
   EXPECT_EQ( decision(),
              ( Lines{ decisionMade, "Nowhere is not yet ready, which means A is also unready.",
                       onlyInactive } ) );
}

TEST_F( NextStageTest, AStageThatDependsOnItselfNeverStarts ) {
   newStage( "A", { "A" } );
   makeUndecided();
   EXPECT_EQ( decision(),
              ( Lines{ decisionMade, "A is not yet ready, which means A is also unready.",
                       onlyInactive } ) );
   EXPECT_FALSE( active( "A" ) );
}

TEST_F( NextStageTest, TwoStagesThatDependOnEachOtherNeverStart ) {
   newStage( "A", { "B" } );
   newStage( "B", { "A" } );
   make();
   pass( 1000 );
   EXPECT_EQ( status->activeStages(), 0U );
   EXPECT_FALSE( status->complete() );
}

TEST_F( NextStageTest, AStageActivatedEarlierInADecisionDoesNotYetSatisfyALaterOne ) {
   // One of the two visits its dependency after that was activated in the same decision.
   newStage( "A" );
   newStage( "B", { "A" } );
   newStage( "X", { "Y" } );
   newStage( "Y" );
   makeUndecided();
   auto const unready = [ & ]( char const * d, char const * s ) -> Lines {
      for( auto const & name : stageNames() ) {
         if( name == d )
            return { std::string( "Unactivated stage SM for " ) + d + " means " + s +
                     " is unready." };
         if( name == s )
            break;
      }
      return { std::string( d ) + " is not yet ready, which means " + s + " is also unready." };
   };
   EXPECT_EQ( decision(), with( inVisitingOrder( { { "A", { "Activating stage A" } },
                                                   { "Y", { "Activating stage Y" } },
                                                   { "B", unready( "A", "B" ) },
                                                   { "X", unready( "Y", "X" ) } } ),
                                onlyInactive ) );
   EXPECT_FALSE( active( "B" ) );
   EXPECT_FALSE( active( "X" ) );
}

TEST_F( NextStageTest, AStageThatLeftTheActiveOnesIsActivatedAgainByTheNextDecision ) {
   newEvent( "A", "a", true );
   make();
   idle();
   auto const held = stageSm( "A" );
   texts();
   status->activeStageDel( "A" );
   idle();
   EXPECT_EQ( texts(), Lines() );
   sm->doNextStage();
   idle();
   EXPECT_EQ( texts(), ( Lines{ "stage A started" } ) );
   EXPECT_TRUE( active( "A" ) );
   EXPECT_EQ( stageSm( "A" ), held );
}

// ---- where and how it is traced

TEST_F( NextStageTest, TheDecisionNamesItsSourceAndItsHandlerInEveryLine ) {
   newEvent( "Active", "a" );
   newEvent( "Done", "d", true );
   make();
   idle();
   newStage( "Critical", { "Nowhere" } )->criticalIs( true );
   newStage( "Bound", { "Active" } )->criticalIs( true );
   newStage( "Free" );
   sm->needRecalculateNextStageIs( true );
   TraceRecorder trace;
   sm->handleNextStage();
   ASSERT_GE( trace.lines().size(), 5U );
   for( Kiv::TraceLine const & line : trace.lines() ) {
      EXPECT_EQ( line.handle, "Ordovan" );
      EXPECT_STREQ( line.source, "Ordovan" );
      EXPECT_GT( line.line, 0 );
      EXPECT_STREQ( line.function, "handleNextStage" ) << line.text.charPtr();
   }
}

TEST_F( NextStageTest, OnlyTheActivationOfAStageIsTracedAtLevelSeven ) {
   newStage( "A" );
   TraceRecorder trace;
   start();
   Lines seven;
   for( Kiv::TraceLine const & line : trace.lines() )
      if( line.level == 7 )
         seven.push_back( line.text.str() );
   EXPECT_EQ( seven, ( Lines{ "Activating stage A" } ) );
}
