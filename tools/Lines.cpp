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
   for( ; !text.empty(); ++columns )
      text.remove_prefix( std::max< std::size_t >( Kiv::characterLength( text ), 1 ) );
   return columns;
}

} // namespace

std::size_t columnsOf( int descriptor ) {
   if( isatty( descriptor ) == 0 )
      return 0;
   winsize size{};
   if( ioctl( descriptor, TIOCGWINSZ, &size ) == 0 && size.ws_col != 0 )
      return size.ws_col;
   char const * const variable = std::getenv( "COLUMNS" );
   std::string_view const text( variable ? variable : "" );
   unsigned columns = 0;
   auto const end = text.data() + text.size();
   auto const read = std::from_chars( text.data(), end, columns );
   return read.ec == std::errc() && read.ptr == end ? columns : 0;
}

std::size_t heightOf( int descriptor ) {
   winsize size{};
   bool const known = ioctl( descriptor, TIOCGWINSZ, &size ) == 0 && size.ws_row != 0;
   return known ? size.ws_row : 24;
}

std::string broken( std::string_view text, std::size_t columns, std::size_t indent,
                    std::size_t used ) {
   std::string result;
   std::size_t blanks = 0; // that stand before the next word, unless a line ends between
   bool first = true;      // the next word is the first of its line
   while( !text.empty() ) {
      if( text.front() == ' ' ) {
         ++blanks;
         text.remove_prefix( 1 );
         continue;
      }
      if( text.front() == '\n' ) {
         result.append( blanks, ' ' );
         result += '\n';
         used = blanks = 0;
         first = true;
         text.remove_prefix( 1 );
         continue;
      }
      auto const word = text.substr( 0, text.find_first_of( " \n" ) );
      auto const length = columnsOf( word );
      if( columns != 0 && !first && used + blanks + length > columns ) {
         result += '\n';
         used = 0;
         blanks = indent;
      }
      result.append( blanks, ' ' );
      result += word;
      used += blanks + length;
      blanks = 0;
      first = false;
      text.remove_prefix( word.size() );
   }
   return result.append( blanks, ' ' );
}

std::size_t rowsOf( std::string_view text, std::size_t columns ) {
   std::size_t rows = 0;
   while( !text.empty() ) {
      auto const line = text.substr( 0, text.find( '\n' ) );
      rows += std::max< std::size_t >( 1, ( columnsOf( line ) + columns - 1 ) / columns );
      text.remove_prefix( std::min( text.size(), line.size() + 1 ) );
   }
   return rows;
}

} // namespace Tools
