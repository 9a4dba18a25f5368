// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// A stage is critical when one of its events is, or a critical stage depends on it.

#include "Handles.h"

namespace aggregation {
namespace {

Names criticalStages( World const & w ) {
   Names names;
   for( auto i = w.status->stageIteratorConst(); i; ++i )
      if( i.ptr()->critical() )
         names.insert( i.key().str() );
   return names;
}

Names ancestorsOf( Ptr< ConfigSm > const & machine, Name const & stage ) {
   Names names;
   for( auto i = machine->stageStatus( stage )->criticalAncestorIteratorConst(); i; ++i )
      names.insert( i.key().str() );
   return names;
}

TEST( Critical, AChainIsCriticalFromItsEndAndIsReleasedFromIt ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   Ptr< EventConfig > const a = w.declare( "x", "A", { "B" } );
   w.declare( "x", "B", { "D" } );
   w.declare( "x", "D" );
   w.declare( "x", "E" );
   w.idle();
   EXPECT_EQ( criticalStages( w ), ( Names{} ) );
   a->criticalIs( true );
   w.idle();
   EXPECT_EQ( criticalStages( w ), ( Names{ "A", "B", "D" } ) );
   EXPECT_EQ( ancestorsOf( machine, "B" ), ( Names{ "A" } ) );
   EXPECT_EQ( ancestorsOf( machine, "D" ), ( Names{ "B" } ) );
   a->criticalIs( false );
   w.idle();
   EXPECT_EQ( criticalStages( w ), ( Names{} ) );
   EXPECT_EQ( ancestorsOf( machine, "B" ), ( Names{} ) );
   EXPECT_EQ( ancestorsOf( machine, "D" ), ( Names{} ) );
}

TEST( Critical, AStageWithAnotherReasonStaysCritical ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   Ptr< EventConfig > const a = w.declare( "x", "A", { "D" }, 0, true );
   Ptr< EventConfig > const b = w.declare( "x", "B", { "D" }, 0, true );
   Ptr< EventConfig > const d = w.declare( "x", "D", {}, 0, true );
   w.idle();
   a->criticalIs( false );
   w.idle();
   EXPECT_EQ( criticalStages( w ), ( Names{ "B", "D" } ) );
   b->criticalIs( false );
   w.idle();
   EXPECT_EQ( criticalStages( w ), ( Names{ "D" } ) );
   b->criticalIs( true );
   d->criticalIs( false );
   w.idle();
   EXPECT_EQ( criticalStages( w ), ( Names{ "B", "D" } ) );
}

TEST( Critical, AnyOneCriticalEventIsEnough ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   Ptr< EventConfig > const a = w.declare( "a", "S", {}, 0, true );
   w.declare( "b", "S", {}, 0, true );
   w.idle();
   a->criticalIs( false );
   w.idle();
   EXPECT_TRUE( w.stage( "S" )->critical() );
   w.agent( "b" )->eventDel( "S" );
   w.idle();
   EXPECT_FALSE( w.stage( "S" )->critical() );
}

TEST( Critical, ADependencyAddedToACriticalStageIsCriticalFromThenOn ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   Ptr< EventConfig > const a = w.declare( "x", "A", {}, 0, true );
   w.declare( "x", "B", { "D" } );
   w.declare( "x", "D" );
   w.idle();
   a->dependencyIs( "B", true );
   w.idle();
   EXPECT_EQ( criticalStages( w ), ( Names{ "A", "B", "D" } ) );
}

TEST( Critical, TheAgentOfTheCriticalEventReleasesAllWhenItLeaves ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   w.declare( "a", "A", { "B" }, 0, true );
   w.declare( "b", "A", { "C" } );
   w.declare( "b", "B" );
   w.declare( "b", "C" );
   w.idle();
   EXPECT_EQ( criticalStages( w ), ( Names{ "A", "B", "C" } ) );
   w.dir->entityPtrDel( "a" );
   w.idle();
   EXPECT_EQ( criticalStages( w ), ( Names{} ) );
}

// While it is away there is no stage to take the link from, and nobody would look at it again.
TEST( Critical, AStageThatReturnsUnheardIsReleasedByWhoNoLongerDependsOnIt ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   Ptr< EventConfig > const a = w.declare( "x", "A", { "B", "C" }, 0, true );
   w.declare( "x", "B" );
   w.declare( "x", "C" );
   w.idle();
   a->dependencyDel( "B" );
   EXPECT_TRUE( Kiv::activityManager()->runOne() ); // A loses the dependency
   EXPECT_FALSE( w.stage( "A" )->hasDependency( "B" ) );
   w.status->stageDel( "B" );
   EXPECT_TRUE( Kiv::activityManager()->runOne() ); // and would take the link back
   w.status->stageIs( "B" );
   w.idle();
   EXPECT_EQ( criticalStages( w ), ( Names{ "A", "C" } ) );
   EXPECT_EQ( ancestorsOf( machine, "B" ), ( Names{} ) );
   EXPECT_EQ( ancestorsOf( machine, "C" ), ( Names{ "A" } ) );
}

TEST( Critical, AStageThatReturnsUnheardIsCriticalForWhoStillDependsOnIt ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   w.declare( "x", "A", { "B" }, 0, true );
   w.declare( "x", "B" );
   w.idle();
   Ptr< ConfigSm::KivStageStatus > const reactor = machine->stageStatus( "B" );
   w.status->stageDel( "B" );
   w.status->stageIs( "B" );
   EXPECT_FALSE( w.stage( "B" )->critical() );
   w.idle();
   EXPECT_EQ( machine->stageStatus( "B" ), reactor );
   EXPECT_EQ( criticalStages( w ), ( Names{ "A", "B" } ) );
   EXPECT_EQ( ancestorsOf( machine, "B" ), ( Names{ "A" } ) );
}

// Nothing breaks a cycle: each stage is the reason of the next one.
TEST( Critical, ACycleStaysCriticalAfterTheEventThatStartedItIsNotAnyMore ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   Ptr< EventConfig > const a = w.declare( "x", "A", { "B" } );
   w.declare( "x", "B", { "C" } );
   w.declare( "x", "C", { "A", "D" } );
   w.declare( "x", "D" );
   w.idle();
   EXPECT_EQ( criticalStages( w ), ( Names{} ) );
   a->criticalIs( true );
   w.idle();
   a->criticalIs( false );
   w.idle();
   EXPECT_EQ( criticalStages( w ), ( Names{ "A", "B", "C", "D" } ) );
}

// First is released; it takes its link back from Loop, which is critical itself and by now depends
// on First, so that First is critical again before its link to the other stage is looked at. With
// some names Loop comes first in the order of First's dependencies, with others the other one.
TEST( Critical, AReleaseThatACycleTakesBackCutsNoLinks ) {
   for( char const * other : { "D", "E", "F", "G", "H", "I", "J", "K" } ) {
      World w;
      Ptr< ConfigSm > const machine = w.configSm();
      Ptr< EventConfig > const first = w.declare( "x", "First", { "Loop", other }, 0, true );
      Ptr< EventConfig > const loop = w.declare( "x", "Loop", {}, 0, true );
      w.declare( "x", other );
      w.idle();
      loop->dependencyIs( "First", true );
      first->criticalIs( false );
      w.idle();
      EXPECT_EQ( criticalStages( w ), ( Names{ "First", "Loop", other } ) );
      EXPECT_EQ( ancestorsOf( machine, other ), ( Names{ "First" } ) );
   }
}

TEST( Critical, ACycleThatIsOpenedIsReleased ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   Ptr< EventConfig > const a = w.declare( "x", "A", { "B" }, 0, true );
   Ptr< EventConfig > const b = w.declare( "x", "B", { "A" } );
   w.idle();
   a->criticalIs( false );
   w.idle();
   EXPECT_EQ( criticalStages( w ), ( Names{ "A", "B" } ) );
   b->dependencyDel( "A" );
   w.idle();
   EXPECT_EQ( criticalStages( w ), ( Names{} ) );
}

TEST( Critical, AStageThatDependsOnItselfStaysCritical ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   Ptr< EventConfig > const a = w.declare( "x", "A", { "A" }, 0, true );
   w.idle();
   EXPECT_EQ( ancestorsOf( machine, "A" ), ( Names{ "A" } ) );
   a->criticalIs( false );
   w.idle();
   EXPECT_TRUE( w.stage( "A" )->critical() );
   a->dependencyDel( "A" );
   w.idle();
   EXPECT_FALSE( w.stage( "A" )->critical() );
}

// ------------------------------------------------------------------- the handlers, one at a time

// A silent machine over stages without events, whose dependencies are written by hand.
using Graph = std::vector< std::pair< std::string, Names > >;
struct Stages {
   explicit Stages( Graph const & graph ) : machine( silentConfigSm( w ) ) {
      for( auto const & [ name, dependencies ] : graph )
         for( std::string const & dependency : dependencies )
            w.status->stageIs( name )->dependencyIs( dependency, true );
      for( auto const & [ name, dependencies ] : graph )
         machine->stageStatusIs( w.status->stageIs( name ) );
   }
   Ptr< ConfigSm::KivStageStatus > reactor( Name const & name ) const {
      return machine->stageStatus( name );
   }
   // Files a critical event without telling anybody.
   void makeCritical( Name const & stage ) { fileEvent( w, "a", stage )->criticalIs( true ); }

   World w;
   Ptr< ConfigSm > machine;
};

TEST( HandleCritical, ACriticalEventIsNamedAsTheReasonAndTheWalkStopsThere ) {
   Stages s( Graph{ { "S", {} } } );
   fileEvent( s.w, "a", "S" )->criticalIs( true );
   fileEvent( s.w, "b", "S" )->criticalIs( true );
   fileEvent( s.w, "c", "S" );
   std::string first;
   for( auto i = s.w.stage( "S" )->eventIteratorConst(); i && first.empty(); ++i )
      if( i.ptr()->critical() )
         first = i.ptr()->uid().str();
   TraceRecorder traces;
   s.reactor( "S" )->handleCritical();
   EXPECT_TRUE( s.w.stage( "S" )->critical() );
   EXPECT_EQ( traces.taken(),
              ( Lines{ ofStage + "handleCritical() for stage S critical=false",
                       " Critical because " + first + " is critical",
                       " Setting critical for stage S to true",
                       "   Force dependents of S to recompute based on our criticaltrue" } ) );
}

TEST( HandleCritical, AnAncestorIsAReasonBeforeAnyEventIs ) {
   Stages s( Graph{ { "S", {} } } );
   s.makeCritical( "S" );
   s.reactor( "S" )->criticalAncestorIs( "A", true );
   TraceRecorder traces;
   s.reactor( "S" )->handleCritical();
   EXPECT_EQ(
      traces.taken(),
      ( Lines{ ofStage + "handleCritical() for stage S critical=true",
               " Critical because exists a critical ancestor", "S: No change to critical (true).",
               "   Force dependents of S to recompute based on our criticaltrue" } ) );
}

TEST( HandleCritical, WithoutReasonTheFlagIsTakenBack ) {
   Stages s( Graph{ { "S", {} } } );
   fileEvent( s.w, "a", "S" );
   s.w.stage( "S" )->criticalIs( true );
   TraceRecorder traces;
   s.reactor( "S" )->handleCritical();
   EXPECT_FALSE( s.w.stage( "S" )->critical() );
   EXPECT_EQ( traces.taken(),
              ( Lines{ ofStage + "handleCritical() for stage S critical=true",
                       " Setting critical for stage S to false",
                       "   Force dependents of S to recompute based on our criticalfalse" } ) );
}

TEST( HandleCritical, TheKeyedFormTracesItsKeyAndDecides ) {
   Stages s( Graph{ { "S", {} } } );
   s.w.stage( "S" )->criticalIs( true );
   TraceRecorder traces;
   s.reactor( "S" )->handleCritical( "A" );
   EXPECT_FALSE( s.w.stage( "S" )->critical() );
   EXPECT_EQ( traces.taken()[ 0 ], ofStage + "handleCritical(Kiv::String8) key A" );
}

TEST( HandleCritical, AnEventReactorTracesItsEventAndLetsTheStageDecide ) {
   Stages s( Graph{ { "S", {} } } );
   Ptr< EventConfig > const event = fileEvent( s.w, "a", "S" );
   Ptr< ConfigSm::KivStageStatus::KivEventConfig > const reactor =
      s.reactor( "S" )->eventConfigIs( event );
   event->criticalIs( true );
   TraceRecorder traces;
   reactor->handleCritical();
   EXPECT_TRUE( s.w.stage( "S" )->critical() );
   EXPECT_EQ( traces.taken(),
              ( Lines{ ofEvent + "handleCritical() S:a  critical=true",
                       ofStage + "handleCritical() for stage S critical=false",
                       " Critical because S:a is critical", " Setting critical for stage S to true",
                       "   Force dependents of S to recompute based on our criticaltrue" } ) );
}

// The links of a stage are asserted even when its flag is as it was: a dependency may be new.
TEST( HandleCritical, TheFlagIsPushedOnAlthoughItHasNotChanged ) {
   Stages s( Graph{ { "A", { "B", "C" } }, { "B", {} }, { "C", {} } } );
   s.makeCritical( "A" );
   s.reactor( "A" )->handleCritical();
   ASSERT_EQ( criticalStages( s.w ), ( Names{ "A", "B", "C" } ) );
   s.reactor( "B" )->criticalAncestorDel( "A" );
   ASSERT_EQ( criticalStages( s.w ), ( Names{ "A", "C" } ) );
   TraceRecorder traces;
   s.reactor( "A" )->handleCritical();
   EXPECT_EQ( criticalStages( s.w ), ( Names{ "A", "B", "C" } ) );
   EXPECT_EQ( traces.count( "A: No change to critical (true)." ), 1U );
   EXPECT_EQ( traces.count( "  Adjusting criticalAncestor for B (was false)" ), 1U );
   EXPECT_EQ( traces.count( "  Adjusting criticalAncestor for C (was true)" ), 1U );
}

TEST( HandleCritical, AStageThatIsNotCriticalPushesThatOnToo ) {
   Stages s( Graph{ { "A", { "B" } }, { "B", {} } } );
   s.reactor( "B" )->criticalAncestorIs( "A", true );
   ASSERT_TRUE( s.w.stage( "B" )->critical() );
   TraceRecorder traces;
   s.reactor( "A" )->handleCritical();
   EXPECT_FALSE( s.w.stage( "B" )->critical() );
   EXPECT_EQ( traces.taken(),
              ( Lines{ ofStage + "handleCritical() for stage A critical=false",
                       "A: No change to critical (false).",
                       "   Force dependents of A to recompute based on our criticalfalse",
                       "  Adjusting criticalAncestor for B (was true)",
                       ofStage + "handleCritical(Kiv::String8) key A",
                       ofStage + "handleCritical() for stage B critical=true",
                       " Setting critical for stage B to false",
                       "   Force dependents of B to recompute based on our criticalfalse" } ) );
}

TEST( HandleCritical, RunAgainWithoutChangeItDecidesForNobodyElse ) {
   Stages s( Graph{ { "A", { "B" } }, { "B", { "C" } }, { "C", {} } } );
   s.makeCritical( "A" );
   s.reactor( "A" )->handleCritical();
   TraceRecorder traces;
   s.reactor( "A" )->handleCritical();
   EXPECT_EQ( traces.taken(),
              ( Lines{ ofStage + "handleCritical() for stage A critical=true",
                       " Critical because A:a is critical", "A: No change to critical (true).",
                       "   Force dependents of A to recompute based on our criticaltrue",
                       "  Adjusting criticalAncestor for B (was true)" } ) );
}

TEST( HandleCritical, ADependencyWithoutReactorIsSkippedSilently ) {
   Stages s( Graph{ { "A", { "nowhere", "B" } }, { "B", {} } } );
   s.w.status->stageIs( "nowhere" );
   s.makeCritical( "A" );
   TraceRecorder traces;
   s.reactor( "A" )->handleCritical();
   EXPECT_EQ( criticalStages( s.w ), ( Names{ "A", "B" } ) );
   EXPECT_EQ( traces.countStarting( "  Adjusting criticalAncestor for nowhere" ), 0U );
   EXPECT_EQ( traces.countStarting( "  Adjusting criticalAncestor for B" ), 1U );
}

// A stage decides, then all that it depends on, before its sibling does.
TEST( HandleCritical, ThePushGoesDepthFirstInTheOrderOfTheDependencies ) {
   Stages s( Graph{
      { "A", { "B", "C" } }, { "B", { "D" } }, { "C", { "D" } }, { "D", { "E" } }, { "E", {} } } );
   std::vector< std::string > order;
   for( auto i = s.w.stage( "A" )->dependencyIteratorConst(); i; ++i )
      order.push_back( i.key().str() );
   ASSERT_EQ( order.size(), 2U );
   s.makeCritical( "A" );
   TraceRecorder traces;
   s.reactor( "A" )->handleCritical();
   std::string const head = ofStage + "handleCritical() for stage ";
   Lines decided;
   for( std::string const & line : traces.taken() )
      if( line.compare( 0, head.size(), head ) == 0 )
         decided.push_back( line.substr( head.size(), 1 ) );
   // D decides twice, for each of its ancestors; the second time E has its link already.
   EXPECT_EQ( decided, ( Lines{ "A", order[ 0 ], "D", "E", order[ 1 ], "D" } ) );
   EXPECT_EQ( ancestorsOf( s.machine, "D" ), ( Names{ "B", "C" } ) );
}

TEST( HandleCritical, ACycleEndsWhereALinkIsThereAlready ) {
   Stages s( Graph{ { "A", { "B" } }, { "B", { "A" } } } );
   s.makeCritical( "A" );
   TraceRecorder traces;
   s.reactor( "A" )->handleCritical();
   EXPECT_EQ( criticalStages( s.w ), ( Names{ "A", "B" } ) );
   EXPECT_EQ( traces.count( ofStage + "handleCritical() for stage A critical=false" ), 1U );
   EXPECT_EQ( traces.count( ofStage + "handleCritical() for stage A critical=true" ), 1U );
   EXPECT_EQ( traces.countStarting( ofStage + "handleCritical() for stage B" ), 1U );
}

// ---------------------------------------------------------------------------------- ancestors

TEST( CriticalAncestors, ANewEntryIsMadeAndDecided ) {
   Stages s( Graph{ { "S", {} } } );
   TraceRecorder traces;
   s.reactor( "S" )->criticalAncestorIs( "A", true );
   EXPECT_TRUE( s.reactor( "S" )->criticalAncestor( "A" ) );
   EXPECT_EQ( s.reactor( "S" )->criticalAncestors(), 1U );
   EXPECT_TRUE( s.w.stage( "S" )->critical() );
   EXPECT_EQ( traces.lines().front().text, ofStage + "handleCritical(Kiv::String8) key A" );
}

TEST( CriticalAncestors, AnEntryThatHoldsTheValueIsLeftAloneAndNothingIsCalled ) {
   Stages s( Graph{ { "S", {} } } );
   s.reactor( "S" )->criticalAncestorIs( "A", true );
   s.w.stage( "S" )->criticalIs( false );
   TraceRecorder traces;
   s.reactor( "S" )->criticalAncestorIs( "A", true );
   EXPECT_FALSE( s.w.stage( "S" )->critical() );
   EXPECT_EQ( traces.taken(), ( Lines{} ) );
}

TEST( CriticalAncestors, AnotherValueIsSetAndDecided ) {
   Stages s( Graph{ { "S", {} } } );
   s.reactor( "S" )->criticalAncestorIs( "A", true );
   s.w.stage( "S" )->criticalIs( false );
   s.reactor( "S" )->criticalAncestorIs( "A", false );
   EXPECT_FALSE( s.reactor( "S" )->criticalAncestor( "A" ) );
   EXPECT_TRUE( s.reactor( "S" )->hasCriticalAncestor( "A" ) );
   EXPECT_TRUE( s.w.stage( "S" )->critical() ) << "that there is an entry counts, not its value";
}

TEST( CriticalAncestors, AnEntryRemovedIsDecidedAndAnAbsentOneIsNot ) {
   Stages s( Graph{ { "S", {} } } );
   s.reactor( "S" )->criticalAncestorIs( "A", true );
   TraceRecorder traces;
   s.reactor( "S" )->criticalAncestorDel( "B" );
   EXPECT_EQ( traces.taken(), ( Lines{} ) );
   EXPECT_TRUE( s.w.stage( "S" )->critical() );
   s.reactor( "S" )->criticalAncestorDel( "A" );
   EXPECT_FALSE( s.w.stage( "S" )->critical() );
   EXPECT_EQ( traces.taken()[ 0 ], ofStage + "handleCritical(Kiv::String8) key A" );
}

TEST( CriticalAncestors, TheValueOfAnAbsentEntryIsFalse ) {
   Stages s( Graph{ { "S", {} } } );
   EXPECT_FALSE( s.reactor( "S" )->criticalAncestor( "A" ) );
   EXPECT_FALSE( s.reactor( "S" )->hasCriticalAncestor( "A" ) );
   EXPECT_EQ( s.reactor( "S" )->criticalAncestors(), 0U );
}

TEST( CriticalAncestors, AllCanBeRemovedAndIteratedOver ) {
   Stages s( Graph{ { "S", { "T" } }, { "T", {} } } );
   for( char const * name : { "A", "B", "C" } )
      s.reactor( "S" )->criticalAncestorIs( name, true );
   Names met;
   for( auto i = s.reactor( "S" )->criticalAncestorIterator(); i; ++i ) {
      met.insert( i.key().str() );
      EXPECT_TRUE( i.ptr()->criticalAncestor() );
      EXPECT_EQ( i.ptr()->fwkKey(), i.key() );
   }
   EXPECT_EQ( met, ( Names{ "A", "B", "C" } ) );
   ConfigSm::KivStageStatus::KivCriticalAncestorIterator const first =
      s.reactor( "S" )->criticalAncestorIterator();
   ConfigSm::KivStageStatus::KivCriticalAncestorIteratorConst const firstConst =
      s.reactor( "S" )->criticalAncestorIteratorConst();
   EXPECT_EQ( first.ptr(), firstConst.ptr() );
   ASSERT_TRUE( s.w.stage( "T" )->critical() );
   s.reactor( "S" )->criticalAncestorDelAll();
   EXPECT_EQ( s.reactor( "S" )->criticalAncestors(), 0U );
   EXPECT_FALSE( s.w.stage( "S" )->critical() );
   EXPECT_FALSE( s.w.stage( "T" )->critical() );
}

TEST( CriticalAncestors, TellingOfAnEntryDecides ) {
   Stages s( Graph{ { "S", {} } } );
   s.w.stage( "S" )->criticalIs( true );
   TraceRecorder traces;
   s.reactor( "S" )->criticalAncestorNotify( "A", nullptr );
   EXPECT_FALSE( s.w.stage( "S" )->critical() );
   EXPECT_EQ( traces.taken()[ 0 ], ofStage + "handleCritical(Kiv::String8) key A" );
}

TEST( CriticalAncestors, OneCanBeMadeWithoutStoringIt ) {
   Stages s( Graph{ { "S", {} } } );
   Ptr< ConfigSm::KivStageStatus::KivCriticalAncestor > const made =
      s.reactor( "S" )->newCriticalAncestor( "A", true );
   ASSERT_TRUE( made );
   EXPECT_EQ( made->fwkKey(), "A" );
   EXPECT_TRUE( made->criticalAncestor() );
   EXPECT_EQ( s.reactor( "S" )->criticalAncestors(), 0U );
   EXPECT_FALSE( s.w.stage( "S" )->critical() );
}

} // namespace
} // namespace aggregation
