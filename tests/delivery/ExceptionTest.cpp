// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// What becomes of an exception that leaves a callback.
#include "../support/Loop.h"
#include "Watchers.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>

using namespace delivery;

namespace {

// Asks a test what to do with what its callbacks throw.
class Careful : public Watcher {
 public:
   using Watcher::handleNotificationException;
   using Watcher::onNotificationException;
   using Watcher::Watcher;
   std::function< void( Kiv::AttributeId ) > handle;
   std::vector< std::string > told;

   void handleNotificationException( Kiv::AttributeId attribute ) override {
      if( handle )
         handle( attribute );
      else
         Watcher::handleNotificationException( attribute );
   }
   void onNotificationException( Kiv::AttributeId attribute ) override {
      told.push_back( notifier() ? text( notifier()->attributeString( attribute ) ) : "detached" );
   }
};

class Exceptions : public testing::Test {
 protected:
   Exceptions() : b( new Watcher( "b", journal, event ) ) {
      Kiv::tracesIs( "Kiv:0" );
      before_ = Kiv::traceSinkIs(
         [ this ]( Kiv::TraceLine const & line ) { traced.push_back( text( line.text ) ); } );
   }
   ~Exceptions() override { Kiv::traceSinkIs( std::move( before_ ) ); }

   // Delivers all; what was written to standard error meanwhile.
   std::string deliver() {
      testing::internal::CaptureStderr();
      loop.deliver();
      return testing::internal::GetCapturedStderr();
   }
   // That what was written is one line, that another was traced, and that each says all of this.
   void expectReport( std::string const & report, Lines const & parts ) {
      EXPECT_EQ( std::count( report.begin(), report.end(), '\n' ), 1 ) << report;
      ASSERT_FALSE( traced.empty() ) << report;
      for( auto const & part : parts )
         for( auto const & line : { report, traced.front() } )
            EXPECT_NE( line.find( part ), std::string::npos ) << part << " is not in: " << line;
      traced.erase( traced.begin() );
   }

   testing_support::Loop loop;
   Journal journal;
   Lines traced;
   Kiv::Ptr< Stage::EventConfig > const event = newEvent();
   Kiv::Ptr< Careful > a = new Careful( "a", journal, event );
   Kiv::Ptr< Watcher > const b; // served after a

 private:
   Kiv::TraceSink before_;
};

} // namespace

TEST_F( Exceptions, TheDefaultTracesAndPrintsWhatReactorAndAttributeAndTheLoopGoesOn ) {
   a->act = [] { throw std::runtime_error( "out of luck" ); };
   event->timeoutIs( 1 );
   event->criticalIs( true );
   std::string const report = deliver();
   EXPECT_EQ( std::count( report.begin(), report.end(), '\n' ), 2 );
   expectReport( report.substr( 0, report.find( '\n' ) + 1 ),
                 { "out of luck", "timeout", "Net:agent" } );
   expectReport( report.substr( report.find( '\n' ) + 1 ),
                 { "out of luck", "critical", "Net:agent" } );
   EXPECT_EQ( journal,
              ( Lines{ "a timeout 1", "b timeout 1", "a critical true", "b critical true" } ) );
   EXPECT_EQ( a->told, ( Lines{ "timeout", "critical" } ) );
   event->timeoutIs( 2 );
   a->act = nullptr;
   EXPECT_EQ( deliver(), "" );
   EXPECT_EQ( journal.back(), "b timeout 2" );
}

TEST_F( Exceptions, NothingIsSwallowedNotEvenWhatIsNoException ) {
   a->act = [] { throw 7; };
   event->timeoutIs( 1 );
   expectReport( deliver(), { "timeout", "Net:agent" } );
   EXPECT_EQ( journal.back(), "b timeout 1" );
}

TEST_F( Exceptions, AKeyedAndADeferredCallbackAreReportedAlike ) {
   a->act = [] { throw std::runtime_error( "out of luck" ); };
   event->dependencyIs( "Disk", true );
   event->dependencyIs( "Boot", true );
   std::string const report = deliver();
   EXPECT_EQ( std::count( report.begin(), report.end(), '\n' ), 3 );
   EXPECT_EQ( a->told, ( Lines{ "dependency", "dependency", "dependency" } ) );
   EXPECT_EQ( journal.size(), 6U );
}

TEST_F( Exceptions, AReactorMayHandleItsOwn ) {
   std::string what;
   Kiv::AttributeId which = 0;
   a->act = [] { throw std::runtime_error( "out of luck" ); };
   a->handle = [ & ]( Kiv::AttributeId attribute ) {
      which = attribute;
      try {
         throw;
      } catch( std::exception const & e ) {
         what = e.what();
      }
   };
   event->criticalIs( true );
   EXPECT_EQ( deliver(), "" );
   EXPECT_EQ( what, "out of luck" );
   EXPECT_EQ( event->attributeString( which ), Kiv::String8( "critical" ) );
   EXPECT_EQ( journal, ( Lines{ "a critical true", "b critical true" } ) );
}

TEST_F( Exceptions, OnlyTheReactorWhoseCallbackThrewIsAsked ) {
   bool asked = false;
   a->handle = [ & ]( Kiv::AttributeId ) { asked = true; };
   b->act = [] { throw std::runtime_error( "b's own" ); };
   event->timeoutIs( 1 );
   expectReport( deliver(), { "b's own" } );
   EXPECT_FALSE( asked );
}

TEST_F( Exceptions, AnExceptionOfTheHandlerOfExceptionsIsReportedAndTheLoopGoesOn ) {
   a->act = [] { throw std::runtime_error( "the first" ); };
   a->handle = []( Kiv::AttributeId ) { throw std::runtime_error( "the second" ); };
   event->timeoutIs( 1 );
   expectReport( deliver(), { "the second" } );
   EXPECT_EQ( journal, ( Lines{ "a timeout 1", "b timeout 1" } ) );
   EXPECT_FALSE( a->actsm()->running() );
}

TEST_F( Exceptions, AnExpectedOneIsNotReported ) {
   a->act = [] {
      Kiv::Expect const expected( Kiv::Exception::range );
      Kiv::throwRangeException( "as foreseen" );
   };
   event->timeoutIs( 1 );
   EXPECT_EQ( deliver(), "" );
   EXPECT_EQ( traced, Lines{} );
   EXPECT_EQ( journal, ( Lines{ "a timeout 1", "b timeout 1" } ) );
}

TEST_F( Exceptions, OneOfAKindThatWasNotExpectedIsReported ) {
   a->act = [] {
      Kiv::Expect const expected( Kiv::Exception::nameInUse );
      Kiv::throwRangeException( "not foreseen" );
   };
   event->timeoutIs( 1 );
   expectReport( deliver(), { "not foreseen", "timeout", "Net:agent" } );
}

TEST_F( Exceptions, AnExpectationThatIsOverSilencesNothing ) {
   a->act = [] {
      { Kiv::Expect const expected( Kiv::Exception::range ); }
      Kiv::throwRangeException( "too late" );
   };
   event->timeoutIs( 1 );
   expectReport( deliver(), { "too late" } );
}

TEST_F( Exceptions, ATimersExceptionIsReportedAndTheNextTimerFires ) {
   class Timer : public Kiv::Clock::NotifieeConst {
    public:
      Timer( double seconds, bool throws ) : throws_( throws ) {
         watch( Kiv::activityManager()->clock() );
         timeMinIs( seconds );
      }
      void onTime() override {
         ++calls;
         if( throws_ )
            throw std::runtime_error( "late" );
      }
      int calls = 0;

    private:
      bool throws_;
   };
   Kiv::Ptr< Timer > const first = new Timer( loop.now(), true );
   Kiv::Ptr< Timer > const second = new Timer( loop.now(), false );
   testing::internal::CaptureStderr();
   loop.idle();
   expectReport( testing::internal::GetCapturedStderr(), { "late", "time", "Clock" } );
   EXPECT_EQ( first->calls, 1 );
   EXPECT_EQ( second->calls, 1 );
}

TEST_F( Exceptions, AReactorThatDeletesItselfAndThrowsIsReportedStill ) {
   a->act = [ & ] {
      a = nullptr;
      throw std::runtime_error( "last words" );
   };
   event->timeoutIs( 1 );
   expectReport( deliver(), { "last words", "timeout", "Net:agent" } );
   EXPECT_EQ( journal, ( Lines{ "a timeout 1", "b timeout 1" } ) );
}

TEST_F( Exceptions, AReactorThatDetachesItselfAndThrowsIsReportedWithWhatItWatched ) {
   a->act = [ & ] {
      a->notifierIs( nullptr );
      throw std::runtime_error( "parting words" );
   };
   event->timeoutIs( 1 );
   expectReport( deliver(), { "parting words", "timeout", "Net:agent" } );
   EXPECT_EQ( journal, ( Lines{ "a timeout 1", "b timeout 1" } ) );
}

TEST_F( Exceptions, AnObjectWithoutReferencesThatIsGoneWhenItsCallbackThrowsIsReportedStill ) {
   auto * alone = new Watcher( "alone", journal, event );
   alone->act = [ alone ] {
      delete alone;
      throw std::runtime_error( "from beyond" );
   };
   event->timeoutIs( 1 );
   expectReport( deliver(), { "from beyond" } );
   EXPECT_EQ( journal, ( Lines{ "a timeout 1", "b timeout 1", "alone timeout 1" } ) );
}

TEST_F( Exceptions, OutsideOfAnAttributeTheyAreReportedToo ) {
   testing::internal::CaptureStderr();
   try {
      throw std::runtime_error( "at large" );
   } catch( ... ) {
      a->Watcher::handleNotificationException();
   }
   expectReport( testing::internal::GetCapturedStderr(), { "at large", "Net:agent" } );
}
