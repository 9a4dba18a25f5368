// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include "../simulation/StartTable.h"
#include "Process.h"

#include <algorithm>
#include <map>
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <yaml-cpp/yaml.h>

// The example plans, run by the built command and judged by the plans' own text: nothing here uses
// the plan reader, the engine or the library.

namespace {

// The table of a plan. The conditions under which a table says when stages start are checked.
StartTable::Table tableOf( std::string const & path ) {
   StartTable::Table table;
   auto const plan = YAML::LoadFile( path );
   EXPECT_FALSE( plan[ "timeline" ] );
   EXPECT_FALSE( plan[ "enabled" ] );
   for( auto const & agent : plan[ "agents" ] ) {
      for( auto const & event : agent.second ) {
         auto & row = table[ event.first.as< std::string >() ];
         auto const seconds = event.second[ "complete" ].as< double >( 0 );
         EXPECT_LT( seconds, event.second[ "timeout" ].as< double >( 1e9 ) );
         row.seconds = std::max( row.seconds, seconds );
         row.critical = row.critical || event.second[ "critical" ].as< bool >( false );
         for( auto const & dependency : event.second[ "dependency" ] )
            row.dependency.push_back( dependency.as< std::string >() );
      }
   }
   StartTable::spreadCritical( table );
   return table;
}

// What the log entries of a record say of the stages.
struct Recorded {
   std::map< std::string, double > started, complete;
   std::map< std::string, std::size_t > startedAt, completeAt; // as the how many-th line
   nlohmann::json end;

   explicit Recorded( std::string const & path ) {
      std::ifstream in( path );
      std::size_t number = 0;
      for( std::string text; std::getline( in, text ); ++number ) {
         auto const line = nlohmann::json::parse( text );
         if( line[ "kind" ] == "end" )
            end = line;
         else if( line[ "kind" ] == "log" )
            note( line[ "msg" ], line[ "t" ], number );
      }
   }

 private:
   void note( std::string const & msg, double t, std::size_t number ) {
      note( msg, " started", t, number, started, startedAt );
      note( msg, " is complete", t, number, complete, completeAt );
   }

   static void note( std::string const & msg, std::string const & what, double t,
                     std::size_t number, std::map< std::string, double > & times,
                     std::map< std::string, std::size_t > & places ) {
      std::string const stage = "stage ";
      if( msg.starts_with( stage ) && msg.ends_with( what ) ) {
         auto const name = msg.substr( stage.size(), msg.size() - stage.size() - what.size() );
         EXPECT_TRUE( times.emplace( name, t ).second ) << msg;
         places.emplace( name, number );
      }
   }
};

struct Examples : Process::Folder {
   void run( std::string const & name ) {
      path = std::string( ORDOVAN_EXAMPLES "/" ) + name;
      finished = ordovan( "simulate '" + path + "' --record record" );
   }
   Recorded recorded() const { return Recorded( folder / "record" ); }

   std::string path;
   Process::Finished finished;
};

struct Example : Examples, testing::WithParamInterface< char const * > {
   Example() { run( GetParam() ); }
};

TEST_P( Example, RunsToCompletion ) {
   EXPECT_EQ( finished.status, 0 );
   EXPECT_EQ( finished.err, "" );
   EXPECT_EQ( recorded().end[ "outcome" ], "complete" );
   auto const table = tableOf( path );
   EXPECT_EQ( recorded().end[ "status" ][ "stage" ].size(), table.size() );
   EXPECT_EQ( recorded().end[ "progress" ].size(), table.size() );
}

TEST_P( Example, StartsNoStageBeforeWhatItDependsOnIsComplete ) {
   auto const table = tableOf( path );
   auto const record = recorded();
   ASSERT_EQ( record.startedAt.size(), table.size() );
   std::size_t dependencies = 0;
   for( auto const & [ name, row ] : table ) {
      for( auto const & dependency : row.dependency ) {
         ++dependencies;
         EXPECT_LT( record.completeAt.at( dependency ), record.startedAt.at( name ) )
            << name << " depends on " << dependency;
      }
   }
   EXPECT_GT( dependencies, table.size() );
}

TEST_P( Example, StartsEveryCriticalStageBeforeAnyOther ) {
   auto const table = tableOf( path );
   auto const record = recorded();
   std::size_t lastCritical = 0, firstOther = record.startedAt.size() * 10;
   std::size_t critical = 0;
   for( auto const & [ name, row ] : table ) {
      auto const place = record.startedAt.at( name );
      critical += row.critical;
      lastCritical = row.critical ? std::max( lastCritical, place ) : lastCritical;
      firstOther = row.critical ? firstOther : std::min( firstOther, place );
   }
   EXPECT_GT( critical, 0U );
   EXPECT_LT( critical, table.size() );
   EXPECT_LT( lastCritical, firstOther );
}

TEST_P( Example, StartsAndCompletesEveryStageWhenTheTableSaysSo ) {
   auto table = tableOf( path );
   StartTable::walk( table );
   auto const record = recorded();
   for( auto const & [ name, row ] : table ) {
      EXPECT_EQ( record.started.at( name ), row.start ) << name;
      EXPECT_EQ( record.complete.at( name ), row.end ) << name;
   }
}

TEST_P( Example, TakesAsLongAsTheLongestPath ) {
   auto const table = tableOf( path );
   EXPECT_EQ( recorded().end[ "t" ].get< double >(), StartTable::LongestPath( table ).total() );
}

INSTANTIATE_TEST_SUITE_P( Plans, Example,
                          testing::Values( "debian-units.yaml", "debian-targets.yaml" ),
                          []( auto const & parameter ) {
                             std::string const name = parameter.param;
                             return name.substr( 7, name.size() - 12 );
                          } );

TEST_F( Examples, AreOfTheSizeThatTheySayTheyAre ) {
   EXPECT_EQ( tableOf( ORDOVAN_EXAMPLES "/debian-units.yaml" ).size(), 161U );
}

} // namespace
