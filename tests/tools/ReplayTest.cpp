// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include "Process.h"

#include <string>

#include <gtest/gtest.h>

#ifdef ORDOVAN_STORE
#include <live/Store.h>
#include <simulation/RecordReader.h>
#endif

namespace {

std::string const example = ORDOVAN_EXAMPLES "/warehouse.jsonl";

std::string replaced( std::string text, std::string const & part, std::string const & by ) {
   auto const at = text.find( part );
   EXPECT_NE( at, std::string::npos ) << part;
   return text.replace( at, part.size(), by );
}

// The lines of a text from the `first` to the `last`, counted from 1.
std::string lines( std::string const & text, std::size_t first, std::size_t last ) {
   std::string result;
   std::size_t number = 1;
   for( std::size_t at = 0; at < text.size(); ++number ) {
      auto const end = text.find( '\n', at ) + 1;
      if( number >= first && number <= last )
         result += text.substr( at, end - at );
      at = end;
   }
   return result;
}

struct Replay : Process::Folder {
   std::string const record = Process::contents( example );

   Process::Finished replay( std::string const & text, std::string const & options = "" ) {
      file( "r.jsonl", text );
      return ordovan( "replay r.jsonl " + options );
   }
};

TEST_F( Replay, OfARecordPrintsItsVeryLines ) {
   auto const run = replay( record );
   EXPECT_EQ( run.status, 0 );
   EXPECT_EQ( run.out, record );
   EXPECT_EQ( run.err, "" );
}

TEST_F( Replay, IsFoundAtStandardInputToo ) {
   EXPECT_EQ( shell( "\"$ordovan\" replay - <" + example ).out, record );
}

TEST_F( Replay, OfInputsAlonePrintsWhatFollowsFromThem ) {
   auto const run =
      shell( "grep -E '\"kind\": \"(begin|input)\"' " + example + " | \"$ordovan\" replay -" );
   EXPECT_EQ( run.status, 0 );
   EXPECT_EQ( run.out, record );
}

TEST_F( Replay, ComparesWhatIsSaidAndNotHowItIsWritten ) {
   auto const other =
      replaced( record, R"({"kind": "log", "msg": "stage Hardware started", "t": 0.51})",
                R"({"t":0.510,"msg":"stage H\u0061rdware started","kind":"log"})" );
   EXPECT_EQ( replay( other, "--quiet" ).status, 0 );
}

TEST_F( Replay, TellsTheFirstLineThatDiffers ) {
   auto const run = replay(
      replaced( record, R"("msg": "stage Boot started")", R"("msg": "stage Root started")" ) );
   EXPECT_EQ( run.status, 1 );
   EXPECT_EQ( run.err,
              "r.jsonl:5: the replay differs from the record\n"
              "recorded: {\"kind\": \"log\", \"msg\": \"stage Root started\", \"t\": 0.51}\n"
              "replayed: {\"kind\": \"log\", \"msg\": \"stage Boot started\", \"t\": 0.51}\n" );
   EXPECT_EQ( run.out, lines( record, 1, 4 ) );
}

TEST_F( Replay, TellsATimeThatDiffers ) {
   auto const run =
      replay( replaced( record, R"x((timeout)", "t": 22.734012)x", R"x((timeout)", "t": 22.5)x" ),
              "--quiet" );
   EXPECT_EQ( run.status, 1 );
   EXPECT_EQ( run.err.find( "r.jsonl:23: the replay differs from the record\n" ), 0U ) << run.err;
   EXPECT_EQ( run.out, "" );
}

TEST_F( Replay, TellsALineThatDoesNotCome ) {
   auto const more = replaced( record, R"({"kind": "end")",
                               R"({"kind": "log", "msg": "more", "t": 25})"
                               "\n"
                               R"({"kind": "end")" );
   auto const run = replay( more, "--quiet" );
   EXPECT_EQ( run.status, 1 );
   EXPECT_EQ( run.err, "r.jsonl:29: the replay differs from the record\n"
                       "recorded: {\"kind\": \"log\", \"msg\": \"more\", \"t\": 25}\n"
                       "replayed: nothing\n" );
}

TEST_F( Replay, TellsALineThatTheRecordLacks ) {
   auto const less = lines( record, 1, 23 ) + lines( record, 25, 29 );
   auto const run = replay( less, "--quiet" );
   EXPECT_EQ( run.status, 1 );
   EXPECT_EQ(
      run.err.find( "r.jsonl:24: the replay differs from the record\nrecorded: {\"agent\"" ), 0U )
      << run.err;
}

TEST_F( Replay, TellsAnEndThatDiffers ) {
   auto const run = replay(
      replaced( record, R"("outcome": "complete")", R"("outcome": "stalled")" ), "--quiet" );
   EXPECT_EQ( run.status, 1 );
   EXPECT_EQ( run.err.find( "r.jsonl:29: " ), 0U ) << run.err;
}

TEST_F( Replay, EndsAtATimeAndTellsHowThingsStandThen ) {
   auto const run = replay( record, "--until 12.6" );
   EXPECT_EQ( run.status, 0 ) << run.err;
   EXPECT_EQ( run.out.find( lines( record, 1, 20 ) + R"({"kind": "end", "outcome": "stalled")" ),
              0U )
      << run.out;
   // What is due until then happens, though nothing is taken in.
   auto const timer = replay( record, "--until 23" );
   EXPECT_EQ( timer.out.find( lines( record, 1, 24 ) + R"({"kind": "end", "outcome": "complete")" ),
              0U )
      << timer.out;
   // A difference after that time is none yet.
   auto const later =
      replaced( record, R"("stage Banner is complete")", R"("stage B is complete")" );
   EXPECT_EQ( replay( later, "--until 12 --quiet" ).status, 0 );
   EXPECT_EQ( replay( later, "--until 12.5 --quiet" ).status, 1 );
   EXPECT_EQ( replay( record, "--until 1000" ).out, record );
}

// A record whose writer died may lack what it was about to write, and so does its last line.
TEST_F( Replay, OfARecordWithoutAnEndGoesToItsLastTime ) {
   for( std::size_t last = 4; last <= 28; ++last ) {
      auto const run = replay( lines( record, 1, last ) );
      EXPECT_EQ( run.status, 0 ) << last << run.err;
      EXPECT_EQ( run.err, "" );
      EXPECT_EQ( run.out.find( lines( record, 1, last ) ), 0U ) << last;
   }
   auto const run = replay( lines( record, 1, 20 ) + R"({"kind": "lo)", "--quiet" );
   EXPECT_EQ( run.status, 0 );
   EXPECT_EQ( run.err, "r.jsonl: its last line was cut short, and is left out\n" );
}

TEST_F( Replay, LeavesOutLinesOfOtherKinds ) {
   auto const more = replaced( record, R"({"kind": "end")",
                               R"({"kind": "other"})"
                               "\n"
                               R"({"kind": "end")" );
   EXPECT_EQ( replay( more ).out, record );
}

TEST_F( Replay, TellsMistakesWithTheirLine ) {
   auto const expectWrong = [ & ]( std::string const & text, std::string const & said ) {
      auto const run = replay( text, "--quiet" );
      EXPECT_EQ( run.status, 2 );
      EXPECT_EQ( run.err, said );
   };
   expectWrong( "", "r.jsonl:0: the record has no line\n" );
   expectWrong( "agents: {}\n", "r.jsonl:1: no JSON at byte 1: expected a value\n" );
   expectWrong( replaced( record, R"("leave": true)", R"("leave": 1)" ),
                "r.jsonl:22: \"leave\" is 1; expected true or false\n" );
   // Read, but it cannot have been.
   expectWrong(
      replaced( record, R"({"agent": "courier", "kind": "input", "leave")",
                R"({"agent": "nobody", "kind": "input", "leave")" ),
      "r.jsonl:22: agent \"nobody\" is not there; only agents that are in the directory can "
      "leave, declare, withdraw or be set\n" );
   file( "p.yaml", "agents: {A: {Boot: {}}}\n" );
   expectWrong(
      shell( "\"$ordovan\" simulate p.yaml --quiet --record -" ).out,
      "r.jsonl:1: the first line is of kind \"log\"; a record that can be played again begins "
      "with one of kind \"begin\"\n" );
   EXPECT_EQ( ordovan( "replay nothing" ).status, 2 );
   EXPECT_EQ( ordovan( "replay" ).status, 2 );
   EXPECT_EQ( ordovan( "replay r.jsonl --until x" ).status, 2 );
}

// What the library says of a suspension goes aside.
TEST_F( Replay, NothingStandsBetweenTheLines ) {
   auto const begin =
      R"({"agents": {"A": {"Boot": {"complete": "never", "critical": true, "timeout": 2}}}, )"
      R"("application": "R", "decideOnDeclarations": false, "enabled": true, "kind": "begin", "t": 0})"
      "\n"
      R"({"enabled": true, "kind": "input", "t": 3})"
      "\n";
   auto const run = replay( begin );
   EXPECT_EQ( run.status, 0 );
   EXPECT_EQ( run.err, " Critical stage Boot timed out! R suspended for debugging." );
   EXPECT_NE( run.out.find( "\n"
                            R"({"id": "ORDOVAN_STAGE_SLOW", "kind": "message")" ),
              std::string::npos );
   EXPECT_EQ( replay( run.out ).out, run.out );
}

#ifdef ORDOVAN_STORE

// The example's inputs, in a store.
struct ReplayOfStore : Replay {
   std::string const path = ( folder / "s" ).string();

   ReplayOfStore() {
      auto const read = Simulation::readRecord( record );
      Live::Store store( path, read.beginning );
      for( auto const & taken : read.instant )
         store.append( taken.instant );
   }
};

TEST_F( ReplayOfStore, PrintsTheRecordOfTheStartUp ) {
   auto const run = ordovan( "replay s" );
   EXPECT_EQ( run.status, 0 );
   EXPECT_EQ( run.out, record );
   EXPECT_EQ( run.err, "" );
   EXPECT_EQ( ordovan( "replay s --until 23" ).out,
              ordovan( "replay " + example + " --until 23" ).out );
   EXPECT_EQ( ordovan( "replay s --quiet" ).out, "" );
}

TEST_F( ReplayOfStore, GoesToTheLastTimerThatWasKept ) {
   {
      Live::Store store( path, {} );
      store.append(
         { 26,
           { { Simulation::Declare{ "platform",
                                    [] {
                                       Simulation::Event event;
                                       event.stage = "Late";
                                       event.timeout = 2;
                                       event.complete = { Simulation::Behaviour::Kind::never, 0 };
                                       return event;
                                    }() },
               std::nullopt } } } );
   }
   auto const late = R"x("msg": "stage Late is complete (timeout)", "t": 28)x";
   EXPECT_EQ( ordovan( "replay s" ).out.find( late ), std::string::npos );
   Live::Store( path, {} ).append( { 28, {} } );
   EXPECT_NE( ordovan( "replay s" ).out.find( late ), std::string::npos );
}

TEST_F( ReplayOfStore, IsRefusedWhileItIsInUseOrWhenItIsDamaged ) {
   {
      Live::Store const store( path, {} );
      auto const run = ordovan( "replay s" );
      EXPECT_EQ( run.status, 2 );
      EXPECT_EQ( run.err, "s: is in use by process " + std::to_string( getpid() ) + "\n" );
   }
   auto bytes = Process::contents( path );
   bytes[ bytes.find( "Protocols" ) ] = 'p';
   file( "s", bytes );
   auto const run = ordovan( "replay s" );
   EXPECT_EQ( run.status, 2 );
   EXPECT_EQ( run.err.find( "s: is damaged: " ), 0U ) << run.err;
}

#endif

} // namespace
