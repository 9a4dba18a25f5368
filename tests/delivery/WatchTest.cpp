// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The one call by which a reactor watches, and everything that can be done wrong with it.
#include "../support/Loop.h"
#include "../support/Memory.h"
#include "Watchers.h"

#include <gtest/gtest.h>

#include <utility>

using namespace delivery;

namespace {

class Watching : public testing::Test {
 protected:
   // One that nobody has told to watch anything.
   Kiv::Ptr< Watcher > reactor( char const * id = "a" ) {
      return new Watcher( id, journal, nullptr, Watcher::Start::detached );
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

// Whether the reactor's watch() takes that.
template< class Reactor, class Argument >
concept Watches = requires( Reactor & r, Argument a ) { r.watch( a ); };

using Kiv::Ptr;
using Event = Stage::EventConfig;

// The compiler refuses another type, a more general one included, and to write what is constant.
static_assert( Watches< Event::NotifieeConst, Ptr< Event > > );
static_assert( Watches< Event::NotifieeConst, Ptr< Event const > > );
static_assert( !Watches< Event::NotifieeConst, Ptr< Stage::Status > > );
static_assert( !Watches< Event::NotifieeConst, Ptr< Kiv::Entity > > );
static_assert( !Watches< Event::NotifieeConst, Ptr< Kiv::PtrInterface const > > );
static_assert( Watches< Event::Notifiee, Ptr< Event > > );
static_assert( !Watches< Event::Notifiee, Ptr< Event const > > );
static_assert( Watches< Kiv::Clock::NotifieeConst, Ptr< Kiv::ManualClock > > );
static_assert( !Watches< Kiv::Clock::NotifieeConst, Ptr< Event > > );
static_assert( Watches< Kiv::Entity::NotifieeConst, Ptr< Event > > );
static_assert( !Watches< Kiv::Entity::NotifieeConst, Ptr< Kiv::Clock > > );

struct Timer : Kiv::Clock::NotifieeConst {
   void onTime() override { ++calls; }
   int calls = 0;
};

} // namespace

TEST_F( Watching, IsOneCallAfterWhichChangesAreTold ) {
   auto const a = reactor();
   a->watch( event );
   EXPECT_EQ( a->notifier(), event );
   EXPECT_TRUE( a->isRegisteredNotifiee() );
   EXPECT_TRUE( a->hasNotificationActive() );
   EXPECT_EQ( delivered(), Lines{} ) << "what is there already is not told";
   event->timeoutIs( 1 );
   event->dependencyIs( "Disk", true );
   EXPECT_EQ( delivered(), ( Lines{ "a timeout 1", "a dependency Disk true" } ) );
}

TEST_F( Watching, MayBeSaidInAConstructor ) {
   struct Own : Event::NotifieeConst {
      Own( Ptr< Event const > const & watched, Journal & j ) : journal( j ) { watch( watched ); }
      using NotifieeConst::onDependency;
      void onTimeout() override { journal.push_back( "told" ); }
      Journal & journal;
   };
   Ptr< Own > const own = new Own( event, journal );
   event->timeoutIs( 1 );
   EXPECT_EQ( delivered(), Lines{ "told" } );
}

TEST_F( Watching, AnObjectKeepsItAsLongAsItIsWatched ) {
   auto const a = reactor();
   Ptr< Event > shortLived = newEvent( "Short" );
   a->watch( shortLived );
   shortLived->timeoutIs( 7 );
   shortLived = nullptr;
   EXPECT_EQ( delivered(), Lines{ "a timeout 7" } );
}

TEST_F( Watching, NothingStopsAndDropsWhatIsQueued ) {
   auto const a = reactor();
   a->watch( event );
   event->timeoutIs( 1 );
   a->watch( nullptr );
   EXPECT_FALSE( a->notifier() );
   EXPECT_FALSE( a->isRegisteredNotifiee() );
   event->timeoutIs( 2 );
   EXPECT_EQ( delivered(), Lines{} );
   a->watch( nullptr ); // again
   a->watch( event );
   event->timeoutIs( 3 );
   EXPECT_EQ( delivered(), Lines{ "a timeout 3" } ) << "and starts again";
}

TEST_F( Watching, NothingFromTheStartLeavesANewReactorAsItIs ) {
   auto const a = reactor();
   a->watch( nullptr );
   EXPECT_FALSE( a->isRegisteredNotifiee() );
   EXPECT_FALSE( a->hasNotificationActive() );
}

TEST_F( Watching, AnotherObjectTakesThePlaceOfTheOneBefore ) {
   auto const a = reactor();
   a->watch( event );
   event->timeoutIs( 1 );
   a->watch( other );
   event->timeoutIs( 2 );
   other->timeoutIs( 3 );
   EXPECT_EQ( delivered(), Lines{ "a timeout 3" } );
}

TEST_F( Watching, TheSameObjectAgainDropsNothingAndTellsOnce ) {
   auto const a = reactor();
   auto const b = reactor( "b" );
   a->watch( event );
   b->watch( event );
   event->timeoutIs( 1 );
   a->watch( event );
   EXPECT_EQ( a->pendingNotifications(), 1U );
   event->criticalIs( true );
   EXPECT_EQ( delivered(),
              ( Lines{ "a timeout 1", "b timeout 1", "a critical true", "b critical true" } ) )
      << "and keeps its place";
}

TEST_F( Watching, TheSameObjectMakesGoodWhatIsMissing ) {
   auto const attached = reactor( "attached" );
   attached->notifierIs( object( event ) );
   auto const unregistered = reactor( "unregistered" );
   unregistered->notifierIs( object( event ) );
   unregistered->hasNotificationActiveIs( true );
   auto const off = reactor( "off" );
   off->notifierIs( object( event ) );
   off->isRegisteredNotifieeIs( true );
   event->timeoutIs( 1 );
   EXPECT_EQ( delivered(), Lines{} ) << "that is how it looks when one of the three is forgotten";
   for( auto const & forgetful : { attached, unregistered, off } )
      forgetful->watch( event );
   EXPECT_EQ( delivered(), Lines{ "off timeout 1" } ) << "queued, and not delivered until now";
   event->timeoutIs( 2 );
   EXPECT_EQ( delivered(),
              ( Lines{ "off timeout 2", "attached timeout 2", "unregistered timeout 2" } ) );
}

TEST_F( Watching, IsNoWayAroundTheMarkForDeletion ) {
   auto const a = reactor();
   a->kivMarkedForDeletionIs( true );
   a->watch( event );
   event->timeoutIs( 1 );
   EXPECT_EQ( delivered(), Lines{} );
}

TEST_F( Watching, AReactorThatNobodyKeepsIsToldNothing ) {
   reactor()->watch( event );
   event->timeoutIs( 1 );
   auto dropped = reactor( "dropped" );
   dropped->watch( event );
   event->timeoutIs( 2 );
   dropped = nullptr;
   EXPECT_EQ( delivered(), Lines{} );
}

TEST_F( Watching, InsideACallbackMovesOrStopsTheReactor ) {
   auto const a = reactor();
   a->watch( event );
   a->act = [ & ] { a->watch( a->notifier() == event ? other : nullptr ); };
   event->timeoutIs( 1 );
   event->criticalIs( true );
   EXPECT_EQ( delivered(), Lines{ "a timeout 1" } ) << "what was queued for the first is dropped";
   other->timeoutIs( 2 );
   other->criticalIs( true );
   EXPECT_EQ( delivered(), Lines{ "a timeout 2" } );
   EXPECT_FALSE( a->notifier() );
}

TEST_F( Watching, AnObjectOfAnotherTypeIsRefusedThroughTheBaseClassToo ) {
   auto const a = reactor();
   a->watch( event );
   Ptr< Kiv::Entity const > const status = Stage::Status::StatusIs( "status" );
   Kiv::Entity::NotifieeConst & base = *a;
   EXPECT_THROW( base.watch( status ), Kiv::RangeException );
   event->timeoutIs( 1 );
   EXPECT_EQ( delivered(), Lines{ "a timeout 1" } ) << "it goes on watching what it did";
}

TEST_F( Watching, AWriterMayWriteWhatItWatches ) {
   struct Writer : Event::Notifiee {
      using NotifieeConst::onDependency;
      void onTimeout() override { notifier()->completeIs( true ); }
   };
   Ptr< Writer > const writer = new Writer;
   writer->watch( event );
   event->timeoutIs( 1 );
   loop.deliver();
   EXPECT_TRUE( event->complete() );
}

TEST_F( Watching, AnEntityOfAnyTypeTellsOfItsParent ) {
   struct OfParent : Kiv::Entity::NotifieeConst {
      void onParent() override { ++calls; }
      int calls = 0;
   };
   Ptr< OfParent > const a = new OfParent;
   a->watch( event );
   event->parentIs( Kiv::Dir::DirIs( "parent" ) );
   loop.deliver();
   EXPECT_EQ( a->calls, 1 );
}

TEST_F( Watching, ATimerFiresAndOnAnotherClockIsDisarmed ) {
   Ptr< Timer > const timer = new Timer;
   timer->watch( loop.clock() );
   timer->timeMinIs( 1001 );
   timer->watch( loop.clock() );
   EXPECT_EQ( timer->timeMin(), 1001 ) << "the same clock changes nothing";
   loop.nowIs( 1001 );
   loop.idle();
   EXPECT_EQ( timer->calls, 1 );
   timer->timeMinIs( 1002 );
   timer->watch( Kiv::ManualClock::ManualClockIs( 5 ) );
   EXPECT_EQ( timer->timeMin(), Kiv::infinity );
}

// Nothing but a timer's place needs memory.
TEST_F( Watching, AnEntityNeedsNoMemory ) {
   auto const a = reactor();
   testing_support::Memory memory;
   memory.failAfter( 0, testing_support::Memory::Failing::fromThenOn );
   a->watch( event );
   a->watch( other );
   a->watch( nullptr );
   EXPECT_EQ( memory.failures(), 0U );
   memory.failNever();
}
