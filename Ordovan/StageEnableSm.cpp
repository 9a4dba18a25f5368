// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Ordovan/StageEnableSm.h>

#include <Ordovan/StatusSm.h>

#include <Kiv/Access.h>
#include <Kiv/Exception.h>

namespace Stage {

using namespace Kiv;

namespace {

// What the handlers need: an object that somebody kept can have lost both.
constexpr auto works = &hasEach< StageEnableSm, &StageEnableSm::mainSm, &StageEnableSm::stage >;

constexpr auto rows = machineTable< StageEnableSm >(
   {
      fixed< &StageEnableSm::stage >( "stage", "Kiv::Ptr<Stage::StageStatus const>" ),
      readOnly< &StageEnableSm::name >( "name", "Kiv::Name" ),
      handler< &StageEnableSm::handleDependencyDel >( "handleDependencyDel", "key" ),
      handler< &StageEnableSm::handleCritical >( "handleCritical" ),
      fixed< &StageEnableSm::mainSm >( "mainSm", "Stage::StatusSm*" ),
      ownKey< &StageEnableSm::fwkKey >(),
      activity< &StageEnableSm::kivFwkActivityIs >(),
   },
   works );

} // namespace

StageEnableSm::StageEnableSm( Ptr< StageStatus const > const & stage, StatusSm * mainSm )
   : OwnedReactor( stage, mainSm, valid( stage )->name() ) {}

void StageEnableSm::notifierIs( Ptr< PtrInterface const > const & stage ) {
   if( notifierPtr() == stage )
      return;
   OwnedReactor::notifierIs( stage );
   if( stage && !kivMarkedForDeletion() )
      handleCritical();
   isRegisteredNotifieeIs( true );
}

void StageEnableSm::onDependency( String8 key ) {
   react( [ & ]( StatusSm & ) { handleDependencyDel( key ); } );
}
void StageEnableSm::onCritical() {
   react( [ this ]( StatusSm & ) { handleCritical(); } );
}

KivType const & StageEnableSm::_fwkType() { return typeOf< rows >( "Stage::StageEnableSm" ); }

} // namespace Stage
