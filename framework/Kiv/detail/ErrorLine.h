// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Reports that have to work when nothing else does.
#pragma once

#include <Kiv/detail/OneLine.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <exception>
#include <string_view>

namespace Kiv::detail {

// A line on standard error, written when this goes. Needs no memory and throws nothing, so it may
// tell of a lack of memory, and in functions that promise not to throw. One write for all but very
// long lines; a failed one is ignored, as there is nobody left to tell.
class ErrorLine {
 public:
   ErrorLine() = default;
   ~ErrorLine() {
      append( "\n" );
      flush();
   }
   ErrorLine( ErrorLine const & ) = delete;
   ErrorLine & operator=( ErrorLine const & ) = delete;

   // Control characters are shown as oneLine() does.
   ErrorLine & operator<<( std::string_view text ) {
      escape( text, [ this ]( std::string_view piece ) { append( piece ); } );
      return *this;
   }

 private:
   void append( std::string_view bytes ) {
      if( bytes.size() > sizeof bytes_ - used_ )
         flush();
      std::copy( bytes.begin(), bytes.end(), bytes_ + used_ );
      used_ += bytes.size();
   }
   void flush() {
      (void)std::fwrite( bytes_, 1, used_, stderr );
      used_ = 0;
   }

   char bytes_[ 1024 ];
   std::size_t used_ = 0;
};

// Calls tell( what ) with what the exception that is being handled says of itself.
template< class Tell >
void withCurrentException( Tell tell ) {
   try {
      throw;
   } catch( std::exception const & e ) {
      tell( std::string_view( e.what() ) );
   } catch( ... ) {
      tell( std::string_view( "not a std::exception" ) );
   }
}

} // namespace Kiv::detail
