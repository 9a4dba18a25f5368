// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The attribute tables of the entity types, and that the suite leaves none of their rows out.
#include "Lines.h"

#include "../support/Types.h"

#include <gtest/gtest.h>

#include <set>

using Kiv::Attribute;
using Kiv::KivType;
using Kiv::Role;

namespace {

// "name : type [key] role+role", in the order of the table.
using Rows = std::vector< std::string >;

Rows rows( KivType const & type ) {
   Rows all;
   for( Attribute const & row : type.attributes() )
      all.push_back(
         std::string( row.name ) + " : " + row.type +
         ( *row.key ? std::string( " [" ) + row.key + "]" : "" ) +
         ( row.role == Role::value ? "" : " " + testing_support::rolesOf( row.role ) ) );
   return all;
}

std::vector< KivType const * > const & types() {
   static std::vector< KivType const * > const all = {
      &Stage::Config::_fwkType(),      &Stage::AgentConfig::_fwkType(),
      &Stage::EventConfig::_fwkType(), &Stage::Status::_fwkType(),
      &Stage::StageStatus::_fwkType(), &Stage::Progress::_fwkType(),
      &Stage::Log::_fwkType(),         &Kiv::Dir::_fwkType() };
   return all;
}

std::string rowName( KivType const & type, std::string const & attribute ) {
   return std::string( type.name() ) + " " + attribute;
}

// The rows that a line of the suite is about.
std::multiset< std::string > rowsWithLines() {
   std::multiset< std::string > names;
   for( auto const & line : conformance::scalarLines() )
      names.insert( rowName( line->type, line->attribute ) );
   for( auto const & line : conformance::keyedLines() )
      names.insert( rowName( line->type, line->attribute ) );
   for( auto const & line : conformance::fixedLines() )
      names.insert( rowName( line.type, line.attribute ) );
   return names;
}

} // namespace

TEST( AttributeTable, OfConfig ) {
   EXPECT_STREQ( Stage::Config::_fwkType().name(), "Stage::Config" );
   EXPECT_EQ( rows( Stage::Config::_fwkType() ),
              ( Rows{ "isNondestructing : bool notifying",
                      "agentDir : Kiv::Ptr<Kiv::Dir> notifying", "enabled : bool notifying" } ) );
}

TEST( AttributeTable, OfAgentConfig ) {
   EXPECT_STREQ( Stage::AgentConfig::_fwkType().name(), "Stage::AgentConfig" );
   EXPECT_EQ( rows( Stage::AgentConfig::_fwkType() ),
              ( Rows{ "isNondestructing : bool notifying",
                      "event : Kiv::Ptr<Stage::EventConfig const> [Kiv::Name] "
                      "collection+notifying" } ) );
}

TEST( AttributeTable, OfEventConfig ) {
   EXPECT_STREQ( Stage::EventConfig::_fwkType().name(), "Stage::EventConfig" );
   EXPECT_EQ(
      rows( Stage::EventConfig::_fwkType() ),
      ( Rows{ "isNondestructing : bool notifying", "uid : Kiv::String8 fixed",
              "agent : Kiv::String8 fixed", "dependency : bool [Kiv::String8] collection+notifying",
              "timeout : double notifying", "critical : bool notifying",
              "complete : bool notifying" } ) );
}

TEST( AttributeTable, OfStatus ) {
   EXPECT_STREQ( Stage::Status::_fwkType().name(), "Stage::Status" );
   EXPECT_EQ( rows( Stage::Status::_fwkType() ),
              ( Rows{ "isNondestructing : bool notifying",
                      "stage : Kiv::Ptr<Stage::StageStatus> [Kiv::Name] collection+notifying",
                      "activeStage : Kiv::Ptr<Stage::StageStatus> [Kiv::Name] "
                      "collection+notifying",
                      "complete : bool notifying", "progress : Kiv::Ptr<Stage::Progress> notifying",
                      "sorted : bool notifying" } ) );
}

TEST( AttributeTable, OfStageStatus ) {
   EXPECT_STREQ( Stage::StageStatus::_fwkType().name(), "Stage::StageStatus" );
   EXPECT_EQ( rows( Stage::StageStatus::_fwkType() ),
              ( Rows{ "isNondestructing : bool notifying", "name : Kiv::Name fixed",
                      "event : Kiv::Ptr<Stage::EventConfig const> [Kiv::String8] "
                      "collection+notifying",
                      "dependency : bool [Kiv::String8] collection+notifying",
                      "timeout : double notifying", "critical : bool notifying" } ) );
}

TEST( AttributeTable, OfProgressAndLogTellOfTheirEndOnly ) {
   EXPECT_STREQ( Stage::Progress::_fwkType().name(), "Stage::Progress" );
   EXPECT_EQ(
      rows( Stage::Progress::_fwkType() ),
      ( Rows{ "isNondestructing : bool notifying", "stage : bool [Kiv::String8] collection" } ) );
   EXPECT_STREQ( Stage::Log::_fwkType().name(), "Stage::Log" );
   EXPECT_EQ( rows( Stage::Log::_fwkType() ),
              ( Rows{ "isNondestructing : bool notifying", "log : Stage::LogEntry queue" } ) );
}

TEST( AttributeTable, OfTheFrameworksOwnEntities ) {
   EXPECT_EQ(
      rows( Kiv::Entity::_fwkType() ),
      ( Rows{ "parent : Kiv::Ptr<Kiv::Entity const> notifying", "version :  notifying" } ) );
   EXPECT_EQ( rows( Kiv::Dir::_fwkType() ),
              ( Rows{ "entityPtr : Kiv::Ptr<Kiv::Entity> [Kiv::Name] collection+notifying" } ) );
}

TEST( AttributeTable, NumbersItsRowsInOrderAndFindsThem ) {
   for( KivType const * type : types() ) {
      unsigned expected = Kiv::firstOwnAttribute;
      EXPECT_EQ( type->base(), &Kiv::Entity::_fwkType() ) << type->name();
      for( Attribute const & row : type->attributes() ) {
         EXPECT_EQ( row.id, expected++ ) << type->name() << " " << row.name;
         EXPECT_EQ( type->attribute( row.id ), &row ) << type->name() << " " << row.name;
         EXPECT_EQ( type->attribute( row.name ), &row ) << type->name() << " " << row.name;
      }
   }
   EXPECT_EQ( Kiv::Entity::_fwkType().attribute( "parent" )->id, 1U );
   EXPECT_EQ( Kiv::Entity::_fwkType().attribute( "version" )->id, 2U );
}

TEST( AttributeTable, SaysOfEveryRowHowItsChangesAreDelivered ) {
   for( KivType const * type : types() )
      for( Attribute const & row : type->attributes() ) {
         bool const tells = has( row.role, Role::notifying );
         bool const keyed = has( row.role, Role::collection );
         EXPECT_EQ( row.delivery.whole != nullptr, tells ) << type->name() << " " << row.name;
         EXPECT_EQ( row.delivery.member != nullptr, tells && keyed )
            << type->name() << " " << row.name;
         EXPECT_EQ( row.delivery.deferred != nullptr, tells && keyed )
            << type->name() << " " << row.name;
         EXPECT_EQ( *row.key != '\0', keyed ) << type->name() << " " << row.name;
      }
}

TEST( AttributeTable, HasNoNotifyingRowWithoutALineInTheSuite ) {
   std::multiset< std::string > const lines = rowsWithLines();
   for( KivType const * type : types() ) {
      EXPECT_EQ( lines.count( rowName( *type, "parent" ) ), 1U ) << type->name();
      for( Attribute const & row : type->attributes() ) {
         if( has( row.role, Role::queue ) )
            continue; // the log's tests
         EXPECT_EQ( lines.count( rowName( *type, row.name ) ), 1U )
            << type->name() << " " << row.name;
      }
   }
}

TEST( AttributeTable, HasARowForEveryLineOfTheSuite ) {
   for( auto const & line : conformance::scalarLines() ) {
      ASSERT_NE( line->type.attribute( line->attribute ), nullptr ) << line->name();
      EXPECT_FALSE( has( line->row().role, Role::collection ) ) << line->name();
   }
   for( auto const & line : conformance::keyedLines() ) {
      ASSERT_NE( line->type.attribute( line->attribute ), nullptr ) << line->name();
      EXPECT_TRUE( has( line->row().role, Role::collection ) ) << line->name();
   }
}

TEST( AttributeTable, FixedRowsAreSetByTheirMakerAndTellNobody ) {
   for( auto const & line : conformance::fixedLines() ) {
      Attribute const * const row = line.type.attribute( line.attribute );
      ASSERT_NE( row, nullptr ) << line.attribute;
      EXPECT_EQ( row->role, Role::constructorArgument ) << line.attribute;
      EXPECT_TRUE( line.holds() ) << line.attribute;
   }
}

TEST( AttributeTable, OfAnEntityIsThatOfItsType ) {
   for( auto const & line : conformance::scalarLines() ) {
      auto const entity = line->make();
      EXPECT_EQ( &entity->fwkType(), &line->type ) << line->name();
      EXPECT_EQ( entity->attributeString( line->row().id ), Kiv::String8( line->attribute ) );
   }
}
