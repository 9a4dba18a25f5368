// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// StageSm's plumbing; its handlers are in Ordovan.cpp.

#include <Ordovan/StageSm.h>

#include <Ordovan/StatusSm.h>

#include <Kiv/Access.h>
#include <Kiv/Exception.h>

namespace Stage {

using Kiv::Attribute;
using Kiv::changes;
using Kiv::fixed;
using Kiv::handler;
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
// By name only an event that the stage has can be written, and under its own key: for any other
// nobody would ever tell that it is complete, and it would be pending for ever.
template< auto keyOf >
Ptr< EventConfig const > ownEvent( StageSm const & sm, Kiv::Text const & key,
                                   String8 const & attribute, Kiv::Value const & value ) {
   auto const given = Kiv::valid( Kiv::fromValue< Ptr< EventConfig const > >( attribute, value ) );
   Kiv::checkKey( key, ( given.get()->*keyOf )() );
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

constexpr auto rows = Kiv::machineTable< StageSm >(
   {
      fixed< &StageSm::stage >( "stage", "Kiv::Ptr<Stage::StageStatus const>" ),
      fixed< &StageSm::logSm >( "logSm", "Kiv::Ptr<Stage::LogSm>" ),
      Kiv::readOnly< &StageSm::name >( "name", "Kiv::Name" ),
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
      Kiv::handlers< String8, StageSm, &StageSm::handlePendingEvent, &StageSm::handlePendingEvent >(
         "handlePendingEvent", "uid" ),
      handler< &StageSm::handleEventDel >( "handleEventDel", "agentName" ),
      Attribute( "event", "Stage::EventConfig", "Kiv::String8", keyedTells,
                 members< String8, N, &N::onEvent, &N::onEventkivImmediate, &N::onEvent >(),
                 keyed< &StageSm::event, &StageSm::events, &StageSm::eventIteratorConst >()
                    .memberWritesWith< Ptr< EventConfig const > >( &eventWith )
                    .memberDeletes< &StageSm::eventDel, &StageSm::eventDelAll >()
                    .whenever( &works ) ),
      Attribute( "stageUncompleted", "Kiv::Clock", "", Role::reactor | Role::notifying,
                 changes< &N::onStageUncompleted >(), reads< &StageSm::stageUncompleted >() ),
      handler< &StageSm::handleStageUncompleted >( "handleStageUncompleted" ),
      Attribute( "initialized", "bool", "", tells, changes< &N::onInitialized >(),
                 Kiv::value< &StageSm::initialized, &StageSm::initializedIs >() ),
      handler< &StageSm::handleInitialized >( "handleInitialized" ),
      fixed< &StageSm::mainSm >( "mainSm", "Stage::StatusSm*" ),
      Kiv::ownKey< &StageSm::fwkKey >(),
      Kiv::activity(),
   },
   &works );

// The row of that name, which the compiler looks up.
consteval Attribute const & row( std::string_view attribute ) {
   return rows[ Kiv::placeOf( rows, attribute ) ];
}

bool reports( PtrInterface const & object ) {
   auto const & reactor = static_cast< StageSm::KivEvent const & >( object );
   return reactor.stageSm() && reactor.event();
}
constexpr auto eventRows = Kiv::machineTable< StageSm::KivEvent >(
   {
      fixed< &StageSm::KivEvent::event >( "event", "Kiv::Ptr<Stage::EventConfig const>" ),
      handler< &StageSm::KivEvent::handleComplete >( "handleComplete" ),
      Kiv::ownKey< &StageSm::KivEvent::fwkKey >(),
   },
   &reports );

constexpr auto pendingEventRows = Kiv::numbered( {
   fixed< &StageSm::KivPendingEvent::pendingEvent >( "pendingEvent",
                                                     "Kiv::Ptr<Stage::EventConfig const>" ),
} );

using Timer = StageSm::KivStageUncompleted;
constexpr auto timerRows = Kiv::machineTable< Timer >( {
   fixed< &Timer::notifier >( "clock", "Kiv::Ptr<Kiv::Clock const>" ),
   Kiv::plain< &Timer::timeMin, &Timer::timeMinIs >( "timeMin", "double" ),
} );

} // namespace

Kiv::KivType const & StageSm::_fwkType() { return Kiv::typeOf< rows >( "Stage::StageSm" ); }
Kiv::KivType const & StageSm::KivEvent::_fwkType() {
   return Kiv::typeOf< eventRows >( "Stage::StageSm::KivEvent" );
}
Kiv::KivType const & StageSm::KivPendingEvent::_fwkType() {
   return Kiv::typeOf< pendingEventRows >( "Stage::StageSm::KivPendingEvent" );
}
Kiv::KivType const & StageSm::KivStageUncompleted::_fwkType() {
   return Kiv::typeOf< timerRows >( "Stage::StageSm::KivStageUncompleted" );
}

// --------------------------------------------------------------------------------- reactors

StageSm::KivEvent::KivEvent( Ptr< EventConfig const > const & event, String8 const & key,
                             StageSm * stageSm )
   : OwnedReactor( event, stageSm, key ) {
   Kiv::KeepDuringConstruction const keep( *this );
   handleComplete();
}

void StageSm::KivEvent::notifierIs( Ptr< PtrInterface const > const & event ) {
   attachAndReact( event, [ & ] {
      if( event )
         handleComplete();
   } );
}

void StageSm::KivStageUncompleted::onTime() {
   react( []( StageSm & sm ) {
      // A completion that was cut short was before this, and disarms the timer.
      bool const owed = !sm.untold_.empty();
      sm.tellUntold();
      if( !owed || sm.pendingEvents() != 0 )
         sm.handleStageUncompleted();
   } );
}

// ---------------------------------------------------------------------------------- StageSm

StageSm::StageSm( Ptr< StageStatus const > const & stage, Ptr< LogSm > const & logSm,
                  StatusSm * mainSm )
   : OwnedReactor( stage, Kiv::valid( mainSm ), Kiv::valid( stage )->name() ),
     logSm_( Kiv::valid( logSm ) ) {
   Kiv::KeepDuringConstruction const keep( *this );
   mirrorEvents();
   handleInitialized();
}

StageSm::~StageSm() {
   kivDoZombieReactors( true );
   stageUncompleted_.ownerGoes();
   event_.ownerGoes();
}

StageSm::Kept StageSm::keep() { return { Kiv::kept( mainSm() ), Kiv::kept( this ) }; }

void StageSm::notifierIs( Ptr< PtrInterface const > const & stage ) {
   Kept const kept = keep();
   attachAndReact( stage, [ & ] {
      if( stage )
         catchUp();
   } );
}

void StageSm::onEvent( String8 agentName ) {
   Kept const kept = keep();
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
   Kept const kept = keep();
   if( stage() && !kivMarkedForDeletion() )
      mirrorEvents();
}

void StageSm::mirrorEvents() {
   Ptr< StageStatus const > const watched = stage();
   for( auto i = watched->eventIteratorConst(); i; ++i )
      eventIs( i.key(), i.ptr() );
   for( auto i = eventIterator(); i; ++i )
      if( !watched->event( i.key() ) )
         eventDel( i.key() );
}

void StageSm::completeIs( bool on ) { complete_.valueIs( *this, row( "complete" ), on ); }
void StageSm::timedOutIs( bool on ) { timedOut_.valueIs( *this, row( "timedOut" ), on ); }
void StageSm::completionTimeIs( double const & seconds ) {
   completionTime_.valueIs( *this, row( "completionTime" ), seconds );
}
void StageSm::initializedIs( bool on ) { initialized_.valueIs( *this, row( "initialized" ), on ); }

// ---- pending events

void StageSm::pendingEventIs( Ptr< EventConfig const > const & event ) {
   Kept const kept = keep();
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
   Kept const kept = keep();
   String8 const key = uid; // the caller's may belong to what goes
   tellUntold();
   if( pendingEvent_.memberDel( key ) )
      pendingEventChanged( key );
}

void StageSm::pendingEventDelAll() {
   Kept const kept = keep();
   for( auto i = pendingEventIterator(); i; ++i )
      pendingEventDel( i.key() );
}

void StageSm::pendingEventNotify( String8 const & uid, Ptr< KivPendingEvent > const & ) {
   Kiv::Change( *this, row( "pendingEvent" ), 1 ).queue( uid );
}

// ---- events

Ptr< StageSm::KivEvent > StageSm::eventIs( String8 const & agentName,
                                           Ptr< EventConfig const > const & event ) {
   Kept const kept = keep();
   Kiv::valid( event );
   if( Ptr< KivEvent > const held = event_.member( agentName ) ) {
      if( Ptr< EventConfig const > const before = held->event(); before != event ) {
         held->notifierIs( event );
         Kiv::OnException const undo( [ & ] {
            held->EventConfig::NotifieeConst::notifierIs( before );
            held->isRegisteredNotifieeIs( true );
         } );
         eventNotify( agentName, held );
      }
      return held;
   }
   Ptr< KivEvent > const made = newEvent( agentName, event );
   Kiv::Change change( *this, row( "event" ), 1 );
   event_.memberIs( made );
   change.queue( agentName );
   return made;
}

void StageSm::eventDel( String8 const & agentName ) {
   Ptr< KivEvent > const gone = event_.member( agentName );
   if( !gone )
      return;
   Kiv::Change change( *this, row( "event" ), 1 );
   event_.memberDel( agentName );
   change.queue( gone->fwkKey() );
}

void StageSm::eventNotify( String8 const & agentName, Ptr< KivEvent > const & ) {
   Kiv::Change( *this, row( "event" ), 1 ).queue( agentName );
}

// ---- timer

void StageSm::stageUncompletedIs( Ptr< Kiv::Clock const > const & clock ) {
   Kiv::valid( clock );
   if( stageUncompleted_ && stageUncompleted_->notifierPtr() == clock )
      return;
   Kiv::Change change( *this, row( "stageUncompleted" ), 0 );
   stageUncompleted_.notifierIs( clock, [ & ] { return newStageUncompleted( clock ); } );
   change.queue();
}

void StageSm::stageUncompletedDel() {
   if( !stageUncompleted_ )
      return;
   Kiv::Change change( *this, row( "stageUncompleted" ), 0 );
   stageUncompleted_.del();
   change.queue();
}

} // namespace Stage
