// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// State machines: how switching off, marking for deletion and taking the mark back pass through
// the reactors that they own.
#include "../support/Loop.h"
#include "../support/TraceRecorder.h"
#include "Watchers.h"

#include <Ordovan/Ordovan.h>

#include <gtest/gtest.h>

#include <algorithm>

using namespace delivery;

namespace {

// A machine of the test's own, with one single nested reactor and two members, whose order is that
// of their keys.
class Machine : public Kiv::Machine< Watcher, Machine > {
 public:
   class Part
      : public Kiv::OwnedReactor< Stage::EventConfig::NotifieeConst, ::Machine, Kiv::String8 > {
    public:
      Part( Kiv::Ptr< Stage::EventConfig const > const & event, Kiv::String8 const & id,
            ::Machine * machine )
         : OwnedReactor( event, machine, id ) {}
      void hasNotificationActiveIs( bool active ) override {
         if( active != hasNotificationActive() )
            owner()->steps_.push_back( text( fwkKey() ) + ( active ? " on" : " off" ) );
         OwnedReactor::hasNotificationActiveIs( active );
      }
      void kivDoZombieReactors( bool zombie ) override {
         owner()->steps_.push_back(
            text( fwkKey() ) + ( zombie ? " to be marked" : " to be unmarked" ) +
            ( owner()->kivMarkedForDeletion() ? ", owner marked" : ", owner unmarked" ) );
         OwnedReactor::kivDoZombieReactors( zombie );
      }
      void onTimeout() override {
         react( [ this ]( ::Machine & m ) { m.calls_.push_back( text( fwkKey() ) ); } );
      }
   };

   Machine( Journal & steps, Journal & calls, Kiv::Ptr< Stage::EventConfig const > const & event )
      : Kiv::Machine< Watcher, Machine >( "machine", calls, event ), steps_( steps ),
        calls_( calls ) {
      single.reactorIs( Kiv::newOwned< Part >( *this, event, Kiv::String8( "single" ) ) );
      for( char const * id : { "member 2", "member 1" } )
         members.memberIs( Kiv::newOwned< Part >( *this, event, Kiv::String8( id ) ) );
      steps.clear();
   }
   ~Machine() override { kivDoZombieReactors( true ); }
   void hasNotificationActiveIs( bool active ) override {
      if( active != hasNotificationActive() )
         steps_.push_back( active ? "machine on" : "machine off" );
      Kiv::Machine< Watcher, Machine >::hasNotificationActiveIs( active );
   }

 private:
   friend Kiv::Machine< Watcher, Machine >;
   auto owned() { return std::tie( single, members ); }

   Journal & steps_;
   Journal & calls_;

 public:
   Kiv::Owned< Part > single;
   Kiv::OwnedByKey< Part, Kiv::String8 > members;
};

class Zombies : public testing::Test {
 protected:
   testing_support::Loop loop;
   Journal steps;
   Journal calls;
   Kiv::Ptr< Stage::EventConfig > const event = newEvent();
   Kiv::Ptr< Machine > const machine = new Machine( steps, calls, event );
};

} // namespace

TEST_F( Zombies, MarkingTurnsOffThenPassesOnSingleOnesFirstThenMarksItself ) {
   machine->kivDoZombieReactors( true );
   EXPECT_EQ( steps, ( Lines{ "machine off", "single off", "member 2 off", "member 1 off",
                              "single to be marked, owner unmarked",
                              "member 2 to be marked, owner unmarked",
                              "member 1 to be marked, owner unmarked" } ) );
   EXPECT_TRUE( machine->kivMarkedForDeletion() );
   EXPECT_TRUE( machine->single->kivMarkedForDeletion() );
   EXPECT_TRUE( machine->members.member( "member 1" )->kivMarkedForDeletion() );
   EXPECT_FALSE( machine->members.member( "member 1" )->hasNotificationActive() );
}

TEST_F( Zombies, FalseGoesBackTheSameWay ) {
   machine->kivDoZombieReactors( true );
   steps.clear();
   machine->kivDoZombieReactors( false );
   EXPECT_EQ( steps, ( Lines{ "machine on", "single on", "member 2 on", "member 1 on",
                              "single to be unmarked, owner marked",
                              "member 2 to be unmarked, owner marked",
                              "member 1 to be unmarked, owner marked" } ) );
   EXPECT_FALSE( machine->kivMarkedForDeletion() );
   event->timeoutIs( 1 );
   loop.deliver();
   EXPECT_EQ( calls.size(), 4U );
}

TEST_F( Zombies, AMarkThatIsAsAskedChangesNothing ) {
   machine->kivDoZombieReactors( false );
   EXPECT_EQ( steps, Lines{} );
   machine->kivDoZombieReactors( true );
   steps.clear();
   machine->kivDoZombieReactors( true );
   EXPECT_EQ( steps, Lines{} );
}

TEST_F( Zombies, AMachineThatIsNotAttachedLeavesItsOwnNotificationsAsTheyAre ) {
   machine->notifierIs( nullptr );
   machine->kivDoZombieReactors( true );
   EXPECT_TRUE( machine->hasNotificationActive() );
   EXPECT_TRUE( machine->kivMarkedForDeletion() );
   EXPECT_EQ( steps, ( Lines{ "single to be marked, owner unmarked", "single off",
                              "member 2 to be marked, owner unmarked", "member 2 off",
                              "member 1 to be marked, owner unmarked", "member 1 off" } ) );
}

TEST_F( Zombies, MarkingDropsWhatIsQueuedForAllOfThemAndTheWayBackBringsNoneOfIt ) {
   event->timeoutIs( 1 );
   event->dependencyIs( "Disk", true );
   machine->kivDoZombieReactors( true );
   event->criticalIs( true );
   loop.deliver();
   EXPECT_EQ( calls, Lines{} );
   machine->kivDoZombieReactors( false );
   loop.deliver();
   EXPECT_EQ( calls, Lines{} );
}

// ---- the aggregation

namespace {

// What stood in a ConfigSm when its own notifications were switched.
class Probe : public Stage::ConfigSm {
 public:
   using ConfigSm::ConfigSm;
   ~Probe() override {
      over_ = true;
      kivDoZombieReactors( true );
   }
   void hasNotificationActiveIs( bool active ) override {
      if( active != hasNotificationActive() && !over_ ) {
         auto const stage = stageStatus( "Net" );
         auto const agent = agentConfig( "dhcp" );
         states.push_back(
            std::string( active ? "on:" : "off:" ) +
            ( kivMarkedForDeletion() ? " marked" : " unmarked" ) +
            ( stage && stage->kivMarkedForDeletion() ? " stage marked" : " stage unmarked" ) +
            ( agent && agent->kivMarkedForDeletion() ? " agent marked" : " agent unmarked" ) +
            ( agent && agent->hasNotificationActive() ? " agent on" : " agent off" ) );
      }
      ConfigSm::hasNotificationActiveIs( active );
   }
   Lines states;

 private:
   bool over_ = false;
};

class ConfigZombies : public testing::Test {
 protected:
   ConfigZombies() {
      agent->eventIs( "Net", net );
      dir->entityPtrIs( agent );
      configSm = new Probe( config, status, dir );
   }
   // The stage's reactor on the agent's event: a reactor nested in a nested one.
   Kiv::Ptr< Stage::ConfigSm::KivStageStatus > stage() const {
      return configSm->stageStatus( "Net" );
   }

   testing_support::Loop loop;
   Kiv::Ptr< Stage::Config > const config = Stage::Config::ConfigIs( "config" );
   Kiv::Ptr< Stage::Status > const status = Stage::Status::StatusIs( "status" );
   Kiv::Ptr< Kiv::Dir > const dir = Kiv::Dir::DirIs( "agents" );
   Kiv::Ptr< Stage::AgentConfig > const agent = Stage::AgentConfig::AgentConfigIs( "dhcp" );
   Kiv::Ptr< Stage::EventConfig > const net = Stage::EventConfig::EventConfigIs( "Net", "dhcp" );
   Kiv::Ptr< Probe > configSm;
};

// The part of a trace line before its arguments, of those lines that name a handler.
Lines signatures( std::vector< std::string > const & lines ) {
   Lines found;
   for( auto const & line : lines )
      if( line.starts_with( "void Stage::" ) )
         found.push_back( line.substr( 0, line.find( ')' ) + 1 ) );
   return found;
}

} // namespace

TEST_F( ConfigZombies, ReactorsThatAreMadeTakeTheStateOfTheirOwner ) {
   ASSERT_TRUE( configSm->agentConfig( "dhcp" ) );
   ASSERT_TRUE( stage() );
   EXPECT_FALSE( configSm->hasNotificationActive() );
   EXPECT_FALSE( configSm->agentConfig( "dhcp" )->hasNotificationActive() );
   EXPECT_FALSE( stage()->hasNotificationActive() );
   configSm->hasNotificationActiveIs( true );
   EXPECT_TRUE( configSm->agentConfig( "dhcp" )->hasNotificationActive() );
   EXPECT_TRUE( stage()->hasNotificationActive() );
   auto const late = Stage::AgentConfig::AgentConfigIs( "late" );
   late->eventIs( "Gui", Stage::EventConfig::EventConfigIs( "Gui", "late" ) );
   dir->entityPtrIs( late );
   loop.deliver();
   ASSERT_TRUE( configSm->agentConfig( "late" ) );
   EXPECT_TRUE( configSm->agentConfig( "late" )->hasNotificationActive() );
   ASSERT_TRUE( configSm->stageStatus( "Gui" ) );
   EXPECT_TRUE( configSm->stageStatus( "Gui" )->hasNotificationActive() );
}

TEST_F( ConfigZombies, WhatWaitedForItsReactorsIsHeardInTheOrderInWhichItWasSaid ) {
   // Something for each reactor; for all of them as if none had ever been off.
   configSm->hasNotificationActiveIs( true );
   loop.deliver();
   configSm->hasNotificationActiveIs( false );
   net->timeoutIs( 5 );
   dir->entityPtrIs( Stage::AgentConfig::AgentConfigIs( "late" ) );
   agent->eventIs( "Gui", Stage::EventConfig::EventConfigIs( "Gui", "dhcp" ) );
   status->stageIs( "Outside" );
   loop.deliver();
   EXPECT_FALSE( configSm->agentConfig( "late" ) );
   EXPECT_EQ( status->stages(), 2U );

   configSm->hasNotificationActiveIs( true );
   testing_support::TraceRecorder recorder;
   for( std::string const handler :
        { "void Stage::ConfigSm::KivStageStatus::KivEventConfig::handleTimeout()",
          "void Stage::ConfigSm::handleAgent(Kiv::Name)",
          "void Stage::ConfigSm::KivAgentConfig::handleEvent(Kiv::Name)",
          "void Stage::ConfigSm::handleStage(Kiv::Name)" } ) {
      EXPECT_TRUE( Kiv::activityManager()->runOne() );
      auto const told = signatures( recorder.taken() );
      EXPECT_EQ( std::count( told.begin(), told.end(), handler ), 1 ) << handler;
   }
}

TEST_F( ConfigZombies, MarkingSwitchesItselfOffBeforeAnythingIsMarked ) {
   configSm->hasNotificationActiveIs( true );
   configSm->states.clear();
   configSm->kivDoZombieReactors( true );
   EXPECT_EQ( configSm->states, Lines{ "off: unmarked stage unmarked agent unmarked agent on" } );
   EXPECT_TRUE( configSm->kivMarkedForDeletion() );
   EXPECT_TRUE( configSm->agentConfig( "dhcp" )->kivMarkedForDeletion() );
   EXPECT_TRUE( stage()->kivMarkedForDeletion() );
   EXPECT_TRUE( stage()->eventConfig( "dhcp" )->kivMarkedForDeletion() );
   EXPECT_FALSE( stage()->eventConfig( "dhcp" )->hasNotificationActive() );
}

TEST_F( ConfigZombies, TakingTheMarkBackSwitchesOnBeforeAnythingIsUnmarked ) {
   configSm->hasNotificationActiveIs( true );
   configSm->kivDoZombieReactors( true );
   configSm->states.clear();
   configSm->kivDoZombieReactors( false );
   EXPECT_EQ( configSm->states, Lines{ "on: marked stage marked agent marked agent off" } );
   EXPECT_FALSE( configSm->kivMarkedForDeletion() );
   EXPECT_FALSE( configSm->agentConfig( "dhcp" )->kivMarkedForDeletion() );
   EXPECT_FALSE( stage()->eventConfig( "dhcp" )->kivMarkedForDeletion() );
   EXPECT_TRUE( stage()->eventConfig( "dhcp" )->hasNotificationActive() );
}

TEST_F( ConfigZombies, AMarkedAggregationIgnoresWhatComesUntilTheMarkIsTakenBack ) {
   configSm->hasNotificationActiveIs( true );
   loop.deliver();
   net->timeoutIs( 5 );
   configSm->kivDoZombieReactors( true );
   net->timeoutIs( 7 );
   dir->entityPtrIs( Stage::AgentConfig::AgentConfigIs( "late" ) );
   loop.deliver();
   auto const before = status->stage( "Net" )->timeout();
   EXPECT_FALSE( configSm->agentConfig( "late" ) );
   configSm->kivDoZombieReactors( false );
   loop.deliver();
   EXPECT_EQ( status->stage( "Net" )->timeout(), before );
   net->timeoutIs( 9 );
   loop.deliver();
   EXPECT_EQ( status->stage( "Net" )->timeout(), 9 );
}

TEST_F( ConfigZombies, ADestroyedAggregationIsMarkedBeforeItLetsGo ) {
   configSm->hasNotificationActiveIs( true );
   auto const kept = stage();
   net->timeoutIs( 5 );
   configSm = nullptr;
   EXPECT_TRUE( kept->kivMarkedForDeletion() );
   EXPECT_EQ( kept->pendingNotifications(), 0U );
   loop.deliver();
   EXPECT_FALSE( net->hasNotifiees() && status->hasNotifiees() && dir->hasNotifiees() );
}

// ---- every kind of reactor, attached and not

namespace {

// Marks the reactor and takes the mark back while it is attached and while it is not.
template< class Machine >
void switchesOnlyWhileAttached( char const * kind, Kiv::Ptr< Machine > const & machine ) {
   Kiv::Ptr< Kiv::PtrInterface const > const nothing;
   SCOPED_TRACE( kind );
   machine->hasNotificationActiveIs( true );
   ASSERT_TRUE( machine->notifierPtr() );
   machine->kivDoZombieReactors( true );
   EXPECT_TRUE( machine->kivMarkedForDeletion() );
   EXPECT_FALSE( machine->hasNotificationActive() ) << "marked while attached";
   machine->kivDoZombieReactors( false );
   EXPECT_FALSE( machine->kivMarkedForDeletion() );
   EXPECT_TRUE( machine->hasNotificationActive() ) << "unmarked while attached";

   machine->notifierIs( nothing );
   ASSERT_FALSE( machine->notifierPtr() );
   machine->kivDoZombieReactors( true );
   EXPECT_TRUE( machine->kivMarkedForDeletion() );
   EXPECT_TRUE( machine->hasNotificationActive() ) << "marked while not attached";
   machine->hasNotificationActiveIs( false );
   machine->kivDoZombieReactors( false );
   EXPECT_FALSE( machine->kivMarkedForDeletion() );
   EXPECT_FALSE( machine->hasNotificationActive() ) << "unmarked while not attached";
}

// What is no reactor is never attached.
template< class Machine >
void neverSwitches( char const * kind, Kiv::Ptr< Machine > const & machine ) {
   SCOPED_TRACE( kind );
   machine->hasNotificationActiveIs( true );
   machine->kivDoZombieReactors( true );
   EXPECT_TRUE( machine->kivMarkedForDeletion() );
   EXPECT_TRUE( machine->hasNotificationActive() );
   machine->hasNotificationActiveIs( false );
   machine->kivDoZombieReactors( false );
   EXPECT_FALSE( machine->kivMarkedForDeletion() );
   EXPECT_FALSE( machine->hasNotificationActive() );
}

} // namespace

TEST_F( ConfigZombies, EveryKindOfItsReactorsIsSwitchedOnlyWhileItIsAttached ) {
   configSm->hasNotificationActiveIs( true );
   loop.deliver();
   Kiv::Ptr< Stage::StageStatus > const other = status->stageIs( "Other" );
   switchesOnlyWhileAttached( "KivAgentDir", configSm->newAgentDir( dir ) );
   switchesOnlyWhileAttached( "KivStatus", configSm->newStatus( status ) );
   switchesOnlyWhileAttached( "KivEventConfig", stage()->newEventConfig( net ) );
   switchesOnlyWhileAttached( "KivStageStatus", configSm->newStageStatus( other ) );
   switchesOnlyWhileAttached( "KivAgentConfig", configSm->newAgentConfig( agent ) );
   switchesOnlyWhileAttached( "ConfigSm", configSm );
}

// ---- the progression

TEST( StatusZombies, EveryKindOfReactorIsSwitchedOnlyWhileItIsAttached ) {
   testing_support::Loop loop;
   auto const config = Stage::Config::ConfigIs( "config" );
   auto const status = Stage::Status::StatusIs( "status" );
   auto const net = Stage::EventConfig::EventConfigIs( "Net", "dhcp" );
   status->stageIs( "Net" )->eventIs( net );
   auto const clock = Kiv::activityManager()->clock();
   Kiv::Ptr< Stage::StatusSm > const statusSm =
      new Stage::StatusSm( "application", config, status, Stage::Progress::ProgressIs( "progress" ),
                           Stage::Log::LogIs( "log" ) );
   Kiv::Ptr< Stage::StageStatus const > const stage = status->stage( "Net" );
   Kiv::Ptr< Stage::StageSm > const stageSm = statusSm->newStageSm( stage, statusSm->logSm() );
   switchesOnlyWhileAttached( "StatusSm::KivConfig", statusSm->newConfig( config ) );
   switchesOnlyWhileAttached( "StatusSm::KivStatus", statusSm->newStatus( status ) );
   switchesOnlyWhileAttached( "StatusSm::KivRecalculateNextStage",
                              statusSm->newRecalculateNextStage( clock ) );
   switchesOnlyWhileAttached( "StageEnableSm", statusSm->newStageEnableSm( stage ) );
   switchesOnlyWhileAttached( "StageSm::KivEvent", stageSm->newEvent( "dhcp", net ) );
   switchesOnlyWhileAttached( "StageSm::KivStageUncompleted",
                              stageSm->newStageUncompleted( clock ) );
   switchesOnlyWhileAttached( "StageSm", stageSm );
   neverSwitches( "LogSm", statusSm->newLogSm( Stage::Log::LogIs( "log" ) ) );
   neverSwitches( "StatusSm", statusSm );
}
