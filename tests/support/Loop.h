// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The activity's loop, pumped by hand on a clock that moves only when a test says so.
#pragma once

#include <Kiv/Kiv.h>

namespace testing_support {

// Installs a manual clock while it lives. Declare it before everything that it has to outlive.
class Loop {
 public:
   explicit Loop( double start = 1000 )
      : clock_( Kiv::ManualClock::ManualClockIs( start ) ),
        before_( Kiv::activityManager()->clock() ) {
      Kiv::activityManager()->clockIs( clock_ );
   }
   // What is still queued belongs to the test that ends: it is delivered, not left to the next one.
   ~Loop() {
      Kiv::activityManager()->runQueued();
      Kiv::activityManager()->clockIs( before_ );
   }
   Loop( Loop const & ) = delete;
   Loop & operator=( Loop const & ) = delete;

   Kiv::Ptr< Kiv::ManualClock > const & clock() const { return clock_; }
   double now() const { return clock_->now(); }
   void nowIs( double seconds ) { clock_->nowIs( seconds ); }

   // Delivers what is queued; fires no timer.
   void deliver() { Kiv::activityManager()->runQueued(); }
   // Fires the first due timer and delivers nothing of what that queues.
   bool fire() { return Kiv::activityManager()->fireOne(); }
   // Delivers callbacks and fires due timers until nothing is left to do at this time.
   void idle() {
      while( Kiv::activityManager()->runOne() || fire() ) {
      }
   }

 private:
   Kiv::Ptr< Kiv::ManualClock > const clock_;
   Kiv::Ptr< Kiv::Clock > const before_;
};

} // namespace testing_support
