// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The tables of the state machines, written out: every row's name, type, key, role, its place,
// and what can be done to it by name.
#include "StartUp.h"

#include "../support/Types.h"

#include <set>

using Kiv::Attribute;
using Kiv::KivType;
using namespace testing_support;

namespace {

// "name : type [key] role+role; what can be done", where
//   r, w, d      read, write, delete the attribute itself
//   c( argument) call, with that argument; "?" after it: or without
//   k...         members by key: read, and w, d as above (d with all of them at once)
std::string lineOf( Attribute const & row ) {
   std::string line = std::string( row.name ) + " : " + row.type;
   if( *row.key )
      line += std::string( " [" ) + row.key + "]";
   std::string const roles = testing_support::rolesOf( row.role );
   line += ( roles.empty() ? "" : " " ) + roles + "; ";
   Kiv::Access const & a = row.access;
   line += std::string( a.read ? "r" : "" ) + ( a.write ? "w" : "" ) + ( a.del ? "d" : "" );
   if( a.call )
      line += "c(" + std::string( a.argument ? a.argument : "" ) +
              ( a.argumentMayMiss ? "?" : "" ) + ")";
   if( a.member )
      line += std::string( "kr" ) + ( a.memberIs ? "w" : "" ) + ( a.memberDel ? "d" : "" );
   EXPECT_EQ( a.memberDel != nullptr, a.memberDelAll != nullptr ) << row.name;
   EXPECT_EQ( a.member != nullptr, a.walk && a.count ) << row.name;
   return line;
}

Lines linesOf( KivType const & type ) {
   Lines all;
   for( Attribute const & row : type.attributes() )
      all.push_back( lineOf( row ) );
   return all;
}

Lines const framework = { "kivFwkActivity : Kiv::Ptr<Kiv::ActivityConfig> framework; r",
                          "hasNotificationActiveIs : bool framework; rw",
                          "kivDoZombieReactors : bool framework; rw" };

Lines with( Lines rows, Lines const & more ) {
   rows.insert( rows.end(), more.begin(), more.end() );
   return rows;
}

} // namespace

TEST( StateMachineTable, OfLogSm ) {
   EXPECT_STREQ( Stage::LogSm::_fwkType().name(), "Stage::LogSm" );
   EXPECT_EQ( linesOf( Stage::LogSm::_fwkType() ),
              with( { "stageLog : Kiv::Ptr<Stage::Log> fixed; r",
                      "logIs :  [Kiv::String8] operation; c(msg)" },
                    framework ) );
}

TEST( StateMachineTable, OfConfigSm ) {
   EXPECT_STREQ( Stage::ConfigSm::_fwkType().name(), "Stage::ConfigSm" );
   EXPECT_EQ( linesOf( Stage::ConfigSm::_fwkType() ),
              with( { "config : Kiv::Ptr<Stage::Config const> fixed; r",
                      "status : Kiv::Ptr<Stage::Status> fixed; r",
                      "agentDir : Kiv::Ptr<Kiv::Dir const> fixed+reactor; r",
                      "handleAgent :  [Kiv::Name] handler; c(name?)",
                      "agentConfig : Stage::AgentConfig [Kiv::Name] collection+reactor; krwd",
                      "stageStatus : Stage::StageStatus [Kiv::Name] collection+reactor; krwd",
                      "handleStage :  [Kiv::Name] handler; c(name)" },
                    framework ) );
}

TEST( StateMachineTable, OfStageEnableSm ) {
   EXPECT_STREQ( Stage::StageEnableSm::_fwkType().name(), "Stage::StageEnableSm" );
   EXPECT_EQ( linesOf( Stage::StageEnableSm::_fwkType() ),
              ( Lines{ "stage : Kiv::Ptr<Stage::StageStatus const> fixed; r", "name : Kiv::Name; r",
                       "handleDependencyDel :  [Kiv::String8] handler; c(key)",
                       "handleCritical :  handler; c()", "mainSm : Stage::StatusSm* fixed; r",
                       "fwkKey : Kiv::Name framework; r",
                       "kivFwkActivity : Kiv::Ptr<Kiv::ActivityConfig> framework; rw",
                       framework[ 1 ], framework[ 2 ] } ) );
}

TEST( StateMachineTable, OfStageSm ) {
   EXPECT_STREQ( Stage::StageSm::_fwkType().name(), "Stage::StageSm" );
   EXPECT_EQ(
      linesOf( Stage::StageSm::_fwkType() ),
      with( { "stage : Kiv::Ptr<Stage::StageStatus const> fixed; r",
              "logSm : Kiv::Ptr<Stage::LogSm> fixed; r", "name : Kiv::Name; r",
              "complete : bool notifying; rw", "timedOut : bool notifying; rw",
              "completionTime : double notifying; rw",
              "pendingEvent : Stage::EventConfig [Kiv::String8] collection+notifying+reactor; krwd",
              "handlePendingEvent :  [Kiv::String8] handler; c(uid?)",
              "handleEventDel :  [Kiv::String8] handler; c(agentName)",
              "event : Stage::EventConfig [Kiv::String8] collection+notifying+reactor; krwd",
              "stageUncompleted : Kiv::Clock notifying+reactor; r",
              "handleStageUncompleted :  handler; c()", "initialized : bool notifying; rw",
              "handleInitialized :  handler; c()", "mainSm : Stage::StatusSm* fixed; r",
              "fwkKey : Kiv::Name framework; r" },
            framework ) );
}

TEST( StateMachineTable, OfStatusSm ) {
   EXPECT_STREQ( Stage::StatusSm::_fwkType().name(), "Stage::StatusSm" );
   EXPECT_EQ(
      linesOf( Stage::StatusSm::_fwkType() ),
      with( { "application : Kiv::String8 fixed; r",
              "config : Kiv::Ptr<Stage::Config const> fixed+reactor; r",
              "status : Kiv::Ptr<Stage::Status> fixed+reactor; r",
              "progress : Kiv::Ptr<Stage::Progress> fixed; r",
              "log : Kiv::Ptr<Stage::Log> fixed; r", "logSm : Kiv::Ptr<Stage::LogSm>; r",
              "stageEnableSm : Stage::StageEnableSm [Kiv::Name] collection; krwd",
              "stageSm : Stage::StageSm [Kiv::Name] collection; krd",
              "handleActiveStage :  [Kiv::String8] handler; c(name?)",
              "needRecalculateNextStage : bool; rw", "handleNextStage :  handler; c()",
              "doNextStage :  operation; c()", "recalculateNextStage : Kiv::Clock reactor; r",
              "handleEnabled :  handler; c()", "initialized : bool; rw",
              "handleInitialized :  handler; c()" },
            framework ) );
}

TEST( StateMachineTable, OfTheManager ) {
   EXPECT_STREQ( Stage::Ordovan::_fwkType().name(), "Stage::Ordovan" );
   EXPECT_EQ( linesOf( Stage::Ordovan::_fwkType() ),
              ( Lines{ "isNondestructing : bool; rw", "configSm : Kiv::Ptr<Stage::ConfigSm>; rwd",
                       "statusSm : Kiv::Ptr<Stage::StatusSm>; rwd" } ) );
}

TEST( StateMachineTable, OfTheReactorsThatCanBeReachedByName ) {
   using ConfigSm = Stage::ConfigSm;
   using StageSm = Stage::StageSm;
   Lines const last = { framework[ 1 ], framework[ 2 ] };
   EXPECT_EQ( linesOf( ConfigSm::KivAgentConfig::_fwkType() ),
              with( { "agentConfig : Kiv::Ptr<Stage::AgentConfig const> fixed; r",
                      "handleEvent :  [Kiv::Name] handler; c(stageName?)",
                      "fwkKey : Kiv::Name framework; r" },
                    last ) );
   EXPECT_EQ( linesOf( ConfigSm::KivStageStatus::_fwkType() ),
              with( { "stageStatus : Kiv::Ptr<Stage::StageStatus> fixed; r",
                      "eventConfig : Stage::EventConfig [Kiv::String8] collection+reactor; krwd",
                      "criticalAncestor : bool [Kiv::String8] collection; krwd",
                      "handleDependency :  [Kiv::String8] handler; c(name)",
                      "handleDependencyDel :  [Kiv::String8] handler; c(name)",
                      "handleEventDel :  [Kiv::String8] handler; c(agentName)",
                      "handleStage :  [Kiv::String8] handler; c(name)",
                      "handleCritical :  [Kiv::String8] handler; c(name?)",
                      "handleTimeout :  handler; c()", "fwkKey : Kiv::Name framework; r" },
                    last ) );
   EXPECT_EQ( linesOf( ConfigSm::KivStageStatus::KivEventConfig::_fwkType() ),
              with( { "eventConfig : Kiv::Ptr<Stage::EventConfig const> fixed; r",
                      "handleDependency :  [Kiv::String8] handler; c(name?)",
                      "handleTimeout :  handler; c()", "handleCritical :  handler; c()",
                      "fwkKey : Kiv::String8 framework; r" },
                    last ) );
   EXPECT_EQ( linesOf( StageSm::KivEvent::_fwkType() ),
              with( { "event : Kiv::Ptr<Stage::EventConfig const> fixed; r",
                      "handleComplete :  handler; c()", "fwkKey : Kiv::String8 framework; r" },
                    last ) );
   EXPECT_EQ( linesOf( StageSm::KivPendingEvent::_fwkType() ),
              ( Lines{ "pendingEvent : Kiv::Ptr<Stage::EventConfig const> fixed; r" } ) );
   Lines const timer =
      with( { "clock : Kiv::Ptr<Kiv::Clock const> fixed; r", "timeMin : double; rw" }, last );
   EXPECT_EQ( linesOf( StageSm::KivStageUncompleted::_fwkType() ), timer );
   EXPECT_EQ( linesOf( Stage::StatusSm::KivRecalculateNextStage::_fwkType() ), timer );
}

TEST( StateMachineTable, NumbersItsRowsInOrderAndFindsThem ) {
   for( std::size_t n = 0; n != Kiv::typeNodes(); ++n ) {
      KivType const & type = Kiv::typeNode( n );
      std::set< std::string > names;
      for( Attribute const & row : type.attributes() ) {
         EXPECT_EQ( type.attribute( row.id ), &row ) << type.name() << " " << row.name;
         EXPECT_EQ( type.attribute( row.name ), &row ) << type.name() << " " << row.name;
         EXPECT_TRUE( names.insert( row.name ).second ) << type.name() << " " << row.name;
      }
   }
}

TEST( StateMachineTable, EveryRowOfEveryRegisteredTypeCanBeReachedByName ) {
   for( std::size_t n = 0; n != Kiv::typeNodes(); ++n )
      for( Attribute const & row : Kiv::typeNode( n ).attributes() ) {
         bool const reached = row.access.read || row.access.member || row.access.call;
         EXPECT_EQ( reached, row.id != Kiv::versionAttribute )
            << Kiv::typeNode( n ).name() << " " << row.name;
      }
}

TEST( StateMachineTable, TheManagerNamesItsAttributes ) {
   auto const manager = Stage::Ordovan::OrdovanIs( "ordovan" );
   EXPECT_EQ( manager->attributeString( 8 ), Kiv::String8( "isNondestructing" ) );
   EXPECT_EQ( manager->attributeString( 9 ), Kiv::String8( "configSm" ) );
   EXPECT_EQ( manager->attributeString( 10 ), Kiv::String8( "statusSm" ) );
   EXPECT_EQ( manager->attributeString( Kiv::parentAttribute ), Kiv::String8( "parent" ) );
   EXPECT_EQ( manager->attributeString( 11 ), Kiv::String8() );
   EXPECT_EQ( manager->attributeString( Kiv::noAttribute ), Kiv::String8() );
}

TEST( StateMachineTable, OfAnObjectIsThatOfItsClass ) {
   StartUp const world;
   EXPECT_EQ( &world.manager->fwkType(), &Stage::Ordovan::_fwkType() );
   EXPECT_EQ( &world.configSmHeld()->fwkType(), &Stage::ConfigSm::_fwkType() );
   EXPECT_EQ( &world.statusSm()->fwkType(), &Stage::StatusSm::_fwkType() );
   EXPECT_EQ( &world.logSm()->fwkType(), &Stage::LogSm::_fwkType() );
   EXPECT_EQ( &world.stageSm()->fwkType(), &Stage::StageSm::_fwkType() );
   EXPECT_EQ( &world.stageEnableSm()->fwkType(), &Stage::StageEnableSm::_fwkType() );
   EXPECT_EQ( &world.stageSm()->stageUncompleted()->fwkType(),
              &Stage::StageSm::KivStageUncompleted::_fwkType() );
}
