// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// An explanation does not depend on the order of tables.
#include "ExplainTestSupport.h"

using namespace testing_support;

namespace {

// All that is said of a start-up that waits in every way there is.
Lines told( std::uint32_t seed ) {
   Kiv::detail::hashSeed = seed;
   World w;
   w.config->enabledIs( true );
   for( auto agent : { "A", "B", "C", "D", "E" } ) {
      w.declare( agent, "Boot", {}, Kiv::infinity );
      w.declare( agent, "Net", { "Boot", "Gone", "Lost" }, 30 );
      w.declare( agent, "X1", { "X2", "X3", "X4", "Y1" } );
      w.declare( agent, "X2", { "X1" } );
      w.declare( agent, "X3", { "X1" } );
      w.declare( agent, "X4", { "X1" } );
      w.declare( agent, "Y1", { "Y2", "Y3" } );
      w.declare( agent, "Y2", { "Y3", "Net" } );
      w.declare( agent, "Y3", { "Y1" } );
   }
   auto const manager = Stage::Ordovan::OrdovanIs( "ordovan" );
   manager->configSmIs( w.config, w.status, w.dir );
   auto const sm = manager->statusSmIs( "App", w.config, w.status, w.progress, w.log );
   w.idle();
   w.declare( "A", "Vital", { "X1" }, 0, true );
   w.declare( "B", "Late" );
   w.idle();
   auto const e = Stage::explain( *sm );
   Lines lines = causes( e );
   for( auto const & stage : e.stage )
      lines.push_back( sentence( e, stage ) );
   for( auto const & root : e.root )
      lines.push_back( joined( names( e, waitingFor( e, root ) ) ) );
   return lines;
}

TEST( ExplainOrder, IsThatOfTheNamesWhateverTheOrderOfTablesIs ) {
   auto const before = Kiv::detail::hashSeed;
   auto const lines = told( before );
   EXPECT_GT( lines.size(), 15U );
   for( std::uint32_t seed = 1; seed != 9; ++seed )
      EXPECT_EQ( told( seed * 0x9e3779b9U ), lines );
   Kiv::detail::hashSeed = before;
}

} // namespace
