// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include "OnTerminal.h"

#include <algorithm>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <Stage/Stage.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <tools/Lines.h>
#include <tools/Tree.h>

namespace {

using Json = nlohmann::json;
using Tools::readPath;
using Tools::Step;

struct Inspect : Process::Folder {
   std::string const plan =
      file( "plan.yaml", "application: Router\n"
                         "agents:\n"
                         "  Platform: {Boot: {complete: 1}}\n"
                         "  Routing: {Net: {dependency: [Boot], timeout: 5, complete: 9}}\n"
                         "  Screen: {Gui: {dependency: [Net], complete: 1}}\n" );

   std::string value( std::string const & arguments ) const {
      auto const run = ordovan( "inspect plan.yaml " + arguments );
      EXPECT_EQ( run.status, 0 ) << run.err;
      EXPECT_EQ( run.err, "" );
      return run.out;
   }
   Json json( std::string const & arguments ) const {
      return Json::parse( value( arguments + " --json" ) );
   }
   std::string error( std::string const & arguments ) const {
      auto const run = ordovan( "inspect plan.yaml " + arguments );
      EXPECT_EQ( run.status, 2 );
      EXPECT_EQ( run.out, "" );
      return run.err;
   }
};

std::string pathError( std::string const & text ) {
   try {
      readPath( text );
   } catch( Tools::PathError const & e ) {
      return e.what();
   }
   return "";
}

// ------------------------------------------------------------------------------------- moments

TEST_F( Inspect, ShowsHowThingsStandAtAMoment ) {
   std::string const complete = "statusSm/stageSm[Boot]/complete";
   EXPECT_EQ( value( "--at 0 " + complete ), "false\n" );
   EXPECT_EQ( value( "--at 0.999 " + complete ), "false\n" );
   EXPECT_EQ( value( "--at 1 " + complete ), "true\n" ) << "what is due then has happened";
   EXPECT_EQ( value( complete ), "true\n" ) << "at the end";
   EXPECT_EQ( value( "statusSm/stageSm[Net]/completionTime" ), "10\n" );
   EXPECT_EQ( value( "--at 6 statusSm/stageSm[Net]/timedOut" ), "true\n" );
   EXPECT_EQ( value( "--at 5.9 statusSm/stageSm[Net]/timedOut" ), "false\n" );
   EXPECT_EQ( value( "--at 1 statusSm/stageSm[Net]/stageUncompleted/timeMin" ), "6\n" );
   EXPECT_EQ( value( "--at 100 statusSm/status/complete" ), "true\n" );
}

TEST_F( Inspect, ShowsAValueAsItIs ) {
   EXPECT_EQ( value( "statusSm/application" ), "Router\n" );
   EXPECT_EQ( value( "configSm/status/stage[Net]/timeout" ), "5\n" );
   EXPECT_EQ( value( "configSm/status/stage[Boot]/timeout" ), "inf\n" );
   EXPECT_EQ( value( "configSm/status/progress" ), "null\n" );
   EXPECT_EQ( value( "statusSm/log/log[0]" ), "time 0, msg \"Stage progression started\"\n" );
   EXPECT_EQ( value( "statusSm/hasNotificationActiveIs" ), "true\n" )
      << "a switch that every state machine has, though it is not in the tree";
}

TEST_F( Inspect, ShowsAnObjectWithAllThatBelongsToIt ) {
   EXPECT_EQ( value( "--at 2 statusSm/stageSm[Net]" ),
              "Stage::StageSm status/Net\n"
              "  stage: Stage::StageStatus status/Net, see configSm/status/stage[Net]\n"
              "  logSm: Stage::LogSm, see statusSm/logSm\n"
              "  name: \"Net\"\n"
              "  complete: false\n"
              "  timedOut: false\n"
              "  completionTime: 0\n"
              "  pendingEvent: 1 member\n"
              "    [Net:Routing]: Stage::StageSm::KivPendingEvent\n"
              "      pendingEvent: Stage::EventConfig Net:Routing, see "
              "configSm/status/stage[Net]/event[Routing]\n"
              "  event: 1 member\n"
              "    [Routing]: Stage::StageSm::KivEvent Net:Routing\n"
              "      event: Stage::EventConfig Net:Routing, see "
              "configSm/status/stage[Net]/event[Routing]\n"
              "      fwkKey: \"Routing\"\n"
              "  stageUncompleted: Stage::StageSm::KivStageUncompleted Kiv::Clock\n"
              "    clock: Kiv::Clock, see statusSm/recalculateNextStage/clock\n"
              "    timeMin: 6\n"
              "  initialized: true\n"
              "  mainSm: Stage::StatusSm, see statusSm\n"
              "  fwkKey: \"Net\"\n" );
}

TEST_F( Inspect, ShowsTheMembersOfACollection ) {
   EXPECT_EQ( value( "--at 2 statusSm/stageSm[Net]/pendingEvent" ),
              "1 member\n"
              "  [Net:Routing]: Stage::StageSm::KivPendingEvent\n"
              "    pendingEvent: Stage::EventConfig Net:Routing, see "
              "configSm/status/stage[Net]/event[Routing]\n" );
   EXPECT_EQ( value( "statusSm/stageSm[Net]/pendingEvent" ), "none\n" );
   EXPECT_EQ( value( "configSm/status/stage[Gui]/dependency" ), "1 member\n  [Net]: true\n" );
}

TEST_F( Inspect, ShowsWhatAReferenceLeadsToWhenItIsAskedFor ) {
   EXPECT_EQ( value( "statusSm/stageSm[Net]/mainSm" ), value( "statusSm" ) );
   EXPECT_EQ( value( "statusSm/stageSm[Net]/stage/parent/stage[Net]" ),
              value( "configSm/status/stage[Net]" ) );
   EXPECT_EQ( value( "statusSm/status/activeStage" ), value( "configSm/status/activeStage" ) );
}

TEST_F( Inspect, WithoutAPathShowsEveryObjectOnce ) {
   auto const all = value( "--at 2" );
   EXPECT_EQ( all, value( "--at 2 /" ) );
   EXPECT_EQ( all.substr( 0, 24 ), "Stage::Ordovan ordovan\n " );
   std::map< std::string, int > shown; // lines that begin an object, not those that refer to one
   std::istringstream lines( all );
   for( std::string line; std::getline( lines, line ); )
      if( line.find( ", see " ) == std::string::npos )
         ++shown[ line.substr( line.find_first_not_of( ' ' ) ) ];
   EXPECT_EQ( shown[ "status: Stage::Status status" ], 1 );
   EXPECT_EQ( shown[ "[Net]: Stage::StageStatus status/Net" ], 1 );
   EXPECT_EQ( shown[ "[Net]: Stage::StageSm status/Net" ], 1 );
   EXPECT_EQ( shown[ "[Gui]: Stage::StageEnableSm status/Gui" ], 1 );
   EXPECT_EQ( shown[ "configSm: Stage::ConfigSm config" ], 1 );
   EXPECT_EQ( shown[ "statusSm: Stage::StatusSm" ], 1 );
   EXPECT_EQ( all.find( "handle" ), std::string::npos );
}

TEST_F( Inspect, EveryPlaceThatIsReferredToCanBeAskedFor ) {
   std::istringstream lines( value( "--at 2" ) );
   std::set< std::string > places;
   for( std::string line; std::getline( lines, line ); )
      if( auto const see = line.find( ", see " ); see != std::string::npos )
         places.insert( line.substr( see + 6 ) );
   EXPECT_GT( places.size(), 8U );
   for( auto const & place : places )
      EXPECT_NE( value( "--at 2 '" + place + "'" ), "" ) << place;
}

TEST_F( Inspect, WhatCannotBePrintedIsNoSuccess ) {
   file( "p.yaml", "agents: {A: {S: {complete: 1}}}\n" );
   auto const run = shell( "\"$ordovan\" inspect p.yaml >/dev/full" );
   EXPECT_EQ( run.status, 2 );
   EXPECT_NE( run.err.find( "standard output cannot be written: No space left on device" ),
              std::string::npos )
      << run.err;
}

// ---------------------------------------------------------------------------------------- JSON

TEST_F( Inspect, AsJsonIsJsonWhateverTheNamesAre ) {
   file( "odd.yaml",
         "agents: {\"A\\t\\\"\\\\\": {\"]\\x01\\0 \\u202e\\u00e9[\": {complete: 1}}}\n" );
   auto const run = ordovan( "inspect odd.yaml configSm/status/stage --json" );
   ASSERT_EQ( run.status, 0 ) << run.err;
   auto const stages = Json::parse( run.out );
   ASSERT_EQ( stages.size(), 1U );
   std::string const stage( "]\x01\0 \u202e\u00e9[", 10 );
   ASSERT_TRUE( stages.contains( stage ) ) << run.out;
   EXPECT_TRUE( stages[ stage ][ "attributes" ][ "event" ].contains( "A\t\"\\" ) ) << run.out;
}

TEST_F( Inspect, AsJsonGivesTheSameTree ) {
   auto const all = json( "--at 2" );
   EXPECT_EQ( all[ "type" ], "Stage::Ordovan" );
   EXPECT_EQ( all[ "name" ], "ordovan" );
   auto const & statusSm = all[ "attributes" ][ "statusSm" ][ "attributes" ];
   EXPECT_EQ( statusSm[ "application" ], "Router" );
   EXPECT_EQ(
      statusSm[ "status" ],
      ( Json{ { "type", "Stage::Status" }, { "name", "status" }, { "see", "configSm/status" } } ) );
   auto const & net = statusSm[ "stageSm" ][ "Net" ][ "attributes" ];
   EXPECT_EQ( net[ "complete" ], false );
   EXPECT_EQ( net[ "pendingEvent" ].size(), 1U );
   EXPECT_EQ( net[ "mainSm" ][ "see" ], "statusSm" );
   EXPECT_EQ( statusSm[ "stageSm" ][ "Net" ], json( "--at 2 statusSm/stageSm[Net]" ) );
   EXPECT_EQ( statusSm[ "stageSm" ], json( "--at 2 statusSm/stageSm" ) );
}

TEST_F( Inspect, AsJsonGivesValues ) {
   EXPECT_EQ( json( "statusSm/application" ), "Router" );
   EXPECT_EQ( json( "configSm/status/stage[Net]/timeout" ), 5 );
   EXPECT_EQ( json( "configSm/status/stage[Boot]/timeout" ), "inf" );
   EXPECT_EQ( json( "configSm/status/progress" ), nullptr );
   EXPECT_EQ( json( "configSm/status/stage[Boot]/dependency" ), Json::object() );
}

// -------------------------------------------------------------------------------------- errors

TEST_F( Inspect, AWrongNameListsTheNamesThatExistAtThatPlace ) {
   EXPECT_EQ( error( "statussm" ),
              "ordovan: Stage::Ordovan has no attribute \"statussm\"; it has isNondestructing, "
              "configSm, statusSm, parent\n" );
   EXPECT_EQ( error( "statusSm/logSm/stagelog" ),
              "ordovan: statusSm/logSm, a Stage::LogSm, has no attribute \"stagelog\"; it has "
              "stageLog, kivFwkActivity, hasNotificationActiveIs, kivDoZombieReactors\n" );
   EXPECT_EQ( error( "statusSm/logSm/logIs" ),
              "ordovan: statusSm/logSm, a Stage::LogSm, has no value under the name \"logIs\"; it "
              "has stageLog, kivFwkActivity, hasNotificationActiveIs, kivDoZombieReactors\n" )
      << "an operation has no value";
}

TEST_F( Inspect, AWrongKeyListsTheKeysThatExist ) {
   EXPECT_EQ( error( "--at 2 statusSm/stageEnableSm[Net]" ),
              "ordovan: statusSm/stageEnableSm has no member [Net]; it has [Gui]\n" );
   EXPECT_EQ( error( "statusSm/stageEnableSm[Gui]" ),
              "ordovan: statusSm/stageEnableSm has no member [Gui]; it has no members\n" );
   EXPECT_EQ( error( "--at 2 statusSm/stageSm[Net]/pendingEvent/pendingEvent" ),
              "ordovan: statusSm/stageSm[Net]/pendingEvent is a collection, a key in brackets is "
              "missing; it has [Net:Routing]\n" );
   std::string agents = "agents:\n";
   for( int n = 0; n != 503; ++n )
      agents += "  A" + std::to_string( n ) + ": {S" + std::to_string( n ) + ": {complete: 1}}\n";
   file( "many.yaml", agents );
   auto const run = ordovan( "inspect many.yaml 'configSm/status/stage[X]'" );
   EXPECT_EQ( run.status, 2 );
   EXPECT_NE( run.err.find( "it has [S" ), std::string::npos );
   EXPECT_NE( run.err.find( " and 3 more\n" ), std::string::npos ) << run.err;
}

TEST_F( Inspect, APathThatGoesOnWhereNothingFollowsIsRefused ) {
   EXPECT_EQ( error( "statusSm/kivFwkActivity/x" ),
              "ordovan: statusSm/kivFwkActivity, a Kiv::PtrInterface, has no attribute \"x\"; it "
              "has none\n" );
   EXPECT_EQ( error( "statusSm/application/x" ),
              "ordovan: statusSm/application is of type Kiv::String8 and leads no further\n" );
   EXPECT_EQ( error( "configSm/status/progress/stage" ),
              "ordovan: configSm/status/progress is null and leads no further\n" );
   EXPECT_EQ( error( "statusSm/application[0]" ),
              "ordovan: statusSm/application is no collection and takes no key\n" );
}

TEST_F( Inspect, AWrongCommandLineOrPlanIsRefused ) {
   EXPECT_EQ( ordovan( "inspect" ).status, 2 );
   EXPECT_EQ( ordovan( "inspect absent.yaml" ).status, 2 );
   EXPECT_NE( error( "--at -1" ).find( "SECONDS is a number from 0 on" ), std::string::npos );
   EXPECT_EQ( ordovan( "inspect plan.yaml --at nan" ).status, 2 );
   EXPECT_EQ( ordovan( "inspect plan.yaml --at x" ).status, 2 );
   file( "wrong.yaml", "extra: 1\n" );
   auto const wrong = ordovan( "inspect wrong.yaml" );
   EXPECT_EQ( wrong.status, 2 );
   EXPECT_EQ( wrong.out, "" );
   EXPECT_EQ( wrong.err, "wrong.yaml:1:1: unknown key \"extra\" in the plan; allowed are agents, "
                         "application, enabled and timeline\n" );
   EXPECT_EQ( error( "'statusSm/stageSm[Net'" ),
              "ordovan: path \"statusSm/stageSm[Net\": expected \"]\" at byte 21\n" );
}

TEST_F( Inspect, HelpAndVersionAreShown ) {
   auto const help = ordovan( "inspect --help" );
   EXPECT_EQ( help.status, 0 );
   EXPECT_NE( help.out.find( "--at" ), std::string::npos );
   EXPECT_NE( help.out.find( "Exit status" ), std::string::npos );
   EXPECT_EQ( ordovan( "inspect --version" ).out, ordovan( "--version" ).out );
}

TEST_F( Inspect, TheLibrarysOwnLineOnStandardOutputDoesNotComeInBetween ) {
   file( "late.yaml", "agents: {A: {Boot: {critical: true, timeout: 5, complete: never}}}\n" );
   auto const run = ordovan( "inspect late.yaml statusSm/stageSm[Boot]/timedOut" );
   EXPECT_EQ( run.out, "true\n" );
   EXPECT_EQ( run.err, "" );
   EXPECT_EQ( run.status, 0 );
}

TEST_F( Inspect, KeysWithOddCharactersAreFoundAndShownInQuotes ) {
   file( "odd.yaml", "agents: {\"a ] \\\"b\\n\": {\"x/y\": {complete: never}}}\n" );
   auto const agents = ordovan( "inspect odd.yaml configSm/agentDir/entityPtr" );
   EXPECT_NE( agents.out.find( "  [\"a ] \\\"b\\x0a\"]: Stage::AgentConfig" ), std::string::npos )
      << agents.out;
   auto const event = ordovan(
      "inspect odd.yaml 'configSm/agentDir/entityPtr[\"a ] \\\"b\\n\"]/event[x/y]/complete'" );
   EXPECT_EQ( event.out, "false\n" ) << event.err;
}

// Each of these could be taken for another, were it shown as it is.
TEST_F( Inspect, NoTwoNamesOrTextsLookTheSame ) {
   std::vector< std::string > const all = { R"(a\nb)",
                                            "a\nb",
                                            R"(a\x0ab)",
                                            R"(a\\x0ab)",
                                            R"(a\)",
                                            R"(a\")",
                                            R"("a")",
                                            R"("a)",
                                            "a, see /",
                                            "a,",
                                            "a b",
                                            "a",
                                            "none",
                                            "null",
                                            "a]: b",
                                            "[a]",
                                            R"(a\u202eb)",
                                            "a\u202eb",
                                            R"(a\xe2\x80\xaeb)",
                                            "2 members, see b" };
   std::map< std::string, std::string > names, keys, texts; // what is shown, and for which
   for( auto const & name : all ) {
      file( "p.yaml",
            Json{ { "application", name }, { "agents", { { name, { { "S", Json::object() } } } } } }
               .dump() );
      auto const agents = ordovan( "inspect p.yaml configSm/agentDir/entityPtr --depth 1" );
      ASSERT_EQ( agents.status, 0 ) << agents.err;
      auto const lines = agents.out.substr( agents.out.find( '\n' ) + 1 );
      auto const middle = lines.find( ": Stage::AgentConfig " );
      ASSERT_NE( middle, std::string::npos ) << lines;
      EXPECT_EQ( std::count( lines.begin(), lines.end(), '\n' ), 1 ) << lines;
      keys.emplace( lines.substr( 0, middle ), name );
      names.emplace( lines.substr( middle, lines.rfind( ", see " ) - middle ), name );
      // What is shown of a key is what leads there, however the place is written.
      auto const place = lines.substr( lines.rfind( ", see configSm" ) + 6 );
      file( "path", place.substr( 0, place.size() - 1 ) );
      EXPECT_EQ( shell( "\"$ordovan\" inspect p.yaml \"$( cat path )\" --depth 0" ).status, 0 )
         << place;
      texts.emplace( ordovan( "inspect p.yaml statusSm/application" ).out, name );
   }
   EXPECT_EQ( keys.size(), all.size() );
   EXPECT_EQ( names.size(), all.size() );
   EXPECT_EQ( texts.size(), all.size() );
}

TEST_F( Inspect, QuotesAndBackslashesInNamesAreEscaped ) {
   file( "p.yaml",
         "application: 'R\\1 \"x\"'\nagents: {'A \"B\\': {'S, see /': {complete: never}}}\n" );
   EXPECT_EQ( ordovan( "inspect p.yaml statusSm/application" ).out, "R\\\\1 \"x\"\n" )
      << "alone, without quotes";
   auto const machine = ordovan( "inspect p.yaml statusSm --depth 1" ).out;
   EXPECT_NE( machine.find( "\n  application: \"R\\\\1 \\\"x\\\"\"\n" ), std::string::npos )
      << machine;
   EXPECT_EQ( ordovan( "inspect p.yaml configSm/status/stage --depth 2" ).out,
              "1 member\n"
              "  [\"S, see /\"]: Stage::StageStatus \"status/S, see /\"\n"
              "    isNondestructing: true\n"
              "    name: \"S, see /\"\n"
              "    event: 1 member, see configSm/status/stage[\"S, see /\"]/event\n"
              "    dependency: none\n"
              "    timeout: inf\n"
              "    critical: false\n"
              "    parent: Stage::Status status, see configSm/status\n" );
   EXPECT_NE( ordovan( "inspect p.yaml 'configSm/status/stage[\"S, see /\"]/event'" )
                 .out.find( "  [\"A \\\"B\\\\\"]: Stage::EventConfig \"S, see /:A \\\"B\\\\\"\n" ),
              std::string::npos );
}

// --------------------------------------------------------------------------------------- depth

TEST_F( Inspect, ShowsAsManyLevelsAsAreAskedFor ) {
   EXPECT_EQ( value( "--at 2 --depth 0" ), "Stage::Ordovan ordovan, see /\n" );
   EXPECT_EQ( value( "--at 2 --depth 1" ), "Stage::Ordovan ordovan\n"
                                           "  isNondestructing: true\n"
                                           "  configSm: Stage::ConfigSm config, see configSm\n"
                                           "  statusSm: Stage::StatusSm, see statusSm\n"
                                           "  parent: null\n" );
   std::string const stageSm = "--at 2 statusSm/stageSm ";
   EXPECT_EQ( value( stageSm + "--depth 0" ), "2 members, see statusSm/stageSm\n" );
   EXPECT_NE( value( stageSm + "--depth 1" )
                 .find( "\n  [Net]: Stage::StageSm status/Net, see statusSm/stageSm[Net]\n" ),
              std::string::npos );
   EXPECT_NE( value( stageSm + "--depth 2" )
                 .find( "\n    pendingEvent: 1 member, see statusSm/stageSm[Net]/pendingEvent\n" ),
              std::string::npos );
   EXPECT_EQ( value( "statusSm/stageEnableSm --depth 0" ), "none\n" );
   EXPECT_EQ( value( "statusSm/application --depth 0" ), "Router\n" );
   EXPECT_EQ( value( "--at 2 --depth 100" ), value( "--at 2" ) ) << "where there is no screen";
}

TEST_F( Inspect, EveryDepthShowsTheSameBeginningOfEachLine ) {
   for( int depth = 1; depth != 8; ++depth ) {
      std::istringstream lines( value( "--at 2 --depth " + std::to_string( depth ) ) );
      std::istringstream deeper( value( "--at 2 --depth " + std::to_string( depth + 1 ) ) );
      for( std::string line; std::getline( lines, line ); ) {
         std::string other;
         auto const indentation = line.find_first_not_of( ' ' );
         do {
            ASSERT_TRUE( std::getline( deeper, other ) ) << line;
         } while( other.find_first_not_of( ' ' ) > indentation );
         EXPECT_LE( indentation, 2U * static_cast< unsigned >( depth ) );
         EXPECT_TRUE( line == other || line.starts_with( other + ", see " ) ) << line << "\n"
                                                                              << other;
      }
   }
}

TEST_F( Inspect, AsJsonWhatIsTooDeepIsAPlaceOrANumber ) {
   EXPECT_EQ(
      json( "--at 2 --depth 1" ),
      ( Json{
         { "type", "Stage::Ordovan" },
         { "name", "ordovan" },
         { "attributes",
           { { "isNondestructing", true },
             { "configSm",
               { { "type", "Stage::ConfigSm" }, { "name", "config" }, { "see", "configSm" } } },
             { "statusSm", { { "type", "Stage::StatusSm" }, { "see", "statusSm" } } },
             { "parent", nullptr } } } } ) );
   EXPECT_EQ( json( "--at 2 statusSm/stageSm --depth 0" ), 2 );
   EXPECT_EQ( json( "--at 2 --depth 2" )[ "attributes" ][ "statusSm" ][ "attributes" ][ "stageSm" ],
              2 );
   EXPECT_EQ( json( "--at 2 --depth 100" ), json( "--at 2" ) );
}

TEST_F( Inspect, WithoutADepthShowsWhatFitsTheTerminal ) {
   std::size_t before = 0;
   for( unsigned const rows : { 3U, 10U, 24U, 50U, 100U, 500U } ) {
      auto const run =
         Process::onTerminal( folder, { 100, rows }, {}, { "inspect", "plan.yaml", "--at", "2" } );
      EXPECT_EQ( run.status, 0 );
      auto const used = Tools::rowsOf( run.out, 100 );
      if( rows > 8 )
         EXPECT_LT( used, rows ) << run.out;
      bool const cut = run.out.find( "--depth shows it" ) != std::string::npos;
      EXPECT_EQ( cut, rows < 400 ) << run.out;
      EXPECT_GE( used, 5U ) << "what belongs to it directly, whatever the size";
      EXPECT_GE( used, before );
      before = used;
   }
   EXPECT_GT( before, 100U );
   // A row for the hint that there is more, and one for the shell's prompt.
   auto const two = static_cast< unsigned >( Tools::rowsOf( value( "--at 2 --depth 2" ), 100 ) );
   for( unsigned const rows : { two + 1, two + 2 } ) {
      auto text =
         Process::onTerminal( folder, { 100, rows }, {}, { "inspect", "plan.yaml", "--at", "2" } )
            .out;
      std::erase( text, '\r' );
      auto const * const depth = rows == two + 1 ? "1" : "2";
      EXPECT_TRUE( text.starts_with( value( std::string( "--at 2 --depth " ) + depth ) ) ) << text;
   }
   for( std::string const option : { "--json", "--depth=100" } ) {
      auto const whole = Process::onTerminal( folder, { 100, 24 }, {},
                                              { "inspect", "plan.yaml", "--at", "2", option } );
      auto text = whole.out;
      std::erase( text, '\r' );
      EXPECT_EQ( text, value( "--at 2 " + option ) );
   }
}

TEST_F( Inspect, ADepthIsAWholeNumber ) {
   for( std::string const depth : { "-1", "x", "1.5", "99999999999999999999999", "1x" } ) {
      EXPECT_EQ( error( "--depth=" + depth ).substr( 0, 56 ),
                 "ordovan inspect: --depth: N is a whole number from 0 on\n" )
         << depth;
   }
}

TEST( Tree, ShowsEntriesByTheirPlaces ) {
   auto const log = Stage::Log::LogIs( "log" );
   log->logEnq( { 1.5, "first \"one\"" } );
   log->logEnq( { Kiv::infinity, "second" } );
   Kiv::Ptr< Kiv::PtrInterface const > const root = log;
   EXPECT_EQ( Tools::shown( root, "log", Tools::Format::text ),
              "2 members\n"
              "  [0]: time 1.5, msg \"first \\\"one\\\"\"\n"
              "  [1]: time inf, msg \"second\"\n" );
   EXPECT_EQ( Tools::shown( root, "log[1]", Tools::Format::text ), "time inf, msg \"second\"\n" );
   EXPECT_EQ( Json::parse( Tools::shown( root, "log", Tools::Format::json ) ),
              ( Json{ { "0", { { "time", 1.5 }, { "msg", "first \"one\"" } } },
                      { "1", { { "time", "inf" }, { "msg", "second" } } } } ) );
   try {
      Tools::shown( root, "log[last]", Tools::Format::text );
      ADD_FAILURE() << "it was found";
   } catch( Tools::PathError const & e ) {
      EXPECT_STREQ( e.what(), "log has no member [last]; it has [0], [1]" );
   }
}

TEST( Tree, EndsHoweverObjectsPointAtEachOther ) {
   auto const outer = Kiv::Dir::DirIs( "outer" );
   auto const inner = Kiv::Dir::DirIs( "inner" );
   outer->entityPtrIs( inner );
   inner->entityPtrIs( outer );
   inner->entityPtrIs( inner );
   EXPECT_EQ( Tools::shown( Kiv::Ptr< Kiv::PtrInterface const >( outer ), "", Tools::Format::text ),
              "Kiv::Dir outer\n"
              "  entityPtr: 1 member\n"
              "    [inner]: Kiv::Dir inner\n"
              "      entityPtr: 2 members\n"
              "        [inner]: Kiv::Dir inner, see entityPtr[inner]\n"
              "        [outer]: Kiv::Dir outer, see /\n"
              "      parent: null\n"
              "  parent: null\n" );
   outer->entityPtrDelAll();
   inner->entityPtrDelAll();
}

TEST( Tree, ANumberThatIsNoneIsAWord ) {
   auto const event = Stage::EventConfig::EventConfigIs( "Boot", "agent" );
   event->timeoutIs( Kiv::valueFromString< double >( "nan" ) );
   Kiv::Ptr< Kiv::PtrInterface const > const root = event;
   EXPECT_EQ( Tools::shown( root, "timeout", Tools::Format::json ), "\"nan\"\n" );
   EXPECT_EQ( Tools::shown( root, "timeout", Tools::Format::text ), "nan\n" );
}

// --------------------------------------------------------------------------------------- paths

TEST( Path, IsNamesAndKeys ) {
   EXPECT_EQ( readPath( "" ), std::vector< Step >() );
   EXPECT_EQ( readPath( "/" ), std::vector< Step >() );
   EXPECT_EQ( readPath( "/a/b[k]/" ), ( std::vector< Step >{ { "a", {} }, { "b", "k" } } ) );
   EXPECT_EQ( readPath( "a[x/y z]" ), ( std::vector< Step >{ { "a", "x/y z" } } ) );
   EXPECT_EQ( readPath( "a[]" ), ( std::vector< Step >{ { "a", "" } } ) );
   EXPECT_EQ( readPath( "a[\"q\\\"\\\\\\x41\\n]\"]/b" ),
              ( std::vector< Step >{ { "a", "q\"\\A\n]" }, { "b", {} } } ) );
}

TEST( Path, ThatIsNoneIsRefusedWithThePlace ) {
   EXPECT_EQ( pathError( "a//b" ), "path \"a//b\": expected the name of an attribute at byte 3" );
   EXPECT_EQ( pathError( "[k]" ), "path \"[k]\": expected the name of an attribute at byte 1" );
   EXPECT_EQ( pathError( "a[k" ), "path \"a[k\": expected \"]\" at byte 4" );
   EXPECT_EQ( pathError( "a[k]b" ), "path \"a[k]b\": expected \"/\" at byte 5" );
   EXPECT_EQ( pathError( "a[k[" ), "path \"a[k[\": expected \"]\" at byte 4" );
   EXPECT_EQ( pathError( "a]" ), "path \"a]\": expected \"/\" at byte 2" );
   EXPECT_NE( pathError( "a[\"k" ), "" );
   EXPECT_NE( pathError( "a[\"\\q\"]" ), "" );
   EXPECT_NE( pathError( "a[\"\\x4" ), "" );
   EXPECT_NE( pathError( "a[\"\\xzz\"]" ), "" );
   EXPECT_NE( pathError( "a[\"\\" ), "" );
}

TEST( Path, AKeyInBracketsReadsBackWhateverItsBytesAre ) {
   for( std::string const & key : { std::string( "plain" ), std::string( "Net:Routing" ),
                                    std::string( "a b" ), std::string( "" ), std::string( "]" ),
                                    std::string( "\"\\[]/" ), std::string( "\n\t\0\x7f", 4 ),
                                    std::string( "\xff\xc3" ), std::string( "caf\xc3\xa9" ) } ) {
      EXPECT_EQ( readPath( "a" + Tools::bracketed( key ) ),
                 ( std::vector< Step >{ { "a", key } } ) )
         << Tools::bracketed( key );
   }
   EXPECT_EQ( Tools::bracketed( "plain" ), "[plain]" );
   EXPECT_EQ( Tools::bracketed( "a b" ), "[\"a b\"]" );
   EXPECT_EQ( Tools::bracketed( "a\nb" ), "[\"a\\x0ab\"]" );
   EXPECT_EQ( Tools::bracketed( "caf\xc3\xa9" ), "[caf\xc3\xa9]" );
   EXPECT_EQ( Tools::written( { "stage", "Net" } ), "stage[Net]" );
}

} // namespace
