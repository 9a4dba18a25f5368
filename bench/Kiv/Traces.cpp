// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Trace points. An operation is one turn of a loop with a trace point in it, or without one.
#include <support/Table.h>

#include <Kiv/Kiv.h>
#include <Kiv/Trace.h>

#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

namespace Bench {

namespace {

constexpr int turns = 1000;

Kiv::TraceHandle & handle() {
   static Kiv::TraceHandle theHandle( "Bench", false );
   return theHandle;
}

// A little work, each turn's needing the one's before, as between two trace points.
std::uint32_t step( std::uint32_t x ) { return ( x ^ ( x >> 15 ) ) * 0x2c1b3c6dU + 1; }

void off() {
   std::string const what = "trace point, switched off";
   subject( what, []( benchmark::State & state ) {
      Kiv::TraceHandle & theHandle = handle();
      theHandle.levelIs( 8, false );
      std::uint32_t x = 1;
      measure( state, turns, [ & ] {
         for( int i = 0; i != turns; ++i ) {
            x = step( x );
            KIV_TRACE( theHandle, 8, "Traces", "step ", x );
         }
         benchmark::DoNotOptimize( x );
      } );
   } );
   control( what, "the loop without it", []( benchmark::State & state ) {
      std::uint32_t x = 1;
      measure( state, turns, [ & ] {
         for( int i = 0; i != turns; ++i )
            x = step( x );
         benchmark::DoNotOptimize( x );
      } );
   } );
}

// As the state machines have it: the handle is made by whoever uses it first.
void offMadeAtFirstUse() {
   std::string const what = "trace point off, handle of first use";
   subject( what, []( benchmark::State & state ) {
      handle().levelIs( 8, false );
      std::uint32_t x = 1;
      measure( state, turns, [ & ] {
         for( int i = 0; i != turns; ++i ) {
            x = step( x );
            KIV_TRACE( handle(), 8, "Traces", "step ", x );
         }
         benchmark::DoNotOptimize( x );
      } );
   } );
   control( what, "the loop without it", []( benchmark::State & state ) {
      std::uint32_t x = 1;
      measure( state, turns, [ & ] {
         for( int i = 0; i != turns; ++i )
            x = step( x );
         benchmark::DoNotOptimize( x );
      } );
   } );
}

// To a sink that only counts, so that no terminal or file is measured.
void on() {
   std::string const what = "trace point, switched on";
   subject( what, []( benchmark::State & state ) {
      std::size_t length = 0;
      Kiv::TraceSink const before = Kiv::traceSinkIs(
         [ &length ]( Kiv::TraceLine const & line ) { length += line.text.length(); } );
      Kiv::TraceHandle & theHandle = handle();
      theHandle.masterIs( true );
      theHandle.levelIs( 8, true );
      std::uint32_t x = 1;
      measure( state, turns, [ & ] {
         for( int i = 0; i != turns; ++i ) {
            x = step( x );
            KIV_TRACE( theHandle, 8, "Traces", "step ", x );
         }
      } );
      benchmark::DoNotOptimize( length );
      theHandle.levelIs( 8, false );
      theHandle.masterIs( false );
      Kiv::traceSinkIs( before );
   } );
   control( what, "ostringstream, std::function", []( benchmark::State & state ) {
      std::size_t length = 0;
      std::function< void( std::string const & ) > const sink =
         [ &length ]( std::string const & text ) { length += text.size(); };
      std::uint32_t x = 1;
      measure( state, turns, [ & ] {
         for( int i = 0; i != turns; ++i ) {
            x = step( x );
            std::ostringstream stream;
            stream << "step " << x;
            sink( stream.str() );
         }
      } );
      benchmark::DoNotOptimize( length );
   } );
}

// What a hand-written ring would take down of the same event.
struct Event {
   std::uint32_t point;
   std::uint32_t value;
   double time;
   char name[ 16 ];
};

// Into a trace file, no text: the number of the point, the time, a number and a name.
void recorded() {
   std::string const what = "trace point, recorded in a ring";
   subject( what, []( benchmark::State & state ) {
      Kiv::traceRingIs( "bench-%p.ring", 1 << 20 );
      Kiv::TraceHandle & theHandle = handle();
      Kiv::Name const name( "Platform" );
      std::uint32_t x = 1;
      measure( state, turns, [ & ] {
         for( int i = 0; i != turns; ++i ) {
            x = step( x );
            KIV_TRACE( theHandle, 8, "Traces", "step ", x, " of ", name );
         }
      } );
      std::string const path = Flitlog::theTraceFile->path();
      Kiv::traceRingIs( "" );
      std::remove( path.c_str() );
   } );
   control( what, "ring of structures by hand", []( benchmark::State & state ) {
      std::vector< Event > ring( ( 1 << 20 ) / sizeof( Event ) );
      std::size_t at = 0;
      Kiv::Name const name( "Platform" );
      std::uint32_t x = 1;
      measure( state, turns, [ & ] {
         for( int i = 0; i != turns; ++i ) {
            x = step( x );
            Event & event = ring[ at ];
            event.point = 1;
            event.value = x;
            event.time = Kiv::now();
            name.view().copy( event.name, sizeof event.name );
            at = at + 1 == ring.size() ? 0 : at + 1;
         }
         benchmark::DoNotOptimize( ring.data() );
      } );
   } );
}

} // namespace

void benchmarks() {
   off();
   offMadeAtFirstUse();
   on();
   recorded();
}

} // namespace Bench
