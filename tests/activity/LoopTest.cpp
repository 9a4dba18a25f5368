// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// One turn of the loop, run whole, in pieces and by hand; stopping it; and that it does not nest.
#include "../support/Loop.h"
#include "Listener.h"
#include "Timers.h"

#include <Stage/Stage.h>

#include <gtest/gtest.h>

#include <stdexcept>
#include <unistd.h>

using namespace activity;

namespace {

class Turns : public testing::Test {
 protected:
   Kiv::Ptr< Timer > timer( char const * id, double time ) {
      Kiv::Ptr< Timer > const made = new Timer( id, journal );
      made->timeMinIs( time );
      return made;
   }
   static Kiv::Ptr< Kiv::ActivityManager > const & manager() { return Kiv::activityManager(); }

   testing_support::Loop loop;
   Journal journal;
   Kiv::Ptr< Stage::EventConfig > const event = Stage::EventConfig::EventConfigIs( "Net", "agent" );
   Kiv::Ptr< Listener > const listener = new Listener( journal, event );
};

// The three ways to run the loop until it has nothing to do.
enum class Way { byHand, runDue, run };
class EveryWay : public Turns, public testing::WithParamInterface< Way > {
 protected:
   void untilIdle() {
      switch( GetParam() ) {
      case Way::byHand:
         while( manager()->runQueued() != 0 || manager()->fireOne() ) {
         }
         break;
      case Way::runDue:
         manager()->runDue();
         break;
      case Way::run:
         // Tasks come when neither callbacks nor timers are left.
         post( [] { Kiv::activityManager()->stop(); } );
         manager()->run();
         break;
      }
   }
};

} // namespace

TEST_P( EveryWay, DeliversAllThenFiresTimersOneByOneDeliveringAfterEachAndLooksAfresh ) {
   auto const late = timer( "late", 1500 );
   auto const a = timer( "a", 1000 );
   auto const b = timer( "b", 1000 );
   a->act = [ & ] {
      event->timeoutIs( 2 );
      late->timeMinIs( 999 ); // before b now
   };
   b->act = [ & ] { event->timeoutIs( 3 ); };
   listener->act = [ & ] {
      if( event->timeout() == 3 )
         event->timeoutIs( 4 );
   };
   event->timeoutIs( 1 );
   untilIdle();
   EXPECT_EQ( journal, ( Lines{ "told 1", "a", "told 2", "late", "b", "told 3", "told 4" } ) );
}

TEST_P( EveryWay, ATimerThatACallbackMakesDueFiresWhenTheQueuesAreEmpty ) {
   auto const a = timer( "a", 1500 );
   listener->act = [ & ] {
      listener->act = nullptr;
      a->timeMinIs( 1000 );
      event->timeoutIs( 2 );
   };
   event->timeoutIs( 1 );
   untilIdle();
   EXPECT_EQ( journal, ( Lines{ "told 1", "told 2", "a" } ) );
}

TEST_P( EveryWay, ATimerThatACallbackDisarmsDoesNotFire ) {
   auto const a = timer( "a", 1000 );
   listener->act = [ & ] { a->timeMinIs( Kiv::infinity ); };
   event->timeoutIs( 1 );
   untilIdle();
   EXPECT_EQ( journal, Lines{ "told 1" } );
}

INSTANTIATE_TEST_SUITE_P( Loop, EveryWay, testing::Values( Way::byHand, Way::runDue, Way::run ),
                          []( auto const & way ) {
                             return std::string( way.param == Way::byHand   ? "byHand"
                                                 : way.param == Way::runDue ? "runDue"
                                                                            : "run" );
                          } );

TEST_F( Turns, TasksRunWhenNothingIsQueuedOrDueAndWhatEachQueuesComesBeforeTheNext ) {
   auto const a = timer( "a", 1000 );
   post( [ & ] {
      journal.push_back( "task 1" );
      event->timeoutIs( 2 );
      timer( "gone", 1000 ); // destroyed at once
   } );
   post( [ & ] { journal.push_back( "task 2" ); } );
   event->timeoutIs( 1 );
   EXPECT_EQ( manager()->runDue(), 5U );
   EXPECT_EQ( journal, ( Lines{ "told 1", "a", "task 1", "told 2", "task 2" } ) );
}

TEST_F( Turns, RunDueRunsNoMoreThanItsLimit ) {
   auto const a = timer( "a", 1000 );
   post( [ & ] { journal.push_back( "task" ); } );
   event->timeoutIs( 1 );
   EXPECT_EQ( manager()->runDue( 0 ), 0U );
   EXPECT_EQ( journal, Lines{} );
   EXPECT_EQ( manager()->runDue( 1 ), 1U );
   EXPECT_EQ( journal, Lines{ "told 1" } );
   EXPECT_EQ( manager()->runDue( 1 ), 1U );
   EXPECT_EQ( journal, ( Lines{ "told 1", "a" } ) );
   EXPECT_EQ( manager()->runDue( 5 ), 1U );
   EXPECT_EQ( journal, ( Lines{ "told 1", "a", "task" } ) );
   EXPECT_EQ( manager()->runDue(), 0U );
}

TEST_F( Turns, RunDueIsBoundedEvenWhenWorkMakesWork ) {
   listener->act = [ & ] { event->timeoutIs( event->timeout() + 1 ); };
   event->timeoutIs( 1 );
   EXPECT_EQ( manager()->runDue( 1000 ), 1000U );
   EXPECT_EQ( journal.size(), 1000U );
   listener->act = nullptr;
   EXPECT_EQ( manager()->runDue(), 1U );
}

TEST_F( Turns, RunDueNeverWaitsForATimer ) {
   auto const a = timer( "a", 1001 );
   EXPECT_EQ( manager()->runDue(), 0U );
   EXPECT_EQ( journal, Lines{} );
}

TEST_F( Turns, RunQueuedFiresNoTimerAndRunsNoTask ) {
   auto const a = timer( "a", 1000 );
   post( [ & ] { journal.push_back( "task" ); } );
   event->timeoutIs( 1 );
   EXPECT_EQ( manager()->runQueued(), 1U );
   EXPECT_EQ( journal, Lines{ "told 1" } );
   EXPECT_EQ( manager()->runQueued(), 0U );
   manager()->runDue();
   EXPECT_EQ( journal, ( Lines{ "told 1", "a", "task" } ) );
}

TEST_F( Turns, IdleMeansNothingQueuedPostedOrDue ) {
   EXPECT_TRUE( manager()->idle() );
   event->timeoutIs( 1 );
   EXPECT_FALSE( manager()->idle() );
   manager()->runQueued();
   EXPECT_TRUE( manager()->idle() );
   auto const a = timer( "a", 1001 );
   EXPECT_TRUE( manager()->idle() );
   loop.nowIs( 1001 );
   EXPECT_FALSE( manager()->idle() );
   manager()->fireOne();
   EXPECT_TRUE( manager()->idle() );
   post( [] {} );
   EXPECT_FALSE( manager()->idle() );
   manager()->runDue( 0 ); // taken over, but not run
   EXPECT_FALSE( manager()->idle() );
   manager()->runDue();
   EXPECT_TRUE( manager()->idle() );
}

// ---- run and stop

TEST_F( Turns, StopEndsRunAfterTheCallbackThatIsRunningAndLeavesTheRestQueued ) {
   Kiv::Ptr< Listener > const second = new Listener( journal, event );
   listener->act = [ & ] {
      manager()->stop();
      journal.push_back( "after stop" );
   };
   event->timeoutIs( 1 );
   manager()->run();
   EXPECT_EQ( journal, ( Lines{ "told 1", "after stop" } ) );
   EXPECT_EQ( second->pendingNotifications(), 1U );
   listener->act = nullptr;
   loop.deliver();
   EXPECT_EQ( journal, ( Lines{ "told 1", "after stop", "told 1" } ) );
}

TEST_F( Turns, StopInATimerLeavesOtherDueTimersArmed ) {
   auto const a = timer( "a", 1000 );
   auto const b = timer( "b", 1000 );
   a->act = [ & ] {
      event->timeoutIs( 1 );
      manager()->stop();
   };
   manager()->run();
   EXPECT_EQ( journal, Lines{ "a" } );
   EXPECT_EQ( b->timeMin(), 1000 );
   loop.idle();
   EXPECT_EQ( journal, ( Lines{ "a", "told 1", "b" } ) );
}

TEST_F( Turns, RunCanBeRunAgain ) {
   for( int i = 1; i != 4; ++i ) {
      post( [ & ] { manager()->stop(); } );
      event->timeoutIs( i );
      manager()->run();
   }
   EXPECT_EQ( journal, ( Lines{ "told 1", "told 2", "told 3" } ) );
}

TEST_F( Turns, AnExceptionOfATaskIsReportedAndTheLoopGoesOn ) {
   Kiv::tracesIs( "Kiv:0" );
   Lines traced;
   auto before = Kiv::traceSinkIs(
      [ & ]( Kiv::TraceLine const & line ) { traced.push_back( line.text.str() ); } );
   testing::internal::CaptureStderr();
   post( [] { throw std::runtime_error( "out of luck" ); } );
   post( [] { throw 7; } );
   post( [ & ] { journal.push_back( "next" ); } );
   manager()->runDue();
   std::string const report = testing::internal::GetCapturedStderr();
   Kiv::traceSinkIs( before );
   EXPECT_NE( report.find( "out of luck" ), std::string::npos );
   EXPECT_EQ( std::count( report.begin(), report.end(), '\n' ), 2 );
   EXPECT_EQ( traced.size(), 2U );
   EXPECT_EQ( journal, Lines{ "next" } );
}

// ---- nesting

namespace {

void expectRefused() {
   auto const & manager = Kiv::activityManager();
   for( auto const & call : std::initializer_list< std::function< void() > >{
           [ & ] { manager->run(); }, [ & ] { manager->runDue(); }, [ & ] { manager->runOne(); },
           [ & ] { manager->runQueued(); }, [ & ] { manager->fireOne(); } } ) {
      try {
         call();
         ADD_FAILURE() << "the loop was run inside a callback";
      } catch( Kiv::Exception const & e ) {
         EXPECT_TRUE( e.ids().has( Kiv::Exception::thread ) );
         EXPECT_NE( std::string( e.what() ).find( "nest" ), std::string::npos ) << e.what();
      }
   }
}

} // namespace

TEST_F( Turns, TheLoopIsRefusedInsideACallbackOfAReactor ) {
   auto const due = timer( "due", 1000 );
   listener->act = [ & ] {
      expectRefused();
      journal.push_back( "end" );
   };
   event->timeoutIs( 1 );
   loop.deliver();
   EXPECT_EQ( journal, ( Lines{ "told 1", "end" } ) );
}

TEST_F( Turns, TheClockFiresNoTimerInsideACallbackEither ) {
   auto const due = timer( "due", 1000 );
   listener->act = [ & ] {
      EXPECT_THROW( loop.clock()->fireOne(), Kiv::Exception );
      EXPECT_EQ( due->timeMin(), 1000 );
      EXPECT_TRUE( manager()->activity()->running() );
   };
   event->timeoutIs( 1 );
   loop.deliver();
   EXPECT_EQ( journal, ( Lines{ "told 1" } ) );
   EXPECT_FALSE( manager()->activity()->running() );
   EXPECT_TRUE( loop.clock()->fireOne() );
}

TEST_F( Turns, ATaskRunsInsideTheLoopAsACallbackDoes ) {
   post( [] { EXPECT_TRUE( manager()->activity()->running() ); } );
   manager()->runDue();
   EXPECT_FALSE( manager()->activity()->running() );
}

TEST_F( Turns, TheLoopIsRefusedInsideATimer ) {
   auto const due = timer( "due", 1000 );
   auto const other = timer( "other", 1000 );
   due->act = [ & ] {
      event->timeoutIs( 1 );
      expectRefused();
      journal.push_back( "end" );
   };
   loop.fire();
   EXPECT_EQ( journal, ( Lines{ "due", "end" } ) );
}

TEST_F( Turns, TheLoopIsRefusedInsideATask ) {
   post( [ & ] {
      event->timeoutIs( 1 );
      expectRefused();
      journal.push_back( "end" );
   } );
   manager()->runDue();
   EXPECT_EQ( journal, ( Lines{ "end", "told 1" } ) );
}

TEST_F( Turns, TheLoopIsRefusedInsideAWatchersCallback ) {
   int pipe[ 2 ];
   ASSERT_EQ( ::pipe( pipe ), 0 );
   ASSERT_EQ( ::write( pipe[ 1 ], "x", 1 ), 1 );
   manager()->descriptorIs( pipe[ 0 ], 1, [ & ]( unsigned ) {
      event->timeoutIs( 1 );
      expectRefused();
      journal.push_back( "end" );
      manager()->descriptorDel( pipe[ 0 ] );
   } );
   manager()->runDue();
   EXPECT_EQ( journal, ( Lines{ "end", "told 1" } ) );
   ::close( pipe[ 0 ] );
   ::close( pipe[ 1 ] );
}

TEST_F( Turns, AfterARefusalTheLoopRunsAgain ) {
   listener->act = [] { EXPECT_THROW( Kiv::activityManager()->run(), Kiv::Exception ); };
   event->timeoutIs( 1 );
   loop.deliver();
   listener->act = nullptr;
   event->timeoutIs( 2 );
   EXPECT_EQ( manager()->runDue(), 1U );
   EXPECT_EQ( journal, ( Lines{ "told 1", "told 2" } ) );
}
