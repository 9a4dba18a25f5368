// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// StageSm's plumbing; its handlers are in Ordovan.cpp.

#include <Ordovan/StageSm.h>

#include <Ordovan/StatusSm.h>

#include <Kiv/Access.h>
#include <Kiv/Exception.h>

namespace Stage {

using namespace Kiv;

namespace {

using N = StageSm::NotifieeConst;
constexpr Role tells = Role::value | Role::notifying;
constexpr Role keyedTells = Role::collection | Role::reactor | Role::notifying;
// By name only an event that the stage has can be written, and under its own key: for any other
// nobody would ever tell that it is complete, and it would be pending for ever.
template< auto keyOf, auto store >
void writesOwn( PtrInterface & object, Text const & key, String8 const & attribute,
                Value const & value ) {
   auto & sm = static_cast< StageSm & >( object );
   auto const given = valid( fromValue< Ptr< EventConfig const > >( attribute, value ) );
   checkKey( key, ( given.get()->*keyOf )() );
   if( sm.stage()->event( given->agent() ) != given )
      throwRangeException( "event " + given->uid() + " is not the one that stage " +
                           String8( sm.stage()->name() ) + " has of that agent" );
   store( sm, given );
}
constexpr auto pendingEventWith =
   &writesOwn< &EventConfig::uid,
               []( StageSm & sm, auto const & event ) { sm.pendingEventIs( event ); } >;
constexpr auto eventWith = &writesOwn< &EventConfig::agent, []( StageSm & sm, auto const & event ) {
   sm.eventIs( event->agent(), event );
} >;

// What the handlers need: an object that somebody kept can have lost both.
constexpr auto works = &hasEach< StageSm, &StageSm::mainSm, &StageSm::stage >;

constexpr auto rows = machineTable< StageSm >(
   {
      fixed< &StageSm::stage >( "stage", "Kiv::Ptr<Stage::StageStatus const>" ),
      fixed< &StageSm::logSm >( "logSm", "Kiv::Ptr<Stage::LogSm>" ),
      readOnly< &StageSm::name >( "name", "Kiv::Name" ),
      Attribute( "complete", "bool", "", tells, changes< &N::onComplete >(),
                 value< &StageSm::complete, &StageSm::completeIs >() ),
      Attribute( "timedOut", "bool", "", tells, changes< &N::onTimedOut >(),
                 value< &StageSm::timedOut, &StageSm::timedOutIs >() ),
      Attribute( "completionTime", "double", "", tells, changes< &N::onCompletionTime >(),
                 value< &StageSm::completionTime, &StageSm::completionTimeIs >() ),
      Attribute( "pendingEvent", "Stage::EventConfig", "Kiv::String8", keyedTells,
                 members< String8, N, &N::onPendingEvent, &N::onPendingEventkivImmediate,
                          &N::onPendingEvent >(),
                 keyed< &StageSm::pendingEvent, &StageSm::pendingEvents,
                        &StageSm::pendingEventIteratorConst >()
                    .memberWritesWith< Ptr< EventConfig const > >( pendingEventWith )
                    .memberDeletes< &StageSm::pendingEventDel, &StageSm::pendingEventDelAll >()
                    .whenever( works ) ),
      handlers< String8, StageSm, &StageSm::handlePendingEvent, &StageSm::handlePendingEvent >(
         "handlePendingEvent", "uid" ),
      handler< &StageSm::handleEventDel >( "handleEventDel", "agentName" ),
      Attribute( "event", "Stage::EventConfig", "Kiv::String8", keyedTells,
                 members< String8, N, &N::onEvent, &N::onEventkivImmediate, &N::onEvent >(),
                 keyed< &StageSm::event, &StageSm::events, &StageSm::eventIteratorConst >()
                    .memberWritesWith< Ptr< EventConfig const > >( eventWith )
                    .memberDeletes< &StageSm::eventDel, &StageSm::eventDelAll >()
                    .whenever( works ) ),
      Attribute( "stageUncompleted", "Kiv::Clock", "", Role::reactor | Role::notifying,
                 changes< &N::onStageUncompleted >(), reads< &StageSm::stageUncompleted >() ),
      handler< &StageSm::handleStageUncompleted >( "handleStageUncompleted" ),
      Attribute( "initialized", "bool", "", tells, changes< &N::onInitialized >(),
                 value< &StageSm::initialized, &StageSm::initializedIs >() ),
      handler< &StageSm::handleInitialized >( "handleInitialized" ),
      fixed< &StageSm::mainSm >( "mainSm", "Stage::StatusSm*" ),
      ownKey< &StageSm::fwkKey >(),
      activity(),
   },
   works );

// The row of that name, which the compiler looks up.
consteval Attribute const & row( std::string_view attribute ) {
   return rows[ placeOf( rows, attribute ) ];
}

constexpr auto eventRows = machineTable< StageSm::KivEvent >(
   {
      fixed< &StageSm::KivEvent::event >( "event", "Kiv::Ptr<Stage::EventConfig const>" ),
      handler< &StageSm::KivEvent::handleComplete >( "handleComplete" ),
      ownKey< &StageSm::KivEvent::fwkKey >(),
   },
   &hasEach< StageSm::KivEvent, &StageSm::KivEvent::stageSm, &StageSm::KivEvent::event > );

constexpr auto pendingEventRows = numbered( {
   fixed< &StageSm::KivPendingEvent::pendingEvent >( "pendingEvent",
                                                     "Kiv::Ptr<Stage::EventConfig const>" ),
} );

using Timer = StageSm::KivStageUncompleted;
constexpr auto timerRows = machineTable< Timer >( {
   fixed< &Timer::notifier >( "clock", "Kiv::Ptr<Kiv::Clock const>" ),
   plain< &Timer::timeMin, &Timer::timeMinIs >( "timeMin", "double" ),
} );

} // namespace

// In a source, not in the header: so the type has one home, whoever derives from it.
void StageSm::NotifieeConst::onComplete() {}

KivType const & StageSm::_fwkType() { return typeOf< rows >( "Stage::StageSm" ); }
KivType const & StageSm::KivEvent::_fwkType() {
   return typeOf< eventRows >( "Stage::StageSm::KivEvent" );
}
KivType const & StageSm::KivPendingEvent::_fwkType() {
   return typeOf< pendingEventRows >( "Stage::StageSm::KivPendingEvent" );
}
KivType const & StageSm::KivStageUncompleted::_fwkType() {
   return typeOf< timerRows >( "Stage::StageSm::KivStageUncompleted" );
}

// --------------------------------------------------------------------------------- reactors

StageSm::KivEvent::KivEvent( Ptr< EventConfig const > const & event, String8 const & key,
                             StageSm * stageSm )
   : OwnedReactor( event, stageSm, key ) {
   KeepDuringConstruction const keep( *this );
   handleComplete();
}

void StageSm::KivEvent::notifierIs( Ptr< PtrInterface const > const & event ) {
   attachAndReact( event, [ & ] {
      if( event )
         handleComplete();
   } );
}

// ---------------------------------------------------------------------------------- StageSm

StageSm::StageSm( Ptr< StageStatus const > const & stage, Ptr< LogSm > const & logSm,
                  StatusSm * mainSm )
   : OwnedReactor( stage, valid( mainSm ), valid( stage )->name() ), logSm_( valid( logSm ) ) {
   KeepDuringConstruction const keep( *this );
   mirrorEvents();
   handleInitialized();
}

StageSm::~StageSm() {
   kivDoZombieReactors( true );
   stageUncompleted_.ownerGoes();
   event_.ownerGoes();
}

StageSm::Kept StageSm::keep() { return { kept( mainSm() ), kept( this ) }; }

void StageSm::notifierIs( Ptr< PtrInterface const > const & stage ) {
   Kept const kept = keep();
   attachAndReact( stage, [ & ] {
      if( stage )
         catchUp();
   } );
}

void StageSm::completeIs( bool on ) {
   complete_.valueIs( *this, row( "complete" ), on );
   completion_.complete = complete();
   if( mainSm() )
      mainSm()->completionChanged( name() );
}
void StageSm::timedOutIs( bool on ) { timedOut_.valueIs( *this, row( "timedOut" ), on ); }
void StageSm::completionTimeIs( double const & seconds ) {
   completionTime_.valueIs( *this, row( "completionTime" ), seconds );
}
void StageSm::initializedIs( bool on ) { initialized_.valueIs( *this, row( "initialized" ), on ); }

// ---- events

void StageSm::pendingEventNotify( String8 const & uid, Ptr< KivPendingEvent > const & ) {
   Change( *this, row( "pendingEvent" ), 1 ).queue( uid );
}

Ptr< StageSm::KivEvent > StageSm::eventIs( String8 const & agentName,
                                           Ptr< EventConfig const > const & event ) {
   Kept const kept = keep();
   valid( event );
   if( Ptr< KivEvent > const held = event_.member( agentName ) ) {
      if( Ptr< EventConfig const > const before = held->event(); before != event ) {
         held->notifierIs( event );
         OnException const undo( [ & ] {
            held->EventConfig::NotifieeConst::notifierIs( before );
            held->isRegisteredNotifieeIs( true );
         } );
         eventNotify( agentName, held );
      }
      return held;
   }
   Ptr< KivEvent > const made = newEvent( agentName, event );
   Change change( *this, row( "event" ), 1 );
   event_.memberIs( made );
   change.queue( agentName );
   return made;
}

void StageSm::eventDel( String8 const & agentName ) {
   Ptr< KivEvent > const gone = event_.member( agentName );
   if( !gone )
      return;
   Change change( *this, row( "event" ), 1 );
   event_.memberDel( agentName );
   change.queue( gone->fwkKey() );
}

void StageSm::eventNotify( String8 const & agentName, Ptr< KivEvent > const & ) {
   Change( *this, row( "event" ), 1 ).queue( agentName );
}

// ---- timer

void StageSm::stageUncompletedIs( Ptr< Clock const > const & clock ) {
   valid( clock );
   if( stageUncompleted_ && stageUncompleted_->notifierPtr() == clock )
      return;
   Change change( *this, row( "stageUncompleted" ), 0 );
   stageUncompleted_.notifierIs( clock, [ & ] { return newStageUncompleted( clock ); } );
   change.queue();
}

void StageSm::stageUncompletedDel() {
   if( !stageUncompleted_ )
      return;
   Change change( *this, row( "stageUncompleted" ), 0 );
   stageUncompleted_.del();
   change.queue();
}

} // namespace Stage
