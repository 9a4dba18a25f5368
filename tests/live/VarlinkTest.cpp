// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The side that is called: what it takes for a call, and in which order it answers.
#include "VarlinkTestSupport.h"

#include <random>

using namespace LiveTest;

namespace {

class Calls : public VarlinkTest {};

// A message, and what becomes of it: an answer, none, or the end of the connection.
struct Row {
   std::string what;
   std::string text;
   std::optional< Json > answered;
   bool ends = false;
};

std::vector< Row > rows() {
   Json const empty{ { "parameters", Json::object() } };
   auto const failed = []( std::string const & name, Json const & parameters ) {
      return Json{ { "error", "org.varlink.service." + name }, { "parameters", parameters } };
   };
   std::string const echo = R"("method":"test.example.Echo")";
   return {
      { "no parameters", "{" + echo + "}", empty },
      { "null parameters", "{" + echo + R"(,"parameters":null})", empty },
      { "empty parameters", "{" + echo + R"(,"parameters":{}})", empty },
      { "parameters", "{" + echo + R"(,"parameters":{"a":[1,2.5,"\u00e9"]}})",
        Json{ { "parameters", { { "a", { 1, 2.5, "\u00e9" } } } } } },
      { "blanks", " \t\r\n{ " + echo + " } \n", empty },
      { "members nobody knows", "{" + echo + R"(,"tag":7,"x":{"y":[]}})", empty },
      { "flags that are null", "{" + echo + R"(,"more":null,"oneway":null,"upgrade":null})",
        empty },
      { "more for a single answer", "{" + echo + R"(,"more":true})", empty },
      { "oneway", "{" + echo + R"(,"oneway":true})", std::nullopt },
      { "oneway to nobody", R"({"method":"nobody.Knows","oneway":true})", std::nullopt },
      { "upgrade", "{" + echo + R"(,"upgrade":true})",
        failed( "MethodNotImplemented", { { "method", "test.example.Echo" } } ) },
      { "another interface", R"({"method":"test.other.Echo"})",
        failed( "InterfaceNotFound", { { "interface", "test.other" } } ) },
      { "no interface", R"({"method":"Echo"})",
        failed( "InterfaceNotFound", { { "interface", "Echo" } } ) },
      { "empty method", R"({"method":""})",
        failed( "InterfaceNotFound", { { "interface", "" } } ) },
      { "another method", R"({"method":"test.example.echo"})",
        failed( "MethodNotFound", { { "method", "test.example.echo" } } ) },
      { "a method of nobody's", R"({"method":"test.example."})",
        failed( "MethodNotFound", { { "method", "test.example." } } ) },
      { "a method that is not there yet", R"({"method":"test.example.Missing"})",
        failed( "MethodNotImplemented", { { "method", "test.example.Missing" } } ) },
      { "one answer of many", R"({"method":"test.example.Stream"})",
        failed( "ExpectedMore", Json::object() ) },

      { "nothing", "", std::nullopt, true },
      { "blanks alone", "  ", std::nullopt, true },
      { "no JSON", "hello", std::nullopt, true },
      { "no object", "[]", std::nullopt, true },
      { "a text", R"("method")", std::nullopt, true },
      { "half an object", R"({"method":"a.b")", std::nullopt, true },
      { "two objects", "{" + echo + "}{" + echo + "}", std::nullopt, true },
      { "a byte-order mark", "\xef\xbb\xbf{" + echo + "}", std::nullopt, true },
      { "no UTF-8", "{" + echo + ",\"parameters\":{\"a\":\"\xff\"}}", std::nullopt, true },
      { "half a surrogate", "{" + echo + R"(,"parameters":{"a":"\ud800"}})", std::nullopt, true },
      { "a comment", "{" + echo + "/* */}", std::nullopt, true },
      { "a member twice", "{" + echo + "," + echo + "}", std::nullopt, true },
      { "a parameter twice", "{" + echo + R"(,"parameters":{"a":1,"a":2}})", std::nullopt, true },
      { "infinity", "{" + echo + R"(,"parameters":{"a":1e999}})", std::nullopt, true },
      { "not a number", "{" + echo + R"(,"parameters":{"a":NaN}})", std::nullopt, true },
      { "no method", R"({"parameters":{}})", std::nullopt, true },
      { "a number as method", R"({"method":1})", std::nullopt, true },
      { "a list of parameters", "{" + echo + R"(,"parameters":[]})", std::nullopt, true },
      { "a text as flag", "{" + echo + R"(,"more":"true"})", std::nullopt, true },
      { "a number as flag", "{" + echo + R"(,"oneway":1})", std::nullopt, true },
      { "upgrade by a text", "{" + echo + R"(,"upgrade":"x"})", std::nullopt, true },
   };
}

} // namespace

TEST_F( Calls, EachKindOfMessageIsAnsweredOrEndsItsConnection ) {
   Json const probe = answer( { { "still", "there" } } );
   for( Row const & row : rows() ) {
      SCOPED_TRACE( row.what );
      RawPeer peer( path );
      RawPeer other( path );
      ASSERT_TRUE( peer.writeAll( row.text + zero ) );
      if( row.answered )
         EXPECT_EQ( peer.hear(), row.answered );
      EXPECT_EQ( peer.hear(), std::nullopt );
      EXPECT_EQ( peer.closedByOther(), row.ends );
      if( !row.ends )
         EXPECT_EQ( peer.ask( call( "Echo", { { "still", "there" } } ) ), probe );
      EXPECT_EQ( other.ask( call( "Echo", { { "still", "there" } } ) ), probe ) << "another peer";
   }
}

TEST_F( Calls, AnswersComeAsTheyWouldHoweverTheBytesWereCut ) {
   std::string all;
   std::vector< Json > expected;
   for( Row const & row : rows() ) {
      if( row.ends )
         continue;
      all += row.text + zero;
      if( row.answered )
         expected.push_back( *row.answered );
   }
   std::mt19937 random( 7 );
   for( std::size_t const most : { 1U, 2U, 7U, 100U, 100000U } ) {
      SCOPED_TRACE( most );
      RawPeer peer( path );
      for( std::size_t at = 0; at < all.size(); ) {
         std::size_t const size = std::min< std::size_t >( 1 + random() % most, all.size() - at );
         ASSERT_TRUE( peer.writeAll( std::string_view( all ).substr( at, size ) ) );
         at += size;
      }
      for( Json const & one : expected )
         EXPECT_EQ( peer.hear(), one );
      EXPECT_EQ( peer.hear(), std::nullopt );
      EXPECT_FALSE( peer.closedByOther() );
   }
}

TEST_F( Calls, WhatComesBehindABadMessageIsNotHandledAndWhatCameBeforeIsAnswered ) {
   RawPeer peer( path );
   ASSERT_TRUE( peer.writeAll( bytes( call( "Echo", { { "n", 1 } } ) ) + "no call" + zero +
                               bytes( call( "Echo", { { "n", 2 } } ) ) ) );
   EXPECT_EQ( peer.hear(), answer( { { "n", 1 } } ) );
   EXPECT_TRUE( peer.closedByOther() );
   EXPECT_EQ( handled, 1 );
   EXPECT_EQ( closed, 1 );
}

TEST_F( Calls, ACallWaitsForTheAnswerToTheOneBeforeOnItsConnectionAlone ) {
   RawPeer peer( path );
   RawPeer other( path );
   ASSERT_TRUE( peer.say( call( "Later" ) ) );
   ASSERT_TRUE( peer.say( call( "Echo", { { "n", 2 } } ) ) );
   EXPECT_EQ( peer.hear(), std::nullopt );
   EXPECT_EQ( handled, 0 );
   EXPECT_EQ( other.ask( call( "Echo" ) ), answer( Json::object() ) );
   ASSERT_EQ( later.size(), 1U );
   later[ 0 ]->reply( { { "n", 1 } } );
   EXPECT_TRUE( later[ 0 ]->over() );
   later[ 0 ]->reply( { { "n", 0 } } ); // too late
   EXPECT_EQ( peer.hear(), answer( { { "n", 1 } } ) );
   EXPECT_EQ( peer.hear(), answer( { { "n", 2 } } ) );
   EXPECT_EQ( peer.hear(), std::nullopt );
}

TEST_F( Calls, OnewayCallsAreHandledAtOnceAndNobodyWaitsForThem ) {
   RawPeer peer( path );
   ASSERT_TRUE( peer.say( with( call( "Later" ), "oneway" ) ) );
   EXPECT_EQ( peer.ask( call( "Echo", { { "n", 2 } } ) ), answer( { { "n", 2 } } ) );
   ASSERT_EQ( later.size(), 1U );
   EXPECT_TRUE( later[ 0 ]->oneway() );
   later[ 0 ]->reply();
   EXPECT_EQ( peer.hear(), std::nullopt );
   EXPECT_FALSE( peer.closedByOther() );
}

TEST_F( Calls, ThatAskForMoreGetAnswersUntilTheLastOne ) {
   RawPeer peer( path );
   ASSERT_TRUE( peer.say( with( call( "Stream" ), "more" ) ) );
   ASSERT_TRUE( peer.say( call( "Echo" ) ) );
   ASSERT_EQ( later.size(), 1U );
   for( int n = 1; n != 4; ++n ) {
      EXPECT_TRUE( later[ 0 ]->replyMore( { { "n", n } } ) );
      EXPECT_EQ( peer.hear(), ( Json{ { "parameters", { { "n", n } } }, { "continues", true } } ) );
   }
   later[ 0 ]->fail( "test.example.Enough" );
   EXPECT_FALSE( later[ 0 ]->replyMore( { { "n", 4 } } ) );
   EXPECT_EQ( peer.hear(), error( "test.example.Enough" ) );
   EXPECT_EQ( peer.hear(), answer( Json::object() ) ); // the echo
}

TEST_F( Calls, ThatDoNotAskForMoreGetOneAnswer ) {
   RawPeer peer( path );
   ASSERT_TRUE( peer.say( call( "Later" ) ) );
   ASSERT_EQ( later.size(), 1U );
   EXPECT_FALSE( later[ 0 ]->replyMore( { { "n", 1 } } ) );
   EXPECT_EQ( peer.hear(), std::nullopt );
   later[ 0 ]->reply();
   EXPECT_EQ( peer.hear(), answer( Json::object() ) );
}

TEST_F( Calls, AMethodThatForgetsToAnswerOrThrowsClosesItsConnectionAlone ) {
   for( char const * method : { "Forget", "Throw" } ) {
      SCOPED_TRACE( method );
      RawPeer peer( path );
      RawPeer other( path );
      closed = 0;
      testing::internal::CaptureStderr();
      EXPECT_EQ( peer.ask( call( method ) ), std::nullopt );
      EXPECT_TRUE( peer.closedByOther() );
      std::string const said = testing::internal::GetCapturedStderr();
      EXPECT_EQ( said.find( "on purpose" ) != std::string::npos, method[ 0 ] == 'T' ) << said;
      EXPECT_EQ( other.ask( call( "Echo" ) ), answer( Json::object() ) );
      EXPECT_EQ( closed, 1 );
      other.close();
      turn();
   }
}

TEST_F( Calls, AMethodMayDestroyTheServer ) {
   RawPeer peer( path );
   RawPeer other( path );
   ASSERT_TRUE( other.say( call( "Later" ) ) );
   bool gone = false;
   ASSERT_EQ( later.size(), 1U );
   later[ 0 ]->onGoneIs( [ & ] { gone = true; } );
   ASSERT_TRUE( peer.writeAll( bytes( call( "End" ) ) + bytes( call( "Echo" ) ) ) );
   EXPECT_TRUE( peer.closedByOther() );
   EXPECT_TRUE( other.closedByOther() );
   EXPECT_FALSE( gone );
   EXPECT_TRUE( later[ 0 ]->over() );
   later[ 0 ]->reply();
   EXPECT_EQ( handled, 0 );
   EXPECT_EQ( closed, 0 );
}

TEST_F( Calls, WhatTheirEndLetsGoOfMayCloseOtherConnectionsOfAServerThatIsDestroyed ) {
   struct Closes {
      Ptr< Varlink::Connection > other;
      ~Closes() { other->close(); }
   };
   std::vector< RawPeer > peers;
   for( int n = 0; n != 3; ++n ) {
      peers.emplace_back( path );
      ASSERT_TRUE( peers.back().say( call( "Later" ) ) );
   }
   ASSERT_EQ( later.size(), 3U );
   for( std::size_t n = 0; n != 3; ++n ) {
      auto const closes = std::make_shared< Closes >();
      closes->other = later[ ( n + 1 ) % 3 ]->connection();
      later[ n ]->onGoneIs( [ closes ] {} );
   }
   server.reset();
   EXPECT_EQ( closed, 0 );
   for( auto & peer : peers )
      EXPECT_TRUE( peer.closedByOther() );
}

TEST_F( Calls, AreHandledAndAnsweredAfterThePeerHasEndedItsSide ) {
   RawPeer peer( path );
   ASSERT_TRUE( peer.writeAll( bytes( call( "Later" ) ) + bytes( call( "Echo" ) ) ) );
   peer.end();
   turn();
   ASSERT_EQ( later.size(), 1U );
   EXPECT_FALSE( later[ 0 ]->over() );
   later[ 0 ]->reply( { { "n", 1 } } );
   EXPECT_EQ( peer.hear(), answer( { { "n", 1 } } ) );
   EXPECT_EQ( peer.hear(), answer( Json::object() ) );
   EXPECT_TRUE( peer.closedByOther() );
   EXPECT_EQ( closed, 1 );
}

TEST_F( Calls, AreHandledEvenWhenThePeerHasGoneBeforeTheyWereRead ) {
   RawPeer peer( path );
   turn(); // accepted
   std::string const all = bytes( call( "Echo" ) ) + bytes( with( call( "Echo" ), "oneway" ) ) +
                           bytes( call( "Stream" ) ) + bytes( call( "Echo" ) ) + "{\"half";
   ASSERT_EQ( peer.write( all ), all.size() );
   peer.close();
   turn();
   EXPECT_EQ( handled, 3 );
   EXPECT_EQ( closed, 1 );
   EXPECT_EQ( server->connections(), 0U );
}

TEST_F( Calls, ThatWaitAreToldOnceWhenTheirPeerGoes ) {
   auto peer = std::make_unique< RawPeer >( path );
   ASSERT_TRUE( peer->say( with( call( "Stream" ), "more" ) ) );
   ASSERT_TRUE( peer->say( call( "Echo" ) ) );
   ASSERT_EQ( later.size(), 1U );
   int gone = 0;
   later[ 0 ]->onGoneIs( [ & ] {
      ++gone;
      EXPECT_TRUE( later[ 0 ]->over() );
      EXPECT_FALSE( later[ 0 ]->replyMore( { { "n", 1 } } ) );
   } );
   peer.reset();
   turn();
   EXPECT_EQ( gone, 1 );
   EXPECT_EQ( handled, 1 ); // what stood behind it
   EXPECT_EQ( closed, 1 );
   later[ 0 ]->reply();
}

TEST_F( Calls, KnowWhoMadeThem ) {
   RawPeer peer( path );
   ASSERT_TRUE( peer.say( call( "Later" ) ) );
   ASSERT_EQ( later.size(), 1U );
   auto const connection = later[ 0 ]->connection();
   EXPECT_EQ( connection->peer().pid, ::getpid() );
   EXPECT_EQ( connection->peer().uid, ::geteuid() );
   EXPECT_EQ( connection->peer().gid, ::getegid() );
   EXPECT_TRUE( connection->open() );
   connection->close();
   EXPECT_TRUE( peer.closedByOther() );
   EXPECT_TRUE( later[ 0 ]->over() );
}

namespace {

class Service : public VarlinkTest {
 protected:
   static Json ask( std::string const & method, Json const & parameters = nullptr ) {
      return { { "method", "org.varlink.service." + method }, { "parameters", parameters } };
   }
   static Json invalid( char const * parameter ) {
      return error( "org.varlink.service.InvalidParameter", { { "parameter", parameter } } );
   }
};

} // namespace

TEST_F( Service, SaysWhoMadeItAndWhatItsInterfacesAre ) {
   RawPeer peer( path );
   EXPECT_EQ( peer.ask( ask( "GetInfo" ) ),
              answer( { { "vendor", "maker" },
                        { "product", "thing" },
                        { "version", "1.2" },
                        { "url", "http://t.example" },
                        { "interfaces", { "org.varlink.service", "test.example" } } } ) );
   EXPECT_EQ( peer.ask( ask( "GetInfo", { { "a", 1 } } ) ), invalid( "a" ) );
}

TEST_F( Service, DescribesEachInterfaceItsOwnIncluded ) {
   RawPeer peer( path );
   EXPECT_EQ( peer.ask( ask( "GetInterfaceDescription", { { "interface", "test.example" } } ) ),
              answer( { { "description", "interface test.example\n" } } ) );
   auto const own =
      peer.ask( ask( "GetInterfaceDescription", { { "interface", "org.varlink.service" } } ) );
   ASSERT_TRUE( own );
   std::string const text = ( *own )[ "parameters" ].value( "description", "" );
   for( char const * line :
        { "\ninterface org.varlink.service\n", "\nmethod GetInfo() -> (\n",
          "\nmethod GetInterfaceDescription(interface: string) -> (description: string)\n",
          "\nerror InterfaceNotFound (interface: string)\n",
          "\nerror MethodNotFound (method: string)\n",
          "\nerror MethodNotImplemented (method: string)\n",
          "\nerror InvalidParameter (parameter: string)\n", "\nerror PermissionDenied ()\n",
          "\nerror ExpectedMore ()\n" } )
      EXPECT_NE( text.find( line ), std::string::npos ) << line;

   EXPECT_EQ( peer.ask( ask( "GetInterfaceDescription" ) ), invalid( "interface" ) );
   EXPECT_EQ( peer.ask( ask( "GetInterfaceDescription", { { "interface", 1 } } ) ),
              invalid( "interface" ) );
   EXPECT_EQ( peer.ask( ask( "GetInterfaceDescription",
                             { { "interface", "test.example" }, { "other", 1 } } ) ),
              invalid( "other" ) );
   EXPECT_EQ( peer.ask( ask( "GetInterfaceDescription", { { "interface", "a.b" } } ) ),
              error( "org.varlink.service.InterfaceNotFound", { { "interface", "a.b" } } ) );
}
