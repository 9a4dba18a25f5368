// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The entity types: for each its table of attributes, then its operations.
//
// A table's rows are numbered in order; the enumeration beside it names the rows that notify. The
// setters stand here and not in the headers, so that what compares doubles is compiled with this
// library's flags and not with the caller's.

#include <Stage/Stage.h>

#include <limits>

namespace Stage {

using Kiv::Attribute;
using Kiv::changes;
using Kiv::Delivery;
using Kiv::firstOwnAttribute;
using Kiv::members;
using Kiv::Name;
using Kiv::numbered;
using Kiv::Ptr;
using Kiv::Role;
using Kiv::String8;

namespace {

constexpr Kiv::AttributeId id( unsigned row ) {
   return static_cast< Kiv::AttributeId >( firstOwnAttribute + row );
}
constexpr Role tells = Role::value | Role::notifying;
constexpr Role keyedTells = Role::collection | Role::notifying;

} // namespace

// ----------------------------------------------------------------------------------- Config

namespace {
namespace config {
using N = Config::NotifieeConst;
enum { isNondestructing, agentDir, enabled };
constexpr Attribute rows[] = {
   { id( isNondestructing ), "isNondestructing", "bool", "", tells,
     changes< &N::onIsNondestructing >() },
   { id( agentDir ), "agentDir", "Kiv::Ptr<Kiv::Dir>", "", tells, changes< &N::onAgentDir >() },
   { id( enabled ), "enabled", "bool", "", tells, changes< &N::onEnabled >() },
};
static_assert( numbered( rows ) );
} // namespace config
} // namespace

void Config::NotifieeConst::onIsNondestructing() {}
void Config::NotifieeConst::onAgentDir() {}
void Config::NotifieeConst::onEnabled() {}

Ptr< Config > Config::ConfigIs( Name const & name ) { return new Config( name ); }
Config::Config( Name const & name ) : Entity( name ) {}
Config::~Config() = default;
void Config::isNondestructingIs( bool on ) {
   nondestructingIs( on, config::rows[ config::isNondestructing ] );
}
void Config::agentDirIs( Ptr< Kiv::Dir > const & dir ) {
   agentDir_.valueIs( *this, config::rows[ config::agentDir ], dir );
}
void Config::enabledIs( bool on ) {
   enabled_.valueIs( *this, config::rows[ config::enabled ], on );
}
Kiv::KivType const & Config::fwkType() const { return _fwkType(); }
Kiv::KivType const & Config::_fwkType() {
   static auto const & type =
      *new Kiv::KivType( "Stage::Config", &Entity::_fwkType(), config::rows );
   return type;
}

// ------------------------------------------------------------------------------ AgentConfig

namespace {
namespace agentConfig {
using N = AgentConfig::NotifieeConst;
enum { isNondestructing, event };
constexpr Attribute rows[] = {
   { id( isNondestructing ), "isNondestructing", "bool", "", tells,
     changes< &N::onIsNondestructing >() },
   { id( event ), "event", "Kiv::Ptr<Stage::EventConfig const>", "Kiv::Name", keyedTells,
     members< Name, N, &N::onEvent, &N::onEventkivImmediate, &N::onEvent >() },
};
static_assert( numbered( rows ) );
} // namespace agentConfig
} // namespace

void AgentConfig::NotifieeConst::onIsNondestructing() {}
void AgentConfig::NotifieeConst::onEvent( Name ) {}
void AgentConfig::NotifieeConst::onEventkivImmediate() {}
void AgentConfig::NotifieeConst::onEvent() {}

Ptr< AgentConfig > AgentConfig::AgentConfigIs( Name const & name ) {
   return new AgentConfig( name );
}
AgentConfig::AgentConfig( Name const & name ) : Entity( name ) {}
AgentConfig::~AgentConfig() = default;
void AgentConfig::isNondestructingIs( bool on ) {
   nondestructingIs( on, agentConfig::rows[ agentConfig::isNondestructing ] );
}
void AgentConfig::eventIs( Name const & stage, Ptr< EventConfig const > const & event ) {
   if( !event )
      Kiv::throwRangeException( "null ValidPtr" );
   if( stage.empty() )
      Kiv::throwRangeException( "empty name" );
   // Aggregation takes the stage from the key and the agent from the directory; an event that says
   // otherwise of itself would be pending under one uid and completed under another.
   if( event->agent() != String8( name() ) || event->uid() != stage + ":" + event->agent() )
      Kiv::throwRangeException( "event " + event->uid() + " cannot be declared for stage " +
                                String8( stage ) + " by agent " + String8( name() ) );
   event_.memberIs( *this, agentConfig::rows[ agentConfig::event ], stage, event );
}
void AgentConfig::eventDel( Name const & stage ) {
   event_.memberDel( *this, agentConfig::rows[ agentConfig::event ], stage );
}
void AgentConfig::eventDelAll() {
   event_.memberDelAll( *this, agentConfig::rows[ agentConfig::event ] );
}
Kiv::KivType const & AgentConfig::fwkType() const { return _fwkType(); }
Kiv::KivType const & AgentConfig::_fwkType() {
   static auto const & type =
      *new Kiv::KivType( "Stage::AgentConfig", &Entity::_fwkType(), agentConfig::rows );
   return type;
}

// ------------------------------------------------------------------------------ EventConfig

namespace {
namespace eventConfig {
using N = EventConfig::NotifieeConst;
enum { isNondestructing, uid, agent, dependency, timeout, critical, complete };
constexpr Attribute rows[] = {
   { id( isNondestructing ), "isNondestructing", "bool", "", tells,
     changes< &N::onIsNondestructing >() },
   { id( uid ), "uid", "Kiv::String8", "", Role::constructorArgument, {} },
   { id( agent ), "agent", "Kiv::String8", "", Role::constructorArgument, {} },
   { id( dependency ), "dependency", "bool", "Kiv::String8", keyedTells,
     members< String8, N, &N::onDependency, &N::onDependencykivImmediate, &N::onDependency >() },
   { id( timeout ), "timeout", "double", "", tells, changes< &N::onTimeout >() },
   { id( critical ), "critical", "bool", "", tells, changes< &N::onCritical >() },
   { id( complete ), "complete", "bool", "", tells, changes< &N::onComplete >() },
};
static_assert( numbered( rows ) );
} // namespace eventConfig
} // namespace

void EventConfig::NotifieeConst::onIsNondestructing() {}
void EventConfig::NotifieeConst::onComplete() {}
void EventConfig::NotifieeConst::onDependency( String8 ) {}
void EventConfig::NotifieeConst::onDependencykivImmediate() {}
void EventConfig::NotifieeConst::onDependency() {}
void EventConfig::NotifieeConst::onTimeout() {}
void EventConfig::NotifieeConst::onCritical() {}

Ptr< EventConfig > EventConfig::EventConfigIs( Name const & stage, Name const & agent ) {
   if( stage.empty() || agent.empty() )
      Kiv::throwRangeException( "empty name" );
   return new EventConfig( stage + ":" + String8( agent ), agent );
}
EventConfig::EventConfig( String8 const & uid, Name const & agent )
   : Entity( uid ), uid_( uid ), agent_( agent ),
     timeout_( std::numeric_limits< double >::infinity() ) {}
EventConfig::~EventConfig() = default;
void EventConfig::isNondestructingIs( bool on ) {
   nondestructingIs( on, eventConfig::rows[ eventConfig::isNondestructing ] );
}
void EventConfig::dependencyIs( String8 const & stage, bool counts ) {
   if( stage.empty() )
      Kiv::throwRangeException( "empty name" );
   dependency_.memberIs( *this, eventConfig::rows[ eventConfig::dependency ], stage, counts );
}
void EventConfig::dependencyDel( String8 const & stage ) {
   dependency_.memberDel( *this, eventConfig::rows[ eventConfig::dependency ], stage );
}
void EventConfig::dependencyDelAll() {
   dependency_.memberDelAll( *this, eventConfig::rows[ eventConfig::dependency ] );
}
void EventConfig::timeoutIs( double const & seconds ) {
   timeout_.valueIs( *this, eventConfig::rows[ eventConfig::timeout ], seconds );
}
void EventConfig::criticalIs( bool on ) {
   critical_.valueIs( *this, eventConfig::rows[ eventConfig::critical ], on );
}
void EventConfig::completeIs( bool on ) {
   complete_.valueIs( *this, eventConfig::rows[ eventConfig::complete ], on );
}
Kiv::KivType const & EventConfig::fwkType() const { return _fwkType(); }
Kiv::KivType const & EventConfig::_fwkType() {
   static auto const & type =
      *new Kiv::KivType( "Stage::EventConfig", &Entity::_fwkType(), eventConfig::rows );
   return type;
}

// ----------------------------------------------------------------------------------- Status

namespace {
namespace status {
using N = Status::NotifieeConst;
enum { isNondestructing, stage, activeStage, complete, progress, sorted };
constexpr Attribute rows[] = {
   { id( isNondestructing ), "isNondestructing", "bool", "", tells,
     changes< &N::onIsNondestructing >() },
   { id( stage ), "stage", "Kiv::Ptr<Stage::StageStatus>", "Kiv::Name", keyedTells,
     members< Name, N, &N::onStage, &N::onStagekivImmediate, &N::onStage >() },
   { id( activeStage ), "activeStage", "Kiv::Ptr<Stage::StageStatus>", "Kiv::Name", keyedTells,
     members< Name, N, &N::onActiveStage, &N::onActiveStagekivImmediate, &N::onActiveStage >() },
   { id( complete ), "complete", "bool", "", tells, changes< &N::onComplete >() },
   { id( progress ), "progress", "Kiv::Ptr<Stage::Progress>", "", tells,
     changes< &N::onProgress >() },
   { id( sorted ), "sorted", "bool", "", tells, changes< &N::onSorted >() },
};
static_assert( numbered( rows ) );
} // namespace status
} // namespace

void Status::NotifieeConst::onIsNondestructing() {}
void Status::NotifieeConst::onStage( Name ) {}
void Status::NotifieeConst::onStagekivImmediate() {}
void Status::NotifieeConst::onStage() {}
void Status::NotifieeConst::onActiveStage( Name ) {}
void Status::NotifieeConst::onActiveStagekivImmediate() {}
void Status::NotifieeConst::onActiveStage() {}
void Status::NotifieeConst::onProgress() {}
void Status::NotifieeConst::onSorted() {}
void Status::NotifieeConst::onComplete() {}

Ptr< Status > Status::StatusIs( Name const & name ) { return new Status( name ); }
Status::Status( Name const & name ) : Entity( name ) {}
Status::~Status() {
   // A stage that somebody still holds must not point to a parent that is gone.
   for( auto i = stage_.map().iterator(); i; ++i )
      i.ptr()->ownerGone();
}
void Status::isNondestructingIs( bool on ) {
   nondestructingIs( on, status::rows[ status::isNondestructing ] );
}
Ptr< StageStatus > Status::stageIs( Name const & name ) {
   if( Ptr< StageStatus > held = stage_.member( name ) )
      return held;
   Ptr< StageStatus > const made = new StageStatus( name );
   stage_.memberIs( *this, status::rows[ status::stage ], name, made );
   made->ownerIs( this, id( status::stage ) );
   return made;
}
void Status::stageDel( Name const & name ) {
   Ptr< StageStatus > const gone = stage_.member( name );
   if( !gone )
      return;
   Name const key = name; // the caller's may belong to the stage
   // Room for all three changes (two of ours), so that none can fail after another was made.
   Kiv::detail::makeRoom( 2 * Kiv::detail::itemsFor( *this, 1 ) +
                          Kiv::detail::itemsFor( *gone, 0 ) );
   activeStageDel( key );
   stage_.memberDel( *this, status::rows[ status::stage ], key );
   gone->ownerIs( nullptr, Kiv::noAttribute );
}
void Status::stageDelAll() {
   std::size_t items = 2 * stages() * Kiv::detail::itemsFor( *this, 1 );
   for( auto i = stageIteratorConst(); i; ++i )
      items += Kiv::detail::itemsFor( *i.ptr(), 0 );
   Kiv::detail::makeRoom( items );
   for( auto i = stageIterator(); i; ++i )
      stageDel( i.key() );
}
void Status::activeStageIs( Ptr< StageStatus > const & stage ) {
   if( !stage )
      Kiv::throwRangeException( "null ValidPtr" );
   if( stage_.member( stage->name() ) != stage )
      Kiv::throwRangeException( "stage " + stage->fullName() + " is no member of " + fullName() );
   activeStage_.memberIs( *this, status::rows[ status::activeStage ], stage->name(), stage );
}
void Status::activeStageDel( Name const & name ) {
   activeStage_.memberDel( *this, status::rows[ status::activeStage ], name );
}
void Status::activeStageDelAll() {
   activeStage_.memberDelAll( *this, status::rows[ status::activeStage ] );
}
void Status::completeIs( bool on ) {
   complete_.valueIs( *this, status::rows[ status::complete ], on );
}
void Status::progressIs( Ptr< Progress > const & progress ) {
   progress_.valueIs( *this, status::rows[ status::progress ], progress );
}
void Status::sortedIs( bool on ) { sorted_.valueIs( *this, status::rows[ status::sorted ], on ); }
Kiv::KivType const & Status::fwkType() const { return _fwkType(); }
Kiv::KivType const & Status::_fwkType() {
   static auto const & type =
      *new Kiv::KivType( "Stage::Status", &Entity::_fwkType(), status::rows );
   return type;
}

// ------------------------------------------------------------------------------ StageStatus

namespace {
namespace stageStatus {
using N = StageStatus::NotifieeConst;
enum { isNondestructing, name, event, dependency, timeout, critical };
constexpr Attribute rows[] = {
   { id( isNondestructing ), "isNondestructing", "bool", "", tells,
     changes< &N::onIsNondestructing >() },
   { id( name ), "name", "Kiv::Name", "", Role::constructorArgument, {} },
   { id( event ), "event", "Kiv::Ptr<Stage::EventConfig const>", "Kiv::String8", keyedTells,
     members< String8, N, &N::onEvent, &N::onEventkivImmediate, &N::onEvent >() },
   { id( dependency ), "dependency", "bool", "Kiv::String8", keyedTells,
     members< String8, N, &N::onDependency, &N::onDependencykivImmediate, &N::onDependency >() },
   { id( timeout ), "timeout", "double", "", tells, changes< &N::onTimeout >() },
   { id( critical ), "critical", "bool", "", tells, changes< &N::onCritical >() },
};
static_assert( numbered( rows ) );
} // namespace stageStatus
} // namespace

void StageStatus::NotifieeConst::onIsNondestructing() {}
void StageStatus::NotifieeConst::onDependency( String8 ) {}
void StageStatus::NotifieeConst::onDependencykivImmediate() {}
void StageStatus::NotifieeConst::onDependency() {}
void StageStatus::NotifieeConst::onEvent( String8 ) {}
void StageStatus::NotifieeConst::onEventkivImmediate() {}
void StageStatus::NotifieeConst::onEvent() {}
void StageStatus::NotifieeConst::onTimeout() {}
void StageStatus::NotifieeConst::onCritical() {}

StageStatus::StageStatus( Name const & name ) : Entity( name ) {}
StageStatus::~StageStatus() = default;
void StageStatus::isNondestructingIs( bool on ) {
   nondestructingIs( on, stageStatus::rows[ stageStatus::isNondestructing ] );
}
void StageStatus::eventIs( Ptr< EventConfig const > const & event ) {
   if( !event )
      Kiv::throwRangeException( "null ValidPtr" );
   event_.memberIs( *this, stageStatus::rows[ stageStatus::event ], event->agent(), event );
}
void StageStatus::eventDel( String8 const & agent ) {
   event_.memberDel( *this, stageStatus::rows[ stageStatus::event ], agent );
}
void StageStatus::eventDelAll() {
   event_.memberDelAll( *this, stageStatus::rows[ stageStatus::event ] );
}
void StageStatus::dependencyIs( String8 const & stage, bool counts ) {
   dependency_.memberIs( *this, stageStatus::rows[ stageStatus::dependency ], stage, counts );
}
void StageStatus::dependencyDel( String8 const & stage ) {
   dependency_.memberDel( *this, stageStatus::rows[ stageStatus::dependency ], stage );
}
void StageStatus::dependencyDelAll() {
   dependency_.memberDelAll( *this, stageStatus::rows[ stageStatus::dependency ] );
}
void StageStatus::timeoutIs( double const & seconds ) {
   timeout_.valueIs( *this, stageStatus::rows[ stageStatus::timeout ], seconds );
}
void StageStatus::criticalIs( bool on ) {
   critical_.valueIs( *this, stageStatus::rows[ stageStatus::critical ], on );
}
Kiv::KivType const & StageStatus::fwkType() const { return _fwkType(); }
Kiv::KivType const & StageStatus::_fwkType() {
   static auto const & type =
      *new Kiv::KivType( "Stage::StageStatus", &Entity::_fwkType(), stageStatus::rows );
   return type;
}

// --------------------------------------------------------------------------------- Progress

namespace {
namespace progress {
constexpr Attribute rows[] = {
   { id( 0 ), "isNondestructing", "bool", "", tells,
     changes< &Progress::NotifieeConst::onIsNondestructing >() },
   { id( 1 ), "stage", "bool", "Kiv::String8", Role::collection, {} },
};
static_assert( numbered( rows ) );
} // namespace progress
} // namespace

void Progress::NotifieeConst::onIsNondestructing() {}

Ptr< Progress > Progress::ProgressIs( Name const & name ) { return new Progress( name ); }
Progress::Progress( Name const & name ) : Entity( name ) {}
Progress::~Progress() = default;
void Progress::isNondestructingIs( bool on ) { nondestructingIs( on, progress::rows[ 0 ] ); }
void Progress::stageIs( String8 const & name, bool active ) {
   Kiv::detail::checkThread();
   stage_.memberIs( name, active );
}
void Progress::stageDel( String8 const & name ) {
   Kiv::detail::checkThread();
   stage_.memberDel( name );
}
void Progress::stageDelAll() {
   Kiv::detail::checkThread();
   stage_.clear();
}
Kiv::KivType const & Progress::fwkType() const { return _fwkType(); }
Kiv::KivType const & Progress::_fwkType() {
   static auto const & type =
      *new Kiv::KivType( "Stage::Progress", &Entity::_fwkType(), progress::rows );
   return type;
}

// -------------------------------------------------------------------------------------- Log

namespace {
namespace logRows {
constexpr Attribute rows[] = {
   { id( 0 ), "isNondestructing", "bool", "", tells,
     changes< &Log::NotifieeConst::onIsNondestructing >() },
   { id( 1 ), "log", "Stage::LogEntry", "", Role::queue, {} },
};
static_assert( numbered( rows ) );
} // namespace logRows
} // namespace

void Log::NotifieeConst::onIsNondestructing() {}

Ptr< Log > Log::LogIs( Name const & name ) { return new Log( name ); }
Log::Log( Name const & name ) : Entity( name ) {}
Log::~Log() = default;
void Log::isNondestructingIs( bool on ) { nondestructingIs( on, logRows::rows[ 0 ] ); }
void Log::logEnq( LogEntry const & entry ) {
   Kiv::detail::checkThread();
   log_.push_back( entry );
}
bool Log::logDeq( LogEntry & entry ) {
   Kiv::detail::checkThread();
   if( log_.empty() )
      return false;
   entry = log_.front();
   log_.pop_front();
   return true;
}
Kiv::KivType const & Log::fwkType() const { return _fwkType(); }
Kiv::KivType const & Log::_fwkType() {
   static auto const & type =
      *new Kiv::KivType( "Stage::Log", &Entity::_fwkType(), logRows::rows );
   return type;
}

} // namespace Stage
