// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// One start-up, driven by processes one after the other, each of which begins by playing what the
// store has; in place of a process that dies the files are copied while they are in use.
#include <live/Store.h>

#include "../simulation/Living.h"
#include "../support/Folder.h"
#include "Syncs.h"

#include <cstdio>
#include <filesystem>

#include <gtest/gtest.h>

namespace {

using namespace living;
using Live::Store;

struct Ended {
   std::string record;
   std::uint64_t sequence = 0;
};

Ended ended( Engine & engine, Recording const & recording ) {
   engine.end( engine.result() );
   return { recording.text, engine.sequence() };
}

Ended played( std::string const & file, EngineOptions const & options ) {
   Recording recording;
   std::unique_ptr< Engine > engine;
   Store::read(
      file,
      [ & ]( Beginning const & beginning ) {
         engine = std::make_unique< Engine >( beginning, std::vector< Observer * >{ &recording },
                                              options );
      },
      [ & ]( Instant const & instant ) { engine->takeIn( instant ); } );
   return ended( *engine, recording );
}

// The files of a store as they are at this moment.
void copyStore( std::string const & from, std::string const & to ) {
   std::filesystem::copy_file( from, to );
   if( std::filesystem::exists( from + "-wal" ) )
      std::filesystem::copy_file( from + "-wal", to + "-wal" );
}

TEST( StoreReplay, OfWhatSeveralEnginesHaveKeptIsTheSameStartUp ) {
   testing_support::Folder const folder;
   testing::internal::CaptureStdout();
   unsigned engines = 0, entries = 0;
   std::string wrong;
   for( unsigned seed = 1; seed <= 40; ++seed ) {
      World const world( seed );
      Random random( seed );
      auto file = folder / std::to_string( seed );
      Driver driver( world, seed, {} );
      Ended last;
      for( bool more = true; more; ++engines ) {
         Recording recording;
         Store store( file, world.beginning );
         Engine engine( store.beginning(), { &recording }, world.options );
         store.replay( [ & ]( Instant const & instant ) { engine.takeIn( instant ); } );
         driver.keepIs( [ & ]( Instant const & instant ) {
            store.append( instant );
            ++entries;
         } );
         more = driver.go( engine, 1 + random.below( 12 ) );
         last = ended( engine, recording );
         auto const died = file + "+";
         if( random.below( 2 ) )
            copyStore( std::exchange( file, died ), died );
      }
      auto const again = played( file, world.options );
      if( again.record != last.record || again.sequence != last.sequence )
         wrong += " " + std::to_string( seed );
   }
   testing::internal::GetCapturedStdout();
   EXPECT_EQ( wrong, "" );
   EXPECT_GT( engines, 60U );
   EXPECT_GT( entries, 200U );
}

} // namespace
