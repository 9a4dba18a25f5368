// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The activity: the loop in which all callbacks run.
//
// One turn of the loop:
//
//    deliver until nothing is queued
//    while a timer is due: fire the earliest, deliver until nothing is queued
//    sleep until the next due time, a watched descriptor, or a post from another thread
//    run what woke it up, one by one, delivering after each
//
// Work that leads to more work without an end would keep a turn from ending: reactors that answer
// each other, a timer that is set for "now" whenever it fires. So what a turn delivers is bounded
// (turnLimit()); past the bound, timers that are due, descriptors and posts get their turn before
// the rest. Nothing is lost, and the queue stays first in, first out.
//
// A loop that is the process's own is run() on the thread that owns it. A loop that lives in
// another one (poll, an event library) is reached through descriptor(), nextTime() and runDue().
#pragma once

#include <Kiv/Clock.h>
#include <Kiv/Export.h>
#include <Kiv/Ptr.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <span>

namespace Kiv {

class Activity;
class ActivityManager;

namespace detail {
struct Embedding;
} // namespace detail

// Identifies the activity in which a reactor's callbacks run. There is one in a process.
class KIV_EXPORT ActivityConfig : public PtrInterface {
 public:
   ~ActivityConfig() override;
   Name name() const { return name_; }

 private:
   friend class ActivityManager;
   explicit ActivityConfig( char const * name );
   char const * name_;
};

// How the loop sleeps, is woken, and watches descriptors. A seam: a test can replace it.
class KIV_EXPORT Wakeup {
 public:
   struct Ready {
      int fd;
      unsigned events;
   };

   virtual ~Wakeup();
   // Readable, level-triggered, for a wake-up, an expired alarm and every ready descriptor alike.
   virtual int descriptor() const = 0;
   // Any thread may call it.
   virtual void wake() noexcept = 0;
   // Seconds from now; +infinity: none.
   virtual void alarmIs( double delay ) = 0;
   // Events as poll(2) has them; 0 ends the watch. Throws std::system_error.
   virtual void watchIs( int fd, unsigned events ) = 0;
   // Takes back wake-ups and alarms, writes down descriptors that are ready, as many as there is
   // room for, and returns how many. When `block` is true it sleeps until there is something. Those
   // that were left out come first in one of the next calls. It needs no memory, so that a loop in
   // a process that has none left goes on; throws std::system_error.
   virtual std::size_t wait( bool block, std::span< Ready > ready ) = 0;
};

// The process's one activity, its clock and its loop. Made at first use, never destroyed. Belongs
// to the thread that used it first, other than by post() (ownerThreadIs() moves it). post() alone
// may be called from any thread: when another thread changes an entity, sets a timer, or switches
// or registers a reactor, a message on standard error says which thread, what it has touched and
// which attribute, and the process ends. That is one comparison for each change, in every build.
class KIV_EXPORT ActivityManager : public PtrInterface {
 public:
   using Task = std::function< void() >;

   Ptr< Clock > clock() const { return clock_; }
   // Timers stay with the clock on which they were made, and fire only while it is installed.
   // A range exception for null: "null ValidPtr".
   void clockIs( Ptr< Clock > const & clock );

   Ptr< ActivityConfig > const & config() const { return config_; }
   Activity * activity() const { return activity_; }

   // ---- the loop as the process's own

   // Runs turns until stop() is called, inside the loop. Throws an exception when called inside a
   // callback, or in a process forked from the one that made the activity; and std::system_error or
   // std::bad_alloc, before it runs anything, when there is no wake-up yet and none can be made.
   // Memory that is short later does not end it. What the wake-up's wait() throws leaves run(),
   // with the built-in one a std::system_error when the system refuses to wait: nothing is lost by
   // that, and run() may be called again.
   void run();
   // run() returns after the callback that is running; what is queued stays queued.
   void stop() { stopped_ = true; }

   // ---- the loop inside another one

   // A close-on-exec descriptor that is readable (level-triggered) while there is anything to do:
   // queued callbacks, due timers, ready descriptors, posts. Stays the manager's.
   int descriptor();
   // When the next timer is due, or a callback that was cut short is delivered again, in seconds on
   // the scale of now(); +infinity: none.
   double nextTime() const;
   // Runs what is due and never blocks: at most `limit` callbacks, timers, tasks and watchers of
   // descriptors; the descriptor stays readable when something is left. Whatever the limit, each of
   // them gets its turn. Returns how many ran. Throws as run() does.
   std::size_t runDue( std::size_t limit = 4096 );

   // ---- what one turn delivers, in run() and runDue()

   // How many callbacks and timers a turn delivers before each timer that is due, each post and
   // each descriptor that is ready gets its turn; then it goes on. The reactors that keep the loop
   // so busy are named once, in the trace and on standard error: what they watch, and the
   // attribute. The next report comes when there was nothing to do in between.
   //
   // 100,000 if not said otherwise. A callback takes a microsecond or so, so that others wait for a
   // fraction of a second in the worst case, while start-ups of some ten thousand stages never get
   // there. Nor does any burst that ends by itself, of any size: a turn is only cut when work has
   // led to more work 64 times over. Timers that fired between two halves of a burst would see half
   // of what was declared in one instant. A range exception for 0.
   std::size_t turnLimit() const;
   void turnLimitIs( std::size_t limit );

   // ---- the loop by hand: each throws when called inside a callback

   // Delivers one callback; false when nothing is queued.
   bool runOne();
   // Delivers until nothing is queued; how many.
   std::size_t runQueued();
   // Fires the first due timer without delivering what it queues; false when none is due.
   bool fireOne();
   // Nothing is queued, posted or due.
   bool idle() const;

   // ---- the world outside

   // Runs `task` on the activity's thread, in order of posting. Any thread may call it. What the
   // task throws is reported on standard error. A range exception for an empty task. Asks the
   // system for nothing unless the loop sleeps (or is one inside another, and not in a turn), and
   // then only the first of the posts does that wake it; takes no lock on the activity's thread.
   void post( Task task );
   // Calls `ready` with the events that hold whenever `fd` is ready for `events` (poll(2)'s
   // POLLIN, POLLOUT ...). One watch per descriptor; another call replaces it. The descriptor
   // stays the caller's. Throws std::system_error for one that cannot be watched, and
   // std::bad_alloc; nothing has changed then.
   void descriptorIs( int fd, unsigned events, std::function< void( unsigned ) > ready );
   // For the time before the descriptor is closed. One that was closed is told of no more either,
   // and its number can be watched anew, unless it has a copy (dup(), fork()): that is told of
   // under the old number for as long as it is open. Nothing happens for one not watched.
   void descriptorDel( int fd );

   // The calling thread owns the activity from now on; the one that owned it is another thread like
   // all the others. While the loop runs there, this ends the process as any use from outside does.
   void ownerThreadIs();
   // Null: the built-in one, epoll over an eventfd and a timerfd. Watches are lost.
   void wakeupIs( std::unique_ptr< Wakeup > wakeup );

 private:
   friend KIV_EXPORT Ptr< ActivityManager > const & activityManager();
   friend class Activity;
   friend struct detail::Embedding;
   struct World;

   ActivityManager();
   ~ActivityManager() override;

   Wakeup & wakeup();
   void checkNotNested() const;
   void checkProcess() const;
   void checkMayRun() const;
   template< class Call >
   auto byHand( Call call );
   bool dueNow() const;
   std::size_t step( std::size_t limit, bool const & stopped );
   bool stepOfOthers();
   bool runWorld();
   bool runOfRound();
   void gather( bool block );
   void sleepUntilDue();
   void rearm();

   Ptr< Clock > clock_;
   Ptr< ActivityConfig > config_;
   Activity * const activity_;
   World * const world_;
   bool embedded_ = false; // descriptor() was asked for
   bool inTurn_ = false;
   bool stopped_ = false;
};

KIV_EXPORT Ptr< ActivityManager > const & activityManager();

// The state machine of the activity, as reactors see it.
class KIV_EXPORT Activity {
 public:
   ActivityManager & manager() const { return manager_; }
   // Inside a callback, a timer, a task, or what else the loop calls.
   bool running() const;

 private:
   friend class ActivityManager;
   explicit Activity( ActivityManager & manager ) : manager_( manager ) {}

   ActivityManager & manager_;
};

} // namespace Kiv
