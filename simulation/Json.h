// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <concepts>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

// JSON as text, the same bytes on every machine.

namespace Simulation {

// A JSON string with its quotes. What is no UTF-8 is replaced byte by byte by U+FFFD, since JSON
// can hold nothing else.
std::string jsonString( std::string_view text );

// A number that reads back as the same double: integers up to 2^53 in full (30, not 3e+01), all
// else the shortest text. What JSON lacks becomes one of the strings "inf", "-inf" and "nan".
std::string jsonNumber( double value );

// Writes one JSON value, piece by piece in the order of the text: of an object each key with what
// stands under it, in whatever order the caller gives them. REQUIRES: in an object a key before
// each value, elsewhere none; an end() for each object() and array().
class Json {
 public:
   // How the members of one object or array are set apart: by "," and ":" alone, by blanks as well,
   // or by lines, which are indented by two blanks for each object or array around them that is
   // laid out in lines.
   enum class Layout { dense, spaced, lines };

   Json & object( Layout layout = Layout::spaced ) { return begin( '{', layout ); }
   Json & array( Layout layout = Layout::spaced ) { return begin( '[', layout ); }
   Json & end();

   Json & key( std::string_view name );
   Json & value( std::string_view text ) { return put( jsonString( text ) ); }
   Json & value( char const * text ) { return value( std::string_view( text ) ); }
   Json & value( double number ) { return put( jsonNumber( number ) ); }
   Json & value( bool is ) { return put( is ? "true" : "false" ); }
   Json & value( std::integral auto number ) { return put( std::to_string( number ) ); }
   Json & null() { return put( "null" ); }

   template< class T >
   Json & member( std::string_view name, T const & content ) {
      return key( name ).value( content );
   }

   // All that has been written.
   std::string const & text() const { return text_; }

 private:
   struct Open {
      char closing;
      Layout layout;
      bool empty = true;
   };

   Json & begin( char opening, Layout layout );
   Json & put( std::string_view text );
   void separate();
   void newLine();

   std::string text_;
   std::vector< Open > open_;
   std::size_t levels_ = 0; // that are laid out in lines
   bool keyed_ = false;     // the key of what comes next has been written
};

} // namespace Simulation
