// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
//
// growth SHAPE at-once|one-by-one EVENTS
//
// One start-up by the library, whose aggregation and progression stand in functions that callgrind
// is told by name. ../growth runs it and counts.
#include <startup/Process.h>
#include <startup/Startup.h>

extern "C" {
[[gnu::noinline]] void benchAggregation( Bench::Startup & startup ) {
   startup.aggregate();
   asm volatile( "" ); // no tail call: the function is left when aggregation is over
}
[[gnu::noinline]] void benchProgression( Bench::Startup & startup ) {
   startup.progress();
   asm volatile( "" );
}
// Called between the two: where callgrind puts down what it has counted and begins anew.
[[gnu::noinline]] void benchBetween() { asm volatile( "" ); }
}

namespace {

using namespace Bench;

int run( std::vector< std::string_view > const & arguments ) {
   if( arguments.size() != 3 )
      throw std::invalid_argument( "usage: growth SHAPE at-once|one-by-one EVENTS" );
   Shape const shape = shapeOf( arguments[ 0 ] );
   Reports const reports = reportsOf( arguments[ 1 ] );
   Declarations const declared = declarations( shape, numberOf( arguments[ 2 ], 1, "events" ) );
   {
      // What is made once, at first use, does not grow.
      Declarations const few = declarations( shape, 5 );
      auto const startup = libraryStartup( few, reports );
      startup->declare();
      startup->aggregate();
      startup->progress();
   }
   auto const startup = libraryStartup( declared, reports );
   startup->declare();
   benchAggregation( *startup );
   benchBetween();
   benchProgression( *startup );
   Result const result = startup->result();
   if( !result.complete || !isOrderOf( result.activated, declared ) )
      throw std::runtime_error( "the start-up did not complete" );
   return 0;
}

} // namespace

int main( int count, char ** arguments ) { return mainOf( count, arguments, run ); }
