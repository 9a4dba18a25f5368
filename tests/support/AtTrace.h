// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// A moment inside a handler, which only its traces show.
#pragma once

#include <Kiv/Trace.h>

#include <functional>
#include <string>
#include <utility>

namespace testing_support {

// Acts at the first line of the handle "Ordovan" that begins with a text, while it lives. Passes
// all lines on to the sink that was there before.
class AtTrace {
 public:
   AtTrace( std::string begin, std::function< void() > act )
      : begin_( std::move( begin ) ), act_( std::move( act ) ) {
      Kiv::tracesIs( "Ordovan:0-9" );
      before_ = Kiv::traceSinkIs( [ this ]( Kiv::TraceLine const & line ) {
         if( !happened_ && line.text.view().starts_with( begin_ ) ) {
            happened_ = true;
            act_();
         }
         if( before_ )
            before_( line );
      } );
   }
   ~AtTrace() {
      Kiv::tracesIs( "Ordovan:0" );
      Kiv::traceSinkIs( std::move( before_ ) );
   }
   AtTrace( AtTrace const & ) = delete;
   AtTrace & operator=( AtTrace const & ) = delete;

   bool happened() const { return happened_; }

 private:
   std::string const begin_;
   std::function< void() > const act_;
   Kiv::TraceSink before_;
   bool happened_ = false;
};

} // namespace testing_support
