// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Kiv/detail/Queue.h>

#include <Kiv/Activity.h>
#include <Kiv/Attribute.h>
#include <Kiv/Exception.h>
#include <Kiv/detail/Guarded.h>
#include <Kiv/detail/Turn.h>

#include <algorithm>
#include <bit>
#include <cassert>
#include <new>
#include <type_traits>
#include <utility>

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

constexpr std::size_t perBlock = QueueBlock::size;
// So many the pool does not give back. A power of two.
constexpr std::size_t leastItems = 2 * perBlock;

std::uint32_t bitOf( Attribute const & attribute ) {
   assert( attribute.id < wholeAttributes );
   return 1U << attribute.id;
}

constexpr unsigned digitBits = 8;

// The chain, sorted by one digit of how much later than `least` each item was asked for. Those with
// the same digit stay in their order.
QueueItem * sortedByDigit( QueueItem * chain, std::uint64_t least, unsigned digit ) {
   constexpr std::size_t values = std::size_t{ 1 } << digitBits;
   QueueItem * heads[ values ] = {};
   QueueItem * tails[ values ];
   for( ; chain; chain = chain->next ) {
      std::size_t const value = ( chain->asked - least ) >> digit & ( values - 1 );
      ( heads[ value ] ? tails[ value ]->next : heads[ value ] ) = chain;
      tails[ value ] = chain;
   }
   QueueItem ** end = &chain;
   for( std::size_t value = 0; value != values; ++value )
      if( heads[ value ] ) {
         *end = heads[ value ];
         end = &tails[ value ]->next;
      }
   *end = nullptr;
   return chain;
}

} // namespace

constinit Queue theQueue;
static_assert( std::is_trivially_destructible_v< Queue > );

// ------------------------------------------------------------------------------ room and memory

void Queue::reserveItems( std::size_t items ) {
   while( free_ <= items )
      addBlock();
   // By half at least, so that a growing burst comes here seldom.
   spare_ = std::min( spare_ / 2, free_ - items - 1 );
}

void Queue::addBlock() {
   std::size_t const blocks = items_ / perBlock;
   if( blocks == blocksRoom_ )
      blocksRoomIs( blocks ? 2 * blocks : leastItems / perBlock );
   auto * const block = new QueueBlock;
   auto number = static_cast< std::uint32_t >( items_ );
   for( QueueItem & item : block->items )
      item.number = ++number;
   blocks_[ blocks ] = block;
   items_ += perBlock;
   fill( *block );
}

void Queue::blocksRoomIs( std::size_t room ) {
   auto ** const made =
      static_cast< QueueBlock ** >( KivMemPool::operator new( room * sizeof( QueueBlock * ) ) );
   std::copy_n( blocks_, items_ / perBlock, made );
   KivMemPool::operator delete( blocks_, blocksRoom_ * sizeof( QueueBlock * ) );
   blocks_ = made;
   blocksRoom_ = room;
}

// All items of a block go into the pool.
void Queue::fill( QueueBlock & block ) noexcept {
   for( QueueItem & item : block.items )
      item.next = std::exchange( pool_, &item );
   free_ += perBlock;
}

// Nothing is queued. As long as something waits for a reactor that is off, or rests, all is kept:
// it stands anywhere.
void Queue::giveBack() noexcept {
   if( free_ != items_ )
      return;
   if( spare_ >= perBlock ) {
      for( ; spare_ >= perBlock && items_ > leastItems; spare_ -= perBlock, items_ -= perBlock )
         delete blocks_[ items_ / perBlock - 1 ];
      pool_ = nullptr;
      free_ = 0;
      for( std::size_t i = items_ / perBlock; i != 0; --i )
         fill( *blocks_[ i - 1 ] );
   }
   spare_ = items_ > leastItems ? free_ / 2 : 0;
   // The next key makes one that is as large as the items need.
   if( tableSize_ > 2 * std::max( items_, leastItems ) ) {
      KivMemPool::operator delete( table_, tableSize_ * sizeof( QueueItem * ) );
      table_ = nullptr;
      tableSize_ = 0;
   }
}

void Queue::reservePlaces( std::size_t items ) {
   std::size_t size = tableSize_ ? tableSize_ : std::bit_ceil( items_ );
   while( size < entered_ + items )
      size *= 2;
   auto * const table =
      static_cast< QueueItem ** >( KivMemPool::operator new( size * sizeof( QueueItem * ) ) );
   tableIs( table, size );
}

// Moves what is entered into another table.
void Queue::tableIs( QueueItem ** table, std::size_t size ) noexcept {
   std::fill_n( table, size, nullptr );
   for( std::size_t i = 0; i != tableSize_; ++i )
      while( QueueItem * const item = table_[ i ] ) {
         table_[ i ] = item->nextInBucket;
         QueueItem *& bucket = table[ item->hash & ( size - 1 ) ];
         item->nextInBucket = bucket;
         bucket = item;
      }
   KivMemPool::operator delete( table_, tableSize_ * sizeof( QueueItem * ) );
   table_ = table;
   tableSize_ = size;
}

QueueItem * Queue::make( Reactor & reactor, Attribute const & attribute, Form form ) noexcept {
   assert( pool_ && "room was made" );
   QueueItem * item = pool_;
   pool_ = item->next;
   --free_;
   item->reactor = &reactor;
   item->attribute = &attribute;
   item->form = form;
   return item;
}

void Queue::release( QueueItem * item ) noexcept {
   item->failures = 0;
   if( item->form != Form::whole ) {
      item->form = Form::whole;
      item->key = Text();
      item->group = nullptr;
   }
   releaseWhole( item );
}

inline void Queue::releaseWhole( QueueItem * item ) noexcept {
   item->next = pool_;
   pool_ = item;
   ++free_;
}

// --------------------------------------------------------------------------------- the two lists

void Queue::link( QueueItem * item ) noexcept {
   bool const wasEmpty = empty();
   List & list = listOf( *item );
   item->previous = list.tail;
   item->next = nullptr;
   ( list.tail ? list.tail->next : list.head ) = item;
   list.tail = item;
   if( wasEmpty )
      workArrived();
}

inline void Queue::unlink( QueueItem * item ) noexcept {
   List & list = listOf( *item );
   QueueItem *& before = item->form == Form::group ? secondBefore_ : firstBefore_;
   QueueItem * const next = item->next;
   bool const isFirst = list.head == item;
   if( before == item ) [[unlikely]]
      before = isFirst ? nullptr : item->previous;
   ( isFirst ? list.head : item->previous->next ) = next;
   if( next ) {
      next->previous = item->previous;
      return;
   }
   list.tail = isFirst ? nullptr : item->previous;
   if( empty() )
      workGone();
}

// The same for the first of first_.
inline void Queue::unlinkFirst( QueueItem * item ) noexcept {
   if( firstBefore_ == item ) [[unlikely]]
      firstBefore_ = nullptr;
   first_.head = item->next;
   if( first_.head ) [[likely]]
      return;
   first_.tail = nullptr;
   if( empty() )
      workGone();
}

// An item alone in the ring is linked with itself, like one in no ring.
inline void Queue::enterRing( QueueItem * item ) const noexcept {
   std::uint32_t & first = item->reactor->pending_;
   if( !first ) [[likely]] {
      first = item->number;
      return;
   }
   QueueItem * const ring = this->item( first );
   item->nextOfReactor = ring;
   item->previousOfReactor = ring->previousOfReactor;
   ring->previousOfReactor->nextOfReactor = item;
   ring->previousOfReactor = item;
}

inline void Queue::leaveRing( QueueItem * item ) noexcept {
   std::uint32_t & first = item->reactor->pending_;
   if( item->nextOfReactor == item ) [[likely]] {
      first = 0;
      return;
   }
   item->nextOfReactor->previousOfReactor = item->previousOfReactor;
   item->previousOfReactor->nextOfReactor = item->nextOfReactor;
   if( first == item->number )
      first = item->nextOfReactor->number;
   item->nextOfReactor = item->previousOfReactor = item;
}

// Puts an item at the end of its reactor's ring, and of the queue when the reactor is active.
void Queue::pend( QueueItem * item ) noexcept {
   item->asked = ask();
   enterRing( item );
   if( item->reactor->hasNotificationActive() )
      link( item );
}

// Takes what is pending from where it stands. False for a group that stays, because of its keys.
inline bool Queue::take( QueueItem * item ) noexcept {
   if( item->rests ) [[unlikely]]
      endRest( item );
   else if( item->reactor->hasNotificationActive() )
      unlink( item );
   leaveRing( item );
   if( item->form == Form::whole ) {
      item->reactor->pendingAttributes_ &= ~bitOf( *item->attribute );
      return true;
   }
   if( item->form == Form::member ) {
      leave( item );
      QueueItem * const group = item->group;
      if( --group->pendingKeys == 0 && !group->wanted ) {
         leave( group );
         release( group );
      }
      return true;
   }
   item->wanted = false;
   item->failures = 0;
   if( item->pendingKeys != 0 )
      return false;
   leave( item );
   return true;
}

// A reactor that is marked, or has no callback for the attribute, is told nothing.
bool Queue::hears( Reactor const & reactor, Attribute const & attribute ) {
   auto const hears = attribute.id < firstOwnAttribute ? Reactor::hearsEntity : Reactor::hearsOwn;
   return !reactor.kivMarkedForDeletion() && reactor.flag( hears );
}

void Queue::add( Reactor & first, Attribute const & attribute ) noexcept {
   std::uint32_t const bit = bitOf( attribute );
   bool const wasEmpty = empty();
   QueueItem * item = pool_;
   QueueItem * last = first_.tail;
   QueueItem ** end = last ? &last->next : &first_.head;
   std::uint64_t asked = asked_;
   std::uint64_t const before = asked;
   Reactor * r = &first;
   do {
      if( hears( *r, attribute ) && !( r->pendingAttributes_ & bit ) ) {
         assert( item && "room was made" );
         QueueItem * const rest = item->next;
         r->pendingAttributes_ |= bit;
         item->reactor = r;
         item->attribute = &attribute;
         item->asked = ++asked;
         enterRing( item );
         if( r->hasNotificationActive() ) [[likely]] {
            item->previous = last;
            last = *end = item;
            end = &item->next;
         }
         item = rest;
      }
      r = Ring::next( *r );
   } while( r != &first );
   *end = nullptr;
   first_.tail = last;
   pool_ = item;
   free_ -= static_cast< std::size_t >( asked - before );
   asked_ = asked;
   if( wasEmpty && !empty() )
      workArrived();
}

void Queue::add( Reactor & first, Attribute const & attribute, Text const & key ) noexcept {
   Reactor * r = &first;
   do {
      addOne( *r, attribute, key );
      r = Ring::next( *r );
   } while( r != &first );
}

void Queue::addOne( Reactor & reactor, Attribute const & attribute, Text const & key ) noexcept {
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
   QueueItem * const ring = item( reactor.pending_ );
   if( QueueItem * item = ring )
      do {
         assert( !item->rests );
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

// Sorts what stands behind `last` (null: all) by the order of asking, digit by digit from the
// lowest: so that it takes no memory, and time in proportion to what is sorted, as whole systems
// are switched on at once. What each reactor had pending is in order, and mostly there is one only.
void Queue::sortAfter( List & list, QueueItem * last ) noexcept {
   QueueItem * chain = last ? last->next : list.head;
   std::uint64_t least = chain ? chain->asked : 0;
   std::uint64_t most = least;
   bool inOrder = true;
   for( QueueItem const * item = chain; item; item = item->next ) {
      inOrder = inOrder && item->asked >= most;
      least = std::min( least, item->asked );
      most = std::max( most, item->asked );
   }
   if( inOrder )
      return;
   for( unsigned digit = 0; digit != 64 && ( most - least ) >> digit != 0; digit += digitBits )
      chain = sortedByDigit( chain, least, digit );
   ( last ? last->next : list.head ) = chain;
   for( QueueItem * before = last; chain; chain = chain->next ) {
      chain->previous = before;
      before = list.tail = chain;
   }
}

void Queue::deactivate( Reactor & reactor ) noexcept {
   QueueItem * const ring = item( reactor.pending_ );
   if( QueueItem * item = ring )
      do {
         if( item->rests )
            endRest( item );
         else
            unlink( item );
         item = item->nextOfReactor;
      } while( item != ring );
}

void Queue::drop( Reactor & reactor ) noexcept {
   while( QueueItem * const first = item( reactor.pending_ ) )
      if( take( first ) )
         release( first );
}

void Queue::forget( Reactor & reactor ) noexcept {
   drop( reactor );
   if( current_ == &reactor )
      current_ = nullptr;
}

// -------------------------------------------------------------------------------------- delivery

inline QueueItem * Queue::next() noexcept {
   if( first_.head )
      return first_.head;
   if( second_.head )
      return second_.head;
   if( nextTime_ < std::numeric_limits< double >::infinity() && nextTime_ <= now() )
      resume();
   return first_.head ? first_.head : second_.head;
}

template< class GoesOn >
std::size_t Queue::deliverWhile( GoesOn goesOn ) {
   assertInvariant( !running(), "callbacks do not nest" );
   std::size_t count = 0;
   for( QueueItem * item; ( item = next() ) && goesOn( *item, count ); ) {
      ++count;
      if( item->form != Form::whole || item->failures != 0 )
         deliver( item );
      else
         deliverWholes( item, count, goesOn );
   }
   if( items_ > leastItems && empty() )
      giveBack();
   return count;
}

// Delivers the first of first_, and what follows it, as far as that is of attributes without keys:
// what deliver() does, less what is not asked for then.
template< class GoesOn >
inline void Queue::deliverWholes( QueueItem * item, std::size_t & count, GoesOn goesOn ) {
   try {
      for( ;; ) {
         Reactor & reactor = *item->reactor;
         Attribute const & attribute = *item->attribute;
         unlinkFirst( item );
         leaveRing( item );
         reactor.pendingAttributes_ &= ~bitOf( attribute );
         begin( reactor );
         attribute.delivery.whole( reactor );
         releaseWhole( item );
         item = first_.head;
         if( keeps_ || !item || item->form != Form::whole || item->failures != 0 ||
             !goesOn( *item, count ) )
            break;
         ++count;
      }
   } catch( ... ) {
      if( !cutShort( { item, *item->reactor, *item->attribute, Form::whole, 0 } ) )
         releaseWhole( item );
   }
   end();
}

std::size_t Queue::run( std::size_t limit ) {
   return deliverWhile( [ = ]( QueueItem const &, std::size_t count ) { return count != limit; } );
}

std::size_t Queue::run( std::size_t limit, Turn & turn, bool const & stopped ) {
   return deliverWhile( [ &, limit ]( QueueItem const & item, std::size_t count ) {
      if( count == limit || ( count != 0 && ( stopped || turn.over() ) ) )
         return false;
      turn.delivers( *item.reactor, item.attribute->id, item.asked );
      return true;
   } );
}

bool Queue::runOldest( Reactor & reactor ) {
   QueueItem * const first = this->item( reactor.pending_ );
   QueueItem * item = first;
   if( !item || !reactor.hasNotificationActive() )
      return false;
   // A deferred call follows the keys, wherever it was asked for.
   while( item->form == Form::group && item->nextOfReactor != first )
      item = item->nextOfReactor;
   deliver( item->form == Form::group ? first : item );
   return true;
}

inline void Queue::deliver( QueueItem * item ) {
   Reactor & reactor = *item->reactor;
   Attribute const & attribute = *item->attribute;
   Form const form = item->form;
   unsigned const failures = item->failures;
   QueueItem * const taken = take( item ) ? item : nullptr;
   begin( reactor );
   bool kept = true;
   try {
      if( form == Form::whole )
         attribute.delivery.whole( reactor );
      else if( form == Form::member )
         attribute.delivery.member( reactor, item->key );
      else
         attribute.delivery.deferred( reactor );
      if( failures > 1 ) [[unlikely]]
         reportRecovery( notifier_, attribute.id, failures );
   } catch( ... ) {
      kept = !cutShort( { taken, reactor, attribute, form, failures } );
   }
   if( kept && taken )
      release( taken );
   end();
}

void Queue::keep( PtrInterface const & object ) noexcept {
   object.newRef();
   keeps_ |= &object == notifier_ ? keepsNotifier : keepsReactor;
}

// Destroys what nobody refers to any more, when no callback is running.
void Queue::letGo() noexcept {
   PtrInterface const * const notifier = keeps_ & keepsNotifier ? notifier_ : nullptr;
   PtrInterface const * const reactor = keeps_ & keepsReactor ? current_ : nullptr;
   keeps_ = 0;
   current_ = nullptr;
   notifier_ = nullptr;
   if( notifier )
      notifier->deleteRef();
   if( reactor )
      reactor->deleteRef();
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

// An exception has left a callback. Whether its item is pending again.
bool Queue::cutShort( Cut const & cut ) {
   PtrInterface const * const notifier = notifier_;
   Outcome const outcome = failed( cut.reactor, cut.attribute.id, cut.failures );
   // What is detached or attached elsewhere meanwhile has nothing pending of what it watched.
   if( outcome != Outcome::cutShort || !current_ || !hears( cut.reactor, cut.attribute ) ||
       !cut.reactor.isRegisteredNotifiee() || cut.reactor.notifierPtr().get() != notifier )
      return false;
   QueueItem * const item = putBack( cut );
   rest( item, cut.failures + 1 );
   return item == cut.item;
}

// The same call, if it has been asked for again while it ran.
QueueItem * Queue::pendingAgain( Cut const & cut ) noexcept {
   if( cut.form == Form::member )
      return find( cut.reactor, cut.attribute, cut.form, cut.item->key, cut.item->hash );
   QueueItem * const ring = item( cut.reactor.pending_ );
   if( QueueItem * item = ring )
      do {
         if( item->form == cut.form && item->attribute->id == cut.attribute.id )
            return item;
         item = item->nextOfReactor;
      } while( item != ring );
   return nullptr;
}

// Makes what is delivered at this moment pending again.
QueueItem * Queue::putBack( Cut const & cut ) noexcept {
   Reactor & reactor = cut.reactor;
   Attribute const & attribute = cut.attribute;
   if( QueueItem * const again = pendingAgain( cut ) )
      return again;
   if( cut.form == Form::whole ) {
      reactor.pendingAttributes_ |= bitOf( attribute );
      pend( cut.item );
      return cut.item;
   }
   std::uint32_t const groupHash = hashOf( reactor, attribute, Form::group, Text() );
   QueueItem * group = find( reactor, attribute, Form::group, Text(), groupHash );
   if( !group ) {
      bool const isGroup = cut.form == Form::group && cut.item;
      group = isGroup ? cut.item : make( reactor, attribute, Form::group );
      group->hash = groupHash;
      enter( group );
   }
   if( cut.form == Form::group ) {
      group->wanted = true;
      pend( group );
      return group;
   }
   cut.item->group = group;
   enter( cut.item );
   pend( cut.item );
   ++group->pendingKeys;
   return cut.item;
}

void Queue::rest( QueueItem * item, unsigned failures ) noexcept {
   item->failures = failures;
   if( !item->reactor->hasNotificationActive() )
      return; // and stands in no list
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
// A key needs an item and, the first of them, a group.
std::size_t itemsOf( PtrInterface const & notifier, std::size_t keys ) {
   std::size_t const reactors = detail::Ring::count( notifier );
   return keys ? reactors * ( keys + 1 ) : reactors;
}
} // namespace

std::size_t itemsFor( PtrInterface const & notifier, std::size_t keys ) {
   return itemsOf( notifier, keys );
}

void makeRoom( std::size_t items ) {
   if( items )
      detail::queue().reserve( items, items );
}

void Change::makeRoom( PtrInterface const & notifier, std::size_t keys ) {
   std::size_t const items = itemsOf( notifier, keys );
   detail::queue().reserve( items, keys ? items : 0 );
}

void Change::queue( PtrInterface const & notifier, Attribute const & attribute ) noexcept {
   detail::queue().add( *detail::Ring::first( notifier ), attribute );
}

void Change::queue( PtrInterface const & notifier, Attribute const & attribute,
                    Text const & key ) noexcept {
   detail::queue().add( *detail::Ring::first( notifier ), attribute, key );
}

InOrder::InOrder() { detail::queue().activationBegins(); }
InOrder::~InOrder() { detail::queue().activationEnds(); }

} // namespace Kiv
