// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include "EngineTestSupport.h"
#include "StartTable.h"

#include <algorithm>
#include <random>

#include <Kiv/Kiv.h>
#include <gtest/gtest.h>

namespace {

using namespace Simulation;

// Layers of stages, each depending on some of the layer before; some critical, some without any
// duration, most with two agents.
Plan layeredPlan( unsigned seed ) {
   std::mt19937 random( seed );
   auto const upTo = [ & ]( unsigned n ) { return static_cast< unsigned >( random() % n ); };
   std::vector< Agent > agents;
   for( int layer = 0; layer < 6; ++layer ) {
      for( int i = 0; i < 8; ++i ) {
         auto const stage = std::to_string( layer ) + '.' + std::to_string( i );
         Lines dependencies;
         for( auto d = layer > 0 ? upTo( 4 ) : 0; d > 0; --d )
            dependencies.push_back( std::to_string( layer - 1 ) + '.' +
                                    std::to_string( upTo( 8 ) ) );
         auto declared = event( stage, after( upTo( 5 ) ), dependencies );
         declared.critical = upTo( 16 ) == 0;
         agents.push_back( agent( "agent" + stage, { declared } ) );
         agents.push_back( agent( "helper" + stage, { event( stage, after( upTo( 5 ) ) ) } ) );
      }
   }
   return planOf( agents );
}

StartTable::Table tableOf( Plan const & plan ) {
   StartTable::Table table;
   for( auto const & agent : plan.agent ) {
      for( auto const & event : agent.event ) {
         auto & row = table[ event.stage ];
         row.seconds = std::max( row.seconds, event.complete.seconds );
         row.critical = row.critical || event.critical;
         for( auto const & dependency : event.dependency )
            row.dependency.push_back( dependency.stage );
      }
   }
   StartTable::spreadCritical( table );
   return table;
}

using Times = std::map< std::string, std::pair< double, double > >;

Times timesOf( Result const & result ) {
   Times times;
   for( auto const & [ name, stage ] : result.stage )
      times[ name ] = { stage.activeSince, stage.completionTime };
   return times;
}

Times timesOf( StartTable::Table table ) {
   StartTable::walk( table );
   Times times;
   for( auto const & [ name, row ] : table )
      times[ name ] = { row.start, row.end };
   return times;
}

TEST( EngineOrder, EveryStageStartsAndCompletesWhenATableOfThePlanSaysSo ) {
   for( unsigned seed = 0; seed < 100; ++seed ) {
      auto const plan = layeredPlan( seed );
      auto const result = run( plan );
      EXPECT_EQ( result.outcome, Outcome::complete );
      ASSERT_EQ( timesOf( result ), timesOf( tableOf( plan ) ) ) << "seed " << seed;
   }
}

TEST( EngineOrder, NoTimeDependsOnTheOrderOfIteration ) {
   auto const seedBefore = Kiv::detail::hashSeed;
   for( unsigned planSeed = 0; planSeed < 10; ++planSeed ) {
      auto const plan = layeredPlan( planSeed );
      auto const expected = run( plan );
      for( unsigned hashSeed = 1; hashSeed <= 10; ++hashSeed ) {
         Kiv::detail::hashSeed = hashSeed;
         auto const result = run( plan );
         EXPECT_EQ( timesOf( result ), timesOf( expected ) );
         EXPECT_EQ( result.t, expected.t );
      }
      Kiv::detail::hashSeed = seedBefore;
   }
}

TEST( EngineOrder, TheRunTakesAsLongAsTheLongestPath ) {
   for( unsigned seed = 0; seed < 100; ++seed ) {
      auto const plan = layeredPlan( seed );
      auto const table = tableOf( plan );
      ASSERT_EQ( run( plan ).t, StartTable::LongestPath( table ).total() ) << "seed " << seed;
   }
}

} // namespace
