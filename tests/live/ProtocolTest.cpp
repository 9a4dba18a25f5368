// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <live/Protocol.h>

#include <live/detail/Json.h>

#include "RandomValues.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <map>
#include <regex>
#include <set>
#include <string>

namespace {

using namespace Live::Protocol;
using Live::Json;
using LiveTest::RandomValues;

Json parsed( std::string const & text ) { return Json::parse( text ); }

// What a decoder says to these parameters: the error's name without its interface and its
// parameters, or "taken".
template< class Asked >
std::string saidTo( std::string const & text ) {
   Asked value = RandomValues( 1 ).value< Asked >();
   Asked const before = value;
   try {
      decode( parsed( text ), value );
      return "taken";
   } catch( Refused const & refused ) {
      EXPECT_EQ( value, before );
      Error const & error = refused.error();
      EXPECT_STREQ( refused.what(), error.name.c_str() );
      return error.name.substr( error.name.rfind( '.' ) + 1 ) + error.parameters.dump();
   }
}
template< class Answered >
bool takesReply( std::string const & text ) {
   try {
      (void)decoded< Answered >( parsed( text ) );
      return true;
   } catch( Refused const & ) {
      return false;
   }
}

std::string invalid( std::string const & parameter ) {
   return "InvalidParameter" + Json{ { "parameter", parameter } }.dump();
}
std::string invalidEvent( std::string const & field, std::string const & reason ) {
   return "InvalidEvent" + Json{ { "field", field }, { "reason", reason } }.dump();
}
std::string quoted( std::string const & text ) { return Json( text ).dump(); }

// Members of a list as the interface has it: "a: ?bool, b: (x, y)" has a and b.
std::set< std::string > membersOf( std::string const & list ) {
   std::set< std::string > members;
   std::regex const member( "([A-Za-z]+): " );
   for( std::sregex_iterator at( list.begin(), list.end(), member ), end; at != end; ++at )
      members.insert( ( *at )[ 1 ] );
   return members;
}
std::set< std::string > keysOf( Json const & object ) {
   std::set< std::string > keys;
   for( auto const & [ key, value ] : object.items() )
      keys.insert( key );
   return keys;
}
// The lists of the definition that begins with `head`: one for a type, two for a method.
std::vector< std::string > listsOf( std::string const & text, std::string const & head ) {
   std::size_t at = text.find( "\n" + head + "(" );
   EXPECT_NE( at, std::string::npos ) << head;
   std::vector< std::string > lists;
   std::string list;
   int depth = 0;
   for( at = text.find( '(', at ); at != std::string::npos; ++at ) {
      depth += text[ at ] == '(' ? 1 : text[ at ] == ')' ? -1 : 0;
      list += text[ at ];
      if( depth == 0 && text[ at ] == ')' )
         lists.push_back( std::exchange( list, {} ) );
      if( depth == 0 && text[ at ] == '\n' )
         break;
   }
   return lists;
}

TEST( InterfaceText, IsTheInstalledFileToTheLetter ) {
   std::ifstream file( ORDOVAN_INTERFACE );
   std::string const text( std::istreambuf_iterator< char >( file ), {} );
   ASSERT_FALSE( text.empty() );
   EXPECT_EQ( Live::interfaceText(), text );
   EXPECT_NE( text.find( "interface " + std::string( Live::interfaceName ) + "\n" ),
              std::string::npos );
}

TEST( InterfaceText, NamesTheMembersThatValuesHave ) {
   std::string const text( Live::interfaceText() );
   RandomValues whole( 3, RandomValues::Everything::given );
   auto const type = [ & ]( char const * name, Json const & value ) {
      EXPECT_EQ( membersOf( listsOf( text, "type " + std::string( name ) + " " ).at( 0 ) ),
                 keysOf( value ) )
         << name;
   };
   auto const method = [ & ]( char const * name, Json const & asked, Json const & answered ) {
      auto const lists = listsOf( text, "method " + std::string( name ) );
      ASSERT_EQ( lists.size(), 2U ) << name;
      EXPECT_EQ( membersOf( lists[ 0 ] ), keysOf( asked ) ) << name;
      EXPECT_EQ( membersOf( lists[ 1 ] ), keysOf( answered ) ) << name;
   };
   Json const stage = encoded( whole.value< Live::Protocol::Stage >() );
   Json const agent = encoded( whole.value< Agent >() );
   type( "Stage", stage );
   type( "StageEvent", stage[ "event" ][ 0 ] );
   type( "Agent", agent );
   type( "Event", agent[ "event" ][ 0 ] );
   type( "Entry", encoded( whole.value< Entry >() ) );
   Json const nothing = Json::object();
   method( "Join", encoded( whole.value< Join >() ), encoded( whole.value< JoinReply >() ) );
   method( "Declare", encoded( whole.value< Declare >() ), nothing );
   method( "Report", encoded( whole.value< Report >() ), nothing );
   method( "Leave", encoded( whole.value< Leave >() ), nothing );
   method( "Watch", encoded( whole.value< Watch >() ), encoded( whole.value< WatchReply >() ) );
   method( "Wait", encoded( whole.value< Wait >() ), encoded( whole.value< WaitReply >() ) );
   method( "Status", nothing, encoded( whole.value< StatusReply >() ) );
   method( "Explain", encoded( whole.value< Explain >() ),
           encoded( whole.value< ExplainReply >() ) );
   method( "Log", encoded( whole.value< Log >() ), encoded( whole.value< LogReply >() ) );
   method( "Enable", encoded( whole.value< Enable >() ), nothing );
}

TEST( InterfaceText, HasEachErrorWithItsParameters ) {
   std::string const text( Live::interfaceText() );
   std::map< std::string, Error > const errors{
      { "NoSuchAgent", Error::noSuchAgent() },
      { "NoSuchStage", Error::noSuchStage() },
      { "NotYours", Error::notYours() },
      { "NotJoined", Error::notJoined() },
      { "AlreadyJoined", Error::alreadyJoined() },
      { "Connected", Error::connected( 7 ) },
      { "InvalidEvent", Error::invalidEvent( "event[0].stage", "is empty" ) },
      { "TooMuch", Error::tooMuch( "all" ) },
      { "TimedOut", Error::timedOut() } };
   for( auto const & [ name, error ] : errors ) {
      EXPECT_EQ( error.name, "io.ordovan.Stages." + name );
      EXPECT_TRUE( error.is( name ) );
      EXPECT_FALSE( error.is( "Stages." + name ) || error.is( "" ) || error.is( "Nothing" ) );
      auto const lists = listsOf( text, "error " + name + " " );
      ASSERT_EQ( lists.size(), 1U ) << name;
      EXPECT_EQ( membersOf( lists[ 0 ] ), keysOf( error.parameters ) ) << name;
   }
   std::size_t defined = 0;
   for( std::size_t at = 0; ( at = text.find( "\nerror ", at ) ) != std::string::npos; ++at )
      ++defined;
   EXPECT_EQ( defined, errors.size() );
   EXPECT_EQ( Error::connected( 7 ).parameters, ( Json{ { "pid", 7 } } ) );
   EXPECT_EQ( Error::tooMuch( "all" ).parameters, ( Json{ { "limit", "all" } } ) );
   EXPECT_EQ( Error::permissionDenied(), ( Error{ "org.varlink.service.PermissionDenied" } ) );
   EXPECT_EQ( Error::expectedMore(), ( Error{ "org.varlink.service.ExpectedMore" } ) );
   EXPECT_FALSE( Error::permissionDenied().is( "PermissionDenied" ) );
}

TEST( Decoding, TakesWhatIsGoodAndLeavesOutToMeanNull ) {
   EXPECT_EQ( decoded< Join >( parsed( R"({"agent":"A"})" ) ),
              ( Join{ "A", {}, Lost::keep, false } ) );
   EXPECT_EQ( decoded< Join >( parsed( R"({"agent":"A","event":null,"lost":null,"take":null})" ) ),
              ( Join{ "A", {}, Lost::keep, false } ) );
   Join const join{
      "A",
      std::vector< Event >{ { "S", 2.0, true, { "T", "U" }, true }, { "T", {}, false, {}, {} } },
      Lost::withdraw, true };
   EXPECT_EQ( decoded< Join >( parsed( R"({"agent":"A","lost":"withdraw","take":true,"event":[
                 {"stage":"S","timeout":2,"critical":true,"dependency":["T","U"],"complete":true},
                 {"stage":"T","timeout":null,"critical":null,"dependency":null,"complete":null}]})" ) ),
              join );
   EXPECT_EQ( decoded< Declare >( parsed( R"({"event":[],"withdraw":["S"]})" ) ),
              ( Declare{ {}, {}, { "S" } } ) );
   EXPECT_EQ( decoded< Report >( parsed( R"({"stage":"S"})" ) ), ( Report{ {}, "S", {}, {} } ) );
   EXPECT_EQ(
      decoded< Report >( parsed( R"({"agent":"A","stage":"S","complete":false,"note":""})" ) ),
      ( Report{ "A", "S", false, "" } ) );
   EXPECT_EQ( decoded< Leave >( parsed( "{}" ) ), Leave{} );
   EXPECT_EQ( decoded< Watch >( parsed( R"({"all":true,"after":0,"startup":"x"})" ) ),
              ( Watch{ true, 0, "x" } ) );
   EXPECT_EQ( decoded< Wait >( parsed( R"({"state":"active","timeout":0})" ) ),
              ( Wait{ {}, State::active, 0.0 } ) );
   EXPECT_EQ( decoded< Status >( parsed( "{}" ) ), Status{} );
   EXPECT_EQ( decoded< Explain >( parsed( R"({"stage":"S"})" ) ), Explain{ "S" } );
   EXPECT_EQ( decoded< Log >( parsed( R"({"after":9223372036854775807,"follow":true})" ) ),
              ( Log{ 9223372036854775807, true } ) );
   EXPECT_EQ( decoded< Enable >( parsed( R"({"enabled":true})" ) ), Enable{ true } );
}

TEST( Decoding, NamesTheParameterThatIsWrong ) {
   EXPECT_EQ( saidTo< Join >( "{}" ), invalid( "agent" ) );
   EXPECT_EQ( saidTo< Join >( R"({"agent":null})" ), invalid( "agent" ) );
   EXPECT_EQ( saidTo< Join >( R"({"agent":1})" ), invalid( "agent" ) );
   EXPECT_EQ( saidTo< Join >( R"({"agent":"A","agents":"B"})" ), invalid( "agents" ) );
   EXPECT_EQ( saidTo< Join >( R"({"agent":"A","x":null})" ), invalid( "x" ) );
   EXPECT_EQ( saidTo< Join >( R"({"agent":"A","event":{}})" ), invalid( "event" ) );
   EXPECT_EQ( saidTo< Join >( R"({"agent":"A","lost":"kept"})" ), invalid( "lost" ) );
   EXPECT_EQ( saidTo< Join >( R"({"agent":"A","lost":true})" ), invalid( "lost" ) );
   EXPECT_EQ( saidTo< Join >( R"({"agent":"A","take":1})" ), invalid( "take" ) );
   EXPECT_EQ( saidTo< Declare >( "{}" ), invalid( "event" ) );
   EXPECT_EQ( saidTo< Declare >( R"({"event":[],"withdraw":"S"})" ), invalid( "withdraw" ) );
   EXPECT_EQ( saidTo< Declare >( R"({"event":[],"withdraw":[1]})" ), invalid( "withdraw" ) );
   EXPECT_EQ( saidTo< Declare >( R"({"event":[],"withdraw":[""]})" ), invalid( "withdraw" ) );
   EXPECT_EQ( saidTo< Declare >( R"({"event":[{"stage":"S"}],"withdraw":["T","S"]})" ),
              invalid( "withdraw" ) );
   EXPECT_EQ( saidTo< Report >( "{}" ), invalid( "stage" ) );
   EXPECT_EQ( saidTo< Report >( R"({"stage":"S","complete":"yes"})" ), invalid( "complete" ) );
   EXPECT_EQ( saidTo< Report >( R"({"stage":"S","note":3})" ), invalid( "note" ) );
   EXPECT_EQ( saidTo< Leave >( R"({"agent":""})" ), invalid( "agent" ) );
   EXPECT_EQ( saidTo< Watch >( R"({"after":-1})" ), invalid( "after" ) );
   EXPECT_EQ( saidTo< Watch >( R"({"after":1.0})" ), invalid( "after" ) );
   EXPECT_EQ( saidTo< Watch >( R"({"after":9223372036854775808})" ), invalid( "after" ) );
   EXPECT_EQ( saidTo< Watch >( R"({"startup":7})" ), invalid( "startup" ) );
   EXPECT_EQ( saidTo< Wait >( "{}" ), invalid( "state" ) );
   EXPECT_EQ( saidTo< Wait >( R"({"state":"done"})" ), invalid( "state" ) );
   EXPECT_EQ( saidTo< Wait >( R"({"state":"active","timeout":-0.5})" ), invalid( "timeout" ) );
   EXPECT_EQ( saidTo< Wait >( R"({"state":"active","timeout":"1"})" ), invalid( "timeout" ) );
   EXPECT_EQ( saidTo< Status >( R"({"all":true})" ), invalid( "all" ) );
   EXPECT_EQ( saidTo< Log >( R"({"follow":0})" ), invalid( "follow" ) );
   EXPECT_EQ( saidTo< Enable >( "{}" ), invalid( "enabled" ) );
}

TEST( Decoding, SaysWhichEventIsWrongAndWhy ) {
   auto const declared = []( std::string const & events ) {
      std::string const said = saidTo< Declare >( R"({"event":[)" + events + "]}" );
      EXPECT_EQ( saidTo< Join >( R"({"agent":"A","event":[)" + events + "]}" ), said );
      return said;
   };
   std::string const good = R"({"stage":"S"},)";
   EXPECT_EQ( declared( "7" ), invalidEvent( "event[0]", "is no object" ) );
   EXPECT_EQ( declared( good + "null" ), invalidEvent( "event[1]", "is no object" ) );
   EXPECT_EQ( declared( good + "{}" ), invalidEvent( "event[1].stage", "is missing" ) );
   EXPECT_EQ( declared( R"({"stage":""})" ), invalidEvent( "event[0].stage", "is empty" ) );
   EXPECT_EQ( declared( R"({"stage":"a\u0000b"})" ),
              invalidEvent( "event[0].stage", "has a zero byte" ) );
   EXPECT_EQ( declared( R"({"stage":[]})" ), invalidEvent( "event[0].stage", "is no text" ) );
   EXPECT_EQ( declared( R"({"stage":"S","timeout":"5"})" ),
              invalidEvent( "event[0].timeout", "is no number" ) );
   EXPECT_EQ( declared( R"({"stage":"S","timeout":-1})" ),
              invalidEvent( "event[0].timeout", "is less than 0" ) );
   EXPECT_EQ( declared( R"({"stage":"S","critical":1})" ),
              invalidEvent( "event[0].critical", "is neither true nor false" ) );
   EXPECT_EQ( declared( R"({"stage":"S","dependency":"T"})" ),
              invalidEvent( "event[0].dependency", "is no list" ) );
   EXPECT_EQ( declared( R"({"stage":"S","dependency":["T",""]})" ),
              invalidEvent( "event[0].dependency", "is empty" ) );
   EXPECT_EQ( declared( R"({"stage":"S","complete":"no"})" ),
              invalidEvent( "event[0].complete", "is neither true nor false" ) );
   EXPECT_EQ( declared( R"({"stage":"S","name":"x"})" ),
              invalidEvent( "event[0].name", "is not known" ) );
   EXPECT_EQ( declared( good + R"({"stage":"T"},{"stage":"S"})" ),
              invalidEvent( "event[2].stage", "is the stage of another event of this call" ) );
}

TEST( Decoding, NamesHaveOneTo255BytesAndNotesUpTo1024 ) {
   std::string const longest( 255, 'x' );
   std::string bytes; // of 254 bytes, half as many characters
   for( int n = 0; n != 127; ++n )
      bytes += "\u00e9";
   for( std::string const & good : { std::string( "x" ), longest, bytes + "x" } ) {
      EXPECT_EQ( saidTo< Leave >( "{\"agent\":" + quoted( good ) + "}" ), "taken" );
      EXPECT_EQ( saidTo< Report >( "{\"stage\":" + quoted( good ) + "}" ), "taken" );
      EXPECT_EQ( saidTo< Declare >( "{\"event\":[{\"stage\":" + quoted( good ) + "}]}" ), "taken" );
   }
   for( std::string const & bad : { std::string(), longest + "x", bytes + "\u00e9",
                                    std::string( "a\0b", 3 ), std::string( 1, '\0' ) } ) {
      EXPECT_EQ( saidTo< Join >( "{\"agent\":" + quoted( bad ) + "}" ), invalid( "agent" ) );
      EXPECT_EQ( saidTo< Leave >( "{\"agent\":" + quoted( bad ) + "}" ), invalid( "agent" ) );
      EXPECT_EQ( saidTo< Report >( "{\"stage\":" + quoted( bad ) + "}" ), invalid( "stage" ) );
      EXPECT_EQ( saidTo< Wait >( R"({"state":"active","stage":)" + quoted( bad ) + "}" ),
                 invalid( "stage" ) );
      EXPECT_EQ( saidTo< Explain >( "{\"stage\":" + quoted( bad ) + "}" ), invalid( "stage" ) );
   }
   EXPECT_EQ( saidTo< Declare >( "{\"event\":[{\"stage\":" + quoted( longest + "x" ) + "}]}" ),
              invalidEvent( "event[0].stage", "has more than 255 bytes" ) );
   std::string const note( 1024, 'n' );
   EXPECT_EQ( saidTo< Report >( R"({"stage":"S","note":)" + quoted( note ) + "}" ), "taken" );
   EXPECT_EQ( saidTo< Report >( R"({"stage":"S","note":)" + quoted( note + "n" ) + "}" ),
              R"(TooMuch{"limit":"1024 bytes of a note"})" );
}

TEST( Decoding, OfAnswersPassesOverWhatItDoesNotKnowAndRefusesWhatCannotBe ) {
   EXPECT_TRUE( takesReply< JoinReply >( R"({"startup":"x","sequence":1,"new":{}})" ) );
   EXPECT_FALSE( takesReply< JoinReply >( R"({"startup":"x"})" ) );
   EXPECT_FALSE( takesReply< JoinReply >( R"({"startup":"x","sequence":1.5})" ) );
   std::string const stage =
      R"({"name":"S","active":true,"complete":false,"timedOut":false,)"
      R"("suspended":false,"critical":false,"dependency":[],"event":[],"new":1)";
   auto const watched = []( std::string const & stages ) {
      return R"({"startup":"x","sequence":1,"time":0,"snapshot":true,"partial":false,)"
             R"("complete":false,"stage":[)" +
             stages + "]}";
   };
   EXPECT_TRUE( takesReply< WatchReply >( watched( stage + "}" ) ) );
   EXPECT_TRUE( takesReply< WatchReply >( watched( stage + R"(,"timeout":null})" ) ) );
   EXPECT_FALSE( takesReply< WatchReply >( watched( stage + R"(,"timeout":"1"})" ) ) );
   EXPECT_FALSE( takesReply< WatchReply >( watched( "{}" ) ) );
   EXPECT_FALSE( takesReply< WatchReply >( watched( "1" ) ) );
   EXPECT_TRUE( takesReply< ExplainReply >( R"({"text":"","cause":[{"a":1}]})" ) );
   EXPECT_FALSE( takesReply< ExplainReply >( R"({"text":"","cause":[1]})" ) );
}

// Through the text that is sent, and the reader of what is received.
template< class Value >
void roundTrip( RandomValues & random ) {
   for( int n = 0; n != 200; ++n ) {
      auto const value = random.value< Value >();
      auto const read = Live::detail::objectFrom( Live::detail::textOf( encoded( value ) ), 32 );
      ASSERT_TRUE( read );
      ASSERT_EQ( decoded< Value >( *read ), value ) << encoded( value );
   }
}

TEST( Encoding, ComesBackAsItWas ) {
   RandomValues random( 11 );
   roundTrip< Join >( random );
   roundTrip< Declare >( random );
   roundTrip< Report >( random );
   roundTrip< Leave >( random );
   roundTrip< Watch >( random );
   roundTrip< Wait >( random );
   roundTrip< Explain >( random );
   roundTrip< Log >( random );
   roundTrip< Enable >( random );
   roundTrip< JoinReply >( random );
   roundTrip< WatchReply >( random );
   roundTrip< WaitReply >( random );
   roundTrip< StatusReply >( random );
   roundTrip< ExplainReply >( random );
   roundTrip< LogReply >( random );
}

TEST( Encoding, LeavesOutWhatIsNone ) {
   EXPECT_EQ( encoded( Leave{} ), Json::object() );
   EXPECT_EQ( encoded( Status{} ), Json::object() );
   EXPECT_EQ( encoded( Declare{ {}, { { "S", {}, false, {}, {} } }, {} } ),
              ( Json{ { "event", { { { "stage", "S" }, { "critical", false } } } } } ) );
   EXPECT_EQ( encoded( Wait{ {}, State::complete, {} } ), ( Json{ { "state", "complete" } } ) );
   Live::Protocol::Stage stage;
   stage.name = "S";
   EXPECT_EQ( encoded( stage )[ "dependency" ], Json::array() );
   EXPECT_FALSE( encoded( stage ).contains( "timeout" ) );
}

} // namespace
