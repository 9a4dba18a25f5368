// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <live/detail/Accept.h>

#include <Kiv/Activity.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <system_error>
#include <utility>

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <sys/un.h>

namespace Live {

namespace {

constexpr long pauseNanoseconds = 100'000'000;
// How many are accepted before others have their turn.
constexpr int acceptedAtOnce = 64;

[[noreturn]] void fail( int error, std::string const & what ) {
   throw std::system_error( error, std::generic_category(), what );
}

// Rings again and again, or not at all.
void ringIs( int timer, bool rings ) {
   itimerspec when{};
   when.it_value.tv_nsec = when.it_interval.tv_nsec = rings ? pauseNanoseconds : 0;
   ::timerfd_settime( timer, 0, &when, nullptr );
}

} // namespace

namespace detail {

Accept::Accept( int listening, std::function< void( Descriptor ) > take )
   : listening_( listening ),
     timer_( ::timerfd_create( CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK ) ),
     take_( std::move( take ) ) {
   if( timer_.get() < 0 )
      fail( errno, "timerfd_create" );
   watch();
   try {
      Kiv::activityManager()->descriptorIs( timer_.get(), POLLIN, [ this ]( unsigned ) {
         std::uint64_t times;
         [[maybe_unused]] auto const taken = ::read( timer_.get(), &times, sizeof times );
         retry();
      } );
   } catch( ... ) {
      Kiv::activityManager()->descriptorDel( listening_.get() );
      throw;
   }
}

Accept::~Accept() {
   Kiv::activityManager()->descriptorDel( timer_.get() );
   Kiv::activityManager()->descriptorDel( listening_.get() );
}

void Accept::retry() {
   if( watched_ )
      return;
   try {
      watch();
      ringIs( timer_.get(), false );
   } catch( std::exception const & ) {
      // It rings again.
   }
}

void Accept::watch() {
   Kiv::activityManager()->descriptorIs( listening_.get(), POLLIN,
                                         [ this ]( unsigned ) { ready(); } );
   watched_ = true;
}

void Accept::pause() {
   watched_ = false;
   Kiv::activityManager()->descriptorDel( listening_.get() );
   ringIs( timer_.get(), true );
}

void Accept::ready() {
   for( int i = 0; i != acceptedAtOnce; ++i ) {
      Descriptor fd(
         ::accept4( listening_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK ) );
      if( fd.get() >= 0 ) {
         take_( std::move( fd ) );
         continue;
      }
      if( errno == EINTR || errno == ECONNABORTED )
         continue;
      if( errno != EAGAIN )
         pause();
      return;
   }
}

Varlink::Peer peerOf( int fd ) {
   ucred who{};
   socklen_t size = sizeof who;
   if( ::getsockopt( fd, SOL_SOCKET, SO_PEERCRED, &who, &size ) != 0 )
      fail( errno, "SO_PEERCRED" );
   return { who.pid, who.uid, who.gid };
}

} // namespace detail

namespace Varlink {

int listeningSocket( std::string const & path, mode_t mode ) {
   sockaddr_un address{};
   address.sun_family = AF_UNIX;
   if( path.empty() || path.size() >= sizeof address.sun_path )
      fail( path.empty() ? ENOENT : ENAMETOOLONG, path );
   std::memcpy( address.sun_path, path.data(), path.size() );
   detail::Descriptor fd( ::socket( AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0 ) );
   if( fd.get() < 0 )
      fail( errno, "socket" );
   // The file begins with the rights of the descriptor, less the process's mask, so that it never
   // has more than these; nobody can connect before listen() anyway.
   ::fchmod( fd.get(), mode );
   if( ::bind( fd.get(), reinterpret_cast< sockaddr const * >( &address ), sizeof address ) != 0 )
      fail( errno, path );
   if( ::chmod( path.c_str(), mode ) != 0 || ::listen( fd.get(), SOMAXCONN ) != 0 ) {
      int const error = errno;
      ::unlink( path.c_str() );
      fail( error, path );
   }
   return fd.release();
}

} // namespace Varlink
} // namespace Live
