// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// A start-up is a function of what it takes in: whoever plays that again, in whatever way, has the
// same record.
#include "Living.h"

#include <cstdio>

#include <gtest/gtest.h>
#include <simulation/RecordReader.h>
#include <simulation/Run.h>

namespace {

using namespace living;

unsigned constexpr seeds = 400;

struct Lived {
   std::vector< Instant > kept;
   std::string record;
   std::uint64_t sequence = 0;
   Lines changedLately;
   bool complete = false;
   double end = 0;
};

void finish( Engine & engine, Recording const & recording, Lived & lived ) {
   lived.sequence = engine.sequence();
   lived.changedLately = engine.changedSince( engine.sequence() / 2 );
   lived.complete = engine.complete();
   lived.end = engine.now();
   engine.end( engine.result() );
   lived.record = recording.text;
}

Lived live( World const & world, std::uint64_t seed ) {
   Lived lived;
   Recording recording;
   Engine engine( world.beginning, { &recording }, world.options );
   Driver driver( world, seed,
                  [ & ]( Instant const & instant ) { lived.kept.push_back( instant ); } );
   driver.go( engine, 1 + Random( seed ).below( 80 ) );
   finish( engine, recording, lived );
   return lived;
}

Lived replay( World const & world, std::vector< Instant > const & instants, double until ) {
   Lived lived;
   Recording recording;
   Engine engine( world.beginning, { &recording }, world.options );
   for( auto const & instant : instants )
      engine.takeIn( instant );
   engine.fireUntil( until );
   finish( engine, recording, lived );
   return lived;
}

void expectSame( Lived const & played, Lived const & lived, std::uint64_t seed ) {
   ASSERT_EQ( played.record, lived.record ) << "seed " << seed;
   ASSERT_EQ( played.sequence, lived.sequence ) << "seed " << seed;
   ASSERT_EQ( played.changedLately, lived.changedLately ) << "seed " << seed;
   ASSERT_EQ( played.complete, lived.complete ) << "seed " << seed;
   ASSERT_EQ( played.end, lived.end ) << "seed " << seed;
}

// The library's own line about a suspension goes to standard output.
class Replay : public testing::Test {
 protected:
   Replay() { testing::internal::CaptureStdout(); }
   ~Replay() override {
      auto text = testing::internal::GetCapturedStdout();
      if( !HasFailure() )
         return;
      // What was said of the failure stands between them.
      std::string const begin = " Critical stage ", end = "for debugging.";
      for( std::size_t at; ( at = text.find( begin ) ) != text.npos; )
         text.erase( at, text.find( end, at ) + end.size() - at );
      std::fputs( text.c_str(), stdout );
   }
};

TEST_F( Replay, OfAllInstantsIsTheStartUpAsItWas ) {
   unsigned timers = 0, inputs = 0, complete = 0, started = 0;
   for( unsigned seed = 1; seed <= seeds; ++seed ) {
      World const world( seed );
      auto const lived = live( world, seed );
      expectSame( replay( world, lived.kept, lived.end ), lived, seed );
      for( auto const & instant : lived.kept )
         ++( instant.input.empty() ? timers : inputs );
      complete += lived.complete;
      started += lived.record.find( "Stage progression started" ) != std::string::npos;
   }
   // They were worth playing.
   EXPECT_GT( timers, seeds / 2 );
   EXPECT_GT( inputs, seeds );
   EXPECT_GT( complete, seeds / 20 );
   EXPECT_GT( started, seeds / 2 );
}

TEST_F( Replay, NeedsNoInstantsOfTimersAlone ) {
   for( unsigned seed = 1; seed <= seeds; ++seed ) {
      World const world( seed );
      auto const lived = live( world, seed );
      auto inputs = lived.kept;
      std::erase_if( inputs, []( auto const & instant ) { return instant.input.empty(); } );
      expectSame( replay( world, inputs, lived.end ), lived, seed );
   }
}

TEST_F( Replay, OfTheRecordIsTheRecord ) {
   for( unsigned seed = 1; seed <= seeds; ++seed ) {
      World const world( seed );
      auto const lived = live( world, seed );
      auto const record = readRecord( lived.record );
      World read = world;
      read.beginning = record.beginning;
      std::vector< Instant > instants;
      for( auto const & taken : record.instant )
         instants.push_back( taken.instant );
      expectSame( replay( read, instants, lived.end ), lived, seed );
   }
}

TEST_F( Replay, IsTheSimulationOfAPlanWithTheseInputs ) {
   unsigned compared = 0;
   for( unsigned seed = 1; seed <= seeds; ++seed ) {
      World world( seed );
      world.beginning.decideOnDeclarations = false; // which simulations do not
      auto const lived = live( world, seed );
      Plan plan{ world.beginning.application, world.beginning.enabled, world.beginning.agent, {} };
      for( auto const & instant : lived.kept )
         for( auto const & input : instant.input )
            plan.timeline.push_back( { instant.t, input.operation, {}, {}, {} } );
      Recording simulated( RecordWriter::Inputs::leftOut );
      run( plan, { &simulated }, lived.end );
      std::string expected;
      for( auto const & line : readRecord( lived.record ).line )
         if( line.kind != "begin" && line.kind != "input" )
            expected += line.text + '\n';
      ASSERT_EQ( simulated.text, expected ) << "seed " << seed;
      compared += !plan.timeline.empty();
   }
   EXPECT_GT( compared, seeds / 2 );
}

// Each engine begins by playing what those before have taken in, and goes on from there.
TEST_F( Replay, LetsSeveralEnginesOneAfterTheOtherBeOneStartUp ) {
   unsigned engines = 0;
   for( unsigned seed = 1; seed <= seeds / 2; ++seed ) {
      World const world( seed );
      Lived lived;
      Driver driver( world, seed,
                     [ & ]( Instant const & instant ) { lived.kept.push_back( instant ); } );
      Random random( seed );
      for( bool more = true; more; ++engines ) {
         Recording recording;
         Engine engine( world.beginning, { &recording }, world.options );
         for( auto const & instant : lived.kept )
            engine.takeIn( instant );
         more = driver.go( engine, 1 + random.below( 8 ) );
         finish( engine, recording, lived );
      }
      expectSame( replay( world, lived.kept, lived.end ), lived, seed );
   }
   EXPECT_GT( engines, seeds );
}

} // namespace
