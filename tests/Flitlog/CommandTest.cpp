// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include "../tools/Process.h"

#include <Flitlog/Ring.h>
#include <Kiv/Kiv.h>

#include <csignal>
#include <memory>
#include <sstream>

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

using Flitlog::MsgDesc;
using Flitlog::put;
using Flitlog::RingBuf;
using Flitlog::TraceFile;
using Flitlog::Varg;

double theTime = 0;
double clock() { return theTime; }

// A running command whose output is read line by line.
class Running {
 public:
   explicit Running( std::vector< std::string > arguments ) {
      int ends[ 2 ];
      if( pipe2( ends, O_CLOEXEC ) != 0 )
         throw std::runtime_error( "no pipe" );
      arguments.insert( arguments.begin(), FLITLOG_COMMAND );
      process_ = fork();
      if( process_ == 0 ) {
         dup2( ends[ 1 ], STDOUT_FILENO );
         std::vector< char * > pointers;
         for( std::string & argument : arguments )
            pointers.push_back( argument.data() );
         pointers.push_back( nullptr );
         execv( FLITLOG_COMMAND, pointers.data() );
         _exit( 127 );
      }
      close( ends[ 1 ] );
      output_ = fdopen( ends[ 0 ], "r" );
   }
   ~Running() {
      closeOutput();
      if( process_ > 0 ) {
         kill( process_, SIGKILL );
         ended();
      }
   }
   Running( Running const & ) = delete;
   Running & operator=( Running const & ) = delete;

   std::string line() {
      char text[ 1000 ];
      return std::fgets( text, sizeof text, output_ ) ? text : "the end";
   }
   void closeOutput() {
      if( output_ )
         std::fclose( output_ );
      output_ = nullptr;
   }
   void signal( int number ) const { kill( process_, number ); }
   // Its exit status, once it has ended.
   int ended() {
      int status = -1;
      waitpid( process_, &status, 0 );
      process_ = -1;
      return WIFEXITED( status ) ? WEXITSTATUS( status ) : -1;
   }

 private:
   pid_t process_ = -1;
   std::FILE * output_ = nullptr;
};

struct FlitlogCommand : Process::Folder {
   FlitlogCommand() : path( folder / "ring" ) {}

   Process::Finished flitlog( std::string const & arguments ) const {
      return shell( "'" FLITLOG_COMMAND "' " + arguments );
   }

   void open( unsigned levels = Flitlog::allLevels ) {
      ring.reset();
      TraceFile::Options options{ 4096, &clock };
      options.levels = levels;
      ring = TraceFile::TraceFileIs( path, options );
   }
   int point( char const * handle, unsigned level ) const {
      MsgDesc desc( ring.get(), "Source", 7 );
      desc.handleIs( handle );
      desc.levelIs( level );
      desc.functionIs( "handle" );
      desc << "says " << Varg{ "s" };
      return desc.finish();
   }
   void write( int id, double time, std::string_view text ) const {
      theTime = time;
      RingBuf & record = RingBuf::startMsg( ring.get(), id );
      put( record, text );
      record.endMsg();
   }
   // Five records of two handles at the seconds 1 to 5.
   void five() {
      open();
      int const eight = point( "Ordovan", 8 );
      int const nine = point( "Ordovan", 9 );
      int const other = point( "Kiv", 0 );
      write( eight, 1, "one" );
      write( nine, 2, "two" );
      write( other, 3, "three" );
      write( eight, 4, "four" );
      write( other, 5, "five" );
   }
   static std::string line( int time, char const * point, char const * text ) {
      return std::to_string( time ) + ".000000 " + point + " Source:7 handle: says " + text + "\n";
   }
   std::string const one = line( 1, "Ordovan/8", "one" );
   std::string const two = line( 2, "Ordovan/9", "two" );
   std::string const three = line( 3, "Kiv/0", "three" );
   std::string const four = line( 4, "Ordovan/8", "four" );
   std::string const fifth = line( 5, "Kiv/0", "five" );

   std::string printed( std::string const & filters ) const {
      auto const run = flitlog( "ring " + filters );
      EXPECT_EQ( run.status, 0 ) << filters;
      EXPECT_EQ( run.err, "" ) << filters;
      return run.out;
   }

   std::string path;
   std::unique_ptr< TraceFile > ring;
};

TEST_F( FlitlogCommand, PrintsEveryRecordAsALine ) {
   five();
   EXPECT_EQ( printed( "" ), one + two + three + four + fifth );
   ring.reset();
   EXPECT_EQ( printed( "" ), one + two + three + four + fifth );
}

TEST_F( FlitlogCommand, PrintsNothingOfAnEmptyRing ) {
   open();
   EXPECT_EQ( printed( "" ), "" );
   EXPECT_EQ( printed( "--from -1 --last 3" ), "" );
}

TEST_F( FlitlogCommand, ChoosesByTime ) {
   five();
   EXPECT_EQ( printed( "--from 3" ), three + four + fifth );
   EXPECT_EQ( printed( "--to 2" ), one + two );
   EXPECT_EQ( printed( "--from 2 --to 3.5" ), two + three );
   EXPECT_EQ( printed( "--from -1" ), four + fifth );
   EXPECT_EQ( printed( "--from=-2 --to=-1" ), three + four );
   EXPECT_EQ( printed( "--from 6" ), "" );
}

TEST_F( FlitlogCommand, ChoosesByHandleLevelAndText ) {
   five();
   EXPECT_EQ( printed( "--handle Kiv" ), three + fifth );
   EXPECT_EQ( printed( "--handle Kiv --handle Ordovan" ), printed( "" ) );
   EXPECT_EQ( printed( "--handle Nobody" ), "" );
   EXPECT_EQ( printed( "--level 8" ), one + four );
   EXPECT_EQ( printed( "--level 7-8,0" ), one + three + four + fifth );
   EXPECT_EQ( printed( "--grep f" ), four + fifth );
   EXPECT_EQ( printed( "--grep 'says t'" ), two + three );
   EXPECT_EQ( printed( "--grep Ordovan/9" ), two );
   EXPECT_EQ( printed( "--level 0 --grep t --from 2" ), three );
}

TEST_F( FlitlogCommand, GivesTheLastOfThoseThatAreWanted ) {
   five();
   EXPECT_EQ( printed( "--last 2" ), four + fifth );
   EXPECT_EQ( printed( "--last 1 --handle Ordovan" ), four );
   EXPECT_EQ( printed( "--last 100" ), printed( "" ) );
   EXPECT_EQ( printed( "--last 0" ), "" );
}

TEST_F( FlitlogCommand, SaysForWhichLevelsTheRingWasOpened ) {
   for( auto const & [ levels, said ] :
        std::vector< std::pair< unsigned, std::string > >{ { 0x1ff, "levels 0-8" },
                                                           { 0x200, "level 9" },
                                                           { 0x1, "level 0" },
                                                           { 0x381, "levels 0,7-9" },
                                                           { 0x155, "levels 0,2,4,6,8" },
                                                           { 0x3fe, "levels 1-9" } } ) {
      open( levels );
      write( point( "A", 8 ), 1, "one" );
      auto const run = flitlog( "ring" );
      EXPECT_EQ( run.status, 0 );
      EXPECT_EQ( run.out, line( 1, "A/8", "one" ) );
      EXPECT_EQ( run.err, "ring: the ring was opened for " + said + " alone\n" );
   }
   // Once, though nothing is printed, or over and over.
   EXPECT_EQ( flitlog( "ring --handle Nobody" ).err,
              "ring: the ring was opened for levels 1-9 alone\n" );
   ring.reset();
   EXPECT_EQ( flitlog( "ring --follow" ).err, "ring: the ring was opened for levels 1-9 alone\n" );
}

TEST_F( FlitlogCommand, SaysAsJsonForWhichLevelsTheRingWasOpened ) {
   open( 0x381 );
   write( point( "A", 8 ), 1, "one" );
   std::istringstream out( printed( "--json" ) );
   std::vector< nlohmann::json > all;
   for( std::string text; std::getline( out, text ); )
      all.push_back( nlohmann::json::parse( text ) );
   ASSERT_EQ( all.size(), 2U );
   EXPECT_EQ( all[ 0 ], ( nlohmann::json{ { "levels", { 0, 7, 8, 9 } } } ) );
   EXPECT_EQ( all[ 1 ][ "text" ], "says one" );
}

TEST_F( FlitlogCommand, GivesObjectsOfJson ) {
   open();
   write( point( "A\"b", 8 ), 0.1, "line\nend \xff" );
   write( point( "A", 0 ), std::numeric_limits< double >::quiet_NaN(), "no time" );
   write( point( "A", 0 ), std::numeric_limits< double >::infinity(), "late" );
   std::istringstream out( printed( "--json" ) );
   std::vector< nlohmann::json > all;
   for( std::string text; std::getline( out, text ); )
      all.push_back( nlohmann::json::parse( text ) );
   ASSERT_EQ( all.size(), 3U );
   EXPECT_EQ( all[ 0 ], ( nlohmann::json{ { "sequence", 1 },
                                          { "time", 0.1 },
                                          { "handle", "A\"b" },
                                          { "level", 8 },
                                          { "source", "Source" },
                                          { "line", 7 },
                                          { "function", "handle" },
                                          { "text", "says line\nend \xef\xbf\xbd" } } ) );
   EXPECT_EQ( all[ 1 ][ "time" ], "nan" );
   EXPECT_EQ( all[ 2 ][ "time" ], "inf" );
}

TEST_F( FlitlogCommand, PrintsControlCharactersSoThatTheyForgeNothing ) {
   open();
   write( point( "A", 0 ), 1, "a\n2.000000 B/0 \x1b[31m" );
   EXPECT_EQ( printed( "" ), "1.000000 A/0 Source:7 handle: says a\\x0a2.000000 B/0 \\x1b[31m\n" );
}

TEST_F( FlitlogCommand, PrintsTheVeryLinesOfTheTextTrace ) {
   auto const clock = Kiv::ManualClock::ManualClockIs( 1700000000.25 );
   auto const clockBefore = Kiv::activityManager()->clock();
   Kiv::activityManager()->clockIs( clock );
   std::string lines;
   Kiv::TraceHandle handle( "Test", true );
   handle.levelIs( 8, true );
   auto const before = Kiv::traceSinkIs(
      [ & ]( Kiv::TraceLine const & line ) { lines += Kiv::traceText( line ) + "\n"; } );
   Kiv::traceRingIs( path, 65536 );
   for( int i = 0; i != 50; ++i ) {
      clock->nowIs( clock->now() + 1.0 / 3 );
      KIV_TRACE( handle, 8, "Source", "text ", Kiv::Name( "a\nname" ), " number ", i, " double ",
                 i / 3.0, " bool ", i % 2 == 0, " pointer ", Kiv::Ptr< Kiv::Entity >() );
      KIV_TRACE( handle, 8, "Source", std::uint64_t( i ) << 40, ' ', -0.0, 1e300 * i );
   }
   Kiv::traceRingIs( "", 0 );
   Kiv::traceSinkIs( before );
   Kiv::activityManager()->clockIs( clockBefore );
   EXPECT_EQ( std::count( lines.begin(), lines.end(), '\n' ), 100 );
   EXPECT_TRUE( printed( "" ) == lines ) << printed( "" ).substr( 0, 500 ) << "\nand not\n"
                                         << lines.substr( 0, 500 );
}

TEST_F( FlitlogCommand, RefusesWhatIsNoTraceFileAndSaysWhatWasExpected ) {
   file( "empty", "" );
   file( "foreign", std::string( 5000, 'x' ) );
   auto const refused = [ & ]( std::string const & arguments ) {
      auto const run = flitlog( arguments );
      EXPECT_EQ( run.status, 2 ) << arguments;
      EXPECT_EQ( run.out, "" );
      return run.err;
   };
   EXPECT_EQ( refused( "empty" ), "flitlog: empty: is empty; expected a trace file\n" );
   EXPECT_EQ( refused( "foreign" ), "flitlog: foreign: is not a trace file; expected it to begin "
                                    "with the bytes 8b 46 6c 69 74 0d 0a 1a\n" );
   EXPECT_EQ( refused( "." ), "flitlog: .: is a directory; expected a trace file\n" );
   EXPECT_EQ( refused( "none" ), "flitlog: none: cannot be opened; expected a trace file: No such "
                                 "file or directory\n" );
   EXPECT_EQ( refused( "foreign --from -1 --follow" ).substr( 0, 17 ), "flitlog: foreign:" );
}

TEST_F( FlitlogCommand, RefusesWrongUseWithTheReason ) {
   five();
   auto const refused = [ & ]( std::string const & arguments ) {
      auto const run = flitlog( arguments );
      EXPECT_EQ( run.status, 2 ) << arguments;
      EXPECT_EQ( run.out, "" );
      return run.err.substr( 0, run.err.find( '\n' ) );
   };
   EXPECT_EQ( refused( "" ), "flitlog: FILE is required" );
   EXPECT_EQ( refused( "ring --level 10" ),
              "flitlog: --level: levels \"10\", character 2: expected \",\", \"-\" or the end" );
   EXPECT_EQ( refused( "ring --level 9-7" ),
              "flitlog: --level: levels \"9-7\", character 3: expected "
              "a level that is not below the first of "
              "the range" );
   EXPECT_EQ( refused( "ring --level 8," ),
              "flitlog: --level: levels \"8,\", character 3: expected a level, 0 to 9" );
   EXPECT_EQ( refused( "ring --level ''" ),
              "flitlog: --level: levels \"\", character 1: expected a level, 0 to 9" );
   for( char const * text : { "x", "nan", "inf", "1s", "''" } )
      EXPECT_TRUE( refused( std::string( "ring --from " ) + text )
                      .ends_with( "\", expected a number of seconds" ) )
         << text;
   EXPECT_EQ( refused( "ring --from 4 --to 3" ),
              "flitlog: --from is 4 and --to is 3; expected them the other way round" );
   EXPECT_EQ( refused( "ring --last -1" ),
              "flitlog: --last: \"-1\", expected a number of records" );
   EXPECT_EQ( refused( "ring --last 3x" ),
              "flitlog: --last: \"3x\", expected a number of records" );
   EXPECT_EQ( refused( "ring other" ), "flitlog: argument \"other\" is one too many" );
   EXPECT_EQ( refused( "ring --folow" ),
              "flitlog: unknown option \"--folow\"; did you mean \"--follow\"?" );
}

TEST_F( FlitlogCommand, PrintsWhatCanBeReadOfADamagedFileAndReportsTheRest ) {
   five();
   ring.reset();
   std::string bytes = Process::contents( path );
   std::size_t const second = bytes.size() - 4096 + 40; // each record has 40 bytes
   bytes[ second + 36 ] ^= 1;
   file( "damaged", bytes );
   auto const damaged = flitlog( "damaged" );
   EXPECT_EQ( damaged.status, 1 );
   EXPECT_EQ( damaged.out, one + three + four + fifth );
   EXPECT_TRUE( damaged.err.starts_with(
      "damaged: at ring position 40: expected a record whose check sum is right, found " ) );
   EXPECT_TRUE( damaged.err.ends_with( "; skipped 40 bytes; record 2 is missing\n" ) );

   file( "short", bytes.substr( 0, second ) );
   auto const cut = flitlog( "short --json" );
   EXPECT_EQ( cut.status, 1 );
   EXPECT_EQ( std::count( cut.out.begin(), cut.out.end(), '\n' ), 1 );
   EXPECT_TRUE( cut.err.starts_with( "short: the file has " ) ) << cut.err;
}

TEST_F( FlitlogCommand, SaysWhatWasNeverWritten ) {
   five();
   write( -1, 6, "no descriptor" );
   auto const run = flitlog( "ring" );
   EXPECT_EQ( run.status, 0 );
   EXPECT_EQ( run.err, "ring: 1 records were not written\n" );
}

// Whether or not anybody counts what such a point has to say.
TEST_F( FlitlogCommand, SaysHowManyTracePointsHadNoRoomForTheirDescriptors ) {
   ring = TraceFile::TraceFileIs( path, { 4096, &clock, 1024 } );
   write( point( "A", 0 ), 1, "one" );
   unsigned lost = 0;
   for( int i = 0; i != 20; ++i )
      lost += point( "A", 0 ) < 0;
   ASSERT_GT( lost, 0U );
   std::string const points = "ring: " + std::to_string( lost ) +
                              " trace points had no room for their descriptors; none of their "
                              "records is there\n";
   auto const before = flitlog( "ring" );
   EXPECT_EQ( before.status, 0 ); // everything that is there has been read
   EXPECT_EQ( before.out, line( 1, "A/0", "one" ) );
   EXPECT_EQ( before.err, points );
   write( -1, 2, "lost" );
   EXPECT_EQ( flitlog( "ring" ).err, points + "ring: 1 records were not written\n" );
}

TEST_F( FlitlogCommand, EndsQuietlyWhenNobodyReadsItsOutput ) {
   ring = TraceFile::TraceFileIs( path, { 1 << 20, &clock } );
   int const id = point( "A", 0 );
   for( int i = 0; i != 10000; ++i )
      write( id, i, "a line that fills pipes" );
   auto const run = shell( "('" FLITLOG_COMMAND "' ring; echo $? >status) | head -n 1" );
   EXPECT_EQ( run.out, "0.000000 A/0 Source:7 handle: says a line that fills pipes\n" );
   EXPECT_EQ( run.err, "" );
   EXPECT_EQ( Process::contents( folder / "status" ), "0\n" );
}

TEST_F( FlitlogCommand, OutputThatCannotBeWrittenIsReported ) {
   five();
   auto const run = flitlog( "ring >/dev/full" );
   EXPECT_EQ( run.status, 2 );
   EXPECT_EQ( run.err, "flitlog: standard output cannot be written: No space left on device\n" );
}

TEST_F( FlitlogCommand, FollowsALiveFileUntilItsWriterIsGone ) {
   five();
   Running running( { path, "--follow", "--last", "2", "--level", "8,0" } );
   EXPECT_EQ( running.line(), four );
   EXPECT_EQ( running.line(), fifth );
   int const later = point( "Later", 8 );
   write( 2, 6, "not wanted" );
   write( later, 7, "seven" );
   EXPECT_EQ( running.line(), line( 7, "Later/8", "seven" ) );
   write( later, 8, "eight" );
   EXPECT_EQ( running.line(), line( 8, "Later/8", "eight" ) );
   write( later, 9, "nine" );
   ring.reset();
   EXPECT_EQ( running.line(), line( 9, "Later/8", "nine" ) );
   EXPECT_EQ( running.line(), "the end" );
   EXPECT_EQ( running.ended(), 0 );
}

TEST_F( FlitlogCommand, FollowingAFileWithoutAWriterPrintsItAndEnds ) {
   five();
   ring.reset();
   EXPECT_EQ( printed( "--follow" ), one + two + three + four + fifth );
}

TEST_F( FlitlogCommand, FollowingEndsWithItsFileWhenTheWriterIsStartedAgain ) {
   five();
   Running running( { path, "--follow", "--last", "1" } );
   EXPECT_EQ( running.line(), fifth );
   write( 1, 6, "last words" );
   ring.reset();
   open();
   write( point( "New", 0 ), 1, "of another file" );
   EXPECT_EQ( running.line(), line( 6, "Ordovan/8", "last words" ) );
   EXPECT_EQ( running.line(), "the end" );
   EXPECT_EQ( running.ended(), 0 );
}

TEST_F( FlitlogCommand, FollowingEndsOnASignalAndWhenItsReaderIsGone ) {
   five();
   for( int const number : { SIGINT, SIGTERM } ) {
      Running running( { path, "--follow", "--last", "1" } );
      EXPECT_EQ( running.line(), fifth );
      running.signal( number );
      EXPECT_EQ( running.ended(), 0 );
   }
   Running running( { path, "--follow", "--last", "1" } );
   EXPECT_EQ( running.line(), fifth );
   running.closeOutput();
   EXPECT_EQ( running.ended(), 0 );
}

TEST_F( FlitlogCommand, SaysItsVersionAndItsUse ) {
   EXPECT_TRUE( flitlog( "--version" ).out.starts_with( "flitlog " ) );
   auto const help = flitlog( "--help" );
   EXPECT_EQ( help.status, 0 );
   // Each option that it has is in its manual page too.
   auto const page = Process::contents( FLITLOG_MAN );
   for( char const * option :
        { "from", "to", "handle", "level", "grep", "last", "follow", "json", "help", "version" } ) {
      EXPECT_NE( help.out.find( std::string( "--" ) + option ), std::string::npos ) << option;
      EXPECT_NE( page.find( std::string( "\\-\\-" ) + option ), std::string::npos ) << option;
   }
}

} // namespace
