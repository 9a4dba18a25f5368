// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Kiv/Activity.h>

#include <Kiv/Attribute.h>
#include <Kiv/Exception.h>
#include <Kiv/detail/EpollWakeup.h>
#include <Kiv/detail/Forever.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cassert>
#include <cstddef>
#include <limits>
#include <map>
#include <mutex>

#include <pthread.h>

#include <Kiv/detail/Guarded.h>
#include <Kiv/detail/Tasks.h>
#include <Kiv/detail/Thread.h>
#include <Kiv/detail/Turn.h>

namespace Kiv {

namespace detail {
// What the manager does for a loop around its own while work comes and goes outside of a turn.
struct Embedding {
   static void workArrived( ActivityManager & manager ) noexcept;
   static void workGone( ActivityManager & manager ) noexcept;
   static void timersChanged( ActivityManager & manager ) noexcept;
};

constinit ActivityManager * embedded = nullptr;
// This process was forked from the one that made the manager. It shares the descriptors of the
// loop's wake-up with its parent, and must not touch them.
static bool forked = false;
} // namespace detail

ActivityConfig::ActivityConfig( char const * name ) : name_( name ) {}
ActivityConfig::~ActivityConfig() = default;

Wakeup::~Wakeup() = default;

bool Activity::running() const { return detail::queue().running() || manager_.inTurn_; }

// What comes from outside of the activity, and where it belongs.
//
// It is served in rounds: the tasks that were there when the round began, then each descriptor that
// is ready, once. A round may stretch over several calls of runDue(). So nothing waits for ever
// behind a task that posts itself anew, or a descriptor that is always ready.
//
// Who posts to a loop that is awake wakes nobody: the loop looks at what was posted before it
// sleeps, and says that it `sleeps`, in one step. From then on the first who posts wakes it, the
// others need not. A loop inside another one sleeps whenever it is not in a turn.
//
// The activity's own thread posts into an inbox of its own, without a lock. Only while others'
// posts wait does it post behind them, as the order of posting is the order of running. So all that
// is in `postedHere` was posted before all that is in `posted`, as far as there is a before.
struct ActivityManager::World {
   using Call = std::function< void( unsigned ) >;
   struct Watch {
      std::shared_ptr< Call > call;
      std::uint64_t round; // in which it was told last
   };

   std::map< int, Watch > watches;
   std::array< Wakeup::Ready, 64 > ready; // seen by the last wait
   std::size_t readys = 0;                // of these, not yet told
   detail::Tasks tasks;                   // taken over from the inboxes, not yet run
   detail::Tasks postedHere;              // by the activity's own thread
   std::uint64_t round = 0;
   std::size_t tasksOfRound = 0; // still to be run
   detail::Turn turn;

   void roundBegins();
   template< class Which >
   void dropReady( Which which );
   void forgetReady( int fd );
   std::shared_ptr< Call > nextWatch( unsigned & events );

   void wake();
   bool sleepBegins( bool wanted );
   void sleepHasFailed();
   void sleepEnds();
   void sleepsOutside( bool due );
   void takeOthers();
   bool wasWoken();
   bool nothingPosted() const { return posted.empty() && postedHere.empty(); }

   std::mutex mutex;
   // Guarded by `mutex`, but for the owner of the activity when it reads `sleeps` and `wakeup`,
   // which it alone writes, and `woken`, which nobody writes unless the loop sleeps. The wake-up is
   // made when the loop first sleeps, watches or is embedded: a process that does none of these
   // spends no descriptors.
   detail::Tasks posted;
   bool sleeps = false; // or may: who posts has to wake it
   bool woken = false;  // since the wake-up was looked at last
   std::unique_ptr< Wakeup > wakeup;
   std::atomic< bool > othersPosted = false; // `posted` has something
};

// REQUIRES: the mutex is held.
void ActivityManager::World::wake() {
   if( woken || detail::forked )
      return;
   woken = true;
   wakeup->wake();
}

// The loop is about to look at the wake-up, and to sleep there if that is `wanted`. False when it
// must not sleep. What wakes it from now on is not taken back unseen.
bool ActivityManager::World::sleepBegins( bool wanted ) {
   if( !wanted && !sleeps && !woken )
      return false;
   std::lock_guard const lock( mutex );
   sleeps = wanted && nothingPosted();
   woken = false;
   return sleeps;
}

// The wake-up may have taken back what was meant for the next look at it.
void ActivityManager::World::sleepHasFailed() {
   std::lock_guard const lock( mutex );
   sleeps = false;
   woken = false;
   wake();
}

// The loop is awake.
void ActivityManager::World::sleepEnds() {
   tasks.append( postedHere );
   if( !sleeps && !othersPosted.load( std::memory_order_relaxed ) )
      return;
   std::lock_guard const lock( mutex );
   sleeps = false;
   takeOthers();
}

// REQUIRES: the mutex is held, and what was posted here has been taken over.
void ActivityManager::World::takeOthers() {
   tasks.append( posted );
   othersPosted.store( false, std::memory_order_relaxed );
}

// The loop lives in another one, which sleeps from now on. Wakes that if there is something to do:
// work that is `due`, or tasks.
void ActivityManager::World::sleepsOutside( bool due ) {
   tasks.append( postedHere );
   std::lock_guard const lock( mutex );
   takeOthers();
   sleeps = true;
   if( due || !tasks.empty() )
      wake();
}

bool ActivityManager::World::wasWoken() {
   if( !sleeps )
      return woken;
   std::lock_guard const lock( mutex );
   return woken;
}

Wakeup & ActivityManager::wakeup() {
   if( !world_->wakeup ) [[unlikely]] {
      auto made = detail::newEpollWakeup();
      std::lock_guard const lock( world_->mutex );
      world_->wakeup = std::move( made );
   }
   return *world_->wakeup;
}

namespace {
// Where a part of the activity stands, of which there is one. None of it needs the heap: its first
// use may be where memory is short and no exception may leave. None is ever destroyed.
template< class T >
void * place() {
   alignas( T ) static std::byte bytes[ sizeof( T ) ];
   return bytes;
}
} // namespace

ActivityManager::ActivityManager()
   : clock_( new( place< Clock >() ) Clock ),
     config_( new( place< ActivityConfig >() ) ActivityConfig( "activity" ) ),
     activity_( new( place< Activity >() ) Activity( *this ) ),
     world_( new( place< World >() ) World ) {
   clock_->newRef(); // outlives its replacement by another one
   detail::installedClock = clock_.get();
   pthread_atfork( nullptr, nullptr, [] {
      detail::forked = true;
      detail::embedded = nullptr;
   } );
}
ActivityManager::~ActivityManager() = default;

Ptr< ActivityManager > const & activityManager() {
   static detail::Forever< Ptr< ActivityManager > const > const manager(
      new( place< ActivityManager >() ) ActivityManager );
   return *manager;
}

void ActivityManager::clockIs( Ptr< Clock > const & clock ) {
   if( !clock )
      throwRangeException( "null ValidPtr" );
   clock_ = clock;
   detail::installedClock = clock.get();
   detail::queue().clockChanged();
   detail::timersChanged();
}

namespace {
[[noreturn]] void refuse( char const * why ) {
   IdBitArray const ids( Exception::thread );
   throw Exception( why, ids, Expect::isExpected( ids ) );
}
} // namespace

void detail::refuseNesting() {
   refuse( "the activity's loop does not nest: called inside a callback" );
}

inline void ActivityManager::checkNotNested() const {
   detail::checkOwner( nullptr, "" );
   if( detail::queue().running() || inTurn_ )
      detail::refuseNesting();
}

inline void ActivityManager::checkProcess() const {
   if( detail::forked )
      refuse( "the activity belongs to the process that made it; a forked child cannot run its "
              "loop" );
}

inline void ActivityManager::checkMayRun() const {
   checkNotNested();
   checkProcess();
}

namespace {
// Says that a turn is under way, however it is left.
struct Turn {
   explicit Turn( bool & flag ) : flag_( flag ) { flag_ = true; }
   ~Turn() { flag_ = false; }
   Turn( Turn const & ) = delete;
   Turn & operator=( Turn const & ) = delete;
   bool & flag_;
};
} // namespace

// Runs a part of a turn, and tells a loop around this one what is left.
template< class Call >
auto ActivityManager::byHand( Call call ) {
   checkMayRun();
   auto const result = [ & ] {
      Turn const turn( inTurn_ );
      return call();
   }();
   if( embedded_ )
      rearm();
   return result;
}

bool ActivityManager::runOne() {
   return byHand( [] { return detail::queue().run( 1 ) != 0; } );
}

std::size_t ActivityManager::runQueued() {
   return byHand( [] { return detail::queue().run( std::numeric_limits< std::size_t >::max() ); } );
}

bool ActivityManager::fireOne() {
   return byHand( [ this ] { return clock_->fireOne(); } );
}

double ActivityManager::nextTime() const {
   return std::min( clock_->nextTime(), detail::queue().nextTime() );
}

bool ActivityManager::dueNow() const {
   if( !detail::queue().empty() )
      return true;
   double const time = nextTime();
   return time < infinity && time <= clock_->now();
}

bool ActivityManager::idle() const {
   std::lock_guard const lock( world_->mutex );
   return !dueNow() && world_->nothingPosted() && world_->tasks.empty() && world_->readys == 0;
}

// ------------------------------------------------------------------------------------ the loop

// Callbacks, as many as follow each other, up to `limit`; or one timer, or thing from outside. How
// many; 0 when nothing is left. No further callback once it is `stopped`.
std::size_t ActivityManager::step( std::size_t limit, bool const & stopped ) {
   detail::Turn & turn = world_->turn;
   if( turn.over() ) [[unlikely]] {
      if( stepOfOthers() )
         return 1;
      turn.goesOn();
   }
   if( std::size_t const count = detail::queue().run( limit, turn, stopped ) )
      return count;
   if( auto * const timer = clock_->nextDue() ) {
      turn.delivers( *timer, timeAttribute, timer->armed_ );
      clock_->fire( *timer );
      return 1;
   }
   turn.ends();
   return runWorld() ? 1 : 0;
}

// The turn has no end, or none is in sight: a timer that waits for it, or a thing from outside.
// False when each has had its turn.
bool ActivityManager::stepOfOthers() {
   detail::Turn & turn = world_->turn;
   if( !turn.othersHaveBegun() ) {
      gather( false );
      world_->roundBegins();
      detail::queue().resume(); // what was cut short waits for an empty queue otherwise
      turn.othersBegin( clock_->now() );
   }
   return clock_->fireOneArmed( turn.asked(), turn.time() ) || runOfRound();
}

std::size_t ActivityManager::turnLimit() const { return world_->turn.limit(); }

void ActivityManager::turnLimitIs( std::size_t limit ) {
   if( limit == 0 )
      throwRangeException( "a turn that delivers nothing" );
   detail::checkOwner( nullptr, "" );
   world_->turn.limitIs( limit );
}

void ActivityManager::run() {
   checkMayRun();
   {
      Turn const turn( inTurn_ );
      stopped_ = false;
      gather( false ); // what an earlier look has left may be out of date
      while( !stopped_ )
         if( !step( std::numeric_limits< std::size_t >::max(), stopped_ ) )
            sleepUntilDue();
   }
   if( embedded_ )
      rearm();
}

std::size_t ActivityManager::runDue( std::size_t limit ) {
   checkMayRun();
   return byHand( [ & ] {
      gather( false );
      static constexpr bool stopped = false; // what stop() ends is run()
      std::size_t count = 0;
      while( count < limit ) {
         std::size_t const ran = step( limit - count, stopped );
         if( ran == 0 )
            break;
         count += ran;
      }
      return count;
   } );
}

// Collects what woke the loop up.
void ActivityManager::gather( bool block ) {
   Wakeup & sleeper = wakeup();
   // In place of what was seen before and not told yet: descriptors are level-triggered, so that
   // what is still ready is seen again.
   world_->readys = 0;
   block = world_->sleepBegins( block );
   try {
      world_->readys = sleeper.wait( block, world_->ready );
   } catch( ... ) {
      world_->sleepHasFailed(); // tasks may wait
      throw;
   }
   world_->dropReady(
      [ this ]( Wakeup::Ready const & r ) { return !world_->watches.contains( r.fd ); } );
   world_->sleepEnds();
}

void ActivityManager::sleepUntilDue() {
   double const time = nextTime();
   double const delay = time < infinity ? clock_->delayUntil( time ) : infinity;
   bool const sleeps = delay > 0; // else it became due since it was looked at
   if( sleeps )
      wakeup().alarmIs( delay );
   gather( sleeps );
}

// Leaves the descriptor readable for what is left, and not otherwise; sets the alarm for the next
// timer. Descriptors that are ready keep it readable by themselves. Who posts from now on wakes the
// loop around this one.
void ActivityManager::rearm() {
   Wakeup & sleeper = wakeup();
   if( world_->wasWoken() )
      gather( false ); // takes that back
   world_->readys = 0;
   world_->sleepsOutside( dueNow() );
   double const time = nextTime();
   sleeper.alarmIs( time < infinity ? clock_->delayUntil( time ) : infinity );
}

void ActivityManager::World::roundBegins() {
   ++round;
   tasksOfRound = tasks.size();
}

template< class Which >
void ActivityManager::World::dropReady( Which which ) {
   auto const end = ready.begin() + static_cast< std::ptrdiff_t >( readys );
   readys =
      static_cast< std::size_t >( std::remove_if( ready.begin(), end, which ) - ready.begin() );
}

// What was seen of a descriptor is not for a watch made later under its number.
void ActivityManager::World::forgetReady( int fd ) {
   dropReady( [ fd ]( Wakeup::Ready const & r ) { return r.fd == fd; } );
}

// The next descriptor that is ready and was not told in this round; null when there is none.
std::shared_ptr< ActivityManager::World::Call >
ActivityManager::World::nextWatch( unsigned & events ) {
   for( std::size_t i = 0; i != readys; ++i ) {
      Wakeup::Ready const seen = ready[ i ];
      Watch & watch = watches.find( seen.fd )->second;
      if( watch.round == round )
         continue;
      watch.round = round;
      forgetReady( seen.fd );
      events = seen.events;
      return watch.call;
   }
   return nullptr;
}

namespace {
// For what nobody else will hear of an exception of.
template< class Call >
void reporting( Call const & call ) {
   try {
      call();
   } catch( ... ) {
      detail::reportException( "a task of the activity", String8() );
   }
}
} // namespace

// Runs one task, or tells one descriptor's watcher, of this round; false when it is over.
bool ActivityManager::runOfRound() {
   if( world_->tasksOfRound != 0 ) {
      Task const task = world_->tasks.takeFirst();
      --world_->tasksOfRound;
      reporting( task );
      return true;
   }
   unsigned events = 0;
   auto const call = world_->nextWatch( events );
   if( !call )
      return false;
   reporting( [ & ] { ( *call )( events ); } );
   return true;
}

// The same, in another round when this one is over; false when there is nothing.
bool ActivityManager::runWorld() {
   if( runOfRound() )
      return true;
   world_->roundBegins();
   return runOfRound();
}

int ActivityManager::descriptor() {
   checkProcess();
   rearm();
   embedded_ = true;
   detail::embedded = this;
   return wakeup().descriptor();
}

void ActivityManager::post( Task task ) {
   if( !task )
      throwRangeException( "empty task" );
   World & world = *world_;
   if( detail::onOwnThread() && !world.sleeps &&
       !world.othersPosted.load( std::memory_order_relaxed ) ) {
      world.postedHere.push( std::move( task ) );
      return;
   }
   std::lock_guard const lock( world.mutex );
   world.posted.push( std::move( task ) );
   world.othersPosted.store( true, std::memory_order_relaxed );
   if( world.sleeps )
      world.wake();
}

void ActivityManager::descriptorIs( int fd, unsigned events,
                                    std::function< void( unsigned ) > ready ) {
   detail::checkOwner( nullptr, "" );
   checkProcess();
   auto call = std::make_shared< World::Call >( std::move( ready ) );
   auto const [ place, added ] =
      world_->watches.try_emplace( fd, World::Watch{ nullptr, world_->round } );
   try {
      wakeup().watchIs( fd, events );
   } catch( ... ) {
      if( added )
         world_->watches.erase( place );
      throw;
   }
   place->second.call = std::move( call );
   world_->forgetReady( fd );
}

void ActivityManager::descriptorDel( int fd ) {
   detail::checkOwner( nullptr, "" );
   checkProcess();
   if( !world_->watches.erase( fd ) )
      return;
   world_->forgetReady( fd );
   wakeup().watchIs( fd, 0 );
}

void ActivityManager::ownerThreadIs() {
   if( inTurn_ )
      detail::checkOwner( nullptr, "" );
   detail::ownThread();
}

void ActivityManager::wakeupIs( std::unique_ptr< Wakeup > wakeup ) {
   if( !wakeup )
      wakeup = detail::newEpollWakeup();
   std::lock_guard const lock( world_->mutex );
   world_->wakeup = std::move( wakeup );
   world_->woken = false;
   if( !world_->nothingPosted() )
      world_->wake();
   world_->watches.clear();
   world_->readys = 0;
}

namespace detail {

void Embedding::workArrived( ActivityManager & manager ) noexcept {
   if( manager.inTurn_ )
      return;
   std::lock_guard const lock( manager.world_->mutex );
   manager.world_->wake();
}

void Embedding::workGone( ActivityManager & manager ) noexcept {
   if( manager.inTurn_ || !manager.world_->wasWoken() )
      return;
   try {
      manager.rearm();
   } catch( ... ) {
      workArrived( manager ); // once too often does no harm
   }
}

void Embedding::timersChanged( ActivityManager & manager ) noexcept {
   if( manager.inTurn_ )
      return;
   double const delay = manager.clock_->delayUntil( manager.nextTime() );
   if( delay <= 0 )
      workArrived( manager );
   else
      workGone( manager );
   try {
      manager.world_->wakeup->alarmIs( delay );
   } catch( ... ) {
      workArrived( manager ); // the loop around this one asks when the next timer is due
   }
}

void tellWorkArrived() noexcept { Embedding::workArrived( *embedded ); }
void tellWorkGone() noexcept { Embedding::workGone( *embedded ); }
void tellTimersChanged() noexcept { Embedding::timersChanged( *embedded ); }

} // namespace detail

} // namespace Kiv
