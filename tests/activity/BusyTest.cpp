// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Work that leads to more work without an end: timers, descriptors and posts get their turn all the
// same, and the busy reactors are named.
#include "../support/Loop.h"
#include "../support/Sink.h"
#include "Listener.h"
#include "Pipe.h"
#include "Timers.h"

#include <Stage/Stage.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <vector>

using namespace activity;

namespace {

Kiv::Ptr< Kiv::ActivityManager > const & manager() { return Kiv::activityManager(); }

Kiv::Ptr< Stage::EventConfig > eventOf( char const * stage ) {
   return Stage::EventConfig::EventConfigIs( stage, "agent" );
}

// Calls a function for each change of an event's timeout.
class Answer : public Stage::EventConfig::NotifieeConst {
 public:
   Answer( Kiv::Ptr< Stage::EventConfig > const & event, std::function< void() > act )
      : act_( std::move( act ) ) {
      notifierIs( Kiv::Ptr< Kiv::PtrInterface const >( event ) );
      isRegisteredNotifieeIs( true );
      hasNotificationActiveIs( true );
   }
   void onTimeout() override { act_(); }

 private:
   std::function< void() > const act_;
};

// Two reactors that answer each other, until they are told to stop or have done so very often.
class Quarrel {
 public:
   static constexpr int veryOften = 100000;

   void begin() {
      on = true;
      a->timeoutIs( ++count );
   }
   // Ends with what is queued now.
   void end() { on = false; }

   bool on = false;
   int count = 0;
   Kiv::Ptr< Stage::EventConfig > const a = eventOf( "A" );
   Kiv::Ptr< Stage::EventConfig > const b = eventOf( "B" );

 private:
   void answer( Kiv::Ptr< Stage::EventConfig > const & other ) {
      if( on && count != veryOften )
         other->timeoutIs( ++count );
   }
   Kiv::Ptr< Answer > const onA_ = new Answer( a, [ this ] { answer( b ); } );
   Kiv::Ptr< Answer > const onB_ = new Answer( b, [ this ] { answer( a ); } );
};

// How the loop is run: as the process's own, or inside another one that gives it so much at a time.
class Busy : public testing::TestWithParam< std::size_t > {
 protected:
   Busy() : limitBefore_( manager()->turnLimit() ) {
      manager()->turnLimitIs( 100 );
      Kiv::tracesIs( "Kiv:" ); // reports on standard error once, not as a trace too
   }
   ~Busy() override {
      quarrel.end();
      while( manager()->runDue() != 0 ) {
      }
      manager()->turnLimitIs( limitBefore_ );
   }

   // Until stop() is called.
   void run() {
      testing::internal::CaptureStderr();
      if( GetParam() == 0 )
         manager()->run();
      else
         for( stopped = false; !stopped; )
            manager()->runDue( GetParam() );
      reports += testing::internal::GetCapturedStderr();
   }
   void stop() {
      stopped = true;
      manager()->stop();
   }
   std::size_t reported() const {
      return static_cast< std::size_t >( std::count( reports.begin(), reports.end(), '\n' ) );
   }
   bool names( char const * who ) const { return reports.find( who ) != std::string::npos; }

   bool stopped = false;
   std::string reports;
   testing_support::Loop loop;
   Journal journal;
   Quarrel quarrel;

 private:
   std::size_t const limitBefore_;
};

} // namespace

INSTANTIATE_TEST_SUITE_P( Loop, Busy, testing::Values( 0, 1, 7, 4096 ), []( auto const & way ) {
   return way.param == 0 ? std::string( "run" ) : "runDue" + std::to_string( way.param );
} );

TEST_P( Busy, ReactorsThatAnswerEachOtherHoldUpNeitherTimersNorPostsNorDescriptors ) {
   Pipe pipe;
   EXPECT_TRUE( pipe.put() );
   manager()->descriptorIs( pipe.reading(), POLLIN, [ & ]( unsigned ) {
      journal.push_back( "descriptor" );
      manager()->descriptorDel( pipe.reading() );
      quarrel.end();
      stop();
   } );
   Kiv::Ptr< Timer > const early = new Timer( "early", journal );
   Kiv::Ptr< Timer > const late = new Timer( "late", journal );
   Kiv::Ptr< Timer > const notYet = new Timer( "not yet", journal );
   late->timeMinIs( 1000 );
   early->timeMinIs( 999 );
   notYet->timeMinIs( 1001 );
   post( [ & ] { journal.push_back( "post 1" ); } );
   post( [ & ] { journal.push_back( "post 2" ); } );
   quarrel.begin();
   run();
   EXPECT_EQ( journal, ( Lines{ "early", "late", "post 1", "post 2", "descriptor" } ) );
   EXPECT_EQ( quarrel.count, 101 ); // the hundred of the limit were answered
}

TEST_P( Busy, ATimerThatIsSetForNowAgainHoldsUpNothingEither ) {
   Kiv::Ptr< Timer > const other = new Timer( "other", journal );
   Journal again;
   Kiv::Ptr< Timer > const busy = new Timer( "busy", again );
   // Always the first that is due: its time is long past.
   busy->act = [ & ] {
      if( !stopped && again.size() < 100000 )
         busy->timeMinIs( 1 );
   };
   busy->timeMinIs( 1 );
   other->timeMinIs( 1000 );
   std::size_t before = 0;
   post( [ & ] {
      before = again.size();
      journal.push_back( "post" );
      stop();
   } );
   run();
   EXPECT_EQ( journal, ( Lines{ "other", "post" } ) );
   EXPECT_EQ( before, 101U ); // those of the limit, and its turn among the timers
   EXPECT_TRUE( names( "time of a reactor on Kiv::Clock" ) ) << reports;
   EXPECT_EQ( reported(), 1U );
   busy->timeMinIs( Kiv::infinity );
}

TEST_P( Busy, WhatALackOfMemoryHasCutShortComesAgainAllTheSame ) {
   auto const event = eventOf( "Cut" );
   int calls = 0;
   Kiv::Ptr< Answer > const cut = new Answer( event, [ & ] {
      if( ++calls == 1 )
         throw std::bad_alloc();
      quarrel.end();
      stop();
   } );
   quarrel.begin();
   event->timeoutIs( 1 );
   run();
   EXPECT_EQ( calls, 2 );
   EXPECT_LE( quarrel.count, 103 );
}

TEST_P( Busy, TheBusyReactorsAreNamedOnceForEachTimeThatItHappens ) {
   testing_support::TraceLines traces;
   Kiv::tracesIs( "Kiv:0" );
   auto const happens = [ & ] {
      quarrel.begin();
      int rounds = 0;
      std::function< void() > const again = [ & ] {
         if( ++rounds == 5 )
            quarrel.end();
         if( !manager()->idle() || quarrel.on )
            post( again );
         else
            stop();
      };
      post( again );
      run();
      EXPECT_GE( rounds, 5 );
   };
   happens();
   EXPECT_EQ( reported(), 1U ) << reports;
   EXPECT_TRUE( names( "100 callbacks" ) ) << reports;
   EXPECT_TRUE( names( "timeout of a reactor on A:agent" ) ) << reports;
   EXPECT_TRUE( names( "timeout of a reactor on B:agent" ) ) << reports;
   auto const traced = traces.taken();
   ASSERT_EQ( traced.size(), 1U );
   EXPECT_EQ( "kiv: " + traced[ 0 ] + "\n", reports );
   happens();
   EXPECT_EQ( reported(), 2U ) << reports;
   Kiv::tracesIs( "Kiv:" );
}

TEST_P( Busy, NothingIsLostAndTheQueueStaysInOrder ) {
   constexpr int reactors = 300;
   std::vector< Kiv::Ptr< Stage::EventConfig > > events;
   std::vector< Kiv::Ptr< Answer > > answers;
   std::vector< int > told;
   std::vector< int > expected;
   for( int round = 0; round != 100; ++round )
      for( int i = 0; i != reactors; ++i )
         expected.push_back( i );
   for( int i = 0; i != reactors; ++i ) {
      events.push_back( eventOf( "Stage" ) );
      answers.push_back( new Answer( events.back(), [ &, i ] {
         told.push_back( i );
         if( told.size() + reactors <= expected.size() )
            events[ static_cast< std::size_t >( i ) ]->timeoutIs(
               static_cast< double >( told.size() + reactors ) );
         else if( told.size() == expected.size() )
            stop();
      } ) );
   }
   int posts = 0;
   std::function< void() > const again = [ & ] {
      ++posts;
      if( told.size() != expected.size() )
         post( again );
   };
   post( again );
   for( int i = 0; i != reactors; ++i )
      events[ static_cast< std::size_t >( i ) ]->timeoutIs( i );
   run();
   EXPECT_EQ( told, expected );
   EXPECT_GE( posts, 1 );
   EXPECT_TRUE( names( "and others" ) ) << reports;
   manager()->runDue();
}

TEST_P( Busy, ABurstIsNotCutHoweverLarge ) {
   Kiv::Ptr< Timer > const timer = new Timer( "timer", journal );
   timer->timeMinIs( 1000 );
   std::vector< Kiv::Ptr< Stage::EventConfig > > events;
   std::vector< Kiv::Ptr< Answer > > answers;
   int told = 0;
   for( int i = 0; i != 1000; ++i ) {
      events.push_back( eventOf( "Stage" ) );
      auto const event = events.back();
      answers.push_back( new Answer( event, [ &told, event = event.get() ] {
         ++told;
         if( event->timeout() < 30 ) // leads to more, but ends
            event->timeoutIs( event->timeout() + 1 );
      } ) );
      event->timeoutIs( 1 );
   }
   timer->act = [ & ] {
      journal.push_back( std::to_string( told ) );
      stop();
   };
   run();
   EXPECT_EQ( journal, ( Lines{ "timer", "30000" } ) );
   EXPECT_EQ( reports, "" );
}

TEST_P( Busy, WorkWithinTheLimitIsNotReported ) {
   manager()->turnLimitIs( 1000 );
   int rounds = 0;
   std::vector< Kiv::Ptr< Stage::EventConfig > > events;
   std::vector< Kiv::Ptr< Answer > > chain;
   std::function< void() > const task = [ & ] {
      if( ++rounds == 10 ) {
         stop();
         return;
      }
      // 900 callbacks, one after the other.
      auto const event = eventOf( "Stage" );
      auto const left = std::make_shared< int >( 900 );
      chain.push_back( new Answer( event, [ event = event.get(), left ] {
         if( --*left > 0 )
            event->timeoutIs( *left );
      } ) );
      events.push_back( event );
      event->timeoutIs( 1000 );
      post( task );
   };
   post( task );
   run();
   EXPECT_EQ( reports, "" );
}

TEST_P( Busy, StoppedInTheMiddleTheLoopGoesOnThereLater ) {
   Kiv::Ptr< Timer > const a = new Timer( "a", journal );
   Kiv::Ptr< Timer > const b = new Timer( "b", journal );
   a->timeMinIs( 999 );
   b->timeMinIs( 1000 );
   a->act = [ & ] { stop(); };
   post( [ & ] {
      journal.push_back( "post" );
      stop();
   } );
   quarrel.begin();
   run();
   // A bounded run goes on to its bound, whatever is said meanwhile.
   if( GetParam() < 2 )
      EXPECT_EQ( journal, Lines{ "a" } );
   if( journal.size() == 1 )
      run();
   EXPECT_EQ( journal, ( Lines{ "a", "b", "post" } ) );
   EXPECT_EQ( reported(), 1U );
}

// ---- what has no limit, and the limit itself

TEST( BusyByHand, OperationsByHandDeliverAsEver ) {
   testing_support::Loop loop;
   std::size_t const before = manager()->turnLimit();
   manager()->turnLimitIs( 1 );
   Journal journal;
   Kiv::Ptr< Timer > const timer = new Timer( "timer", journal );
   timer->timeMinIs( 1000 );
   Quarrel quarrel;
   testing::internal::CaptureStderr();
   quarrel.begin();
   for( int i = 0; i != 500; ++i )
      EXPECT_TRUE( manager()->runOne() );
   EXPECT_GE( manager()->runQueued(), 90000U ); // until they give up
   EXPECT_EQ( journal, Lines{} );
   EXPECT_TRUE( manager()->fireOne() );
   EXPECT_EQ( testing::internal::GetCapturedStderr(), "" );
   EXPECT_EQ( journal, Lines{ "timer" } );
   manager()->turnLimitIs( before );
}

TEST( BusyLimit, IsAHundredThousandAndNeverNothing ) {
   EXPECT_EQ( manager()->turnLimit(), 100000U );
   EXPECT_THROW( manager()->turnLimitIs( 0 ), Kiv::RangeException );
   EXPECT_EQ( manager()->turnLimit(), 100000U );
   manager()->turnLimitIs( 5 );
   EXPECT_EQ( manager()->turnLimit(), 5U );
   manager()->turnLimitIs( 100000 );
}

TEST( BusyLimit, WithoutAWordAPostWaitsForNoMoreThanThat ) {
   testing_support::Loop loop;
   Quarrel quarrel;
   int when = 0;
   quarrel.count = -1000000000; // does not give up
   quarrel.begin();
   post( [ & ] {
      when = quarrel.count + 1000000000;
      quarrel.end();
      manager()->stop();
   } );
   testing::internal::CaptureStderr();
   manager()->run();
   EXPECT_NE( testing::internal::GetCapturedStderr().find( "100000 callbacks" ),
              std::string::npos );
   EXPECT_LE( when, 100001 );
   EXPECT_GE( when, 100000 );
   while( manager()->runDue() != 0 ) {
   }
}
