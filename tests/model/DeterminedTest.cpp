// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// What the engine says has determined the length of a start-up, held against what was logged, and
// against runs of plans that are changed a little.
//
// ORDOVAN_TEST_SEEDS       how many plans, 2000 if not said otherwise
// ORDOVAN_TEST_FIRST_SEED  the seed of the first
#include "RandomPlan.h"

#include <gtest/gtest.h>

#include <simulation/Run.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <map>
#include <set>
#include <string>

namespace {

using namespace Simulation;
using Link = Determined::Link;

std::uint64_t constexpr usualSeeds = 2000;

std::uint64_t fromEnvironment( char const * name, std::uint64_t usual ) {
   char const * const text = std::getenv( name );
   return text ? std::strtoull( text, nullptr, 10 ) : usual;
}

// What happened, and when.
class Told : public Observer {
 public:
   void onLogEntry( double t, std::string const & msg ) override { line.insert( { t, msg } ); }
   void onStage( StageChange const & change ) override {
      using Kind = StageChange::Kind;
      if( change.kind == Kind::active )
         started[ change.stage ] = change.t;
      else if( change.kind != Kind::suspended )
         complete.emplace( change.stage, change.t ); // the first time
      if( change.kind == Kind::active && change.critical )
         critical.insert( { change.t, change.stage } );
      if( change.kind == Kind::timedOut )
         timedOut.insert( { change.t, change.stage } );
   }
   // Progression, for the first time.
   double startedAt() const {
      auto const first = std::find_if( line.begin(), line.end(), []( auto const & one ) {
         return one.second == "Stage progression started";
      } );
      return first->first;
   }
   bool logged( double t, std::string const & msg ) const { return line.count( { t, msg } ) != 0; }

   std::set< std::pair< double, std::string > > line;
   std::map< std::string, double > started, complete;
   std::set< std::pair< double, std::string > > critical, timedOut;
};

Result runQuietly( Plan const & plan, std::vector< Observer * > const & observers = {} ) {
   testing::internal::CaptureStdout();
   auto result = run( plan, observers );
   testing::internal::GetCapturedStdout();
   return result;
}

// ------------------------------------------------------------------------------- what was logged

void expectEnd( Told const & told, Link const & link ) {
   bool const again = told.logged( link.end, "stage " + link.stage + " is complete" );
   EXPECT_TRUE( again || told.complete.at( link.stage ) == link.end );
   switch( link.ended ) {
   case Link::End::event:
      EXPECT_EQ( link.event.find( link.stage + ":" ), 0U );
      EXPECT_TRUE( told.logged( link.end, "  event " + link.event + " completed" ) );
      break;
   case Link::End::timeUp:
      EXPECT_TRUE( told.timedOut.count( { link.end, link.stage } ) );
      break;
   case Link::End::noEvents:
      EXPECT_EQ( link.begin, link.end );
      break;
   case Link::End::change:
      EXPECT_EQ( link.begun, Link::Begin::change );
      break;
   }
}

// When all stages that it depends on were complete.
double dependenciesComplete( Told const & told, StageResult const & stage ) {
   double t = 0;
   for( auto const & on : stage.dependency )
      t = std::max( t, told.complete.at( on ) );
   return t;
}

// `next` is null for the last link.
void expectBegin( Told const & told, Result const & result, bool changes, Link const & link,
                  Link const * next ) {
   auto const & stage = result.stage.at( link.stage );
   bool const late = link.begun == Link::Begin::change && link.ended == Link::End::event;
   EXPECT_TRUE( link.begun == Link::Begin::change || link.begin == told.started.at( link.stage ) );
   EXPECT_TRUE( !late || link.begin >= told.started.at( link.stage ) );
   EXPECT_TRUE( changes || dependenciesComplete( told, stage ) <= link.begin );
   switch( link.begun ) {
   case Link::Begin::dependency:
      ASSERT_TRUE( next );
      EXPECT_EQ( told.complete.at( next->stage ), link.begin );
      EXPECT_TRUE( changes || std::count( stage.dependency.begin(), stage.dependency.end(),
                                          next->stage ) == 1 );
      break;
   case Link::Begin::critical:
      EXPECT_LE( link.ready, link.begin );
      if( !changes ) {
         EXPECT_EQ( link.ready, dependenciesComplete( told, stage ) );
         EXPECT_FALSE( stage.critical );
         auto const last = told.critical.rbegin();
         EXPECT_TRUE( link.ready <= last->first && last->first <= link.begin );
         EXPECT_TRUE( told.critical.count( { last->first, link.heldFor } ) );
      }
      break;
   case Link::Begin::decision:
      EXPECT_TRUE( next && changes );
      EXPECT_LE( link.ready, link.begin );
      break;
   case Link::Begin::enabled:
      EXPECT_FALSE( next );
      EXPECT_TRUE( told.logged( link.begin, "Stage progression started" ) );
      break;
   case Link::Begin::change:
      EXPECT_TRUE( !next && changes );
      EXPECT_TRUE( late || link.ended == Link::End::change || told.startedAt() < link.begin );
      break;
   }
}

// How much of the time was held, looked at piece by piece.
double heldPieces( Determined const & determined ) {
   std::set< double > times;
   for( auto const & link : determined.link )
      times.insert( { link.begin, link.ready } );
   double held = 0;
   for( auto i = times.begin(); i != times.end() && std::next( i ) != times.end(); ++i ) {
      held +=
         std::any_of( determined.link.begin(), determined.link.end(),
                      [ & ]( auto const & l ) {
                         return l.begun == Link::Begin::critical && l.ready <= *i && *i < l.begin;
                      } )
            ? *std::next( i ) - *i
            : 0;
   }
   return held;
}

void expectTrue( Told const & told, Result const & result, bool changes ) {
   auto const & determined = *result.determined;
   auto const & links = determined.link;
   double end = 0;
   for( auto const & [ stage, t ] : told.complete )
      end = std::max( end, t );
   EXPECT_EQ( determined.t, links.empty() ? determined.since : end );
   double sum = determined.since;
   end = determined.t;
   for( std::size_t i = 0; i != links.size(); ++i ) {
      EXPECT_EQ( links[ i ].end, end );
      expectEnd( told, links[ i ] );
      auto const * next = i + 1 != links.size() ? &links[ i + 1 ] : nullptr;
      expectBegin( told, result, changes, links[ i ], next );
      sum += links[ i ].end - links[ i ].begin;
      end = links[ i ].begin;
   }
   EXPECT_EQ( end, determined.since );
   EXPECT_NEAR( sum, determined.t, 1e-9 * ( 1 + determined.t ) );
   EXPECT_NEAR( determined.held, heldPieces( determined ), 1e-9 * ( 1 + determined.t ) );
}

TEST( Determined, SharesAddUpAndEachLinkIsWhatWasLogged ) {
   auto const first = fromEnvironment( "ORDOVAN_TEST_FIRST_SEED", 1 );
   auto const seeds = fromEnvironment( "ORDOVAN_TEST_SEEDS", usualSeeds );
   std::map< Link::End, unsigned > ends;
   std::map< Link::Begin, unsigned > begins;
   for( auto seed = first; seed != first + seeds; ++seed ) {
      auto const plan = model::randomPlan( seed );
      Told told;
      auto const result = runQuietly( plan, { &told } );
      EXPECT_EQ( result.determined.has_value(), result.outcome == Outcome::complete );
      if( !result.determined )
         continue;
      expectTrue( told, result, !plan.timeline.empty() );
      for( auto const & link : result.determined->link ) {
         ++ends[ link.ended ];
         ++begins[ link.begun ];
      }
      ASSERT_FALSE( testing::Test::HasFailure() ) << "seed " << seed << "\n"
                                                  << model::yamlOf( plan );
   }
   if( seeds >= usualSeeds ) {
      EXPECT_EQ( ends.size(), 4U );
      EXPECT_EQ( begins.size(), 5U );
      for( auto const & [ kind, count ] : begins )
         EXPECT_GE( count, 25U ) << static_cast< int >( kind );
      for( auto const & [ kind, count ] : ends )
         EXPECT_GE( count, 25U ) << static_cast< int >( kind );
   }
}

// ------------------------------------------------------------------------ plans changed a little

class Random {
 public:
   explicit Random( std::uint64_t seed ) : state_( seed ) {}
   // From 0.001 to 0.051.
   double little() {
      state_ = state_ * 6364136223846793005U + 1442695040888963407U;
      return 0.001 + static_cast< double >( state_ >> 40 ) / static_cast< double >( 1 << 24 ) / 20;
   }

 private:
   std::uint64_t state_;
};

void forEachEvent( Plan & plan, std::function< void( std::string const &, Event & ) > const & f ) {
   for( auto & agent : plan.agent )
      for( auto & event : agent.event )
         f( agent.name, event );
   for( auto & entry : plan.timeline ) {
      if( auto * const join = std::get_if< Join >( &entry.operation ) )
         for( auto & event : join->event )
            f( join->agent, event );
      if( auto * const declare = std::get_if< Declare >( &entry.operation ) )
         f( declare->agent, declare->event );
   }
}

void forEachTimeout( Plan & plan,
                     std::function< void( std::string const &, double & ) > const & f ) {
   forEachEvent( plan, [ & ]( auto const &, Event & event ) { f( event.stage, event.timeout ); } );
   for( auto & entry : plan.timeline )
      if( auto * const set = std::get_if< Set >( &entry.operation ) )
         for( auto & write : set->write )
            if( auto * const timeout = std::get_if< TimeoutWrite >( &write ) )
               f( set->stage, timeout->value );
}

// Timeouts of stages are floats: below 8 seconds, multiples of a step are exact.
double constexpr step = 1.0 / ( 1 << 21 );

// Every time differs, so that no two things but those that depend on each other fall together.
Plan scattered( Plan plan, std::uint64_t seed ) {
   Random random( seed );
   forEachEvent(
      plan, [ & ]( auto const &, Event & event ) { event.complete.seconds += random.little(); } );
   forEachTimeout( plan, [ & ]( auto const &, double & timeout ) {
      timeout = std::round( ( timeout + random.little() ) / step / 2 ) * step * 2;
   } );
   std::map< double, double > instants;
   for( auto & entry : plan.timeline ) {
      auto const [ instant, isNew ] = instants.emplace( entry.at, 0 );
      instant->second = isNew ? entry.at + random.little() : instant->second;
      entry.at = instant->second;
   }
   return plan;
}

class Changed {
 public:
   explicit Changed( Plan plan ) : plan_( std::move( plan ) ), determined_( determined( plan_ ) ) {}

   bool complete() const { return determined_ && determined_->t < 1e6; }

   // The end moves with what is on the way, and with nothing else.
   void expectEachEvent() {
      std::set< std::string > uids;
      forEachEvent( plan_, [ & ]( auto const & agent, Event const & event ) {
         if( event.complete.kind == Behaviour::Kind::afterSeconds )
            uids.insert( event.stage + ":" + agent );
      } );
      for( auto const & uid : uids ) {
         auto const is = [ & ]( Link const & link ) {
            return link.ended == Link::End::event && link.event == uid;
         };
         expectMoves( "event " + uid, is, [ & ]( Plan & plan, double by ) {
            forEachEvent( plan, [ & ]( auto const & agent, Event & event ) {
               event.complete.seconds += event.stage + ":" + agent == uid ? by : 0;
            } );
         } );
      }
   }

   void expectEachTimeout() {
      std::set< std::string > stages;
      forEachTimeout( plan_, [ & ]( auto const & stage, double ) { stages.insert( stage ); } );
      for( auto const & stage : stages ) {
         auto const is = [ & ]( Link const & link ) {
            return link.ended == Link::End::timeUp && link.stage == stage;
         };
         expectMoves( "timeout " + stage, is, [ & ]( Plan & plan, double by ) {
            forEachTimeout( plan, [ & ]( auto const & one, double & timeout ) {
               timeout += one == stage ? by : 0;
            } );
         } );
      }
   }

   void expectEachInstant() {
      std::set< double > instants;
      for( auto const & entry : plan_.timeline )
         instants.insert( entry.at );
      for( double const at : instants ) {
         bool const began = at == determined_->since;
         expectMoves(
            "instant " + std::to_string( at ), [ & ]( Link const & ) { return false; },
            [ & ]( Plan & plan, double by ) {
               for( auto & entry : plan.timeline )
                  entry.at += entry.at == at ? by : 0;
            },
            began );
      }
   }

   unsigned moved = 0, unmoved = 0;

 private:
   static std::optional< Determined > determined( Plan const & plan ) {
      return runQuietly( plan ).determined;
   }

   void expectMoves( std::string const & what, std::function< bool( Link const & ) > const & is,
                     std::function< void( Plan &, double ) > const & change, bool began = false ) {
      auto const & links = determined_->link;
      auto const factor = static_cast< double >( std::count_if( links.begin(), links.end(), is ) ) +
                          ( began ? 1 : 0 );
      ++( factor > 0 ? moved : unmoved );
      for( double const by : { step, -step } ) {
         auto plan = plan_;
         change( plan, by );
         auto const now = determined( plan );
         ASSERT_TRUE( now ) << what;
         EXPECT_NEAR( now->t - determined_->t, factor * by, step / 100 ) << what;
      }
   }

   Plan plan_;
   std::optional< Determined > determined_;
};

TEST( Determined, TheEndMovesWithWhatIsOnTheWayAndWithNothingElse ) {
   auto const first = fromEnvironment( "ORDOVAN_TEST_FIRST_SEED", 1 );
   auto const seeds = fromEnvironment( "ORDOVAN_TEST_SEEDS", usualSeeds );
   unsigned moved = 0, unmoved = 0;
   for( auto seed = first; seed != first + seeds; ++seed ) {
      auto const plan = scattered( model::randomPlan( seed ), seed );
      Changed changed( plan );
      if( !changed.complete() )
         continue;
      changed.expectEachEvent();
      changed.expectEachTimeout();
      changed.expectEachInstant();
      moved += changed.moved;
      unmoved += changed.unmoved;
      ASSERT_FALSE( testing::Test::HasFailure() ) << "seed " << seed << "\n"
                                                  << model::yamlOf( plan );
   }
   if( seeds >= usualSeeds ) {
      EXPECT_GE( moved, 300U );
      EXPECT_GE( unmoved, 1000U );
   }
}

} // namespace
