// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The hub as those see it who speak with it.
#include <live/Hub.h>

#include <live/Protocol.h>

#include "LiveTestSupport.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

using namespace LiveTest;
namespace Protocol = Live::Protocol;

namespace {

class Hubs : public testing::Test {
 protected:
   Hubs() {
      options.application = "test";
      options.startup = "first";
      options.time = [ this ] { return now; };
      options.peer = [ this ]( int ) { return Live::Varlink::Peer{ 4711, user, 0 }; };
   }
   ~Hubs() override {
      hub.reset();
      LiveTest::turn();
   }

   void begin() {
      hub.reset();
      std::filesystem::remove( path );
      hub = std::make_unique< Live::Hub >( Live::Varlink::listeningSocket( path ), options );
   }
   void turn() {
      LiveTest::turn();
      hub->turn();
      LiveTest::turn();
   }
   RawPeer connected( uid_t as = ::geteuid() ) {
      user = as;
      RawPeer peer( path );
      turn();
      return peer;
   }
   static Json message( std::string const & method, Json const & parameters,
                        char const * flag = nullptr ) {
      Json message{ { "method", "io.ordovan.Stages." + method }, { "parameters", parameters } };
      if( flag )
         message[ flag ] = true;
      return message;
   }
   // The parameters of the answer; of an error with its name as "error", without the interface.
   static Json heard( RawPeer & peer ) {
      auto const message = peer.hear();
      if( !message )
         return nullptr;
      Json parameters = ( *message )[ "parameters" ];
      if( message->contains( "error" ) ) {
         std::string const name = ( *message )[ "error" ];
         parameters[ "error" ] = name.substr( name.rfind( '.' ) + 1 );
      }
      return parameters;
   }
   Json ask( RawPeer & peer, std::string const & method, Json const & parameters = nullptr ) {
      EXPECT_TRUE( peer.say( message( method, parameters ) ) );
      turn();
      return heard( peer );
   }
   Json askMore( RawPeer & peer, std::string const & method, Json const & parameters = nullptr ) {
      EXPECT_TRUE( peer.say( message( method, parameters, "more" ) ) );
      turn();
      return heard( peer );
   }
   Protocol::StatusReply status() {
      RawPeer peer = connected();
      return Protocol::decoded< Protocol::StatusReply >( ask( peer, "Status" ) );
   }
   Protocol::Stage stage( std::string const & name ) {
      for( auto const & one : status().stage )
         if( one.name == name )
            return one;
      ADD_FAILURE() << "no stage " << name;
      return {};
   }
   static Json event( std::string const & stage,
                      std::vector< std::string > const & dependency = {} ) {
      return { { "stage", stage }, { "dependency", dependency } };
   }
   static Json join( std::string const & agent, std::vector< Json > const & events ) {
      return { { "agent", agent }, { "event", events } };
   }
   static Json const nothing;

   Folder folder;
   std::string path = folder / "socket";
   Live::HubOptions options;
   double now = 0;
   uid_t user = 0;
   std::unique_ptr< Live::Hub > hub;
};

Json const Hubs::nothing = Json::object();

Json failed( std::string const & error ) { return { { "error", error } }; }

// Somebody who is neither root nor the hub's user.
uid_t somebody() { return ::geteuid() + 1000; }

} // namespace

TEST_F( Hubs, AgentsDeclareAndReportAndStagesFollow ) {
   options.expect = { "Platform", "Routing" };
   begin();
   RawPeer platform = connected();
   RawPeer routing = connected();
   EXPECT_EQ( ask( platform, "Join", join( "Platform", { event( "Hardware" ) } ) ),
              ( Json{ { "startup", "first" }, { "sequence", 1 } } ) );
   EXPECT_FALSE( stage( "Hardware" ).active ) << "one who is expected is not there";
   EXPECT_FALSE( status().enabled );
   EXPECT_EQ( ask( routing, "Join",
                   join( "Routing", { event( "Protocols", { "Hardware" } ) } ) )[ "startup" ],
              "first" );
   EXPECT_TRUE( status().enabled );
   EXPECT_TRUE( stage( "Hardware" ).active );
   EXPECT_FALSE( stage( "Protocols" ).active );
   EXPECT_EQ( stage( "Protocols" ).dependency, std::vector< std::string >{ "Hardware" } );
   EXPECT_EQ( ask( platform, "Report", { { "stage", "Hardware" } } ), nothing );
   EXPECT_TRUE( stage( "Hardware" ).complete );
   EXPECT_TRUE( stage( "Protocols" ).active );
   EXPECT_FALSE( status().complete );
   EXPECT_EQ( ask( routing, "Report", { { "stage", "Protocols" }, { "complete", true } } ),
              nothing );
   auto const end = status();
   EXPECT_TRUE( end.complete );
   EXPECT_EQ( end.application, "test" );
   ASSERT_EQ( end.agent.size(), 2U );
   EXPECT_EQ( end.agent[ 0 ], ( Protocol::Agent{ "Platform",
                                                 true,
                                                 true,
                                                 Protocol::Lost::keep,
                                                 { { "Hardware", {}, false, {}, true } } } ) );
}

TEST_F( Hubs, WithoutAnythingExpectedStartUpBeginsWithTheFirstDeclaration ) {
   begin();
   RawPeer peer = connected();
   EXPECT_EQ( ask( peer, "Join", join( "A", {} ) )[ "startup" ], "first" );
   EXPECT_FALSE( status().enabled );
   EXPECT_FALSE( status().complete );
   EXPECT_EQ( ask( peer, "Declare", { { "event", { event( "S" ) } } } ), nothing );
   EXPECT_TRUE( status().enabled );
   EXPECT_TRUE( stage( "S" ).active );
   // Declared later: it is decided on at once.
   EXPECT_EQ( ask( peer, "Declare", { { "event", { event( "T" ) } } } ), nothing );
   EXPECT_TRUE( stage( "T" ).active );
}

TEST_F( Hubs, OneConnectionSpeaksForOneAgentAndOneAgentHasOneConnection ) {
   begin();
   RawPeer one = connected();
   RawPeer two = connected();
   EXPECT_TRUE( ask( one, "Join", join( "A", { event( "S" ) } ) ).contains( "startup" ) );
   EXPECT_EQ( ask( one, "Join", join( "B", {} ) ), failed( "AlreadyJoined" ) );
   EXPECT_EQ( ask( two, "Join", join( "A", { event( "T" ) } ) ),
              ( Json{ { "error", "Connected" }, { "pid", 4711 } } ) );
   EXPECT_EQ( status().stage.size(), 1U );
   EXPECT_TRUE( ask( two, "Join", { { "agent", "A" }, { "take", true } } ).contains( "startup" ) );
   EXPECT_TRUE( one.closedByOther() );
   turn();
   EXPECT_TRUE( status().agent.at( 0 ).connected );
   EXPECT_TRUE( stage( "S" ).event.at( 0 ).connected );
   EXPECT_EQ( ask( two, "Report", { { "stage", "S" } } ), nothing );
}

TEST_F( Hubs, WhatALostAgentDeclaredIsKeptOrWithdrawnAsItSaid ) {
   begin();
   RawPeer keeps = connected();
   RawPeer withdraws = connected();
   ask( keeps, "Join", join( "A", { event( "S" ) } ) );
   Json joined = join( "B", { event( "S" ) } );
   joined[ "lost" ] = "withdraw";
   ask( withdraws, "Join", joined );
   EXPECT_EQ( ask( keeps, "Report", { { "stage", "S" } } ), nothing );
   EXPECT_FALSE( stage( "S" ).complete );
   keeps.close();
   turn();
   auto const lost = status().agent.at( 0 );
   EXPECT_EQ( lost,
              ( Protocol::Agent{
                 "A", false, true, Protocol::Lost::keep, { { "S", {}, false, {}, true } } } ) );
   EXPECT_EQ( stage( "S" ).event.size(), 2U );
   withdraws.close();
   turn();
   EXPECT_EQ( status().agent.size(), 1U );
   ASSERT_EQ( stage( "S" ).event.size(), 1U );
   EXPECT_EQ( stage( "S" ).event[ 0 ], ( Protocol::StageEvent{ "A", true, false, {} } ) );
   EXPECT_TRUE( stage( "S" ).complete ) << "nothing else is pending any more";

   RawPeer again = connected();
   EXPECT_TRUE( ask( again, "Join", join( "A", { event( "S" ) } ) ).contains( "startup" ) );
   EXPECT_TRUE( status().agent.at( 0 ).event.at( 0 ).complete.value() ) << "nothing was taken back";
}

TEST_F( Hubs, AJoinWithEventsTakesTheDifferencesAndOneWithoutLeavesThemAsTheyAre ) {
   begin();
   {
      RawPeer peer = connected();
      ask( peer, "Join", join( "A", { event( "S" ), event( "T", { "S" } ) } ) );
   }
   turn();
   auto const before = status();
   {
      RawPeer peer = connected();
      EXPECT_EQ( ask( peer, "Join", { { "agent", "A" } } )[ "sequence" ], before.sequence );
   }
   turn();
   EXPECT_EQ( status().agent, before.agent );
   {
      RawPeer peer = connected();
      EXPECT_EQ(
         ask( peer, "Join", join( "A", { event( "S" ), event( "T", { "S" } ) } ) )[ "sequence" ],
         before.sequence )
         << "the same is no change";
   }
   turn();
   RawPeer peer = connected();
   Json changed = event( "T", { "U" } );
   changed[ "timeout" ] = 5;
   changed[ "critical" ] = true;
   ask( peer, "Join", join( "A", { changed, event( "V" ) } ) );
   EXPECT_EQ( status().agent.at( 0 ).event,
              ( std::vector< Protocol::Event >{ { "T", 5.0, true, { "U" }, false },
                                                { "V", {}, false, {}, false } } ) );
}

TEST_F( Hubs, DeclaringChangesWhatIsSaidAndWithdrawsWhatIsNamed ) {
   begin();
   RawPeer peer = connected();
   ask( peer, "Join", join( "A", { event( "S" ), event( "T" ), event( "U" ) } ) );
   Json changed = event( "T", { "S" } );
   changed[ "complete" ] = true;
   EXPECT_EQ(
      ask( peer, "Declare", { { "event", { changed } }, { "withdraw", { "U", "Nothing" } } } ),
      nothing );
   EXPECT_EQ( status().agent.at( 0 ).event,
              ( std::vector< Protocol::Event >{ { "S", {}, false, {}, false },
                                                { "T", {}, false, { "S" }, true } } ) );
}

TEST_F( Hubs, OneShotCommandsDeclareAndReportWithoutJoining ) {
   begin();
   RawPeer peer = connected();
   EXPECT_EQ( ask( peer, "Declare", { { "event", { event( "S" ) } } } ), failed( "NotJoined" ) );
   EXPECT_EQ( ask( peer, "Report", { { "stage", "S" } } ), failed( "NotJoined" ) );
   EXPECT_EQ( ask( peer, "Leave" ), failed( "NotJoined" ) );
   EXPECT_EQ( ask( peer, "Report", { { "agent", "A" }, { "stage", "S" } } ),
              failed( "NoSuchAgent" ) );
   EXPECT_EQ( ask( peer, "Leave", { { "agent", "A" } } ), failed( "NoSuchAgent" ) );
   EXPECT_EQ( ask( peer, "Declare", { { "agent", "A" }, { "event", { event( "S" ) } } } ),
              nothing );
   EXPECT_EQ( ask( peer, "Report", { { "agent", "A" }, { "stage", "T" } } ),
              failed( "NoSuchStage" ) );
   peer.close();
   turn();
   auto const agent = status().agent.at( 0 );
   EXPECT_FALSE( agent.joined );
   EXPECT_FALSE( agent.connected );
   RawPeer other = connected();
   EXPECT_EQ( ask( other, "Report", { { "agent", "A" }, { "stage", "S" } } ), nothing );
   EXPECT_TRUE( stage( "S" ).complete );
   EXPECT_EQ( ask( other, "Leave", { { "agent", "A" } } ), nothing );
   EXPECT_TRUE( status().agent.empty() );
}

TEST_F( Hubs, WhoLeavesIsNoLongerJoinedAndMayJoinAgain ) {
   begin();
   RawPeer peer = connected();
   ask( peer, "Join", join( "A", { event( "S" ) } ) );
   EXPECT_EQ( ask( peer, "Leave" ), nothing );
   EXPECT_TRUE( status().agent.empty() );
   EXPECT_EQ( ask( peer, "Report", { { "stage", "S" } } ), failed( "NotJoined" ) );
   EXPECT_TRUE( ask( peer, "Join", join( "A", { event( "S" ) } ) ).contains( "startup" ) );
   peer.close();
   turn();
   EXPECT_FALSE( status().agent.at( 0 ).connected );
}

TEST_F( Hubs, WhatOneTurnBringsIsOneInstantButASecondCallAboutAnAgentBeginsTheNext ) {
   begin();
   std::vector< RawPeer > peers;
   for( int n = 0; n != 3; ++n )
      peers.push_back( connected() );
   for( std::size_t n = 0; n != 3; ++n ) {
      std::string const name( 1, static_cast< char >( 'A' + n ) );
      EXPECT_TRUE( peers[ n ].say( message( "Join", join( name, { event( name ) } ) ) ) );
   }
   turn();
   for( auto & peer : peers )
      EXPECT_EQ( heard( peer )[ "sequence" ], 1 ) << "one instant for all";
   EXPECT_TRUE( peers[ 0 ].say( message( "Report", { { "stage", "A" } }, "oneway" ) ) );
   EXPECT_TRUE( peers[ 0 ].say(
      message( "Report", { { "stage", "A" }, { "complete", false } }, "oneway" ) ) );
   EXPECT_TRUE( peers[ 0 ].say( message( "Report", { { "stage", "A" } } ) ) );
   turn();
   EXPECT_EQ( heard( peers[ 0 ] ), nothing );
   EXPECT_EQ( status().sequence, 4 );
}

TEST_F( Hubs, UsersSpeakForAgentsThatAreTheirs ) {
   options.allow = {
      { "mine", somebody() }, { "our-*", somebody() }, { "theirs", somebody() + 1 } };
   begin();
   auto const may = [ & ]( std::string const & agent, uid_t as ) {
      RawPeer peer = connected( as );
      Json const said = ask( peer, "Declare", { { "agent", agent }, { "event", Json::array() } } );
      EXPECT_TRUE( said == nothing || said == failed( "NotYours" ) ) << said;
      return said == nothing;
   };
   EXPECT_TRUE( may( "mine", somebody() ) );
   EXPECT_TRUE( may( "our-one", somebody() ) );
   EXPECT_FALSE( may( "theirs", somebody() ) );
   EXPECT_FALSE( may( "another", somebody() ) );
   EXPECT_FALSE( may( "mine", somebody() + 1 ) );
   EXPECT_TRUE( may( "another", 0 ) );
   EXPECT_TRUE( may( "mine", ::geteuid() ) );
   RawPeer peer = connected( somebody() );
   EXPECT_EQ( ask( peer, "Join", join( "another", {} ) ), failed( "NotYours" ) );
   EXPECT_EQ( ask( peer, "Report", { { "agent", "another" }, { "stage", "S" } } ),
              failed( "NotYours" ) );
   EXPECT_EQ( ask( peer, "Leave", { { "agent", "another" } } ), failed( "NotYours" ) );
   EXPECT_EQ( ask( peer, "Enable", { { "enabled", true } } ), failed( "PermissionDenied" ) );
   EXPECT_FALSE( status().enabled );
   EXPECT_TRUE( ask( peer, "Status" ).contains( "agent" ) ) << "who may connect may read";
}

TEST_F( Hubs, WhereItIsOpenAnAgentIsHisWhoSpokeForItFirst ) {
   options.open = true;
   begin();
   auto const says = [ & ]( uid_t as ) {
      RawPeer peer = connected( as );
      return ask( peer, "Declare", { { "agent", "A" }, { "event", Json::array() } } );
   };
   EXPECT_EQ( says( somebody() ), nothing );
   EXPECT_EQ( says( somebody() + 1 ), failed( "NotYours" ) );
   EXPECT_EQ( says( somebody() ), nothing );
   EXPECT_EQ( says( 0 ), nothing );
   EXPECT_EQ( says( somebody() ), nothing );
   RawPeer root = connected( 0 );
   EXPECT_EQ( ask( root, "Leave", { { "agent", "A" } } ), nothing );
   EXPECT_EQ( says( somebody() + 1 ), nothing );
}

TEST_F( Hubs, EnableBeginsAndHolds ) {
   options.expect = { "Nobody" };
   begin();
   RawPeer peer = connected();
   ask( peer, "Join", join( "A", { event( "S" ), event( "T", { "S" } ) } ) );
   EXPECT_FALSE( stage( "S" ).active );
   EXPECT_EQ( ask( peer, "Enable", { { "enabled", true } } ), nothing );
   EXPECT_TRUE( stage( "S" ).active );
   EXPECT_EQ( ask( peer, "Enable", { { "enabled", false } } ), nothing );
   EXPECT_FALSE( status().enabled );
   EXPECT_TRUE( stage( "S" ).active ) << "what has begun goes on";
}

TEST_F( Hubs, StagesTimeOutAtTheirTimeHoweverLateTheTurnAndAReportAtThatTimeBeatsIt ) {
   begin();
   RawPeer peer = connected();
   Json const timed[ 2 ] = { { { "stage", "S" }, { "timeout", 2 } },
                             { { "stage", "T" }, { "timeout", 3 } } };
   now = 1;
   ask( peer, "Join", join( "A", { timed[ 0 ], timed[ 1 ] } ) );
   EXPECT_EQ( hub->nextTime(), 3 );
   now = 2.5;
   turn();
   EXPECT_FALSE( stage( "S" ).timedOut );
   now = 4; // T's time, too
   EXPECT_EQ( ask( peer, "Report", { { "stage", "T" } } ), nothing );
   EXPECT_TRUE( stage( "S" ).timedOut );
   EXPECT_TRUE( stage( "S" ).complete );
   EXPECT_FALSE( stage( "T" ).timedOut );
   EXPECT_TRUE( stage( "T" ).complete );
   Json const log = ask( peer, "Log" );
   bool found = false;
   for( auto const & entry : log[ "entry" ] )
      if( entry[ "message" ] == "stage S is complete (timeout)" ) {
         found = true;
         EXPECT_EQ( entry[ "time" ], 3.0 );
      }
   EXPECT_TRUE( found ) << log;
}

TEST_F( Hubs, ACriticalStageThatIsLateIsSuspended ) {
   begin();
   RawPeer peer = connected();
   ask( peer, "Join",
        join( "A", { { { "stage", "S" }, { "timeout", 2 }, { "critical", true } } } ) );
   testing::internal::CaptureStdout(); // the library says so there
   now = 2.5;
   turn();
   testing::internal::GetCapturedStdout();
   auto const late = stage( "S" );
   EXPECT_TRUE( late.suspended && late.timedOut && late.critical );
   EXPECT_FALSE( late.complete );
   EXPECT_EQ( late.timeout, 2.0 );
   EXPECT_EQ( ask( peer, "Report", { { "stage", "S" } } ), nothing );
   EXPECT_TRUE( stage( "S" ).complete );
   EXPECT_FALSE( stage( "S" ).suspended );
}

TEST_F( Hubs, NotesAreShownBesideTheEventUntilItGoes ) {
   begin();
   RawPeer peer = connected();
   ask( peer, "Join", join( "A", { event( "S" ) } ) );
   auto const before = status().sequence;
   EXPECT_EQ( ask( peer, "Report", { { "stage", "S" }, { "note", "half\x1b[2J" } } ), nothing );
   EXPECT_EQ( stage( "S" ).event.at( 0 ).note, "half\x1b[2J" );
   EXPECT_FALSE( stage( "S" ).event.at( 0 ).complete );
   EXPECT_EQ( status().sequence, before );
   EXPECT_EQ( ask( peer, "Report", { { "stage", "S" }, { "note", "done" }, { "complete", true } } ),
              nothing );
   EXPECT_TRUE( stage( "S" ).complete );
   EXPECT_EQ( ask( peer, "Declare", { { "event", Json::array() }, { "withdraw", { "S" } } } ),
              nothing );
   EXPECT_EQ( ask( peer, "Declare", { { "event", { event( "S" ) } } } ), nothing );
   EXPECT_EQ( stage( "S" ).event.at( 0 ).note, std::nullopt );
}

TEST_F( Hubs, WatchingBeginsWithASnapshotAndGoesOnWithWhatChanges ) {
   begin();
   RawPeer peer = connected();
   ask( peer, "Join", join( "A", { event( "S" ), event( "T", { "S" } ) } ) );
   RawPeer full = connected();
   RawPeer some = connected();
   auto const names = []( Json const & answer ) {
      std::vector< std::string > all;
      for( auto const & stage : answer.at( "stage" ) )
         all.push_back( stage[ "name" ] );
      return all;
   };
   using Names = std::vector< std::string >;
   EXPECT_EQ( ask( full, "Watch" ), failed( "ExpectedMore" ) );
   Json first = askMore( full, "Watch", { { "all", true } } );
   EXPECT_EQ( names( first ), ( Names{ "S", "T" } ) );
   EXPECT_EQ( first[ "snapshot" ], true );
   EXPECT_EQ( first[ "startup" ], "first" );
   EXPECT_EQ( first[ "stage" ][ 0 ][ "event" ].size(), 1U );
   first = askMore( some, "Watch" );
   EXPECT_EQ( names( first ), Names{ "S" } );
   EXPECT_EQ( first[ "stage" ][ 0 ][ "event" ].size(), 0U );

   EXPECT_EQ( ask( peer, "Report", { { "stage", "S" } } ), nothing );
   Json const next = heard( full );
   EXPECT_EQ( names( next ), ( Names{ "S", "T" } ) );
   EXPECT_EQ( next[ "snapshot" ], false );
   EXPECT_GT( next[ "sequence" ], first[ "sequence" ] );
   EXPECT_EQ( names( heard( some ) ), ( Names{ "S", "T" } ) );
   EXPECT_EQ( heard( full ), nullptr );
   EXPECT_EQ( heard( some ), nullptr );

   EXPECT_EQ( ask( peer, "Report", { { "stage", "T" } } ), nothing );
   EXPECT_EQ( heard( full )[ "complete" ], true );
   EXPECT_EQ( heard( some )[ "complete" ], true );

   peer.close();
   turn();
   Json const lost = heard( full );
   EXPECT_EQ( names( lost ), ( Names{ "S", "T" } ) );
   EXPECT_EQ( lost[ "stage" ][ 0 ][ "event" ][ 0 ][ "connected" ], false );
   EXPECT_EQ( heard( some ), nullptr ) << "nothing of that is shown without events";
}

TEST_F( Hubs, WatchingGoesOnFromWhereSomebodyWasUnlessThatCannotBe ) {
   begin();
   RawPeer peer = connected();
   ask( peer, "Join", join( "A", { event( "S" ), event( "T", { "S" } ) } ) );
   auto const watch = [ & ]( Json const & parameters ) {
      RawPeer watcher = connected();
      return askMore( watcher, "Watch", parameters );
   };
   std::int64_t const before = status().sequence;
   ask( peer, "Declare", { { "event", { event( "T", { "S", "X" } ) } } } );
   Json const since = watch( { { "all", true }, { "after", before }, { "startup", "first" } } );
   EXPECT_EQ( since[ "snapshot" ], false );
   ASSERT_EQ( since[ "stage" ].size(), 1U );
   EXPECT_EQ( since[ "stage" ][ 0 ][ "name" ], "T" );
   EXPECT_EQ( since[ "sequence" ], before + 1 );
   Json const none = watch( { { "all", true }, { "after", before + 1 } } );
   EXPECT_EQ( none[ "snapshot" ], false );
   EXPECT_EQ( none[ "stage" ].size(), 0U );
   for( Json const & cannot :
        { Json{ { "all", true }, { "after", before + 2 } },
          Json{ { "all", true }, { "after", before }, { "startup", "another" } } } ) {
      Json const snapshot = watch( cannot );
      EXPECT_EQ( snapshot[ "snapshot" ], true );
      EXPECT_EQ( snapshot[ "stage" ].size(), 2U );
   }
}

TEST_F( Hubs, SnapshotsComeInPartsAndSlowReadersMissStatesButNeverTheLast ) {
   options.limits.unread = 100000;
   options.eventsOfAgent = 5000;
   begin();
   RawPeer peer = connected();
   std::vector< Json > events;
   for( int n = 0; n != 3000; ++n )
      events.push_back( event( "stage-" + std::to_string( n ) ) );
   ask( peer, "Join", join( "A", events ) );
   RawPeer watcher = connected();
   EXPECT_TRUE( watcher.say( message( "Watch", { { "all", true } }, "more" ) ) );
   turn();
   // It does not read while many things happen to one stage after the other.
   for( int n = 0; n != 300; ++n )
      ask( peer, "Report",
           { { "stage", "stage-" + std::to_string( n % 100 ) },
             { "note", std::to_string( n ) },
             { "complete", n % 200 < 100 } } );
   std::map< std::string, Json > seen;
   std::size_t answers = 0;
   std::int64_t sequence = 0;
   for( Json answer = heard( watcher ); !answer.is_null(); answer = heard( watcher ) ) {
      EXPECT_EQ( answer[ "snapshot" ], answers == 0 );
      ++answers;
      sequence = answer[ "sequence" ];
      for( auto const & stage : answer[ "stage" ] )
         seen[ stage[ "name" ] ] = stage;
      turn();
   }
   EXPECT_GT( answers, 6U );
   EXPECT_LT( answers, 100U );
   auto const end = status();
   EXPECT_EQ( sequence, end.sequence );
   EXPECT_EQ( seen.size(), 3000U );
   for( auto const & stage : end.stage )
      EXPECT_EQ( seen[ stage.name ], encoded( stage ) ) << stage.name;
}

TEST_F( Hubs, WaitingEndsWhenItIsSoOrTheTimeIsUp ) {
   begin();
   RawPeer peer = connected();
   RawPeer stageActive = connected();
   RawPeer stageComplete = connected();
   RawPeer startUp = connected();
   RawPeer late = connected();
   EXPECT_TRUE( stageActive.say( message( "Wait", { { "stage", "S" }, { "state", "active" } } ) ) );
   EXPECT_TRUE(
      stageComplete.say( message( "Wait", { { "stage", "S" }, { "state", "complete" } } ) ) );
   EXPECT_TRUE( startUp.say( message( "Wait", { { "state", "active" } } ) ) );
   EXPECT_TRUE( late.say( message( "Wait", { { "state", "complete" }, { "timeout", 1.5 } } ) ) );
   turn();
   for( RawPeer * one : { &stageActive, &stageComplete, &startUp, &late } )
      EXPECT_EQ( heard( *one ), nullptr );
   EXPECT_EQ( hub->nextTime(), 1.5 );
   now = 1;
   ask( peer, "Join", join( "A", { { { "stage", "S" }, { "timeout", 2 } } } ) );
   EXPECT_EQ( heard( stageActive ), ( Json{ { "time", 1.0 }, { "timedOut", false } } ) );
   EXPECT_EQ( heard( startUp )[ "time" ], 1.0 );
   EXPECT_EQ( heard( stageComplete ), nullptr );
   EXPECT_EQ( heard( late ), nullptr );
   now = 1.5;
   turn();
   EXPECT_EQ( heard( late ), failed( "TimedOut" ) );
   now = 4;
   turn();
   EXPECT_EQ( heard( stageComplete ), ( Json{ { "time", 3.0 }, { "timedOut", true } } ) );
   EXPECT_EQ( ask( late, "Wait", { { "state", "complete" }, { "timeout", 0 } } )[ "timedOut" ],
              false );
   EXPECT_EQ(
      ask( late, "Wait", { { "stage", "Never" }, { "state", "active" }, { "timeout", 0 } } ),
      failed( "TimedOut" ) );
}

TEST_F( Hubs, TheLogIsReadWholeOrFollowed ) {
   begin();
   RawPeer peer = connected();
   RawPeer follower = connected();
   ask( peer, "Join", join( "A", { event( "S" ) } ) );
   Json const log = ask( peer, "Log" )[ "entry" ];
   ASSERT_GE( log.size(), 1U );
   EXPECT_EQ( log[ 0 ][ "sequence" ], 1 );
   EXPECT_EQ( ask( peer, "Log", { { "after", log.size() } } )[ "entry" ].size(), 0U );
   EXPECT_EQ( ask( peer, "Log", { { "after", log.size() - 1 } } )[ "entry" ][ 0 ], log.back() );
   EXPECT_EQ( ask( peer, "Log", { { "follow", true } } ), failed( "ExpectedMore" ) );
   EXPECT_EQ( askMore( follower, "Log", { { "follow", true } } )[ "entry" ], log );
   EXPECT_EQ( heard( follower ), nullptr );
   ask( peer, "Report", { { "stage", "S" } } );
   Json const more = heard( follower )[ "entry" ];
   EXPECT_EQ( more[ 0 ][ "sequence" ], log.size() + 1 );
   EXPECT_EQ( more[ 0 ][ "message" ], "  event S:A completed" );
   EXPECT_EQ( more[ 1 ][ "message" ], "stage S is complete" );
}

TEST_F( Hubs, ExplainsWhatItWaitsFor ) {
   begin();
   RawPeer peer = connected();
   ask( peer, "Join",
        join( "A", { event( "S" ), event( "T", { "S" } ), event( "U", { "Gone" } ) } ) );
   Json const all = ask( peer, "Explain" );
   ASSERT_EQ( all[ "cause" ].size(), 2U );
   EXPECT_EQ( all[ "cause" ][ 0 ][ "kind" ], "undeclared" );
   EXPECT_EQ( all[ "cause" ][ 0 ][ "stage" ], "Gone" );
   EXPECT_EQ( all[ "cause" ][ 1 ][ "kind" ], "events" );
   EXPECT_EQ( all[ "cause" ][ 1 ][ "of" ], Json{ "S" } );
   EXPECT_EQ( all[ "cause" ][ 1 ][ "waiting" ], 1 );
   EXPECT_NE( all[ "text" ].get< std::string >().find( "S:A" ), std::string::npos );
   Json const one = ask( peer, "Explain", { { "stage", "T" } } );
   ASSERT_EQ( one[ "cause" ].size(), 1U );
   EXPECT_EQ( one[ "cause" ][ 0 ][ "stage" ], "S" );
   EXPECT_EQ( ask( peer, "Explain", { { "stage", "Gone" } } )[ "cause" ].size(), 1U );
   EXPECT_EQ( ask( peer, "Explain", { { "stage", "Unheard" } } ), failed( "NoSuchStage" ) );
   for( char const * stage : { "S", "T" } )
      ask( peer, "Report", { { "stage", stage } } );
   EXPECT_EQ( ask( peer, "Explain", { { "stage", "T" } } ),
              ( Json{ { "text", "" }, { "cause", Json::array() } } ) );
}

TEST_F( Hubs, MoreThanTheLimitsIsRefusedAndNothingOfTheCallIsDone ) {
   options.eventsOfAgent = 3;
   options.agents = 2;
   options.stages = 4;
   begin();
   RawPeer peer = connected();
   auto const tooMuch = []( char const * limit ) {
      return Json{ { "error", "TooMuch" }, { "limit", limit } };
   };
   auto const declare = [ & ]( std::string const & agent, std::vector< Json > const & events,
                               std::vector< std::string > const & withdraw = {} ) {
      return ask( peer, "Declare",
                  { { "agent", agent }, { "event", events }, { "withdraw", withdraw } } );
   };
   std::vector< Json > const four{ event( "1" ), event( "2" ), event( "3" ), event( "4" ) };
   EXPECT_EQ( declare( "A", four ), tooMuch( "3 events of an agent" ) );
   EXPECT_TRUE( status().agent.empty() );
   EXPECT_EQ( declare( "A", { four[ 0 ], four[ 1 ] } ), nothing );
   EXPECT_EQ( declare( "A", { four[ 0 ], four[ 2 ] } ), nothing );
   EXPECT_EQ( declare( "A", { four[ 3 ] } ), tooMuch( "3 events of an agent" ) );
   EXPECT_EQ( declare( "A", { four[ 3 ] }, { "1" } ), nothing );
   EXPECT_EQ( declare( "B", { event( "5" ) } ), tooMuch( "4 stages" ) );
   EXPECT_EQ( status().agent.size(), 1U );
   EXPECT_EQ( declare( "B", { event( "1" ) } ), nothing );
   EXPECT_EQ( declare( "C", {} ), tooMuch( "2 agents" ) );
   EXPECT_EQ( ask( peer, "Leave", { { "agent", "B" } } ), nothing );
   EXPECT_EQ( declare( "C", {} ), nothing );
   EXPECT_EQ( ask( peer, "Report", { { "agent", "A" }, { "stage", "2" } } ), nothing );
}

TEST_F( Hubs, ACallThatIsWrongChangesNothing ) {
   begin();
   RawPeer peer = connected();
   EXPECT_EQ( ask( peer, "Join", join( "A", { event( "S" ), { { "stage", "" } } } ) ),
              ( Json{ { "error", "InvalidEvent" },
                      { "field", "event[1].stage" },
                      { "reason", "is empty" } } ) );
   EXPECT_EQ( ask( peer, "Report", { { "stage", "S" }, { "completed", true } } ),
              ( Json{ { "error", "InvalidParameter" }, { "parameter", "completed" } } ) );
   EXPECT_TRUE( status().agent.empty() );
}

TEST_F( Hubs, TheLoopRunsUntilItIsStopped ) {
   options.time = nullptr;
   begin();
   RawPeer peer( path );
   std::string const said =
      message( "Join", join( "A", { { { "stage", "S" }, { "timeout", 0.01 } } } ) ).dump();
   ASSERT_EQ( peer.write( said + std::string( 1, '\0' ) ), said.size() + 1 );
   std::string const waits = message( "Wait", { { "state", "complete" } } ).dump();
   ASSERT_EQ( peer.write( waits + std::string( 1, '\0' ) ), waits.size() + 1 );
   Kiv::activityManager()->descriptorIs( peer.fd(), POLLIN, [ & ]( unsigned ) {
      peer.read();
      if( std::count( peer.unheard().begin(), peer.unheard().end(), '\0' ) == 2 )
         hub->stop();
   } );
   hub->run();
   Kiv::activityManager()->descriptorDel( peer.fd() );
   EXPECT_TRUE( heard( peer ).contains( "startup" ) );
   EXPECT_EQ( heard( peer )[ "timedOut" ], false );
   EXPECT_TRUE( stage( "S" ).timedOut );
}
