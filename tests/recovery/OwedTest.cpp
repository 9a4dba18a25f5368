// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// What a handler that was cut short owes is made up for, each debt by itself: every place at which
// the handler can be cut short is tried.
#include "CutShort.h"

#include <vector>

using namespace testing_support;
using Kiv::Ptr;

namespace {

using Owed = CutShort;

// So many watch the stage's StageSm that there is no room in the queue for telling them all: what
// others have made is given back first, by turns in which next to nothing happens.
struct Crowd {
   struct Observer : Stage::StageSm::NotifieeConst {
      explicit Observer( Ptr< Stage::StageSm > const & sm ) { watch( sm ); }
   };
   explicit Crowd( Ptr< Stage::StageSm > const & sm ) {
      auto const event = Stage::EventConfig::EventConfigIs( "quiet", "agent" );
      Ptr< Stage::EventConfig::NotifieeConst > const one = new Stage::EventConfig::NotifieeConst;
      one->watch( event );
      for( int turn = 0; turn != 20; ++turn ) {
         event->timeoutIs( turn );
         Kiv::activityManager()->runQueued();
      }
      for( std::size_t n = 0; n != 200; ++n )
         observers.emplace_back( new Observer( sm ) );
   }

   std::vector< Ptr< Observer > > observers;
};

} // namespace

// ---- progress

TEST_F( Owed, ProgressIsRecorded ) {
   std::size_t places = 0;
   for( bool failed = true; failed; ++places ) {
      Progressing w;
      w.begin();
      failed = failing( places, [] { untilCutShort(); } );
      w.pass( 1 );
      EXPECT_TRUE( w.active() ) << "allocation " << places;
      EXPECT_TRUE( w.progress->stage( "A" ) ) << "allocation " << places;
   }
   EXPECT_GT( places, 5U );
}

TEST_F( Owed, ProgressIsRecordedOfAStageThatHasLeftMeanwhileAndOfNoOther ) {
   std::size_t places = 0;
   std::size_t owed = 0;
   std::size_t none = 0;
   for( bool failed = true; failed; ++places ) {
      Progressing w;
      w.begin();
      failed = failing( places, [] { untilCutShort(); } );
      bool const made = bool( w.active() );
      owed += made && !w.progress->stage( "A" );
      none += !made;
      w.config->enabledIs( false );
      w.sm().needRecalculateNextStageIs( false );
      w.status->activeStageDel( "A" );
      w.pass( 1 );
      EXPECT_EQ( w.progress->stage( "A" ), made ) << "allocation " << places;
   }
   EXPECT_GT( owed, 0U );
   EXPECT_GT( none, 0U );
}

// ---- attaching to another object

TEST_F( Owed, AnEventThatReplacesAnotherIsAggregated ) {
   std::size_t places = 0;
   for( bool failed = true; failed; ++places ) {
      World w;
      w.declare( "agent", "A", {}, 5 );
      w.declare( "agent", "B" );
      auto const machine = w.configSm();
      w.idle();
      auto const other = Stage::EventConfig::EventConfigIs( "A", "agent" );
      other->dependencyIs( "B", true );
      other->timeoutIs( 50 );
      other->criticalIs( true );
      w.stage( "A" )->eventIs( other );
      failed = failing( places, [] { untilCutShort(); } );
      w.pass( 1 );
      EXPECT_EQ( dependenciesOf( w.stage( "A" ) ), ( std::set< std::string >{ "B" } ) ) << places;
      EXPECT_EQ( w.stage( "A" )->timeout(), 50 ) << "allocation " << places;
      EXPECT_TRUE( w.stage( "A" )->critical() ) << "allocation " << places;
      EXPECT_TRUE( w.stage( "B" )->critical() ) << "allocation " << places;
   }
   EXPECT_GT( places, 5U );
}

TEST_F( Owed, AReactorThatCouldNotBeAttachedElsewhereHearsWhatItHeardBefore ) {
   std::size_t kept = 0;
   for( bool failed = true; failed; ) {
      World w;
      auto const event = w.declare( "agent", "A", {}, 5 );
      auto const machine = w.configSm();
      w.idle();
      auto const reactor = machine->stageStatus( "A" )->eventConfig( "agent" );
      auto const other = Stage::EventConfig::EventConfigIs( "A", "agent" );
      other->dependencyIs( "B", true );
      other->criticalIs( true );
      failed = failing( kept, [ & ] { reactor->notifierIs( other ); } );
      EXPECT_EQ( reactor->notifier(), failed ? event : other ) << "allocation " << kept;
      EXPECT_TRUE( reactor->isRegisteredNotifiee() ) << "allocation " << kept;
      if( !failed )
         break;
      ++kept;
      event->timeoutIs( 99 );
      w.pass( 1 );
      EXPECT_EQ( w.stage( "A" )->timeout(), 99 ) << "allocation " << kept;
   }
   EXPECT_GT( kept, 0U );
}

TEST_F( Owed, AnEventOfAnActiveStageIsReplacedWithAllWhoWatchToldOrNotAtAll ) {
   std::size_t places = 0;
   std::size_t undone = 0;
   for( bool failed = true; failed; ++places ) {
      Progressing w;
      w.begin();
      w.pass( 1 );
      auto const active = w.active();
      auto const other = Stage::EventConfig::EventConfigIs( "A", "agent" );
      int const before = w.logged( "  event A:agent started" );
      {
         Crowd const crowd( active );
         failed = failing( places, [ & ] { active->eventIs( "agent", other ); } );
      }
      // Its reactor had said so already when there was no room to tell who watches.
      undone += failed && w.logged( "  event A:agent started" ) > before;
      auto const held = active->event( "agent" );
      EXPECT_EQ( held->event(), failed ? w.event[ "A" ] : other ) << "allocation " << places;
      w.event[ "A" ]->completeIs( true );
      w.pass( 1 );
      EXPECT_EQ( w.logged( "  event A:agent completed" ), failed ? 1 : 0 ) << places;
   }
   EXPECT_GT( undone, 0U );
}

// ---- completion of a stage, and its timer

TEST_F( Owed, ACompletionThatWasCutShortIsBeforeTheTimerThatIsDueMeanwhile ) {
   std::size_t places = 0;
   std::size_t owed = 0;
   for( bool failed = true; failed; ++places ) {
      Progressing w;
      w.begin();
      w.pass( 1 );
      w.event[ "A" ]->completeIs( true );
      failed = failing( places, [] { deliverUntilCutShort(); } );
      auto const active = w.active();
      bool const due = active->stageUncompleted()->timeMin() < Kiv::infinity;
      bool const complete = active->pendingEvents() == 0;
      owed += due && complete;
      w.clock->nowIs( w.clock->now() + 5 );
      Kiv::activityManager()->fireOne(); // before what was cut short is delivered again
      EXPECT_TRUE( active->complete() ) << "allocation " << places;
      EXPECT_EQ( active->timedOut(), !complete ) << "allocation " << places;
      w.pass( 1 );
      EXPECT_EQ( w.logged( "stage A is complete (timeout)" ), complete ? 0 : 1 ) << places;
      EXPECT_GE( w.logged( "stage A is complete" ), 1 ) << "allocation " << places;
   }
   EXPECT_GT( owed, 0U );
}

TEST_F( Owed, AStageWhoseNewEventNobodyCouldBeToldOfTimesOutAllTheSame ) {
   std::size_t places = 0;
   for( bool failed = true; failed; ++places ) {
      Progressing w;
      w.begin();
      w.pass( 1 );
      auto const active = w.active();
      auto const late = Stage::EventConfig::EventConfigIs( "A", "late" );
      {
         Crowd const crowd( active );
         failed = failing( places, [ & ] { active->pendingEventIs( late ); } );
      }
      w.clock->nowIs( w.clock->now() + 5 );
      Kiv::activityManager()->fireOne();
      EXPECT_TRUE( active->timedOut() ) << "allocation " << places;
   }
   EXPECT_GT( places, 8U );
}

TEST_F( Owed, AStageThatReplacesOneWhoseCompletionWasCutShortCompletes ) {
   bool cut = true;
   for( std::size_t first = 0; cut; ++first ) {
      bool failed = true;
      for( std::size_t second = 0; failed && cut; ++second ) {
         Progressing w;
         w.begin();
         w.pass( 1 );
         w.event[ "A" ]->completeIs( true );
         cut = failing( first, [] { deliverUntilCutShort(); } );
         auto const other = Stage::Status::StatusIs( "elsewhere" )->stageIs( "A" );
         auto const event = Stage::EventConfig::EventConfigIs( "A", "agent" );
         event->completeIs( true );
         other->eventIs( event );
         auto const replace = [ & ] {
            w.sm().stageSmIs( Ptr< Stage::StageStatus const >( other ), w.sm().logSm() );
         };
         failed = failing( second, replace );
         if( failed )
            replace(); // as whoever was told of it does
         w.pass( 1 );
         EXPECT_TRUE( w.active()->complete() ) << "allocations " << first << ", " << second;
         EXPECT_FALSE( w.active()->timedOut() ) << "allocations " << first << ", " << second;
      }
   }
}

// ---- aggregation

TEST_F( Owed, AFlagIsPushedToTheEndOfTheChain ) {
   for( bool const on : { true, false } ) {
      std::size_t places = 0;
      for( bool failed = true; failed; ++places ) {
         World w;
         auto const event = w.declare( "agent", "A", { "B", "C" }, 0, !on );
         w.declare( "agent", "B", { "D" } );
         w.declare( "agent", "C", { "D", "E" } );
         w.declare( "agent", "D", { "F" } );
         for( char const * name : { "E", "F" } )
            w.declare( "agent", name );
         auto const machine = w.configSm();
         w.idle();
         event->criticalIs( on );
         failed = failing( places, [] { untilCutShort(); } );
         w.pass( 1 );
         for( char const * name : { "A", "B", "C", "D", "E", "F" } )
            EXPECT_EQ( w.stage( name )->critical(), on ) << name << ", allocation " << places;
      }
      EXPECT_GT( places, 2U ) << on;
   }
}

TEST_F( Owed, WhatAWithdrawnEventBroughtGoesWithIt ) {
   std::size_t places = 0;
   for( bool failed = true; failed; ++places ) {
      World w;
      w.declare( "other", "A", { "C" }, 5 );
      w.declare( "agent", "A", { "B", "C", "D" }, 50, true );
      for( char const * name : { "B", "C", "D" } )
         w.declare( "other", name );
      auto const machine = w.configSm();
      w.idle();
      w.agent( "agent" )->eventDel( "A" );
      failed = failing( places, [] { untilCutShort(); } );
      w.pass( 1 );
      EXPECT_EQ( dependenciesOf( w.stage( "A" ) ), ( std::set< std::string >{ "C" } ) ) << places;
      EXPECT_EQ( w.stage( "A" )->timeout(), 5 ) << "allocation " << places;
      for( char const * name : { "A", "B", "C", "D" } )
         EXPECT_FALSE( w.stage( name )->critical() ) << name << ", allocation " << places;
   }
   EXPECT_GT( places, 2U );
}

TEST_F( Owed, AStageThatGoesIsNobodysCriticalAncestorAnyMore ) {
   std::size_t places = 0;
   for( bool failed = true; failed; ++places ) {
      World w;
      w.declare( "agent", "A", { "B", "C" }, 0, true );
      w.declare( "agent", "B", { "D" } );
      w.declare( "agent", "C", { "E" } );
      for( char const * name : { "D", "E" } )
         w.declare( "agent", name );
      auto const machine = w.configSm();
      w.idle();
      w.status->stageDel( "A" );
      failed = failing( places, [] { untilCutShort(); } );
      w.pass( 1 );
      for( char const * name : { "B", "C", "D", "E" } )
         EXPECT_FALSE( w.stage( name )->critical() ) << name << ", allocation " << places;
   }
   EXPECT_GT( places, 2U );
}

TEST_F( Owed, AReactorOfAStageThatGoesPointsToNobodyAnyMore ) {
   std::size_t places = 0;
   for( bool failed = true; failed; ++places ) {
      World w;
      w.declare( "agent", "A", { "B" }, 0, true );
      w.declare( "agent", "B" );
      auto const machine = w.configSm();
      w.idle();
      auto const kept = machine->stageStatus( "A" );
      failed = failing( places, [ & ] { machine->stageStatusDel( "A" ); } );
      EXPECT_EQ( kept->configSm(), machine->stageStatus( "A" ) ? machine.get() : nullptr )
         << places;
   }
   EXPECT_GT( places, 1U );
}

// ---- progression

TEST_F( Owed, ADecisionThatWasCutShortIsMade ) {
   std::size_t places = 0;
   for( bool failed = true; failed; ++places ) {
      Progressing w( { "A", "B", "C" } );
      w.begin();
      failed = failing( places, [] { Kiv::activityManager()->fireOne(); } );
      w.pass( 1 );
      for( char const * name : { "A", "B", "C" } )
         EXPECT_TRUE( w.active( name ) ) << name << ", allocation " << places;
   }
   EXPECT_GT( places, 2U );
}

TEST_F( Owed, EveryStageIsWaitedForWhenProgressionIsEnabled ) {
   std::size_t places = 0;
   for( bool failed = true; failed; ++places ) {
      Progressing w( { "A", "B", "C" } );
      w.config->enabledIs( false );
      w.begin();
      w.idle();
      w.config->enabledIs( true );
      failed = failing( places, [] { deliverUntilCutShort(); } );
      Kiv::activityManager()->runQueued();
      EXPECT_EQ( w.sm().stageEnableSms(), 3U ) << "allocation " << places;
   }
   EXPECT_GT( places, 2U );
}
