// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Timers: when they fire, in which order, and when they do not.
#include "../support/Loop.h"
#include "Timers.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <optional>
#include <random>
#include <sstream>
#include <utility>

using namespace activity;

namespace {

class Timers : public testing::Test {
 protected:
   Kiv::Ptr< Timer > timer( char const * id ) { return new Timer( id, journal ); }
   Kiv::Ptr< Timer > timer( char const * id, double time ) {
      auto const made = timer( id );
      made->timeMinIs( time );
      return made;
   }
   // Fires all that is due; in which order.
   Lines fired() {
      while( loop.fire() ) {
      }
      return std::exchange( journal, {} );
   }
   double nextTime() const { return Kiv::activityManager()->nextTime(); }

   testing_support::Loop loop; // starts at 1000
   Journal journal;
};

} // namespace

TEST_F( Timers, ANewOneIsDisarmed ) {
   auto const a = timer( "a" );
   EXPECT_EQ( a->timeMin(), Kiv::infinity );
   EXPECT_EQ( nextTime(), Kiv::infinity );
   loop.nowIs( 1e9 );
   EXPECT_EQ( fired(), Lines{} );
}

TEST_F( Timers, OneFiresWhenTheClockReachesItsTimeAndNotBefore ) {
   auto const a = timer( "a", 1005 );
   EXPECT_EQ( nextTime(), 1005 );
   EXPECT_EQ( a->timeMin(), 1005 );
   loop.nowIs( std::nextafter( 1005, 0 ) );
   EXPECT_EQ( fired(), Lines{} );
   loop.nowIs( 1005 );
   EXPECT_EQ( fired(), Lines{ "a" } );
   loop.nowIs( 2000 );
   EXPECT_EQ( fired(), Lines{} );
   EXPECT_EQ( nextTime(), Kiv::infinity );
}

TEST_F( Timers, TheyFireInOrderOfTimeThenOfArming ) {
   auto const a = timer( "a", 1003 );
   auto const b = timer( "b", 1002 );
   auto const c = timer( "c", 1003 );
   auto const d = timer( "d", 1001 );
   auto const e = timer( "e", 1002 );
   loop.nowIs( 1010 );
   EXPECT_EQ( fired(), ( Lines{ "d", "b", "e", "a", "c" } ) );
}

TEST_F( Timers, ArmingAnewIsANewPlaceAmongEqualsAndSettingTheSameTimeIsNot ) {
   auto const a = timer( "a", 1002 );
   auto const b = timer( "b", 1002 );
   a->timeMinIs( 1002 ); // set already: changes nothing
   loop.nowIs( 1001 );
   EXPECT_EQ( nextTime(), 1002 );
   loop.nowIs( 1002 );
   EXPECT_EQ( fired(), ( Lines{ "a", "b" } ) );
   a->timeMinIs( 1002 );
   b->timeMinIs( 1002 );
   a->timeMinIs( 1001 );
   a->timeMinIs( 1002 ); // by way of another: armed after b
   EXPECT_EQ( fired(), ( Lines{ "b", "a" } ) );
}

TEST_F( Timers, InfinityDisarms ) {
   auto const a = timer( "a", 1001 );
   a->timeMinIs( Kiv::infinity );
   EXPECT_EQ( nextTime(), Kiv::infinity );
   loop.nowIs( 1002 );
   EXPECT_EQ( fired(), Lines{} );
}

TEST_F( Timers, ANaNDisarms ) {
   auto const a = timer( "a", 1001 );
   a->timeMinIs( std::nan( "" ) );
   EXPECT_EQ( a->timeMin(), Kiv::infinity );
   EXPECT_EQ( nextTime(), Kiv::infinity );
   a->timeMinIs( -std::nan( "" ) );
   loop.nowIs( 1002 );
   EXPECT_EQ( fired(), Lines{} );
   a->timeMinIs( 1003 );
   loop.nowIs( 1003 );
   EXPECT_EQ( fired(), Lines{ "a" } );
}

TEST_F( Timers, ATimeInThePastIsDueAtOnceButNotInsideTheSetter ) {
   auto const a = timer( "a", 1 );
   auto const b = timer( "b", -Kiv::infinity );
   EXPECT_EQ( journal, Lines{} );
   EXPECT_EQ( nextTime(), -Kiv::infinity );
   EXPECT_EQ( fired(), ( Lines{ "b", "a" } ) );
}

TEST_F( Timers, OneIsDisarmedBeforeOnTimeSoThatTheSameInstantCountsAsAChange ) {
   auto const a = timer( "a" );
   int times = 0;
   a->act = [ & ] {
      EXPECT_EQ( a->timeMin(), Kiv::infinity );
      if( ++times < 3 )
         a->timeMinIs( 1000 );
   };
   a->timeMinIs( 1000 );
   EXPECT_EQ( fired(), ( Lines{ "a", "a", "a" } ) );
   EXPECT_EQ( a->timeMin(), Kiv::infinity );
}

TEST_F( Timers, FireOneFiresOneAndDeliversNothing ) {
   auto const a = timer( "a", 1000 );
   auto const b = timer( "b", 1000 );
   EXPECT_TRUE( loop.fire() );
   EXPECT_EQ( journal, Lines{ "a" } );
   EXPECT_TRUE( loop.fire() );
   EXPECT_EQ( journal, ( Lines{ "a", "b" } ) );
   EXPECT_FALSE( loop.fire() );
}

TEST_F( Timers, OneWhoseNotificationsAreOffDoesNotFireAndIsLookedAtAgainWhenTheyAreOn ) {
   auto const a = timer( "a", 1001 );
   auto const b = timer( "b", 1001 );
   a->hasNotificationActiveIs( false );
   EXPECT_EQ( a->timeMin(), 1001 );
   loop.nowIs( 1005 );
   EXPECT_EQ( fired(), Lines{ "b" } );
   EXPECT_EQ( nextTime(), Kiv::infinity );
   a->hasNotificationActiveIs( true );
   EXPECT_EQ( nextTime(), 1001 );
   EXPECT_EQ( fired(), Lines{ "a" } );
}

TEST_F( Timers, OneThatIsArmedWhileOffFiresWhenOn ) {
   auto const a = timer( "a" );
   a->hasNotificationActiveIs( false );
   a->timeMinIs( 1001 );
   EXPECT_EQ( nextTime(), Kiv::infinity );
   loop.nowIs( 1001 );
   EXPECT_EQ( fired(), Lines{} );
   a->hasNotificationActiveIs( true );
   EXPECT_EQ( fired(), Lines{ "a" } );
}

TEST_F( Timers, AMarkedOneDoesNotFireAndTheNextOneDoes ) {
   auto const a = timer( "a", 1000 );
   auto const b = timer( "b", 1000 );
   a->kivMarkedForDeletionIs( true );
   EXPECT_TRUE( loop.fire() );
   EXPECT_EQ( journal, Lines{ "b" } );
   EXPECT_FALSE( loop.fire() );
}

TEST_F( Timers, OneThatIsNotRegisteredDoesNotFire ) {
   auto const a = timer( "a", 1000 );
   a->isRegisteredNotifieeIs( false );
   EXPECT_EQ( nextTime(), Kiv::infinity );
   EXPECT_EQ( fired(), Lines{} );
   a->isRegisteredNotifieeIs( true );
   EXPECT_EQ( fired(), Lines{ "a" } );
}

TEST_F( Timers, ADestroyedOneDoesNotFire ) {
   auto a = timer( "a", 1000 );
   auto const b = timer( "b", 1000 );
   a = nullptr;
   EXPECT_EQ( fired(), Lines{ "b" } );
}

TEST_F( Timers, OneMayDestroyAnotherThatIsDueAsWell ) {
   auto const a = timer( "a", 1000 );
   auto b = timer( "b", 1000 );
   auto const c = timer( "c", 1000 );
   a->act = [ & ] { b = nullptr; };
   EXPECT_EQ( fired(), ( Lines{ "a", "c" } ) );
}

TEST_F( Timers, OneMayDestroyItself ) {
   auto a = timer( "a", 1000 );
   auto const b = timer( "b", 1000 );
   a->act = [ & ] { a = nullptr; };
   EXPECT_EQ( fired(), ( Lines{ "a", "b" } ) );
}

TEST_F( Timers, OneMayDisarmPutOffOrPutForwardAnother ) {
   auto const a = timer( "a", 1000 );
   auto const b = timer( "b", 1000 );
   auto const c = timer( "c", 1000 );
   auto const d = timer( "d", 1500 );
   a->act = [ & ] {
      b->timeMinIs( Kiv::infinity );
      c->timeMinIs( 1001 );
      d->timeMinIs( 999 );
   };
   EXPECT_EQ( fired(), ( Lines{ "a", "d" } ) );
   loop.nowIs( 1001 );
   EXPECT_EQ( fired(), Lines{ "c" } );
}

// The others close up whatever the one that fires does, and in which order.
TEST_F( Timers, WhileOneFiresTheOthersAreArmedAndItIsNot ) {
   auto const a = timer( "a", 1000 );
   auto const b = timer( "b", 1000.5 );
   auto const c = timer( "c", 1001 );
   a->act = [ & ] {
      EXPECT_EQ( loop.clock()->armedTimers(), 2U );
      EXPECT_EQ( nextTime(), 1000.5 );
      b->timeMinIs( Kiv::infinity );
      EXPECT_EQ( nextTime(), 1001 );
      c->timeMinIs( Kiv::infinity );
      EXPECT_EQ( nextTime(), Kiv::infinity );
      EXPECT_EQ( loop.clock()->armedTimers(), 0U );
      a->timeMinIs( 1002 );
      EXPECT_EQ( nextTime(), 1002 );
      b->timeMinIs( 1001 );
   };
   EXPECT_EQ( fired(), Lines{ "a" } );
   EXPECT_EQ( loop.clock()->armedTimers(), 2U );
   EXPECT_EQ( nextTime(), 1001 );
}

TEST_F( Timers, OneMayMakeOthersWhileItFiresAndGo ) {
   auto a = timer( "a", 1000 );
   std::vector< Kiv::Ptr< Timer > > made;
   a->act = [ & ] {
      a = nullptr;
      for( int i = 0; i != 20; ++i ) {
         made.push_back( new Timer( std::to_string( i ), journal ) );
         made.back()->timeMinIs( 1000 - i % 2 );
      }
   };
   Lines const all = fired();
   ASSERT_EQ( all.size(), 21U );
   EXPECT_EQ( all[ 1 ], "1" );
   EXPECT_EQ( all[ 10 ], "19" );
   EXPECT_EQ( all[ 11 ], "0" );
   EXPECT_EQ( all[ 20 ], "18" );
}

TEST_F( Timers, AttachingToAnotherClockDisarms ) {
   auto const other = Kiv::ManualClock::ManualClockIs( 5000 );
   auto const a = timer( "a", 1000 );
   a->notifierIs( Kiv::Ptr< Kiv::PtrInterface const >( other ) );
   EXPECT_EQ( a->timeMin(), Kiv::infinity );
   EXPECT_FALSE( a->isRegisteredNotifiee() );
   EXPECT_EQ( fired(), Lines{} );
   a->isRegisteredNotifieeIs( true );
   a->timeMinIs( 4000 );
   EXPECT_EQ( nextTime(), Kiv::infinity );
   EXPECT_EQ( other->nextTime(), 4000 );
   EXPECT_EQ( fired(), Lines{} ); // its clock is not the installed one
   Kiv::activityManager()->clockIs( other );
   EXPECT_EQ( fired(), Lines{ "a" } );
   Kiv::activityManager()->clockIs( loop.clock() );
}

TEST_F( Timers, AttachingToTheSameClockChangesNothing ) {
   auto const a = timer( "a", 1000 );
   auto const b = timer( "b", 1000 );
   a->notifierIs( Kiv::Ptr< Kiv::PtrInterface const >( loop.clock() ) );
   EXPECT_EQ( a->timeMin(), 1000 );
   EXPECT_EQ( fired(), ( Lines{ "a", "b" } ) );
}

TEST_F( Timers, TheyStayWithTheirClockWhenAnotherIsInstalled ) {
   auto const a = timer( "a", 1000 );
   auto const other = Kiv::ManualClock::ManualClockIs( 9000 );
   Kiv::activityManager()->clockIs( other );
   EXPECT_EQ( nextTime(), Kiv::infinity );
   EXPECT_EQ( fired(), Lines{} );
   Kiv::activityManager()->clockIs( loop.clock() );
   EXPECT_EQ( fired(), Lines{ "a" } );
}

TEST_F( Timers, OneThatWatchesNothingMayBeSetAndDoesNotFire ) {
   class Bare : public Kiv::Clock::NotifieeConst {};
   Kiv::Ptr< Bare > const bare = new Bare;
   bare->hasNotificationActiveIs( true );
   bare->timeMinIs( 1000 );
   EXPECT_EQ( fired(), Lines{} );
   EXPECT_EQ( nextTime(), Kiv::infinity );
}

TEST_F( Timers, TheClockCountsWhatIsArmed ) {
   auto const a = timer( "a", 1001 );
   auto const b = timer( "b", 1002 );
   EXPECT_EQ( loop.clock()->armedTimers(), 2U );
   a->timeMinIs( Kiv::infinity );
   EXPECT_EQ( loop.clock()->armedTimers(), 1U );
   loop.nowIs( 1002 );
   fired();
   EXPECT_EQ( loop.clock()->armedTimers(), 0U );
}

// ---- against a model

namespace {

// The rule: of the timers that may fire, the one with the smallest (time, order of arming).
struct ModelTimer {
   double time = Kiv::infinity;
   unsigned order = 0;
   bool registered = true;
   bool active = true;
   bool marked = false;
   int clock = 0;
};

class Play {
 public:
   Play( std::uint32_t seed, Kiv::Ptr< Kiv::ManualClock > const & first ) : random_( seed ) {
      clocks_[ 0 ] = first;
      clocks_[ 1 ] = Kiv::ManualClock::ManualClockIs( first->now() );
      for( int i = 0; i != 12; ++i )
         timers_.push_back( make( i ) );
      model_.resize( timers_.size() );
   }
   ~Play() { Kiv::activityManager()->clockIs( clocks_[ 0 ] ); }

   bool step() {
      std::size_t const i = random_() % timers_.size();
      switch( random_() % 16 ) {
      case 0:
         replace( i );
         break;
      case 1:
         activeIs( i, random_() % 2 == 0 );
         break;
      case 2:
         activeIs( i, true );
         break;
      case 3:
         registerIs( i, random_() % 2 == 0 );
         break;
      case 4:
         registerIs( i, true );
         break;
      case 5:
         mark( i );
         break;
      case 6:
         move( i, static_cast< int >( random_() % 2 ) );
         break;
      case 7:
         install( static_cast< int >( random_() % 2 ) );
         break;
      case 8:
      case 9:
         arm( i, random_() % 2 ? Kiv::infinity : std::nan( "" ) );
         break;
      case 10:
      case 11:
         return fire();
      case 12:
         advance();
         break;
      default:
         arm( i, time() );
         break;
      }
      return same();
   }
   std::string story() const { return story_.str(); }

 private:
   Kiv::Ptr< Timer > make( int i ) {
      Kiv::Ptr< Timer > const made = new Timer( std::to_string( i ), journal_, clocks_[ 0 ] );
      made->act = [ this, i ] {
         // Others before itself, too, and looks at what is armed while it is not.
         if( random_() % 4 == 0 )
            arm( random_() % timers_.size(), random_() % 2 ? Kiv::infinity : time() );
         if( random_() % 4 == 0 )
            sameInside_ = same() && sameInside_;
         if( random_() % 2 )
            arm( static_cast< std::size_t >( i ), time() );
         if( random_() % 4 == 0 )
            arm( random_() % timers_.size(), time() );
      };
      return made;
   }
   // Few different times, so that many are equal.
   double time() {
      return clocks_[ installed() ]->now() - 2 + static_cast< double >( random_() % 6 );
   }
   std::size_t installed() const { return static_cast< std::size_t >( installed_ ); }

   void replace( std::size_t i ) {
      story_ << i << " replaced\n";
      timers_[ i ] = make( static_cast< int >( i ) );
      model_[ i ] = {};
   }
   void activeIs( std::size_t i, bool on ) {
      story_ << i << " active " << on << '\n';
      timers_[ i ]->hasNotificationActiveIs( on );
      model_[ i ].active = on;
   }
   void registerIs( std::size_t i, bool on ) {
      story_ << i << " registered " << on << '\n';
      timers_[ i ]->isRegisteredNotifieeIs( on );
      model_[ i ].registered = on;
   }
   void mark( std::size_t i ) {
      story_ << i << " marked\n";
      timers_[ i ]->kivMarkedForDeletionIs( true );
      model_[ i ].marked = true;
   }
   void move( std::size_t i, int clock ) {
      story_ << i << " on clock " << clock << '\n';
      timers_[ i ]->notifierIs(
         Kiv::Ptr< Kiv::PtrInterface const >( clocks_[ static_cast< std::size_t >( clock ) ] ) );
      if( model_[ i ].clock == clock )
         return;
      model_[ i ].clock = clock;
      model_[ i ].registered = false;
      model_[ i ].time = Kiv::infinity;
   }
   void install( int clock ) {
      story_ << "clock " << clock << '\n';
      installed_ = clock;
      Kiv::activityManager()->clockIs( clocks_[ installed() ] );
   }
   void arm( std::size_t i, double time ) {
      story_ << i << " at " << time << '\n';
      timers_[ i ]->timeMinIs( time );
      double const set = std::isnan( time ) ? Kiv::infinity : time;
      if( set == model_[ i ].time )
         return;
      model_[ i ].time = set;
      model_[ i ].order = ++order_;
   }
   void advance() {
      auto const & clock = clocks_[ installed() ];
      clock->nowIs( clock->now() + 1 );
   }
   // The model's choice, of those that are not marked if told so.
   std::optional< std::size_t > next( bool withMarked ) const {
      std::optional< std::size_t > best;
      for( std::size_t i = 0; i != model_.size(); ++i ) {
         ModelTimer const & t = model_[ i ];
         if( !t.registered || !t.active || ( t.marked && !withMarked ) || t.clock != installed_ ||
             t.time == Kiv::infinity )
            continue;
         if( !best || std::pair( t.time, t.order ) <
                         std::pair( model_[ *best ].time, model_[ *best ].order ) )
            best = i;
      }
      return best;
   }
   bool fire() {
      journal_.clear();
      auto const expected = next( false );
      bool const due = expected && model_[ *expected ].time <= clocks_[ installed() ]->now();
      story_ << "fires " << ( due ? std::to_string( *expected ) : "none" ) << '\n';
      // It is disarmed before its callback runs, which arms timers in both worlds.
      if( due )
         model_[ *expected ].time = Kiv::infinity;
      // Marked ones that are due are passed over, and do not come again.
      for( ModelTimer & t : model_ )
         if( t.marked && t.time <= clocks_[ installed() ]->now() )
            t.time = Kiv::infinity;
      for( std::size_t i = 0; i != timers_.size(); ++i )
         if( model_[ i ].marked )
            timers_[ i ]->timeMinIs( model_[ i ].time );
      bool const fired = Kiv::activityManager()->fireOne();
      Lines const wanted = due ? Lines{ std::to_string( *expected ) } : Lines{};
      return fired == due && journal_ == wanted && sameInside_ && same();
   }
   bool same() {
      for( std::size_t i = 0; i != timers_.size(); ++i )
         if( !model_[ i ].marked && timers_[ i ]->timeMin() != model_[ i ].time ) {
            story_ << i << " is at " << timers_[ i ]->timeMin() << ", not " << model_[ i ].time
                   << '\n';
            return false;
         }
      auto const expected = next( true );
      if( Kiv::activityManager()->nextTime() !=
          ( expected ? model_[ *expected ].time : Kiv::infinity ) ) {
         story_ << "next time is " << Kiv::activityManager()->nextTime() << '\n';
         return false;
      }
      if( clocks_[ installed() ]->armedTimers() != armed() ) {
         story_ << clocks_[ installed() ]->armedTimers() << " are armed\n";
         return false;
      }
      return true;
   }
   std::size_t armed() const {
      return static_cast< std::size_t >(
         std::count_if( model_.begin(), model_.end(), [ this ]( ModelTimer const & t ) {
            return t.registered && t.active && t.clock == installed_ && t.time < Kiv::infinity;
         } ) );
   }

   std::mt19937 random_;
   std::ostringstream story_;
   bool sameInside_ = true; // callbacks
   Journal journal_;
   std::array< Kiv::Ptr< Kiv::ManualClock >, 2 > clocks_;
   int installed_ = 0;
   unsigned order_ = 0;
   std::vector< ModelTimer > model_;
   std::vector< Kiv::Ptr< Timer > > timers_;
};

} // namespace

TEST( RandomTimers, FireAsTheModelSaysInThousandsOfSequences ) {
   for( std::uint32_t seed = 1; seed <= 2000; ++seed ) {
      testing_support::Loop loop;
      Play play( seed, loop.clock() );
      for( int i = 0; i != 150; ++i )
         ASSERT_TRUE( play.step() ) << "seed " << seed << ":\n" << play.story();
   }
}

TEST( RandomTimers, ManyFireInOrder ) {
   testing_support::Loop loop;
   std::mt19937 random( 4711 );
   Journal journal;
   std::vector< Kiv::Ptr< Timer > > timers;
   std::vector< std::pair< double, int > > expected;
   for( int i = 0; i != 5000; ++i ) {
      timers.push_back( new Timer( std::to_string( i ), journal ) );
      double const time = 1000 + static_cast< double >( random() % 500 );
      timers.back()->timeMinIs( time );
      expected.emplace_back( time, i );
   }
   for( std::size_t i = 0; i < timers.size(); i += 3 ) {
      timers[ i ]->timeMinIs( Kiv::infinity );
      expected[ i ].first = Kiv::infinity;
   }
   std::sort( expected.begin(), expected.end() );
   Lines order;
   for( auto const & [ time, i ] : expected )
      if( time < Kiv::infinity )
         order.push_back( std::to_string( i ) );
   loop.nowIs( 2000 );
   while( loop.fire() ) {
   }
   EXPECT_EQ( journal, order );
}
