// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The sentences. Explanations are written by hand, so that each step can be met alone.
#include <Explain/Explain.h>

#include <gtest/gtest.h>

#include <limits>

namespace {

using Stage::Explanation;
using Index = Explanation::Index;
using State = Explanation::State;
using Kind = Explanation::Root::Kind;
using Events = std::vector< Explanation::Event >;

struct ExplanationText : testing::Test {
   ExplanationText() { e.enabled = true; }

   Explanation::UnfinishedStage & waiting( char const * name ) {
      e.stage.emplace_back().name = name;
      return e.stage.back();
   }
   Explanation::UnfinishedStage & active( std::string const & name ) {
      auto & stage = waiting( name.c_str() );
      stage.state = State::active;
      stage.event = { { name + ":X", "X", 2.5 } };
      return stage;
   }
   Explanation::UnfinishedStage & critical( Explanation::UnfinishedStage & stage ) {
      stage.critical = true;
      if( stage.state == State::waiting )
         e.critical.push_back( static_cast< Index >( e.stage.size() - 1 ) );
      return stage;
   }
   Explanation::Dependency on( Index place ) const { return { e.stage[ place ].name, place, {} }; }
   static Explanation::Dependency onNobodys( char const * name ) { return { name, {}, {} }; }

   std::string sentence( std::size_t stage = 0 ) const {
      return Stage::sentence( e, e.stage[ stage ] );
   }
   std::string root( Kind kind, std::vector< Index > of, std::uint32_t waiting, Events by = {},
                     std::vector< Explanation::Link > path = {} ) const {
      Explanation::Root root;
      root.kind = kind;
      root.stage = of.empty() ? Kiv::Name( "Gone" ) : e.stage[ of[ 0 ] ].name;
      root.of = of;
      root.waiting = waiting;
      root.by = by;
      root.path = path;
      if( kind == Kind::events && !e.stage[ of[ 0 ] ].critical )
         root.goesOnAt = e.stage[ of[ 0 ] ].timeIsUp;
      return Stage::sentence( e, root );
   }
   static Events events( int count ) {
      Events made;
      for( int i = 1; i <= count; ++i )
         made.push_back( { "Net:B" + std::to_string( i ), "B" + std::to_string( i ) } );
      return made;
   }

   Explanation e;
};

// ------------------------------------------------------------------------------ stages that wait

TEST_F( ExplanationText, NamesEachDependencyAndWhatItLacks ) {
   e.stage.reserve( 5 );
   auto & net = waiting( "Net" );
   waiting( "Boot" );
   active( "Disk" );
   active( "Slow" ).state = State::suspended;
   net.dependency = { on( 1 ), on( 2 ), onNobodys( "Gone" ), on( 3 ) };
   EXPECT_EQ( sentence(), "stage \"Net\" waits for stage \"Boot\", which has not started, stage "
                          "\"Disk\", which is not complete, stage \"Gone\", which no agent has "
                          "declared and stage \"Slow\", which timed out and is suspended; it has "
                          "no time limit." );
}

TEST_F( ExplanationText, NamesTheCriticalStagesThatHoldAStageBack ) {
   waiting( "Net" ).heldBack = true;
   critical( waiting( "Disk" ) );
   EXPECT_EQ( sentence(), "stage \"Net\" is held back until critical stage \"Disk\" has started; "
                          "it has no time limit." );
   e.stage[ 0 ].dependency = { onNobodys( "Gone" ) };
   critical( waiting( "Eth" ) );
   EXPECT_EQ( sentence(), "stage \"Net\" is held back until critical stages \"Disk\" and \"Eth\" "
                          "have started, and waits for stage \"Gone\", which no agent has "
                          "declared; it has no time limit." );
}

TEST_F( ExplanationText, NamesThreeCriticalStagesAndCountsTheRest ) {
   waiting( "Net" ).heldBack = true;
   for( auto name : { "C1", "C2", "C3", "C4", "C5" } )
      critical( waiting( name ) );
   EXPECT_EQ( sentence(), "stage \"Net\" is held back until critical stages \"C1\", \"C2\", \"C3\" "
                          "and 2 more have started; it has no time limit." );
}

TEST_F( ExplanationText, SaysThatAStageDependsOnItself ) {
   e.stage.reserve( 3 );
   waiting( "A" ).cycle = 0;
   waiting( "C" ).cycle = 0;
   e.stage[ 0 ].dependency = { onNobodys( "Gone" ), on( 1 ) };
   EXPECT_EQ( sentence(), "stage \"A\" waits for stage \"Gone\", which no agent has declared and "
                          "stage \"C\", which has not started; it depends on itself by way of "
                          "stage \"C\"; it has no time limit." );
   e.stage[ 0 ].dependency = { on( 0 ) };
   EXPECT_EQ( sentence(), "stage \"A\" waits for stage \"A\", which has not started; it depends on "
                          "itself; it has no time limit." );
   // Another cycle, to which this one leads.
   waiting( "D" ).cycle = 1;
   e.stage[ 0 ].dependency = { on( 2 ), on( 1 ) };
   EXPECT_NE( sentence().find( "by way of stage \"C\"" ), std::string::npos ) << sentence();
   // Only held back by one that waits for it.
   e.stage[ 0 ].dependency = {};
   e.stage[ 0 ].heldBack = true;
   e.critical = { 1 };
   EXPECT_EQ( sentence(), "stage \"A\" is held back until critical stage \"C\" has started; these "
                          "wait for it in turn; it has no time limit." );
}

TEST_F( ExplanationText, SaysThatTheTimeOfAStageThatWaitsDoesNotRun ) {
   waiting( "Net" ).dependency = { onNobodys( "Gone" ) };
   e.stage[ 0 ].timeout = 30;
   EXPECT_EQ( sentence(), "stage \"Net\" waits for stage \"Gone\", which no agent has declared; "
                          "its time of 30 s does not run before it has started." );
   e.stage[ 0 ].timeout = std::numeric_limits< double >::quiet_NaN();
   EXPECT_NE( sentence().find( "; it has no time limit." ), std::string::npos );
}

TEST_F( ExplanationText, SaysThatProgressionWasNotEnabled ) {
   e.enabled = false;
   waiting( "Boot" ).dependency = { onNobodys( "Gone" ) };
   EXPECT_EQ( sentence(), "stage \"Boot\" waits for progression to be enabled; it has no time "
                          "limit." );
}

TEST_F( ExplanationText, SaysThatAStageLacksNothingButADecision ) {
   waiting( "Late" );
   EXPECT_EQ( sentence(), "stage \"Late\" waits for nothing but the next decision, which only a "
                          "change elsewhere brings about; it has no time limit." );
   e.nextDecision = 5;
   EXPECT_EQ( sentence(), "stage \"Late\" waits for nothing but the next decision, which is due; "
                          "it has no time limit." );
}

// --------------------------------------------------------------------------------- active stages

TEST_F( ExplanationText, NamesThePendingEventsOfAnActiveStageAndSinceWhenIfThatIsKnown ) {
   active( "Boot" ).event.push_back( { "Boot:Y", "Y", {} } );
   EXPECT_EQ( sentence(), "stage \"Boot\" is active and waits for events \"Boot:X\" of agent \"X\" "
                          "(pending since 2.5 s) and \"Boot:Y\" of agent \"Y\"; it has no time "
                          "limit and waits for ever." );
}

TEST_F( ExplanationText, SaysThatACriticalStageTimedOutAndIsSuspended ) {
   critical( active( "Boot" ) ).state = State::suspended;
   e.stage[ 0 ].timedOutAt = 30;
   EXPECT_EQ( sentence(), "critical stage \"Boot\" timed out at 30 s and is suspended; it waits "
                          "for event \"Boot:X\" of agent \"X\" (pending since 2.5 s), with no time "
                          "limit any more." );
   e.stage[ 0 ].critical = false;
   e.stage[ 0 ].timedOutAt.reset();
   EXPECT_EQ( sentence(), "stage \"Boot\" timed out and is suspended; it waits for event "
                          "\"Boot:X\" of agent \"X\" (pending since 2.5 s), with no time limit any "
                          "more; that it has ceased to be critical does not release it." );
}

TEST_F( ExplanationText, SaysWhenTheTimeOfAnActiveStageIsUpAndWhatHappensThen ) {
   auto & stage = active( "Boot" );
   stage.timeout = 30;
   stage.timeIsUp = 32.5;
   e.now = 12.25;
   EXPECT_EQ( sentence(), "stage \"Boot\" is active and waits for event \"Boot:X\" of agent \"X\" "
                          "(pending since 2.5 s); its time is up at 32.5 s, in 20.25 s, and it "
                          "would then be declared complete all the same." );
   critical( stage );
   EXPECT_NE( sentence().find( "in 20.25 s, and it would then be suspended, with the message "
                               "ORDOVAN_STAGE_SLOW." ),
              std::string::npos )
      << sentence();
   e.now = 40;
   EXPECT_NE( sentence().find( "at 32.5 s, in 0 s, and" ), std::string::npos ) << sentence();
}

TEST_F( ExplanationText, SaysThatATimeoutChangedSinceMovesNothingIfItIsKnownSinceWhen ) {
   auto & stage = active( "Boot" );
   stage.timeout = 60;
   stage.timeIsUp = 30;
   EXPECT_EQ( sentence().find( "whatever" ), std::string::npos ) << sentence();
   stage.activeSince = 0;
   EXPECT_NE( sentence().find( "its time is up at 30 s, in 30 s, whatever its timeout is now, and "
                               "it would then" ),
              std::string::npos )
      << sentence();
   stage.timeIsUp = Explanation::never;
   EXPECT_NE( sentence().find( "; it has no time limit and waits for ever, whatever its timeout is "
                               "now." ),
              std::string::npos )
      << sentence();
   stage.timeout = Explanation::never;
   EXPECT_EQ( sentence().find( "whatever" ), std::string::npos ) << sentence();
}

TEST_F( ExplanationText, SaysOfAStageThatNobodyTracksNothingElse ) {
   active( "Boot" ).state = State::untracked;
   EXPECT_EQ( sentence(), "stage \"Boot\" is active, but has no state machine that waits for its "
                          "events." );
}

TEST_F( ExplanationText, SaysOfAStageWithoutPendingEventsThatItIsAboutToBeComplete ) {
   active( "Boot" ).event.clear();
   EXPECT_NE( sentence().find( "waits for nothing but to be declared complete;" ),
              std::string::npos );
}

TEST_F( ExplanationText, RoundsTimesToMilliseconds ) {
   active( "Boot" ).timeIsUp = 0.1 + 0.2;
   EXPECT_NE( sentence().find( "up at 0.3 s, in 0.3 s," ), std::string::npos ) << sentence();
   e.stage[ 0 ].timeIsUp = 1e300;
   EXPECT_NE( sentence().find( "up at 1e+300 s" ), std::string::npos ) << sentence();
   e.stage[ 0 ].timeIsUp = 100000;
   EXPECT_NE( sentence().find( "up at 100000 s" ), std::string::npos ) << sentence();
}

// ------------------------------------------------------------------------------------------ roots

TEST_F( ExplanationText, SaysHowManyMoreStagesWaitForARoot ) {
   active( "Boot" );
   std::string const boot = "stage \"Boot\" is active and waits for event \"Boot:X\" of agent "
                            "\"X\" (pending since 2.5 s); it has no time limit and waits for "
                            "ever; ";
   EXPECT_EQ( root( Kind::events, { 0 }, 75 ), boot + "75 more stages wait for this." );
   EXPECT_EQ( root( Kind::events, { 0 }, 1 ), boot + "1 more stage waits for this." );
   EXPECT_EQ( root( Kind::events, { 0 }, 0 ), boot + "no other stage waits for this." );
}

TEST_F( ExplanationText, SaysWhenARootIsOverByItself ) {
   active( "Boot" ).timeIsUp = 30;
   EXPECT_NE( root( Kind::events, { 0 }, 2 )
                 .find( "all the same; 2 more stages wait for this, which goes on at 30 s." ),
              std::string::npos )
      << root( Kind::events, { 0 }, 2 );
   e.stage[ 0 ].critical = true;
   EXPECT_EQ( root( Kind::events, { 0 }, 2 ).find( "goes on" ), std::string::npos );
}

TEST_F( ExplanationText, NamesWhoDependsOnAStageThatNobodyDeclares ) {
   EXPECT_EQ( root( Kind::undeclared, {}, 4, events( 1 ) ),
              "stage \"Gone\" is declared by no agent, but event \"Net:B1\" of agent \"B1\" "
              "depends on it; 4 stages wait for this." );
   EXPECT_EQ( root( Kind::undeclared, {}, 1, events( 5 ) ),
              "stage \"Gone\" is declared by no agent, but events \"Net:B1\" of agent \"B1\", "
              "\"Net:B2\" of agent \"B2\", \"Net:B3\" of agent \"B3\" and 2 more depend on it; 1 "
              "stage waits for this." );
   EXPECT_EQ( root( Kind::undeclared, {}, 0 ),
              "stage \"Gone\" is declared by no agent; no stage waits for this." );
}

TEST_F( ExplanationText, LeadsAlongACycleAndNamesWhoDeclaresEachStep ) {
   for( auto name : { "A", "B", "C", "D" } )
      waiting( name );
   EXPECT_EQ( root( Kind::cycle, { 0, 1 }, 2, {},
                    { { 0, false, events( 2 ) }, { 1, false, events( 1 ) } } ),
              "stage \"A\" waits for itself: it depends on stage \"B\" (events \"Net:B1\" of agent "
              "\"B1\" and \"Net:B2\" of agent \"B2\"), which depends on stage \"A\" (event "
              "\"Net:B1\" of agent \"B1\"); 2 more stages wait for this." );
   EXPECT_EQ( root( Kind::cycle, { 2 }, 0, {}, { { 2, false, {} } } ),
              "stage \"C\" waits for itself: it depends on stage \"C\"; no other stage waits for "
              "this." );
   EXPECT_EQ( root( Kind::cycle, { 0, 1, 2, 3 }, 1, {}, { { 0, true, {} }, { 1, false, {} } } ),
              "stage \"A\" waits for itself: it is held back by critical stage \"B\", which "
              "depends on stage \"A\"; in all, 4 stages wait for each other; 1 more stage waits "
              "for this." );
}

TEST_F( ExplanationText, ShortensACycleOfWhichNobodyWantsToReadAll ) {
   std::vector< Index > of;
   std::vector< Explanation::Link > path;
   for( Index i = 0; i != 100; ++i ) {
      waiting( std::to_string( 100 + i ).c_str() );
      of.push_back( i );
      path.push_back( { i, false, {} } );
   }
   auto const text = root( Kind::cycle, of, 0, {}, path );
   EXPECT_NE( text.find( ", which depends on stage \"111\", and so on by way of 88 more back to "
                         "stage \"100\"; no" ),
              std::string::npos )
      << text;
   path.resize( 12 );
   EXPECT_EQ( root( Kind::cycle, { of.begin(), of.begin() + 12 }, 0, {}, path ).find( "so on" ),
              std::string::npos );
}

TEST_F( ExplanationText, SaysThatProgressionIsNotEnabledOrNotDecided ) {
   EXPECT_EQ( root( Kind::disabled, {}, 3 ),
              "progression has not been enabled; 3 stages wait for this." );
   for( auto name : { "A", "B", "C", "D", "E" } )
      waiting( name );
   EXPECT_EQ( root( Kind::decision, { 4 }, 0 ),
              "stage \"E\" waits for nothing but the next decision, which only a change elsewhere "
              "brings about; no other stage waits for this." );
   e.nextDecision = 1;
   EXPECT_EQ( root( Kind::decision, { 0, 1, 2, 3, 4 }, 2 ),
              "stages \"A\", \"B\", \"C\" and 2 more wait for nothing but the next decision, which "
              "is due; 2 more stages wait for this." );
}

TEST_F( ExplanationText, OfAllCausesHasALineForEachRoot ) {
   active( "Boot" );
   for( auto kind : { Kind::events, Kind::disabled } ) {
      auto & root = e.root.emplace_back();
      root.kind = kind;
      if( kind == Kind::events )
         root.of = { 0 };
   }
   auto const lines = causes( e );
   ASSERT_EQ( lines.size(), 2U );
   EXPECT_EQ( lines[ 0 ], Stage::sentence( e, e.root[ 0 ] ) );
   EXPECT_EQ( lines[ 1 ], Stage::sentence( e, e.root[ 1 ] ) );
}

TEST_F( ExplanationText, HasNoNameThatCouldSteerATerminal ) {
   std::string const bad = "a\x1b[2J\nb";
   active( bad ).event = { { bad, bad, {} } };
   waiting( bad.c_str() ).dependency = { { bad, {}, { { bad, bad } } } };
   e.critical = { 1 };
   e.stage[ 0 ].heldBack = true;
   std::string all = sentence( 0 ) + sentence( 1 );
   Events const by = { { bad, bad } };
   all += root( Kind::events, { 0 }, 0 ) + root( Kind::undeclared, {}, 0, by ) +
          root( Kind::cycle, { 0, 1 }, 0, {}, { { 0, true, by }, { 1, false, by } } ) +
          root( Kind::decision, { 0 }, 0 );
   EXPECT_EQ( all.find_first_of( "\x1b\n" ), std::string::npos ) << all;
   EXPECT_NE( all.find( "\\x1b" ), std::string::npos );
}

} // namespace
