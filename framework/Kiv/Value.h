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
#include <string>
#include <vector>

namespace Kiv {

class List_;

// Nothing, or a value of one of the types that attributes have. Copied like what it holds; an
// object is held by a reference, and knows whether it may be changed through it.
class KIV_EXPORT Value {
 public:
   enum class Kind { nothing, boolean, real, number, text, object, list };

   Value() : number_( 0 ) {}
   template< std::same_as< bool > T >
   Value( T value ) : kind_( Kind::boolean ), boolean_( value ) {}
   Value( double value ) : kind_( Kind::real ), real_( value ) {}
   Value( unsigned int value ) : kind_( Kind::number ), number_( value ) {}
   Value( String8 const & text );
   Value( Name const & text ) : Value( String8( text ) ) {}
   Value( char const * text ) : Value( String8( text ) ) {}
   Value( std::string const & text ) : Value( String8( text ) ) {}
   Value( List_ const & list );
   Value( Value const & other );
   Value( Value && other ) noexcept;
   Value & operator=( Value const & other );
   Value & operator=( Value && other ) noexcept;
   ~Value();
   // Null is nothing.
   template< std::derived_from< PtrInterface > T >
   Value( Ptr< T > const & object ) : Value( object.get(), false ) {}
   template< std::derived_from< PtrInterface > T >
   Value( Ptr< T const > const & object ) : Value( object.get(), true ) {}

   Kind kind() const { return kind_; }
   bool is( Kind k ) const { return kind_ == k; }

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
   // Values of one list share it.
   struct SharedList;

   Value( PtrInterface const * object, bool isConst );
   void require( Kind kind, char const * expected ) const;

   Kind kind_ = Kind::nothing;
   bool isConst_ = false; // of an object
   // By hand: half the time that including this header takes would be spent on a std::variant.
   union {
      bool boolean_;
      double real_;
      unsigned int number_;
      String8 text_;
      Ptr< PtrInterface const > object_;
      SharedList * list_;
   };
};

// Named values in order: the arguments of a call, the members of a collection, the parts of an
// entry.
class KIV_EXPORT List_ {
 public:
   struct Entry {
      String8 name;
      Value value;
      friend KIV_EXPORT bool operator==( Entry const & a, Entry const & b );
   };

   List_();
   List_( std::initializer_list< Entry > entries );
   List_( List_ const & other );
   List_( List_ && other ) noexcept;
   List_ & operator=( List_ const & other );
   List_ & operator=( List_ && other ) noexcept;
   ~List_();
   List_ & add( String8 const & name, Value const & value );

   std::size_t size() const { return entries_.size(); }
   bool empty() const { return entries_.empty(); }
   Entry const & operator[]( std::size_t place ) const { return entries_[ place ]; }
   auto begin() const { return entries_.begin(); }
   auto end() const { return entries_.end(); }
   // The first value of that name; null when there is none. Valid while the list is unchanged.
   Value const * value( String8 const & name ) const;

   friend KIV_EXPORT bool operator==( List_ const & a, List_ const & b );

 private:
   std::vector< Entry > entries_;
};

inline String8 valueToString( Value const & value ) { return value.toString(); }

} // namespace Kiv
