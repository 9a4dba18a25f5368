// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Recording traces into a trace file: in code, and by the environment of a process.
#include "../support/Child.h"
#include "../support/Folder.h"
#include "../support/Loop.h"

#include <Kiv/Kiv.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
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

struct TraceRing : testing::Test {
   ~TraceRing() override { Kiv::traceRingIs( "" ); }
   Folder const folder;
   testing_support::Loop loop;
   Kiv::TraceHandle const handle = Kiv::TraceHandle( "Ringed", false );
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
