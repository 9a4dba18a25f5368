// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Kiv/Clock.h>

#include <Kiv/Access.h>
#include <Kiv/Activity.h>
#include <Kiv/Attribute.h>
#include <Kiv/Exception.h>

#include <cassert>
#include <chrono>
#include <cmath>

#include <Kiv/detail/Guarded.h>
#include <Kiv/detail/Thread.h>

namespace Kiv {

namespace {

constexpr Attribute rows[] = {
   Attribute( "time", "double", "", Role::notifying, changes< &Clock::NotifieeConst::onTime >(),
              reads< &Clock::now >() )
      .numberIs( timeAttribute ),
};

double seconds( std::chrono::nanoseconds d ) {
   return std::chrono::duration< double >( d ).count();
}

struct Start {
   std::chrono::steady_clock::time_point monotonic = std::chrono::steady_clock::now();
   double wall = seconds( std::chrono::system_clock::now().time_since_epoch() );
};

Start const & start() {
   static Start const theStart;
   return theStart;
}
// Taken when the library is loaded, not at the first look at the clock.
[[maybe_unused]] Start const & loaded = start();

} // namespace

Clock::Clock() = default;
Clock::~Clock() = default;

double Clock::now() const {
   return start().wall + seconds( std::chrono::steady_clock::now() - start().monotonic );
}

double Clock::delayUntil( double time ) const { return std::fmax( 0.0, time - now() ); }

double Clock::nextTime() const { return heap_.empty() ? infinity : heap_.front()->due(); }

bool Clock::fireOne() const {
   if( detail::queue().running() )
      detail::refuseNesting();
   while( !heap_.empty() && heap_.front()->due() <= now() ) {
      Timer & timer = *heap_.front();
      if( timer.kivMarkedForDeletion() ) {
         leave( timer );
         timer.timeMin_ = infinity;
         continue;
      }
      fire( timer );
      return true;
   }
   return false;
}

void Clock::fire( Timer & timer ) const {
   double const time = timer.timeMin_;
   std::uint64_t const armed = timer.armed_;
   leave( timer );
   timer.timeMin_ = infinity;
   Ptr< Timer > const keep( timer.references() ? &timer : nullptr );
   auto const outcome =
      detail::queue().guarded( timer, timeAttribute, timer.failures_, [ & ] { timer.onTime(); } );
   if( outcome == detail::Outcome::gone )
      return;
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
}

Clock::Timer const * Clock::nextDue() const {
   return !heap_.empty() && heap_.front()->due() <= now() ? heap_.front() : nullptr;
}

bool Clock::fireOneArmed( std::uint64_t before, double time ) const {
   while( !heap_.empty() && heap_.front()->turn_ <= time ) {
      Timer const & first = *heap_.front();
      if( first.armed_ <= before )
         return fireOne();
      if( first.turn_ == time )
         break; // what is left was armed later, or is not due
      first.turn_ = time;
      settle( 0 );
   }
   return false;
}

// ------------------------------------------------------------------------------------ the heap

bool Clock::earlier( Timer const & a, Timer const & b ) {
   return a.turn_ != b.turn_ ? a.turn_ < b.turn_ : a.armed_ < b.armed_;
}

void Clock::put( std::uint32_t place, Timer * timer ) const {
   heap_[ place ] = timer;
   timer->place_ = place;
}

// Moves the timer at `place` up or down to where it belongs.
void Clock::settle( std::uint32_t place ) const {
   Timer * const timer = heap_[ place ];
   while( place > 0 && earlier( *timer, *heap_[ ( place - 1 ) / 2 ] ) ) {
      put( place, heap_[ ( place - 1 ) / 2 ] );
      place = ( place - 1 ) / 2;
   }
   for( ;; ) {
      std::uint32_t child = 2 * place + 1;
      if( child >= heap_.size() )
         break;
      if( child + 1 < heap_.size() && earlier( *heap_[ child + 1 ], *heap_[ child ] ) )
         ++child;
      if( !earlier( *heap_[ child ], *timer ) )
         break;
      put( place, heap_[ child ] );
      place = child;
   }
   put( place, timer );
}

void Clock::enter( Timer const & timer ) const {
   timer.turn_ = timer.due();
   if( timer.place_ == Timer::notQueued ) {
      assert( heap_.size() < heap_.capacity() );
      heap_.push_back( const_cast< Timer * >( &timer ) );
      timer.place_ = static_cast< std::uint32_t >( heap_.size() - 1 );
   }
   settle( timer.place_ );
   if( heap_.front() == &timer )
      detail::timersChanged();
}

void Clock::leave( Timer const & timer ) const {
   std::uint32_t const place = timer.place_;
   if( place == Timer::notQueued )
      return;
   timer.place_ = Timer::notQueued;
   Timer * const last = heap_.back();
   heap_.pop_back();
   if( last != &timer ) {
      put( place, last );
      settle( place );
   }
   if( place == 0 )
      detail::timersChanged();
}

// ------------------------------------------------------------------------------------- timers

Clock::NotifieeConst::~NotifieeConst() {
   // The base class would unregister, but can no longer reach the heap.
   NotifieeConst::isRegisteredNotifieeIs( false );
}

bool Clock::NotifieeConst::eligible() const {
   return isRegisteredNotifiee() && hasNotificationActive() && timeMin_ < infinity;
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
      if( clock->heap_.capacity() < wanted )
         clock->heap_.reserve( 2 * wanted );
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
   PtrInterface::NotifieeConst::notifierIs( clock );
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
   armed_ = detail::queue().ask();
   if( !notifierPtr() )
      return;
   if( eligible() )
      notifier()->enter( *this );
   else
      notifier()->leave( *this );
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

double now() { return activityManager()->clock()->now(); }

} // namespace Kiv
