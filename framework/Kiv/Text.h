// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Counted byte strings: String8 for text, Name for the names of entities and members.
#pragma once

#include <Kiv/Export.h>

#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>

namespace Kiv {

namespace detail {

#ifdef KIV_TEST_HASH_SEED
// A test build may change the seed, and with it the order of every collection, while no string
// that was made before is used as a key any more.
extern std::uint32_t hashSeed;
#else
// Fixed, so that the same input gives the same order on every machine and in every run. Digits of
// the fraction of the golden ratio: no meaning beyond "not zero".
inline constexpr std::uint32_t hashSeed = 0x9e3779b9U;
#endif

// Mixes every byte into all 32 bits; the same value on every word size.
KIV_EXPORT std::uint32_t hashBytes( char const * bytes, std::size_t length );

} // namespace detail

// What String8 and Name share: a reference to counted, immutable characters with their hash.
// Copies share the characters, also between the two types. May hold any bytes, NUL included.
// Not for characters that change often: every change makes new characters.
class KIV_EXPORT Text {
 public:
   Text() = default;
   Text( Text const & other ) : rep_( other.rep_ ) {
      if( rep_ )
         ++rep_->references;
   }
   Text( Text && other ) noexcept : rep_( other.rep_ ) { other.rep_ = nullptr; }
   ~Text() {
      if( rep_ && --rep_->references == 0 )
         release( rep_ );
   }
   Text & operator=( Text other ) noexcept {
      std::swap( rep_, other.rep_ );
      return *this;
   }

   // NUL-terminated; valid while any copy of the text lives.
   char const * charPtr() const { return rep_ ? rep_->bytes() : ""; }
   std::size_t length() const { return rep_ ? rep_->length : 0; }
   bool empty() const { return !rep_; }
   std::string_view view() const { return { charPtr(), length() }; }
   std::string str() const { return std::string( view() ); }
   // Over the bytes; computed when the characters were made.
   std::uint32_t hash() const { return rep_ ? rep_->hash : emptyHash(); }

   friend bool operator==( Text const & a, Text const & b ) {
      return a.rep_ == b.rep_ || ( a.hash() == b.hash() && a.view() == b.view() );
   }
   friend bool operator==( Text const & a, std::string_view b ) { return a.view() == b; }
   // By bytes, as unsigned characters.
   friend std::strong_ordering operator<=>( Text const & a, Text const & b ) {
      return a.view() <=> b.view();
   }

 protected:
   explicit Text( std::string_view text );
   Text( std::string_view a, std::string_view b );

 private:
   struct Rep {
      std::uint32_t references;
      std::uint32_t hash;
      std::uint32_t length;
      char * bytes() { return reinterpret_cast< char * >( this + 1 ); }
      char const * bytes() const { return reinterpret_cast< char const * >( this + 1 ); }
   };
   static_assert( sizeof( Rep ) == 12 );

   static Rep * make( std::size_t length );
   static void release( Rep * rep ) noexcept;
   static std::uint32_t emptyHash();

   Rep * rep_ = nullptr; // null: no characters
};

class Name;

// Text. A null char const * counts as empty. Throws std::bad_alloc, and a range exception for
// more than 2^31 bytes.
class KIV_EXPORT String8 : public Text {
 public:
   String8() = default;
   String8( char const * text ) : Text( text ? std::string_view( text ) : std::string_view() ) {}
   String8( std::string_view text ) : Text( text ) {}
   String8( std::string const & text ) : Text( std::string_view( text ) ) {}
   String8( Name const & name );
   explicit String8( Text const & text ) : Text( text ) {}

   String8 & operator+=( String8 const & other ) { return *this = *this + other; }
   friend String8 operator+( String8 const & a, String8 const & b ) {
      return { a.view(), b.view() };
   }

 private:
   String8( std::string_view a, std::string_view b ) : Text( a, b ) {}
};

// The name of an entity or member. Shares its characters with the String8 it is made from.
class KIV_EXPORT Name : public Text {
 public:
   Name() = default;
   Name( char const * text ) : Text( text ? std::string_view( text ) : std::string_view() ) {}
   Name( std::string_view text ) : Text( text ) {}
   Name( std::string const & text ) : Text( std::string_view( text ) ) {}
   Name( String8 const & text ) : Text( text ) {}
   explicit Name( Text const & text ) : Text( text ) {}

   friend String8 operator+( Name const & a, String8 const & b ) { return String8( a ) + b; }
};

inline String8::String8( Name const & name ) : Text( name ) {}

KIV_EXPORT std::ostream & operator<<( std::ostream & out, Text const & text );

// Formats as printf does. Throws std::bad_alloc.
KIV_EXPORT String8 format( char const * format, ... ) __attribute__( ( format( printf, 1, 2 ) ) );

} // namespace Kiv

template<>
struct std::hash< Kiv::String8 > {
   std::size_t operator()( Kiv::String8 const & text ) const { return text.hash(); }
};
template<>
struct std::hash< Kiv::Name > {
   std::size_t operator()( Kiv::Name const & name ) const { return name.hash(); }
};
