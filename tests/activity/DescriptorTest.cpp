// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Watching file descriptors.
#include "Pipe.h"
#include "Timers.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <memory>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <vector>

using namespace activity;

namespace {

class Watching : public testing::Test {
 protected:
   static Kiv::Ptr< Kiv::ActivityManager > const & manager() { return Kiv::activityManager(); }
   // Writes down the id and takes a byte.
   void watch( char const * id, Pipe const & pipe ) {
      manager()->descriptorIs( pipe.reading(), POLLIN, [ this, id, &pipe ]( unsigned ) {
         journal.push_back( pipe.take() ? id : std::string( id ) + " empty" );
      } );
      watched.push_back( pipe.reading() );
   }
   ~Watching() override {
      for( int fd : watched )
         manager()->descriptorDel( fd );
   }

   Journal journal;
   std::vector< int > watched;
};

} // namespace

TEST_F( Watching, ReadinessIsToldWithTheEventsThatHoldOnceForEachTimeItIsSeen ) {
   Pipe pipe;
   unsigned seen = 0;
   manager()->descriptorIs( pipe.reading(), POLLIN, [ & ]( unsigned events ) {
      seen = events;
      journal.push_back( "told" );
   } );
   EXPECT_EQ( manager()->runDue(), 0U );
   EXPECT_TRUE( pipe.put() );
   EXPECT_EQ( journal, Lines{} );
   EXPECT_EQ( manager()->runDue(), 1U );
   EXPECT_EQ( seen, unsigned{ POLLIN } );
   EXPECT_EQ( manager()->runDue(), 1U ); // level-triggered: nobody has taken it
   EXPECT_TRUE( pipe.take() );
   EXPECT_EQ( manager()->runDue(), 0U );
   EXPECT_EQ( journal, ( Lines{ "told", "told" } ) );
   manager()->descriptorDel( pipe.reading() );
}

TEST_F( Watching, RoomToWriteAndTheOtherEndsCloseAreToldToo ) {
   Pipe pipe;
   unsigned seen = 0;
   manager()->descriptorIs( pipe.writing(), POLLOUT, [ & ]( unsigned events ) { seen = events; } );
   manager()->runDue();
   EXPECT_EQ( seen, unsigned{ POLLOUT } );
   pipe.closeReading();
   manager()->runDue();
   EXPECT_NE( seen & POLLERR, 0U );
   manager()->descriptorDel( pipe.writing() );

   Pipe other;
   manager()->descriptorIs( other.reading(), POLLIN, [ & ]( unsigned events ) { seen = events; } );
   other.closeWriting();
   manager()->runDue();
   EXPECT_NE( seen & POLLHUP, 0U );
   manager()->descriptorDel( other.reading() );
}

TEST_F( Watching, AnotherWatchOfTheSameDescriptorReplacesTheFirst ) {
   Pipe pipe;
   EXPECT_TRUE( pipe.put() );
   watch( "first", pipe );
   watch( "second", pipe );
   manager()->runDue();
   EXPECT_EQ( journal, Lines{ "second" } );
}

TEST_F( Watching, AReplacementMayWatchForOtherEvents ) {
   Pipe pipe;
   manager()->descriptorIs( pipe.writing(), POLLIN,
                            [ & ]( unsigned ) { journal.push_back( "in" ); } );
   manager()->runDue();
   EXPECT_EQ( journal, Lines{} );
   manager()->descriptorIs( pipe.writing(), POLLOUT,
                            [ & ]( unsigned ) { journal.push_back( "out" ); } );
   manager()->runDue();
   EXPECT_EQ( journal, Lines{ "out" } );
   manager()->descriptorDel( pipe.writing() );
   manager()->runDue();
   EXPECT_EQ( journal, Lines{ "out" } );
}

TEST_F( Watching, AWatchMayEndItselfInItsCallback ) {
   Pipe pipe;
   EXPECT_TRUE( pipe.put() );
   auto const held = std::make_shared< int >( 7 );
   manager()->descriptorIs( pipe.reading(), POLLIN, [ this, held, &pipe ]( unsigned ) {
      manager()->descriptorDel( pipe.reading() );
      journal.push_back( std::to_string( *held ) ); // what it holds lives until it returns
   } );
   manager()->runDue();
   manager()->runDue();
   EXPECT_EQ( journal, Lines{ "7" } );
   EXPECT_EQ( held.use_count(), 1 );
}

TEST_F( Watching, AWatchMayReplaceItselfInItsCallback ) {
   Pipe pipe;
   EXPECT_TRUE( pipe.put() );
   manager()->descriptorIs( pipe.reading(), POLLIN, [ this, &pipe ]( unsigned ) {
      journal.push_back( "first" );
      watch( "second", pipe );
   } );
   manager()->runDue();
   manager()->runDue();
   EXPECT_EQ( journal, ( Lines{ "first", "second" } ) );
}

TEST_F( Watching, AWatchThatAnotherHasEndedIsNotTold ) {
   Pipe a;
   Pipe b;
   EXPECT_TRUE( a.put() && b.put() );
   auto const endBoth = [ & ]( unsigned ) {
      journal.push_back( "told" );
      manager()->descriptorDel( a.reading() );
      manager()->descriptorDel( b.reading() );
   };
   manager()->descriptorIs( a.reading(), POLLIN, endBoth );
   manager()->descriptorIs( b.reading(), POLLIN, endBoth );
   manager()->runDue();
   EXPECT_EQ( journal, Lines{ "told" } );
}

TEST_F( Watching, AWatchMadeAnewUnderTheSameNumberIsNotToldOfTheOldOnesReadiness ) {
   Pipe a;
   Pipe b;
   Pipe idle;
   EXPECT_TRUE( a.put() && b.put() );
   bool swapped = false;
   // Whichever is told first puts the idle pipe in the other's place.
   auto const swap = [ & ]( Pipe const & self, Pipe const & other ) {
      return [ & ]( unsigned ) {
         journal.push_back( "told" );
         self.take();
         if( std::exchange( swapped, true ) )
            return;
         manager()->descriptorDel( other.reading() );
         EXPECT_EQ( ::dup2( idle.reading(), other.reading() ), other.reading() );
         manager()->descriptorIs( other.reading(), POLLIN,
                                  [ & ]( unsigned ) { journal.push_back( "idle" ); } );
      };
   };
   manager()->descriptorIs( a.reading(), POLLIN, swap( a, b ) );
   manager()->descriptorIs( b.reading(), POLLIN, swap( b, a ) );
   manager()->runDue();
   EXPECT_EQ( journal, Lines{ "told" } );
   EXPECT_TRUE( idle.put() );
   manager()->runDue( 1 );
   EXPECT_EQ( journal, ( Lines{ "told", "idle" } ) );
   manager()->descriptorDel( a.reading() );
   manager()->descriptorDel( b.reading() );
}

TEST_F( Watching, WhatWasTakenBetweenTwoBoundedRunsIsNotToldAgain ) {
   Pipe a;
   Pipe b;
   EXPECT_TRUE( a.put() && b.put() );
   watch( "a", a );
   watch( "b", b );
   for( int i = 0; i != 6; ++i )
      manager()->runDue( 1 );
   std::sort( journal.begin(), journal.end() );
   EXPECT_EQ( journal, ( Lines{ "a", "b" } ) );
}

TEST_F( Watching, TheEndOfAWatchThatIsNotThereDoesNothing ) {
   Pipe pipe;
   manager()->descriptorDel( pipe.reading() );
   manager()->descriptorDel( 12345 );
   watch( "pipe", pipe );
   EXPECT_TRUE( pipe.put() );
   manager()->runDue();
   EXPECT_EQ( journal, Lines{ "pipe" } );
}

TEST_F( Watching, WhatCannotBeWatchedIsRefusedAndNothingIsWatched ) {
   manager()->runDue(); // the loop opens its own descriptors now, and takes no number freed below
   Pipe closed;
   int const number = closed.reading();
   closed.closeReading();
   auto const call = [ & ]( unsigned ) { journal.push_back( "told" ); };
   for( int const bad : { -1, number, 1 << 20 } ) {
      try {
         manager()->descriptorIs( bad, POLLIN, call );
         ADD_FAILURE() << "descriptor " << bad << " was taken";
      } catch( std::system_error const & e ) {
         EXPECT_EQ( e.code().value(), EBADF );
      }
   }
   std::FILE * const file = std::tmpfile();
   ASSERT_NE( file, nullptr );
   try {
      manager()->descriptorIs( ::fileno( file ), POLLIN, call );
      ADD_FAILURE() << "a regular file was taken";
   } catch( std::system_error const & e ) {
      EXPECT_EQ( e.code().value(), EPERM );
   }
   std::fclose( file );
   EXPECT_EQ( manager()->runDue(), 0U );

   // The numbers are free for others.
   Pipe pipe;
   watch( "pipe", pipe );
   EXPECT_TRUE( pipe.put() );
   manager()->runDue();
   EXPECT_EQ( journal, Lines{ "pipe" } );
}

TEST_F( Watching, AnExceptionOfAWatcherIsReportedAndTheOthersAreTold ) {
   Pipe bad;
   Pipe good;
   EXPECT_TRUE( bad.put() && good.put() );
   manager()->descriptorIs( bad.reading(), POLLIN, [ & ]( unsigned ) {
      bad.take();
      throw std::runtime_error( "out of luck" );
   } );
   watch( "good", good );
   testing::internal::CaptureStderr();
   manager()->runDue();
   EXPECT_NE( testing::internal::GetCapturedStderr().find( "out of luck" ), std::string::npos );
   EXPECT_EQ( journal, Lines{ "good" } );
   manager()->descriptorDel( bad.reading() );
}

TEST_F( Watching, ManyAreAllTold ) {
   // More than the loop sees at a time.
   std::vector< std::unique_ptr< Pipe > > pipes;
   for( int i = 0; i != 150; ++i ) {
      pipes.push_back( std::make_unique< Pipe >() );
      watch( "pipe", *pipes.back() );
      EXPECT_TRUE( pipes.back()->put() );
   }
   for( int i = 0; i != 10; ++i )
      manager()->runDue();
   EXPECT_EQ( journal, Lines( 150, "pipe" ) );
}

TEST_F( Watching, WhateverTheLimitEachThatIsReadyGetsItsTurn ) {
   std::vector< std::unique_ptr< Pipe > > pipes;
   std::vector< int > told( 100, 0 ); // more than the loop sees at a time
   for( std::size_t i = 0; i != told.size(); ++i ) {
      pipes.push_back( std::make_unique< Pipe >() );
      Pipe const & pipe = *pipes.back();
      EXPECT_TRUE( pipe.put() ); // nobody takes it: all are ready all the time
      manager()->descriptorIs( pipe.reading(), POLLIN, [ &told, i ]( unsigned ) { ++told[ i ]; } );
      watched.push_back( pipe.reading() );
   }
   for( std::size_t limit : { 1U, 3U } ) {
      std::fill( told.begin(), told.end(), 0 );
      std::size_t const turns = 4 * told.size();
      for( std::size_t ran = 0; ran < turns; ran += limit )
         EXPECT_EQ( manager()->runDue( limit ), limit );
      auto const [ least, most ] = std::minmax_element( told.begin(), told.end() );
      EXPECT_GE( *least, 2 ) << "limit " << limit;
      EXPECT_LE( *most, 8 ) << "limit " << limit;
   }
}

TEST_F( Watching, DescriptorsAndATaskThatPostsItselfTakeTurnsWhateverTheLimit ) {
   Pipe a;
   Pipe b;
   EXPECT_TRUE( a.put() && b.put() );
   for( Pipe const * pipe : { &a, &b } ) {
      manager()->descriptorIs( pipe->reading(), POLLIN,
                               [ this ]( unsigned ) { journal.push_back( "descriptor" ); } );
      watched.push_back( pipe->reading() );
   }
   std::function< void() > const task = [ & ] {
      journal.push_back( "task" );
      if( journal.size() < 7 )
         post( task );
   };
   post( task );
   for( int i = 0; i != 9; ++i )
      EXPECT_EQ( manager()->runDue( 1 ), 1U );
   Lines const round{ "task", "descriptor", "descriptor" };
   Lines expected;
   for( int i = 0; i != 3; ++i )
      expected.insert( expected.end(), round.begin(), round.end() );
   EXPECT_EQ( journal, expected );
}

TEST_F( Watching, AWatchThatIsMadeAnewInItsCallbackWaitsForTheOthers ) {
   Pipe a;
   Pipe b;
   EXPECT_TRUE( a.put() && b.put() );
   std::function< void( unsigned ) > const again = [ & ]( unsigned ) {
      journal.push_back( "again" );
      manager()->descriptorDel( a.reading() );
      manager()->descriptorIs( a.reading(), POLLIN, again );
   };
   manager()->descriptorIs( a.reading(), POLLIN, again );
   watched.push_back( a.reading() );
   manager()->descriptorIs( b.reading(), POLLIN, [ & ]( unsigned ) { journal.push_back( "b" ); } );
   watched.push_back( b.reading() );
   for( int i = 0; i != 4; ++i )
      manager()->runDue( 1 );
   EXPECT_EQ( std::count( journal.begin(), journal.end(), "b" ), 2 );
}

TEST_F( Watching, ANumberThatWasClosedWithoutAWordCanBeWatchedAgain ) {
   Pipe first;
   int const number = first.reading();
   watch( "first", first );
   Pipe second;
   EXPECT_EQ( ::dup2( second.reading(), number ), number ); // closes the first pipe's end
   watch( "second", first );
   EXPECT_TRUE( second.put() );
   manager()->runDue();
   EXPECT_EQ( journal, Lines{ "second" } );
}

TEST_F( Watching, ADescriptorWakesALoopThatSleeps ) {
   Pipe pipe;
   manager()->descriptorIs( pipe.reading(), POLLIN, [ & ]( unsigned ) {
      pipe.take();
      manager()->stop();
   } );
   std::thread writer( [ & ] {
      std::this_thread::sleep_for( std::chrono::milliseconds( 2 ) );
      EXPECT_TRUE( pipe.put() );
   } );
   runWithLimit();
   writer.join();
   manager()->descriptorDel( pipe.reading() );
}
