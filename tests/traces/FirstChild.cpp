// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Writes two log entries, the first by the first handler of the process, with the allocation of
// that number failing. Says how many allocations the first took, whether it threw, how many the
// second took and how many entries there are.
#include "../support/Allocations.h"

#include <Ordovan/Ordovan.h>

#include <cstdio>
#include <cstdlib>

int main( int count, char ** arguments ) {
   if( count != 2 )
      return 2;
   using testing_support::Allocations;
   auto const log = Stage::Log::LogIs( "log" );
   Kiv::Ptr< Stage::LogSm > const sm = new Stage::LogSm( log );
   Kiv::String8 const text = "an entry";
   (void)Kiv::now();
   bool thrown = false;
   std::size_t first = 0;
   std::size_t second = 0;
   {
      Allocations const allocations( std::strtoul( arguments[ 1 ], nullptr, 10 ) );
      try {
         sm->logIs( text );
      } catch( ... ) {
         thrown = true;
      }
      first = Allocations::count();
      Allocations::failNone();
      sm->logIs( text );
      second = Allocations::count() - first;
   }
   unsigned entries = 0;
   for( Stage::LogEntry entry; log->logDeq( entry ); )
      ++entries;
   std::printf( "%u %d %u %u\n", unsigned( first ), thrown ? 1 : 0, unsigned( second ), entries );
}
