// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// What it costs to tell reactors of a change, queue and loop included. An operation is one
// callback; of a change without reactors, one change.
//
// BENCH_SIGNALS2 and BENCH_QT are defined where these are installed.
#include <support/Table.h>

#include <Kiv/Kiv.h>
#include <Kiv/detail/Thread.h>
#include <Stage/Stage.h>

#include <memory>
#include <unordered_map>
#include <vector>

#ifdef BENCH_SIGNALS2
#include <boost/signals2/signal.hpp>
#endif
#ifdef BENCH_QT
#include <QtCore/QCoreApplication>
#include <QtCore/QPauseAnimation>
#endif

namespace Bench {

namespace {

class Watcher : public Stage::EventConfig::NotifieeConst {
 public:
   explicit Watcher( Kiv::Ptr< Stage::EventConfig > const & event ) { watch( event ); }
   using NotifieeConst::onDependency;
   void onComplete() override { ++calls_; }
   void onDependency( Kiv::String8 ) override { ++calls_; }

 private:
   std::uint64_t calls_ = 0;
};

struct Watched {
   explicit Watched( int reactors ) {
      for( int i = 0; i != reactors; ++i )
         watcher.push_back( new Watcher( event ) );
   }
   Kiv::Ptr< Stage::EventConfig > event = Stage::EventConfig::EventConfigIs( "Stage", "Agent" );
   std::vector< Kiv::Ptr< Watcher > > watcher;
};

// ---- by hand

struct Listener {
   virtual ~Listener() = default;
   virtual void onComplete() = 0;
   virtual void onDependency( std::string const & key ) = 0;
};
struct CountingListener : Listener {
   void onComplete() override { ++calls; }
   void onDependency( std::string const & ) override { ++calls; }
   std::uint64_t calls = 0;
};
// Exists so that the compiler cannot know which function a call reaches.
struct OtherListener : Listener {
   void onComplete() override {}
   void onDependency( std::string const & ) override {}
};

std::vector< std::unique_ptr< Listener > > listeners( int count ) {
   std::vector< std::unique_ptr< Listener > > all;
   for( int i = 0; i != count; ++i ) {
      bool counting = true;
      benchmark::DoNotOptimize( counting );
      if( counting )
         all.push_back( std::make_unique< CountingListener >() );
      else
         all.push_back( std::make_unique< OtherListener >() );
   }
   return all;
}

// The least that queued delivery can be: a first-in-first-out ring of records, each with a counted
// reference, so that what is destroyed meanwhile is still there, and told only if it has not been
// detached. It allocates nothing once it has its size. It cannot be told once for two changes, be
// switched off and on, dropped from, nor can what it calls throw.
class Record {
 public:
   struct Target {
      virtual ~Target() = default;
      virtual void onChange( std::uint32_t attribute, std::string const * key ) = 0;
      std::uint32_t references = 1;
      bool detached = false;
   };

   explicit Record( std::size_t size ) : ring_( size ) {}

   void push( Target * target, std::uint32_t attribute, std::string const * key ) {
      if( tail_ - head_ == ring_.size() )
         grow();
      ++target->references;
      ring_[ tail_++ & ( ring_.size() - 1 ) ] = { target, key, attribute };
   }
   [[gnu::noinline]] void deliver() {
      while( head_ != tail_ ) {
         Entry const next = ring_[ head_++ & ( ring_.size() - 1 ) ];
         if( !next.target->detached )
            next.target->onChange( next.attribute, next.key );
         if( --next.target->references == 0 )
            delete next.target;
      }
   }

 private:
   struct Entry {
      Target * target = nullptr;
      std::string const * key = nullptr;
      std::uint32_t attribute = 0;
   };

   [[gnu::noinline]] void grow() {
      std::vector< Entry > larger( 2 * ring_.size() );
      for( std::size_t i = head_; i != tail_; ++i )
         larger[ i & ( larger.size() - 1 ) ] = ring_[ i & ( ring_.size() - 1 ) ];
      ring_ = std::move( larger );
   }

   std::vector< Entry > ring_; // a power of two
   std::size_t head_ = 0;
   std::size_t tail_ = 0;
};

struct CountingTarget : Record::Target {
   void onChange( std::uint32_t, std::string const * ) override { ++calls; }
   std::uint64_t calls = 0;
};
struct OtherTarget : Record::Target {
   void onChange( std::uint32_t, std::string const * ) override {}
};

// An object by hand whose changes are recorded. Its setters are called, as those of entities are.
struct Recorded {
   explicit Recorded( int count ) {
      for( int i = 0; i != count; ++i ) {
         bool counting = true;
         benchmark::DoNotOptimize( counting );
         target.push_back( counting ? static_cast< Record::Target * >( new CountingTarget )
                                    : new OtherTarget );
      }
   }
   Recorded( Recorded && ) = default;
   ~Recorded() {
      for( Record::Target * t : target )
         delete t;
   }
   [[gnu::noinline]] void valueIs( bool next, Record & record ) {
      if( next == value )
         return;
      value = next;
      for( Record::Target * t : target )
         record.push( t, 1, nullptr );
   }
   [[gnu::noinline]] void memberIs( std::string const & key, bool next, Record & record ) {
      bool & held = member[ key ];
      if( next == held )
         return;
      held = next;
      for( Record::Target * t : target )
         record.push( t, 2, &key );
   }
   bool value = false;
   std::unordered_map< std::string, bool > member;
   std::vector< Record::Target * > target;
};

std::string const byRecord = "first in, first out, by hand";

std::string reactorsText( int count ) {
   return std::to_string( count ) + ( count == 1 ? " reactor" : " reactors" );
}

// ---- one attribute

void single( int reactors ) {
   std::string const what = "one value changes, " + reactorsText( reactors );
   subject( what, [ reactors ]( benchmark::State & state ) {
      Watched const watched( reactors );
      bool on = false;
      measure( state, reactors, [ & ] {
         watched.event->completeIs( on = !on );
         Kiv::activityManager()->runQueued();
      } );
   } );
   control( what, byRecord, [ reactors ]( benchmark::State & state ) {
      Record record( 64 );
      Recorded object( reactors );
      bool on = false;
      measure( state, reactors, [ & ] {
         object.valueIs( on = !on, record );
         record.deliver();
      } );
   } );
   control( what, "list of virtual calls", [ reactors ]( benchmark::State & state ) {
      auto const listener = listeners( reactors );
      bool value = false;
      measure( state, reactors, [ & ] {
         value = !value;
         benchmark::DoNotOptimize( value );
         for( auto const & l : listener )
            l->onComplete();
      } );
   } );
   control( what, "list of std::function", [ reactors ]( benchmark::State & state ) {
      std::uint64_t calls = 0;
      std::vector< std::function< void() > > const function( static_cast< std::size_t >( reactors ),
                                                             [ &calls ] { ++calls; } );
      bool value = false;
      measure( state, reactors, [ & ] {
         value = !value;
         benchmark::DoNotOptimize( value );
         for( auto const & f : function )
            f();
      } );
      benchmark::DoNotOptimize( calls );
   } );
#ifdef BENCH_SIGNALS2
   control( what, "Boost.Signals2, at once", [ reactors ]( benchmark::State & state ) {
      boost::signals2::signal< void() > signal;
      std::uint64_t calls = 0;
      for( int i = 0; i != reactors; ++i )
         signal.connect( [ &calls ] { ++calls; } );
      measure( state, reactors, [ & ] { signal(); } );
      benchmark::DoNotOptimize( calls );
   } );
#endif
#ifdef BENCH_QT
   control( what, "Qt, queued", [ reactors ]( benchmark::State & state ) {
      static int count = 0;
      static QCoreApplication const application( count, nullptr );
      QPauseAnimation sender; // has a signal without arguments
      std::vector< std::unique_ptr< QObject > > receiver;
      std::uint64_t calls = 0;
      for( int i = 0; i != reactors; ++i ) {
         receiver.push_back( std::make_unique< QObject >() );
         QObject::connect(
            &sender, &QPauseAnimation::finished, receiver.back().get(), [ &calls ] { ++calls; },
            Qt::QueuedConnection );
      }
      measure( state, reactors, [ & ] {
         sender.finished();
         QCoreApplication::sendPostedEvents();
      } );
      benchmark::DoNotOptimize( calls );
   } );
#endif
}

// ---- an attribute that nobody watches

void unwatched() {
   std::string const what = "one value changes, no reactor";
   subject( what, []( benchmark::State & state ) {
      auto const event = Stage::EventConfig::EventConfigIs( "Stage", "Agent" );
      bool on = false;
      measure( state, 1, [ & ] { event->completeIs( on = !on ); } );
   } );
   control( what, "virtual call", []( benchmark::State & state ) {
      auto const listener = listeners( 1 );
      Listener * const l = listener.front().get();
      measure( state, 1, [ & ] {
         l->onComplete();
         benchmark::ClobberMemory();
      } );
   } );
}

// ---- many objects that change before anything is delivered

void manyObjects( int objects ) {
   std::string const what = std::to_string( objects ) + " objects change, a reactor each";
   subject( what, [ objects ]( benchmark::State & state ) {
      std::vector< Watched > watched;
      for( int i = 0; i != objects; ++i )
         watched.emplace_back( 1 );
      bool on = false;
      measure( state, objects, [ & ] {
         on = !on;
         for( Watched const & w : watched )
            w.event->completeIs( on );
         Kiv::activityManager()->runQueued();
      } );
   } );
   control( what, byRecord, [ objects ]( benchmark::State & state ) {
      Record record( 64 );
      std::vector< Recorded > object;
      for( int i = 0; i != objects; ++i )
         object.emplace_back( 1 );
      bool on = false;
      measure( state, objects, [ & ] {
         on = !on;
         for( Recorded & o : object )
            o.valueIs( on, record );
         record.deliver();
      } );
   } );
   control( what, "list of virtual calls", [ objects ]( benchmark::State & state ) {
      struct Object {
         bool value = false;
         std::vector< std::unique_ptr< Listener > > listener = listeners( 1 );
      };
      std::vector< Object > object( static_cast< std::size_t >( objects ) );
      measure( state, objects, [ & ] {
         for( Object & o : object ) {
            o.value = !o.value;
            for( auto const & l : o.listener )
               l->onComplete();
         }
      } );
   } );
}

// ---- members of a collection

void tenMembers( int reactors ) {
   constexpr int count = 10;
   std::string const what = "10 members change, " + reactorsText( reactors );
   subject( what, [ reactors ]( benchmark::State & state ) {
      Watched const watched( reactors );
      std::vector< Kiv::String8 > key;
      for( int i = 0; i != count; ++i )
         key.push_back( "Stage" + std::to_string( i ) );
      bool on = false;
      measure( state, count * reactors, [ & ] {
         on = !on;
         for( Kiv::String8 const & k : key )
            watched.event->dependencyIs( k, on );
         Kiv::activityManager()->runQueued();
      } );
   } );
   control( what, byRecord, [ reactors ]( benchmark::State & state ) {
      Record record( 64 );
      Recorded object( reactors );
      std::vector< std::string > key;
      for( int i = 0; i != count; ++i )
         key.push_back( "Stage" + std::to_string( i ) );
      bool on = false;
      measure( state, count * reactors, [ & ] {
         on = !on;
         for( std::string const & k : key )
            object.memberIs( k, on, record );
         record.deliver();
      } );
   } );
   control( what, "unordered_map, virtual calls", [ reactors ]( benchmark::State & state ) {
      auto const listener = listeners( reactors );
      std::unordered_map< std::string, bool > member;
      std::vector< std::string > key;
      for( int i = 0; i != count; ++i )
         key.push_back( "Stage" + std::to_string( i ) );
      bool on = false;
      measure( state, count * reactors, [ & ] {
         on = !on;
         for( std::string const & k : key ) {
            member[ k ] = on;
            for( auto const & l : listener )
               l->onDependency( k );
         }
      } );
   } );
}

// ---- what each change pays for being stopped on another thread

// Setters that are called, not inlined, as those of entities are.
class Number {
 public:
   [[gnu::noinline]] void checkedIs( Kiv::PtrInterface const * object, std::uint32_t value ) {
      Kiv::detail::checkOwner( object, "number" );
      value_ = value;
   }
   [[gnu::noinline]] void uncheckedIs( Kiv::PtrInterface const *, std::uint32_t value ) {
      value_ = value;
   }

 private:
   std::uint32_t value_ = 0;
};

void threadCheck() {
   constexpr std::uint32_t changes = 1000;
   std::string const what = "a value is set on the activity's thread";
   auto const body = []( auto set ) {
      return [ set ]( benchmark::State & state ) {
         auto const event = Stage::EventConfig::EventConfigIs( "Stage", "Agent" );
         Number number;
         measure( state, changes, [ & ] {
            for( std::uint32_t i = 0; i != changes; ++i )
               set( number, event.get(), i );
            benchmark::DoNotOptimize( number );
         } );
      };
   };
   subject( what, body( []( Number & n, Kiv::PtrInterface const * o, std::uint32_t v ) {
               n.checkedIs( o, v );
            } ) );
   control( what, "the same without the check",
            body( []( Number & n, Kiv::PtrInterface const * o, std::uint32_t v ) {
               n.uncheckedIs( o, v );
            } ) );
}

} // namespace

void benchmarks() {
   for( int reactors : { 1, 10, 100 } )
      single( reactors );
   unwatched();
   manyObjects( 1000 );
   for( int reactors : { 1, 10, 100 } )
      tenMembers( reactors );
   threadCheck();
}

} // namespace Bench
