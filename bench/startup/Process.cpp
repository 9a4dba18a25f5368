// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <startup/Process.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <system_error>

#include <malloc.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Bench {

namespace {

[[noreturn]] void failed( char const * what ) {
   throw std::system_error( errno, std::generic_category(), what );
}

void limitIs( decltype( RLIMIT_CPU ) resource, rlim_t soft ) {
   rlimit limit{};
   if( getrlimit( resource, &limit ) != 0 )
      failed( "getrlimit" );
   limit.rlim_cur = std::min( soft, limit.rlim_max );
   if( setrlimit( resource, &limit ) != 0 )
      failed( "setrlimit" );
}

void writeAll( int out, std::string_view bytes ) {
   while( !bytes.empty() ) {
      ssize_t const written = write( out, bytes.data(), bytes.size() );
      if( written < 0 )
         failed( "write" );
      bytes.remove_prefix( static_cast< std::size_t >( written ) );
   }
}

std::string readAll( int in ) {
   std::string bytes;
   char buffer[ 65536 ];
   for( ssize_t got; ( got = read( in, buffer, sizeof buffer ) ) != 0; ) {
      if( got < 0 )
         failed( "read" );
      bytes.append( buffer, static_cast< std::size_t >( got ) );
   }
   return bytes;
}

[[noreturn]] void child( std::uint32_t limit, std::function< std::string() > const & work,
                         int out ) {
   try {
      limitIs( RLIMIT_STACK, 8 << 20 );
      if( limit )
         limitIs( RLIMIT_CPU, limit );
      writeAll( out, work() );
      _exit( 0 );
   } catch( std::exception const & e ) {
      std::fprintf( stderr, "%s\n", e.what() );
      _exit( 1 );
   }
}

} // namespace

double processorSeconds() {
   // Of the thread: while the process has a limit of processor time, the clock of the process goes
   // in ticks.
   timespec now{};
   clock_gettime( CLOCK_THREAD_CPUTIME_ID, &now );
   return static_cast< double >( now.tv_sec ) + static_cast< double >( now.tv_nsec ) * 1e-9;
}

std::uint64_t heapInUse() {
   auto const info = mallinfo2();
   return std::uint64_t{ info.uordblks } + info.hblkhd;
}

void touchHeap( std::size_t bytes ) {
   mallopt( M_MMAP_MAX, 0 );
   mallopt( M_TRIM_THRESHOLD, -1 );
   char volatile * const all = static_cast< char * >( std::malloc( bytes ) );
   if( !all )
      throw std::bad_alloc();
   for( std::size_t i = 0; i < bytes; i += 4096 )
      all[ i ] = 1;
   std::free( const_cast< char * >( all ) );
}

std::optional< std::string > inProcess( std::uint32_t limit,
                                        std::function< std::string() > const & work ) {
   int ends[ 2 ];
   if( pipe( ends ) != 0 )
      failed( "pipe" );
   std::fflush( stdout );
   pid_t const pid = fork();
   if( pid < 0 )
      failed( "fork" );
   if( pid == 0 ) {
      close( ends[ 0 ] );
      child( limit, work, ends[ 1 ] );
   }
   close( ends[ 1 ] );
   std::string said = readAll( ends[ 0 ] );
   close( ends[ 0 ] );
   int status = 0;
   if( waitpid( pid, &status, 0 ) != pid )
      failed( "waitpid" );
   if( WIFSIGNALED( status ) && WTERMSIG( status ) == SIGXCPU )
      return std::nullopt;
   if( !WIFEXITED( status ) || WEXITSTATUS( status ) != 0 )
      throw std::runtime_error( "the process of a measurement has failed" );
   return said;
}

double least( std::vector< double > const & values ) {
   return *std::min_element( values.begin(), values.end() );
}

double median( std::vector< double > values ) {
   auto const middle = values.begin() + static_cast< std::ptrdiff_t >( values.size() / 2 );
   std::nth_element( values.begin(), middle, values.end() );
   return *middle;
}

std::uint32_t numberOf( std::string_view text, std::uint32_t lowest, char const * what ) {
   std::uint32_t value = 0;
   auto const [ end, error ] = std::from_chars( text.data(), text.data() + text.size(), value );
   if( error != std::errc() || end != text.data() + text.size() || value < lowest )
      throw std::invalid_argument( "\"" + std::string( text ) + "\" is no number of " + what +
                                   "; expected a whole number from " + std::to_string( lowest ) +
                                   " on" );
   return value;
}

int mainOf( int count, char ** arguments,
            std::function< int( std::vector< std::string_view > const & ) > const & run ) {
   try {
      return run( { arguments + 1, arguments + count } );
   } catch( std::invalid_argument const & e ) {
      std::fprintf( stderr, "%s: %s\n", arguments[ 0 ], e.what() );
      return 2;
   } catch( std::exception const & e ) {
      std::fprintf( stderr, "%s: %s\n", arguments[ 0 ], e.what() );
      return 1;
   }
}

} // namespace Bench
