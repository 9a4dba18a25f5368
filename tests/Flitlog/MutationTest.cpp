// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
//
// Nearly right files by the thousand, always the same ones. FLITLOG_MUTATIONS=N reads more, and
// FLITLOG_SEED=N others.
#include "../../fuzz/Flitlog/Mutate.h"
#include "Bytes.h"
#include "Selfchecking.h"

#include <stdexcept>

namespace {

using namespace Rings;

TEST( Mutation, WhateverIsInAFileReadingItEndsWell ) {
   std::string const good = Fuzz::goodRing();
   Whatever const all = readWhatever( MemoryFile( good ).path() );
   ASSERT_EQ( all.problems, std::vector< std::string >() );
   std::size_t const records = all.records.size();
   ASSERT_GT( records, 30U );

   unsigned long const count = countOf( "FLITLOG_MUTATIONS", 20000 );
   std::mt19937 random( static_cast< unsigned >( countOf( "FLITLOG_SEED", 1 ) ) );
   unsigned long refused = 0;
   unsigned long understood = 0;
   unsigned long damaged = 0;
   for( unsigned long i = 0; i != count; ++i ) {
      std::string const bytes = Fuzz::mutated( good, random );
      Whatever found;
      try {
         found = readWhatever( MemoryFile( bytes ).path() );
      } catch( std::logic_error const & e ) {
         FAIL() << "mutation " << i << ": " << e.what();
      }
      refused += !found.refused.empty();
      understood += !found.records.empty();
      damaged += !found.problems.empty();
   }
   // The mutations are neither too rude nor too mild to show anything.
   EXPECT_GT( refused, count / 100 );
   EXPECT_GT( understood, count / 4 );
   EXPECT_GT( damaged, count / 4 );
}

} // namespace
