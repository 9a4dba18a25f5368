// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include "ProgressionTest.h"

#include <type_traits>

using namespace testing_support;
using Kiv::Ptr;

namespace {

class ManagerTest : public ProgressionTest {
 protected:
   Ptr< Stage::StatusSm > statusSmIs( char const * application = "App" ) {
      return manager->statusSmIs( application, config, status, progress, log );
   }
   Ptr< Stage::ConfigSm > configSmIs() { return manager->configSmIs( config, status, dir ); }

   Ptr< Stage::Ordovan > manager = Stage::Ordovan::OrdovanIs( "manager" );
};

} // namespace

// ---- the manager itself

TEST_F( ManagerTest, AManagerIsANamedEntityThatHoldsNothingAtFirst ) {
   EXPECT_EQ( manager->name(), "manager" );
   EXPECT_FALSE( manager->parent() );
   EXPECT_FALSE( manager->configSm() );
   EXPECT_FALSE( manager->statusSm() );
}

TEST_F( ManagerTest, AnEmptyNameIsRefused ) {
   EXPECT_EQ( thrownBy( [] { Stage::Ordovan::OrdovanIs( "" ); } ), "range: empty name" );
   EXPECT_EQ( thrownBy( [] { Stage::Ordovan::OrdovanIs( Kiv::Name() ); } ), "range: empty name" );
}

TEST_F( ManagerTest, TheNondestructingFlagGoesToTheBase ) {
   EXPECT_TRUE( manager->isNondestructing() );
   manager->isNondestructingIs( false );
   EXPECT_FALSE( manager->isNondestructing() );
}

TEST_F( ManagerTest, ItsAttributesHaveNames ) {
   Lines names;
   for( Kiv::AttributeId id = 8; id != 11; ++id )
      names.push_back( manager->attributeString( id ).str() );
   EXPECT_EQ( names, ( Lines{ "isNondestructing", "configSm", "statusSm" } ) );
   EXPECT_EQ( manager->attributeString( 99 ), "" );
}

// ---- configSm

TEST_F( ManagerTest, ANewConfigSmIsNotStoredAndHasItsNotificationsOn ) {
   auto const made = manager->newConfigSm( config, status, dir );
   ASSERT_TRUE( made );
   EXPECT_FALSE( manager->configSm() );
   EXPECT_TRUE( made->hasNotificationActive() );
   EXPECT_NE( manager->newConfigSm( config, status, dir ), made );
}

TEST_F( ManagerTest, TheFactoryMakesAConfigSmWithoutAManager ) {
   auto const made = Stage::configSmFactory( config, status, dir );
   ASSERT_TRUE( made );
   EXPECT_TRUE( made->hasNotificationActive() );
   EXPECT_EQ( made->config(), config );
   EXPECT_EQ( made->status(), status );
   EXPECT_EQ( made->agentDir(), dir );
   EXPECT_FALSE( manager->configSm() );
   declare( "a", "S" );
   idle();
   EXPECT_TRUE( status->stage( "S" ) );
}

TEST_F( ManagerTest, AConfigSmIsMadeOnceForTheSameArguments ) {
   auto const made = configSmIs();
   EXPECT_TRUE( made->hasNotificationActive() );
   EXPECT_EQ( manager->configSm(), made );
   TraceRecorder trace;
   EXPECT_EQ( configSmIs(), made );
   EXPECT_EQ( trace.countStarting( "void Stage::ConfigSm::handleAgent()" ), 0U )
      << "the held one starts anew";
}

TEST_F( ManagerTest, AnotherDirectoryReplacesTheConfigSm ) {
   auto const first = configSmIs().get();
   auto const other = Kiv::Dir::DirIs( "others" );
   auto const second = manager->configSmIs( config, status, other );
   EXPECT_NE( second.get(), first );
   EXPECT_EQ( manager->configSm(), second );
   EXPECT_EQ( second->agentDir(), other );
   EXPECT_FALSE( dir->hasNotifiees() ) << "the old one still watches its directory";
   declare( "a", "Old" );
   auto const agentOfOther = Stage::AgentConfig::AgentConfigIs( "b" );
   agentOfOther->eventIs( "New", Stage::EventConfig::EventConfigIs( "New", "b" ) );
   other->entityPtrIs( agentOfOther );
   idle();
   EXPECT_EQ( stagesOf( status ), ( std::set< std::string >{ "New" } ) );
}

TEST_F( ManagerTest, AnotherStatusReplacesTheConfigSmAndTheNewOneCatchesUp ) {
   declare( "a", "S" );
   Ptr< Stage::ConfigSm > const first = configSmIs();
   auto const other = Stage::Status::StatusIs( "other" );
   auto const second = manager->configSmIs( config, other, dir );
   EXPECT_NE( second, first );
   EXPECT_EQ( second->status(), other );
   EXPECT_TRUE( other->stage( "S" ) );
}

TEST_F( ManagerTest, AnotherConfigurationKeepsTheConfigSmAndIsWatchedByItFromNowOn ) {
   auto const made = configSmIs();
   EXPECT_TRUE( config->hasNotifiees() );
   auto const other = Stage::Config::ConfigIs( "other" );
   EXPECT_EQ( manager->configSmIs( other, status, dir ), made );
   EXPECT_EQ( made->config(), other );
   EXPECT_FALSE( config->hasNotifiees() );
   EXPECT_TRUE( other->hasNotifiees() );
   declare( "a", "S" );
   idle();
   EXPECT_TRUE( status->stage( "S" ) );
}

TEST_F( ManagerTest, TheHeldConfigSmIsReattachedBeforeItIsReplaced ) {
   Ptr< Stage::ConfigSm > const first = configSmIs();
   auto const otherConfig = Stage::Config::ConfigIs( "other" );
   auto const second = manager->configSmIs( otherConfig, status, Kiv::Dir::DirIs( "others" ) );
   EXPECT_NE( second, first );
   EXPECT_EQ( first->config(), otherConfig );
}

TEST_F( ManagerTest, AReleasedConfigSmIsGoneAndReactsNoMore ) {
   configSmIs();
   manager->configSmDel();
   EXPECT_FALSE( manager->configSm() );
   EXPECT_FALSE( config->hasNotifiees() );
   EXPECT_FALSE( dir->hasNotifiees() );
   declare( "a", "S" );
   idle();
   EXPECT_FALSE( status->stage( "S" ) );
   manager->configSmDel();
   EXPECT_TRUE( configSmIs() );
   EXPECT_TRUE( status->stage( "S" ) );
}

// ---- statusSm

TEST_F( ManagerTest, ANewStatusSmIsNotStoredAndHasItsNotificationsOn ) {
   auto const made = manager->newStatusSm( "App", config, status, progress, log );
   ASSERT_TRUE( made );
   EXPECT_FALSE( manager->statusSm() );
   EXPECT_TRUE( made->hasNotificationActive() );
   EXPECT_EQ( made->application(), "App" );
   EXPECT_EQ( made->config(), config );
   EXPECT_EQ( made->status(), status );
   EXPECT_EQ( made->progress(), progress );
   EXPECT_EQ( made->log(), log );
   EXPECT_NE( manager->newStatusSm( "App", config, status, progress, log ), made );
}

TEST_F( ManagerTest, AStatusSmIsMadeOnceForTheSameArgumentsAndItsInitialHandlersRunOnce ) {
   config->enabledIs( true );
   newStage( "S" );
   TraceRecorder trace;
   auto const made = statusSmIs();
   EXPECT_EQ( manager->statusSm(), made );
   EXPECT_TRUE( made->hasNotificationActive() );
   EXPECT_EQ( trace.count( "void Stage::StatusSm::handleInitialized()" ), 1U );
   EXPECT_EQ( statusSmIs( Kiv::String8( std::string( "App" ) ).charPtr() ), made );
   EXPECT_EQ( trace.count( "void Stage::StatusSm::handleInitialized()" ), 1U );
   EXPECT_EQ( trace.count( "void Stage::StatusSm::handleEnabled()" ), 1U );
   EXPECT_EQ( trace.count( "void Stage::StatusSm::handleActiveStage()" ), 1U );
   EXPECT_EQ( texts(), ( Lines{ "Stage progression started" } ) );
}

TEST_F( ManagerTest, AnotherApplicationNameWithTheSameEntitiesReplacesTheStatusSm ) {
   config->enabledIs( true );
   newStage( "S" );
   auto const first = statusSmIs( "App" );
   auto const second = statusSmIs( "Other" );
   EXPECT_NE( second, first );
   EXPECT_EQ( manager->statusSm(), second );
   EXPECT_EQ( second->application(), "Other" );
   EXPECT_EQ( texts(), ( Lines{ "Stage progression started", "Stage progression started" } ) );
}

TEST_F( ManagerTest, EachOtherEntityReplacesTheStatusSm ) {
   auto before = statusSmIs();
   auto const replaced = [ & ]( Ptr< Stage::Config > const & c, Ptr< Stage::Status > const & s,
                                Ptr< Stage::Progress > const & p, Ptr< Stage::Log > const & l ) {
      auto const now = manager->statusSmIs( "App", c, s, p, l );
      bool const other = now != before && manager->statusSm() == now;
      before = now;
      return other;
   };
   auto const otherConfig = Stage::Config::ConfigIs( "c" );
   auto const otherStatus = Stage::Status::StatusIs( "s" );
   auto const otherProgress = Stage::Progress::ProgressIs( "p" );
   auto const otherLog = Stage::Log::LogIs( "l" );
   EXPECT_TRUE( replaced( otherConfig, status, progress, log ) );
   EXPECT_TRUE( replaced( otherConfig, otherStatus, progress, log ) );
   EXPECT_TRUE( replaced( otherConfig, otherStatus, otherProgress, log ) );
   EXPECT_TRUE( replaced( otherConfig, otherStatus, otherProgress, otherLog ) );
   EXPECT_FALSE( replaced( otherConfig, otherStatus, otherProgress, otherLog ) );
}

TEST_F( ManagerTest, AReplacedStatusSmReactsNoMoreAndTheNewOneStartsFromWhatThereIs ) {
   newStage( "S" );
   statusSmIs( "App" );
   auto const other = Stage::Status::StatusIs( "other" );
   other->stageIs( "T" );
   manager->statusSmIs( "App", config, other, progress, log );
   EXPECT_FALSE( status->hasNotifiees() );
   config->enabledIs( true );
   idle();
   EXPECT_EQ( texts(), ( Lines{ "Stage progression started", "stage T started",
                                "stage T is complete", "Stage progression is complete" } ) );
   EXPECT_EQ( status->activeStages(), 0U );
   EXPECT_TRUE( other->complete() );
}

TEST_F( ManagerTest, AReleasedStatusSmIsGoneAndReactsNoMore ) {
   newStage( "S" );
   statusSmIs();
   manager->statusSmDel();
   EXPECT_FALSE( manager->statusSm() );
   EXPECT_FALSE( config->hasNotifiees() );
   EXPECT_FALSE( status->hasNotifiees() );
   config->enabledIs( true );
   idle();
   EXPECT_EQ( texts(), Lines() );
   manager->statusSmDel();
   EXPECT_TRUE( statusSmIs() );
}

// ---- the end of the manager

TEST_F( ManagerTest, TheEndOfTheManagerReleasesEveryStageStateMachine ) {
   config->enabledIs( true );
   auto const incomplete = newEvent( "Running", "a" );
   auto const waiting = newStage( "Waiting", { "Running" } );
   statusSmIs();
   idle();
   auto const running = status->stage( "Running" );
   ASSERT_TRUE( manager->statusSm()->stageSm( "Running" ) );
   ASSERT_TRUE( manager->statusSm()->stageEnableSm( "Waiting" ) );
   ASSERT_TRUE( running->hasNotifiees() );
   ASSERT_TRUE( waiting->hasNotifiees() );
   ASSERT_TRUE( incomplete->hasNotifiees() );
   manager = nullptr;
   EXPECT_FALSE( running->hasNotifiees() );
   EXPECT_FALSE( waiting->hasNotifiees() );
   EXPECT_FALSE( incomplete->hasNotifiees() );
   EXPECT_FALSE( config->hasNotifiees() );
   EXPECT_FALSE( status->hasNotifiees() );
   EXPECT_FALSE( clock->hasNotifiees() );
   incomplete->completeIs( true );
   texts();
   idle();
   EXPECT_EQ( texts(), Lines() );
}

namespace {

// Says when the last reference to it goes: here that is when the StatusSm's timer goes.
struct WatchedClock : Kiv::Clock {
   explicit WatchedClock( std::function< void() > atEnd ) : atEnd_( std::move( atEnd ) ) {}
   ~WatchedClock() override { atEnd_(); }
   double now() const override { return 1000; }
   std::function< void() > const atEnd_;
};

} // namespace

TEST_F( ManagerTest, TheEndOfTheManagerReleasesTheConfigSmFirstAndTheStatusSmSecond ) {
   bool ended = false;
   bool directoryWatched = true;
   Kiv::activityManager()->clockIs( new WatchedClock( [ & ] {
      ended = true;
      directoryWatched = dir->hasNotifiees();
   } ) );
   configSmIs();
   statusSmIs();
   Kiv::activityManager()->clockIs( clock );
   ASSERT_TRUE( dir->hasNotifiees() );
   ASSERT_FALSE( ended );
   manager = nullptr;
   EXPECT_TRUE( ended );
   EXPECT_FALSE( directoryWatched ) << "the StatusSm went first";
}

TEST_F( ManagerTest, AStateMachineThatSomebodyElseHoldsOutlivesTheManager ) {
   Ptr< Stage::StatusSm > const held = statusSmIs();
   manager = nullptr;
   newStage( "S" );
   config->enabledIs( true );
   idle();
   EXPECT_TRUE( status->complete() );
   EXPECT_TRUE( held->stageSm( "S" ) );
}

// ---- bad arguments

TEST_F( ManagerTest, NullArgumentsOfAConfigSmAreRefusedAndNothingIsStored ) {
   EXPECT_EQ( thrownBy( [ & ] { manager->configSmIs( config, nullptr, dir ); } ), nullValidPtr );
   EXPECT_FALSE( manager->configSm() );
   EXPECT_EQ( thrownBy( [ & ] { manager->configSmIs( config, status, nullptr ); } ), nullValidPtr );
   EXPECT_FALSE( manager->configSm() );
   EXPECT_EQ( thrownBy( [ & ] { manager->newConfigSm( config, nullptr, dir ); } ), nullValidPtr );
   EXPECT_EQ( thrownBy( [ & ] { manager->newConfigSm( config, status, nullptr ); } ),
              nullValidPtr );
   EXPECT_EQ( thrownBy( [ & ] { Stage::configSmFactory( config, nullptr, dir ); } ), nullValidPtr );
   EXPECT_EQ( thrownBy( [ & ] { Stage::configSmFactory( config, status, nullptr ); } ),
              nullValidPtr );
   EXPECT_FALSE( config->hasNotifiees() );
   EXPECT_FALSE( status->hasNotifiees() );
   EXPECT_FALSE( dir->hasNotifiees() );
   declare( "a", "S" );
   configSmIs();
   idle();
   EXPECT_TRUE( status->stage( "S" ) ) << "the loop does not work any more";
}

TEST_F( ManagerTest, AggregationNeedsNoConfigurationForItReadsNothingOfIt ) {
   auto const made = manager->configSmIs( nullptr, status, dir );
   ASSERT_TRUE( made );
   declare( "a", "S" );
   idle();
   EXPECT_TRUE( status->stage( "S" ) );
   EXPECT_EQ( configSmIs(), made );
   EXPECT_EQ( made->config(), config );
   EXPECT_EQ( manager->configSmIs( nullptr, status, dir ), made );
   EXPECT_FALSE( made->config() );
   EXPECT_FALSE( config->hasNotifiees() );
   declare( "a", "T" );
   idle();
   EXPECT_TRUE( status->stage( "T" ) );
}

TEST_F( ManagerTest, ANullStatusOrDirectoryLeavesTheHeldConfigSm ) {
   auto const held = configSmIs();
   EXPECT_EQ( thrownBy( [ & ] { manager->configSmIs( config, nullptr, dir ); } ), nullValidPtr );
   EXPECT_EQ( thrownBy( [ & ] { manager->configSmIs( config, status, nullptr ); } ), nullValidPtr );
   EXPECT_EQ( manager->configSm(), held );
   declare( "a", "S" );
   idle();
   EXPECT_TRUE( status->stage( "S" ) );
}

TEST_F( ManagerTest, AStatusSmWithoutAConfigurationIsRefusedAndNothingIsStored ) {
   EXPECT_EQ( thrownBy( [ & ] { manager->statusSmIs( "App", nullptr, status, progress, log ); } ),
              nullValidPtr );
   EXPECT_EQ( thrownBy( [ & ] { manager->newStatusSm( "App", nullptr, status, progress, log ); } ),
              nullValidPtr );
   EXPECT_FALSE( manager->statusSm() );
   EXPECT_FALSE( status->hasNotifiees() );
   config->enabledIs( true );
   statusSmIs();
   idle();
   EXPECT_TRUE( status->complete() ) << "the loop does not work any more";
}

TEST_F( ManagerTest, AnEnabledStatusSmWithoutAStatusIsRefusedAndTheHeldOneStays ) {
   config->enabledIs( true );
   auto const held = statusSmIs();
   EXPECT_EQ( thrownBy( [ & ] { manager->statusSmIs( "App", config, nullptr, progress, log ); } ),
              nullValidPtr );
   EXPECT_EQ( manager->statusSm(), held );
   idle();
   EXPECT_TRUE( status->complete() ) << "the held one does not work any more";
}

TEST_F( ManagerTest, AnEnabledStatusSmWithoutALogIsRefusedAndNothingIsStored ) {
   config->enabledIs( true );
   newEvent( "S", "a" );
   auto const withoutLog = [ & ] {
      manager->statusSmIs( "App", config, status, progress, nullptr );
   };
   EXPECT_EQ( thrownBy( withoutLog ), nullValidPtr );
   EXPECT_FALSE( manager->statusSm() );
   EXPECT_FALSE( config->hasNotifiees() );
   EXPECT_FALSE( status->hasNotifiees() );
   EXPECT_FALSE( status->stage( "S" )->hasNotifiees() );
   statusSmIs();
   idle();
   EXPECT_EQ( texts(),
              ( Lines{ "Stage progression started", "stage S started", "  event S:a started" } ) );
}
