// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <simulation/Json.h>

#include <cassert>
#include <charconv>
#include <cmath>
#include <utility>

#include <Kiv/Printable.h>

namespace Simulation {

namespace {

std::string escaped( char c ) {
   std::string_view constexpr special = "\"\\\b\f\n\r\t", letters = "\"\\bfnrt";
   if( auto const place = special.find( c ); place != special.npos )
      return { '\\', letters[ place ] };
   auto const byte = static_cast< unsigned char >( c );
   if( byte >= 0x20 && byte != 0x7F )
      return { c };
   std::string_view constexpr digits = "0123456789abcdef";
   return { '\\', 'u', '0', '0', digits[ byte >> 4 ], digits[ byte & 0xF ] };
}

} // namespace

std::string jsonString( std::string_view text ) {
   std::string result = "\"";
   while( !text.empty() ) {
      auto const length = Kiv::characterLength( text );
      if( length == 1 )
         result += escaped( text.front() );
      else
         result += length == 0 ? std::string_view( "\xEF\xBF\xBD" ) : text.substr( 0, length );
      text.remove_prefix( length == 0 ? 1 : length );
   }
   return result + '"';
}

std::string jsonNumber( double value ) {
   if( std::isnan( value ) )
      return "\"nan\"";
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

Json & Json::begin( char opening, Layout layout ) {
   put( std::string_view( &opening, 1 ) );
   open_.push_back( { opening == '{' ? '}' : ']', layout } );
   levels_ += layout == Layout::lines;
   return *this;
}

Json & Json::end() {
   assert( !open_.empty() && !keyed_ );
   auto const [ closing, layout, empty ] = open_.back();
   open_.pop_back();
   levels_ -= layout == Layout::lines;
   if( layout == Layout::lines && !empty )
      newLine();
   text_ += closing;
   return *this;
}

Json & Json::key( std::string_view name ) {
   assert( !open_.empty() && open_.back().closing == '}' && !keyed_ );
   separate();
   text_ += jsonString( name );
   text_ += open_.back().layout == Layout::dense ? ":" : ": ";
   keyed_ = true;
   return *this;
}

Json & Json::put( std::string_view text ) {
   if( !std::exchange( keyed_, false ) ) {
      assert( open_.empty() ? text_.empty() : open_.back().closing == ']' );
      separate();
   }
   text_ += text;
   return *this;
}

// Sets the next member apart from what stands before it.
void Json::separate() {
   if( open_.empty() )
      return;
   auto & [ closing, layout, empty ] = open_.back();
   if( !std::exchange( empty, false ) )
      text_ += layout == Layout::spaced ? ", " : ",";
   if( layout == Layout::lines )
      newLine();
}

void Json::newLine() {
   text_ += '\n';
   text_.append( 2 * levels_, ' ' );
}

} // namespace Simulation
