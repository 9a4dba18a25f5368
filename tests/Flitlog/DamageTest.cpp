// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include "Bytes.h"
#include "Support.h"

#include <algorithm>
#include <fstream>
#include <functional>
#include <string>

#include <fcntl.h>
#include <malloc.h>

namespace {

using namespace Rings;
using Flitlog::detail::DescriptorHead;
using Flitlog::detail::Header;
using Flitlog::detail::RecordHead;

constexpr std::size_t descriptorsAt = 256;
constexpr std::size_t ringAt = 256 + 1024;

struct Damage : Folder {
   // A file with so many records of 64 bytes each.
   std::string ring( std::uint64_t count ) {
      std::filesystem::remove( path + ".old" );
      auto const file = TraceFile::TraceFileIs( path, smallest );
      int const id = numberAndText( file.get() );
      for( std::uint64_t i = 1; i <= count; ++i )
         write( file.get(), id, i, textOf( i ) );
      return contents( path );
   }
   static std::string textOf( std::uint64_t number ) {
      return std::string( 20, static_cast< char >( 'a' + number % 26 ) );
   }
   static bool right( Flitlog::Record const & r ) {
      return r.handle == "Handle" && r.level == 8 && r.source == "Source" && r.line == 42 &&
             r.function == "function" && r.time == static_cast< double >( r.sequence ) &&
             r.text == "number " + std::to_string( r.sequence ) + " text " + textOf( r.sequence );
   }
   static std::vector< std::uint64_t > numbers( Whatever const & all ) {
      std::vector< std::uint64_t > found;
      for( Flitlog::Record const & r : all.records ) {
         EXPECT_TRUE( right( r ) ) << r.text;
         found.push_back( r.sequence );
      }
      return found;
   }
   static Whatever readBytes( std::string const & bytes ) {
      return readWhatever( MemoryFile( bytes ).path() );
   }
   // What the header says is wrong, without the path.
   static std::string refusal( std::string const & bytes ) {
      MemoryFile const file( bytes );
      std::string const refused = readWhatever( file.path() ).refused;
      return refused.empty() ? "not refused" : refused.substr( file.path().size() + 2 );
   }
   // The record that stands at that place of the ring is given another head, with the right sum.
   static void headIs( std::string & bytes, std::size_t offset,
                       std::function< void( RecordHead & ) > const & change ) {
      auto head = at< RecordHead >( bytes, ringAt + offset );
      std::size_t const size = head.size;
      change( head );
      atIs( bytes, ringAt + offset, head );
      head.check = Flitlog::detail::entryCheck( bytes.data() + ringAt + offset, size );
      atIs( bytes, ringAt + offset, head );
   }
};

// Of a file without records.
Header emptyHeader( std::uint64_t ringBytes, std::uint64_t descriptorsBytes ) {
   Header header{};
   std::copy( std::begin( Flitlog::detail::magic ), std::end( Flitlog::detail::magic ),
              header.magic );
   header.majorVersion = 1;
   header.headerBytes = 256;
   header.descriptorsAt = 256;
   header.descriptorsBytes = descriptorsBytes;
   header.ringAt = 256 + descriptorsBytes;
   header.ringBytes = ringBytes;
   header.fileBytes = header.ringAt + ringBytes;
   header.recordMost =
      static_cast< std::uint32_t >( std::min< std::uint64_t >( ringBytes / 4, 1 << 20 ) );
   header.check = Flitlog::detail::headerCheck( header );
   return header;
}

std::vector< std::uint64_t > fromTo( std::uint64_t first, std::uint64_t last ) {
   std::vector< std::uint64_t > all;
   for( ; first <= last; ++first )
      all.push_back( first );
   return all;
}

TEST_F( Damage, WhatIsNoTraceFileIsRefusedWithWhatWasExpected ) {
   EXPECT_EQ( refusal( "" ), "is empty; expected a trace file" );
   char const * const foreign = "is not a trace file; expected it to begin with the bytes "
                                "8b 46 6c 69 74 0d 0a 1a";
   EXPECT_EQ( refusal( "x" ), foreign );
   EXPECT_EQ( refusal( std::string( 10000, '\0' ) ), foreign );
   EXPECT_EQ( refusal( "\x8b"
                       "Flit\n\x1a" +
                       std::string( 300, ' ' ) ),
              foreign );
   EXPECT_EQ( refusal( "\x8b"
                       "Flit\r\n\x1a" ),
              "is cut off after 8 bytes; expected a header of 256" );
   auto const openError = []( std::string const & name ) {
      try {
         Flitlog::Reader::ReaderIs( name );
      } catch( Flitlog::FileError const & e ) {
         return std::string( e.what() ).substr( name.size() + 2 );
      }
      return std::string( "not refused" );
   };
   EXPECT_EQ( openError( folder ), "is a directory; expected a trace file" );
   EXPECT_EQ( openError( "/dev/null" ), "is not a regular file; expected a trace file" );
   EXPECT_EQ( openError( folder + "/none" ),
              "cannot be opened; expected a trace file: No such file or directory" );
}

TEST_F( Damage, OtherMajorVersionsAreRefusedAndLaterMinorOnesRead ) {
   std::string bytes = ring( 3 );
   atIs( bytes, offsetof( Header, minorVersion ), std::uint16_t( 7 ) );
   resumHeader( bytes );
   EXPECT_EQ( numbers( readBytes( bytes ) ), fromTo( 1, 3 ) );
   EXPECT_TRUE( readBytes( bytes ).problems.empty() );
   atIs( bytes, offsetof( Header, majorVersion ), std::uint16_t( 2 ) );
   EXPECT_EQ( refusal( bytes ), "has format version 2.7; expected version 1" );
}

TEST_F( Damage, LevelsOfWhichOneIsNeitherTakenNorLeftOutAreReportedAndCountAsAll ) {
   std::string const sound = ring( 3 );
   ASSERT_TRUE( readBytes( sound ).problems.empty() );
   for( auto const & [ taken, leftOut ] :
        std::vector< std::pair< std::uint16_t, std::uint16_t > >{ { 0x1ff, 0 },
                                                                  { 0x3ff, 0x200 },
                                                                  { 0, 0 },
                                                                  { 0, 0x3ff },
                                                                  { 0x7ff, 0 },
                                                                  { 0x3ff, 0x400 },
                                                                  { 0x7ff, 0x400 } } ) {
      std::string bytes = sound;
      atIs( bytes, offsetof( Header, levelsTaken ), taken );
      atIs( bytes, offsetof( Header, levelsLeftOut ), leftOut );
      MemoryFile const file( bytes );
      auto const reader = Flitlog::Reader::ReaderIs( file.path() );
      EXPECT_EQ( reader->levels(), Flitlog::allLevels );
      EXPECT_EQ( numbers( readBytes( bytes ) ), fromTo( 1, 3 ) );
      EXPECT_EQ( reader->problems(),
                 std::vector< std::string >{
                    "in the header: expected each level taken or left out, as the bits of two "
                    "words that add up to 1023, found " +
                    std::to_string( taken ) + " and " + std::to_string( leftOut ) } );
   }
}

TEST_F( Damage, WhatStandsAtTheLevelsInAFileOfTheFirstMinorVersionMeansNothing ) {
   std::string bytes = ring( 3 );
   atIs( bytes, offsetof( Header, minorVersion ), std::uint16_t( 0 ) );
   atIs( bytes, offsetof( Header, levelsTaken ), std::uint16_t( 0x1ff ) );
   atIs( bytes, offsetof( Header, levelsLeftOut ), std::uint16_t( 0x200 ) );
   resumHeader( bytes );
   MemoryFile const file( bytes );
   auto const reader = Flitlog::Reader::ReaderIs( file.path() );
   EXPECT_EQ( reader->levels(), Flitlog::allLevels );
   EXPECT_TRUE( reader->problems().empty() );
}

TEST_F( Damage, AHeaderThatGrewInALaterMinorVersionIsPassedOver ) {
   std::string bytes = ring( 3 );
   bytes.insert( 256, 64, 'n' );
   atIs( bytes, offsetof( Header, headerBytes ), std::uint32_t( 320 ) );
   atIs( bytes, offsetof( Header, descriptorsAt ), std::uint64_t( 320 ) );
   atIs( bytes, offsetof( Header, ringAt ), std::uint64_t( 320 + 1024 ) );
   atIs( bytes, offsetof( Header, fileBytes ), std::uint64_t( 320 + 1024 + 4096 ) );
   resumHeader( bytes );
   Whatever const all = readBytes( bytes );
   EXPECT_EQ( numbers( all ), fromTo( 1, 3 ) );
   EXPECT_TRUE( all.problems.empty() );
}

TEST_F( Damage, AFileThatIsCutOffAnywhereGivesWhatIsThereAndSaysSo ) {
   std::string const whole = ring( 100 ); // around one and a half times
   MemoryFile const file( whole );
   std::vector< std::uint64_t > const all = numbers( readWhatever( file.path() ) );
   ASSERT_EQ( all, fromTo( 37, 100 ) );
   // Records 65 to 100 stand at the ring's start, the older ones behind them.
   for( std::size_t length = whole.size(); length-- != 0; ) {
      file.sizeIs( length );
      Whatever const cut = readWhatever( file.path() );
      if( length < 256 ) {
         ASSERT_NE( cut.refused, "" ) << length;
         continue;
      }
      ASSERT_EQ( cut.refused, "" ) << length;
      ASSERT_FALSE( cut.problems.empty() ) << length;
      ASSERT_EQ( cut.problems[ 0 ], "the file has " + std::to_string( length ) +
                                       " bytes: expected " + std::to_string( whole.size() ) );
      // A record is there or is not; those that are there, are read.
      std::size_t const intact = length < ringAt ? 0 : ( length - ringAt ) / 64;
      std::vector< std::uint64_t > expected;
      for( std::uint64_t const n : all )
         if( ( n - 1 ) % 64 < intact )
            expected.push_back( n );
      std::vector< std::uint64_t > found = numbers( cut );
      // The last bytes of a record may be zeros, which a file that ends there is read as.
      if( found.size() == expected.size() + 1 )
         std::erase_if( found, [ & ]( std::uint64_t n ) { return ( n - 1 ) % 64 == intact; } );
      ASSERT_EQ( found, expected ) << length;
   }
}

// Each byte is flipped in each bit and inverted: what is read is right, and what is not read is
// reported. Only what the header says of now cannot be checked that well.
TEST_F( Damage, NoFlippedByteGivesAWrongRecord ) {
   std::string const whole = ring( 70 );
   MemoryFile const file( whole );
   std::vector< std::uint64_t > const all = numbers( readWhatever( file.path() ) );
   ASSERT_EQ( all, fromTo( 7, 70 ) );
   std::uint64_t const usedEnd = descriptorsAt + at< std::uint64_t >( whole, 144 );
   for( std::size_t offset = 0; offset != whole.size(); ++offset ) {
      if( offset >= usedEnd && offset < ringAt )
         continue; // not used
      for( int const mask : { 1, 2, 4, 8, 16, 32, 64, 128, 255 } ) {
         file.byteIs( offset, static_cast< char >( whole[ offset ] ^ mask ) );
         Whatever const flipped = readWhatever( file.path() );
         std::vector< std::uint64_t > const found = numbers( flipped );
         ASSERT_TRUE( std::is_sorted( found.begin(), found.end() ) ) << offset;
         bool const changing = offset >= 76 && offset < 256;
         ASSERT_TRUE( changing || !flipped.problems.empty() || !flipped.refused.empty() ) << offset;
         if( offset >= ringAt ) {
            // One record is damaged, all others are there.
            ASSERT_EQ( found.size(), all.size() - 1 ) << offset << ' ' << mask;
            ASSERT_EQ( flipped.problems.size(), 1U ) << flipped.problems[ 1 ];
         }
      }
      file.byteIs( offset, whole[ offset ] );
   }
}

TEST_F( Damage, ADamagedRecordIsSkippedAndTheReportSaysWhere ) {
   std::string bytes = ring( 10 );
   bytes[ ringAt + 3 * 64 + 45 ] ^= 1;
   Whatever const all = readBytes( bytes );
   EXPECT_EQ( numbers( all ), ( std::vector< std::uint64_t >{ 1, 2, 3, 5, 6, 7, 8, 9, 10 } ) );
   ASSERT_EQ( all.problems.size(), 1U );
   EXPECT_TRUE( all.problems[ 0 ].starts_with(
      "at ring position 192: expected a record whose check sum is right, found " ) )
      << all.problems[ 0 ];
   EXPECT_TRUE(
      all.problems[ 0 ].ends_with( " for one of 64 bytes; skipped 64 bytes; record 4 is missing" ) )
      << all.problems[ 0 ];
}

TEST_F( Damage, ADamagedStretchIsSkippedUpToTheNextRecord ) {
   std::string bytes = ring( 10 );
   std::fill_n( bytes.begin() + ringAt + 3 * 64 + 8, 3 * 64, '\x55' );
   atIs( bytes, ringAt + 3 * 64, std::uint32_t( 12 ) );
   Whatever const all = readBytes( bytes );
   EXPECT_EQ( numbers( all ), ( std::vector< std::uint64_t >{ 1, 2, 3, 8, 9, 10 } ) );
   EXPECT_EQ( all.problems,
              ( std::vector< std::string >{
                 "at ring position 192: expected a record's size, a multiple of 8 from 32 to 448, "
                 "found 12; skipped 256 bytes; records 4 to 7 are missing" } ) );
}

TEST_F( Damage, DamageUpToTheEndIsReportedOnce ) {
   std::string bytes = ring( 10 );
   std::fill_n( bytes.begin() + ringAt + 9 * 64, 64, '\0' );
   Whatever const all = readBytes( bytes );
   EXPECT_EQ( numbers( all ), fromTo( 1, 9 ) );
   EXPECT_EQ( all.problems,
              ( std::vector< std::string >{
                 "at ring position 576: expected a record's size, a multiple of 8 from 32 to 64, "
                 "found 0; skipped 64 bytes" } ) );
}

// Bytes of an earlier round that look like records are none of this one.
TEST_F( Damage, RecordsOfAnEarlierRoundAreNotTakenForNewOnes ) {
   std::string bytes = ring( 10 );
   headIs( bytes, 5 * 64, []( RecordHead & head ) { head.sequence = 2; } );
   Whatever const all = readBytes( bytes );
   EXPECT_EQ( numbers( all ), ( std::vector< std::uint64_t >{ 1, 2, 3, 4, 5, 7, 8, 9, 10 } ) );
   EXPECT_EQ( all.problems, ( std::vector< std::string >{
                               "at ring position 320: expected record 6, found record 2; skipped "
                               "64 bytes; record 6 is missing" } ) );
}

TEST_F( Damage, ARecordThatIsLargerThanTheRingIsNotRead ) {
   std::string const good = ring( 10 );
   for( std::uint32_t const size : { 0x10000000U, 0xfffffff8U, 4096U, 1032U } ) {
      std::string bytes = good;
      auto head = at< RecordHead >( bytes, ringAt + 5 * 64 );
      head.size = size;
      head.valueBytes = size - 32;
      atIs( bytes, ringAt + 5 * 64, head );
      Whatever const all = readBytes( bytes );
      EXPECT_EQ( numbers( all ), ( std::vector< std::uint64_t >{ 1, 2, 3, 4, 5, 7, 8, 9, 10 } ) );
      EXPECT_EQ( all.problems,
                 std::vector< std::string >{
                    "at ring position 320: expected a record's size, a multiple of 8 from 32 to "
                    "320, found " +
                    std::to_string( size ) + "; skipped 64 bytes; record 6 is missing" } );
   }
}

TEST_F( Damage, AGapInTheNumbersIsReported ) {
   std::string bytes = ring( 10 );
   for( std::size_t i = 5; i != 10; ++i )
      headIs( bytes, i * 64, []( RecordHead & head ) { head.sequence += 3; } );
   Whatever const all = readBytes( bytes );
   EXPECT_EQ( all.records.size(), 10U );
   EXPECT_EQ( all.problems, ( std::vector< std::string >{
                               "at ring position 320: expected record 6, found record 9" } ) );
}

TEST_F( Damage, SizesThatCannotBeAreRefused ) {
   std::string const good = ring( 10 );
   struct Change {
      std::size_t offset;
      std::uint64_t value;
      std::size_t bytes;
   };
   std::uint64_t const most = ~std::uint64_t( 0 );
   for( Change const change :
        { Change{ 12, 255, 4 }, { 12, 264, 4 },      { 12, most, 4 }, { 16, 0, 8 },
          { 16, most, 8 },      { 16, 5384, 8 },     { 24, 0, 8 },    { 24, 257, 8 },
          { 24, most - 7, 8 },  { 32, most - 7, 8 }, { 32, 1032, 8 }, { 40, 0, 8 },
          { 40, most - 7, 8 },  { 40, 1288, 8 },     { 48, 0, 8 },    { 48, 8, 8 },
          { 48, 4104, 8 },      { 48, most - 7, 8 }, { 60, 0, 4 },    { 60, 56, 4 },
          { 60, 4104, 4 },      { 60, most, 4 },     { 60, 1023, 4 } } ) {
      std::string bytes = good;
      std::memcpy( bytes.data() + change.offset, &change.value, change.bytes );
      resumHeader( bytes );
      std::string const refused = refusal( bytes );
      EXPECT_TRUE( refused.starts_with( "has a header that cannot be used; expected " ) )
         << change.offset << ' ' << change.value << ": " << refused;
   }
}

// What this process has read, by all system calls that read: how much work a reader makes of a
// file, however fast the machine is. 0 where the system does not count it. What costs only
// computing is caught by the time limit of the whole test.
std::uint64_t bytesReadSoFar() {
   std::ifstream io( "/proc/self/io" );
   std::string name;
   std::uint64_t bytes = 0;
   return io >> name >> bytes && name == "rchar:" ? bytes : 0;
}

// Makes the file's ring one of 64 GiB by its header.
void makeHuge( std::string & bytes ) {
   std::uint64_t const huge = std::uint64_t( 1 ) << 36;
   atIs( bytes, offsetof( Header, ringBytes ), huge );
   atIs( bytes, offsetof( Header, fileBytes ), huge + ringAt );
   atIs( bytes, offsetof( Header, head ), huge );
   resumHeader( bytes );
}

TEST_F( Damage, AHugeRingThatIsNotThereCostsNeitherTimeNorMemory ) {
   std::string bytes = ring( 10 );
   makeHuge( bytes );
   std::uint64_t const before = bytesReadSoFar();
   Whatever const all = readBytes( bytes );
   EXPECT_LT( bytesReadSoFar() - before, std::uint64_t( 64 << 10 ) );
   EXPECT_EQ( numbers( all ), fromTo( 1, 10 ) );
   EXPECT_EQ( all.problems.size(), 2U );
}

TEST_F( Damage, AHugeRingThatIsAHoleCostsNoTimeEither ) {
   std::string bytes = ring( 20 );
   makeHuge( bytes );
   MemoryFile const file( bytes );
   file.sizeIs( ringAt + ( std::uint64_t( 1 ) << 36 ) );
   // Records beyond gigabytes of nothing are found.
   std::uint64_t const far = std::uint64_t( 3 ) << 33;
   file.bytesAre( ringAt + far, bytes.substr( ringAt + 10 * 64, 10 * 64 ) );
   file.bytesAre( ringAt + 10 * 64, std::string( 10 * 64, '\0' ) );
   std::uint64_t const before = bytesReadSoFar();
   Whatever const all = readWhatever( file.path() );
   EXPECT_LT( bytesReadSoFar() - before, std::uint64_t( 16 << 20 ) );
   EXPECT_EQ( numbers( all ), fromTo( 1, 20 ) );
   ASSERT_EQ( all.problems.size(), 2U );
   EXPECT_TRUE(
      all.problems[ 0 ].ends_with( "; skipped " + std::to_string( far - 640 ) + " bytes" ) )
      << all.problems[ 0 ];
}

TEST_F( Damage, BytesStrewnIntoAHugeHoleAreSearchedAlone ) {
   std::string bytes = ring( 10 );
   makeHuge( bytes );
   MemoryFile const file( bytes );
   std::uint64_t const huge = std::uint64_t( 1 ) << 36;
   file.sizeIs( ringAt + huge );
   for( std::uint64_t i = 1; i != 4096; ++i )
      file.bytesAre( ringAt + huge / 4096 * i, "x" );
   std::uint64_t const before = bytesReadSoFar();
   Whatever const all = readWhatever( file.path() );
   EXPECT_LT( bytesReadSoFar() - before, std::uint64_t( 4096 * ( 64 << 10 ) + ( 64 << 20 ) ) );
   EXPECT_EQ( numbers( all ), fromTo( 1, 10 ) );
   EXPECT_EQ( all.problems.size(), 1U );
}

TEST_F( Damage, ARoomForDescriptorsThatIsAHoleIsPassedOver ) {
   std::string bytes = ring( 10 );
   std::uint64_t const room = 64 << 20;
   std::string const descriptor = bytes.substr( descriptorsAt, 1024 );
   std::string const records = bytes.substr( ringAt );
   atIs( bytes, offsetof( Header, descriptorsBytes ), room );
   atIs( bytes, offsetof( Header, ringAt ), descriptorsAt + room );
   atIs( bytes, offsetof( Header, fileBytes ), descriptorsAt + room + 4096 );
   atIs( bytes, offsetof( Header, descriptorsUsed ), room );
   resumHeader( bytes );
   MemoryFile const file( bytes.substr( 0, descriptorsAt ) );
   file.bytesAre( descriptorsAt + room - 1024, descriptor );
   file.bytesAre( descriptorsAt + room, records );
   std::uint64_t const before = bytesReadSoFar();
   Whatever const all = readWhatever( file.path() );
   EXPECT_LT( bytesReadSoFar() - before, std::uint64_t( 64 << 10 ) );
   EXPECT_EQ( numbers( all ), fromTo( 1, 10 ) );
   EXPECT_EQ( all.problems.size(), 2U );
}

TEST_F( Damage, PositionsThatCannotBeAreReportedAndNothingIsRead ) {
   std::string const good = ring( 100 );
   auto const tail = at< std::uint64_t >( good, 128 );
   auto const head = at< std::uint64_t >( good, 136 );
   struct Positions {
      std::uint64_t tail, head;
   };
   std::uint64_t const high = ~std::uint64_t( 7 );
   for( Positions const p : { Positions{ head + 8, head },
                              { tail - 8, head },
                              { tail, head + 8 },
                              { tail + 1, head },
                              { tail, head - 1 },
                              { high, high },
                              { 0, high },
                              { high, 0 },
                              { high - 4096, high } } ) {
      std::string bytes = good;
      atIs( bytes, 128, p.tail );
      atIs( bytes, 136, p.head );
      Whatever const all = readBytes( bytes );
      EXPECT_TRUE( all.records.empty() );
      EXPECT_EQ( all.problems,
                 std::vector< std::string >{
                    "in the header: expected tail and head, multiples of 8 that are at most 4096 "
                    "apart, found " +
                    std::to_string( p.tail ) + " and " + std::to_string( p.head ) } );
   }
}

TEST_F( Damage, ATailInTheMiddleOfARecordLosesThatRecordAlone ) {
   std::string bytes = ring( 100 );
   atIs( bytes, 128, at< std::uint64_t >( bytes, 128 ) + 24 );
   Whatever const all = readBytes( bytes );
   EXPECT_EQ( numbers( all ), fromTo( 38, 100 ) );
   EXPECT_EQ( all.problems.size(), 1U );
}

TEST_F( Damage, ADamagedDescriptorCostsItsRecordsAlone ) {
   std::string bytes;
   {
      auto const file = TraceFile::TraceFileIs( path, smallest );
      for( int i = 0; i != 3; ++i )
         numberAndText( file.get() );
      for( int id = 1; id != 4; ++id )
         write( file.get(), id, static_cast< std::uint64_t >( id ),
                textOf( static_cast< std::uint64_t >( id ) ) );
      bytes = contents( path );
   }
   auto const size = at< std::uint32_t >( bytes, descriptorsAt );
   bytes[ descriptorsAt + size + 40 ] ^= 1;
   Whatever const all = readBytes( bytes );
   EXPECT_EQ( numbers( all ), ( std::vector< std::uint64_t >{ 1, 3 } ) );
   EXPECT_EQ( all.problems,
              ( std::vector< std::string >{
                 "at offset " + std::to_string( size ) +
                    " of the descriptors: expected descriptor 2, found bytes that are none; "
                    "skipped " +
                    std::to_string( size ) + " bytes",
                 "at ring position 64, record 2: expected the id of a descriptor that can be read, "
                 "found 2" } ) );
}

// What opening a file takes whose descriptors have so many pieces each, all of them empty.
std::size_t memoryFor( std::uint32_t pieces, std::size_t room ) {
   std::string entry( 24 + 12 + 5 * pieces, '\0' );
   entry.resize( ( entry.size() + 7 ) / 8 * 8 );
   DescriptorHead head{};
   head.size = static_cast< std::uint32_t >( entry.size() );
   head.pieces = pieces;
   std::string bytes( descriptorsAt, '\0' );
   for( head.id = 1; bytes.size() + entry.size() <= descriptorsAt + room; ++head.id ) {
      atIs( entry, 0, head );
      atIs( entry, 4, Flitlog::detail::entryCheck( entry.data(), entry.size() ) );
      bytes += entry;
   }
   Header header = emptyHeader( 4096, room );
   header.descriptorsUsed = bytes.size() - descriptorsAt;
   atIs( bytes, 0, header );
   bytes.resize( descriptorsAt + room + 4096 );
   MemoryFile const file( bytes );
   auto const used = [] {
      auto const memory = mallinfo2();
      return memory.uordblks + memory.hblkhd;
   };
   std::size_t const before = used();
   auto const reader = Flitlog::Reader::ReaderIs( file.path() );
   EXPECT_EQ( reader->problems(), std::vector< std::string >() );
   return used() - before;
}

TEST_F( Damage, DescriptorsTakeMemoryInProportionToTheirBytes ) {
   std::size_t const room = 8 << 20;
   // None at all; and a few more than a power of two, which is when a vector that grew has the most
   // to spare.
   for( std::uint32_t const pieces : { 0U, 1U, 5U, 8196U } )
      EXPECT_LT( memoryFor( pieces, room ), 10 * room ) << pieces;
}

struct DamagedDescriptor : Damage {
   // What is wrong with the first descriptor after the change, which keeps its size.
   std::string wrong( std::function< void( std::string & entry ) > const & change ) {
      std::string bytes = ring( 1 );
      auto const size = at< std::uint32_t >( bytes, descriptorsAt );
      std::string entry = bytes.substr( descriptorsAt, size );
      change( entry );
      atIs( entry, 4, Flitlog::detail::entryCheck( entry.data(), entry.size() ) );
      bytes.replace( descriptorsAt, size, entry );
      Whatever const all = readBytes( bytes );
      EXPECT_TRUE( all.records.empty() );
      std::string const place = "at offset 0 of the descriptors, descriptor 1: ";
      if( all.problems.empty() || !all.problems[ 0 ].starts_with( place ) )
         return "nothing";
      return all.problems[ 0 ].substr( place.size() );
   }
};

TEST_F( DamagedDescriptor, IsReportedWithWhatWasExpected ) {
   // handle at 24, source at 34, function at 44, pieces from 56: a literal with its length at 57.
   EXPECT_EQ( wrong( []( std::string & e ) { atIs( e, 24, 1000U ); } ),
              "expected the names of handle, source and function, found the end before" );
   // The zeros at the end would do for an empty literal, but for no more than one.
   EXPECT_EQ( wrong( []( std::string & e ) { atIs( e, 20, 6U ); } ),
              "expected 6 pieces at least, found the end before" );
   EXPECT_EQ( wrong( []( std::string & e ) { atIs( e, 20, ~0U ); } ),
              "expected 6 pieces at least, found the end before" );
   EXPECT_EQ( wrong( []( std::string & e ) { atIs( e, 20, 1U ); } ),
              "expected zeros up to a multiple of 8 after 1 pieces, found 28 other bytes" );
   EXPECT_EQ( wrong( []( std::string & e ) { e[ 56 ] = 3; } ),
              "expected a piece of kind 0, 1 or 2, found 3" );
   EXPECT_EQ( wrong( []( std::string & e ) { e[ 56 ] = 1; } ),
              "expected a type code, one of b i u l m d s p, found \"number \"" );
   EXPECT_EQ( wrong( []( std::string & e ) { e[ e.find( 'm', 64 ) ] = '\x07'; } ),
              "expected a type code, one of b i u l m d s p, found \"\\x7\"" );
   EXPECT_EQ( wrong( []( std::string & e ) {
                 e[ 68 ] = 2;
                 e[ 73 ] = 'd';
              } ),
              "expected a hexadecimal type code, one of i u l m, found \"d\"" );
}

TEST_F( Damage, ValuesThatCannotBeAreReported ) {
   std::string bytes;
   {
      auto const file = TraceFile::TraceFileIs( path, smallest );
      MsgDesc desc( file.get(), "Source", 1 );
      desc << Varg{ "b" } << Varg{ "s" };
      int const id = desc.finish();
      RingBuf & record = RingBuf::startMsg( file.get(), id );
      put( record, true );
      put( record, std::string_view( "abc" ) );
      record.endMsg();
      bytes = contents( path );
   }
   auto const problem = [ & ]( std::size_t offset, std::uint32_t value, std::size_t size ) {
      std::string changed = bytes;
      std::memcpy( changed.data() + ringAt + 32 + offset, &value, size );
      headIs( changed, 0, []( RecordHead & ) {} );
      Whatever const all = readBytes( changed );
      EXPECT_TRUE( all.records.empty() );
      return all.problems.size() == 1 ? all.problems[ 0 ] : "nothing";
   };
   std::string const place = "at ring position 0, record 1: ";
   std::string const cut = place + "expected a value of type \"s\", found the end of the record";
   EXPECT_EQ( problem( 0, 2, 1 ),
              place + "expected a value of type \"b\", found a byte that is none" );
   EXPECT_EQ( problem( 1, 4, 4 ), cut );
   EXPECT_EQ( problem( 1, 0x7fffffff, 4 ), cut );
   EXPECT_EQ( problem( 1, 0x80000003, 4 ), cut );
   EXPECT_EQ( problem( 1, 2, 4 ), place + "expected no more values, found 1 bytes" );
}

// A ring of which every eight bytes look like the beginning of the largest record there may be:
// whoever sums up each of them reads terabytes.
std::string pretendedRecords( std::uint64_t ringBytes, std::uint64_t there ) {
   std::uint32_t const size = 1 << 20;
   Header header = emptyHeader( ringBytes, 0 );
   header.head = ringBytes;
   std::string bytes( static_cast< std::size_t >( 256 + there ), '\0' );
   atIs( bytes, 0, header );
   // { size, check } { sequence } { time } { id, valueBytes }, all of them the same eight bytes.
   struct Word {
      std::uint32_t low, high;
   } const word{ size, size - 32 };
   for( std::size_t i = 256; i + 8 <= bytes.size(); i += 8 )
      atIs( bytes, i, word );
   return bytes;
}

TEST_F( Damage, ARingOfPretendedRecordsIsReadOnce ) {
   std::string const bytes = pretendedRecords( 16 << 20, 16 << 20 );
   std::uint64_t const before = bytesReadSoFar();
   Whatever const all = readBytes( bytes );
   EXPECT_LT( bytesReadSoFar() - before, std::uint64_t( 32 << 20 ) );
   EXPECT_TRUE( all.records.empty() );
   EXPECT_EQ( all.problems.size(), 1U );
}

TEST_F( Damage, WhatAHolePretendsToHoldEarnsNoSearch ) {
   std::uint64_t const ringBytes = std::uint64_t( 1 ) << 36;
   MemoryFile const file( pretendedRecords( ringBytes, 4 << 20 ) );
   file.sizeIs( 256 + ringBytes );
   std::uint64_t const before = bytesReadSoFar();
   Whatever const all = readWhatever( file.path() );
   EXPECT_LT( bytesReadSoFar() - before, std::uint64_t( 32 << 20 ) );
   EXPECT_TRUE( all.records.empty() );
   EXPECT_EQ( all.problems.size(), 1U );
}

TEST_F( Damage, OfVeryManyProblemsOnlyTheFirstAreKeptButAllAreCounted ) {
   std::string bytes;
   {
      auto const file = TraceFile::TraceFileIs( path, { 1 << 20, &tick, 1024 } );
      int const id = numberAndText( file.get() );
      for( std::uint64_t i = 0; i != 6000; ++i )
         write( file.get(), id, i, textOf( i ) );
      bytes = contents( path );
   }
   for( std::size_t i = 0; i != 3000; ++i )
      bytes[ ringAt + i * 128 + 40 ] ^= 1;
   MemoryFile const file( bytes );
   auto const reader = Flitlog::Reader::ReaderIs( file.path() );
   EXPECT_EQ( rest( *reader ).records.size(), 3000U );
   EXPECT_EQ( reader->problems().size(), 1000U );
   EXPECT_EQ( reader->problemsInAll(), 3000U );
}

// What the program did to its own memory before it died.
TEST_F( Damage, AWriterWhoseRingIsSpoiledGoesOnWithoutWritingElsewhere ) {
   auto const file = TraceFile::TraceFileIs( path, smallest );
   int const id = numberAndText( file.get() );
   for( std::uint64_t i = 1; i <= 64; ++i )
      write( file.get(), id, i, textOf( i ) );
   for( std::uint32_t const size : { 0U, 7U, 33U, 0x10000U, ~0U } ) {
      int const fd = ::open( path.c_str(), O_WRONLY );
      std::string const spoil( reinterpret_cast< char const * >( &size ), 4 );
      for( std::size_t i = 0; i != 1024; ++i )
         ASSERT_EQ( ::pwrite( fd, spoil.data(), 4, static_cast< off_t >( ringAt + 4 * i ) ), 4 );
      std::uint64_t const nonsense[ 2 ] = { 1, 2 }; // as tail and head
      ASSERT_EQ( ::pwrite( fd, nonsense, sizeof nonsense, 128 ), 16 );
      ::close( fd );
      theTime = 1000;
      write( file.get(), id, 1, "a" );
      write( file.get(), id, 2, "b" );
      // Where the ring begins is known again, though not what is in it.
      EXPECT_EQ( read( path ).texts(),
                 ( std::vector< std::string >{ "number 1 text a", "number 2 text b" } ) );
      for( std::uint64_t i = 1; i <= 64; ++i )
         write( file.get(), id, i, textOf( i ) );
      EXPECT_EQ( read( path ).records.size(), 64U );
      EXPECT_TRUE( read( path ).problems.empty() );
   }
}

} // namespace
