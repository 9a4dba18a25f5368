// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// ConfigSm's plumbing: construction, collections of reactors, and callbacks that forward to the
// handlers in Ordovan.cpp.

#include <Ordovan/ConfigSm.h>

#include <Kiv/Exception.h>

namespace Stage {

using Kiv::Name;
using Kiv::Ptr;
using Kiv::PtrInterface;
using Kiv::Role;
using Kiv::String8;

using KivStageStatus = ConfigSm::KivStageStatus;
using KivEventConfig = ConfigSm::KivStageStatus::KivEventConfig;

namespace {

constexpr Kiv::Attribute rows[] = {
   { 8, "config", "Kiv::Ptr<Stage::Config const>", "", Role::constructorArgument, {} },
   { 9, "status", "Kiv::Ptr<Stage::Status>", "", Role::constructorArgument, {} },
   { 10, "agentDir", "Kiv::Ptr<Kiv::Dir const>", "", Role::constructorArgument, {} },
   { 11, "handleAgent", "", "Kiv::Name", Role::handler, {} },
   { 12, "agentConfig", "Stage::AgentConfig", "Kiv::Name", Role::collection | Role::reactor, {} },
   { 13, "stageStatus", "Stage::StageStatus", "Kiv::Name", Role::collection | Role::reactor, {} },
   { 14, "handleStage", "", "Kiv::Name", Role::handler, {} },
   { 15, "kivFwkActivity", "Kiv::Ptr<Kiv::ActivityConfig>", "", Role::framework, {} },
   { 16, "hasNotificationActiveIs", "bool", "", Role::framework, {} },
   { 17, "kivDoZombieReactors", "bool", "", Role::framework, {} },
};
static_assert( Kiv::numbered( rows ) );

template< class T >
Ptr< T > const & notNull( Ptr< T > const & entity, char const * text ) {
   if( !entity )
      Kiv::throwRangeException( text );
   return entity;
}

} // namespace

// ------------------------------------------------------------------------------ KivAgentDir

ConfigSm::KivAgentDir::KivAgentDir( Ptr< Kiv::Dir const > const & dir, ConfigSm * configSm )
   : configSm_( configSm ) {
   notifierIs( dir );
   isRegisteredNotifieeIs( true );
}
ConfigSm::KivAgentDir::~KivAgentDir() { kivDoZombieReactors( true ); }

void ConfigSm::KivAgentDir::onEntityPtr( Name agent ) {
   Kiv::detail::toOwner( *this, configSm_, [ & ]( ConfigSm & sm ) { sm.handleAgent( agent ); } );
}
void ConfigSm::KivAgentDir::onEntityPtrkivImmediate() {
   Kiv::detail::toOwner( *this, configSm_, []( ConfigSm & sm ) { sm.handleAgent(); } );
}
void ConfigSm::KivAgentDir::onEntityPtr() { onEntityPtrkivImmediate(); }

void ConfigSm::KivAgentDir::kivDoZombieReactors( bool zombie ) {
   Kiv::detail::doZombieReactors( *this, zombie, []( bool ) {} );
}

// --------------------------------------------------------------------------- KivAgentConfig

ConfigSm::KivAgentConfig::KivAgentConfig( Ptr< AgentConfig const > const & agent,
                                          ConfigSm * configSm )
   : configSm_( configSm ), key_( agent->name() ) {
   Kiv::KeepDuringConstruction const keep( *this );
   AgentConfig::NotifieeConst::notifierIs( agent );
   isRegisteredNotifieeIs( true );
   handleEvent();
}
ConfigSm::KivAgentConfig::~KivAgentConfig() { kivDoZombieReactors( true ); }

void ConfigSm::KivAgentConfig::notifierIs( Ptr< PtrInterface const > const & agent ) {
   if( notifierPtr() == agent )
      return;
   AgentConfig::NotifieeConst::notifierIs( agent );
   if( kivMarkedForDeletion() )
      return;
   isRegisteredNotifieeIs( true );
   handleEvent();
}

void ConfigSm::KivAgentConfig::onEvent( Name stage ) {
   Kiv::detail::toOwner( *this, configSm_, [ & ]( ConfigSm & ) { handleEvent( stage ); } );
}
void ConfigSm::KivAgentConfig::onEventkivImmediate() {
   Kiv::detail::toOwner( *this, configSm_, [ & ]( ConfigSm & ) { handleEvent(); } );
}
void ConfigSm::KivAgentConfig::onEvent() { onEventkivImmediate(); }

void ConfigSm::KivAgentConfig::kivDoZombieReactors( bool zombie ) {
   Kiv::detail::doZombieReactors( *this, zombie, []( bool ) {} );
}

// -------------------------------------------------------------------------------- KivStatus

ConfigSm::KivStatus::KivStatus( Ptr< Status > const & status, ConfigSm * configSm )
   : configSm_( configSm ) {
   notifierIs( status );
   isRegisteredNotifieeIs( true );
}
ConfigSm::KivStatus::~KivStatus() { kivDoZombieReactors( true ); }

void ConfigSm::KivStatus::onStage( Name name ) {
   Kiv::detail::toOwner( *this, configSm_, [ & ]( ConfigSm & sm ) {
      if( Ptr< StageStatus > const stage = notifier()->stage( name ) )
         sm.stageStatusIs( stage );
      else
         sm.stageStatusDel( name );
      if( !kivMarkedForDeletion() )
         sm.handleStage( name );
   } );
}
void ConfigSm::KivStatus::onStagekivImmediate() {
   Kiv::detail::toOwner( *this, configSm_, []( ConfigSm & sm ) { sm.reconcileStages(); } );
}
void ConfigSm::KivStatus::onStage() { onStagekivImmediate(); }

void ConfigSm::KivStatus::kivDoZombieReactors( bool zombie ) {
   Kiv::detail::doZombieReactors( *this, zombie, []( bool ) {} );
}

// --------------------------------------------------------------------------- KivStageStatus

KivStageStatus::KivStageStatus( Ptr< StageStatus > const & stage, ConfigSm * configSm )
   : configSm_( configSm ), key_( stage->name() ) {
   Kiv::KeepDuringConstruction const keep( *this );
   // The overload that is not ours: ours would run the handlers as for a re-attachment.
   StageStatus::Notifiee::notifierIs( Ptr< PtrInterface const >( stage ) );
   isRegisteredNotifieeIs( true );
   for( auto i = stage->eventIteratorConst(); i; ++i )
      eventConfigIs( i.ptr() );
   handleCritical();
}
KivStageStatus::~KivStageStatus() {
   kivDoZombieReactors( true );
   eventConfigDelAll();
}

void KivStageStatus::notifierIs( Ptr< PtrInterface const > const & stage ) {
   if( notifierPtr() == stage )
      return;
   Ptr< StageStatus > const before = this->stage();
   StageStatus::Notifiee::notifierIs( stage );
   if( kivMarkedForDeletion() )
      return;
   if( stage ) {
      isRegisteredNotifieeIs( true );
      eventConfigDelAll();
      reconcileEvents();
      handleCritical();
   }
   withdrawLinks( before );
}

// The stage is no critical ancestor any more of what only `before`, which it was, depended on.
void KivStageStatus::withdrawLinks( Ptr< StageStatus > const & before ) {
   if( !before )
      return;
   for( auto i = configSm_->stageStatusIterator(); i; ++i ) {
      if( stage() && stage()->hasDependency( String8( i.key() ) ) )
         continue;
      if( Ptr< KivStageStatus > const other = i.ptr() )
         other->criticalAncestorDel( String8( key_ ) );
   }
}

void KivStageStatus::hasNotificationActiveIs( bool active ) {
   if( active == hasNotificationActive() )
      return;
   Kiv::detail::InOrder const inOrder;
   StageStatus::Notifiee::hasNotificationActiveIs( active );
   Kiv::detail::passNotificationActive( active, [ this ]( auto f ) { ownReactors( f ); } );
}

void KivStageStatus::kivDoZombieReactors( bool zombie ) {
   Kiv::detail::doZombieReactors( *this, zombie, [ this ]( bool z ) {
      ownReactors( [ z ]( auto & r ) { r.kivDoZombieReactors( z ); } );
   } );
}

void KivStageStatus::onDependency( String8 stage ) {
   Kiv::detail::toOwner( *this, configSm_, [ & ]( ConfigSm & ) { handleDependency( stage ); } );
}
void KivStageStatus::onDependencykivImmediate() {
   // What went was told by key; what is there is linked again, which changes nothing.
   Kiv::detail::toOwner( *this, configSm_, [ & ]( ConfigSm & ) {
      for( auto i = stage()->dependencyIteratorConst(); i; ++i )
         handleDependency( i.key() );
   } );
}
void KivStageStatus::onDependency() { onDependencykivImmediate(); }

void KivStageStatus::onEvent( String8 agent ) {
   Kiv::detail::toOwner( *this, configSm_, [ & ]( ConfigSm & ) {
      if( Ptr< EventConfig const > const event = stage()->event( agent ) )
         eventConfigIs( event );
      else
         eventConfigDel( agent );
   } );
}
void KivStageStatus::onEventkivImmediate() {
   Kiv::detail::toOwner( *this, configSm_, [ & ]( ConfigSm & ) { reconcileEvents(); } );
}
void KivStageStatus::onEvent() { onEventkivImmediate(); }

void KivStageStatus::reconcileEvents() {
   Ptr< StageStatus > const watched = stage();
   for( auto i = watched->eventIteratorConst(); i; ++i )
      eventConfigIs( i.ptr() );
   for( auto i = eventConfigIterator(); i; ++i )
      if( !watched->event( i.key() ) )
         eventConfigDel( i.key() );
}

Ptr< KivEventConfig > KivStageStatus::newEventConfig( Ptr< EventConfig const > const & event ) {
   Ptr< KivEventConfig > const made = new KivEventConfig( Kiv::valid( event ), this );
   made->hasNotificationActiveIs( hasNotificationActive() );
   return Kiv::valid( made );
}

Ptr< KivEventConfig > KivStageStatus::eventConfigIs( Ptr< EventConfig const > const & event ) {
   notNull( event, "null _eventConfig parameter to mutator for "
                   "Stage::ConfigSm::KivStageStatus::eventConfig not allowed" );
   if( Ptr< KivEventConfig > const held = eventConfig_.member( event->agent() ) ) {
      held->notifierIs( event );
      return held;
   }
   Ptr< KivEventConfig > const made = newEventConfig( event );
   eventConfig_.memberIs( event->agent(), made );
   return made;
}

void KivStageStatus::eventConfigDel( String8 const & agent ) {
   Ptr< KivEventConfig > const gone = eventConfig_.member( agent );
   if( !gone )
      return;
   gone->kivDoZombieReactors( true );
   gone->kivStageStatus_ = nullptr;
   eventConfig_.memberDel( gone->fwkKey() );
}
void KivStageStatus::eventConfigDelAll() {
   for( auto i = eventConfig_.iterator(); i; ++i )
      eventConfigDel( i.key() );
}

KivStageStatus::KivCriticalAncestor::KivCriticalAncestor( String8 const & name, bool value )
   : name_( name ), value_( value ) {}
KivStageStatus::KivCriticalAncestor::~KivCriticalAncestor() = default;

bool KivStageStatus::criticalAncestor( String8 const & name ) const {
   Ptr< KivCriticalAncestor > const entry = criticalAncestor_.member( name );
   return entry && entry->criticalAncestor();
}

Ptr< KivStageStatus::KivCriticalAncestor >
KivStageStatus::newCriticalAncestor( String8 const & name, bool value ) {
   return Kiv::valid( Ptr< KivCriticalAncestor >( new KivCriticalAncestor( name, value ) ) );
}

// Whether the collection has changed.
bool KivStageStatus::criticalAncestorSet( String8 const & name, bool value ) {
   if( Ptr< KivCriticalAncestor > const held = criticalAncestor_.member( name ) ) {
      if( held->criticalAncestor() == value )
         return false;
      held->criticalAncestorIs( value );
      return true;
   }
   criticalAncestor_.memberIs( name, newCriticalAncestor( name, value ) );
   return true;
}
bool KivStageStatus::criticalAncestorErase( String8 const & name ) {
   return criticalAncestor_.memberDel( name );
}

void KivStageStatus::criticalAncestorNotify( String8 const & name ) { handleCritical( name ); }

void KivStageStatus::criticalAncestorIs( String8 const & name, bool value ) {
   if( criticalAncestorSet( name, value ) )
      criticalAncestorNotify( name );
}
void KivStageStatus::criticalAncestorDel( String8 const & name ) {
   String8 const key = name; // the caller's may belong to the entry
   if( criticalAncestorErase( key ) )
      criticalAncestorNotify( key );
}
void KivStageStatus::criticalAncestorDelAll() {
   for( auto i = criticalAncestorIterator(); i; ++i )
      criticalAncestorDel( i.key() );
}

// --------------------------------------------------------------------------- KivEventConfig

KivEventConfig::KivEventConfig( Ptr< EventConfig const > const & event,
                                KivStageStatus * kivStageStatus )
   : kivStageStatus_( kivStageStatus ), key_( event->agent() ) {
   Kiv::KeepDuringConstruction const keep( *this );
   EventConfig::NotifieeConst::notifierIs( event );
   isRegisteredNotifieeIs( true );
   handleAll();
}
KivEventConfig::~KivEventConfig() { kivDoZombieReactors( true ); }

void KivEventConfig::handleAll() {
   handleDependency();
   handleTimeout();
   handleCritical();
}

void KivEventConfig::notifierIs( Ptr< PtrInterface const > const & event ) {
   if( notifierPtr() == event )
      return;
   EventConfig::NotifieeConst::notifierIs( event );
   if( !event || kivMarkedForDeletion() )
      return;
   isRegisteredNotifieeIs( true );
   handleAll();
}

void KivEventConfig::onDependency( String8 stage ) {
   Kiv::detail::toOwner( *this, kivStageStatus_,
                         [ & ]( KivStageStatus & ) { handleDependency( stage ); } );
}
void KivEventConfig::onDependencykivImmediate() {
   Kiv::detail::toOwner( *this, kivStageStatus_,
                         [ & ]( KivStageStatus & ) { handleDependency(); } );
}
void KivEventConfig::onDependency() { onDependencykivImmediate(); }
void KivEventConfig::onTimeout() {
   Kiv::detail::toOwner( *this, kivStageStatus_, [ & ]( KivStageStatus & ) { handleTimeout(); } );
}
void KivEventConfig::onCritical() {
   Kiv::detail::toOwner( *this, kivStageStatus_, [ & ]( KivStageStatus & ) { handleCritical(); } );
}

void KivEventConfig::kivDoZombieReactors( bool zombie ) {
   Kiv::detail::doZombieReactors( *this, zombie, []( bool ) {} );
}

// --------------------------------------------------------------------------------- ConfigSm

ConfigSm::ConfigSm( Ptr< Config const > const & config, Ptr< Status > const & status,
                    Ptr< Kiv::Dir const > const & agentDir ) {
   Kiv::KeepDuringConstruction const keep( *this );
   Config::NotifieeConst::notifierIs( config );
   status_ = newStatus( status );
   agentDir_ = newAgentDir( agentDir );
   isRegisteredNotifieeIs( true );
   // Stages that were there before tell of themselves once: no notification will come for them,
   // and links to stages whose reactors are made later would be missing.
   std::vector< Name > present;
   for( auto i = status->stageIteratorConst(); i; ++i )
      present.push_back( i.key() );
   handleAgent();
   reconcileStages();
   for( Name const & name : present )
      handleStage( name );
}

ConfigSm::~ConfigSm() {
   kivDoZombieReactors( true );
   if( status_ )
      status_->configSm_ = nullptr;
   if( agentDir_ )
      agentDir_->configSm_ = nullptr;
   agentConfigDelAll();
   stageStatusDelAll();
}

void ConfigSm::hasNotificationActiveIs( bool active ) {
   if( active == hasNotificationActive() )
      return;
   Kiv::detail::InOrder const inOrder;
   Config::NotifieeConst::hasNotificationActiveIs( active );
   Kiv::detail::passNotificationActive( active, [ this ]( auto f ) { ownReactors( f ); } );
}

void ConfigSm::notifierIs( Ptr< PtrInterface const > const & config ) {
   if( notifierPtr() == config )
      return;
   Config::NotifieeConst::notifierIs( config );
   isRegisteredNotifieeIs( true );
}

void ConfigSm::kivDoZombieReactors( bool zombie ) {
   Kiv::detail::doZombieReactors( *this, zombie, [ this ]( bool z ) {
      ownReactors( [ z ]( auto & r ) { r.kivDoZombieReactors( z ); } );
   } );
}

Kiv::KivType const & ConfigSm::fwkType() const { return _fwkType(); }
Kiv::KivType const & ConfigSm::_fwkType() {
   static auto const & type =
      *new Kiv::KivType( "Stage::ConfigSm", &PtrInterface::_fwkType(), rows );
   return type;
}

Ptr< ConfigSm::KivAgentDir > ConfigSm::newAgentDir( Ptr< Kiv::Dir const > const & dir ) {
   Ptr< KivAgentDir > const made = new KivAgentDir( Kiv::valid( dir ), this );
   made->hasNotificationActiveIs( hasNotificationActive() );
   return made;
}
Ptr< ConfigSm::KivStatus > ConfigSm::newStatus( Ptr< Status > const & status ) {
   Ptr< KivStatus > const made = new KivStatus( Kiv::valid( status ), this );
   made->hasNotificationActiveIs( hasNotificationActive() );
   return made;
}

Ptr< ConfigSm::KivAgentConfig >
ConfigSm::newAgentConfig( Ptr< AgentConfig const > const & agent ) {
   Ptr< KivAgentConfig > const made = new KivAgentConfig( Kiv::valid( agent ), this );
   made->hasNotificationActiveIs( hasNotificationActive() );
   return made;
}
Ptr< ConfigSm::KivAgentConfig > ConfigSm::agentConfigIs( Ptr< AgentConfig const > const & agent ) {
   notNull( agent, "null _agentConfig parameter to mutator for Stage::ConfigSm::agentConfig "
                   "not allowed" );
   if( Ptr< KivAgentConfig > const held = agentConfig_.member( agent->name() ) ) {
      held->notifierIs( agent );
      return held;
   }
   Ptr< KivAgentConfig > const made = newAgentConfig( agent );
   agentConfig_.memberIs( agent->name(), made );
   return made;
}
void ConfigSm::agentConfigDel( Name const & agent ) {
   Ptr< KivAgentConfig > const gone = agentConfig_.member( agent );
   if( !gone )
      return;
   // Watching nothing any more, the reactor takes the agent's events out of their stages; during
   // teardown it is marked already, and what was written stays.
   if( !gone->kivMarkedForDeletion() )
      gone->notifierIs( nullptr );
   gone->kivDoZombieReactors( true );
   gone->configSm_ = nullptr;
   agentConfig_.memberDel( gone->fwkKey() );
}
void ConfigSm::agentConfigDelAll() {
   for( auto i = agentConfig_.iterator(); i; ++i )
      agentConfigDel( i.key() );
}

Ptr< KivStageStatus > ConfigSm::newStageStatus( Ptr< StageStatus > const & stage ) {
   Ptr< KivStageStatus > const made = new KivStageStatus( Kiv::valid( stage ), this );
   made->hasNotificationActiveIs( hasNotificationActive() );
   return made;
}
Ptr< KivStageStatus > ConfigSm::stageStatusIs( Ptr< StageStatus > const & stage ) {
   notNull( stage, "null _stageStatus parameter to mutator for Stage::ConfigSm::stageStatus "
                   "not allowed" );
   if( Ptr< KivStageStatus > const held = stageStatus_.member( stage->name() ) ) {
      held->notifierIs( stage );
      return held;
   }
   Ptr< KivStageStatus > const made = newStageStatus( stage );
   stageStatus_.memberIs( stage->name(), made );
   return made;
}
void ConfigSm::stageStatusDel( Name const & stage ) {
   Ptr< KivStageStatus > const gone = stageStatus_.member( stage );
   if( !gone )
      return;
   bool const teardown = gone->kivMarkedForDeletion();
   Ptr< StageStatus > const before = gone->stage();
   gone->kivDoZombieReactors( true );
   stageStatus_.memberDel( gone->fwkKey() );
   // Not before it has left the collection: a stage in a cycle with it would push its flag back
   // and make it decide anew.
   if( !teardown ) {
      gone->notifierIs( Ptr< PtrInterface const >() );
      gone->withdrawLinks( before );
   }
   gone->configSm_ = nullptr;
}
void ConfigSm::stageStatusDelAll() {
   for( auto i = stageStatus_.iterator(); i; ++i )
      stageStatusDel( i.key() );
}

void ConfigSm::reconcileStages() {
   Ptr< Status > const watched = status();
   for( auto i = watched->stageIterator(); i; ++i )
      stageStatusIs( i.ptr() );
   for( auto i = stageStatusIterator(); i; ++i )
      if( !watched->stage( i.key() ) )
         stageStatusDel( i.key() );
}

Ptr< AgentConfig > ConfigSm::agentEntry( Name const & agent ) const {
   return Kiv::ptrCast< AgentConfig >( agentDir()->entityPtr( agent ) );
}

Ptr< ConfigSm > configSmFactory( Ptr< Config const > const & config, Ptr< Status > const & status,
                                 Ptr< Kiv::Dir const > const & agentDir ) {
   Ptr< ConfigSm > const made = new ConfigSm( config, status, agentDir );
   made->hasNotificationActiveIs( true );
   return Kiv::valid( made );
}

} // namespace Stage
