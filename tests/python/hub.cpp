// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// hub SOCKET STARTUP: a hub for the tests of the Python package. Says "ready" when it listens, and
// runs until it is killed.
#include <live/Hub.h>

#include <cstdio>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

int main( int count, char ** arguments ) {
   sockaddr_un address{};
   if( count != 3 || std::strlen( arguments[ 1 ] ) >= sizeof address.sun_path )
      return 2;
   address.sun_family = AF_UNIX;
   std::strcpy( address.sun_path, arguments[ 1 ] );
   unlink( arguments[ 1 ] );
   int listening = socket( AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0 );
   if( bind( listening, reinterpret_cast< sockaddr * >( &address ), sizeof address ) != 0 ||
       listen( listening, 100 ) != 0 )
      return 1;
   Live::HubOptions options;
   options.application = "Tests";
   options.startup = arguments[ 2 ];
   Live::Hub hub( listening, options );
   std::puts( "ready" );
   std::fflush( stdout );
   hub.run();
}
