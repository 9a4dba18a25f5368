// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <tools/Scalar.h>

#include <charconv>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <optional>

namespace Tools {

namespace {

std::string_view constexpr coreTag = "tag:yaml.org,2002:";

bool isOneOf( std::string_view text, std::initializer_list< std::string_view > list ) {
   for( auto candidate : list )
      if( text == candidate )
         return true;
   return false;
}

bool isNull( std::string_view text ) {
   return isOneOf( text, { "", "~", "null", "Null", "NULL" } );
}

std::optional< bool > boolean( std::string_view text ) {
   if( isOneOf( text, { "true", "True", "TRUE" } ) )
      return true;
   if( isOneOf( text, { "false", "False", "FALSE" } ) )
      return false;
   return std::nullopt;
}

bool isDigits( std::string_view text, std::string_view digits ) {
   return !text.empty() && text.find_first_not_of( digits ) == std::string_view::npos;
}

std::string_view unsignedPart( std::string_view text ) {
   if( !text.empty() && ( text.front() == '-' || text.front() == '+' ) )
      text.remove_prefix( 1 );
   return text;
}

std::string_view constexpr decimal = "0123456789";

// Exact up to 2^53, which as seconds is far beyond anything.
double based( std::string_view digits, int base ) {
   double value = 0;
   for( char c : digits ) {
      int const digit = c <= '9' ? c - '0' : ( c | 0x20 ) - 'a' + 10;
      value = value * base + digit;
   }
   return value;
}

std::optional< double > integer( std::string_view text ) {
   if( text.starts_with( "0o" ) && isDigits( text.substr( 2 ), "01234567" ) )
      return based( text.substr( 2 ), 8 );
   if( text.starts_with( "0x" ) && isDigits( text.substr( 2 ), "0123456789abcdefABCDEF" ) )
      return based( text.substr( 2 ), 16 );
   if( isDigits( unsignedPart( text ), decimal ) )
      return std::strtod( std::string( text ).c_str(), nullptr );
   return std::nullopt;
}

// [-+]? ( \. [0-9]+ | [0-9]+ ( \. [0-9]* )? ) ( [eE] [-+]? [0-9]+ )?
bool isDecimalFraction( std::string_view text ) {
   text = unsignedPart( text );
   auto const exponent = text.find_first_of( "eE" );
   if( exponent != std::string_view::npos ) {
      if( !isDigits( unsignedPart( text.substr( exponent + 1 ) ), decimal ) )
         return false;
      text = text.substr( 0, exponent );
   }
   auto const point = text.find( '.' );
   auto const whole = text.substr( 0, point );
   auto const fraction =
      point == std::string_view::npos ? std::string_view() : text.substr( point + 1 );
   if( whole.empty() )
      return isDigits( fraction, decimal );
   return isDigits( whole, decimal ) && ( fraction.empty() || isDigits( fraction, decimal ) );
}

std::optional< double > floating( std::string_view text ) {
   if( isWrittenInfinity( text ) ) {
      auto const infinity = std::numeric_limits< double >::infinity();
      return text.front() == '-' ? -infinity : infinity;
   }
   if( isOneOf( text, { ".nan", ".NaN", ".NAN" } ) )
      return std::numeric_limits< double >::quiet_NaN();
   if( isDecimalFraction( text ) ) {
      // The command never sets a locale, so the point is a point.
      return std::strtod( std::string( text ).c_str(), nullptr );
   }
   return std::nullopt;
}

// Whether a scalar that begins so may be something else than text.
bool mayBeginAnother( char first ) {
   return std::string_view( "~nNtTfF.-+0123456789" ).find( first ) != std::string_view::npos;
}

} // namespace

bool isWrittenInfinity( std::string_view text ) {
   return isOneOf( unsignedPart( text ), { ".inf", ".Inf", ".INF" } );
}

Scalar scalarOf( YamlNode const & node ) {
   bool const plain = node.tag == "?";
   // Most scalars are names, and most names begin with what nothing else begins with.
   if( plain && !node.text.empty() && !mayBeginAnother( node.text.front() ) )
      return node.text;
   auto const tag = node.tag.starts_with( coreTag ) ? node.tag.substr( coreTag.size() ) : "";
   if( ( plain || tag == "null" ) && isNull( node.text ) )
      return std::monostate();
   if( plain || tag == "bool" ) {
      if( auto const value = boolean( node.text ) )
         return *value;
   }
   if( plain || tag == "int" || tag == "float" ) {
      if( auto const value = integer( node.text ) )
         return *value;
   }
   if( plain || tag == "float" ) {
      if( auto const value = floating( node.text ) )
         return *value;
   }
   return node.text;
}

bool fitsItsTag( YamlNode const & node ) {
   if( node.tag == "?" || node.tag == "!" || node.tag == std::string( coreTag ) + "str" )
      return true;
   for( auto tag : { "null", "bool", "int", "float" } )
      if( node.tag == std::string( coreTag ) + tag )
         return !std::holds_alternative< std::string >( scalarOf( node ) );
   return false;
}

} // namespace Tools
