// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Timers among others that wait. An operation is one timer armed and disarmed again, armed and
// fired, fired and armed anew, or moved.
#include <Kiv/Kiv.h>

#include <chrono>
#include <memory>
#include <queue>
#include <set>
#include <string>
#include <vector>

#include <sys/epoll.h>
#include <unistd.h>

#include <Rivals.h>
#include <support/Random.h>
#include <support/Rows.h>

namespace Bench {

namespace {

constexpr int operations = 100;

// ---- the library's

class Timer : public Kiv::Clock::NotifieeConst {
 public:
   explicit Timer( Kiv::Ptr< Kiv::Clock > const & clock ) { watch( clock ); }
   void onTime() override { ++fired; }
   std::uint64_t fired = 0;
};

// Fires again and again, each time after a random while.
class RandomTimer : public Timer {
 public:
   RandomTimer( Kiv::Ptr< Kiv::Clock > const & clock, Random & random )
      : Timer( clock ), random_( random ) {}
   void onTime() override { timeMinIs( Kiv::now() + random_.fraction() ); }

 private:
   Random & random_;
};

// The others are armed for a second of their own, a while ahead.
constexpr double ahead = 1e6;

struct Timers {
   Timers( int count, Kiv::Ptr< Kiv::Clock > const & clock_, double begin ) : clock( clock_ ) {
      for( int i = 0; i != count; ++i ) {
         timer.push_back( new RandomTimer( clock, random ) );
         timer.back()->timeMinIs( begin + random.fraction() );
      }
   }
   Random random;
   Kiv::Ptr< Kiv::Clock > const clock;
   std::vector< Kiv::Ptr< Timer > > timer;
   Kiv::Ptr< Timer > const one = new Timer( clock );
};

// ---- by hand

double seconds() {
   using namespace std::chrono;
   return duration< double >( steady_clock::now().time_since_epoch() ).count();
}

struct PlainClock {
   virtual ~PlainClock() = default;
   virtual double now() const { return seconds(); }
};
struct PlainManualClock : PlainClock {
   double now() const override { return time; }
   double time = 0;
};

struct PlainTimer {
   virtual ~PlainTimer() = default;
   // When it is to fire next; never: infinite.
   virtual double onTime( PlainClock const & clock ) = 0;
   double time = 0;
   std::uint64_t armed = 0;
   std::size_t place = 0;
};
struct PlainRandomTimer : PlainTimer {
   explicit PlainRandomTimer( Random & r ) : random( r ) {}
   double onTime( PlainClock const & clock ) override { return clock.now() + random.fraction(); }
   Random & random;
};
// The second class that there is, so that the compiler cannot know which function a call reaches.
struct PlainCounter : PlainTimer {
   double onTime( PlainClock const & ) override {
      ++fired;
      return Kiv::infinity;
   }
   std::uint64_t fired = 0;
};

bool earlier( PlainTimer const & a, PlainTimer const & b ) {
   return a.time != b.time ? a.time < b.time : a.armed < b.armed;
}

// Each timer knows its place, so it can be moved and taken out.
class IndexedHeap {
 public:
   PlainTimer & first() const { return *heap_.front(); }
   void add( PlainTimer & timer ) {
      timer.place = heap_.size();
      heap_.push_back( &timer );
      up( timer.place );
   }
   void remove( PlainTimer & timer ) {
      std::size_t const place = timer.place;
      PlainTimer * const last = heap_.back();
      heap_.pop_back();
      if( last == &timer )
         return;
      put( place, last );
      moved( *last );
   }
   // The timer's time has changed.
   void moved( PlainTimer & timer ) {
      up( timer.place );
      down( timer.place );
   }

 private:
   void put( std::size_t place, PlainTimer * timer ) {
      heap_[ place ] = timer;
      timer->place = place;
   }
   void up( std::size_t place ) {
      PlainTimer * const timer = heap_[ place ];
      while( place > 0 && earlier( *timer, *heap_[ ( place - 1 ) / 2 ] ) ) {
         put( place, heap_[ ( place - 1 ) / 2 ] );
         place = ( place - 1 ) / 2;
      }
      put( place, timer );
   }
   void down( std::size_t place ) {
      PlainTimer * const timer = heap_[ place ];
      for( ;; ) {
         std::size_t child = 2 * place + 1;
         if( child >= heap_.size() )
            break;
         if( child + 1 < heap_.size() && earlier( *heap_[ child + 1 ], *heap_[ child ] ) )
            ++child;
         if( !earlier( *heap_[ child ], *timer ) )
            break;
         put( place, heap_[ child ] );
         place = child;
      }
      put( place, timer );
   }
   std::vector< PlainTimer * > heap_;
};

struct PlainTimers {
   PlainTimers( int count, double begin ) {
      for( int i = 0; i != count; ++i ) {
         timer.push_back( std::make_unique< PlainRandomTimer >( random ) );
         timer.back()->time = begin + random.fraction();
         timer.back()->armed = ++armings;
         heap.add( *timer.back() );
      }
   }
   // As a library's, these are called, and not a part of whoever needs them.
   [[gnu::noinline]] void arm( PlainTimer & t, double time ) {
      t.time = time;
      t.armed = ++armings;
      heap.add( t );
   }
   [[gnu::noinline]] void cancel( PlainTimer & t ) { heap.remove( t ); }
   // The first, if it is due.
   [[gnu::noinline]] bool fireOne( PlainClock const & by ) {
      PlainTimer & first = heap.first();
      if( !( first.time <= by.now() ) )
         return false;
      first.time = first.onTime( by );
      if( first.time == Kiv::infinity ) {
         heap.remove( first );
      } else {
         first.armed = ++armings;
         heap.moved( first );
      }
      return true;
   }
   Random random;
   std::uint64_t armings = 0;
   IndexedHeap heap;
   std::vector< std::unique_ptr< PlainTimer > > timer;
   PlainCounter one;
   PlainClock clock;
   PlainManualClock manual;
};

struct Later {
   bool operator()( PlainTimer const * a, PlainTimer const * b ) const { return earlier( *b, *a ); }
};
struct Earlier {
   bool operator()( PlainTimer const * a, PlainTimer const * b ) const { return earlier( *a, *b ); }
};

// ---- loops of others

#ifdef BENCH_UV
struct UvTimers {
   explicit UvTimers( int count ) {
      for( int i = 0; i != count; ++i )
         arm( loop.timer(), after() );
      one.data = this;
   }
   // Within the second of the others, in their unit, milliseconds, of which they get more so that
   // there are as many different times.
   std::uint64_t after() { return 1000000000 + random.next() % 100000000; }
   void arm( uv_timer_t & timer, std::uint64_t delay ) {
      uv_timer_start(
         &timer, []( uv_timer_t * t ) { ++static_cast< UvTimers * >( t->data )->fired; }, delay,
         0 );
   }
   Random random;
   UvLoop loop;
   uv_timer_t & one = loop.timer();
   std::uint64_t fired = 0;
};
#endif

#ifdef BENCH_EVENT
struct EventTimers {
   explicit EventTimers( int count ) {
      for( int i = 0; i != count; ++i )
         arm( made(), after() );
   }
   event * made() {
      return loop.made(
         -1, 0, []( int, short, void * self ) { ++static_cast< EventTimers * >( self )->fired; },
         this );
   }
   std::uint64_t after() { return 1000000000000 + random.next() % 100000000; }
   Random random;
   EventLoop loop;
   event * one = made();
   std::uint64_t fired = 0;
};
#endif

template< class Call >
auto times( Call call ) {
   return [ call ] {
      for( int i = 0; i != operations; ++i )
         call();
   };
}

std::string among( char const * what, int count ) {
   return what + ( ", " + std::to_string( count ) ) + " timers";
}

// ---- rows

void armAndCancel( Rows const & rows, int count ) {
   rows.measure( among( "arm and cancel", count ), operations, [ & ]( Row & row ) {
      auto const ours =
         std::make_shared< Timers >( count, Kiv::ManualClock::ManualClockIs( 0 ), 1.0 );
      row.add( "Clock", 0, times( [ ours ] {
                  ours->one->timeMinIs( 1 + ours->random.fraction() );
                  ours->one->timeMinIs( Kiv::infinity );
               } ) );
      auto const plain = std::make_shared< PlainTimers >( count, 1.0 );
      row.add( "indexed heap by hand", 0, times( [ plain ] {
                  plain->arm( plain->one, 1 + plain->random.fraction() );
                  plain->cancel( plain->one );
               } ) );
#ifdef BENCH_UV
      auto const uv = std::make_shared< UvTimers >( count );
      row.add( "libuv", 0, times( [ uv ] {
                  uv->arm( uv->one, uv->after() );
                  uv_timer_stop( &uv->one );
               } ) );
#endif
#ifdef BENCH_EVENT
      auto const event = std::make_shared< EventTimers >( count );
      row.add( "libevent", 0, times( [ event ] {
                  arm( event->one, event->after() );
                  event_del( event->one );
               } ) );
#endif
   } );
}

// On the real clock, which is read twice: for when to fire, and for what is due.
void armAndFire( Rows const & rows, int count ) {
   rows.measure( among( "arm and fire", count ), operations, [ & ]( Row & row ) {
      Kiv::ActivityManager & manager = *Kiv::activityManager();
      auto const ours = std::make_shared< Timers >( count, manager.clock(), Kiv::now() + ahead );
      row.add( "Clock", 0, times( [ ours, &manager ] {
                  ours->one->timeMinIs( Kiv::now() );
                  manager.fireOne();
               } ) );
      auto const plain = std::make_shared< PlainTimers >( count, seconds() + ahead );
      row.add( "indexed heap by hand", 0, times( [ plain ] {
                  plain->arm( plain->one, plain->clock.now() );
                  plain->fireOne( plain->clock );
               } ) );
   } );
}

// The same in a turn of a loop, which looks at descriptors as well.
void armAndTurn( Rows const & rows, int count ) {
   rows.measure( among( "one due in a turn", count ), operations, [ & ]( Row & row ) {
      Kiv::ActivityManager & manager = *Kiv::activityManager();
      auto const ours = std::make_shared< Timers >( count, manager.clock(), Kiv::now() + ahead );
      row.add( "runDue()", 0, times( [ ours, &manager ] {
                  ours->one->timeMinIs( Kiv::now() );
                  manager.runDue();
               } ) );
      auto const plain = std::make_shared< PlainTimers >( count, seconds() + ahead );
      std::shared_ptr< int const > const epoll( new int( epoll_create1( EPOLL_CLOEXEC ) ),
                                                []( int const * fd ) {
                                                   close( *fd );
                                                   delete fd;
                                                } );
      row.add( "heap and epoll by hand", 0, times( [ plain, epoll ] {
                  plain->arm( plain->one, plain->clock.now() );
                  epoll_event ready[ 64 ];
                  keep( epoll_wait( *epoll, ready, 64, 0 ) );
                  while( plain->fireOne( plain->clock ) ) {
                  }
               } ) );
#ifdef BENCH_UV
      auto const uv = std::make_shared< UvTimers >( count );
      row.add( "libuv", 0, times( [ uv ] {
                  uv->arm( uv->one, 0 );
                  uv->loop.turn();
               } ) );
#endif
#ifdef BENCH_EVENT
      auto const event = std::make_shared< EventTimers >( count );
      row.add( "libevent", 0, times( [ event ] {
                  arm( event->one, 0 );
                  event->loop.turn();
               } ) );
#endif
   } );
}

// On a clock that is moved to the earliest of the timers, which arms itself anew.
void fireAndArm( Rows const & rows, int count ) {
   rows.measure( among( "one due, arms anew", count ), operations, [ & ]( Row & row ) {
      Kiv::ActivityManager & manager = *Kiv::activityManager();
      auto const clock = Kiv::ManualClock::ManualClockIs( 0 );
      auto const ours = std::make_shared< Timers >( count, clock, 0.0 );
      row.add( "Clock", 0, [ ours, clock, &manager ] {
         Kiv::Ptr< Kiv::Clock > const before = manager.clock();
         manager.clockIs( clock );
         for( int i = 0; i != operations; ++i ) {
            clock->nowIs( manager.nextTime() );
            manager.fireOne();
         }
         manager.clockIs( before );
      } );
      auto const plain = std::make_shared< PlainTimers >( count, 0.0 );
      row.add( "indexed heap by hand", 0, times( [ plain ] {
                  plain->manual.time = plain->heap.first().time;
                  plain->fireOne( plain->manual );
               } ) );
      using Queue = std::priority_queue< PlainTimer *, std::vector< PlainTimer * >, Later >;
      auto const owner = std::make_shared< PlainTimers >( count, 0.0 );
      auto const queue = std::make_shared< Queue >();
      for( auto const & t : owner->timer )
         queue->push( t.get() );
      row.add( "std::priority_queue", 0, times( [ owner, queue ] {
                  PlainTimer & timer = *queue->top();
                  owner->manual.time = timer.time;
                  queue->pop();
                  timer.time = timer.onTime( owner->manual );
                  timer.armed = ++owner->armings;
                  queue->push( &timer );
               } ) );
   } );
}

void move( Rows const & rows, int count ) {
   rows.measure( among( "move a timer", count ), operations, [ & ]( Row & row ) {
      auto const size = static_cast< std::uint32_t >( count );
      auto const ours =
         std::make_shared< Timers >( count, Kiv::ManualClock::ManualClockIs( 0 ), 1.0 );
      row.add( "Clock", 0, times( [ ours, size ] {
                  ours->timer[ ours->random.next() % size ]->timeMinIs( ours->random.fraction() );
               } ) );
      auto const plain = std::make_shared< PlainTimers >( count, 1.0 );
      row.add( "indexed heap by hand", 0, times( [ plain, size ] {
                  PlainTimer & timer = *plain->timer[ plain->random.next() % size ];
                  timer.time = plain->random.fraction();
                  timer.armed = ++plain->armings;
                  plain->heap.moved( timer );
               } ) );
      auto const owner = std::make_shared< PlainTimers >( count, 1.0 );
      auto const set = std::make_shared< std::set< PlainTimer *, Earlier > >();
      for( auto const & t : owner->timer )
         set->insert( t.get() );
      row.add( "std::set", 0, times( [ owner, set, size ] {
                  PlainTimer & timer = *owner->timer[ owner->random.next() % size ];
                  set->erase( &timer );
                  timer.time = owner->random.fraction();
                  timer.armed = ++owner->armings;
                  set->insert( &timer );
               } ) );
   } );
}

} // namespace

void benchmarks( Rows const & rows ) {
   for( auto const row : { &armAndCancel, &armAndFire, &armAndTurn, &fireAndArm, &move } )
      for( int const count : { 10, 1000, 100000 } )
         row( rows, count );
}

} // namespace Bench
