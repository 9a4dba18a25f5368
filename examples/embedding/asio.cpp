// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The start-up inside asio's loop.
#include "startup.h"

#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>

// Calls a function whenever a descriptor is readable.
class Watch {
 public:
   Watch( asio::io_context & context, int fd, std::function< void() > ready )
      : descriptor_( context, fd ), ready_( std::move( ready ) ) {
      wait();
   }
   // The descriptor is somebody else's, and asio would close it.
   ~Watch() { descriptor_.release(); }
   Watch( Watch const & ) = delete;
   Watch & operator=( Watch const & ) = delete;

 private:
   void wait() {
      descriptor_.async_wait( descriptor_.wait_read, [ this ]( std::error_code const & error ) {
         if( error )
            return;
         ready_();
         wait(); // told at once if something is left to do
      } );
   }

   asio::posix::stream_descriptor descriptor_;
   std::function< void() > const ready_;
};

int main() {
   StartUp startUp;
   auto const & manager = Kiv::activityManager();
   asio::io_context context;
   Watch const answer( context, startUp.routing().descriptor(),
                       [ & ] { startUp.routing().answered(); } );
   Watch const due( context, manager->descriptor(), [ & ] {
      manager->runDue( 4 ); // whatever else the context has gets its turn in between
      if( startUp.complete() )
         context.stop();
   } );
   context.run();
   std::puts( "Everything is up" );
}
