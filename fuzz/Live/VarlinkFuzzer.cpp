// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
//
// Any bytes as what a peer says to a server of the protocol. Begins anew with calls that are good,
// a little damaged, every now and then.
#include "../../tests/live/AnyBytes.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>

extern "C" std::size_t LLVMFuzzerMutate( std::uint8_t * data, std::size_t size, std::size_t most );

extern "C" int LLVMFuzzerTestOneInput( std::uint8_t const * data, std::size_t size ) {
   static LiveTest::AnyServer server;
   (void)server.say( { reinterpret_cast< char const * >( data ), size } );
   return 0;
}

extern "C" std::size_t LLVMFuzzerCustomMutator( std::uint8_t * data, std::size_t size,
                                                std::size_t most, unsigned seed ) {
   std::mt19937 random( seed );
   if( size >= 16 && random() % 16 != 0 )
      return LLVMFuzzerMutate( data, size, most );
   std::string const bytes = LiveTest::mutatedCalls( random );
   std::size_t const length = std::min( bytes.size(), most );
   std::copy_n( bytes.begin(), length, data );
   return length;
}
