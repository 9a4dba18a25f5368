// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Ordovan/StageEnableSm.h>

#include <Ordovan/StatusSm.h>

#include <Kiv/Access.h>
#include <Kiv/Exception.h>

namespace Stage {

using Kiv::Ptr;
using Kiv::String8;

namespace {

// Whether the handlers have what they need: an object that somebody kept can have lost both.
bool works( Kiv::PtrInterface const & object ) {
   auto const & sm = static_cast< StageEnableSm const & >( object );
   return sm.mainSm() && sm.stage();
}

constexpr auto rows = Kiv::machineTable< StageEnableSm >(
   {
      Kiv::fixed< &StageEnableSm::stage >( "stage", "Kiv::Ptr<Stage::StageStatus const>" ),
      Kiv::readOnly< &StageEnableSm::name >( "name", "Kiv::Name" ),
      Kiv::handler< &StageEnableSm::handleDependencyDel >( "handleDependencyDel", "key" ),
      Kiv::handler< &StageEnableSm::handleCritical >( "handleCritical" ),
      Kiv::fixed< &StageEnableSm::mainSm >( "mainSm", "Stage::StatusSm*" ),
      Kiv::ownKey< &StageEnableSm::fwkKey >(),
      Kiv::activity< &StageEnableSm::kivFwkActivityIs >(),
   },
   &works );

} // namespace

StageEnableSm::StageEnableSm( Ptr< StageStatus const > const & stage, StatusSm * mainSm )
   : OwnedReactor( stage, mainSm, Kiv::valid( stage )->name() ) {}

void StageEnableSm::notifierIs( Ptr< Kiv::PtrInterface const > const & stage ) {
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

Kiv::KivType const & StageEnableSm::_fwkType() {
   return Kiv::typeOf< rows >( "Stage::StageEnableSm" );
}

} // namespace Stage
