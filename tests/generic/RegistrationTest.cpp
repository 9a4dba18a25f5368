// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// What is registered when the libraries are loaded.
#include "../support/Types.h"

#include <Ordovan/Ordovan.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

using testing_support::registeredTypes;
using Names = std::vector< std::string >;

TEST( Registration, HasTheEntitiesThenTheStateMachinesThenTheirReactors ) {
   Names const expected = { "Stage::Config",
                            "Stage::AgentConfig",
                            "Stage::EventConfig",
                            "Stage::Status",
                            "Stage::StageStatus",
                            "Stage::Progress",
                            "Stage::Log",
                            "Stage::LogSm",
                            "Stage::ConfigSm",
                            "Stage::StageEnableSm",
                            "Stage::StageSm",
                            "Stage::StatusSm",
                            "Stage::Ordovan",
                            "Stage::ConfigSm::KivAgentConfig",
                            "Stage::ConfigSm::KivStageStatus",
                            "Stage::ConfigSm::KivStageStatus::KivEventConfig",
                            "Stage::StageSm::KivEvent",
                            "Stage::StageSm::KivPendingEvent",
                            "Stage::StageSm::KivStageUncompleted",
                            "Stage::StatusSm::KivRecalculateNextStage" };
   Names const all = registeredTypes();
   auto const first = std::find( all.begin(), all.end(), expected.front() );
   EXPECT_EQ( Names( first, all.end() ), expected );
}

TEST( Registration, KeepsADescriptorOfEachAttributeOfTheStateMachines ) {
   for( char const * name : { "Stage::LogSm", "Stage::ConfigSm", "Stage::StageEnableSm",
                              "Stage::StageSm", "Stage::StatusSm", "Stage::Ordovan" } ) {
      Kiv::KivType const * const type = Kiv::typeNode( name );
      ASSERT_NE( type, nullptr ) << name;
      for( Kiv::Attribute const & row : type->attributes() ) {
         Kiv::Ptr< Kiv::KivAttr const > const attr = type->attr( row.name );
         EXPECT_EQ( attr->id(), row.id );
         EXPECT_EQ( attr->references(), 3U ) << "the library's, the registry's and ours: " << name;
      }
   }
   EXPECT_EQ( Stage::Config::_fwkType().attr( "enabled" )->references(), 2U )
      << "this one is made when it is asked for";
}
