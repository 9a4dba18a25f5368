// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Values as generic access passes them: of any attribute's type, or a list of such.
#pragma once

#include <Kiv/Export.h>
#include <Kiv/Ptr.h>
#include <Kiv/Text.h>
#include <Kiv/Type.h>

#include <concepts>
#include <cstddef>
#include <initializer_list>
#include <memory>
#include <string>
#include <variant>
#include <vector>

namespace Kiv {

class List_;

// Nothing, or a value of one of the types that attributes have. Copied like what it holds; an
// object is held by a reference, and knows whether it may be changed through it.
class KIV_EXPORT Value {
 public:
   enum class Kind { nothing, boolean, real, number, text, object, list };

   Value() = default;
   template< std::same_as< bool > T >
   Value( T value ) : held_( value ) {}
   Value( double value ) : held_( value ) {}
   Value( unsigned int value ) : held_( value ) {}
   Value( String8 const & text ) : held_( text ) {}
   Value( Name const & text ) : held_( String8( text ) ) {}
   Value( char const * text ) : held_( String8( text ) ) {}
   Value( std::string const & text ) : held_( String8( text ) ) {}
   Value( List_ const & list );
   // Null is nothing.
   template< std::derived_from< PtrInterface > T >
   Value( Ptr< T > const & object ) : Value( object.get(), false ) {}
   template< std::derived_from< PtrInterface > T >
   Value( Ptr< T const > const & object ) : Value( object.get(), true ) {}

   Kind kind() const { return static_cast< Kind >( held_.index() ); }
   bool is( Kind k ) const { return kind() == k; }

   // Each is a range exception for a value of another kind.
   bool boolean() const;
   double real() const;
   unsigned int number() const;
   String8 const & text() const;
   List_ const & list() const;
   Ptr< PtrInterface const > const & object() const;
   // Null for one that may only be read.
   Ptr< PtrInterface > mutableObject() const;
   // An object that may only be read.
   bool isConst() const;

   // The same, with every object in it read only.
   Value readOnly() const;
   // As valueToString() of what it holds: "" for nothing, an object's name, "[name: value, ...]".
   String8 toString() const;
   // The name of its type: "nothing", "bool", "double", "unsigned int", "Kiv::String8", that of
   // the object, "Kiv::GenericIf::List_".
   String8 typeName() const;

   // Objects by identity, a NaN the same as a NaN.
   friend KIV_EXPORT bool operator==( Value const & a, Value const & b );

 private:
   struct Held {
      Ptr< PtrInterface const > object;
      bool isConst;
   };
   Value( PtrInterface const * object, bool isConst );

   std::variant< std::monostate, bool, double, unsigned int, String8, Held,
                 std::shared_ptr< List_ const > >
      held_;
};

// Named values in order: the arguments of a call, the members of a collection, the parts of an
// entry.
class KIV_EXPORT List_ {
 public:
   struct Entry {
      String8 name;
      Value value;
      friend bool operator==( Entry const &, Entry const & ) = default;
   };

   List_() = default;
   List_( std::initializer_list< Entry > entries ) : entries_( entries ) {}
   List_ & add( String8 const & name, Value const & value ) {
      entries_.push_back( { name, value } );
      return *this;
   }

   std::size_t size() const { return entries_.size(); }
   bool empty() const { return entries_.empty(); }
   Entry const & operator[]( std::size_t place ) const { return entries_[ place ]; }
   auto begin() const { return entries_.begin(); }
   auto end() const { return entries_.end(); }
   // The first value of that name; null when there is none. Valid while the list is unchanged.
   Value const * value( String8 const & name ) const;

   friend bool operator==( List_ const &, List_ const & ) = default;

 private:
   std::vector< Entry > entries_;
};

inline String8 valueToString( Value const & value ) { return value.toString(); }

} // namespace Kiv
