// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Counted byte strings: String8 for text, Name for the names of entities and members.
#pragma once

#include <Kiv/Export.h>

#include <compare>
#include <cstddef>
#include <cstdint>
#include <cstring>
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

// What String8 and Name share: a reference to counted, immutable characters with their hash, which
// is worked out when it is first asked for: text that is never a key costs none. Copies share the
// characters and the hash, also between the two types. May hold any bytes, NUL included. One
// pointer, and one allocation of 12 bytes, the characters and a NUL, rounded up to whole words.
// Not for characters that change often: every change makes new characters (joined() makes them once
// from many pieces).
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
   // Over the bytes.
   std::uint32_t hash() const { return rep_ && rep_->hash != unknown ? rep_->hash : hashAnew(); }
   // What tables file it by: the hash, but for the highest value, which stands for no text there.
   std::uint32_t filedHash() const {
      return rep_ && rep_->hash != unknown ? rep_->hash : filed( hashAnew() );
   }

   // Whether its hash has been asked for before, so that a table finds it at hand. (The highest
   // never is.)
   bool hashKnown() const { return rep_ && rep_->hash != unknown; }
   std::uint32_t knownHash() const { return rep_->hash; }
   // The same for all copies, and for no other text while one of them lives.
   using Identity = void const *;
   Identity identity() const { return rep_; }
   friend bool operator==( Text const & a, Text const & b ) {
      return a.rep_ == b.rep_ || ( a.rep_ && b.rep_ && a.rep_->equals( *b.rep_ ) );
   }
   friend bool operator==( Text const & a, std::string_view b ) { return a.view() == b; }
   // By bytes, as unsigned characters.
   friend std::strong_ordering operator<=>( Text const & a, Text const & b ) {
      return a.view() <=> b.view();
   }

 protected:
   explicit Text( std::string_view text );
   // All of them, one after the other.
   Text( std::string_view const * pieces, std::size_t count );

 private:
   // A hash that was not worked out yet. One that comes out as this is worked out every time, and
   // so is the highest, so that what is kept needs no second look.
   static constexpr std::uint32_t unknown = 0;
   static constexpr std::uint32_t highest = 0xffffffffU;
   static constexpr std::uint32_t filed( std::uint32_t hash ) {
      return hash == highest ? highest - 1 : hash;
   }

   // What texts share. The characters end with a NUL, and with more up to a whole word: so two are
   // compared word by word, beginning with the one that has the length.
   struct Rep {
      std::uint32_t references;
      std::uint32_t hash;
      std::uint32_t length;
      char * bytes() { return reinterpret_cast< char * >( this + 1 ); }
      char const * bytes() const { return reinterpret_cast< char const * >( this + 1 ); }
      static std::size_t size( std::size_t length ) {
         return ( sizeof( Rep ) + length + sizeof( std::size_t ) ) / sizeof( std::size_t ) *
                sizeof( std::size_t );
      }
      bool equals( Rep const & other ) const {
         auto const * const a = reinterpret_cast< char const * >( this );
         auto const * const b = reinterpret_cast< char const * >( &other );
         std::size_t at = 2 * sizeof( std::uint32_t );
         std::size_t const end = size( length );
         do {
            std::size_t x;
            std::size_t y;
            std::memcpy( &x, a + at, sizeof x );
            std::memcpy( &y, b + at, sizeof y );
            if( x != y )
               return false;
            at += sizeof x;
         } while( at != end );
         return true;
      }
   };
   static_assert( sizeof( Rep ) == 12 );

   static Rep * make( std::size_t length );
   static void release( Rep * rep ) noexcept;
   std::uint32_t hashAnew() const;

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
      std::string_view const pieces[] = { a.view(), b.view() };
      return { pieces, 2 };
   }

 private:
   template< class... Piece >
   friend String8 joined( Piece const &... piece );
   String8( std::string_view const * pieces, std::size_t count ) : Text( pieces, count ) {}
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

namespace detail {

inline std::string_view viewOf( Text const & text ) { return text.view(); }
inline std::string_view viewOf( std::string_view text ) { return text; }

} // namespace detail

// All pieces one after the other: texts, and what a std::string_view can be made from. One
// allocation, however many there are.
//    joined( "stage ", stage->name(), " started" )
template< class... Piece >
String8 joined( Piece const &... piece ) {
   std::string_view const pieces[] = { detail::viewOf( piece )... };
   return { pieces, sizeof...( piece ) };
}

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
