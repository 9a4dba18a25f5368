// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Flitlog/detail/Points.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <type_traits>

namespace Flitlog::detail {

namespace {

// Takes bytes from the front. Once there were too few, everything fails.
class Bytes {
 public:
   explicit Bytes( std::string_view rest ) : rest_( rest ) {}

   template< class T >
   T number() {
      T v{};
      std::string_view const bytes = some( sizeof v );
      if( bytes.size() == sizeof v )
         std::memcpy( &v, bytes.data(), sizeof v );
      return v;
   }
   std::string_view some( std::size_t count ) {
      if( count > rest_.size() ) {
         failed_ = true;
         rest_ = {};
         return {};
      }
      std::string_view const bytes = rest_.substr( 0, count );
      rest_.remove_prefix( count );
      return bytes;
   }
   std::string_view string() { return some( number< std::uint32_t >() ); }
   std::string_view rest() const { return rest_; }
   bool failed() const { return failed_; }

 private:
   std::string_view rest_;
   bool failed_ = false;
};

template< class T >
std::string number( T v, int base = 10 ) {
   std::array< char, 64 > digits;
   std::to_chars_result end{};
   if constexpr( std::is_floating_point_v< T > )
      end = std::to_chars( digits.data(), digits.data() + digits.size(), v );
   else
      end = std::to_chars( digits.data(), digits.data() + digits.size(), v, base );
   return { digits.data(), end.ptr };
}

std::string ofDouble( double v ) { return std::isnan( v ) ? "nan" : number( v ); }

// The text of an integer, in hexadecimal as its bits.
template< class T >
std::string ofInteger( T v, bool hex ) {
   return hex ? "0x" + number( static_cast< std::make_unsigned_t< T > >( v ), 16 ) : number( v );
}

std::string ofString( Bytes & values ) {
   auto const word = values.number< std::uint32_t >();
   std::uint64_t const missing =
      ( word & shortenedString ) != 0 ? values.number< std::uint64_t >() : 0;
   std::string text( values.some( word & ~shortenedString ) );
   if( ( word & shortenedString ) != 0 )
      text += "... (" + number( missing ) + " bytes missing)";
   return text;
}

// Appends the text of the next value; false when it cannot be one of its type.
bool appendValue( Bytes & values, char code, bool hex, std::string & text ) {
   switch( code ) {
   case 'b': {
      auto const v = values.number< std::uint8_t >();
      text += v != 0 ? "true" : "false";
      return v <= 1;
   }
   case 'i':
      text += ofInteger( values.number< std::int32_t >(), hex );
      return true;
   case 'u':
      text += ofInteger( values.number< std::uint32_t >(), hex );
      return true;
   case 'l':
      text += ofInteger( values.number< std::int64_t >(), hex );
      return true;
   case 'm':
      text += ofInteger( values.number< std::uint64_t >(), hex );
      return true;
   case 'd':
      text += ofDouble( values.number< double >() );
      return true;
   default: // "s" and "p": the codes have been checked
      text += ofString( values );
      return true;
   }
}

// Without quotes' content going astray: what is no plain character is shown by its value.
std::string shown( std::string_view bytes ) {
   std::string text = "\"";
   for( char const c : bytes.substr( 0, 20 ) )
      if( c >= 0x20 && c < 0x7f )
         text += c;
      else
         text += "\\x" + number( static_cast< unsigned >( static_cast< unsigned char >( c ) ), 16 );
   return text + ( bytes.size() > 20 ? "...\"" : "\"" );
}

std::string readPiece( Bytes & bytes, Point & point ) {
   auto const kind = bytes.number< std::uint8_t >();
   std::string_view const text = bytes.string();
   if( bytes.failed() )
      return "expected " + number( point.pieces.size() + 1 ) +
             " pieces at least, found the end before";
   if( kind > static_cast< std::uint8_t >( PieceKind::hexValue ) )
      return "expected a piece of kind 0, 1 or 2, found " + number( unsigned( kind ) );
   auto const piece = static_cast< PieceKind >( kind );
   bool const known = text.size() == 1 && valueSize( text[ 0 ] ) != 0;
   bool const integer = known && std::string_view( "iulm" ).find( text[ 0 ] ) != text.npos;
   if( piece != PieceKind::literal && !known )
      return "expected a type code, one of b i u l m d s p, found " + shown( text );
   if( piece == PieceKind::hexValue && !integer )
      return "expected a hexadecimal type code, one of i u l m, found " + shown( text );
   point.pieces.push_back( { piece, std::string( text ) } );
   return {};
}

bool onlyZeros( std::string_view bytes ) { return bytes.find_first_not_of( '\0' ) == bytes.npos; }

} // namespace

std::string readPoint( std::string_view entry, Point & point ) {
   DescriptorHead head;
   std::memcpy( &head, entry.data(), sizeof head );
   point.id = head.id;
   point.line = head.line;
   point.level = head.level;
   Bytes bytes( entry.substr( sizeof head ) );
   point.handle = bytes.string();
   point.source = bytes.string();
   point.function = bytes.string();
   if( bytes.failed() )
      return "expected the names of handle, source and function, found the end before";
   point.pieces.clear();
   // Each has five bytes at least. Growing would take up to twice as much, for as long as there is
   // a reader.
   point.pieces.reserve( std::min< std::size_t >( head.pieces, bytes.rest().size() / 5 ) );
   for( std::uint32_t i = 0; i != head.pieces; ++i ) {
      std::string wrong = readPiece( bytes, point );
      if( !wrong.empty() )
         return wrong;
   }
   if( bytes.rest().size() >= 8 || !onlyZeros( bytes.rest() ) )
      return "expected zeros up to a multiple of 8 after " + number( head.pieces ) +
             " pieces, found " + number( bytes.rest().size() ) + " other bytes";
   return {};
}

std::string readText( Point const & point, std::string_view values, std::string & text ) {
   Bytes bytes( values );
   text.clear();
   for( Point::Piece const & piece : point.pieces ) {
      if( piece.kind == PieceKind::literal ) {
         text += piece.text;
         continue;
      }
      bool const valid =
         appendValue( bytes, piece.text[ 0 ], piece.kind == PieceKind::hexValue, text );
      if( bytes.failed() )
         return "expected a value of type \"" + piece.text + "\", found the end of the record";
      if( !valid )
         return "expected a value of type \"" + piece.text + "\", found a byte that is none";
   }
   if( !bytes.rest().empty() )
      return "expected no more values, found " + number( bytes.rest().size() ) + " bytes";
   return {};
}

} // namespace Flitlog::detail
