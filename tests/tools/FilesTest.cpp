// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include "Process.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <set>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <tools/Files.h>

// Files that are written: what was there before stays until they are whole.

namespace {

using Tools::FileError;
using Tools::OutputFile;

struct Files : Process::Folder {
   std::string path( std::string const & name ) const { return ( folder / name ).string(); }
   std::string text( std::string const & name ) const { return Process::contents( folder / name ); }
   mode_t mode( std::string const & name ) const {
      struct stat is {};
      return stat( path( name ).c_str(), &is ) == 0 ? is.st_mode & 07777 : 0;
   }
   std::set< std::string > names() const {
      std::set< std::string > all;
      for( auto const & entry : std::filesystem::directory_iterator( folder ) )
         all.insert( entry.path().filename() );
      return all;
   }
   void write( std::string const & name, std::string const & what ) const {
      OutputFile out( path( name ) );
      out.write( what );
      out.close();
   }
   std::string error( std::string const & name ) const {
      try {
         write( name, "new" );
      } catch( FileError const & e ) {
         return e.what();
      }
      return "";
   }

   // How a process ended in which `act` was run: its exit status, or minus the signal.
   template< class Act >
   static int endOf( Act act ) {
      auto const child = fork();
      if( child == 0 ) {
         try {
            act();
         } catch( FileError const & ) {
            _exit( 3 );
         }
         _exit( 0 );
      }
      int status = 0;
      waitpid( child, &status, 0 );
      return WIFSIGNALED( status ) ? -WTERMSIG( status ) : WEXITSTATUS( status );
   }
};

TEST_F( Files, TheOldOneStaysUntilTheNewOneIsWhole ) {
   file( "out", "old" );
   {
      OutputFile out( path( "out" ) );
      out.write( std::string( 100000, 'x' ) );
      EXPECT_EQ( text( "out" ), "old" );
      EXPECT_EQ( names().size(), 2U ) << "another one beside it";
      out.close();
      EXPECT_EQ( text( "out" ), std::string( 100000, 'x' ) );
      EXPECT_EQ( names(), ( std::set< std::string >{ "out" } ) );
   }
   EXPECT_EQ( names(), ( std::set< std::string >{ "out" } ) );
}

TEST_F( Files, TheOldOneStaysWhenTheNewOneIsGivenUp ) {
   file( "out", "old" );
   { OutputFile( path( "out" ) ).write( "new" ); }
   EXPECT_EQ( text( "out" ), "old" );
   { OutputFile( path( "fresh" ) ).write( "new" ); }
   EXPECT_EQ( names(), ( std::set< std::string >{ "out" } ) );
}

TEST_F( Files, AnEndBySignalLeavesTheOldOneAndNothingElse ) {
   file( "out", "old" );
   for( int const number : { SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGABRT } ) {
      EXPECT_EQ( endOf( [ & ] {
                    setrlimit( RLIMIT_CORE, std::array< rlimit, 1 >{}.data() );
                    OutputFile one( path( "out" ) );
                    OutputFile two( path( "fresh" ) );
                    one.write( std::string( 100000, 'x' ) );
                    raise( number );
                 } ),
                 -number );
      EXPECT_EQ( text( "out" ), "old" );
      EXPECT_EQ( names(), ( std::set< std::string >{ "out" } ) ) << number;
   }
}

TEST_F( Files, ASignalBeforeOrAfterwardsIsNoBusinessOfTheirs ) {
   EXPECT_EQ( endOf( [ & ] {
                 { OutputFile one( path( "given up" ) ); }
                 write( "out", "whole" );
                 struct sigaction is {};
                 sigaction( SIGTERM, nullptr, &is );
                 raise( is.sa_handler == SIG_DFL ? SIGTERM : SIGKILL );
              } ),
              -SIGTERM );
   EXPECT_EQ( text( "out" ), "whole" );
}

TEST_F( Files, ASignalThatIsIgnoredStaysIgnored ) {
   EXPECT_EQ( endOf( [ & ] {
                 std::signal( SIGHUP, SIG_IGN );
                 OutputFile out( path( "out" ) );
                 raise( SIGHUP );
                 out.write( "new" );
                 out.close();
              } ),
              0 );
   EXPECT_EQ( text( "out" ), "new" );
}

TEST_F( Files, AFullDiskLeavesTheOldOneAndIsTold ) {
   file( "out", "old" );
   EXPECT_EQ( endOf( [ & ] {
                 std::signal( SIGXFSZ, SIG_IGN );
                 rlimit const limit{ 5000, 5000 };
                 setrlimit( RLIMIT_FSIZE, &limit );
                 write( "out", std::string( 100000, 'x' ) );
              } ),
              3 );
   EXPECT_EQ( text( "out" ), "old" );
   EXPECT_EQ( names(), ( std::set< std::string >{ "out" } ) );
}

TEST_F( Files, TheModeOfTheOldOneIsKept ) {
   file( "out", "old" );
   for( mode_t const wanted : { 0600U, 0640U, 0755U, 0666U } ) {
      chmod( path( "out" ).c_str(), wanted );
      write( "out", "new" );
      EXPECT_EQ( mode( "out" ), wanted );
   }
   auto const mask = umask( 027 );
   write( "fresh", "new" );
   umask( mask );
   EXPECT_EQ( mode( "fresh" ), 0640U );
}

TEST_F( Files, TheOwnerOfTheOldOneIsKeptWhereThatIsAllowed ) {
   if( geteuid() != 0 )
      GTEST_SKIP() << "needs root";
   file( "out", "old" );
   ASSERT_EQ( chown( path( "out" ).c_str(), 1234, 5678 ), 0 );
   chmod( path( "out" ).c_str(), 04750 );
   write( "out", "new" );
   struct stat is {};
   ASSERT_EQ( stat( path( "out" ).c_str(), &is ), 0 );
   EXPECT_EQ( is.st_uid, 1234U );
   EXPECT_EQ( is.st_gid, 5678U );
   EXPECT_EQ( mode( "out" ), 04750U );
}

TEST_F( Files, WithoutItsGroupTheNewOneGivesNobodyElsesGroupARight ) {
   if( geteuid() != 0 )
      GTEST_SKIP() << "needs root";
   file( "out", "old" );
   chmod( path( "out" ).c_str(), 02666 );
   chmod( folder.c_str(), 0777 );
   EXPECT_EQ( endOf( [ & ] {
                 EXPECT_EQ( setregid( 1234, 1234 ) + setreuid( 1234, 1234 ), 0 );
                 write( "out", "new" );
              } ),
              0 );
   EXPECT_EQ( text( "out" ), "new" );
   EXPECT_EQ( mode( "out" ), 0606U );
}

TEST_F( Files, LinksAreFollowedAndStay ) {
   std::filesystem::create_directory( folder / "there" );
   file( "there/target", "old" );
   std::filesystem::create_symlink( "there/again", folder / "link" );
   std::filesystem::create_symlink( "target", folder / "there/again" );
   std::filesystem::create_symlink( folder / "there/new", folder / "dangling" );
   write( "link", "one" );
   write( "dangling", "two" );
   EXPECT_EQ( text( "there/target" ), "one" );
   EXPECT_EQ( text( "there/new" ), "two" );
   for( auto const * link : { "link", "there/again", "dangling" } )
      EXPECT_TRUE( std::filesystem::is_symlink( folder / link ) ) << link;
   EXPECT_EQ( names(), ( std::set< std::string >{ "dangling", "link", "there" } ) );
}

TEST_F( Files, WhatIsNoRegularFileIsWrittenAtOnce ) {
   ASSERT_EQ( mkfifo( path( "pipe" ).c_str(), 0600 ), 0 );
   int const reader = open( path( "pipe" ).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC );
   write( "pipe", "through" );
   char part[ 20 ];
   EXPECT_EQ( read( reader, part, sizeof part ), 7 );
   close( reader );
   write( "/dev/null", "away" );
   EXPECT_TRUE( std::filesystem::is_character_file( "/dev/null" ) );
   EXPECT_EQ( names(), ( std::set< std::string >{ "pipe" } ) );
}

// The name leads to a regular file then, but whoever opened it goes on writing to that very one.
TEST_F( Files, AnOpenDescriptorIsWrittenAtOnceThoughItsFileIsRegular ) {
   file( "out", "old" );
   int const descriptor = open( path( "out" ).c_str(), O_RDWR | O_CLOEXEC );
   for( std::string const folders : { "/dev/fd/", "/proc/self/fd/" } ) {
      OutputFile out( folders + std::to_string( descriptor ) );
      out.write( folders );
      out.close();
      char part[ 50 ];
      EXPECT_EQ( pread( descriptor, part, sizeof part, 0 ), static_cast< int >( folders.size() ) );
      EXPECT_EQ( text( "out" ), folders );
   }
   close( descriptor );
   EXPECT_EQ( names(), ( std::set< std::string >{ "out" } ) );
}

TEST_F( Files, AFolderThatTakesNoNewFileStillTakesWhatIsWrittenToAnOldOne ) {
   file( "out", "old" );
   chmod( path( "out" ).c_str(), 0666 );
   chmod( folder.c_str(), 0555 );
   EXPECT_EQ( endOf( [ & ] {
                 if( geteuid() == 0 )
                    EXPECT_EQ( setreuid( 1234, 1234 ), 0 );
                 write( "out", "new" );
              } ),
              0 );
   chmod( folder.c_str(), 0777 );
   EXPECT_EQ( text( "out" ), "new" );
}

TEST_F( Files, AFileThatMustNotBeWrittenIsNotReplacedEither ) {
   file( "out", "old" );
   chmod( path( "out" ).c_str(), 0444 );
   chmod( folder.c_str(), 0777 );
   EXPECT_EQ( endOf( [ & ] {
                 if( geteuid() == 0 )
                    EXPECT_EQ( setreuid( 1234, 1234 ), 0 );
                 write( "out", "new" );
              } ),
              3 );
   EXPECT_EQ( text( "out" ), "old" );
   EXPECT_EQ( names(), ( std::set< std::string >{ "out" } ) );
}

TEST_F( Files, WhatIsWrongWithANameIsToldBeforeAnythingIsWritten ) {
   std::filesystem::create_directory( folder / "there" );
   std::filesystem::create_symlink( "loop", folder / "loop" );
   file( "out", "old" );
   auto const told = [ & ]( std::string const & name ) {
      auto const what = error( name );
      auto const begin = path( name ) + ": cannot be written: ";
      EXPECT_EQ( what.substr( 0, begin.size() ), begin );
      return what.substr( std::min( begin.size(), what.size() ) );
   };
   EXPECT_EQ( told( "there" ), "Is a directory" );
   EXPECT_EQ( told( "there/" ), "Is a directory" );
   EXPECT_EQ( told( "none/out" ), "No such file or directory" );
   EXPECT_EQ( told( "none/" ), "Is a directory" );
   EXPECT_EQ( told( "out/" ), "Is a directory" );
   EXPECT_EQ( told( "out/out" ), "Not a directory" );
   EXPECT_EQ( told( "loop" ), "Too many levels of symbolic links" );
   EXPECT_EQ( told( std::string( 300, 'x' ) ), "File name too long" );
   EXPECT_THROW( OutputFile( "" ), FileError );
   EXPECT_EQ( names(), ( std::set< std::string >{ "loop", "out", "there" } ) );
}

TEST_F( Files, ANameOfTheGreatestLengthIsNoHindrance ) {
   write( std::string( 255, 'x' ), "new" );
   EXPECT_EQ( text( std::string( 255, 'x' ) ), "new" );
}

TEST_F( Files, ARelativeNameIsOneOfTheCurrentFolder ) {
   auto const before = std::filesystem::current_path();
   std::filesystem::current_path( folder );
   OutputFile out( "out" );
   EXPECT_EQ( names().size(), 1U );
   out.close();
   std::filesystem::current_path( before );
   EXPECT_EQ( names(), ( std::set< std::string >{ "out" } ) );
}

// ---------------------------------------------------------------------------- the command's record

// The command with its standard error on a pipe, of which the beginning alone is read: once that is
// there the run is in its middle, and stays there, since the pipe takes only so much more.
class Tracing {
 public:
   Tracing( std::filesystem::path const & folder, std::vector< std::string > arguments ) {
      arguments.insert( arguments.begin(), "ordovan" );
      std::vector< char * > pointers;
      for( auto & argument : arguments )
         pointers.push_back( argument.data() );
      pointers.push_back( nullptr );
      int ends[ 2 ];
      EXPECT_EQ( pipe2( ends, O_CLOEXEC ), 0 );
      process_ = fork();
      if( process_ == 0 ) {
         dup2( ends[ 1 ], STDERR_FILENO );
         for( int const signal : { SIGINT, SIGTERM, SIGHUP } )
            std::signal( signal, SIG_DFL ); // whoever runs the tests may have it ignored
         if( chdir( folder.c_str() ) == 0 )
            execv( ORDOVAN_COMMAND, pointers.data() );
         _exit( 127 );
      }
      close( ends[ 1 ] );
      trace_ = ends[ 0 ];
      char first = 0;
      EXPECT_EQ( read( trace_, &first, 1 ), 1 );
   }
   ~Tracing() { close( trace_ ); }
   Tracing( Tracing const & ) = delete;
   Tracing & operator=( Tracing const & ) = delete;

   // Its exit status, or minus the signal.
   int endBy( int signal ) const {
      kill( process_, signal );
      int status = 0;
      waitpid( process_, &status, 0 );
      return WIFSIGNALED( status ) ? -WTERMSIG( status ) : WEXITSTATUS( status );
   }

 private:
   pid_t process_ = -1;
   int trace_ = -1;
};

struct Record : Files {
   Record() {
      file( "good.yaml", "agents: {A: {Boot: {complete: 1}}}\n" );
      file( "wrong.yaml", "agents: {A: {Boot: {timeout: -1}}}\n" );
      file( "late.yaml", "agents: {A: {Boot: {critical: true, timeout: 5, complete: never}}}\n" );
      std::string many = "agents:\n";
      for( int i = 0; i < 300; ++i )
         many += "  A" + std::to_string( i ) + ": {S" + std::to_string( i ) + ": {}}\n";
      file( "many.yaml", many );
      file( "record", "old" );
      ordovan( "simulate late.yaml --record right" );
   }
   std::string right() const { return text( "right" ); }
   bool hasHidden() const {
      auto const all = names();
      return all.lower_bound( ".o" ) != all.lower_bound( ".p" );
   }
};

TEST_F( Record, TheOldOneStaysWhenThePlanIsWrongOrTheRunImpossible ) {
   for( auto const * arguments : { "wrong.yaml", "none.yaml", "good.yaml --ring none/ring",
                                   "good.yaml --until x", "good.yaml --unknown" } ) {
      EXPECT_EQ( ordovan( std::string( "simulate --record record " ) + arguments ).status, 2 );
      EXPECT_EQ( text( "record" ), "old" ) << arguments;
      EXPECT_FALSE( hasHidden() );
   }
}

TEST_F( Record, TheOldOneStaysWhenTheRunIsEndedInItsMiddle ) {
   for( int const signal : { SIGINT, SIGTERM, SIGHUP } ) {
      Tracing run( folder,
                   { "simulate", "--quiet", "--trace", "0-9", "--record", "record", "many.yaml" } );
      EXPECT_TRUE( hasHidden() );
      EXPECT_EQ( run.endBy( signal ), -signal );
      EXPECT_EQ( text( "record" ), "old" ) << signal;
      EXPECT_FALSE( hasHidden() ) << signal;
   }
}

TEST_F( Record, TheOldOneStaysWhenTheDiskIsFull ) {
   auto const run = shell( "ulimit -f 4; \"$ordovan\" simulate --quiet --record record many.yaml" );
   EXPECT_EQ( run.status, 2 );
   EXPECT_EQ( run.err, "ordovan: record: cannot be written: File too large\n" );
   EXPECT_EQ( text( "record" ), "old" );
   EXPECT_FALSE( hasHidden() );
}

TEST_F( Record, GoesToStandardOutputAloneAndWhatPeopleReadToStandardError ) {
   auto const usual = ordovan( "simulate late.yaml --record record" );
   for( auto const * name : { "-", "/dev/stdout", "/dev/fd/1", "/proc/self/fd/1" } ) {
      auto const run = ordovan( std::string( "simulate late.yaml --record " ) + name );
      EXPECT_EQ( run.status, 1 ) << name;
      EXPECT_EQ( run.out, right() ) << name;
      EXPECT_EQ( run.err, usual.out + usual.err ) << name;
   }
   EXPECT_NE( usual.out.find( "suspended for debugging" ), std::string::npos );
   EXPECT_FALSE( std::filesystem::exists( folder / "-" ) );
}

TEST_F( Record, OnStandardOutputIsTheSameWhateverBecomesOfStandardError ) {
   for( auto const * redirections : { "2>/dev/full", "2>&-", "2>&1 >&3 3>&1 | cat >/dev/null" } ) {
      auto const run = shell(
         std::string( "exec 3>&1; \"$ordovan\" simulate late.yaml --record - " ) + redirections );
      EXPECT_EQ( run.out, right() ) << redirections;
   }
   EXPECT_EQ( ordovan( "simulate late.yaml --record - 2>/dev/full" ).status, 1 );
   EXPECT_EQ( ordovan( "simulate good.yaml --record - 2>/dev/full" ).status, 0 );
   EXPECT_EQ( ordovan( "simulate good.yaml --record - 2>&-" ).status, 0 );
}

TEST_F( Record, OnStandardOutputThatIsFullOrClosedIsToldUnlessNobodyReadsIt ) {
   auto const full = ordovan( "simulate good.yaml --quiet --record - >/dev/full" );
   EXPECT_EQ( full.status, 2 );
   EXPECT_EQ( full.err, "ordovan: <stdout>: cannot be written: No space left on device\n" );
   auto const closed = ordovan( "simulate good.yaml --quiet --record - >&-" );
   EXPECT_EQ( closed.status, 2 );
   EXPECT_EQ( closed.err, "ordovan: <stdout>: cannot be written: Bad file descriptor\n" );
   auto const unread = shell( "mkfifo pipe; exec 3<>pipe; exec 4>pipe; exec 3<&-; "
                              "\"$ordovan\" simulate good.yaml --quiet --record - >&4" );
   EXPECT_EQ( unread.status, 0 );
   EXPECT_EQ( unread.err, "" );
}

TEST_F( Record, OfAFileThatIsNamedLikeStandardOutputNeedsItsFolder ) {
   EXPECT_EQ( ordovan( "simulate late.yaml --record ./-" ).status, 1 );
   EXPECT_EQ( text( "-" ), right() );
}

TEST_F( Record, ComesOfAPlanFromStandardInput ) {
   for( auto const * line : { "\"$ordovan\" simulate - --record - <late.yaml",
                              "cat late.yaml | "
                              "\"$ordovan\" simulate --record=- -",
                              "\"$ordovan\" simulate --record - -- - <late.yaml" } ) {
      auto const run = shell( line );
      EXPECT_EQ( run.status, 1 ) << line;
      EXPECT_EQ( run.out, right() ) << line;
      EXPECT_NE( run.err.find( "<stdin>: the start-up did not complete" ), std::string::npos )
         << run.err;
   }
}

TEST_F( Record, IsNotPutInThePlaceOfThePlanOnStandardInput ) {
   auto const plan = text( "good.yaml" );
   auto const run = ordovan( "simulate - --record good.yaml <good.yaml" );
   EXPECT_EQ( run.status, 2 );
   EXPECT_EQ( run.err,
              "ordovan: good.yaml: is the plan itself; the record must be another file\n" );
   EXPECT_EQ( text( "good.yaml" ), plan );
}

// --------------------------------------------------------------------------- the plan of any
// command

TEST_F( Record, MistakesOfAPlanFromStandardInputHaveTheirPlaces ) {
   file( "-", "agents: {A: {Boot: {complete: 1}}}\n" );
   for( std::string const subcommand : { "simulate", "inspect" } ) {
      auto const run = ordovan( subcommand + " - <wrong.yaml" );
      EXPECT_EQ( run.status, 2 );
      EXPECT_EQ( run.out, "" );
      EXPECT_EQ( run.err, "<stdin>:1:30: \"timeout\" is -1; it must be a number of seconds, 0 or "
                          "more, or .inf\n" );
      EXPECT_EQ( ordovan( subcommand + " ./-" ).status, 0 );
      auto const closed = ordovan( subcommand + " - <&-" );
      EXPECT_EQ( closed.status, 2 );
      EXPECT_EQ( closed.err, "ordovan: <stdin>: cannot be read: Bad file descriptor\n" );
      EXPECT_EQ( ordovan( subcommand + " - </dev/zero" ).err,
                 "ordovan: <stdin>: is larger than 64 MiB, which no plan can be\n" );
   }
   EXPECT_EQ( ordovan( "inspect - statusSm/stageSm[Boot]/complete <good.yaml" ).out, "true\n" );
}

} // namespace
