// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include "EngineTestSupport.h"

#include <gtest/gtest.h>
#include <simulation/Engine.h>
#include <simulation/InputLine.h>
#include <simulation/RecordReader.h>
#include <simulation/RecordWriter.h>

namespace {

using namespace Simulation;

std::string const begin =
   R"({"agents": {}, "application": "R", "decideOnDeclarations": true, "enabled": false, "kind": "begin", "t": 0})"
   "\n";

std::string enabledAt( std::string const & t ) {
   return R"({"enabled": true, "kind": "input", "t": )" + t + "}\n";
}

std::string logAt( std::string const & t ) {
   return R"({"kind": "log", "msg": "m", "t": )" + t + "}\n";
}

std::string mistakeIn( std::string const & text ) {
   try {
      readRecord( text );
   } catch( RecordError const & error ) {
      return std::to_string( error.line() ) + ": " + error.what();
   }
   return "none";
}

TEST( RecordReader, InputsThatStandTogetherWithOneTimeAreOneInstant ) {
   auto const record = readRecord( begin + logAt( "0" ) + enabledAt( "0" ) + enabledAt( "0" ) +
                                   logAt( "0" ) + enabledAt( "1" ) + enabledAt( "1.5" ) );
   ASSERT_EQ( record.instant.size(), 3U );
   EXPECT_EQ( record.instant[ 0 ].instant.input.size(), 2U );
   EXPECT_EQ( record.instant[ 0 ].number, 3U );
   EXPECT_EQ( record.instant[ 1 ].instant.t, 1 );
   EXPECT_EQ( record.instant[ 2 ].instant.t, 1.5 );
   EXPECT_EQ( record.line.size(), 7U );
   EXPECT_FALSE( record.ended );
   EXPECT_FALSE( record.cutShort );
   EXPECT_EQ( record.beginning.application, "R" );
}

TEST( RecordReader, LinesOfUnknownKindsAreLeftOut ) {
   auto const record = readRecord( begin +
                                   R"({"kind": "process", "pid": 1})"
                                   "\n" +
                                   enabledAt( "1" ) );
   ASSERT_EQ( record.line.size(), 2U );
   EXPECT_EQ( record.line[ 1 ].number, 3U );
}

TEST( RecordReader, ALineThatWasCutShortIsNone ) {
   auto const record = readRecord( begin + enabledAt( "1" ) + R"({"kind": "lo)" );
   EXPECT_TRUE( record.cutShort );
   EXPECT_EQ( record.line.size(), 2U );
}

TEST( RecordReader, MistakesAreToldWithTheirLine ) {
   EXPECT_EQ( mistakeIn( "" ), "0: the record has no line" );
   EXPECT_EQ( mistakeIn( logAt( "0" ) ),
              "1: the first line is of kind \"log\"; a record that can be played again begins with "
              "one of kind \"begin\"" );
   EXPECT_EQ( mistakeIn( begin + begin ),
              "2: a second line of kind \"begin\"; there is one, the first" );
   EXPECT_EQ( mistakeIn( begin + logAt( "2" ) + logAt( "1" ) ), "3: time goes back, from 2 to 1" );
   EXPECT_EQ( mistakeIn( begin + enabledAt( "2" ) + logAt( "2" ) + enabledAt( "2" ) ),
              "4: \"t\" is 2 again; what is taken in later has a later time" );
   EXPECT_EQ( mistakeIn( begin + "{\n" ), "2: no JSON at byte 2: expected a key in quotes" );
   EXPECT_EQ( mistakeIn( begin + "\n" ), "2: no JSON at byte 1: expected a value" );
   EXPECT_EQ( mistakeIn( begin + enabledAt( "\"x\"" ) ),
              "2: \"t\" is the text \"x\"; expected seconds from 0 on" );
   EXPECT_EQ( mistakeIn( begin +
                         R"({"kind": "end", "t": 1})"
                         "\n" +
                         logAt( "1" ) ),
              "3: nothing is expected after the line of kind \"end\"" );
}

TEST( RecordReader, ReadsWhatARecordWriterHasWritten ) {
   std::string text;
   RecordWriter writer( [ & ]( std::string_view line ) { text += line; },
                        RecordWriter::Inputs::written );
   Engine engine( { "R", true, { agent( "a", { event( "A", never() ) } ) }, true }, { &writer } );
   engine.takeIn( { 1, { { Join{ "b", { event( "B", never() ) } }, 7U }, { Leave{ "a" }, {} } } } );
   engine.takeIn( { 2, { { Set{ "b", "B", { CompleteWrite{ true } } }, {} } } } );
   engine.fireUntil( infinity );
   engine.end( engine.result() );
   auto const record = readRecord( text );
   EXPECT_EQ( beginLine( record.beginning ) + "\n", text.substr( 0, text.find( '\n' ) + 1 ) );
   ASSERT_EQ( record.instant.size(), 2U );
   EXPECT_EQ( record.instant[ 0 ].instant.input[ 0 ].user, 7U );
   EXPECT_TRUE( record.ended );
   std::string again;
   for( auto const & line : record.line )
      again += line.text + "\n";
   EXPECT_EQ( again, text );
}

TEST( RecordWriterInputs, AreLeftOutUnlessAskedFor ) {
   std::string text;
   RecordWriter writer( [ & ]( std::string_view line ) { text += line; } );
   Engine engine( { "R", true, {}, true }, { &writer } );
   engine.takeIn( { 1, { { Join{ "b", {} }, {} } } } );
   EXPECT_EQ( text.find( "begin" ), std::string::npos );
   EXPECT_EQ( text.find( "input" ), std::string::npos );
}

} // namespace
