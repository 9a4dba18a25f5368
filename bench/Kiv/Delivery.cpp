// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// What it costs to tell reactors of a change, queue and loop included. An operation is one
// callback.
#include <support/Table.h>

#include <Kiv/Kiv.h>
#include <Kiv/detail/Thread.h>
#include <Stage/Stage.h>

#include <memory>
#include <unordered_map>
#include <vector>

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
         Kiv::detail::ownThread();
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
   manyObjects( 1000 );
   for( int reactors : { 1, 10, 100 } )
      tenMembers( reactors );
   threadCheck();
}

} // namespace Bench
