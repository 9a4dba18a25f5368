// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The records of random plans are the same bytes wherever they are made: for every compiler, on
// 32 and 64 bits, with and without sanitizers. Each build compares its own with one table.
#include "RandomPlan.h"

#include <gtest/gtest.h>

#include <simulation/RecordWriter.h>
#include <simulation/Run.h>

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
   { 0x274818500793bfd8, 0x28923dc8c88e9edb }, { 0x09a2fd083a0cadeb, 0x88c8edbd62439a12 },
   { 0x64b082aec3e429b5, 0x6b7a5f9bf9f96e6d }, { 0x18ea2351e669df07, 0x7579786adfc50b15 },
   { 0xd66a4020a43ee899, 0x09ecca98d5be18b4 }, { 0xa9f0717a5bf58b31, 0xa02dfa8d53d652c5 },
   { 0x1c778c5b3cb48c4a, 0x611bec025dd7a16f }, { 0x787c14fb6be74f19, 0x143b1ee4db4cf015 },
   { 0x57ced04a599e08f4, 0xb186a567437275aa }, { 0x24bfb9cedefad470, 0x10e8209b769a2a60 },
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
