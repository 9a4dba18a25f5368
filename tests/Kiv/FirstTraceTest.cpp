// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The first trace point that a process passes, when there is no memory for it: the handle, the
// settings, the clock and the ring are all made then.
#include "../support/Child.h"
#include "../support/Folder.h"

#include <gtest/gtest.h>

#include <string>

namespace {

// Which allocations fail, "one" after the other or "all" from one on.
struct FirstTrace : testing::TestWithParam< char const * > {
   std::string child( std::string const & environment, std::string const & ring = "" ) const {
      return testing_support::Child( environment + " '" FIRST_TRACE_CHILD "' " + GetParam() + ring )
         .printed();
   }
   std::string ring() const {
      return "KIV_TRACE_RING_SIZE=4096 KIV_TRACE_RING='" + ( folder / "%p" ) + "'";
   }
   testing_support::Folder const folder;
};

TEST_P( FirstTrace, IsSilentWhenNobodyAsksForTraces ) { EXPECT_EQ( child( "" ), "ok\n" ); }

TEST_P( FirstTrace, IsWrittenAsTextOrReported ) {
   EXPECT_EQ( child( "KIV_TRACE='FirstTraceChild:8'" ), "ok\n" );
}

TEST_P( FirstTrace, IsRecordedOrReported ) {
   EXPECT_EQ( child( ring(), " '" + ( folder / "%p" ) + "'" ), "ok\n" );
   EXPECT_TRUE( folder.files().empty() ) << "a file that was given up, or one kept as .old";
}

TEST_P( FirstTrace, IsWrittenAndRecordedOrReported ) {
   EXPECT_EQ( child( ring() + " KIV_TRACE='*:0-9'", " '" + ( folder / "%p" ) + "'" ), "ok\n" );
   EXPECT_TRUE( folder.files().empty() );
}

INSTANTIATE_TEST_SUITE_P(, FirstTrace, testing::Values( "one", "all" ), []( auto const & tested ) {
   return tested.param[ 0 ] == 'o' ? "WhenOneAllocationFails" : "WhenAllFailFromThenOn";
} );

} // namespace
