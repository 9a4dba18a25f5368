// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The clock of the activity, and timers as reactors on it.
#pragma once

#include <Kiv/Export.h>
#include <Kiv/Notifiee.h>
#include <Kiv/Type.h>

#include <limits>
#include <vector>

namespace Kiv {

inline constexpr double infinity = std::numeric_limits< double >::infinity();

// Time in seconds that never goes back: the wall-clock time at which the process started plus the
// monotonic time since, so that setting the wall clock (which happens during start-up of all
// times) does not move it.
//
// Owned by the activity manager. Cost of a timer: logarithmic in the number of armed timers.
class KIV_EXPORT Clock : public PtrInterface {
 public:
   // A timer: calls onTime() when the clock reaches timeMin.
   class KIV_EXPORT NotifieeConst : public NotifieeOf< Clock, PtrInterface::NotifieeConst > {
    public:
      ~NotifieeConst() override;
      void hasNotificationActiveIs( bool active ) override;
      void isRegisteredNotifieeIs( bool registered ) const override;
      // Disarms, then attaches.
      void notifierIs( Ptr< PtrInterface const > const & clock ) override;
      // "clock"; empty while nothing is watched.
      Name name() const override;
      // The time has come. The timer was disarmed before, so it may be set to any time again. One
      // that an exception has cut short is put back as it was armed, if its callback is to be
      // delivered again (Notifiee.h), and rests before it fires.
      virtual void onTime();

      // Seconds on the scale of now(). A time in the past is due at once; +infinity and NaN
      // disarm; the time that is set already changes nothing. A new timer has +infinity. While
      // its notifications are off a timer does not fire; it is looked at again when they are on.
      void timeMinIs( double const & seconds );
      double timeMin() const { return timeMin_; }

      // The names above, for newReactor().
      template< class R, class Form >
      static constexpr bool kivCallbacks[] = {
         ( requires { Form()( &R::onTime, &NotifieeConst::onTime ); } ),
      };

    private:
      friend class Clock;
      friend class ActivityManager;
      static constexpr std::uint32_t notQueued = 0xffffffffU;

      bool eligible() const;
      // When it fires: not before it has rested.
      double due() const { return timeMin_ < restsUntil_ ? restsUntil_ : timeMin_; }

      double timeMin_ = infinity;
      double restsUntil_ = -infinity; // after an exception has cut onTime() short
      std::uint64_t armed_ = 0;       // numbers the armings: the order at equal times
      mutable std::uint32_t place_ = notQueued;
      std::uint32_t failures_ = 0; // in a row
   };

   Clock();
   ~Clock() override;

   // Seconds.
   virtual double now() const;
   // How long the loop has to sleep, in seconds, until `time`; +infinity if sleeping does not help.
   virtual double delayUntil( double time ) const;

   // The earliest armed time; +infinity when no timer is armed.
   double nextTime() const;
   // Fires the first timer that is due, by (time, order of arming); false when none is. What its
   // onTime() queues is not delivered here. Throws an exception when called inside a callback.
   bool fireOne() const;
   std::size_t armedTimers() const { return inHeap_ - ( vacant_ ? 1 : 0 ); }

   KivType const & fwkType() const override;
   static KivType const & _fwkType();

 private:
   friend class ActivityManager;
   using Timer = NotifieeConst;

   // The timer that fireOne() would fire; null when none is due.
   [[gnu::visibility( "hidden" )]] Timer * nextDue() const;
   // Fires the first timer that is due at `time` and was armed no later than the arming of that
   // number; false when there is none. Those armed later come after them from now on.
   bool fireOneArmed( std::uint64_t before, double time ) const;

   // A timer and when its turn is: when it is due, or later for one that is set again and again to
   // a time that has come, while others wait. The time stands beside the timer so that finding a
   // place in the heap looks at few timers.
   struct Armed {
      double turn;
      Timer * timer;
   };
   static bool earlier( Armed const & a, Armed const & b );
   // Those that stand apart are called without a detour through the table of what others could
   // replace.
   [[gnu::visibility( "hidden" )]] void fire( Timer & timer ) const;
   [[gnu::visibility( "hidden" )]] void enter( Timer const & timer ) const;
   [[gnu::visibility( "hidden" )]] void leave( Timer const & timer ) const;
   void rise( std::uint32_t place, Armed armed ) const;
   [[gnu::visibility( "hidden" )]] void sink( std::uint32_t place, Armed armed ) const;
   void moveTo( std::uint32_t place, Armed armed ) const;
   void fill() const;
   void put( std::uint32_t place, Armed armed ) const;

   // A heap by (turn, order of arming), each with up to four below it. It has room for all
   // registered timers, so that arming never needs memory.
   mutable std::vector< Armed > heap_;
   mutable std::uint32_t inHeap_ = 0; // how many of them it has
   // The first place belongs to a timer that fires at the moment, and will be filled: by itself
   // most often, which is armed anew.
   mutable bool vacant_ = false;
   mutable std::size_t registeredTimers_ = 0;
};

// A clock that moves only when it is told to. For tests and simulations.
class KIV_EXPORT ManualClock : public Clock {
 public:
   static Ptr< ManualClock > ManualClockIs( double seconds );
   ~ManualClock() override;

   double now() const override;
   double delayUntil( double time ) const override;
   // Fires nothing by itself. A range exception when the time is earlier than now, or NaN.
   void nowIs( double seconds );

 private:
   explicit ManualClock( double seconds );
   double now_;
};

// The time of the activity manager's clock, in seconds.
KIV_EXPORT double now();

} // namespace Kiv
