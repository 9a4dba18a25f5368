// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Writes down the trace lines of one handle, all levels, while it lives.
#pragma once

#include <Kiv/Trace.h>

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace testing_support {

class TraceRecorder {
 public:
   explicit TraceRecorder( std::string handle = "Ordovan" ) : handle_( std::move( handle ) ) {
      Kiv::tracesIs( handle_ + ":0-9" );
      before_ = Kiv::traceSinkIs( [ this ]( Kiv::TraceLine const & line ) {
         if( line.handle == std::string_view( handle_ ) )
            lines_.push_back( line );
      } );
   }
   ~TraceRecorder() {
      Kiv::tracesIs( handle_ + ":" );
      Kiv::traceSinkIs( std::move( before_ ) );
   }
   TraceRecorder( TraceRecorder const & ) = delete;
   TraceRecorder & operator=( TraceRecorder const & ) = delete;

   void clear() { lines_.clear(); }
   std::vector< Kiv::TraceLine > const & lines() const { return lines_; }
   // What was written since the recorder was made or cleared, and forgets it.
   std::vector< std::string > taken() {
      std::vector< std::string > texts;
      for( Kiv::TraceLine const & line : lines_ )
         texts.push_back( line.text.str() );
      clear();
      return texts;
   }
   // How many of the lines are exactly `text`.
   std::size_t count( std::string_view text ) const {
      std::size_t found = 0;
      for( Kiv::TraceLine const & line : lines_ )
         found += line.text.view() == text ? 1U : 0U;
      return found;
   }
   // How many of the lines start with `text`.
   std::size_t countStarting( std::string_view text ) const {
      std::size_t found = 0;
      for( Kiv::TraceLine const & line : lines_ )
         found += line.text.view().substr( 0, text.size() ) == text ? 1U : 0U;
      return found;
   }

 private:
   std::string handle_;
   Kiv::TraceSink before_;
   std::vector< Kiv::TraceLine > lines_;
};

} // namespace testing_support
