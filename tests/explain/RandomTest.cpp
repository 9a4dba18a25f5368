// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Roots are what holds a start-up up: random start-ups are stopped at a random moment, and then
// everything is put right but one root, or all of them.
#include "../model/Player.h"
#include "../model/RandomPlan.h"
#include "ExplainTestSupport.h"

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <map>
#include <set>

namespace {

using namespace testing_support;
using Kind = Explanation::Root::Kind;
using Names = std::set< std::string >;

std::uint64_t fromEnvironment( char const * variable, std::uint64_t otherwise ) {
   char const * const value = std::getenv( variable );
   return value ? std::strtoull( value, nullptr, 10 ) : otherwise;
}

// A random start-up, up to a moment.
class StartUp {
 public:
   StartUp( Simulation::Plan const & plan, unsigned instants ) : player_( plan ) {
      struct Stop {};
      testing::internal::CaptureStdout();
      sink_ = Kiv::logSinkIs( []( Kiv::LogMessage const & ) {} );
      try {
         player_.play( [ & ] {
            player_.world.idle();
            if( instants-- == 0 )
               throw Stop();
         } );
      } catch( Stop const & ) {
      }
   }
   ~StartUp() {
      Kiv::logSinkIs( sink_ );
      // Lines about suspensions, and failures if there are any.
      std::string const shown = testing::internal::GetCapturedStdout();
      if( testing::Test::HasFailure() )
         std::fputs( shown.c_str(), stdout );
   }
   StartUp( StartUp const & ) = delete;
   StartUp & operator=( StartUp const & ) = delete;

   Explanation explained() const { return Stage::explain( *player_.statusSm ); }
   Explanation part( Kiv::Name const & stage ) const {
      return Stage::explain( *player_.statusSm, stage );
   }
   Stage::Status & status() const { return *player_.world.status; }

   Names unfinished() const {
      Names names;
      for( auto i = status().stageIteratorConst(); i; ++i ) {
         auto const sm = player_.statusSm->stageSm( i.key() );
         if( !status().activeStage( i.key() ) || !sm || !sm->complete() )
            names.insert( i.key().str() );
      }
      return names;
   }

   // Puts right what the root says; only the tests write events that they do not own.
   void resolve( Explanation const & e, Explanation::Root const & root ) {
      switch( root.kind ) {
      case Kind::events:
         for( auto const & one : e.stage[ root.of[ 0 ] ].event )
            event( root.stage, one.agent ).completeIs( true );
         break;
      case Kind::undeclared:
         player_.world.declare( "helper", root.stage )->completeIs( true );
         break;
      case Kind::cycle:
         for( auto const & one : root.path[ 0 ].by )
            event( e.stage[ root.path[ 0 ].stage ].name, one.agent )
               .dependencyDel( e.stage[ root.path[ 1 % root.path.size() ].stage ].name );
         break;
      case Kind::disabled:
         player_.world.config->enabledIs( true );
         break;
      case Kind::decision:
         player_.statusSm->doNextStage();
         break;
      case Kind::untracked:
         ADD_FAILURE() << "no stage is untracked when the loop is quiet";
      }
      player_.world.idle();
   }

   // Puts everything right but `kept`, as long as there is anything; how often it did.
   int resolveAllBut( std::function< bool( Explanation::Root const & ) > const & kept ) {
      for( int count = 0; count != 1000; ++count ) {
         auto const e = explained();
         auto const root = std::find_if( e.root.begin(), e.root.end(), std::not_fn( kept ) );
         if( root == e.root.end() )
            return count;
         resolve( e, *root );
      }
      ADD_FAILURE() << "it never ends";
      return -1;
   }

 private:
   Stage::EventConfig & event( Kiv::Name const & stage, Kiv::String8 const & agent ) const {
      return const_cast< Stage::EventConfig & >( *status().stage( stage )->event( agent ) );
   }

   model::Player player_;
   Kiv::LogSink sink_;
};

struct ExplainRandom : testing::Test {
   static std::uint64_t seeds() { return fromEnvironment( "ORDOVAN_TEST_SEEDS", 500 ); }
   // For each plan and several moments: `check` of a way to make that start-up again.
   template< class Check >
   void forEach( Check check ) {
      auto const first = fromEnvironment( "ORDOVAN_TEST_FIRST_SEED", 1 );
      auto const last = first + seeds();
      for( auto seed = first; seed != last; ++seed ) {
         auto const plan = model::randomPlan( seed );
         for( unsigned const instants : { 0U, static_cast< unsigned >( 1 + seed % 7 ), 1000U } ) {
            SCOPED_TRACE( "seed " + std::to_string( seed ) + ", instant " +
                          std::to_string( instants ) + "\n" + model::yamlOf( plan ) );
            check( [ & ]( auto const & use ) {
               StartUp startUp( plan, instants );
               use( startUp );
            } );
            if( HasFatalFailure() || HasNonfatalFailure() )
               return;
         }
      }
   }
};

Names namesOf( Explanation const & e, std::vector< Explanation::Index > const & places ) {
   Names names;
   for( auto const i : places )
      names.insert( e.stage[ i ].name.str() );
   return names;
}

TEST_F( ExplainRandom, EveryUnfinishedStageIsARootOrWaitsForOne ) {
   std::size_t roots = 0;
   forEach( [ & ]( auto const & startUp ) {
      startUp( [ & ]( StartUp & s ) {
         auto const e = s.explained();
         Names all, underRoots;
         for( auto const & stage : e.stage )
            all.insert( stage.name.str() );
         EXPECT_EQ( all, s.unfinished() );
         for( auto const & root : e.root ) {
            ++roots;
            auto const waiting = waitingFor( e, root );
            EXPECT_EQ( waiting.size(), root.waiting );
            underRoots.merge( namesOf( e, waiting ) );
            underRoots.merge( namesOf( e, root.of ) );
         }
         EXPECT_EQ( underRoots, all );
      } );
   } );
   EXPECT_GT( roots, seeds() );
}

// The part of a stage has the roots that it waits for, and no others.
TEST_F( ExplainRandom, APartHasTheRootsThatItsStageWaitsFor ) {
   forEach( [ & ]( auto const & startUp ) {
      startUp( [ & ]( StartUp & s ) {
         auto const e = s.explained();
         std::map< std::string, Lines > expected;
         for( auto const & root : e.root ) {
            auto concerned = namesOf( e, waitingFor( e, root ) );
            concerned.merge( namesOf( e, root.of ) );
            for( auto const & name : concerned )
               expected[ name ].push_back( sentence( e, root ) );
         }
         for( auto const & stage : e.stage ) {
            auto const part = s.part( stage.name );
            // A decision's own stages are those of the part.
            Lines lines;
            for( auto const & root : part.root )
               if( root.kind != Kind::decision )
                  lines.push_back( sentence( part, root ) );
            auto & wanted = expected[ stage.name.str() ];
            std::erase_if( wanted, []( auto const & line ) {
               return line.find( "nothing but the next decision" ) != std::string::npos;
            } );
            EXPECT_EQ( lines, wanted ) << stage.name;
         }
      } );
   } );
}

TEST_F( ExplainRandom, PuttingTheRootsRightLetsTheStartUpComplete ) {
   forEach( [ & ]( auto const & startUp ) {
      startUp( [ & ]( StartUp & s ) {
         s.resolveAllBut( []( auto const & ) { return false; } );
         EXPECT_EQ( s.unfinished(), Names() );
         EXPECT_TRUE( s.status().complete() );
      } );
   } );
}

// Each root lets something move by itself: what it says is not there afterwards.
TEST_F( ExplainRandom, PuttingARootRightTakesItAway ) {
   forEach( [ & ]( auto const & startUp ) {
      std::size_t roots = 1;
      for( std::size_t i = 0; i < roots; ++i )
         startUp( [ & ]( StartUp & s ) {
            auto const e = s.explained();
            roots = e.root.size();
            if( roots == 0 )
               return;
            auto const root = e.root[ i ];
            s.resolve( e, root );
            // Another cycle may be left among the same stages.
            auto const after = s.explained();
            for( auto const & left : after.root )
               EXPECT_FALSE(
                  left.kind == root.kind && left.stage == root.stage &&
                  ( root.kind != Kind::cycle || sentence( after, left ) == sentence( e, root ) ) )
                  << sentence( e, root );
         } );
   } );
}

// As long as one root is left as it is, what waits for it does not complete, and everything else
// does when all other roots are put right, also those that come up by and by.
TEST_F( ExplainRandom, WhatWaitsForARootAndNothingElseIsLeftWhenAllOthersArePutRight ) {
   std::size_t tried = 0;
   forEach( [ & ]( auto const & startUp ) {
      std::size_t roots = 1;
      for( std::size_t i = 0; i < roots; ++i )
         startUp( [ & ]( StartUp & s ) {
            auto const e = s.explained();
            roots = e.root.size();
            bool const cycles = std::any_of( e.root.begin(), e.root.end(), []( auto const & one ) {
               return one.kind == Kind::cycle;
            } );
            // A cycle is put right by taking a dependency away, through which others may have
            // waited for this root. A decision cannot be put off.
            if( roots == 0 || cycles || e.root[ i ].kind == Kind::decision )
               return;
            auto const root = e.root[ i ];
            Names expected = namesOf( e, waitingFor( e, root ) );
            expected.merge( namesOf( e, root.of ) );
            Names const before = s.unfinished();
            s.resolveAllBut( [ & ]( auto const & one ) {
               return one.kind == root.kind && one.stage == root.stage;
            } );
            // Stages that were declared to put others right may be held back as well.
            Names left;
            for( auto const & name : s.unfinished() )
               if( before.count( name ) )
                  left.insert( name );
            EXPECT_EQ( left, expected ) << sentence( e, root );
            ++tried;
         } );
   } );
   EXPECT_GT( tried, seeds() );
}

// A start-up that is explained after each single callback is the same start-up.
TEST_F( ExplainRandom, ExplainingAtEveryStepChangesNothing ) {
   testing::internal::CaptureStdout();
   auto const sink = Kiv::logSinkIs( []( Kiv::LogMessage const & ) {} );
   auto const logOf = []( Simulation::Plan const & plan, bool explaining ) {
      model::Player player( plan );
      auto const explain = [ & ] {
         if( explaining )
            Stage::explain( *player.statusSm );
      };
      player.play( [ & ] {
         explain();
         while( Kiv::activityManager()->runOne() || Kiv::activityManager()->fireOne() )
            explain();
      } );
      std::string text;
      Stage::LogEntry entry;
      while( player.world.log->logDeq( entry ) )
         text += Kiv::valueToString( entry.time ).str() + " " + entry.msg.str() + "\n";
      return text;
   };
   std::size_t length = 0;
   for( std::uint64_t seed = 1; seed != 200; ++seed ) {
      auto const plan = model::randomPlan( seed );
      auto const log = logOf( plan, false );
      length += log.size();
      ASSERT_EQ( logOf( plan, true ), log ) << model::yamlOf( plan );
   }
   Kiv::logSinkIs( sink );
   testing::internal::GetCapturedStdout();
   EXPECT_GT( length, 10000U );
}

} // namespace
