// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
//
// startup SHAPE STAGES [--limit SECONDS]
//
// Measures one whole start-up and, by hand-written code, its control; prints one line of a table,
// whose head `startup --head` prints.
#include <startup/Measure.h>

#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace Bench;

using Start = Measured ( * )( Declarations const & );

struct Options {
   std::string shape;
   std::uint32_t stages = 0;
   std::uint32_t limit = 60; // processor seconds, 0: none
};

[[noreturn]] void failed( char const * what ) {
   throw std::system_error( errno, std::generic_category(), what );
}

// One start-up, in this process, told to `out`.
[[noreturn]] void child( Start start, Declarations const & declared, std::uint32_t limit,
                         int out ) {
   if( limit ) {
      rlimit const soft = { limit, RLIM_INFINITY };
      setrlimit( RLIMIT_CPU, &soft );
   }
   // Pages of code that are touched for the first time, and tables that are made once, are no part
   // of the start-up that is measured.
   start( declarations( Shape::chain, 3 ) );
   Measured const measured = start( declared );
   bool const told = write( out, &measured, sizeof measured ) == sizeof measured;
   _exit( told ? 0 : 1 );
}

// One start-up in a process of its own, so that its peak of memory is nobody else's; nothing when
// the limit has ended it.
std::optional< Measured > measure( Start start, Declarations const & declared,
                                   std::uint32_t limit ) {
   int ends[ 2 ];
   if( pipe( ends ) != 0 )
      failed( "pipe" );
   std::fflush( stdout );
   pid_t const pid = fork();
   if( pid < 0 )
      failed( "fork" );
   if( pid == 0 ) {
      close( ends[ 0 ] );
      child( start, declared, limit, ends[ 1 ] );
   }
   close( ends[ 1 ] );
   Measured measured;
   bool const told = read( ends[ 0 ], &measured, sizeof measured ) == sizeof measured;
   close( ends[ 0 ] );
   int status = 0;
   rusage usage{};
   if( wait4( pid, &status, 0, &usage ) != pid )
      failed( "wait4" );
   if( WIFSIGNALED( status ) && WTERMSIG( status ) == SIGXCPU )
      return std::nullopt;
   if( !told || !WIFEXITED( status ) || WEXITSTATUS( status ) != 0 )
      throw std::runtime_error( "the process of a start-up has failed" );
   if( measured.stages != declared.event.size() )
      throw std::runtime_error( "a start-up did not complete, or not in the right order" );
   measured.peakKilobytes = static_cast< std::uint64_t >( usage.ru_maxrss );
   return measured;
}

// The fastest of several: up to nine while they take less than a second in all.
std::optional< Measured > fastest( Start start, Declarations const & declared,
                                   std::uint32_t limit ) {
   std::optional< Measured > best;
   double spent = 0;
   for( int run = 0; run != 9 && spent < 1.0; ++run ) {
      auto const next = measure( start, declared, limit );
      if( !next )
         return next;
      spent += next->total();
      if( !best || next->total() < best->total() )
         best = next;
   }
   return best;
}

void printHead() {
   std::puts( "                |           start-up by the library                               |"
              "  control, by hand" );
   std::puts( "shape    stages | declare  aggregate   progress      total  us per   peak  bytes/ |"
              "     total    peak  bytes/     times" );
   std::puts( "                |      ms         ms         ms         ms   stage    MiB   stage |"
              "        ms     MiB   stage   control" );
}

double mebibytes( Measured const & m ) { return static_cast< double >( m.peakKilobytes ) / 1024; }

double bytesPerStage( Measured const & m ) {
   return static_cast< double >( m.heapBytes ) / static_cast< double >( m.stages );
}

void printLine( Options const & options, std::optional< Measured > const & library,
                Measured const & control ) {
   std::printf( "%-8s %6u | ", options.shape.c_str(), options.stages );
   if( library )
      std::printf( "%7.2f %10.2f %10.2f %10.2f %7.2f %6.1f %7.0f", library->declare * 1e3,
                   library->aggregate * 1e3, library->progress * 1e3, library->total() * 1e3,
                   library->total() * 1e6 / library->stages, mebibytes( *library ),
                   bytesPerStage( *library ) );
   else
      std::printf( "ended at the limit of %u s of processor time; --limit 0: none", options.limit );
   std::printf( " | %9.3f %7.1f %7.0f", control.total() * 1e3, mebibytes( control ),
                bytesPerStage( control ) );
   if( library )
      std::printf( " %9.1f", library->total() / control.total() );
   std::puts( "" );
}

std::uint32_t numberOf( std::string_view text, std::uint32_t least, char const * what ) {
   std::uint32_t value = 0;
   auto const [ end, error ] = std::from_chars( text.data(), text.data() + text.size(), value );
   if( error != std::errc() || end != text.data() + text.size() || value < least )
      throw std::invalid_argument( "\"" + std::string( text ) + "\" is no number of " + what +
                                   "; expected a whole number from " + std::to_string( least ) +
                                   " on" );
   return value;
}

Options parse( std::vector< std::string_view > const & arguments ) {
   if( arguments.size() != 2 && ( arguments.size() != 4 || arguments[ 2 ] != "--limit" ) )
      throw std::invalid_argument(
         "usage: startup chain|layered|fan-in STAGES [--limit SECONDS], or startup --head" );
   Options options;
   options.shape = arguments[ 0 ];
   options.stages = numberOf( arguments[ 1 ], 1, "stages" );
   if( arguments.size() == 4 )
      options.limit = numberOf( arguments[ 3 ], 0, "seconds" );
   return options;
}

int run( std::vector< std::string_view > const & arguments ) {
   if( arguments.size() == 1 && arguments[ 0 ] == "--head" ) {
      printHead();
      return 0;
   }
   Options const options = parse( arguments );
   Declarations const declared = declarations( shapeOf( options.shape ), options.stages );
   auto const control = fastest( startControl, declared, 0 );
   auto const library = fastest( startLibrary, declared, options.limit );
   if( library && library->criticalStages != control->criticalStages )
      throw std::runtime_error( "the library and its control disagree on what is critical" );
   printLine( options, library, *control );
   return 0;
}

} // namespace

int main( int count, char ** arguments ) {
   try {
      return run( { arguments + 1, arguments + count } );
   } catch( std::invalid_argument const & e ) {
      std::fprintf( stderr, "startup: %s\n", e.what() );
      return 2;
   } catch( std::exception const & e ) {
      std::fprintf( stderr, "startup: %s\n", e.what() );
      return 1;
   }
}
