// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// What is pending for all reactors of the activity.
//
//    first_ :  [R1.timeout] <-> [R2.event "Net"] <-> [R1.event "Net"] <-> ...   served first
//    second_:  [R2.event, deferred] <-> ...                 served while first_ is empty
//
//    resting_: [R3.event "Disk"] ...   were cut short by an exception, and will be delivered again
//
// Every item also stands in a ring of its reactor, oldest first, so that dropping what is pending
// for one reactor costs what is dropped. Items of a reactor whose notifications are off stand in
// that ring alone. Items with keys, and the groups that count them, are found through a hash
// table. Items come from a pool, so that a steady state allocates nothing. Whenever nothing is
// pending any more the pool gives back what was not needed since that was so before, at most half
// of what it has: so it does not keep what one burst took, and keeps what every burst takes.
//
// Invariants:
//  1. An item stands in first_ or second_, or if it `rests` in resting_, exactly while its reactor
//     is active.
//  2. For every (reactor, attribute, key) there is at most one member item, and for every
//     (reactor, attribute) with member items or a deferred call pending exactly one group.
//  3. A group's `pendingKeys` is the number of its member items; it is in its reactor's ring
//     exactly while its deferred call is pending.
//  4. While a callback runs, its item is kept, and if its group has gone with it the pool has
//     another, so that putting it back needs no memory. For that, room is made for one item more
//     than is asked for.
//  5. An item in the pool is as a new one is, but for what every use of it sets: so what is told to
//     reactors without a key writes little.
#pragma once

#include <Kiv/Notifiee.h>
#include <Kiv/Type.h>

#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <string_view>

namespace Kiv::detail {

class Turn;

enum class Form : std::uint8_t { whole, member, group };

// How long a callback or timer rests that an exception has cut short `failures` times in a row,
// in seconds: it is tried again at once when everything else that is pending has had its turn, then
// after a millisecond and, while it keeps failing, after twice as long each time, up to a second.
// Memory that is short for a moment costs no time, and memory that is short for long no processor.
double restAfter( unsigned failures );

// What became of a callback.
enum class Outcome : std::uint8_t {
   done,
   failed,   // an exception left it, and it is given up
   cutShort, // an exception left it, and it is to be delivered again
};

struct QueueItem : KivMemPool {
   QueueItem * next = nullptr;     // in first_, second_ or resting_; in the pool
   QueueItem * previous = nullptr; // in these; says nothing of the first in first_ and second_
   PtrInterface::NotifieeConst * reactor = nullptr;
   Attribute const * attribute = nullptr;
   std::uint32_t number = 0;         // fixed: where it is found by those that have no pointer to it
   std::uint64_t asked = 0;          // the how many-th thing it was that was asked of the loop
   QueueItem * nextOfReactor = this; // ring
   QueueItem * previousOfReactor = this;
   std::uint32_t failures = 0; // in a row
   Form form = Form::whole;
   bool wanted = false;           // of a group: the deferred call is pending
   bool rests = false;            // stands in resting_
   std::uint32_t hash = 0;        // of what stands in the table, like these:
   std::uint32_t pendingKeys = 0; // of a group
   Text key;                      // of a member item
   QueueItem * group = nullptr;   // of a member item
   QueueItem * nextInBucket = nullptr;
};

// So many items are allocated together, and given back together.
struct QueueBlock : KivMemPool {
   static constexpr std::size_t size = 32;
   QueueItem items[ size ];
};

class Queue {
 public:
   using Reactor = PtrInterface::NotifieeConst;

   Queue() = default;
   Queue( Queue const & ) = delete;
   Queue & operator=( Queue const & ) = delete;

   // Makes room for so many items, and for those of them that have keys or are groups. Throws
   // std::bad_alloc, having changed nothing but the room.
   void reserve( std::size_t items, std::size_t withKeys ) {
      if( free_ <= items + spare_ ) [[unlikely]]
         reserveItems( items );
      if( entered_ + withKeys > tableSize_ ) [[unlikely]]
         reservePlaces( withKeys );
   }
   // Queues for each reactor of the ring that begins with `first`.
   void add( Reactor & first, Attribute const & attribute ) noexcept;
   void add( Reactor & first, Attribute const & attribute, Text const & key ) noexcept;

   // The reactor's notifications were turned on or off.
   void activate( Reactor & reactor ) noexcept;
   void deactivate( Reactor & reactor ) noexcept;
   void drop( Reactor & reactor ) noexcept;
   // The reactor is about to be destroyed.
   void forget( Reactor & reactor ) noexcept;

   // Between these two, which nest, reactors are activated together: what was pending for them
   // goes to the end in the order in which it was queued, whichever of them it is for.
   void activationBegins() noexcept;
   void activationEnds() noexcept;

   bool empty() const { return !first_.head && !second_.head; }
   // When the first of those that rest is delivered again, in seconds on the activity's clock;
   // +infinity: none rests.
   double nextTime() const { return nextTime_; }
   // Times on the clock before say nothing any more: what rests has rested.
   void clockChanged() noexcept;
   // Puts those back into the queue that have rested long enough.
   void resume() noexcept;
   // Numbers all that is asked of the loop, callbacks and timers, in the order of asking.
   std::uint64_t ask() { return ++asked_; }
   std::uint64_t asked() const { return asked_; }
   // Delivers, those that have rested long enough after all others, until nothing is queued or
   // `limit` is reached; how many. REQUIRES: no callback is running.
   std::size_t run( std::size_t limit );
   // The same, until the turn is over or has been `stopped`.
   std::size_t run( std::size_t limit, Turn & turn, bool const & stopped );
   bool runOldest( Reactor & reactor );
   // The item of that number; null for 0.
   QueueItem * item( std::uint32_t number ) const {
      return number ? &blocks_[ ( number - 1 ) / QueueBlock::size ]
                          ->items[ ( number - 1 ) % QueueBlock::size ]
                    : nullptr;
   }
   // Whether a callback or timer is running: whoever is told watches something.
   bool running() const { return notifier_ != nullptr; }
   // What the reactor whose callback runs watched when it was called; null when none runs.
   PtrInterface const * notifier() const { return notifier_; }

   // Runs `call` as a callback of `reactor`: keeps the reactor, catches what it throws. A callback
   // that is to be delivered again is reported at the first of its `failures` in a row only, and
   // once more with their number when it has been delivered. Then calls `after` with what became
   // of it, unless the reactor was destroyed meanwhile; what that throws leaves this.
   template< class Call, class After >
   void guarded( Reactor & reactor, AttributeId attribute, unsigned failures, Call call,
                 After after );

   // The last reference to an object has gone. True when a callback is running for which it is
   // kept: then it is referred to until that is over. So a callback takes no reference to what
   // outlives it, as nearly everything does.
   bool keeps( PtrInterface const & object ) noexcept {
      if( &object != current_ && &object != notifier_ ) [[likely]]
         return false;
      keep( object );
      return true;
   }

 private:
   struct List {
      QueueItem * head = nullptr;
      QueueItem * tail = nullptr;
   };

   static bool hears( Reactor const & reactor, Attribute const & attribute );
   void reserveItems( std::size_t items );
   void reservePlaces( std::size_t items );
   void addBlock();
   void blocksRoomIs( std::size_t room );
   void fill( QueueBlock & block ) noexcept;
   void giveBack() noexcept;
   void tableIs( QueueItem ** table, std::size_t size ) noexcept;
   QueueItem * make( Reactor & reactor, Attribute const & attribute, Form form ) noexcept;
   void release( QueueItem * item ) noexcept;
   void releaseWhole( QueueItem * item ) noexcept;
   List & listOf( QueueItem const & item ) { return item.form == Form::group ? second_ : first_; }
   void link( QueueItem * item ) noexcept;
   void unlink( QueueItem * item ) noexcept;
   void unlinkFirst( QueueItem * item ) noexcept;
   void enterRing( QueueItem * item ) const noexcept;
   static void leaveRing( QueueItem * item ) noexcept;
   void pend( QueueItem * item ) noexcept;
   static void sortAfter( List & list, QueueItem * last ) noexcept;
   bool take( QueueItem * item ) noexcept;
   void addOne( Reactor & reactor, Attribute const & attribute, Text const & key ) noexcept;

   QueueItem * next() noexcept;
   template< class GoesOn >
   std::size_t deliverWhile( GoesOn goesOn );
   template< class GoesOn >
   void deliverWholes( QueueItem * item, std::size_t & count, GoesOn goesOn );
   void deliver( QueueItem * item );
   void begin( Reactor & reactor ) noexcept;
   void end() noexcept;
   void keep( PtrInterface const & object ) noexcept;
   void letGo() noexcept;
   Outcome failed( Reactor & reactor, AttributeId attribute, unsigned failures );

   // What was delivered when an exception came: the item, null when it is still the group of keys
   // that are pending, and what it was before it was taken.
   struct Cut {
      QueueItem * item;
      Reactor & reactor;
      Attribute const & attribute;
      Form form;
      unsigned failures;
   };
   bool cutShort( Cut const & cut );
   QueueItem * pendingAgain( Cut const & cut ) noexcept;
   QueueItem * putBack( Cut const & cut ) noexcept;
   void rest( QueueItem * item, unsigned failures ) noexcept;
   void endRest( QueueItem * item ) noexcept;

   QueueItem * find( Reactor const & reactor, Attribute const & attribute, Form form,
                     Text const & key, std::uint32_t hash ) const noexcept;
   void enter( QueueItem * item ) noexcept;
   void leave( QueueItem * item ) noexcept;

   List first_;
   List second_;
   // For each length of rest those that have it; all of them are resumed together.
   static constexpr unsigned rests = 12;
   struct Resting : List {
      double until = 0;
   };
   Resting resting_[ rests ];
   double nextTime_ = std::numeric_limits< double >::infinity();
   QueueItem * firstBefore_ = nullptr; // the ends of both when the activation began
   QueueItem * secondBefore_ = nullptr;
   unsigned activations_ = 0; // under way, nested
   std::uint64_t asked_ = 0;
   QueueItem * pool_ = nullptr;
   std::size_t free_ = 0;  // items in the pool
   std::size_t spare_ = 0; // of these: not needed since nothing was pending
   std::size_t items_ = 0; // all there are
   QueueBlock ** blocks_ = nullptr;
   std::size_t blocksRoom_ = 0;
   QueueItem ** table_ = nullptr;
   std::size_t tableSize_ = 0; // a power of two, or 0
   std::size_t entered_ = 0;   // items in the table
   PtrInterface const * notifier_ = nullptr;
   Reactor * current_ = nullptr; // whose callback runs; null when it was destroyed meanwhile
   // Which of these two is referred to by the callback that runs, as nobody else does.
   static constexpr unsigned keepsReactor = 1;
   static constexpr unsigned keepsNotifier = 2;
   unsigned keeps_ = 0;
};

// The activity's queue. Never destroyed. Needs no heap: its first use may be in the destructor of a
// reactor whose constructor ran out of memory.
extern constinit Queue theQueue;
inline Queue & queue() { return theQueue; }

// Tells of an exception that nobody else will: through the trace facility and on standard error.
// REQUIRES: called while the exception is handled.
void reportException( char const * where, String8 const & what ) noexcept;
// Tells that a callback for `attribute` of `notifier` that was cut short `failures` times in a row
// has been delivered.
void reportRecovery( PtrInterface const * notifier, AttributeId attribute,
                     unsigned failures ) noexcept;
// Tells, in the same ways, that a turn of the loop was cut after so many callbacks and timers, and
// which of them were busy to the last; `more`: there were others.
void reportBusy( std::size_t delivered, std::span< std::string_view const > busy,
                 bool more ) noexcept;

} // namespace Kiv::detail
