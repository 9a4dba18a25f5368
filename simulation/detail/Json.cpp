// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <simulation/detail/Json.h>

#include <cassert>
#include <charconv>
#include <cmath>

#include <simulation/detail/Text.h>

namespace Simulation::detail {

namespace {

std::string escaped( char c ) {
   switch( c ) {
   case '"':
      return "\\\"";
   case '\\':
      return "\\\\";
   case '\b':
      return "\\b";
   case '\f':
      return "\\f";
   case '\n':
      return "\\n";
   case '\r':
      return "\\r";
   case '\t':
      return "\\t";
   default:
      break;
   }
   auto const byte = static_cast< unsigned char >( c );
   if( byte >= 0x20 && byte != 0x7F )
      return std::string( 1, c );
   std::string text = "\\u00";
   text += "0123456789abcdef"[ byte >> 4 ];
   text += "0123456789abcdef"[ byte & 0xF ];
   return text;
}

} // namespace

std::string jsonString( std::string_view text ) {
   std::string result = "\"";
   while( !text.empty() ) {
      auto const length = characterLength( text );
      if( length == 1 )
         result += escaped( text.front() );
      else
         result += length == 0 ? std::string_view( "\xEF\xBF\xBD" ) : text.substr( 0, length );
      text.remove_prefix( length == 0 ? 1 : length );
   }
   return result + '"';
}

std::string jsonNumber( double value ) {
   assert( !std::isnan( value ) );
   if( std::isinf( value ) )
      return value > 0 ? "\"inf\"" : "\"-inf\"";
   double constexpr exactIntegers = 9007199254740992.0;
   bool const integer = std::trunc( value ) == value && std::fabs( value ) <= exactIntegers;
   char text[ 32 ];
   auto const end = integer
                       ? std::to_chars( text, text + sizeof text, value, std::chars_format::fixed )
                       : std::to_chars( text, text + sizeof text, value );
   return std::string( text, end.ptr );
}

} // namespace Simulation::detail
