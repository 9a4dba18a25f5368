// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The deferred form of a collection's callbacks.
#include "../support/Loop.h"
#include "Watchers.h"

#include <gtest/gtest.h>

using namespace delivery;

namespace {

class Deferred : public testing::Test {
 protected:
   Lines taken() { return std::exchange( journal, {} ); }

   testing_support::Loop loop;
   Journal journal;
   Kiv::Ptr< Stage::EventConfig > const event = newEvent();
   Kiv::Ptr< Watcher > a = new Watcher( "a", journal, event );
};

} // namespace

TEST_F( Deferred, OneKeyIsToldByItsOwnCallbackAlone ) {
   event->dependencyIs( "Disk", true );
   event->dependencyIs( "Disk", false );
   event->dependencyDel( "Disk" );
   loop.deliver();
   EXPECT_EQ( taken(), Lines{ "a dependency Disk gone" } );
}

TEST_F( Deferred, TwoKeysThatWerePendingTogetherAreFollowedByItOnce ) {
   event->dependencyIs( "Disk", true );
   event->dependencyIs( "Boot", true );
   event->dependencyIs( "Gui", true );
   loop.deliver();
   EXPECT_EQ( taken(), ( Lines{ "a dependency Disk true", "a dependency Boot true",
                                "a dependency Gui true", "a dependency..." } ) );
}

TEST_F( Deferred, KeysThatWereNeverPendingTogetherDoNotBringIt ) {
   event->dependencyIs( "Disk", true );
   loop.deliver();
   event->dependencyIs( "Boot", true );
   loop.deliver();
   EXPECT_EQ( taken(), ( Lines{ "a dependency Disk true", "a dependency Boot true" } ) );
}

TEST_F( Deferred, AKeyWhoseCallbackIsRunningIsNotPendingAnyMore ) {
   a->act = [ & ] {
      a->act = nullptr;
      event->dependencyIs( "Boot", true );
   };
   event->dependencyIs( "Disk", true );
   loop.deliver();
   EXPECT_EQ( taken(), ( Lines{ "a dependency Disk true", "a dependency Boot true" } ) );
}

TEST_F( Deferred, KeysOfTwoCollectionsDoNotAddUp ) {
   auto const status = Stage::Status::StatusIs( "status" );
   auto const disk = status->stageIs( "Disk" );
   class StatusWatcher : public Stage::Status::NotifieeConst {
    public:
      StatusWatcher( Kiv::Ptr< Stage::Status > const & watched, Journal & journal )
         : journal_( journal ) {
         watch( watched );
      }
      void onStage( Kiv::Name n ) override { journal_.push_back( "stage " + n.str() ); }
      void onStage() override {}
      void onStagekivImmediate() override { journal_.push_back( "stage..." ); }
      void onActiveStage( Kiv::Name n ) override { journal_.push_back( "active " + n.str() ); }
      void onActiveStage() override {}
      void onActiveStagekivImmediate() override { journal_.push_back( "active..." ); }

    private:
      Journal & journal_;
   };
   Kiv::Ptr< StatusWatcher > const s = new StatusWatcher( status, journal );
   status->activeStageIs( disk );
   status->stageIs( "Boot" );
   loop.deliver();
   EXPECT_EQ( taken(), ( Lines{ "active Disk", "stage Boot" } ) );
}

TEST_F( Deferred, PendingKeysOfTwoReactorsDoNotAddUp ) {
   Kiv::Ptr< Watcher > const b = new Watcher( "b", journal, event );
   event->dependencyIs( "Disk", true );
   loop.deliver();
   EXPECT_EQ( taken(), ( Lines{ "a dependency Disk true", "b dependency Disk true" } ) );
}

TEST_F( Deferred, EachReactorCountsItsOwnPendingKeys ) {
   Kiv::Ptr< Watcher > const b = new Watcher( "b", journal, event );
   event->dependencyIs( "Disk", true );
   Kiv::activityManager()->runOne(); // a's
   event->dependencyIs( "Boot", true );
   loop.deliver();
   EXPECT_EQ( taken(),
              ( Lines{ "a dependency Disk true", "b dependency Disk true", "a dependency Boot true",
                       "b dependency Boot true", "b dependency..." } ) );
}

TEST_F( Deferred, ItRunsOnlyWhenNothingElseIsQueuedWhoeverQueuedIt ) {
   auto const other = newEvent( "Gui" );
   Kiv::Ptr< Watcher > const b = new Watcher( "b", journal, other );
   event->dependencyIs( "Disk", true );
   event->dependencyIs( "Boot", true );
   other->timeoutIs( 1 );
   b->act = [ & ] {
      if( other->timeout() < 3 )
         other->timeoutIs( other->timeout() + 1 );
   };
   loop.deliver();
   EXPECT_EQ( taken(), ( Lines{ "a dependency Disk true", "a dependency Boot true", "b timeout 1",
                                "b timeout 2", "b timeout 3", "a dependency..." } ) );
}

TEST_F( Deferred, TheSecondQueueIsFirstInFirstOutToo ) {
   auto const other = newEvent( "Gui" );
   Kiv::Ptr< Watcher > const b = new Watcher( "b", journal, other );
   event->dependencyIs( "Disk", true );
   other->dependencyIs( "Disk", true );
   other->dependencyIs( "Boot", true ); // b's second key comes first
   event->dependencyIs( "Boot", true );
   loop.deliver();
   EXPECT_EQ( taken(),
              ( Lines{ "a dependency Disk true", "b dependency Disk true", "b dependency Boot true",
                       "a dependency Boot true", "b dependency...", "a dependency..." } ) );
}

TEST_F( Deferred, WhatADeferredCallbackQueuesComesBeforeTheNextDeferredCallback ) {
   Kiv::Ptr< Watcher > const b = new Watcher( "b", journal, event );
   event->dependencyIs( "Disk", true );
   event->dependencyIs( "Boot", true );
   for( int i = 0; i != 4; ++i )
      Kiv::activityManager()->runOne();
   taken();
   a->act = [ & ] {
      a->act = nullptr;
      event->criticalIs( true );
   };
   loop.deliver();
   EXPECT_EQ( taken(), ( Lines{ "a dependency...", "a critical true", "b critical true",
                                "b dependency..." } ) );
}

TEST_F( Deferred, KeysThatChangeWhileItIsPendingDoNotBringItTwice ) {
   event->dependencyIs( "Disk", true );
   event->dependencyIs( "Boot", true );
   Kiv::activityManager()->runOne();
   Kiv::activityManager()->runOne();
   event->dependencyIs( "Disk", false );
   event->dependencyIs( "Boot", false );
   loop.deliver();
   EXPECT_EQ( taken(), ( Lines{ "a dependency Disk true", "a dependency Boot true",
                                "a dependency Disk false", "a dependency Boot false",
                                "a dependency..." } ) );
}

TEST_F( Deferred, AfterItHasRunTheNextTwoKeysBringItAgain ) {
   for( bool const value : { true, false } ) {
      event->dependencyIs( "Disk", value );
      event->dependencyIs( "Boot", value );
      loop.deliver();
      EXPECT_EQ( journal.size(), 3U );
      EXPECT_EQ( taken().back(), "a dependency..." );
   }
   event->dependencyIs( "Disk", true );
   loop.deliver();
   EXPECT_EQ( taken(), Lines{ "a dependency Disk true" } );
}

TEST_F( Deferred, AKeyThatIsPendingWhenItRunsCountsForTheNextTime ) {
   // One key is queued inside the deferred callback itself: alone, it does not bring it again.
   event->dependencyIs( "Disk", true );
   event->dependencyIs( "Boot", true );
   a->act = [ & ] {
      if( journal.back() == "a dependency..." ) {
         a->act = nullptr;
         event->dependencyIs( "Gui", true );
      }
   };
   loop.deliver();
   EXPECT_EQ( taken(), ( Lines{ "a dependency Disk true", "a dependency Boot true",
                                "a dependency...", "a dependency Gui true" } ) );
}

TEST_F( Deferred, RemovingAllMembersTellsEveryKeyAndThenThis ) {
   event->dependencyIs( "Disk", true );
   event->dependencyIs( "Boot", true );
   loop.deliver();
   taken();
   Lines expected;
   for( auto i = event->dependencyIterator(); i; ++i )
      expected.push_back( "a dependency " + text( i.key() ) + " gone" );
   expected.push_back( "a dependency..." );
   event->dependencyDelAll();
   EXPECT_EQ( event->dependencys(), 0U );
   loop.deliver();
   EXPECT_EQ( taken(), expected );
}

TEST_F( Deferred, TheWholeAttributeFormIsNeverUsedForChangesOfMembers ) {
   for( char const * stage : { "A", "B", "C", "D", "E", "F", "G" } )
      event->dependencyIs( stage, true );
   loop.deliver();
   event->dependencyDel( "C" );
   event->dependencyDelAll();
   loop.deliver();
   for( auto const & line : journal )
      EXPECT_NE( line, "a dependency (whole)" );
   EXPECT_EQ( journal.size(), 7U + 1U + 7U + 1U );
}

TEST_F( Deferred, TheOldestCallbackDeliveredByHandIsAKeysBeforeItIsThis ) {
   event->dependencyIs( "Disk", true );
   event->dependencyIs( "Boot", true );
   event->dependencyIs( "Gui", true );
   for( int i = 0; i != 4; ++i )
      a->handleNotification( nullptr );
   EXPECT_EQ( taken(), ( Lines{ "a dependency Disk true", "a dependency Boot true",
                                "a dependency Gui true", "a dependency..." } ) );
   EXPECT_EQ( a->pendingNotifications(), 0U );
}
