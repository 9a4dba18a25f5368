// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Records of a trace file. An operation is one record.
#include <support/Table.h>

#include <Flitlog/Ring.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

#include <unistd.h>

namespace Bench {

namespace {

using Flitlog::put;
using Flitlog::RingBuf;
using Flitlog::TraceFile;
using Flitlog::Varg;

constexpr int records = 1000;

double constantTime() { return 1700000000.25; }
double wallClock() {
   timespec t{};
   clock_gettime( CLOCK_REALTIME, &t );
   return static_cast< double >( t.tv_sec ) + 1e-9 * static_cast< double >( t.tv_nsec );
}

// A ring of 8 MiB, a file in the current folder that is gone afterwards, and a point in it.
struct Ring {
   explicit Ring( std::string const & codes, double ( *clock )() )
      : file( TraceFile::TraceFileIs( "bench-" + std::to_string( getpid() ) + ".ring",
                                      { Flitlog::defaultRingBytes, clock } ) ) {
      std::remove( file->path().c_str() );
      Flitlog::MsgDesc desc( file.get(), "Ring", __LINE__ );
      desc << "void Some::Class::handler()";
      for( char const code : codes ) {
         char const text[] = { code, '\0' };
         desc << " " << Varg{ text };
      }
      id = desc.finish();
   }
   std::unique_ptr< TraceFile > file;
   int id;
};

// The same by hand: structures of one size in an array that wraps around, whose head others may
// see. What it leaves out: records of several sizes, descriptors, check sums, a tail.
template< class Values >
class HandRing {
 public:
   explicit HandRing( double ( *clock )() ) : clock_( clock ) {}
   void write( std::uint32_t point, Values const & values ) {
      Slot & slot = slots_[ at_ ];
      slot.point = point;
      slot.time = clock_();
      slot.sequence = ++sequence_;
      slot.values = values;
      if( ++at_ == slots_.size() )
         at_ = 0;
      head_.store( sequence_, std::memory_order_release );
   }

 private:
   struct Slot {
      std::uint64_t sequence;
      double time;
      Values values;
      std::uint32_t point;
   };
   double ( *clock_ )();
   std::vector< Slot > slots_ = std::vector< Slot >( Flitlog::defaultRingBytes / sizeof( Slot ) );
   std::size_t at_ = 0;
   std::uint64_t sequence_ = 0;
   std::atomic< std::uint64_t > head_ = 0;
};

// `putAll( record, i )` puts the values of the codes; `values( i )` are the same as a structure.
template< class PutAll, class ValuesOf >
void row( std::string const & what, std::string const & codes, double ( *clock )(), PutAll putAll,
          ValuesOf valuesOf ) {
   subject( what, [ = ]( benchmark::State & state ) {
      Ring const ring( codes, clock );
      measure( state, records, [ & ] {
         for( std::uint32_t i = 0; i != records; ++i ) {
            RingBuf & record = RingBuf::startMsg( ring.file.get(), ring.id );
            putAll( record, i );
            record.endMsg();
         }
      } );
   } );
   control( what, "structures by hand", [ = ]( benchmark::State & state ) {
      HandRing< decltype( valuesOf( 0U ) ) > ring( clock );
      measure( state, records, [ & ] {
         for( std::uint32_t i = 0; i != records; ++i )
            ring.write( 1, valuesOf( i ) );
         benchmark::ClobberMemory();
      } );
   } );
}

struct None {};
struct Three {
   std::uint32_t number;
   bool flag;
   double time;
};
struct Named {
   std::uint32_t number;
   std::uint32_t length;
   std::array< char, 20 > name;
};

void three( std::string const & what, double ( *clock )() ) {
   row(
      what, "ubd", clock,
      []( RingBuf & record, std::uint32_t i ) {
         put( record, i );
         put( record, i % 2 == 0 );
         put( record, 0.5 * i );
      },
      []( std::uint32_t i ) {
         return Three{ i, i % 2 == 0, 0.5 * i };
      } );
}

} // namespace

void benchmarks() {
   row(
      "record without values", "", &constantTime, []( RingBuf &, std::uint32_t ) {},
      []( std::uint32_t ) { return None{}; } );
   row(
      "record of a number", "u", &constantTime,
      []( RingBuf & record, std::uint32_t i ) { put( record, i ); },
      []( std::uint32_t i ) { return i; } );
   three( "record of three values", &constantTime );
   row(
      "record of a number and a name", "us", &constantTime,
      []( RingBuf & record, std::uint32_t i ) {
         put( record, i );
         put( record, std::string_view( "PlatformInitialized" ) );
      },
      []( std::uint32_t i ) {
         Named named{ i, 19, {} };
         std::memcpy( named.name.data(), "PlatformInitialized", 19 );
         return named;
      } );
   three( "record of three values, wall clock", &wallClock );
}

} // namespace Bench
