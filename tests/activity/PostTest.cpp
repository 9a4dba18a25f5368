// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The one call that other threads may make.
#include "Timers.h"

#include <Stage/Stage.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <semaphore>
#include <thread>

using namespace activity;

namespace {

Kiv::Ptr< Kiv::ActivityManager > const & manager() { return Kiv::activityManager(); }

} // namespace

TEST( Posting, TasksRunInTheOrderOfPostingAndNotAtOnce ) {
   Lines journal;
   for( char const * task : { "a", "b", "c" } )
      post( [ &journal, task ] { journal.push_back( task ); } );
   EXPECT_EQ( journal, Lines{} );
   EXPECT_FALSE( manager()->runOne() ); // they are no callbacks
   EXPECT_EQ( manager()->runDue(), 3U );
   EXPECT_EQ( journal, ( Lines{ "a", "b", "c" } ) );
}

TEST( Posting, ATaskThatATaskPostsRunsAfterThoseThatWait ) {
   Lines journal;
   post( [ & ] {
      journal.push_back( "a" );
      post( [ & ] {
         journal.push_back( "posted" );
         manager()->stop();
      } );
   } );
   post( [ & ] { journal.push_back( "b" ); } );
   runWithLimit();
   EXPECT_EQ( journal, ( Lines{ "a", "b", "posted" } ) );
}

TEST( Posting, AnEmptyTaskIsRefused ) {
   EXPECT_THROW( manager()->post( {} ), Kiv::RangeException );
   EXPECT_TRUE( manager()->idle() );
}

TEST( Posting, WhatATaskHoldsIsLetGoAfterItHasRun ) {
   Kiv::Ptr< Stage::EventConfig > const event = Stage::EventConfig::EventConfigIs( "Net", "agent" );
   auto const before = event->references();
   post( [ event ] {} );
   EXPECT_GT( event->references(), before );
   manager()->runDue();
   EXPECT_EQ( event->references(), before );
}

TEST( Posting, ATaskRunsOnTheThreadThatOwnsTheLoop ) {
   std::thread::id ran;
   std::thread other( [ & ] { post( [ & ] { ran = std::this_thread::get_id(); } ); } );
   other.join();
   EXPECT_EQ( manager()->runDue(), 1U );
   EXPECT_EQ( ran, std::this_thread::get_id() );
}

TEST( Posting, WakesALoopThatSleeps ) {
   for( int i = 0; i != 20; ++i ) {
      std::thread other( [ i ] {
         // Mostly when the loop sleeps; it has to work at any moment.
         std::this_thread::sleep_for( std::chrono::microseconds( 200 * i ) );
         post( [] { manager()->stop(); } );
      } );
      runWithLimit();
      other.join();
   }
}

// In a process of its own, where nothing has made the loop's descriptors yet.
TEST( PostingDeathTest, BeforeTheFirstRunIsNotForgotten ) {
   testing::GTEST_FLAG( death_test_style ) = "threadsafe";
   EXPECT_EXIT(
      {
         post( [] { manager()->stop(); } );
         runWithLimit();
         std::_Exit( testing::Test::HasFailure() ? 1 : 0 );
      },
      testing::ExitedWithCode( 0 ), "" );
}

TEST( PostingDeathTest, FromAnotherThreadDuringTheFirstRunIsNotForgotten ) {
   testing::GTEST_FLAG( death_test_style ) = "threadsafe";
   EXPECT_EXIT(
      {
         manager(); // owned by this thread
         std::thread other( [] { post( [] { manager()->stop(); } ); } );
         runWithLimit();
         other.join();
         std::_Exit( testing::Test::HasFailure() ? 1 : 0 );
      },
      testing::ExitedWithCode( 0 ), "" );
}

TEST( Posting, FromManyThreadsKeepsTheOrderOfEachAndLosesNothing ) {
   constexpr int threads = 8;
   constexpr int tasks = 2000;
   std::vector< int > next( threads, 0 );
   int outOfOrder = 0;
   int total = 0;
   std::vector< std::thread > posting;
   for( int t = 0; t != threads; ++t )
      posting.emplace_back( [ &, t ] {
         for( int i = 0; i != tasks; ++i )
            post( [ &, t, i ] {
               int & expected = next[ static_cast< std::size_t >( t ) ];
               if( i != expected++ )
                  ++outOfOrder;
               if( ++total == threads * tasks )
                  manager()->stop();
            } );
      } );
   runWithLimit();
   for( auto & thread : posting )
      thread.join();
   EXPECT_EQ( total, threads * tasks );
   EXPECT_EQ( outOfOrder, 0 );
   EXPECT_TRUE( manager()->idle() );
}

// The loop's own thread needs no lock, which must not put its posts before what was there.
TEST( Posting, KeepsTheOrderAmongThreadsThatWaitForEachOther ) {
   Lines journal;
   auto const mine = [ & ]( char const * task ) {
      post( [ &journal, task ] { journal.push_back( task ); } );
   };
   auto const others = [ & ]( char const * task ) {
      std::thread( [ &, task ] { mine( task ); } ).join();
   };
   mine( "a" );
   others( "b" );
   mine( "c" );
   others( "d" );
   others( "e" );
   mine( "f" );
   manager()->runDue( 2 );
   EXPECT_EQ( journal, ( Lines{ "a", "b" } ) );
   mine( "g" );
   others( "h" );
   mine( "i" );
   while( manager()->runDue( 2 ) != 0 ) {
   }
   EXPECT_EQ( journal, ( Lines{ "a", "b", "c", "d", "e", "f", "g", "h", "i" } ) );
}

TEST( Posting, ABurstRunsInOrderWhileMoreIsPosted ) {
   std::vector< int > ran;
   int posted = 0;
   auto const postSome = [ & ]( int count ) {
      for( int i = 0; i != count; ++i )
         post( [ &ran, number = posted++ ] { ran.push_back( number ); } );
   };
   for( int i = 0; i != 100; ++i ) {
      postSome( i % 7 * 20 );
      manager()->runDue( static_cast< std::size_t >( i % 5 * 20 + 1 ) );
   }
   while( manager()->runDue( 1000 ) != 0 ) {
   }
   ASSERT_EQ( ran.size(), static_cast< std::size_t >( posted ) );
   EXPECT_TRUE( std::is_sorted( ran.begin(), ran.end() ) );
}

// Each thread posts again only when its task has run, so a post that is left while the loop sleeps
// stops everything.
TEST( Posting, NoneIsLeftWhileTheLoopSleeps ) {
   constexpr int threads = 4;
   constexpr int tasks = 2000;
   std::atomic< int > left = threads;
   std::vector< std::thread > posting;
   for( int t = 0; t != threads; ++t )
      posting.emplace_back( [ &left, t ] {
         std::binary_semaphore done( 0 );
         for( int i = 0; i != tasks; ++i ) {
            if( i % ( t + 3 ) == 0 )
               std::this_thread::yield();
            post( [ &done ] { done.release(); } );
            done.acquire();
         }
         if( --left == 0 )
            post( [] { manager()->stop(); } );
      } );
   runWithLimit();
   for( auto & thread : posting )
      thread.join();
   EXPECT_EQ( left, 0 );
   EXPECT_TRUE( manager()->idle() );
}

// The alarm that is set stays set when the loop is woken for something else.
TEST( Posting, ATimerFiresThoughTheLoopIsWokenBefore ) {
   Journal journal;
   Kiv::Ptr< Timer > const timer = new Timer( "timer", journal );
   timer->act = [] { manager()->stop(); };
   double const time = Kiv::now() + 0.02;
   timer->timeMinIs( time );
   std::atomic< bool > ends = false;
   std::thread other( [ &ends ] {
      while( !ends ) {
         post( [] {} );
         std::this_thread::sleep_for( std::chrono::milliseconds( 2 ) );
      }
   } );
   runWithLimit();
   EXPECT_GE( Kiv::now(), time );
   ends = true;
   other.join();
   manager()->runDue();
   EXPECT_EQ( journal, Lines{ "timer" } );
}

TEST( Posting, TheTasksOfThreadsAndCallbacksTakeTurnsWithoutMixing ) {
   // Tasks change an event, whose reactor is told on this thread, between tasks.
   class Counter : public Stage::EventConfig::NotifieeConst {
    public:
      explicit Counter( Kiv::Ptr< Stage::EventConfig > const & event ) { watch( event ); }
      void onTimeout() override { ++calls; }
      int calls = 0;
   };
   auto const event = Stage::EventConfig::EventConfigIs( "Net", "agent" );
   Kiv::Ptr< Counter > const counter = new Counter( event );
   int tasks = 0;
   std::vector< std::thread > posting;
   for( int t = 0; t != 4; ++t )
      posting.emplace_back( [ & ] {
         for( int i = 0; i != 250; ++i )
            post( [ & ] {
               EXPECT_EQ( counter->calls, tasks ); // each was told before the next task
               event->timeoutIs( ++tasks );
               if( tasks == 1000 )
                  post( [] { manager()->stop(); } );
            } );
      } );
   runWithLimit();
   for( auto & thread : posting )
      thread.join();
   EXPECT_EQ( counter->calls, 1000 );
}
