// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// A socket of its own for a test, a peer that writes whatever bytes it likes, and the loop by hand.
#pragma once

#include <live/Varlink.h>
#include <live/detail/Stream.h>

#include <Kiv/Activity.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace LiveTest {

using Live::Json;

// A new folder, removed with all that is in it.
class Folder {
 public:
   Folder() {
      std::string name = std::filesystem::temp_directory_path() / "live-XXXXXX";
      if( !::mkdtemp( name.data() ) )
         throw std::system_error( errno, std::generic_category(), name );
      path_ = name;
   }
   ~Folder() { std::filesystem::remove_all( path_ ); }
   Folder( Folder const & ) = delete;
   Folder & operator=( Folder const & ) = delete;
   std::string operator/( std::string const & name ) const { return path_ + "/" + name; }

 private:
   std::string path_;
};

// Everything that is ready now, and what that makes ready. A loop that never comes to rest is a
// mistake of the code that is tested.
inline void turn() {
   for( int turns = 0; Kiv::activityManager()->runDue() != 0; )
      if( ++turns == 100000 )
         throw std::runtime_error( "the loop never comes to rest" );
}

inline std::size_t openDescriptors() {
   std::filesystem::directory_iterator const all( "/proc/self/fd" );
   return static_cast< std::size_t >( std::distance( begin( all ), end( all ) ) );
}

// The other end, without any of the code that is tested.
class RawPeer {
 public:
   explicit RawPeer( std::string const & path )
      : fd_( ::socket( AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0 ) ) {
      sockaddr_un address{};
      address.sun_family = AF_UNIX;
      std::memcpy( address.sun_path, path.data(), path.size() );
      connected_ =
         ::connect( fd_, reinterpret_cast< sockaddr const * >( &address ), sizeof address ) == 0;
   }
   ~RawPeer() { close(); }
   RawPeer( RawPeer && other ) noexcept
      : fd_( std::exchange( other.fd_, -1 ) ), connected_( other.connected_ ),
        bytes_( std::move( other.bytes_ ) ) {}
   RawPeer & operator=( RawPeer && other ) noexcept {
      std::swap( fd_, other.fd_ );
      std::swap( connected_, other.connected_ );
      std::swap( bytes_, other.bytes_ );
      return *this;
   }

   int fd() const { return fd_; }
   bool connected() const { return connected_; }
   void close() {
      if( fd_ >= 0 )
         ::close( std::exchange( fd_, -1 ) );
   }
   void end() { ::shutdown( fd_, SHUT_WR ); }

   // As much as the socket takes without waiting; how much.
   std::size_t write( std::string_view bytes ) {
      ssize_t const count = ::send( fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT );
      return count < 0 ? 0 : static_cast< std::size_t >( count );
   }
   // All of it, with the server reading meanwhile; false when it has closed the connection.
   bool writeAll( std::string_view bytes ) {
      while( !bytes.empty() ) {
         std::size_t const count = write( bytes );
         if( count == 0 && errno != EAGAIN )
            return false;
         bytes.remove_prefix( count );
         turn();
      }
      return true;
   }
   bool say( Json const & message ) { return writeAll( message.dump() + std::string( 1, '\0' ) ); }

   // Reads once what is there; false at the end.
   bool read() {
      char bytes[ 65536 ];
      ssize_t const count = ::recv( fd_, bytes, sizeof bytes, MSG_DONTWAIT );
      if( count > 0 )
         bytes_.append( bytes, static_cast< std::size_t >( count ) );
      return count > 0 || ( count < 0 && errno == EAGAIN );
   }
   // The next message that is there, or comes when the server runs.
   std::optional< Json > hear() {
      for( int tries = 0; tries != 1000; ++tries ) {
         if( auto const end = bytes_.find( '\0' ); end != std::string::npos ) {
            Json message = Json::parse( bytes_.substr( 0, end ) );
            bytes_.erase( 0, end + 1 );
            return message;
         }
         turn();
         std::size_t const before = bytes_.size();
         if( !read() || before == bytes_.size() )
            return std::nullopt;
      }
      return std::nullopt;
   }
   std::optional< Json > ask( Json const & message ) {
      if( !say( message ) )
         return std::nullopt;
      return hear();
   }
   // The server has ended the connection, and all that it said has been read.
   bool closedByOther() {
      turn();
      for( int tries = 0; tries != 10000; ++tries ) {
         std::size_t const before = bytes_.size();
         if( !read() )
            return true;
         if( before == bytes_.size() )
            return false;
         turn();
      }
      return false;
   }
   std::string const & unheard() const { return bytes_; }

 private:
   int fd_;
   bool connected_;
   std::string bytes_;
};

} // namespace LiveTest
