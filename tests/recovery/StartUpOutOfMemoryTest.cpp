// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// A start-up in which each allocation fails, one after the other: alone, with those that follow it,
// and until much later. Once memory is there again all is as if nothing had been: the same states,
// and no line of the log is missing.
#include "../support/Allocations.h"
#include "StartUp.h"

#include <gtest/gtest.h>

#include <algorithm>

#include <fcntl.h>
#include <unistd.h>

namespace {

using testing_support::Allocations;
using testing_support::AllocationsOf;
using testing_support::FailingAllocations;
using testing_support::Picture;
using testing_support::playStartUp;

// Reports of what failed go nowhere: there are thousands.
class Silence {
 public:
   Silence() : before_( dup( STDERR_FILENO ) ), output_( dup( STDOUT_FILENO ) ) {
      std::fflush( stdout );
      int const nowhere = open( "/dev/null", O_WRONLY );
      dup2( nowhere, STDERR_FILENO );
      dup2( nowhere, STDOUT_FILENO );
      close( nowhere );
   }
   ~Silence() {
      std::fflush( stdout );
      dup2( before_, STDERR_FILENO );
      dup2( output_, STDOUT_FILENO );
      close( before_ );
      close( output_ );
   }
   Silence( Silence const & ) = delete;
   Silence & operator=( Silence const & ) = delete;

 private:
   int const before_;
   int const output_;
};

// The first thing that differs; empty when all is as it was.
std::string differs( Picture const & a, Picture const & b, bool timesToo ) {
   auto const [ x, y ] =
      std::mismatch( a.states.begin(), a.states.end(), b.states.begin(), b.states.end() );
   if( x != a.states.end() || y != b.states.end() )
      return ( x != a.states.end() ? *x : "nothing" ) + "\n   is now " +
             ( y != b.states.end() ? *y : "nothing" );
   for( auto const & [ text, count ] : a.log )
      if( !b.log.count( text ) || b.log.at( text ) < count )
         return "log: lost \"" + text + "\"";
   for( auto const & [ text, count ] : b.log )
      if( !a.log.count( text ) )
         return "log: new \"" + text + "\"";
   for( auto const & [ text, count ] : b.messages )
      if( !a.messages.count( text ) )
         return "message: new \"" + text + "\"";
   if( timesToo && a.times != b.times )
      return "times";
   return {};
}

#ifdef __SANITIZE_ADDRESS__
// Sanitizers make it slow; every place is tried without them.
constexpr std::size_t step = 11;
#else
constexpr std::size_t step = 1;
#endif

// Plays with `failures` failing from each allocation on; how many of the places end otherwise.
void playWithFailures( std::size_t failures, bool timesToo ) {
   std::size_t const first = failures % step;
   std::vector< Picture > undisturbed;
   std::size_t places = 0;
   {
      Allocations const none( 0, FailingAllocations::none, AllocationsOf::whatIsCounted );
      undisturbed = playStartUp();
      places = Allocations::count();
   }
   ASSERT_GT( places, 2000U );
   std::size_t wrong = 0;
   for( std::size_t place = first; place < places; place += step ) {
      std::vector< Picture > seen;
      {
         Silence const silence;
         Allocations const some( place, FailingAllocations{ failures },
                                 AllocationsOf::whatIsCounted );
         seen = playStartUp();
      }
      ASSERT_EQ( seen.size(), undisturbed.size() );
      std::string found;
      for( std::size_t i = 0; i != seen.size() && found.empty(); ++i )
         if( undisturbed[ i ].midway && !timesToo )
            continue;
         else if( found = differs( undisturbed[ i ], seen[ i ], timesToo ); !found.empty() )
            found = "look " + std::to_string( i ) + ": " + found;
      if( !found.empty() && ++wrong <= 20 )
         ADD_FAILURE() << "allocation " << place << ": " << found;
   }
   EXPECT_EQ( wrong, 0U ) << "of " << places;
}

TEST( StartUpOutOfMemory, IsAsIfNothingHadBeenWhenOneAllocationHasFailed ) {
   playWithFailures( 1, true );
}
TEST( StartUpOutOfMemory, IsAsIfNothingHadBeenWhenFiveInARowHaveFailed ) {
   playWithFailures( 5, false );
}
TEST( StartUpOutOfMemory, IsAsIfNothingHadBeenWhenMemoryIsGivenBackMuchLater ) {
   playWithFailures( 40, false );
}

} // namespace
