// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The loop inside another one: its descriptor is readable exactly while there is something to do.
#include "../support/Loop.h"
#include "Listener.h"
#include "Pipe.h"
#include "Timers.h"

#include <Stage/Stage.h>

#include <gtest/gtest.h>

#include <chrono>
#include <set>
#include <string>
#include <thread>

#include <dirent.h>
#include <sys/epoll.h>

using namespace activity;

namespace {

Kiv::Ptr< Kiv::ActivityManager > const & manager() { return Kiv::activityManager(); }

class Embedded : public testing::Test {
 protected:
   Embedded() { EXPECT_FALSE( readable( fd ) ); }

   Journal journal;
   Kiv::Ptr< Stage::EventConfig > const event = Stage::EventConfig::EventConfigIs( "Net", "agent" );
   Kiv::Ptr< Listener > const listener = new Listener( journal, event );
   int const fd = manager()->descriptor();
};

// On a clock that the test moves.
class EmbeddedByHand : public Embedded {
 protected:
   EmbeddedByHand() : before_( manager()->clock() ) { manager()->clockIs( clock ); }
   ~EmbeddedByHand() override {
      manager()->runDue();
      manager()->clockIs( before_ );
   }
   Kiv::Ptr< Kiv::ManualClock > const clock = Kiv::ManualClock::ManualClockIs( 1000 );

 private:
   Kiv::Ptr< Kiv::Clock > const before_;
};

} // namespace

// ---- queued work

TEST_F( EmbeddedByHand, WorkQueuedOutsideOfCallbacksMakesItReadableUntilItIsDone ) {
   event->timeoutIs( 1 );
   EXPECT_TRUE( readable( fd ) );
   EXPECT_TRUE( readable( fd ) ); // looking does not take it back
   EXPECT_EQ( manager()->runDue(), 1U );
   EXPECT_FALSE( readable( fd ) );
   EXPECT_EQ( journal, Lines{ "told 1" } );
   event->timeoutIs( 2 );
   EXPECT_TRUE( readable( fd ) );
   manager()->runDue();
   EXPECT_FALSE( readable( fd ) );
}

TEST_F( EmbeddedByHand, AChangeThatNobodyWatchesDoesNotWake ) {
   auto const other = Stage::EventConfig::EventConfigIs( "Gui", "agent" );
   other->timeoutIs( 1 );
   event->timeoutIs( event->timeout() );
   EXPECT_FALSE( readable( fd ) );
}

TEST_F( EmbeddedByHand, WorkOfAReactorThatIsOffWakesWhenItIsSwitchedOn ) {
   listener->hasNotificationActiveIs( false );
   event->timeoutIs( 1 );
   EXPECT_FALSE( readable( fd ) );
   listener->hasNotificationActiveIs( true );
   EXPECT_TRUE( readable( fd ) );
   manager()->runDue();
   EXPECT_FALSE( readable( fd ) );
}

TEST_F( EmbeddedByHand, WhatALimitLeavesKeepsItReadable ) {
   Kiv::Ptr< Listener > const second = new Listener( journal, event );
   Kiv::Ptr< Listener > const third = new Listener( journal, event );
   event->timeoutIs( 1 );
   EXPECT_EQ( manager()->runDue( 2 ), 2U );
   EXPECT_TRUE( readable( fd ) );
   EXPECT_EQ( manager()->runDue( 1 ), 1U );
   EXPECT_FALSE( readable( fd ) );
   EXPECT_EQ( manager()->runDue( 1 ), 0U );
   EXPECT_FALSE( readable( fd ) );
}

TEST_F( EmbeddedByHand, WorkThatIsDroppedTakesItBack ) {
   event->timeoutIs( 1 );
   listener->isRegisteredNotifieeIs( false );
   EXPECT_TRUE( manager()->idle() );
   EXPECT_FALSE( readable( fd ) );
}

TEST_F( EmbeddedByHand, CallbacksDeliveredByHandCount ) {
   Kiv::Ptr< Listener > const second = new Listener( journal, event );
   event->timeoutIs( 1 );
   manager()->runOne();
   EXPECT_TRUE( readable( fd ) );
   manager()->runOne();
   EXPECT_FALSE( readable( fd ) );
   second->act = [ & ] {
      second->act = nullptr;
      event->timeoutIs( 3 );
   };
   event->timeoutIs( 2 );
   manager()->runOne();
   manager()->runOne();
   EXPECT_TRUE( readable( fd ) );
   manager()->runQueued();
   EXPECT_FALSE( readable( fd ) );
}

TEST_F( EmbeddedByHand, TheLastOneDeliveredByHandleNotificationTakesItBack ) {
   event->timeoutIs( 1 );
   listener->handleNotification( nullptr );
   EXPECT_EQ( journal, Lines{ "told 1" } );
   EXPECT_FALSE( readable( fd ) );
}

TEST_F( EmbeddedByHand, WorkThatADestructorQueuesWakes ) {
   class Parting : public Kiv::Entity {
    public:
      explicit Parting( Kiv::Ptr< Stage::EventConfig > const & e )
         : Entity( "parting" ), event_( e ) {}
      ~Parting() override { event_->timeoutIs( 7 ); }

    private:
      Kiv::Ptr< Stage::EventConfig > const event_;
   };
   Kiv::Ptr< Parting > parting = new Parting( event );
   parting = nullptr;
   EXPECT_TRUE( readable( fd ) );
   manager()->runDue();
   EXPECT_EQ( journal, Lines{ "told 7" } );
}

// ---- timers

TEST_F( EmbeddedByHand, AFarTimerDoesNotWakeAndADueOneDoes ) {
   Kiv::Ptr< Timer > const timer = new Timer( "timer", journal );
   timer->timeMinIs( 1005 );
   EXPECT_FALSE( readable( fd ) );
   EXPECT_EQ( manager()->nextTime(), 1005 );
   clock->nowIs( 1004 );
   EXPECT_FALSE( readable( fd ) );
   clock->nowIs( 1005 );
   EXPECT_TRUE( readable( fd ) );
   EXPECT_EQ( manager()->runDue(), 1U );
   EXPECT_FALSE( readable( fd ) );
   timer->timeMinIs( 3 );
   EXPECT_TRUE( readable( fd ) );
   manager()->runDue();
   EXPECT_EQ( journal, ( Lines{ "timer", "timer" } ) );
}

TEST_F( EmbeddedByHand, ADueTimerThatIsDisarmedTakesItBack ) {
   Kiv::Ptr< Timer > const timer = new Timer( "timer", journal );
   timer->timeMinIs( 999 );
   EXPECT_TRUE( readable( fd ) );
   timer->timeMinIs( Kiv::infinity );
   EXPECT_FALSE( readable( fd ) );
}

TEST_F( EmbeddedByHand, WorkThatATimerFiredByHandQueuesWakes ) {
   Kiv::Ptr< Timer > const timer = new Timer( "timer", journal );
   timer->act = [ & ] { event->timeoutIs( 1 ); };
   timer->timeMinIs( 1000 );
   EXPECT_TRUE( manager()->fireOne() );
   EXPECT_EQ( journal, Lines{ "timer" } );
   EXPECT_TRUE( readable( fd ) );
   manager()->runQueued();
   EXPECT_FALSE( readable( fd ) );
}

TEST_F( EmbeddedByHand, AnotherClockOnWhichATimerIsDueWakes ) {
   Kiv::Ptr< Timer > const timer = new Timer( "timer", journal );
   timer->timeMinIs( 1000.5 );
   auto const late = Kiv::ManualClock::ManualClockIs( 5000 );
   Kiv::Ptr< Timer > const other = new Timer( "other", journal, late );
   other->timeMinIs( 4000 );
   EXPECT_FALSE( readable( fd ) );
   manager()->clockIs( late );
   EXPECT_TRUE( readable( fd ) );
   manager()->runDue();
   EXPECT_EQ( journal, Lines{ "other" } );
   manager()->clockIs( clock );
   EXPECT_FALSE( readable( fd ) );
}

TEST_F( Embedded, ATimerOfTheRealClockWakesWhenItIsDueAndNotBefore ) {
   Kiv::Ptr< Timer > const timer = new Timer( "timer", journal );
   double const time = Kiv::now() + 0.01;
   timer->timeMinIs( time );
   EXPECT_TRUE( readable( fd, 30000 ) );
   EXPECT_GE( Kiv::now(), time );
   EXPECT_EQ( manager()->runDue(), 1U );
   EXPECT_FALSE( readable( fd ) );
   EXPECT_EQ( journal, Lines{ "timer" } );
}

TEST_F( Embedded, ATimerThatIsDisarmedInTimeDoesNotWake ) {
   Kiv::Ptr< Timer > const timer = new Timer( "timer", journal );
   timer->timeMinIs( Kiv::now() + 0.2 );
   timer->timeMinIs( Kiv::infinity );
   EXPECT_FALSE( readable( fd, 300 ) );
}

TEST_F( Embedded, ATimerThatIsPutOffWakesAtTheLaterTime ) {
   Kiv::Ptr< Timer > const timer = new Timer( "timer", journal );
   timer->timeMinIs( Kiv::now() + 100 );
   double const later = Kiv::now() + 0.03;
   timer->timeMinIs( Kiv::now() + 0.005 );
   timer->timeMinIs( later );
   EXPECT_TRUE( readable( fd, 30000 ) );
   EXPECT_GE( Kiv::now(), later );
   EXPECT_EQ( manager()->runDue(), 1U );
   EXPECT_FALSE( readable( fd ) );
}

// ---- posts and descriptors

TEST_F( Embedded, APostMakesItReadable ) {
   post( [ & ] { journal.push_back( "a" ); } );
   post( [ & ] { journal.push_back( "b" ); } );
   EXPECT_TRUE( readable( fd ) );
   EXPECT_EQ( manager()->runDue( 1 ), 1U );
   EXPECT_TRUE( readable( fd ) );
   EXPECT_EQ( manager()->runDue( 1 ), 1U );
   EXPECT_FALSE( readable( fd ) );
   EXPECT_EQ( journal, ( Lines{ "a", "b" } ) );
}

TEST_F( Embedded, APostOfAnotherThreadWakesWhoeverPolls ) {
   std::thread other( [ & ] {
      std::this_thread::sleep_for( std::chrono::milliseconds( 3 ) );
      post( [ & ] { journal.push_back( "posted" ); } );
   } );
   EXPECT_TRUE( readable( fd, 30000 ) );
   other.join();
   EXPECT_EQ( manager()->runDue(), 1U );
   EXPECT_EQ( journal, Lines{ "posted" } );
}

TEST_F( Embedded, WhatATaskPostsOrQueuesIsNotLeftBehind ) {
   post( [ & ] {
      event->timeoutIs( 1 );
      post( [ & ] { journal.push_back( "posted" ); } );
   } );
   for( int i = 0; i != 10 && readable( fd ); ++i )
      manager()->runDue();
   EXPECT_FALSE( readable( fd ) );
   EXPECT_EQ( journal, ( Lines{ "told 1", "posted" } ) );
}

TEST_F( Embedded, AWatchedDescriptorThatIsReadyMakesItReadable ) {
   Pipe pipe;
   bool takes = false;
   manager()->descriptorIs( pipe.reading(), POLLIN, [ & ]( unsigned ) {
      journal.push_back( "told" );
      if( takes )
         pipe.take();
   } );
   EXPECT_FALSE( readable( fd ) );
   EXPECT_TRUE( pipe.put() );
   EXPECT_TRUE( readable( fd ) );
   manager()->runDue();
   EXPECT_TRUE( readable( fd ) ); // nobody took the byte
   takes = true;
   manager()->runDue();
   EXPECT_FALSE( readable( fd ) );
   EXPECT_EQ( journal, ( Lines{ "told", "told" } ) );
   EXPECT_TRUE( pipe.put() );
   EXPECT_TRUE( readable( fd ) );
   manager()->descriptorDel( pipe.reading() );
   EXPECT_FALSE( readable( fd ) );
}

TEST_F( Embedded, ADescriptorThatItsOwnerHasReadIsNotToldAfterwards ) {
   Pipe pipe;
   manager()->descriptorIs( pipe.reading(), POLLIN,
                            [ & ]( unsigned ) { journal.push_back( "told" ); } );
   EXPECT_TRUE( pipe.put() );
   manager()->runQueued(); // looks at what is ready
   EXPECT_TRUE( pipe.take() );
   EXPECT_FALSE( readable( fd ) );
   EXPECT_EQ( manager()->runDue(), 0U );
   post( [] { manager()->stop(); } );
   runWithLimit();
   EXPECT_EQ( journal, Lines{} );
   manager()->descriptorDel( pipe.reading() );
}

// ---- in a loop of somebody else

TEST_F( Embedded, APollLoopOfTheAgentsOwnDrivesAllOfIt ) {
   Pipe pipe;
   int ticks = 0;
   Kiv::Ptr< Timer > const timer = new Timer( "tick", journal );
   timer->act = [ & ] {
      event->timeoutIs( ++ticks );
      if( ticks < 3 )
         timer->timeMinIs( Kiv::now() + 0.002 );
      else
         EXPECT_TRUE( pipe.put() );
   };
   bool done = false;
   manager()->descriptorIs( pipe.reading(), POLLIN, [ & ]( unsigned ) {
      pipe.take();
      journal.push_back( "pipe" );
      std::thread( [ & ] { post( [ & ] { done = true; } ); } ).join();
   } );
   timer->timeMinIs( Kiv::now() + 0.002 );
   int rounds = 0;
   while( !done && ++rounds < 1000 ) {
      ASSERT_TRUE( readable( fd, 30000 ) ) << "asleep with something to do";
      manager()->runDue();
   }
   EXPECT_TRUE( done );
   EXPECT_EQ( journal, ( Lines{ "tick", "told 1", "tick", "told 2", "tick", "told 3", "pipe" } ) );
   EXPECT_LE( rounds, 10 ); // it woke for reasons only
   EXPECT_FALSE( readable( fd ) );
   manager()->descriptorDel( pipe.reading() );
}

TEST_F( Embedded, AnEpollLoopMayWatchItTooAndIsToldAsLongAsItHolds ) {
   int const outer = ::epoll_create1( EPOLL_CLOEXEC );
   epoll_event wanted{};
   wanted.events = EPOLLIN;
   ASSERT_EQ( ::epoll_ctl( outer, EPOLL_CTL_ADD, fd, &wanted ), 0 );
   epoll_event seen{};
   EXPECT_EQ( ::epoll_wait( outer, &seen, 1, 0 ), 0 );
   event->timeoutIs( 1 );
   EXPECT_EQ( ::epoll_wait( outer, &seen, 1, 0 ), 1 );
   EXPECT_EQ( ::epoll_wait( outer, &seen, 1, 0 ), 1 );
   manager()->runDue();
   EXPECT_EQ( ::epoll_wait( outer, &seen, 1, 0 ), 0 );
   ::close( outer );
}

TEST_F( Embedded, TheLoopMayStillBeRunAsItsOwnAndLeavesTheDescriptorRight ) {
   post( [ & ] {
      event->timeoutIs( 1 );
      manager()->stop();
   } );
   runWithLimit();
   EXPECT_EQ( journal, Lines{} );
   EXPECT_TRUE( readable( fd ) );
   manager()->runDue();
   EXPECT_FALSE( readable( fd ) );
   EXPECT_EQ( journal, Lines{ "told 1" } );
}

TEST_F( Embedded, TheDescriptorStaysTheSame ) {
   event->timeoutIs( 1 );
   manager()->runDue();
   EXPECT_EQ( manager()->descriptor(), fd );
}

// ---- a process that did not ask before

namespace {

std::set< int > openDescriptors() {
   std::set< int > open;
   DIR * const dir = ::opendir( "/proc/self/fd" );
   while( dirent const * entry = ::readdir( dir ) )
      if( entry->d_name[ 0 ] != '.' && std::stoi( entry->d_name ) != ::dirfd( dir ) )
         open.insert( std::stoi( entry->d_name ) );
   ::closedir( dir );
   return open;
}

int checkNewDescriptors() {
   auto const before = openDescriptors();
   manager()->runQueued();
   if( openDescriptors() != before )
      return 1; // spent without need
   int const fd = manager()->descriptor();
   auto const after = openDescriptors();
   if( !after.contains( fd ) || before.contains( fd ) )
      return 2;
   for( int const d : after )
      if( !before.contains( d ) && ( ::fcntl( d, F_GETFD ) & FD_CLOEXEC ) == 0 )
         return 3;
   return 0;
}

} // namespace

TEST( DescriptorDeathTest, AllThatTheLoopOpensIsClosedOnExecAndOpenedOnlyWhenNeeded ) {
   testing::GTEST_FLAG( death_test_style ) = "threadsafe";
   EXPECT_EXIT( std::_Exit( checkNewDescriptors() ), testing::ExitedWithCode( 0 ), "" );
}

TEST( DescriptorDeathTest, WorkAndPostsOfBeforeItWasAskedForMakeItReadable ) {
   testing::GTEST_FLAG( death_test_style ) = "threadsafe";
   EXPECT_EXIT(
      {
         post( [] {} );
         std::_Exit( readable( manager()->descriptor() ) ? 0 : 1 );
      },
      testing::ExitedWithCode( 0 ), "" );
   EXPECT_EXIT(
      {
         Journal journal;
         auto const event = Stage::EventConfig::EventConfigIs( "Net", "agent" );
         Listener listener( journal, event );
         event->timeoutIs( 1 );
         std::_Exit( readable( manager()->descriptor() ) ? 0 : 1 );
      },
      testing::ExitedWithCode( 0 ), "" );
   EXPECT_EXIT(
      {
         Journal journal;
         Timer timer( "timer", journal );
         timer.timeMinIs( 1 );
         std::_Exit( readable( manager()->descriptor() ) ? 0 : 1 );
      },
      testing::ExitedWithCode( 0 ), "" );
}
