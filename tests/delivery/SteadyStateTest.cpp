// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Once the queue has as much as is needed, changes and their delivery allocate nothing: neither
// through the framework's hooks nor through the global operator new, which this program replaces.
#include "../support/Loop.h"
#include "../support/Memory.h"

#include <Stage/Stage.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <new>
#include <vector>

namespace {
std::size_t globalAllocations = 0;

void * counted( std::size_t size ) noexcept {
   ++globalAllocations;
   return std::malloc( size ? size : 1 );
}
} // namespace

void * operator new( std::size_t size ) {
   if( void * memory = counted( size ) )
      return memory;
   throw std::bad_alloc();
}
void * operator new[]( std::size_t size ) { return operator new( size ); }
void * operator new( std::size_t size, std::nothrow_t const & ) noexcept { return counted( size ); }
void * operator new[]( std::size_t size, std::nothrow_t const & ) noexcept {
   return counted( size );
}
void operator delete( void * memory ) noexcept { std::free( memory ); }
void operator delete[]( void * memory ) noexcept { std::free( memory ); }
void operator delete( void * memory, std::size_t ) noexcept { std::free( memory ); }
void operator delete[]( void * memory, std::size_t ) noexcept { std::free( memory ); }
void operator delete( void * memory, std::nothrow_t const & ) noexcept { std::free( memory ); }
void operator delete[]( void * memory, std::nothrow_t const & ) noexcept { std::free( memory ); }

namespace {

class Counter : public Stage::EventConfig::NotifieeConst {
 public:
   explicit Counter( Kiv::Ptr< Stage::EventConfig const > const & event ) { watch( event ); }
   void onTimeout() override { ++calls; }
   void onDependency( Kiv::String8 ) override { ++calls; }
   void onDependencykivImmediate() override { ++calls; }
   void onDependency() override {}
   unsigned calls = 0;
};

class Ticker : public Kiv::Clock::NotifieeConst {
 public:
   Ticker() { watch( Kiv::activityManager()->clock() ); }
   void onTime() override { ++calls; }
   unsigned calls = 0;
};

} // namespace

TEST( SteadyState, ChangingAndDeliveringAnUnchangedSetOfMembersAllocatesNothing ) {
   testing_support::Loop loop;
   auto const event = Stage::EventConfig::EventConfigIs( "Gui", "agent" );
   std::vector< Kiv::Ptr< Counter > > reactors;
   for( int i = 0; i != 10; ++i )
      reactors.push_back( new Counter( event ) );
   Kiv::String8 const disk( "Disk" );
   Kiv::String8 const net( "a name that is too long to be kept anywhere but on the heap" );
   double seconds = 0;
   bool value = false;
   auto const round = [ & ] {
      event->timeoutIs( ++seconds );
      value = !value;
      event->dependencyIs( disk, value );
      event->dependencyIs( net, value );
      loop.deliver();
   };
   for( int i = 0; i != 20; ++i ) // other tests have left it more
      round();
   for( auto const & reactor : reactors )
      reactor->calls = 0;

   testing_support::Memory memory;
   std::size_t const before = globalAllocations;
   for( int i = 0; i != 100; ++i )
      round();
   EXPECT_EQ( memory.allocations(), 0U );
   EXPECT_EQ( globalAllocations - before, 0U );
   for( auto const & reactor : reactors )
      EXPECT_EQ( reactor->calls, 400U );
}

namespace {

// Many reactors are told of something at once.
class Bursts : public testing::Test {
 protected:
   Bursts() {
      for( std::size_t i = 0; i != 3000; ++i )
         reactors.push_back( new Counter( crowd ) );
   }
   void burst() {
      ++bursts_;
      crowd->timeoutIs( bursts_ );
      crowd->dependencyIs( disk, bursts_ % 2 == 0 );
      loop.deliver();
   }
   void quiet() {
      event->timeoutIs( ++quiets_ );
      loop.deliver();
   }
   void quietForLong() {
      for( int i = 0; i != 16; ++i )
         quiet();
   }

   testing_support::Loop loop;
   Kiv::String8 const disk = "Disk";
   Kiv::Ptr< Stage::EventConfig > const crowd = Stage::EventConfig::EventConfigIs( "Gui", "crowd" );
   Kiv::Ptr< Stage::EventConfig > const event = Stage::EventConfig::EventConfigIs( "Gui", "agent" );
   std::vector< Kiv::Ptr< Counter > > reactors;
   Kiv::Ptr< Counter > const one = new Counter( event );

 private:
   unsigned bursts_ = 0;
   unsigned quiets_ = 0;
};

} // namespace

TEST_F( Bursts, ThatComeAgainAndAgainNeitherAllocateNorGiveBack ) {
   burst();
   testing_support::Memory memory;
   std::size_t const before = globalAllocations;
   for( int i = 0; i != 10; ++i )
      burst();
   EXPECT_EQ( memory.allocations(), 0U );
   EXPECT_EQ( memory.releases(), 0U );
   EXPECT_EQ( globalAllocations - before, 0U );
}

TEST_F( Bursts, AreKeptForHalfBySomethingQuietInBetween ) {
   burst();
   testing_support::Memory memory;
   quiet();
   std::size_t const released = memory.releases();
   EXPECT_GT( released, 100U );
   quiet();
   EXPECT_LT( memory.releases(), released * 3 / 2 + 5 );
   EXPECT_GT( memory.releases(), released * 3 / 2 - 5 );
   burst();
   EXPECT_LE( memory.allocations(), memory.releases() );
}

TEST_F( Bursts, AreForgottenAfterAFewQuietTurns ) {
   quietForLong();
   testing_support::Memory memory;
   burst();
   std::size_t const taken = memory.allocations();
   EXPECT_GT( taken, 200U );
   quietForLong();
   EXPECT_LE( memory.allocations() - memory.releases(), 2U );
   std::size_t const before = memory.allocations();
   for( int i = 0; i != 100; ++i )
      quiet();
   EXPECT_EQ( memory.allocations(), before );
   burst();
   for( auto const & reactor : reactors )
      EXPECT_EQ( reactor->calls, 4U );
}

TEST_F( Bursts, AreGivenBackWhenNothingWaitsForAReactorThatIsOffAnyMore ) {
   burst(); // what is made once, at the first key, is there
   quietForLong();
   testing_support::Memory memory;
   reactors.front()->hasNotificationActiveIs( false );
   burst();
   quietForLong();
   reactors.front()->hasNotificationActiveIs( true );
   quietForLong();
   EXPECT_LE( memory.allocations() - memory.releases(), 1U );
   EXPECT_EQ( reactors.front()->calls, 4U );
}

TEST( SteadyState, ArmingAndFiringTimersAllocatesNothing ) {
   testing_support::Loop loop;
   std::vector< Kiv::Ptr< Ticker > > timers;
   for( int i = 0; i != 20; ++i )
      timers.push_back( new Ticker );
   testing_support::Memory memory;
   std::size_t const before = globalAllocations;
   for( int round = 1; round != 51; ++round ) {
      for( std::size_t i = 0; i != timers.size(); ++i )
         timers[ i ]->timeMinIs( loop.now() + static_cast< double >( i % 7 ) );
      loop.nowIs( loop.now() + 10 );
      while( loop.fire() ) {
      }
   }
   EXPECT_EQ( memory.allocations(), 0U );
   EXPECT_EQ( globalAllocations - before, 0U );
   for( auto const & timer : timers )
      EXPECT_EQ( timer->calls, 50U );
}

TEST( SteadyState, TheCountersOfThisTestCount ) {
   testing_support::Memory memory;
   std::size_t const before = globalAllocations;
   auto const event = Stage::EventConfig::EventConfigIs( "Gui", "agent" );
   EXPECT_GT( memory.allocations(), 0U );
   EXPECT_GE( globalAllocations - before, memory.allocations() );
}
