// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

// What tests take from a document written in Markdown.

namespace Document {

using Lines = std::vector< std::string >;
using Row = std::vector< std::string >;

// Of a file below the project's docs/.
inline std::string textOf( std::string const & name ) {
   std::ifstream in( ORDOVAN_DOCUMENTS "/" + name, std::ios::binary );
   if( !in )
      throw std::runtime_error( "no document " + name );
   return { std::istreambuf_iterator< char >( in ), {} };
}

inline Lines linesOf( std::string const & text ) {
   std::istringstream in( text );
   Lines lines;
   for( std::string line; std::getline( in, line ); )
      lines.push_back( line );
   return lines;
}

// The cells of a line like "| one | two |".
inline Row cellsOf( std::string const & line ) {
   Row cells;
   std::size_t start = 2;
   for( auto end = line.find( " |", 1 ); end != std::string::npos;
        end = line.find( " |", end + 1 ) ) {
      cells.push_back( end > start ? line.substr( start, end - start ) : "" );
      start = end + 3;
   }
   return cells;
}

// The rows of the first table below `heading`, a whole line, without that of the columns' names.
inline std::vector< Row > tableBelow( std::string const & text, std::string const & heading ) {
   std::vector< Row > rows;
   bool below = false;
   for( auto const & line : linesOf( text ) ) {
      if( !line.starts_with( '|' ) ) {
         if( !rows.empty() )
            break;
         below = below || line == heading;
      } else if( below ) {
         rows.push_back( cellsOf( line ) );
      }
   }
   if( rows.size() < 3 )
      throw std::runtime_error( "no table below " + heading );
   rows.erase( rows.begin(), rows.begin() + 2 );
   return rows;
}

// The blocks of `language`.
inline Lines blocksOf( std::string const & text, std::string const & language ) {
   Lines blocks;
   auto const fence = "```" + language + '\n';
   for( auto at = text.find( '\n' + fence ); at != std::string::npos;
        at = text.find( '\n' + fence, at + 1 ) ) {
      auto const start = at + 1 + fence.size();
      blocks.push_back( text.substr( start, text.find( "\n```", start ) + 1 - start ) );
   }
   return blocks;
}

inline bool isCode( std::string const & cell ) {
   return cell.size() > 2 && cell.front() == '`' && cell.find( '`', 1 ) == cell.size() - 1;
}

// "x" of "`x`".
inline std::string code( std::string const & cell ) {
   if( !isCode( cell ) )
      throw std::runtime_error( "not written as code: " + cell );
   return cell.substr( 1, cell.size() - 2 );
}

// `text` with each `from` as `to`.
inline std::string replaced( std::string text, std::string const & from, std::string const & to ) {
   for( auto at = text.find( from ); at != std::string::npos;
        at = text.find( from, at + to.size() ) )
      text.replace( at, from.size(), to );
   return text;
}

} // namespace Document
