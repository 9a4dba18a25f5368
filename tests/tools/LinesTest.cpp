// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <tools/Lines.h>

#include <string>

#include <fcntl.h>
#include <pty.h>
#include <stdlib.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

using Tools::broken;
using Tools::columnsOf;

TEST( Lines, AreBrokenAtBlanksWhereTheTerminalEnds ) {
   EXPECT_EQ( broken( "one two three", 13 ), "one two three" );
   EXPECT_EQ( broken( "one two three", 12 ), "one two\n   three" );
   EXPECT_EQ( broken( "one two three four", 8 ), "one two\n   three\n   four" );
   EXPECT_EQ( broken( "one two three four", 13 ), "one two three\n   four" );
   EXPECT_EQ( broken( "a b c d e f g h", 7 ), "a b c d\n   e f\n   g h" );
}

TEST( Lines, AreNotBrokenInsideWords ) {
   EXPECT_EQ( broken( "a-very-long-word and more", 8 ), "a-very-long-word\n   and\n   more" );
   EXPECT_EQ( broken( "x a-very-long-word", 8 ), "x\n   a-very-long-word" );
}

TEST( Lines, AreNotBrokenWithoutATerminal ) {
   std::string const text( 500, 'x' );
   EXPECT_EQ( broken( text + " " + text, 0 ), text + " " + text );
}

TEST( Lines, KeepBlanksThatStandTogether ) {
   EXPECT_EQ( broken( "\"a  b\" c ", 80 ), "\"a  b\" c " );
   EXPECT_EQ( broken( "", 80 ), "" );
}

TEST( Lines, AreMeasuredInCharacters ) {
   EXPECT_EQ( broken( "\u00f6\u00f6\u00f6 \u20ac\u20ac", 6 ), "\u00f6\u00f6\u00f6 \u20ac\u20ac" );
   EXPECT_EQ( broken( "\u00f6\u00f6\u00f6 \u20ac\u20ac", 5 ),
              "\u00f6\u00f6\u00f6\n   \u20ac\u20ac" );
}

TEST( Lines, ThatAreThereStay ) {
   EXPECT_EQ( broken( "  a  b\n\n  c d \n", 6 ), "  a  b\n\n  c d \n" );
   EXPECT_EQ( broken( "a\nb c", 3 ), "a\nb c" );
}

TEST( Lines, AreIndentedAsIsWanted ) {
   EXPECT_EQ( broken( "one two three", 7, 0 ), "one two\nthree" );
   EXPECT_EQ( broken( "one two three", 12, 2 ), "one two\n  three" );
   EXPECT_EQ( broken( "one two", 12, 8, 6 ), "one\n        two" ) << "6 columns are used";
   EXPECT_EQ( broken( "\xff\xff \xff x", 4, 0 ), "\xff\xff \xff\nx" );
}

TEST( Lines, TakeRowsOfATerminal ) {
   EXPECT_EQ( Tools::rowsOf( "", 10 ), 0U );
   EXPECT_EQ( Tools::rowsOf( "one\n\ntwo\n", 10 ), 3U );
   EXPECT_EQ( Tools::rowsOf( "0123456789\n0123456789x", 10 ), 3U );
   EXPECT_EQ( Tools::rowsOf( "\u00e9\u00e9\u00e9\n", 3 ), 1U );
}

// A terminal, and what the environment says while it is there.
struct TerminalColumns : testing::Test {
   ~TerminalColumns() override {
      unsetenv( "COLUMNS" );
      for( int const descriptor : { outer, inner } )
         if( descriptor >= 0 )
            close( descriptor );
   }
   std::size_t columns( unsigned short size, char const * variable ) {
      winsize wanted{};
      wanted.ws_col = size;
      EXPECT_EQ( openpty( &outer, &inner, nullptr, nullptr, &wanted ), 0 );
      unsetenv( "COLUMNS" );
      if( variable )
         setenv( "COLUMNS", variable, 1 );
      auto const found = columnsOf( inner );
      close( outer );
      close( inner );
      outer = inner = -1;
      return found;
   }
   int outer = -1, inner = -1;
};

TEST_F( TerminalColumns, AreWhatTheTerminalSays ) {
   EXPECT_EQ( columns( 72, nullptr ), 72U );
   EXPECT_EQ( columns( 72, "40" ), 72U );
}

TEST_F( TerminalColumns, AreWhatTheEnvironmentSaysIfTheTerminalDoesNot ) {
   EXPECT_EQ( columns( 0, "40" ), 40U );
   EXPECT_EQ( columns( 0, nullptr ), 0U );
   for( auto const * variable : { "", "wide", "40x", "-5", " 40", "99999999999999" } )
      EXPECT_EQ( columns( 0, variable ), 0U ) << variable;
}

TEST_F( TerminalColumns, AreUnknownOfWhatIsNoTerminal ) {
   setenv( "COLUMNS", "40", 1 );
   int const nowhere = open( "/dev/null", O_WRONLY | O_CLOEXEC );
   EXPECT_EQ( columnsOf( nowhere ), 0U );
   close( nowhere );
   EXPECT_EQ( columnsOf( -1 ), 0U );
}

} // namespace
