// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Limits, at and past each of them, and peers that mean no good.
#include "VarlinkTestSupport.h"

#include <algorithm>
#include <random>

#include <sys/resource.h>

using namespace LiveTest;

namespace {

// Small ones, but for messages.
constexpr Varlink::Limits small{ .received = 1000,
                                 .sent = 2000,
                                 .nesting = 5,
                                 .connections = 6,
                                 .connectionsOfUser = 3,
                                 .unread = 10000 };

class Limits : public VarlinkTest {
 protected:
   Limits() : VarlinkTest( small ) {}

   // A call to Echo of so many bytes.
   static std::string echoOf( std::size_t size ) {
      std::size_t const frame = call( "Echo", { { "a", "" } } ).dump().size();
      return call( "Echo", { { "a", std::string( size - frame, 'x' ) } } ).dump();
   }
   // An answer of so many bytes, without "continues".
   static Json sized( std::size_t size ) {
      return { { "a", std::string( size - answer( { { "a", "" } } ).dump().size(), 'x' ) } };
   }
   Ptr< Varlink::Call > const & waiting( RawPeer & peer, char const * method ) {
      later.clear();
      EXPECT_TRUE( peer.say( with( call( method ), "more" ) ) );
      EXPECT_EQ( later.size(), 1U );
      return later.at( 0 );
   }
};

using Full = VarlinkTest;

} // namespace

TEST_F( Limits, AMessageMayBeAsLongAsTheLimitSaysAndNotAByteLonger ) {
   for( std::size_t const cut : { 1U, 999U, 100000U } ) {
      SCOPED_TRACE( cut );
      auto const write = [ & ]( RawPeer & peer, std::string const & bytes ) {
         for( std::size_t at = 0; at < bytes.size(); at += cut )
            if( !peer.writeAll( bytes.substr( at, cut ) ) )
               return;
      };
      RawPeer peer( path );
      for( std::size_t const size : { small.received - 1, small.received } ) {
         write( peer, echoOf( size ) + zero );
         EXPECT_TRUE( peer.hear() ) << size;
      }
      write( peer, bytes( call( "Echo" ) ) + echoOf( small.received + 1 ) + zero +
                      bytes( call( "Echo" ) ) );
      EXPECT_EQ( peer.hear(), answer( Json::object() ) ); // what stood before it
      EXPECT_EQ( peer.hear(), std::nullopt );
      EXPECT_TRUE( peer.closedByOther() );
   }
}

TEST_F( Limits, AMessageIsTooLongBeforeItEnds ) {
   RawPeer peer( path );
   ASSERT_TRUE( peer.writeAll( std::string( small.received, ' ' ) ) );
   EXPECT_FALSE( peer.closedByOther() );
   peer.writeAll( " " );
   EXPECT_TRUE( peer.closedByOther() );
}

TEST_F( Limits, AMessageThatIsTooLongEndsEvenAConnectionWhoseCallWaits ) {
   RawPeer peer( path );
   auto const call = waiting( peer, "Stream" );
   peer.writeAll( std::string( small.received + 1, ' ' ) );
   EXPECT_TRUE( peer.closedByOther() );
   EXPECT_TRUE( call->over() );
}

TEST_F( Limits, WhatWaitsBehindACallIsReadNoFurtherThanALimit ) {
   RawPeer peer( path );
   auto const first = waiting( peer, "Stream" );
   // Everything that the peer can get rid of: what the server has read, and what the kernel keeps.
   std::string const one = bytes( call( "Echo", { { "n", 1 } } ) );
   std::size_t written = 0;
   for( int idle = 0; idle != 3; ) {
      std::size_t const count =
         peer.write( std::string_view( one ).substr( written % one.size() ) );
      written += count;
      idle = count == 0 ? idle + 1 : 0;
      turn();
   }
   EXPECT_LT( written, 2'000'000U );
   EXPECT_EQ( handled, 0 );
   first->reply();
   EXPECT_EQ( peer.hear(), answer( Json::object() ) );
   for( std::size_t n = 0; n != written / one.size(); ++n )
      ASSERT_EQ( peer.hear(), answer( { { "n", 1 } } ) ) << n;
   EXPECT_FALSE( peer.closedByOther() );
}

TEST_F( Limits, NestingIsCountedFromTheMessageItselfOn ) {
   // The message, its parameters, and three lists are five.
   std::string const before = R"({"method":"test.example.Echo","parameters":{"a":)";
   RawPeer peer( path );
   ASSERT_TRUE( peer.writeAll( before + "[[[]]]}}" + zero ) );
   EXPECT_TRUE( peer.hear() );
   peer.writeAll( before + "[[[[]]]]}}" + zero );
   EXPECT_EQ( peer.hear(), std::nullopt );
   EXPECT_TRUE( peer.closedByOther() );
}

TEST_F( Limits, AnAnswerMayBeAsLongAsTheLimitSays ) {
   RawPeer peer( path );
   auto const call = waiting( peer, "Later" );
   EXPECT_THROW( call->reply( sized( small.sent + 1 ) ), std::length_error );
   EXPECT_FALSE( call->over() );
   EXPECT_THROW( call->replyMore( sized( small.sent ) ), std::length_error ); // with "continues"
   EXPECT_EQ( peer.hear(), std::nullopt );
   call->reply( sized( small.sent ) );
   EXPECT_TRUE( peer.hear() );
}

TEST_F( Limits, ConnectionsAreCountedAndThoseThatAreTooManyClosed ) {
   std::vector< RawPeer > peers;
   for( std::size_t n = 0; n != small.connections; ++n ) {
      peers.emplace_back( path );
      EXPECT_TRUE( peers.back().ask( call( "Echo" ) ) ) << n;
   }
   RawPeer late( path );
   EXPECT_TRUE( late.closedByOther() );
   EXPECT_EQ( server->connections(), small.connections );
   EXPECT_EQ( closed, 0 );
   peers.pop_back();
   turn();
   RawPeer next( path );
   EXPECT_TRUE( next.ask( call( "Echo" ) ) );
}

TEST_F( Limits, EachUserButRootAndTheServersOwnHasAPartOfTheConnections ) {
   uid_t user = 1;
   server->peerIs( [ & ]( int ) { return Varlink::Peer{ 1, user, 1 }; } );
   auto const connects = [ & ]( std::vector< RawPeer > & peers, uid_t uid ) {
      user = uid;
      RawPeer peer( path );
      if( peer.closedByOther() )
         return false;
      peers.push_back( std::move( peer ) );
      return true;
   };
   uid_t const own = ::geteuid();
   uid_t const somebody = own + 1;
   std::vector< RawPeer > peers;
   for( std::size_t n = 0; n != small.connectionsOfUser; ++n )
      EXPECT_TRUE( connects( peers, somebody ) );
   EXPECT_FALSE( connects( peers, somebody ) );
   EXPECT_TRUE( connects( peers, somebody + 1 ) );
   peers.erase( peers.begin() );
   turn();
   EXPECT_TRUE( connects( peers, somebody ) );
   EXPECT_FALSE( connects( peers, somebody ) );
   EXPECT_TRUE( connects( peers, 0 ) );
   EXPECT_TRUE( connects( peers, own ) );
   EXPECT_FALSE( connects( peers, own ) ) << "past the limit of all";
   peers.clear();
   turn();
   for( std::size_t n = 0; n != small.connections; ++n )
      EXPECT_TRUE( connects( peers, own ) ) << n;
}

TEST_F( Limits, AWriterHasRoomUntilThePeerLeavesMoreUnreadThanTheLimitAndOneMessage ) {
   RawPeer peer( path );
   auto const call = waiting( peer, "Stream" );
   int told = 0;
   call->onRoomIs( [ & ] { ++told; } );
   // How much the kernel takes cannot be said; from when it takes no more, what is kept counts.
   int sent = 0;
   while( call->replyMore( { { "n", sent }, { "x", std::string( 900, 'x' ) } } ) )
      ASSERT_LT( ++sent, 10000 );
   EXPECT_FALSE( call->room() );
   EXPECT_FALSE( call->replyMore( { { "n", sent } } ) );
   turn();
   EXPECT_EQ( told, 0 );
   RawPeer other( path );
   EXPECT_TRUE( other.ask( VarlinkTest::call( "Echo" ) ) ) << "held up by a slow reader";
   int heard = 0;
   while( auto const message = peer.hear() )
      EXPECT_EQ( ( *message )[ "parameters" ][ "n" ], heard++ );
   EXPECT_EQ( heard, sent );
   EXPECT_EQ( told, 1 );
   EXPECT_TRUE( call->room() );
   EXPECT_TRUE( call->replyMore( { { "n", sent } } ) );
   EXPECT_TRUE( peer.hear() );
}

TEST_F( Limits, AWriterThatIsToldOfRoomMayWriteAtOnceAndNothingIsLost ) {
   RawPeer peer( path );
   auto const call = waiting( peer, "Stream" );
   int sent = 0;
   auto const write = [ & ] {
      while( sent != 5000 &&
             call->replyMore( { { "n", sent }, { "x", std::string( 900, 'x' ) } } ) )
         ++sent;
      if( sent == 5000 )
         call->reply( { { "n", sent++ } } );
   };
   call->onRoomIs( write );
   write();
   EXPECT_LT( sent, 5000 );
   int heard = 0;
   while( auto const message = peer.hear() )
      ASSERT_EQ( ( *message )[ "parameters" ][ "n" ], heard++ );
   EXPECT_EQ( heard, 5001 );
   EXPECT_TRUE( call->over() );
}

TEST_F( Limits, CallsOfAPeerThatReadsNothingAreNotHandledBeyondTheLimit ) {
   RawPeer peer( path );
   RawPeer other( path );
   std::string const one = bytes( call( "Echo", { { "a", std::string( 800, 'x' ) } } ) );
   std::size_t written = 0;
   for( int idle = 0; idle != 3; ) {
      std::size_t const count =
         peer.write( std::string_view( one ).substr( written % one.size() ) );
      written += count;
      idle = count == 0 ? idle + 1 : 0;
      turn();
   }
   int const before = handled;
   turn();
   EXPECT_EQ( handled, before );
   EXPECT_LT( handled * 800, 2'000'000 );
   EXPECT_TRUE( other.ask( call( "Echo" ) ) );
   for( std::size_t n = 0; n != written / one.size(); ++n )
      ASSERT_TRUE( peer.hear() ) << n;
}

TEST_F( Full, TheLimitsAreThoseThatAreDocumented ) {
   Varlink::Limits const & limits = server->limits();
   EXPECT_EQ( limits.received, 1048576U );
   EXPECT_EQ( limits.sent, 16777216U );
   EXPECT_EQ( limits.nesting, 32U );
   EXPECT_EQ( limits.connections, 4096U );
   EXPECT_EQ( limits.connectionsOfUser, 1024U );
   EXPECT_EQ( limits.unread, 4194304U );
}

TEST_F( Full, AMessageOfAMebibyteIsTakenAndALongerOneNot ) {
   std::size_t const frame = call( "Echo", { { "a", "" } } ).dump().size();
   for( std::size_t const more : { 0U, 1U } ) {
      RawPeer peer( path );
      std::string const text( 1048576 - frame + more, 'x' );
      peer.writeAll( bytes( call( "Echo", { { "a", text } } ) ) );
      EXPECT_EQ( peer.hear().has_value(), more == 0 );
      EXPECT_EQ( peer.closedByOther(), more != 0 );
   }
}

TEST_F( Full, AMessageMadeOfBracketsEndsItsConnectionAndNothingElse ) {
   for( char const * piece : { "[", "{\"a\":", "[{\"\":" } ) {
      RawPeer peer( path );
      std::string text = R"({"method":"test.example.Echo","parameters":{"a":)";
      while( text.size() < 1'000'000 )
         text += piece;
      peer.writeAll( text + zero );
      EXPECT_TRUE( peer.closedByOther() );
   }
   RawPeer peer( path );
   EXPECT_TRUE( peer.ask( call( "Echo" ) ) );
}

TEST_F( Full, TenThousandPeersComeAndGoAndNoDescriptorIsLeft ) {
   turn();
   std::size_t const before = openDescriptors();
   std::mt19937 random( 3 );
   for( int n = 0; n != 10000; ++n ) {
      RawPeer peer( path );
      ASSERT_TRUE( peer.connected() );
      switch( random() % 5 ) {
      case 0:
         break; // gone before it was accepted
      case 1:
         turn();
         break;
      case 2:
         peer.write( "{\"method\":\"half a" );
         break;
      case 3:
         peer.write( bytes( call( "Echo" ) ) );
         break;
      default:
         peer.write( bytes( with( call( "Stream" ), "more" ) ) );
         turn();
         later.clear(); // forgotten, which closes it
      }
      if( n % 16 == 0 )
         turn();
   }
   turn();
   later.clear();
   turn();
   EXPECT_EQ( server->connections(), 0U );
   EXPECT_EQ( closed, 10000 );
   EXPECT_EQ( openDescriptors(), before );
}

TEST_F( Full, DescriptorsThatAPeerPassesAreClosed ) {
   RawPeer peer( path );
   ASSERT_TRUE( peer.ask( call( "Echo" ) ) );
   int ends[ 2 ];
   ASSERT_EQ( ::pipe( ends ), 0 );
   std::size_t const before = openDescriptors();

   std::string text = bytes( call( "Echo", { { "n", 1 } } ) );
   iovec data{ text.data(), text.size() };
   int const passed[ 3 ] = { ends[ 1 ], ends[ 1 ], ends[ 1 ] };
   alignas( cmsghdr ) char control[ CMSG_SPACE( sizeof passed ) ]{};
   msghdr message{};
   message.msg_iov = &data;
   message.msg_iovlen = 1;
   message.msg_control = control;
   message.msg_controllen = sizeof control;
   cmsghdr * const header = CMSG_FIRSTHDR( &message );
   header->cmsg_level = SOL_SOCKET;
   header->cmsg_type = SCM_RIGHTS;
   header->cmsg_len = CMSG_LEN( sizeof passed );
   std::memcpy( CMSG_DATA( header ), passed, sizeof passed );
   ASSERT_GT( ::sendmsg( peer.fd(), &message, 0 ), 0 );

   EXPECT_EQ( peer.hear(), answer( { { "n", 1 } } ) );
   EXPECT_EQ( openDescriptors(), before );
   ::close( ends[ 1 ] );
   char byte;
   EXPECT_EQ( ::read( ends[ 0 ], &byte, 1 ), 0 ) << "somebody still holds the other end";
   ::close( ends[ 0 ] );
}

TEST_F( Full, WithoutDescriptorsConnectionsWaitAndTheLoopComesToRest ) {
   {
      // A sanitizer needs descriptors to look at a type for the first time; so one has come and
      // gone before there are none left.
      RawPeer before( path );
      ASSERT_TRUE( before.ask( call( "Echo" ) ) );
   }
   turn();
   ASSERT_EQ( server->connections(), 0U );
   RawPeer first( path );
   ASSERT_TRUE( first.ask( call( "Echo" ) ) );
   RawPeer second( path );
   RawPeer third( path );
   rlimit saved{};
   ASSERT_EQ( ::getrlimit( RLIMIT_NOFILE, &saved ), 0 );
   rlimit none = saved;
   // Numbers up to the highest in use: the next one is past the limit.
   int const spare = ::dup( 0 );
   ::close( spare );
   none.rlim_cur = static_cast< rlim_t >( spare );
   ASSERT_EQ( ::setrlimit( RLIMIT_NOFILE, &none ), 0 );
   turn(); // throws if it never comes to rest
   EXPECT_EQ( server->connections(), 1U );
   EXPECT_TRUE( first.ask( call( "Echo" ) ) ) << "who was there is served";

   // One of the server's own is closed: that is enough for one of those who wait.
   first.end();
   turn();
   EXPECT_EQ( server->connections(), 1U );
   EXPECT_TRUE( second.ask( call( "Echo" ) ) );

   // Somebody else's are: it is tried by the time.
   ASSERT_EQ( ::setrlimit( RLIMIT_NOFILE, &saved ), 0 );
   pollfd loop{ Kiv::activityManager()->descriptor(), POLLIN, 0 };
   while( server->connections() != 2 ) {
      ASSERT_EQ( ::poll( &loop, 1, 10000 ), 1 );
      turn();
   }
   EXPECT_TRUE( third.ask( call( "Echo" ) ) );
}

TEST_F( Full, AFileOfASocketHasItsRightsAndALongPathIsRefused ) {
   std::string const other = folder / "other";
   mode_t const mask = ::umask( 077 );
   Live::detail::Descriptor const fd( Varlink::listeningSocket( other, 0666 ) );
   ::umask( mask );
   EXPECT_EQ( std::filesystem::status( other ).permissions(), std::filesystem::perms( 0666 ) );
   EXPECT_THROW( Varlink::listeningSocket( other ), std::system_error );
   EXPECT_TRUE( std::filesystem::exists( other ) );
   EXPECT_THROW( Varlink::listeningSocket( folder / std::string( 100, 'x' ) ), std::system_error );
   EXPECT_THROW( Varlink::listeningSocket( "" ), std::system_error );
}
