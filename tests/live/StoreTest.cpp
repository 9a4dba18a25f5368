// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <live/Store.h>

#include "../support/Folder.h"
#include "Syncs.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <string>
#include <vector>

#include <csignal>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <simulation/InputLine.h>
#include <simulation/Instant.h>
#include <sqlite3.h>

namespace {

using namespace Simulation;
using Live::Store;
using Live::StoreError;
using Live::StoreOptions;
using testing_support::Folder;
using Kind = StoreError::Kind;
using Lines = std::vector< std::string >;

Beginning const router{ "Router", false, {}, true };

Event event( std::string stage ) {
   Event made;
   made.stage = std::move( stage );
   made.complete = { Behaviour::Kind::never, 0 };
   return made;
}

Instant joins( double t, std::string const & agent ) {
   return { t, { { Join{ agent, { event( "A" ) } }, 1000U } } };
}

Lines linesOf( Instant const & instant ) {
   Lines lines{ "at " + std::to_string( instant.t ) };
   if( !instant.input.empty() )
      for( auto const & line : inputLines( instant ) )
         lines.push_back( line );
   return lines;
}

// What is kept, as lines.
Lines kept( Store const & store ) {
   Lines lines;
   store.replay( [ & ]( Instant const & instant ) {
      for( auto const & line : linesOf( instant ) )
         lines.push_back( line );
   } );
   return lines;
}

Lines read( std::string const & file ) {
   Lines lines;
   Store::read(
      file, [ & ]( Beginning const & beginning ) { lines.push_back( beginLine( beginning ) ); },
      [ & ]( Instant const & instant ) {
         for( auto const & line : linesOf( instant ) )
            lines.push_back( line );
      } );
   return lines;
}

StoreOptions ofBoot( std::string boot ) {
   StoreOptions options;
   options.boot = std::move( boot );
   return options;
}

// What is wrong when `f` is called: the kind and the text.
template< class F >
std::pair< Kind, std::string > failureOf( F const & f ) {
   try {
      f();
   } catch( StoreError const & error ) {
      return { error.kind(), error.what() };
   }
   ADD_FAILURE() << "no failure";
   return {};
}

std::pair< Kind, std::string > failureToOpen( std::string const & file ) {
   return failureOf( [ & ] { Store const store( file, router, ofBoot( "b" ) ); } );
}

std::string bytesOf( std::string const & file ) {
   std::ifstream stream( file, std::ios::binary );
   return std::string( std::istreambuf_iterator< char >( stream ), {} );
}

void write( std::string const & file, std::string const & bytes ) {
   std::ofstream( file, std::ios::binary ) << bytes;
}

void sql( std::string const & file, char const * statement ) {
   sqlite3 * connection = nullptr;
   ASSERT_EQ( sqlite3_open( file.c_str(), &connection ), SQLITE_OK );
   EXPECT_EQ( sqlite3_exec( connection, statement, nullptr, nullptr, nullptr ), SQLITE_OK )
      << sqlite3_errmsg( connection );
   sqlite3_close( connection );
}

// A process that runs `f` and then waits to be killed.
class Other {
 public:
   template< class F >
   explicit Other( F const & f ) {
      int ready[ 2 ];
      if( pipe( ready ) != 0 )
         return;
      pid_ = fork();
      if( pid_ == 0 ) {
         f();
         [[maybe_unused]] auto const written = ::write( ready[ 1 ], "x", 1 );
         for( ;; )
            pause();
      }
      close( ready[ 1 ] );
      char c = 0;
      isReady_ = ::read( ready[ 0 ], &c, 1 ) == 1;
      close( ready[ 0 ] );
   }
   ~Other() { end(); }
   void end() {
      if( pid_ > 0 ) {
         kill( pid_, SIGKILL );
         waitpid( pid_, nullptr, 0 );
      }
      pid_ = -1;
   }
   bool isReady() const { return isReady_; }
   std::string pid() const { return std::to_string( pid_ ); }

 private:
   pid_t pid_ = -1;
   bool isReady_ = false;
};

class StoreTest : public testing::Test {
 protected:
   Folder folder;
   std::string const file = folder / "s.store";
};

TEST_F( StoreTest, WhatWasAppendedIsThereWhenItIsOpenedAgain ) {
   std::vector< Instant > const instants = {
      joins( 0, "a" ),
      { 0.10000000149011612, {} }, // a timer
      { 1.000001,
        { { Declare{ "a", event( "B" ) }, std::nullopt },
          { Set{ "a", "B", { TimeoutWrite{ infinity }, DependencyWrite{ "A", std::nullopt } } },
            0U },
          { Withdraw{ "a", "B" }, 7U } } },
      { 2, { { Leave{ "a" }, 1U }, { Enable{ true }, std::nullopt } } } };
   Lines expected;
   std::string startup;
   {
      Store store( file, router );
      EXPECT_TRUE( store.isNew() );
      EXPECT_EQ( kept( store ), Lines() );
      startup = store.startup();
      for( auto const & instant : instants ) {
         store.append( instant );
         for( auto const & line : linesOf( instant ) )
            expected.push_back( line );
         EXPECT_EQ( kept( store ), expected );
      }
   }
   Store const store( file, { "Another", true, {}, false } );
   EXPECT_FALSE( store.isNew() );
   EXPECT_EQ( store.startup(), startup );
   EXPECT_EQ( beginLine( store.beginning() ), beginLine( router ) );
   EXPECT_EQ( kept( store ), expected );
   double timer = 0;
   store.replay( [ & ]( Instant const & instant ) {
      if( instant.input.empty() )
         timer = instant.t;
   } );
   EXPECT_EQ( timer, 0.10000000149011612 );
}

TEST_F( StoreTest, EachStartUpHasAnIdentifierOfItsOwn ) {
   Store const one( file, router );
   Store const other( folder / "other", router );
   EXPECT_EQ( one.startup().size(), 32U );
   EXPECT_EQ( one.startup().find_first_not_of( "0123456789abcdef" ), std::string::npos );
   EXPECT_NE( one.startup(), other.startup() );
}

TEST_F( StoreTest, OnlyItsOwnerMayReadANewFile ) {
   Store const store( file, router );
   for( auto const & name : folder.files() ) {
      struct stat status;
      ASSERT_EQ( stat( ( folder / name ).c_str(), &status ), 0 );
      EXPECT_EQ( status.st_mode & 0777U, 0600U ) << name;
   }
}

TEST_F( StoreTest, WhatAProcessHadAppendedWhenItWasKilledIsThere ) {
   Other other( [ & ] {
      auto * const store = new Store( file, router, ofBoot( "b" ) );
      for( int i = 0; i != 50; ++i )
         store->append( joins( i, "agent" + std::to_string( i ) ) );
   } );
   ASSERT_TRUE( other.isReady() );
   other.end();
   Store store( file, router, ofBoot( "b" ) );
   EXPECT_FALSE( store.isNew() );
   EXPECT_EQ( kept( store ).size(), 100U );
   store.append( joins( 50, "next" ) );
   EXPECT_EQ( kept( store ).size(), 102U );
}

// The last transaction may be under way when the process ends: it is there whole, or not at all.
TEST_F( StoreTest, IsWholeWheneverItsProcessIsKilled ) {
   for( int round = 0; round != 5; ++round ) {
      auto const name = folder / std::to_string( round );
      {
         Other const other( [ & ] { new Store( name, router, ofBoot( "b" ) ); } );
         ASSERT_TRUE( other.isReady() );
      }
      pid_t const child = fork();
      if( child == 0 ) {
         Store store( name, router, ofBoot( "b" ) );
         for( int i = 0;; ++i )
            store.append( { i * 1.0,
                            { { Join{ "a" + std::to_string( i ), {} }, 1U },
                              { Leave{ "a" + std::to_string( i ) }, 1U } } } );
      }
      while( Store::isStore( name ) && std::filesystem::exists( name + "-wal" ) &&
             std::filesystem::file_size( name + "-wal" ) < 60000U + 20000U * unsigned( round ) ) {
      }
      kill( child, SIGKILL );
      waitpid( child, nullptr, 0 );
      Store const store( name, router, ofBoot( "b" ) );
      auto const lines = kept( store );
      EXPECT_GT( lines.size(), 3U );
      EXPECT_EQ( lines.size() % 3, 0U );
   }
}

// ---- one owner

TEST_F( StoreTest, ASecondProcessIsToldWhoseItIs ) {
   Other other( [ & ] { new Store( file, router, ofBoot( "b" ) ); } );
   ASSERT_TRUE( other.isReady() );
   std::pair const expected( Kind::inUse, file + ": is in use by process " + other.pid() );
   EXPECT_EQ( failureToOpen( file ), expected );
   EXPECT_EQ( failureToOpen( file ), expected ); // asking took nothing from it
   EXPECT_EQ( failureOf( [ & ] { read( file ); } ), expected );
   EXPECT_EQ( failureOf( [ & ] { Store const store( file, router, ofBoot( "another" ) ); } ),
              expected );
   other.end();
   Store const store( file, router, ofBoot( "b" ) );
   EXPECT_FALSE( store.isNew() );
}

TEST_F( StoreTest, AProcessCannotOpenItTwiceEither ) {
   Store const store( file, router, ofBoot( "b" ) );
   std::pair const expected( Kind::inUse,
                             file + ": is in use by process " + std::to_string( getpid() ) );
   EXPECT_EQ( failureToOpen( file ), expected );
   EXPECT_EQ( failureOf( [ & ] { read( file ); } ), expected );
   EXPECT_TRUE( Store::isStore( file ) );
   // Nor has any of that given the lock away, as closing a descriptor of the file would.
   Other const other( [ & ] {
      struct flock lock = {};
      lock.l_type = F_WRLCK;
      fcntl( ::open( file.c_str(), O_RDONLY ), F_GETLK, &lock );
      if( lock.l_type == F_UNLCK || lock.l_pid != getppid() )
         _exit( 1 );
   } );
   EXPECT_TRUE( other.isReady() );
}

TEST_F( StoreTest, ReadingChangesNothing ) {
   Other other(
      [ & ] { ( new Store( file, router, ofBoot( "b" ) ) )->append( joins( 1, "a" ) ); } );
   ASSERT_TRUE( other.isReady() );
   other.end();
   auto const before = std::pair( bytesOf( file ), bytesOf( file + "-wal" ) );
   EXPECT_FALSE( before.second.empty() );
   EXPECT_EQ( read( file ).size(), 3U );
   EXPECT_TRUE( before == std::pair( bytesOf( file ), bytesOf( file + "-wal" ) ) );
   EXPECT_EQ( read( file ).size(), 3U );
}

// ---- boots

TEST_F( StoreTest, OfAnotherBootStaysBesideAndANewOneBegins ) {
   std::string first;
   {
      Store store( file, router, ofBoot( "first" ) );
      store.append( joins( 1, "a" ) );
      first = store.startup();
   }
   auto const whole = read( file );
   Lines notices;
   auto options = ofBoot( "second" );
   options.notice = [ & ]( std::string const & text ) { notices.push_back( text ); };
   {
      Store store( file, router, options );
      EXPECT_TRUE( store.isNew() );
      EXPECT_NE( store.startup(), first );
      EXPECT_EQ( kept( store ), Lines() );
      store.append( joins( 2, "b" ) );
   }
   EXPECT_EQ( notices, Lines{ file + ": is of an earlier start-up of the system, and kept as " +
                              file + ".previous" } );
   EXPECT_EQ( read( file + ".previous" ), whole );
   EXPECT_EQ( read( file ).back(), linesOf( joins( 2, "b" ) ).back() );
   { Store const store( file, router, ofBoot( "third" ) ); }
   EXPECT_EQ( read( file + ".previous" ).back(), linesOf( joins( 2, "b" ) ).back() );
   EXPECT_EQ( folder.files().size(), 2U );
}

TEST_F( StoreTest, OfAnotherBootWhoseProcessWasKilledStaysBesideWhole ) {
   Other other(
      [ & ] { ( new Store( file, router, ofBoot( "first" ) ) )->append( joins( 1, "a" ) ); } );
   ASSERT_TRUE( other.isReady() );
   other.end();
   Store const store( file, router, ofBoot( "second" ) );
   EXPECT_EQ( read( file + ".previous" ).back(), linesOf( joins( 1, "a" ) ).back() );
}

TEST_F( StoreTest, TheBootHasTheKernelsIdentifierAndWhenProcessOneWasStarted ) {
   auto const boot = Live::thisBoot();
   EXPECT_EQ( boot, Live::thisBoot() );
   auto const slash = boot.find( '/' );
   EXPECT_EQ( slash, 36U );
   ASSERT_LT( slash + 1, boot.size() );
   EXPECT_EQ( boot.find_first_not_of( "0123456789", slash + 1 ), std::string::npos );
   std::ifstream stat( "/proc/1/stat" );
   std::string const text( std::istreambuf_iterator< char >( stat ), {} );
   EXPECT_NE( text.find( " " + boot.substr( slash + 1 ) + " " ), std::string::npos );
}

// ---- room

TEST_F( StoreTest, SaysWhenHalfOfTheLimitIsReachedAndWhenAllIs ) {
   Lines notices;
   auto options = ofBoot( "b" );
   options.limit = 100000;
   options.notice = [ & ]( std::string const & text ) { notices.push_back( text ); };
   int t = 0;
   auto const next = [ & ] {
      ++t;
      return joins( t, "agent" + std::to_string( t ) );
   };
   {
      Store store( file, router, options );
      EXPECT_EQ( store.room(), Store::Room::plenty );
      while( store.size() < options.limit / 2 ) {
         EXPECT_EQ( store.room(), Store::Room::plenty );
         EXPECT_EQ( notices, Lines() );
         store.append( next() );
      }
      EXPECT_EQ( store.room(), Store::Room::overHalf );
      EXPECT_EQ( notices, Lines{ file + ": has reached half of its limit of 100000 bytes" } );
      while( store.size() < options.limit )
         store.append( next() );
      EXPECT_EQ( store.room(), Store::Room::none );
      EXPECT_EQ( notices.size(), 1U );
      store.append( { ++t * 1.0, { { Leave{ "agent1" }, {} } } } ); // it refuses nothing
   }
   EXPECT_GT( std::filesystem::file_size( file ), options.limit );
   Store const store( file, router, options );
   EXPECT_EQ( notices.size(), 2U ); // and once for whoever opens it
}

// ---- what is refused

TEST_F( StoreTest, AnInstantLiesAfterTheLastOne ) {
   Store store( file, router );
   store.append( joins( 2, "a" ) );
   auto const before = kept( store );
   for( double const t : { -1.0, 1.0, 2.0, std::numeric_limits< double >::quiet_NaN() } ) {
      EXPECT_THROW( store.append( { t, {} } ), std::invalid_argument ) << t;
      EXPECT_THROW( store.append( joins( t, "b" ) ), std::invalid_argument ) << t;
   }
   EXPECT_THROW( store.append( joins( 2.0000001, "b" ) ), std::invalid_argument ); // no stamp
   EXPECT_THROW( store.append( joins( 3, "\xFF" ) ), std::invalid_argument );
   EXPECT_THROW( store.append( joins( 3, "" ) ), std::invalid_argument );
   EXPECT_EQ( kept( store ), before );
   store.append( joins( 3, "b" ) );
}

TEST_F( StoreTest, WhatCannotBeAStoreIsSaid ) {
   write( file, std::string( 5000, 'x' ) );
   EXPECT_EQ( failureToOpen( file ),
              std::pair( Kind::damaged, file + ": is no store, or its beginning is damaged" ) );
   EXPECT_FALSE( Store::isStore( file ) );
   EXPECT_EQ( failureToOpen( folder / "" ).first, Kind::failed );
   EXPECT_EQ( failureToOpen( folder / "none/s" ).second,
              ( folder / "none/s" ) + ": No such file or directory" );
   EXPECT_NE( failureOf( [ & ] { read( folder / "none" ); } ).second.find( "No such file" ),
              std::string::npos );
   EXPECT_FALSE( std::filesystem::exists( folder / "none" ) );
   sql( folder / "other", "CREATE TABLE t( a ); INSERT INTO t VALUES( 1 )" );
   EXPECT_NE(
      failureToOpen( folder / "other" ).second.find( "it is the database of something else" ),
      std::string::npos );
   EXPECT_TRUE( Store::isStore( folder / "other" ) );
   EXPECT_FALSE( Store::isStore( folder / "none" ) );
}

TEST_F( StoreTest, AnEmptyFileIsAStoreThatBegins ) {
   write( file, "" );
   Store const store( file, router );
   EXPECT_TRUE( store.isNew() );
}

TEST_F( StoreTest, NamesThatMeanSomethingElsewhereAreNamesOfFiles ) {
   auto const before = std::filesystem::current_path();
   std::filesystem::current_path( folder / "" );
   { Store const store( ":memory:", router ); }
   EXPECT_EQ( read( ":memory:" ).size(), 1U );
   std::filesystem::current_path( before );
   EXPECT_TRUE( std::filesystem::exists( folder / ":memory:" ) );
}

// ---- damage

class DamagedStore : public StoreTest {
 protected:
   DamagedStore() {
      Store store( file, router, ofBoot( "b" ) );
      for( int t = 1; t <= 40; ++t )
         store.append( t % 4 ? joins( t, "agent" + std::to_string( t ) )
                             : Instant{ t + 0.25, {} } );
   }

   void expectDamaged( std::string const & why ) {
      auto const [ kind, text ] = failureToOpen( file );
      EXPECT_EQ( kind, Kind::damaged );
      EXPECT_NE( text.find( why ), std::string::npos ) << text;
      EXPECT_EQ( failureOf( [ & ] { read( file ); } ).first, Kind::damaged );
   }
};

TEST_F( DamagedStore, AnInstantThatWasChangedLostMovedOrAddedIsFound ) {
   char const * const changes[] = {
      "UPDATE instant SET t = 7.5 WHERE row = 7",
      "UPDATE instant SET input = replace( input, 'agent7', 'agent8' ) WHERE row = 7",
      "UPDATE instant SET input = '' WHERE row = 7",
      "UPDATE instant SET sum = sum + 1 WHERE row = 7",
      "DELETE FROM instant WHERE row = 7",
      "DELETE FROM instant WHERE row = 1",
      "DELETE FROM instant WHERE row = 7; UPDATE instant SET row = row - 1 WHERE row > 7",
      "INSERT INTO instant SELECT row + 40, t + 40, input, sum FROM instant WHERE row = 1",
      "UPDATE instant SET row = row + 100",
      "UPDATE instant SET t = 'x' WHERE row = 7",
      "UPDATE instant SET t = -t WHERE row = 1" };
   auto const whole = bytesOf( file );
   for( auto const * change : changes ) {
      write( file, whole );
      sql( file, change );
      SCOPED_TRACE( change );
      expectDamaged( "does not fit the one before" );
   }
   write( file, whole );
   EXPECT_EQ( read( file ).size(), 1U + 40U + 30U );
}

TEST_F( DamagedStore, WhatIsSaidOfTheStartUpFitsTogether ) {
   char const * const changes[] = { "UPDATE about SET value = 'c' WHERE name = 'boot'",
                                    "UPDATE about SET value = '' WHERE name = 'startup'",
                                    "DELETE FROM about WHERE name = 'beginning'",
                                    "DELETE FROM about" };
   auto const whole = bytesOf( file );
   for( auto const * change : changes ) {
      write( file, whole );
      sql( file, change );
      SCOPED_TRACE( change );
      expectDamaged( "what it says of its start-up does not fit together" );
   }
   write( file, whole );
   sql( file, "UPDATE about SET value = '2' WHERE name = 'format'" );
   expectDamaged( "it has the format \"2\", which is unknown here" );
   write( file, whole );
   sql( file, "DROP TABLE instant" );
   EXPECT_NE( failureToOpen( file ).second.find( file ), std::string::npos );
}

// Whichever byte is another, either that is said or nothing that was kept is different.
TEST_F( DamagedStore, NoByteThatWasChangedChangesWhatWasTakenIn ) {
   auto const whole = bytesOf( file );
   auto const expected = read( file );
   unsigned found = 0, harmless = 0;
   for( std::size_t at = 0; at < whole.size(); at += 29 + at % 5 ) {
      auto bytes = whole;
      bytes[ at ] = static_cast< char >( bytes[ at ] ^ ( 1 << at % 8 ) );
      write( file, bytes );
      try {
         auto const lines = read( file );
         ASSERT_EQ( lines, expected ) << "byte " << at;
         ++harmless;
      } catch( StoreError const & error ) {
         ASSERT_NE( error.kind(), Kind::inUse ) << error.what();
         ++found;
      }
   }
   EXPECT_GT( found, 100U );
   EXPECT_GT( harmless, 10U ); // pages have free space
}

TEST_F( DamagedStore, WhatIsCutOffIsFound ) {
   auto const whole = bytesOf( file );
   for( std::size_t size = 1; size < whole.size(); size += 1999 ) {
      write( file, whole.substr( 0, size ) );
      EXPECT_EQ( failureToOpen( file ).first, Kind::damaged ) << size;
   }
}

// ---- the disk

TEST_F( StoreTest, WhenTheDiskIsFullThatIsSaidAndNothingIsKeptAndItMayBeTriedAgain ) {
   Store store( file, router );
   store.append( joins( 1, "a" ) );
   auto const before = kept( store );
   signal( SIGXFSZ, SIG_IGN );
   rlimit limit{};
   getrlimit( RLIMIT_FSIZE, &limit );
   auto small = limit;
   small.rlim_cur = std::filesystem::file_size( file + "-wal" );
   setrlimit( RLIMIT_FSIZE, &small );
   auto const failure = failureOf( [ & ] { store.append( joins( 2, "b" ) ); } );
   auto const again = failureOf( [ & ] { store.append( joins( 2, "b" ) ); } );
   setrlimit( RLIMIT_FSIZE, &limit );
   EXPECT_EQ( failure.first, Kind::full );
   EXPECT_EQ( failure.second.find( file + ": cannot be written: " ), 0U ) << failure.second;
   EXPECT_EQ( again.first, Kind::full );
   EXPECT_EQ( kept( store ), before );
   store.append( joins( 2, "b" ) );
   EXPECT_EQ( kept( store ).size(), before.size() + 2 );
}

TEST_F( StoreTest, WaitsForTheDiskAtEachInstantOnlyIfToldTo ) {
   for( bool const durable : { false, true } ) {
      auto options = ofBoot( "b" );
      options.durable = durable;
      Store store( folder / ( durable ? "durable" : "quick" ), router, options );
      store.append( joins( 1, "a" ) );
      syncs = 0;
      for( int t = 2; t != 12; ++t )
         store.append( { t * 1.0, {} } );
      EXPECT_EQ( syncs, durable ? 10 : 0 );
   }
}

} // namespace
