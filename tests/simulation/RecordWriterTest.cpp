// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <simulation/RecordWriter.h>

#include <gtest/gtest.h>

namespace {

using namespace Simulation;

struct Record : testing::Test {
   std::string text;
   RecordWriter writer{ [ this ]( std::string_view line ) { text += line; } };
};

TEST_F( Record, ALogEntryIsOneLine ) {
   writer.onLogEntry( 0, "Stage progression started" );
   EXPECT_EQ( text, R"({"kind": "log", "msg": "Stage progression started", "t": 0})"
                    "\n" );
}

TEST_F( Record, AMessageIsOneLine ) {
   writer.onMessage( { 30, "ORDOVAN_STAGE_SLOW", 4, "Router stage Hardware timed out" } );
   EXPECT_EQ( text, R"({"id": "ORDOVAN_STAGE_SLOW", "kind": "message", "severity": 4, "t": 30, )"
                    R"("text": "Router stage Hardware timed out"})"
                    "\n" );
}

TEST_F( Record, TheEndOfARunWithoutStagesHasEmptyObjects ) {
   Result result;
   result.outcome = Outcome::complete;
   result.complete = true;
   writer.onEnd( result );
   EXPECT_EQ( text, R"({"kind": "end", "outcome": "complete", "progress": {}, )"
                    R"("status": {"complete": true, "stage": {}}, "t": 0})"
                    "\n" );
}

TEST_F( Record, TheEndTellsEverythingOfAStageWithSortedKeys ) {
   Result result;
   result.t = 31.5;
   result.outcome = Outcome::suspended;
   result.progress = { { "Hardware", true }, { "Boot", true } };
   auto & stage = result.stage[ "Hardware" ];
   stage.active = stage.timedOut = stage.critical = true;
   stage.timeout = 30;
   stage.dependency = { "Boot", "Power" };
   stage.event = { { "Platform", false }, { "Fans", true } };
   stage.pending = { { "Hardware:Platform", 0.0 } };
   writer.onEnd( result );
   EXPECT_EQ( text,
              R"({"kind": "end", "outcome": "suspended", )"
              R"("progress": {"Boot": true, "Hardware": true}, "status": {"complete": false, )"
              R"("stage": {"Hardware": {"active": true, "complete": false, "completionTime": 0, )"
              R"("critical": true, "dependency": ["Boot", "Power"], )"
              R"("event": {"Fans": {"complete": true}, "Platform": {"complete": false}}, )"
              R"("pending": ["Hardware:Platform"], "timedOut": true, "timeout": 30}}}, "t": 31.5})"
              "\n" );
}

TEST_F( Record, AnInfiniteTimeoutIsTheStringInf ) {
   Result result;
   result.stage[ "Boot" ].timeout = infinity;
   writer.onEnd( result );
   EXPECT_NE( text.find( R"("timeout": "inf"})" ), std::string::npos );
}

TEST_F( Record, KeysAreSortedByTheirBytes ) {
   Result result;
   result.progress = { { "b", true }, { "a", true }, { "B", true }, { "\u00e4", true } };
   writer.onEnd( result );
   EXPECT_NE( text.find( "{\"B\": true, \"a\": true, \"b\": true, \"\u00e4\": true}" ),
              std::string::npos );
}

TEST_F( Record, NoNameBreaksALine ) {
   writer.onLogEntry( 0.5, "stage a\n\"b\" started" );
   EXPECT_EQ( text, R"({"kind": "log", "msg": "stage a\n\"b\" started", "t": 0.5})"
                    "\n" );
}

} // namespace
