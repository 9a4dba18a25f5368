// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Callbacks and timers that an exception has cut short, and that are delivered again.
#include "../support/Loop.h"
#include "Watchers.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <new>
#include <stdexcept>
#include <utility>

#include <poll.h>

using namespace delivery;

namespace {

class Careful : public Watcher {
 public:
   using Watcher::deliveredUntilDoneIs;
   using Watcher::Watcher;
   void watchAnother( Kiv::Ptr< Stage::EventConfig const > const & other ) {
      notifierIs( other );
      isRegisteredNotifieeIs( true );
   }
};

struct Timer : Kiv::Clock::NotifieeConst {
   explicit Timer( Kiv::Ptr< Kiv::Clock const > const & clock ) { watch( clock ); }
   using Kiv::Clock::NotifieeConst::deliveredUntilDoneIs;
   void onTime() override {
      ++fired;
      if( act )
         act();
   }
   int fired = 0;
   std::function< void() > act;
};

// Throws E the first `times` times that it is called.
template< class E >
std::function< void() > throws( int times ) {
   return [ left = std::make_shared< int >( times ) ] { // shared: the function is copied
      if( *left > 0 ) {
         --*left;
         throw E();
      }
   };
}
struct Trouble : std::runtime_error {
   Trouble() : std::runtime_error( "trouble" ) {}
};

class Redelivery : public testing::Test {
 protected:
   Redelivery() { testing::internal::CaptureStderr(); }
   ~Redelivery() override { taken(); }
   // What was written to standard error.
   std::string taken() {
      if( !taken_ )
         reports_ = testing::internal::GetCapturedStderr();
      taken_ = true;
      return reports_;
   }
   std::size_t reports() {
      std::string const text = "\n" + taken();
      std::size_t count = 0;
      for( auto at = text.find( "\nkiv: " ); at != text.npos; at = text.find( "\nkiv: ", at + 1 ) )
         ++count;
      return count;
   }
   Lines told() { return std::exchange( journal, {} ); }
   // Goes to the time at which something is due next; how long that took.
   double wait() {
      double const before = loop.now();
      loop.nowIs( std::max( before, Kiv::activityManager()->nextTime() ) );
      return loop.now() - before;
   }

   testing_support::Loop loop;
   Journal journal;
   Kiv::Ptr< Stage::EventConfig > const event = newEvent();
   Kiv::Ptr< Careful > a = new Careful( "a", journal, event );
   Kiv::Ptr< Careful > b = new Careful( "b", journal, event ); // served after a

 private:
   bool taken_ = false;
   std::string reports_;
};

TEST_F( Redelivery, ACallbackCutShortForWantOfMemoryIsDeliveredAgainAfterTheOthers ) {
   a->act = throws< std::bad_alloc >( 1 );
   event->timeoutIs( 5 );
   event->criticalIs( true );
   loop.deliver();
   EXPECT_EQ( told(), ( Lines{ "a timeout 5", "b timeout 5", "a critical true", "b critical true",
                               "a timeout 5" } ) );
   EXPECT_EQ( Kiv::activityManager()->nextTime(), Kiv::infinity );
   EXPECT_TRUE( Kiv::activityManager()->idle() );
   EXPECT_EQ( reports(), 1U );
}

TEST_F( Redelivery, OneCutShortByAnythingElseIsReportedAndGivenUp ) {
   a->act = throws< Trouble >( 1 );
   event->timeoutIs( 5 );
   loop.deliver();
   EXPECT_EQ( told(), ( Lines{ "a timeout 5", "b timeout 5" } ) );
   EXPECT_EQ( a->pendingNotifications(), 0U );
   EXPECT_EQ( reports(), 1U );
}

TEST_F( Redelivery, AReactorCanAskForItWhateverIsThrown ) {
   a->deliveredUntilDoneIs( true );
   a->act = throws< Trouble >( 1 );
   event->timeoutIs( 5 );
   loop.deliver();
   EXPECT_EQ( told(), ( Lines{ "a timeout 5", "b timeout 5", "a timeout 5" } ) );
}

TEST_F( Redelivery, WhatACallerDidWrongIsNotTriedAgainByAnybody ) {
   a->deliveredUntilDoneIs( true );
   a->act = [] { Kiv::throwRangeException( "wrong" ); };
   event->timeoutIs( 5 );
   loop.deliver();
   EXPECT_EQ( told(), ( Lines{ "a timeout 5", "b timeout 5" } ) );
   EXPECT_EQ( a->pendingNotifications(), 0U );
}

TEST_F( Redelivery, ADeferredFormThatCameThroughStartsToCountAnew ) {
   // The key "Net" rests long; the deferred form fails twice and comes through meanwhile.
   int deferredFails = 2;
   bool netFails = true;
   a->act = [ & ] {
      bool const deferred = journal.back() == "a dependency...";
      if( deferred && deferredFails > 0 ) {
         --deferredFails;
         throw std::bad_alloc();
      }
      if( netFails && journal.back().find( "a dependency Net" ) == 0 )
         throw std::bad_alloc();
   };
   event->dependencyIs( "Net", true );
   for( int i = 0; i != 7; ++i ) {
      loop.deliver();
      wait();
   }
   event->dependencyIs( "Disk", true );
   event->dependencyIs( "Boot", true );
   for( int i = 0; i != 3; ++i ) {
      loop.deliver();
      loop.nowIs( loop.now() + 0.0015 );
   }
   EXPECT_EQ( deferredFails, 0 );
   EXPECT_NE( a->pendingNotifications(), 0U );
   std::size_t const before = journal.size();
   event->dependencyIs( "Disk", false );
   event->dependencyIs( "Boot", false );
   loop.deliver();
   EXPECT_EQ( std::count( journal.begin() + static_cast< std::ptrdiff_t >( before ), journal.end(),
                          "a dependency..." ),
              1 );
   netFails = false;
   loop.nowIs( loop.now() + 10 );
   loop.deliver();
   std::string const text = taken();
   EXPECT_NE( text.find( "after 2 exceptions in a row" ), std::string::npos ) << text;
   EXPECT_EQ( text.find( "after 2 exceptions in a row" ),
              text.rfind( "after 2 exceptions in a row" ) )
      << text;
}

TEST_F( Redelivery, WhileItKeepsFailingItRestsTwiceAsLongEachTimeUpToASecond ) {
   a->act = throws< std::bad_alloc >( 14 );
   event->timeoutIs( 5 );
   loop.deliver(); // twice: the first time again costs no time
   std::vector< double > rests;
   while( a->pendingNotifications() != 0 ) {
      EXPECT_FALSE( Kiv::activityManager()->runOne() );
      rests.push_back( std::round( 1000 * wait() ) );
      loop.deliver();
   }
   EXPECT_EQ(
      rests, ( std::vector< double >{ 1, 2, 4, 8, 16, 32, 64, 128, 256, 512, 1000, 1000, 1000 } ) );
   EXPECT_EQ( Kiv::activityManager()->nextTime(), Kiv::infinity );
}

TEST_F( Redelivery, ItIsReportedAtTheFirstFailureAndOnceMoreWithTheirNumber ) {
   a->act = throws< std::bad_alloc >( 5 );
   event->timeoutIs( 5 );
   for( int i = 0; i != 6; ++i ) {
      loop.deliver();
      wait();
   }
   EXPECT_EQ( reports(), 2U );
   EXPECT_NE( taken().find( "bad_alloc" ), std::string::npos ) << taken();
   EXPECT_NE( taken().find( "delivered after 5 exceptions in a row: timeout of a reactor on" ),
              std::string::npos )
      << taken();
}

TEST_F( Redelivery, ManyFailuresAreCountedToTheEnd ) {
   a->act = throws< std::bad_alloc >( 300 );
   event->timeoutIs( 5 );
   for( int i = 0; i != 301; ++i ) {
      loop.deliver();
      wait();
   }
   EXPECT_NE( taken().find( "delivered after 300 exceptions in a row" ), std::string::npos )
      << taken();
}

TEST_F( Redelivery, AFailureAfterASuccessIsTheFirstAgain ) {
   for( int i = 0; i != 2; ++i ) {
      a->act = throws< std::bad_alloc >( 1 );
      event->timeoutIs( i + 1 );
      loop.deliver();
      EXPECT_EQ( a->pendingNotifications(), 0U );
   }
   EXPECT_EQ( reports(), 2U );
}

TEST_F( Redelivery, WhatIsAskedForMeanwhileIsTheSameCallback ) {
   a->act = throws< std::bad_alloc >( 2 );
   event->timeoutIs( 5 );
   loop.deliver();
   told();
   event->timeoutIs( 6 );
   event->timeoutIs( 7 );
   EXPECT_EQ( a->pendingNotifications(), 1U );
   loop.deliver();
   EXPECT_EQ( told(), ( Lines{ "b timeout 7" } ) ); // a still rests
   wait();
   loop.deliver();
   EXPECT_EQ( told(), ( Lines{ "a timeout 7" } ) );
}

TEST_F( Redelivery, ACallbackThatAsksForItselfAndThenFailsIsPendingOnce ) {
   a->act = [ this, fail = throws< std::bad_alloc >( 2 ) ] {
      event->timeoutIs( 6 );
      fail();
   };
   event->timeoutIs( 5 );
   loop.deliver();
   EXPECT_EQ( a->pendingNotifications(), 1U );
   wait();
   loop.deliver();
   EXPECT_EQ( a->pendingNotifications(), 0U );
   EXPECT_EQ( std::count( journal.begin(), journal.end(), "a timeout 6" ), 2 );
}

TEST_F( Redelivery, KeysAndTheDeferredFormAreDeliveredAgainAlike ) {
   for( int failAt = 1; failAt <= 3; ++failAt ) {
      int calls = 0;
      a->act = [ & ] {
         if( ++calls == failAt )
            throw std::bad_alloc();
      };
      b->act = nullptr;
      event->dependencyIs( "Net", failAt % 2 == 0 );
      event->dependencyIs( "Disk", failAt % 2 == 0 );
      loop.deliver();
      // Each once more than it failed; the deferred form at the end of all that is queued.
      EXPECT_EQ( calls, 4 ) << failAt;
      EXPECT_EQ( a->pendingNotifications(), 0U );
      Lines lines = told();
      for( char const * key : { "Net", "Disk" } ) {
         auto const seen = std::count_if( lines.begin(), lines.end(), [ & ]( auto const & line ) {
            return line.find( std::string( "a dependency " ) + key ) == 0;
         } );
         EXPECT_GE( seen, 1 ) << failAt << key;
      }
      EXPECT_GE( std::count( lines.begin(), lines.end(), "a dependency..." ), 1 );
   }
}

TEST_F( Redelivery, EverythingFailsAndComesBackWithoutAnAllocation ) {
   a->act = throws< std::bad_alloc >( 30 );
   event->timeoutIs( 5 );
   event->criticalIs( true );
   for( char const * name : { "A", "B", "C", "D" } )
      event->dependencyIs( name, true );
   loop.deliver();
   for( int i = 0; i != 100 && a->pendingNotifications() != 0; ++i ) {
      wait();
      loop.deliver();
   }
   EXPECT_EQ( a->pendingNotifications(), 0U );
   Lines const lines = told();
   for( char const * line :
        { "a timeout 5", "a critical true", "a dependency A true", "a dependency B true",
          "a dependency C true", "a dependency D true", "a dependency..." } )
      EXPECT_GE( std::count( lines.begin(), lines.end(), line ), 1 ) << line;
}

TEST_F( Redelivery, NothingIsDeliveredToOneThatWasDetachedMarkedOrDestroyedMeanwhile ) {
   for( int how = 0; how != 4; ++how ) {
      Kiv::Ptr< Careful > c = new Careful( "c", journal, event );
      c->act = throws< std::bad_alloc >( 2 );
      event->timeoutIs( how + 1 );
      loop.deliver();
      EXPECT_EQ( c->pendingNotifications(), 1U );
      told();
      switch( how ) {
      case 0:
         c->notifierIs( nullptr );
         break;
      case 1:
         c->isRegisteredNotifieeIs( false );
         break;
      case 2:
         c->kivMarkedForDeletionIs( true );
         break;
      case 3:
         c = nullptr;
         break;
      }
      EXPECT_EQ( Kiv::activityManager()->nextTime(), Kiv::infinity ) << how;
      loop.nowIs( loop.now() + 10 );
      loop.deliver();
      EXPECT_EQ( told(), Lines() ) << how;
   }
}

TEST_F( Redelivery, OneThatLeavesOrMarksItselfAndThenFailsIsGivenUp ) {
   auto const elsewhere = newEvent();
   for( int how = 0; how != 5; ++how ) {
      Kiv::Ptr< Careful > c = new Careful( "c", journal, event );
      c->act = [ & ] {
         switch( how ) {
         case 0:
            c->notifierIs( nullptr );
            break;
         case 1:
            c->isRegisteredNotifieeIs( false );
            break;
         case 2:
            c->kivMarkedForDeletionIs( true );
            break;
         case 3:
            c = nullptr;
            break;
         case 4:
            c->watchAnother( elsewhere );
            break;
         }
         throw std::bad_alloc();
      };
      event->timeoutIs( how + 1 );
      loop.deliver();
      EXPECT_EQ( Kiv::activityManager()->nextTime(), Kiv::infinity ) << how;
      Lines const lines = told();
      EXPECT_EQ( std::count( lines.begin(), lines.end(), "c timeout " + std::to_string( how + 1 ) ),
                 1 );
   }
}

TEST_F( Redelivery, ItWaitsWhileNotificationsAreOffAndComesWhenTheyAreOnAgain ) {
   a->act = throws< std::bad_alloc >( 3 );
   event->timeoutIs( 5 );
   loop.deliver();
   a->hasNotificationActiveIs( false );
   EXPECT_EQ( Kiv::activityManager()->nextTime(), Kiv::infinity );
   loop.nowIs( loop.now() + 10 );
   loop.deliver();
   EXPECT_EQ( a->pendingNotifications(), 1U );
   told();
   a->hasNotificationActiveIs( true );
   loop.deliver();
   EXPECT_EQ( told(), Lines{ "a timeout 5" } );
   wait();
   loop.deliver();
   EXPECT_EQ( told(), Lines{ "a timeout 5" } );
   EXPECT_EQ( a->pendingNotifications(), 0U );
}

TEST_F( Redelivery, AnotherClockEndsTheRest ) {
   a->act = throws< std::bad_alloc >( 8 );
   event->timeoutIs( 5 );
   for( int i = 0; i != 6; ++i ) {
      loop.deliver();
      wait();
   }
   loop.deliver();
   told();
   Kiv::Ptr< Kiv::Clock > const before = Kiv::activityManager()->clock();
   Kiv::activityManager()->clockIs( Kiv::ManualClock::ManualClockIs( 0 ) );
   EXPECT_FALSE( Kiv::activityManager()->idle() );
   loop.deliver();
   EXPECT_EQ( told(), Lines{ "a timeout 5" } );
   Kiv::activityManager()->clockIs( before );
}

TEST_F( Redelivery, ATimerIsPutBackAsItWasArmedAndFiresBeforeThoseArmedAfterIt ) {
   Kiv::Ptr< Timer > first = new Timer( loop.clock() );
   Kiv::Ptr< Timer > second = new Timer( loop.clock() );
   first->act = throws< std::bad_alloc >( 1 );
   first->timeMinIs( loop.now() );
   second->timeMinIs( loop.now() );
   EXPECT_TRUE( loop.fire() );
   EXPECT_EQ( first->timeMin(), loop.now() );
   EXPECT_TRUE( loop.fire() );
   EXPECT_EQ( first->fired, 2 );
   EXPECT_EQ( second->fired, 0 );
   EXPECT_EQ( first->timeMin(), Kiv::infinity );
   EXPECT_TRUE( loop.fire() );
   EXPECT_FALSE( loop.fire() );
   EXPECT_EQ( reports(), 1U );
}

TEST_F( Redelivery, ATimerRestsLongerEachTimeAndLetsOthersFire ) {
   Kiv::Ptr< Timer > timer = new Timer( loop.clock() );
   Kiv::Ptr< Timer > other = new Timer( loop.clock() );
   timer->act = throws< std::bad_alloc >( 4 );
   timer->timeMinIs( loop.now() );
   other->timeMinIs( loop.now() );
   loop.idle();
   EXPECT_EQ( timer->fired, 2 );
   EXPECT_EQ( other->fired, 1 );
   for( double const rest : { 1, 2, 4 } ) {
      EXPECT_EQ( std::round( 1000 * wait() ), rest );
      loop.idle();
   }
   EXPECT_EQ( timer->fired, 5 );
   EXPECT_EQ( Kiv::activityManager()->nextTime(), Kiv::infinity );
   EXPECT_EQ( reports(), 2U );
}

TEST_F( Redelivery, ATimersRestHoldsAlsoWhenItIsArmedAnewAndDisarmingEndsIt ) {
   Kiv::Ptr< Timer > timer = new Timer( loop.clock() );
   timer->act = throws< std::bad_alloc >( 2 );
   timer->timeMinIs( loop.now() );
   loop.idle();
   timer->timeMinIs( loop.now() - 1 );
   EXPECT_FALSE( loop.fire() );
   EXPECT_GT( Kiv::activityManager()->nextTime(), loop.now() );
   timer->timeMinIs( Kiv::infinity );
   EXPECT_EQ( Kiv::activityManager()->nextTime(), Kiv::infinity );
   timer->timeMinIs( loop.now() + 5 );
   EXPECT_EQ( Kiv::activityManager()->nextTime(), loop.now() + 5 );
}

TEST_F( Redelivery, ATimerCutShortByAnythingElseIsGivenUpUnlessItAskedOtherwise ) {
   Kiv::Ptr< Timer > timer = new Timer( loop.clock() );
   timer->act = throws< Trouble >( 1 );
   timer->timeMinIs( loop.now() );
   loop.idle();
   EXPECT_EQ( timer->fired, 1 );
   EXPECT_EQ( timer->timeMin(), Kiv::infinity );
   timer->deliveredUntilDoneIs( true );
   timer->act = throws< Trouble >( 1 );
   timer->timeMinIs( loop.now() );
   loop.idle();
   EXPECT_EQ( timer->fired, 3 );
}

TEST_F( Redelivery, ATimerThatLeavesItsClockAndThenFailsIsGivenUp ) {
   for( int how = 0; how != 4; ++how ) {
      Kiv::Ptr< Timer > timer = new Timer( loop.clock() );
      timer->act = [ & ] {
         switch( how ) {
         case 0:
            timer->notifierIs( nullptr );
            break;
         case 1:
            timer->isRegisteredNotifieeIs( false );
            break;
         case 2:
            timer->kivMarkedForDeletionIs( true );
            break;
         case 3:
            timer = nullptr;
            break;
         }
         throw std::bad_alloc();
      };
      timer->timeMinIs( loop.now() );
      loop.idle();
      EXPECT_EQ( Kiv::activityManager()->nextTime(), Kiv::infinity ) << how;
   }
}

TEST_F( Redelivery, ATimersFailureAfterASuccessIsTheFirstAgain ) {
   Kiv::Ptr< Timer > timer = new Timer( loop.clock() );
   timer->act = throws< std::bad_alloc >( 4 );
   timer->timeMinIs( loop.now() );
   for( loop.idle(); timer->fired != 5; loop.idle() )
      wait();
   timer->act = throws< std::bad_alloc >( 1 );
   timer->timeMinIs( loop.now() );
   loop.idle();
   EXPECT_EQ( timer->fired, 7 ) << "without a rest";
   EXPECT_EQ( reports(), 3U ) << "the first of the four, their number, and the one";
}

TEST_F( Redelivery, ATimerThatCameThroughRestsNoMore ) {
   Kiv::Ptr< Timer > timer = new Timer( loop.clock() );
   Kiv::Ptr< Timer > other = new Timer( loop.clock() );
   timer->act = throws< std::bad_alloc >( 4 );
   timer->timeMinIs( loop.now() );
   for( loop.idle(); timer->fired != 5; loop.idle() )
      wait();
   other->timeMinIs( loop.now() - 5 );
   timer->timeMinIs( loop.now() - 10 );
   EXPECT_TRUE( loop.fire() );
   EXPECT_EQ( timer->fired, 6 ) << "due first";
   EXPECT_EQ( other->fired, 0 );
}

TEST_F( Redelivery, ATimerBeginsAnewOnAnotherClock ) {
   Kiv::Ptr< Timer > timer = new Timer( loop.clock() );
   timer->act = throws< std::bad_alloc >( 4 );
   timer->timeMinIs( loop.now() );
   loop.idle();
   wait();
   loop.idle();
   ASSERT_EQ( timer->fired, 3 );
   Kiv::Ptr< Kiv::Clock > const before = Kiv::activityManager()->clock();
   Kiv::Ptr< Kiv::Clock > const other = Kiv::ManualClock::ManualClockIs( 0 );
   Kiv::activityManager()->clockIs( other );
   timer->notifierIs( other );
   timer->isRegisteredNotifieeIs( true );
   timer->timeMinIs( 0 );
   EXPECT_EQ( other->nextTime(), 0 ) << "does not rest";
   loop.idle();
   EXPECT_EQ( timer->fired, 5 ) << "cut short once more, which is the first time here";
   Kiv::activityManager()->clockIs( before );
}

TEST_F( Redelivery, TheDescriptorOfAnEmbeddedLoopTellsOfTheEndOfARest ) {
   Kiv::Ptr< Kiv::ActivityManager > const & manager = Kiv::activityManager();
   Kiv::Ptr< Kiv::Clock > const before = manager->clock();
   Kiv::Ptr< Kiv::Clock > const real = new Kiv::Clock;
   manager->clockIs( real );
   a->act = throws< std::bad_alloc >( 3 );
   event->timeoutIs( 5 );
   int const fd = manager->descriptor();
   for( int turns = 0; a->pendingNotifications() != 0 && turns != 100; ++turns ) {
      pollfd waiting{ fd, POLLIN, 0 };
      ASSERT_EQ( poll( &waiting, 1, 10000 ), 1 );
      manager->runDue();
   }
   EXPECT_EQ( a->pendingNotifications(), 0U );
   manager->clockIs( before );
}

} // namespace
