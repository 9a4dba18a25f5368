// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Kiv/Activity.h>

#include <Kiv/Attribute.h>
#include <Kiv/Exception.h>
#include <Kiv/detail/EpollWakeup.h>

#include <cassert>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <map>
#include <mutex>
#include <thread>

#include <unistd.h>

#include <Kiv/detail/Guarded.h>

namespace Kiv {

namespace detail {
// The manager, once its loop lives in another one, which has to hear of work.
static ActivityManager * embedded = nullptr;
} // namespace detail

ActivityConfig::ActivityConfig( Name const & name ) : name_( name ) {}
ActivityConfig::~ActivityConfig() = default;

Wakeup::~Wakeup() = default;

bool Activity::running() const { return detail::queue().running(); }

// What comes from outside of the activity, and where it belongs.
struct ActivityManager::World {
   std::map< int, std::shared_ptr< std::function< void( unsigned ) > > > watches;
   std::deque< Wakeup::Ready > ready; // seen by the last wait, not yet told
   std::deque< Task > tasks;          // taken over from `posted`, not yet run
   std::mutex mutex;
   // Guarded by `mutex`. The wake-up is made when the loop first sleeps, watches or is embedded:
   // a process that does none of these spends no descriptors.
   std::deque< Task > posted;
   std::unique_ptr< Wakeup > wakeup;
   std::thread::id thread = std::this_thread::get_id();
   pid_t process = getpid();
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

ActivityManager::ActivityManager()
   : clock_( new Clock ), config_( new ActivityConfig( "activity" ) ),
     activity_( new Activity( *this ) ), world_( new World ) {}
ActivityManager::~ActivityManager() = default;

Ptr< ActivityManager > const & activityManager() {
   static Ptr< ActivityManager > const & manager =
      *new Ptr< ActivityManager >( new ActivityManager );
   return manager;
}

void ActivityManager::clockIs( Ptr< Clock > const & clock ) {
   if( !clock )
      throwRangeException( "null ValidPtr" );
   clock_ = clock;
   detail::timersChanged();
}

void ActivityManager::checkNotNested() const {
   detail::checkThread();
   if( detail::queue().running() || inTurn_ )
      throw Exception( "the activity's loop does not nest: called inside a callback",
                       IdBitArray( Exception::thread ), false );
}

void ActivityManager::checkMayRun() const {
   checkNotNested();
   if( getpid() != world_->process )
      throw Exception( "the activity belongs to the process that made it; a forked child cannot "
                       "run its loop",
                       IdBitArray( Exception::thread ), false );
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
   checkNotNested();
   auto const result = [ & ] {
      Turn const turn( inTurn_ );
      return call();
   }();
   if( embedded_ )
      rearm();
   return result;
}

bool ActivityManager::runOne() {
   return byHand( [] { return detail::queue().runOne(); } );
}

std::size_t ActivityManager::runQueued() {
   return byHand( [] {
      std::size_t count = 0;
      while( detail::queue().runOne() )
         ++count;
      return count;
   } );
}

bool ActivityManager::fireOne() {
   return byHand( [ this ] { return clock_->fireOne(); } );
}

bool ActivityManager::dueNow() const {
   return !detail::queue().empty() || clock_->nextTime() <= clock_->now();
}

bool ActivityManager::idle() const {
   std::lock_guard const lock( world_->mutex );
   return !dueNow() && world_->posted.empty() && world_->tasks.empty() && world_->ready.empty();
}

// ------------------------------------------------------------------------------------ the loop

// One callback, timer, or thing from outside; false when nothing is left.
bool ActivityManager::step() {
   return detail::queue().runOne() || clock_->fireOne() || runWorld();
}

void ActivityManager::run() {
   checkMayRun();
   {
      Turn const turn( inTurn_ );
      stopped_ = false;
      while( !stopped_ )
         if( !step() )
            sleepUntilDue();
   }
   if( embedded_ )
      rearm();
}

std::size_t ActivityManager::runDue( std::size_t limit ) {
   checkMayRun();
   return byHand( [ & ] {
      gather( false );
      std::size_t count = 0;
      while( count < limit && step() )
         ++count;
      return count;
   } );
}

// Collects what woke the loop up.
void ActivityManager::gather( bool block ) {
   // In place of what was seen before and not told yet: descriptors are level-triggered, so that
   // what is still ready is seen again.
   std::vector< Wakeup::Ready > const ready = wakeup().wait( block );
   world_->ready.assign( ready.begin(), ready.end() );
   std::lock_guard const lock( world_->mutex );
   while( !world_->posted.empty() ) {
      world_->tasks.push_back( std::move( world_->posted.front() ) );
      world_->posted.pop_front();
   }
}

void ActivityManager::sleepUntilDue() {
   // A timer that became due since it was looked at gives a delay of 0: an alarm at once.
   wakeup().alarmIs( clock_->delayUntil( clock_->nextTime() ) );
   gather( true );
}

// Leaves the descriptor readable for what is left, and not otherwise; sets the alarm for the next
// timer. Descriptors that are ready keep it readable by themselves.
void ActivityManager::rearm() {
   gather( false );
   if( dueNow() || !world_->tasks.empty() )
      wakeup().wake();
   wakeup().alarmIs( clock_->delayUntil( clock_->nextTime() ) );
}

// Runs one task or tells one descriptor's watcher; false when there was none.
bool ActivityManager::runWorld() {
   Task task;
   if( !world_->tasks.empty() ) {
      task = std::move( world_->tasks.front() );
      world_->tasks.pop_front();
   } else {
      while( !world_->ready.empty() && !task ) {
         Wakeup::Ready const ready = world_->ready.front();
         world_->ready.pop_front();
         auto const watch = world_->watches.find( ready.fd );
         if( watch != world_->watches.end() )
            task = [ call = watch->second, ready ] { ( *call )( ready.events ); };
      }
   }
   if( !task )
      return false;
   try {
      task();
   } catch( ... ) {
      detail::reportException( "a task of the activity", String8() );
   }
   return true;
}

void ActivityManager::workArrived() noexcept {
   if( !inTurn_ )
      world_->wakeup->wake();
}

void ActivityManager::timersChanged() {
   if( inTurn_ )
      return;
   double const delay = clock_->delayUntil( clock_->nextTime() );
   if( delay <= 0 )
      world_->wakeup->wake();
   world_->wakeup->alarmIs( delay );
}

int ActivityManager::descriptor() {
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
   detail::checkThread();
   auto call = std::make_shared< std::function< void( unsigned ) > >( std::move( ready ) );
   auto const [ place, added ] = world_->watches.try_emplace( fd );
   try {
      wakeup().watchIs( fd, events );
   } catch( ... ) {
      if( added )
         world_->watches.erase( place );
      throw;
   }
   place->second = std::move( call );
   forgetReady( fd );
}

// What was seen of a descriptor is not for a watch made later under its number.
void ActivityManager::forgetReady( int fd ) {
   std::erase_if( world_->ready, [ fd ]( Wakeup::Ready const & r ) { return r.fd == fd; } );
}

void ActivityManager::descriptorDel( int fd ) {
   detail::checkThread();
   if( !world_->watches.erase( fd ) )
      return;
   forgetReady( fd );
   wakeup().watchIs( fd, 0 );
}

void ActivityManager::ownerThreadIs() { world_->thread = std::this_thread::get_id(); }

void ActivityManager::wakeupIs( std::unique_ptr< Wakeup > wakeup ) {
   if( !wakeup )
      wakeup = detail::newEpollWakeup();
   std::lock_guard const lock( world_->mutex );
   world_->wakeup = std::move( wakeup );
   if( !world_->posted.empty() )
      world_->wakeup->wake();
   world_->watches.clear();
   world_->ready.clear();
}

namespace detail {

void workArrived() noexcept {
   if( embedded ) [[unlikely]]
      embedded->workArrived();
}

void timersChanged() {
   if( embedded ) [[unlikely]]
      embedded->timersChanged();
}

void checkThread() {
#ifndef NDEBUG
   activityManager()->checkOwnerThread();
#endif
}

} // namespace detail

void ActivityManager::checkOwnerThread() const {
   if( std::this_thread::get_id() == world_->thread )
      return;
   std::fputs( "kiv: an entity was touched outside of the activity's thread; other threads may "
               "only call ActivityManager::post\n",
               stderr );
   std::abort();
}

} // namespace Kiv
