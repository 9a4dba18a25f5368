// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Recording traces into a trace file: in code, and by the environment of a process.
#include "../support/Child.h"
#include "../support/Folder.h"
#include "../support/Loop.h"
#include "../support/Sink.h"

#include <Flitlog/Reader.h>
#include <Kiv/Kiv.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <unistd.h>

using testing_support::Child;
using testing_support::Folder;

namespace {

// What the child program prints, standard error included, in this environment.
std::string child( std::string const & environment, std::string const & arguments = "Ringed" ) {
   return Child( environment + " '" TRACE_CHILD "' " + arguments ).printed();
}

std::string refusal( std::string const & size ) {
   try {
      Kiv::ringBytes( size );
   } catch( Kiv::RangeException const & e ) {
      return e.what();
   }
   return "accepted";
}

using Texts = std::vector< std::string >;

Texts recorded( std::string const & path ) {
   auto const reader = Flitlog::Reader::ReaderIs( path );
   Texts texts;
   for( Flitlog::Record record; reader->next( record ); )
      texts.push_back( record.text );
   EXPECT_EQ( reader->problems(), Texts() );
   EXPECT_EQ( reader->lostRecords(), 0U );
   return texts;
}

std::string bytesOf( std::string const & path ) {
   std::ifstream in( path, std::ios::binary );
   return { std::istreambuf_iterator< char >( in ), {} };
}

struct TraceRing : testing::Test {
   ~TraceRing() override { Kiv::traceRingIs( "" ); }
   // One point of each level, which counts when its pieces are evaluated.
   void traceThree() {
      KIV_TRACE( handle, 7, "S", "seven ", ++evaluated );
      KIV_TRACE( handle, 8, "S", "eight ", ++evaluated );
      KIV_TRACE( handle, 9, "S", "nine ", ++evaluated );
   }
   int evaluated = 0;
   Folder const folder;
   testing_support::Loop loop;
   Kiv::TraceHandle handle = Kiv::TraceHandle( "Ringed", false );
};

} // namespace

TEST( RingSize, IsANumberThatMayEndInAUnit ) {
   EXPECT_EQ( Kiv::ringBytes( "4096" ), 4096U );
   EXPECT_EQ( Kiv::ringBytes( "64K" ), 65536U );
   EXPECT_EQ( Kiv::ringBytes( "8M" ), 8388608U );
   EXPECT_EQ( Kiv::ringBytes( "3G" ), 3221225472U );
}

TEST( RingSize, IsRefusedWhenItIsAnythingElse ) {
   for( std::string const text : { "", "0", "-1", "8m", "8MB", "M", " 8", "8 ", "1.5M", "0x10",
                                   "99999999999999999999", "17179869184G" } )
      EXPECT_EQ( refusal( text ), "size \"" + text +
                                     "\": expected a number of bytes above 0, which may end in K, "
                                     "M or G" );
}

TEST_F( TraceRing, IsOpenFromWhenItIsAskedForUntilItIsEnded ) {
   EXPECT_EQ( Flitlog::theTraceFile, nullptr );
   Kiv::traceRingIs( folder / "ring", 65536 );
   ASSERT_NE( Flitlog::theTraceFile, nullptr );
   EXPECT_EQ( Flitlog::theTraceFile->path(), folder / "ring" );
   Kiv::traceRingIs( "" );
   EXPECT_EQ( Flitlog::theTraceFile, nullptr );
   EXPECT_EQ( folder.files(), ( std::vector< std::string >{ "ring" } ) );
}

TEST_F( TraceRing, HasTheProcessIdInItsNameWhereThePathSaysSo ) {
   Kiv::traceRingIs( folder / "ring-%p-100%%-%q%", 65536 );
   EXPECT_EQ( Flitlog::theTraceFile->path(),
              folder / ( "ring-" + std::to_string( getpid() ) + "-100%-%q%" ) );
}

TEST_F( TraceRing, ThatCannotBeMadeLeavesTheOneThereIs ) {
   Kiv::traceRingIs( folder / "ring", 65536 );
   Flitlog::TraceFile * const before = Flitlog::theTraceFile;
   EXPECT_THROW( Kiv::traceRingIs( folder / "no/such/folder/ring" ), Flitlog::FileError );
   EXPECT_EQ( Flitlog::theTraceFile, before );
}

TEST_F( TraceRing, TakesTheLevelsThatItWasOpenedForAlone ) {
   Kiv::traceRingIs( folder / "ring", 65536, Kiv::traceLevels( "0-8" ) );
   EXPECT_TRUE( Kiv::tracesTo( handle, 8 ) );
   EXPECT_FALSE( Kiv::tracesTo( handle, 9 ) );
   traceThree();
   Kiv::traceRingIs( "" );
   EXPECT_EQ( recorded( folder / "ring" ), ( Texts{ "seven 1", "eight 2" } ) );
   EXPECT_EQ( evaluated, 2 ) << "nothing of what nobody takes";
   EXPECT_EQ( Flitlog::Reader::ReaderIs( folder / "ring" )->levels(), 0x1ffU );
   EXPECT_EQ( bytesOf( folder / "ring" ).find( "nine " ), std::string::npos )
      << "nor is it described";
}

TEST_F( TraceRing, TakesAllLevelsWhenNoneAreNamed ) {
   Kiv::traceRingIs( folder / "ring", 65536 );
   EXPECT_TRUE( Kiv::tracesTo( handle, 9 ) );
   traceThree();
   KIV_TRACE( handle, 12, "S", "beyond" );
   Kiv::traceRingIs( "" );
   EXPECT_EQ( recorded( folder / "ring" ), ( Texts{ "seven 1", "eight 2", "nine 3", "beyond" } ) );
}

TEST_F( TraceRing, LeavesWhatHasNoLevelOfItsOwnIn ) {
   Kiv::traceRingIs( folder / "ring", 65536, Kiv::traceLevels( "7" ) );
   EXPECT_TRUE( Kiv::tracesTo( handle, 10 ) );
   KIV_TRACE( handle, 40, "S", "beyond" );
   Kiv::traceRingIs( "" );
   EXPECT_EQ( recorded( folder / "ring" ), Texts{ "beyond" } );
}

TEST_F( TraceRing, LeavesToTheTextWhatItDoesNotTake ) {
   testing_support::TraceLines text;
   handle.masterIs( true );
   handle.levelIs( 9, true );
   Kiv::traceRingIs( folder / "ring", 65536, Kiv::traceLevels( "7" ) );
   EXPECT_TRUE( Kiv::tracesTo( handle, 9 ) );
   EXPECT_FALSE( Kiv::tracesTo( handle, 8 ) );
   traceThree();
   std::ostringstream coverage;
   Kiv::coverageStream_ = &coverage;
   EXPECT_TRUE( Kiv::tracesTo( handle, 8 ) );
   traceThree();
   Kiv::coverageStream_ = nullptr;
   Kiv::traceRingIs( "" );
   EXPECT_EQ( coverage.str(), "seven 3\neight 4\nnine 5\n" );
   EXPECT_EQ( text.taken(), ( Texts{ "nine 2", "nine 5" } ) );
   EXPECT_EQ( recorded( folder / "ring" ), ( Texts{ "seven 1", "seven 3" } ) );
   EXPECT_EQ( bytesOf( folder / "ring" ).find( "nine " ), std::string::npos )
      << "it is not described";
}

TEST_F( TraceRing, OfOtherLevelsTakesThemFromTheSamePoints ) {
   for( auto const * levels : { "0-8", "9", "0-9", "7,9", "0-8" } ) {
      evaluated = 0;
      Kiv::traceRingIs( folder / levels, 65536, Kiv::traceLevels( levels ) );
      traceThree();
   }
   Kiv::traceRingIs( "" );
   EXPECT_EQ( recorded( folder / "0-8.old" ), ( Texts{ "seven 1", "eight 2" } ) );
   EXPECT_EQ( recorded( folder / "9" ), ( Texts{ "nine 1" } ) );
   EXPECT_EQ( recorded( folder / "0-9" ), ( Texts{ "seven 1", "eight 2", "nine 3" } ) );
   EXPECT_EQ( recorded( folder / "7,9" ), ( Texts{ "seven 1", "nine 2" } ) );
   EXPECT_EQ( recorded( folder / "0-8" ), ( Texts{ "seven 1", "eight 2" } ) );
}

TEST_F( TraceRing, OfNoLevelIsRefusedAndLeavesTheOneThereIs ) {
   Kiv::traceRingIs( folder / "ring", 65536, Kiv::traceLevels( "8" ) );
   for( unsigned const none : { 0U, 0x400U } )
      EXPECT_THROW( Kiv::traceRingIs( folder / "other", 65536, none ), Flitlog::FileError );
   traceThree();
   Kiv::traceRingIs( "" );
   EXPECT_EQ( folder.files(), Texts{ "ring" } );
   EXPECT_EQ( recorded( folder / "ring" ), Texts{ "eight 1" } );
}

TEST_F( TraceRing, AsksNoObjectForItsNameOnBehalfOfWhatItDoesNotTake ) {
   struct Asked : Kiv::Entity {
      explicit Asked( Kiv::Name const & name ) : Entity( name ) {}
      Kiv::KivType const & fwkType() const override { return _fwkType(); }
      Kiv::String8 fullName() const override {
         ++times;
         return Entity::fullName();
      }
      int mutable times = 0;
   };
   testing_support::TraceLines const text;
   handle.masterIs( true );
   handle.levelIs( 9, true );
   Kiv::traceRingIs( folder / "ring", 65536, Kiv::traceLevels( "0-8" ) );
   Kiv::Ptr< Asked > const object = new Asked( "asked" );
   KIV_TRACE( handle, 9, "S", "this is ", object );
   EXPECT_EQ( object->times, 1 ) << "for the text";
}

// An object that is asked for its name may have another file written to from then on.
TEST_F( TraceRing, ThatIsOpenedWhileARecordIsMadeDoesNotGetItsLevelEither ) {
   struct Moving : Kiv::Entity {
      explicit Moving( Kiv::Name const & name ) : Entity( name ) {}
      Kiv::KivType const & fwkType() const override { return _fwkType(); }
      Kiv::String8 fullName() const override {
         Kiv::traceRingIs( to.c_str(), 65536, Kiv::traceLevels( "0-8" ) );
         return Entity::fullName();
      }
      std::string to;
   };
   Kiv::traceRingIs( folder / "before", 65536 );
   Kiv::Ptr< Moving > const object = new Moving( "moving" );
   object->to = folder / "after";
   KIV_TRACE( handle, 9, "S", "this is ", object );
   Kiv::traceRingIs( "" );
   EXPECT_EQ( recorded( folder / "before" ), Texts() );
   EXPECT_EQ( recorded( folder / "after" ), Texts() );
}

TEST( TraceRingOfTheEnvironment, TakesTheLevelsThatTheEnvironmentNames ) {
   Folder const folder;
   std::string const ring = "KIV_TRACE_RING='" + ( folder / "ring" ) + "' KIV_TRACE_RING_SIZE=64K ";
   EXPECT_EQ( child( ring + "KIV_TRACE_RING_LEVELS=7-8,0" ), "0 0000000000\n" );
   EXPECT_EQ( recorded( folder / "ring" ), ( Texts{ "passed 0", "passed 7", "passed 8" } ) );
   EXPECT_EQ( Flitlog::Reader::ReaderIs( folder / "ring" )->levels(), 0x181U );
   EXPECT_EQ( child( ring + "KIV_TRACE_RING_LEVELS=" ), "0 0000000000\n" );
   EXPECT_EQ( recorded( folder / "ring" ).size(), 10U ) << "not said";
}

TEST( TraceRingOfTheEnvironment, IsNotOpenedByATraceThatItLeavesOut ) {
   Folder const folder;
   std::string const ring =
      "KIV_TRACE_RING_LEVELS=0-8 KIV_TRACE_RING='" + ( folder / "ring" ) + "'";
   EXPECT_EQ( child( ring, "Ringed Ringed:9 '' 9" ), "1 0000000001\nRinged/9 passed 9\n" );
   EXPECT_EQ( folder.files(), Texts() );
   EXPECT_EQ( child( ring, "Ringed Ringed:9 '' 8-9" ), "1 0000000001\nRinged/9 passed 9\n" );
   EXPECT_EQ( recorded( folder / "ring" ), Texts{ "passed 8" } );
}

TEST( TraceRingOfTheEnvironment, TakesAllLevelsWhenThoseItNamesAreWrong ) {
   Folder const folder;
   std::string const ring =
      "KIV_TRACE_RING_LEVELS=0-10 KIV_TRACE_RING='" + ( folder / "ring" ) + "'";
   EXPECT_EQ( child( ring, "" ), "failed: " ) << "who does not trace is not told";
   EXPECT_EQ( child( ring ), "kiv: KIV_TRACE_RING_LEVELS ignored: levels \"0-10\", character 4: "
                             "expected \",\" or the end\n0 0000000000\n" );
   EXPECT_EQ( recorded( folder / "ring" ).size(), 10U );
   EXPECT_EQ( Flitlog::Reader::ReaderIs( folder / "ring" )->levels(), Flitlog::allLevels );
   EXPECT_EQ( child( "KIV_TRACE_RING_LEVELS=0-10" ), "0 0000000000\n" ) << "of no ring";
}

TEST( TraceRingOfTheEnvironment, IsOpenedByTheFirstTrace ) {
   Folder const folder;
   std::string const printed =
      child( "KIV_TRACE_RING='" + ( folder / "ring" ) + "' KIV_TRACE_RING_SIZE=64K" );
   EXPECT_EQ( printed, "0 0000000000\n" ) << "text traces stay off";
   EXPECT_EQ( folder.files(), ( std::vector< std::string >{ "ring" } ) );
   auto const size = std::filesystem::file_size( folder / "ring" );
   EXPECT_GT( size, 65536U );
   EXPECT_LT( size, 1048576U );
}

TEST( TraceRingOfTheEnvironment, OfAProgramThatTracesNothingLeavesWhatAnotherOneHasLeft ) {
   Folder const folder;
   std::string const environment = "KIV_TRACE_RING='" + ( folder / "ring" ) + "'";
   child( environment );
   auto const before = std::filesystem::last_write_time( folder / "ring" );
   // Without an argument the program ends before its first trace.
   EXPECT_EQ( child( environment, "" ), "failed: " );
   EXPECT_EQ( folder.files(), ( std::vector< std::string >{ "ring" } ) );
   EXPECT_EQ( std::filesystem::last_write_time( folder / "ring" ), before );
}

TEST( TraceRingOfTheEnvironment, GivesWayToOneThatIsAskedForInCode ) {
   Folder const folder;
   std::string const printed = child( "KIV_TRACE_RING='" + ( folder / "ring" ) + "'",
                                      "Ringed '' '" + ( folder / "other" ) + "'" );
   EXPECT_EQ( printed, "0 0000000000\n" );
   EXPECT_EQ( folder.files(), ( std::vector< std::string >{ "other" } ) );
}

TEST( TraceRingOfTheEnvironment, IsNoneWhenItsNameIsEmpty ) {
   EXPECT_EQ( child( "KIV_TRACE_RING= KIV_TRACE_RING_SIZE=64K" ), "0 0000000000\n" );
}

TEST( TraceRingOfTheEnvironment, IsReportedAndLeftOutWhenItCannotBeMade ) {
   Folder const folder;
   std::string const printed = child( "KIV_TRACE_RING='" + ( folder / "none/ring" ) + "'" );
   EXPECT_EQ( printed.rfind( "kiv: KIV_TRACE_RING ignored: ", 0 ), 0U ) << printed;
   EXPECT_NE( printed.find( folder / "none/ring" ), std::string::npos ) << printed;
   EXPECT_NE( printed.find( "\n0 0000000000\n" ), std::string::npos ) << printed;
}

TEST( TraceRingOfTheEnvironment, HasTheUsualSizeWhenItsOwnIsWrong ) {
   Folder const folder;
   EXPECT_EQ( child( "KIV_TRACE_RING='" + ( folder / "ring" ) + "' KIV_TRACE_RING_SIZE=large" ),
              "kiv: KIV_TRACE_RING_SIZE ignored: size \"large\": expected a number of bytes above "
              "0, which may end in K, M or G\n0 0000000000\n" );
   EXPECT_GT( std::filesystem::file_size( folder / "ring" ), Flitlog::defaultRingBytes );
}
