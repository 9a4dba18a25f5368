// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// New connections of a socket that listens, on the activity's loop.
#pragma once

#include <live/Varlink.h>
#include <live/detail/Stream.h>

#include <functional>

namespace Live::detail {

// Accepts whatever comes. When the system has no descriptor, or no memory, for another connection,
// it stops asking, since the socket would stay ready for ever; it tries again ten times a second,
// and when it is told that one has become free. That time is the real one, by a descriptor of its
// own: the activity's clock may be one that stands still.
class Accept {
 public:
   // Takes the socket over. Throws std::system_error.
   Accept( int listening, std::function< void( Descriptor ) > take );
   ~Accept();
   Accept( Accept const & ) = delete;
   Accept & operator=( Accept const & ) = delete;

   // A descriptor was closed.
   void retry();

 private:
   void ready();
   void watch();
   void pause();

   Descriptor listening_;
   Descriptor timer_;
   std::function< void( Descriptor ) > const take_;
   bool watched_ = false;
};

// Who is at the other end. Throws std::system_error.
Varlink::Peer peerOf( int fd );

} // namespace Live::detail
