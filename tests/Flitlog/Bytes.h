// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Flitlog/Reader.h>

#include <cstdint>
#include <string>
#include <vector>

#include <sys/mman.h>
#include <unistd.h>

// Gives bytes to the reader as a file, without a disk. Also for the fuzz targets.

namespace Rings {

class MemoryFile {
 public:
   explicit MemoryFile( std::string const & bytes )
      : fd_( memfd_create( "ring", MFD_CLOEXEC ) ),
        path_( "/proc/self/fd/" + std::to_string( fd_ ) ) {
      for( std::size_t done = 0; done != bytes.size(); ) {
         auto const written = ::write( fd_, bytes.data() + done, bytes.size() - done );
         if( written <= 0 )
            break;
         done += static_cast< std::size_t >( written );
      }
   }
   ~MemoryFile() { ::close( fd_ ); }
   MemoryFile( MemoryFile const & ) = delete;
   MemoryFile & operator=( MemoryFile const & ) = delete;

   std::string const & path() const { return path_; }
   void byteIs( std::size_t offset, char byte ) const {
      [[maybe_unused]] auto const written =
         ::pwrite( fd_, &byte, 1, static_cast< off_t >( offset ) );
   }
   void bytesAre( std::uint64_t offset, std::string const & bytes ) const {
      [[maybe_unused]] auto const written =
         ::pwrite( fd_, bytes.data(), bytes.size(), static_cast< off_t >( offset ) );
   }
   void sizeIs( std::uint64_t bytes ) const {
      [[maybe_unused]] auto const done = ::ftruncate( fd_, static_cast< off_t >( bytes ) );
   }

 private:
   int fd_;
   std::string path_;
};

// What a reader makes of a file. Throws when it breaks a promise that holds for any bytes: more
// records than a ring has room for, numbers that do not grow, a refusal without a reason.
struct Whatever {
   std::vector< Flitlog::Record > records;
   std::vector< std::string > problems;
   std::string refused;
};
Whatever readWhatever( std::string const & path );

} // namespace Rings
