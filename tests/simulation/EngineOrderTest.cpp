// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include "EngineTestSupport.h"

#include <random>

#include <Kiv/Kiv.h>
#include <gtest/gtest.h>

namespace {

using namespace Simulation;

// Layers of stages, each depending on some of the layer before; some critical, some slow.
Plan layeredPlan( unsigned seed ) {
   std::mt19937 random( seed );
   std::vector< Agent > agents;
   for( int layer = 0; layer < 6; ++layer ) {
      for( int i = 0; i < 8; ++i ) {
         auto const stage = std::to_string( layer ) + '.' + std::to_string( i );
         Lines dependencies;
         for( unsigned d = 0; layer > 0 && d < random() % 4; ++d ) {
            dependencies.push_back( std::to_string( layer - 1 ) + '.' +
                                    std::to_string( random() % 8 ) );
         }
         auto declared = event( stage, after( static_cast< double >( random() % 5 ) ), dependencies );
         declared.critical = random() % 16 == 0;
         agents.push_back( agent( "agent" + stage, { declared } ) );
      }
   }
   return planOf( agents );
}

std::map< std::string, std::pair< double, double > > timesOf( Result const & result ) {
   std::map< std::string, std::pair< double, double > > times;
   for( auto const & [ name, stage ] : result.stage ) {
      times[ name ] = { stage.activeSince, stage.completionTime };
   }
   return times;
}

TEST( EngineOrder, NoTimeDependsOnTheOrderOfIteration ) {
   auto const seedBefore = Kiv::detail::hashSeed;
   for( unsigned planSeed = 0; planSeed < 10; ++planSeed ) {
      auto const plan = layeredPlan( planSeed );
      auto const expected = run( plan );
      EXPECT_EQ( expected.outcome, Outcome::complete );
      for( unsigned hashSeed = 1; hashSeed <= 10; ++hashSeed ) {
         Kiv::detail::hashSeed = hashSeed;
         auto const result = run( plan );
         EXPECT_EQ( timesOf( result ), timesOf( expected ) );
         EXPECT_EQ( result.t, expected.t );
      }
      Kiv::detail::hashSeed = seedBefore;
   }
}

}  // namespace
