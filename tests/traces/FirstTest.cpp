// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The first handler that runs in a process makes the trace handle. When there is no memory for
// that, the handler does its work all the same.
#include "../support/Child.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

namespace {

struct Written {
   explicit Written( unsigned failing ) {
      testing_support::Child const child( "'" FIRST_CHILD "' " + std::to_string( failing ) );
      EXPECT_TRUE( child.succeeded );
      std::istringstream words( child.output );
      words >> first >> thrown >> second >> entries;
      EXPECT_FALSE( words.fail() ) << child.output;
   }
   unsigned first = 0; // allocations
   unsigned second = 0;
   unsigned entries = 0;
   bool thrown = false;
};

} // namespace

TEST( FirstHandler, WritesItsLogEntryWithoutMemoryForTheTraceHandle ) {
   Written const all( 1000000 );
   ASSERT_EQ( all.entries, 2U );
   // The handle comes first, as the trace is the first thing that a handler does.
   ASSERT_GT( all.first, all.second );
   unsigned const forTheHandle = all.first - all.second;
   for( unsigned failing = 0; failing != all.first; ++failing ) {
      Written const written( failing );
      bool const ofTheEntry = failing >= forTheHandle;
      EXPECT_EQ( written.thrown, ofTheEntry ) << "allocation " << failing;
      EXPECT_EQ( written.entries, ofTheEntry ? 1U : 2U ) << "allocation " << failing;
   }
}
