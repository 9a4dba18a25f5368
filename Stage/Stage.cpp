// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The entity types: for each its table of attributes, then its operations.
//
// A table's rows are numbered in order; the enumeration beside it names the rows that notify. The
// setters stand here and not in the headers, so that what compares doubles is compiled with this
// library's flags and not with the caller's.

#include <Stage/Stage.h>

#include <Stage/detail/EventSummary.h>
#include <Stage/detail/StagesByAgent.h>

#include <Kiv/Reactor.h>

#include <limits>
#include <memory>
#include <vector>

namespace Stage {

using Kiv::Attribute;
using Kiv::changes;
using Kiv::Delivery;
using Kiv::keyed;
using Kiv::members;
using Kiv::Name;
using Kiv::numbered;
using Kiv::OnException;
using Kiv::Ptr;
using Kiv::reads;
using Kiv::Role;
using Kiv::String8;
using Kiv::value;

using detail::EventSummary;

namespace {

constexpr Role tells = Role::value | Role::notifying;
constexpr Kiv::Access nondestructing =
   Kiv::value< &Kiv::PtrInterface::isNondestructing, &Kiv::PtrInterface::isNondestructingIs >();
constexpr Role keyedTells = Role::collection | Role::notifying;

} // namespace

// ----------------------------------------------------------------------------------- Config

namespace {
namespace config {
using N = Config::NotifieeConst;
enum { isNondestructing, agentDir, enabled };
constexpr auto rows = numbered( {
   Attribute( "isNondestructing", "bool", "", tells, changes< &N::onIsNondestructing >(),
              nondestructing ),
   Attribute( "agentDir", "Kiv::Ptr<Kiv::Dir>", "", tells, changes< &N::onAgentDir >(),
              value< &Config::agentDir, &Config::agentDirIs >() ),
   Attribute( "enabled", "bool", "", tells, changes< &N::onEnabled >(),
              value< &Config::enabled, &Config::enabledIs >() ),
} );
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
   static Kiv::KivType const type( "Stage::Config", &Entity::_fwkType(), config::rows );
   return type;
}

// ------------------------------------------------------------------------------ AgentConfig

namespace {
namespace agentConfig {
using N = AgentConfig::NotifieeConst;
enum { isNondestructing, event };
constexpr auto rows = numbered( {
   Attribute( "isNondestructing", "bool", "", tells, changes< &N::onIsNondestructing >(),
              nondestructing ),
   Attribute( "event", "Kiv::Ptr<Stage::EventConfig const>", "Kiv::Name", keyedTells,
              members< Name, N, &N::onEvent, &N::onEventkivImmediate, &N::onEvent >(),
              keyed< &AgentConfig::event, &AgentConfig::events, &AgentConfig::eventIteratorConst >()
                 .memberWrites< &AgentConfig::eventIs >()
                 .memberDeletes< &AgentConfig::eventDel, &AgentConfig::eventDelAll >() ),
} );
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
   if( event->agent() != String8( name() ) || event->uid() != joined( stage, ":", event->agent() ) )
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
   static Kiv::KivType const type( "Stage::AgentConfig", &Entity::_fwkType(), agentConfig::rows );
   return type;
}

// ------------------------------------------------------------------------------ EventConfig

namespace {
namespace eventConfig {
using N = EventConfig::NotifieeConst;
enum { isNondestructing, uid, agent, dependency, timeout, critical, complete };
constexpr auto rows = numbered( {
   Attribute( "isNondestructing", "bool", "", tells, changes< &N::onIsNondestructing >(),
              nondestructing ),
   Attribute( "uid", "Kiv::String8", "", Role::constructorArgument, reads< &EventConfig::uid >() ),
   Attribute( "agent", "Kiv::String8", "", Role::constructorArgument,
              reads< &EventConfig::agent >() ),
   Attribute(
      "dependency", "bool", "Kiv::String8", keyedTells,
      members< String8, N, &N::onDependency, &N::onDependencykivImmediate, &N::onDependency >(),
      keyed< &EventConfig::dependency, &EventConfig::dependencys,
             &EventConfig::dependencyIteratorConst, &EventConfig::hasDependency >()
         .memberWrites< &EventConfig::dependencyIs >()
         .memberDeletes< &EventConfig::dependencyDel, &EventConfig::dependencyDelAll >() ),
   Attribute( "timeout", "double", "", tells, changes< &N::onTimeout >(),
              value< &EventConfig::timeout, &EventConfig::timeoutIs >() ),
   Attribute( "critical", "bool", "", tells, changes< &N::onCritical >(),
              value< &EventConfig::critical, &EventConfig::criticalIs >() ),
   Attribute( "complete", "bool", "", tells, changes< &N::onComplete >(),
              value< &EventConfig::complete, &EventConfig::completeIs >() ),
} );
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
   return new EventConfig( joined( stage, ":", agent ), agent );
}
EventConfig::EventConfig( String8 const & uid, Name const & agent )
   : Entity( uid ), agent_( agent ), timeout_( std::numeric_limits< double >::infinity() ) {}
EventConfig::~EventConfig() = default;
void EventConfig::isNondestructingIs( bool on ) {
   nondestructingIs( on, eventConfig::rows[ eventConfig::isNondestructing ] );
}
void EventConfig::dependencyIs( String8 const & stage, bool counts ) {
   if( stage.empty() )
      Kiv::throwRangeException( "empty name" );
   String8 const name = stage; // the caller's may belong to the entry
   bool const before = shares_ && dependency( name );
   if( !shares_ || before == counts ) {
      dependency_.memberIs( *this, eventConfig::rows[ eventConfig::dependency ], name, counts );
      return;
   }
   if( counts )
      EventSummary::dependencyAdd( shares_, name );
   {
      OnException const undo( [ & ] {
         if( counts )
            EventSummary::dependencyDel( shares_, name );
      } );
      dependency_.memberIs( *this, eventConfig::rows[ eventConfig::dependency ], name, counts );
   }
   if( !counts )
      EventSummary::dependencyDel( shares_, name );
}
void EventConfig::dependencyDel( String8 const & stage ) {
   String8 const name = stage; // the caller's may belong to the entry
   bool const before = shares_ && dependency( name );
   dependency_.memberDel( *this, eventConfig::rows[ eventConfig::dependency ], name );
   if( before )
      EventSummary::dependencyDel( shares_, name );
}
void EventConfig::dependencyDelAll() {
   std::vector< String8 > gone; // those that counted
   if( shares_ )
      for( auto i = dependencyIteratorConst(); i; ++i )
         if( i.value() )
            gone.push_back( i.key() );
   dependency_.memberDelAll( *this, eventConfig::rows[ eventConfig::dependency ] );
   for( String8 const & name : gone )
      EventSummary::dependencyDel( shares_, name );
}
void EventConfig::timeoutIs( double const & seconds ) {
   timeout_.valueIs( *this, eventConfig::rows[ eventConfig::timeout ], seconds );
   if( shares_ )
      EventSummary::timeoutChanged( shares_ );
}
void EventConfig::criticalIs( bool on ) {
   critical_.valueIs( *this, eventConfig::rows[ eventConfig::critical ], on );
   if( shares_ )
      EventSummary::criticalChanged( shares_ );
}
void EventConfig::completeIs( bool on ) {
   complete_.valueIs( *this, eventConfig::rows[ eventConfig::complete ], on );
}
Kiv::KivType const & EventConfig::fwkType() const { return _fwkType(); }
Kiv::KivType const & EventConfig::_fwkType() {
   static Kiv::KivType const type( "Stage::EventConfig", &Entity::_fwkType(), eventConfig::rows );
   return type;
}

// ----------------------------------------------------------------------------------- Status

namespace {
namespace status {
using N = Status::NotifieeConst;
enum { isNondestructing, stage, activeStage, complete, progress, sorted };
constexpr auto rows = numbered( {
   Attribute( "isNondestructing", "bool", "", tells, changes< &N::onIsNondestructing >(),
              nondestructing ),
   Attribute( "stage", "Kiv::Ptr<Stage::StageStatus>", "Kiv::Name", keyedTells,
              members< Name, N, &N::onStage, &N::onStagekivImmediate, &N::onStage >(),
              keyed< &Status::stage, &Status::stages, &Status::stageIteratorConst >()
                 .memberMakes< &Status::stageIs >()
                 .memberDeletes< &Status::stageDel, &Status::stageDelAll >() ),
   Attribute(
      "activeStage", "Kiv::Ptr<Stage::StageStatus>", "Kiv::Name", keyedTells,
      members< Name, N, &N::onActiveStage, &N::onActiveStagekivImmediate, &N::onActiveStage >(),
      keyed< &Status::activeStage, &Status::activeStages, &Status::activeStageIteratorConst >()
         .memberWritesUnder< &Status::activeStageIs, &StageStatus::name >()
         .memberDeletes< &Status::activeStageDel, &Status::activeStageDelAll >() ),
   Attribute( "complete", "bool", "", tells, changes< &N::onComplete >(),
              value< &Status::complete, &Status::completeIs >() ),
   Attribute( "progress", "Kiv::Ptr<Stage::Progress>", "", tells, changes< &N::onProgress >(),
              value< &Status::progress, &Status::progressIs >() ),
   Attribute( "sorted", "bool", "", tells, changes< &N::onSorted >(),
              value< &Status::sorted, &Status::sortedIs >() ),
} );
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
Status::Status( Name const & name ) : Entity( name ), byAgent_( new detail::StagesByAgent ) {}
Status::~Status() {
   indexes_.each( [ this ]( StatusIndex & index ) {
      indexDel( index );
      index.statusGoes();
   } );
   // A stage that somebody still holds must not point to what is gone.
   for( auto i = stage_.map().iterator(); i; ++i ) {
      i.ptr()->ownerGone( *this );
      i.ptr()->status_ = nullptr;
   }
   delete byAgent_;
}
void Status::isNondestructingIs( bool on ) {
   nondestructingIs( on, status::rows[ status::isNondestructing ] );
}
Ptr< StageStatus > Status::stageIs( Name const & name ) {
   if( Ptr< StageStatus > held = stage_.member( name ) )
      return held;
   Ptr< StageStatus > const made = new StageStatus( name );
   stage_.memberIs( *this, status::rows[ status::stage ], name, made );
   made->ownerIs( this, status::rows[ status::stage ].id );
   made->status_ = this;
   indexes_.each( [ & ]( StatusIndex & index ) { index.stageCame( *made ); } );
   return made;
}
void Status::stageDel( Name const & name ) {
   Ptr< StageStatus > const gone = stage_.member( name );
   if( !gone )
      return;
   Name const key = name; // the caller's may belong to the stage
   // Room for all three changes (two of ours), so that none can fail after another was made.
   Kiv::makeRoom( 2 * Kiv::itemsFor( *this, 1 ) + Kiv::itemsFor( *gone, 0 ) );
   activeStageDel( key );
   stage_.memberDel( *this, status::rows[ status::stage ], key );
   for( auto i = gone->eventIteratorConst(); i; ++i )
      byAgent_->del( i.key(), key );
   gone->status_ = nullptr;
   indexes_.each( [ & ]( StatusIndex & index ) { index.stageWent( *gone ); } );
   if( gone->isChildOf( *this ) ) // somebody may have given it another parent
      gone->ownerIs( nullptr, Kiv::noAttribute );
}
void Status::stageDelAll() {
   std::size_t items = 2 * stages() * Kiv::itemsFor( *this, 1 );
   for( auto i = stageIteratorConst(); i; ++i )
      items += Kiv::itemsFor( *i.ptr(), 0 );
   Kiv::makeRoom( items );
   for( auto i = stageIterator(); i; ++i )
      stageDel( i.key() );
}
Status::EventStageIteratorConst Status::eventStageIteratorConst( String8 const & agent ) const {
   if( auto const stages = byAgent_->of( agent ) )
      return { stages.get(), stages->names };
   return { this, byAgent_->none };
}
void Status::activeStageIs( Ptr< StageStatus > const & stage ) {
   if( !stage )
      Kiv::throwRangeException( "null ValidPtr" );
   if( stage_.member( stage->name() ) != stage )
      Kiv::throwRangeException( "stage " + stage->fullName() + " is no member of " + fullName() );
   Ptr< StageStatus > const kept = stage; // the caller's may belong to what goes
   activeStage_.memberIs( *this, status::rows[ status::activeStage ], kept->name(), kept );
   activeChanged( *kept );
}
void Status::activeStageDel( Name const & name ) {
   Ptr< StageStatus > const gone = activeStage_.member( name );
   activeStage_.memberDel( *this, status::rows[ status::activeStage ], name );
   if( gone )
      activeChanged( *gone );
}
void Status::activeStageDelAll() {
   std::vector< Ptr< StageStatus > > gone;
   if( indexes_ )
      for( auto i = activeStageIterator(); i; ++i )
         gone.push_back( i.ptr() );
   activeStage_.memberDelAll( *this, status::rows[ status::activeStage ] );
   for( Ptr< StageStatus > const & stage : gone )
      activeChanged( *stage );
}
void Status::activeChanged( StageStatus & stage ) {
   indexes_.each( [ & ]( StatusIndex & index ) { index.activeChanged( stage ); } );
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
   static Kiv::KivType const type( "Stage::Status", &Entity::_fwkType(), status::rows );
   return type;
}

// ------------------------------------------------------------------------------ StageStatus

namespace {
namespace stageStatus {
using N = StageStatus::NotifieeConst;
enum { isNondestructing, name, event, dependency, timeout, critical };
constexpr auto rows = numbered( {
   Attribute( "isNondestructing", "bool", "", tells, changes< &N::onIsNondestructing >(),
              nondestructing ),
   Attribute( "name", "Kiv::Name", "", Role::constructorArgument, reads< &StageStatus::name >() ),
   Attribute( "event", "Kiv::Ptr<Stage::EventConfig const>", "Kiv::String8", keyedTells,
              members< String8, N, &N::onEvent, &N::onEventkivImmediate, &N::onEvent >(),
              keyed< &StageStatus::event, &StageStatus::events, &StageStatus::eventIteratorConst >()
                 .memberWritesUnder< &StageStatus::eventIs, &EventConfig::agent >()
                 .memberDeletes< &StageStatus::eventDel, &StageStatus::eventDelAll >() ),
   Attribute(
      "dependency", "bool", "Kiv::String8", keyedTells,
      members< String8, N, &N::onDependency, &N::onDependencykivImmediate, &N::onDependency >(),
      keyed< &StageStatus::dependency, &StageStatus::dependencys,
             &StageStatus::dependencyIteratorConst, &StageStatus::hasDependency >()
         .memberWrites< &StageStatus::dependencyIs >()
         .memberDeletes< &StageStatus::dependencyDel, &StageStatus::dependencyDelAll >() ),
   Attribute( "timeout", "double", "", tells, changes< &N::onTimeout >(),
              value< &StageStatus::timeout, &StageStatus::timeoutIs >() ),
   Attribute( "critical", "bool", "", tells, changes< &N::onCritical >(),
              value< &StageStatus::critical, &StageStatus::criticalIs >() ),
} );
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
StageStatus::~StageStatus() { dropSummary(); }
void StageStatus::isNondestructingIs( bool on ) {
   nondestructingIs( on, stageStatus::rows[ stageStatus::isNondestructing ] );
}
void StageStatus::eventIs( Ptr< EventConfig const > const & event ) {
   if( !event )
      Kiv::throwRangeException( "null ValidPtr" );
   Ptr< EventConfig const > const comes = event; // the caller's may belong to what goes
   Ptr< EventConfig const > const before = event_.member( comes->agent() );
   if( before == comes )
      return;
   eventComes( *comes, !before );
   {
      OnException const undo( [ & ] { eventHasGone( *comes, !before ); } );
      event_.memberIs( *this, stageStatus::rows[ stageStatus::event ], comes->agent(), comes );
   }
   if( before )
      eventHasGone( *before, false );
}
void StageStatus::eventDel( String8 const & agent ) {
   Ptr< EventConfig const > const gone = event_.member( agent );
   if( !gone )
      return;
   event_.memberDel( *this, stageStatus::rows[ stageStatus::event ], gone->agent() );
   eventHasGone( *gone, true );
}
void StageStatus::eventDelAll() {
   if( events() == 0 )
      return;
   Kiv::checkThread( *this, "event" );
   // Room for the change, so that it cannot fail when the events are as good as gone.
   Kiv::makeRoom( Kiv::itemsFor( *this, events() ) );
   dropSummary();
   if( status_ )
      for( auto i = eventIteratorConst(); i; ++i )
         status_->byAgent_->del( i.key(), name() );
   event_.memberDelAll( *this, stageStatus::rows[ stageStatus::event ] );
}
// All that needs memory, before an event comes. What throws std::bad_alloc has changed nothing.
void StageStatus::eventComes( EventConfig const & event, bool ofNewAgent ) {
   bool const indexed = ofNewAgent && status_;
   if( indexed )
      status_->byAgent_->add( event.agent(), name() );
   OnException const undo( [ & ] {
      if( indexed )
         status_->byAgent_->del( event.agent(), name() );
   } );
   if( !eventSummary_ && events() + 1 >= EventSummary::many )
      summarizeEvents();
   if( eventSummary_ )
      eventSummary_->eventAdd( event );
}
void StageStatus::eventHasGone( EventConfig const & event, bool withAgent ) noexcept {
   if( eventSummary_ )
      eventSummary_->eventDel( event );
   if( withAgent && status_ )
      status_->byAgent_->del( event.agent(), name() );
   if( events() < EventSummary::few )
      dropSummary();
}
void StageStatus::summarizeEvents() {
   std::unique_ptr< EventSummary > all( new EventSummary( *this ) );
   for( auto i = eventIteratorConst(); i; ++i )
      all->eventAdd( *i.ptr() );
   eventSummary_ = all.release();
}
void StageStatus::dropSummary() noexcept {
   delete eventSummary_;
   eventSummary_ = nullptr;
}
void StageStatus::dependencyIs( String8 const & stage, bool counts ) {
   String8 const key = stage; // the caller's may belong to the entry
   bool const comes = ( eventSummary_ || indexes_ ) && !hasDependency( key );
   dependency_.memberIs( *this, stageStatus::rows[ stageStatus::dependency ], key, counts );
   if( !comes )
      return;
   if( eventSummary_ )
      eventSummary_->stageDependencyCame( key );
   indexes_.each( [ & ]( StageIndex & index ) { index.dependencyCame( key ); } );
}
void StageStatus::dependencyDel( String8 const & stage ) {
   String8 const key = stage; // the caller's may belong to the entry
   if( !dependency_.memberDel( *this, stageStatus::rows[ stageStatus::dependency ], key ) )
      return;
   if( eventSummary_ )
      eventSummary_->stageDependencyWent( key );
   indexes_.each( [ & ]( StageIndex & index ) { index.dependencyWent( key ); } );
}
void StageStatus::dependencyDelAll() {
   std::vector< String8 > gone;
   if( indexes_ )
      for( auto i = dependencyIterator(); i; ++i )
         gone.push_back( i.key() );
   dependency_.memberDelAll( *this, stageStatus::rows[ stageStatus::dependency ] );
   if( eventSummary_ )
      eventSummary_->stageDependencysWent();
   for( String8 const & stage : gone )
      indexes_.each( [ & ]( StageIndex & index ) { index.dependencyWent( stage ); } );
}
void StageStatus::timeoutIs( double const & seconds ) {
   timeout_.valueIs( *this, stageStatus::rows[ stageStatus::timeout ], seconds );
}
void StageStatus::criticalIs( bool on ) {
   critical_.valueIs( *this, stageStatus::rows[ stageStatus::critical ], on );
   indexes_.each( []( StageIndex & index ) { index.criticalChanged(); } );
}
Ptr< EventConfig const > StageStatus::firstCriticalEvent() const {
   if( eventSummary_ )
      return eventSummary_->firstCritical();
   for( auto i = event_.map().iterator(); i; ++i )
      if( Ptr< EventConfig const > const event = i.ptr(); event->critical() )
         return event;
   return nullptr;
}
bool StageStatus::eventsDependOn( String8 const & stage ) const {
   if( eventSummary_ )
      return eventSummary_->holds( stage );
   for( auto i = event_.map().iterator(); i; ++i )
      if( i.ptr()->dependency( stage ) )
         return true;
   return false;
}
bool StageStatus::dependencysAreOfEvents() const {
   return eventSummary_ && eventSummary_->holdsAll();
}
double StageStatus::longestEventTimeout() const {
   return eventSummary_ ? eventSummary_->longestTimeout()
                        : std::numeric_limits< double >::quiet_NaN();
}
Kiv::KivType const & StageStatus::fwkType() const { return _fwkType(); }
Kiv::KivType const & StageStatus::_fwkType() {
   static Kiv::KivType const type( "Stage::StageStatus", &Entity::_fwkType(), stageStatus::rows );
   return type;
}

// --------------------------------------------------------------------------------- Progress

namespace {
namespace progress {
constexpr auto rows = numbered( {
   Attribute( "isNondestructing", "bool", "", tells,
              changes< &Progress::NotifieeConst::onIsNondestructing >(), nondestructing ),
   Attribute( "stage", "bool", "Kiv::String8", Role::collection,
              keyed< &Progress::stage, &Progress::stages, &Progress::stageIteratorConst,
                     &Progress::hasStage >()
                 .memberWrites< &Progress::stageIs >()
                 .memberDeletes< &Progress::stageDel, &Progress::stageDelAll >() ),
} );
} // namespace progress
} // namespace

void Progress::NotifieeConst::onIsNondestructing() {}

Ptr< Progress > Progress::ProgressIs( Name const & name ) { return new Progress( name ); }
Progress::Progress( Name const & name ) : Entity( name ) {}
Progress::~Progress() = default;
void Progress::isNondestructingIs( bool on ) { nondestructingIs( on, progress::rows[ 0 ] ); }
void Progress::stageIs( String8 const & name, bool active ) {
   Kiv::checkThread( *this, "stage" );
   stage_.memberIs( name, active );
}
void Progress::stageDel( String8 const & name ) {
   Kiv::checkThread( *this, "stage" );
   stage_.memberDel( name );
}
void Progress::stageDelAll() {
   Kiv::checkThread( *this, "stage" );
   stage_.clear();
}
Kiv::KivType const & Progress::fwkType() const { return _fwkType(); }
Kiv::KivType const & Progress::_fwkType() {
   static Kiv::KivType const type( "Stage::Progress", &Entity::_fwkType(), progress::rows );
   return type;
}

// -------------------------------------------------------------------------------------- Log

namespace {
namespace logRows {

// An entry by name is a list of its two parts; the entries are read by their places, the oldest
// first, and written at the end.
Kiv::Value entryValue( LogEntry const & entry ) {
   return Kiv::List_{ { "time", entry.time }, { "msg", entry.msg } };
}
Log const & logOf( Kiv::PtrInterface const & object ) {
   return static_cast< Log const & >( object );
}

Kiv::Value entryAt( Kiv::PtrInterface const & object, Kiv::Text const & place ) {
   Log const & log = logOf( object );
   auto const number = Kiv::valueFromString< unsigned int >( String8( place ) );
   return number < log.logs() ? entryValue( log.log( number ) ) : Kiv::Value();
}

void append( Kiv::PtrInterface & object, String8 const & name, Kiv::Value const & value ) {
   Kiv::List_ const & parts = Kiv::listFromValue( name, value );
   Kiv::Value const * const time = parts.value( "time" );
   Kiv::Value const * const msg = parts.value( "msg" );
   if( !time || !msg || parts.size() != 2 )
      Kiv::GenericIf::throwUnknownArgException( name, "an entry has time and msg" );
   LogEntry const entry{ Kiv::fromValue< double >( "time", *time ),
                         Kiv::fromValue< String8 >( "msg", *msg ) };
   static_cast< Log & >( object ).logEnq( entry );
}

class PlaceWalk : public Kiv::KeyWalk {
 public:
   explicit PlaceWalk( Log const & log ) : log_( &log ) {}
   bool stands() const override { return place_ < log_->logs(); }
   String8 key() const override { return Kiv::valueToString( place_ ); }
   void advance() override { ++place_; }
   void reset() override { place_ = 0; }

 private:
   Ptr< Log const > log_;
   unsigned int place_ = 0;
};

constexpr Kiv::Access entries() {
   Kiv::Access access;
   access.member = &entryAt;
   access.write = &append;
   access.count = []( Kiv::PtrInterface const & object ) {
      return static_cast< std::uint32_t >( logOf( object ).logs() );
   };
   access.walk = []( Kiv::PtrInterface const & object ) -> Kiv::KeyWalk * {
      return new PlaceWalk( logOf( object ) );
   };
   return access;
}

constexpr auto rows = numbered( {
   Attribute( "isNondestructing", "bool", "", tells,
              changes< &Log::NotifieeConst::onIsNondestructing >(), nondestructing ),
   Attribute( "log", "Stage::LogEntry", "", Role::queue, entries() ),
} );
} // namespace logRows
} // namespace

void Log::NotifieeConst::onIsNondestructing() {}

Ptr< Log > Log::LogIs( Name const & name ) { return new Log( name ); }
Log::Log( Name const & name ) : Entity( name ) {}
Log::~Log() = default;
void Log::isNondestructingIs( bool on ) { nondestructingIs( on, logRows::rows[ 0 ] ); }
void Log::logEnq( LogEntry const & entry ) {
   Kiv::checkThread( *this, "log" );
   log_.push_back( entry );
}
bool Log::logDeq( LogEntry & entry ) {
   Kiv::checkThread( *this, "log" );
   if( log_.empty() )
      return false;
   entry = log_.front();
   log_.pop_front();
   return true;
}
LogEntry const & Log::log( std::size_t place ) const {
   if( place >= log_.size() )
      Kiv::throwRangeException( "the log has no entry " + std::to_string( place ) +
                                " after the oldest, it has " + std::to_string( log_.size() ) );
   return log_[ place ];
}
Kiv::KivType const & Log::fwkType() const { return _fwkType(); }
Kiv::KivType const & Log::_fwkType() {
   static Kiv::KivType const type( "Stage::Log", &Entity::_fwkType(), logRows::rows );
   return type;
}

// ----------------------------------------------------------------------------- registration

namespace {

// When the library is loaded. Types are never destroyed.
[[maybe_unused]] bool const registered = [] {
   for( Kiv::KivType const * type :
        { &Config::_fwkType(), &AgentConfig::_fwkType(), &EventConfig::_fwkType(),
          &Status::_fwkType(), &StageStatus::_fwkType(), &Progress::_fwkType(), &Log::_fwkType() } )
      Kiv::typeNodeIs( *type );
   return true;
}();

} // namespace

} // namespace Stage
