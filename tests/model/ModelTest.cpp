// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Random plans: the library, run by the simulation, and the model come to the same.
//
// ORDOVAN_TEST_SEEDS       how many plans, 500 if not said otherwise
// ORDOVAN_TEST_FIRST_SEED  the seed of the first, to play one again
// ORDOVAN_TEST_SHOW        if set, plans that end in more than one way are shown, with the ways
#include "Model.h"
#include "RandomPlan.h"

#include <gtest/gtest.h>

#include <Index/Oracle.h>
#include <Kiv/Kiv.h>
#include <simulation/Run.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <limits>
#include <set>
#include <sstream>

#include <unistd.h>

namespace {

using model::Line;
using model::Played;
using Simulation::Plan;
using Simulation::Result;
using Stage::AnswersBy;

unsigned constexpr orders = 8;

std::uint64_t fromEnvironment( char const * name, std::uint64_t usual ) {
   char const * const text = std::getenv( name );
   return text ? std::strtoull( text, nullptr, 10 ) : usual;
}

void orderIs( unsigned order ) { Kiv::detail::hashSeed = ( order + 1 ) * 0x9e3779b9U; }

// The order in which the library walks its tables now.
std::uint64_t rank( std::string const & name ) { return Kiv::Name( name ).hash(); }

class Recorder : public Simulation::Observer {
 public:
   std::vector< Line > line;
   void onLogEntry( double t, std::string const & msg ) override { line.push_back( { t, msg } ); }
   void onMessage( Simulation::Message const & message ) override {
      EXPECT_EQ( message.severity, 4U );
      line.push_back( { message.t, message.id + ": " + message.text } );
   }
};

// What is printed to standard output. One file serves all runs: many thousands of them are made.
class Printed {
 public:
   template< class F >
   auto during( F f ) {
      std::fflush( stdout );
      int const before = dup( 1 );
      dup2( fileno( file_ ), 1 );
      auto const result = f();
      std::fflush( stdout );
      dup2( before, 1 );
      close( before );
      return result;
   }
   // Since it was asked before.
   std::string text() {
      auto const length = lseek( fileno( file_ ), 0, SEEK_CUR );
      std::string text( static_cast< std::size_t >( length ), ' ' );
      EXPECT_EQ( pread( fileno( file_ ), text.data(), text.size(), 0 ), length );
      EXPECT_EQ( ftruncate( fileno( file_ ), 0 ), 0 );
      lseek( fileno( file_ ), 0, SEEK_SET );
      return text;
   }

 private:
   std::FILE * const file_ = std::tmpfile();
};

Played playLibrary( Plan const & plan ) {
   Recorder recorder;
   static Printed printed;
   auto const result = printed.during( [ & ] { return Simulation::run( plan, { &recorder } ); } );
   return { result, recorder.line, printed.text() };
}

std::string number( double value ) {
   std::ostringstream text;
   text.precision( 17 );
   text << value;
   return text.str();
}

std::string describe( std::string const & name, Simulation::StageResult const & stage ) {
   std::string text =
      name + ": " + ( stage.active ? "active " : "" ) + ( stage.complete ? "complete " : "" ) +
      ( stage.timedOut ? "timedOut " : "" ) + ( stage.critical ? "critical " : "" ) + "timeout " +
      number( stage.timeout ) + " completionTime " + number( stage.completionTime );
   if( stage.active )
      text += " activeSince " + number( stage.activeSince );
   if( stage.timedOut )
      text += " timedOutAt " + number( stage.timedOutAt );
   text += " dependency";
   for( auto const & on : stage.dependency )
      text += " " + on;
   text += " event";
   for( auto const & [ agent, complete ] : stage.event )
      text += " " + agent + ( complete ? "+" : "-" );
   text += " pending";
   for( auto const & [ uid, since ] : stage.pending )
      text += " " + uid;
   return text + "\n";
}

// Everything that the rules decide.
std::string describeEnd( Result const & result ) {
   std::string text = "end at " + number( result.t ) + ": " +
                      std::string( Simulation::outcomeName( result.outcome ) ) +
                      ( result.complete ? ", complete" : "" ) +
                      ( result.started ? ", started" : "" ) +
                      ( result.enabled ? ", enabled" : "" ) + "\n";
   for( auto const & [ name, stage ] : result.stage )
      text += describe( name, stage );
   for( auto const & [ name, value ] : result.progress )
      text += "progress " + name + ( value ? " true\n" : " false\n" );
   return text;
}

std::string describe( Played const & played ) {
   std::string text;
   for( auto const & line : played.line )
      text += number( line.t ) + " " + line.text + "\n";
   return text + played.printed + "\n" + describeEnd( played.result );
}

// What is left when the order of lines within one instant does not count.
std::string withoutOrder( Played played ) {
   std::sort( played.line.begin(), played.line.end() );
   std::sort( played.printed.begin(), played.printed.end() );
   return describe( played );
}

std::string firstDifference( std::string const & left, std::string const & right ) {
   std::istringstream a( left );
   std::istringstream b( right );
   std::string lineOfA;
   std::string lineOfB;
   while( std::getline( a, lineOfA ) && std::getline( b, lineOfB ) && lineOfA == lineOfB ) {
   }
   return "library: " + lineOfA + "\nmodel:   " + lineOfB;
}

// Under each of the orders of all tables, the library and the model do the same in the same
// sequence: by its indexes, by walking over everything, and by both, which are compared at every
// decision. Returns the different ways, apart from the sequence within one instant.
std::set< std::string > waysOf( Plan const & plan, std::string const & what ) {
   auto const seedBefore = Kiv::detail::hashSeed;
   std::set< std::string > ways;
   for( unsigned order = 0; order != orders; ++order ) {
      orderIs( order );
      Stage::answersBy =
         std::array{ AnswersBy::index, AnswersBy::walk, AnswersBy::both }[ order % 3 ];
      auto const expected = model::play( plan, rank );
      auto const library = describe( playLibrary( plan ) );
      auto const byModel = describe( expected );
      if( library != byModel ) {
         ADD_FAILURE() << what << ", order " << order << "\n"
                       << model::yamlOf( plan ) << "\nLIBRARY\n"
                       << library << "\nMODEL\n"
                       << byModel << "\nFIRST DIFFERENCE\n"
                       << firstDifference( library, byModel );
      }
      ways.insert( withoutOrder( expected ) );
   }
   Kiv::detail::hashSeed = seedBefore;
   Stage::answersBy = AnswersBy::index;
   return ways;
}

// How many are left when declared messages do not count.
std::size_t waysApartFromMessages( std::set< std::string > const & ways ) {
   std::set< std::string > left;
   for( auto const & way : ways ) {
      std::istringstream lines( way );
      std::string text;
      for( std::string line; std::getline( lines, line ); )
         if( line.find( " ORDOVAN_" ) == line.npos )
            text += line + "\n";
      left.insert( text );
   }
   return left.size();
}

std::set< std::string > linesOf( std::string const & text ) {
   std::istringstream lines( text );
   std::set< std::string > all;
   for( std::string line; std::getline( lines, line ); )
      all.insert( line );
   return all;
}

// A plan, and of each way the lines that another lacks.
void show( std::uint64_t seed, Plan const & plan, std::set< std::string > const & ways ) {
   std::cout << "seed " << seed << ", " << ways.size() << " ways\n" << model::yamlOf( plan );
   unsigned number = 0;
   for( auto const & way : ways ) {
      std::cout << "way " << ++number << "\n";
      for( auto const & line : linesOf( way ) )
         if( !std::all_of( ways.begin(), ways.end(), [ & ]( auto const & other ) {
                return linesOf( other ).contains( line );
             } ) )
            std::cout << "   " << line << "\n";
   }
   std::cout << "\n";
}

TEST( Model, TheLibraryDoesWhatTheRulesSayInEveryOrderOfItsTables ) {
   auto const first = fromEnvironment( "ORDOVAN_TEST_FIRST_SEED", 1 );
   auto const count = fromEnvironment( "ORDOVAN_TEST_SEEDS", 500 );
   std::uint64_t undecided = 0;
   std::uint64_t undecidedState = 0;
   std::uint64_t seed = first;
   for( unsigned failures = 0; seed != first + count && failures < 3; ++seed ) {
      auto const plan = model::randomPlan( seed );
      auto const ways = waysOf( plan, "seed " + std::to_string( seed ) );
      undecided += ways.size() > 1;
      undecidedState += waysApartFromMessages( ways ) > 1;
      if( ways.size() > 1 && std::getenv( "ORDOVAN_TEST_SHOW" ) )
         show( seed, plan, ways );
      failures += testing::Test::HasFailure();
   }
   auto const played = seed - first;
   std::cout << undecided << " of " << played << " plans end in more than one way under " << orders
             << " orders of all tables: "
             << 100.0 * static_cast< double >( undecided ) / static_cast< double >( played )
             << " %; " << undecidedState << " differ in more than declared messages\n";
   if( played >= 100 )
      EXPECT_LE( undecided * 20, played );
}

Simulation::Event event( std::string const & stage, Simulation::Behaviour::Kind complete ) {
   Simulation::Event made;
   made.stage = stage;
   made.complete.kind = complete;
   return made;
}

TEST( Model, AgreesWithTheLibraryOnTimeoutsAtTheEndOfSinglePrecision ) {
   double const largest = std::numeric_limits< float >::max();
   double const half = std::ldexp( 1, 103 ); // of its last place
   for( auto const & [ timeout, kept ] : { std::pair{ largest, largest },
                                           { std::nextafter( largest, 1e300 ), largest },
                                           { std::nextafter( largest + half, 0 ), largest },
                                           { largest + half, Simulation::infinity },
                                           { 1e39, Simulation::infinity } } ) {
      Plan plan;
      auto late = event( "Late", Simulation::Behaviour::Kind::never );
      late.timeout = timeout;
      plan.agent = { { "agent", { late }, {} } };
      waysOf( plan, number( timeout ) );
      EXPECT_EQ( playLibrary( plan ).result.stage.at( "Late" ).timeout, kept ) << number( timeout );
   }
}

// Disks is critical because Shell, which is critical, waits for it; it is late, and then the agent
// of both leaves. If Shell's event goes first, Disks is no longer critical by the time it becomes
// complete, and nobody is told that it resumed.
TEST( Orders, DecideWhetherAStageResumesOrHasCeasedToBeCriticalWhenBothHappenAtOnce ) {
   Plan plan;
   auto disks = event( "Disks", Simulation::Behaviour::Kind::never );
   disks.timeout = 1;
   auto shell = event( "Shell", Simulation::Behaviour::Kind::afterSeconds );
   shell.critical = true;
   shell.dependency.push_back( { "Disks", true } );
   plan.agent.push_back( { "Platform", { disks, shell }, {} } );
   plan.timeline.push_back( { 5, Simulation::Leave{ "Platform" }, {}, {}, {} } );
   auto const ways = waysOf( plan, "Disks and Shell" );
   ASSERT_EQ( ways.size(), 2U );
   std::string const resumed = "5 ORDOVAN_STAGE_COMPLETE_AFTER_TIMEOUT: application resumed after "
                               "stage Disks completed after timeout.\n";
   unsigned withMessage = 0;
   std::set< std::string > without;
   for( auto way : ways ) {
      if( auto const at = way.find( resumed ); at != way.npos ) {
         way.erase( at, resumed.size() );
         ++withMessage;
      }
      without.insert( way );
   }
   EXPECT_EQ( withMessage, 1U );
   EXPECT_EQ( without.size(), 1U ); // nothing else differs
}

// Last waits for Middle, Middle for Loop, Loop for itself. One agent, to which Middle and a part of
// Last belong, leaves as Last becomes critical. If Last is looked at first, Loop becomes critical
// through Middle, and holds itself critical from then on.
TEST( Orders, DecideWhetherACycleHasBeenCriticalBeforeItWasCutOff ) {
   auto const never = Simulation::Behaviour::Kind::never;
   auto last = event( "Last", never );
   last.dependency.push_back( { "Middle", true } );
   auto middle = event( "Middle", never );
   middle.dependency.push_back( { "Loop", true } );
   auto loop = event( "Loop", never );
   loop.dependency.push_back( { "Loop", true } );
   Plan plan;
   plan.agent = { { "Stays", { last, loop }, {} },
                  { "Leaves", { event( "Last", never ), middle }, {} } };
   plan.timeline.push_back( { 1, Simulation::Leave{ "Leaves" }, {}, {}, {} } );
   plan.timeline.push_back(
      { 1,
        Simulation::Set{ "Stays", "Last", { Simulation::CriticalWrite{ true } } },
        {},
        {},
        {} } );
   auto const ways = waysOf( plan, "a cycle cut off" );
   ASSERT_EQ( ways.size(), 2U );
   unsigned critical = 0;
   for( auto const & way : ways )
      critical += way.find( "Loop: critical" ) != way.npos;
   EXPECT_EQ( critical, 1U );
}

// Hall waits for what nobody declares, Gate for Hall and Lane, and Lane, which came after the start
// and so asks for nothing itself, for Hall. Their agent makes Gate critical, and with it Hall and
// Lane, and leaves at once. If it leaves Gate first, all is as before by the time that Hall is
// heard of; if it leaves Lane first, Hall is critical a little longer and asks for a decision,
// which finds that Lane has nothing to wait for.
TEST( Orders, DecideWhetherAMomentOfBeingCriticalBringsADecisionAbout ) {
   auto const never = Simulation::Behaviour::Kind::never;
   auto hall = event( "Hall", never );
   hall.dependency.push_back( { "Nowhere", true } );
   auto gate = event( "Gate", never );
   gate.dependency = { { "Hall", true }, { "Lane", true } };
   auto lane = event( "Lane", never );
   lane.dependency.push_back( { "Hall", true } );
   Plan plan;
   plan.agent = { { "Stays", { hall, gate }, {} } };
   plan.timeline.push_back(
      { 1, Simulation::Join{ "Leaves", { lane, event( "Gate", never ) } }, {}, {}, {} } );
   plan.timeline.push_back(
      { 2,
        Simulation::Set{ "Leaves", "Gate", { Simulation::CriticalWrite{ true } } },
        {},
        {},
        {} } );
   plan.timeline.push_back( { 2, Simulation::Leave{ "Leaves" }, {}, {}, {} } );
   auto const ways = waysOf( plan, "a critical moment" );
   ASSERT_EQ( ways.size(), 2U );
   unsigned started = 0;
   for( auto const & way : ways )
      started += way.find( "2 stage Lane started" ) != way.npos;
   EXPECT_EQ( started, 1U );
}

// First's release is overtaken: Loop makes it critical again. Other, which First waits for, stays
// critical whoever of the two is told first; else First and Other would wait for each other.
TEST( Orders, DecideNothingWhenACycleTakesAReleaseBack ) {
   auto const after = []( char const * stage, double seconds ) {
      auto made = event( stage, Simulation::Behaviour::Kind::afterSeconds );
      made.complete.seconds = seconds;
      return made;
   };
   auto first = after( "First", 1 );
   first.critical = true;
   first.dependency = { { "Loop", true }, { "Other", true } };
   auto loop = after( "Loop", 7 );
   loop.critical = true;
   auto other = after( "Other", 1 );
   other.dependency = { { "Slow", true } };
   Plan plan;
   plan.agent = { { "Platform", { first, loop, other, after( "Slow", 3 ) }, {} } };
   plan.timeline.push_back(
      { 1,
        Simulation::Set{ "Platform", "Loop", { Simulation::DependencyWrite{ "First", true } } },
        {},
        {},
        {} } );
   plan.timeline.push_back(
      { 1,
        Simulation::Set{ "Platform", "First", { Simulation::CriticalWrite{ false } } },
        {},
        {},
        {} } );
   auto const ways = waysOf( plan, "a release taken back" );
   ASSERT_EQ( ways.size(), 1U );
   std::string const & way = *ways.begin();
   EXPECT_NE( way.find( "3 stage Other started\n" ), way.npos );
   EXPECT_NE( way.find( "8 Stage progression is complete\n" ), way.npos );
   EXPECT_NE( way.find( "Other: active complete critical" ), way.npos );
}

// One agent hands a stage over to another. If it goes before the other comes, the stage is complete
// in between, and stays so.
TEST( Orders, OfWritesDecideWhetherAStageIsCompleteBetweenTwoAgents ) {
   auto const never = Simulation::Behaviour::Kind::never;
   Simulation::TimelineEntry const goes{ 1, Simulation::Withdraw{ "Old", "Boot" }, {}, {}, {} };
   Simulation::TimelineEntry const comes{
      1, Simulation::Declare{ "New", event( "Boot", never ) }, {}, {}, {} };
   Plan plan;
   plan.agent = { { "Old", { event( "Boot", never ) }, {} }, { "New", {}, {} } };
   plan.timeline = { goes, comes };
   auto const goesFirst = waysOf( plan, "goes, then comes" );
   plan.timeline = { comes, goes };
   auto const comesFirst = waysOf( plan, "comes, then goes" );
   ASSERT_EQ( goesFirst.size(), 1U );
   ASSERT_EQ( comesFirst.size(), 1U );
   EXPECT_NE( goesFirst.begin()->find( "Boot: active complete" ), std::string::npos );
   EXPECT_EQ( comesFirst.begin()->find( "complete timeout" ), std::string::npos );
   EXPECT_NE( comesFirst.begin()->find( "pending Boot:New" ), std::string::npos );
}

} // namespace
