// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// A start-up of real state machines, without a simulation, and what is said of it in short.
#pragma once

#include <Explain/Explain.h>
#include <Ordovan/Ordovan.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "../support/World.h"

namespace testing_support {

using Lines = std::vector< std::string >;
using Stage::Explanation;

inline std::string name( Explanation const & e, Explanation::Index i ) {
   return e.stage[ i ].name.str();
}
inline Lines names( Explanation const & e, std::vector< Explanation::Index > const & of ) {
   Lines made;
   for( auto const i : of )
      made.push_back( name( e, i ) );
   return made;
}
inline std::string joined( Lines const & lines ) {
   std::string made;
   for( auto const & line : lines )
      made += ( made.empty() ? "" : "," ) + line;
   return made;
}
inline char const * word( Explanation::Root::Kind kind ) {
   static char const * const words[] = { "events",    "undeclared", "cycle",
                                         "untracked", "disabled",   "decision" };
   return words[ static_cast< int >( kind ) ];
}
// "events Boot 2", "cycle A,B 1", "undeclared Gone 3": kind, what it is, how many wait.
inline Lines roots( Explanation const & e ) {
   Lines made;
   for( auto const & root : e.root ) {
      std::string const of = joined( names( e, root.of ) );
      made.push_back( word( root.kind ) + ( " " + ( of.empty() ? root.stage.str() : of ) + " " ) +
                      std::to_string( root.waiting ) );
   }
   return made;
}
inline Lines stages( Explanation const & e ) {
   Lines made;
   for( auto const & stage : e.stage )
      made.push_back( stage.name.str() );
   return made;
}
template< class Declared >
Lines uids( std::vector< Declared > const & events ) {
   Lines made;
   for( auto const & event : events )
      made.push_back( event.uid.str() + " of " + event.agent.str() );
   return made;
}
inline Explanation::UnfinishedStage stageOf( Explanation const & e, char const * wanted ) {
   for( auto const & stage : e.stage )
      if( stage.name == wanted )
         return stage;
   throw std::out_of_range( wanted );
}

class ExplainTest : public testing::Test, protected World {
 protected:
   ExplainTest() {
      config->enabledIs( true );
      Kiv::logSinkIs( []( Kiv::LogMessage const & ) {} );
   }
   ~ExplainTest() override { Kiv::logSinkIs( {} ); }

   // An event that its agent never reports, of a stage without a limit of time.
   Kiv::Ptr< Stage::EventConfig > event( char const * agent, char const * stage,
                                         std::set< std::string > const & dependencies = {},
                                         bool critical = false ) {
      return declare( agent, stage, dependencies, Kiv::infinity, critical );
   }
   void start() {
      manager->configSmIs( config, status, dir );
      sm = manager->statusSmIs( "App", config, status, progress, log );
      idle();
   }
   Explanation explained() const { return Stage::explain( *sm ); }

   Kiv::Ptr< Stage::Ordovan > manager = Stage::Ordovan::OrdovanIs( "ordovan" );
   Kiv::Ptr< Stage::StatusSm > sm;
};

} // namespace testing_support
