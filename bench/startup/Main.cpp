// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
//
// startup SHAPE at-once|one-by-one EVENTS [--limit SECONDS] [--rounds N] [--ring yes]
//
// Measures whole start-ups and, by hand-written code, their control; with `--ring yes` those that
// write a trace file, and without one as their control. Prints one line of a table, whose head
// `startup --head` prints. ../README.md says what is in it.
#include <startup/Library.h>
#include <startup/Process.h>

#include <algorithm>
#include <cstdio>
#include <numeric>

namespace {

using namespace Bench;

struct Options {
   std::string_view shape;
   std::string_view reports;
   std::uint32_t events = 0;
   std::uint32_t limit = 60; // processor seconds, 0: none
   std::uint32_t rounds = 15;
   bool ring = false;
};

struct Times {
   double declare;
   double aggregate;
   double progress;
   double total() const { return declare + aggregate + progress; }
};

// The runs of one process.
struct Measured {
   std::vector< Times > times;
   Result result;
};

using Make = std::function< std::unique_ptr< Startup >() >;

// What is compared.
struct Side {
   Make make;
   Make makeSmall; // to warm up
   std::uint32_t limit;
   bool ring = false;
   std::vector< Times > times = {}; // of all rounds
   Result result = {};
};

Times timesOf( Startup & startup ) {
   double const begin = processorSeconds();
   startup.declare();
   double const declared = processorSeconds();
   startup.aggregate();
   double const aggregated = processorSeconds();
   startup.progress();
   double const end = processorSeconds();
   return { declared - begin, aggregated - declared, end - aggregated };
}

std::string toText( Measured const & measured ) {
   Bytes bytes;
   bytes.put( measured.times );
   bytes.put( measured.result.complete );
   bytes.put( measured.result.criticalStages );
   bytes.put( measured.result.activated );
   bytes.put( measured.result.table.stage );
   bytes.put( measured.result.table.event );
   return bytes.text();
}

Measured fromText( std::string text ) {
   Bytes bytes( std::move( text ) );
   Measured measured;
   bytes.get( measured.times );
   bytes.get( measured.result.complete );
   bytes.get( measured.result.criticalStages );
   bytes.get( measured.result.activated );
   bytes.get( measured.result.table.stage );
   bytes.get( measured.result.table.event );
   return measured;
}

// Code, tables that are made once and the branch predictor are warm, by start-ups of the same shape
// and, up to 1,000 events, the same size; and so is the heap. Neither side waits for a page. What a
// start-up needs beyond the caches is as slow as it is.
std::string work( Side const & side, std::uint32_t events ) {
   constexpr std::size_t mostPerEvent = 4096; // of both sides, with room to spare
   touchHeap( ( std::size_t{ 8 } << 20 ) + mostPerEvent * events );
   std::optional< Ring > ring;
   if( side.ring )
      ring.emplace();
   timesOf( *side.makeSmall() );
   Measured measured;
   std::uint32_t const runs = std::clamp( 5000 / events, 1U, 20U );
   for( std::uint32_t run = 0; run != runs; ++run ) {
      auto const startup = side.make();
      measured.times.push_back( timesOf( *startup ) );
      if( run + 1 == runs )
         measured.result = startup->result();
   }
   return toText( measured );
}

// One process; false when the limit has ended it.
bool measure( Side & side, Declarations const & declared ) {
   auto const events = static_cast< std::uint32_t >( declared.event.size() );
   auto const said = inProcess( side.limit, [ & ] { return work( side, events ); } );
   if( !said )
      return false;
   Measured measured = fromText( *said );
   side.times.insert( side.times.end(), measured.times.begin(), measured.times.end() );
   side.result = std::move( measured.result );
   if( !side.result.complete || !isOrderOf( side.result.activated, declared ) )
      throw std::runtime_error( "a start-up did not complete, or not in an order that its "
                                "dependencies allow" );
   return true;
}

// Both sides of the start-up in one process, compared by what they logged.
void compareLogs( Declarations const & declared, Reports reports ) {
   inProcess( 0, [ & ] {
      auto const run = []( std::unique_ptr< Startup > startup ) {
         timesOf( *startup );
         return startup;
      };
      auto const library = run( libraryStartup( declared, reports, LogIs::kept ) );
      TableOrder const table = library->result().table;
      auto const control = run( controlStartup( declared, table, reports, LogIs::kept ) );
      if( library->log().empty() || library->log() != control->log() )
         throw std::runtime_error( "the library and its control do not write the same log" );
      return std::string();
   } );
}

void compareResults( Result const & library, Result const & control ) {
   if( library.criticalStages != control.criticalStages )
      throw std::runtime_error( "the library and its control disagree on what is critical" );
   if( library.activated != control.activated )
      throw std::runtime_error( "the library and its control activate in different orders" );
}

std::vector< double > each( Side const & side, auto part ) {
   std::vector< double > values;
   for( Times const & times : side.times )
      values.push_back( part( times ) );
   return values;
}

void printHead() {
   std::puts(
      "                           |   declare, ns |  aggregate, ns |   progress, ns |            "
      "      total, us |  control, us" );
   std::puts(
      "shape  reports     events |         times |          times |          times |       min   "
      " median   times |   min median" );
}

void printPart( Side const & library, Side const & control, double events, auto part ) {
   double const ours = least( each( library, part ) );
   std::printf( " %8.0f %6.1f |", ours / events * 1e9, ours / least( each( control, part ) ) );
}

void printLine( Options const & options, Side const & library, Side const & control ) {
   double const events = options.events;
   auto const total = []( Times const & times ) { return times.total(); };
   std::printf( "%-6.6s %-10.10s %7u |", options.shape.data(), options.reports.data(),
                options.events );
   if( library.times.empty() || control.times.empty() )
      std::printf( " ended at the limit of %u s of processor time; --limit 0: none |",
                   options.limit );
   else {
      auto const ours = each( library, total );
      printPart( library, control, events, []( Times const & times ) { return times.declare; } );
      printPart( library, control, events, []( Times const & times ) { return times.aggregate; } );
      printPart( library, control, events, []( Times const & times ) { return times.progress; } );
      std::printf( " %9.3f %9.3f %7.1f |", least( ours ) / events * 1e6,
                   median( ours ) / events * 1e6, least( ours ) / least( each( control, total ) ) );
   }
   if( !control.times.empty() ) {
      auto const theirs = each( control, total );
      std::printf( " %5.3f %6.3f", least( theirs ) / events * 1e6,
                   median( theirs ) / events * 1e6 );
   }
   std::puts( "" );
}

Options parse( std::vector< std::string_view > const & arguments ) {
   if( arguments.size() < 3 || arguments.size() % 2 == 0 )
      throw std::invalid_argument( "usage: startup SHAPE at-once|one-by-one EVENTS "
                                   "[--limit SECONDS] [--rounds N] [--ring yes|no], "
                                   "or startup --head" );
   Options options;
   options.shape = arguments[ 0 ];
   options.reports = arguments[ 1 ];
   options.events = numberOf( arguments[ 2 ], 1, "events" );
   for( std::size_t i = 3; i != arguments.size(); i += 2 )
      if( arguments[ i ] == "--limit" )
         options.limit = numberOf( arguments[ i + 1 ], 0, "seconds" );
      else if( arguments[ i ] == "--rounds" )
         options.rounds = numberOf( arguments[ i + 1 ], 1, "rounds" );
      else if( arguments[ i ] == "--ring" )
         options.ring = arguments[ i + 1 ] == "yes";
      else
         throw std::invalid_argument( "\"" + std::string( arguments[ i ] ) + "\" is no option" );
   return options;
}

double secondsOf( Side const & side ) {
   return std::accumulate( side.times.begin(), side.times.end(), 0.0,
                           []( double sum, Times const & times ) { return sum + times.total(); } );
}

// In turn, until there are enough of them or a second has gone into the first. One that the limit
// has ended is not tried again, and its control thrice at most.
void measureBoth( Options const & options, Declarations const & declared, Side & library,
                  Side & control ) {
   bool within = true;
   for( std::uint32_t round = 0; round < std::min( options.rounds, within ? UINT32_MAX : 3 );
        ++round ) {
      within = within && measure( library, declared );
      if( !within && options.ring )
         break; // the control could take as long
      if( !within )
         library.result.table = inOrder( declared );
      if( !measure( control, declared ) )
         break;
      if( within )
         compareResults( library.result, control.result );
      if( secondsOf( within ? library : control ) >= 1 )
         break;
   }
}

int run( std::vector< std::string_view > const & arguments ) {
   if( arguments.size() == 1 && arguments[ 0 ] == "--head" ) {
      printHead();
      return 0;
   }
   Options const options = parse( arguments );
   Shape const shape = shapeOf( options.shape );
   Reports const reports = reportsOf( options.reports );
   Declarations const declared = declarations( shape, options.events );
   Declarations const fewer = declarations( shape, std::min( options.events, 1000U ) );
   TableOrder const fewerInOrder = inOrder( fewer );
   compareLogs( fewer, reports );

   Make const ours = [ & ] { return libraryStartup( declared, reports ); };
   Make const ourSmall = [ & ] { return libraryStartup( fewer, reports ); };
   Side library = { ours, ourSmall, options.limit, options.ring };
   Side control = { [ & ] { return controlStartup( declared, library.result.table, reports ); },
                    [ & ] { return controlStartup( fewer, fewerInOrder, reports ); }, 0 };
   if( options.ring )
      control = { ours, ourSmall, options.limit };
   measureBoth( options, declared, library, control );
   printLine( options, library, control );
   return 0;
}

} // namespace

int main( int count, char ** arguments ) { return mainOf( count, arguments, run ); }
