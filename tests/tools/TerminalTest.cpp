// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include "Process.h"

#include <string>
#include <vector>

#include <cerrno>
#include <pty.h>
#include <unistd.h>

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
      int terminal = -1;
      auto const child = forkpty( &terminal, nullptr, nullptr, nullptr );
      if( child == 0 ) {
         become( environment, options );
      }
      std::string text;
      char part[ 4096 ];
      for( ssize_t count = 1; count > 0; ) {
         count = read( terminal, part, sizeof part );
         text.append( part, count > 0 ? static_cast< std::size_t >( count ) : 0 );
      }
      close( terminal );
      int status = 0;
      EXPECT_EQ( waitpid( child, &status, 0 ), child );
      EXPECT_TRUE( WIFEXITED( status ) && WEXITSTATUS( status ) == expected ) << text;
      return text;
   }

 private:
   [[noreturn]] void become( std::vector< std::string > const & environment,
                             std::vector< std::string > const & options ) const {
      clearenv();
      for( auto const & setting : environment ) {
         putenv( strdup( setting.c_str() ) );
      }
      auto const plan = folder / "p.yaml";
      std::vector< char const * > arguments = { "ordovan", "simulate", plan.c_str() };
      for( auto const & option : options ) {
         arguments.push_back( option.c_str() );
      }
      arguments.push_back( nullptr );
      execv( ORDOVAN_COMMAND, const_cast< char * const * >( arguments.data() ) );
      _exit( 127 );
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
   for( auto at = text.find( '\x1b' ); at != std::string::npos; at = text.find( '\x1b' ) ) {
      text.erase( at, text.find( 'm', at ) - at + 1 );
   }
   EXPECT_EQ( text, shown( { "TERM=xterm" }, { "--no-color" } ) );
   EXPECT_NE( text.find( "     8.000 resumed    Boot" ), std::string::npos );
}

TEST_F( Terminal, GetsNothingButTheLibrarysLineFromAQuietRun ) {
   EXPECT_EQ( shown( { "TERM=xterm" }, { "--quiet" } ),
              " Critical stage Boot timed out! Router suspended for debugging.\r\n" );
}

}  // namespace
