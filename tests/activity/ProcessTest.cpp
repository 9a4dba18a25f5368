// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Forked children and other threads: who may not run the loop or touch what belongs to it.
#include "Timers.h"

#include <Stage/Stage.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>

#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace activity;

namespace {

Kiv::Ptr< Kiv::ActivityManager > const & manager() { return Kiv::activityManager(); }

// Exit status of a forked child that does this.
int inChild( std::function< int() > const & call ) {
   pid_t const child = ::fork();
   if( child == 0 ) {
      int status = 99;
      try {
         status = call();
      } catch( ... ) {
      }
      std::_Exit( status );
   }
   int status = 0;
   EXPECT_EQ( ::waitpid( child, &status, 0 ), child );
   return WIFEXITED( status ) ? WEXITSTATUS( status ) : -1;
}

// 0 when the call is refused as a forked child's.
int refused( std::function< void() > const & call ) {
   try {
      call();
   } catch( Kiv::Exception const & e ) {
      bool const says = std::string( e.what() ).find( "forked child" ) != std::string::npos;
      return e.ids().has( Kiv::Exception::thread ) && says ? 0 : 2;
   }
   return 1;
}

} // namespace

TEST( Forking, AChildMayNotRunTheLoop ) {
   manager(); // belongs to this process
   EXPECT_EQ( inChild( [] {
                 post( [] { manager()->stop(); } );
                 return refused( [] { manager()->run(); } );
              } ),
              0 );
   EXPECT_EQ( inChild( [] { return refused( [] { manager()->runDue(); } ); } ), 0 );
}

TEST( Forking, TheParentsLoopGoesOn ) {
   manager();
   inChild( [] { return refused( [] { manager()->runDue(); } ); } );
   bool ran = false;
   post( [ & ] {
      ran = true;
      manager()->stop();
   } );
   runWithLimit();
   EXPECT_TRUE( ran );
}

TEST( Forking, AProcessThatMakesTheActivityAfterTheForkMayRunIt ) {
   // In a process in which nothing has touched the framework yet.
   testing::GTEST_FLAG( death_test_style ) = "threadsafe";
   EXPECT_EXIT( std::_Exit( inChild( [] {
                   post( [] { manager()->stop(); } );
                   manager()->run();
                   return 0;
                } ) ),
                testing::ExitedWithCode( 0 ), "" );
}

namespace {

constexpr char message[] = "outside of the activity's thread";

void onAnotherThread( std::function< void() > const & call ) {
   std::thread other( call );
   other.join();
}

class ThreadsDeathTest : public testing::Test {
 protected:
   ThreadsDeathTest() {
      testing::GTEST_FLAG( death_test_style ) = "threadsafe";
      manager(); // belongs to this thread
   }

   Journal journal;
   Kiv::Ptr< Stage::EventConfig > const event = Stage::EventConfig::EventConfigIs( "Net", "agent" );
   Kiv::Ptr< Stage::Progress > const progress = Stage::Progress::ProgressIs( "progress" );
   Kiv::Ptr< Stage::Log > const log = Stage::Log::LogIs( "log" );
   Kiv::Ptr< Timer > const timer = new Timer( "timer", journal );
   Kiv::Ptr< Stage::EventConfig::NotifieeConst > const reactor =
      new Stage::EventConfig::NotifieeConst;
};

} // namespace

TEST_F( ThreadsDeathTest, AnotherThreadThatWritesAnAttributeIsStopped ) {
   EXPECT_DEATH( onAnotherThread( [ & ] { event->timeoutIs( 1 ); } ), message );
   EXPECT_DEATH( onAnotherThread( [ & ] { event->dependencyIs( "Disk", true ); } ), message );
   event->dependencyIs( "Disk", true );
   EXPECT_DEATH( onAnotherThread( [ & ] { event->dependencyIs( "Disk", false ); } ), message );
   EXPECT_DEATH( onAnotherThread( [ & ] { event->dependencyDel( "Disk" ); } ), message );
   EXPECT_DEATH( onAnotherThread( [ & ] { event->dependencyDelAll(); } ), message );
}

TEST_F( ThreadsDeathTest, AnotherThreadThatWritesWhatNobodyIsToldOfIsStoppedToo ) {
   EXPECT_DEATH( onAnotherThread( [ & ] { progress->stageIs( "Net", true ); } ), message );
   EXPECT_DEATH( onAnotherThread( [ & ] { log->logEnq( { 1, "text" } ); } ), message );
   EXPECT_DEATH( onAnotherThread( [ & ] {
                    Stage::LogEntry entry;
                    log->logDeq( entry );
                 } ),
                 message );
}

TEST_F( ThreadsDeathTest, AnotherThreadThatTouchesReactorsIsStopped ) {
   reactor->notifierIs( Kiv::Ptr< Kiv::PtrInterface const >( event ) );
   EXPECT_DEATH( onAnotherThread( [ & ] { reactor->isRegisteredNotifieeIs( true ); } ), message );
   EXPECT_DEATH( onAnotherThread( [ & ] { reactor->hasNotificationActiveIs( true ); } ), message );
   EXPECT_DEATH( onAnotherThread( [ & ] { timer->timeMinIs( 5 ); } ), message );
}

TEST_F( ThreadsDeathTest, AnotherThreadThatRunsTheLoopIsStopped ) {
   EXPECT_DEATH( onAnotherThread( [] { manager()->run(); } ), message );
   EXPECT_DEATH( onAnotherThread( [] { manager()->runDue(); } ), message );
   EXPECT_DEATH( onAnotherThread( [] { manager()->runOne(); } ), message );
   EXPECT_DEATH( onAnotherThread( [] { manager()->fireOne(); } ), message );
   EXPECT_DEATH( onAnotherThread( [] { manager()->descriptorIs( 0, 1, []( unsigned ) {} ); } ),
                 message );
}

TEST_F( ThreadsDeathTest, TheMessageNamesTheThreadTheObjectAndTheAttribute ) {
   auto const status = Stage::Status::StatusIs( "status" );
   auto const stage = status->stageIs( "Net" );
   EXPECT_DEATH( onAnotherThread( [ & ] {
                    ::pthread_setname_np( ::pthread_self(), "worker" );
                    stage->timeoutIs( 1 );
                 } ),
                 "^kiv: timeout of status/Net was touched outside of the activity's thread: on "
                 "thread [0-9]+ \\(worker\\), while the activity's is [0-9]+; other threads may "
                 "only call ActivityManager::post\n$" );
   EXPECT_DEATH( onAnotherThread( [ & ] { event->dependencyIs( "Disk", true ); } ),
                 "kiv: dependency of Net:agent was touched" );
   EXPECT_DEATH( onAnotherThread( [ & ] { progress->stageIs( "Net", true ); } ),
                 "kiv: stage of progress was touched" );
   EXPECT_DEATH( onAnotherThread( [ & ] {
                    log->logEnq( { 1, "text" } );
                 } ),
                 "kiv: log of log was touched" );
   EXPECT_DEATH( onAnotherThread( [ & ] { timer->timeMinIs( 5 ); } ),
                 "kiv: timeMin of a reactor on Kiv::Clock was touched" );
   EXPECT_DEATH( onAnotherThread( [ & ] { reactor->hasNotificationActiveIs( true ); } ),
                 "kiv: hasNotificationActive of a reactor was touched" );
   reactor->notifierIs( Kiv::Ptr< Kiv::PtrInterface const >( event ) );
   EXPECT_DEATH( onAnotherThread( [ & ] { reactor->isRegisteredNotifieeIs( true ); } ),
                 "kiv: isRegisteredNotifiee of a reactor on Net:agent was touched" );
   EXPECT_DEATH( onAnotherThread( [] { manager()->runOne(); } ), "kiv: the activity was touched" );
}

TEST_F( ThreadsDeathTest, AValueThatIsHeldAlreadyIsNoChange ) {
   event->timeoutIs( 1 );
   onAnotherThread( [ & ] { event->timeoutIs( 1 ); } );
}

TEST( ThreadDeathTest, WhoeverChangesSomethingFirstOwnsTheActivity ) {
   testing::GTEST_FLAG( death_test_style ) = "threadsafe";
   EXPECT_DEATH(
      {
         auto const event = Stage::EventConfig::EventConfigIs( "Net", "agent" );
         onAnotherThread( [ & ] { event->timeoutIs( 1 ); } );
         std::fputs( "the other thread may\n", stderr );
         event->timeoutIs( 2 );
      },
      std::string( "the other thread may\n.*" ) + message );
}

TEST( ThreadDeathTest, TheActivityCannotMoveWhileItsLoopRuns ) {
   testing::GTEST_FLAG( death_test_style ) = "threadsafe";
   EXPECT_DEATH(
      {
         post( [] { onAnotherThread( [] { manager()->ownerThreadIs(); } ); } );
         manager()->runDue();
      },
      message );
}

TEST( ThreadDeathTest, APostDoesNotMakeItsThreadTheOwner ) {
   testing::GTEST_FLAG( death_test_style ) = "threadsafe";
   EXPECT_EXIT(
      {
         onAnotherThread( [] { post( [] {} ); } );
         Stage::EventConfig::EventConfigIs( "Net", "agent" )->timeoutIs( 2 );
         manager()->runDue();
         std::_Exit( 0 );
      },
      testing::ExitedWithCode( 0 ), "" );
}

TEST_F( ThreadsDeathTest, AnotherThreadMayPost ) {
   onAnotherThread( [ & ] { post( [ & ] { event->timeoutIs( 1 ); } ); } );
   manager()->runDue();
   EXPECT_EQ( event->timeout(), 1 );
}

TEST_F( ThreadsDeathTest, TheActivityMayMoveToAnotherThreadForGood ) {
   EXPECT_EXIT(
      {
         onAnotherThread( [ & ] {
            manager()->ownerThreadIs();
            event->timeoutIs( 1 );
            manager()->runDue();
         } );
         std::_Exit( event->timeout() == 1 ? 0 : 1 );
      },
      testing::ExitedWithCode( 0 ), "" );
   EXPECT_DEATH(
      {
         onAnotherThread( [ & ] { manager()->ownerThreadIs(); } );
         event->timeoutIs( 2 );
      },
      message );
}
