// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include "EngineTestSupport.h"

#include <cmath>

#include <gtest/gtest.h>
#include <simulation/InputLine.h>

namespace {

using namespace Simulation;

Lines linesOf( Operation const & operation, double t = 1.5 ) {
   return inputLines( { t, { { operation, std::nullopt } } } );
}

std::string mistakeIn( std::string const & line ) {
   try {
      auto const value = jsonValue( line );
      if( kindOf( value ) == "begin" )
         readBeginning( value );
      else
         readInput( value );
   } catch( LineError const & error ) {
      return error.what();
   }
   return "none";
}

// A line that has everything around `rest` that an input needs.
std::string inputWith( std::string const & rest ) {
   return R"({"kind": "input", "t": 1)" + ( rest.empty() ? "" : ", " + rest ) + "}";
}

Event rich() {
   auto made = critical( withTimeout( 20, event( "A", never(), { "B", "C" } ) ) );
   made.dependency[ 1 ].value = false;
   return made;
}

TEST( InputLine, EachOperationHasItsKeys ) {
   EXPECT_EQ( linesOf( Join{ "x", { rich(), event( "D", already() ) } } ),
              Lines{ R"({"agent": "x", "join": {"A": {"complete": "never", "critical": true, )"
                     R"("dependency": {"B": true, "C": false}, "timeout": 20}, )"
                     R"("D": {"complete": true}}, "kind": "input", "t": 1.5})" } );
   EXPECT_EQ( linesOf( Leave{ "x" } ),
              Lines{ R"({"agent": "x", "kind": "input", "leave": true, "t": 1.5})" } );
   EXPECT_EQ( linesOf( Declare{ "x", event( "A", never() ) } ),
              Lines{ R"({"agent": "x", "declare": {"complete": "never"}, "kind": "input", )"
                     R"("stage": "A", "t": 1.5})" } );
   EXPECT_EQ(
      linesOf( Withdraw{ "x", "A" } ),
      Lines{ R"({"agent": "x", "kind": "input", "stage": "A", "t": 1.5, "withdraw": true})" } );
   EXPECT_EQ(
      linesOf( Set{ "x",
                    "A",
                    { CriticalWrite{ true }, TimeoutWrite{ infinity }, CompleteWrite{ true },
                      DependencyWrite{ "B", false }, DependencyWrite{ "C", std::nullopt } } } ),
      Lines{ R"({"agent": "x", "kind": "input", "set": {"critical": true, "timeout": "inf", )"
             R"("complete": true, "dependency": {"B": false, "C": null}}, "stage": "A", )"
             R"("t": 1.5})" } );
   EXPECT_EQ( linesOf( Enable{ false }, 0.000001 ),
              Lines{ R"({"enabled": false, "kind": "input", "t": 1e-06})" } );
}

TEST( InputLine, SaysWhoseProcessItWas ) {
   EXPECT_EQ(
      inputLines( { 2, { { Leave{ "x" }, 4294967295U } } } ),
      Lines{ R"({"agent": "x", "kind": "input", "leave": true, "t": 2, "user": 4294967295})" } );
   auto const read =
      readInput( jsonValue( R"({"enabled": true, "kind": "input", "t": 2, "user": 7})" ) );
   EXPECT_EQ( read.input.user, 7U );
   EXPECT_EQ( read.t, 2 );
}

TEST( InputLine, TheBeginningHasAllThatIsThereBefore ) {
   Beginning const beginning{
      "Router", false, { agent( "x", { rich() } ), agent( "y", {} ) }, true };
   std::string const line =
      R"({"agents": {"x": {"A": {"complete": "never", "critical": true, "dependency": )"
      R"({"B": true, "C": false}, "timeout": 20}}, "y": {}}, "application": "Router", )"
      R"("decideOnDeclarations": true, "enabled": false, "kind": "begin", "t": 0})";
   EXPECT_EQ( beginLine( beginning ), line );
   EXPECT_EQ( beginLine( readBeginning( jsonValue( line ) ) ), line );
}

TEST( InputLine, WritesThatOneObjectCannotHoldTakeSeveralLines ) {
   Set const set{ "x",
                  "A",
                  { CompleteWrite{ true }, CompleteWrite{ false }, DependencyWrite{ "B", true },
                    CriticalWrite{ true }, DependencyWrite{ "C", true },
                    DependencyWrite{ "B", false }, DependencyWrite{ "C", std::nullopt } } };
   auto const lines = linesOf( set );
   Lines sets;
   for( auto const & line : lines )
      sets.push_back( line.substr( 32, line.find( ", \"stage\"" ) - 32 ) );
   EXPECT_EQ( sets,
              ( Lines{ R"("set": {"complete": true})",
                       R"("set": {"complete": false, "dependency": {"B": true}, "critical": true})",
                       R"("set": {"dependency": {"C": true, "B": false}})",
                       R"("set": {"dependency": {"C": null}})" } ) );
}

TEST( InputLine, ASetWithoutWritesIsOneLine ) {
   EXPECT_EQ( linesOf( Set{ "x", "A", {} } ),
              Lines{ R"({"agent": "x", "kind": "input", "set": {}, "stage": "A", "t": 1.5})" } );
}

TEST( InputLine, WhatIsReadIsWrittenTheSameAgain ) {
   std::vector< Operation > const operations = {
      Join{ "x", { rich(), event( "D", already() ) } },
      Join{ "\"\n\xC3\xA9", {} },
      Leave{ "x" },
      Declare{ "x", rich() },
      Withdraw{ "x", "A" },
      Set{ "x",
           "A",
           { DependencyWrite{ "B", std::nullopt }, TimeoutWrite{ 0.1 }, CompleteWrite{ true } } },
      Set{ "x", "A", {} },
      Enable{ true } };
   for( auto const & operation : operations ) {
      auto const lines = linesOf( operation );
      ASSERT_EQ( lines.size(), 1U );
      auto const read = readInput( jsonValue( lines[ 0 ] ) );
      EXPECT_EQ( inputLines( { read.t, { read.input } } ), lines );
      EXPECT_EQ( read.input.operation.index(), operation.index() );
   }
}

TEST( InputLine, OfADependencyThatIsNamedTwiceTheLastCounts ) {
   auto twice = event( "A", never(), { "B", "C", "B" } );
   twice.dependency[ 2 ].value = false;
   EXPECT_NE(
      linesOf( Declare{ "x", twice } )[ 0 ].find( R"("dependency": {"C": true, "B": false})" ),
      std::string::npos );
}

TEST( InputLine, WhatCouldNotBeReadIsNotWritten ) {
   std::vector< Operation > const operations = {
      Leave{ "" },
      Leave{ "\xFF" },
      Join{ "", {} },
      Join{ "x", { event( "", never() ) } },
      Join{ "x", { event( "A", after( 1 ) ) } },
      Declare{ "x", withTimeout( -1, event( "A", never() ) ) },
      Declare{ "x", withTimeout( std::nan( "" ), event( "A", never() ) ) },
      Declare{ "x", event( "A", never(), { "\xC0" } ) },
      Withdraw{ "x", "" },
      Set{ "x", "A", { TimeoutWrite{ -infinity } } },
      Set{ "x", "A", { DependencyWrite{ "", true } } } };
   for( auto const & operation : operations )
      EXPECT_THROW( linesOf( operation ), std::invalid_argument );
   for( double const t : { -1.0, 0.0000001, infinity, std::nan( "" ) } )
      EXPECT_THROW( linesOf( Leave{ "x" }, t ), std::invalid_argument );
   EXPECT_THROW( beginLine( { "", true, {}, false } ), std::invalid_argument );
   EXPECT_THROW( beginLine( { "a", true, { agent( "x", { event( "A" ) } ) }, false } ),
                 std::invalid_argument );
}

TEST( InputLine, MistakesSayWhatIsWrongAndWhatIsExpected ) {
   std::vector< std::pair< std::string, std::string > > const wrong = {
      { "",
        "the input says nothing; expected one of declare, enabled, join, leave, set, withdraw" },
      { R"("agent": "x", "leave": false)", "\"leave\" is false; expected true" },
      { R"("agent": "x", "leave": 1)", "\"leave\" is 1; expected true or false" },
      { R"("leave": true)", "\"agent\" is missing in the input" },
      { R"("agent": "", "leave": true)", "\"agent\" is the text \"\"; expected a name" },
      { R"("agent": "x", "leave": true, "stage": "A")",
        "unknown key \"stage\" in the input; known are kind t user agent leave" },
      { R"("agent": "x", "leave": true, "withdraw": true)",
        "unknown key \"withdraw\" in the input; known are kind t user agent leave" },
      { R"("agent": "x", "withdraw": true)", "\"stage\" is missing in the input" },
      { R"("agent": "x", "join": [])", "\"join\" is an array; expected an object" },
      { R"("agent": "x", "join": {"A": 1})", "the event for stage \"A\" is 1; expected an object" },
      { R"("agent": "x", "join": {"": {"complete": true}})", "a name is empty" },
      { R"("agent": "x", "stage": "A", "declare": {})",
        "\"complete\" is missing in the event for stage \"A\"" },
      { R"("agent": "x", "stage": "A", "declare": {"complete": 2.5})",
        "\"complete\" is 2.5; expected true or \"never\"" },
      { R"("agent": "x", "stage": "A", "declare": {"complete": false})",
        "\"complete\" is false; expected true or \"never\"" },
      { R"("agent": "x", "stage": "A", "declare": {"complete": true, "timeout": -1})",
        "\"timeout\" is -1; expected seconds from 0 on, or \"inf\"" },
      { R"("agent": "x", "stage": "A", "declare": {"complete": true, "ready": "exit"})",
        "unknown key \"ready\" in the event for stage \"A\"; known are complete critical "
        "dependency "
        "timeout" },
      { R"("agent": "x", "stage": "A", "declare": {"complete": true, "dependency": ["B"]})",
        "\"dependency\" is an array; expected an object" },
      { R"("agent": "x", "stage": "A", "declare": {"complete": true, "dependency": {"B": null}})",
        "\"B\" is null; expected true or false" },
      { R"("agent": "x", "stage": "A", "set": {"complete": "never"})",
        "\"complete\" is the text \"never\"; expected true or false" },
      { R"("agent": "x", "stage": "A", "set": {"dependency": {"B": 1}})",
        "\"B\" is 1; expected true, false or null" },
      { R"("agent": "x", "stage": "A", "set": {"stage": "B"})",
        "unknown key \"stage\" in \"set\"; known are complete critical dependency timeout" },
      { R"("enabled": "yes")", "\"enabled\" is the text \"yes\"; expected true or false" },
      { R"("enabled": true, "user": -1)", "\"user\" is -1; expected the number of a user" },
      { R"("enabled": true, "user": 1.5)", "\"user\" is 1.5; expected the number of a user" },
      { R"("enabled": true, "user": 4294967296)",
        "\"user\" is 4294967296; expected the number of a user" } };
   for( auto const & [ rest, what ] : wrong )
      EXPECT_EQ( mistakeIn( inputWith( rest ) ), what ) << rest;
   EXPECT_EQ( mistakeIn( R"({"kind": "input", "enabled": true})" ), "\"t\" is missing" );
   EXPECT_EQ( mistakeIn( R"({"kind": "input", "enabled": true, "t": -1})" ),
              "\"t\" is -1; expected seconds from 0 on" );
   EXPECT_EQ( mistakeIn( R"({"kind": "input", "enabled": true, "t": 0.0000001})" ),
              "\"t\" is 1e-07; expected whole microseconds" );
   EXPECT_EQ( mistakeIn( R"({"enabled": true, "t": 1})" ),
              "\"kind\" is missing or no text; every line says what it is" );
   EXPECT_EQ( mistakeIn( "[]" ), "the line is an array; expected an object" );
   EXPECT_EQ( mistakeIn( R"({"kind": "begin", "t": 0})" ),
              "\"application\" is missing in the beginning" );
   EXPECT_EQ( mistakeIn( R"({"kind": "begin", "t": 1})" ),
              "\"t\" is 1; expected 0 at the beginning" );
}

} // namespace
