// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include "../support/Loop.h"

#include <Stage/Stage.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

using Kiv::Ptr;
using Kiv::String8;
using Stage::Log;
using Stage::LogEntry;
using testing_support::Loop;

namespace {

class Watcher : public Log::NotifieeConst {
 public:
   explicit Watcher( Ptr< Log const > const & log ) { watch( log ); }
};

} // namespace

TEST( Log, StartsEmptyAndGivesNothing ) {
   Ptr< Log > const log = Log::LogIs( "log" );
   EXPECT_EQ( log->logs(), 0U );
   LogEntry entry{ 7, "unchanged" };
   EXPECT_FALSE( log->logDeq( entry ) );
   EXPECT_EQ( entry.time, 7.0 );
   EXPECT_EQ( entry.msg, String8( "unchanged" ) );
}

TEST( Log, GivesEntriesInOrderAndRemovesWhatWasRead ) {
   Ptr< Log > const log = Log::LogIs( "log" );
   log->logEnq( { 1, "first" } );
   log->logEnq( { 2, "second" } );
   log->logEnq( { 2, "second" } );
   EXPECT_EQ( log->logs(), 3U );
   LogEntry entry;
   std::vector< std::string > read;
   while( log->logDeq( entry ) ) {
      read.push_back( Kiv::valueToString( entry.time ).str() + " " + entry.msg.str() );
      if( read.size() == 2 )
         log->logEnq( { 3, "added while reading" } );
   }
   EXPECT_EQ( read, ( std::vector< std::string >{ "1 first", "2 second", "2 second",
                                                  "3 added while reading" } ) );
   EXPECT_EQ( log->logs(), 0U );
}

TEST( Log, IsReadWithoutRemovingToo ) {
   Ptr< Log > const log = Log::LogIs( "log" );
   log->logEnq( { 1, "first" } );
   log->logEnq( { 2, "second" } );
   EXPECT_EQ( log->log( 0 ).msg, String8( "first" ) );
   EXPECT_EQ( log->log( 1 ).time, 2.0 );
   EXPECT_EQ( log->logs(), 2U );
   LogEntry entry;
   log->logDeq( entry );
   EXPECT_EQ( log->log( 0 ).msg, String8( "second" ) );
}

TEST( Log, AnEntryThatIsNotThereIsRefused ) {
   Ptr< Log > const log = Log::LogIs( "log" );
   EXPECT_THROW( log->log( 0 ), Kiv::RangeException );
   log->logEnq( { 1, "first" } );
   log->logEnq( { 2, "second" } );
   EXPECT_EQ( log->log( 1 ).msg, String8( "second" ) );
   try {
      log->log( 2 );
      ADD_FAILURE() << "an entry was made up";
   } catch( Kiv::RangeException const & e ) {
      EXPECT_STREQ( e.what(), "the log has no entry 2 after the oldest, it has 2" );
   }
   EXPECT_THROW( log->log( static_cast< std::size_t >( -1 ) ), Kiv::RangeException );
}

TEST( Log, KeepsACopyOfTheEntry ) {
   Ptr< Log > const log = Log::LogIs( "log" );
   LogEntry entry{ 1, "text" };
   log->logEnq( entry );
   entry.time = 9;
   entry.msg += " changed";
   EXPECT_EQ( log->log( 0 ).time, 1.0 );
   EXPECT_EQ( log->log( 0 ).msg, String8( "text" ) );
}

TEST( LogEntry, CarriesTheTimeAtWhichItWasMadeNotThatOfReading ) {
   Loop loop( 1000 );
   Ptr< Log > const log = Log::LogIs( "log" );
   LogEntry const made{ Kiv::now(), "made" };
   loop.clock()->nowIs( 1005 );
   log->logEnq( made );
   log->logEnq( { Kiv::now(), "later" } );
   loop.clock()->nowIs( 1010 );
   LogEntry entry;
   ASSERT_TRUE( log->logDeq( entry ) );
   EXPECT_EQ( entry.time, 1000.0 );
   ASSERT_TRUE( log->logDeq( entry ) );
   EXPECT_EQ( entry.time, 1005.0 );
}

TEST( LogEntry, HasItsTimeFirstAndThenItsText ) {
   LogEntry const entry{ 2.5, "text" };
   auto const & [ time, msg ] = entry;
   EXPECT_EQ( time, 2.5 );
   EXPECT_EQ( msg, String8( "text" ) );
}

TEST( Log, TellsNobodyOfItsEntries ) {
   Loop loop;
   Ptr< Log > const log = Log::LogIs( "log" );
   Ptr< Watcher > const watcher = new Watcher( log );
   log->logEnq( { 1, "text" } );
   LogEntry entry;
   log->logDeq( entry );
   EXPECT_EQ( watcher->pendingNotifications(), 0U );
}
