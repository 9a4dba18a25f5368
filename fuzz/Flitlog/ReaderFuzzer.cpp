// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
//
// Any bytes as a trace file. Starts from a good one when it is given none, and makes sums right
// again after half of its changes, so that it gets behind them.
#include "../../tests/Flitlog/Bytes.h"
#include "Mutate.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

extern "C" std::size_t LLVMFuzzerMutate( std::uint8_t * data, std::size_t size, std::size_t most );

extern "C" int LLVMFuzzerTestOneInput( std::uint8_t const * data, std::size_t size ) {
   std::string const bytes( reinterpret_cast< char const * >( data ), size );
   (void)Rings::readWhatever( Rings::MemoryFile( bytes ).path() );
   return 0;
}

extern "C" std::size_t LLVMFuzzerCustomMutator( std::uint8_t * data, std::size_t size,
                                                std::size_t most, unsigned seed ) {
   static std::string const good = Fuzz::goodRing();
   std::mt19937 random( seed );
   if( random() % 2 == 0 )
      return LLVMFuzzerMutate( data, size, most );
   std::string bytes( reinterpret_cast< char const * >( data ), size );
   if( size < 256 || random() % 64 == 0 )
      bytes = good;
   bytes = Fuzz::mutated( bytes, random );
   std::size_t const length = std::min( bytes.size(), most );
   std::copy_n( bytes.begin(), length, data );
   return length;
}
