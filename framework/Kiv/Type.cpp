// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Kiv/Type.h>

#include <Kiv/Entity.h>
#include <Kiv/Notifiee.h>

#include <charconv>
#include <cmath>

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
   static KivType const & type = *new KivType( name, nullptr, {} );
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
String8 valueToString( unsigned int value ) { return std::to_string( value ); }

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
