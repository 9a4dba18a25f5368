// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Kiv/Value.h>

#include <Kiv/Exception.h>

namespace Kiv {

namespace {

template< class T, class V >
T const & held( V const & variant, char const * expected, Value const & value ) {
   if( T const * found = std::get_if< T >( &variant ) )
      return *found;
   throwRangeException( "the value is no " + String8( expected ) + " but " + value.typeName() );
}

} // namespace

Value::Value( List_ const & list ) : held_( std::make_shared< List_ const >( list ) ) {}

Value::Value( PtrInterface const * object, bool isConst ) {
   if( object )
      held_ = Held{ object, isConst };
}

bool Value::boolean() const { return held< bool >( held_, "bool", *this ); }
double Value::real() const { return held< double >( held_, "double", *this ); }
unsigned int Value::number() const { return held< unsigned int >( held_, "unsigned int", *this ); }
String8 const & Value::text() const { return held< String8 >( held_, "text", *this ); }
List_ const & Value::list() const {
   return *held< std::shared_ptr< List_ const > >( held_, "list", *this );
}
Ptr< PtrInterface const > const & Value::object() const {
   return held< Held >( held_, "object", *this ).object;
}
bool Value::isConst() const { return held< Held >( held_, "object", *this ).isConst; }

Ptr< PtrInterface > Value::mutableObject() const {
   Held const & h = held< Held >( held_, "object", *this );
   // It came in as a reference to what may be changed.
   return h.isConst ? Ptr< PtrInterface >() : const_cast< PtrInterface * >( h.object.get() );
}

Value Value::readOnly() const {
   if( is( Kind::object ) )
      return Value( object().get(), true );
   if( !is( Kind::list ) )
      return *this;
   List_ entries;
   for( List_::Entry const & entry : list() )
      entries.add( entry.name, entry.value.readOnly() );
   return entries;
}

String8 Value::toString() const {
   switch( kind() ) {
   case Kind::nothing:
      return "";
   case Kind::boolean:
      return valueToString( boolean() );
   case Kind::real:
      return valueToString( real() );
   case Kind::number:
      return valueToString( number() );
   case Kind::text:
      return text();
   case Kind::object:
      return valueToString( object() );
   case Kind::list:
      break;
   }
   std::string all = "[";
   for( List_::Entry const & entry : list() ) {
      if( all.size() != 1 )
         all += ", ";
      all += entry.name.view();
      all += ": ";
      all += entry.value.toString().view();
   }
   return all + "]";
}

String8 Value::typeName() const {
   switch( kind() ) {
   case Kind::nothing:
      return "nothing";
   case Kind::boolean:
      return Builtin< bool >::_fwkType().name();
   case Kind::real:
      return Builtin< double >::_fwkType().name();
   case Kind::number:
      return Builtin< unsigned int >::_fwkType().name();
   case Kind::text:
      return Builtin< String8 >::_fwkType().name();
   case Kind::object:
      return String8( object()->fwkType().name() ) + ( isConst() ? " const" : "" );
   case Kind::list:
      break;
   }
   return "Kiv::GenericIf::List_";
}

bool operator==( Value const & a, Value const & b ) {
   if( a.kind() != b.kind() )
      return false;
   switch( a.kind() ) {
   case Value::Kind::real: {
      double const x = a.real();
      double const y = b.real();
      return x == y || ( x != x && y != y );
   }
   case Value::Kind::boolean:
      return a.boolean() == b.boolean();
   case Value::Kind::number:
      return a.number() == b.number();
   case Value::Kind::text:
      return a.text() == b.text();
   case Value::Kind::object:
      return a.object() == b.object();
   case Value::Kind::list:
      return a.list() == b.list();
   case Value::Kind::nothing:
      break;
   }
   return true;
}

Value const * List_::value( String8 const & name ) const {
   for( Entry const & entry : entries_ )
      if( entry.name == name )
         return &entry.value;
   return nullptr;
}

} // namespace Kiv
