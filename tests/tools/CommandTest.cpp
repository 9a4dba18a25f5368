// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include "Process.h"

#include <regex>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

struct Command : Process::Folder {
   std::string const good =
      file( "good.yaml", "application: Router\n"
                         "agents:\n"
                         "  Platform: {Boot: {complete: 1}}\n"
                         "  Routing: {Net: {dependency: [Boot], complete: 2}}\n" );
   std::string const stalled = file( "stalled.yaml", "agents:\n"
                                                     "  A: {Boot: {complete: never}}\n"
                                                     "  B: {Net: {dependency: [Boot, Gone]}}\n" );
   std::string const suspended =
      file( "suspended.yaml", "application: Router\n"
                              "agents: {A: {Boot: {critical: true, timeout: 5, complete: 8}}}\n" );
   std::string const wrong =
      file( "wrong.yaml", "agents:\n  A: {Boot: {timeout: -1}}\nextra: 1\n" );
};

bool contains( std::string const & text, std::string const & part ) {
   return text.find( part ) != std::string::npos;
}

TEST_F( Command, ShowsAStartUpThatCompletes ) {
   auto const run = ordovan( "simulate good.yaml" );
   EXPECT_EQ( run.status, 0 );
   EXPECT_EQ( run.out, "     0.000 started    Boot\n"
                       "     1.000 complete   Boot  after 1 s\n"
                       "     1.000 started    Net\n"
                       "     3.000 complete   Net  after 2 s\n"
                       "\n"
                       "Router: complete after 3 s\n"
                       "  stages     2 of 2 complete, 2 started, 0 critical\n"
                       "  events     2 of 2 complete\n"
                       "  ended by   Net 2 s <- Boot 1 s\n"
                       "  longest    Net 2 s, Boot 1 s\n"
                       "  timed out  none\n" );
   EXPECT_EQ( run.err, "" );
}

TEST_F( Command, SaysWhatHoldsAStartUpUp ) {
   auto const run = ordovan( "simulate stalled.yaml" );
   EXPECT_EQ( run.status, 1 );
   EXPECT_TRUE( contains( run.out, "application: stalled after 0 s\n" ) );
   EXPECT_EQ( run.err, "stalled.yaml: the start-up did not complete: stalled\n"
                       "stage \"Boot\" is active and waits for event \"Boot:A\" of agent \"A\" "
                       "(pending since 0 s); it has no time limit and waits for ever; 1 more stage "
                       "waits for this.\n"
                       "stage \"Gone\" is declared by no agent, but event \"Net:B\" of agent \"B\" "
                       "depends on it; 1 stage waits for this.\n"
                       "1 other stage waits for these; --all says for what.\n" );
}

TEST_F( Command, EndsAtATimeAndTellsWhatWouldHappen ) {
   file( "p.yaml", "agents: {A: {Boot: {critical: true, timeout: 30, complete: 40}}}\n" );
   auto const run = ordovan( "simulate --quiet --until 12 p.yaml" );
   EXPECT_EQ( run.status, 1 );
   EXPECT_EQ( run.out, "" );
   EXPECT_EQ( run.err, "p.yaml: the start-up is in progress at 12 s\n"
                       "critical stage \"Boot\" is active and waits for event \"Boot:A\" of agent "
                       "\"A\" (pending since 0 s); its time is up at 30 s, in 18 s, and it would "
                       "then be suspended, with the message ORDOVAN_STAGE_SLOW; no other stage "
                       "waits for this.\n" );
   EXPECT_EQ( ordovan( "simulate --quiet --until 40 p.yaml" ).status, 0 );
}

// What a run shows after the lines of what happened.
std::string summaryOf( Process::Finished const & run ) {
   auto const blank = ( '\n' + run.out ).find( "\n\n" );
   return blank == std::string::npos ? "none" : run.out.substr( blank + 1 );
}

TEST_F( Command, ShowsHowThingsStandWhenMoreIsDue ) {
   file( "p.yaml", "application: Router\n"
                   "agents:\n"
                   "  A: {Boot: {complete: 1}, Net: {dependency: [Boot], complete: 5}}\n"
                   "  B: {Net: {complete: 0.25}, Disk: {timeout: 9}, Late: {dependency: [Net]}}\n"
                   "  C: {Disk: {timeout: 9, complete: never}}\n" );
   EXPECT_EQ( summaryOf( ordovan( "simulate --until 2 p.yaml" ) ),
              "Router: in progress at 2 s\n"
              "  stages     1 of 4 complete, 2 active, 1 waiting, 0 critical\n"
              "  events     3 of 6 complete, 2 pending\n"
              "  active     Disk since 0 s, Net since 1 s\n"
              "  longest    Disk:C 2 s (not complete), Boot 1 s, Net:A 1 s (not complete),\n"
              "             Net:B 0.25 s\n"
              "  timed out  none\n" );
   EXPECT_TRUE(
      contains( ordovan( "simulate --until 0 p.yaml" ).out, "Router: in progress at 0 s\n" ) );
   auto const later = ordovan( "simulate --until 9.5 p.yaml" );
   EXPECT_EQ( later.status, 0 );
   EXPECT_TRUE( contains( later.out, "\nRouter: complete after 9 s\n" ) ) << later.out;
}

TEST_F( Command, NamesTheOutcomeOnlyWhenNothingMoreIsDue ) {
   file( "p.yaml", "{agents: {A: {Boot: {timeout: 3, critical: true, complete: 8}}, \n"
                   "          B: {Net: {complete: never}}}, enabled: false,\n"
                   " timeline: [{at: 1, enabled: true}, {at: 10, agent: A, leave: true}]}\n" );
   EXPECT_TRUE( contains( ordovan( "simulate --until 0.5 p.yaml" ).out,
                          "application: not started at 0.5 s\n" ) );
   auto const held = ordovan( "simulate --until 5 p.yaml" );
   EXPECT_TRUE( contains( held.out, "application: in progress at 5 s\n" ) ) << held.out;
   EXPECT_TRUE( contains( held.out, "  active     Boot since 1 s (suspended)\n" ) ) << held.out;
   EXPECT_TRUE( contains( ordovan( "simulate --until 9.5 p.yaml" ).out,
                          "application: in progress at 9.5 s\n" ) );
   auto const last = ordovan( "simulate --until 10 p.yaml" );
   EXPECT_TRUE( contains( last.out, "application: stalled after 10 s\n" ) ) << last.out;
   EXPECT_FALSE( contains( last.out, "  active  " ) );
}

TEST_F( Command, ARunThatIsCompleteIsSoThoughMoreIsDue ) {
   file( "p.yaml", "{agents: {A: {Boot: {complete: 1}}}, timeline: [{at: 5, enabled: false}]}\n" );
   auto const run = ordovan( "simulate --until 2 p.yaml" );
   EXPECT_EQ( run.status, 0 );
   EXPECT_TRUE( contains( run.out, "application: complete after 1 s\n" ) ) << run.out;
}

TEST_F( Command, TheRecordOfAnEndedRunStillHasAnOutcome ) {
   EXPECT_EQ( ordovan( "simulate --quiet --until 2 good.yaml --record record" ).status, 1 );
   auto const record = Process::contents( folder / "record" );
   auto const end = nlohmann::json::parse( record.substr( record.rfind( "\n{" ) + 1 ) );
   EXPECT_EQ( end[ "outcome" ], "stalled" );
   EXPECT_EQ( end[ "t" ], 1 );
}

TEST_F( Command, NamesFiveActiveStagesAndCountsTheOthers ) {
   std::string plan = "agents:\n";
   for( int i = 0; i < 9; ++i ) {
      auto const number = std::to_string( i );
      plan += "  A" + number + ": {S" + number + ": {complete: " + std::to_string( i + 1 ) + "}}\n";
   }
   file( "p.yaml", plan );
   EXPECT_TRUE( contains( ordovan( "simulate --until 2 p.yaml" ).out,
                          "  active     S2 since 0 s, S3 since 0 s, S4 since 0 s, S5 since 0 s,\n"
                          "             S6 since 0 s, 2 more\n" ) );
}

// The line of a summary under a heading, with those that continue it.
std::string entry( Process::Finished const & run, std::string const & heading ) {
   auto const summary = summaryOf( run );
   auto const begin = summary.find( "  " + heading );
   auto end = begin;
   do {
      end = summary.find( '\n', end + 1 );
   } while( end != std::string::npos && summary.compare( end, 5, "\n    " ) == 0 );
   return begin == std::string::npos ? "none" : summary.substr( begin, end - begin );
}

TEST_F( Command, ShowsWhatEndedTheStartUp ) {
   file( "p.yaml",
         "agents:\n"
         "  A: {Boot: {timeout: 3, complete: 7}, Net: {dependency: [Boot], complete: 2}}\n"
         "  B: {Net: {complete: 1}, Ready: {dependency: [Net], complete: true}}\n" );
   auto const run = ordovan( "simulate p.yaml" );
   EXPECT_TRUE( contains( run.out, "\napplication: complete after 5 s\n" ) ) << run.out;
   EXPECT_EQ( entry( run, "ended by" ),
              "  ended by   Ready 0 s <- Net:A 2 s <- Boot timed out after 3 s" );
   EXPECT_EQ( entry( run, "longest" ), "  longest    Boot 7 s, Net:A 2 s, Net:B 1 s" );
}

TEST_F( Command, ShowsWhenTheTimelineBeganWhatEndedTheStartUp ) {
   file( "p.yaml",
         "agents: {A: {Boot: {complete: never}, Net: {dependency: [Boot], complete: 1}}}\n"
         "timeline: [{at: 4, agent: A, stage: Boot, withdraw: true}]\n" );
   EXPECT_EQ( entry( ordovan( "simulate p.yaml" ), "ended by" ),
              "  ended by   Net 1 s <- Boot <- timeline at 4 s" );
   file( "p.yaml", "{agents: {A: {Boot: {complete: 1}}}, enabled: false,\n"
                   " timeline: [{at: 2, enabled: true}]}\n" );
   EXPECT_EQ( entry( ordovan( "simulate p.yaml" ), "ended by" ),
              "  ended by   Boot 1 s <- enabled at 2 s" );
   file( "p.yaml", "{enabled: false, timeline: [{at: 2, enabled: true}]}\n" );
   EXPECT_EQ( entry( ordovan( "simulate p.yaml" ), "ended by" ), "  ended by   enabled at 2 s" );
   file( "p.yaml", "{agents: {}}\n" );
   auto const nothing = ordovan( "simulate p.yaml" );
   EXPECT_EQ( entry( nothing, "ended by" ), "none" );
   EXPECT_EQ( entry( nothing, "longest" ), "  longest    none took any time" );
}

TEST_F( Command, ShowsNoEndOfAStartUpThatDidNotComplete ) {
   EXPECT_EQ( entry( ordovan( "simulate stalled.yaml" ), "ended by" ), "none" );
   EXPECT_EQ( entry( ordovan( "simulate --until 2 good.yaml" ), "ended by" ), "none" );
   EXPECT_NE( entry( ordovan( "simulate --until 3 good.yaml" ), "ended by" ), "none" );
}

TEST_F( Command, ShowsWhatWasLostToCriticalStages ) {
   file( "p.yaml", "agents:\n"
                   "  A: {Disk: {critical: true, complete: 4},\n"
                   "      Swap: {critical: true, dependency: [Disk], complete: 1}}\n"
                   "  B: {Net: {complete: 2}, Web: {dependency: [Net], complete: 0.5}}\n" );
   EXPECT_EQ( entry( ordovan( "simulate p.yaml" ), "ended by" ),
              "  ended by   Web 0.5 s <- Net 2 s <- Swap 1 s <- Disk 4 s\n"
              "             of which 5 s were lost to \"critical stages first\" (Net waited)" );
}

TEST_F( Command, ShowsTheEndsAndTheLongestOfALongWay ) {
   std::string plan = "agents:\n";
   for( int i = 0; i < 12; ++i ) {
      auto const dependency = i ? ", dependency: [S" + std::to_string( i - 1 ) + "]" : "";
      auto const seconds = i == 4 ? "5" : i == 9 || i == 10 ? "3" : "0.25";
      plan += "  A" + std::to_string( i ) + ": {S" + std::to_string( i ) +
              ": {complete: " + seconds + dependency + "}}\n";
   }
   file( "p.yaml", plan );
   EXPECT_EQ( entry( ordovan( "simulate p.yaml" ), "ended by" ),
              "  ended by   S11 0.25 s <- S10 3 s <- ... 5 more, 4 s ... <- S4 5 s <-\n"
              "             ... 3 more, 0.75 s ... <- S0 0.25 s" );
}

TEST_F( Command, BreaksTheLinesOfASummaryWhereATerminalEnds ) {
   auto const run = ordovan( "simulate '" ORDOVAN_EXAMPLES "/debian-units.yaml'" );
   auto const summary = summaryOf( run );
   std::size_t lines = 0;
   for( std::size_t at = 0, end; at < summary.size(); at = end + 1, ++lines ) {
      end = summary.find( '\n', at );
      EXPECT_LE( end - at, 80U ) << summary.substr( at, end - at );
   }
   EXPECT_TRUE( lines > 8 && lines < 16 ) << summary;
}

TEST_F( Command, EndsAtNoTimeBeforeTheStart ) {
   file( "p.yaml", "agents: {}\n" );
   for( auto const * time : { "-1", "nan", "soon", "''", "1s", "' 1'" } ) {
      auto const run = ordovan( std::string( "simulate p.yaml --until " ) + time );
      EXPECT_EQ( run.status, 2 ) << time;
      EXPECT_TRUE( contains( run.err, "--until" ) ) << run.err;
   }
}

TEST_F( Command, ShowsASuspensionWhenItHappensAndOnALineOfItsOwn ) {
   auto const run = ordovan( "simulate suspended.yaml" );
   EXPECT_EQ( run.status, 0 );
   EXPECT_TRUE( contains( run.out,
                          "     5.000 message    Router stage Boot timed out  ORDOVAN_STAGE_SLOW\n"
                          " Critical stage Boot timed out! Router suspended for debugging.\n"
                          "     5.000 suspended  Boot  after 5 s, waits for A\n" ) )
      << run.out;
   EXPECT_TRUE( contains( run.out, "     8.000 resumed    Boot  complete after 8 s\n" ) )
      << run.out;
   EXPECT_TRUE( contains( run.out, "  timed out  Boot at 5 s\n" ) ) << run.out;
}

TEST_F( Command, AStartUpThatStaysSuspendedIsNotComplete ) {
   file( "p.yaml", "agents: {A: {Boot: {critical: true, timeout: 5, complete: never}}}\n" );
   auto const run = ordovan( "simulate p.yaml" );
   EXPECT_EQ( run.status, 1 );
   EXPECT_TRUE( contains( run.err, "critical stage \"Boot\" timed out at 5 s and is suspended" ) );
}

TEST_F( Command, AStartUpThatIsNeverEnabledIsNotComplete ) {
   file( "p.yaml", "{enabled: false}\n" );
   auto const run = ordovan( "simulate p.yaml" );
   EXPECT_EQ( run.status, 1 );
   EXPECT_EQ( run.err, "p.yaml: the start-up did not complete: disabled\n"
                       "progression has not been enabled; no stage waits for this.\n" );
}

TEST_F( Command, QuietShowsNothingButTheLibrarysOwnLine ) {
   EXPECT_EQ( ordovan( "simulate --quiet good.yaml" ).out, "" );
   EXPECT_EQ( ordovan( "simulate --quiet suspended.yaml" ).out,
              " Critical stage Boot timed out! Router suspended for debugging.\n" );
   EXPECT_EQ( ordovan( "simulate --quiet stalled.yaml" ).status, 1 );
   EXPECT_TRUE( contains( ordovan( "simulate --quiet stalled.yaml" ).err, "stage \"Boot\"" ) );
}

TEST_F( Command, ReportsEveryMistakeOfAPlanAndRunsNothing ) {
   auto const run = ordovan( "simulate wrong.yaml --record record" );
   EXPECT_EQ( run.status, 2 );
   EXPECT_EQ( run.out, "" );
   EXPECT_EQ( run.err, "wrong.yaml:2:23: \"timeout\" is -1; it must be a number of seconds, 0 or "
                       "more, or .inf\n"
                       "wrong.yaml:3:1: unknown key \"extra\" in the plan; allowed are agents, "
                       "application, enabled and timeline\n" );
   EXPECT_FALSE( std::filesystem::exists( folder / "record" ) );
}

TEST_F( Command, WritesARecordThatIsJsonLineByLine ) {
   EXPECT_EQ( ordovan( "simulate suspended.yaml --record record" ).status, 0 );
   std::vector< nlohmann::json > lines;
   std::ifstream in( folder / "record" );
   for( std::string line; std::getline( in, line ); )
      lines.push_back( nlohmann::json::parse( line ) );
   ASSERT_EQ( lines.size(), 10U );
   EXPECT_EQ(
      lines[ 0 ],
      ( nlohmann::json{ { "t", 0 }, { "kind", "log" }, { "msg", "Stage progression started" } } ) );
   EXPECT_EQ( lines[ 4 ], ( nlohmann::json{ { "t", 5 },
                                            { "kind", "message" },
                                            { "id", "ORDOVAN_STAGE_SLOW" },
                                            { "severity", 4 },
                                            { "text", "Router stage Boot timed out" } } ) );
   auto const & end = lines.back();
   EXPECT_EQ( end[ "kind" ], "end" );
   EXPECT_EQ( end[ "outcome" ], "complete" );
   EXPECT_EQ( end[ "t" ], 8 );
   EXPECT_EQ( end[ "status" ][ "stage" ][ "Boot" ][ "timedOut" ], true );
}

TEST_F( Command, TheRecordIsTheSameHoweverMuchIsShown ) {
   ordovan( "simulate suspended.yaml --record one" );
   ordovan( "simulate --quiet --record=two suspended.yaml" );
   auto const record = Process::contents( folder / "one" );
   EXPECT_FALSE( record.empty() );
   EXPECT_EQ( record, Process::contents( folder / "two" ) );
}

TEST_F( Command, ARecordReplacesAnOlderOne ) {
   file( "record", std::string( 100000, 'x' ) );
   EXPECT_EQ( ordovan( "simulate good.yaml --record record" ).status, 0 );
   EXPECT_FALSE( contains( Process::contents( folder / "record" ), "xx" ) );
}

TEST_F( Command, ARecordThatCannotBeWrittenIsReported ) {
   auto const full = ordovan( "simulate good.yaml --record /dev/full" );
   EXPECT_EQ( full.status, 2 );
   EXPECT_EQ( full.err, "ordovan: /dev/full: cannot be written: No space left on device\n" );

   auto const nowhere = ordovan( "simulate good.yaml --record no/such/folder" );
   EXPECT_EQ( nowhere.status, 2 );
   EXPECT_EQ( nowhere.out, "" );
   EXPECT_EQ( nowhere.err,
              "ordovan: no/such/folder: cannot be written: No such file or directory\n" );
}

TEST_F( Command, ARecordThatDoesNotFitIsReportedThoughTheRunIsLong ) {
   std::string plan = "agents:\n";
   for( int i = 0; i < 200; ++i )
      plan += "  A" + std::to_string( i ) + ": {Boot: {}}\n";
   file( "p.yaml", plan );
   auto const run = ordovan( "simulate p.yaml --record /dev/full" );
   EXPECT_EQ( run.status, 2 );
   EXPECT_TRUE( contains( run.err, "No space left on device" ) );
}

TEST_F( Command, ThePlanIsNotOverwrittenByItsRecord ) {
   auto const before = Process::contents( folder / good );
   auto const run = ordovan( "simulate good.yaml --record ./good.yaml" );
   EXPECT_EQ( run.status, 2 );
   EXPECT_EQ( run.err,
              "ordovan: ./good.yaml: is the plan itself; the record must be another file\n" );
   EXPECT_EQ( Process::contents( folder / good ), before );
}

TEST_F( Command, AFileThatCannotBeReadIsReported ) {
   auto const missing = ordovan( "simulate missing.yaml" );
   EXPECT_EQ( missing.status, 2 );
   EXPECT_EQ( missing.err, "ordovan: missing.yaml: cannot be read: No such file or directory\n" );
   auto const directory = ordovan( "simulate ." );
   EXPECT_EQ( directory.status, 2 );
   EXPECT_EQ( directory.err, "ordovan: .: cannot be read: Is a directory\n" );
   EXPECT_EQ( ordovan( "simulate /dev/zero" ).status, 2 );
   EXPECT_EQ( ordovan( "simulate ''" ).status, 2 );
}

TEST_F( Command, StandardOutputThatCannotBeWrittenIsReported ) {
   auto const run = shell( "\"$ordovan\" simulate good.yaml >/dev/full" );
   EXPECT_EQ( run.status, 2 );
   EXPECT_TRUE( contains( run.err, "standard output cannot be written: No space left on device" ) )
      << run.err;
   EXPECT_EQ( shell( "\"$ordovan\" --help >/dev/full" ).status, 2 );
}

TEST_F( Command, AWrongCommandLineHasStatusTwoAndSaysWhy ) {
   for( auto arguments : { "", "simulat good.yaml", "simulate", "simulate good.yaml stalled.yaml",
                           "simulate --unknown good.yaml", "simulate good.yaml --record",
                           "simulate --quiet=perhaps good.yaml", "--unknown" } ) {
      auto const run = ordovan( arguments );
      EXPECT_EQ( run.status, 2 ) << arguments;
      EXPECT_EQ( run.out, "" ) << arguments;
      EXPECT_NE( run.err, "" ) << arguments;
   }
}

TEST_F( Command, HelpAndVersionAreForTheCommandAndItsSubcommand ) {
   for( auto arguments : { "--help", "simulate --help" } ) {
      auto const run = ordovan( arguments );
      EXPECT_EQ( run.status, 0 ) << arguments;
      EXPECT_EQ( run.err, "" ) << arguments;
   }
   EXPECT_TRUE( contains( ordovan( "--help" ).out, "simulate" ) );
   for( auto option : { "PLAN", "--record FILE", "--quiet", "--no-color", "--version" } )
      EXPECT_TRUE( contains( ordovan( "simulate --help" ).out, option ) ) << option;
   auto const version = ordovan( "--version" );
   EXPECT_EQ( version.status, 0 );
   EXPECT_EQ( version.out.compare( 0, 8, "ordovan " ), 0 );
   EXPECT_EQ( version.out.find( '\n' ), version.out.size() - 1 );
   EXPECT_EQ( ordovan( "simulate --version" ).out, version.out );
}

TEST_F( Command, OutputThatIsNoTerminalHasNoColours ) {
   for( auto line : { "\"$ordovan\" simulate suspended.yaml",
                      "TERM=xterm-256color \"$ordovan\" simulate suspended.yaml" } )
      EXPECT_FALSE( contains( shell( line ).out, "\x1b" ) ) << line;
}

TEST_F( Command, NamesCannotSteerATerminal ) {
   file( "p.yaml",
         "application: \"\\e[31m\"\nagents: {\"\\e[2J\": {\"\\e[1m\": {complete: never}}}\n" );
   auto const run = ordovan( "simulate p.yaml" );
   EXPECT_EQ( run.status, 1 );
   EXPECT_FALSE( contains( run.out + run.err, "\x1b" ) ) << run.out << run.err;
   file( "p.yaml", "agents: {\"\\e[2J\": {\"\\e[1m\": {complete: 1}}, B: {\"\\e[1m\": {}, C: "
                   "{critical: true, complete: 2}, D: {critical: true, dependency: [C]}}}\n" );
   auto const complete = ordovan( "simulate p.yaml" );
   EXPECT_EQ( complete.status, 0 );
   EXPECT_FALSE( contains( complete.out, "\x1b" ) ) << complete.out;
   EXPECT_TRUE( contains( complete.out, "ended by   \\x1b[1m:\\x1b[2J 1 s <- " ) ) << complete.out;
   EXPECT_TRUE( contains( complete.out, "(\\x1b[1m waited)" ) ) << complete.out;
}

TEST_F( Command, DeeplyNestedOrRecursiveFilesAreRefused ) {
   file( "deep.yaml", std::string( 200000, '[' ) );
   file( "loop.yaml", "&a {agents: *a}\n" );
   EXPECT_EQ( ordovan( "simulate deep.yaml" ).status, 2 );
   EXPECT_EQ( ordovan( "simulate loop.yaml" ).status, 2 );
}

// ------------------------------------------------------------------------------------------ traces

// Line numbers change with every edit of the sources.
std::string withoutLineNumbers( std::string const & text ) {
   return std::regex_replace( text, std::regex( " Ordovan:[0-9]+ " ), " Ordovan " );
}

TEST_F( Command, WritesTheTracesOfTheLevelsAskedForToStandardError ) {
   auto const run = ordovan( "simulate --quiet --trace 7,0 good.yaml" );
   EXPECT_EQ( run.status, 0 );
   EXPECT_EQ( run.out, "" );
   EXPECT_EQ( withoutLineNumbers( run.err ),
              "0.000000 Ordovan/7 Ordovan handleNextStage: Activating stage Boot\n"
              "1.000000 Ordovan/7 Ordovan handleNextStage: Activating stage Net\n" );
}

TEST_F( Command, RefusesLevelsThatAreNone ) {
   for( std::string const levels : { "''", "x", "10", "9-7", "'7;Kiv:0'", "'7 8'" } ) {
      auto const run = ordovan( "simulate good.yaml --trace " + levels );
      EXPECT_EQ( run.status, 2 ) << levels;
      EXPECT_EQ( run.out, "" ) << levels;
      EXPECT_TRUE( contains( run.err, "--trace: levels \"" ) ) << run.err;
      EXPECT_TRUE( contains( run.err, ": expected " ) ) << run.err;
   }
}

TEST_F( Command, RecordsAllTracesIntoARing ) {
   auto const run = ordovan( "simulate --quiet --trace 0-9 --ring ring --ring-size 1M good.yaml" );
   EXPECT_EQ( run.status, 0 );
   EXPECT_EQ( shell( "\"${ordovan%/*}/flitlog\" ring" ).out, run.err );
   EXPECT_GT( run.err.size(), 1000U );
}

TEST_F( Command, RecordsOnlyTheLevelsThatItIsTold ) {
   auto const run =
      ordovan( "simulate --quiet --trace 0-8 --ring ring --ring-levels 0-8 good.yaml" );
   EXPECT_EQ( run.status, 0 );
   auto const read = shell( "\"${ordovan%/*}/flitlog\" ring" );
   EXPECT_EQ( read.out, run.err );
   EXPECT_GT( read.out.size(), 1000U );
   EXPECT_EQ( read.err, "ring: the ring was opened for levels 0-8 alone\n" );
   ordovan( "simulate --quiet --ring every good.yaml" );
   EXPECT_NE( shell( "\"${ordovan%/*}/flitlog\" every --level 9" ).out, "" ) << "9 is traced";
}

TEST_F( Command, TheRingIsNotOverwrittenByTheRecord ) {
   auto const run = ordovan( "simulate good.yaml --ring both --record ./both" );
   EXPECT_EQ( run.status, 2 );
   EXPECT_EQ( run.err, "ordovan: ./both: is the ring as well; the record must be another file\n" );
   EXPECT_FALSE( std::filesystem::exists( folder / "both" ) );
}

// Loading the library is not tracing: what a process has left must not be pushed aside by whoever
// has a look at it.
TEST_F( Command, ThatTracesNothingLeavesTheRingOfTheEnvironmentAlone ) {
   EXPECT_EQ( shell( "KIV_TRACE_RING=ring \"$ordovan\" simulate --quiet good.yaml" ).status, 0 );
   auto const before = Process::contents( folder / "ring" );
   auto const first = shell( "\"${ordovan%/*}/flitlog\" ring" );
   EXPECT_GT( first.out.size(), 1000U );
   auto const again = shell( "export KIV_TRACE_RING=ring; \"${ordovan%/*}/flitlog\" ring; "
                             "\"$ordovan\" --version >&2; \"$ordovan\" simulate none.yaml" );
   EXPECT_EQ( again.out, first.out );
   EXPECT_TRUE( Process::contents( folder / "ring" ) == before );
   EXPECT_FALSE( std::filesystem::exists( folder / "ring.old" ) );
}

TEST_F( Command, RefusesARingThatCannotBeMade ) {
   for( auto const & [ arguments, expected ] : std::vector< std::pair< std::string, std::string > >{
           { "--ring none/ring", "none/ring" },
           { "--ring good.yaml", "good.yaml" },
           { "--ring ''", "--ring: the name of the file is empty" },
           { "--ring ring --ring-size 3", "ring" },
           { "--ring ring --ring-size 8X",
             "size \"8X\": expected a number of bytes above 0, which may end in K, M or G" },
           { "--ring ring --ring-levels 0-10",
             "--ring-levels: levels \"0-10\", character 4: expected \",\" or the end" },
           { "--ring ring --ring-levels ''",
             "--ring-levels: levels \"\", character 1: expected a level, 0 to 9" },
           { "--ring-levels 0-8", "--ring-levels requires --ring" },
           { "--ring-size 8M", "--ring-size requires --ring" } } ) {
      auto const run = ordovan( "simulate good.yaml " + arguments );
      EXPECT_EQ( run.status, 2 ) << arguments;
      EXPECT_TRUE( contains( run.err, expected ) ) << arguments << "\n" << run.err;
   }
   EXPECT_EQ( ordovan( "simulate --quiet good.yaml" ).status, 0 ) << "the plan is as it was";
}

} // namespace
