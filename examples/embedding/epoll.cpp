// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The start-up inside a loop around epoll(7).
#include "startup.h"

#include <sys/epoll.h>

void watch( int epoll, int fd ) {
   epoll_event wanted{};
   wanted.events = EPOLLIN; // level-triggered: told again as long as there is something to do
   wanted.data.fd = fd;
   if( ::epoll_ctl( epoll, EPOLL_CTL_ADD, fd, &wanted ) != 0 )
      throw std::system_error( errno, std::generic_category(), "epoll_ctl" );
}

int main() {
   StartUp startUp;
   auto const & manager = Kiv::activityManager();
   int const epoll = ::epoll_create1( EPOLL_CLOEXEC );
   watch( epoll, manager->descriptor() );
   watch( epoll, startUp.routing().descriptor() );
   while( !startUp.complete() ) {
      epoll_event ready{};
      if( ::epoll_wait( epoll, &ready, 1, -1 ) != 1 )
         continue; // a signal
      if( ready.data.fd == manager->descriptor() )
         manager->runDue( 4 ); // what is left keeps the descriptor readable
      else
         startUp.routing().answered();
   }
   ::close( epoll );
   std::puts( "Everything is up" );
}
