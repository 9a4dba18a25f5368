// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
//
// toggle STAGES...
//
// What it costs when one event changes in a system that is up: a line for each number of stages,
// the last column in relation to the first of them. ../README.md says what is in it.
#include <startup/Library.h>
#include <startup/Process.h>

#include <algorithm>
#include <cstdio>

namespace {

using namespace Bench;

// Least seconds of each kind of change, and the median of the slowest.
struct Toggles {
   double critical, dependency, criticalDependency, timeout, report;
   double medianOfWorst;
   double worst() const {
      return std::max( { critical, dependency, criticalDependency, timeout, report } );
   }
};

// Layers, and the stage whose event changes: none depends on it, and it depends on four of the
// first layer, which the last stage needs as well. So at every size a change reaches five stages at
// most, and only one of them for the first time.
Declarations withLeaf( std::uint32_t stages ) {
   Declarations declared = declarations( Shape::layers, stages );
   declared.stage.push_back( "Leaf" );
   declared.event.push_back( { stages, 0, { 0, 1, 2, 3 }, 60, false } );
   return declared;
}

// There and back, each until nothing is left to do; the seconds of one change, of each batch.
std::vector< double > timesOf( auto const & change ) {
   constexpr int batches = 30;
   constexpr int pairs = 10;
   std::vector< double > seconds;
   for( int batch = -1; batch != batches; ++batch ) {
      double const begin = processorSeconds();
      for( int pair = 0; pair != pairs; ++pair )
         for( bool there : { true, false } ) {
            change( there );
            runUntilIdle();
         }
      double const end = processorSeconds();
      if( batch >= 0 ) // the first warms up
         seconds.push_back( ( end - begin ) / ( 2 * pairs ) );
   }
   return seconds;
}

Toggles measure( std::uint32_t stages ) {
   Declarations const declared = withLeaf( stages );
   LibraryStartup startup( declared, Reports::atOnce );
   startup.declare();
   startup.aggregate();
   startup.progress();
   Stage::EventConfig & event = *startup.event( stages );
   auto const critical = [ & ]( bool there ) { event.criticalIs( there ); };
   auto const dependency = [ & ]( bool there ) {
      if( there )
         event.dependencyIs( declared.stage[ 4 ], true );
      else
         event.dependencyDel( declared.stage[ 4 ] );
   };
   std::vector< std::vector< double > > all;
   all.push_back( timesOf( critical ) );
   all.push_back( timesOf( dependency ) );
   critical( true );
   all.push_back( timesOf( dependency ) );
   critical( false );
   all.push_back( timesOf( [ & ]( bool there ) { event.timeoutIs( there ? 61 : 60 ); } ) );
   all.push_back( timesOf( [ & ]( bool there ) { event.completeIs( !there ); } ) );
   Toggles toggles = { least( all[ 0 ] ), least( all[ 1 ] ), least( all[ 2 ] ),
                       least( all[ 3 ] ), least( all[ 4 ] ), 0 };
   for( auto const & seconds : all )
      if( least( seconds ) == toggles.worst() )
         toggles.medianOfWorst = median( seconds );
   if( !startup.result().complete || startup.status()->stages() != declared.stage.size() )
      throw std::runtime_error( "the system is not up" );
   return toggles;
}

int run( std::vector< std::string_view > const & arguments ) {
   if( arguments.empty() )
      throw std::invalid_argument( "usage: toggle STAGES..." );
   std::puts(
      "         |              least, us per change              |     slowest, us    times" );
   std::puts(
      "  stages | critical  dependency  if critical timeout report |   least  median   first" );
   double first = 0;
   for( std::string_view argument : arguments ) {
      std::uint32_t const stages = numberOf( argument, 60, "stages" );
      auto const said = inProcess( 0, [ & ] {
         Bytes bytes;
         bytes.put( measure( stages ) );
         return bytes.text();
      } );
      Toggles toggles;
      Bytes( *said ).get( toggles );
      if( first == 0 )
         first = toggles.worst();
      std::printf( "%8u | %8.2f %11.2f %12.2f %7.2f %6.2f | %7.2f %7.2f %7.1f\n", stages,
                   toggles.critical * 1e6, toggles.dependency * 1e6,
                   toggles.criticalDependency * 1e6, toggles.timeout * 1e6, toggles.report * 1e6,
                   toggles.worst() * 1e6, toggles.medianOfWorst * 1e6, toggles.worst() / first );
   }
   return 0;
}

} // namespace

int main( int count, char ** arguments ) { return mainOf( count, arguments, run ); }
