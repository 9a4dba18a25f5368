// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The loop in a process that has no memory left: it goes on, and a watch is made whole or not at
// all.
#include "../support/Allocations.h"
#include "Listener.h"
#include "Pipe.h"
#include "Timers.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <new>
#include <thread>

using namespace activity;
using testing_support::Allocations;
using testing_support::FailingAllocations;

namespace {

Kiv::Ptr< Kiv::ActivityManager > const & manager() { return Kiv::activityManager(); }

class NoMemory : public testing::Test {
 protected:
   NoMemory() { manager()->runDue(); } // makes the wake-up
   ~NoMemory() override {
      manager()->descriptorDel( pipe.reading() );
      manager()->descriptorDel( other.reading() );
   }
   // What the loop runs, counted: a callback, a timer, a task, two descriptors.
   void give() {
      timer->timeMinIs( 1 );
      event->timeoutIs( 7 );
      for( Pipe const * p : { &pipe, &other } ) {
         EXPECT_TRUE( p->put() );
         manager()->descriptorIs( p->reading(), POLLIN, [ this, p ]( unsigned ) {
            p->take();
            ran();
         } );
      }
      post( [ this ] { ran(); } );
   }
   void ran() {
      if( ++count == 5 )
         manager()->stop();
   }

   struct Counting : Kiv::Clock::NotifieeConst {
      explicit Counting( NoMemory & test ) : test_( test ) {
         notifierIs( Kiv::Ptr< Kiv::PtrInterface const >( manager()->clock() ) );
         isRegisteredNotifieeIs( true );
         hasNotificationActiveIs( true );
      }
      void onTime() override { test_.ran(); }
      NoMemory & test_;
   };
   struct Watching : Stage::EventConfig::NotifieeConst {
      explicit Watching( NoMemory & test ) : test_( test ) {
         notifierIs( Kiv::Ptr< Kiv::PtrInterface const >( test.event ) );
         isRegisteredNotifieeIs( true );
         hasNotificationActiveIs( true );
      }
      void onTimeout() override { test_.ran(); }
      NoMemory & test_;
   };

   int count = 0;
   Pipe pipe;
   Pipe other;
   Kiv::Ptr< Stage::EventConfig > const event = Stage::EventConfig::EventConfigIs( "Net", "agent" );
   Kiv::Ptr< Counting > const timer = new Counting( *this );
   Kiv::Ptr< Watching > const watching = new Watching( *this );
};

} // namespace

TEST_F( NoMemory, TheLoopRunsAllThatIsThere ) {
   give();
   {
      Allocations const none( 0, FailingAllocations::allFromThenOn );
      EXPECT_NO_THROW( manager()->run() );
   }
   EXPECT_EQ( count, 5 );
}

TEST_F( NoMemory, TheLoopInsideAnotherOneRunsAllThatIsThere ) {
   int const fd = manager()->descriptor();
   give();
   {
      Allocations const none( 0, FailingAllocations::allFromThenOn );
      while( readable( fd ) )
         manager()->runDue( 1 );
   }
   EXPECT_EQ( count, 5 );
   EXPECT_TRUE( manager()->idle() );
}

TEST_F( NoMemory, ATimerAndAChangeMakeTheDescriptorReadable ) {
   int const fd = manager()->descriptor();
   event->timeoutIs( 1 ); // from now on the queue has room
   manager()->runDue();
   EXPECT_FALSE( readable( fd ) );
   Allocations const none( 0, FailingAllocations::allFromThenOn );
   event->timeoutIs( 2 );
   timer->timeMinIs( 1 );
   EXPECT_TRUE( readable( fd ) );
   EXPECT_EQ( manager()->runDue(), 2U );
   EXPECT_FALSE( readable( fd ) );
}

TEST_F( NoMemory, APostThatFailsHasChangedNothing ) {
   int posted = 0;
   {
      std::function< void() > const task = [ this ] { ran(); };
      Allocations const none( 0, FailingAllocations::allFromThenOn );
      try {
         for( ; posted != 1000; ++posted ) // some find room that is there already
            post( task );
      } catch( std::bad_alloc const & ) { // that was expected
      }
   }
   EXPECT_LT( posted, 1000 ) << "nothing could fail";
   EXPECT_EQ( manager()->idle(), posted == 0 );
   manager()->runDue();
   EXPECT_EQ( count, posted );
   EXPECT_TRUE( manager()->idle() );
   post( [ this ] { ran(); } );
   manager()->runDue();
   EXPECT_EQ( count, posted + 1 );
}

TEST_F( NoMemory, AWatchIsMadeOrNotAndCanBeMadeAfterwards ) {
   EXPECT_TRUE( pipe.put() );
   auto const told = [ this ]( unsigned ) { ++count; };
   std::size_t n = 0;
   for( ;; ++n ) {
      Allocations const allocations( n );
      try {
         manager()->descriptorIs( pipe.reading(), POLLIN, told );
      } catch( std::bad_alloc const & ) {
         Allocations::failNone();
         EXPECT_EQ( manager()->runDue(), 0U ) << "allocation " << n;
         continue;
      }
      break;
   }
   EXPECT_GT( n, 0U ) << "nothing could fail";
   EXPECT_EQ( manager()->runDue(), 1U );
   EXPECT_EQ( count, 1 );
}

TEST_F( NoMemory, AReplacementIsMadeOrTheOldWatchStays ) {
   EXPECT_TRUE( pipe.put() );
   int old = 0;
   manager()->descriptorIs( pipe.reading(), POLLIN, [ &old ]( unsigned ) { ++old; } );
   std::size_t n = 0;
   for( ;; ++n ) {
      Allocations const allocations( n );
      try {
         manager()->descriptorIs( pipe.reading(), POLLIN, [ this ]( unsigned ) { ++count; } );
      } catch( std::bad_alloc const & ) {
         Allocations::failNone();
         manager()->runDue();
         EXPECT_EQ( old, static_cast< int >( n ) + 1 );
         continue;
      }
      break;
   }
   EXPECT_GT( n, 0U ) << "nothing could fail";
   manager()->runDue();
   EXPECT_EQ( old, static_cast< int >( n ) );
   EXPECT_EQ( count, 1 );
}

// ---- a process that has not run the loop before

namespace {

int runForTheFirstTime() {
   bool ran = false;
   post( [ &ran ] {
      ran = true;
      manager()->stop();
   } );
   Allocations const none( 0, FailingAllocations::allFromThenOn );
   for( int i = 0; i != 3; ++i )
      try {
         manager()->run();
         return 1;
      } catch( std::bad_alloc const & ) {
         if( ran )
            return 2;
      }
   Allocations::failNone();
   manager()->run();
   return ran ? 0 : 3;
}

} // namespace

TEST( NoMemoryDeathTest, ALoopThatCannotBeginSaysSoAndBeginsLater ) {
   testing::GTEST_FLAG( death_test_style ) = "threadsafe";
   EXPECT_EXIT( std::_Exit( runForTheFirstTime() ), testing::ExitedWithCode( 0 ), "" );
}

TEST( NoMemoryDeathTest, AThreadThatMayNotIsStoppedAndToldOfAsFarAsItCanBe ) {
   testing::GTEST_FLAG( death_test_style ) = "threadsafe";
   auto const event = Stage::EventConfig::EventConfigIs( "Net", "agent" );
   event->timeoutIs( 1 );
   EXPECT_DEATH(
      {
         std::thread other( [ & ] {
            Allocations const none( 0, FailingAllocations::allFromThenOn );
            event->timeoutIs( 2 );
         } );
         other.join();
      },
      "kiv: timeout of (Stage::EventConfig|Net:agent) was touched outside" );
}
