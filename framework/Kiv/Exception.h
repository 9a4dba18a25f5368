// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Errors of callers: what the framework throws, and the texts that it throws with.
#pragma once

#include <Kiv/Export.h>
#include <Kiv/Ptr.h>
#include <Kiv/Text.h>

#include <cstdint>
#include <exception>

namespace Kiv {

// A set of exception ids.
class IdBitArray {
 public:
   constexpr IdBitArray() = default;
   constexpr explicit IdBitArray( unsigned id ) : bits_( std::uint32_t{ 1 } << id ) {}
   constexpr bool has( unsigned id ) const { return ( bits_ >> id & 1U ) != 0; }
   constexpr bool meets( IdBitArray other ) const { return ( bits_ & other.bits_ ) != 0; }
   friend constexpr IdBitArray operator|( IdBitArray a, IdBitArray b ) {
      a.bits_ |= b.bits_;
      return a;
   }

 private:
   std::uint32_t bits_ = 0;
};

// A caller broke a rule of the framework. what() is the text.
class KIV_EXPORT Exception : public std::exception {
 public:
   enum Id : unsigned {
      general = 0,
      range = 1,
      nameInUse = 2,
      thread = 3,
      // of access by name, see GenericIf.h
      constInstance = 4,
      type = 5,
      unknownArgument = 6,
      operationNotSupported = 7,
      badIndex = 8,
      unknownAttribute = 9
   };

   // `ids` say what kind of error it is; `expected`: an Expect region was waiting for it, so it is
   // not worth a report.
   Exception( String8 text, IdBitArray ids, bool expected );
   ~Exception() override;

   char const * what() const noexcept override { return text_.charPtr(); }
   String8 const & text() const { return text_; }
   IdBitArray ids() const { return ids_; }
   bool expected() const { return expected_; }

 private:
   String8 text_;
   IdBitArray ids_;
   bool expected_;
};

class KIV_EXPORT RangeException : public Exception {
 public:
   RangeException( String8 text, bool expected );
   ~RangeException() override;
};

class KIV_EXPORT NameInUseException : public Exception {
 public:
   NameInUseException( String8 text, bool expected );
   ~NameInUseException() override;
};

[[noreturn]] KIV_EXPORT void throwRangeException( char const * text );
[[noreturn]] KIV_EXPORT void throwRangeException( String8 const & text );
[[noreturn]] KIV_EXPORT void throwNameInUseException( String8 const & text );

// The pointer itself, for one that must not be null: else the range exception "null ValidPtr".
template< class T >
Ptr< T > const & valid( Ptr< T > const & p ) {
   if( !p )
      throwRangeException( "null ValidPtr" );
   return p;
}

// The same with a text of the caller's.
template< class T >
Ptr< T > const & valid( Ptr< T > const & p, char const * text ) {
   if( !p )
      throwRangeException( text );
   return p;
}

template< class T >
T * valid( T * p ) {
   if( !p )
      throwRangeException( "null ValidPtr" );
   return p;
}

// Ends the process when an invariant of ours is broken, in every build: says which on standard
// error. Not for what callers do wrong.
[[noreturn]] KIV_EXPORT void invariantBroken( char const * invariant );
inline void assertInvariant( bool holds, char const * invariant ) {
   if( !holds ) [[unlikely]]
      invariantBroken( invariant );
}

// Marks a region in which exceptions of the given kinds are expected: those thrown by the
// framework while it lives carry expected() == true, and a reactor that lets one out is not
// reported. Regions nest; one belongs to the thread that made it and ends in the order made.
class KIV_EXPORT Expect {
 public:
   explicit Expect( IdBitArray ids );
   explicit Expect( Exception::Id id ) : Expect( IdBitArray( id ) ) {}
   ~Expect();
   Expect( Expect const & ) = delete;
   Expect & operator=( Expect const & ) = delete;

   static bool isExpected( IdBitArray ids );

 private:
   IdBitArray ids_;
   Expect const * outer_;
};

} // namespace Kiv
