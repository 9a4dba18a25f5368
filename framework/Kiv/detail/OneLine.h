// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Text as it goes to a line of its own.
#pragma once

#include <string>
#include <string_view>

namespace Kiv::detail {

// Gives `put` the text in pieces of no more than 256 bytes, with each control character, and each
// backslash before an x, written as \xNN, so that names with line ends cannot forge lines.
template< class Put >
void escape( std::string_view text, Put put ) {
   static char const digits[] = "0123456789abcdef";
   std::size_t begin = 0; // of what has not been put yet
   for( std::size_t i = 0; i != text.size(); ++i ) {
      auto const byte = static_cast< unsigned char >( text[ i ] );
      bool const escaped = byte == '\\' && i + 1 != text.size() && text[ i + 1 ] == 'x';
      if( byte >= 0x20 && byte != 0x7f && !escaped ) {
         if( i - begin == 256 ) {
            put( text.substr( begin, 256 ) );
            begin = i;
         }
         continue;
      }
      put( text.substr( begin, i - begin ) );
      char const shown[] = { '\\', 'x', digits[ byte >> 4 ], digits[ byte & 15 ] };
      put( std::string_view( shown, sizeof shown ) );
      begin = i + 1;
   }
   put( text.substr( begin ) );
}

inline std::string oneLine( std::string_view text ) {
   std::string line;
   escape( text, [ &line ]( std::string_view piece ) { line += piece; } );
   return line;
}

} // namespace Kiv::detail
