// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Any bytes as what a peer says to a server that knows the protocol.
#pragma once

#include "LiveTestSupport.h"

#include <live/Protocol.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace LiveTest {

// Calls of each method, good ones.
inline std::vector< std::string > goodCalls() {
   std::vector< std::string > calls;
   for(
      char const * call :
      { R"("Join","parameters":{"agent":"A","lost":"withdraw","take":true,"event":[{"stage":"S","timeout":2.5,"critical":true,"dependency":["T"],"complete":false}]})",
        R"("Declare","parameters":{"agent":"A","event":[{"stage":"S"},{"stage":"T"}],"withdraw":["U"]})",
        R"("Report","parameters":{"stage":"S","complete":true,"note":"n"})",
        R"("Leave","oneway":true)",
        R"("Watch","more":true,"parameters":{"all":true,"after":7,"startup":"x"})",
        R"("Wait","parameters":{"stage":"S","state":"complete","timeout":1})", R"("Status")",
        R"("Explain","parameters":{"stage":null})", R"("Log","parameters":{"follow":false})",
        R"("Enable","parameters":{"enabled":true})" } )
      calls.push_back( R"({"method":)" + std::string( call ).insert( 1, "io.ordovan.Stages." ) +
                       "}" );
   calls.push_back( R"({"method":"org.varlink.service.GetInfo","upgrade":true})" );
   calls.push_back(
      R"({"method":"org.varlink.service.GetInterfaceDescription","parameters":{"interface":"a.b"}})" );
   return calls;
}

// Cut and joined, written over, and with what means something in JSON put in.
inline std::string mutatedCalls( std::mt19937 & random ) {
   static auto const calls = goodCalls();
   static char const pieces[] = "{}[]\",:\\0123456789.-eE \xff\xc3\x00u";
   auto const upTo = [ & ]( std::size_t most ) { return random() % ( most + 1 ); };
   std::string bytes;
   for( std::size_t n = 1 + upTo( 3 ); n != 0; --n )
      bytes += calls[ upTo( calls.size() - 1 ) ] + std::string( 1, '\0' );
   for( std::size_t n = upTo( 6 ); n != 0; --n ) {
      std::size_t const at = upTo( bytes.size() - 1 );
      char const piece = pieces[ upTo( sizeof pieces - 1 ) ];
      switch( upTo( 3 ) ) {
      case 0:
         bytes[ at ] = piece;
         break;
      case 1:
         bytes.insert( at, 1 + upTo( 3 ), piece );
         break;
      case 2:
         bytes.erase( at, upTo( 8 ) );
         break;
      default:
         bytes.insert( at, bytes.substr( upTo( bytes.size() - 1 ), upTo( 40 ) ) );
      }
      if( bytes.empty() )
         return bytes;
   }
   return bytes;
}

// A server whose methods take their parameters apart, put them together again, and answer with
// these.
class AnyServer {
 public:
   AnyServer()
      : path_( folder_ / "socket" ), server_( Live::Varlink::listeningSocket( path_ ), {},
                                              { .received = 100000, .nesting = 10 } ) {
      using namespace Live::Protocol;
      server_.interfaceIs(
         { std::string( Live::interfaceName ),
           "",
           { method< Join >( "Join" ), method< Declare >( "Declare" ), method< Report >( "Report" ),
             method< Leave >( "Leave" ), method< Watch >( "Watch" ), method< Wait >( "Wait" ),
             method< Status >( "Status" ), method< Explain >( "Explain" ), method< Log >( "Log" ),
             method< Enable >( "Enable" ) } } );
   }

   // Says the bytes, in two pieces, and goes. How many calls were answered with what they asked.
   int say( std::string_view bytes ) {
      answered_ = 0;
      {
         RawPeer peer( path_ );
         std::size_t const half = bytes.size() / 2;
         if( peer.writeAll( bytes.substr( 0, half ) ) && peer.writeAll( bytes.substr( half ) ) )
            while( peer.hear() ) {
            }
      }
      turn();
      if( server_.connections() != 0 )
         std::abort();
      return answered_;
   }

 private:
   template< class Asked >
   Live::Varlink::Method method( char const * name ) {
      return { name, [ this ]( auto const & call ) {
                 Live::Protocol::answerOrRefuse( call, [ & ] {
                    auto const asked = Live::Protocol::decoded< Asked >( call->parameters() );
                    Json const again = encoded( asked );
                    if( !( Live::Protocol::decoded< Asked >( again ) == asked ) )
                       std::abort();
                    ++answered_;
                    if( call->more() )
                       call->replyMore( again );
                    call->reply( again );
                 } );
              } };
   }

   Folder folder_;
   std::string const path_;
   int answered_ = 0;
   Live::Varlink::Server server_;
};

} // namespace LiveTest
