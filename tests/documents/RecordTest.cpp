// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include "Document.h"

#include <algorithm>
#include <filesystem>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include <Ordovan/LogSm.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <simulation/RecordWriter.h>
#include <simulation/Run.h>
#include <tools/Files.h>
#include <tools/PlanReader.h>

// docs/record.md is held to the records of the example plans, and of the plans that the documents
// show: whatever is in one of them is documented, and whatever is documented is in one of them.

namespace {

using namespace Document;
using Json = nlohmann::json;
using Record = std::vector< Json >;

// A record that is stored as it is.
Record recordIn( std::string const & text ) {
   Record record;
   std::istringstream lines( text );
   for( std::string line; std::getline( lines, line ); )
      record.push_back( Json::parse( line ) );
   return record;
}

// Nothing for a plan that shows mistakes.
Record recordOf( std::string const & plan ) {
   auto const read = Tools::readPlan( plan );
   Record record;
   if( read.mistakes.empty() ) {
      Simulation::RecordWriter writer(
         [ & ]( std::string_view line ) { record.push_back( Json::parse( line ) ); } );
      Simulation::run( read.plan, { &writer } );
   }
   return record;
}

std::vector< Record > const & records() {
   static auto const made = [] {
      std::vector< Record > all;
      for( auto const & file : std::filesystem::directory_iterator( ORDOVAN_EXAMPLES ) ) {
         auto const & path = file.path();
         if( path.extension() == ".yaml" )
            all.push_back( recordOf( Tools::fileText( path ) ) );
         else if( path.extension() == ".jsonl" && path.stem().extension() != ".record" )
            all.push_back( recordIn( Tools::fileText( path ) ) );
      }
      for( auto const * document : { "plan.md", "record.md" } )
         for( auto const & plan : blocksOf( textOf( document ), "yaml" ) )
            all.push_back( recordOf( plan ) );
      all.erase( std::remove( all.begin(), all.end(), Record() ), all.end() );
      return all;
   }();
   return made;
}

// Calls `f` for each line of that kind, of any kind if none is given.
template< class F >
void eachLine( std::string const & kind, F const & f ) {
   for( auto const & record : records() ) {
      for( auto const & line : record )
         if( kind.empty() || line.at( "kind" ) == kind )
            f( line );
   }
}

std::set< std::string > codes( std::string const & heading ) {
   std::set< std::string > found;
   for( auto const & row : tableBelow( textOf( "record.md" ), heading ) )
      found.insert( code( row.at( 0 ) ) );
   return found;
}

// Words in capitals stand for names.
std::regex const & patternOf( std::string const & text ) {
   static std::map< std::string, std::regex > made;
   if( auto const known = made.find( text ); known != made.end() )
      return known->second;
   auto const special = std::regex_replace( text, std::regex( "[.()]" ), "\\$&" );
   std::regex const name( "APPLICATION|STAGE|AGENT" );
   return made[ text ] = std::regex( std::regex_replace( special, name, ".+" ) );
}

// The one of `texts` that `text` is an instance of; a longer one hides a shorter, as names may hold
// anything. Empty if there is none.
std::string instanceOf( std::string const & text, std::set< std::string > const & texts ) {
   std::string found;
   for( auto const & candidate : texts )
      if( candidate.size() > found.size() && std::regex_match( text, patternOf( candidate ) ) )
         found = candidate;
   return found;
}

// ---- fields

using Path = std::vector< std::string >;

struct Field {
   Path path;
   std::string type;
   bool seen = false;

   bool isAt( Path const & other ) const {
      return std::equal( path.begin(), path.end(), other.begin(), other.end(),
                         []( auto const & mine, auto const & its ) {
                            return mine == its || mine == "STAGE" || mine == "AGENT";
                         } );
   }
   bool takes( Json const & value ) const {
      auto const isText = []( Json const & item ) { return item.is_string(); };
      return type == "text"            ? value.is_string()
             : type == "number"        ? value.is_number()
             : type == "true or false" ? value.is_boolean()
             : type == "true"          ? value == true
             : type == "object"        ? value.is_object()
             : type == "event"         ? value.is_object()
             : type == "list of texts"
                ? value.is_array() && std::all_of( value.begin(), value.end(), isText )
             : type == "true or \"never\""   ? value == true || value == "never"
             : type == "true, false or null" ? value.is_boolean() || value.is_null()
             : type == "number or \"inf\""   ? value.is_number() || value == "inf"
                                             : false;
   }
};

std::vector< Field > fieldsBelow( std::string const & heading ) {
   std::vector< Field > fields;
   for( auto const & row : tableBelow( textOf( "record.md" ), heading ) ) {
      Field field{ {}, row.at( 1 ) };
      std::istringstream parts( code( row.at( 0 ) ) );
      for( std::string part; std::getline( parts, part, '.' ); )
         field.path.push_back( part );
      fields.push_back( std::move( field ) );
   }
   return fields;
}

// An event is an object with these, wherever it stands.
std::vector< Field > & eventFields() {
   static auto fields = fieldsBelow( "## Events that are taken in" );
   return fields;
}

void compare( Json const & object, Path const & path, std::vector< Field > & fields ) {
   for( auto const & [ key, value ] : object.items() ) {
      auto inner = path;
      inner.push_back( key );
      auto const field = std::find_if( fields.begin(), fields.end(),
                                       [ & ]( auto const & f ) { return f.isAt( inner ); } );
      ASSERT_NE( field, fields.end() ) << key << " is not documented";
      ASSERT_TRUE( field->takes( value ) ) << key << " is " << value << ", not " << field->type;
      field->seen = true;
      if( field->type == "event" )
         compare( value, {}, eventFields() );
      else if( value.is_object() )
         compare( value, inner, fields );
   }
}

TEST( RecordDocument, NamesTheKindsOfLinesThatAreWritten ) {
   std::set< std::string > written;
   eachLine( "", [ & ]( auto const & line ) { written.insert( line.at( "kind" ) ); } );
   EXPECT_EQ( codes( "## Lines" ), written );
}

TEST( RecordDocument, NamesTheFieldsOfEachKindWithTheirTypes ) {
   for( auto const & kind : codes( "## Lines" ) ) {
      auto fields = fieldsBelow( "### `" + kind + '`' );
      eachLine( kind, [ & ]( auto const & line ) { compare( line, {}, fields ); } );
      for( auto const & field : fields )
         EXPECT_TRUE( field.seen ) << field.path.back() << " of " << kind << " is never written";
   }
   for( auto const & field : eventFields() )
      EXPECT_TRUE( field.seen ) << field.path.back() << " of an event is never written";
}

TEST( RecordDocument, NamesTheEntriesOfTheLog ) {
   auto const documented = codes( "## Entries of the log" );
   std::set< std::string > written;
   eachLine( "log", [ & ]( auto const & line ) {
      auto const entry = instanceOf( line.at( "msg" ), documented );
      EXPECT_NE( entry, "" ) << line.at( "msg" );
      written.insert( entry );
   } );
   EXPECT_EQ( documented, written );
}

TEST( RecordDocument, NamesTheDeclaredMessagesAsTheyAreDeclared ) {
   auto const rows = tableBelow( textOf( "record.md" ), "## Messages" );
   std::vector< Row > declared;
   for( auto const * handle :
        { &Stage::ORDOVAN_STAGE_SLOW, &Stage::ORDOVAN_STAGE_COMPLETE_AFTER_TIMEOUT } ) {
      declared.push_back(
         { handle->id().str(), std::to_string( handle->severity() ), handle->format().str() } );
   }
   std::vector< Row > documented;
   for( auto const & row : rows ) {
      auto const format =
         replaced( replaced( code( row.at( 2 ) ), "APPLICATION", "%s" ), "STAGE", "%s" );
      documented.push_back( { code( row.at( 0 ) ), row.at( 1 ), format } );
   }
   EXPECT_EQ( documented, declared );
}

TEST( RecordDocument, NamesTheMessagesThatAreWritten ) {
   std::map< std::string, Row > documented;
   std::set< std::string > written, ids;
   for( auto const & row : tableBelow( textOf( "record.md" ), "## Messages" ) ) {
      documented[ code( row.at( 0 ) ) ] = row;
      ids.insert( code( row.at( 0 ) ) );
   }
   eachLine( "message", [ & ]( auto const & line ) {
      std::string const id = line.at( "id" );
      written.insert( id );
      ASSERT_EQ( documented.count( id ), 1U ) << id;
      EXPECT_EQ( line.at( "severity" ).dump(), documented[ id ].at( 1 ) );
      EXPECT_NE( instanceOf( line.at( "text" ), { code( documented[ id ].at( 2 ) ) } ), "" );
   } );
   EXPECT_EQ( written, ids );
}

// The one after it, the first after the last. The compiler complains of one without its case.
Simulation::Outcome next( Simulation::Outcome outcome ) {
   using Simulation::Outcome;
   switch( outcome ) {
   case Outcome::complete:
      return Outcome::suspended;
   case Outcome::suspended:
      return Outcome::disabled;
   case Outcome::disabled:
      return Outcome::stalled;
   case Outcome::stalled:
      break;
   }
   return Outcome::complete;
}

TEST( RecordDocument, NamesTheOutcomesInTheOrderInWhichTheyAreLookedFor ) {
   using Simulation::Outcome;
   Lines names, documented;
   auto outcome = Outcome::complete;
   do {
      names.emplace_back( outcomeName( outcome ) );
      outcome = next( outcome );
   } while( outcome != Outcome::complete );
   for( auto const & row : tableBelow( textOf( "record.md" ), "## Outcomes" ) )
      documented.push_back( code( row.at( 0 ) ) );
   EXPECT_EQ( documented, names );
   std::set< std::string > written;
   eachLine( "end", [ & ]( auto const & line ) { written.insert( line.at( "outcome" ) ); } );
   EXPECT_EQ( written, std::set< std::string >( names.begin(), names.end() ) );
}

TEST( RecordDocument, IsRightThatTimesNeverGoBackAndThatTheEndIsTheLastLineAndTheOnlyOne ) {
   EXPECT_GT( records().size(), 10U );
   for( auto const & record : records() ) {
      double t = 0;
      for( auto const & line : record ) {
         EXPECT_GE( line.at( "t" ).get< double >(), t ) << line;
         t = line.at( "t" );
         EXPECT_EQ( line.at( "kind" ) == "end", &line == &record.back() ) << line;
      }
   }
}

} // namespace
