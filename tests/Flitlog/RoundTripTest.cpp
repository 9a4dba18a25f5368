// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include "Support.h"

#include <charconv>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <stdexcept>

namespace {

using namespace Rings;

struct RoundTrip : Folder {
   // The text of one value under its code.
   template< class Part, class T >
   std::string text( Part part, T value ) {
      auto const file = TraceFile::TraceFileIs( path, smallest );
      MsgDesc desc( file.get(), "Source", 1 );
      desc << part;
      RingBuf & record = RingBuf::startMsg( file.get(), desc.finish() );
      put( record, value );
      record.endMsg();
      Read const all = read( path );
      EXPECT_EQ( all.problems, std::vector< std::string >() );
      return all.records.size() == 1 ? all.records[ 0 ].text : "not one record";
   }
   template< class T >
   std::string text( char const * code, T value ) {
      return text( Varg{ code }, value );
   }
   double number( double v ) {
      std::string const digits = text( "d", v );
      double back = 0;
      std::from_chars( digits.data(), digits.data() + digits.size(), back );
      return back;
   }
};

TEST_F( RoundTrip, ADescriptorNeedsAFile ) {
   EXPECT_THROW( MsgDesc( nullptr, "Source", 1 ), std::invalid_argument );
}

TEST_F( RoundTrip, BoolsAreTrueAndFalse ) {
   EXPECT_EQ( text( "b", true ), "true" );
   EXPECT_EQ( text( "b", false ), "false" );
}

TEST_F( RoundTrip, IntegersKeepTheirLimits ) {
   EXPECT_EQ( text( "i", std::numeric_limits< std::int32_t >::min() ), "-2147483648" );
   EXPECT_EQ( text( "i", std::numeric_limits< std::int32_t >::max() ), "2147483647" );
   EXPECT_EQ( text( "u", std::numeric_limits< std::uint32_t >::max() ), "4294967295" );
   EXPECT_EQ( text( "l", std::numeric_limits< std::int64_t >::min() ), "-9223372036854775808" );
   EXPECT_EQ( text( "m", std::numeric_limits< std::uint64_t >::max() ), "18446744073709551615" );
}

TEST_F( RoundTrip, HexadecimalShowsTheBits ) {
   using Flitlog::HexVarg;
   EXPECT_EQ( text( HexVarg{ "u" }, std::uint32_t( 31 ) ), "0x1f" );
   EXPECT_EQ( text( HexVarg{ "i" }, std::int32_t( -1 ) ), "0xffffffff" );
   EXPECT_EQ( text( HexVarg{ "l" }, std::int64_t( -2 ) ), "0xfffffffffffffffe" );
   EXPECT_EQ( text( HexVarg{ "m" }, std::uint64_t( 0 ) ), "0x0" );
}

TEST_F( RoundTrip, DoublesAreTheShortestTextThatReadsBackTheSame ) {
   EXPECT_EQ( text( "d", 0.1 ), "0.1" );
   EXPECT_EQ( text( "d", 30.0 ), "30" );
   EXPECT_EQ( text( "d", 1e22 ), "1e+22" );
   EXPECT_EQ( text( "d", -0.0 ), "-0" );
   double const infinity = std::numeric_limits< double >::infinity();
   EXPECT_EQ( text( "d", infinity ), "inf" );
   EXPECT_EQ( text( "d", -infinity ), "-inf" );
   EXPECT_EQ( text( "d", std::numeric_limits< double >::quiet_NaN() ), "nan" );
   EXPECT_EQ( text( "d", -std::numeric_limits< double >::quiet_NaN() ), "nan" );
   for( double const v : { 1.0 / 3, 5e-324, 2.2250738585072014e-308, 1.7976931348623157e308,
                           std::nextafter( 1.0, 2.0 ), -123456789.123456789 } )
      EXPECT_EQ( number( v ), v );
}

TEST_F( RoundTrip, StringsAndNamesKeepEveryByte ) {
   std::string bytes;
   for( int i = 0; i != 256; ++i )
      bytes += static_cast< char >( i );
   EXPECT_EQ( text( "s", std::string_view( bytes ) ), bytes );
   EXPECT_EQ( text( "p", std::string_view( "/agents/A" ) ), "/agents/A" );
   EXPECT_EQ( text( "s", std::string_view() ), "" );
   EXPECT_EQ( text( "s", "a literal" ), "a literal" );
}

TEST_F( RoundTrip, AMessageIsItsPiecesInTheirOrder ) {
   auto const file = TraceFile::TraceFileIs( path, smallest );
   MsgDesc desc( file.get(), "Source", 77 );
   desc.handleIs( "Ordovan" );
   desc.levelIs( 9 );
   desc.functionIs( "handleStage" );
   desc << "void f() " << Varg{ "s" };
   desc.format().put( "d" );
   desc << ", " << Flitlog::HexVarg{ "u" } << "";
   int const id = desc.finish();
   EXPECT_EQ( id, 1 );
   RingBuf & record = RingBuf::startMsg( file.get(), id );
   put( record, std::string_view( "Boot" ) );
   put( record, 1.5 );
   put( record, std::uint32_t( 255 ) );
   record.endMsg();

   Read const all = read( path );
   EXPECT_TRUE( all.problems.empty() );
   ASSERT_EQ( all.records.size(), 1U );
   Flitlog::Record const & r = all.records[ 0 ];
   EXPECT_EQ( r.sequence, 1U );
   EXPECT_EQ( r.time, 1.0 );
   EXPECT_EQ( r.handle, "Ordovan" );
   EXPECT_EQ( r.level, 9U );
   EXPECT_EQ( r.source, "Source" );
   EXPECT_EQ( r.line, 77 );
   EXPECT_EQ( r.function, "handleStage" );
   EXPECT_EQ( r.text, "void f() Boot1.5, 0xff" );
}

// A bool moves all that comes after it by a byte.
TEST_F( RoundTrip, ValuesOfAllSizesStandAtEveryOffset ) {
   std::mt19937 engine( 20261 );
   auto const random = [ &engine ] { return static_cast< std::uint32_t >( engine() ); };
   auto const file = TraceFile::TraceFileIs( path, { 1 << 20 } );
   std::vector< std::string > expected;
   for( int i = 0; i != 2000; ++i ) {
      std::string codes;
      for( std::uint32_t left = random() % 10; left != 0; --left )
         codes += "biulmds"[ random() % 7 ];
      MsgDesc desc( file.get(), "Source", 1 );
      for( char const code : codes ) {
         char const part[] = { code, '\0' };
         desc << Varg{ part } << "|";
      }
      std::string text;
      RingBuf & record = RingBuf::startMsg( file.get(), desc.finish() );
      for( char const code : codes ) {
         std::uint32_t const number = random();
         std::uint64_t const wide = std::uint64_t( number ) << 32 | random();
         std::string const some = std::string( number % 30, 'a' ) + std::to_string( wide );
         auto const one = [ & ]( auto value, std::string const & shown ) {
            put( record, value );
            text += shown + "|";
         };
         switch( code ) {
         case 'b':
            one( number % 2 == 0, number % 2 == 0 ? "true" : "false" );
            break;
         case 'i':
            one( static_cast< std::int32_t >( number ),
                 std::to_string( static_cast< std::int32_t >( number ) ) );
            break;
         case 'u':
            one( number, std::to_string( number ) );
            break;
         case 'l':
            one( static_cast< std::int64_t >( wide ),
                 std::to_string( static_cast< std::int64_t >( wide ) ) );
            break;
         case 'm':
            one( wide, std::to_string( wide ) );
            break;
         case 'd':
            one( number % 1024 + 0.5, std::to_string( number % 1024 ) + ".5" );
            break;
         default:
            one( std::string_view( some ).substr( number % 7 ), some.substr( number % 7 ) );
         }
      }
      record.endMsg();
      expected.push_back( text );
   }
   Read const all = read( path );
   EXPECT_EQ( all.problems, std::vector< std::string >() );
   ASSERT_EQ( all.records.size(), expected.size() );
   for( std::size_t i = 0; i != expected.size(); ++i )
      EXPECT_EQ( all.records[ i ].text, expected[ i ] );
}

TEST_F( RoundTrip, UnknownTypeCodesAreRefusedByName ) {
   auto const file = TraceFile::TraceFileIs( path, smallest );
   MsgDesc desc( file.get(), "Source", 1 );
   for( char const * code : { "", "x", "bb", "B" } ) {
      EXPECT_THROW( desc << Varg{ code }, std::invalid_argument ) << code;
      EXPECT_THROW( desc.format().put( code ), std::invalid_argument ) << code;
   }
   EXPECT_THROW( desc << Flitlog::HexVarg{ "d" }, std::invalid_argument );
   try {
      desc << Varg{ "x" };
   } catch( std::invalid_argument const & e ) {
      EXPECT_STREQ( e.what(), "type code \"x\": expected b, i, u, l, m, d, s or p" );
   }
}

TEST_F( RoundTrip, PointsOfSeveralHandlesStandInOneRing ) {
   auto const file = TraceFile::TraceFileIs( path, smallest );
   std::vector< int > ids;
   for( char const * handle : { "Ordovan", "Kiv", "Agent" } ) {
      MsgDesc desc( file.get(), handle, 1 );
      desc.handleIs( handle );
      desc << "from " << handle;
      ids.push_back( desc.finish() );
   }
   EXPECT_EQ( ids, ( std::vector< int >{ 1, 2, 3 } ) );
   for( int const id : { 3, 1, 2, 1 } )
      RingBuf::startMsg( file.get(), id ).endMsg();
   EXPECT_EQ( read( path ).texts(), ( std::vector< std::string >{ "from Agent", "from Ordovan",
                                                                  "from Kiv", "from Ordovan" } ) );
}

// Records of every size that a place in the ring can be met with, many times around.
TEST_F( RoundTrip, TheRingWrapsAroundAtEveryAlignment ) {
   for( std::size_t length = 0; length != 64; ++length ) {
      std::filesystem::remove( path + ".old" );
      auto const file = TraceFile::TraceFileIs( path, smallest );
      int const id = numberAndText( file.get() );
      std::string const text( length, 'x' );
      std::uint64_t const count = 500;
      for( std::uint64_t i = 1; i <= count; ++i )
         write( file.get(), id, i, text );
      Read const all = read( path );
      EXPECT_TRUE( all.problems.empty() ) << all.problems[ 0 ];
      std::size_t const size = ( 32 + 8 + 4 + length + 7 ) / 8 * 8;
      ASSERT_EQ( all.records.size(), 4096 / size ) << length;
      for( std::size_t i = 0; i != all.records.size(); ++i ) {
         std::uint64_t const n = count - all.records.size() + 1 + i;
         ASSERT_EQ( all.records[ i ].sequence, n );
         ASSERT_EQ( all.records[ i ].text, "number " + std::to_string( n ) + " text " + text );
      }
   }
}

TEST_F( RoundTrip, ARingCanBeExactlyFull ) {
   auto const file = TraceFile::TraceFileIs( path, smallest );
   int const id = numberAndText( file.get() );
   std::string const text( 20, 'x' ); // records of 64 bytes
   for( std::uint64_t i = 1; i <= 64; ++i )
      write( file.get(), id, i, text );
   EXPECT_EQ( read( path ).records.size(), 64U );
   EXPECT_EQ( read( path ).records[ 0 ].sequence, 1U );
   write( file.get(), id, 65, text );
   EXPECT_EQ( read( path ).records.size(), 64U );
   EXPECT_EQ( read( path ).records[ 0 ].sequence, 2U );
}

TEST_F( RoundTrip, AnEmptyRingHasNoRecordsAndNoProblems ) {
   auto const file = TraceFile::TraceFileIs( path, smallest );
   EXPECT_TRUE( read( path ).records.empty() );
   EXPECT_TRUE( read( path ).problems.empty() );
}

TEST_F( RoundTrip, AStringThatDoesNotFitIsShortenedAndSaysByHowMuch ) {
   auto const file = TraceFile::TraceFileIs( path, smallest );
   int const id = numberAndText( file.get() );
   write( file.get(), id, 7, std::string( 100000, 'y' ) );
   write( file.get(), id, 8, "short" );
   Read const all = read( path );
   EXPECT_TRUE( all.problems.empty() );
   ASSERT_EQ( all.records.size(), 2U );
   // A record has a quarter of the ring: 1024 bytes, 32 for its head, 8 for the number, 12 for the
   // string's lengths.
   std::size_t const kept = 1024 - 32 - 8 - 12;
   EXPECT_EQ( all.records[ 0 ].text, "number 7 text " + std::string( kept, 'y' ) + "... (" +
                                        std::to_string( 100000 - kept ) + " bytes missing)" );
   EXPECT_EQ( all.records[ 1 ].text, "number 8 text short" );
}

TEST_F( RoundTrip, ValuesBehindAStringThatDoesNotFitAreKept ) {
   auto const file = TraceFile::TraceFileIs( path, smallest );
   MsgDesc desc( file.get(), "Source", 1 );
   desc << Varg{ "s" } << "|" << Varg{ "d" } << "|" << Varg{ "s" } << "|" << Varg{ "b" };
   int const id = desc.finish();
   std::string const longText( 2000, 'z' );
   RingBuf & record = RingBuf::startMsg( file.get(), id );
   put( record, longText );
   put( record, 2.5 );
   put( record, std::string_view( "second" ) );
   put( record, true );
   record.endMsg();
   std::size_t const kept = 1024 - 32 - 12 - 8 - 12 - 1;
   EXPECT_EQ( read( path ).texts(),
              std::vector< std::string >{ std::string( kept, 'z' ) + "... (" +
                                          std::to_string( 2000 - kept ) +
                                          " bytes missing)|2.5|... (6 bytes missing)|true" } );
}

TEST_F( RoundTrip, StringsOfEveryLengthAroundTheLimitAreWholeOrSaySo ) {
   auto const file = TraceFile::TraceFileIs( path, smallest );
   int const id = numberAndText( file.get() );
   for( std::size_t length = 960; length != 1000; ++length ) {
      write( file.get(), id, 1, std::string( length, 'q' ) );
      Read const all = read( path );
      ASSERT_TRUE( all.problems.empty() );
      std::size_t const kept = std::min< std::size_t >( length, 972 );
      std::string const tail =
         kept == length ? "" : "... (" + std::to_string( length - kept ) + " bytes missing)";
      EXPECT_EQ( all.records.back().text, "number 1 text " + std::string( kept, 'q' ) + tail );
   }
}

TEST_F( RoundTrip, PointsWithoutRoomForTheirDescriptorsAreCountedWithTheirRecords ) {
   auto const file = TraceFile::TraceFileIs( path, smallest );
   int id = 0;
   int made = 0;
   while( ( id = numberAndText( file.get() ) ) > 0 )
      EXPECT_EQ( id, ++made );
   EXPECT_EQ( id, -1 );
   EXPECT_GT( made, 5 );
   write( file.get(), id, 1, "lost" );
   write( file.get(), 0, 2, "lost" );
   write( file.get(), made + 1, 3, "lost" );
   write( file.get(), made, 4, "kept" );
   auto const reader = Flitlog::Reader::ReaderIs( path );
   Read const all = rest( *reader );
   EXPECT_EQ( all.texts(), std::vector< std::string >{ "number 4 text kept" } );
   EXPECT_TRUE( all.problems.empty() );
   EXPECT_EQ( reader->lostDescriptors(), 1U );
   EXPECT_EQ( reader->lostRecords(), 3U );
}

TEST_F( RoundTrip, ADescriptorWhoseValuesFitIntoNoRecordIsRefused ) {
   auto const file = TraceFile::TraceFileIs( path, { 4096, nullptr, 8192 } );
   MsgDesc fits( file.get(), "Source", 1 );
   for( int i = 0; i != 124; ++i )
      fits << Varg{ "d" };
   EXPECT_EQ( fits.finish(), 1 );
   MsgDesc tooMany( file.get(), "Source", 2 );
   for( int i = 0; i != 125; ++i )
      tooMany << Varg{ "d" };
   EXPECT_EQ( tooMany.finish(), -1 );
   RingBuf & record = RingBuf::startMsg( file.get(), 1 );
   for( int i = 0; i != 124; ++i )
      put( record, 1.0 );
   record.endMsg();
   EXPECT_EQ( read( path ).texts(), std::vector< std::string >{ std::string( 124, '1' ) } );
}

TEST_F( RoundTrip, MoreValuesThanThereIsRoomForAreDroppedAndCounted ) {
   auto const file = TraceFile::TraceFileIs( path, smallest );
   int const id = numberAndText( file.get() );
   RingBuf & record = RingBuf::startMsg( file.get(), id );
   for( int i = 0; i != 1000; ++i )
      put( record, 1.0 );
   for( int i = 0; i != 1000; ++i )
      put( record, std::string_view( "0123456789" ) );
   record.endMsg();
   write( file.get(), id, 1, "after" );
   auto const reader = Flitlog::Reader::ReaderIs( path );
   EXPECT_EQ( rest( *reader ).texts(), std::vector< std::string >{ "number 1 text after" } );
   EXPECT_EQ( reader->lostRecords(), 1U );
}

TEST_F( RoundTrip, ValuesThatDoNotFitTheDescriptorAreAProblemOfTheirRecordAlone ) {
   auto const file = TraceFile::TraceFileIs( path, smallest );
   int const id = numberAndText( file.get() );
   write( file.get(), id, 1, "before" );
   RingBuf & few = RingBuf::startMsg( file.get(), id );
   put( few, std::uint64_t( 2 ) );
   few.endMsg();
   write( file.get(), id, 3, "between" );
   RingBuf & many = RingBuf::startMsg( file.get(), id );
   put( many, std::uint64_t( 4 ) );
   put( many, std::string_view( "s" ) );
   put( many, true );
   many.endMsg();
   write( file.get(), id, 5, "after" );
   Read const all = read( path );
   EXPECT_EQ( all.texts(),
              ( std::vector< std::string >{ "number 1 text before", "number 3 text between",
                                            "number 5 text after" } ) );
   EXPECT_EQ( all.problems,
              ( std::vector< std::string >{
                 "at ring position 56, record 2: expected a value of type \"s\", found the end of "
                 "the record",
                 "at ring position 152, record 4: expected no more values, found 1 bytes" } ) );
}

TEST_F( RoundTrip, ARecordThatIsNeverEndedIsAsIfItHadNotBegun ) {
   auto const file = TraceFile::TraceFileIs( path, smallest );
   int const id = numberAndText( file.get() );
   put( RingBuf::startMsg( file.get(), id ), std::uint64_t( 99 ) );
   write( file.get(), id, 1, "whole" );
   EXPECT_EQ( read( path ).texts(), std::vector< std::string >{ "number 1 text whole" } );
   EXPECT_TRUE( read( path ).problems.empty() );
}

TEST_F( RoundTrip, OfTwoRecordsInEachOtherTheInnerOneIsKept ) {
   auto const file = TraceFile::TraceFileIs( path, smallest );
   int const id = numberAndText( file.get() );
   RingBuf & outer = RingBuf::startMsg( file.get(), id );
   put( outer, std::uint64_t( 1 ) );
   write( file.get(), id, 2, "inner" );
   put( outer, std::string_view( "outer" ) );
   outer.endMsg();
   write( file.get(), id, 3, "next" );
   auto const reader = Flitlog::Reader::ReaderIs( path );
   Read const all = rest( *reader );
   EXPECT_EQ( all.texts(),
              ( std::vector< std::string >{ "number 2 text inner", "number 3 text next" } ) );
   EXPECT_TRUE( all.problems.empty() );
   EXPECT_EQ( reader->lostRecords(), 1U );
}

TEST_F( RoundTrip, WhatARecordDoesNotFillIsZero ) {
   auto const file = TraceFile::TraceFileIs( path, smallest );
   int const id = numberAndText( file.get() );
   write( file.get(), id, 1, std::string( 40, 'x' ) );
   write( file.get(), id, 2, "y" );
   // 32 bytes of head, 12 of numbers, one of text.
   EXPECT_EQ( contents( path ).substr( 1280 + 88 + 44, 4 ), std::string( "y\0\0\0", 4 ) );
}

TEST_F( RoundTrip, TheClockIsTheCallersAndElseTheWallClock ) {
   {
      auto const file = TraceFile::TraceFileIs( path, smallest );
      int const id = numberAndText( file.get() );
      write( file.get(), id, 1, "" );
      write( file.get(), id, 2, "" );
      Read const all = read( path );
      EXPECT_EQ( all.records[ 0 ].time, 1.0 );
      EXPECT_EQ( all.records[ 1 ].time, 2.0 );
   }
   auto const file = TraceFile::TraceFileIs( path );
   write( file.get(), numberAndText( file.get() ), 1, "" );
   auto const reader = Flitlog::Reader::ReaderIs( path );
   Read const all = rest( *reader );
   EXPECT_GE( all.records[ 0 ].time, reader->created() );
   EXPECT_LT( all.records[ 0 ].time, reader->created() + 1000 );
}

} // namespace
