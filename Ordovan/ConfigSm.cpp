// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// ConfigSm's plumbing; its handlers are in Ordovan.cpp.

#include <Ordovan/ConfigSm.h>

#include <Index/Dependents.h>

#include <Kiv/Access.h>
#include <Kiv/Exception.h>

namespace Stage {

using namespace Kiv;

using KivAgentConfig = ConfigSm::KivAgentConfig;
using KivStageStatus = ConfigSm::KivStageStatus;
using KivEventConfig = ConfigSm::KivStageStatus::KivEventConfig;

namespace {

constexpr auto rows = machineTable< ConfigSm >( {
   fixed< &ConfigSm::config >( "config", "Kiv::Ptr<Stage::Config const>" ),
   fixed< &ConfigSm::status >( "status", "Kiv::Ptr<Stage::Status>" ),
   fixed< &ConfigSm::agentDir >( "agentDir", "Kiv::Ptr<Kiv::Dir const>", Role::reactor ),
   handlers< Name, ConfigSm, &ConfigSm::handleAgent, &ConfigSm::handleAgent >( "handleAgent",
                                                                               "name" ),
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
   handler< &ConfigSm::handleStage >( "handleStage", "name" ),
   activity(),
} );

// ---- the nested reactors that can be reached by name

constexpr auto agentConfigRows = machineTable< KivAgentConfig >(
   {
      fixed< &KivAgentConfig::notifier >( "agentConfig", "Kiv::Ptr<Stage::AgentConfig const>" ),
      handlers< Name, KivAgentConfig, &KivAgentConfig::handleEvent, &KivAgentConfig::handleEvent >(
         "handleEvent", "stageName" ),
      ownKey< &KivAgentConfig::fwkKey >(),
   },
   &hasEach< KivAgentConfig, &KivAgentConfig::configSm > );

constexpr auto works =
   &hasEach< KivStageStatus, &KivStageStatus::configSm, &KivStageStatus::stage >;
constexpr auto stageStatusRows = machineTable< KivStageStatus >(
   {
      fixed< &KivStageStatus::stage >( "stageStatus", "Kiv::Ptr<Stage::StageStatus>" ),
      Attribute(
         "eventConfig", "Stage::EventConfig", "Kiv::String8", Role::collection | Role::reactor,
         keyed< &KivStageStatus::eventConfig, &KivStageStatus::eventConfigs,
                &KivStageStatus::eventConfigIteratorConst >()
            .memberWritesUnder< &KivStageStatus::eventConfigIs, &EventConfig::agent >()
            .memberDeletes< &KivStageStatus::eventConfigDel, &KivStageStatus::eventConfigDelAll >()
            .whenever( works ) ),
      Attribute( "criticalAncestor", "bool", "Kiv::String8", Role::collection,
                 keyed< &KivStageStatus::criticalAncestor, &KivStageStatus::criticalAncestors,
                        &KivStageStatus::criticalAncestorIteratorConst,
                        &KivStageStatus::hasCriticalAncestor >()
                    .memberWrites< &KivStageStatus::criticalAncestorIs >()
                    .memberDeletes< &KivStageStatus::criticalAncestorDel,
                                    &KivStageStatus::criticalAncestorDelAll >()
                    .whenever( works ) ),
      handler< &KivStageStatus::handleDependency >( "handleDependency", "name" ),
      handler< &KivStageStatus::handleDependencyDel >( "handleDependencyDel", "name" ),
      handler< &KivStageStatus::handleEventDel >( "handleEventDel", "agentName" ),
      handler< &KivStageStatus::handleStage >( "handleStage", "name" ),
      handlers< String8, KivStageStatus, &KivStageStatus::handleCritical,
                &KivStageStatus::handleCritical >( "handleCritical", "name" ),
      handler< &KivStageStatus::handleTimeout >( "handleTimeout" ),
      ownKey< &KivStageStatus::fwkKey >(),
   },
   works );

bool eventWorks( PtrInterface const & object ) {
   auto const & reactor = static_cast< KivEventConfig const & >( object );
   return reactor.notifier() && reactor.kivStageStatus() && reactor.kivStageStatus()->configSm();
}
constexpr auto eventConfigRows = machineTable< KivEventConfig >(
   {
      fixed< &KivEventConfig::notifier >( "eventConfig", "Kiv::Ptr<Stage::EventConfig const>" ),
      handlers< String8, KivEventConfig, &KivEventConfig::handleDependency,
                &KivEventConfig::handleDependency >( "handleDependency", "name" ),
      handler< &KivEventConfig::handleTimeout >( "handleTimeout" ),
      handler< &KivEventConfig::handleCritical >( "handleCritical" ),
      ownKey< &KivEventConfig::fwkKey >(),
   },
   &eventWorks );

} // namespace

KivType const & ConfigSm::_fwkType() { return typeOf< rows >( "Stage::ConfigSm" ); }
KivType const & KivAgentConfig::_fwkType() {
   return typeOf< agentConfigRows >( "Stage::ConfigSm::KivAgentConfig" );
}
KivType const & KivStageStatus::_fwkType() {
   return typeOf< stageStatusRows >( "Stage::ConfigSm::KivStageStatus" );
}
KivType const & KivEventConfig::_fwkType() {
   return typeOf< eventConfigRows >( "Stage::ConfigSm::KivStageStatus::KivEventConfig" );
}

// --------------------------------------------------------------- KivAgentConfig, KivStatus

KivAgentConfig::KivAgentConfig( Ptr< AgentConfig const > const & agent, ConfigSm * configSm )
   : OwnedReactor( agent, configSm, valid( agent )->name() ) {
   KeepDuringConstruction const keep( *this );
   handleEvent();
}

// --------------------------------------------------------------------------- KivStageStatus

KivStageStatus::KivStageStatus( Ptr< StageStatus > const & stage, ConfigSm * configSm )
   : OwnedReactor( stage, configSm, valid( stage )->name() ) {
   KeepDuringConstruction const keep( *this );
   link();
   reconcileEvents();
   handleCritical();
}
KivStageStatus::~KivStageStatus() {
   kivDoZombieReactors( true );
   eventConfigDelAll();
}

Ptr< KivEventConfig > KivStageStatus::eventConfigIs( Ptr< EventConfig const > const & event ) {
   valid( event, "null _eventConfig parameter to mutator for "
                 "Stage::ConfigSm::KivStageStatus::eventConfig not allowed" );
   return eventConfig_.memberIs( event->agent(), event, [ & ] { return newEventConfig( event ); } );
}

bool KivStageStatus::criticalAncestor( String8 const & name ) const {
   Ptr< KivCriticalAncestor > const entry = criticalAncestor_.member( name );
   return entry && entry->criticalAncestor();
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
   : OwnedReactor( event, kivStageStatus, valid( event )->agent() ) {
   KeepDuringConstruction const keep( *this );
   handleAll();
}

void KivEventConfig::handleAll() {
   handleDependency();
   handleTimeout();
   handleCritical();
}

void KivEventConfig::notifierIs( Ptr< PtrInterface const > const & event ) {
   attachAndReact( event, [ & ] {
      if( event )
         handleAll();
   } );
}

// --------------------------------------------------------------------------------- ConfigSm

ConfigSm::ConfigSm( Ptr< Config const > const & config, Ptr< Status > const & status,
                    Ptr< Dir const > const & agentDir )
   : dependents_( new Dependents ) {
   KeepDuringConstruction const keep( *this );
   Config::NotifieeConst::notifierIs( config );
   deliveredUntilDoneIs( true );
   status_.reactorIs( newStatus( status ) );
   agentDir_.reactorIs( newAgentDir( agentDir ) );
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
   status_.ownerGoes();
   agentDir_.ownerGoes();
   agentConfigDelAll();
   stageStatusDelAll();
}

void ConfigSm::notifierIs( Ptr< PtrInterface const > const & config ) {
   if( notifierPtr() == config )
      return;
   Config::NotifieeConst::notifierIs( config );
   isRegisteredNotifieeIs( true );
}

Ptr< KivAgentConfig > ConfigSm::agentConfigIs( Ptr< AgentConfig const > const & agent ) {
   valid( agent, "null _agentConfig parameter to mutator for Stage::ConfigSm::agentConfig "
                 "not allowed" );
   return agentConfig_.memberIs( agent->name(), agent, [ & ] { return newAgentConfig( agent ); } );
}
Ptr< KivStageStatus > ConfigSm::stageStatusIs( Ptr< StageStatus > const & stage ) {
   valid( stage, "null _stageStatus parameter to mutator for Stage::ConfigSm::stageStatus "
                 "not allowed" );
   return stageStatus_.memberIs( stage->name(), stage, [ & ] { return newStageStatus( stage ); } );
}
Ptr< AgentConfig > ConfigSm::agentEntry( Name const & agent ) const {
   return ptrCast< AgentConfig >( agentDir()->entityPtr( agent ) );
}

Ptr< ConfigSm > configSmFactory( Ptr< Config const > const & config, Ptr< Status > const & status,
                                 Ptr< Dir const > const & agentDir ) {
   Ptr< ConfigSm > const made = new ConfigSm( config, status, agentDir );
   made->hasNotificationActiveIs( true );
   return valid( made );
}

} // namespace Stage
