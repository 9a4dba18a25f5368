// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The start-up inside a loop around poll(2).
#include "startup.h"

#include <algorithm>
#include <cmath>

#include <poll.h>

// How long poll() may sleep, in milliseconds: rounded up, so that it does not wake in vain just
// before the time; -1 for ever.
int untilNextTime() {
   double const time = Kiv::activityManager()->nextTime(); // absolute, infinite for no timer
   double const left = std::ceil( ( time - Kiv::now() ) * 1000 );
   return std::isinf( left ) ? -1 : static_cast< int >( std::clamp( left, 0.0, 3600e3 ) );
}

int main() {
   StartUp startUp;
   auto const & manager = Kiv::activityManager();
   std::array< pollfd, 2 > watched{
      { { manager->descriptor(), POLLIN, 0 }, { startUp.routing().descriptor(), POLLIN, 0 } } };
   while( !startUp.complete() ) {
      if( ::poll( watched.data(), watched.size(), untilNextTime() ) < 0 ) {
         if( errno == EINTR )
            continue;
         std::perror( "poll" );
         return 1;
      }
      if( watched[ 1 ].revents != 0 )
         startUp.routing().answered();
      manager->runDue();
   }
   std::puts( "Everything is up" );
}
