// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The loop: tasks posted from its own thread and from another one, and turns of it that find
// nothing or one thing.
#include <Kiv/Kiv.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <semaphore>
#include <span>
#include <thread>
#include <vector>

#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <Rivals.h>
#include <support/Rows.h>

namespace Bench {

namespace {

constexpr int posts = 1000;
constexpr int turns = 100;

using Task = std::function< void() >;

double seconds() {
   using namespace std::chrono;
   return duration< double >( steady_clock::now().time_since_epoch() ).count();
}

Kiv::ActivityManager & manager() { return *Kiv::activityManager(); }

// ---- by hand

// Descriptors that a loop by hand sleeps on.
class Epoll {
 public:
   Epoll() { watch( wake_ ); }
   ~Epoll() {
      close( wake_ );
      close( epoll_ );
   }
   Epoll( Epoll const & ) = delete;
   Epoll & operator=( Epoll const & ) = delete;

   void watch( int fd ) const {
      epoll_event event{};
      event.events = EPOLLIN;
      event.data.fd = fd;
      epoll_ctl( epoll_, EPOLL_CTL_ADD, fd, &event );
   }
   void wake() const { eventfd_write( wake_, 1 ); }
   // Calls `ready` for each descriptor that is.
   template< class Ready >
   void wait( bool block, Ready ready ) const {
      epoll_event events[ 64 ];
      int const count = epoll_wait( epoll_, events, 64, block ? -1 : 0 );
      for( int i = 0; i < count; ++i ) {
         if( events[ i ].data.fd == wake_ ) {
            eventfd_t times;
            eventfd_read( wake_, &times );
         } else {
            ready( events[ i ].data.fd );
         }
      }
   }

 private:
   int const epoll_ = epoll_create1( EPOLL_CLOEXEC );
   int const wake_ = eventfd( 0, EFD_CLOEXEC | EFD_NONBLOCK );
};

// First in, first out; doubles when it is full.
class Ring {
 public:
   void push( Task task ) {
      if( end_ - begin_ == tasks_.size() )
         grow();
      tasks_[ end_++ & ( tasks_.size() - 1 ) ] = std::move( task );
   }
   bool empty() const { return begin_ == end_; }
   void runFirst() {
      Task const task = std::move( tasks_[ begin_++ & ( tasks_.size() - 1 ) ] );
      task();
   }

 private:
   void grow() {
      std::vector< Task > larger( 2 * tasks_.size() );
      for( std::size_t i = begin_; i != end_; ++i )
         larger[ i & ( larger.size() - 1 ) ] = std::move( tasks_[ i & ( tasks_.size() - 1 ) ] );
      tasks_ = std::move( larger );
   }
   std::vector< Task > tasks_ = std::vector< Task >( 64 );
   std::size_t begin_ = 0;
   std::size_t end_ = 0;
};

// A loop with an inbox for other threads, which wakes only when it is asleep and something comes
// into an empty inbox.
class Inbox {
 public:
   void post( Task task ) {
      std::lock_guard const lock( mutex_ );
      bool const first = inbox_.empty();
      inbox_.push( std::move( task ) );
      if( first && asleep_ )
         epoll_.wake();
   }
   void stop() { stopped_ = true; }
   void run() {
      stopped_ = false;
      for( ;; ) {
         bool block = false;
         {
            std::lock_guard const lock( mutex_ );
            std::swap( inbox_, taken_ );
            block = asleep_ = taken_.empty();
         }
         while( !taken_.empty() && !stopped_ )
            taken_.runFirst();
         if( stopped_ )
            return;
         epoll_.wait( block, []( int ) {} );
         std::lock_guard const lock( mutex_ );
         asleep_ = false;
      }
   }

 private:
   std::mutex mutex_;
   Ring inbox_;
   bool asleep_ = false;
   Ring taken_;
   Epoll epoll_;
   bool stopped_ = false;
};

// ---- posts

void fromTheOwnThread( Rows const & rows ) {
   auto const count = std::make_shared< std::uint64_t >( 0 );
   rows.measure( "post from the own thread", posts, [ & ]( Row & row ) {
      row.addTimed( "post()", 0, [ count ] {
         Kiv::ActivityManager & m = manager();
         double const begin = seconds();
         for( int i = 0; i != posts; ++i )
            m.post( [ c = count.get() ] { ++*c; } );
         double const spent = seconds() - begin;
         m.runDue();
         return spent;
      } );
      auto const ring = std::make_shared< Ring >();
      row.addTimed( "ring by hand", 0, [ count, ring ] {
         double const begin = seconds();
         for( int i = 0; i != posts; ++i )
            ring->push( [ c = count.get() ] { ++*c; } );
         double const spent = seconds() - begin;
         while( !ring->empty() )
            ring->runFirst();
         return spent;
      } );
   } );
   rows.measure( "post from the own thread, and run", posts, [ & ]( Row & row ) {
      row.add( "post()", 0, [ count ] {
         Kiv::ActivityManager & m = manager();
         for( int i = 0; i != posts; ++i )
            m.post( [ c = count.get() ] { ++*c; } );
         m.runDue();
      } );
      auto const ring = std::make_shared< Ring >();
      auto const epoll = std::make_shared< Epoll >();
      row.add( "ring by hand", 0, [ count, ring, epoll ] {
         for( int i = 0; i != posts; ++i )
            ring->push( [ c = count.get() ] { ++*c; } );
         epoll->wait( false, []( int ) {} );
         while( !ring->empty() )
            ring->runFirst();
      } );
   } );
}

// A task that posts the next one: no two are ever in the inbox.
void oneAfterTheOther( Rows const & rows ) {
   struct Chain {
      int left = 0;
      void next() {
         if( --left != 0 )
            manager().post( [ this ] { next(); } );
         else
            manager().stop();
      }
   };
   struct PlainChain {
      Inbox inbox;
      int left = 0;
      void next() {
         if( --left != 0 )
            inbox.post( [ this ] { next(); } );
         else
            inbox.stop();
      }
   };
   rows.measure( "a task posts the next one", posts, []( Row & row ) {
      auto const chain = std::make_shared< Chain >();
      row.add( "post()", 0, [ chain ] {
         chain->left = posts;
         manager().post( [ c = chain.get() ] { c->next(); } );
         manager().run();
      } );
      auto const plain = std::make_shared< PlainChain >();
      row.add( "inbox by hand", 0, [ plain ] {
         plain->left = posts;
         plain->inbox.post( [ c = plain.get() ] { c->next(); } );
         plain->inbox.run();
      } );
   } );
}

// Another thread, which posts a batch when it is told to.
class Poster {
 public:
   explicit Poster( std::function< void() > batch )
      : thread_( [ this, batch = std::move( batch ) ] {
           for( ;; ) {
              begin_.acquire();
              if( ends_ )
                 return;
              double const start = seconds();
              batch();
              spent_ = seconds() - start;
              done_.release();
           }
        } ) {}
   ~Poster() {
      ends_ = true;
      begin_.release();
      thread_.join();
   }
   Poster( Poster const & ) = delete;
   Poster & operator=( Poster const & ) = delete;

   void begins() { begin_.release(); }
   // The seconds that it took.
   double ended() {
      done_.acquire();
      return spent_;
   }

 private:
   std::counting_semaphore<> begin_{ 0 };
   std::counting_semaphore<> done_{ 0 };
   bool ends_ = false;
   double spent_ = 0;
   std::thread thread_; // uses all of these
};

// The loop runs meanwhile, and sleeps when the batch begins. What the poster spends is measured;
// the last task ends the loop.
void fromAnotherThread( Rows const & rows ) {
   auto const count = std::make_shared< std::uint64_t >( 0 );
   rows.measure( "post from another thread", posts, [ & ]( Row & row ) {
      auto const poster = std::make_shared< Poster >( [ count ] {
         Kiv::ActivityManager & m = manager();
         for( int i = 1; i != posts; ++i )
            m.post( [ c = count.get() ] { ++*c; } );
         m.post( [] { manager().stop(); } );
      } );
      row.addTimed( "post()", 0, [ poster ] {
         poster->begins();
         manager().run();
         return poster->ended();
      } );
      auto const inbox = std::make_shared< Inbox >();
      auto const plain = std::make_shared< Poster >( [ inbox, count ] {
         for( int i = 1; i != posts; ++i )
            inbox->post( [ c = count.get() ] { ++*c; } );
         inbox->post( [ i = inbox.get() ] { i->stop(); } );
      } );
      row.addTimed( "inbox by hand", 0, [ plain, inbox ] {
         plain->begins();
         inbox->run();
         return plain->ended();
      } );
   } );
   // The same until all of them have run.
   rows.measure( "post from another thread, and run", posts, [ & ]( Row & row ) {
      auto const poster = std::make_shared< Poster >( [ count ] {
         Kiv::ActivityManager & m = manager();
         for( int i = 1; i != posts; ++i )
            m.post( [ c = count.get() ] { ++*c; } );
         m.post( [] { manager().stop(); } );
      } );
      row.add( "post()", 0, [ poster ] {
         poster->begins();
         manager().run();
         poster->ended();
      } );
      auto const inbox = std::make_shared< Inbox >();
      auto const plain = std::make_shared< Poster >( [ inbox, count ] {
         for( int i = 1; i != posts; ++i )
            inbox->post( [ c = count.get() ] { ++*c; } );
         inbox->post( [ i = inbox.get() ] { i->stop(); } );
      } );
      row.add( "inbox by hand", 0, [ plain, inbox ] {
         plain->begins();
         inbox->run();
         plain->ended();
      } );
   } );
}

// ---- turns

template< class Call >
auto times( Call call ) {
   return [ call ] {
      for( int i = 0; i != turns; ++i )
         call();
   };
}

void idleTurn( Rows const & rows, std::string const & what ) {
   rows.measure( what, turns, []( Row & row ) {
      row.add( "runDue()", 0, times( [] { manager().runDue(); } ) );
      auto const epoll = std::make_shared< Epoll >();
      row.add( "epoll by hand", 0, times( [ epoll ] { epoll->wait( false, []( int ) {} ); } ) );
#ifdef BENCH_UV
      auto const uv = std::make_shared< UvLoop >();
      row.add( "libuv", 0, times( [ uv ] { uv->turn(); } ) );
#endif
#ifdef BENCH_EVENT
      auto const event = std::make_shared< EventLoop >();
      // It does nothing at all when there is nothing that could happen.
      event->made(
         -1, 0, []( int, short, void * ) {}, nullptr );
      row.add( "libevent", 0, times( [ event ] { event->turn(); } ) );
#endif
   } );
}

// An eventfd that is ready, and read by whoever is told of it.
class Signal {
 public:
   Signal() = default;
   ~Signal() { close( fd ); }
   Signal( Signal const & ) = delete;
   Signal & operator=( Signal const & ) = delete;
   void raise() const { eventfd_write( fd, 1 ); }
   void take() const {
      eventfd_t times;
      eventfd_read( fd, &times );
   }
   int const fd = eventfd( 0, EFD_CLOEXEC | EFD_NONBLOCK );
};

// The write and the read of the descriptor are in all figures.
void descriptorTurn( Rows const & rows, std::string const & what ) {
   rows.measure( what, turns, []( Row & row ) {
      auto const signal = std::make_shared< Signal >();
      manager().descriptorIs( signal->fd, POLLIN, [ s = signal.get() ]( unsigned ) { s->take(); } );
      std::shared_ptr< void > const watched(
         nullptr, [ signal ]( void * ) { manager().descriptorDel( signal->fd ); } );
      row.add( "runDue()", 0, times( [ signal, watched ] {
                  signal->raise();
                  manager().runDue();
               } ) );
      auto const epoll = std::make_shared< Epoll >();
      auto const plain = std::make_shared< Signal >();
      epoll->watch( plain->fd );
      std::function< void( int ) > const told = [ s = plain.get() ]( int ) { s->take(); };
      row.add( "epoll by hand", 0, times( [ plain, epoll, told ] {
                  plain->raise();
                  epoll->wait( false, told );
               } ) );
#ifdef BENCH_UV
      auto const uv = std::make_shared< UvLoop >();
      auto const uvSignal = std::make_shared< Signal >();
      auto const poll = std::make_shared< uv_poll_t >();
      uv_poll_init( uv->get(), poll.get(), uvSignal->fd );
      poll->data = uvSignal.get();
      uv_poll_start( poll.get(), UV_READABLE, []( uv_poll_t * p, int, int ) {
         static_cast< Signal * >( p->data )->take();
      } );
      row.add( "libuv", 0, times( [ poll, uvSignal, uv ] {
                  uvSignal->raise();
                  uv->turn();
               } ) );
#endif
#ifdef BENCH_EVENT
      auto const event = std::make_shared< EventLoop >();
      auto const eventSignal = std::make_shared< Signal >();
      event_add( event->made(
                    eventSignal->fd, EV_READ | EV_PERSIST,
                    []( int, short, void * s ) { static_cast< Signal * >( s )->take(); },
                    eventSignal.get() ),
                 nullptr );
      row.add( "libevent", 0, times( [ eventSignal, event ] {
                  eventSignal->raise();
                  event->turn();
               } ) );
#endif
   } );
}

// In somebody else's loop: a value changes, the descriptor wakes that loop, which has one callback
// delivered. By hand: a queue with an eventfd.
void embeddedTurn( Rows const & rows ) {
   class Watcher : public Kiv::Entity::NotifieeConst {
    public:
      explicit Watcher( Kiv::Ptr< Kiv::Entity const > const & entity ) { watch( entity ); }
      void onParent() override { ++told; }
      std::uint64_t told = 0;
   };
   rows.measure( "one change in a loop around it", turns, []( Row & row ) {
      Kiv::Ptr< Kiv::Dir > const entity = Kiv::Dir::DirIs( "entity" );
      Kiv::Ptr< Kiv::Dir > const parent = Kiv::Dir::DirIs( "parent" );
      Kiv::Ptr< Watcher > const watcher = new Watcher( entity );
      int const fd = manager().descriptor();
      row.add( "runDue()", 0, times( [ entity, parent, watcher, fd ] {
                  entity->parentIs( entity->parent() ? Kiv::Ptr< Kiv::Entity >()
                                                     : Kiv::Ptr< Kiv::Entity >( parent ) );
                  pollfd descriptor{ fd, POLLIN, 0 };
                  keep( poll( &descriptor, 1, -1 ) );
                  manager().runDue();
               } ) );
      auto const epoll = std::make_shared< Epoll >();
      auto const ring = std::make_shared< Ring >();
      auto const count = std::make_shared< std::uint64_t >( 0 );
      row.add( "ring and epoll by hand", 0, times( [ epoll, ring, count ] {
                  ring->push( [ c = count.get() ] { ++*c; } );
                  epoll->wake();
                  epoll->wait( true, []( int ) {} );
                  while( !ring->empty() )
                     ring->runFirst();
               } ) );
   } );
}

} // namespace

void benchmarks( Rows const & rows ) {
   fromTheOwnThread( rows );
   oneAfterTheOther( rows );
   fromAnotherThread( rows );
   idleTurn( rows, "turn without anything to do" );
   descriptorTurn( rows, "turn in which a descriptor is ready" );
   manager().descriptor(); // from now on in a loop around it
   idleTurn( rows, "the same, in a loop around it" );
   descriptorTurn( rows, "one descriptor, in a loop around it" );
   embeddedTurn( rows );
}

} // namespace Bench
