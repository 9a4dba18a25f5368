// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// ConfigSm's plumbing: construction, collections of reactors, and callbacks that forward to the
// handlers in Ordovan.cpp.

#include <Ordovan/ConfigSm.h>

#include <Ordovan/detail/OnException.h>

#include <Kiv/Access.h>
#include <Kiv/Exception.h>

#include <exception>

namespace Stage {

using Kiv::Attribute;
using Kiv::keyed;
using Kiv::Name;
using Kiv::Ptr;
using Kiv::PtrInterface;
using Kiv::reads;
using Kiv::Role;
using Kiv::String8;

using KivStageStatus = ConfigSm::KivStageStatus;
using KivEventConfig = ConfigSm::KivStageStatus::KivEventConfig;

namespace {

constexpr auto rows = Kiv::numbered( {
   Attribute( "config", "Kiv::Ptr<Stage::Config const>", "", Role::constructorArgument,
              reads< &ConfigSm::config >() ),
   Attribute( "status", "Kiv::Ptr<Stage::Status>", "", Role::constructorArgument,
              reads< &ConfigSm::status >() ),
   Attribute( "agentDir", "Kiv::Ptr<Kiv::Dir const>", "", Role::constructorArgument | Role::reactor,
              reads< &ConfigSm::agentDir >() ),
   Attribute( "handleAgent", "", "Kiv::Name", Role::handler,
              Kiv::callsEither< Kiv::overload< void( Name ) >( &ConfigSm::handleAgent ),
                                Kiv::overload< void() >( &ConfigSm::handleAgent ) >( "name" ) ),
   Attribute( "agentConfig", "Stage::AgentConfig", "Kiv::Name", Role::collection | Role::reactor,
              keyed< &ConfigSm::agentConfig, &ConfigSm::agentConfigs,
                     &ConfigSm::agentConfigIteratorConst >()
                 .memberWritesUnder< &ConfigSm::agentConfigIs, &AgentConfig::name >()
                 .memberDeletes< &ConfigSm::agentConfigDel, &ConfigSm::agentConfigDelAll >() ),
   Attribute( "stageStatus", "Stage::StageStatus", "Kiv::Name", Role::collection | Role::reactor,
              keyed< &ConfigSm::stageStatus, &ConfigSm::stageStatuss,
                     &ConfigSm::stageStatusIteratorConst >()
                 .memberWritesUnder< &ConfigSm::stageStatusIs, &StageStatus::name >()
                 .memberDeletes< &ConfigSm::stageStatusDel, &ConfigSm::stageStatusDelAll >() ),
   Attribute( "handleStage", "", "Kiv::Name", Role::handler,
              Kiv::calls< &ConfigSm::handleStage >( "name" ) ),
   Attribute( "kivFwkActivity", "Kiv::Ptr<Kiv::ActivityConfig>", "", Role::framework,
              Kiv::activity() ),
   Kiv::notificationSwitch(),
   Kiv::zombieSwitch< ConfigSm >(),
} );

// ---- the nested reactors that can be reached by name

namespace agentConfigRows {

using Reactor = ConfigSm::KivAgentConfig;
bool works( PtrInterface const & object ) {
   return static_cast< Reactor const & >( object ).configSm() != nullptr;
}
constexpr auto rows = Kiv::numbered( {
   Attribute( "agentConfig", "Kiv::Ptr<Stage::AgentConfig const>", "", Role::constructorArgument,
              reads< &Reactor::notifier >() ),
   Attribute( "handleEvent", "", "Kiv::Name", Role::handler,
              Kiv::callsEither< Kiv::overload< void( Name ) >( &Reactor::handleEvent ),
                                Kiv::overload< void() >( &Reactor::handleEvent ) >( "stageName" )
                 .whenever( &works ) ),
   Attribute( "fwkKey", "Kiv::Name", "", Role::framework, reads< &Reactor::fwkKey >() ),
   Kiv::notificationSwitch(),
   Kiv::zombieSwitch< Reactor >(),
} );

} // namespace agentConfigRows

namespace stageStatusRows {

using Reactor = KivStageStatus;
bool works( PtrInterface const & object ) {
   auto const & reactor = static_cast< Reactor const & >( object );
   return reactor.configSm() && reactor.stage();
}
constexpr auto rows = Kiv::numbered( {
   Attribute( "stageStatus", "Kiv::Ptr<Stage::StageStatus>", "", Role::constructorArgument,
              reads< &Reactor::stage >() ),
   Attribute(
      "eventConfig", "Stage::EventConfig", "Kiv::String8", Role::collection | Role::reactor,
      keyed< &Reactor::eventConfig, &Reactor::eventConfigs, &Reactor::eventConfigIteratorConst >()
         .memberWritesUnder< &Reactor::eventConfigIs, &EventConfig::agent >()
         .memberDeletes< &Reactor::eventConfigDel, &Reactor::eventConfigDelAll >()
         .whenever( &works ) ),
   Attribute( "criticalAncestor", "bool", "Kiv::String8", Role::collection,
              keyed< &Reactor::criticalAncestor, &Reactor::criticalAncestors,
                     &Reactor::criticalAncestorIteratorConst, &Reactor::hasCriticalAncestor >()
                 .memberWrites< &Reactor::criticalAncestorIs >()
                 .memberDeletes< &Reactor::criticalAncestorDel, &Reactor::criticalAncestorDelAll >()
                 .whenever( &works ) ),
   Attribute( "handleDependency", "", "Kiv::String8", Role::handler,
              Kiv::calls< &Reactor::handleDependency >( "name" ).whenever( &works ) ),
   Attribute( "handleDependencyDel", "", "Kiv::String8", Role::handler,
              Kiv::calls< &Reactor::handleDependencyDel >( "name" ).whenever( &works ) ),
   Attribute( "handleEventDel", "", "Kiv::String8", Role::handler,
              Kiv::calls< &Reactor::handleEventDel >( "agentName" ).whenever( &works ) ),
   Attribute( "handleStage", "", "Kiv::String8", Role::handler,
              Kiv::calls< &Reactor::handleStage >( "name" ).whenever( &works ) ),
   Attribute( "handleCritical", "", "Kiv::String8", Role::handler,
              Kiv::callsEither< Kiv::overload< void( String8 ) >( &Reactor::handleCritical ),
                                Kiv::overload< void() >( &Reactor::handleCritical ) >( "name" )
                 .whenever( &works ) ),
   Attribute( "handleTimeout", "", "", Role::handler,
              Kiv::calls< &Reactor::handleTimeout >().whenever( &works ) ),
   Attribute( "fwkKey", "Kiv::Name", "", Role::framework, reads< &Reactor::fwkKey >() ),
   Kiv::notificationSwitch(),
   Kiv::zombieSwitch< Reactor >(),
} );

} // namespace stageStatusRows

namespace eventConfigRows {

using Reactor = KivEventConfig;
bool works( PtrInterface const & object ) {
   auto const & reactor = static_cast< Reactor const & >( object );
   return reactor.notifier() && reactor.kivStageStatus() && reactor.kivStageStatus()->configSm();
}
constexpr auto rows = Kiv::numbered( {
   Attribute( "eventConfig", "Kiv::Ptr<Stage::EventConfig const>", "", Role::constructorArgument,
              reads< &Reactor::notifier >() ),
   Attribute( "handleDependency", "", "Kiv::String8", Role::handler,
              Kiv::callsEither< Kiv::overload< void( String8 ) >( &Reactor::handleDependency ),
                                Kiv::overload< void() >( &Reactor::handleDependency ) >( "name" )
                 .whenever( &works ) ),
   Attribute( "handleTimeout", "", "", Role::handler,
              Kiv::calls< &Reactor::handleTimeout >().whenever( &works ) ),
   Attribute( "handleCritical", "", "", Role::handler,
              Kiv::calls< &Reactor::handleCritical >().whenever( &works ) ),
   Attribute( "fwkKey", "Kiv::String8", "", Role::framework, reads< &Reactor::fwkKey >() ),
   Kiv::notificationSwitch(),
   Kiv::zombieSwitch< Reactor >(),
} );

} // namespace eventConfigRows

template< class T >
Ptr< T > const & notNull( Ptr< T > const & entity, char const * text ) {
   if( !entity )
      Kiv::throwRangeException( text );
   return entity;
}

ConfigSm * machineOf( ConfigSm & sm ) { return &sm; }
ConfigSm * machineOf( KivStageStatus & stage ) { return stage.configSm(); }

} // namespace

// A callback; what earlier ones were kept from doing comes first.
template< class Reactor, class Owner, class Call >
void ConfigSm::react( Reactor & reactor, Owner * owner, Call call ) {
   Kiv::detail::toOwner( reactor, owner, [ & ]( Owner & o ) {
      if( ConfigSm * const machine = machineOf( o ) )
         machine->settle();
      call( o );
   } );
}

// ------------------------------------------------------------------------------ KivAgentDir

ConfigSm::KivAgentDir::KivAgentDir( Ptr< Kiv::Dir const > const & dir, ConfigSm * configSm )
   : configSm_( configSm ) {
   notifierIs( dir );
   deliveredUntilDoneIs( true );
   isRegisteredNotifieeIs( true );
}
ConfigSm::KivAgentDir::~KivAgentDir() { kivDoZombieReactors( true ); }

void ConfigSm::KivAgentDir::onEntityPtr( Name agent ) {
   react( *this, configSm_, [ & ]( ConfigSm & sm ) { sm.handleAgent( agent ); } );
}
void ConfigSm::KivAgentDir::onEntityPtrkivImmediate() {
   react( *this, configSm_, []( ConfigSm & sm ) { sm.handleAgent(); } );
}
void ConfigSm::KivAgentDir::onEntityPtr() { onEntityPtrkivImmediate(); }

void ConfigSm::KivAgentDir::kivDoZombieReactors( bool zombie ) {
   Kiv::detail::doZombieReactors( *this, zombie, []( bool ) {} );
}

// --------------------------------------------------------------------------- KivAgentConfig

ConfigSm::KivAgentConfig::KivAgentConfig( Ptr< AgentConfig const > const & agent,
                                          ConfigSm * configSm )
   : configSm_( configSm ), key_( Kiv::valid( agent )->name() ) {
   Kiv::KeepDuringConstruction const keep( *this );
   AgentConfig::NotifieeConst::notifierIs( agent );
   deliveredUntilDoneIs( true );
   isRegisteredNotifieeIs( true );
   handleEvent();
}
ConfigSm::KivAgentConfig::~KivAgentConfig() { kivDoZombieReactors( true ); }

void ConfigSm::KivAgentConfig::notifierIs( Ptr< PtrInterface const > const & agent ) {
   if( notifierPtr() == agent )
      return;
   detail::reattach< AgentConfig::NotifieeConst >( *this, agent, [ this ] {
      if( kivMarkedForDeletion() )
         return;
      isRegisteredNotifieeIs( true );
      handleEvent();
   } );
}

void ConfigSm::KivAgentConfig::onEvent( Name stage ) {
   react( *this, configSm_, [ & ]( ConfigSm & ) { handleEvent( stage ); } );
}
void ConfigSm::KivAgentConfig::onEventkivImmediate() {
   react( *this, configSm_, [ & ]( ConfigSm & ) { handleEvent(); } );
}
void ConfigSm::KivAgentConfig::onEvent() { onEventkivImmediate(); }

void ConfigSm::KivAgentConfig::kivDoZombieReactors( bool zombie ) {
   Kiv::detail::doZombieReactors( *this, zombie, []( bool ) {} );
}

// -------------------------------------------------------------------------------- KivStatus

ConfigSm::KivStatus::KivStatus( Ptr< Status > const & status, ConfigSm * configSm )
   : configSm_( configSm ) {
   notifierIs( status );
   deliveredUntilDoneIs( true );
   isRegisteredNotifieeIs( true );
}
ConfigSm::KivStatus::~KivStatus() { kivDoZombieReactors( true ); }

void ConfigSm::KivStatus::onStage( Name name ) {
   react( *this, configSm_, [ & ]( ConfigSm & sm ) {
      if( Ptr< StageStatus > const stage = notifier()->stage( name ) )
         sm.stageStatusIs( stage );
      else
         sm.stageStatusDel( name );
      if( !kivMarkedForDeletion() )
         sm.handleStage( name );
   } );
}
void ConfigSm::KivStatus::onStagekivImmediate() {
   react( *this, configSm_, []( ConfigSm & sm ) { sm.reconcileStages(); } );
}
void ConfigSm::KivStatus::onStage() { onStagekivImmediate(); }

void ConfigSm::KivStatus::kivDoZombieReactors( bool zombie ) {
   Kiv::detail::doZombieReactors( *this, zombie, []( bool ) {} );
}

// --------------------------------------------------------------------------- KivStageStatus

KivStageStatus::KivStageStatus( Ptr< StageStatus > const & stage, ConfigSm * configSm )
   : configSm_( configSm ), key_( Kiv::valid( stage )->name() ) {
   Kiv::KeepDuringConstruction const keep( *this );
   // The overload that is not ours: ours would run the handlers as for a re-attachment.
   StageStatus::Notifiee::notifierIs( Ptr< PtrInterface const >( stage ) );
   deliveredUntilDoneIs( true );
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
   detail::reattach< StageStatus::Notifiee >( *this, stage, [ & ] {
      left_ = nullptr; // it was the other stage's
      if( kivMarkedForDeletion() || !configSm_ )
         return;
      if( stage ) {
         isRegisteredNotifieeIs( true );
         dropFormerAncestors();
         eventConfigDelAll();
         reconcileEvents();
         handleCritical();
      }
      withdrawLinks( before );
   } );
}

// A stage that came back under its name keeps those ancestors that are ancestors still. One that
// ceased to be while the stage was away took no link back: it found no stage to take it from. The
// decision about our own flag is the caller's.
void KivStageStatus::dropFormerAncestors() {
   for( auto i = criticalAncestorIterator(); i; ++i ) {
      Ptr< KivStageStatus > const other = configSm_->stageStatus( i.key() );
      Ptr< StageStatus > const ancestor = other ? other->stage() : Ptr< StageStatus >();
      if( !ancestor || !ancestor->critical() || !ancestor->hasDependency( String8( key_ ) ) )
         criticalAncestorErase( i.key() );
   }
}

// The stage is no critical ancestor any more of what only `before`, which it was, depended on.
void KivStageStatus::withdrawLinks( Ptr< StageStatus > const & before ) {
   if( before )
      configSm_->withdrawLinks( String8( key_ ), stage() );
}

// Stage `name` is a critical ancestor of no stage but those that `present`, if there is one,
// depends on. Whatever a stage throws that decides anew, the others lose the link, too: nobody
// would come back for it.
void ConfigSm::withdrawLinks( String8 const & name, Ptr< StageStatus > const & present ) {
   std::exception_ptr thrown;
   for( auto i = stageStatusIterator(); i; ++i ) {
      if( present && present->hasDependency( String8( i.key() ) ) )
         continue;
      Ptr< KivStageStatus > const other = i.ptr();
      if( !other || !other->criticalAncestorErase( name ) )
         continue;
      if( thrown ) {
         other->undecidedIs();
         continue;
      }
      try {
         other->handleCritical( name );
      } catch( ... ) {
         thrown = std::current_exception();
      }
   }
   if( thrown )
      std::rethrow_exception( thrown );
}

// ---- what callbacks that were cut short have left undone

void KivStageStatus::leftIs( Ptr< EventConfig const > const & event, bool setTimeout ) {
   left_ = event;
   leftSetTimeout_ = setTimeout;
   if( configSm_ )
      configSm_->unsettled_ = true;
}
void KivStageStatus::undecidedIs() {
   undecided_ = true;
   if( configSm_ )
      configSm_->unsettled_ = true;
}
void KivStageStatus::settle() {
   if( Ptr< EventConfig const > const event = left_ ) {
      left_ = nullptr;
      eventHasLeft( event, leftSetTimeout_ );
   }
   if( undecided_ ) {
      undecided_ = false;
      handleCritical();
   }
}
void ConfigSm::settle() {
   if( !unsettled_ )
      return;
   for( auto i = stageStatusIterator(); i; ++i )
      if( Ptr< KivStageStatus > const reactor = i.ptr() )
         reactor->settle();
   unsettled_ = false;
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
   react( *this, configSm_, [ & ]( ConfigSm & ) { handleDependency( stage ); } );
}
void KivStageStatus::onDependencykivImmediate() {
   // What went was told by key; what is there is linked again, which changes nothing.
   react( *this, configSm_, [ & ]( ConfigSm & ) {
      if( Ptr< StageStatus > const watched = stage() )
         for( auto i = watched->dependencyIteratorConst(); i; ++i )
            handleDependency( i.key() );
   } );
}
void KivStageStatus::onDependency() { onDependencykivImmediate(); }

void KivStageStatus::onEvent( String8 agent ) {
   react( *this, configSm_, [ & ]( ConfigSm & ) {
      if( !stage() )
         return;
      if( Ptr< EventConfig const > const event = stage()->event( agent ) )
         eventConfigIs( event );
      else
         eventConfigDel( agent );
   } );
}
void KivStageStatus::onEventkivImmediate() {
   react( *this, configSm_, [ & ]( ConfigSm & ) { reconcileEvents(); } );
}
void KivStageStatus::onEvent() { onEventkivImmediate(); }

void KivStageStatus::reconcileEvents() {
   Ptr< StageStatus > const watched = stage();
   if( !watched )
      return;
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

void KivStageStatus::criticalAncestorNotify( String8 const & name,
                                             Ptr< KivCriticalAncestor > const & ) {
   handleCritical( name );
}

void KivStageStatus::criticalAncestorIs( String8 const & name, bool value ) {
   if( criticalAncestorSet( name, value ) )
      criticalAncestorNotify( name, criticalAncestor_.member( name ) );
}
void KivStageStatus::criticalAncestorDel( String8 const & name ) {
   String8 const key = name; // the caller's may belong to the entry
   if( criticalAncestorErase( key ) )
      criticalAncestorNotify( key, nullptr );
}
void KivStageStatus::criticalAncestorDelAll() {
   for( auto i = criticalAncestorIterator(); i; ++i )
      criticalAncestorDel( i.key() );
}

// --------------------------------------------------------------------------- KivEventConfig

KivEventConfig::KivEventConfig( Ptr< EventConfig const > const & event,
                                KivStageStatus * kivStageStatus )
   : kivStageStatus_( kivStageStatus ), key_( Kiv::valid( event )->agent() ) {
   Kiv::KeepDuringConstruction const keep( *this );
   EventConfig::NotifieeConst::notifierIs( event );
   deliveredUntilDoneIs( true );
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
   detail::reattach< EventConfig::NotifieeConst >( *this, event, [ & ] {
      if( !event || kivMarkedForDeletion() )
         return;
      isRegisteredNotifieeIs( true );
      handleAll();
   } );
}

void KivEventConfig::onDependency( String8 stage ) {
   react( *this, kivStageStatus_, [ & ]( KivStageStatus & ) { handleDependency( stage ); } );
}
void KivEventConfig::onDependencykivImmediate() {
   react( *this, kivStageStatus_, [ & ]( KivStageStatus & ) { handleDependency(); } );
}
void KivEventConfig::onDependency() { onDependencykivImmediate(); }
void KivEventConfig::onTimeout() {
   react( *this, kivStageStatus_, [ & ]( KivStageStatus & ) { handleTimeout(); } );
}
void KivEventConfig::onCritical() {
   react( *this, kivStageStatus_, [ & ]( KivStageStatus & ) { handleCritical(); } );
}

void KivEventConfig::kivDoZombieReactors( bool zombie ) {
   Kiv::detail::doZombieReactors( *this, zombie, []( bool ) {} );
}

// --------------------------------------------------------------------------------- ConfigSm

ConfigSm::ConfigSm( Ptr< Config const > const & config, Ptr< Status > const & status,
                    Ptr< Kiv::Dir const > const & agentDir ) {
   Kiv::KeepDuringConstruction const keep( *this );
   Config::NotifieeConst::notifierIs( config );
   deliveredUntilDoneIs( true );
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
   static Kiv::KivType const type( "Stage::ConfigSm", &PtrInterface::_fwkType(), rows );
   return type;
}

Kiv::KivType const & ConfigSm::KivAgentConfig::fwkType() const { return _fwkType(); }
Kiv::KivType const & ConfigSm::KivAgentConfig::_fwkType() {
   static Kiv::KivType const type( "Stage::ConfigSm::KivAgentConfig", &PtrInterface::_fwkType(),
                                   agentConfigRows::rows );
   return type;
}

Kiv::KivType const & KivStageStatus::fwkType() const { return _fwkType(); }
Kiv::KivType const & KivStageStatus::_fwkType() {
   static Kiv::KivType const type( "Stage::ConfigSm::KivStageStatus", &PtrInterface::_fwkType(),
                                   stageStatusRows::rows );
   return type;
}

Kiv::KivType const & KivEventConfig::fwkType() const { return _fwkType(); }
Kiv::KivType const & KivEventConfig::_fwkType() {
   static Kiv::KivType const type( "Stage::ConfigSm::KivStageStatus::KivEventConfig",
                                   &PtrInterface::_fwkType(), eventConfigRows::rows );
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

Ptr< ConfigSm::KivAgentConfig > ConfigSm::newAgentConfig( Ptr< AgentConfig const > const & agent ) {
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
   if( !gone ) {
      // One whose making was cut short has left no reactor, but perhaps links.
      withdrawLinks( String8( stage ), nullptr );
      return;
   }
   bool const teardown = gone->kivMarkedForDeletion();
   Ptr< StageStatus > const before = gone->stage();
   gone->kivDoZombieReactors( true );
   stageStatus_.memberDel( gone->fwkKey() );
   // Not before it has left the collection: a stage in a cycle with it would push its flag back
   // and make it decide anew.
   if( !teardown ) {
      detail::OnException const letGo( [ & ] { gone->configSm_ = nullptr; } );
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
