// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// StatusSm's plumbing; its handlers are in Ordovan.cpp.

#include <Ordovan/StatusSm.h>

#include <Kiv/Access.h>
#include <Kiv/Exception.h>

namespace Stage {

using Kiv::Attribute;
using Kiv::keyed;
using Kiv::Name;
using Kiv::Ptr;
using Kiv::reads;
using Kiv::Role;
using Kiv::String8;
using Kiv::value;

namespace {

// Whether the handlers have what they need.
bool works( Kiv::PtrInterface const & object ) {
   auto const & sm = static_cast< StatusSm const & >( object );
   return sm.config() && sm.status() && sm.recalculateNextStage();
}

constexpr auto rows = Kiv::numbered( {
   Attribute( "application", "Kiv::String8", "", Role::constructorArgument,
              reads< &StatusSm::application >() ),
   Attribute( "config", "Kiv::Ptr<Stage::Config const>", "",
              Role::constructorArgument | Role::reactor, {}, reads< &StatusSm::config >() ),
   Attribute( "status", "Kiv::Ptr<Stage::Status>", "", Role::constructorArgument | Role::reactor,
              reads< &StatusSm::status >() ),
   Attribute( "progress", "Kiv::Ptr<Stage::Progress>", "", Role::constructorArgument,
              reads< &StatusSm::progress >() ),
   Attribute( "log", "Kiv::Ptr<Stage::Log>", "", Role::constructorArgument,
              reads< &StatusSm::log >() ),
   Attribute( "logSm", "Kiv::Ptr<Stage::LogSm>", "", Role::value, reads< &StatusSm::logSm >() ),
   Attribute( "stageEnableSm", "Stage::StageEnableSm", "Kiv::Name", Role::collection,
              keyed< &StatusSm::stageEnableSm, &StatusSm::stageEnableSms,
                     &StatusSm::stageEnableSmIteratorConst >()
                 .memberWritesUnder< &StatusSm::stageEnableSmIs, &StageStatus::name >()
                 .memberDeletes< &StatusSm::stageEnableSmDel, &StatusSm::stageEnableSmDelAll >() ),
   Attribute( "stageSm", "Stage::StageSm", "Kiv::Name", Role::collection,
              keyed< &StatusSm::stageSm, &StatusSm::stageSms, &StatusSm::stageSmIteratorConst >()
                 .memberDeletes< &StatusSm::stageSmDel, &StatusSm::stageSmDelAll >() ),
   Attribute( "handleActiveStage", "", "Kiv::String8", Role::handler,
              Kiv::callsEither< Kiv::overload< void( String8 ) >( &StatusSm::handleActiveStage ),
                                Kiv::overload< void() >( &StatusSm::handleActiveStage ) >( "name" )
                 .whenever( &works ) ),
   Attribute(
      "needRecalculateNextStage", "bool", "", Role::value,
      value< &StatusSm::needRecalculateNextStage, &StatusSm::needRecalculateNextStageIs >() ),
   Attribute( "handleNextStage", "", "", Role::handler,
              Kiv::calls< &StatusSm::handleNextStage >().whenever( &works ) ),
   Attribute( "doNextStage", "", "", Role::operation,
              Kiv::calls< &StatusSm::doNextStage >().whenever( &works ) ),
   Attribute( "recalculateNextStage", "Kiv::Clock", "", Role::reactor,
              reads< &StatusSm::recalculateNextStage >() ),
   Attribute( "handleEnabled", "", "", Role::handler,
              Kiv::calls< &StatusSm::handleEnabled >().whenever( &works ) ),
   Attribute( "initialized", "bool", "", Role::value,
              value< &StatusSm::initialized, &StatusSm::initializedIs >() ),
   Attribute( "handleInitialized", "", "", Role::handler,
              Kiv::calls< &StatusSm::handleInitialized >().whenever( &works ) ),
   Attribute( "kivFwkActivity", "Kiv::Ptr<Kiv::ActivityConfig>", "", Role::framework,
              Kiv::activity() ),
   Kiv::notificationSwitch(),
   Kiv::zombieSwitch< StatusSm >(),
} );

namespace timerRows {

using Reactor = StatusSm::KivRecalculateNextStage;
constexpr auto rows = Kiv::numbered( {
   Attribute( "clock", "Kiv::Ptr<Kiv::Clock const>", "", Role::constructorArgument,
              reads< &Reactor::notifier >() ),
   Attribute( "timeMin", "double", "", Role::value,
              value< &Reactor::timeMin, &Reactor::timeMinIs >() ),
   Kiv::notificationSwitch(),
   Kiv::zombieSwitch< Reactor >(),
} );

} // namespace timerRows

} // namespace

// -------------------------------------------------------------------------------- reactors

StatusSm::KivConfig::KivConfig( Ptr< Config const > const & config, StatusSm * statusSm )
   : statusSm_( statusSm ) {
   notifierIs( config );
   deliveredUntilDoneIs( true );
   isRegisteredNotifieeIs( true );
}
StatusSm::KivConfig::~KivConfig() { kivDoZombieReactors( true ); }
void StatusSm::KivConfig::onEnabled() {
   Kiv::detail::toOwner( *this, statusSm_, []( StatusSm & sm ) { sm.handleEnabled(); } );
}
void StatusSm::KivConfig::kivDoZombieReactors( bool zombie ) {
   Kiv::detail::doZombieReactors( *this, zombie, []( bool ) {} );
}

StatusSm::KivStatus::KivStatus( Ptr< Status > const & status, StatusSm * statusSm )
   : statusSm_( statusSm ) {
   notifierIs( status );
   deliveredUntilDoneIs( true );
   isRegisteredNotifieeIs( true );
}
StatusSm::KivStatus::~KivStatus() { kivDoZombieReactors( true ); }
void StatusSm::KivStatus::onActiveStage( Name name ) {
   Kiv::detail::toOwner( *this, statusSm_,
                         [ & ]( StatusSm & sm ) { sm.handleActiveStage( String8( name ) ); } );
}
void StatusSm::KivStatus::onActiveStagekivImmediate() {}
void StatusSm::KivStatus::onActiveStage() {
   Kiv::detail::toOwner( *this, statusSm_, []( StatusSm & sm ) { sm.handleActiveStage(); } );
}
void StatusSm::KivStatus::kivDoZombieReactors( bool zombie ) {
   Kiv::detail::doZombieReactors( *this, zombie, []( bool ) {} );
}

StatusSm::KivRecalculateNextStage::KivRecalculateNextStage( Ptr< Kiv::Clock const > const & clock,
                                                            StatusSm * statusSm )
   : statusSm_( statusSm ) {
   notifierIs( clock );
   deliveredUntilDoneIs( true );
   isRegisteredNotifieeIs( true );
}
StatusSm::KivRecalculateNextStage::~KivRecalculateNextStage() { kivDoZombieReactors( true ); }
void StatusSm::KivRecalculateNextStage::onTime() {
   Kiv::detail::toOwner( *this, statusSm_, []( StatusSm & sm ) { sm.handleNextStage(); } );
}
void StatusSm::KivRecalculateNextStage::kivDoZombieReactors( bool zombie ) {
   Kiv::detail::doZombieReactors( *this, zombie, []( bool ) {} );
}

Kiv::KivType const & StatusSm::KivRecalculateNextStage::fwkType() const { return _fwkType(); }
Kiv::KivType const & StatusSm::KivRecalculateNextStage::_fwkType() {
   static Kiv::KivType const type( "Stage::StatusSm::KivRecalculateNextStage",
                                   &Kiv::PtrInterface::_fwkType(), timerRows::rows );
   return type;
}

// ----------------------------------------------------------------------------- life of it all

StatusSm::StatusSm( String8 const & application, Ptr< Config const > const & config,
                    Ptr< Status > const & status, Ptr< Progress > const & progress,
                    Ptr< Log > const & log )
   : application_( application ) {
   Kiv::KeepDuringConstruction const keep( *this );
   if( config )
      config_ = newConfig( config );
   if( status )
      status_ = newStatus( status );
   progress_ = progress;
   log_ = log;
   handleActiveStage();
   handleInitialized();
}

StatusSm::~StatusSm() {
   kivDoZombieReactors( true );
   if( config_ )
      config_->statusSm_ = nullptr;
   if( status_ )
      status_->statusSm_ = nullptr;
   if( recalculateNextStage_ )
      recalculateNextStage_->statusSm_ = nullptr;
   logSmDel();
   stageEnableSmDelAll();
   stageSmDelAll();
}

void StatusSm::hasNotificationActiveIs( bool active ) {
   if( active == hasNotificationActive() )
      return;
   Kiv::detail::InOrder const inOrder;
   PtrInterface::hasNotificationActiveIs( active );
   Kiv::detail::passNotificationActive( active, [ this ]( auto f ) { ownReactors( f ); } );
}

void StatusSm::kivDoZombieReactors( bool zombie ) {
   if( zombie == kivMarkedForDeletion() )
      return;
   ownReactors( [ zombie ]( auto & r ) { r.kivDoZombieReactors( zombie ); } );
   kivMarkedForDeletionIs( zombie );
}

Kiv::KivType const & StatusSm::fwkType() const { return _fwkType(); }
Kiv::KivType const & StatusSm::_fwkType() {
   static Kiv::KivType const type( "Stage::StatusSm", &PtrInterface::_fwkType(), rows );
   return type;
}

// ------------------------------------------------------------------------- single attributes

Ptr< Config const > StatusSm::config() const {
   return config_ ? config_->notifier() : Ptr< Config const >();
}
void StatusSm::configIs( Ptr< Config const > const & config ) {
   if( !config_ ) {
      config_ = newConfig( config );
      return;
   }
   config_->notifierIs( config );
   config_->isRegisteredNotifieeIs( true );
}
void StatusSm::configDel() {
   if( !config_ )
      return;
   config_->kivDoZombieReactors( true );
   config_->statusSm_ = nullptr;
   config_ = nullptr;
}
Ptr< StatusSm::KivConfig > StatusSm::newConfig( Ptr< Config const > const & config ) {
   Ptr< KivConfig > const made = new KivConfig( config, this );
   made->hasNotificationActiveIs( hasNotificationActive() );
   return Kiv::valid( made );
}

Ptr< Status > StatusSm::status() const { return status_ ? status_->notifier() : Ptr< Status >(); }
void StatusSm::statusIs( Ptr< Status > const & status ) {
   if( !status_ ) {
      status_ = newStatus( status );
      return;
   }
   status_->notifierIs( status );
   status_->isRegisteredNotifieeIs( true );
}
void StatusSm::statusDel() {
   if( !status_ )
      return;
   status_->kivDoZombieReactors( true );
   status_->statusSm_ = nullptr;
   status_ = nullptr;
}
Ptr< StatusSm::KivStatus > StatusSm::newStatus( Ptr< Status > const & status ) {
   Ptr< KivStatus > const made = new KivStatus( status, this );
   made->hasNotificationActiveIs( hasNotificationActive() );
   return Kiv::valid( made );
}

void StatusSm::logSmIs( Ptr< Log > const & log ) {
   if( logSm_ && logSm_->stageLog() == log )
      return;
   logSm_ = newLogSm( log );
}
void StatusSm::logSmDel() { logSm_ = nullptr; }
Ptr< LogSm > StatusSm::newLogSm( Ptr< Log > const & log ) {
   Ptr< LogSm > const made = new LogSm( log );
   made->hasNotificationActiveIs( true );
   return Kiv::valid( made );
}

void StatusSm::recalculateNextStageIs( Ptr< Kiv::Clock const > const & clock ) {
   Kiv::valid( clock ); // a timer without one would never decide
   if( !recalculateNextStage_ ) {
      recalculateNextStage_ = newRecalculateNextStage( clock );
      return;
   }
   recalculateNextStage_->notifierIs( clock );
   recalculateNextStage_->isRegisteredNotifieeIs( true );
}
void StatusSm::recalculateNextStageDel() {
   if( !recalculateNextStage_ )
      return;
   recalculateNextStage_->kivDoZombieReactors( true );
   recalculateNextStage_->statusSm_ = nullptr;
   recalculateNextStage_ = nullptr;
}
Ptr< StatusSm::KivRecalculateNextStage >
StatusSm::newRecalculateNextStage( Ptr< Kiv::Clock const > const & clock ) {
   Ptr< KivRecalculateNextStage > const made =
      new KivRecalculateNextStage( Kiv::valid( clock ), this );
   made->hasNotificationActiveIs( hasNotificationActive() );
   return Kiv::valid( made );
}

// ----------------------------------------------------------------------------- stages waiting

Ptr< StageEnableSm > StatusSm::newStageEnableSm( Ptr< StageStatus const > const & stageStatus ) {
   return Kiv::valid(
      Ptr< StageEnableSm >( new StageEnableSm( Kiv::valid( stageStatus ), this ) ) );
}

Ptr< StageEnableSm > StatusSm::stageEnableSmIs( Ptr< StageStatus const > const & stageStatus ) {
   Name const name = Kiv::valid( stageStatus )->name();
   if( Ptr< StageEnableSm > const held = stageEnableSm_.member( name ) ) {
      held->notifierIs( stageStatus );
      return held;
   }
   Ptr< StageEnableSm > const made = newStageEnableSm( stageStatus );
   stageEnableSm_.memberIs( name, made );
   made->hasNotificationActiveIs( true );
   return made;
}

void StatusSm::stageEnableSmDel( Name const & name ) {
   Ptr< StageEnableSm > const gone = stageEnableSm_.member( name );
   if( !gone )
      return;
   gone->kivDoZombieReactors( true );
   stageEnableSm_.memberDel( gone->fwkKey() );
   gone->mainSmIs( nullptr ); // somebody may keep it longer than we live
}

void StatusSm::stageEnableSmDelAll() {
   for( auto i = stageEnableSm_.iterator(); i; ++i )
      stageEnableSmDel( i.key() );
}

// ------------------------------------------------------------------------------ active stages

Ptr< StageSm > StatusSm::newStageSm( Ptr< StageStatus const > const & stageStatus,
                                     Ptr< LogSm > const & logSm ) {
   return Kiv::valid( Ptr< StageSm >( new StageSm( Kiv::valid( stageStatus ), logSm, this ) ) );
}

Ptr< StageSm > StatusSm::stageSmIs( Ptr< StageStatus const > const & stageStatus,
                                    Ptr< LogSm > const & logSm ) {
   Name const name = Kiv::valid( stageStatus )->name();
   if( Ptr< StageSm > const held = stageSm_.member( name ) ) {
      held->notifierIs( stageStatus );
      if( held->logSm() != logSm )
         Kiv::throwNameInUseException(
            String8( "Reinstantiating the pointer interface where constructor parameter attribute "
                     "_logSm has a different value of " ) +
            Kiv::valueToString( logSm ) + " than the current value of " +
            Kiv::valueToString( held->logSm() ) + " not allowed" );
      return held;
   }
   Ptr< StageSm > const made = newStageSm( stageStatus, logSm );
   stageSm_.memberIs( name, made );
   made->hasNotificationActiveIs( true );
   return made;
}

void StatusSm::stageSmDel( Name const & name ) {
   Ptr< StageSm > const gone = stageSm_.member( name );
   if( !gone )
      return;
   gone->kivDoZombieReactors( true );
   stageSm_.memberDel( gone->fwkKey() );
   gone->mainSm_ = nullptr; // somebody may keep it longer than we live
}

void StatusSm::stageSmDelAll() {
   for( auto i = stageSm_.iterator(); i; ++i )
      stageSmDel( i.key() );
}

} // namespace Stage
