// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Kiv/Activity.h>

#include <Kiv/Attribute.h>
#include <Kiv/Exception.h>
#include <Kiv/detail/EpollWakeup.h>
#include <Kiv/detail/Forever.h>

#include <algorithm>
#include <array>
#include <cassert>
#include <cstddef>
#include <limits>
#include <list>
#include <map>
#include <mutex>

#include <pthread.h>

#include <Kiv/detail/Guarded.h>
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
struct ActivityManager::World {
   using Call = std::function< void( unsigned ) >;
   struct Watch {
      std::shared_ptr< Call > call;
      std::uint64_t round; // in which it was told last
   };

   std::map< int, Watch > watches;
   std::array< Wakeup::Ready, 64 > ready; // seen by the last wait
   std::size_t readys = 0;                // of these, not yet told
   std::list< Task > tasks;               // taken over from `posted`, not yet run
   std::uint64_t round = 0;
   std::size_t tasksOfRound = 0; // still to be run
   detail::Turn turn;

   void roundBegins();
   template< class Which >
   void dropReady( Which which );
   void forgetReady( int fd );
   std::shared_ptr< Call > nextWatch( unsigned & events );

   std::mutex mutex;
   // Guarded by `mutex`. The wake-up is made when the loop first sleeps, watches or is embedded:
   // a process that does none of these spends no descriptors.
   std::list< Task > posted;
   std::unique_ptr< Wakeup > wakeup;
};

Wakeup & ActivityManager::wakeup() {
   std::lock_guard const lock( world_->mutex );
   if( !world_->wakeup ) {
      world_->wakeup = detail::newEpollWakeup();
      if( !world_->posted.empty() )
         world_->wakeup->wake(); // nobody could be woken when these came
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
   return !detail::queue().empty() || nextTime() <= clock_->now();
}

bool ActivityManager::idle() const {
   std::lock_guard const lock( world_->mutex );
   return !dueNow() && world_->posted.empty() && world_->tasks.empty() && world_->readys == 0;
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
   try {
      world_->readys = sleeper.wait( block, world_->ready );
   } catch( ... ) {
      sleeper.wake(); // it may have been taken back already, and tasks wait for it
      throw;
   }
   world_->dropReady(
      [ this ]( Wakeup::Ready const & r ) { return !world_->watches.contains( r.fd ); } );
   std::lock_guard const lock( world_->mutex );
   world_->tasks.splice( world_->tasks.end(), world_->posted );
}

void ActivityManager::sleepUntilDue() {
   // A timer that became due since it was looked at gives a delay of 0: an alarm at once.
   wakeup().alarmIs( clock_->delayUntil( nextTime() ) );
   gather( true );
}

// Leaves the descriptor readable for what is left, and not otherwise; sets the alarm for the next
// timer. Descriptors that are ready keep it readable by themselves.
void ActivityManager::rearm() {
   gather( false );
   world_->readys = 0;
   woken_ = dueNow() || !world_->tasks.empty();
   if( woken_ )
      wakeup().wake();
   wakeup().alarmIs( clock_->delayUntil( nextTime() ) );
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
      Task const task = std::move( world_->tasks.front() );
      world_->tasks.pop_front();
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
   std::lock_guard const lock( world_->mutex );
   world_->posted.push_back( std::move( task ) );
   if( world_->wakeup )
      world_->wakeup->wake();
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
   if( !world_->posted.empty() )
      world_->wakeup->wake();
   world_->watches.clear();
   world_->readys = 0;
}

namespace detail {

void Embedding::workArrived( ActivityManager & manager ) noexcept {
   if( manager.inTurn_ )
      return;
   manager.woken_ = true;
   manager.world_->wakeup->wake();
}

void Embedding::workGone( ActivityManager & manager ) noexcept {
   if( manager.inTurn_ || !manager.woken_ )
      return;
   try {
      manager.rearm();
   } catch( ... ) {
      manager.world_->wakeup->wake(); // once too often does no harm
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
      manager.world_->wakeup->wake(); // the loop around this one asks when the next timer is due
   }
}

void tellWorkArrived() noexcept { Embedding::workArrived( *embedded ); }
void tellWorkGone() noexcept { Embedding::workGone( *embedded ); }
void tellTimersChanged() noexcept { Embedding::timersChanged( *embedded ); }

} // namespace detail

} // namespace Kiv
