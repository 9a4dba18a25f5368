// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include "EngineTestSupport.h"

#include <simulation/RecordWriter.h>

#include <gtest/gtest.h>

namespace {

using namespace Simulation;

std::string recordOf( Plan const & plan ) {
   std::string text;
   RecordWriter writer( [ & ]( std::string_view line ) { text += line; } );
   testing::internal::CaptureStdout();
   run( plan, { &writer } );
   testing::internal::GetCapturedStdout();
   return text;
}

// Every byte is fixed: the same on each word size, in each build, in each run.
TEST( EngineRecord, HasTheSameBytesEverywhere ) {
   auto const plan = planOf(
      { agent( "Platform",
               { critical( withTimeout( 30, event( "Hardware", never(), { "Boot" } ) ) ),
                 event( "Boot", after( 0.1 ) ) } ),
        agent( "Routing", { withTimeout( 0.3, event( "Protocols", never(), { "Hardware" } ) ) } ) },
      { at( 31.5, Set{ "Platform", "Hardware", { CompleteWrite{ true } } } ),
        at( 40, Enable{ false } ) } );
   EXPECT_EQ( recordOf( plan ),
              R"json({"kind": "log", "msg": "Stage progression started", "t": 0}
{"kind": "log", "msg": "stage Boot started", "t": 0}
{"kind": "log", "msg": "  event Boot:Platform started", "t": 0}
{"kind": "log", "msg": "  event Boot:Platform completed", "t": 0.1}
{"kind": "log", "msg": "stage Boot is complete", "t": 0.1}
{"kind": "log", "msg": "stage Hardware started", "t": 0.1}
{"kind": "log", "msg": "  event Hardware:Platform started", "t": 0.1}
{"kind": "log", "msg": "stage Hardware is complete (timeout)", "t": 30.1}
{"id": "ORDOVAN_STAGE_SLOW", "kind": "message", "severity": 4, "t": 30.1, "text": "Router stage Hardware timed out"}
{"kind": "log", "msg": "  event Hardware:Platform completed", "t": 31.5}
{"id": "ORDOVAN_STAGE_COMPLETE_AFTER_TIMEOUT", "kind": "message", "severity": 4, "t": 31.5, "text": "Router resumed after stage Hardware completed after timeout."}
{"kind": "log", "msg": "stage Hardware is complete", "t": 31.5}
{"kind": "log", "msg": "stage Protocols started", "t": 31.5}
{"kind": "log", "msg": "  event Protocols:Routing started", "t": 31.5}
{"kind": "log", "msg": "stage Protocols is complete (timeout)", "t": 31.80000001192093}
{"kind": "log", "msg": "Stage progression is complete", "t": 31.80000001192093}
{"kind": "end", "outcome": "complete", "progress": {"Boot": true, "Hardware": true, "Protocols": true}, "status": {"complete": true, "stage": {"Boot": {"active": true, "complete": true, "completionTime": 0.1, "critical": true, "dependency": [], "event": {"Platform": {"complete": true}}, "pending": [], "timedOut": false, "timeout": "inf"}, "Hardware": {"active": true, "complete": true, "completionTime": 31.5, "critical": true, "dependency": ["Boot"], "event": {"Platform": {"complete": true}}, "pending": [], "timedOut": true, "timeout": 30}, "Protocols": {"active": true, "complete": true, "completionTime": 31.80000001192093, "critical": false, "dependency": ["Hardware"], "event": {"Routing": {"complete": false}}, "pending": ["Protocols:Routing"], "timedOut": true, "timeout": 0.30000001192092896}}}, "t": 40}
)json" );
}

TEST( EngineRecord, IsTheSameForTheSamePlan ) {
   std::vector< Agent > agents;
   for( int i = 0; i < 50; ++i ) {
      auto const name = std::to_string( i );
      agents.push_back( agent( name, { event( "S" + name, after( i % 3 ) ),
                                       event( "T" + name, after( 1 ), { "S" + name } ) } ) );
   }
   auto const plan = planOf( agents );
   auto const first = recordOf( plan );
   EXPECT_EQ( recordOf( plan ), first );
   EXPECT_NE( first.find( R"("outcome": "complete")" ), std::string::npos );
}

TEST( EngineRecord, OfAStageWithoutAStateMachineSaysNothingOfIt ) {
   auto plan =
      planOf( { agent( "A", { withTimeout( 8, event( "Boot", already(), { "Z", "B" } ) ) } ) } );
   plan.enabled = false;
   EXPECT_EQ(
      recordOf( plan ),
      R"({"kind": "end", "outcome": "disabled", "progress": {}, "status": {"complete": false, "stage": {"Boot": {"active": false, "complete": false, "completionTime": 0, "critical": false, "dependency": ["B", "Z"], "event": {"A": {"complete": true}}, "pending": [], "timedOut": false, "timeout": 8}}}, "t": 0})"
      "\n" );
}

} // namespace
