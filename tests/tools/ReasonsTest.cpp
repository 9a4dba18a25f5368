// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// What the command says when a start-up does not complete.
#include "Process.h"

#include <algorithm>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <cstring>

#include <pty.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

using Lines = std::vector< std::string >;

Lines linesOf( std::string const & text ) {
   Lines lines;
   std::istringstream in( text );
   for( std::string line; std::getline( in, line ); )
      lines.push_back( line );
   return lines;
}

std::string others( std::size_t count ) {
   return std::to_string( count ) +
          " other stages wait for these; --all says for what each of them does.";
}

// What is said instead when the one cause has just said how many wait for it.
std::string const rest = "--all says for what each stage waits.";

struct ToldReasons : Process::Folder {
   // The stages that are not finished at the end of a run, as its record says.
   std::set< std::string > unfinished( std::string const & record ) const {
      std::set< std::string > names;
      auto const lines = linesOf( Process::contents( folder / record ) );
      auto const end = nlohmann::json::parse( lines.back() );
      for( auto const & [ name, stage ] : end[ "status" ][ "stage" ].items() )
         if( !stage[ "active" ] || !stage[ "complete" ] )
            names.insert( name );
      return names;
   }

   std::string const stalled = file( "stalled.yaml", "agents:\n"
                                                     "  A: {Boot: {complete: never}}\n"
                                                     "  B: {Net: {dependency: [Boot, Gone]},\n"
                                                     "      Web: {dependency: [Net]},\n"
                                                     "      X: {dependency: [Y]},\n"
                                                     "      Y: {dependency: [X]},\n"
                                                     "      Z: {dependency: [X]}}\n" );
   std::string const heading = "stalled.yaml: the start-up did not complete: stalled";
   std::string const boot = "stage \"Boot\" is active and waits for event \"Boot:A\" of agent "
                            "\"A\" (pending since 0 s); it has no time limit and waits for ever; 2 "
                            "more stages wait for this.";
   std::string const gone = "stage \"Gone\" is declared by no agent, but event \"Net:B\" of agent "
                            "\"B\" depends on it; 2 stages wait for this.";
   std::string const cycle = "stage \"X\" waits for itself: it depends on stage \"Y\" (event "
                             "\"X:B\" of agent \"B\"), which depends on stage \"X\" (event \"Y:B\" "
                             "of agent \"B\"); 1 more stage waits for this.";
};

TEST_F( ToldReasons, AreTheCausesFirstAndTheOthersAreCounted ) {
   EXPECT_EQ( linesOf( ordovan( "simulate --quiet stalled.yaml" ).err ),
              ( Lines{ heading, boot, gone, cycle, others( 3 ) } ) );
}

TEST_F( ToldReasons, AreAllIfAskedForAndEachStageHasItsSentence ) {
   EXPECT_EQ( linesOf( ordovan( "simulate --quiet --all stalled.yaml" ).err ),
              ( Lines{ heading, boot, gone, cycle,
                       "stage \"Net\" waits for stage \"Boot\", which is not complete and stage "
                       "\"Gone\", which no agent has declared; it has no time limit.",
                       "stage \"Web\" waits for stage \"Net\", which has not started; it has no "
                       "time limit.",
                       "stage \"X\" waits for stage \"Y\", which has not started; it depends on "
                       "itself by way of stage \"Y\"; it has no time limit.",
                       "stage \"Y\" waits for stage \"X\", which has not started; it depends on "
                       "itself by way of stage \"X\"; it has no time limit.",
                       "stage \"Z\" waits for stage \"X\", which has not started; it has no time "
                       "limit." } ) );
}

TEST_F( ToldReasons, CountNobodyWhoIsACause ) {
   file( "one.yaml", "agents: {A: {Boot: {complete: never}, Net: {dependency: [Boot]}}}\n" );
   EXPECT_EQ( linesOf( ordovan( "simulate --quiet one.yaml" ).err ).back(), rest );
   file( "none.yaml", "agents: {A: {Boot: {complete: never}}}\n" );
   auto const alone = ordovan( "simulate --quiet none.yaml" ).err;
   EXPECT_EQ( linesOf( alone ).size(), 2U ) << alone;
   EXPECT_EQ( ordovan( "simulate --quiet --all none.yaml" ).err, alone );
}

TEST_F( ToldReasons, SayWhenACauseIsOverByItself ) {
   file( "late.yaml", "agents: {A: {Boot: {timeout: 30, complete: 40},\n"
                      "             Net: {dependency: [Boot]}}}\n" );
   EXPECT_EQ( linesOf( ordovan( "simulate --quiet --until 12 late.yaml" ).err ),
              ( Lines{ "late.yaml: the start-up is in progress at 12 s",
                       "stage \"Boot\" is active and waits for event \"Boot:A\" of agent \"A\" "
                       "(pending since 0 s); its time is up at 30 s, in 18 s, and it would then be "
                       "declared complete all the same; 1 more stage waits for this, which goes on "
                       "at 30 s.",
                       rest } ) );
}

TEST_F( ToldReasons, AreWholeLinesForPipesAndFilesWhateverTheEnvironmentSays ) {
   auto const run = shell( "COLUMNS=40 \"$ordovan\" simulate --quiet stalled.yaml" );
   EXPECT_EQ( run.err, ordovan( "simulate --quiet stalled.yaml" ).err );
}

// ---------------------------------------------------------------------------------- on a terminal

struct ToldOnATerminal : ToldReasons {
   // What a terminal of that many columns is sent.
   std::string shown( unsigned short columns ) const {
      winsize size{};
      size.ws_col = columns;
      size.ws_row = 24;
      int terminal = -1;
      auto const child = forkpty( &terminal, nullptr, nullptr, &size );
      if( child == 0 ) {
         if( chdir( folder.c_str() ) == 0 ) {
            execl( ORDOVAN_COMMAND, "ordovan", "simulate", "--quiet", "--all", "stalled.yaml",
                   static_cast< char * >( nullptr ) );
         }
         _exit( 127 );
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
      EXPECT_TRUE( WIFEXITED( status ) && WEXITSTATUS( status ) == 1 ) << text;
      text.erase( std::remove( text.begin(), text.end(), '\r' ), text.end() );
      return text;
   }
};

TEST_F( ToldOnATerminal, NoLineIsLongerThanTheTerminalIsWide ) {
   for( auto const columns : std::vector< unsigned short >{ 40, 72, 132 } ) {
      auto const lines = linesOf( shown( columns ) );
      std::size_t longest = 0, continued = 0;
      for( auto const & line : lines ) {
         longest = std::max( longest, line.size() );
         continued += line.starts_with( "   " );
      }
      EXPECT_LE( longest, columns );
      EXPECT_GT( longest + 15, columns );
      EXPECT_GT( continued, 1U );
   }
}

TEST_F( ToldOnATerminal, TheWordsAreTheSame ) {
   auto text = shown( 40 );
   for( auto at = text.find( "\n   " ); at != std::string::npos; at = text.find( "\n   " ) )
      text.replace( at, 4, " " );
   EXPECT_EQ( text, ordovan( "simulate --quiet --all stalled.yaml" ).err );
}

// ------------------------------------------------------------------------------ a whole server

struct ToldOfTheServer : ToldReasons {
   // The example with another way in which swap.target's agent behaves.
   std::string server( std::string const & name, std::string const & complete ) const {
      auto text = Process::contents( ORDOVAN_EXAMPLES "/debian-units.yaml" );
      std::string const before = "swap.target: {swap.target: {timeout: .inf, complete: 0}}";
      auto const at = text.find( before );
      EXPECT_NE( at, std::string::npos );
      text.replace( at, before.size(),
                    "swap.target: {swap.target: {timeout: .inf, complete: " + complete + "}}" );
      return file( name, text );
   }
};

// Nobody but swap.target is at fault, so whoever is finished when its event completes and was not
// before waited for it: the record of another run says how many they are.
TEST_F( ToldOfTheServer, TheFirstLineNamesTheEventAndHowManyStagesReallyWaitForIt ) {
   auto const simulate = [ this ]( std::string const & record, std::string const & plan ) {
      return ordovan( "simulate --quiet --record " + record + ' ' + plan );
   };
   auto const run = simulate( "stalled", server( "never.yaml", "never" ) );
   EXPECT_EQ( run.status, 1 );
   EXPECT_EQ( simulate( "complete", server( "in-time.yaml", "0" ) ).status, 0 );
   auto const waiting = unfinished( "stalled" );
   EXPECT_TRUE( waiting.count( "swap.target" ) );
   EXPECT_TRUE( unfinished( "complete" ).empty() );
   auto const lines = linesOf( run.err );
   ASSERT_EQ( lines.size(), 3U ) << run.err;
   EXPECT_EQ( lines[ 1 ], "critical stage \"swap.target\" is active and waits for event "
                          "\"swap.target:swap.target\" of agent \"swap.target\" (pending since "
                          "0 s); it has no time limit and waits for ever; " +
                             std::to_string( waiting.size() - 1 ) + " more stages wait for this." );
   EXPECT_EQ( lines[ 2 ], rest );
}

TEST_F( ToldOfTheServer, EachUnfinishedStageHasItsSentenceIfAskedFor ) {
   auto const run =
      ordovan( "simulate --quiet --all --record stalled " + server( "never.yaml", "never" ) );
   auto const waiting = unfinished( "stalled" );
   auto const lines = linesOf( run.err );
   EXPECT_EQ( lines.size(), 1 + waiting.size() );
   for( auto const & name : waiting ) {
      auto const begins = [ & ]( std::string const & line ) {
         return line.starts_with( "stage \"" + name + "\" " ) ||
                line.starts_with( "critical stage \"" + name + "\" " );
      };
      EXPECT_EQ( std::count_if( lines.begin(), lines.end(), begins ), 1 ) << name;
   }
}

} // namespace
