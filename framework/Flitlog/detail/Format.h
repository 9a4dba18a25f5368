// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The bytes of a trace file, for the writer and the reader alike. docs/trace-file.md explains them.
//
//    +--------+------------------------+--------------------------------------------+
//    | Header | descriptors, append    | ring: records from tail to head, by logical|
//    |        | only, up to `used`     | positions taken modulo its size            |
//    +--------+------------------------+--------------------------------------------+
//
// Invariants, true between any two instructions of the writer:
//
//   1. tail <= head, head - tail <= ringBytes, both are multiples of 8 and never go back.
//   2. The bytes of [ tail, head ) are whole records, each with the number after its predecessor's.
//   3. The first `used` bytes of the descriptors are whole, numbered 1, 2, 3, ...; the descriptor
//      of a record was there before the record.
//
// Everything is little-endian and has the same size on every machine. Changes: whoever adds to the
// header's reserved bytes, or a type code, or a kind of piece, raises `minorVersion`; readers of
// the same major version go on reading all that they know. Any other change raises `majorVersion`.
#pragma once

#include <bit>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Flitlog::detail {

static_assert( std::endian::native == std::endian::little, "written as it is in memory" );
static_assert( sizeof( double ) == 8 && sizeof( int ) == 4 );

// The first byte is no text in any encoding; the line ends show a transfer that changes them.
inline constexpr char magic[ 8 ] = { '\x8b', 'F', 'l', 'i', 't', '\r', '\n', '\x1a' };
inline constexpr std::uint16_t majorVersion = 1;
inline constexpr std::uint16_t minorVersion = 1;

struct alignas( 8 ) Header {
   char magic[ 8 ];
   std::uint16_t majorVersion;
   std::uint16_t minorVersion;
   std::uint32_t headerBytes;
   std::uint64_t fileBytes;
   std::uint64_t descriptorsAt; // offset in the file
   std::uint64_t descriptorsBytes;
   std::uint64_t ringAt; // offset in the file
   std::uint64_t ringBytes;
   std::uint32_t process;    // the writer's process id
   std::uint32_t recordMost; // the most bytes that a record may have
   double created;           // wall-clock time, seconds
   std::uint32_t check;      // of the bytes before it
   // Each level, 0 to 9, is a bit of one of the two, which shows damage; minor version 0: no bits.
   std::uint16_t levelsLeftOut;
   std::uint16_t levelsTaken;
   std::uint8_t reserved1[ 48 ];

   // What changes, each in one indivisible store.
   std::uint64_t tail; // logical position of the oldest record
   std::uint64_t head; // logical position after the newest
   std::uint64_t descriptorsUsed;
   std::uint64_t lostDescriptors; // for which there was no room
   std::uint64_t lostRecords;     // that had no descriptor or were not put together properly
   std::uint8_t reserved2[ 88 ];
};
static_assert( sizeof( Header ) == 256 );
static_assert( offsetof( Header, majorVersion ) == 8 && offsetof( Header, headerBytes ) == 12 );
static_assert( offsetof( Header, fileBytes ) == 16 && offsetof( Header, descriptorsAt ) == 24 );
static_assert( offsetof( Header, descriptorsBytes ) == 32 && offsetof( Header, ringAt ) == 40 );
static_assert( offsetof( Header, ringBytes ) == 48 && offsetof( Header, process ) == 56 );
static_assert( offsetof( Header, recordMost ) == 60 && offsetof( Header, created ) == 64 );
static_assert( offsetof( Header, check ) == 72 && offsetof( Header, levelsLeftOut ) == 76 );
static_assert( offsetof( Header, levelsTaken ) == 78 && offsetof( Header, reserved1 ) == 80 );
static_assert( offsetof( Header, tail ) == 128 && offsetof( Header, head ) == 136 );
static_assert( offsetof( Header, descriptorsUsed ) == 144 );
static_assert( offsetof( Header, lostDescriptors ) == 152 );
static_assert( offsetof( Header, lostRecords ) == 160 && offsetof( Header, reserved2 ) == 168 );

// Followed by the values, packed, and by zeros up to a multiple of 8.
struct alignas( 8 ) RecordHead {
   std::uint32_t size;  // of all of it, a multiple of 8
   std::uint32_t check; // of the bytes after it
   std::uint64_t sequence;
   double time; // seconds
   std::uint32_t id;
   std::uint32_t valueBytes; // without the zeros
};
static_assert( sizeof( RecordHead ) == 32 );
static_assert( offsetof( RecordHead, check ) == 4 && offsetof( RecordHead, sequence ) == 8 );
static_assert( offsetof( RecordHead, time ) == 16 && offsetof( RecordHead, id ) == 24 );
static_assert( offsetof( RecordHead, valueBytes ) == 28 );

// Followed by three strings (handle, source, function), then by the pieces (a byte of PieceKind and
// a string each), all packed, and by zeros up to a multiple of 8. A string: its length, 4 bytes,
// and its bytes.
struct alignas( 8 ) DescriptorHead {
   std::uint32_t size;  // of all of it, a multiple of 8
   std::uint32_t check; // of the bytes after it
   std::uint32_t id;
   std::int32_t line;
   std::uint32_t level;
   std::uint32_t pieces; // how many
};
static_assert( sizeof( DescriptorHead ) == 24 );
static_assert( offsetof( DescriptorHead, id ) == 8 && offsetof( DescriptorHead, line ) == 12 );
static_assert( offsetof( DescriptorHead, level ) == 16 );
static_assert( offsetof( DescriptorHead, pieces ) == 20 );

enum class PieceKind : std::uint8_t {
   literal = 0,  // the string is text
   value = 1,    // the string is a type code
   hexValue = 2, // a type code, to be shown in hexadecimal
};

// A string value: a word with the number of bytes that are there; when this bit is set in it, eight
// bytes follow that say how many are missing; then the bytes.
inline constexpr std::uint32_t shortenedString = 0x80000000U;

// Limits that keep whoever reads a file that cannot be trusted from believing anything.
inline constexpr std::uint64_t ringLeast = 4096;
inline constexpr std::uint64_t ringMost = std::uint64_t( 1 ) << 36;
inline constexpr std::uint64_t descriptorsLeast = 1024;
inline constexpr std::uint64_t descriptorsMost = 64 << 20;
inline constexpr std::uint32_t descriptorMost = 64 << 10;
inline constexpr std::uint32_t recordMostOfAll = 1 << 20;

constexpr std::uint64_t upToEight( std::uint64_t bytes ) { return ( bytes + 7 ) / 8 * 8; }

// The bytes that a value takes at least, by its code's letter; 0 for an unknown one. The exact
// size, but for a string, which counts as an empty one that has been shortened.
constexpr std::uint32_t valueSize( char code ) {
   switch( code ) {
   case 'b':
      return 1;
   case 'i':
   case 'u':
      return 4;
   case 'l':
   case 'm':
   case 'd':
      return 8;
   case 's':
   case 'p':
      return 12;
   default:
      return 0;
   }
}

// A sum over words that shows damage, not one that withstands malice. Each word has a factor of its
// own, and none waits for the sum before it, which keeps a record cheap.
class Sum {
 public:
   explicit Sum( std::uint64_t bytes ) : sum_( bytes ) {}
   void add( std::uint64_t word ) {
      sum_ += ( word ^ golden ) * factor_;
      factor_ += 2 * golden; // stays odd, so no bit of a word is lost
   }
   std::uint32_t value() const { return static_cast< std::uint32_t >( sum_ ^ sum_ >> 32 ); }

 private:
   static constexpr std::uint64_t golden = 0x9e3779b97f4a7c15U;
   std::uint64_t sum_;
   std::uint64_t factor_ = golden;
};

// REQUIRES: a multiple of 8 bytes.
inline std::uint32_t checkOf( void const * data, std::size_t bytes ) {
   assert( bytes % 8 == 0 );
   auto const * const at = static_cast< unsigned char const * >( data );
   Sum sum( bytes );
   for( std::size_t i = 0; i != bytes; i += 8 ) {
      std::uint64_t word;
      std::memcpy( &word, at + i, 8 );
      sum.add( word );
   }
   return sum.value();
}

inline std::uint32_t headerCheck( Header const & header ) {
   return checkOf( &header, offsetof( Header, check ) );
}
// Of a record or a descriptor: all but its first two words.
inline std::uint32_t entryCheck( void const * entry, std::size_t size ) {
   return checkOf( static_cast< char const * >( entry ) + 8, size - 8 );
}

} // namespace Flitlog::detail
