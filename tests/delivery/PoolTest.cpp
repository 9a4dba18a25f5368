// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// How the queue grows, and what it keeps while a callback runs.
#include "../support/Loop.h"
#include "Watchers.h"

#include <gtest/gtest.h>

#include <new>

using namespace delivery;

namespace {

class Counter : public Stage::EventConfig::NotifieeConst {
 public:
   explicit Counter( Kiv::Ptr< Stage::EventConfig > const & event ) { watch( event ); }
   using NotifieeConst::onDependency;
   void onTimeout() override { ++calls; }
   void onDependency( Kiv::String8 ) override { ++calls; }
   unsigned calls = 0;
};

class Pool : public testing::Test {
 protected:
   static constexpr unsigned burst = 5000;

   void makeCounters( unsigned count ) {
      while( counters.size() != count )
         counters.push_back( new Counter( crowd ) );
   }
   Lines taken() { return std::exchange( journal, {} ); }

   testing_support::Loop loop;
   Journal journal;
   Kiv::Ptr< Stage::EventConfig > const event = newEvent();
   Kiv::Ptr< Stage::EventConfig > const crowd = newEvent( "Crowd" );
   std::vector< Kiv::Ptr< Counter > > counters;
};

} // namespace

TEST_F( Pool, KeepsWhatWaitsForAReactorThatIsOffThroughBursts ) {
   makeCounters( burst );
   Kiv::Ptr< Watcher > const off = new Watcher( "off", journal, event, Watcher::Start::off );
   for( int round = 1; round != 4; ++round ) {
      event->dependencyIs( "Net" + std::to_string( round ), true );
      crowd->timeoutIs( round );
      crowd->dependencyIs( "Disk", round % 2 == 0 );
      event->timeoutIs( round );
      event->dependencyIs( "Disk" + std::to_string( round ), true );
      loop.deliver();
   }
   EXPECT_EQ( journal, Lines{} );
   EXPECT_EQ( off->pendingNotifications(), 8U );
   off->hasNotificationActiveIs( true );
   loop.deliver();
   EXPECT_EQ( journal, ( Lines{ "off dependency Net1 true", "off timeout 3",
                                "off dependency Disk1 true", "off dependency Net2 true",
                                "off dependency Disk2 true", "off dependency Net3 true",
                                "off dependency Disk3 true", "off dependency..." } ) );
   for( auto const & counter : counters )
      ASSERT_EQ( counter->calls, 6U );
}

TEST_F( Pool, GrowsWhileACallbackRunsThatIsThenPutBack ) {
   makeCounters( burst );
   Kiv::Ptr< Watcher > const a = new Watcher( "a", journal, event );
   bool first = true;
   a->act = [ & ] {
      if( !std::exchange( first, false ) )
         return;
      crowd->timeoutIs( 7 );
      crowd->dependencyIs( "Disk", true );
      throw std::bad_alloc();
   };
   event->dependencyIs( "Net", true );
   testing::internal::CaptureStderr(); // of the report
   loop.deliver();
   testing::internal::GetCapturedStderr();
   EXPECT_EQ( journal, ( Lines{ "a dependency Net true", "a dependency Net true" } ) );
   EXPECT_EQ( a->pendingNotifications(), 0U );
   for( auto const & counter : counters )
      ASSERT_EQ( counter->calls, 2U );
}

// The key takes its group along when it is delivered; to put it back takes both, whatever the
// callback has used up meanwhile.
TEST_F( Pool, HasWhatPuttingAKeyBackTakesWhateverTheCallbackQueued ) {
   Kiv::Ptr< Watcher > const a = new Watcher( "a", journal, event );
   testing::internal::CaptureStderr(); // of reports
   for( unsigned queued = 0; queued != 80; ++queued ) {
      bool first = true;
      makeCounters( queued );
      a->act = [ & ] {
         if( !std::exchange( first, false ) )
            return;
         crowd->timeoutIs( crowd->timeout() == 1 ? 2 : 1 );
         throw std::bad_alloc();
      };
      event->dependencyIs( "Net", queued % 2 == 0 );
      loop.deliver();
      EXPECT_EQ( taken().size(), 2U ) << queued;
   }
   testing::internal::GetCapturedStderr();
}

TEST_F( Pool, TellsMoreReactorsOfOneObjectThanAreCounted ) {
   constexpr unsigned all = 65536 + 20;
   makeCounters( all );
   crowd->timeoutIs( 1 );
   loop.deliver();
   for( auto const & counter : counters )
      ASSERT_EQ( counter->calls, 1U );
   counters.resize( all - 40 );
   crowd->timeoutIs( 2 );
   loop.deliver();
   for( auto const & counter : counters )
      ASSERT_EQ( counter->calls, 2U );
   counters.clear();
   EXPECT_FALSE( crowd->hasNotifiees() );
   makeCounters( 1 );
   crowd->timeoutIs( 3 );
   loop.deliver();
   EXPECT_EQ( counters.front()->calls, 1U );
}

// ------------------------------------------------------------- what is kept while a callback runs

namespace {

class Place : public Kiv::Entity {
 public:
   Place( char const * name, Journal & journal ) : Entity( name ), journal_( journal ) {}
   ~Place() override { journal_.push_back( text( name() ) + " gone" ); }

 private:
   Journal & journal_;
};

class Guest : public Kiv::Entity::NotifieeConst {
 public:
   Guest( char const * id, Journal & journal, Kiv::Ptr< Place > const & place )
      : id_( id ), journal_( journal ) {
      watch( place );
   }
   ~Guest() override { journal_.push_back( std::string( id_ ) + " gone" ); }
   void onParent() override {
      journal_.push_back( std::string( id_ ) + " begins" );
      if( act )
         act();
      journal_.push_back( std::string( id_ ) + " ends" );
   }
   std::function< void() > act;

 private:
   char const * const id_;
   Journal & journal_;
};

class Keeping : public testing::Test {
 protected:
   testing_support::Loop loop;
   Journal journal;
   Kiv::Ptr< Kiv::Dir > const dir = Kiv::Dir::DirIs( "dir" );
   Kiv::Ptr< Place > place = new Place( "place", journal );
   Kiv::Ptr< Guest > a = new Guest( "a", journal, place );
   Kiv::Ptr< Guest > b = new Guest( "b", journal, place );
};

} // namespace

TEST_F( Keeping, AReactorThatLosesItsLastReferenceLivesUntilItsCallbackIsOver ) {
   a->act = [ & ] { a = nullptr; };
   place->parentIs( dir );
   loop.deliver();
   EXPECT_EQ( journal, ( Lines{ "a begins", "a ends", "a gone", "b begins", "b ends" } ) );
}

TEST_F( Keeping, WhatIsWatchedLivesUntilTheCallbackIsOverToo ) {
   a->act = [ & ] {
      Guest * const self = a.get();
      a = b = nullptr;
      place = nullptr;
      self->notifierIs( Kiv::Ptr< Kiv::PtrInterface const >() );
   };
   place->parentIs( dir );
   loop.deliver();
   EXPECT_EQ( journal, ( Lines{ "a begins", "b gone", "a ends", "place gone", "a gone" } ) );
}

TEST_F( Keeping, WhoeverIsReferredToAgainLivesOn ) {
   a->act = [ & ] {
      Guest * const self = a.get();
      a = nullptr;
      a = self;
   };
   place->parentIs( dir );
   loop.deliver();
   EXPECT_EQ( journal, ( Lines{ "a begins", "a ends", "b begins", "b ends" } ) );
   EXPECT_EQ( a->references(), 1U );
   journal.clear();
   a = nullptr;
   EXPECT_EQ( journal, ( Lines{ "a gone" } ) );
}

TEST_F( Keeping, AnExceptionChangesNothingOfThat ) {
   a->act = [ & ] {
      a = nullptr;
      throw std::bad_alloc();
   };
   place->parentIs( dir );
   testing::internal::CaptureStderr();
   loop.deliver();
   testing::internal::GetCapturedStderr();
   EXPECT_EQ( journal, ( Lines{ "a begins", "a gone", "b begins", "b ends" } ) );
}

TEST_F( Keeping, OthersGoAtOnce ) {
   a->act = [ & ] { b = nullptr; };
   place->parentIs( dir );
   loop.deliver();
   EXPECT_EQ( journal, ( Lines{ "a begins", "b gone", "a ends" } ) );
}

TEST_F( Keeping, WhoGoesAfterACallbackMayLetTheLoopRunOthersByHand ) {
   class Last : public Kiv::Entity::NotifieeConst {
    public:
      Last( Journal & journal, Kiv::Ptr< Place > const & place, Kiv::Ptr< Guest > const & other )
         : journal_( journal ), other_( other ) {
         watch( place );
      }
      ~Last() override {
         journal_.push_back( "last goes" );
         other_->handleNotification( nullptr );
         journal_.push_back( "last gone" );
      }
      void onParent() override { own = nullptr; }
      Kiv::Ptr< Last > own;

    private:
      Journal & journal_;
      Kiv::Ptr< Guest > const other_;
   };
   a = nullptr;
   b = nullptr;
   journal.clear();
   auto const other = Kiv::Ptr< Place >( new Place( "other", journal ) );
   Kiv::Ptr< Guest > const c = new Guest( "c", journal, other );
   Last * const last = new Last( journal, place, c );
   last->own = last;
   place->parentIs( dir );
   other->parentIs( dir );
   loop.deliver();
   EXPECT_EQ( journal, ( Lines{ "last goes", "c begins", "c ends", "last gone" } ) );
}
