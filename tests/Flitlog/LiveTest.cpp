// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include "Selfchecking.h"
#include "Support.h"

#include <csignal>

#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace Rings;

struct Live : Folder {};

TEST_F( Live, AReaderGoesOnWithWhatHasBeenWrittenSince ) {
   auto const file = TraceFile::TraceFileIs( path, smallest );
   int const id = numberAndText( file.get() );
   write( file.get(), id, 1, "" );
   auto const reader = Flitlog::Reader::ReaderIs( path );
   write( file.get(), id, 2, "" );
   EXPECT_EQ( rest( *reader ).texts(), std::vector< std::string >{ "number 1 text " } );
   EXPECT_TRUE( rest( *reader ).records.empty() );
   reader->poll();
   EXPECT_EQ( rest( *reader ).texts(), std::vector< std::string >{ "number 2 text " } );
   reader->poll();
   EXPECT_TRUE( rest( *reader ).records.empty() );
   EXPECT_TRUE( reader->problems().empty() );
}

TEST_F( Live, PointsThatAreMetLaterAreKnownToo ) {
   auto const file = TraceFile::TraceFileIs( path, smallest );
   auto const reader = Flitlog::Reader::ReaderIs( path );
   for( std::uint64_t i = 1; i != 4; ++i ) {
      write( file.get(), numberAndText( file.get() ), i, "" );
      reader->poll();
      EXPECT_EQ( rest( *reader ).texts(),
                 std::vector< std::string >{ "number " + std::to_string( i ) + " text " } );
   }
   EXPECT_TRUE( reader->problems().empty() );
}

TEST_F( Live, RecordsThatWereOverwrittenUnreadAreCounted ) {
   auto const file = TraceFile::TraceFileIs( path, smallest );
   int const id = numberAndText( file.get() );
   std::string const text( 20, 'x' ); // records of 64 bytes, 64 of them in the ring
   write( file.get(), id, 1, text );
   auto const reader = Flitlog::Reader::ReaderIs( path );
   EXPECT_EQ( rest( *reader ).records.size(), 1U );
   for( std::uint64_t i = 2; i <= 101; ++i )
      write( file.get(), id, i, text );
   reader->poll();
   Read const all = rest( *reader );
   ASSERT_EQ( all.records.size(), 64U );
   EXPECT_EQ( all.records[ 0 ].sequence, 38U );
   EXPECT_EQ( reader->overwritten(), 36U );
   EXPECT_TRUE( all.problems.empty() );
}

TEST_F( Live, OverwritingBeforeTheFirstRecordIsReadIsNoLoss ) {
   auto const file = TraceFile::TraceFileIs( path, smallest );
   int const id = numberAndText( file.get() );
   std::string const text( 20, 'x' );
   for( std::uint64_t i = 1; i <= 64; ++i )
      write( file.get(), id, i, text );
   auto const reader = Flitlog::Reader::ReaderIs( path );
   for( std::uint64_t i = 65; i <= 74; ++i )
      write( file.get(), id, i, text );
   Read const all = rest( *reader );
   ASSERT_EQ( all.records.size(), 54U ); // up to the newest when the file was opened
   EXPECT_EQ( all.records[ 0 ].sequence, 11U );
   EXPECT_EQ( reader->overwritten(), 0U );
   EXPECT_TRUE( all.problems.empty() );
}

// A writer that never pauses and a reader that looks all the time, in two processes: small rings,
// so that the writer laps the reader again and again.
TEST_F( Live, NoRecordIsWrongWhileAWriterHammers ) {
   double const seconds = secondsOf( "FLITLOG_LIVE_SECONDS", 1 );
   for( std::uint64_t const ringBytes : { 4096U, 65536U, 1U << 20 } ) {
      Writer writer( path, ringBytes );
      auto reader = Flitlog::Reader::ReaderIs( path );
      Checker checker;
      std::size_t polls = 0;
      std::size_t records = 0;
      for( double const end = steady() + seconds / 3; steady() < end; ++polls ) {
         if( polls % 100 == 99 ) {
            EXPECT_TRUE( reader->problems().empty() ) << reader->problems()[ 0 ];
            reader = Flitlog::Reader::ReaderIs( path );
            checker = Checker();
         }
         reader->poll();
         for( Flitlog::Record record; reader->next( record ); ++records )
            ASSERT_EQ( checker.wrong( record ), "" );
         ASSERT_TRUE( reader->problems().empty() ) << reader->problems()[ 0 ];
         ASSERT_EQ( checker.gaps(), reader->overwritten() );
      }
      EXPECT_TRUE( reader->hasWriter() );
      EXPECT_GT( records, 100U );
      writer.kill();
      EXPECT_FALSE( reader->hasWriter() );
   }
}

} // namespace
