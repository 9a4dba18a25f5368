// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The clock of the system, and the one that tests move.
#include "Timers.h"

#include <Kiv/Kiv.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <limits>
#include <thread>

using namespace activity;

namespace {

double steady() {
   return std::chrono::duration< double >( std::chrono::steady_clock::now().time_since_epoch() )
      .count();
}
double wall() {
   return std::chrono::duration< double >( std::chrono::system_clock::now().time_since_epoch() )
      .count();
}

// As this program was loaded.
double const wallAtStart = wall();
double const steadyAtStart = steady();

} // namespace

TEST( RealClock, NeverGoesBack ) {
   double last = Kiv::now();
   for( int i = 0; i != 200000; ++i ) {
      double const now = Kiv::now();
      ASSERT_LE( last, now );
      last = now;
   }
}

TEST( RealClock, GoesAsTheMonotonicClockDoesSoThatSettingTheWallClockDoesNotMoveIt ) {
   // Each sample bounds the difference between the two; all bounds have to have a place in common.
   double low = -std::numeric_limits< double >::infinity();
   double high = std::numeric_limits< double >::infinity();
   double const end = steady() + 0.05;
   for( double before = steady(); before < end; before = steady() ) {
      double const now = Kiv::now();
      double const after = steady();
      low = std::max( low, now - after );
      high = std::min( high, now - before );
   }
   EXPECT_LE( low, high + 1e-5 ); // of doubles of the size of the seconds since 1970
}

TEST( RealClock, IsTheWallClockAtProcessStartPlusTheMonotonicTimeSince ) {
   double const expected = wallAtStart + ( steady() - steadyAtStart );
   EXPECT_NEAR( Kiv::now(), expected, 30 );
}

TEST( RealClock, TwoClocksTellTheSameTime ) {
   Kiv::Ptr< Kiv::Clock > const other = new Kiv::Clock;
   double const first = Kiv::now();
   double const second = other->now();
   double const third = Kiv::now();
   EXPECT_LE( first, second );
   EXPECT_LE( second, third );
}

TEST( RealClock, SaysHowLongToSleep ) {
   Kiv::Ptr< Kiv::Clock > const clock = new Kiv::Clock;
   EXPECT_EQ( clock->delayUntil( clock->now() - 1 ), 0 );
   EXPECT_EQ( clock->delayUntil( Kiv::infinity ), Kiv::infinity );
   EXPECT_EQ( clock->delayUntil( -Kiv::infinity ), 0 );
   double const delay = clock->delayUntil( clock->now() + 1000 );
   EXPECT_LE( delay, 1000 );
   EXPECT_GE( delay, 900 );
}

TEST( RealClock, ATimerFiresNotBeforeItsTime ) {
   Journal journal;
   for( double const delay : { 0.0, 0.0005, 0.003, 0.01 } ) {
      Kiv::Ptr< Timer > const timer = new Timer( "timer", journal );
      double const time = Kiv::now() + delay;
      double fired = 0;
      timer->act = [ & ] {
         fired = Kiv::now();
         Kiv::activityManager()->stop();
      };
      timer->timeMinIs( time );
      runWithLimit();
      EXPECT_GE( fired, time );
   }
   EXPECT_EQ( journal.size(), 4U );
}

TEST( RealClock, AVeryLateTimerDoesNotDisturbTheLoop ) {
   Journal journal;
   Kiv::Ptr< Timer > const never = new Timer( "never", journal );
   for( double const time : { 1e300, 1e18, Kiv::now() + 1e10, Kiv::now() + 9e8 } ) {
      never->timeMinIs( time );
      Kiv::Ptr< Timer > const soon = new Timer( "soon", journal );
      soon->act = [] { Kiv::activityManager()->stop(); };
      soon->timeMinIs( Kiv::now() + 0.001 );
      runWithLimit();
   }
   EXPECT_EQ( journal, ( Lines{ "soon", "soon", "soon", "soon" } ) );
}

// ---- the manual clock

TEST( ManualClock, MovesOnlyWhenItIsTold ) {
   auto const clock = Kiv::ManualClock::ManualClockIs( 10 );
   EXPECT_EQ( clock->now(), 10 );
   std::this_thread::sleep_for( std::chrono::milliseconds( 2 ) );
   EXPECT_EQ( clock->now(), 10 );
   clock->nowIs( 12.5 );
   EXPECT_EQ( clock->now(), 12.5 );
}

TEST( ManualClock, DoesNotGoBack ) {
   auto const clock = Kiv::ManualClock::ManualClockIs( 10 );
   EXPECT_THROW( clock->nowIs( 9.999 ), Kiv::RangeException );
   EXPECT_EQ( clock->now(), 10 );
   clock->nowIs( 10 );
   EXPECT_EQ( clock->now(), 10 );
   EXPECT_THROW( clock->nowIs( -Kiv::infinity ), Kiv::RangeException );
   EXPECT_EQ( clock->now(), 10 );
}

TEST( ManualClock, RefusesWhatIsNoTime ) {
   EXPECT_THROW( Kiv::ManualClock::ManualClockIs( std::nan( "" ) ), Kiv::RangeException );
   auto const clock = Kiv::ManualClock::ManualClockIs( 10 );
   EXPECT_THROW( clock->nowIs( std::nan( "" ) ), Kiv::RangeException );
   EXPECT_EQ( clock->now(), 10 );
}

TEST( ManualClock, MovingItFiresNothingByItself ) {
   Journal journal;
   auto const clock = Kiv::ManualClock::ManualClockIs( 10 );
   auto const before = Kiv::activityManager()->clock();
   Kiv::activityManager()->clockIs( clock );
   Kiv::Ptr< Timer > const timer = new Timer( "timer", journal );
   timer->timeMinIs( 11 );
   clock->nowIs( 20 );
   EXPECT_EQ( journal, Lines{} );
   EXPECT_EQ( Kiv::now(), 20 );
   EXPECT_TRUE( Kiv::activityManager()->fireOne() );
   EXPECT_EQ( journal, Lines{ "timer" } );
   Kiv::activityManager()->clockIs( before );
}

TEST( ManualClock, SleepingDoesNotBringATimerNearer ) {
   auto const clock = Kiv::ManualClock::ManualClockIs( 10 );
   EXPECT_EQ( clock->delayUntil( 10 ), 0 );
   EXPECT_EQ( clock->delayUntil( 9 ), 0 );
   EXPECT_EQ( clock->delayUntil( 10.5 ), Kiv::infinity );
}

TEST( ActivityClock, NullIsRefused ) {
   auto const before = Kiv::activityManager()->clock();
   try {
      Kiv::activityManager()->clockIs( nullptr );
      ADD_FAILURE() << "null was taken";
   } catch( Kiv::RangeException const & e ) {
      EXPECT_STREQ( e.what(), "null ValidPtr" );
   }
   EXPECT_EQ( Kiv::activityManager()->clock(), before );
}
