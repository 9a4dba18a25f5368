// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include "OnTerminal.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

// Runs the command with its output on a terminal, and returns what the terminal was sent.
struct Terminal : Process::Folder {
   Terminal() {
      file( "p.yaml", "application: Router\n"
                      "agents: {A: {Boot: {critical: true, timeout: 5, complete: 8}}}\n" );
   }

   std::string shown( std::vector< std::string > const & environment,
                      std::vector< std::string > const & options, int expected = 0 ) const {
      std::vector< std::string > arguments = { "simulate", "p.yaml" };
      arguments.insert( arguments.end(), options.begin(), options.end() );
      auto const run = Process::onTerminal( folder, {}, environment, arguments );
      EXPECT_EQ( run.status, expected ) << run.out;
      return run.out;
   }
};

bool hasColour( std::string const & text ) { return text.find( "\x1b[" ) != std::string::npos; }

TEST_F( Terminal, GetsColours ) {
   auto const text = shown( { "TERM=xterm" }, {} );
   EXPECT_NE( text.find( "\x1b[31msuspended\x1b[0m" ), std::string::npos ) << text;
   EXPECT_NE( text.find( "\x1b[32mcomplete\x1b[0m" ), std::string::npos ) << text;
}

TEST_F( Terminal, GetsNoRedWordWhileThingsAreInProgress ) {
   auto const text = shown( { "TERM=xterm" }, { "--until", "2" }, 1 );
   EXPECT_NE( text.find( "Router: in progress at 2 s" ), std::string::npos ) << text;
   EXPECT_EQ( text.find( "\x1b[31m" ), std::string::npos ) << text;
}

TEST_F( Terminal, GetsNoColoursWhenTheyAreNotWanted ) {
   EXPECT_FALSE( hasColour( shown( { "TERM=xterm" }, { "--no-color" } ) ) );
   EXPECT_FALSE( hasColour( shown( { "TERM=xterm", "NO_COLOR=1" }, {} ) ) );
   EXPECT_FALSE( hasColour( shown( { "TERM=dumb" }, {} ) ) );
   // The convention: an empty value says nothing.
   EXPECT_TRUE( hasColour( shown( { "TERM=xterm", "NO_COLOR=" }, {} ) ) );
}

TEST_F( Terminal, GetsTheSameWordsWithAndWithoutColours ) {
   auto text = shown( { "TERM=xterm" }, {} );
   for( auto at = text.find( '\x1b' ); at != std::string::npos; at = text.find( '\x1b' ) )
      text.erase( at, text.find( 'm', at ) - at + 1 );
   EXPECT_EQ( text, shown( { "TERM=xterm" }, { "--no-color" } ) );
   EXPECT_NE( text.find( "     8.000 resumed    Boot" ), std::string::npos );
}

TEST_F( Terminal, GetsNothingButTheLibrarysLineFromAQuietRun ) {
   EXPECT_EQ( shown( { "TERM=xterm" }, { "--quiet" } ),
              " Critical stage Boot timed out! Router suspended for debugging.\r\n" );
}

} // namespace
