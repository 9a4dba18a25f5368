// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Benchmarks that stand beside their controls, printed as one table.
//
//    void Bench::benchmarks() {
//       subject( "what", []( benchmark::State & s ) { measure( s, 1, ours ); } );
//       control( "what", "by what", []( benchmark::State & s ) { measure( s, 1, theirs ); } );
//    }
//
// A program defines benchmarks() and links Table.cpp, which brings main(). What is printed is the
// fastest of all repetitions: whatever else the machine does can only make a run slower.
#pragma once

#include <support/Random.h>

#include <benchmark/benchmark.h>

#include <cstdint>
#include <functional>
#include <string>

namespace Bench {

using Body = std::function< void( benchmark::State & ) >;

// What is measured, and by what it is compared with, under the same `what`. A subject may have
// several controls, and each gets a line.
void subject( std::string const & what, Body body );
void control( std::string const & what, std::string const & by, Body body );

// The program's own. Registers everything.
void benchmarks();

// How often this process has asked for memory through the global operator new, which is where the
// framework gets its memory from as well.
std::uint64_t allocations();

// Runs `call`, which does `operations` operations, once for nothing, so that tables and pools have
// their size, and then as often as the state wants.
template< class Call >
void measure( benchmark::State & state, std::int64_t operations, Call call ) {
   call();
   std::uint64_t const before = allocations();
   for( auto _ : state )
      call();
   std::uint64_t const made = allocations() - before;
   std::int64_t const all = operations * static_cast< std::int64_t >( state.iterations() );
   state.counters[ "allocations" ] = static_cast< double >( made ) / static_cast< double >( all );
   state.SetItemsProcessed( all );
}

} // namespace Bench
