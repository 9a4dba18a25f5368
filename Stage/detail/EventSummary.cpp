// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Stage/detail/EventSummary.h>

#include <Stage/EventConfig.h>
#include <Stage/StageStatus.h>

#include <Kiv/Reactor.h>

#include <cmath>
#include <limits>
#include <memory>

namespace Stage::detail {

using Kiv::OnException;
using Kiv::String8;

namespace {

// Which of two negative zeros and zeros is taken last, and what comes after no number, is decided
// by the order of the events.
bool isOdd( double timeout ) {
   return std::isnan( timeout ) || ( timeout == 0 && std::signbit( timeout ) );
}

} // namespace

EventSummary::EventSummary( StageStatus const & stage )
   : stage_( stage ), loose_( stage.dependencys() ) {}

EventSummary::~EventSummary() {
   // Not remove(): what is not asked any more need not be kept right.
   while( EventShare * const share = shares_ ) {
      shares_ = share->nextOfSummary;
      leave( *share );
      delete share;
   }
}

// Where the first in the heap stands in the stage's table.
bool EventSummary::standsBefore( EventShare const & a, EventShare const & b ) {
   return Kiv::standsBefore( a.event->agent(), b.event->agent() );
}

void EventSummary::eventAdd( EventConfig const & event ) {
   longest_.reserve( count_ + 1 );
   critical_.reserve( count_ + 1 );
   std::unique_ptr< EventShare > share( new EventShare );
   dependencysAdd( event );
   // Nothing fails from here on.
   EventShare & added = *share.release();
   added.event = &event;
   added.summary = this;
   added.previousOfSummary = nullptr;
   added.nextOfSummary = shares_;
   if( shares_ )
      shares_->previousOfSummary = &added;
   shares_ = &added;
   added.nextOfEvent = event.shares_;
   event.shares_ = &added;
   ++count_;
   timeoutAdd( added );
   if( event.critical() )
      critical_.add( added );
}

void EventSummary::eventDel( EventConfig const & event ) noexcept {
   for( EventShare * share = event.shares_; share; share = share->nextOfEvent )
      if( share->summary == this ) {
         for( auto i = event.dependencyIteratorConst(); i; ++i )
            if( i.value() )
               dependencyDel( i.key() );
         remove( *share );
         return;
      }
}

void EventSummary::remove( EventShare & share ) noexcept {
   timeoutDel( share );
   critical_.remove( share );
   ( share.previousOfSummary ? share.previousOfSummary->nextOfSummary : shares_ ) =
      share.nextOfSummary;
   if( share.nextOfSummary )
      share.nextOfSummary->previousOfSummary = share.previousOfSummary;
   leave( share );
   --count_;
   delete &share;
}

// Takes the share from its event's list.
void EventSummary::leave( EventShare & share ) noexcept {
   EventShare ** at = &share.event->shares_;
   while( *at != &share )
      at = &( *at )->nextOfEvent;
   *at = share.nextOfEvent;
}

// ---- timeouts

void EventSummary::timeoutAdd( EventShare & share ) noexcept {
   share.timeout = share.event->timeout();
   odd_ += isOdd( share.timeout );
   if( !std::isnan( share.timeout ) )
      longest_.add( share );
}
void EventSummary::timeoutDel( EventShare & share ) noexcept {
   odd_ -= isOdd( share.timeout );
   longest_.remove( share );
}
void EventSummary::timeoutChanged( EventShare * shares ) noexcept {
   for( EventShare * share = shares; share; share = share->nextOfEvent ) {
      share->summary->timeoutDel( *share );
      share->summary->timeoutAdd( *share );
   }
}
double EventSummary::longestTimeout() const {
   EventShare const * const first = longest_.first();
   if( odd_ != 0 || !first )
      return std::numeric_limits< double >::quiet_NaN();
   return first->timeout;
}

// ---- critical events

void EventSummary::criticalChanged( EventShare * shares ) noexcept {
   for( EventShare * share = shares; share; share = share->nextOfEvent ) {
      share->summary->critical_.remove( *share );
      if( share->event->critical() )
         share->summary->critical_.add( *share );
   }
}
EventConfig const * EventSummary::firstCritical() const {
   EventShare const * const first = critical_.first();
   return first ? first->event : nullptr;
}

// ---- dependencies

void EventSummary::dependencysAdd( EventConfig const & event ) {
   String8 failed;
   OnException const undo( [ & ] {
      for( auto i = event.dependencyIteratorConst(); i && i.key() != failed; ++i )
         if( i.value() )
            dependencyDel( i.key() );
   } );
   for( auto i = event.dependencyIteratorConst(); i; ++i )
      if( i.value() ) {
         failed = i.key();
         dependencyAdd( failed );
      }
}
void EventSummary::dependencyAdd( String8 const & name ) {
   std::uint32_t const before = holders_.member( name );
   holders_.memberIs( name, before + 1 );
   if( before == 0 && stage_.hasDependency( name ) )
      --loose_;
}
void EventSummary::dependencyDel( String8 const & name ) noexcept {
   std::uint32_t const before = holders_.member( name );
   if( before > 1 ) {
      holders_.memberIs( name, before - 1 ); // it is there: this needs no memory
      return;
   }
   holders_.memberDel( name );
   if( stage_.hasDependency( name ) )
      ++loose_;
}
void EventSummary::dependencyAdd( EventShare * shares, String8 const & name ) {
   EventShare * next = shares;
   OnException const undo( [ & ] {
      for( EventShare * share = shares; share != next; share = share->nextOfEvent )
         share->summary->dependencyDel( name );
   } );
   for( ; next; next = next->nextOfEvent )
      next->summary->dependencyAdd( name );
}
void EventSummary::dependencyDel( EventShare * shares, String8 const & name ) noexcept {
   for( EventShare * share = shares; share; share = share->nextOfEvent )
      share->summary->dependencyDel( name );
}
void EventSummary::stageDependencyCame( String8 const & name ) noexcept {
   if( !holds( name ) )
      ++loose_;
}
void EventSummary::stageDependencyWent( String8 const & name ) noexcept {
   if( !holds( name ) )
      --loose_;
}

} // namespace Stage::detail
