// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Trace points. An operation is one turn of a loop with a trace point in it, or without one.
#include <Kiv/Kiv.h>
#include <Kiv/Trace.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#ifdef BENCH_FMT
#include <fmt/format.h>
#endif

#include <support/Rows.h>

namespace Bench {

namespace {

constexpr int turns = 1000;

Kiv::TraceHandle & handle() {
   static Kiv::TraceHandle theHandle( "Bench", false );
   return theHandle;
}

// A little work, each turn's needing the one's before, as between two trace points.
std::uint32_t step( std::uint32_t x ) { return ( x ^ ( x >> 15 ) ) * 0x2c1b3c6dU + 1; }

// What `each( x )` does, after a step each.
template< class Each >
auto steps( Each each ) {
   return [ each, begin = std::uint32_t( 1 ) ]() mutable {
      std::uint32_t x = begin;
      for( int i = 0; i != turns; ++i ) {
         x = step( x );
         each( x );
      }
      begin = x;
   };
}

void off( Rows const & rows ) {
   auto const without = steps( []( std::uint32_t ) {} );
   rows.measure( "trace point, switched off", turns, [ & ]( Row & row ) {
      row.add( "KIV_TRACE", 0, steps( [ &theHandle = handle() ]( std::uint32_t x ) {
                  KIV_TRACE( theHandle, 8, "Traces", "step ", x );
               } ) );
      row.add( "the loop without it", 0, without );
   } );
   // As the state machines have it: the handle is made by whoever uses it first.
   rows.measure( "trace point off, handle of first use", turns, [ & ]( Row & row ) {
      row.add( "KIV_TRACE", 0,
               steps( []( std::uint32_t x ) { KIV_TRACE( handle(), 8, "Traces", "step ", x ); } ) );
      row.add( "the loop without it", 0, without );
   } );
}

// Switched on while a way has its turn.
template< class Call >
auto traced( Kiv::TraceSink const & sink, Call call ) {
   return [ sink, call ]() mutable {
      Kiv::TraceSink const before = Kiv::traceSinkIs( sink );
      handle().masterIs( true );
      handle().levelIs( 8, true );
      call();
      handle().levelIs( 8, false );
      handle().masterIs( false );
      Kiv::traceSinkIs( before );
   };
}

#ifdef BENCH_FMT
// What a line by hand is composed in.
using Buffer = char[ 512 ];
template< class... Piece >
std::string_view composed( Buffer & buffer, fmt::format_string< Piece... > format,
                           Piece &&... piece ) {
   auto const end =
      fmt::format_to_n( buffer, sizeof buffer, format, std::forward< Piece >( piece )... );
   return { buffer, static_cast< std::size_t >( end.out - buffer ) };
}
#endif

// To a sink that only counts, so that no terminal or file is measured.
void on( Rows const & rows ) {
   static std::size_t length = 0;
   Kiv::TraceSink const sink = []( Kiv::TraceLine const & line ) { length += line.text.length(); };
   static Kiv::Name const name( "PlatformInitialized" );
   static double const seconds = 12.625;
   rows.measure( "trace point, switched on", turns, [ & ]( Row & row ) {
      row.add( "KIV_TRACE", 0, traced( sink, steps( []( std::uint32_t x ) {
                                          KIV_TRACE( handle(), 8, "Traces", "stage ", name, ", ", x,
                                                     " events, for ", seconds, " s" );
                                       } ) ) );
#ifdef BENCH_FMT
      row.add( "libfmt, same sink", 0, steps( [ sink ]( std::uint32_t x ) {
                  Buffer buffer;
                  double const time = Kiv::now();
                  std::string_view const text =
                     composed( buffer, "stage {}, {} events, for {} s", name.view(), x, seconds );
                  sink( { time, handle().name(), 8, "Traces", 1, "on", text } );
               } ) );
#endif
      std::function< void( std::string const & ) > const plain = []( std::string const & text ) {
         length += text.size();
      };
      row.add( "ostringstream, std::function", 0, steps( [ plain ]( std::uint32_t x ) {
                  std::ostringstream stream;
                  stream << "stage " << name << ", " << x << " events, for " << seconds << " s";
                  plain( stream.str() );
               } ) );
   } );
}

// The whole line to standard error, which is /dev/null meanwhile.
class Quiet {
 public:
   Quiet() {
      int const null = open( "/dev/null", O_WRONLY | O_CLOEXEC );
      dup2( null, STDERR_FILENO );
      close( null );
   }
   ~Quiet() {
      dup2( before_, STDERR_FILENO );
      close( before_ );
   }
   Quiet( Quiet const & ) = delete;
   Quiet & operator=( Quiet const & ) = delete;

 private:
   int const before_ = fcntl( STDERR_FILENO, F_DUPFD_CLOEXEC, 3 );
};

void toStandardError( Rows const & rows ) {
   static Kiv::Name const name( "PlatformInitialized" );
   Quiet const quiet;
   rows.measure( "trace point, to standard error", turns, [ & ]( Row & row ) {
      row.add( "KIV_TRACE", 0, traced( {}, steps( []( std::uint32_t x ) {
                                          KIV_TRACE( handle(), 8, "Traces", "stage ", name, ", ", x,
                                                     " events" );
                                       } ) ) );
#ifdef BENCH_FMT
      row.add( "libfmt, write()", 0, steps( []( std::uint32_t x ) {
                  Buffer buffer;
                  std::string_view const line = composed(
                     buffer, "{:.6f} {}/{} {}:{} {}: stage {}, {} events\n", Kiv::now(),
                     handle().name().view(), 8, "Traces", 1, "toStandardError", name.view(), x );
                  keep( write( STDERR_FILENO, line.data(), line.size() ) );
               } ) );
#endif
   } );
}

// What a hand-written ring would take down of the same event: 32 bytes.
struct Event {
   std::uint32_t point;
   std::uint32_t value;
   double time;
   char name[ 16 ];
};
static_assert( sizeof( Event ) == 32 );

double wallClock() {
   timespec t{};
   clock_gettime( CLOCK_REALTIME, &t );
   return static_cast< double >( t.tv_sec ) + 1e-9 * static_cast< double >( t.tv_nsec );
}

// Into a trace file, no text: the number of the point, the time, a number and a name.
void recorded( Rows const & rows ) {
   static Kiv::Name const name( "Platform" );
   rows.measure( "trace point, recorded in a ring", turns, [ & ]( Row & row ) {
      Kiv::traceRingIs( "bench-%p.ring", 1 << 20 );
      std::remove( Flitlog::theTraceFile->path().c_str() ); // the file lives until it is closed
      row.add( "KIV_TRACE", 0, steps( [ &theHandle = handle() ]( std::uint32_t x ) {
                  KIV_TRACE( theHandle, 8, "Traces", "step ", x, " of ", name );
               } ) );
      auto const ring = std::make_shared< std::vector< Event > >( ( 1 << 20 ) / sizeof( Event ) );
      row.add( "ring of structures by hand", 0,
               steps( [ ring, at = std::size_t( 0 ) ]( std::uint32_t x ) mutable {
                  Event & event = ( *ring )[ at ];
                  event.point = 1;
                  event.value = x;
                  event.time = wallClock();
                  name.view().copy( event.name, sizeof event.name );
                  at = at + 1 == ring->size() ? 0 : at + 1;
                  keep( ring->data() );
               } ) );
      row.add( "clock_gettime alone", 0, steps( []( std::uint32_t ) { keep( wallClock() ); } ) );
   } );
   Kiv::traceRingIs( "" );
}

} // namespace

void benchmarks( Rows const & rows ) {
   off( rows );
   on( rows );
   toStandardError( rows );
   recorded( rows );
}

} // namespace Bench
