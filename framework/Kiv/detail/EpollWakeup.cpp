// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Kiv/detail/EpollWakeup.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <ctime>
#include <system_error>

#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

namespace Kiv::detail {

namespace {

[[noreturn]] void fail( char const * what ) {
   throw std::system_error( errno, std::generic_category(), what );
}

// A descriptor that closes itself.
class Descriptor {
 public:
   Descriptor( int fd, char const * what ) : fd_( fd ) {
      if( fd < 0 )
         fail( what );
   }
   ~Descriptor() { ::close( fd_ ); }
   Descriptor( Descriptor const & ) = delete;
   Descriptor & operator=( Descriptor const & ) = delete;
   int get() const { return fd_; }

 private:
   int fd_;
};

// Both descriptors of its own are watched for changes (EPOLLET): once wait() has told of one it is
// not told of again until it is written to, or rings, anew. So nothing has to be read from them.
// Whoever watches descriptor() still finds it readable for as long as wait() has not looked.
class EpollWakeup : public Wakeup {
 public:
   EpollWakeup()
      : epoll_( epoll_create1( EPOLL_CLOEXEC ), "epoll_create1" ),
        event_( eventfd( 0, EFD_CLOEXEC | EFD_NONBLOCK ), "eventfd" ),
        timer_( timerfd_create( CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK ), "timerfd_create" ) {
      watch( event_.get(), EPOLLIN | EPOLLET, EPOLL_CTL_ADD );
      watch( timer_.get(), EPOLLIN | EPOLLET, EPOLL_CTL_ADD );
   }

   int descriptor() const override { return epoll_.get(); }

   void wake() noexcept override {
      std::uint64_t const one = 1;
      // The only failure is a counter at its limit, which nobody lives to see.
      [[maybe_unused]] auto const written = ::write( event_.get(), &one, sizeof one );
   }

   void alarmIs( double delay ) override {
      // A longer delay than some thirty years is none.
      if( !( delay < 1e9 ) ) {
         if( alarm_ != none )
            set( none );
         return;
      }
      // Up to the next nanosecond, and never 0, which would disarm.
      auto const nanoseconds =
         static_cast< std::int64_t >( std::fmax( 1.0, std::ceil( delay * 1e9 ) ) );
      std::int64_t const now = monotonic();
      std::int64_t const wanted = now + nanoseconds;
      // The one that is set already will do if it is to ring, and no more too early than delays are
      // exact: the same time again, most often. The loop looks what is due when it rings.
      if( alarm_ <= now || alarm_ > wanted || alarm_ < wanted - exactness )
         set( wanted );
   }

   void watchIs( int fd, unsigned events ) override {
      if( events == 0 ) {
         epoll_ctl( epoll_.get(), EPOLL_CTL_DEL, fd, nullptr ); // closed already: gone as well
         return;
      }
      // poll(2)'s and epoll's event bits have the same values on Linux.
      static_assert( POLLIN == EPOLLIN && POLLOUT == EPOLLOUT && POLLPRI == EPOLLPRI );
      static_assert( POLLERR == EPOLLERR && POLLHUP == EPOLLHUP );
      // The kernel knows what is watched. A list of our own could not be kept in step with it when
      // memory is short, or when a descriptor was closed and its number given to another.
      if( !changed( fd, events ) )
         watch( fd, events, EPOLL_CTL_ADD );
   }

   std::size_t wait( bool block, std::span< Ready > ready ) override {
      std::array< epoll_event, 64 > events;
      int const room = static_cast< int >( std::min( events.size(), ready.size() ) );
      int const count = epoll_wait( epoll_.get(), events.data(), room, block ? -1 : 0 );
      std::size_t found = 0;
      if( count < 0 ) {
         if( errno == EINTR )
            return found;
         fail( "epoll_wait" );
      }
      for( int i = 0; i != count; ++i ) {
         int const fd = events[ static_cast< std::size_t >( i ) ].data.fd;
         if( fd == timer_.get() )
            alarm_ = none;
         else if( fd != event_.get() )
            ready[ found++ ] = { fd, events[ static_cast< std::size_t >( i ) ].events };
      }
      return found;
   }

 private:
   static constexpr std::int64_t none = 0;
   static constexpr std::int64_t exactness = 1000;

   static std::int64_t monotonic() {
      timespec time{};
      clock_gettime( CLOCK_MONOTONIC, &time );
      return std::int64_t{ time.tv_sec } * 1'000'000'000 + time.tv_nsec;
   }
   void set( std::int64_t alarm ) {
      itimerspec when{};
      when.it_value.tv_sec = static_cast< time_t >( alarm / 1'000'000'000 );
      when.it_value.tv_nsec = static_cast< long >( alarm % 1'000'000'000 );
      if( timerfd_settime( timer_.get(), TFD_TIMER_ABSTIME, &when, nullptr ) != 0 )
         fail( "timerfd_settime" );
      alarm_ = alarm;
   }
   bool control( int fd, unsigned events, int operation ) {
      epoll_event event{};
      event.events = events;
      event.data.fd = fd;
      return epoll_ctl( epoll_.get(), operation, fd, &event ) == 0;
   }
   void watch( int fd, unsigned events, int operation ) {
      if( !control( fd, events, operation ) )
         fail( "epoll_ctl" );
   }
   // False for one that is not watched.
   bool changed( int fd, unsigned events ) {
      if( control( fd, events, EPOLL_CTL_MOD ) )
         return true;
      if( errno != ENOENT )
         fail( "epoll_ctl" );
      return false;
   }

   Descriptor epoll_;
   Descriptor event_;
   Descriptor timer_;
   std::int64_t alarm_ = none; // when it rings, in nanoseconds, unless it has been seen to
};

} // namespace

std::unique_ptr< Wakeup > newEpollWakeup() { return std::make_unique< EpollWakeup >(); }

} // namespace Kiv::detail
