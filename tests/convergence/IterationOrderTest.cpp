// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// One history under several orders of every collection ends in the same state.

#include "History.h"

#include <gtest/gtest.h>

namespace convergence {
namespace {

void sameInEveryOrder( Kind const & kind, unsigned usual ) {
   auto const [ first, count ] = seeds( usual );
   for( std::uint64_t seed = first; seed != first + count; ++seed ) {
      Picture expected;
      for( std::uint64_t order = 0; order != 4; ++order ) {
         orderIs( 1000 + order );
         History history( seed, kind );
         if( std::optional< std::string > const wrong = history.play() )
            FAIL() << "seed " << seed << ", order " << order << ": " << *wrong << "\n"
                   << history.told();
         Picture const shown = history.picture();
         if( order == 0 )
            expected = shown;
         ASSERT_EQ( shown, expected ) << "seed " << seed << ", order " << order << "\n"
                                      << history.told();
      }
   }
}

TEST( IterationOrder, ChangesNoResult ) { sameInEveryOrder( { .acyclic = true }, 1000 ); }

TEST( IterationOrder, ChangesNoEventDependencyOrTimeoutOfCycles ) {
   sameInEveryOrder( { .acyclic = false }, 500 );
}

TEST( IterationOrder, IsAnotherOneUnderAnotherSeed ) {
   std::set< std::string > orders;
   for( std::uint64_t order = 0; order != 20; ++order ) {
      orderIs( order );
      Ptr< Stage::Status > const status = Stage::Status::StatusIs( "status" );
      for( char const * name : { "A", "B", "C", "D" } )
         status->stageIs( name );
      std::string met;
      for( auto i = status->stageIteratorConst(); i; ++i )
         met += i.key().str();
      orders.insert( met );
   }
   EXPECT_GT( orders.size(), 5U );
}

} // namespace
} // namespace convergence
