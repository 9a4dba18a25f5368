// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Reactors with an owner: how they are made, held, attached anew and let go.
#include "../support/Loop.h"
#include "Watchers.h"

#include <Kiv/Owned.h>

#include <gtest/gtest.h>

#include <functional>
#include <new>
#include <stdexcept>

using namespace delivery;

namespace {

using Event = Kiv::Ptr< Stage::EventConfig const >;
using Object = Kiv::Ptr< Kiv::PtrInterface const >;

// What happens, in order.
Journal steps;

// Owns reactors on events: one, and some under keys.
class House : public Kiv::Machine< Kiv::PtrInterface, House > {
 public:
   class Part : public Kiv::OwnedReactor< Stage::EventConfig::NotifieeConst, House, Kiv::String8 > {
    public:
      Part( Event const & event, Kiv::String8 const & key, House * house )
         : OwnedReactor( event, house, key ) {
         if( house->makesNone )
            throw std::bad_alloc();
         steps.push_back( "made" );
      }
      ~Part() override { steps.push_back( "destroyed" ); }
      void notifierIs( Object const & event ) override {
         attachAndReact( event, [ & ] { handleAttached(); } );
      }
      void kivDoZombieReactors( bool zombie ) override {
         steps.push_back( state( zombie ? "mark: " : "unmark: " ) );
         OwnedReactor::kivDoZombieReactors( zombie );
      }
      void onTimeout() override { react( &House::handleTimeout ); }
      using OwnedReactor::onDependency;
      void onDependency( Kiv::String8 stage ) override { react( &Part::handleDependency, stage ); }
      void onCritical() override {
         react( []( House & house ) {
            house.parts.memberDelAll();
            house.letGo();
            steps.push_back( "reacted" );
         } );
      }

      void handleDependency( Kiv::String8 stage ) {
         steps.push_back( "part heard " + text( stage ) );
      }
      void handleAttached() {
         steps.push_back( "attached" );
         if( owner() && owner()->attachingThrows )
            throw std::runtime_error( "attaching" );
      }
      std::string state( std::string const & what ) const {
         bool const held = owner() && owner()->parts.member( fwkKey() );
         return what + ( kivMarkedForDeletion() ? "marked" : "unmarked" ) +
                ( held ? ", held" : ", not held" ) + ( owner() ? ", owned" : ", not owned" );
      }
   };

   // One that has nothing to do when it is attached.
   class Lamp : public Kiv::OwnedReactor< Stage::EventConfig::NotifieeConst, House > {
      using OwnedReactor::OwnedReactor;
   };

   ~House() override {
      steps.push_back( "house goes" );
      kivDoZombieReactors( true );
      one.ownerGoes();
      lamp.ownerGoes();
      parts.memberDelAll();
   }
   Kiv::Ptr< Part > made( Event const & event, char const * key = "key" ) {
      return Kiv::newOwned< Part >( *this, event, Kiv::String8( key ) );
   }
   Kiv::Ptr< Part > partIs( Event const & event, char const * key = "key" ) {
      return parts.memberIs(
         key, event, [ & ] { return made( event, key ); },
         []( Part & part ) { steps.push_back( part.state( "stored: " ) ); } );
   }
   void reactionBegins() { steps.push_back( "begins" ); }
   void handleTimeout() { steps.push_back( "house heard" ); }

   std::function< void() > letGo;
   bool makesNone = false;
   bool attachingThrows = false;
   Kiv::Owned< Part > one;
   Kiv::Owned< Lamp > lamp;
   Kiv::OwnedByKey< Part, Kiv::String8 > parts;

 private:
   friend Machine;
   auto owned() { return std::tie( one, lamp, parts ); }
};

class OwnedReactors : public testing::Test {
 protected:
   OwnedReactors() { steps.clear(); }
   Lines taken() { return std::exchange( steps, {} ); }
   testing_support::Loop loop;
   Kiv::Ptr< Stage::EventConfig > const event = newEvent();
   Kiv::Ptr< Stage::EventConfig > const other = newEvent( "Disk" );
   Kiv::Ptr< House > house = new House;
};

} // namespace

// ---- letting go

TEST_F( OwnedReactors, AreMarkedThenLeaveTheirPlaceThenPartThenLoseTheirOwnerThenGo ) {
   house->partIs( event );
   taken();
   EXPECT_TRUE( house->parts.memberDel(
      "key", []( House::Part & part ) { steps.push_back( part.state( "parting: " ) ); } ) );
   EXPECT_EQ( taken(), ( Lines{ "mark: unmarked, held, owned", "parting: marked, not held, owned",
                                "destroyed" } ) );
   EXPECT_FALSE( house->parts.memberDel( "key" ) );
}

TEST_F( OwnedReactors, DoNotPartWhenTheirOwnerIsTornDown ) {
   auto const part = house->partIs( event );
   house->kivDoZombieReactors( true );
   house->parts.memberDel( "key", []( House::Part & ) { FAIL() << "parted"; } );
   EXPECT_EQ( part->owner(), nullptr );
}

TEST_F( OwnedReactors, LoseTheirOwnerAlsoWhenThePartingThrows ) {
   auto const part = house->partIs( event );
   EXPECT_THROW(
      house->parts.memberDel( "key", []( House::Part & ) { throw std::runtime_error( "" ); } ),
      std::runtime_error );
   EXPECT_EQ( part->owner(), nullptr );
   EXPECT_TRUE( part->kivMarkedForDeletion() );
   EXPECT_EQ( house->parts.size(), 0U );
}

TEST_F( OwnedReactors, GoByAKeyThatBelongsToThem ) {
   house->partIs( event );
   Kiv::HashMap< House::Part, Kiv::String8 > const & all = house->parts;
   for( auto i = all.iterator(); i; ++i )
      house->parts.memberDel( i.ptr()->fwkKey() );
   EXPECT_EQ( house->parts.size(), 0U );
}

TEST_F( OwnedReactors, ThatSomebodyKeepsNeverReactAgain ) {
   house->hasNotificationActiveIs( true );
   auto const part = house->partIs( event );
   event->timeoutIs( 1 );
   house->parts.memberDelAll();
   event->timeoutIs( 2 );
   loop.deliver();
   part->kivDoZombieReactors( false ); // not even when somebody takes the mark back
   taken();
   event->timeoutIs( 3 );
   loop.deliver();
   EXPECT_EQ( taken(), Lines{} );
}

TEST_F( OwnedReactors, ThatAreLeftToTheirPlaceLoseADyingOwner ) {
   house->one.reactorIs( house->made( event ) );
   auto const part = house->one.reactor();
   house = nullptr;
   EXPECT_TRUE( part->kivMarkedForDeletion() );
   EXPECT_EQ( part->owner(), nullptr );
}

TEST_F( OwnedReactors, OfAnEmptiedPlaceAreGone ) {
   house->one.notifierIs( event, [ & ] { return house->made( event ); } );
   taken();
   house->one.del();
   EXPECT_FALSE( house->one );
   EXPECT_FALSE( house->one.notifier() );
   EXPECT_EQ( steps.back(), "destroyed" );
   house->one.del();
}

// ---- making

TEST_F( OwnedReactors, AreSwitchedOnAsTheirOwnerIs ) {
   EXPECT_FALSE( house->made( event )->hasNotificationActive() );
   house->hasNotificationActiveIs( true );
   EXPECT_TRUE( house->made( event )->hasNotificationActive() );
}

TEST_F( OwnedReactors, AreStoredOnceMadeAndAttachedAnewAfterThat ) {
   auto const part = house->partIs( event );
   EXPECT_EQ( taken(), ( Lines{ "made", "stored: unmarked, held, owned" } ) );
   EXPECT_EQ( house->partIs( other ), part );
   EXPECT_EQ( taken(), Lines{ "attached" } );
   EXPECT_EQ( part->notifier(), Event( other ) );
   EXPECT_TRUE( part->isRegisteredNotifiee() );
   house->partIs( other );
   EXPECT_EQ( taken(), Lines{} );
}

TEST_F( OwnedReactors, AreNotStoredWhenMakingThemFails ) {
   house->makesNone = true;
   EXPECT_THROW( house->partIs( event ), std::bad_alloc );
   EXPECT_THROW( house->one.notifierIs( event, [ & ] { return house->made( event ); } ),
                 std::bad_alloc );
   EXPECT_EQ( house->parts.size(), 0U );
   EXPECT_FALSE( house->one );
   EXPECT_FALSE( event->hasNotifiees() );
   house->makesNone = false;
   EXPECT_TRUE( house->partIs( event ) );
}

TEST_F( OwnedReactors, InAPlaceAreAttachedAndRegisteredAgainAlsoAfterNothing ) {
   auto const make = [ & ] { return Kiv::newOwned< House::Lamp >( *house, event ); };
   house->lamp.notifierIs( event, make );
   auto const lamp = house->lamp.reactor();
   house->lamp.notifierIs( nullptr, make );
   EXPECT_FALSE( house->lamp.notifier() );
   house->lamp.notifierIs( other, make );
   EXPECT_EQ( house->lamp.reactor(), lamp );
   EXPECT_EQ( house->lamp.notifier(), Event( other ) );
   EXPECT_TRUE( lamp->isRegisteredNotifiee() );
}

// ---- attaching anew

TEST_F( OwnedReactors, WatchWhatTheyWatchedBeforeWhenAttachingThrows ) {
   auto const part = house->partIs( event );
   house->attachingThrows = true;
   EXPECT_THROW( house->partIs( other ), std::runtime_error );
   EXPECT_EQ( part->notifier(), Event( event ) );
   EXPECT_TRUE( part->isRegisteredNotifiee() );
   house->attachingThrows = false;
   taken();
   house->partIs( other );
   EXPECT_EQ( taken(), Lines{ "attached" } );
}

TEST_F( OwnedReactors, DoNotReactToWhatTheyAreAttachedToOnceMarked ) {
   auto const part = house->partIs( event );
   part->kivDoZombieReactors( true );
   taken();
   part->notifierIs( Object( other ) );
   EXPECT_EQ( taken(), Lines{} );
   EXPECT_FALSE( part->isRegisteredNotifiee() );
}

// ---- reacting

TEST_F( OwnedReactors, TellTheirOwnerBeforeEachReactionOfEitherOfThem ) {
   house->hasNotificationActiveIs( true );
   auto const part = house->partIs( event );
   taken();
   event->timeoutIs( 1 );
   event->dependencyIs( "Disk", true );
   loop.deliver();
   EXPECT_EQ( taken(), ( Lines{ "begins", "house heard", "begins", "part heard Disk" } ) );
}

TEST_F( OwnedReactors, DoNotReactOnceMarked ) {
   auto const part = house->partIs( event );
   part->kivDoZombieReactors( true );
   part->hasNotificationActiveIs( true );
   taken();
   part->onTimeout();
   EXPECT_EQ( taken(), Lines{} );
}

TEST_F( OwnedReactors, KeepTheirOwnerWhileTheyReact ) {
   house->hasNotificationActiveIs( true );
   house->partIs( event );
   taken();
   house->letGo = [ this ] { house = nullptr; };
   event->criticalIs( true );
   loop.deliver();
   EXPECT_EQ( taken(), ( Lines{ "begins", "mark: unmarked, held, owned", "reacted", "house goes",
                                "destroyed" } ) );
}

// ---- what handlers that may be cut short are made of

TEST( OnException, UndoesWhatAnExceptionLeavesAndNothingElse ) {
   int undone = 0;
   {
      Kiv::OnException const undo( [ & ] { ++undone; } );
   }
   EXPECT_EQ( undone, 0 );
   try {
      Kiv::OnException const undo( [ & ] { ++undone; } );
      throw 1;
   } catch( int ) {
   }
   EXPECT_EQ( undone, 1 );
}

TEST( Kept, IsAReferenceToWhatSomebodyHoldsAndNullForAllElse ) {
   struct Plain : Kiv::PtrInterface {};
   Plain nobodys;
   EXPECT_FALSE( Kiv::kept( &nobodys ) );
   EXPECT_FALSE( Kiv::kept( static_cast< Plain * >( nullptr ) ) );
   Kiv::Ptr< Plain > const held = new Plain;
   EXPECT_EQ( Kiv::kept( held.get() ), held );
}
