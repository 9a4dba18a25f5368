// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// What a setter does and leaves undone, and the order in which its consequences arrive.
#include "../support/Loop.h"
#include "Watchers.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>

using namespace delivery;

namespace {

class Delivery : public testing::Test {
 protected:
   Kiv::Ptr< Watcher > watch( char const * id, Kiv::Ptr< Stage::EventConfig > const & watched ) {
      return new Watcher( id, journal, watched );
   }
   Lines taken() { return std::exchange( journal, {} ); }

   testing_support::Loop loop;
   Journal journal;
   Kiv::Ptr< Stage::EventConfig > const event = newEvent();
};

} // namespace

TEST_F( Delivery, ASetterChangesTheValueAtOnceAndCallsNobody ) {
   auto const a = watch( "a", event );
   event->timeoutIs( 5 );
   event->dependencyIs( "Disk", true );
   EXPECT_EQ( event->timeout(), 5 );
   EXPECT_TRUE( event->dependency( "Disk" ) );
   EXPECT_EQ( journal, Lines{} );
   EXPECT_EQ( a->pendingNotifications(), 2U );
   loop.deliver();
   EXPECT_EQ( journal, ( Lines{ "a timeout 5", "a dependency Disk true" } ) );
}

TEST_F( Delivery, AFiredTimerDoesNotDeliverWhatItsCallbackQueues ) {
   class Timer : public Kiv::Clock::NotifieeConst {
    public:
      explicit Timer( Kiv::Ptr< Stage::EventConfig > const & e ) : event_( e ) {
         watch( Kiv::activityManager()->clock() );
      }
      void onTime() override { event_->timeoutIs( 1 ); }

    private:
      Kiv::Ptr< Stage::EventConfig > event_;
   };
   auto const a = watch( "a", event );
   Kiv::Ptr< Timer > const timer = new Timer( event );
   timer->timeMinIs( loop.now() );
   EXPECT_TRUE( loop.fire() );
   EXPECT_EQ( journal, Lines{} );
   EXPECT_TRUE( Kiv::activityManager()->runOne() );
   EXPECT_EQ( journal, Lines{ "a timeout 1" } );
}

TEST_F( Delivery, AValueThatIsAlreadyHeldQueuesNothing ) {
   auto const a = watch( "a", event );
   event->completeIs( false );
   event->timeoutIs( std::numeric_limits< double >::infinity() );
   EXPECT_FALSE( Kiv::activityManager()->runOne() );
   event->dependencyIs( "Disk", false );
   loop.deliver();
   taken();
   event->dependencyIs( "Disk", false );
   event->dependencyDel( "Boot" );
   EXPECT_EQ( a->pendingNotifications(), 0U );
   EXPECT_FALSE( Kiv::activityManager()->runOne() );
   event->dependencyDelAll();
   loop.deliver();
   taken();
   event->dependencyDelAll();
   EXPECT_FALSE( Kiv::activityManager()->runOne() );
}

TEST_F( Delivery, ANaNIsTheSameAsANaN ) {
   auto const a = watch( "a", event );
   event->timeoutIs( std::nan( "" ) );
   loop.deliver();
   EXPECT_EQ( taken(), Lines{ "a timeout nan" } );
   event->timeoutIs( -std::nan( "1" ) );
   EXPECT_EQ( a->pendingNotifications(), 0U );
   event->timeoutIs( 1 );
   loop.deliver();
   EXPECT_EQ( taken(), Lines{ "a timeout 1" } );
}

TEST_F( Delivery, ForAPointerTheSameObjectIsTheSameValueAndAnEqualOneIsNot ) {
   class ConfigWatcher : public Stage::Config::NotifieeConst {
    public:
      explicit ConfigWatcher( Kiv::Ptr< Stage::Config > const & config ) { watch( config ); }
   };
   auto const config = Stage::Config::ConfigIs( "config" );
   Kiv::Ptr< ConfigWatcher > const a = new ConfigWatcher( config );
   auto const dir = Kiv::Dir::DirIs( "agents" );
   config->agentDirIs( dir );
   EXPECT_EQ( loop.clock()->nextTime(), Kiv::infinity );
   EXPECT_EQ( Kiv::activityManager()->runQueued(), 1U );
   config->agentDirIs( dir );
   EXPECT_EQ( Kiv::activityManager()->runQueued(), 0U );
   config->agentDirIs( Kiv::Dir::DirIs( "agents" ) );
   EXPECT_EQ( Kiv::activityManager()->runQueued(), 1U );
   config->agentDirIs( nullptr );
   EXPECT_EQ( Kiv::activityManager()->runQueued(), 1U );
   config->agentDirIs( nullptr );
   EXPECT_EQ( Kiv::activityManager()->runQueued(), 0U );
}

TEST_F( Delivery, AValueThatGoesAndComesBackBeforeDeliveryIsStillToldOnce ) {
   auto const a = watch( "a", event );
   event->criticalIs( true );
   event->criticalIs( false );
   loop.deliver();
   EXPECT_EQ( journal, Lines{ "a critical false" } );
}

TEST_F( Delivery, OneQueueServesAllAttributesAndEntitiesFirstInFirstOut ) {
   auto const other = newEvent( "Gui" );
   auto const a = watch( "a", event );
   auto const b = watch( "b", other );
   other->criticalIs( true );
   event->dependencyIs( "Disk", true );
   other->timeoutIs( 2 );
   event->completeIs( true );
   other->dependencyIs( "Net", true );
   loop.deliver();
   EXPECT_EQ( journal, ( Lines{ "b critical true", "a dependency Disk true", "b timeout 2",
                                "a complete true", "b dependency Net true" } ) );
}

TEST_F( Delivery, APendingCallbackKeepsItsFirstPlaceAndSeesTheStateThatHoldsWhenItRuns ) {
   auto const a = watch( "a", event );
   event->timeoutIs( 1 );
   event->dependencyIs( "Disk", true );
   event->criticalIs( true );
   event->timeoutIs( 2 );
   event->dependencyDel( "Disk" );
   EXPECT_EQ( a->pendingNotifications(), 3U );
   loop.deliver();
   EXPECT_EQ( journal, ( Lines{ "a timeout 2", "a dependency Disk gone", "a critical true" } ) );
}

TEST_F( Delivery, AChangeAfterTheCallbackHasStartedIsPendingAnew ) {
   auto const a = watch( "a", event );
   a->act = [ & ] {
      if( event->timeout() < 3 )
         event->timeoutIs( event->timeout() + 1 );
   };
   event->timeoutIs( 1 );
   loop.deliver();
   EXPECT_EQ( journal, ( Lines{ "a timeout 1", "a timeout 2", "a timeout 3" } ) );
}

TEST_F( Delivery, KeysOfOneCollectionArePendingEachOnItsOwn ) {
   auto const a = watch( "a", event );
   event->dependencyIs( "Disk", true );
   event->dependencyIs( "Boot", true );
   event->dependencyIs( "Disk", false );
   loop.deliver();
   EXPECT_EQ( journal,
              ( Lines{ "a dependency Disk false", "a dependency Boot true", "a dependency..." } ) );
}

TEST_F( Delivery, CallbacksNeverNestAndNeverRunInsideASetter ) {
   int depth = 0;
   int deepest = 0;
   auto const a = watch( "a", event );
   auto const b = watch( "b", event );
   auto const act = [ & ] {
      deepest = std::max( deepest, ++depth );
      auto const before = journal.size();
      event->criticalIs( true );
      event->dependencyIs( "Disk", true );
      EXPECT_EQ( journal.size(), before );
      --depth;
   };
   a->act = b->act = act;
   event->timeoutIs( 1 );
   loop.deliver();
   EXPECT_EQ( deepest, 1 );
   EXPECT_EQ( journal, ( Lines{ "a timeout 1", "b timeout 1", "a critical true", "b critical true",
                                "a dependency Disk true", "b dependency Disk true" } ) );
}

TEST_F( Delivery, ReactorsOfOneEntityAreServedInOrderOfRegistration ) {
   auto const a = watch( "a", event );
   auto const b = watch( "b", event );
   auto const c = watch( "c", event );
   event->timeoutIs( 1 );
   loop.deliver();
   EXPECT_EQ( taken(), ( Lines{ "a timeout 1", "b timeout 1", "c timeout 1" } ) );

   a->isRegisteredNotifieeIs( true ); // again: keeps its place
   event->dependencyIs( "Disk", true );
   loop.deliver();
   EXPECT_EQ( taken(), ( Lines{ "a dependency Disk true", "b dependency Disk true",
                                "c dependency Disk true" } ) );

   a->isRegisteredNotifieeIs( false );
   a->isRegisteredNotifieeIs( true ); // anew: the last now
   event->timeoutIs( 2 );
   loop.deliver();
   EXPECT_EQ( taken(), ( Lines{ "b timeout 2", "c timeout 2", "a timeout 2" } ) );
}

TEST_F( Delivery, ARegistrationInTheMiddleOfTheListLeavesTheOthersInOrder ) {
   auto const a = watch( "a", event );
   auto b = watch( "b", event );
   auto const c = watch( "c", event );
   auto const d = watch( "d", event );
   c->isRegisteredNotifieeIs( false );
   b = nullptr;
   event->timeoutIs( 1 );
   loop.deliver();
   EXPECT_EQ( taken(), ( Lines{ "a timeout 1", "d timeout 1" } ) );
}

TEST_F( Delivery, RunOneDeliversExactlyOneCallback ) {
   auto const a = watch( "a", event );
   auto const b = watch( "b", event );
   event->timeoutIs( 1 );
   EXPECT_TRUE( Kiv::activityManager()->runOne() );
   EXPECT_EQ( journal, Lines{ "a timeout 1" } );
   EXPECT_FALSE( Kiv::activityManager()->idle() );
   EXPECT_TRUE( Kiv::activityManager()->runOne() );
   EXPECT_EQ( journal, ( Lines{ "a timeout 1", "b timeout 1" } ) );
   EXPECT_TRUE( Kiv::activityManager()->idle() );
   EXPECT_FALSE( Kiv::activityManager()->runOne() );
   EXPECT_EQ( journal.size(), 2U );
}

TEST_F( Delivery, AnEntitysOwnFlagIsToldLikeAnAttribute ) {
   auto const a = watch( "a", event );
   event->isNondestructingIs( true );
   loop.deliver();
   EXPECT_EQ( taken(), Lines{} );
   event->isNondestructingIs( false );
   EXPECT_EQ( taken(), Lines{} );
   loop.deliver();
   EXPECT_EQ( taken(), Lines{ "a isNondestructing false" } );
}

// ---- a type of the test's own, with the lowest and the highest number that an attribute may have

namespace {

class Wide : public Kiv::Entity {
 public:
   class NotifieeConst : public Kiv::NotifieeOf< Wide, Kiv::Entity::NotifieeConst > {
    public:
      virtual void onLow() {}
      virtual void onHigh() {}
   };
   static constexpr Kiv::Attribute rows[] = {
      Kiv::Attribute( "low", "double", "", Kiv::Role::notifying,
                      Kiv::changes< &NotifieeConst::onLow >() )
         .numberIs( Kiv::firstOwnAttribute ),
      Kiv::Attribute( "high", "double", "", Kiv::Role::notifying,
                      Kiv::changes< &NotifieeConst::onHigh >() )
         .numberIs( Kiv::wholeAttributes - 1 ),
   };
   explicit Wide( Kiv::Name const & name ) : Entity( name ) {}
   void lowIs( double value ) { low_.valueIs( *this, rows[ 0 ], value ); }
   void highIs( double value ) { high_.valueIs( *this, rows[ 1 ], value ); }

 private:
   Kiv::Scalar< double > low_;
   Kiv::Scalar< double > high_;
};

class WideWatcher : public Wide::NotifieeConst {
 public:
   WideWatcher( Kiv::Ptr< Wide > const & wide, Journal & journal ) : journal_( journal ) {
      watch( wide );
   }
   void onLow() override { journal_.push_back( "low" ); }
   void onHigh() override { journal_.push_back( "high" ); }

 private:
   Journal & journal_;
};

} // namespace

TEST_F( Delivery, TheLowestAndTheHighestAttributeAreToldApart ) {
   Kiv::Ptr< Wide > const wide = new Wide( "wide" );
   Kiv::Ptr< WideWatcher > const a = new WideWatcher( wide, journal );
   wide->lowIs( 1 );
   wide->highIs( 1 );
   wide->lowIs( 2 );
   loop.deliver();
   EXPECT_EQ( taken(), ( Lines{ "low", "high" } ) );
   wide->highIs( 2 );
   wide->lowIs( 3 );
   wide->highIs( 3 );
   loop.deliver();
   EXPECT_EQ( taken(), ( Lines{ "high", "low" } ) );
}

TEST_F( Delivery, ATableWithMorePlainAttributesThanCanBeToldApartIsRefused ) {
   constexpr Kiv::Attribute plain( "plain", "double", "", Kiv::Role::notifying,
                                   Kiv::changes< &Wide::NotifieeConst::onLow >() );
   std::vector< Kiv::Attribute > rows( Kiv::wholeAttributes - Kiv::firstOwnAttribute, plain );
   EXPECT_NO_THROW( Kiv::numberThem( rows ) );
   EXPECT_EQ( rows.front().id, Kiv::firstOwnAttribute );
   EXPECT_EQ( rows.back().id, Kiv::wholeAttributes - 1 );
   rows.push_back( plain );
   EXPECT_THROW( Kiv::numberThem( rows ), Kiv::RangeException );
   rows.back() = Kiv::Attribute( "plain", "double", "", Kiv::Role::operation );
   EXPECT_NO_THROW( Kiv::numberThem( rows ) );
   EXPECT_EQ( rows.back().id, Kiv::wholeAttributes );
}
