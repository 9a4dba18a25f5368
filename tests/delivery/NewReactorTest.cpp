// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// What newReactor() says when it runs. What the compiler says of it stands in tests/refused.
#include "../support/Loop.h"

#include <Stage/Stage.h>

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <tuple>

namespace {

using Stage::EventConfig;

enum class Start { watching, attachedOnly, registeredOnly, apart, throwing };

class Counter : public EventConfig::NotifieeConst {
 public:
   Counter( Kiv::Ptr< EventConfig > const & event, int & alive, Start start = Start::watching )
      : alive_( alive ) {
      switch( start ) {
      case Start::watching:
         watch( event );
         break;
      case Start::attachedOnly:
         notifierIs( event );
         break;
      case Start::registeredOnly:
         notifierIs( event );
         isRegisteredNotifieeIs( true );
         break;
      case Start::apart:
         break;
      case Start::throwing:
         throw std::runtime_error( "not made" );
      }
      ++alive_;
   }
   ~Counter() override { --alive_; }
   void onComplete() override { ++calls; }

   int calls = 0;

 private:
   int & alive_;
};

class NewReactor : public testing::Test {
 protected:
   // What it is refused with.
   std::string refusal( Start start, Kiv::Ptr< EventConfig > const & watched ) {
      try {
         auto const reactor = Kiv::newReactor< Counter >( watched, alive, start );
      } catch( Kiv::RangeException const & e ) {
         return e.what();
      }
      return "accepted";
   }

   testing_support::Loop loop;
   Kiv::Ptr< EventConfig > const event = EventConfig::EventConfigIs( "Net", "Routing" );
   int alive = 0;
};

} // namespace

TEST_F( NewReactor, IsToldOfChangesUntilItsPtrIsDropped ) {
   auto reactor = Kiv::newReactor< Counter >( event, alive );
   EXPECT_EQ( reactor->references(), 1U );
   EXPECT_EQ( reactor->notifier(), event );
   event->completeIs( true );
   EXPECT_EQ( reactor->calls, 0 );
   loop.deliver();
   EXPECT_EQ( reactor->calls, 1 );
   reactor = nullptr;
   EXPECT_EQ( alive, 0 );
   EXPECT_FALSE( event->hasNotifiees() );
}

TEST_F( NewReactor, IsRefusedWhenItsConstructorDoesNotWatch ) {
   for( Start const start : { Start::apart, Start::attachedOnly, Start::registeredOnly } ) {
      EXPECT_EQ( refusal( start, event ), "the reactor watches nothing" );
      EXPECT_EQ( alive, 0 );
      EXPECT_FALSE( event->hasNotifiees() );
   }
}

TEST_F( NewReactor, IsRefusedWhenItWatchesNull ) {
   EXPECT_EQ( refusal( Start::watching, nullptr ), "the reactor watches nothing" );
   EXPECT_EQ( alive, 0 );
}

TEST_F( NewReactor, PassesOnWhatItsConstructorThrows ) {
   EXPECT_THROW( std::ignore = Kiv::newReactor< Counter >( event, alive, Start::throwing ),
                 std::runtime_error );
   EXPECT_FALSE( event->hasNotifiees() );
}
