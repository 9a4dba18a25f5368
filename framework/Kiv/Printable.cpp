// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Kiv/Printable.h>

namespace Kiv {

namespace {

unsigned byteAt( std::string_view text, std::size_t i ) {
   return static_cast< unsigned char >( text[ i ] );
}

// The range that the second byte must be in excludes overlong forms, surrogates and what lies
// beyond the last character.
bool secondByteFits( unsigned first, unsigned second ) {
   switch( first ) {
   case 0xE0:
      return second >= 0xA0 && second <= 0xBF;
   case 0xED:
      return second >= 0x80 && second <= 0x9F;
   case 0xF0:
      return second >= 0x90 && second <= 0xBF;
   case 0xF4:
      return second >= 0x80 && second <= 0x8F;
   default:
      return second >= 0x80 && second <= 0xBF;
   }
}

unsigned codePoint( std::string_view character ) {
   auto const first = byteAt( character, 0 );
   if( character.size() == 1 )
      return first;
   unsigned value = first & ( 0xFFU >> ( character.size() + 1 ) );
   for( std::size_t i = 1; i < character.size(); ++i )
      value = ( value << 6 ) | ( byteAt( character, i ) & 0x3FU );
   return value;
}

bool isSafeToShow( unsigned point ) {
   bool const control = point < 0x20 || ( point >= 0x7F && point < 0xA0 );
   bool const separator = point == 0x2028 || point == 0x2029;
   bool const direction = point == 0x200E || point == 0x200F || point == 0x061C ||
                          ( point >= 0x202A && point <= 0x202E ) ||
                          ( point >= 0x2066 && point <= 0x2069 );
   return !control && !separator && !direction;
}

std::string escape( char kind, unsigned value, unsigned digits ) {
   std::string text{ '\\', kind };
   while( digits-- > 0 )
      text += "0123456789abcdef"[ ( value >> ( 4 * digits ) ) & 0xFU ];
   return text;
}

} // namespace

std::size_t characterLength( std::string_view text ) {
   if( text.empty() )
      return 0;
   auto const first = byteAt( text, 0 );
   if( first < 0x80 )
      return 1;
   std::size_t const length = first >= 0xC2 && first <= 0xDF   ? 2
                              : first >= 0xE0 && first <= 0xEF ? 3
                              : first >= 0xF0 && first <= 0xF4 ? 4
                                                               : 0;
   if( length == 0 || text.size() < length || !secondByteFits( first, byteAt( text, 1 ) ) )
      return 0;
   for( std::size_t i = 2; i < length; ++i )
      if( ( byteAt( text, i ) & 0xC0U ) != 0x80 )
         return 0;
   return length;
}

std::string printable( std::string_view text ) {
   std::string result;
   while( !text.empty() ) {
      auto const length = characterLength( text );
      if( length == 0 ) {
         result += escape( 'x', byteAt( text, 0 ), 2 );
         text.remove_prefix( 1 );
         continue;
      }
      auto const point = codePoint( text.substr( 0, length ) );
      if( isSafeToShow( point ) )
         result += text.substr( 0, length );
      else
         result += point < 0x80 ? escape( 'x', point, 2 ) : escape( 'u', point, 4 );
      text.remove_prefix( length );
   }
   return result;
}

std::string quoted( std::string_view text ) { return '"' + printable( text ) + '"'; }

} // namespace Kiv
