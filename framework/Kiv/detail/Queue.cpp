// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Kiv/detail/Queue.h>

#include <Kiv/Activity.h>
#include <Kiv/Attribute.h>
#include <Kiv/Exception.h>
#include <Kiv/detail/Guarded.h>
#include <Kiv/detail/Thread.h>

#include <algorithm>
#include <cassert>
#include <new>
#include <type_traits>

namespace Kiv::detail {

namespace {

std::uint32_t hashOf( PtrInterface::NotifieeConst const & reactor, Attribute const & attribute,
                      Form form, Text const & key ) {
   auto const address = reinterpret_cast< std::uintptr_t >( &reactor ) / 8;
   std::uint32_t h = static_cast< std::uint32_t >( address ) * 0x9e3779b1U;
   h ^= ( attribute.id * 2U + ( form == Form::group ? 1U : 0U ) ) * 0x85ebca77U;
   h ^= form == Form::group ? 0U : key.hash();
   return ( h ^ h >> 15 ) * 0x2c1b3c6dU;
}

std::uint32_t bitOf( Attribute const & attribute ) {
   assert( attribute.id < wholeAttributes );
   return 1U << attribute.id;
}

} // namespace

Queue & queue() {
   // Needs no heap: its first use may be in the destructor of a reactor whose constructor ran out
   // of memory.
   static constinit Queue theQueue;
   static_assert( std::is_trivially_destructible_v< Queue > );
   return theQueue;
}

void Queue::reserve( std::size_t items ) {
   if( entered_ + items > tableSize_ ) {
      std::size_t size = tableSize_ ? tableSize_ : 64;
      while( size < entered_ + items )
         size *= 2;
      auto * table =
         static_cast< QueueItem ** >( KivMemPool::operator new( size * sizeof( QueueItem * ) ) );
      for( std::size_t i = 0; i != size; ++i )
         table[ i ] = nullptr;
      QueueItem ** const old = table_;
      std::size_t const oldSize = tableSize_;
      table_ = table;
      tableSize_ = size;
      for( std::size_t i = 0; i != oldSize; ++i )
         while( QueueItem * item = old[ i ] ) {
            old[ i ] = item->nextInBucket;
            QueueItem *& bucket = table_[ item->hash & ( tableSize_ - 1 ) ];
            item->nextInBucket = bucket;
            bucket = item;
         }
      KivMemPool::operator delete( old, oldSize * sizeof( QueueItem * ) );
   }
   for( ; free_ < items; ++free_ ) {
      auto * item = new QueueItem;
      item->next = pool_;
      pool_ = item;
   }
}

QueueItem * Queue::make( Reactor & reactor, Attribute const & attribute, Form form ) noexcept {
   assert( pool_ && "room was made" );
   QueueItem * item = pool_;
   pool_ = item->next;
   --free_;
   item->next = nullptr;
   item->reactor = &reactor;
   item->attribute = &attribute;
   item->form = form;
   return item;
}

void Queue::release( QueueItem * item ) noexcept {
   item->key = Text();
   item->group = nullptr;
   item->reactor = nullptr;
   item->failures = 0;
   if( item == running_.item )
      return; // until the callback is over
   item->next = pool_;
   pool_ = item;
   ++free_;
}

void Queue::link( QueueItem * item ) noexcept {
   bool const wasEmpty = empty();
   List & list = listOf( *item );
   item->previous = list.tail;
   item->next = nullptr;
   ( list.tail ? list.tail->next : list.head ) = item;
   list.tail = item;
   item->linked = true;
   if( wasEmpty )
      workArrived();
}

void Queue::unlink( QueueItem * item ) noexcept {
   List & list = listOf( *item );
   QueueItem *& before = item->form == Form::group ? secondBefore_ : firstBefore_;
   if( before == item )
      before = item->previous;
   ( item->previous ? item->previous->next : list.head ) = item->next;
   ( item->next ? item->next->previous : list.tail ) = item->previous;
   item->next = item->previous = nullptr;
   item->linked = false;
   if( empty() )
      workGone();
}

// Puts an item at the end of its reactor's ring, and of the queue when the reactor is active.
void Queue::pend( QueueItem * item ) noexcept {
   item->asked = ask();
   QueueItem *& ring = item->reactor->pending_;
   if( !ring ) {
      ring = item->nextOfReactor = item->previousOfReactor = item;
   } else {
      item->nextOfReactor = ring;
      item->previousOfReactor = ring->previousOfReactor;
      ring->previousOfReactor->nextOfReactor = item;
      ring->previousOfReactor = item;
   }
   if( item->reactor->hasNotificationActive() )
      link( item );
}

void Queue::take( QueueItem * item ) noexcept {
   if( item->linked )
      unlink( item );
   else if( item->rests )
      endRest( item );
   QueueItem *& ring = item->reactor->pending_;
   if( item->nextOfReactor == item ) {
      ring = nullptr;
   } else {
      item->nextOfReactor->previousOfReactor = item->previousOfReactor;
      item->previousOfReactor->nextOfReactor = item->nextOfReactor;
      if( ring == item )
         ring = item->nextOfReactor;
   }
   item->nextOfReactor = item->previousOfReactor = nullptr;
   QueueItem * group = item;
   switch( item->form ) {
   case Form::whole:
      item->reactor->pendingAttributes_ &= ~bitOf( *item->attribute );
      release( item );
      return;
   case Form::member:
      group = item->group;
      leave( item );
      release( item );
      --group->pendingKeys;
      break;
   case Form::group:
      group->wanted = false;
      group->failures = 0;
      break;
   }
   if( group->pendingKeys == 0 && !group->wanted )
      leaveGroup( group );
}

// The group of what is delivered at this moment is kept for it.
void Queue::leaveGroup( QueueItem * group ) noexcept {
   bool const kept = group->reactor == running_.reactor && group->attribute == running_.attribute &&
                     group != running_.item && !running_.group;
   leave( group );
   if( kept )
      running_.group = group;
   else
      release( group );
}

// A reactor that is marked, or has no callback for the attribute, is told nothing.
bool Queue::hears( Reactor const & reactor, Attribute const & attribute ) {
   return !reactor.kivMarkedForDeletion() && attribute.id <= reactor.knows_;
}

void Queue::add( Reactor & reactor, Attribute const & attribute ) noexcept {
   if( !hears( reactor, attribute ) )
      return;
   std::uint32_t const bit = bitOf( attribute );
   if( reactor.pendingAttributes_ & bit )
      return;
   reactor.pendingAttributes_ |= bit;
   pend( make( reactor, attribute, Form::whole ) );
}

void Queue::add( Reactor & reactor, Attribute const & attribute, Text const & key ) noexcept {
   if( !hears( reactor, attribute ) )
      return;
   std::uint32_t const hash = hashOf( reactor, attribute, Form::member, key );
   if( find( reactor, attribute, Form::member, key, hash ) )
      return;
   std::uint32_t const groupHash = hashOf( reactor, attribute, Form::group, Text() );
   QueueItem * group = find( reactor, attribute, Form::group, Text(), groupHash );
   if( !group ) {
      group = make( reactor, attribute, Form::group );
      group->hash = groupHash;
      enter( group );
   }
   QueueItem * item = make( reactor, attribute, Form::member );
   item->key = key;
   item->hash = hash;
   item->group = group;
   enter( item );
   pend( item );
   if( ++group->pendingKeys >= 2 && !group->wanted ) {
      group->wanted = true;
      pend( group );
   }
}

void Queue::activate( Reactor & reactor ) noexcept {
   QueueItem * const ring = reactor.pending_;
   if( QueueItem * item = ring )
      do {
         assert( !item->linked && !item->rests );
         link( item );
         item = item->nextOfReactor;
      } while( item != ring );
}

void Queue::activationBegins() noexcept {
   if( activations_++ )
      return;
   firstBefore_ = first_.tail;
   secondBefore_ = second_.tail;
}

void Queue::activationEnds() noexcept {
   if( --activations_ )
      return;
   sortAfter( first_, firstBefore_ );
   sortAfter( second_, secondBefore_ );
}

// Sorts what stands behind `last` (null: all) by the order of asking: a merge sort of the list,
// runs of doubling length, that needs no memory.
void Queue::sortAfter( List & list, QueueItem * last ) noexcept {
   QueueItem * chain = last ? last->next : list.head;
   for( std::size_t run = 1, merges = 2; chain && merges > 1; run *= 2 ) {
      QueueItem * rest = chain;
      QueueItem * sorted = nullptr;
      QueueItem ** end = &sorted;
      for( merges = 0; rest; ++merges ) {
         QueueItem * a = rest;
         std::size_t inA = 0;
         for( ; inA != run && rest; ++inA )
            rest = rest->next;
         QueueItem * b = rest;
         std::size_t inB = 0;
         for( ; inB != run && rest; ++inB )
            rest = rest->next;
         while( inA || inB ) {
            bool const fromA = inA && ( !inB || a->asked < b->asked );
            QueueItem *& from = fromA ? a : b;
            --( fromA ? inA : inB );
            *end = from;
            end = &from->next;
            from = from->next;
         }
      }
      *end = nullptr;
      chain = sorted;
   }
   ( last ? last->next : list.head ) = chain;
   for( QueueItem * before = last; chain; chain = chain->next ) {
      chain->previous = before;
      before = list.tail = chain;
   }
}

void Queue::deactivate( Reactor & reactor ) noexcept {
   QueueItem * const ring = reactor.pending_;
   if( QueueItem * item = ring )
      do {
         if( item->linked )
            unlink( item );
         else if( item->rests )
            endRest( item );
         item = item->nextOfReactor;
      } while( item != ring );
}

void Queue::drop( Reactor & reactor ) noexcept {
   while( reactor.pending_ )
      take( reactor.pending_ );
}

void Queue::forget( Reactor & reactor ) noexcept {
   drop( reactor );
   if( current_ == &reactor )
      current_ = nullptr;
   if( running_.reactor == &reactor )
      running_.reactor = nullptr;
}

QueueItem const * Queue::next() {
   if( empty() && nextTime_ <= now() )
      resume();
   return first_.head ? first_.head : second_.head;
}

bool Queue::runOne() {
   assertInvariant( !busy_, "callbacks do not nest" );
   if( !next() )
      return false;
   deliver( first_.head ? first_.head : second_.head );
   return true;
}

bool Queue::runOldest( Reactor & reactor ) {
   QueueItem * item = reactor.pending_;
   if( !item || !reactor.hasNotificationActive() )
      return false;
   // A deferred call follows the keys, wherever it was asked for.
   while( item->form == Form::group && item->nextOfReactor != reactor.pending_ )
      item = item->nextOfReactor;
   deliver( item->form == Form::group ? reactor.pending_ : item );
   return true;
}

void Queue::deliver( QueueItem * item ) {
   Reactor & reactor = *item->reactor;
   Attribute const & attribute = *item->attribute;
   Form const form = item->form;
   Text const key = item->key;
   unsigned const failures = item->failures;
   Ptr< Reactor > const keep( reactor.references() ? &reactor : nullptr );
   Ptr< PtrInterface const > const notifier = reactor.notifierPtr();
   running_ = { item, nullptr, &reactor, &attribute };
   take( item );
   if( form == Form::group && item->reactor )
      running_.item = nullptr; // still the group of keys that are pending
   Outcome const outcome = guarded( reactor, attribute.id, failures, [ & ] {
      if( form == Form::member )
         attribute.delivery.member( reactor, key );
      else if( form == Form::group )
         attribute.delivery.deferred( reactor );
      else
         attribute.delivery.whole( reactor );
   } );
   // What is detached or attached elsewhere meanwhile has nothing pending of what it watched.
   if( outcome == Outcome::cutShort && running_.reactor && hears( reactor, attribute ) &&
       reactor.isRegisteredNotifiee() && reactor.notifierPtr() == notifier )
      rest( putBack( form, key ), failures + 1 );
   endRunning();
}

void Queue::endRunning() noexcept {
   Running const ended = running_;
   running_ = {};
   if( ended.item )
      release( ended.item );
   if( ended.group )
      release( ended.group );
}

Outcome Queue::failed( Reactor & reactor, AttributeId attribute, unsigned failures ) {
   if( !current_ ) {
      reportException( "a reactor that is gone", String8() );
      return Outcome::failed;
   }
   bool again = false;
   try {
      throw;
   } catch( std::bad_alloc const & ) {
      again = true;
   } catch( Exception const & ) {
      // What a caller did wrong is as wrong the next time.
   } catch( ... ) {
      again = reactor.deliveredUntilDone();
   }
   if( !again || failures == 0 ) {
      try {
         reactor.handleNotificationException( attribute );
      } catch( ... ) {
         reportException( "handleNotificationException", String8() );
      }
   }
   return again ? Outcome::cutShort : Outcome::failed;
}

// ------------------------------------------------------------------- what was cut short

double restAfter( unsigned failures ) {
   return failures < 2 ? 0.0 : failures < 12 ? 0.001 * ( 1U << ( failures - 2 ) ) : 1.0;
}

// The same call, if it has been asked for again while it ran.
QueueItem * Queue::pendingAgain( Form form, Text const & key ) noexcept {
   Reactor & reactor = *running_.reactor;
   if( form == Form::member )
      return find( reactor, *running_.attribute, form, key,
                   hashOf( reactor, *running_.attribute, form, key ) );
   QueueItem * const ring = reactor.pending_;
   if( QueueItem * item = ring )
      do {
         if( item->form == form && item->attribute->id == running_.attribute->id )
            return item;
         item = item->nextOfReactor;
      } while( item != ring );
   return nullptr;
}

// Makes what is delivered at this moment pending again, from what was kept of it.
QueueItem * Queue::putBack( Form form, Text const & key ) noexcept {
   Reactor & reactor = *running_.reactor;
   Attribute const & attribute = *running_.attribute;
   if( QueueItem * const again = pendingAgain( form, key ) )
      return again;
   auto const taken = [ & ]( QueueItem *& kept, Form f ) {
      QueueItem * const item = kept;
      kept = nullptr;
      item->reactor = &reactor;
      item->attribute = &attribute;
      item->form = f;
      return item;
   };
   if( form == Form::whole ) {
      reactor.pendingAttributes_ |= bitOf( attribute );
      QueueItem * const item = taken( running_.item, form );
      pend( item );
      return item;
   }
   std::uint32_t const groupHash = hashOf( reactor, attribute, Form::group, Text() );
   QueueItem * group = find( reactor, attribute, Form::group, Text(), groupHash );
   if( !group ) {
      group = taken( running_.group ? running_.group : running_.item, Form::group );
      group->hash = groupHash;
      enter( group );
   }
   if( form == Form::group ) {
      group->wanted = true;
      pend( group );
      return group;
   }
   QueueItem * const item = taken( running_.item, form );
   item->key = key;
   item->hash = hashOf( reactor, attribute, form, key );
   item->group = group;
   enter( item );
   pend( item );
   ++group->pendingKeys;
   return item;
}

void Queue::rest( QueueItem * item, unsigned failures ) noexcept {
   item->failures = failures;
   if( !item->linked )
      return; // its reactor has been switched off
   unlink( item );
   Resting & list = resting_[ std::min( failures, rests ) - 1 ];
   if( !list.head )
      list.until = now() + restAfter( failures );
   item->previous = list.tail;
   ( list.tail ? list.tail->next : list.head ) = item;
   list.tail = item;
   item->rests = true;
   nextTime_ = std::min( nextTime_, list.until );
   timersChanged();
}

void Queue::endRest( QueueItem * item ) noexcept {
   Resting & list = resting_[ std::min< unsigned >( item->failures, rests ) - 1 ];
   ( item->previous ? item->previous->next : list.head ) = item->next;
   ( item->next ? item->next->previous : list.tail ) = item->previous;
   item->next = item->previous = nullptr;
   item->rests = false;
   nextTime_ = std::numeric_limits< double >::infinity();
   for( Resting const & r : resting_ )
      if( r.head )
         nextTime_ = std::min( nextTime_, r.until );
   timersChanged();
}

void Queue::clockChanged() noexcept {
   for( Resting & list : resting_ )
      if( list.head )
         list.until = nextTime_ = -std::numeric_limits< double >::infinity();
}

void Queue::resume() noexcept {
   double const time = now();
   for( Resting & list : resting_ )
      while( list.head && list.until <= time ) {
         QueueItem * const item = list.head;
         endRest( item );
         link( item );
      }
}

QueueItem * Queue::find( Reactor const & reactor, Attribute const & attribute, Form form,
                         Text const & key, std::uint32_t hash ) const noexcept {
   if( !tableSize_ )
      return nullptr;
   for( QueueItem * i = table_[ hash & ( tableSize_ - 1 ) ]; i; i = i->nextInBucket )
      if( i->hash == hash && i->reactor == &reactor && i->form == form &&
          i->attribute->id == attribute.id && i->key == key )
         return i;
   return nullptr;
}

void Queue::enter( QueueItem * item ) noexcept {
   QueueItem *& bucket = table_[ item->hash & ( tableSize_ - 1 ) ];
   item->nextInBucket = bucket;
   bucket = item;
   ++entered_;
}

void Queue::leave( QueueItem * item ) noexcept {
   QueueItem ** link = &table_[ item->hash & ( tableSize_ - 1 ) ];
   while( *link != item )
      link = &( *link )->nextInBucket;
   *link = item->nextInBucket;
   item->nextInBucket = nullptr;
   --entered_;
}

} // namespace Kiv::detail

// --------------------------------------------------------------------------- changes of values

namespace Kiv {

namespace {

std::size_t notifieeCount( PtrInterface::NotifieeConst * first ) {
   std::size_t count = 0;
   if( PtrInterface::NotifieeConst * r = first )
      do {
         ++count;
         r = detail::Ring::next( *r );
      } while( r != first );
   return count;
}

} // namespace

// A key needs an item and, the first of them, a group.
std::size_t itemsFor( PtrInterface const & notifier, std::size_t keys ) {
   std::size_t const reactors = notifieeCount( detail::Ring::first( notifier ) );
   return keys ? reactors * ( keys + 1 ) : reactors;
}

void makeRoom( std::size_t items ) {
   if( items )
      detail::queue().reserve( items );
}

Change::Change( PtrInterface const & notifier, Attribute const & attribute, std::size_t keys )
   : notifier_( notifier ), attribute_( attribute ) {
   detail::checkOwner( &notifier, attribute.name );
   makeRoom( itemsFor( notifier, keys ) );
}

InOrder::InOrder() { detail::queue().activationBegins(); }
InOrder::~InOrder() { detail::queue().activationEnds(); }

void Change::queue() noexcept {
   PtrInterface::NotifieeConst * const first = detail::Ring::first( notifier_ );
   if( PtrInterface::NotifieeConst * r = first )
      do {
         detail::queue().add( *r, attribute_ );
         r = detail::Ring::next( *r );
      } while( r != first );
}

void Change::queue( Text const & key ) noexcept {
   PtrInterface::NotifieeConst * const first = detail::Ring::first( notifier_ );
   if( PtrInterface::NotifieeConst * r = first )
      do {
         detail::queue().add( *r, attribute_, key );
         r = detail::Ring::next( *r );
      } while( r != first );
}

} // namespace Kiv
