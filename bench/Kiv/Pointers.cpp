// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Counted references and counted characters. An operation is one copy, made and dropped.
#include <support/Table.h>

#include <Kiv/Kiv.h>

#include <memory>

namespace Bench {

namespace {

class Thing : public Kiv::PtrInterface {};

// As little as an object that counts its references can be.
struct PlainThing {
   std::uint32_t references = 1;
   virtual ~PlainThing() = default;
};

void copies() {
   std::string const what = "a Ptr is copied and dropped";
   subject( what, []( benchmark::State & state ) {
      Kiv::Ptr< Thing > const thing = new Thing;
      measure( state, 1, [ & ] {
         Kiv::Ptr< Thing > const copy( thing );
         benchmark::DoNotOptimize( copy.get() );
         benchmark::ClobberMemory();
      } );
   } );
   control( what, "plain increment and decrement", []( benchmark::State & state ) {
      // In memory that others may reach, as a Ptr is that is copied.
      auto * thing = new PlainThing;
      PlainThing ** place = &thing;
      benchmark::DoNotOptimize( place );
      measure( state, 1, [ & ] {
         PlainThing * const copy = thing;
         ++copy->references;
         benchmark::DoNotOptimize( copy );
         benchmark::ClobberMemory();
         if( --copy->references == 0 )
            delete copy;
      } );
      delete thing;
   } );
   control( what, "std::shared_ptr", []( benchmark::State & state ) {
      auto const thing = std::make_shared< PlainThing >();
      measure( state, 1, [ & ] {
         std::shared_ptr< PlainThing > const copy( thing );
         benchmark::DoNotOptimize( copy.get() );
         benchmark::ClobberMemory();
      } );
   } );
}

void objects() {
   std::string const what = "an object is made, held and dropped";
   subject( what, []( benchmark::State & state ) {
      measure( state, 1, [ & ] {
         Kiv::Ptr< Thing > const thing = new Thing;
         benchmark::DoNotOptimize( thing.get() );
      } );
   } );
   control( what, "new and delete", []( benchmark::State & state ) {
      measure( state, 1, [ & ] {
         auto * const thing = new PlainThing;
         benchmark::DoNotOptimize( thing );
         if( --thing->references == 0 )
            delete thing;
      } );
   } );
   control( what, "std::make_shared", []( benchmark::State & state ) {
      measure( state, 1, [ & ] {
         auto const thing = std::make_shared< PlainThing >();
         benchmark::DoNotOptimize( thing.get() );
      } );
   } );
}

void texts() {
   std::string const what = "a Name becomes a String8, dropped";
   subject( what, []( benchmark::State & state ) {
      Kiv::Name const name = "a name that does not fit into a short string";
      measure( state, 1, [ & ] {
         Kiv::String8 const text( name );
         benchmark::DoNotOptimize( text.charPtr() );
         benchmark::ClobberMemory();
      } );
   } );
   control( what, "std::string copied", []( benchmark::State & state ) {
      std::string const name = "a name that does not fit into a short string";
      measure( state, 1, [ & ] {
         std::string const text( name );
         benchmark::DoNotOptimize( text.data() );
         benchmark::ClobberMemory();
      } );
   } );
   control( what, "shared_ptr to string copied", []( benchmark::State & state ) {
      auto const name = std::make_shared< std::string const >( "a name that does not fit" );
      measure( state, 1, [ & ] {
         std::shared_ptr< std::string const > const text( name );
         benchmark::DoNotOptimize( text.get() );
         benchmark::ClobberMemory();
      } );
   } );
}

} // namespace

void benchmarks() {
   copies();
   objects();
   texts();
}

} // namespace Bench
