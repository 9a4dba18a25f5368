// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Attaching, registering, switching off and on, marking: what each does to what is queued.
#include "../support/Loop.h"
#include "Watchers.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <numeric>
#include <random>
#include <string>
#include <vector>

using namespace delivery;

namespace {

class Attaching : public testing::Test {
 protected:
   Kiv::Ptr< Watcher > watch( char const * id, Watcher::Start start = Watcher::Start::on ) {
      return new Watcher( id, journal, event, start );
   }
   Lines delivered() {
      loop.deliver();
      return std::exchange( journal, {} );
   }

   testing_support::Loop loop;
   Journal journal;
   Kiv::Ptr< Stage::EventConfig > const event = newEvent();
   Kiv::Ptr< Stage::EventConfig > const other = newEvent( "Gui" );
};

} // namespace

// ---- notifierIs

TEST_F( Attaching, TheEntityThatIsWatchedAlreadyChangesNothingAndKeepsWhatIsQueued ) {
   auto const a = watch( "a" );
   auto const b = watch( "b" );
   event->timeoutIs( 1 );
   a->notifierIs( object( event ) );
   EXPECT_TRUE( a->isRegisteredNotifiee() );
   EXPECT_EQ( a->pendingNotifications(), 1U );
   event->criticalIs( true );
   EXPECT_EQ( delivered(),
              ( Lines{ "a timeout 1", "b timeout 1", "a critical true", "b critical true" } ) );
}

TEST_F( Attaching, AnotherEntityUnregistersDropsAndAttaches ) {
   auto const a = watch( "a" );
   auto const b = watch( "b" );
   event->timeoutIs( 1 );
   event->dependencyIs( "Disk", true );
   event->dependencyIs( "Boot", true );
   a->notifierIs( object( other ) );
   EXPECT_EQ( a->notifier(), other );
   EXPECT_EQ( a->name(), other->name() );
   EXPECT_FALSE( a->isRegisteredNotifiee() );
   EXPECT_EQ( a->pendingNotifications(), 0U );
   EXPECT_EQ( delivered(), ( Lines{ "b timeout 1", "b dependency Disk true",
                                    "b dependency Boot true", "b dependency..." } ) );
   event->timeoutIs( 2 );
   other->timeoutIs( 2 );
   EXPECT_EQ( delivered(), Lines{ "b timeout 2" } );
}

TEST_F( Attaching, QueueingStartsWithTheRegistration ) {
   auto const a = watch( "a" );
   a->notifierIs( object( other ) );
   other->timeoutIs( 1 );
   a->isRegisteredNotifieeIs( true );
   EXPECT_EQ( a->pendingNotifications(), 0U );
   other->criticalIs( true );
   EXPECT_EQ( delivered(), Lines{ "a critical true" } );
}

TEST_F( Attaching, NullDetaches ) {
   auto const a = watch( "a" );
   event->timeoutIs( 1 );
   a->notifierIs( nullptr );
   EXPECT_EQ( a->notifier(), nullptr );
   EXPECT_EQ( a->name(), Kiv::Name() );
   EXPECT_FALSE( event->hasNotifiees() );
   event->criticalIs( true );
   EXPECT_EQ( delivered(), Lines{} );
}

TEST_F( Attaching, AnEntityOfAnotherTypeIsRefusedAndNothingChanges ) {
   auto const a = watch( "a" );
   event->timeoutIs( 1 );
   Kiv::Ptr< Kiv::PtrInterface const > const dir = Kiv::Dir::DirIs( "agents" );
   EXPECT_THROW( a->notifierIs( dir ), Kiv::RangeException );
   EXPECT_EQ( a->notifier(), event );
   EXPECT_EQ( delivered(), Lines{ "a timeout 1" } );
}

TEST_F( Attaching, AReactorHoldsWhatItWatches ) {
   Kiv::Ptr< Stage::EventConfig > shortLived = newEvent( "Short" );
   auto const a = watch( "a" );
   a->notifierIs( object( shortLived ) );
   a->isRegisteredNotifieeIs( true );
   shortLived->timeoutIs( 7 );
   shortLived = nullptr;
   EXPECT_EQ( delivered(), Lines{ "a timeout 7" } );
   EXPECT_EQ( a->name(), Kiv::Name( "Short:agent" ) );
}

TEST_F( Attaching, AnEntityThatWasLeftAndComeBackToTellsNothingOfBefore ) {
   auto const a = watch( "a" );
   event->timeoutIs( 1 );
   a->notifierIs( object( other ) );
   a->notifierIs( object( event ) );
   a->isRegisteredNotifieeIs( true );
   EXPECT_EQ( delivered(), Lines{} );
   event->timeoutIs( 2 );
   EXPECT_EQ( delivered(), Lines{ "a timeout 2" } );
}

// ---- isRegisteredNotifieeIs

TEST_F( Attaching, RegisteringWhileNothingIsWatchedDoesNothing ) {
   auto const a = watch( "a", Watcher::Start::detached );
   a->isRegisteredNotifieeIs( true );
   EXPECT_FALSE( a->isRegisteredNotifiee() );
   a->notifierIs( object( event ) );
   EXPECT_FALSE( event->hasNotifiees() );
}

TEST_F( Attaching, UnregisteringDropsWhatIsQueuedAndKeepsTheEntity ) {
   auto const a = watch( "a" );
   auto const b = watch( "b" );
   event->timeoutIs( 1 );
   a->isRegisteredNotifieeIs( false );
   EXPECT_EQ( a->notifier(), event );
   EXPECT_EQ( delivered(), Lines{ "b timeout 1" } );
   a->isRegisteredNotifieeIs( true );
   EXPECT_EQ( delivered(), Lines{} );
}

TEST_F( Attaching, RegisteringTwiceDeliversOnce ) {
   auto const a = watch( "a" );
   a->isRegisteredNotifieeIs( true );
   event->timeoutIs( 1 );
   a->isRegisteredNotifieeIs( true ); // keeps what is queued
   EXPECT_EQ( delivered(), Lines{ "a timeout 1" } );
   a->isRegisteredNotifieeIs( false );
   a->isRegisteredNotifieeIs( false );
   event->timeoutIs( 2 );
   EXPECT_EQ( delivered(), Lines{} );
}

// ---- hasNotificationActiveIs

TEST_F( Attaching, WhatIsQueuedForAReactorThatIsNotYetActiveIsKept ) {
   auto const a = watch( "a", Watcher::Start::off );
   event->timeoutIs( 1 );
   event->dependencyIs( "Disk", true );
   EXPECT_TRUE( Kiv::activityManager()->idle() );
   EXPECT_EQ( delivered(), Lines{} );
   EXPECT_EQ( a->pendingNotifications(), 2U );
   a->hasNotificationActiveIs( true );
   EXPECT_EQ( delivered(), ( Lines{ "a timeout 1", "a dependency Disk true" } ) );
}

TEST_F( Attaching, WhatWasKeptGoesToTheEndOfTheQueueInOrder ) {
   auto const off = watch( "off", Watcher::Start::off );
   auto const on = watch( "on" );
   event->dependencyIs( "Disk", true );
   event->timeoutIs( 1 );
   event->dependencyIs( "Boot", true );
   event->dependencyIs( "Disk", false ); // keeps its first place
   other->timeoutIs( 1 );
   off->hasNotificationActiveIs( true );
   event->criticalIs( true );
   EXPECT_EQ( delivered(),
              ( Lines{ "on dependency Disk false", "on timeout 1", "on dependency Boot true",
                       "off dependency Disk false", "off timeout 1", "off dependency Boot true",
                       "off critical true", "on critical true", "on dependency...",
                       "off dependency..." } ) );
}

TEST_F( Attaching, ReactorsThatAreSwitchedOnTogetherHearAllInTheOrderInWhichItWasSaid ) {
   auto const a = watch( "a", Watcher::Start::off );
   auto const b = watch( "b", Watcher::Start::off );
   auto const on = watch( "on" );
   b->notifierIs( object( other ) );
   b->isRegisteredNotifieeIs( true );
   other->timeoutIs( 1 );
   event->dependencyIs( "Disk", true );
   other->dependencyIs( "Gui", true );
   other->dependencyIs( "Net", true );
   event->timeoutIs( 2 );
   event->dependencyIs( "Boot", true );
   other->criticalIs( true );
   {
      Kiv::InOrder const outer;
      {
         Kiv::InOrder const inner;
         a->hasNotificationActiveIs( true );
      }
      b->hasNotificationActiveIs( true );
   }
   event->criticalIs( true );
   EXPECT_EQ(
      delivered(),
      ( Lines{ "on dependency Disk true", "on timeout 2", "on dependency Boot true", "b timeout 1",
               "a dependency Disk true", "b dependency Gui true", "b dependency Net true",
               "a timeout 2", "a dependency Boot true", "b critical true", "a critical true",
               "on critical true", "on dependency...", "b dependency...", "a dependency..." } ) );
}

// So many, and so far apart, that their places in the queue differ in more than one byte.
TEST_F( Attaching, ThousandsThatAreSwitchedOnTogetherHearAllInTheOrderInWhichItWasSaid ) {
   std::size_t const reactors = 3000;
   std::mt19937 random( 4 );
   std::vector< Kiv::Ptr< Stage::EventConfig > > events;
   std::vector< Kiv::Ptr< Watcher > > watchers;
   for( std::size_t i = 0; i != reactors; ++i ) {
      events.push_back( newEvent( std::to_string( i ).c_str() ) );
      watchers.push_back( new Watcher( std::to_string( i ), journal, events.back() ) );
      watchers.back()->hasNotificationActiveIs( false );
   }
   Lines expected;
   std::vector< std::size_t > order( reactors );
   std::iota( order.begin(), order.end(), 0U );
   auto const sayAll = [ & ]( auto say, char const * line ) {
      std::shuffle( order.begin(), order.end(), random );
      for( std::size_t const i : order ) {
         say( *events[ i ] );
         expected.push_back( std::to_string( i ) + line );
      }
   };
   sayAll( []( Stage::EventConfig & e ) { e.timeoutIs( 1 ); }, " timeout 1" );
   Kiv::Ptr< Watcher > const on = new Watcher( "on", journal, other );
   for( int i = 0; i != 70000; ++i ) { // in between, others are told of as much
      other->timeoutIs( -i - 1 );
      loop.deliver();
   }
   journal.clear();
   sayAll( []( Stage::EventConfig & e ) { e.criticalIs( true ); }, " critical true" );
   {
      Kiv::InOrder const together;
      std::shuffle( order.begin(), order.end(), random );
      for( std::size_t const i : order )
         watchers[ i ]->hasNotificationActiveIs( true );
   }
   EXPECT_EQ( delivered(), expected );
}

TEST_F( Attaching, SwitchingOffKeepsWhatStandsInTheQueue ) {
   auto const a = watch( "a" );
   auto const b = watch( "b" );
   event->timeoutIs( 1 );
   a->hasNotificationActiveIs( false );
   event->criticalIs( true );
   EXPECT_EQ( delivered(), ( Lines{ "b timeout 1", "b critical true" } ) );
   event->timeoutIs( 2 );
   a->hasNotificationActiveIs( true );
   EXPECT_EQ( delivered(), ( Lines{ "b timeout 2", "a timeout 2", "a critical true" } ) );
}

TEST_F( Attaching, SwitchingOnWhatIsOnLosesNoPlace ) {
   auto const a = watch( "a" );
   auto const b = watch( "b" );
   event->timeoutIs( 1 );
   a->hasNotificationActiveIs( true );
   EXPECT_EQ( delivered(), ( Lines{ "a timeout 1", "b timeout 1" } ) );
}

TEST_F( Attaching, AReactorIsOffWhenItIsMade ) {
   class Bare : public Stage::EventConfig::NotifieeConst {};
   Kiv::Ptr< Bare > const bare = new Bare;
   EXPECT_FALSE( bare->hasNotificationActive() );
   EXPECT_FALSE( bare->isRegisteredNotifiee() );
}

TEST_F( Attaching, SwitchingOffInsideACallbackHoldsBackTheRest ) {
   auto const a = watch( "a" );
   a->act = [ & ] { a->hasNotificationActiveIs( false ); };
   event->timeoutIs( 1 );
   event->criticalIs( true );
   EXPECT_EQ( delivered(), Lines{ "a timeout 1" } );
   a->act = nullptr;
   a->hasNotificationActiveIs( true );
   EXPECT_EQ( delivered(), Lines{ "a critical true" } );
}

TEST_F( Attaching, UnregisteringWhileOffDropsWhatWasKept ) {
   auto const a = watch( "a", Watcher::Start::off );
   event->timeoutIs( 1 );
   a->isRegisteredNotifieeIs( false );
   a->isRegisteredNotifieeIs( true );
   a->hasNotificationActiveIs( true );
   EXPECT_EQ( delivered(), Lines{} );
}

// ---- marked, detached, destroyed

TEST_F( Attaching, MarkingForDeletionDropsWhatIsQueued ) {
   auto const a = watch( "a" );
   event->timeoutIs( 1 );
   event->dependencyIs( "Disk", true );
   event->dependencyIs( "Boot", true );
   a->kivMarkedForDeletionIs( true );
   EXPECT_EQ( a->pendingNotifications(), 0U );
   a->kivMarkedForDeletionIs( false );
   EXPECT_EQ( delivered(), Lines{} );
}

TEST_F( Attaching, MarkingForDeletionDropsWhatWasKeptWhileOff ) {
   auto const a = watch( "a", Watcher::Start::off );
   event->timeoutIs( 1 );
   a->kivMarkedForDeletionIs( true );
   a->kivMarkedForDeletionIs( false );
   a->hasNotificationActiveIs( true );
   EXPECT_EQ( delivered(), Lines{} );
}

TEST_F( Attaching, AMarkedReactorReceivesNothingNew ) {
   auto const a = watch( "a" );
   a->kivMarkedForDeletionIs( true );
   event->timeoutIs( 1 );
   event->dependencyIs( "Disk", true );
   EXPECT_EQ( a->pendingNotifications(), 0U );
   EXPECT_EQ( delivered(), Lines{} );
   a->kivMarkedForDeletionIs( false );
   event->timeoutIs( 2 );
   EXPECT_EQ( delivered(), Lines{ "a timeout 2" } );
}

TEST_F( Attaching, ADestroyedReactorReceivesNothingAndLeavesTheOthersTheirs ) {
   auto const a = watch( "a" );
   auto b = watch( "b" );
   auto const c = watch( "c" );
   event->timeoutIs( 1 );
   event->dependencyIs( "Disk", true );
   event->dependencyIs( "Boot", true );
   Kiv::activityManager()->runOne();
   b = nullptr;
   EXPECT_EQ( delivered(),
              ( Lines{ "a timeout 1", "c timeout 1", "a dependency Disk true",
                       "c dependency Disk true", "a dependency Boot true", "c dependency Boot true",
                       "a dependency...", "c dependency..." } ) );
}

TEST_F( Attaching, AReactorMadeAtTheAddressOfADestroyedOneInheritsNothing ) {
   // Keyed callbacks are found by the reactor's address: a new one must not look pending.
   for( int i = 0; i != 50; ++i ) {
      auto gone = watch( "gone", Watcher::Start::off );
      event->dependencyIs( "Disk", i % 2 == 0 );
      event->timeoutIs( i );
      gone = nullptr;
      auto const a = watch( "a" );
      EXPECT_EQ( delivered(), Lines{} );
      event->dependencyIs( "Disk", i % 2 == 1 );
      EXPECT_EQ( delivered().size(), 1U );
   }
}

TEST_F( Attaching, AnObjectWithoutReferencesMayReactTooAndEndWhenItLikes ) {
   {
      Watcher onTheStack( "a", journal, event );
      event->timeoutIs( 1 );
      EXPECT_EQ( delivered(), Lines{ "a timeout 1" } );
      event->timeoutIs( 2 );
   }
   EXPECT_EQ( delivered(), Lines{} );
   EXPECT_FALSE( event->hasNotifiees() );
}

// ---- handleNotification

TEST_F( Attaching, HandleNotificationDeliversThatReactorsOldestCallback ) {
   auto const a = watch( "a" );
   auto const b = watch( "b" );
   event->timeoutIs( 1 );
   event->criticalIs( true );
   b->handleNotification( nullptr );
   EXPECT_EQ( std::exchange( journal, {} ), Lines{ "b timeout 1" } );
   b->handleNotification( b->activityPtr() );
   b->handleNotification( nullptr ); // nothing is left for it
   EXPECT_EQ( std::exchange( journal, {} ), Lines{ "b critical true" } );
   EXPECT_EQ( delivered(), ( Lines{ "a timeout 1", "a critical true" } ) );
}

TEST_F( Attaching, HandleNotificationDoesNotNest ) {
   auto const a = watch( "a" );
   auto const b = watch( "b" );
   a->act = [ & ] { b->handleNotification( nullptr ); };
   event->timeoutIs( 1 );
   Kiv::activityManager()->runOne();
   EXPECT_EQ( journal, Lines{ "a timeout 1" } );
   EXPECT_EQ( delivered(), ( Lines{ "a timeout 1", "b timeout 1" } ) );
}

TEST_F( Attaching, HandleNotificationLeavesAReactorThatIsOffAlone ) {
   auto const a = watch( "a", Watcher::Start::off );
   event->timeoutIs( 1 );
   a->handleNotification( nullptr );
   EXPECT_EQ( journal, Lines{} );
   EXPECT_EQ( a->pendingNotifications(), 1U );
}

TEST_F( Attaching, AllReactorsRunInTheOneActivity ) {
   auto const a = watch( "a" );
   EXPECT_EQ( a->kivFwkActivity(), Kiv::activityManager()->config() );
   EXPECT_EQ( a->activityPtr(), Kiv::activityManager()->config().get() );
   EXPECT_EQ( a->actsm(), Kiv::activityManager()->activity() );
   EXPECT_FALSE( a->actsm()->running() );
   bool inside = false;
   a->act = [ & ] { inside = a->actsm()->running(); };
   event->timeoutIs( 1 );
   loop.deliver();
   EXPECT_TRUE( inside );
}
