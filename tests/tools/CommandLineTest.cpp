// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include "OnTerminal.h"

#include <algorithm>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace {

struct CommandLine : Process::Folder {
   // The first line of standard error of a wrong command line.
   std::string refused( std::string const & arguments ) const {
      auto const run = ordovan( arguments );
      EXPECT_EQ( run.status, 2 ) << arguments;
      EXPECT_EQ( run.out, "" ) << arguments;
      return run.err.substr( 0, run.err.find( '\n' ) );
   }
};

std::size_t longestLine( std::string const & text ) {
   std::size_t longest = 0;
   std::istringstream lines( text );
   for( std::string line; std::getline( lines, line ); )
      longest = std::max( longest, line.size() - ( line.ends_with( '\r' ) ? 1 : 0 ) );
   return longest;
}

std::string withBlanksForLineEnds( std::string const & text ) {
   std::istringstream words( text );
   std::string result;
   for( std::string word; words >> word; )
      result += word + ' ';
   return result;
}

TEST_F( CommandLine, AWrongSubcommandIsToldWithTheNearest ) {
   EXPECT_EQ( refused( "simulat x" ),
              "ordovan: unknown subcommand \"simulat\"; did you mean \"simulate\"?" );
   EXPECT_EQ( refused( "insepct x --json" ),
              "ordovan: unknown subcommand \"insepct\"; did you mean \"inspect\"?" );
   EXPECT_EQ( refused( "sim" ), "ordovan: unknown subcommand \"sim\"; did you mean \"simulate\"?" );
   EXPECT_TRUE( refused( "help" ).starts_with(
      "ordovan: unknown subcommand \"help\"; there are simulate, inspect" ) );
   EXPECT_TRUE( refused( "$(printf '\\033[2J')" )
                   .starts_with( "ordovan: unknown subcommand \"\\x1b[2J\"; there are " ) );
   EXPECT_TRUE( refused( "''" ).starts_with( "ordovan: unknown subcommand \"\"; there are " ) );
}

TEST_F( CommandLine, AWrongOptionIsToldWithTheNearest ) {
   for( auto const & [ arguments, expected ] : std::vector< std::pair< std::string, std::string > >{
           { "--vresion", "ordovan: unknown option \"--vresion\"; did you mean \"--version\"?" },
           { "--foo simulate x", "ordovan: unknown option \"--foo\"" },
           { "simulate --recod=r p", "ordovan simulate: unknown option \"--recod\"; did you mean "
                                     "\"--record\"?" },
           { "simulate --recod r p", "ordovan simulate: unknown option \"--recod\"; did you mean "
                                     "\"--record\"?" },
           { "simulate --no-colour p", "ordovan simulate: unknown option \"--no-colour\"; did you "
                                       "mean \"--no-color\"?" },
           { "simulate --rin",
             "ordovan simulate: unknown option \"--rin\"; did you mean \"--ring\" "
             "or \"--ring-size\" or \"--ring-levels\"?" },
           { "simulate -z p", "ordovan simulate: unknown option \"-z\"" },
           { "inspect --jsno", "ordovan inspect: unknown option \"--jsno\"; did you mean "
                               "\"--json\"?" } } )
      EXPECT_EQ( refused( arguments ), expected );
}

TEST_F( CommandLine, AnArgumentTooManyOrTooFewIsNamed ) {
   EXPECT_EQ( refused( "simulate one two three" ),
              "ordovan simulate: argument \"two\" is one too many" );
   EXPECT_EQ( refused( "inspect one two three" ),
              "ordovan inspect: argument \"three\" is one too many" );
   EXPECT_EQ( refused( "simulate" ), "ordovan simulate: PLAN is required" );
   auto const run = ordovan( "simulate" );
   EXPECT_EQ( run.err.substr( run.err.find( '\n' ) + 1 ),
              "Run \"ordovan simulate --help\" for more information.\n" );
}

TEST_F( CommandLine, WithoutArgumentsTheSubcommandsAreListedOnStandardError ) {
   auto const run = ordovan( "" );
   EXPECT_EQ( run.status, 2 );
   EXPECT_EQ( run.out, "" );
   // Versions of the library that writes the help end it with one line end or with two.
   auto const ended = []( std::string const & text ) {
      return text.substr( 0, text.find_last_not_of( '\n' ) + 1 );
   };
   EXPECT_EQ( ended( run.err ), ended( ordovan( "--help" ).out ) );
   EXPECT_NE( run.err.find( "\n  simulate  " ), std::string::npos );
   EXPECT_NE( run.err.find( "\n  inspect  " ), std::string::npos );
}

TEST_F( CommandLine, HelpBreaksAtBlanksToTheWidthOfTheTerminal ) {
   for( std::string const subcommand : { "", "simulate", "inspect" } ) {
      auto const text = ordovan( subcommand + " --help" ).out;
      EXPECT_LE( longestLine( text ), 80U ) << text;
      EXPECT_GT( longestLine( text ), 70U ) << text;
      for( unsigned const columns : { 55U, 80U, 120U } ) {
         std::vector< std::string > arguments = { "--help" };
         if( !subcommand.empty() )
            arguments.insert( arguments.begin(), subcommand );
         auto const shown =
            Process::onTerminal( folder, { columns, 24 }, { "TERM=xterm" }, arguments );
         EXPECT_EQ( shown.status, 0 );
         EXPECT_LE( longestLine( shown.out ), columns ) << shown.out;
         EXPECT_GT( longestLine( shown.out ), columns * 2 / 3 ) << shown.out;
         EXPECT_EQ( withBlanksForLineEnds( shown.out ), withBlanksForLineEnds( text ) );
      }
   }
}

TEST_F( CommandLine, MessagesBreakAtBlanksOnATerminalAndAreLinesElsewhere ) {
   file( "p.yaml", "agents: {A: {Boot: {unknown: 1}}}\n" );
   auto const line = ordovan( "simulate p.yaml" );
   EXPECT_EQ( std::count( line.err.begin(), line.err.end(), '\n' ), 1 ) << line.err;
   EXPECT_GT( line.err.size(), 82U );
   auto const shown = Process::onTerminal( folder, { 60, 24 }, {}, { "simulate", "p.yaml" } );
   EXPECT_EQ( shown.status, 2 );
   EXPECT_LE( longestLine( shown.out ), 60U ) << shown.out;
   EXPECT_NE( shown.out.find( "\r\n   " ), std::string::npos ) << shown.out;
   EXPECT_EQ( withBlanksForLineEnds( shown.out ), withBlanksForLineEnds( line.err ) );
}

} // namespace
