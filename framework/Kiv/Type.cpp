// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Kiv/Type.h>

#include <Kiv/Entity.h>
#include <Kiv/Exception.h>
#include <Kiv/Notifiee.h>

#include <charconv>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <new>

#include <locale.h>

#include <Kiv/detail/OneLine.h>

namespace Kiv {

Attribute const * KivType::attribute( String8 const & name ) const {
   for( Attribute const & row : attributes_ )
      if( name == std::string_view( row.name ) )
         return &row;
   return base_ ? base_->attribute( name ) : nullptr;
}

Attribute const * KivType::attribute( AttributeId id ) const {
   for( Attribute const & row : attributes_ )
      if( row.id == id )
         return &row;
   return base_ ? base_->attribute( id ) : nullptr;
}

namespace {
template< class T >
KivType const & builtin( char const * name ) {
   static KivType const type( name, nullptr, {} );
   return type;
}
} // namespace

KivType const & Builtin< bool >::_fwkType() { return builtin< bool >( "bool" ); }
KivType const & Builtin< double >::_fwkType() { return builtin< double >( "double" ); }
KivType const & Builtin< unsigned int >::_fwkType() {
   return builtin< unsigned int >( "unsigned int" );
}
KivType const & Builtin< String8 >::_fwkType() { return builtin< String8 >( "Kiv::String8" ); }
KivType const & Builtin< Name >::_fwkType() { return builtin< Name >( "Kiv::Name" ); }

String8 valueToString( double value ) {
   if( std::isnan( value ) )
      return "nan";
   char text[ 32 ];
   auto const end = std::to_chars( text, text + sizeof text, value ).ptr;
   return std::string_view( text, static_cast< std::size_t >( end - text ) );
}

String8 valueToString( bool value ) { return value ? "true" : "false"; }
String8 valueToString( unsigned int value ) {
   char text[ 16 ];
   auto const end = std::to_chars( text, text + sizeof text, value ).ptr;
   return std::string_view( text, static_cast< std::size_t >( end - text ) );
}

namespace {

[[noreturn]] void throwNoValue( String8 const & text, char const * expected ) {
   std::string shown = detail::oneLine( text.view().substr( 0, 60 ) );
   if( text.length() > 60 )
      shown += "...";
   throwRangeException( "\"" + shown + "\" is no value here: " + expected + " was expected" );
}

// The number that the whole of the text spells.
template< class T >
bool spells( String8 const & text, T & value ) {
   char const * const end = text.charPtr() + text.length();
   auto const [ stop, error ] = std::from_chars( text.charPtr(), end, value );
   return error == std::errc() && stop == end;
}

// Never freed: numbers are read until the process is gone.
locale_t cLocale() {
   static locale_t const locale = newlocale( LC_ALL_MASK, "C", nullptr );
   if( !locale )
      throw std::bad_alloc();
   return locale;
}

// The syntax and range are from_chars()'s, which knows no locale. The value is not: where the
// standard library computes with more precision than a double has, as on 32-bit x86, it rounds
// twice, and some numbers come out next to the one that was written.
template<>
bool spells< double >( String8 const & text, double & value ) {
   char const * const end = text.charPtr() + text.length();
   auto const [ stop, error ] = std::from_chars( text.charPtr(), end, value );
   if( error != std::errc() || stop != end )
      return false;
   value = strtod_l( text.charPtr(), nullptr, cLocale() );
   return true;
}

} // namespace

template<>
bool valueFromString< bool >( String8 const & text ) {
   if( text == "true" )
      return true;
   if( text != "false" )
      throwNoValue( text, "true or false" );
   return false;
}

template<>
double valueFromString< double >( String8 const & text ) {
   using Limits = std::numeric_limits< double >;
   if( text == "inf" )
      return Limits::infinity();
   if( text == "-inf" )
      return -Limits::infinity();
   if( text == "nan" )
      return Limits::quiet_NaN();
   double value = 0;
   // Words are known to the conversion too, in more spellings than ours.
   if( !spells( text, value ) || !std::isfinite( value ) )
      throwNoValue( text, "a number such as 30, 0.1 or 1e+300 in the range of a double, inf, -inf "
                          "or nan" );
   return value;
}

template<>
unsigned int valueFromString< unsigned int >( String8 const & text ) {
   unsigned int value = 0;
   if( !spells( text, value ) )
      throwNoValue( text, "a whole number from 0 to 4294967295" );
   return value;
}

String8 valueToString( PtrInterface const * object ) {
   if( !object )
      return "null";
   if( auto const * entity = dynamic_cast< Entity const * >( object ) )
      return entity->fullName();
   if( auto const * reactor = dynamic_cast< PtrInterface::NotifieeConst const * >( object ) )
      if( reactor->notifierPtr() )
         return valueToString( reactor->notifierPtr() );
   return object->fwkType().name();
}

} // namespace Kiv
