// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

namespace Tools {

// A file could not be read or written: what() names it and says why.
class FileError : public std::runtime_error {
 public:
   using std::runtime_error::runtime_error;
};

// The whole of a file. Throws FileError, also for one larger than any plan can be.
std::string fileText( std::string const & path );

// A file that is written from its beginning. Every function throws FileError as soon as it is
// known that not everything can be stored.
class OutputFile {
 public:
   // Replaces what is there.
   explicit OutputFile( std::string const & path );

   void write( std::string_view text );
   // REQUIRES: called once, last. When it returns, everything has been handed to the system.
   void close();

 private:
   struct Closer {
      void operator()( std::FILE * file ) const { std::fclose( file ); }
   };

   [[noreturn]] void fail() const;

   std::string path_;
   std::unique_ptr< std::FILE, Closer > file_;
};

}  // namespace Tools
