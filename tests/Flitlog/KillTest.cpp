// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
//
// A process that is killed while it writes loses the record that it was writing, if any, and
// nothing else. FLITLOG_KILLS=N kills more processes than the usual 200.
#include "Selfchecking.h"
#include "Support.h"

#include <csignal>
#include <random>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace Rings;

struct Kill : Folder {
   // Reads a ring whose writer got as far as that. All of it must be right and without a gap.
   void check( std::uint64_t published, std::uint64_t ringBytes ) {
      auto const reader = Flitlog::Reader::ReaderIs( path );
      ASSERT_FALSE( reader->hasWriter() );
      Checker checker;
      std::size_t records = 0;
      for( Flitlog::Record record; reader->next( record ); ++records )
         ASSERT_EQ( checker.wrong( record ), "" );
      ASSERT_TRUE( reader->problems().empty() ) << reader->problems()[ 0 ];
      ASSERT_EQ( checker.gaps(), 0U );
      // The writer may have died between publishing and saying so.
      ASSERT_GE( checker.last(), published );
      ASSERT_LE( checker.last(), published + 1 );
      // What a record had to make room for is all that is missing of the old: a record has 176
      // bytes at most.
      ASSERT_TRUE( checker.first() == 1 || records >= ringBytes / 176 - 2 ) << records;
   }
};

TEST_F( Kill, LosesAtMostTheRecordThatWasBeingWritten ) {
   unsigned long const kills = countOf( "FLITLOG_KILLS", 200 );
   std::mt19937 random( 20 );
   for( unsigned long i = 0; i != kills; ++i ) {
      std::uint64_t const ringBytes = i % 4 == 3 ? 65536 : 4096;
      Writer writer( path, ringBytes );
      usleep( static_cast< useconds_t >( random() % 3000 ) );
      writer.kill();
      ASSERT_NO_FATAL_FAILURE( check( writer.published(), ringBytes ) ) << "kill " << i;
   }
}

// A file's bytes as they are at any moment.
class Mapping {
 public:
   explicit Mapping( std::string const & path )
      : size_( static_cast< std::size_t >( std::filesystem::file_size( path ) ) ) {
      int const fd = ::open( path.c_str(), O_RDONLY | O_CLOEXEC );
      at_ = mmap( nullptr, size_, PROT_READ, MAP_SHARED, fd, 0 );
      ::close( fd );
   }
   ~Mapping() { munmap( at_, size_ ); }
   Mapping( Mapping const & ) = delete;
   Mapping & operator=( Mapping const & ) = delete;
   std::string_view bytes() const { return { static_cast< char const * >( at_ ), size_ }; }

 private:
   std::size_t size_;
   void * at_;
};

// The same without leaving anything to chance: the writer is stopped after each instruction, and
// the file is read as it would be if that had been the last one.
struct EveryInstruction : Kill {
   // Records that are written beforehand, enough to go around the ring twice, and up to the end.
   static constexpr std::uint64_t before_ = 100;
   static constexpr std::uint64_t after_ = 106;

   // Follows the child, which waits for us, from instruction to instruction up to its end.
   void follow( pid_t child ) {
      std::string before;
      Mapping const file( path );
      Checker newest;
      std::size_t states = 0;
      int status = 0;
      for( std::size_t steps = 0; steps != 200000; ++steps ) {
         ASSERT_EQ( ptrace( PTRACE_SINGLESTEP, child, nullptr, nullptr ), 0 );
         waitpid( child, &status, 0 );
         if( !WIFSTOPPED( status ) )
            break;
         if( file.bytes() == before )
            continue;
         before = file.bytes();
         ++states;
         Read const all = read( path );
         ASSERT_TRUE( all.problems.empty() ) << all.problems[ 0 ];
         Checker checker;
         for( Flitlog::Record const & record : all.records )
            ASSERT_EQ( checker.wrong( record ), "" );
         ASSERT_EQ( checker.gaps(), 0U );
         ASSERT_GE( checker.last(), before_ );
         ASSERT_GE( checker.last(), newest.last() );
         ASSERT_GE( all.records.size(), 4096U / 176 - 2 );
         newest = checker;
      }
      EXPECT_TRUE( WIFEXITED( status ) );
      EXPECT_EQ( newest.last(), after_ );
      // Each record moves tail, is written, and moves head.
      EXPECT_GE( states, 3 * ( after_ - before_ ) );
   }
};

TEST_F( EveryInstruction, LeavesARingThatCanBeReadWhole ) {
   pid_t const child = fork();
   if( child == 0 ) {
      auto const file = TraceFile::TraceFileIs( path, smallest );
      int const id = numberAndText( file.get() );
      std::vector< std::string > texts;
      for( std::uint64_t i = 0; i <= after_; ++i )
         texts.push_back( selfcheckingText( i ) );
      std::uint64_t next = 1;
      for( ; next <= before_; ++next )
         write( file.get(), id, next, texts[ static_cast< std::size_t >( next ) ] );
      if( ptrace( PTRACE_TRACEME, 0, nullptr, nullptr ) != 0 )
         _exit( 77 );
      raise( SIGSTOP );
      for( ; next <= after_; ++next )
         write( file.get(), id, next, texts[ static_cast< std::size_t >( next ) ] );
      _exit( 0 );
   }
   int status = 0;
   waitpid( child, &status, 0 );
   if( WIFEXITED( status ) && WEXITSTATUS( status ) == 77 )
      GTEST_SKIP() << "ptrace is not allowed here";
   ASSERT_TRUE( WIFSTOPPED( status ) );
   follow( child );
   kill( child, SIGKILL );
   waitpid( child, nullptr, 0 );
}

} // namespace
