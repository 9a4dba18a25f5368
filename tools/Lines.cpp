// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <tools/Lines.h>

#include <algorithm>
#include <cstdlib>
#include <utility>

#include <sys/ioctl.h>
#include <unistd.h>

#include <Kiv/Printable.h>
#include <tools/Number.h>

namespace Tools {

namespace {

// A text without line ends.
std::string brokenLine( std::string_view line, std::size_t columns, std::size_t indent,
                        std::size_t used ) {
   std::string result;
   for( bool first = true;; first = false ) {
      auto const blanks = std::min( line.find_first_not_of( ' ' ), line.size() );
      line.remove_prefix( blanks );
      if( line.empty() )
         return result.append( blanks, ' ' );
      auto const word = line.substr( 0, line.find( ' ' ) );
      auto const length = columnsOf( word );
      bool const breaks = columns != 0 && !first && used + blanks + length > columns;
      auto const before = breaks ? indent : blanks;
      result.append( breaks ? "\n" : "" ).append( before, ' ' ).append( word );
      used = ( breaks ? 0 : used ) + before + length;
      line.remove_prefix( word.size() );
   }
}

} // namespace

std::size_t columnsOf( std::string_view text ) {
   std::size_t columns = 0;
   for( ; !text.empty(); ++columns )
      text.remove_prefix( std::max< std::size_t >( Kiv::characterLength( text ), 1 ) );
   return columns;
}

std::size_t columnsOf( int descriptor ) {
   if( isatty( descriptor ) == 0 )
      return 0;
   winsize size{};
   if( ioctl( descriptor, TIOCGWINSZ, &size ) == 0 && size.ws_col != 0 )
      return size.ws_col;
   char const * const variable = std::getenv( "COLUMNS" );
   return numberOf< unsigned >( variable ? variable : "" ).value_or( 0 );
}

std::size_t heightOf( int descriptor ) {
   winsize size{};
   bool const known = ioctl( descriptor, TIOCGWINSZ, &size ) == 0 && size.ws_row != 0;
   return known ? size.ws_row : 24;
}

std::string broken( std::string_view text, std::size_t columns, std::size_t indent,
                    std::size_t used ) {
   std::string result;
   while( true ) {
      auto const line = text.substr( 0, text.find( '\n' ) );
      result += brokenLine( line, columns, indent, std::exchange( used, 0 ) );
      if( line.size() == text.size() )
         return result;
      result += '\n';
      text.remove_prefix( line.size() + 1 );
   }
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
