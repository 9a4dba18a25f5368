// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The start-up inside libuv's loop.
#include "startup.h"

#include <uv.h>

// Calls a function whenever a descriptor is readable; libuv does not close it.
class Watch {
 public:
   Watch( uv_loop_t * loop, int fd, std::function< void() > ready ) : ready_( std::move( ready ) ) {
      uv_poll_init( loop, &poll_, fd );
      poll_.data = this;
      uv_poll_start( &poll_, UV_READABLE, []( uv_poll_t * poll, int, int ) {
         static_cast< Watch * >( poll->data )->ready_();
      } );
   }
   // The loop ends when nothing is watched any more.
   void end() { uv_close( reinterpret_cast< uv_handle_t * >( &poll_ ), nullptr ); }

 private:
   uv_poll_t poll_{};
   std::function< void() > const ready_;
};

int main() {
   StartUp startUp;
   auto const & manager = Kiv::activityManager();
   uv_loop_t * const loop = uv_default_loop();
   Watch answer( loop, startUp.routing().descriptor(), [ & ] { startUp.routing().answered(); } );
   Watch due( loop, manager->descriptor(), [ & ] {
      manager->runDue();
      if( startUp.complete() ) {
         answer.end();
         due.end();
      }
   } );
   uv_run( loop, UV_RUN_DEFAULT );
   uv_loop_close( loop );
   std::puts( "Everything is up" );
}
