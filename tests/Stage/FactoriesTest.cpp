// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// What the outside gets from the factories, and what they refuse.
#include <Kiv/Kiv.h>
#include <Stage/Stage.h>

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <optional>
#include <string>
#include <vector>

using Kiv::Name;
using Kiv::Ptr;
using Kiv::String8;

namespace {

struct Factory {
   char const * name;
   std::function< Ptr< Kiv::Entity >( Name const & ) > make;
};

std::vector< Factory > const & factories() {
   static std::vector< Factory > const all = {
      { "Config", []( Name const & n ) { return Stage::Config::ConfigIs( n ); } },
      { "AgentConfig", []( Name const & n ) { return Stage::AgentConfig::AgentConfigIs( n ); } },
      { "Status", []( Name const & n ) { return Stage::Status::StatusIs( n ); } },
      { "StageStatus",
        []( Name const & n ) { return Stage::Status::StatusIs( "status" )->stageIs( n ); } },
      { "Progress", []( Name const & n ) { return Stage::Progress::ProgressIs( n ); } },
      { "Log", []( Name const & n ) { return Stage::Log::LogIs( n ); } },
      { "Dir", []( Name const & n ) { return Kiv::Dir::DirIs( n ); } },
   };
   return all;
}

template< class Call >
std::optional< std::string > rangeError( Call call ) {
   try {
      call();
   } catch( Kiv::RangeException const & e ) {
      return e.what();
   }
   return std::nullopt;
}

} // namespace

TEST( Factories, MakeAnEntityOfTheNameThatTheCallerHoldsAlone ) {
   for( Factory const & factory : factories() ) {
      Ptr< Kiv::Entity > const entity = factory.make( "some name" );
      ASSERT_TRUE( entity ) << factory.name;
      EXPECT_EQ( entity->name(), Name( "some name" ) ) << factory.name;
      EXPECT_EQ( entity->references(), 1U ) << factory.name;
      EXPECT_EQ( entity->parent(), nullptr ) << factory.name;
      EXPECT_NE( factory.make( "some name" ), entity ) << factory.name << ": a new one each time";
   }
}

TEST( Factories, RefuseAnEmptyName ) {
   for( Factory const & factory : factories() )
      EXPECT_EQ( rangeError( [ & ] { factory.make( Name() ); } ), "empty name" ) << factory.name;
}

TEST( Factories, RefuseAnEventWithoutStageOrAgent ) {
   using Stage::EventConfig;
   EXPECT_EQ( rangeError( [] { EventConfig::EventConfigIs( "", "agent" ); } ), "empty name" );
   EXPECT_EQ( rangeError( [] { EventConfig::EventConfigIs( "stage", "" ); } ), "empty name" );
   EXPECT_EQ( rangeError( [] { EventConfig::EventConfigIs( "", "" ); } ), "empty name" );
   EXPECT_TRUE( EventConfig::EventConfigIs( "stage", "agent" ) ) << "and work afterwards";
}

TEST( Config, StartsWithoutADirectoryAndDisabled ) {
   Ptr< Stage::Config > const config = Stage::Config::ConfigIs( "config" );
   EXPECT_EQ( config->agentDir(), nullptr );
   EXPECT_FALSE( config->enabled() );
}

TEST( AgentConfig, StartsWithoutEvents ) {
   Ptr< Stage::AgentConfig > const agent = Stage::AgentConfig::AgentConfigIs( "agent" );
   EXPECT_EQ( agent->events(), 0U );
   EXPECT_EQ( agent->event( "stage" ), nullptr );
}

TEST( EventConfig, FormsItsUidFromStageColonAndAgentAndIsNamedByIt ) {
   auto const event = Stage::EventConfig::EventConfigIs( "Net", "dhcp" );
   EXPECT_EQ( event->uid(), String8( "Net:dhcp" ) );
   EXPECT_EQ( event->name(), Name( "Net:dhcp" ) );
   EXPECT_EQ( event->agent(), String8( "dhcp" ) );
   EXPECT_EQ( static_cast< void const * >( event->name().charPtr() ), event->uid().charPtr() )
      << "the same text, held once";
   EXPECT_EQ( Stage::EventConfig::EventConfigIs( "a:b", "c" )->uid(), String8( "a:b:c" ) );
}

TEST( EventConfig, StartsIncompleteUncriticalIndependentAndWithoutALimitOfTime ) {
   auto const event = Stage::EventConfig::EventConfigIs( "Net", "dhcp" );
   EXPECT_FALSE( event->complete() );
   EXPECT_FALSE( event->critical() );
   EXPECT_EQ( event->dependencys(), 0U );
   EXPECT_FALSE( event->hasDependency( "Boot" ) );
   EXPECT_EQ( event->timeout(), Kiv::infinity );
}

TEST( EventConfig, TellsADependencyThatDoesNotCountFromNone ) {
   auto const event = Stage::EventConfig::EventConfigIs( "Net", "dhcp" );
   event->dependencyIs( "Boot", false );
   EXPECT_TRUE( event->hasDependency( "Boot" ) );
   EXPECT_FALSE( event->dependency( "Boot" ) );
   EXPECT_FALSE( event->hasDependency( "Disk" ) );
   EXPECT_FALSE( event->dependency( "Disk" ) );
}

TEST( EventConfig, RefusesADependencyOnAStageWithoutAName ) {
   auto const event = Stage::EventConfig::EventConfigIs( "Net", "dhcp" );
   EXPECT_EQ( rangeError( [ & ] { event->dependencyIs( "", true ); } ), "empty name" );
   EXPECT_EQ( event->dependencys(), 0U );
   event->dependencyDel( "" );
   event->dependencyIs( "Boot", true );
   EXPECT_TRUE( event->dependency( "Boot" ) );
}

TEST( EventConfig, KeepsATimeoutInFullPrecision ) {
   auto const event = Stage::EventConfig::EventConfigIs( "Net", "dhcp" );
   event->timeoutIs( 0.1 );
   EXPECT_EQ( event->timeout(), 0.1 );
   event->timeoutIs( std::nan( "" ) );
   EXPECT_TRUE( std::isnan( event->timeout() ) );
}

TEST( Progress, StartsEmptyAndTellsAStageRecordedFalseFromNone ) {
   auto const progress = Stage::Progress::ProgressIs( "app" );
   EXPECT_EQ( progress->stages(), 0U );
   EXPECT_FALSE( progress->stage( "Net" ) );
   EXPECT_FALSE( progress->hasStage( "Net" ) );
   progress->stageIs( "Net", false );
   EXPECT_FALSE( progress->stage( "Net" ) );
   EXPECT_TRUE( progress->hasStage( "Net" ) );
   progress->stageIs( "Net", true );
   EXPECT_TRUE( progress->stage( "Net" ) );
   EXPECT_EQ( progress->stages(), 1U );
   std::vector< std::string > names;
   for( auto i = progress->stageIteratorConst(); i; ++i )
      names.push_back( i.key().str() + ( i.value() ? " true" : " false" ) );
   EXPECT_EQ( names, std::vector< std::string >{ "Net true" } );
}
