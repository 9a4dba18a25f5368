// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <support/Rows.h>

#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace Bench {

void Rows::measure( std::string const & what, std::int64_t operations,
                    std::function< void( Row & ) > const & enter ) const {
   if( !wanted( what ) )
      return;
   Row row( what, operations );
   enter( row );
   row.measure( rounds );
}

namespace {

// The flags of bench/run, by the names that Google Benchmark's programs know them by.
bool taken( Rows & rows, std::string_view argument ) {
   auto const value = [ argument ]( std::string_view flag ) {
      return argument.starts_with( flag ) ? argument.data() + flag.size() : nullptr;
   };
   if( char const * seconds = value( "--benchmark_min_time=" ) )
      rows.rounds.seconds = std::atof( seconds ) / 25;
   else if( char const * repetitions = value( "--benchmark_repetitions=" ) )
      rows.rounds.rounds = 3 * std::atoi( repetitions );
   else if( char const * text = value( "--benchmark_filter=" ) )
      rows.filter = text;
   else
      return false;
   return rows.rounds.rounds > 0;
}

} // namespace

} // namespace Bench

int main( int count, char ** arguments ) {
   Bench::Rows rows;
   for( int i = 1; i < count; ++i )
      if( !Bench::taken( rows, arguments[ i ] ) ) {
         std::fprintf( stderr,
                       "usage: %s [--benchmark_min_time=SECONDS] [--benchmark_repetitions=N] "
                       "[--benchmark_filter=TEXT]\n",
                       arguments[ 0 ] );
         return 2;
      }
   Bench::Row::head();
   Bench::benchmarks( rows );
   return 0;
}
