// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include "Document.h"

#include <algorithm>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <tools/PlanReader.h>
#include <yaml-cpp/yaml.h>

// docs/plan.md and ordovan-plan(5) are held to the reader of plans: what it allows, asks for and
// takes for granted is what it says itself, or what it makes of a plan.

namespace {

using namespace Document;

// A map of a plan whose keys are fixed, and one row of its table for each key.
struct Map {
   struct Key {
      std::string name, mustBe, standard, example;
   };
   std::string heading;
   std::vector< Key > keys;

   bool isEntry() const { return heading == "The timeline"; }
   bool isSet() const { return heading == "In set"; }
   bool isEvent() const { return heading == "An event"; }

   // A plan that has this map with these members.
   std::string planWith( std::string const & members ) const {
      std::string const agents = "agents: {Display: {Menu: {}}}\n";
      if( isEntry() )
         return agents + "timeline:\n  - {" + members + "}\n";
      if( isSet() ) {
         return agents + "timeline:\n  - {at: 1, agent: Display, stage: Menu, set: {" + members +
                "}}\n";
      }
      return isEvent() ? "agents: {Display: {Menu: {" + members + "}}}\n" : '{' + members + "}\n";
   }
   // A plan that has the example of one key.
   std::string planOf( Key const & key ) const {
      auto const whole = isEntry() ? key.example.substr( 1, key.example.size() - 2 ) : key.example;
      return planWith( whole );
   }
};

std::vector< Map > documentedMaps() {
   auto const text = textOf( "plan.md" );
   std::vector< Map > maps;
   for( std::string const heading :
        { "## The plan", "## An event", "## The timeline", "### In `set`" } ) {
      Map map{ replaced( heading.substr( heading.find( ' ' ) + 1 ), "`", "" ), {} };
      for( auto const & row : tableBelow( text, heading ) )
         map.keys.push_back(
            { code( row.at( 0 ) ), row.at( 1 ), row.at( 2 ), code( row.at( 3 ) ) } );
      maps.push_back( std::move( map ) );
   }
   return maps;
}

Lines mistakesOf( std::string const & plan ) {
   Lines texts;
   for( auto const & mistake : Tools::readPlan( plan ).mistakes )
      texts.push_back( mistake.text );
   return texts;
}

// What stands behind `mark` in each mistake that begins with `start`.
Lines told( std::string const & plan, std::string const & start, std::string const & mark ) {
   Lines found;
   for( auto const & text : mistakesOf( plan ) ) {
      auto const at = text.find( mark );
      if( text.starts_with( start ) && at != std::string::npos )
         found.push_back( text.substr( at + mark.size() ) );
   }
   return found;
}

// "a, b and c".
std::string listed( Map const & map ) {
   std::string text;
   for( auto const & key : map.keys ) {
      text += text.empty() ? "" : &key == &map.keys.back() ? " and " : ", ";
      text += key.name;
   }
   return text;
}

// What the reader makes of a plan, without the places in its text.
struct Described {
   std::ostringstream text;

   void operator()( Simulation::Event const & event ) {
      text << "  " << event.stage << ' ' << event.timeout << ' ' << event.critical << ' '
           << static_cast< int >( event.complete.kind ) << ' ' << event.complete.seconds;
      for( auto const & dependency : event.dependency )
         text << ' ' << dependency.stage << '=' << dependency.value;
      text << '\n';
   }
   void operator()( Simulation::Plan const & plan ) {
      text << plan.application << ' ' << plan.enabled << ' ' << plan.timeline.size() << '\n';
      for( auto const & agent : plan.agent ) {
         text << ' ' << agent.name << '\n';
         std::for_each( agent.event.begin(), agent.event.end(), std::ref( *this ) );
      }
   }
};

std::string described( std::string const & plan ) {
   Described described;
   auto const read = Tools::readPlan( plan );
   EXPECT_EQ( mistakesOf( plan ), Lines{} ) << plan;
   described( read.plan );
   return described.text.str();
}

TEST( PlanDocument, NamesTheKeysThatTheReaderAllowsInTheirOrder ) {
   for( auto const & map : documentedMaps() ) {
      auto const unknown = "unknown key \"no such key\" in ";
      EXPECT_EQ( told( map.planWith( "no such key: 1" ), unknown, "; allowed are " ),
                 Lines{ listed( map ) } )
         << map.heading;
   }
}

TEST( PlanDocument, SaysWhatAValueMustBeInTheReadersWords ) {
   for( auto const & map : documentedMaps() ) {
      for( auto const & key : map.keys ) {
         auto const members = key.name + ": .nan"; // no key takes that
         EXPECT_EQ( told( map.planWith( members ), '"' + key.name + '"', " is .nan; it must be " ),
                    Lines{ key.mustBe } )
            << map.heading;
      }
   }
}

TEST( PlanDocument, HasAnExampleOfEachKeyThatTheReaderAccepts ) {
   for( auto const & map : documentedMaps() ) {
      for( auto const & key : map.keys ) {
         auto const example = YAML::Load( map.isEntry() ? key.example : '{' + key.example + '}' );
         EXPECT_TRUE( example[ key.name ] ) << key.example;
         EXPECT_EQ( mistakesOf( map.planOf( key ) ), Lines{} ) << key.example;
      }
   }
}

TEST( PlanDocument, NamesTheValueThatTheReaderTakesForAKeyThatIsNotThere ) {
   std::size_t compared = 0;
   for( auto const & map : documentedMaps() ) {
      if( map.isEntry() || map.isSet() )
         continue;
      for( auto const & key : map.keys ) {
         auto const members = key.name + ": " + code( key.standard );
         EXPECT_EQ( described( map.planWith( members ) ), described( map.planWith( "" ) ) )
            << members;
         EXPECT_NE( described( map.planOf( key ) ), described( map.planWith( "" ) ) )
            << key.example << " says nothing";
         ++compared;
      }
   }
   EXPECT_GT( compared, 4U );
}

TEST( PlanDocument, SaysThatASetLeavesWhatItDoesNotName ) {
   auto const maps = documentedMaps();
   auto const & set = maps.back();
   ASSERT_TRUE( set.isSet() );
   auto const writes = []( std::string const & plan ) {
      return std::get< Simulation::Set >( Tools::readPlan( plan ).plan.timeline.at( 0 ).operation )
         .write;
   };
   EXPECT_TRUE( writes( set.planWith( "" ) ).empty() );
   std::set< std::size_t > kinds;
   for( auto const & key : set.keys ) {
      EXPECT_EQ( key.standard, "unchanged" );
      std::set< std::size_t > written;
      for( auto const & write : writes( set.planOf( key ) ) )
         written.insert( write.index() );
      EXPECT_EQ( written.size(), 1U ) << key.example;
      kinds.insert( written.begin(), written.end() );
   }
   EXPECT_EQ( kinds.size(), std::variant_size_v< Simulation::Write > );
}

// The operations for which a key is needed, as its row says.
std::set< std::string > needing( std::string const & standard,
                                 std::set< std::string > const & operations ) {
   std::set< std::string > named;
   for( auto const & operation : operations )
      if( standard.find( '`' + operation + '`' ) != std::string::npos )
         named.insert( operation );
   if( standard.starts_with( "needed for " ) )
      return named;
   EXPECT_TRUE( standard == "needed" || standard.starts_with( "needed but for " ) ) << standard;
   std::set< std::string > others;
   std::set_difference( operations.begin(), operations.end(), named.begin(), named.end(),
                        std::inserter( others, others.end() ) );
   return others;
}

TEST( PlanDocument, SaysWhatEachOperationOfTheTimelineNeeds ) {
   auto const maps = documentedMaps();
   auto const & entries = maps.at( 2 );
   ASSERT_TRUE( entries.isEntry() );
   std::set< std::string > operations;
   for( auto const & key : entries.keys )
      if( key.standard == "one of six" )
         operations.insert( key.name );
   EXPECT_EQ( operations.size(), 6U );
   EXPECT_EQ( operations.size(), std::variant_size_v< Simulation::Operation > );
   for( auto const & operand : entries.keys ) {
      if( operations.count( operand.name ) )
         continue;
      std::set< std::string > needed;
      for( auto const & key : entries.keys ) {
         auto entry = YAML::Load( key.example );
         if( operations.count( key.name ) && entry[ operand.name ] ) {
            entry.remove( operand.name );
            EXPECT_NE(
               mistakesOf( "agents: {Display: {Menu: {}}}\ntimeline:\n  - " + YAML::Dump( entry ) ),
               Lines{} );
            needed.insert( key.name );
         }
      }
      EXPECT_EQ( needing( operand.standard, operations ), needed ) << operand.name;
   }
}

// ---- the man page

using Entries = std::vector< std::pair< std::string, std::string > >; // section, entry

Entries manEntries() {
   Entries entries;
   std::string section;
   for( auto const & line : linesOf( replaced( textOf( "man/ordovan-plan.5" ), "\\\n", "" ) ) )
      if( line.starts_with( ".SS " ) )
         section = line.substr( 4 );
      else if( line.starts_with( "\\fB" ) )
         entries.emplace_back( section, line );
   return entries;
}

// "`x`" as the man page has it.
std::string bold( std::string text ) {
   for( bool opens = true; text.find( '`' ) != std::string::npos; opens = !opens )
      text.replace( text.find( '`' ), 1, opens ? "\\fB" : "\\fR" );
   return text;
}

TEST( PlanDocument, AndItsManPageNameTheSameKeysTypesAndDefaults ) {
   Entries expected;
   for( auto const & map : documentedMaps() ) {
      for( auto const & key : map.keys ) {
         auto const standard = ( isCode( key.standard ) ? "default " : "" ) + key.standard;
         expected.emplace_back(
            map.heading, bold( '`' + key.name + "` (" + key.mustBe + "; " + standard + ')' ) );
      }
   }
   EXPECT_EQ( manEntries(), expected );
}

TEST( PlanDocument, AndItsManPageShowTheSamePlan ) {
   auto const page = textOf( "man/ordovan-plan.5" );
   std::string const opens = ".EX\n";
   auto const start = page.find( opens ) + opens.size();
   auto const shown = replaced( page.substr( start, page.find( ".EE\n" ) - start ), "\\-", "-" );
   EXPECT_EQ( shown, blocksOf( textOf( "plan.md" ), "yaml" ).at( 0 ) );
}

} // namespace
