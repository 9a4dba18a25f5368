// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Kiv/Exception.h>
#include <Kiv/Memory.h>
#include <Kiv/Text.h>

#include <algorithm>
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
   // The high bits choose the bucket, so every bit has to reach every other: two rounds of shift
   // and odd multiplication.
   h = ( h ^ ( h >> 16 ) ) * 0x7feb352dU;
   h = ( h ^ ( h >> 15 ) ) * 0x846ca68bU;
   return h ^ ( h >> 16 );
}

} // namespace detail

namespace {

constexpr std::size_t longest = 0x7fffffffU;

} // namespace

Text::Text( std::string_view text ) : Text( &text, 1 ) {}

Text::Text( std::string_view const * pieces, std::size_t count ) {
   std::size_t length = 0;
   for( std::size_t i = 0; i != count; ++i ) {
      if( pieces[ i ].size() > longest - length )
         throwRangeException( "text longer than 2147483647 bytes" );
      length += pieces[ i ].size();
   }
   if( length == 0 )
      return;
   rep_ = make( length );
   char * end = rep_->bytes();
   for( std::size_t i = 0; i != count; ++i )
      end = std::copy_n( pieces[ i ].data(), pieces[ i ].size(), end );
}

Text::Rep * Text::make( std::size_t length ) {
   auto * rep = static_cast< Rep * >( KivMemPool::operator new( Rep::size( length ) ) );
   rep->references = 1;
   rep->hash = unknown;
   rep->length = static_cast< std::uint32_t >( length );
   std::memset( rep->bytes() + length, 0, Rep::size( length ) - sizeof( Rep ) - length );
   return rep;
}

void Text::release( Rep * rep ) noexcept {
   KivMemPool::operator delete( rep, Rep::size( rep->length ) );
}

std::uint32_t Text::hashAnew() const {
   std::uint32_t const hash = detail::hashBytes( charPtr(), length() );
   if( rep_ && hash != highest )
      rep_->hash = hash;
   return hash;
}

std::ostream & operator<<( std::ostream & out, Text const & text ) { return out << text.view(); }

String8 format( char const * format, ... ) {
   char text[ 256 ]; // most are shorter
   std::va_list arguments;
   va_start( arguments, format );
   std::va_list again;
   va_copy( again, arguments );
   int const length = std::vsnprintf( text, sizeof text, format, arguments );
   va_end( arguments );
   if( length < 0 ) {
      va_end( again );
      throwRangeException( "text that cannot be formatted" );
   }
   auto const bytes = static_cast< std::size_t >( length );
   if( bytes < sizeof text ) {
      va_end( again );
      return std::string_view( text, bytes );
   }
   std::vector< char > longer;
   try {
      longer.resize( bytes + 1 );
   } catch( ... ) {
      va_end( again );
      throw;
   }
   std::vsnprintf( longer.data(), longer.size(), format, again );
   va_end( again );
   return std::string_view( longer.data(), bytes );
}

} // namespace Kiv
