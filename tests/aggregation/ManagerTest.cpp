// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The manager's side of aggregation: making, re-using, replacing and releasing a ConfigSm.

#include "Handles.h"

namespace aggregation {
namespace {

using Manager = Stage::Ordovan;

TEST( Manager, StartsWithoutAggregation ) {
   Ptr< Manager > const manager = Manager::OrdovanIs( "manager" );
   EXPECT_EQ( manager->name(), "manager" );
   EXPECT_FALSE( manager->configSm() );
   EXPECT_FALSE( manager->statusSm() );
   EXPECT_EQ( rangeText( [] { Manager::OrdovanIs( "" ); } ), "empty name" );
}

TEST( Manager, ANewConfigSmReactsAndIsNotStored ) {
   World w;
   Ptr< Manager > const manager = Manager::OrdovanIs( "manager" );
   Ptr< ConfigSm > const made = manager->newConfigSm( w.config, w.status, w.dir );
   EXPECT_FALSE( manager->configSm() );
   EXPECT_TRUE( made->hasNotificationActive() );
   EXPECT_EQ( made->config(), w.config );
   EXPECT_EQ( made->status(), w.status );
   EXPECT_EQ( made->agentDir(), w.dir );
   w.declare( "a", "S" );
   w.idle();
   EXPECT_TRUE( w.stage( "S" ) );
}

TEST( Manager, TheFactoryMakesOneWithoutManager ) {
   World w;
   Ptr< ConfigSm > const made = Stage::configSmFactory( w.config, w.status, w.dir );
   EXPECT_TRUE( made->hasNotificationActive() );
   EXPECT_TRUE( made->isRegisteredNotifiee() ) << "with the configuration";
   w.declare( "a", "S" );
   w.idle();
   EXPECT_TRUE( w.stage( "S" ) );
}

TEST( Manager, AskedAgainWithTheSameObjectsItGivesTheHeldOneAndRunsNothing ) {
   World w;
   w.declare( "a", "S" );
   Ptr< Manager > const manager = Manager::OrdovanIs( "manager" );
   Ptr< ConfigSm > const first = manager->configSmIs( w.config, w.status, w.dir );
   EXPECT_EQ( manager->configSm(), first );
   EXPECT_TRUE( first->hasNotificationActive() );
   w.idle();
   TraceRecorder traces;
   EXPECT_EQ( manager->configSmIs( w.config, w.status, w.dir ), first );
   w.idle();
   EXPECT_TRUE( traces.lines().empty() );
}

TEST( Manager, AnotherConfigurationIsAttachedToTheHeldOne ) {
   World w;
   Ptr< Manager > const manager = Manager::OrdovanIs( "manager" );
   Ptr< ConfigSm > const first = manager->configSmIs( w.config, w.status, w.dir );
   Ptr< Stage::Config > const other = Stage::Config::ConfigIs( "other" );
   EXPECT_EQ( manager->configSmIs( other, w.status, w.dir ), first );
   EXPECT_EQ( first->config(), other );
   EXPECT_TRUE( first->isRegisteredNotifiee() );
   w.declare( "a", "S" );
   w.idle();
   EXPECT_TRUE( w.stage( "S" ) );
}

TEST( Manager, AnotherDirectoryReplacesTheHeldOneWhichFallsSilent ) {
   World w;
   Ptr< Manager > const manager = Manager::OrdovanIs( "manager" );
   Ptr< ConfigSm > first = manager->configSmIs( w.config, w.status, w.dir );
   Kiv::PtrInterface const * const old = first.get();
   first = nullptr;
   Ptr< Kiv::Dir > const otherDir = Kiv::Dir::DirIs( "others" );
   Ptr< AgentConfig > const there = AgentConfig::AgentConfigIs( "b" );
   there->eventIs( "T", EventConfig::EventConfigIs( "T", "b" ) );
   otherDir->entityPtrIs( there );
   // Held while it is made, so that the new one cannot stand at the old one's address.
   Ptr< ConfigSm > const second = manager->configSmIs( w.config, w.status, otherDir );
   EXPECT_NE( static_cast< Kiv::PtrInterface const * >( second.get() ), old );
   EXPECT_EQ( manager->configSm(), second );
   EXPECT_EQ( second->agentDir(), otherDir );
   EXPECT_TRUE( second->hasNotificationActive() );
   EXPECT_EQ( agentsOf( w.stage( "T" ) ), ( Names{ "b" } ) );
   w.declare( "a", "S" );
   w.idle();
   EXPECT_FALSE( w.stage( "S" ) ) << "nobody watches the first directory";
}

TEST( Manager, AnotherStatusReplacesTheHeldOne ) {
   World w;
   w.declare( "a", "S" );
   Ptr< Manager > const manager = Manager::OrdovanIs( "manager" );
   Ptr< ConfigSm > const first = manager->configSmIs( w.config, w.status, w.dir );
   Ptr< Stage::Status > const other = Stage::Status::StatusIs( "other" );
   Ptr< ConfigSm > const second = manager->configSmIs( w.config, other, w.dir );
   EXPECT_NE( first, second );
   EXPECT_EQ( manager->configSm(), second );
   EXPECT_EQ( stagesOf( other ), ( Names{ "S" } ) );
}

TEST( Manager, WhatCannotBeMadeIsNotStored ) {
   World w;
   Ptr< Manager > const manager = Manager::OrdovanIs( "manager" );
   EXPECT_EQ( rangeText( [ & ] { manager->configSmIs( w.config, nullptr, w.dir ); } ),
              "null ValidPtr" );
   EXPECT_FALSE( manager->configSm() );
   EXPECT_EQ( rangeText( [ & ] { manager->configSmIs( w.config, w.status, nullptr ); } ),
              "null ValidPtr" );
   EXPECT_FALSE( manager->configSm() );
   EXPECT_EQ( rangeText( [ & ] { manager->newConfigSm( w.config, nullptr, w.dir ); } ),
              "null ValidPtr" );
   EXPECT_EQ( rangeText( [ & ] { manager->newConfigSm( w.config, w.status, nullptr ); } ),
              "null ValidPtr" );
   Ptr< ConfigSm > const held = manager->configSmIs( w.config, w.status, w.dir );
   EXPECT_EQ( rangeText( [ & ] { manager->configSmIs( w.config, w.status, nullptr ); } ),
              "null ValidPtr" );
   EXPECT_EQ( manager->configSm(), held ) << "what was held before is held still";
   w.declare( "a", "S" );
   w.idle();
   EXPECT_TRUE( w.stage( "S" ) );
}

TEST( Manager, ReleasedTheAggregationFallsSilentUnlessSomebodyElseHoldsIt ) {
   World w;
   Ptr< Manager > const manager = Manager::OrdovanIs( "manager" );
   manager->configSmIs( w.config, w.status, w.dir );
   manager->configSmDel();
   EXPECT_FALSE( manager->configSm() );
   w.declare( "a", "S" );
   w.idle();
   EXPECT_FALSE( w.stage( "S" ) );

   Ptr< ConfigSm > const held = manager->configSmIs( w.config, w.status, w.dir );
   manager->configSmDel();
   w.declare( "a", "T" );
   w.idle();
   EXPECT_TRUE( w.stage( "T" ) );
   manager->configSmDel();
   EXPECT_NE( manager->configSmIs( w.config, w.status, w.dir ), held );
}

// Tells when it goes; filed in what a state machine holds, it tells when that machine goes.
class Witness : public Kiv::Entity {
 public:
   Witness( Name const & name, Lines & gone ) : Entity( name ), gone_( gone ) {}
   ~Witness() override { gone_.push_back( name().str() ); }

 private:
   Lines & gone_;
};

TEST( Manager, ItsEndReleasesTheAggregationFirstAndTheProgressionSecond ) {
   World w;
   Lines gone;
   Ptr< Manager > manager = Manager::OrdovanIs( "manager" );
   {
      Ptr< Kiv::Dir > const watched = Kiv::Dir::DirIs( "watched" );
      watched->entityPtrIs( Ptr< Kiv::Entity >( new Witness( "configSm", gone ) ) );
      manager->configSmIs( w.config, w.status, watched );
      Ptr< Stage::Config > const config = Stage::Config::ConfigIs( "other" );
      Ptr< Kiv::Dir > const other = Kiv::Dir::DirIs( "other" );
      other->entityPtrIs( Ptr< Kiv::Entity >( new Witness( "statusSm", gone ) ) );
      config->agentDirIs( other );
      manager->statusSmIs( "app", config, w.status, w.progress, w.log );
   }
   w.idle();
   EXPECT_EQ( gone, ( Lines{} ) );
   manager = nullptr;
   EXPECT_EQ( gone, ( Lines{ "configSm", "statusSm" } ) );
}

} // namespace
} // namespace aggregation
