// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// What handlers trace, word for word, with the level and the function that each line names.
#pragma once

#include "../support/TraceRecorder.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace traces {

// "LEVEL FUNCTION: TEXT"
using Lines = std::vector< std::string >;

// What was traced while `call` ran.
template< class Call >
Lines tracedBy( Call call ) {
   testing_support::TraceRecorder recorder;
   call();
   Lines lines;
   for( Kiv::TraceLine const & line : recorder.lines() ) {
      EXPECT_STREQ( line.source, "Ordovan" );
      lines.push_back( std::to_string( line.level ) + " " + line.function + ": " +
                       line.text.str() );
   }
   return lines;
}

} // namespace traces
