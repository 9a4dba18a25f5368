// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Text as it goes to a line of its own.
#pragma once

#include <string>
#include <string_view>

namespace Kiv::detail {

// The text with each control character, and each backslash before an x, written as \xNN, so that
// names with line ends cannot forge lines.
inline std::string oneLine( std::string_view text ) {
   static char const digits[] = "0123456789abcdef";
   std::string line;
   for( std::size_t i = 0; i != text.size(); ++i ) {
      auto const byte = static_cast< unsigned char >( text[ i ] );
      bool const escape = byte == '\\' && i + 1 != text.size() && text[ i + 1 ] == 'x';
      if( byte >= 0x20 && byte != 0x7f && !escape ) {
         line += text[ i ];
         continue;
      }
      line += "\\x";
      line += digits[ byte >> 4 ];
      line += digits[ byte & 15 ];
   }
   return line;
}

} // namespace Kiv::detail
