// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Private helpers of the framework's own sources.
#pragma once

#include <Kiv/detail/Queue.h>

#include <cassert>

namespace Kiv {
class ActivityManager;
class Clock;
} // namespace Kiv

namespace Kiv::detail {

inline void Queue::begin( Reactor & reactor ) noexcept {
   current_ = &reactor;
   notifier_ = reactor.notifierPtr().get();
}

inline void Queue::end() noexcept {
   if( keeps_ ) [[unlikely]]
      letGo();
   current_ = nullptr;
   notifier_ = nullptr;
}

template< class Call, class After >
void Queue::guarded( Reactor & reactor, AttributeId attribute, unsigned failures, Call call,
                     After after ) {
   assert( !running() && "callbacks do not nest" );
   begin( reactor );
   Outcome outcome = Outcome::done;
   try {
      call();
   } catch( ... ) {
      outcome = failed( reactor, attribute, failures );
   }
   if( failures > 1 && outcome == Outcome::done )
      reportRecovery( notifier_, attribute, failures );
   struct Ended {
      ~Ended() { queue.end(); }
      Queue & queue;
   };
   Ended const ended{ *this };
   if( current_ )
      after( outcome );
}

// The ring of an object's reactors, in order of registration.
struct Ring {
   using Reactor = PtrInterface::NotifieeConst;

   static Reactor * first( PtrInterface const & notifier ) { return notifier.notifiees_; }
   static Reactor * next( Reactor const & reactor ) { return reactor.nextNotifiee_; }
   // Cost: constant, while there have not been 65535 at once; else linear.
   static std::size_t count( PtrInterface const & notifier ) {
      return notifier.registered_ != many ? notifier.registered_ : walked( notifier );
   }
   static void enter( PtrInterface const & notifier, Reactor const & reactor );
   static void leave( PtrInterface const & notifier, Reactor const & reactor );

 private:
   // In place of a number that is larger: nobody counts any more until none is left.
   static constexpr std::uint16_t many = 0xffff;
   static std::size_t walked( PtrInterface const & notifier );
};

// The activity manager's clock, which is never null once there is a manager.
extern Clock const * installedClock;

// An embedded loop has to learn of it when work was queued, when none is left, or when another
// timer is the next.
extern ActivityManager * embedded; // the manager, once its loop lives in another one
void tellWorkArrived() noexcept;
void tellWorkGone() noexcept;
inline void workArrived() noexcept {
   if( embedded ) [[unlikely]]
      tellWorkArrived();
}
inline void workGone() noexcept {
   if( embedded ) [[unlikely]]
      tellWorkGone();
}
void tellTimersChanged() noexcept;
inline void timersChanged() noexcept {
   if( embedded ) [[unlikely]]
      tellTimersChanged();
}

// Throws the exception for running the loop, or a part of it, inside a callback.
[[noreturn]] void refuseNesting();

} // namespace Kiv::detail
