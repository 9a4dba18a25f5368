// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
//
// memory SHAPE EVENTS...
//
// What a start-up holds when it is complete, by the library and by its control: a line for each
// number of events. ../README.md says what is in it.
#include <startup/Process.h>
#include <startup/Startup.h>

#include <cstdio>
#include <cstdlib>
#include <new>

#include <malloc.h>
#include <sys/resource.h>

namespace {

// Of what came through the global operator new and has not gone back: blocks, and bytes with what
// the allocator rounds up and keeps for itself.
std::uint64_t blocks = 0;
std::uint64_t bytes = 0;

void * counted( void * block ) {
   if( !block )
      throw std::bad_alloc();
   ++blocks;
   bytes += malloc_usable_size( block ) + sizeof( std::size_t );
   return block;
}
void release( void * block ) noexcept {
   if( !block )
      return;
   --blocks;
   bytes -= malloc_usable_size( block ) + sizeof( std::size_t );
   std::free( block );
}

} // namespace

// The forms for arrays and those that do not throw call these.
void * operator new( std::size_t size ) { return counted( std::malloc( size ? size : 1 ) ); }
void * operator new( std::size_t size, std::align_val_t alignment ) {
   auto const align = static_cast< std::size_t >( alignment );
   return counted( std::aligned_alloc( align, ( size + align - 1 ) / align * align ) );
}
void operator delete( void * block ) noexcept { release( block ); }
void operator delete( void * block, std::size_t ) noexcept { release( block ); }
void operator delete( void * block, std::align_val_t ) noexcept { release( block ); }
void operator delete( void * block, std::size_t, std::align_val_t ) noexcept { release( block ); }

namespace {

using namespace Bench;

struct Held {
   std::uint64_t blocks;
   std::uint64_t bytes;
   std::uint64_t heap;
   std::uint64_t peakKilobytes; // of the whole process
};

Held measure( Startup & startup, Declarations const & declared ) {
   Held const before = { blocks, bytes, heapInUse(), 0 };
   startup.declare();
   startup.aggregate();
   startup.progress();
   rusage usage{};
   getrusage( RUSAGE_SELF, &usage );
   Held const held = { blocks - before.blocks, bytes - before.bytes, heapInUse() - before.heap,
                       static_cast< std::uint64_t >( usage.ru_maxrss ) };
   Result const result = startup.result();
   if( !result.complete || !isOrderOf( result.activated, declared ) )
      throw std::runtime_error( "the start-up did not complete" );
   return held;
}

Held inOwnProcess( Declarations const & declared,
                   std::unique_ptr< Startup > ( *make )( Declarations const & ) ) {
   auto const said = inProcess( 0, [ & ] {
      {
         // What is made once, at first use, is no part of a start-up.
         Declarations const few = declarations( Shape::chain, 3 );
         measure( *make( few ), few );
      }
      Bytes text;
      text.put( measure( *make( declared ), declared ) );
      return text.text();
   } );
   Held held;
   Bytes( *said ).get( held );
   return held;
}

void print( Held const & held, double events ) {
   std::printf( " | %7.1f %7.0f %7.0f %8.1f", static_cast< double >( held.blocks ) / events,
                static_cast< double >( held.bytes ) / events,
                static_cast< double >( held.heap ) / events,
                static_cast< double >( held.peakKilobytes ) / 1024 );
}

int run( std::vector< std::string_view > const & arguments ) {
   if( arguments.size() < 2 )
      throw std::invalid_argument( "usage: memory SHAPE EVENTS..." );
   Shape const shape = shapeOf( arguments[ 0 ] );
   std::printf( "%zu bits         |         library, per event    MiB |         control, per event"
                "    MiB |\n",
                8 * sizeof( void * ) );
   std::puts( "shape    events |  blocks   bytes    heap     peak |  blocks   bytes    heap     "
              "peak | times" );
   for( std::size_t i = 1; i != arguments.size(); ++i ) {
      std::uint32_t const events = numberOf( arguments[ i ], 1, "events" );
      Declarations const declared = declarations( shape, events );
      Held const library = inOwnProcess(
         declared, []( Declarations const & d ) { return libraryStartup( d, Reports::atOnce ); } );
      static TableOrder order; // outlives the control, and is not counted
      Held const control = inOwnProcess( declared, []( Declarations const & d ) {
         order = inOrder( d );
         return controlStartup( d, order, Reports::atOnce );
      } );
      std::printf( "%-6.6s %8u", arguments[ 0 ].data(), events );
      print( library, events );
      print( control, events );
      std::printf( " | %5.1f\n", static_cast< double >( library.bytes ) /
                                    static_cast< double >( control.bytes ) );
   }
   return 0;
}

} // namespace

int main( int count, char ** arguments ) { return mainOf( count, arguments, run ); }
