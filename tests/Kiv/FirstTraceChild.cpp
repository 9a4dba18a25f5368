// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Passes its first trace point with each of its allocations failing in turn, every time in another
// process that has passed none yet, then a second time with memory. What the environment switches
// on, whole lines or records, or reports of lost ones, must come; nothing may be thrown.
//
//    FirstTraceChild one|all [RING]     RING: what KIV_TRACE_RING says, with %p
//
// Says "ok", or what was wrong.
#include "../support/Allocations.h"

#include <Flitlog/Reader.h>
#include <Kiv/Kiv.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using testing_support::Allocations;
using testing_support::FailingAllocations;

char const expected[] = "a literal, a text that is too long to do without memory, true -3 0.5 "
                        "an-object-with-a-long-name and one that takes memory to be made";
char const lost[] = "kiv: a trace of passPoint was lost: std::bad_alloc\n";

Kiv::TraceHandle & handle() {
   static Kiv::TraceHandle theHandle( "FirstTraceChild", false );
   return theHandle;
}

struct Pieces {
   Kiv::String8 text = "a text that is too long to do without memory";
   Kiv::Ptr< Kiv::Dir > object = Kiv::Dir::DirIs( "an-object-with-a-long-name" );
};

void passPoint( Pieces const & pieces ) {
   KIV_TRACE( handle(), 8, "FirstTraceChild", "a literal, ", pieces.text, ", ", true, " ", -3, " ",
              0.5, " ", pieces.object, " and ", std::string( "one that takes memory to be made" ) );
}

// How the process that passes the points ends.
enum Exit { allocationsLeft = 0, allAllocationsMade = 1, thrown = 2 };

// How many allocations the first pass and the second made, for the parent to see.
struct Made {
   std::size_t first;
   std::size_t second;
};
Made & made() {
   static void * const shared =
      mmap( nullptr, sizeof( Made ), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0 );
   return *static_cast< Made * >( shared );
}

// In a process of its own. Standard error is a file of the parent's.
[[noreturn]] void passPoints( Pieces const & pieces, std::size_t others,
                              FailingAllocations failing ) {
   bool hasThrown = false;
   bool hasFailed = false;
   {
      Allocations const allocations( others, failing );
      try {
         passPoint( pieces );
      } catch( ... ) {
         hasThrown = true;
      }
      hasFailed = Allocations::hasFailed();
      made().first = Allocations::count();
   }
   {
      Allocations const none( 0, FailingAllocations::none );
      passPoint( pieces );
      made().second = Allocations::count();
   }
   _exit( hasThrown ? thrown : hasFailed ? allocationsLeft : allAllocationsMade );
}

struct Result {
   int status = 0;
   std::string printed;
   std::vector< std::string > recorded;
};

std::string contentOf( int fd ) {
   std::string content( static_cast< std::size_t >( lseek( fd, 0, SEEK_END ) ), '\0' );
   if( pread( fd, content.data(), content.size(), 0 ) < 0 )
      content = "unreadable";
   return content;
}

std::vector< std::string > recordsOf( std::string path, pid_t process ) {
   path.replace( path.find( "%p" ), 2, std::to_string( process ) );
   std::vector< std::string > texts;
   auto const reader = Flitlog::Reader::ReaderIs( path );
   for( Flitlog::Record record; reader->next( record ); )
      texts.push_back( record.text );
   for( std::string const & problem : reader->problems() )
      texts.push_back( "problem: " + problem );
   unlink( path.c_str() );
   return texts;
}

Result run( std::size_t others, FailingAllocations failing, char const * ring ) {
   static Pieces const pieces;
   made() = {};
   Result result;
   int const printed = memfd_create( "printed", 0 );
   std::fflush( stdout );
   pid_t const process = fork();
   if( process == 0 ) {
      dup2( printed, STDERR_FILENO );
      passPoints( pieces, others, failing );
   }
   waitpid( process, &result.status, 0 );
   result.printed = contentOf( printed );
   close( printed );
   if( ring )
      result.recorded = recordsOf( ring, process );
   return result;
}

// How often `text` is in `all`; takes it out.
int taken( std::string & all, std::string const & text ) {
   int times = 0;
   for( std::size_t at; ( at = all.find( text ) ) != all.npos; ++times )
      all.erase( at, text.size() );
   return times;
}

// Takes out whole lines of text traces, and says how many there were.
int takenLines( std::string & all ) {
   std::string rest;
   int lines = 0;
   for( std::size_t at = 0; at != all.size(); ) {
      std::size_t const end = all.find( '\n', at ) + 1;
      std::string const line = all.substr( at, end - at );
      if( line.find( " FirstTraceChild/8 FirstTraceChild:" ) != line.npos &&
          line.ends_with( std::string( " passPoint: " ) + expected + "\n" ) )
         ++lines;
      else
         rest += line;
      at = end;
   }
   all = rest;
   return lines;
}

// Empty when all is well.
std::string problemOf( Result result, bool text, bool ring ) {
   if( !WIFEXITED( result.status ) )
      return "it was ended by a signal; it printed " + result.printed;
   if( WEXITSTATUS( result.status ) == thrown )
      return "it threw";
   int const lines = takenLines( result.printed );
   int const reports = taken( result.printed, lost );
   if( !result.printed.empty() )
      return "it printed besides: " + result.printed;
   for( std::string const & record : result.recorded )
      if( record != expected )
         return "it recorded: " + record;
   int const wanted = ( text ? 2 : 0 ) + ( ring ? 2 : 0 );
   int const written = lines + static_cast< int >( result.recorded.size() );
   // What keeps the handle or the time from being made costs both sinks theirs, in one report.
   bool const told = written == wanted
                        ? reports == 0
                        : reports > 0 && written + 2 >= wanted && reports <= wanted - written;
   bool const secondCame = ( !text || lines >= 1 ) && ( !ring || !result.recorded.empty() );
   if( told && secondCame )
      return "";
   return std::to_string( lines ) + " lines, " + std::to_string( result.recorded.size() ) +
          " records, " + std::to_string( reports ) + " reports";
}

} // namespace

int main( int count, char ** arguments ) {
   if( count < 2 )
      return 2;
   auto const failing = std::strcmp( arguments[ 1 ], "all" ) == 0
                           ? FailingAllocations::allFromThenOn
                           : FailingAllocations::one;
   char const * const ring = count > 2 ? arguments[ 2 ] : nullptr;
   char const * const settings = std::getenv( "KIV_TRACE" );
   bool const text = settings && *settings;
   // Undisturbed first, to know how many there are. The first pass makes what every one uses.
   if( std::string const problem =
          problemOf( run( 0, FailingAllocations::none, ring ), text, ring );
       !problem.empty() ) {
      std::printf( "undisturbed: %s\n", problem.c_str() );
      return 1;
   }
   Made const undisturbed = made();
   if( undisturbed.first <= undisturbed.second ) {
      std::printf( "nothing is made at first use\n" );
      return 1;
   }
   std::size_t others = 0;
   for( int status = allocationsLeft; status == allocationsLeft; ++others ) {
      Result const result = run( others, failing, ring );
      if( std::string const problem = problemOf( result, text, ring ); !problem.empty() ) {
         std::printf( "allocation %zu: %s\n", others + 1, problem.c_str() );
         return 1;
      }
      status = WEXITSTATUS( result.status );
   }
   // The last try is the one in which none failed.
   if( others != undisturbed.first + 1 ) {
      std::printf( "%zu of %zu allocations failed\n", others - 1, undisturbed.first );
      return 1;
   }
   std::printf( "ok\n" );
}
