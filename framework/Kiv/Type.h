// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Types and the rows of their attribute tables.
#pragma once

#include <Kiv/Exception.h>
#include <Kiv/Export.h>
#include <Kiv/Ptr.h>
#include <Kiv/Text.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <type_traits>

namespace Kiv {

class KivAttr;
class KeyWalk;
class Value;

// What an attribute is, besides its type. Roles are combined.
enum class Role : unsigned {
   value = 0,
   constructorArgument = 1U << 0, // fixed for the life of the object
   notifying = 1U << 1,           // a change is told to the object's reactors
   collection = 1U << 2,          // keyed members
   queue = 1U << 3,               // values appended at the end, taken from the front
   handler = 1U << 4,             // a reaction, called with the key of what changed
   operation = 1U << 5,           // called by others
   reactor = 1U << 6,             // made of nested reactors
   framework = 1U << 7            // every state machine has it
};
constexpr Role operator|( Role a, Role b ) {
   return static_cast< Role >( static_cast< unsigned >( a ) | static_cast< unsigned >( b ) );
}
constexpr bool has( Role roles, Role role ) {
   return ( static_cast< unsigned >( roles ) & static_cast< unsigned >( role ) ) != 0;
}

// How a change of one attribute reaches the callbacks of a reactor: one function per form, null
// for a form that the attribute does not have. Made from the typed callbacks, see the functions
// `changes` and `members` of Attribute.h.
struct Delivery {
   void ( *whole )( PtrInterface::NotifieeConst & ) = nullptr;                // on<Attr>()
   void ( *member )( PtrInterface::NotifieeConst &, Text const & ) = nullptr; // on<Attr>( key )
   void ( *deferred )( PtrInterface::NotifieeConst & ) = nullptr; // on<Attr>kivImmediate()
};

// How one attribute is read, written and called by name (GenericIf.h): a function for each thing
// that can be done to it, null for what cannot. Made from the typed accessors, see Access.h.
//
// Each function takes the object, unchecked, for one of the class that the accessors belong to. So
// it is for objects whose fwkType() has the row, which is how GenericIf.h finds it. `name` is what
// an error calls the value.
struct Access {
   using Object = PtrInterface;

   Value ( *read )( Object const & ) = nullptr;
   void ( *write )( Object &, String8 const & name, Value const & ) = nullptr;
   void ( *del )( Object & ) = nullptr;
   // Runs a handler or operation; `argument` is null when none was given.
   void ( *call )( Object &, Value const * argument ) = nullptr;
   char const * argument = nullptr; // the name of what `call` takes, null for nothing
   bool argumentMayMiss = false;    // the handler also exists for all keys at once

   // Of a collection. A member that is absent reads as nothing.
   Value ( *member )( Object const &, Text const & key ) = nullptr;
   void ( *memberIs )( Object &, Text const & key, String8 const & name, Value const & ) = nullptr;
   // Refuses what is no value for memberIs, as that would, and changes nothing.
   void ( *memberFits )( String8 const & name, Value const & ) = nullptr;
   void ( *memberDel )( Object &, Text const & key ) = nullptr;
   void ( *memberDelAll )( Object & ) = nullptr;
   std::uint32_t ( *count )( Object const & ) = nullptr;
   KeyWalk * ( *walk )( Object const & ) = nullptr; // the caller's

   // Whether what runs handlers (calls, changes of members) may be done now; null: always.
   bool ( *ready )( Object const & ) = nullptr;

   // What else the attribute can do; see Access.h.
   template< auto set >
   constexpr Access writes() const;
   template< auto set, auto const & names >
   constexpr Access writesList() const;
   template< auto gone >
   constexpr Access deletes() const;
   template< auto set >
   constexpr Access memberWrites() const;
   template< auto set, auto keyOf >
   constexpr Access memberWritesUnder() const;
   template< auto make >
   constexpr Access memberMakes() const;
   template< class T >
   constexpr Access memberWritesWith( decltype( memberIs ) with ) const;
   template< auto del, auto delAll >
   constexpr Access memberDeletes() const;
   constexpr Access whenever( bool ( *test )( Object const & ) ) const {
      Access more = *this;
      more.ready = test;
      return more;
   }
};

// Numbers of the framework's own attributes. A type's own rows start at firstOwnAttribute.
inline constexpr AttributeId parentAttribute = 1;
inline constexpr AttributeId versionAttribute = 2;
inline constexpr AttributeId timeAttribute = 3;
inline constexpr AttributeId firstOwnAttribute = 8;

// What is pending of attributes without keys is kept in a word of bits, one for each number.
inline constexpr AttributeId wholeAttributes = 32;

// One row of a type's table of attributes.
struct Attribute {
   constexpr Attribute( char const * n, char const * t, char const * k, Role r,
                        Access const & a = {} )
      : Attribute( n, t, k, r, Delivery(), a ) {}
   constexpr Attribute( char const * n, char const * t, char const * k, Role r, Delivery const & d,
                        Access const & a = {} )
      : name( n ), type( t ), key( k ), role( r ), delivery( d ), access( a ) {}

   // For the framework's own rows; those of other types are numbered by their table.
   constexpr Attribute numberIs( AttributeId number ) const {
      Attribute row = *this;
      row.id = number;
      return row;
   }

   AttributeId id = firstOwnAttribute;
   char const * name;
   char const * type; // of the value; of the member for a collection
   char const * key;  // type of the key of a collection, of the argument of a handler; else ""
   Role role;
   Delivery delivery;
   Access access;
};

// Numbers rows one after the other from firstOwnAttribute on.
//
// Throws Kiv::RangeException when one that notifies without keys would not be below
// wholeAttributes; for a constant table the compiler refuses it.
constexpr void numberThem( std::span< Attribute > rows ) {
   AttributeId next = firstOwnAttribute;
   for( Attribute & row : rows ) {
      row.id = next++;
      bool const whole = has( row.role, Role::notifying ) && !has( row.role, Role::collection );
      if( whole && row.id >= wholeAttributes )
         throwRangeException( "too many attributes that notify without keys" );
   }
}

// A table of attributes, numbered: `constexpr auto rows = numbered( { Attribute( ... ), ... } );`.
template< std::size_t n >
constexpr std::array< Attribute, n > numbered( Attribute const ( &rows )[ n ] ) {
   std::array< Attribute, n > table = std::to_array( rows );
   numberThem( table );
   return table;
}

// Where in a table the row of that name stands. A range exception when there is none; for a
// constant table the compiler refuses it.
constexpr std::size_t placeOf( std::span< Attribute const > rows, std::string_view name ) {
   for( std::size_t place = 0; place != rows.size(); ++place )
      if( name == rows[ place ].name )
         return place;
   throwRangeException( "no attribute of that name" );
}

// A registered type: its full name, its base and its attributes in order. Lives for the process.
class KIV_EXPORT KivType {
 public:
   constexpr KivType( char const * name, KivType const * base, std::span< Attribute const > rows )
      : name_( name ), base_( base ), attributes_( rows ) {}
   KivType( KivType const & ) = delete;
   KivType & operator=( KivType const & ) = delete;

   char const * name() const { return name_; }
   KivType const * base() const { return base_; }
   std::span< Attribute const > attributes() const { return attributes_; }
   // The row of that name or number, here or in a base; null when there is none.
   Attribute const * attribute( String8 const & name ) const;
   Attribute const * attribute( AttributeId id ) const;
   // The descriptor of the attribute of that name, here or in a base: the same object each time,
   // kept for the life of the process. Null when there is none.
   Ptr< KivAttr const > attr( String8 const & name ) const;

 private:
   char const * name_;
   KivType const * base_;
   std::span< Attribute const > attributes_;
};
// So that one of static lifetime is never destroyed.
static_assert( std::is_trivially_destructible_v< KivType > );

// The one type with the table `rows`, which is of static storage: what a class's _fwkType()
// returns.
template< auto const & rows >
KivType const & typeOf( char const * name, KivType const & base = PtrInterface::_fwkType() ) {
   static KivType const type( name, &base, rows );
   return type;
}

// The registered type of a built-in type: bool, double, unsigned int, String8, Name.
template< class T >
struct Builtin;
template<>
struct KIV_EXPORT Builtin< bool > {
   static KivType const & _fwkType();
};
template<>
struct KIV_EXPORT Builtin< double > {
   static KivType const & _fwkType();
};
template<>
struct KIV_EXPORT Builtin< unsigned int > {
   static KivType const & _fwkType();
};
template<>
struct KIV_EXPORT Builtin< String8 > {
   static KivType const & _fwkType();
};
template<>
struct KIV_EXPORT Builtin< Name > {
   static KivType const & _fwkType();
};

// The shortest text that reads back as the same double: "30", "0.1", "inf", "-inf", "nan".
KIV_EXPORT String8 valueToString( double value );
KIV_EXPORT String8 valueToString( bool value );
KIV_EXPORT String8 valueToString( unsigned int value );
inline String8 valueToString( String8 const & value ) { return value; }
inline String8 valueToString( Name const & value ) { return value; }
inline String8 valueToString( char const * value ) { return value; }
// The value that valueToString() gives that text for, exactly. A range exception, which says the
// text and what was expected, for any other: nothing is skipped, rounded to infinity or guessed,
// and the locale has no say. Other spellings of a double's value are accepted ("0.50", "1E3").
template< class T >
T valueFromString( String8 const & text );
template<>
KIV_EXPORT bool valueFromString< bool >( String8 const & text );
template<>
KIV_EXPORT double valueFromString< double >( String8 const & text );
template<>
KIV_EXPORT unsigned int valueFromString< unsigned int >( String8 const & text );
template<>
inline String8 valueFromString< String8 >( String8 const & text ) {
   return text;
}
template<>
inline Name valueFromString< Name >( String8 const & text ) {
   return text;
}

// The full name of an entity, of what a reactor watches, else the type's name; "null" for null.
KIV_EXPORT String8 valueToString( PtrInterface const * object );
template< class T >
String8 valueToString( Ptr< T > const & p ) {
   return valueToString( static_cast< PtrInterface const * >( p.get() ) );
}

} // namespace Kiv
