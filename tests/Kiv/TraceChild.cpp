// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Applies the settings given as second argument, records into the file given as third, makes the
// trace handle named by the first, says how it is switched, and passes a trace point of every
// level, or of those given as fourth.
#include <Kiv/Trace.h>

#include <cstdio>
#include <type_traits>
#include <utility>

namespace {

// A trace point's level is a constant.
template< unsigned... levels >
void passAll( Kiv::TraceHandle const & handle, unsigned wanted,
              std::integer_sequence< unsigned, levels... > ) {
   auto const pass = [ & ]( auto level ) {
      if( ( wanted >> level & 1U ) != 0 )
         KIV_TRACE( handle, level, "TraceChild", "passed ", unsigned{ level } );
   };
   ( pass( std::integral_constant< unsigned, levels >() ), ... );
}

} // namespace

int main( int count, char ** arguments ) {
   if( count < 2 )
      return 2;
   if( count > 2 )
      Kiv::tracesIs( arguments[ 2 ] );
   if( count > 3 && *arguments[ 3 ] )
      Kiv::traceRingIs( arguments[ 3 ], 65536 );
   Kiv::TraceHandle handle( arguments[ 1 ], false );
   std::printf( "%d ", handle.master() ? 1 : 0 );
   for( unsigned level = 0; level != 10; ++level )
      std::printf( "%d", handle.level( level ) ? 1 : 0 );
   std::printf( "\n" );
   Kiv::traceSinkIs( []( Kiv::TraceLine const & line ) {
      std::printf( "%s/%u %s\n", line.handle.charPtr(), line.level, line.text.charPtr() );
   } );
   unsigned const wanted = count > 4 ? Kiv::traceLevels( arguments[ 4 ] ) : Flitlog::allLevels;
   passAll( handle, wanted, std::make_integer_sequence< unsigned, 10 >() );
}
