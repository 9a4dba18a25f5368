// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// How a trace file comes to stand at its path: complete, locked, and without loss of an older one.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace Flitlog::detail {

// A descriptor that closes itself.
class Descriptor {
 public:
   explicit Descriptor( int fd = -1 ) : fd_( fd ) {}
   ~Descriptor() { close(); }
   Descriptor( Descriptor && other ) noexcept : fd_( other.fd_ ) { other.fd_ = -1; }
   Descriptor & operator=( Descriptor && other ) noexcept {
      if( this != &other ) {
         close();
         fd_ = other.fd_;
         other.fd_ = -1;
      }
      return *this;
   }
   int get() const { return fd_; }
   explicit operator bool() const { return fd_ >= 0; }
   void close();

 private:
   int fd_;
};

// "PATH: WHAT", with the text of errno when `error` is not 0.
[[noreturn]] void fail( std::string const & path, std::string const & what, int error = 0 );

// Makes a file of so many bytes, all of them allocated, has `fill` write its first contents through
// the descriptor, and gives it the path. The descriptor is open for reading and writing and holds
// the writer's lock. Throws FileError, and leaves no file behind.
Descriptor create( std::string const & path, std::uint64_t bytes,
                   std::function< void( int fd ) > const & fill );

// Whether a process has the file open as its writer. The descriptor may be read-only.
bool hasWriter( int fd );

} // namespace Flitlog::detail
