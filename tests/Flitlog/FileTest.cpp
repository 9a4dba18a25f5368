// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include "Support.h"

#include <csignal>
#include <limits>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace Rings;

struct File : Folder {
   // What a file at the path is refused with, without the path.
   std::string refusal( TraceFile::Options const & options = smallest ) {
      try {
         TraceFile::TraceFileIs( path, options );
      } catch( Flitlog::FileError const & e ) {
         std::string const what = e.what();
         EXPECT_EQ( what.substr( 0, path.size() + 2 ), path + ": " );
         return what.substr( path.size() + 2 );
      }
      return "not refused";
   }
};

// Runs in a child, whose status is 0 when the callable gives true.
template< class Callable >
bool inChild( Callable callable ) {
   pid_t const child = fork();
   if( child == 0 )
      _exit( callable() ? 0 : 1 );
   int status = -1;
   waitpid( child, &status, 0 );
   return status == 0;
}

TEST_F( File, ANewFileIsPrivateCompleteAndAlone ) {
   auto const file = TraceFile::TraceFileIs( path, { 10000, nullptr, 2000 } );
   EXPECT_EQ( file->path(), path );
   struct stat status {};
   ASSERT_EQ( ::stat( path.c_str(), &status ), 0 );
   EXPECT_EQ( status.st_mode & 0777U, 0600U );
   EXPECT_EQ( status.st_size, 256 + 2000 + 10000 );
   EXPECT_GE( status.st_blocks * 512, status.st_size );
   EXPECT_EQ( files(), 1U );
}

TEST_F( File, SizesOutOfRangeAreRefusedWithTheRange ) {
   EXPECT_EQ( refusal( { 4095 } ), "a ring of 4095 bytes; expected 4096 to 68719476736" );
   EXPECT_EQ( refusal( { 0 } ), "a ring of 0 bytes; expected 4096 to 68719476736" );
   EXPECT_EQ( refusal( { ~std::uint64_t( 0 ) } ),
              "a ring of 18446744073709551615 bytes; expected 4096 to 68719476736" );
   EXPECT_EQ( refusal( { 4096, nullptr, 1023 } ),
              "room for descriptors of 1023 bytes; expected 1024 to 67108864" );
   EXPECT_EQ( files(), 0U );
}

TEST_F( File, LevelsThatAreNoneAreRefused ) {
   for( unsigned const levels : { 0U, 0x400U, 0x7ffU, ~0U } ) {
      TraceFile::Options options = smallest;
      options.levels = levels;
      EXPECT_EQ( refusal( options ), "levels as the bits " + std::to_string( levels ) +
                                        "; expected 1 to 1023, a bit for each level from 0 to 9" );
   }
   EXPECT_EQ( files(), 0U );
}

TEST_F( File, RemembersTheLevelsThatItWasOpenedFor ) {
   TraceFile::Options options = smallest;
   for( unsigned const levels : { Flitlog::allLevels, 0x1ffU, 0x200U, 0x1U } ) {
      options.levels = levels;
      auto const file = TraceFile::TraceFileIs( path, options );
      EXPECT_EQ( file->levels(), levels );
      for( unsigned level = 0; level != 10; ++level )
         EXPECT_EQ( file->takes( level ), ( levels >> level & 1U ) != 0 ) << level;
      EXPECT_TRUE( file->takes( 10 ) && file->takes( 32 ) ) << "has no bit";
      EXPECT_EQ( Flitlog::Reader::ReaderIs( path )->levels(), levels );
   }
   auto const usual = TraceFile::TraceFileIs( path, smallest );
   EXPECT_EQ( usual->levels(), Flitlog::allLevels );
}

// Whether to ask takes() is for whoever has the trace points.
TEST_F( File, KeepsWhatItIsGivenWhateverItsLevels ) {
   TraceFile::Options options = smallest;
   options.levels = 1U << 7;
   auto const file = TraceFile::TraceFileIs( path, options );
   write( file.get(), numberAndText( file.get() ), 1, "of level 8" );
   EXPECT_EQ( read( path ).texts(), std::vector< std::string >{ "number 1 text of level 8" } );
}

TEST_F( File, SizesAreRoundedUpToWhatAlignmentNeeds ) {
   { auto const file = TraceFile::TraceFileIs( path, { 4097, nullptr, 1025 } ); }
   EXPECT_EQ( contents( path ).size(), 256U + 1032 + 4104 );
   EXPECT_TRUE( read( path ).problems.empty() );
}

TEST_F( File, ATraceFileOfAnEarlierProcessIsKept ) {
   for( std::uint64_t generation = 1; generation != 4; ++generation ) {
      auto const file = TraceFile::TraceFileIs( path, smallest );
      write( file.get(), numberAndText( file.get() ), generation, "generation" );
   }
   EXPECT_EQ( read( path ).texts(), std::vector< std::string >{ "number 3 text generation" } );
   EXPECT_EQ( read( path + ".old" ).texts(),
              std::vector< std::string >{ "number 2 text generation" } );
   EXPECT_EQ( files(), 2U );
}

TEST_F( File, ADamagedTraceFileIsKeptAsWell ) {
   { auto const file = TraceFile::TraceFileIs( path, smallest ); }
   std::string damaged = contents( path );
   atIs( damaged, 20, 12345 );
   damaged.resize( 700 );
   contentsIs( path, damaged );
   { auto const file = TraceFile::TraceFileIs( path, smallest ); }
   EXPECT_EQ( contents( path + ".old" ), damaged );
}

TEST_F( File, WhatIsNoTraceFileIsNotTouched ) {
   for( std::string const & foreign :
        { std::string( "precious" ), std::string(), std::string( 5000, 'x' ),
          std::string( "\x8b"
                       "Flit\r\n\x1a" ) } ) {
      contentsIs( path, foreign );
      EXPECT_EQ( refusal(), "is not a trace file; expected a trace file or nothing at this path" );
      EXPECT_EQ( contents( path ), foreign );
      EXPECT_EQ( files(), 1U );
   }
}

TEST_F( File, DirectoriesPipesAndLinksAreRefused ) {
   char const * const refused =
      "is not a regular file; expected a trace file or nothing at this path";
   std::filesystem::create_directory( path );
   EXPECT_EQ( refusal(), refused );
   std::filesystem::remove( path );
   ASSERT_EQ( mkfifo( path.c_str(), 0600 ), 0 );
   EXPECT_EQ( refusal(), refused );
   std::filesystem::remove( path );
   std::filesystem::create_symlink( "elsewhere", path );
   EXPECT_EQ( refusal(), refused );
   EXPECT_EQ( files(), 1U );
}

TEST_F( File, AForeignFileInTheWayOfTheOldOneIsNotTouchedEither ) {
   { auto const file = TraceFile::TraceFileIs( path, smallest ); }
   std::string const before = contents( path );
   contentsIs( path + ".old", "precious" );
   try {
      TraceFile::TraceFileIs( path, smallest );
      ADD_FAILURE() << "not refused";
   } catch( Flitlog::FileError const & e ) {
      EXPECT_EQ( std::string( e.what() ),
                 path + ".old: is not a trace file; expected a trace file or nothing at this "
                        "path" );
   }
   EXPECT_EQ( contents( path + ".old" ), "precious" );
   EXPECT_EQ( contents( path ), before );
   EXPECT_EQ( files(), 2U );
}

TEST_F( File, APathThatCannotBeMadeIsRefusedWithTheReason ) {
   path = folder + "/no/such/folder";
   EXPECT_EQ( refusal(), "cannot be made: No such file or directory" );
   contentsIs( folder + "/plain", "" );
   path = folder + "/plain/ring";
   EXPECT_EQ( refusal(), "cannot be used: Not a directory" );
   EXPECT_THROW( TraceFile::TraceFileIs( "", smallest ), Flitlog::FileError );
}

TEST_F( File, AFileBeyondTheProcesssLimitIsRefusedWithoutASignal ) {
   EXPECT_TRUE( inChild( [ & ] {
      rlimit const limit{ 4096, 4096 };
      setrlimit( RLIMIT_FSIZE, &limit );
      return refusal() == "cannot be made: its 5376 bytes are more than the process's limit for a "
                          "file, 4096";
   } ) );
   EXPECT_EQ( files(), 0U );
}

TEST_F( File, AFullDiskIsRefusedAndLeavesNothing ) {
   // The usual file system in memory knows its size and refuses more at once.
   struct statvfs space {};
   if( statvfs( "/dev/shm", &space ) != 0 || access( "/dev/shm", W_OK ) != 0 )
      GTEST_SKIP() << "no /dev/shm";
   std::uint64_t const bytes = std::uint64_t( space.f_blocks ) * space.f_frsize + ( 1 << 20 );
   if( space.f_blocks == 0 || bytes > std::numeric_limits< std::size_t >::max() / 4 ||
       bytes > Flitlog::detail::ringMost )
      GTEST_SKIP() << "no limit to /dev/shm that a ring can reach";
   path = "/dev/shm/flitlog-test-" + std::to_string( getpid() );
   std::string const text = refusal( { bytes } );
   EXPECT_TRUE( text.starts_with( "has no room for " ) ) << text;
   EXPECT_TRUE( text.ends_with( " bytes: No space left on device" ) ) << text;
   for( auto const & file : std::filesystem::directory_iterator( "/dev/shm" ) )
      EXPECT_FALSE( file.path().string().starts_with( path ) ) << file.path();
}

TEST_F( File, TwoWritersOfOneFileAreRefusedByName ) {
   auto const file = TraceFile::TraceFileIs( path, smallest );
   std::string const expected = "is being written by process " + std::to_string( getpid() ) +
                                "; expected a file that no process writes";
   EXPECT_EQ( refusal(), expected );
   EXPECT_TRUE( inChild( [ & ] { return refusal() == expected; } ) );
   write( file.get(), numberAndText( file.get() ), 1, "still mine" );
   EXPECT_EQ( read( path ).texts(), std::vector< std::string >{ "number 1 text still mine" } );
   EXPECT_EQ( files(), 1U );
}

TEST_F( File, TheLockEndsWithTheFile ) {
   {
      auto const file = TraceFile::TraceFileIs( path, smallest );
      EXPECT_TRUE( Flitlog::Reader::ReaderIs( path )->hasWriter() );
   }
   EXPECT_FALSE( Flitlog::Reader::ReaderIs( path )->hasWriter() );
   EXPECT_NO_THROW( TraceFile::TraceFileIs( path, smallest ) );
}

TEST_F( File, AReaderDoesNotKeepAWriterAway ) {
   { auto const file = TraceFile::TraceFileIs( path, smallest ); }
   auto const reader = Flitlog::Reader::ReaderIs( path );
   EXPECT_FALSE( reader->hasWriter() );
   EXPECT_NO_THROW( TraceFile::TraceFileIs( path, smallest ) );
}

TEST_F( File, IdsAreForgottenWithTheirFileAndGivenAnewByTheNext ) {
   int first = 0;
   int second = 0;
   {
      auto const file = TraceFile::TraceFileIs( path, smallest );
      Flitlog::theTraceFile = file.get();
      first = numberAndText( file.get() );
      second = numberAndText( file.get() );
      file->msgIdArrIs( &first );
      file->msgIdArrIs( &second );
      EXPECT_EQ( first, 1 );
      EXPECT_EQ( second, 2 );
   }
   EXPECT_EQ( first, 0 );
   EXPECT_EQ( second, 0 );
   EXPECT_EQ( Flitlog::theTraceFile, nullptr );
   auto const file = TraceFile::TraceFileIs( path, smallest );
   second = numberAndText( file.get() );
   EXPECT_EQ( second, 1 );
   write( file.get(), second, 1, "described anew" );
   EXPECT_EQ( read( path ).texts(), std::vector< std::string >{ "number 1 text described anew" } );
}

TEST_F( File, AnotherFileThatClosesDoesNotStopTheTraces ) {
   auto const file = TraceFile::TraceFileIs( path, smallest );
   Flitlog::theTraceFile = file.get();
   { auto const other = TraceFile::TraceFileIs( path + "2", smallest ); }
   EXPECT_EQ( Flitlog::theTraceFile, file.get() );
   Flitlog::theTraceFile = nullptr;
}

TEST_F( File, AForkedChildDoesNotWriteIntoItsParentsRing ) {
   auto const file = TraceFile::TraceFileIs( path, smallest );
   int id = numberAndText( file.get() );
   int const idInFile = id;
   file->msgIdArrIs( &id );
   Flitlog::theTraceFile = file.get();
   write( file.get(), id, 1, "parent" );
   std::string const before = contents( path );
   EXPECT_TRUE( inChild( [ & ] {
      bool const letGo = Flitlog::theTraceFile == nullptr && id == 0;
      // Even one who kept the pointer does no harm.
      for( std::uint64_t i = 0; i != 500; ++i )
         write( file.get(), idInFile, i, "child" );
      numberAndText( file.get() );
      return letGo;
   } ) );
   EXPECT_EQ( contents( path ), before );
   EXPECT_EQ( Flitlog::theTraceFile, file.get() );
   EXPECT_EQ( id, idInFile );
   write( file.get(), id, 2, "parent" );
   EXPECT_EQ( read( path ).texts(),
              ( std::vector< std::string >{ "number 1 text parent", "number 2 text parent" } ) );
   Flitlog::theTraceFile = nullptr;
}

TEST_F( File, AForkedChildCanHaveARingOfItsOwn ) {
   auto const file = TraceFile::TraceFileIs( path, smallest );
   numberAndText( file.get() );
   EXPECT_TRUE( inChild( [ & ] {
      auto const own = TraceFile::TraceFileIs( path + ".child", smallest );
      write( own.get(), numberAndText( own.get() ), 1, "child" );
      return read( path + ".child" ).texts() == std::vector< std::string >{ "number 1 text child" };
   } ) );
}

TEST_F( File, AForkedChildsRingHasLevelsOfItsOwn ) {
   TraceFile::Options options = smallest;
   options.levels = 0x1ff;
   auto const file = TraceFile::TraceFileIs( path, options );
   EXPECT_TRUE( inChild( [ & ] {
      auto const own = TraceFile::TraceFileIs( path + ".child", smallest );
      return own->takes( 9 ) && !file->takes( 9 );
   } ) );
   EXPECT_EQ( Flitlog::Reader::ReaderIs( path )->levels(), 0x1ffU );
   EXPECT_EQ( Flitlog::Reader::ReaderIs( path + ".child" )->levels(), Flitlog::allLevels );
}

TEST_F( File, AChildThatOutlivesItsParentDoesNotHoldTheLock ) {
   int ends[ 2 ];
   ASSERT_EQ( pipe2( ends, O_CLOEXEC ), 0 );
   pid_t grandchild = 0;
   pid_t const parent = fork();
   if( parent == 0 ) {
      auto * const file = TraceFile::TraceFileIs( path, smallest ).release();
      write( file, numberAndText( file ), 1, "parent" );
      if( fork() == 0 ) {
         pid_t const self = getpid();
         if( ::write( ends[ 1 ], &self, sizeof self ) == sizeof self )
            pause();
      }
      _exit( 0 );
   }
   ASSERT_EQ( ::read( ends[ 0 ], &grandchild, sizeof grandchild ),
              static_cast< ssize_t >( sizeof grandchild ) );
   waitpid( parent, nullptr, 0 );
   EXPECT_EQ( kill( grandchild, 0 ), 0 );
   EXPECT_FALSE( Flitlog::Reader::ReaderIs( path )->hasWriter() );
   EXPECT_NO_THROW( TraceFile::TraceFileIs( path, smallest ) );
   kill( grandchild, SIGKILL );
   close( ends[ 0 ] );
   close( ends[ 1 ] );
}

} // namespace
