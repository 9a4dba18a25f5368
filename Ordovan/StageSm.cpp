// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// StageSm's plumbing; its handlers are in Ordovan.cpp.

#include <Ordovan/StageSm.h>

#include <Ordovan/StatusSm.h>
#include <Ordovan/detail/OnException.h>

#include <Kiv/Access.h>
#include <Kiv/Exception.h>

namespace Stage {

using Kiv::Attribute;
using Kiv::changes;
using Kiv::keyed;
using Kiv::members;
using Kiv::Ptr;
using Kiv::PtrInterface;
using Kiv::reads;
using Kiv::Role;
using Kiv::String8;

namespace {

using N = StageSm::NotifieeConst;
constexpr Role tells = Role::value | Role::notifying;
constexpr Role keyedTells = Role::collection | Role::reactor | Role::notifying;
enum : unsigned {
   stage,
   logSm,
   name,
   complete,
   timedOut,
   completionTime,
   pendingEvent,
   handlePendingEvent,
   handleEventDel,
   event,
   stageUncompleted,
   handleStageUncompleted,
   initialized,
};

// By name only an event that the stage has can be written, and under its own key: for any other
// nobody would ever tell that it is complete, and it would be pending for ever.
template< auto keyOf >
Ptr< EventConfig const > ownEvent( StageSm const & sm, Kiv::Text const & key,
                                   String8 const & attribute, Kiv::Value const & value ) {
   auto const given =
      Kiv::valid( Kiv::detail::fromValue< Ptr< EventConfig const > >( attribute, value ) );
   String8 const own = ( given.get()->*keyOf )();
   if( !( own == key ) )
      Kiv::detail::throwOtherKey( key, own );
   if( sm.stage()->event( given->agent() ) != given )
      Kiv::throwRangeException( "event " + given->uid() + " is not the one that stage " +
                                String8( sm.stage()->name() ) + " has of that agent" );
   return given;
}
void eventWith( PtrInterface & object, Kiv::Text const & key, String8 const & attribute,
                Kiv::Value const & value ) {
   auto & sm = static_cast< StageSm & >( object );
   auto const given = ownEvent< &EventConfig::agent >( sm, key, attribute, value );
   sm.eventIs( given->agent(), given );
}
void pendingEventWith( PtrInterface & object, Kiv::Text const & key, String8 const & attribute,
                       Kiv::Value const & value ) {
   auto & sm = static_cast< StageSm & >( object );
   sm.pendingEventIs( ownEvent< &EventConfig::uid >( sm, key, attribute, value ) );
}

// Whether the handlers have what they need: an object that somebody kept can have lost both.
bool works( PtrInterface const & object ) {
   auto const & sm = static_cast< StageSm const & >( object );
   return sm.mainSm() && sm.stage();
}

constexpr auto rows = Kiv::numbered( {
   Attribute( "stage", "Kiv::Ptr<Stage::StageStatus const>", "", Role::constructorArgument,
              reads< &StageSm::stage >() ),
   Attribute( "logSm", "Kiv::Ptr<Stage::LogSm>", "", Role::constructorArgument,
              reads< &StageSm::logSm >() ),
   Attribute( "name", "Kiv::Name", "", Role::value, reads< &StageSm::name >() ),
   Attribute( "complete", "bool", "", tells, changes< &N::onComplete >(),
              Kiv::value< &StageSm::complete, &StageSm::completeIs >() ),
   Attribute( "timedOut", "bool", "", tells, changes< &N::onTimedOut >(),
              Kiv::value< &StageSm::timedOut, &StageSm::timedOutIs >() ),
   Attribute( "completionTime", "double", "", tells, changes< &N::onCompletionTime >(),
              Kiv::value< &StageSm::completionTime, &StageSm::completionTimeIs >() ),
   Attribute( "pendingEvent", "Stage::EventConfig", "Kiv::String8", keyedTells,
              members< String8, N, &N::onPendingEvent, &N::onPendingEventkivImmediate,
                       &N::onPendingEvent >(),
              keyed< &StageSm::pendingEvent, &StageSm::pendingEvents,
                     &StageSm::pendingEventIteratorConst >()
                 .memberWritesWith< Ptr< EventConfig const > >( &pendingEventWith )
                 .memberDeletes< &StageSm::pendingEventDel, &StageSm::pendingEventDelAll >()
                 .whenever( &works ) ),
   Attribute( "handlePendingEvent", "", "Kiv::String8", Role::handler,
              Kiv::callsEither< Kiv::overload< void( String8 ) >( &StageSm::handlePendingEvent ),
                                Kiv::overload< void() >( &StageSm::handlePendingEvent ) >( "uid" )
                 .whenever( &works ) ),
   Attribute( "handleEventDel", "", "Kiv::String8", Role::handler,
              Kiv::calls< &StageSm::handleEventDel >( "agentName" ).whenever( &works ) ),
   Attribute( "event", "Stage::EventConfig", "Kiv::String8", keyedTells,
              members< String8, N, &N::onEvent, &N::onEventkivImmediate, &N::onEvent >(),
              keyed< &StageSm::event, &StageSm::events, &StageSm::eventIteratorConst >()
                 .memberWritesWith< Ptr< EventConfig const > >( &eventWith )
                 .memberDeletes< &StageSm::eventDel, &StageSm::eventDelAll >()
                 .whenever( &works ) ),
   Attribute( "stageUncompleted", "Kiv::Clock", "", Role::reactor | Role::notifying,
              changes< &N::onStageUncompleted >(), reads< &StageSm::stageUncompleted >() ),
   Attribute( "handleStageUncompleted", "", "", Role::handler,
              Kiv::calls< &StageSm::handleStageUncompleted >().whenever( &works ) ),
   Attribute( "initialized", "bool", "", tells, changes< &N::onInitialized >(),
              Kiv::value< &StageSm::initialized, &StageSm::initializedIs >() ),
   Attribute( "handleInitialized", "", "", Role::handler,
              Kiv::calls< &StageSm::handleInitialized >().whenever( &works ) ),
   Attribute( "mainSm", "Stage::StatusSm*", "", Role::constructorArgument,
              reads< &StageSm::mainSm >() ),
   Attribute( "fwkKey", "Kiv::Name", "", Role::framework, reads< &StageSm::fwkKey >() ),
   Attribute( "kivFwkActivity", "Kiv::Ptr<Kiv::ActivityConfig>", "", Role::framework,
              Kiv::activity() ),
   Kiv::notificationSwitch(),
   Kiv::zombieSwitch< StageSm >(),
} );

// ---- the nested reactors

namespace eventRows {

using Reactor = StageSm::KivEvent;
bool reports( PtrInterface const & object ) {
   auto const & reactor = static_cast< Reactor const & >( object );
   return reactor.stageSm() && reactor.event();
}
constexpr auto rows = Kiv::numbered( {
   Attribute( "event", "Kiv::Ptr<Stage::EventConfig const>", "", Role::constructorArgument,
              reads< &Reactor::event >() ),
   Attribute( "handleComplete", "", "", Role::handler,
              Kiv::calls< &Reactor::handleComplete >().whenever( &reports ) ),
   Attribute( "fwkKey", "Kiv::String8", "", Role::framework, reads< &Reactor::fwkKey >() ),
   Kiv::notificationSwitch(),
   Kiv::zombieSwitch< Reactor >(),
} );

} // namespace eventRows

namespace pendingEventRows {

constexpr auto rows = Kiv::numbered( {
   Attribute( "pendingEvent", "Kiv::Ptr<Stage::EventConfig const>", "", Role::constructorArgument,
              reads< &StageSm::KivPendingEvent::pendingEvent >() ),
} );

} // namespace pendingEventRows

namespace timerRows {

using Reactor = StageSm::KivStageUncompleted;
constexpr auto rows = Kiv::numbered( {
   Attribute( "clock", "Kiv::Ptr<Kiv::Clock const>", "", Role::constructorArgument,
              reads< &Reactor::notifier >() ),
   Attribute( "timeMin", "double", "", Role::value,
              Kiv::value< &Reactor::timeMin, &Reactor::timeMinIs >() ),
   Kiv::notificationSwitch(),
   Kiv::zombieSwitch< Reactor >(),
} );

} // namespace timerRows

} // namespace

void StageSm::NotifieeConst::onComplete() {}
void StageSm::NotifieeConst::onTimedOut() {}
void StageSm::NotifieeConst::onCompletionTime() {}
void StageSm::NotifieeConst::onPendingEvent( String8 ) {}
void StageSm::NotifieeConst::onPendingEventkivImmediate() {}
void StageSm::NotifieeConst::onPendingEvent() {}
void StageSm::NotifieeConst::onEvent( String8 ) {}
void StageSm::NotifieeConst::onEventkivImmediate() {}
void StageSm::NotifieeConst::onEvent() {}
void StageSm::NotifieeConst::onStageUncompleted() {}
void StageSm::NotifieeConst::onInitialized() {}

// --------------------------------------------------------------------------------- KivEvent

StageSm::KivEvent::KivEvent( Ptr< EventConfig const > const & event, String8 const & key,
                             StageSm * stageSm )
   : stageSm_( stageSm ), key_( key ) {
   Kiv::KeepDuringConstruction const keep( *this );
   EventConfig::NotifieeConst::notifierIs( event );
   deliveredUntilDoneIs( true );
   isRegisteredNotifieeIs( true );
   handleComplete();
}
StageSm::KivEvent::~KivEvent() { kivDoZombieReactors( true ); }

void StageSm::KivEvent::notifierIs( Ptr< PtrInterface const > const & event ) {
   if( notifierPtr() == event )
      return;
   detail::reattach< EventConfig::NotifieeConst >( *this, event, [ & ] {
      if( !event || kivMarkedForDeletion() )
         return;
      isRegisteredNotifieeIs( true );
      handleComplete();
   } );
}

void StageSm::KivEvent::onComplete() {
   Kiv::detail::toOwner( *this, stageSm_, [ & ]( StageSm & ) { handleComplete(); } );
}

void StageSm::KivEvent::kivDoZombieReactors( bool zombie ) {
   Kiv::detail::doZombieReactors( *this, zombie, []( bool ) {} );
}

StageSm::KivPendingEvent::KivPendingEvent( Ptr< EventConfig const > const & event )
   : event_( event ) {}
StageSm::KivPendingEvent::~KivPendingEvent() = default;

// ---------------------------------------------------------------------- KivStageUncompleted

StageSm::KivStageUncompleted::KivStageUncompleted( Ptr< Kiv::Clock const > const & clock,
                                                   StageSm * stageSm )
   : stageSm_( stageSm ) {
   Kiv::KeepDuringConstruction const keep( *this );
   Kiv::Clock::NotifieeConst::notifierIs( clock );
   deliveredUntilDoneIs( true );
   isRegisteredNotifieeIs( true );
}
StageSm::KivStageUncompleted::~KivStageUncompleted() { kivDoZombieReactors( true ); }

void StageSm::KivStageUncompleted::onTime() {
   Kiv::detail::toOwner( *this, stageSm_, []( StageSm & sm ) {
      // A completion that was cut short was before this, and disarms the timer.
      bool const owed = !sm.untold_.empty();
      sm.tellUntold();
      if( !owed || sm.pendingEvents() != 0 )
         sm.handleStageUncompleted();
   } );
}

void StageSm::KivStageUncompleted::kivDoZombieReactors( bool zombie ) {
   Kiv::detail::doZombieReactors( *this, zombie, []( bool ) {} );
}

// ---------------------------------------------------------------------------------- StageSm

StageSm::StageSm( Ptr< StageStatus const > const & stage, Ptr< LogSm > const & logSm,
                  StatusSm * mainSm )
   : logSm_( Kiv::valid( logSm ) ), mainSm_( Kiv::valid( mainSm ) ),
     key_( Kiv::valid( stage )->name() ) {
   Kiv::KeepDuringConstruction const keep( *this );
   StageStatus::NotifieeConst::notifierIs( stage );
   deliveredUntilDoneIs( true );
   isRegisteredNotifieeIs( true );
   mirrorEvents();
   handleInitialized();
}

StageSm::~StageSm() {
   kivDoZombieReactors( true );
   if( stageUncompleted_ )
      stageUncompleted_->stageSmIs( nullptr );
   for( auto i = event_.iterator(); i; ++i )
      i.ptr()->stageSm_ = nullptr;
}

Kiv::KivType const & StageSm::KivEvent::fwkType() const { return _fwkType(); }
Kiv::KivType const & StageSm::KivEvent::_fwkType() {
   static Kiv::KivType const type( "Stage::StageSm::KivEvent", &PtrInterface::_fwkType(),
                                   eventRows::rows );
   return type;
}

Kiv::KivType const & StageSm::KivPendingEvent::fwkType() const { return _fwkType(); }
Kiv::KivType const & StageSm::KivPendingEvent::_fwkType() {
   static Kiv::KivType const type( "Stage::StageSm::KivPendingEvent", &PtrInterface::_fwkType(),
                                   pendingEventRows::rows );
   return type;
}

Kiv::KivType const & StageSm::KivStageUncompleted::fwkType() const { return _fwkType(); }
Kiv::KivType const & StageSm::KivStageUncompleted::_fwkType() {
   static Kiv::KivType const type( "Stage::StageSm::KivStageUncompleted", &PtrInterface::_fwkType(),
                                   timerRows::rows );
   return type;
}

StageSm::Kept::Kept( StageSm & sm )
   : mainSm_( sm.mainSm_ && sm.mainSm_->references() ? sm.mainSm_ : nullptr ),
     stageSm_( sm.references() ? &sm : nullptr ) {}
StageSm::Kept::~Kept() = default;

void StageSm::hasNotificationActiveIs( bool active ) {
   if( active == hasNotificationActive() )
      return;
   Kiv::detail::InOrder const inOrder;
   StageStatus::NotifieeConst::hasNotificationActiveIs( active );
   Kiv::detail::passNotificationActive( active, [ this ]( auto f ) { ownReactors( f ); } );
}

void StageSm::kivDoZombieReactors( bool zombie ) {
   Kiv::detail::doZombieReactors( *this, zombie, [ this ]( bool z ) {
      ownReactors( [ z ]( auto & r ) { r.kivDoZombieReactors( z ); } );
   } );
}

void StageSm::notifierIs( Ptr< PtrInterface const > const & stage ) {
   if( notifierPtr() == stage )
      return;
   Kept const kept( *this );
   detail::reattach< StageStatus::NotifieeConst >( *this, stage, [ & ] {
      if( !stage || kivMarkedForDeletion() )
         return;
      isRegisteredNotifieeIs( true );
      catchUp();
   } );
}

// Has been attached to another stage.
void StageSm::catchUp() {
   // What the other stage's completion was kept from is this one's only when all is seen.
   String8 const owed = untold_;
   untold_ = String8();
   detail::OnException const stillOwed( [ & ] {
      if( !owed.empty() ) // else there may be a debt of this stage's own by now
         untold_ = owed;
   } );
   // What is incomplete is pending before any event is looked at: else the set could run empty in
   // between, and the stage complete.
   for( auto i = stage()->eventIteratorConst(); i; ++i )
      if( !i.ptr()->complete() )
         pendingEventIs( i.ptr() );
   mirrorEvents();
   // An event that this stage does not have would be pending for ever.
   for( auto i = pendingEventIterator(); i; ++i ) {
      Ptr< EventConfig const > const pending = i.ptr()->pendingEvent();
      if( !pending || stage()->event( pending->agent() ) != pending )
         pendingEventDel( i.key() );
   }
   if( !owed.empty() )
      pendingEventChanged( owed );
}

void StageSm::onEvent( String8 agentName ) {
   Kept const kept( *this );
   if( !kivMarkedForDeletion() )
      handleEventDel( agentName );
   // The mirror is brought into line in any case.
   if( !stage() )
      return;
   if( Ptr< EventConfig const > const present = stage()->event( agentName ) )
      eventIs( agentName, present );
   else
      eventDel( agentName );
}

void StageSm::onEventkivImmediate() {
   Kept const kept( *this );
   if( stage() && !kivMarkedForDeletion() )
      mirrorEvents();
}

void StageSm::onEvent() { onEventkivImmediate(); }

void StageSm::mirrorEvents() {
   Ptr< StageStatus const > const watched = stage();
   for( auto i = watched->eventIteratorConst(); i; ++i )
      eventIs( i.key(), i.ptr() );
   for( auto i = eventIterator(); i; ++i )
      if( !watched->event( i.key() ) )
         eventDel( i.key() );
}

void StageSm::completeIs( bool on ) { complete_.valueIs( *this, rows[ Stage::complete ], on ); }
void StageSm::timedOutIs( bool on ) { timedOut_.valueIs( *this, rows[ Stage::timedOut ], on ); }
void StageSm::completionTimeIs( double const & seconds ) {
   completionTime_.valueIs( *this, rows[ Stage::completionTime ], seconds );
}
void StageSm::initializedIs( bool on ) {
   initialized_.valueIs( *this, rows[ Stage::initialized ], on );
}

// ---- pending events

Ptr< StageSm::KivPendingEvent > StageSm::newPendingEvent( Ptr< EventConfig const > const & event ) {
   return Kiv::valid( Ptr< KivPendingEvent >( new KivPendingEvent( event ) ) );
}

void StageSm::pendingEventIs( Ptr< EventConfig const > const & event ) {
   Kept const kept( *this );
   String8 const uid = Kiv::valid( event )->uid();
   tellUntold();
   Ptr< KivPendingEvent > const held = pendingEvent_.member( uid );
   if( held && held->pendingEvent() == event )
      return;
   if( held )
      held->pendingEventIs( event );
   else
      pendingEvent_.memberIs( uid, newPendingEvent( event ) );
   pendingEventChanged( uid );
}

void StageSm::pendingEventDel( String8 const & uid ) {
   Kept const kept( *this );
   String8 const key = uid; // the caller's may belong to what goes
   tellUntold();
   if( pendingEvent_.memberDel( key ) )
      pendingEventChanged( key );
}

// When the reaction is cut short the entry has changed already, and whoever changes it again finds
// nothing to do: so it is remembered, and made up for by the next who comes.
void StageSm::pendingEventChanged( String8 const & uid ) {
   detail::OnException const owed( [ & ] { untold_ = uid; } );
   StageSm::handlePendingEvent( uid );
   pendingEventNotify( uid, pendingEvent( uid ) );
}
void StageSm::tellUntold() {
   String8 const uid = untold_;
   if( uid.empty() )
      return;
   untold_ = String8();
   pendingEventChanged( uid );
}

void StageSm::pendingEventDelAll() {
   Kept const kept( *this );
   for( auto i = pendingEventIterator(); i; ++i )
      pendingEventDel( i.key() );
}

void StageSm::pendingEventNotify( String8 const & uid, Ptr< KivPendingEvent > const & ) {
   Kiv::detail::Change( *this, rows[ Stage::pendingEvent ], 1 ).queue( uid );
}

// ---- events

Ptr< StageSm::KivEvent > StageSm::newEvent( String8 const & agentName,
                                            Ptr< EventConfig const > const & event ) {
   Ptr< KivEvent > const made = new KivEvent( Kiv::valid( event ), agentName, this );
   made->hasNotificationActiveIs( hasNotificationActive() );
   return made;
}

Ptr< StageSm::KivEvent > StageSm::eventIs( String8 const & agentName,
                                           Ptr< EventConfig const > const & event ) {
   Kept const kept( *this );
   Kiv::valid( event );
   if( Ptr< KivEvent > const held = event_.member( agentName ) ) {
      if( Ptr< EventConfig const > const before = held->event(); before != event ) {
         held->notifierIs( event );
         detail::OnException const undo( [ & ] {
            held->EventConfig::NotifieeConst::notifierIs( before );
            held->isRegisteredNotifieeIs( true );
         } );
         eventNotify( agentName, held );
      }
      return held;
   }
   Ptr< KivEvent > const made = newEvent( agentName, event );
   Kiv::detail::Change change( *this, rows[ Stage::event ], 1 );
   event_.memberIs( agentName, made );
   change.queue( agentName );
   return made;
}

void StageSm::eventDel( String8 const & agentName ) {
   Ptr< KivEvent > const gone = event_.member( agentName );
   if( !gone )
      return;
   Kiv::detail::Change change( *this, rows[ Stage::event ], 1 );
   gone->kivDoZombieReactors( true );
   gone->stageSm_ = nullptr;
   event_.memberDel( gone->fwkKey() );
   change.queue( gone->fwkKey() );
}

void StageSm::eventDelAll() {
   for( auto i = eventIterator(); i; ++i )
      eventDel( i.key() );
}

void StageSm::eventNotify( String8 const & agentName, Ptr< KivEvent > const & ) {
   Kiv::detail::Change( *this, rows[ Stage::event ], 1 ).queue( agentName );
}

// ---- timer

Ptr< StageSm::KivStageUncompleted >
StageSm::newStageUncompleted( Ptr< Kiv::Clock const > const & clock ) {
   Ptr< KivStageUncompleted > const made = new KivStageUncompleted( Kiv::valid( clock ), this );
   made->hasNotificationActiveIs( hasNotificationActive() );
   return made;
}

void StageSm::stageUncompletedIs( Ptr< Kiv::Clock const > const & clock ) {
   Kiv::valid( clock );
   if( stageUncompleted_ && stageUncompleted_->notifierPtr() == clock )
      return;
   Kiv::detail::Change change( *this, rows[ Stage::stageUncompleted ], 0 );
   if( stageUncompleted_ )
      stageUncompleted_->notifierIs( clock );
   else
      stageUncompleted_ = newStageUncompleted( clock );
   stageUncompleted_->isRegisteredNotifieeIs( true );
   change.queue();
}

void StageSm::stageUncompletedDel() {
   if( !stageUncompleted_ )
      return;
   Kiv::detail::Change change( *this, rows[ Stage::stageUncompleted ], 0 );
   stageUncompleted_->kivDoZombieReactors( true );
   stageUncompleted_->stageSmIs( nullptr );
   stageUncompleted_ = nullptr;
   change.queue();
}

Kiv::KivType const & StageSm::fwkType() const { return _fwkType(); }
Kiv::KivType const & StageSm::_fwkType() {
   static Kiv::KivType const type( "Stage::StageSm", &PtrInterface::_fwkType(), rows );
   return type;
}

} // namespace Stage
