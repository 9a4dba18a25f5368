// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
//
// Writers that end at the worst moment of their own or of a reader's. The moment is a call of the
// system, in whose place the functions of this file are linked.
#include "Support.h"

#include <cerrno>
#include <csignal>
#include <functional>

#include <fcntl.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// Called after each pread(); may change what has been read.
std::function< void( char * to, std::size_t bytes, off_t offset ) > afterRead;
// Called before a file's space is allocated.
std::function< void() > beforeAllocation;
// Whether a file can be found by its descriptor.
bool descriptorsHavePaths = true;

} // namespace

extern "C" [[gnu::visibility( "default" )]] ssize_t pread( int fd, void * to, std::size_t bytes,
                                                           off_t offset ) {
   iovec const part{ to, bytes };
   auto const got = ::preadv( fd, &part, 1, offset );
   if( afterRead )
      afterRead( static_cast< char * >( to ), bytes, offset );
   return got;
}

extern "C" [[gnu::visibility( "default" )]] int posix_fallocate( int fd, off_t offset,
                                                                 off_t bytes ) {
   if( beforeAllocation )
      beforeAllocation();
   return ::fallocate( fd, 0, offset, bytes ) == 0 ? 0 : errno;
}

extern "C" [[gnu::visibility( "default" )]] int access( char const * path, int mode ) noexcept {
   if( !descriptorsHavePaths && std::string_view( path ).starts_with( "/proc/self/fd/" ) ) {
      errno = ENOENT;
      return -1;
   }
   return ::faccessat( AT_FDCWD, path, mode, 0 );
}

namespace {

using namespace Rings;

struct Dying : Folder {
   ~Dying() override { afterRead = nullptr; }

   // So many records of 64 bytes, 64 of which fill the ring.
   void records( int count ) {
      for( ; count != 0; --count )
         write( file.get(), id, ++number, std::string( 20, 'x' ) );
   }

   std::unique_ptr< TraceFile > file = TraceFile::TraceFileIs( path, smallest );
   int id = numberAndText( file.get() );
   std::uint64_t number = 0;
};

// The positions are copied twice. Here the writer goes around between the copies, so that they do
// not fit to each other, and is gone when the reader asks for it.
TEST_F( Dying, PositionsThatWereCopiedWhileTheWriterLivedAreNotJudgedWhenItIsGone ) {
   records( 10 );
   auto const reader = Flitlog::Reader::ReaderIs( path );
   EXPECT_EQ( rest( *reader ).records.size(), 10U );
   int looks = 0;
   afterRead = [ & ]( char *, std::size_t, off_t offset ) {
      if( offset == 0 && ++looks == 1 )
         records( 200 );
      if( offset == 0 && looks == 2 )
         file.reset();
   };
   reader->poll();
   EXPECT_GT( looks, 2 );
   EXPECT_FALSE( reader->hasWriter() );
   Read const all = rest( *reader );
   EXPECT_EQ( all.records.size(), 64U );
   EXPECT_EQ( all.problems, std::vector< std::string >() );
   EXPECT_EQ( reader->overwritten(), 200U - 64 );
}

TEST_F( Dying, RecordsThatWereCopiedWhileTheWriterLivedAreNotJudgedWhenItIsGone ) {
   records( 10 );
   auto const reader = Flitlog::Reader::ReaderIs( path );
   auto const ringAt = static_cast< off_t >( std::filesystem::file_size( path ) - 4096 );
   afterRead = [ & ]( char * to, std::size_t, off_t offset ) {
      if( offset == ringAt && file ) {
         to[ 40 ] ^= 1;
         file.reset();
      }
   };
   Read const all = rest( *reader );
   EXPECT_EQ( all.records.size(), 10U );
   EXPECT_EQ( all.problems, std::vector< std::string >() );
}

// Positions that make no sense do not keep a reader looking for ever.
TEST_F( Dying, PositionsThatAreWrongAreJudgedOnceTheWriterIsGone ) {
   records( 10 );
   auto const reader = Flitlog::Reader::ReaderIs( path );
   std::uint64_t looks = 0;
   afterRead = [ & ]( char * to, std::size_t, off_t offset ) {
      if( offset != 0 )
         return;
      std::uint64_t const head = 9 + ++looks; // never the same, no multiple of 8 in the smaller
      std::memcpy( to + 136, &head, sizeof head );
      file.reset();
   };
   reader->poll();
   EXPECT_EQ( looks, 4U );
   ASSERT_EQ( reader->problems().size(), 1U );
   EXPECT_TRUE( reader->problems()[ 0 ].starts_with( "in the header: expected tail and head" ) );
}

struct Making : Folder {
   ~Making() override {
      beforeAllocation = nullptr;
      descriptorsHavePaths = true;
   }
   // How many files a process leaves in the folder that is killed while it makes its own.
   std::size_t leftByOneThatIsKilled() const {
      pid_t const child = fork();
      if( child == 0 ) {
         beforeAllocation = [] { raise( SIGKILL ); };
         TraceFile::TraceFileIs( path, smallest );
         _exit( 0 );
      }
      int status = 0;
      waitpid( child, &status, 0 );
      EXPECT_TRUE( WIFSIGNALED( status ) );
      return files();
   }
};

TEST_F( Making, AFileThatIsNotCompleteDoesNotOutliveItsProcess ) {
   int const fd = ::open( folder.c_str(), O_TMPFILE | O_RDWR, 0600 );
   if( fd < 0 )
      GTEST_SKIP() << "the file system has no files without a name";
   ::close( fd );
   EXPECT_EQ( leftByOneThatIsKilled(), 0U );
}

TEST_F( Making, WhereFilesNeedANameFromTheBeginningTheyAreMadeAllTheSame ) {
   descriptorsHavePaths = false;
   EXPECT_EQ( leftByOneThatIsKilled(), 1U );
   for( std::uint64_t generation = 1; generation != 4; ++generation ) {
      auto const file = TraceFile::TraceFileIs( path, smallest );
      write( file.get(), numberAndText( file.get() ), generation, "generation" );
   }
   EXPECT_EQ( read( path ).texts(), std::vector< std::string >{ "number 3 text generation" } );
   EXPECT_EQ( read( path + ".old" ).texts(),
              std::vector< std::string >{ "number 2 text generation" } );
   EXPECT_EQ( files(), 3U );
}

} // namespace
