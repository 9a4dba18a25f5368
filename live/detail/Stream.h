// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// One end of a connected Unix stream socket: messages in, messages out, never blocking.
#pragma once

#include <live/detail/Frames.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

#include <unistd.h>

namespace Live::detail {

// A descriptor that closes itself.
class Descriptor {
 public:
   explicit Descriptor( int fd = -1 ) : fd_( fd ) {}
   Descriptor( Descriptor && other ) noexcept : fd_( std::exchange( other.fd_, -1 ) ) {}
   Descriptor & operator=( Descriptor && other ) noexcept {
      std::swap( fd_, other.fd_ );
      return *this;
   }
   ~Descriptor() { reset(); }
   int get() const { return fd_; }
   int release() { return std::exchange( fd_, -1 ); }
   void reset() {
      if( fd_ >= 0 )
         ::close( std::exchange( fd_, -1 ) );
   }

 private:
   int fd_;
};

// Not watched by anybody: its owner asks for what it waits for and calls when that is there.
class Stream {
 public:
   // Takes the socket over. `received` bytes are the limit of a message that comes in.
   Stream( Descriptor fd, std::size_t received ) : fd_( std::move( fd ) ), in_( received ) {}

   int descriptor() const { return fd_.get(); }
   Frames & in() { return in_; }
   Frames const & in() const { return in_; }

   // Reads once. Descriptors that the peer has passed along are closed by the kernel, which finds
   // no room given for them; none ever becomes one of ours.
   void receive();
   // The peer has said all it will say. What it said before is in in().
   bool ended() const { return ended_; }
   // The peer reads no more. What is still sent goes nowhere.
   bool gone() const { return gone_; }
   void goneIs();

   // A message, without its zero byte, behind those that wait to be sent.
   void append( std::string_view message );
   // Sends what the socket takes.
   void flush();
   std::size_t unsent() const { return out_.size() - sent_; }

   void close() { fd_.reset(); }

 private:
   Descriptor fd_;
   Frames in_;
   std::string out_;
   std::size_t sent_ = 0; // bytes at the front of out_ that were
   bool ended_ = false;
   bool gone_ = false;
};

} // namespace Live::detail
