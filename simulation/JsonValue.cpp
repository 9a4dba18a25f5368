// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <simulation/JsonValue.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <set>

#include <Kiv/Printable.h>

#include <simulation/Json.h>

namespace Simulation {

namespace {

using Kind = JsonValue::Kind;

class Reader {
 public:
   explicit Reader( std::string_view text ) : text_( text ) {}

   JsonValue whole() {
      blanks();
      auto value = any( 0 );
      blanks();
      if( at_ != text_.size() )
         fail( "expected nothing after the value" );
      return value;
   }

 private:
   [[noreturn]] void fail( std::string const & what ) const {
      throw JsonError( "no JSON at byte " + std::to_string( at_ + 1 ) + ": " + what );
   }

   bool ended() const { return at_ == text_.size(); }
   char peek() const { return ended() ? '\0' : text_[ at_ ]; }

   bool take( char c ) {
      bool const there = !ended() && text_[ at_ ] == c;
      at_ += there;
      return there;
   }

   void blanks() {
      while( !ended() && std::string_view( " \t\n\r" ).find( text_[ at_ ] ) != std::string::npos )
         ++at_;
   }

   JsonValue any( unsigned depth ) {
      JsonValue value;
      switch( peek() ) {
      case '{':
         object( value, depth + 1 );
         break;
      case '[':
         array( value, depth + 1 );
         break;
      case '"':
         value.kind = Kind::text;
         value.text = text();
         break;
      default:
         if( !word( value ) )
            number( value );
      }
      return value;
   }

   bool word( JsonValue & value ) {
      for( std::string_view const known : { "true", "false", "null" } ) {
         if( text_.substr( at_, known.size() ) != known )
            continue;
         at_ += known.size();
         value.kind = known == "null" ? Kind::null : Kind::boolean;
         value.boolean = known == "true";
         return true;
      }
      return false;
   }

   void requireDepth( unsigned depth ) const {
      if( depth > jsonDepth )
         fail( "more than " + std::to_string( jsonDepth ) + " levels" );
   }

   void object( JsonValue & value, unsigned depth ) {
      requireDepth( depth );
      value.kind = Kind::object;
      std::set< std::string > names;
      ++at_;
      blanks();
      if( take( '}' ) )
         return;
      do {
         blanks();
         if( peek() != '"' )
            fail( "expected a key in quotes" );
         auto name = text();
         if( !names.insert( name ).second )
            fail( "the key " + Kiv::quoted( name ) + " stands there twice" );
         blanks();
         if( !take( ':' ) )
            fail( "expected \":\" after a key" );
         blanks();
         value.member.push_back( { std::move( name ), any( depth ) } );
         blanks();
      } while( take( ',' ) );
      if( !take( '}' ) )
         fail( "expected \",\" or \"}\"" );
   }

   void array( JsonValue & value, unsigned depth ) {
      requireDepth( depth );
      value.kind = Kind::array;
      ++at_;
      blanks();
      if( take( ']' ) )
         return;
      do {
         blanks();
         value.item.push_back( any( depth ) );
         blanks();
      } while( take( ',' ) );
      if( !take( ']' ) )
         fail( "expected \",\" or \"]\"" );
   }

   bool digits() {
      auto const before = at_;
      while( peek() >= '0' && peek() <= '9' )
         ++at_;
      return at_ != before;
   }

   void number( JsonValue & value ) {
      auto const begin = at_;
      take( '-' );
      bool good = take( '0' ) || digits();
      if( take( '.' ) )
         good = digits() && good;
      if( good && ( take( 'e' ) || take( 'E' ) ) ) {
         if( !take( '-' ) )
            take( '+' );
         good = digits();
      }
      if( !good ) {
         at_ = begin;
         fail( "expected a value" );
      }
      value.kind = Kind::number;
      auto const result = std::from_chars( text_.data() + begin, text_.data() + at_, value.number );
      if( result.ec != std::errc() )
         fail( "the number is out of range" );
   }

   std::string text() {
      std::string result;
      for( ++at_; !take( '"' ); ) {
         auto const rest = text_.substr( at_ );
         if( rest.empty() )
            fail( "the text does not end" );
         if( take( '\\' ) ) {
            escaped( result );
            continue;
         }
         auto const length = Kiv::characterLength( rest );
         if( length == 0 )
            fail( "this is no UTF-8" );
         if( static_cast< unsigned char >( rest.front() ) < 0x20 )
            fail( "a control character stands in a text; it must be escaped" );
         result += rest.substr( 0, length );
         at_ += length;
      }
      return result;
   }

   void escaped( std::string & result ) {
      std::string_view constexpr letters = "\"\\/bfnrt", meant = "\"\\/\b\f\n\r\t";
      char const letter = peek();
      if( auto const place = letters.find( letter ); !ended() && place != letters.npos ) {
         ++at_;
         result += meant[ place ];
      } else if( take( 'u' ) ) {
         unicode( result );
      } else {
         fail( "unknown escape" );
      }
   }

   std::uint32_t fourDigits() {
      std::uint32_t value = 0;
      auto const digitsOf = text_.substr( at_, 4 );
      auto const result =
         std::from_chars( digitsOf.data(), digitsOf.data() + digitsOf.size(), value, 16 );
      if( digitsOf.size() != 4 || result.ptr != digitsOf.data() + 4 )
         fail( "expected four hexadecimal digits" );
      at_ += 4;
      return value;
   }

   void unicode( std::string & result ) {
      auto code = fourDigits();
      if( code >= 0xD800 && code < 0xDC00 ) {
         if( !take( '\\' ) || !take( 'u' ) )
            fail( "half of a pair of surrogates" );
         auto const low = fourDigits();
         if( low < 0xDC00 || low >= 0xE000 )
            fail( "half of a pair of surrogates" );
         code = 0x10000 + ( ( code - 0xD800 ) << 10 ) + ( low - 0xDC00 );
      } else if( code >= 0xDC00 && code < 0xE000 ) {
         fail( "half of a pair of surrogates" );
      }
      appendUtf8( result, code );
   }

   static void appendUtf8( std::string & result, std::uint32_t code ) {
      auto const put = [ & ]( std::uint32_t byte ) { result += static_cast< char >( byte ); };
      auto const tail = [ & ]( unsigned shift ) { put( 0x80 | ( code >> shift & 0x3F ) ); };
      if( code < 0x80 ) {
         put( code );
      } else if( code < 0x800 ) {
         put( 0xC0 | code >> 6 );
         tail( 0 );
      } else if( code < 0x10000 ) {
         put( 0xE0 | code >> 12 );
         tail( 6 );
         tail( 0 );
      } else {
         put( 0xF0 | code >> 18 );
         tail( 12 );
         tail( 6 );
         tail( 0 );
      }
   }

   std::string_view text_;
   std::size_t at_ = 0;
};

} // namespace

JsonValue const * JsonValue::find( std::string_view name ) const {
   auto const found = std::find_if( member.begin(), member.end(),
                                    [ & ]( auto const & m ) { return m.name == name; } );
   return found == member.end() ? nullptr : &found->value;
}

JsonValue jsonValue( std::string_view text ) { return Reader( text ).whole(); }

bool operator==( JsonValue const & a, JsonValue const & b ) {
   if( a.kind != b.kind || a.boolean != b.boolean || a.number != b.number || a.text != b.text ||
       a.item != b.item || a.member.size() != b.member.size() )
      return false;
   return std::all_of( a.member.begin(), a.member.end(), [ & ]( auto const & mine ) {
      auto const * const its = b.find( mine.name );
      return its && mine.value == *its;
   } );
}

std::string described( JsonValue const & value ) {
   switch( value.kind ) {
   case Kind::null:
      return "null";
   case Kind::boolean:
      return value.boolean ? "true" : "false";
   case Kind::number:
      return jsonNumber( value.number );
   case Kind::text:
      return "the text " + Kiv::quoted( value.text );
   case Kind::array:
      return "an array";
   case Kind::object:
      break;
   }
   return "an object";
}

} // namespace Simulation
