// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Ordovan/detail/Types.h>

#include <Ordovan/Ordovan.h>

#include <Kiv/Introspection.h>

#include <vector>

namespace Stage::detail {

void registerTypes() {
   static auto & attributes = *new std::vector< Kiv::Ptr< Kiv::KivAttr const > >;
   if( !attributes.empty() )
      return;
   using KivStageStatus = ConfigSm::KivStageStatus;
   Kiv::KivType const * const machines[] = { &LogSm::_fwkType(),         &ConfigSm::_fwkType(),
                                             &StageEnableSm::_fwkType(), &StageSm::_fwkType(),
                                             &StatusSm::_fwkType(),      &Ordovan::_fwkType() };
   Kiv::KivType const * const reactors[] = {
      &ConfigSm::KivAgentConfig::_fwkType(),         &KivStageStatus::_fwkType(),
      &KivStageStatus::KivEventConfig::_fwkType(),   &StageSm::KivEvent::_fwkType(),
      &StageSm::KivPendingEvent::_fwkType(),         &StageSm::KivStageUncompleted::_fwkType(),
      &StatusSm::KivRecalculateNextStage::_fwkType() };
   for( Kiv::KivType const * type : machines )
      Kiv::typeNodeIs( *type );
   for( Kiv::KivType const * type : machines )
      for( Kiv::Attribute const & row : type->attributes() )
         attributes.push_back( type->attr( row.name ) );
   for( Kiv::KivType const * type : reactors )
      Kiv::typeNodeIs( *type );
}

} // namespace Stage::detail
