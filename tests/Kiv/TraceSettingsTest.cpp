// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The settings of traces as text: in code, and in the environment of a process. Settings stay for
// the life of a process, so every test has handles of its own name.
#include "../support/Child.h"

#include <Kiv/Kiv.h>

#include <gtest/gtest.h>

#include <optional>
#include <string>

using Kiv::String8;
using Kiv::TraceHandle;
using Kiv::tracesIs;
using testing_support::Child;

namespace {

// "+089": master switch and the levels that are on.
std::string switches( TraceHandle const & handle ) {
   std::string text = handle.master() ? "+" : "-";
   for( unsigned level = 0; level != 10; ++level )
      if( handle.level( level ) )
         text += std::to_string( level );
   return text;
}

// The text of the range exception that the settings are refused with.
std::optional< std::string > refusal( std::string const & settings ) {
   try {
      tracesIs( settings );
   } catch( Kiv::RangeException const & e ) {
      return e.what();
   }
   return std::nullopt;
}
std::string refused( std::string const & settings, int character, std::string const & expected ) {
   return "trace settings \"" + settings + "\", character " + std::to_string( character ) +
          ": expected " + expected;
}

// What the child program prints, standard error included, with KIV_TRACE as given.
std::string child( std::string const & settings, std::string const & arguments ) {
   return Child( "KIV_TRACE='" + settings + "' '" TRACE_CHILD "' " + arguments ).printed();
}

} // namespace

// ---------------------------------------------------------------------------------------- grammar

TEST( TraceSettings, NameLevelsAndRangesOfAHandle ) {
   TraceHandle handle( "Grammar", false );
   tracesIs( "Grammar:8" );
   EXPECT_EQ( switches( handle ), "+8" );
   tracesIs( "Grammar:7-9,0" );
   EXPECT_EQ( switches( handle ), "+0789" ) << "the levels named are on, the others off";
   tracesIs( "Grammar:3-3,1,1,1-2" );
   EXPECT_EQ( switches( handle ), "+123" );
   tracesIs( "Grammar:0-9" );
   EXPECT_EQ( switches( handle ), "+0123456789" );
}

TEST( TraceLevels, AreBitsOfTheLevelsThatATextNames ) {
   EXPECT_EQ( Kiv::traceLevels( "8" ), 0x100U );
   EXPECT_EQ( Kiv::traceLevels( "7-9,0" ), 0x381U );
   EXPECT_EQ( Kiv::traceLevels( "0-9" ), 0x3ffU );
}

TEST( TraceLevels, AreRefusedWithThePlaceOfTheMistake ) {
   auto const refusedWith = []( String8 const & text ) {
      try {
         Kiv::traceLevels( text );
      } catch( Kiv::RangeException const & e ) {
         return std::string( e.what() );
      }
      return std::string( "accepted" );
   };
   EXPECT_EQ( refusedWith( "" ), "levels \"\", character 1: expected a level, 0 to 9" );
   EXPECT_EQ( refusedWith( "7;8" ),
              "levels \"7;8\", character 2: expected \",\", \"-\" or the end" );
   EXPECT_EQ( refusedWith( "1-2-3" ), "levels \"1-2-3\", character 4: expected \",\" or the end" );
   EXPECT_EQ( refusedWith( "3-1" ), "levels \"3-1\", character 3: expected a level that is not "
                                    "below the first of the range" );
}

TEST( TraceSettings, WithoutLevelsSwitchAHandleOff ) {
   TraceHandle handle( "NoLevels", false );
   TraceHandle other( "NoLevelsToo", false );
   tracesIs( "NoLevels:0-9;NoLevelsToo:1" );
   tracesIs( "NoLevels:;NoLevelsToo:2" );
   EXPECT_EQ( switches( handle ), "-" );
   EXPECT_EQ( switches( other ), "+2" );
   tracesIs( "NoLevelsToo:" );
   EXPECT_EQ( switches( other ), "-" );
}

TEST( TraceSettings, ReachTheHandlesTheyNameAndNoOther ) {
   TraceHandle one( "ReachOne", false );
   TraceHandle two( "ReachTwo", false );
   TraceHandle three( "ReachThree", false );
   TraceHandle longer( "ReachOneMore", false );
   tracesIs( "ReachOne:1;ReachTwo:2" );
   EXPECT_EQ( switches( one ), "+1" );
   EXPECT_EQ( switches( two ), "+2" );
   EXPECT_EQ( switches( three ), "-" );
   EXPECT_EQ( switches( longer ), "-" );
}

TEST( TraceSettings, ReachEveryHandleOfTheName ) {
   TraceHandle one( "Twice", false );
   TraceHandle two( "Twice", false );
   tracesIs( "Twice:4" );
   EXPECT_EQ( switches( one ), "+4" );
   EXPECT_EQ( switches( two ), "+4" );
}

TEST( TraceSettings, MayHaveEmptyEntries ) {
   TraceHandle handle( "EmptyEntries", false );
   tracesIs( "" );
   EXPECT_EQ( switches( handle ), "-" );
   tracesIs( ";;EmptyEntries:5;" );
   EXPECT_EQ( switches( handle ), "+5" );
}

TEST( TraceSettings, AreAppliedInOrderTheLastOneWins ) {
   TraceHandle handle( "LastWins", false );
   tracesIs( "LastWins:1;LastWins:2" );
   EXPECT_EQ( switches( handle ), "+2" );
}

TEST( TraceSettings, ReachHandlesThatAreMadeLater ) {
   tracesIs( "MadeLater:6" );
   tracesIs( "MadeLater:7" );
   TraceHandle const off( "MadeLater", false );
   EXPECT_EQ( switches( off ), "+7" );
   TraceHandle const other( "MadeLaterToo", true );
   EXPECT_EQ( switches( other ), "+" );
}

TEST( TraceSettings, LeaveAHandleThatIsGoneAlone ) {
   { TraceHandle const handle( "Gone", false ); }
   tracesIs( "Gone:1" ); // must not write to it
   TraceHandle const again( "Gone", false );
   EXPECT_EQ( switches( again ), "+1" );
}

// ----------------------------------------------------------------------------------------- errors

TEST( TraceSettings, WithAMistakeAreRefusedAtTheirPlace ) {
   char const * const entry = "HANDLE:LEVELS";
   char const * const level = "a level, 0 to 9";
   char const * const below = "a level that is not below the first of the range";
   EXPECT_EQ( refusal( "x" ), refused( "x", 1, entry ) );
   EXPECT_EQ( refusal( "x9" ), refused( "x9", 1, entry ) );
   EXPECT_EQ( refusal( ":3" ), refused( ":3", 1, entry ) );
   EXPECT_EQ( refusal( "a;b:3" ), refused( "a;b:3", 1, entry ) );
   EXPECT_EQ( refusal( "a:1;b" ), refused( "a:1;b", 5, entry ) );
   EXPECT_EQ( refusal( "a:1;:2" ), refused( "a:1;:2", 5, entry ) );
   EXPECT_EQ( refusal( "a:x" ), refused( "a:x", 3, level ) );
   EXPECT_EQ( refusal( "a: 1" ), refused( "a: 1", 3, level ) );
   EXPECT_EQ( refusal( "a:-1" ), refused( "a:-1", 3, level ) );
   EXPECT_EQ( refusal( "a:1," ), refused( "a:1,", 5, level ) );
   EXPECT_EQ( refusal( "a:1,,2" ), refused( "a:1,,2", 5, level ) );
   EXPECT_EQ( refusal( "a:1-" ), refused( "a:1-", 5, level ) );
   EXPECT_EQ( refusal( "a:1-;b:2" ), refused( "a:1-;b:2", 5, level ) );
   EXPECT_EQ( refusal( "a:5-3" ), refused( "a:5-3", 5, below ) );
   EXPECT_EQ( refusal( "a:12" ), refused( "a:12", 4, "\",\", \"-\", \";\" or the end" ) );
   EXPECT_EQ( refusal( "a:1 " ), refused( "a:1 ", 4, "\",\", \"-\", \";\" or the end" ) );
}

TEST( TraceSettings, AfterARangeDoNotAskForTheDashThatTheyRefuse ) {
   EXPECT_EQ( refusal( "a:1-2-3" ), refused( "a:1-2-3", 6, "\",\", \";\" or the end" ) );
   EXPECT_EQ( refusal( "a:1-23" ), refused( "a:1-23", 6, "\",\", \";\" or the end" ) );
}

TEST( TraceSettings, WithAMistakeChangeNothing ) {
   TraceHandle const handle( "NothingChanged", false );
   ASSERT_TRUE( refusal( "NothingChanged:1;NothingChanged:x" ) );
   EXPECT_EQ( switches( handle ), "-" );
   TraceHandle const later( "NothingChanged", false );
   EXPECT_EQ( switches( later ), "-" );
}

// ------------------------------------------------------------------------------------ environment

TEST( TraceEnvironment, SwitchesTheHandlesThatItNames ) {
   EXPECT_EQ( child( "Ordovan:7-9,0;Kiv:0", "Ordovan" ),
              "1 1000000111\n"
              "Ordovan/0 passed 0\nOrdovan/7 passed 7\nOrdovan/8 passed 8\nOrdovan/9 passed 9\n" );
   EXPECT_EQ( child( "Ordovan:7-9,0;Kiv:0", "Other" ), "0 0000000000\n" );
   EXPECT_EQ( child( "", "Ordovan" ), "0 0000000000\n" );
}

TEST( TraceEnvironment, SwitchesEveryHandleByAStar ) {
   EXPECT_EQ( child( "*:3", "Whatever" ), "1 0001000000\nWhatever/3 passed 3\n" );
   EXPECT_EQ( child( "*:3;Special:4", "Special" ), "1 0000100000\nSpecial/4 passed 4\n" );
}

TEST( TraceEnvironment, ComesBeforeWhatTheProgramSays ) {
   auto const switched = []( std::string const & settings, std::string const & later ) {
      return child( settings, "A '" + later + "'" ).substr( 0, 12 );
   };
   EXPECT_EQ( switched( "A:1", "A:2" ), "1 0010000000" );
   EXPECT_EQ( switched( "A:1", "*:2" ), "1 0010000000" );
   EXPECT_EQ( switched( "*:1", "B:2" ), "1 0100000000" );
   EXPECT_EQ( switched( "A:1", "*:2;A:3" ), "1 0001000000" );
   EXPECT_EQ( switched( "A:1", "A:3;*:2" ), "1 0010000000" );
}

TEST( TraceEnvironment, IsReportedOnOneLineWithoutControlCharacters ) {
   EXPECT_EQ( child( "Kiv\x1b[31m\nkiv: forged", "Ordovan" ),
              "kiv: KIV_TRACE ignored: trace settings \"Kiv\\x1b[31m\\x0akiv: forged\", "
              "character 14: expected a level, 0 to 9\n"
              "0 0000000000\n" );
}

TEST( TraceEnvironment, WithAMistakeIsReportedAndIgnored ) {
   EXPECT_EQ( child( "Ordovan:8;Kiv", "Ordovan" ),
              "kiv: KIV_TRACE ignored: trace settings \"Ordovan:8;Kiv\", character 11: "
              "expected HANDLE:LEVELS\n"
              "0 0000000000\n" );
}
