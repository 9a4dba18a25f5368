// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <tools/Wrap.h>

#include <algorithm>

#include <sys/ioctl.h>

#include <simulation/detail/Text.h>

namespace Tools {

namespace {

// In characters; a byte that belongs to none takes the room of one.
std::size_t columns( std::string_view text ) {
   std::size_t count = 0;
   for( ; !text.empty(); ++count ) {
      text.remove_prefix(
         std::max< std::size_t >( 1, Simulation::Detail::characterLength( text ) ) );
   }
   return count;
}

winsize sizeOf( int descriptor ) {
   winsize size{};
   bool const known = ioctl( descriptor, TIOCGWINSZ, &size ) == 0;
   return known ? size : winsize{};
}

}  // namespace

std::size_t widthOf( int descriptor ) {
   auto const columns = sizeOf( descriptor ).ws_col;
   return columns > 0 ? columns : 80;
}

std::size_t heightOf( int descriptor ) {
   auto const rows = sizeOf( descriptor ).ws_row;
   return rows > 0 ? rows : 24;
}

std::size_t rowsOf( std::string_view text, std::size_t width ) {
   std::size_t rows = 0;
   while( !text.empty() ) {
      auto const line = text.substr( 0, text.find( '\n' ) );
      rows += std::max< std::size_t >( 1, ( columns( line ) + width - 1 ) / width );
      text.remove_prefix( std::min( text.size(), line.size() + 1 ) );
   }
   return rows;
}

std::string wrapped( std::string_view text, std::size_t width, std::size_t indent,
                     std::size_t column ) {
   std::string result;
   std::size_t blanks = 0;  // that stand before the next word, unless the line ends there
   bool first = true;       // the next word is the first of its line
   while( !text.empty() ) {
      if( text.front() == '\n' ) {
         result += '\n';
         column = blanks = 0;
         first = true;
         text.remove_prefix( 1 );
      } else if( text.front() == ' ' ) {
         ++blanks;
         text.remove_prefix( 1 );
      } else {
         auto const word = text.substr( 0, text.find_first_of( " \n" ) );
         auto const size = columns( word );
         if( !first && column + blanks + size > width ) {
            result += '\n';
            column = blanks = std::min( indent, width / 2 );
            result.append( blanks, ' ' );
         } else {
            result.append( blanks, ' ' );
            column += blanks;
         }
         result += word;
         column += size;
         blanks = 0;
         first = false;
         text.remove_prefix( word.size() );
      }
   }
   return result;
}

}  // namespace Tools
