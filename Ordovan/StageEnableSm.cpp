// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Ordovan/StageEnableSm.h>

#include <Ordovan/StatusSm.h>

#include <Kiv/Access.h>
#include <Kiv/Exception.h>

namespace Stage {

using Kiv::Attribute;
using Kiv::Ptr;
using Kiv::Role;
using Kiv::String8;

namespace {

// Whether the handlers have what they need: an object that somebody kept can have lost both.
bool works( Kiv::PtrInterface const & object ) {
   auto const & sm = static_cast< StageEnableSm const & >( object );
   return sm.mainSm() && sm.stage();
}

constexpr auto rows = Kiv::numbered( {
   Attribute( "stage", "Kiv::Ptr<Stage::StageStatus const>", "", Role::constructorArgument,
              Kiv::reads< &StageEnableSm::stage >() ),
   Attribute( "name", "Kiv::Name", "", Role::value, Kiv::reads< &StageEnableSm::name >() ),
   Attribute( "handleDependencyDel", "", "Kiv::String8", Role::handler,
              Kiv::calls< &StageEnableSm::handleDependencyDel >( "key" ).whenever( &works ) ),
   Attribute( "handleCritical", "", "", Role::handler,
              Kiv::calls< &StageEnableSm::handleCritical >().whenever( &works ) ),
   Attribute( "mainSm", "Stage::StatusSm*", "", Role::constructorArgument,
              Kiv::reads< &StageEnableSm::mainSm >() ),
   Attribute( "fwkKey", "Kiv::Name", "", Role::framework, Kiv::reads< &StageEnableSm::fwkKey >() ),
   Attribute( "kivFwkActivity", "Kiv::Ptr<Kiv::ActivityConfig>", "", Role::framework,
              Kiv::activity().writes< &StageEnableSm::kivFwkActivityIs >() ),
   Kiv::notificationSwitch(),
   Kiv::zombieSwitch< StageEnableSm >(),
} );

} // namespace

StageEnableSm::StageEnableSm( Ptr< StageStatus const > const & stage, StatusSm * mainSm )
   : mainSm_( mainSm ), key_( Kiv::valid( stage )->name() ) {
   Kiv::KeepDuringConstruction const keep( *this );
   StageStatus::NotifieeConst::notifierIs( stage );
   deliveredUntilDoneIs( true );
   isRegisteredNotifieeIs( true );
}
StageEnableSm::~StageEnableSm() { kivDoZombieReactors( true ); }

void StageEnableSm::notifierIs( Ptr< Kiv::PtrInterface const > const & stage ) {
   if( notifierPtr() == stage )
      return;
   StageStatus::NotifieeConst::notifierIs( stage );
   if( stage && !kivMarkedForDeletion() )
      handleCritical();
   isRegisteredNotifieeIs( true );
}

Ptr< Kiv::ActivityConfig > StageEnableSm::kivFwkActivity() { return activity_; }
Ptr< Kiv::ActivityConfig const > StageEnableSm::kivFwkActivity() const { return activity_; }

void StageEnableSm::onDependency( String8 key ) {
   Kiv::detail::toOwner( *this, mainSm_, [ & ]( StatusSm & ) { handleDependencyDel( key ); } );
}
void StageEnableSm::onDependencykivImmediate() {}
void StageEnableSm::onCritical() {
   Kiv::detail::toOwner( *this, mainSm_, [ & ]( StatusSm & ) { handleCritical(); } );
}

void StageEnableSm::kivDoZombieReactors( bool zombie ) {
   Kiv::detail::doZombieReactors( *this, zombie, []( bool ) {} );
}

Kiv::KivType const & StageEnableSm::fwkType() const { return _fwkType(); }
Kiv::KivType const & StageEnableSm::_fwkType() {
   static Kiv::KivType const type( "Stage::StageEnableSm", &PtrInterface::_fwkType(), rows );
   return type;
}

} // namespace Stage
