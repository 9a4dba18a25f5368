// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <tools/Lines.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <system_error>

#include <sys/ioctl.h>
#include <unistd.h>

#include <Kiv/Printable.h>

namespace Tools {

namespace {

std::size_t columnsOf( std::string_view text ) {
   std::size_t columns = 0;
   for( ; !text.empty(); ++columns ) {
      text.remove_prefix( std::max< std::size_t >( Kiv::characterLength( text ), 1 ) );
   }
   return columns;
}

}  // namespace

std::size_t columnsOf( int descriptor ) {
   if( isatty( descriptor ) == 0 ) {
      return 0;
   }
   winsize size{};
   if( ioctl( descriptor, TIOCGWINSZ, &size ) == 0 && size.ws_col != 0 ) {
      return size.ws_col;
   }
   char const * const variable = std::getenv( "COLUMNS" );
   std::string_view const text( variable ? variable : "" );
   unsigned columns = 0;
   auto const end = text.data() + text.size();
   auto const read = std::from_chars( text.data(), end, columns );
   return read.ec == std::errc() && read.ptr == end ? columns : 0;
}

std::string broken( std::string_view text, std::size_t columns ) {
   std::string_view constexpr indent = "   ";
   std::string result;
   std::size_t used = 0;
   for( bool first = true, more = true; more; first = false ) {
      auto const blank = text.find( ' ' );
      more = blank != std::string_view::npos;
      auto const word = text.substr( 0, blank );
      auto const length = columnsOf( word );
      if( first ) {
         used = length;
      } else if( columns == 0 || used + 1 + length <= columns ) {
         result += ' ';
         used += 1 + length;
      } else {
         result += '\n';
         result += indent;
         used = indent.size() + length;
      }
      result += word;
      text.remove_prefix( more ? blank + 1 : text.size() );
   }
   return result;
}

}  // namespace Tools
