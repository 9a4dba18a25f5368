// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// How the loop sleeps and is woken, seen from a wake-up of the test's own: nothing here waits.
#include "Pipe.h"
#include "Timers.h"

#include <Stage/Stage.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <memory>
#include <span>
#include <thread>
#include <vector>

using namespace activity;

namespace {

Kiv::Ptr< Kiv::ActivityManager > const & manager() { return Kiv::activityManager(); }

// A clock that the test sets, but that knows how long there is to sleep.
class SetClock : public Kiv::Clock {
 public:
   double now() const override { return seconds; }
   double seconds = 1000;
};

class FakeWakeup : public Kiv::Wakeup {
 public:
   FakeWakeup( Journal & journal, std::function< void() > sleep )
      : journal_( journal ), sleep_( std::move( sleep ) ) {}

   std::deque< std::vector< Ready > > ready; // what the next waits see
   double alarm = Kiv::infinity;
   bool refuses = false; // to watch

   int descriptor() const override { return 4711; }
   void wake() noexcept override { journal_.push_back( "wake" ); }
   void alarmIs( double delay ) override { alarm = delay; }
   void watchIs( int fd, unsigned events ) override {
      journal_.push_back( "watch " + std::to_string( fd ) + " " + std::to_string( events ) );
      if( refuses )
         throw std::system_error( EBADF, std::generic_category(), "watch" );
   }
   std::size_t wait( bool block, std::span< Ready > room ) override {
      if( block ) {
         journal_.push_back( "sleep " + Kiv::valueToString( alarm ).str() );
         sleep_();
      }
      if( ready.empty() )
         return 0;
      auto const seen = ready.front();
      ready.pop_front();
      std::copy( seen.begin(), seen.end(), room.begin() );
      return seen.size();
   }

 private:
   Journal & journal_;
   std::function< void() > sleep_;
};

class Waking : public testing::Test {
 protected:
   Waking() : before_( manager()->clock() ) {
      manager()->clockIs( clock );
      auto made = std::make_unique< FakeWakeup >( journal, [ this ] { sleep(); } );
      wakeup = made.get();
      manager()->wakeupIs( std::move( made ) );
   }
   ~Waking() override {
      manager()->wakeupIs( nullptr );
      manager()->clockIs( before_ );
   }

   std::function< void() > sleep = [] { FAIL() << "the loop went to sleep"; };
   Journal journal;
   Kiv::Ptr< SetClock > const clock = new SetClock;
   FakeWakeup * wakeup = nullptr;

 private:
   Kiv::Ptr< Kiv::Clock > const before_;
};

} // namespace

TEST_F( Waking, TheLoopSleepsUntilTheNextTimerAndNoLonger ) {
   Kiv::Ptr< Timer > const a = new Timer( "a", journal );
   Kiv::Ptr< Timer > const b = new Timer( "b", journal );
   a->timeMinIs( 1007 );
   b->timeMinIs( 1002.5 );
   a->act = [] { manager()->stop(); };
   sleep = [ & ] { clock->seconds += wakeup->alarm; };
   manager()->run();
   EXPECT_EQ( journal, ( Lines{ "sleep 2.5", "b", "sleep 4.5", "a" } ) );
}

TEST_F( Waking, WithoutATimerItSleepsWithoutAnAlarm ) {
   sleep = [] { post( [] { manager()->stop(); } ); };
   manager()->run();
   EXPECT_EQ( journal, ( Lines{ "sleep inf", "wake" } ) );
}

TEST_F( Waking, AWakeUpWithoutAReasonIsFollowedByMoreSleep ) {
   int times = 0;
   sleep = [ & ] {
      if( ++times == 3 )
         post( [] { manager()->stop(); } );
   };
   manager()->run();
   EXPECT_EQ( times, 3 );
}

TEST_F( Waking, WithWorkToDoItDoesNotSleep ) {
   class Listener : public Stage::EventConfig::NotifieeConst {
    public:
      explicit Listener( Kiv::Ptr< Stage::EventConfig > const & event ) { watch( event ); }
      void onTimeout() override { manager()->stop(); }
   };
   auto const event = Stage::EventConfig::EventConfigIs( "Net", "agent" );
   Kiv::Ptr< Listener > const listener = new Listener( event );
   event->timeoutIs( 1 );
   journal.clear();
   manager()->run();
   EXPECT_EQ( journal, Lines{} );
}

TEST_F( Waking, RunDueNeverBlocks ) {
   sleep = [] { FAIL() << "it blocked"; };
   EXPECT_EQ( manager()->runDue(), 0U );
   EXPECT_EQ( journal, Lines{} );
}

TEST_F( Waking, ADescriptorIsWatchedChangedAndLeft ) {
   manager()->descriptorIs( 5, POLLIN, []( unsigned ) {} );
   manager()->descriptorIs( 5, POLLOUT, []( unsigned ) {} );
   manager()->descriptorDel( 5 );
   manager()->descriptorDel( 5 );
   EXPECT_EQ( journal, ( Lines{ "watch 5 1", "watch 5 4", "watch 5 0" } ) );
}

TEST_F( Waking, WhatIsReadyIsToldToItsWatcherAlone ) {
   manager()->descriptorIs(
      5, POLLIN, [ & ]( unsigned e ) { journal.push_back( "5 told " + std::to_string( e ) ); } );
   manager()->descriptorIs(
      6, POLLIN, [ & ]( unsigned e ) { journal.push_back( "6 told " + std::to_string( e ) ); } );
   journal.clear();
   wakeup->ready.push_back( { { 6, POLLIN }, { 77, POLLIN }, { 5, POLLIN | POLLHUP } } );
   EXPECT_EQ( manager()->runDue(), 2U );
   EXPECT_EQ( journal, ( Lines{ "6 told 1", "5 told 17" } ) );
}

TEST_F( Waking, ARefusedWatchIsNoWatch ) {
   wakeup->refuses = true;
   EXPECT_THROW(
      manager()->descriptorIs( 3, POLLIN, [ & ]( unsigned ) { journal.push_back( "told" ); } ),
      std::system_error );
   wakeup->ready.push_back( { { 3, POLLIN } } );
   EXPECT_EQ( manager()->runDue(), 0U );
   EXPECT_EQ( journal, Lines{ "watch 3 1" } );
}

TEST_F( Waking, ARefusedReplacementLeavesTheOldWatch ) {
   manager()->descriptorIs( 5, POLLIN, [ & ]( unsigned ) { journal.push_back( "old" ); } );
   wakeup->refuses = true;
   EXPECT_THROW(
      manager()->descriptorIs( 5, POLLIN, [ & ]( unsigned ) { journal.push_back( "new" ); } ),
      std::system_error );
   journal.clear();
   wakeup->ready.push_back( { { 5, POLLIN } } );
   manager()->runDue();
   EXPECT_EQ( journal, Lines{ "old" } );
}

TEST_F( Waking, OfManyPostsToALoopThatSleepsTheFirstWakes ) {
   sleep = [ this ] {
      for( char const * task : { "a", "b" } )
         post( [ this, task ] { journal.push_back( task ); } );
      std::thread( [ this ] {
         post( [ this ] { journal.push_back( "c" ); } );
         post( [] { manager()->stop(); } );
      } ).join();
   };
   manager()->run();
   EXPECT_EQ( journal, ( Lines{ "sleep inf", "wake", "a", "b", "c" } ) );
}

TEST_F( Waking, EachTimeItSleepsItIsWoken ) {
   int times = 0;
   sleep = [ & ] {
      post( [ & ] {
         if( ++times == 3 )
            manager()->stop();
      } );
   };
   manager()->run();
   EXPECT_EQ( journal, ( Lines{ "sleep inf", "wake", "sleep inf", "wake", "sleep inf", "wake" } ) );
}

TEST_F( Waking, NobodyWakesALoopThatIsAwakeWhichDoesNotSleepThen ) {
   int slept = 0;
   sleep = [ & ] {
      ASSERT_EQ( ++slept, 1 );
      post( [ this ] {
         journal.push_back( "task" );
         post( [ this ] { journal.push_back( "own" ); } );
         std::thread( [ this ] {
            post( [ this ] {
               journal.push_back( "other's" );
               post( [] { manager()->stop(); } );
            } );
         } ).join();
      } );
   };
   manager()->run();
   EXPECT_EQ( journal, ( Lines{ "sleep inf", "wake", "task", "own", "other's" } ) );
}

TEST_F( Waking, ALoopInsideAnotherOneIsWokenOnceForAllPostsBetweenTwoTurns ) {
   manager()->descriptor();
   for( int turn = 0; turn != 3; ++turn ) {
      journal.clear();
      post( [ this ] {
         journal.push_back( "a" );
         post( [ this ] { journal.push_back( "next" ); } );
      } );
      std::thread( [ this ] { post( [ this ] { journal.push_back( "b" ); } ); } ).join();
      post( [ this ] { journal.push_back( "c" ); } );
      EXPECT_EQ( journal, Lines{ "wake" } );
      EXPECT_EQ( manager()->runDue(), 3U );
      // What a task has posted is left for the next turn, and keeps the descriptor readable.
      EXPECT_EQ( journal, ( Lines{ "wake", "a", "b", "c", "wake" } ) );
      EXPECT_EQ( manager()->runDue(), 1U );
      EXPECT_EQ( journal, ( Lines{ "wake", "a", "b", "c", "wake", "next" } ) );
   }
}

TEST_F( Waking, WhatWasPostedBeforeTheWakeUpIsReplacedWakesTheNewOne ) {
   post( [ & ] { journal.push_back( "task" ); } );
   journal.clear();
   manager()->wakeupIs( std::make_unique< FakeWakeup >( journal, [] {} ) );
   EXPECT_EQ( journal, Lines{ "wake" } );
   manager()->runDue();
   EXPECT_EQ( journal, ( Lines{ "wake", "task" } ) );
}

TEST_F( Waking, WatchesAreLostWithTheWakeUpThatHadThem ) {
   manager()->descriptorIs( 5, POLLIN, [ & ]( unsigned ) { journal.push_back( "told" ); } );
   auto made = std::make_unique< FakeWakeup >( journal, [] {} );
   made->ready.push_back( { { 5, POLLIN } } );
   journal.clear();
   manager()->wakeupIs( std::move( made ) );
   manager()->runDue();
   EXPECT_EQ( journal, Lines{} );
}

TEST_F( Waking, WhatItThrowsWhenItShouldWaitLeavesRunAndNothingIsLost ) {
   std::function< void() > const failures[] = {
      [] { throw std::system_error( EINTR, std::generic_category(), "wait" ); },
      [] { throw std::bad_alloc(); },
   };
   for( auto const & failure : failures ) {
      int slept = 0;
      sleep = [ & ] {
         if( ++slept == 2 ) {
            post( [ & ] { journal.push_back( "task" ); } );
            post( [] { manager()->stop(); } );
            failure();
         }
      };
      EXPECT_ANY_THROW( manager()->run() );
      EXPECT_EQ( slept, 2 );
      EXPECT_FALSE( manager()->idle() ) << "the tasks wait";
      journal.clear();
      manager()->run();
      EXPECT_EQ( std::count( journal.begin(), journal.end(), "task" ), 1 );
      EXPECT_EQ( slept, 2 );
   }
}

TEST_F( Waking, AfterNullTheBuiltInOneWorksAgain ) {
   manager()->wakeupIs( nullptr );
   manager()->clockIs( new Kiv::Clock );
   Pipe pipe;
   EXPECT_TRUE( pipe.put() );
   manager()->descriptorIs( pipe.reading(), POLLIN, [ & ]( unsigned ) {
      journal.push_back( "pipe" );
      manager()->descriptorDel( pipe.reading() );
      manager()->stop();
   } );
   runWithLimit();
   EXPECT_EQ( journal, Lines{ "pipe" } );
   manager()->clockIs( clock );
}
