// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Kiv/Value.h>

#include <Kiv/Exception.h>

#include <new>
#include <utility>

namespace Kiv {

struct Value::SharedList {
   List_ const list;
   unsigned int values = 1; // that hold it
};

Value::Value( String8 const & text ) : kind_( Kind::text ), text_( text ) {}
Value::Value( List_ const & list ) : kind_( Kind::list ), list_( new SharedList{ list } ) {}
Value::Value( PtrInterface const * object, bool isConst ) : Value() {
   if( object ) {
      new( &object_ ) Ptr< PtrInterface const >( object );
      kind_ = Kind::object;
      isConst_ = isConst;
   }
}

Value::Value( Value const & other ) : kind_( other.kind_ ), isConst_( other.isConst_ ) {
   switch( kind_ ) {
   case Kind::nothing:
      number_ = 0;
      break;
   case Kind::boolean:
      boolean_ = other.boolean_;
      break;
   case Kind::real:
      real_ = other.real_;
      break;
   case Kind::number:
      number_ = other.number_;
      break;
   case Kind::text:
      new( &text_ ) String8( other.text_ );
      break;
   case Kind::object:
      new( &object_ ) Ptr< PtrInterface const >( other.object_ );
      break;
   case Kind::list:
      list_ = other.list_;
      ++list_->values;
      break;
   }
}

Value::Value( Value && other ) noexcept : kind_( other.kind_ ), isConst_( other.isConst_ ) {
   switch( kind_ ) {
   case Kind::nothing:
      number_ = 0;
      break;
   case Kind::boolean:
      boolean_ = other.boolean_;
      break;
   case Kind::real:
      real_ = other.real_;
      break;
   case Kind::number:
      number_ = other.number_;
      break;
   case Kind::text:
      new( &text_ ) String8( std::move( other.text_ ) );
      break;
   case Kind::object:
      new( &object_ ) Ptr< PtrInterface const >( std::move( other.object_ ) );
      break;
   case Kind::list:
      list_ = other.list_;
      other.kind_ = Kind::nothing;
      break;
   }
}

Value & Value::operator=( Value const & other ) { return *this = Value( other ); }

Value & Value::operator=( Value && other ) noexcept {
   if( this != &other ) {
      this->~Value();
      new( this ) Value( std::move( other ) );
   }
   return *this;
}

Value::~Value() {
   if( kind_ == Kind::text )
      text_.~String8();
   else if( kind_ == Kind::object )
      object_.~Ptr();
   else if( kind_ == Kind::list && --list_->values == 0 )
      delete list_;
}

void Value::require( Kind kind, char const * expected ) const {
   if( kind_ != kind )
      throwRangeException( "the value is no " + String8( expected ) + " but " + typeName() );
}

bool Value::boolean() const {
   require( Kind::boolean, "bool" );
   return boolean_;
}
double Value::real() const {
   require( Kind::real, "double" );
   return real_;
}
unsigned int Value::number() const {
   require( Kind::number, "unsigned int" );
   return number_;
}
String8 const & Value::text() const {
   require( Kind::text, "text" );
   return text_;
}
List_ const & Value::list() const {
   require( Kind::list, "list" );
   return list_->list;
}
Ptr< PtrInterface const > const & Value::object() const {
   require( Kind::object, "object" );
   return object_;
}
bool Value::isConst() const {
   require( Kind::object, "object" );
   return isConst_;
}

Ptr< PtrInterface > Value::mutableObject() const {
   require( Kind::object, "object" );
   // It came in as a reference to what may be changed.
   return isConst_ ? Ptr< PtrInterface >() : const_cast< PtrInterface * >( object_.get() );
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

bool operator==( List_::Entry const & a, List_::Entry const & b ) {
   return a.name == b.name && a.value == b.value;
}
bool operator==( List_ const & a, List_ const & b ) { return a.entries_ == b.entries_; }

List_::List_() = default;
List_::List_( std::initializer_list< Entry > entries ) : entries_( entries ) {}
List_::List_( List_ const & other ) = default;
List_::List_( List_ && other ) noexcept = default;
List_ & List_::operator=( List_ const & other ) = default;
List_ & List_::operator=( List_ && other ) noexcept = default;
List_::~List_() = default;

List_ & List_::add( String8 const & name, Value const & value ) {
   entries_.push_back( { name, value } );
   return *this;
}

Value const * List_::value( String8 const & name ) const {
   for( Entry const & entry : entries_ )
      if( entry.name == name )
         return &entry.value;
   return nullptr;
}

} // namespace Kiv
