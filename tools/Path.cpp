// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <tools/Path.h>

#include <algorithm>
#include <cctype>
#include <charconv>

#include <Kiv/Printable.h>
#include <fmt/format.h>

namespace Tools {

namespace {

class Reader {
 public:
   explicit Reader( std::string_view text ) : text_( text ) {}

   std::vector< Step > path() {
      std::vector< Step > steps;
      skip( '/' );
      while( place_ != text_.size() ) {
         steps.push_back( step() );
         if( place_ != text_.size() && !skip( '/' ) )
            fail( "\"/\"" );
      }
      return steps;
   }

 private:
   bool at( char c ) const { return place_ != text_.size() && text_[ place_ ] == c; }
   bool skip( char c ) {
      bool const found = at( c );
      place_ += found ? 1 : 0;
      return found;
   }
   [[noreturn]] void fail( char const * expected ) const {
      throw PathError( fmt::format( "path {}: expected {} at byte {}", Kiv::quoted( text_ ),
                                    expected, place_ + 1 ) );
   }

   Step step() {
      auto const end = std::min( text_.find_first_of( "/[]\"", place_ ), text_.size() );
      Step step{ std::string( text_.substr( place_, end - place_ ) ), {} };
      if( step.name.empty() )
         fail( "the name of an attribute" );
      place_ = end;
      if( skip( '[' ) ) {
         step.key = skip( '"' ) ? quotedKey() : bareKey();
         if( !skip( ']' ) )
            fail( "\"]\"" );
      }
      return step;
   }

   std::string bareKey() {
      auto const end = std::min( text_.find_first_of( "[]\"\\", place_ ), text_.size() );
      auto const key = text_.substr( place_, end - place_ );
      place_ = end;
      return std::string( key );
   }

   std::string quotedKey() {
      std::string key;
      while( !skip( '"' ) ) {
         if( place_ == text_.size() )
            fail( "the closing quote of a key" );
         key += skip( '\\' ) ? escaped() : text_[ place_++ ];
      }
      return key;
   }

   char escaped() {
      if( skip( 'n' ) )
         return '\n';
      if( at( '"' ) || at( '\\' ) )
         return text_[ place_++ ];
      unsigned value = 0;
      auto const digits = text_.substr( std::min( place_ + 1, text_.size() ), 2 );
      auto const [ end, error ] =
         std::from_chars( digits.data(), digits.data() + digits.size(), value, 16 );
      if( !at( 'x' ) || digits.size() != 2 || error != std::errc() || end != digits.end() )
         fail( "\\\", \\\\, \\n or \\xNN after a backslash" );
      place_ += 3;
      return static_cast< char >( value );
   }

   std::string_view text_;
   std::size_t place_ = 0;
};

bool isPlain( std::string_view key ) {
   return key.find_first_of( "[]\"\\ " ) == std::string_view::npos && Kiv::printable( key ) == key;
}

} // namespace

std::vector< Step > readPath( std::string_view text ) { return Reader( text ).path(); }

std::string escaped( std::string_view text, std::string_view special ) {
   std::string result;
   while( !text.empty() ) {
      // A character at a time, so that what can be read stays readable.
      auto const length = std::max< std::size_t >( Kiv::characterLength( text ), 1 );
      auto const character = text.substr( 0, length );
      if( special.find( character ) != std::string_view::npos ) {
         result += '\\';
         result += character;
      } else if( Kiv::printable( character ) == character ) {
         result += character;
      } else {
         for( char const byte : character )
            result += fmt::format( "\\x{:02x}", static_cast< unsigned char >( byte ) );
      }
      text.remove_prefix( length );
   }
   return result;
}

std::string inQuotes( std::string_view text ) { return '"' + escaped( text, "\"\\" ) + '"'; }

std::string bareOrInQuotes( std::string_view text ) {
   return !text.empty() && isPlain( text ) ? std::string( text ) : inQuotes( text );
}

std::string bracketed( std::string_view key ) { return '[' + bareOrInQuotes( key ) + ']'; }

std::string written( Step const & step ) {
   return step.key ? step.name + bracketed( *step.key ) : step.name;
}

} // namespace Tools
