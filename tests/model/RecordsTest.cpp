// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The records of random plans are the same bytes wherever they are made: for every compiler, on
// 32 and 64 bits, with and without sanitizers. Each build compares its own with one table.
#include "RandomPlan.h"

#include <gtest/gtest.h>

#include <simulation/Engine.h>
#include <simulation/RecordWriter.h>

#include <cinttypes>
#include <cstdio>
#include <iterator>
#include <string_view>

namespace {

// FNV-1a.
class Hash {
 public:
   void take( std::string_view bytes ) {
      for( char const byte : bytes )
         value_ = ( value_ ^ static_cast< unsigned char >( byte ) ) * 0x100000001b3U;
   }
   std::uint64_t value() const { return value_; }

 private:
   std::uint64_t value_ = 0xcbf29ce484222325U;
};

struct Block {
   std::uint64_t plans;
   std::uint64_t records;
};

unsigned constexpr plansInBlock = 100;

// One row for each hundred seeds, made by g++ for 64 bits. A deliberate change of the plans, of
// the record or of the library's behaviour makes other rows: the test prints them.
Block constexpr table[] = {
   { 0xeff488b0a2fb552a, 0x5b060c8d852868bb },
   { 0x358715d48a41ca5c, 0x1ed6954fd89fe3ae },
   { 0xff1c6df76c1478ec, 0x2cc649b420f4a924 },
   { 0x89ef7e17f2d12620, 0x95194ace030729e1 },
   { 0xb3f393102b7d16fe, 0x6c96e5e3c2c8ae6e },
   { 0xc259428521200426, 0xcc9e045913ad71f3 },
   { 0xdd5f88e8b545eb76, 0x060893a92ea5a04a },
   { 0xb70630bbdcccded2, 0xf4ca459fd3e02639 },
   { 0x62175b030a39d264, 0xb5768689ddb7f7c4 },
   { 0x5e53dd938fcf51a8, 0x6b83210f098483f3 },
};

Block blockOf( unsigned number ) {
   Hash plans;
   Hash records;
   Simulation::RecordWriter writer( [ & ]( std::string_view line ) { records.take( line ); } );
   testing::internal::CaptureStdout();
   for( unsigned i = 0; i != plansInBlock; ++i ) {
      auto const plan = model::randomPlan( 1 + plansInBlock * number + i );
      plans.take( model::yamlOf( plan ) );
      Simulation::run( plan, { &writer } );
   }
   testing::internal::GetCapturedStdout();
   return { plans.value(), records.value() };
}

std::string rowOf( Block const & block ) {
   char text[ 64 ];
   std::snprintf( text, sizeof text, "{ 0x%016" PRIx64 ", 0x%016" PRIx64 " },", block.plans,
                  block.records );
   return text;
}

TEST( Records, OfAThousandRandomPlansAreTheSameBytesEverywhere ) {
   ASSERT_EQ( std::size( table ) * plansInBlock, 1000U );
   for( unsigned number = 0; number != std::size( table ); ++number )
      EXPECT_EQ( rowOf( blockOf( number ) ), rowOf( table[ number ] ) ) << "row " << number;
}

} // namespace
