// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The calling side, with and without a loop.
#include "VarlinkTestSupport.h"

#include <live/VarlinkClient.h>

#include <cmath>
#include <functional>
#include <limits>
#include <thread>

using namespace LiveTest;

namespace {

constexpr double forEver = std::numeric_limits< double >::infinity();

class Clients : public VarlinkTest {
 protected:
   std::unique_ptr< Varlink::Client > client() {
      return std::make_unique< Varlink::Client >( Varlink::connectedSocket( path ) );
   }
   Varlink::Client::Answer note( std::string const & what ) {
      return [ this, what ]( Varlink::Reply const & reply ) {
         journal.push_back( what + " " + reply.error + reply.parameters.dump() +
                            ( reply.continues ? "..." : "" ) );
      };
   }
   std::vector< std::string > journal;
};
using Lines = std::vector< std::string >;

// One end of a pair, for a client; what the other end says is the test's.
class Answers : public testing::Test {
 protected:
   Answers() {
      int ends[ 2 ];
      EXPECT_EQ( ::socketpair( AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends ), 0 );
      other = ends[ 0 ];
      client = std::make_unique< Varlink::Client >( ends[ 1 ] );
      client->onClosedIs( [ this ] { ++closed; } );
   }
   ~Answers() override {
      client.reset();
      ::close( other );
      turn();
   }
   void says( std::string const & text ) {
      std::string const bytes = text + zero;
      EXPECT_EQ( ::write( other, bytes.data(), bytes.size() ),
                 static_cast< ssize_t >( bytes.size() ) );
      turn();
   }
   bool calls( Varlink::Answers answers = Varlink::Answers::one ) {
      return client->call(
         "a.b", nullptr, [ this ]( auto const & ) { ++answered; }, answers );
   }
   int other = -1;
   int closed = 0;
   int answered = 0;
   std::unique_ptr< Varlink::Client > client;
};

} // namespace

TEST_F( Clients, AreAnsweredInTheOrderOfTheirCalls ) {
   auto const one = client();
   EXPECT_TRUE( one->call( "test.example.Later", nullptr, note( "later" ) ) );
   EXPECT_TRUE(
      one->call( "test.example.Echo", { { "n", 1 } }, note( "oneway" ), Varlink::Answers::none ) );
   EXPECT_TRUE( one->call( "test.example.Echo", { { "n", 2 } }, note( "echo" ) ) );
   EXPECT_TRUE( one->call( "test.example.No", nullptr, note( "no" ) ) );
   EXPECT_EQ( journal, Lines{} );
   turn();
   ASSERT_EQ( later.size(), 1U );
   later[ 0 ]->reply( { { "n", 0 } } );
   turn();
   EXPECT_EQ( journal,
              ( Lines{ R"(later {"n":0})", R"(echo {"n":2})",
                       R"(no org.varlink.service.MethodNotFound{"method":"test.example.No"})" } ) );
   EXPECT_EQ( handled, 2 );
   EXPECT_EQ( one->peer().pid, ::getpid() );
}

TEST_F( Clients, GetMoreAnswersWhenTheyAskForThem ) {
   auto const one = client();
   EXPECT_TRUE(
      one->call( "test.example.Stream", nullptr, note( "stream" ), Varlink::Answers::more ) );
   turn();
   ASSERT_EQ( later.size(), 1U );
   EXPECT_TRUE( later[ 0 ]->replyMore( { { "n", 1 } } ) );
   EXPECT_TRUE( later[ 0 ]->replyMore( { { "n", 2 } } ) );
   turn();
   later[ 0 ]->reply();
   turn();
   EXPECT_EQ( journal, ( Lines{ R"(stream {"n":1}...)", R"(stream {"n":2}...)", "stream {}" } ) );
   EXPECT_TRUE( one->open() );
}

TEST_F( Clients, AreToldWhenTheServerGoesButNotOfTheirOwnEnd ) {
   auto const one = client();
   auto two = client();
   int ended = 0;
   one->onClosedIs( [ & ] { ++ended; } );
   two->onClosedIs( [ & ] { ended += 10; } );
   EXPECT_TRUE( one->call( "test.example.Later", nullptr, note( "later" ) ) );
   turn();
   two->close();
   EXPECT_FALSE( two->call( "test.example.Echo", nullptr, note( "closed" ) ) );
   server.reset();
   turn();
   EXPECT_EQ( ended, 1 );
   EXPECT_FALSE( one->open() );
   EXPECT_EQ( journal, Lines{} );
   EXPECT_THROW( client(), std::system_error );
}

TEST_F( Clients, MayBeDestroyedByWhatTheyCall ) {
   auto one = client();
   EXPECT_TRUE( one->call( "test.example.Echo", nullptr, [ & ]( auto const & ) { one.reset(); } ) );
   EXPECT_TRUE( one->call( "test.example.Echo", nullptr, note( "second" ) ) );
   turn();
   EXPECT_FALSE( one );
   one = client();
   one->onClosedIs( [ & ] { one.reset(); } );
   turn();
   server.reset();
   turn();
   EXPECT_FALSE( one );
   EXPECT_EQ( journal, Lines{} );
}

TEST_F( Clients, HaveNoRoomWhileTheServerReadsNothing ) {
   serve( { .unread = 1000 } );
   Varlink::Client one( Varlink::connectedSocket( path ), { .unread = 1000 } );
   int room = 0;
   one.onRoomIs( [ & ] { ++room; } );
   int sent = 0;
   std::string const text( 1000, 'x' );
   while( one.call( "test.example.Echo", { { "a", text } }, note( "" ) ) )
      ASSERT_LT( ++sent, 10000 );
   EXPECT_FALSE( one.room() );
   EXPECT_EQ( room, 0 );
   turn();
   EXPECT_GE( room, 1 );
   EXPECT_EQ( handled, sent );
   EXPECT_EQ( journal.size(), static_cast< std::size_t >( sent ) );
}

TEST_F( Clients, ThatAreToldOfRoomMayCallAtOnceAndNothingIsLost ) {
   serve( {} );
   Varlink::Client one( Varlink::connectedSocket( path ), { .unread = 1000 } );
   int sent = 0;
   // Nothing is answered, so nothing but room makes it go on.
   auto const write = [ & ] {
      while( sent != 3000 && one.call( "test.example.Echo", { { "a", std::string( 300, 'x' ) } },
                                       {}, Varlink::Answers::none ) )
         ++sent;
   };
   one.onRoomIs( write );
   write();
   turn();
   EXPECT_EQ( sent, 3000 );
   EXPECT_EQ( handled, 3000 );
}

TEST_F( Clients, SendNoCallThatTheServerWouldNotTake ) {
   Varlink::Client one( Varlink::connectedSocket( path ), { .received = 100 } );
   std::size_t const frame =
      Json{ { "method", "test.example.Echo" }, { "parameters", { { "a", "" } } } }.dump().size();
   EXPECT_THROW( one.call( "test.example.Echo", { { "a", std::string( 101 - frame, 'x' ) } }, {} ),
                 std::length_error );
   EXPECT_TRUE( one.call( "test.example.Echo", { { "a", std::string( 100 - frame, 'x' ) } },
                          note( "fits" ) ) );
   turn();
   EXPECT_EQ( journal.size(), 1U );
}

TEST_F( Answers, ThatNobodyAskedForEndTheConnection ) {
   says( "{}" );
   EXPECT_EQ( closed, 1 );
   EXPECT_FALSE( calls() );
}

TEST_F( Answers, ThatGoOnThoughOneWasAskedForEndTheConnection ) {
   EXPECT_TRUE( calls() );
   says( R"({"continues":true})" );
   EXPECT_EQ( answered, 0 );
   EXPECT_EQ( closed, 1 );
}

TEST_F( Answers, ThatAreNoneEndTheConnection ) {
   for( char const * text :
        { "", "x", "[]", R"({"parameters":[]})", R"({"error":1})", R"({"error":""})",
          R"({"continues":1})", R"({"error":"a.b","continues":true})",
          R"({"parameters":{},"parameters":{}})" } ) {
      SCOPED_TRACE( text );
      int ends[ 2 ];
      ASSERT_EQ( ::socketpair( AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends ), 0 );
      Live::detail::Descriptor const raw( ends[ 0 ] );
      Varlink::Client one( ends[ 1 ] );
      int told = 0;
      one.onClosedIs( [ & ] { ++told; } );
      EXPECT_TRUE( one.call(
         "a.b", nullptr, [ & ]( auto const & ) { ++answered; }, Varlink::Answers::more ) );
      std::string const bytes = std::string( text ) + zero;
      EXPECT_GT( ::write( raw.get(), bytes.data(), bytes.size() ), 0 );
      turn();
      EXPECT_EQ( told, 1 );
      EXPECT_FALSE( one.open() );
   }
   EXPECT_EQ( answered, 0 );
}

TEST_F( Answers, WithMembersThatNobodyKnowsOrThatAreNullAreTaken ) {
   EXPECT_TRUE( calls() );
   says( R"({"parameters":null,"error":null,"continues":null,"more":7})" );
   EXPECT_EQ( answered, 1 );
   EXPECT_EQ( closed, 0 );
}

TEST_F( Answers, TheLastOnesAreReadWhenTheOtherSideHasGone ) {
   EXPECT_TRUE( calls() );
   std::string const bytes = std::string( "{}" ) + zero;
   EXPECT_GT( ::write( other, bytes.data(), bytes.size() ), 0 );
   ::shutdown( other, SHUT_RDWR );
   EXPECT_TRUE( calls() ); // it is not known yet
   turn();
   EXPECT_EQ( answered, 1 );
   EXPECT_EQ( closed, 1 );
}

namespace {

// Calls from another thread, while the loop serves in this one.
class Callers : public VarlinkTest {
 protected:
   void serving( std::function< void( Varlink::Caller & ) > const & calls,
                 double timeout = forEver ) {
      int const fd = Varlink::connectedSocket( path );
      std::thread thread( [ & ] {
         {
            Varlink::Caller caller( fd, timeout );
            calls( caller );
         }
         Kiv::activityManager()->post( [] { Kiv::activityManager()->stop(); } );
      } );
      Kiv::activityManager()->run();
      thread.join();
   }
   static int codeOf( std::function< void() > const & call ) {
      try {
         call();
      } catch( std::system_error const & error ) {
         return error.code().value();
      }
      return 0;
   }
};

} // namespace

TEST_F( Callers, WaitForTheAnswerOfEachCall ) {
   serving( []( Varlink::Caller & caller ) {
      EXPECT_EQ( caller.call( "test.example.Echo", { { "n", 1 } } ).parameters,
                 ( Json{ { "n", 1 } } ) );
      EXPECT_EQ( caller.call( "test.example.No" ).error, "org.varlink.service.MethodNotFound" );
      // More than the sockets hold in both directions.
      std::string const text( 1'000'000, 'x' );
      for( int n = 0; n != 8; ++n )
         caller.send( "test.example.Echo", { { "a", text } }, Varlink::Answers::one );
      for( int n = 0; n != 8; ++n )
         EXPECT_EQ( caller.next().parameters[ "a" ], text );
      EXPECT_GE( caller.descriptor(), 0 );
   } );
}

TEST_F( Callers, SayWhatWentWrongWithTheConnection ) {
   serving( []( Varlink::Caller & caller ) {
      EXPECT_EQ( codeOf( [ & ] { caller.call( "test.example.Forget" ); } ), ECONNRESET );
      EXPECT_EQ( codeOf( [ & ] { caller.call( "test.example.Echo" ); } ), ECONNRESET );
   } );
   serving(
      []( Varlink::Caller & caller ) {
         EXPECT_EQ( codeOf( [ & ] { caller.call( "test.example.Later" ); } ), ETIMEDOUT );
      },
      0.01 );
   EXPECT_EQ( codeOf( [ this ] { Varlink::connectedSocket( folder / "nobody" ); } ), ENOENT );
   server.reset();
   EXPECT_EQ( codeOf( [ this ] { Varlink::connectedSocket( path ); } ), ECONNREFUSED );
}
