// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Private helpers of the framework's own sources.
#pragma once

#include <Kiv/detail/Queue.h>

#include <cassert>

namespace Kiv::detail {

template< class Call >
Outcome Queue::guarded( Reactor & reactor, AttributeId attribute, unsigned failures, Call call ) {
   assert( !busy_ && "callbacks do not nest" );
   // A reactor without references is destroyed by whoever made it: it cannot be kept.
   Ptr< Reactor > const keep( reactor.references() ? &reactor : nullptr );
   Ptr< PtrInterface const > const notifier = reactor.notifierPtr(); // for a report
   busy_ = true;
   current_ = &reactor;
   notifier_ = notifier.get();
   Outcome outcome = Outcome::done;
   try {
      call();
   } catch( ... ) {
      outcome = failed( reactor, attribute, failures );
   }
   if( failures > 1 && outcome == Outcome::done )
      reportRecovery( notifier_, attribute, failures );
   if( !current_ )
      outcome = Outcome::gone;
   current_ = nullptr;
   notifier_ = nullptr;
   busy_ = false;
   return outcome;
}

// The ring of an object's reactors, in order of registration.
struct Ring {
   static PtrInterface::NotifieeConst * first( PtrInterface const & notifier );
   static PtrInterface::NotifieeConst * next( PtrInterface::NotifieeConst const & reactor );
   static void enter( PtrInterface const & notifier, PtrInterface::NotifieeConst const & reactor );
   static void leave( PtrInterface const & notifier, PtrInterface::NotifieeConst const & reactor );
};

// An embedded loop has to learn of it when work was queued, when none is left, or when another
// timer is the next.
void workArrived() noexcept;
void workGone() noexcept;
void timersChanged() noexcept;

// Throws the exception for running the loop, or a part of it, inside a callback.
[[noreturn]] void refuseNesting();

} // namespace Kiv::detail
