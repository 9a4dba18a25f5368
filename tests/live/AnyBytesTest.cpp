// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// A short run of what fuzz/ does for long.
#include "AnyBytes.h"

#include <gtest/gtest.h>

namespace {

using namespace LiveTest;

TEST( AnyBytes, EndNothingButTheirOwnConnection ) {
   AnyServer server;
   int answered = 0;
   for( auto const & call : goodCalls() )
      answered += server.say( call + std::string( 1, '\0' ) );
   EXPECT_EQ( answered, 10 );
   std::size_t const before = openDescriptors();
   std::mt19937 random( 5 );
   answered = 0;
   for( int n = 0; n != 5000; ++n )
      answered += server.say( mutatedCalls( random ) );
   // Some get through, or nothing behind the reader of messages was tried.
   EXPECT_GT( answered, 1000 );
   EXPECT_EQ( openDescriptors(), before );
}

} // namespace
