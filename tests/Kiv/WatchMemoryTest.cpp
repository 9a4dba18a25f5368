// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Watching a clock needs a place among its timers: without memory for that nothing is watched.
#include "../support/Allocations.h"
#include "../support/Loop.h"

#include <Kiv/Kiv.h>

#include <gtest/gtest.h>

#include <new>

TEST( WatchMemory, ATimerWithoutItWatchesNothingAndMayTryAgain ) {
   testing_support::Loop loop;
   Kiv::Ptr< Kiv::Clock::NotifieeConst > const timer = new Kiv::Clock::NotifieeConst;
   Kiv::Ptr< Kiv::ManualClock > const fresh = Kiv::ManualClock::ManualClockIs( 5 );
   bool thrown = false;
   {
      testing_support::Allocations const allocations( 0 );
      try {
         timer->watch( fresh );
      } catch( std::bad_alloc const & ) {
         thrown = true;
      }
   }
   EXPECT_TRUE( thrown );
   EXPECT_FALSE( timer->notifier() );
   EXPECT_FALSE( timer->isRegisteredNotifiee() );
   EXPECT_FALSE( timer->hasNotificationActive() );
   timer->watch( fresh );
   EXPECT_TRUE( timer->isRegisteredNotifiee() );
   EXPECT_TRUE( timer->hasNotificationActive() );
}
