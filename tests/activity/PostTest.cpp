// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The one call that other threads may make.
#include "Timers.h"

#include <Stage/Stage.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
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
