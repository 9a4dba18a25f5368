// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Kiv/Clock.h>

#include <Kiv/Access.h>
#include <Kiv/Activity.h>
#include <Kiv/Attribute.h>
#include <Kiv/Exception.h>

#include <algorithm>
#include <cassert>
#include <chrono>
#include <cmath>
#include <ctime>

#include <Kiv/detail/Guarded.h>
#include <Kiv/detail/Thread.h>

namespace Kiv {

namespace {

constexpr Attribute rows[] = {
   Attribute( "time", "double", "", Role::notifying, changes< &Clock::NotifieeConst::onTime >(),
              reads< &Clock::now >() )
      .numberIs( timeAttribute ),
};

// Of the clock that nobody sets. Asked for directly: the time is read for each timer and trace.
std::int64_t monotonicNanoseconds() {
   timespec time{};
   clock_gettime( CLOCK_MONOTONIC, &time );
   return std::int64_t{ time.tv_sec } * 1'000'000'000 + time.tv_nsec;
}

double seconds( std::int64_t nanoseconds ) { return static_cast< double >( nanoseconds ) * 1e-9; }

struct Start {
   std::int64_t monotonic = monotonicNanoseconds();
   double wall = seconds(
      std::chrono::nanoseconds( std::chrono::system_clock::now().time_since_epoch() ).count() );
};

constinit Start const * theStart = nullptr;
inline Start const & start() {
   if( !theStart ) [[unlikely]] {
      static Start const made;
      theStart = &made;
   }
   return *theStart;
}
// Taken when the library is loaded, not at the first look at the clock.
[[maybe_unused]] Start const & loaded = start();

} // namespace

Clock::Clock() = default;
Clock::~Clock() = default;

double Clock::now() const {
   Start const & began = start();
   return began.wall + seconds( monotonicNanoseconds() - began.monotonic );
}

double Clock::delayUntil( double time ) const { return std::fmax( 0.0, time - now() ); }

// ------------------------------------------------------------------------------------ the heap

namespace {
constexpr std::uint32_t width = 4; // how many are below each: they share a line of the cache
}

// No turn is a NaN.
inline bool Clock::earlier( Armed const & a, Armed const & b ) {
   if( a.turn < b.turn )
      return true;
   if( b.turn < a.turn )
      return false;
   return a.timer->armed_ < b.timer->armed_;
}

inline void Clock::put( std::uint32_t place, Armed armed ) const {
   heap_[ place ] = armed;
   armed.timer->place_ = place;
}

// Puts the timer to `place`, or up from there to where it belongs.
inline void Clock::rise( std::uint32_t place, Armed armed ) const {
   while( place != 0 ) {
      std::uint32_t const above = ( place - 1 ) / width;
      if( !earlier( armed, heap_[ above ] ) )
         break;
      put( place, heap_[ above ] );
      place = above;
   }
   put( place, armed );
}

// The same down from there.
void Clock::sink( std::uint32_t place, Armed armed ) const {
   for( ;; ) {
      std::uint32_t child = width * place + 1;
      if( child >= inHeap_ )
         break;
      std::uint32_t const end = std::min( child + width, inHeap_ );
      for( std::uint32_t other = child + 1; other != end; ++other )
         if( earlier( heap_[ other ], heap_[ child ] ) )
            child = other;
      if( !earlier( heap_[ child ], armed ) )
         break;
      put( place, heap_[ child ] );
      place = child;
   }
   put( place, armed );
}

// Puts the timer to `place`, or up or down from there to where it belongs.
inline void Clock::moveTo( std::uint32_t place, Armed armed ) const {
   if( place != 0 && earlier( armed, heap_[ ( place - 1 ) / width ] ) )
      rise( place, armed );
   else
      sink( place, armed );
}

// Fills the first place if it is vacant.
inline void Clock::fill() const {
   if( !vacant_ ) [[likely]]
      return;
   vacant_ = false;
   if( --inHeap_ != 0 )
      sink( 0, heap_[ inHeap_ ] );
   detail::timersChanged();
}

void Clock::enter( Timer const & timer ) const {
   Armed const armed{ timer.due(), const_cast< Timer * >( &timer ) };
   if( timer.place_ != Timer::notQueued ) {
      fill();
      moveTo( timer.place_, armed );
   } else if( vacant_ ) {
      vacant_ = false;
      sink( 0, armed );
      detail::timersChanged();
      return;
   } else {
      assert( inHeap_ < heap_.size() );
      rise( inHeap_++, armed );
   }
   if( timer.place_ == 0 )
      detail::timersChanged();
}

void Clock::leave( Timer const & timer ) const {
   if( timer.place_ == Timer::notQueued )
      return;
   fill();
   std::uint32_t const place = timer.place_;
   timer.place_ = Timer::notQueued;
   Armed const last = heap_[ --inHeap_ ];
   if( place != inHeap_ )
      moveTo( place, last );
   if( place == 0 )
      detail::timersChanged();
}

// ------------------------------------------------------------------------------------- firing

inline bool Clock::NotifieeConst::eligible() const {
   return isRegisteredNotifiee() && hasNotificationActive() && timeMin_ < infinity;
}

double Clock::nextTime() const {
   fill();
   return inHeap_ == 0 ? infinity : heap_.front().timer->due();
}

// Those that are marked for deletion go without being fired.
Clock::Timer * Clock::nextDue() const {
   while( inHeap_ != 0 && heap_.front().timer->due() <= now() ) {
      Timer & timer = *heap_.front().timer;
      if( !timer.kivMarkedForDeletion() ) [[likely]]
         return &timer;
      leave( timer );
      timer.timeMin_ = infinity;
   }
   return nullptr;
}

bool Clock::fireOne() const {
   if( detail::queue().running() )
      detail::refuseNesting();
   Timer * const timer = nextDue();
   if( timer )
      fire( *timer );
   return timer != nullptr;
}

// REQUIRES: it is the first.
void Clock::fire( Timer & timer ) const {
   double const time = timer.timeMin_;
   std::uint64_t const armed = timer.armed_;
   timer.place_ = Timer::notQueued;
   timer.timeMin_ = infinity;
   vacant_ = true;
   struct Filled { // whatever becomes of the timer, and before it may be put back
      ~Filled() { clock.fill(); }
      Clock const & clock;
   };
   auto const run = [ & ] {
      Filled const filled{ *this };
      timer.onTime();
   };
   detail::queue().guarded( timer, timeAttribute, timer.failures_, run, [ & ]( auto outcome ) {
      if( outcome != detail::Outcome::cutShort || timer.kivMarkedForDeletion() ||
          !timer.isRegisteredNotifiee() || timer.notifierPtr().get() != this ) {
         timer.failures_ = 0;
         timer.restsUntil_ = -infinity;
         return;
      }
      timer.restsUntil_ = now() + detail::restAfter( ++timer.failures_ );
      timer.timeMin_ = time;
      timer.armed_ = armed;
      if( timer.eligible() )
         enter( timer );
   } );
}

bool Clock::fireOneArmed( std::uint64_t before, double time ) const {
   while( inHeap_ != 0 && heap_.front().turn <= time ) {
      Armed const first = heap_.front();
      if( first.timer->armed_ <= before )
         return fireOne();
      if( first.turn == time )
         break; // what is left was armed later, or is not due
      sink( 0, { time, first.timer } );
   }
   return false;
}

// ------------------------------------------------------------------------------------- timers

Clock::NotifieeConst::~NotifieeConst() {
   // The base class would unregister, but can no longer reach the heap.
   NotifieeConst::isRegisteredNotifieeIs( false );
}

void Clock::NotifieeConst::hasNotificationActiveIs( bool active ) {
   PtrInterface::NotifieeConst::hasNotificationActiveIs( active );
   if( !notifierPtr() )
      return;
   if( eligible() )
      notifier()->enter( *this );
   else
      notifier()->leave( *this );
}

void Clock::NotifieeConst::isRegisteredNotifieeIs( bool on ) const {
   Ptr< Clock const > const clock = notifier();
   if( !clock || on == isRegisteredNotifiee() )
      return;
   if( on ) {
      std::size_t const wanted = clock->registeredTimers_ + 1;
      if( clock->heap_.size() < wanted ) {
         clock->heap_.reserve( wanted + wanted / 2 ); // no more than that
         clock->heap_.resize( wanted + wanted / 2 );
      }
      ++clock->registeredTimers_;
   } else {
      clock->leave( *this );
      --clock->registeredTimers_;
   }
   PtrInterface::NotifieeConst::isRegisteredNotifieeIs( on );
   if( eligible() )
      clock->enter( *this );
}

void Clock::NotifieeConst::notifierIs( Ptr< PtrInterface const > const & clock ) {
   if( notifierPtr() == clock )
      return;
   NotifieeOf::notifierIs( clock );
   timeMin_ = infinity; // a time on the scale of another clock says nothing here
   restsUntil_ = -infinity;
   failures_ = 0;
}

Name Clock::NotifieeConst::name() const { return notifierPtr() ? Name( "clock" ) : Name(); }
void Clock::NotifieeConst::onTime() {}

void Clock::NotifieeConst::timeMinIs( double const & seconds ) {
   double const time = seconds != seconds ? infinity : seconds;
   if( timeMin_ == time )
      return;
   detail::checkOwner( this, "timeMin" );
   timeMin_ = time;
   auto const * const clock = static_cast< Clock const * >( notifierPtr().get() );
   if( !( time < infinity ) ) {
      if( place_ != notQueued )
         clock->leave( *this );
      return;
   }
   armed_ = detail::queue().ask();
   if( clock && eligible() )
      clock->enter( *this );
}

KivType const & Clock::fwkType() const { return _fwkType(); }
KivType const & Clock::_fwkType() {
   static KivType const type( "Kiv::Clock", &PtrInterface::_fwkType(), rows );
   return type;
}

// ------------------------------------------------------------------------------- manual clock

ManualClock::ManualClock( double seconds ) : now_( seconds ) {
   if( seconds != seconds )
      throwRangeException( "NaN is no time" );
}
ManualClock::~ManualClock() = default;
Ptr< ManualClock > ManualClock::ManualClockIs( double seconds ) {
   return new ManualClock( seconds );
}
double ManualClock::now() const { return now_; }
double ManualClock::delayUntil( double time ) const { return time <= now_ ? 0.0 : infinity; }

void ManualClock::nowIs( double seconds ) {
   if( !( seconds >= now_ ) )
      throwRangeException( "a clock cannot go back to " + valueToString( seconds ) );
   now_ = seconds;
   detail::timersChanged();
}

namespace detail {
constinit Clock const * installedClock = nullptr;
}

double now() {
   if( !detail::installedClock ) [[unlikely]]
      activityManager(); // installs one
   return detail::installedClock->now();
}

} // namespace Kiv
