// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <tools/Files.h>

#include <cerrno>
#include <cstring>

#include <simulation/detail/Text.h>

namespace Tools {

namespace {

[[noreturn]] void throwFileError( std::string const & path, std::string const & what ) {
   throw FileError( Simulation::Detail::printable( path ) + ": " + what );
}

// A device can go on for ever.
std::size_t constexpr largestFile = 64 * 1024 * 1024;

}  // namespace

std::string fileText( std::string const & path ) {
   std::unique_ptr< std::FILE, int ( * )( std::FILE * ) > const file(
      std::fopen( path.c_str(), "rbe" ), &std::fclose );
   std::string text;
   char part[ 65536 ];
   while( file && text.size() <= largestFile ) {
      auto const count = std::fread( part, 1, sizeof part, file.get() );
      text.append( part, count );
      if( count == 0 ) {
         break;
      }
   }
   if( !file || std::ferror( file.get() ) ) {
      throwFileError( path, std::string( "cannot be read: " ) + std::strerror( errno ) );
   }
   if( text.size() > largestFile ) {
      throwFileError( path, "is larger than 64 MiB, which no plan can be" );
   }
   return text;
}

OutputFile::OutputFile( std::string const & path )
   : path_( path ), file_( std::fopen( path.c_str(), "wbe" ) ) {
   if( !file_ ) {
      fail();
   }
}

void OutputFile::write( std::string_view text ) {
   if( std::fwrite( text.data(), 1, text.size(), file_.get() ) != text.size() ) {
      fail();
   }
}

void OutputFile::close() {
   if( std::fclose( file_.release() ) != 0 ) {
      fail();
   }
}

void OutputFile::fail() const {
   throwFileError( path_, std::string( "cannot be written: " ) + std::strerror( errno ) );
}

}  // namespace Tools
