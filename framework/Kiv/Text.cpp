// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Kiv/Exception.h>
#include <Kiv/Memory.h>
#include <Kiv/Text.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ostream>
#include <vector>

namespace Kiv {

namespace detail {

#ifdef KIV_TEST_HASH_SEED
std::uint32_t hashSeed = 0x9e3779b9U;
#endif

std::uint32_t hashBytes( char const * bytes, std::size_t length ) {
   std::uint32_t h = hashSeed ^ static_cast< std::uint32_t >( length );
   for( std::size_t i = 0; i != length; ++i ) {
      h ^= static_cast< unsigned char >( bytes[ i ] );
      h *= 0x01000193U; // a prime with few bits set, so that every byte reaches the high bits
   }
   // The high bits choose the bucket, so every bit has to reach every other: two rounds of
   // shift and odd multiplication.
   h = ( h ^ ( h >> 16 ) ) * 0x7feb352dU;
   h = ( h ^ ( h >> 15 ) ) * 0x846ca68bU;
   return h ^ ( h >> 16 );
}

} // namespace detail

Text::Text( std::string_view text ) : Text( text, std::string_view() ) {}

Text::Text( std::string_view a, std::string_view b ) {
   if( a.empty() && b.empty() )
      return;
   if( a.size() + b.size() > 0x7fffffffU )
      throwRangeException( "text longer than 2147483647 bytes" );
   rep_ = make( a.size() + b.size() );
   if( !a.empty() )
      std::memcpy( rep_->bytes(), a.data(), a.size() );
   if( !b.empty() )
      std::memcpy( rep_->bytes() + a.size(), b.data(), b.size() );
   rep_->hash = detail::hashBytes( rep_->bytes(), rep_->length );
}

Text::Rep * Text::make( std::size_t length ) {
   auto * rep = static_cast< Rep * >( KivMemPool::operator new( sizeof( Rep ) + length + 1 ) );
   rep->references = 1;
   rep->length = static_cast< std::uint32_t >( length );
   rep->bytes()[ length ] = '\0';
   return rep;
}

void Text::release( Rep * rep ) noexcept {
   KivMemPool::operator delete( rep, sizeof( Rep ) + rep->length + 1 );
}

std::uint32_t Text::emptyHash() {
#ifdef KIV_TEST_HASH_SEED
   return detail::hashBytes( "", 0 );
#else
   static std::uint32_t const hash = detail::hashBytes( "", 0 );
   return hash;
#endif
}

std::ostream & operator<<( std::ostream & out, Text const & text ) { return out << text.view(); }

String8 format( char const * format, ... ) {
   std::va_list arguments;
   va_start( arguments, format );
   std::va_list again;
   va_copy( again, arguments );
   int const length = std::vsnprintf( nullptr, 0, format, arguments );
   va_end( arguments );
   if( length < 0 ) {
      va_end( again );
      throwRangeException( "text that cannot be formatted" );
   }
   std::vector< char > text( static_cast< std::size_t >( length ) + 1 );
   std::vsnprintf( text.data(), text.size(), format, again );
   va_end( again );
   return std::string_view( text.data(), static_cast< std::size_t >( length ) );
}

} // namespace Kiv
