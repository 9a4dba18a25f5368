// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <live/detail/Stream.h>

#include <array>
#include <cerrno>

#include <sys/socket.h>

namespace Live::detail {

void Stream::receive() {
   std::array< char, 65536 > bytes;
   ssize_t count;
   do
      count = ::recv( fd_.get(), bytes.data(), bytes.size(), MSG_DONTWAIT );
   while( count < 0 && errno == EINTR );
   if( count > 0 )
      in_.append( { bytes.data(), static_cast< std::size_t >( count ) } );
   else if( count == 0 )
      ended_ = true;
   else if( errno != EAGAIN && errno != ENOMEM && errno != ENOBUFS ) {
      // Reset: the peer was closed before it had read everything. What it sent came before this.
      ended_ = true;
      goneIs();
   }
}

void Stream::goneIs() {
   gone_ = true;
   out_ = {};
   sent_ = 0;
}

void Stream::append( std::string_view message ) {
   if( gone_ )
      return;
   if( sent_ != 0 && sent_ >= out_.size() / 2 ) {
      out_.erase( 0, sent_ );
      sent_ = 0;
   }
   out_.reserve( out_.size() + message.size() + 1 ); // both or nothing
   out_.append( message );
   out_.push_back( '\0' );
}

void Stream::flush() {
   while( unsent() != 0 ) {
      ssize_t const count =
         ::send( fd_.get(), out_.data() + sent_, unsent(), MSG_DONTWAIT | MSG_NOSIGNAL );
      if( count >= 0 ) {
         sent_ += static_cast< std::size_t >( count );
         continue;
      }
      if( errno == EINTR )
         continue;
      if( errno != EAGAIN && errno != ENOMEM && errno != ENOBUFS )
         goneIs();
      return;
   }
   // A large buffer is given back, a small one is kept for the next message.
   out_.clear();
   sent_ = 0;
   if( out_.capacity() > 65536 )
      out_ = {};
}

} // namespace Live::detail
