// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// A program that a test runs.
#pragma once

#include <array>
#include <cstdio>
#include <string>

#include <sys/wait.h>

namespace testing_support {

// Has run, to its end, when this is made.
struct Child {
   explicit Child( std::string const & command ) {
      std::FILE * const child = popen( ( command + " 2>&1" ).c_str(), "r" );
      if( !child )
         return;
      std::array< char, 256 > piece;
      while( std::size_t const n = std::fread( piece.data(), 1, piece.size(), child ) )
         output.append( piece.data(), n );
      int const status = pclose( child );
      succeeded = WIFEXITED( status ) && WEXITSTATUS( status ) == 0;
   }
   // What it printed, for a comparison; marked when it failed.
   std::string printed() const { return ( succeeded ? "" : "failed: " ) + output; }

   std::string output; // and errors
   bool succeeded = false;
};

} // namespace testing_support
