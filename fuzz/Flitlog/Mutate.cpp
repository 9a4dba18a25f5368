// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include "Mutate.h"

#include <Flitlog/Ring.h>
#include <Flitlog/detail/Format.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace Fuzz {

using namespace Flitlog;

namespace {

double theTime = 0;
double tick() { return ++theTime; }

std::size_t below( std::mt19937 & random, std::size_t limit ) {
   return limit == 0 ? 0 : static_cast< std::size_t >( random() ) % limit;
}

// Where an integer decides something: the header's fields, or any place of four bytes.
std::size_t place( std::string const & bytes, std::mt19937 & random ) {
   switch( random() % 4 ) {
   case 0:
      return std::min( bytes.size(), std::size_t( 8 + 4 * below( random, 40 ) ) );
   case 1:
      return std::min( bytes.size(), std::size_t( 256 + 4 * below( random, 60 ) ) );
   default:
      return below( random, bytes.size() );
   }
}

std::uint64_t number( std::mt19937 & random ) {
   constexpr std::array< std::uint64_t, 12 > telling = {
      0, 1, 7, 8, 24, 32, 255, 1024, 4096, 5376, 0x7fffffff, ~std::uint64_t( 0 ) };
   std::uint64_t const v = telling[ below( random, telling.size() ) ];
   return random() % 2 == 0 ? v : v + random() % 16 - 8;
}

template< class T >
void write( std::string & bytes, std::size_t offset, T v ) {
   if( offset <= bytes.size() && bytes.size() - offset >= sizeof v )
      std::memcpy( bytes.data() + offset, &v, sizeof v );
}

void change( std::string & bytes, std::mt19937 & random ) {
   std::size_t const at = place( bytes, random );
   std::size_t const length = std::min( below( random, 80 ), bytes.size() - at );
   switch( random() % 7 ) {
   case 0:
      bytes[ at ] = static_cast< char >( bytes[ at ] ^ 1 << random() % 8 );
      break;
   case 1:
      bytes[ at ] = static_cast< char >( random() );
      break;
   case 2:
      write( bytes, at, static_cast< std::uint32_t >( number( random ) ) );
      break;
   case 3:
      write( bytes, at, number( random ) );
      break;
   case 4:
      bytes.replace( place( bytes, random ), length, bytes.substr( at, length ) );
      break;
   case 5:
      std::fill_n( bytes.begin() + static_cast< std::ptrdiff_t >( at ), length, '\0' );
      break;
   default:
      if( random() % 8 == 0 )
         bytes.resize( at );
      else
         std::reverse( bytes.begin() + static_cast< std::ptrdiff_t >( at ),
                       bytes.begin() + static_cast< std::ptrdiff_t >( at + length ) );
   }
   if( bytes.empty() )
      bytes = "x";
}

// Entries of that minimal size, one behind the other, as far as their sizes lead.
void resumEntries( std::string & bytes, std::size_t from, std::size_t to, std::size_t least ) {
   while( from + least <= std::min( to, bytes.size() ) ) {
      std::uint32_t size;
      std::memcpy( &size, bytes.data() + from, sizeof size );
      if( size < least || size % 8 != 0 || size > bytes.size() - from )
         return;
      write( bytes, from + 4, detail::entryCheck( bytes.data() + from, size ) );
      from += size;
   }
}

void resum( std::string & bytes ) {
   detail::Header header;
   if( bytes.size() < sizeof header )
      return;
   std::memcpy( &header, bytes.data(), sizeof header );
   write( bytes, offsetof( detail::Header, check ), detail::headerCheck( header ) );
   resumEntries( bytes, 256, 256 + 1024, sizeof( detail::DescriptorHead ) );
   // The ring's own beginning and its oldest record: both are starts of records.
   resumEntries( bytes, 1280, bytes.size(), sizeof( detail::RecordHead ) );
   resumEntries( bytes, 1280 + static_cast< std::size_t >( header.tail % 4096 ), bytes.size(),
                 sizeof( detail::RecordHead ) );
}

} // namespace

std::string goodRing() {
   std::string name = std::filesystem::temp_directory_path() / "flitlog-good-XXXXXX";
   std::filesystem::path const folder( mkdtemp( name.data() ) );
   {
      auto const file = TraceFile::TraceFileIs( folder / "ring", { 4096, &tick, 1024 } );
      MsgDesc numbers( file.get(), "Source", 1 );
      numbers.handleIs( "Handle" );
      numbers << "b " << Varg{ "b" } << " i " << Varg{ "i" } << " u " << Varg{ "u" } << " l "
              << HexVarg{ "l" } << " m " << Varg{ "m" } << " d " << Varg{ "d" };
      MsgDesc text( file.get(), "Source", 2 );
      text.functionIs( "function" );
      text << Varg{ "s" } << " and " << Varg{ "p" };
      int const numbersId = numbers.finish();
      int const textId = text.finish();
      for( int i = 0; i != 80; ++i ) {
         RingBuf & one = RingBuf::startMsg( file.get(), numbersId );
         put( one, i % 2 == 0 );
         put( one, std::int32_t( i ) );
         put( one, std::uint32_t( i ) );
         put( one, std::int64_t( -i ) );
         put( one, std::uint64_t( i ) );
         put( one, 1.0 / i );
         one.endMsg();
         RingBuf & two = RingBuf::startMsg( file.get(), textId );
         // One that is shortened is among those that the ring still holds.
         put( two, std::string( i == 78 ? 3000 : static_cast< std::size_t >( i % 9 ), 'x' ) );
         put( two, "/some/name" );
         two.endMsg();
      }
   }
   std::ifstream in( folder / "ring", std::ios::binary );
   std::string bytes{ std::istreambuf_iterator< char >( in ), {} };
   std::filesystem::remove_all( folder );
   return bytes;
}

std::string mutated( std::string bytes, std::mt19937 & random ) {
   for( std::size_t changes = 1 + below( random, 6 ); changes != 0; --changes )
      change( bytes, random );
   if( random() % 4 != 0 )
      resum( bytes );
   return bytes;
}

} // namespace Fuzz
