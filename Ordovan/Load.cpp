// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// What is built when the library is loaded, in this order: its types, then the messages that it
// declares, which find every type registered. Types are never destroyed.

#include <Ordovan/Ordovan.h>

#include <Kiv/Introspection.h>

#include <vector>

namespace Stage {

using namespace Kiv;

namespace {

// The state machines first, then a descriptor for each of their attributes, in the order of the
// tables, then the reactors. Used: leak checkers find through it what is kept.
[[gnu::used]] std::vector< Ptr< KivAttr const > > const * const attributesKept = [] {
   auto & attributes = *new std::vector< Ptr< KivAttr const > >;
   using KivStageStatus = ConfigSm::KivStageStatus;
   KivType const * const machines[] = { &LogSm::_fwkType(),         &ConfigSm::_fwkType(),
                                        &StageEnableSm::_fwkType(), &StageSm::_fwkType(),
                                        &StatusSm::_fwkType(),      &Ordovan::_fwkType() };
   KivType const * const reactors[] = {
      &ConfigSm::KivAgentConfig::_fwkType(),         &KivStageStatus::_fwkType(),
      &KivStageStatus::KivEventConfig::_fwkType(),   &StageSm::KivEvent::_fwkType(),
      &StageSm::KivPendingEvent::_fwkType(),         &StageSm::KivStageUncompleted::_fwkType(),
      &StatusSm::KivRecalculateNextStage::_fwkType() };
   for( KivType const * type : machines )
      typeNodeIs( *type );
   for( KivType const * type : machines )
      for( Attribute const & row : type->attributes() )
         attributes.push_back( type->attr( row.name ) );
   for( KivType const * type : reactors )
      typeNodeIs( *type );
   return &attributes;
}();

} // namespace

LogHandle ORDOVAN_STAGE_SLOW(
   "ORDOVAN_STAGE_SLOW", 4, "%s stage %s timed out",
   "A stage in progression is taking longer than expected. Stages that depend on this stage will "
   "begin after this stage is completed.",
   NoActionRequired, 0.0, 1.0, 0 );

// Two blanks after the first sentence of the explanation, on purpose: the text is known so.
LogHandle ORDOVAN_STAGE_COMPLETE_AFTER_TIMEOUT(
   "ORDOVAN_STAGE_COMPLETE_AFTER_TIMEOUT", 4, "%s resumed after stage %s completed after timeout.",
   "A stage that had been taking longer than expected to complete has now completed.  Stages that "
   "depend on this completion are able to proceed.",
   NoActionRequired, 0.0, 1.0, 0 );

} // namespace Stage
