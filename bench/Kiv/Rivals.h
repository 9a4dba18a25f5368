// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Loops of others, as far as they are installed: libuv (BENCH_UV) and libevent (BENCH_EVENT).
#pragma once

#ifdef BENCH_UV
#include <uv.h>

#include <memory>
#include <vector>

namespace Bench {

// A loop with timers that are armed for a time that does not come.
class UvLoop {
 public:
   UvLoop() { uv_loop_init( &loop_ ); }
   ~UvLoop() {
      uv_walk(
         &loop_, []( uv_handle_t * handle, void * ) { uv_close( handle, nullptr ); }, nullptr );
      uv_run( &loop_, UV_RUN_DEFAULT );
      uv_loop_close( &loop_ );
   }
   UvLoop( UvLoop const & ) = delete;
   UvLoop & operator=( UvLoop const & ) = delete;

   uv_timer_t & timer() {
      timers_.push_back( std::make_unique< uv_timer_t >() );
      uv_timer_init( &loop_, timers_.back().get() );
      return *timers_.back();
   }
   uv_loop_t * get() { return &loop_; }
   void turn() { uv_run( &loop_, UV_RUN_NOWAIT ); }

 private:
   uv_loop_t loop_{};
   std::vector< std::unique_ptr< uv_timer_t > > timers_;
};

} // namespace Bench
#endif

#ifdef BENCH_EVENT
#include <event2/event.h>

#include <vector>

namespace Bench {

class EventLoop {
 public:
   EventLoop() : base_( event_base_new() ) {}
   ~EventLoop() {
      for( event * e : events_ )
         event_free( e );
      event_base_free( base_ );
   }
   EventLoop( EventLoop const & ) = delete;
   EventLoop & operator=( EventLoop const & ) = delete;

   // `fd`: -1 for a timer.
   event * made( int fd, short what, event_callback_fn call, void * argument ) {
      events_.push_back( event_new( base_, fd, what, call, argument ) );
      return events_.back();
   }
   void turn() { event_base_loop( base_, EVLOOP_NONBLOCK ); }

 private:
   event_base * base_;
   std::vector< event * > events_;
};

// In microseconds from now.
inline void arm( event * timer, std::uint64_t delay ) {
   timeval const time{ static_cast< time_t >( delay / 1000000 ),
                       static_cast< suseconds_t >( delay % 1000000 ) };
   event_add( timer, &time );
}

} // namespace Bench
#endif
