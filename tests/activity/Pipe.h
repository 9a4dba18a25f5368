// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// A pipe that closes itself.
#pragma once

#include <array>
#include <system_error>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace activity {

class Pipe {
 public:
   Pipe() {
      if( ::pipe2( ends_.data(), O_NONBLOCK | O_CLOEXEC ) != 0 )
         throw std::system_error( errno, std::generic_category(), "pipe2" );
   }
   ~Pipe() {
      closeReading();
      closeWriting();
   }
   Pipe( Pipe const & ) = delete;
   Pipe & operator=( Pipe const & ) = delete;

   int reading() const { return ends_[ 0 ]; }
   int writing() const { return ends_[ 1 ]; }
   void closeReading() { closeEnd( 0 ); }
   void closeWriting() { closeEnd( 1 ); }

   bool put() const { return ::write( writing(), "x", 1 ) == 1; }
   // False when there was nothing.
   bool take() const {
      char c;
      return ::read( reading(), &c, 1 ) == 1;
   }

 private:
   void closeEnd( std::size_t end ) {
      if( ends_[ end ] >= 0 )
         ::close( ends_[ end ] );
      ends_[ end ] = -1;
   }
   std::array< int, 2 > ends_{};
};

// Whether the descriptor is readable within some milliseconds.
inline bool readable( int fd, int milliseconds = 0 ) {
   pollfd p{ fd, POLLIN, 0 };
   return ::poll( &p, 1, milliseconds ) == 1 && ( p.revents & POLLIN ) != 0;
}

} // namespace activity
