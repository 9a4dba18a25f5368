// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Kiv/Notifiee.h>

#include <Kiv/Activity.h>
#include <Kiv/Attribute.h>
#include <Kiv/Entity.h>
#include <Kiv/Exception.h>

#include <cassert>

#include <Kiv/detail/Guarded.h>
#include <Kiv/detail/Thread.h>

namespace Kiv {

using Reactor = PtrInterface::NotifieeConst;

namespace detail {

std::size_t Ring::walked( PtrInterface const & notifier ) {
   std::size_t count = 1;
   for( Reactor * r = next( *first( notifier ) ); r != first( notifier ); r = next( *r ) )
      ++count;
   return count;
}

void Ring::enter( PtrInterface const & notifier, Reactor const & reactor ) {
   auto * r = const_cast< Reactor * >( &reactor );
   Reactor *& first = notifier.notifiees_;
   if( notifier.registered_ != many )
      ++notifier.registered_;
   if( !first ) {
      first = r->nextNotifiee_ = r->previousNotifiee_ = r;
      return;
   }
   r->nextNotifiee_ = first;
   r->previousNotifiee_ = first->previousNotifiee_;
   first->previousNotifiee_->nextNotifiee_ = r;
   first->previousNotifiee_ = r;
}

void Ring::leave( PtrInterface const & notifier, Reactor const & reactor ) {
   Reactor *& first = notifier.notifiees_;
   if( notifier.registered_ != many )
      --notifier.registered_;
   if( reactor.nextNotifiee_ == &reactor ) {
      first = nullptr;
      notifier.registered_ = 0;
   } else {
      reactor.nextNotifiee_->previousNotifiee_ = reactor.previousNotifiee_;
      reactor.previousNotifiee_->nextNotifiee_ = reactor.nextNotifiee_;
      if( first == &reactor )
         first = reactor.nextNotifiee_;
   }
   reactor.nextNotifiee_ = reactor.previousNotifiee_ = nullptr;
}

} // namespace detail

Reactor::NotifieeConst() { flagIs( isReactor, true ); }

Reactor::~NotifieeConst() {
   if( flag( registered ) )
      detail::Ring::leave( *notifier_, *this );
   detail::queue().forget( *this );
}

void Reactor::hasNotificationActiveIs( bool active ) {
   if( active == hasNotificationActive() )
      return;
   detail::checkOwner( this, "hasNotificationActive" );
   PtrInterface::hasNotificationActiveIs( active );
   if( active )
      detail::queue().activate( *this );
   else
      detail::queue().deactivate( *this );
}

void Reactor::zeroReferencesIs( bool zero ) {
   PtrInterface::zeroReferencesIs( zero );
   if( zero )
      onZeroReferences();
}

Ptr< PtrInterface const > Reactor::kivReactor() const { return this; }
PtrInterface const * Reactor::kivRawReactor() const { return this; }
bool Reactor::isStreamAdapter() const { return false; }

void Reactor::isRegisteredNotifieeIs( bool on ) const {
   if( on == flag( registered ) || !notifier_ )
      return;
   detail::checkOwner( this, "isRegisteredNotifiee" );
   flagIs( registered, on );
   if( on ) {
      detail::Ring::enter( *notifier_, *this );
   } else {
      detail::Ring::leave( *notifier_, *this );
      detail::queue().drop( const_cast< Reactor & >( *this ) );
   }
}

void Reactor::kiv_bitSetIs( Kiv_BitSet bits ) {
   // Only the bits that say nothing about where the reactor stands may be set from outside.
   flagIs( nondestructing, ( bits & nondestructing ) != 0 );
}

Name Reactor::name() const {
   auto const * entity = dynamic_cast< Entity const * >( notifier_.get() );
   return entity ? entity->name() : Name();
}

void Reactor::notifierIs( Ptr< PtrInterface const > const & notifier ) {
   if( notifier_ == notifier )
      return;
   Ptr< PtrInterface const > const next = notifier;
   isRegisteredNotifieeIs( false );
   notifier_ = next;
}

void Reactor::throwOtherType( PtrInterface const & object ) {
   throwRangeException( valueToString( &object ) +
                        String8( " is not of the type that the reactor watches" ) );
}

void Reactor::watchObject( Ptr< PtrInterface const > const & object ) {
   notifierIs( object );
   if( !notifier_ )
      return;
   try {
      isRegisteredNotifieeIs( true );
   } catch( ... ) {
      notifierIs( nullptr );
      throw;
   }
   hasNotificationActiveIs( true );
}

void Reactor::handleNotification( ActivityConfig * ) {
   if( !detail::queue().running() )
      detail::queue().runOldest( *this );
}

void Reactor::handleDefault( ActivityConfig *, AttributeId, bool ) {}
void Reactor::onAttribute( AttributeId ) {}
void Reactor::onNotification() {}
void Reactor::onCollectionNotification( String8 ) {}
void Reactor::onNotificationException() {}
void Reactor::onNotificationException( AttributeId ) {}

namespace {

bool isExpected() noexcept {
   try {
      throw;
   } catch( Exception const & e ) {
      return e.expected();
   } catch( ... ) {
      return false;
   }
}

// What was watched, for a report; nothing when there is no memory for that, as the report is worth
// more than the name.
String8 reportedAs( PtrInterface const * watched ) noexcept {
   try {
      return valueToString( watched );
   } catch( ... ) {
      return String8();
   }
}

} // namespace

void Reactor::handleNotificationException( AttributeId attribute ) {
   if( !isExpected() ) {
      // The callback may have detached the reactor before it threw.
      PtrInterface const * watched = detail::queue().notifier();
      if( !watched )
         watched = notifier_.get();
      Attribute const * row = watched ? watched->fwkType().attribute( attribute ) : nullptr;
      detail::reportException( row ? row->name : "", reportedAs( watched ) );
   }
   onNotificationException( attribute );
}

void Reactor::handleNotificationException() {
   if( !isExpected() )
      detail::reportException( "", reportedAs( notifier_.get() ) );
   onNotificationException();
}

void Reactor::onZeroReferences() {}

ActivityConfig * Reactor::activityPtr() const { return activityManager()->config().get(); }
Ptr< ActivityConfig > Reactor::kivFwkActivity() { return activityManager()->config(); }
Ptr< ActivityConfig const > Reactor::kivFwkActivity() const { return activityManager()->config(); }
Activity * Reactor::actsm() { return activityManager()->activity(); }

std::size_t Reactor::pendingNotifications() const {
   std::size_t count = 0;
   detail::QueueItem * const first = detail::queue().item( pending_ );
   if( detail::QueueItem * item = first )
      do {
         ++count;
         item = item->nextOfReactor;
      } while( item != first );
   return count;
}

} // namespace Kiv
