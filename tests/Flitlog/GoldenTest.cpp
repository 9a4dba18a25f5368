// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
//
// golden.txt holds the bytes of a trace file that was written once, by the first version of the
// format, golden-1.1.txt those of the version that is written now, for a ring without level 9.
// Every build, of either word size, reads both alike and writes the same bytes as the latter:
// whoever changes the format fails here, and then keeps these files for reading, beside one of the
// new version.
#include "Bytes.h"
#include "Support.h"

#include <cstdio>
#include <limits>
#include <sstream>

namespace {

using namespace Rings;

double quarter() { return theTime += 0.25; }

void writeAll( TraceFile * file ) {
   MsgDesc all( file, "Source", 17 );
   all.handleIs( "Ordovan" );
   all.levelIs( 8 );
   all.functionIs( "handleAll" );
   all << "b " << Varg{ "b" } << " i " << Varg{ "i" } << " u " << Varg{ "u" } << " l "
       << Varg{ "l" } << " m " << Varg{ "m" } << " d " << Varg{ "d" } << " s " << Varg{ "s" }
       << " p " << Varg{ "p" } << " x " << Flitlog::HexVarg{ "i" };
   MsgDesc text( file, "Other", 4711 );
   text.handleIs( "Kiv" );
   text.functionIs( "f" );
   text << Varg{ "s" };
   int const allId = all.finish();
   int const textId = text.finish();
   for( int i = 0; i != 40; ++i ) {
      RingBuf & record = RingBuf::startMsg( file, allId );
      put( record, i % 2 == 1 );
      put( record, std::int32_t( -i ) );
      put( record, std::uint32_t( 4000000000U + static_cast< unsigned >( i ) ) );
      put( record, std::numeric_limits< std::int64_t >::min() + i );
      put( record, std::numeric_limits< std::uint64_t >::max() - static_cast< unsigned >( i ) );
      put( record, i == 39 ? -std::numeric_limits< double >::infinity() : 0.1 * i );
      put( record, std::string( static_cast< std::size_t >( i ), 'x' ) );
      put( record, std::string_view( "/a/b" ) );
      put( record, std::int32_t( i - 38 ) );
      record.endMsg();
   }
   RingBuf & record = RingBuf::startMsg( file, textId );
   put( record, std::string( 5000, 'y' ) );
   record.endMsg();
}

// Sixteen bytes a line, after their offset; lines of zeros are left out.
std::string dump( std::string const & bytes ) {
   std::string lines = "size " + std::to_string( bytes.size() ) + "\n";
   for( std::size_t i = 0; i < bytes.size(); i += 16 ) {
      std::string const line = bytes.substr( i, 16 );
      if( line.find_first_not_of( '\0' ) == line.npos )
         continue;
      char digits[ 16 ];
      std::snprintf( digits, sizeof digits, "%04x", static_cast< unsigned >( i ) );
      lines += digits;
      for( char const c : line ) {
         std::snprintf( digits, sizeof digits, " %02x", static_cast< unsigned char >( c ) );
         lines += digits;
      }
      lines += '\n';
   }
   return lines;
}
std::string undump( std::string const & text ) {
   std::istringstream in( text );
   std::string line;
   std::size_t size = 0;
   in >> line >> size;
   std::string bytes( size, '\0' );
   std::getline( in, line );
   while( std::getline( in, line ) ) {
      std::istringstream words( line );
      std::size_t offset = 0;
      words >> std::hex >> offset;
      for( unsigned byte = 0; words >> byte; )
         bytes.at( offset++ ) = static_cast< char >( byte );
   }
   return bytes;
}

std::vector< std::string > linesOf( std::string const & path ) {
   Read const all = read( path );
   EXPECT_TRUE( all.problems.empty() );
   std::vector< std::string > lines;
   for( Flitlog::Record const & r : all.records ) {
      char head[ 100 ];
      std::snprintf( head, sizeof head,
                     "%d %.2f %s/%u %s:%d %s: ", static_cast< int >( r.sequence ), r.time,
                     r.handle.c_str(), r.level, r.source.c_str(), r.line, r.function.c_str() );
      lines.push_back( head + r.text );
   }
   return lines;
}

std::string stored( char const * name ) {
   return undump( contents( std::string( FLITLOG_GOLDEN ) + "/" + name ) );
}

struct Golden : Folder {
   std::string const first = stored( "golden.txt" );
   std::string const golden = stored( "golden-1.1.txt" );
};

TEST_F( Golden, AStoredFileReadsAsItAlwaysDid ) {
   MemoryFile const file( first );
   EXPECT_EQ( Flitlog::Reader::ReaderIs( file.path() )->levels(), 0x3ffU ) << "it took all";
   std::vector< std::string > const lines = linesOf( file.path() );
   ASSERT_EQ( lines.size(), 29U );
   EXPECT_EQ( lines[ 0 ], "13 3.25 Ordovan/8 Source:17 handleAll: b false i -12 u 4000000012 l "
                          "-9223372036854775796 m 18446744073709551603 d 1.2000000000000002 s "
                          "xxxxxxxxxxxx p /a/b x 0xffffffe6" );
   EXPECT_EQ( lines[ 27 ], "40 10.00 Ordovan/8 Source:17 handleAll: b true i -39 u 4000000039 l "
                           "-9223372036854775769 m 18446744073709551576 d -inf s "
                           "xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx p /a/b x 0x1" );
   EXPECT_EQ( lines[ 28 ], "41 10.25 Kiv/0 Other:4711 f: " + std::string( 980, 'y' ) +
                              "... (4020 bytes missing)" );
}

TEST_F( Golden, AStoredFileOfThisVersionReadsTheSameAndSaysWhichLevelsItTook ) {
   MemoryFile const file( golden );
   EXPECT_EQ( Flitlog::Reader::ReaderIs( file.path() )->levels(), 0x1ffU );
   EXPECT_EQ( linesOf( file.path() ), linesOf( MemoryFile( first ).path() ) );
}

TEST_F( Golden, TheSameRecordsGiveTheSameBytes ) {
   auto const file = TraceFile::TraceFileIs( path, { 4096, &quarter, 1024, 0x1ff } );
   writeAll( file.get() );
   std::string written = contents( path );
   ASSERT_EQ( written.size(), golden.size() );
   // The process and when it made the file, and the sum that covers these.
   std::string wanted = golden;
   for( auto const & [ offset, bytes ] :
        { std::pair( 56, 4 ), std::pair( 64, 8 ), std::pair( 72, 4 ) } ) {
      std::fill_n( written.begin() + offset, bytes, '\0' );
      std::fill_n( wanted.begin() + offset, bytes, '\0' );
   }
   EXPECT_EQ( dump( written ), dump( wanted ) );
   EXPECT_EQ( linesOf( path ), linesOf( MemoryFile( golden ).path() ) );
}

} // namespace
