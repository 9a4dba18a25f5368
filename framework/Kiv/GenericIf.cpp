// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Kiv/GenericIf.h>

#include <Kiv/Access.h>
#include <Kiv/Activity.h>

#include <Kiv/detail/OneLine.h>

namespace Kiv {

// ------------------------------------------------------------------------------- exceptions

GenericException::GenericException( Id id, String8 const & name, String8 const & text )
   : Exception( text, IdBitArray( id ), Expect::isExpected( IdBitArray( id ) ) ), name_( name ) {}
GenericException::~GenericException() = default;

ConstException::ConstException( String8 const & text )
   : GenericException( constInstance, text, text ) {}
ConstException::~ConstException() = default;
TypeException::TypeException( String8 const & name, String8 const & text )
   : GenericException( Exception::type, name, text ) {}
TypeException::~TypeException() = default;
UnknownArgException::UnknownArgException( String8 const & attribute, String8 const & text )
   : GenericException( unknownArgument, attribute, text ) {}
UnknownArgException::~UnknownArgException() = default;
OpNotSupportedException::OpNotSupportedException( String8 const & attribute, String8 const & text )
   : GenericException( operationNotSupported, attribute, text ) {}
OpNotSupportedException::~OpNotSupportedException() = default;
BadIndexAttrException::BadIndexAttrException( String8 const & attribute, String8 const & text )
   : GenericException( badIndex, attribute, text ) {}
BadIndexAttrException::~BadIndexAttrException() = default;
UnknownAttrException::UnknownAttrException( String8 const & attribute, String8 const & text )
   : GenericException( unknownAttribute, attribute, text ) {}
UnknownAttrException::~UnknownAttrException() = default;

namespace {

String8 shown( Text const & text ) { return detail::oneLine( text.view() ); }

// "wrong type: msg (Kiv::String8 was expected)"
String8 sentence( char const * error, String8 const & name, String8 const & detail ) {
   String8 const text = String8( error ) + ": " + shown( name );
   return detail.empty() ? text : text + " (" + detail + ")";
}

String8 mismatch( char const * expected, String8 const & given ) {
   return String8( expected ) + " was expected, " + given + " was given";
}

} // namespace

void GenericIf::throwConstException( String8 const & text ) { throw ConstException( text ); }
void GenericIf::throwTypeException( String8 const & name, String8 const & detail ) {
   throw TypeException( name, sentence( "wrong type", name, detail ) );
}
void GenericIf::throwUnknownArgException( String8 const & attribute, String8 const & detail ) {
   throw UnknownArgException( attribute, sentence( "unknown argument", attribute, detail ) );
}
void GenericIf::throwOpNotSupportedException( String8 const & attribute, String8 const & detail ) {
   throw OpNotSupportedException( attribute,
                                  sentence( "operation not supported", attribute, detail ) );
}
void GenericIf::throwBadIndexAttrException( String8 const & attribute, String8 const & detail ) {
   throw BadIndexAttrException( attribute, sentence( "bad index", attribute, detail ) );
}
void GenericIf::throwUnknownAttrException( String8 const & attribute, String8 const & detail ) {
   throw UnknownAttrException( attribute, sentence( "unknown attribute", attribute, detail ) );
}

// -------------------------------------------------------------------------------- arguments

KeyWalk::~KeyWalk() = default;

namespace detail {

bool toBool( String8 const & name, Value const & value ) {
   if( value.is( Value::Kind::text ) )
      return valueFromString< bool >( value.text() );
   if( !value.is( Value::Kind::boolean ) )
      GenericIf::throwTypeException( name, mismatch( "bool", value.typeName() ) );
   return value.boolean();
}
double toDouble( String8 const & name, Value const & value ) {
   if( value.is( Value::Kind::text ) )
      return valueFromString< double >( value.text() );
   if( !value.is( Value::Kind::real ) )
      GenericIf::throwTypeException( name, mismatch( "double", value.typeName() ) );
   return value.real();
}
unsigned int toNumber( String8 const & name, Value const & value ) {
   if( value.is( Value::Kind::text ) )
      return valueFromString< unsigned int >( value.text() );
   if( !value.is( Value::Kind::number ) )
      GenericIf::throwTypeException( name, mismatch( "unsigned int", value.typeName() ) );
   return value.number();
}
String8 toText( String8 const & name, Value const & value ) {
   if( !value.is( Value::Kind::text ) )
      GenericIf::throwTypeException( name, mismatch( "Kiv::String8", value.typeName() ) );
   return value.text();
}
PtrInterface const * toObject( String8 const & name, Value const & value, bool toChange ) {
   if( value.is( Value::Kind::nothing ) )
      return nullptr;
   // Text most of all: a name does not say which of several objects of that name is meant.
   if( !value.is( Value::Kind::object ) )
      GenericIf::throwTypeException( name, mismatch( "an object", value.typeName() ) );
   if( toChange && value.isConst() )
      GenericIf::throwTypeException(
         name, mismatch( "an object that may be changed", value.typeName() ) );
   return value.object().get();
}
void throwWrongObject( String8 const & name, Value const & value ) {
   GenericIf::throwTypeException( name, value.typeName() + " does not fit" );
}
Value readActivity( PtrInterface const & object ) {
   if( auto const * reactor = dynamic_cast< PtrInterface::NotifieeConst const * >( &object ) )
      return const_cast< PtrInterface::NotifieeConst * >( reactor )->kivFwkActivity();
   return activityManager()->config();
}

List_ const & argumentList( String8 const & attribute, Value const & value,
                            std::span< char const * const > names ) {
   List_ const & list = listFromValue( attribute, value );
   String8 wanted( "it takes each of" );
   std::size_t known = 0;
   for( char const * name : names ) {
      known += list.value( name ) != nullptr;
      wanted += String8( " " ) + name;
   }
   if( known != names.size() || list.size() != known )
      GenericIf::throwUnknownArgException( attribute, wanted );
   return list;
}

} // namespace detail

List_ const & listFromValue( String8 const & name, Value const & value ) {
   if( !value.is( Value::Kind::list ) )
      detail::throwWrongObject( name, value );
   return value.list();
}
void checkKey( Text const & given, Text const & own ) {
   if( !( own == given ) )
      throwRangeException( "key " + shown( given ) + " for what stands under " + shown( own ) );
}

// --------------------------------------------------------------------------------- dispatch

struct GenericIf::Request {
   Attribute const & row;
   Op op;
   Index const * index;
   Kiv::Value const & argument;
};

namespace {

using Op = GenericIf::Op;

char const * nameOf( Op op ) {
   switch( op ) {
   case Op::read:
      return "read";
   case Op::write:
      return "write";
   case Op::call:
      return "call";
   case Op::del:
      return "del";
   case Op::delAll:
      break;
   }
   return "delAll";
}

void addNames( KivType const & type, std::string & names ) {
   for( Attribute const & row : type.attributes() )
      names += ( names.empty() ? "" : ", " ) + std::string( row.name );
   if( type.base() )
      addNames( *type.base(), names );
}

// The end of every type's dispatch: nobody knows the attribute.
[[noreturn]] void refuse( KivType const & type, String8 const & name ) {
   std::string names;
   addNames( type, names );
   GenericIf::throwUnknownAttrException(
      name, String8( type.name() ) + ( names.empty() ? " has none" : " has " + names ) );
}

bool supports( Access const & access, Op op ) {
   switch( op ) {
   case Op::read:
      return access.read || access.member;
   case Op::write:
      return access.write || access.memberIs;
   case Op::call:
      return access.call != nullptr;
   case Op::del:
      return access.del || access.memberDel;
   case Op::delAll:
      break;
   }
   return access.memberDelAll != nullptr;
}

void checkIndex( Attribute const & row, Op op, bool given ) {
   Access const & access = row.access;
   if( given && op == Op::delAll )
      GenericIf::throwBadIndexAttrException( row.name, "delAll takes no key" );
   if( given && ( !access.member || op == Op::call ) )
      GenericIf::throwBadIndexAttrException( row.name, "it is no collection of members" );
   bool const needed = ( op == Op::write && !access.write ) || ( op == Op::del && !access.del );
   if( !given && needed )
      GenericIf::throwBadIndexAttrException( row.name, String8( nameOf( op ) ) +
                                                          " needs the key of a member" );
   if( given && op == Op::write && !access.memberIs )
      GenericIf::throwOpNotSupportedException( row.name, "write with an index" );
}

// The argument of a call, null for none.
Value const * argumentOf( Attribute const & row, Value const & given ) {
   Access const & access = row.access;
   if( !given.is( Value::Kind::list ) )
      GenericIf::throwTypeException( "Kiv::GenericIf::List_",
                                     mismatch( "a list of arguments", given.typeName() ) );
   Value const * found = nullptr;
   for( List_::Entry const & entry : given.list() ) {
      if( !access.argument || found || !( entry.name == std::string_view( access.argument ) ) )
         GenericIf::throwUnknownArgException(
            row.name, String8( access.argument ? String8( "it takes " ) + access.argument + ", "
                                               : String8( "it takes none, " ) ) +
                         shown( entry.name ) + " was given" );
      found = &entry.value;
   }
   if( !access.argument || ( !found && access.argumentMayMiss ) )
      return nullptr;
   if( !found || !found->is( Value::Kind::text ) )
      GenericIf::throwTypeException(
         access.argument, mismatch( "Kiv::String8", found ? found->typeName() : "nothing" ) );
   return found;
}

void checkReady( PtrInterface const & object, Attribute const & row ) {
   if( row.access.ready && !row.access.ready( object ) )
      throwRangeException( String8( row.name ) + " cannot run: " + object.fwkType().name() +
                           " has lost its owner or what it watches" );
}

Value readAll( PtrInterface const & object, Access const & access ) {
   if( access.read )
      return access.read( object );
   List_ members;
   std::unique_ptr< KeyWalk > const walk( access.walk( object ) );
   for( ; walk->stands(); walk->advance() )
      members.add( walk->key(), access.member( object, walk->key() ) );
   return members;
}

void change( PtrInterface & object, Attribute const & row, Op op, GenericIf::Index const * index,
             Value const & argument ) {
   Access const & access = row.access;
   if( op == Op::call ) {
      Value const * const given = argumentOf( row, argument );
      checkReady( object, row );
      access.call( object, given );
   } else if( op == Op::write && !index ) {
      access.write( object, row.name, argument );
   } else if( op == Op::write ) {
      access.memberFits( row.name, argument );
      checkReady( object, row );
      access.memberIs( object, index->key, row.name, argument );
   } else {
      checkReady( object, row );
      if( op == Op::delAll )
         access.memberDelAll( object );
      else if( index )
         access.memberDel( object, index->key );
      else
         access.del( object );
   }
}

} // namespace

GenericIf::GenericIf( Kiv::Value const & instance ) {
   if( instance.is( Kiv::Value::Kind::nothing ) )
      throwRangeException( "null ValidPtr" );
   if( !instance.is( Kiv::Value::Kind::object ) )
      throwTypeException( "Kiv::PtrInterface", mismatch( "an object", instance.typeName() ) );
   instance_ = instance.object();
   mutable_ = instance.mutableObject();
}

KivType const & GenericIf::type() const { return instance_->fwkType(); }

Attribute const & GenericIf::attribute( String8 const & name ) const {
   if( Attribute const * const row = type().attribute( name ) )
      return *row;
   refuse( type(), name );
}
Attribute const & GenericIf::attribute( AttributeId id ) const {
   if( Attribute const * const row = type().attribute( id ) )
      return *row;
   refuse( type(), valueToString( static_cast< unsigned int >( id ) ) );
}
AttributeId GenericIf::attributeId( String8 const & name ) const { return attribute( name ).id; }

Kiv::Value GenericIf::attributeOp( AttributeId id, Op op, Kiv::Value const & argument ) const {
   return answer( { attribute( id ), op, nullptr, argument } );
}
Kiv::Value GenericIf::attributeOp( AttributeId id, Op op, Index const & index,
                                   Kiv::Value const & argument ) const {
   return answer( { attribute( id ), op, &index, argument } );
}
Kiv::Value GenericIf::attributeOp( String8 const & name, Op op,
                                   Kiv::Value const & argument ) const {
   return answer( { attribute( name ), op, nullptr, argument } );
}
Kiv::Value GenericIf::attributeOp( String8 const & name, Op op, Index const & index,
                                   Kiv::Value const & argument ) const {
   return answer( { attribute( name ), op, &index, argument } );
}

Kiv::Value GenericIf::answer( Request const & request ) const {
   auto const & [ row, op, index, argument ] = request;
   if( op != Op::read && isConst() )
      throwConstException( "attempting to modify a const instance" );
   if( !supports( row.access, op ) )
      throwOpNotSupportedException( row.name, nameOf( op ) );
   checkIndex( row, op, index != nullptr );
   if( op != Op::write && op != Op::call && !argument.is( Kiv::Value::Kind::nothing ) )
      throwTypeException( row.name, String8( nameOf( op ) ) + " takes no value" );
   if( op != Op::read ) {
      change( *mutable_, row, op, index, argument );
      return {};
   }
   Kiv::Value const value =
      index ? row.access.member( *instance_, index->key ) : readAll( *instance_, row.access );
   return isConst() ? value.readOnly() : value;
}

// -------------------------------------------------------------------------------- iteration

std::uint32_t GenericIf::attributeCount( AttributeId id ) const {
   Attribute const & row = attribute( id );
   if( !row.access.count )
      throwBadIndexAttrException( row.name, "it is no collection of members" );
   return row.access.count( *instance_ );
}

GenericIf::AttributeIterator GenericIf::attributeIterator( AttributeId id ) const {
   Attribute const & row = attribute( id );
   if( isConst() )
      throwConstException( "attempting to modify a const instance" );
   return { Kiv::Value( mutable_ ), row };
}
GenericIf::AttributeIterator GenericIf::attributeIteratorConst( AttributeId id ) const {
   return { Kiv::Value( instance_ ), attribute( id ) };
}

String8 GenericIf::attributeIteratorKey( AttributeIterator const & iterator ) {
   if( !iterator )
      throwRangeException( "the iterator stands at no member" );
   return iterator.key();
}

using Iterator = GenericIf::AttributeIterator;

Iterator::AttributeIterator( Kiv::Value const & owner, Attribute const & row )
   : owner_( owner ), row_( &row ) {
   if( !row.access.walk )
      GenericIf::throwBadIndexAttrException( row.name, "it is no collection of members" );
   walk_.reset( row.access.walk( *owner.object() ) );
}
Iterator::AttributeIterator( AttributeIterator && other ) noexcept = default;
Iterator & Iterator::operator=( AttributeIterator && other ) noexcept = default;
Iterator::~AttributeIterator() = default;

Iterator::operator bool() const { return walk_->stands(); }
String8 Iterator::key() const { return walk_->key(); }
void Iterator::advance() { walk_->advance(); }
void Iterator::reset() { walk_->reset(); }
Kiv::Value Iterator::value() const {
   if( !walk_->stands() )
      return {};
   Kiv::Value const member = row_->access.member( *owner_.object(), walk_->key() );
   return owner_.isConst() ? member.readOnly() : member;
}

} // namespace Kiv
