// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Timers on a manual clock. An operation is one timer fired and armed anew, or one moved.
#include <support/Table.h>

#include <Kiv/Kiv.h>

#include <memory>
#include <queue>
#include <set>
#include <vector>

namespace Bench {

namespace {

class Timer : public Kiv::Clock::NotifieeConst {
 public:
   Timer( Kiv::Ptr< Kiv::Clock > const & clock, Random & random ) : random_( random ) {
      watch( clock );
      timeMinIs( random_.fraction() );
   }
   void onTime() override { timeMinIs( Kiv::now() + random_.fraction() ); }

 private:
   Random & random_;
};

struct Timers {
   explicit Timers( int count ) {
      Kiv::activityManager()->clockIs( clock );
      for( int i = 0; i != count; ++i )
         timer.push_back( new Timer( clock, random ) );
   }
   Random random;
   Kiv::Ptr< Kiv::ManualClock > clock = Kiv::ManualClock::ManualClockIs( 0 );
   std::vector< Kiv::Ptr< Timer > > timer;
};

// ---- by hand

struct PlainTimer {
   virtual ~PlainTimer() = default;
   // When it is to fire next.
   virtual double onTime( double now ) = 0;
   double time = 0;
   std::uint64_t armed = 0;
   std::size_t place = 0;
};
struct RandomTimer : PlainTimer {
   explicit RandomTimer( Random & r ) : random( r ) {}
   double onTime( double now ) override { return now + random.fraction(); }
   Random & random;
};
// Exists so that the compiler cannot know which function a call reaches.
struct OtherTimer : PlainTimer {
   double onTime( double now ) override { return now; }
};

struct PlainTimers {
   explicit PlainTimers( int count ) {
      for( int i = 0; i != count; ++i ) {
         bool wanted = true;
         benchmark::DoNotOptimize( wanted );
         if( wanted )
            timer.push_back( std::make_unique< RandomTimer >( random ) );
         else
            timer.push_back( std::make_unique< OtherTimer >() );
         timer.back()->time = random.fraction();
         timer.back()->armed = ++armings;
      }
   }
   Random random;
   std::uint64_t armings = 0;
   std::vector< std::unique_ptr< PlainTimer > > timer;
};

bool earlier( PlainTimer const & a, PlainTimer const & b ) {
   return a.time != b.time ? a.time < b.time : a.armed < b.armed;
}

// Each timer knows its place, so it can be moved.
class IndexedHeap {
 public:
   explicit IndexedHeap( PlainTimers const & timers ) {
      for( auto const & t : timers.timer ) {
         t->place = heap_.size();
         heap_.push_back( t.get() );
         up( t->place );
      }
   }
   PlainTimer & first() const { return *heap_.front(); }
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

struct Later {
   bool operator()( PlainTimer const * a, PlainTimer const * b ) const { return earlier( *b, *a ); }
};
struct Earlier {
   bool operator()( PlainTimer const * a, PlainTimer const * b ) const { return earlier( *a, *b ); }
};

void fire( int count ) {
   std::string const what = "fire and arm again, " + std::to_string( count ) + " timers";
   subject( what, [ count ]( benchmark::State & state ) {
      Timers const timers( count );
      Kiv::ActivityManager & manager = *Kiv::activityManager();
      measure( state, 1, [ & ] {
         timers.clock->nowIs( manager.nextTime() );
         manager.fireOne();
      } );
   } );
   control( what, "indexed heap by hand", [ count ]( benchmark::State & state ) {
      PlainTimers timers( count );
      IndexedHeap heap( timers );
      measure( state, 1, [ & ] {
         PlainTimer & timer = heap.first();
         timer.time = timer.onTime( timer.time );
         timer.armed = ++timers.armings;
         heap.moved( timer );
      } );
   } );
   control( what, "std::priority_queue", [ count ]( benchmark::State & state ) {
      PlainTimers timers( count );
      std::priority_queue< PlainTimer *, std::vector< PlainTimer * >, Later > queue;
      for( auto const & t : timers.timer )
         queue.push( t.get() );
      measure( state, 1, [ & ] {
         PlainTimer & timer = *queue.top();
         queue.pop();
         timer.time = timer.onTime( timer.time );
         timer.armed = ++timers.armings;
         queue.push( &timer );
      } );
   } );
}

void move( int count ) {
   std::string const what = "move a timer, " + std::to_string( count ) + " timers";
   auto const size = static_cast< std::uint32_t >( count );
   subject( what, [ size ]( benchmark::State & state ) {
      Timers timers( static_cast< int >( size ) );
      measure( state, 1, [ & ] {
         timers.timer[ timers.random.next() % size ]->timeMinIs( timers.random.fraction() );
      } );
   } );
   control( what, "indexed heap by hand", [ size ]( benchmark::State & state ) {
      PlainTimers timers( static_cast< int >( size ) );
      IndexedHeap heap( timers );
      measure( state, 1, [ & ] {
         PlainTimer & timer = *timers.timer[ timers.random.next() % size ];
         timer.time = timers.random.fraction();
         timer.armed = ++timers.armings;
         heap.moved( timer );
      } );
   } );
   control( what, "std::set", [ size ]( benchmark::State & state ) {
      PlainTimers timers( static_cast< int >( size ) );
      std::set< PlainTimer *, Earlier > set;
      for( auto const & t : timers.timer )
         set.insert( t.get() );
      measure( state, 1, [ & ] {
         PlainTimer & timer = *timers.timer[ timers.random.next() % size ];
         set.erase( &timer );
         timer.time = timers.random.fraction();
         timer.armed = ++timers.armings;
         set.insert( &timer );
      } );
   } );
}

} // namespace

void benchmarks() {
   for( int count : { 10, 1000, 10000 } )
      fire( count );
   for( int count : { 10, 1000, 10000 } )
      move( count );
}

} // namespace Bench
