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

// In place of the name of a file: standard input where one is read, standard output where one is
// written. A file of this name is "./-".
char constexpr standardStream[] = "-";

// Whether what is written to `path` comes out at standard output, by that name or another.
bool isStandardOutput( std::string const & path );

// How messages name a file that is read, and one that is written: as it was given, fit for a
// terminal; "<stdin>", "<stdout>".
std::string inputName( std::string const & path );
std::string outputName( std::string const & path );

// The whole of a file, or of standard input. Throws FileError, also for one larger than any plan
// can be.
std::string fileText( std::string const & path );

// A file that is written from its beginning and takes the place of the one that is there when it is
// whole: that one stays as it is until close(), and for good when close() is never reached, for
// whatever reason. Until then there is another file beside it, ".ordovan-" and six characters,
// which goes when this object does, or the process by a signal that can be caught.
//
// The new file has the mode of the old one and, where the system allows it, its owner; symbolic
// links are followed and stay. What is no regular file (a pipe, a device, a descriptor of this
// process) is written at once, and so is a file in a folder that takes no new ones.
//
// Every function throws FileError as soon as it is known that not everything can be stored.
class OutputFile {
 public:
   explicit OutputFile( std::string const & path );
   // Writes to an open descriptor, which becomes this object's. That nobody reads it any longer is
   // no failure.
   OutputFile( int descriptor, std::string name );
   ~OutputFile();
   OutputFile( OutputFile const & ) = delete;
   OutputFile & operator=( OutputFile const & ) = delete;

   void write( std::string_view text );
   // REQUIRES: called once, last. When it returns, everything has been handed to the system, and
   // the file stands under its name.
   void close();

 private:
   class Temporary;
   struct Closer {
      void operator()( std::FILE * file ) const { std::fclose( file ); }
   };

   void open( std::string const & path );
   void openDirectly( std::string const & path );
   void check( bool done ) const;
   [[noreturn]] void fail() const;

   std::string name_;
   std::unique_ptr< Temporary > temporary_; // null if it is written at once
   std::unique_ptr< std::FILE, Closer > file_;
   bool mayLoseReader_ = false;
};

} // namespace Tools
