// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// A reactor that somebody keeps longer than its owner does, or that watches nothing any more, does
// nothing, whatever is asked of it.

#include "Handles.h"

#include <functional>

namespace aggregation {
namespace {

using KivStageStatus = ConfigSm::KivStageStatus;

// A aggregated with B, which it depends on; everything is held.
struct Kept {
   Kept() {
      w.declare( "x", "B" );
      a = w.declare( "x", "A", { "B" }, 30, true );
      w.idle();
      agent = machine->agentConfig( "x" );
      stage = machine->stageStatus( "A" );
      event = stage->eventConfig( "x" );
   }
   void unmark() {
      agent->kivDoZombieReactors( false );
      stage->kivDoZombieReactors( false );
      event->kivDoZombieReactors( false );
   }

   World w;
   Ptr< ConfigSm > machine = w.configSm();
   Ptr< EventConfig > a;
   Ptr< ConfigSm::KivAgentConfig > agent;
   Ptr< KivStageStatus > stage;
   Ptr< KivStageStatus::KivEventConfig > event;
};

using Step = std::pair< char const *, std::function< void( Kept & ) > >;

std::vector< Step > const losses = {
   { "agentConfigDel", []( Kept & k ) { k.machine->agentConfigDel( "x" ); } },
   { "stageStatusDel", []( Kept & k ) { k.machine->stageStatusDel( "A" ); } },
   { "stageStatusDelAll", []( Kept & k ) { k.machine->stageStatusDelAll(); } },
   { "eventConfigDel", []( Kept & k ) { k.stage->eventConfigDel( "x" ); } },
   { "criticalAncestorDelAll", []( Kept & k ) { k.stage->criticalAncestorDelAll(); } },
   { "agent null", []( Kept & k ) { k.agent->notifierIs( nullptr ); } },
   { "stage null", []( Kept & k ) { k.stage->notifierIs( Ptr< Kiv::PtrInterface const >() ); } },
   { "event null", []( Kept & k ) { k.event->notifierIs( nullptr ); } },
   { "machine", []( Kept & k ) { k.machine = nullptr; } },
};

std::vector< Step > const operations = {
   { "agent handleEvent", []( Kept & k ) { k.agent->handleEvent(); } },
   { "agent handleEvent( A )", []( Kept & k ) { k.agent->handleEvent( "A" ); } },
   { "agent onEvent( A )", []( Kept & k ) { k.agent->onEvent( "A" ); } },
   { "agent onEvent", []( Kept & k ) { k.agent->onEvent(); } },
   { "agent notifierIs",
     []( Kept & k ) { k.agent->notifierIs( AgentConfig::AgentConfigIs( "x" ) ); } },
   { "stage handleDependency", []( Kept & k ) { k.stage->handleDependency( "B" ); } },
   { "stage handleDependencyDel", []( Kept & k ) { k.stage->handleDependencyDel( "B" ); } },
   { "stage handleEventDel", []( Kept & k ) { k.stage->handleEventDel( "x" ); } },
   { "stage handleStage", []( Kept & k ) { k.stage->handleStage( "B" ); } },
   { "stage handleCritical( B )", []( Kept & k ) { k.stage->handleCritical( "B" ); } },
   { "stage handleCritical", []( Kept & k ) { k.stage->handleCritical(); } },
   { "stage handleTimeout", []( Kept & k ) { k.stage->handleTimeout(); } },
   { "stage onDependency( B )", []( Kept & k ) { k.stage->onDependency( "B" ); } },
   { "stage onDependency", []( Kept & k ) { k.stage->onDependency(); } },
   { "stage onEvent( x )", []( Kept & k ) { k.stage->onEvent( "x" ); } },
   { "stage onEvent", []( Kept & k ) { k.stage->onEvent(); } },
   { "stage eventConfigIs", []( Kept & k ) { k.stage->eventConfigIs( k.a ); } },
   { "stage eventConfigDelAll", []( Kept & k ) { k.stage->eventConfigDelAll(); } },
   { "stage criticalAncestorIs", []( Kept & k ) { k.stage->criticalAncestorIs( "B", true ); } },
   { "stage criticalAncestorDelAll", []( Kept & k ) { k.stage->criticalAncestorDelAll(); } },
   { "stage criticalAncestorNotify",
     []( Kept & k ) { k.stage->criticalAncestorNotify( "B", nullptr ); } },
   { "stage notifierIs",
     []( Kept & k ) {
        k.stage->notifierIs( Stage::Status::StatusIs( "other" )->stageIs( "A" ) );
     } },
   { "event handleDependency", []( Kept & k ) { k.event->handleDependency(); } },
   { "event handleDependency( B )", []( Kept & k ) { k.event->handleDependency( "B" ); } },
   { "event handleTimeout", []( Kept & k ) { k.event->handleTimeout(); } },
   { "event handleCritical", []( Kept & k ) { k.event->handleCritical(); } },
   { "event onDependency( B )", []( Kept & k ) { k.event->onDependency( "B" ); } },
   { "event onDependency", []( Kept & k ) { k.event->onDependency(); } },
   { "event onTimeout", []( Kept & k ) { k.event->onTimeout(); } },
   { "event onCritical", []( Kept & k ) { k.event->onCritical(); } },
   { "event notifierIs",
     []( Kept & k ) { k.event->notifierIs( EventConfig::EventConfigIs( "A", "x" ) ); } },
   { "off and on",
     []( Kept & k ) {
        k.stage->hasNotificationActiveIs( false );
        k.stage->hasNotificationActiveIs( true );
     } },
};

std::string outcome( Step const & loss, Step const & operation, bool unmarked ) {
   Kept kept;
   loss.second( kept );
   if( unmarked )
      kept.unmark();
   try {
      operation.second( kept );
      kept.w.idle();
   } catch( std::exception const & e ) {
      return e.what();
   }
   return "";
}

TEST( Missing, NothingThatAReactorHasLostIsReachedFor ) {
   for( Step const & loss : losses )
      for( Step const & operation : operations )
         for( bool const unmarked : { false, true } )
            EXPECT_EQ( outcome( loss, operation, unmarked ), "" )
               << loss.first << ", then " << operation.first;
}

TEST( Missing, WhoHasLostItsOwnerWritesNothing ) {
   for( Step const & operation : operations ) {
      Kept kept;
      kept.machine = nullptr;
      Ptr< StageStatus > const before = kept.w.stage( "A" );
      before->timeoutIs( 7 );
      kept.a->criticalIs( false );
      kept.a->dependencyDel( "B" );
      operation.second( kept );
      kept.w.idle();
      EXPECT_EQ( kept.w.stage( "A" ), before ) << operation.first;
      EXPECT_TRUE( before->critical() ) << operation.first;
      EXPECT_EQ( before->timeout(), 7 ) << operation.first;
      EXPECT_EQ( agentsOf( before ), ( Names{ "x" } ) ) << operation.first;
      EXPECT_EQ( dependenciesOf( before ), ( Names{ "B" } ) ) << operation.first;
      EXPECT_EQ( kept.w.status->stages(), 2U ) << operation.first;
   }
}

TEST( Missing, AReactorIsNotMadeOnNothing ) {
   World w;
   Ptr< ConfigSm > const machine = w.configSm();
   Ptr< KivStageStatus > const stage = machine->stageStatusIs( w.status->stageIs( "S" ) );
   EXPECT_EQ( rangeText( [ & ] {
                 Ptr< ConfigSm::KivAgentConfig > const none =
                    new ConfigSm::KivAgentConfig( nullptr, machine.get() );
              } ),
              "null ValidPtr" );
   EXPECT_EQ( rangeText( [ & ] {
                 Ptr< KivStageStatus > const none = new KivStageStatus( nullptr, machine.get() );
              } ),
              "null ValidPtr" );
   EXPECT_EQ( rangeText( [ & ] {
                 Ptr< KivStageStatus::KivEventConfig > const none =
                    new KivStageStatus::KivEventConfig( nullptr, stage.get() );
              } ),
              "null ValidPtr" );
}

} // namespace
} // namespace aggregation
