// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// A line of text that is put together: without the heap while it is short, as most are.
#pragma once

#include <charconv>
#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>

#include <Kiv/detail/OneLine.h>

namespace Kiv::detail {

class LineBuffer {
 public:
   LineBuffer() = default;
   LineBuffer( LineBuffer const & ) = delete;
   LineBuffer & operator=( LineBuffer const & ) = delete;

   // Throws std::bad_alloc.
   LineBuffer & operator<<( std::string_view text ) {
      if( text.size() > sizeof bytes_ - used_ ) [[unlikely]]
         flush();
      if( text.size() > sizeof bytes_ ) [[unlikely]] {
         rest_ += text;
      } else {
         std::memcpy( bytes_ + used_, text.data(), text.size() );
         used_ += text.size();
      }
      return *this;
   }
   // In decimal digits. Of a number with a point those that read back as the same, "inf", "nan".
   template< class Number >
   void number( Number value ) {
      char text[ 32 ];
      char const * const end = std::to_chars( text, text + sizeof text, value ).ptr;
      *this << std::string_view( text, static_cast< std::size_t >( end - text ) );
   }
   // As it goes to a line of its own.
   void oneLine( std::string_view text ) {
      escape( text, [ this ]( std::string_view piece ) { *this << piece; } );
   }
   // Valid until something is added.
   std::string_view view() {
      if( rest_.empty() ) [[likely]]
         return { bytes_, used_ };
      flush();
      return rest_;
   }

 private:
   void flush() {
      rest_.append( bytes_, used_ );
      used_ = 0;
   }

   char bytes_[ 480 ];
   std::size_t used_ = 0;
   std::string rest_; // what comes before them
};

} // namespace Kiv::detail
