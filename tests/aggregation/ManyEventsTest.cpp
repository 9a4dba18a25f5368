// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Many agents with events on few stages, changed at random: what stages become, what is told of
// them, in which order, and what is traced are the same whether aggregation walks over all events
// and stages, or asks for what is known of them.

#include <tests/support/World.h>

#include <Index/Oracle.h>
#include <Kiv/NewReactor.h>
#include <Kiv/Trace.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace {

using Kiv::Name;
using Kiv::Ptr;
using Kiv::String8;
using Stage::AgentConfig;
using Stage::AnswersBy;
using Stage::EventConfig;
using Stage::StageStatus;
using Stage::Status;
using testing_support::World;

constexpr double nan = std::numeric_limits< double >::quiet_NaN();
constexpr double inf = std::numeric_limits< double >::infinity();

using History = std::vector< std::string >;

std::string exactly( double value ) {
   char text[ 40 ];
   std::snprintf( text, sizeof text, "%a", value );
   return text;
}

// Writes down what it is told of one stage.
class StageEar : public StageStatus::NotifieeConst {
 public:
   StageEar( Ptr< StageStatus > const & stage, History & history ) : history_( history ) {
      watch( stage );
   }
   using NotifieeConst::onDependency;
   using NotifieeConst::onEvent;
   void onEvent( String8 agent ) override {
      tell( "event " + agent.str() + ( notifier()->event( agent ) ? " is there" : " is gone" ) );
   }
   void onDependency( String8 name ) override {
      tell( "dependency " + name.str() +
            ( notifier()->hasDependency( name ) ? " is there" : " is gone" ) );
   }
   void onTimeout() override { tell( "timeout " + exactly( notifier()->timeout() ) ); }
   void onCritical() override {
      tell( notifier()->critical() ? std::string( "critical" ) : "not critical" );
   }

 private:
   void tell( std::string const & what ) { history_.push_back( name().str() + ": " + what ); }

   History & history_;
};

// What is there at the end of a turn.
void appendPicture( History & history, Status & status ) {
   for( auto i = status.stageIterator(); i; ++i ) {
      StageStatus & stage = *i.ptr();
      std::string line = "now " + stage.name().str() + " " + exactly( stage.timeout() ) +
                         ( stage.critical() ? " critical" : "" );
      for( auto event = stage.eventIterator(); event; ++event )
         line += " " + event.key().str();
      for( auto dependency = stage.dependencyIterator(); dependency; ++dependency )
         line += " <-" + dependency.key().str();
      history.push_back( line );
   }
}

class Play {
 public:
   explicit Play( std::uint64_t seed ) : engine_( seed ) {
      std::size_t const agents = 5 + below( 25 );
      for( std::size_t i = 0; i != agents; ++i )
         agents_.push_back( AgentConfig::AgentConfigIs( "agent" + std::to_string( i ) ) );
      for( std::string const & stage : stages_ )
         for( auto const & agent : agents_ )
            events_.push_back( newEvent( stage, agent->name() ) );
   }

   History const & run() {
      Kiv::TraceSink const before = Kiv::traceSinkIs(
         [ this ]( Kiv::TraceLine const & line ) { history_.push_back( line.text.str() ); } );
      // Some events are there before anybody looks.
      for( std::size_t i = below( 60 ); i != 0; --i )
         change();
      Ptr< Stage::ConfigSm > configSm = world_.configSm();
      for( int turn = 0; turn != 60; ++turn ) {
         for( std::size_t i = oneIn( 10 ) ? 40 : below( 4 ); i != 0; --i )
            change();
         if( oneIn( 25 ) ) {
            configSm = nullptr;
            configSm = world_.configSm();
         }
         for( auto i = world_.status->stageIterator(); i; ++i )
            if( !ears_[ i.key().str() ] || ears_[ i.key().str() ]->notifier() != i.ptr() )
               ears_[ i.key().str() ] = new StageEar( i.ptr(), history_ );
         world_.idle();
         appendPicture( history_, *world_.status );
      }
      configSm = nullptr;
      Kiv::traceSinkIs( before );
      return history_;
   }

 private:
   std::size_t below( std::size_t n ) { return static_cast< std::size_t >( engine_() % n ); }
   bool oneIn( std::size_t n ) { return below( n ) == 0; }
   template< class List >
   auto & of( List & list ) {
      return list[ below( list.size() ) ];
   }
   // Mostly ordinary ones; in some plays mostly those for which order or narrowing matter, or none
   // above zero.
   double timeout() {
      static std::vector< double > const kinds[] = {
         { 0, 1, 2, 3, 4, 5 },
         { nan, -0.0, inf, -inf, 0, 0.1, 1e-60, -1e-60, 1e300, -5 },
         { -0.0, 0, 0, 0, -1, 1e-60, -1e-60 },
         { -1, -2, -inf, -1e-60 },
      };
      return of( kinds[ oneIn( 30 ) ? 1 : kind_ ] );
   }
   Ptr< EventConfig > newEvent( std::string const & stage, Name const & agent ) {
      Ptr< EventConfig > const event = EventConfig::EventConfigIs( stage, agent );
      event->timeoutIs( timeout() );
      event->criticalIs( oneIn( 20 ) );
      for( std::string const & name : names_ )
         if( oneIn( 4 ) )
            event->dependencyIs( name, !oneIn( 5 ) );
      return event;
   }

   void change() {
      Ptr< EventConfig > & event = of( events_ );
      Ptr< AgentConfig > const & agent = of( agents_ );
      std::string const & name = of( names_ );
      switch( below( 12 ) ) {
      case 0:
      case 1:
      case 2:
      case 3:
         return declare( event );
      case 4:
         return agent->eventDel( of( stages_ ) );
      case 5:
         return event->timeoutIs( timeout() );
      case 6:
         return event->criticalIs( oneIn( 4 ) );
      case 7:
         return event->dependencyIs( name, !oneIn( 3 ) );
      case 8:
         return oneIn( 3 ) ? event->dependencyDelAll() : event->dependencyDel( name );
      case 9:
         if( world_.dir->entityPtr( agent->name() ) )
            return world_.dir->entityPtrDel( agent->name() );
         return world_.dir->entityPtrIs( agent );
      case 10:
         event = newEvent( stageOf( *event ), event->agent() );
         return declare( event );
      default:
         return meddle( event );
      }
   }
   std::string stageOf( EventConfig const & event ) {
      std::string const uid = event.uid().str();
      return uid.substr( 0, uid.find( ':' ) );
   }
   void declare( Ptr< EventConfig > const & event ) {
      for( auto const & agent : agents_ )
         if( String8( agent->name() ) == event->agent() ) {
            agent->eventIs( stageOf( *event ), event );
            if( !oneIn( 10 ) )
               world_.dir->entityPtrIs( agent );
         }
   }
   // Others may write to stages, too: an event may be in several, or under nobody's eyes.
   void meddle( Ptr< EventConfig > const & event ) {
      Ptr< StageStatus > const stage = world_.status->stage( of( stages_ ) );
      if( !stage )
         return;
      switch( below( 8 ) ) {
      case 0:
      case 1:
      case 2:
         return stage->eventIs( event );
      case 3:
         return stage->eventDel( event->agent() );
      case 4:
         return stage->dependencyIs( of( names_ ), true );
      case 5:
         return stage->dependencyDel( of( names_ ) );
      case 6:
         if( oneIn( 4 ) )
            world_.status->stageDel( stage->name() );
         return;
      default:
         if( oneIn( 4 ) )
            stage->eventDelAll();
      }
   }

   std::mt19937_64 engine_;
   std::size_t const kind_ = below( 6 ) % 4;
   World world_;
   std::vector< std::string > const stages_ = { "Base", "Disks", "Net" };
   std::vector< std::string > const names_ = { "Base", "Disks", "Net", "Nowhere", "Else" };
   std::vector< Ptr< AgentConfig > > agents_;
   std::vector< Ptr< EventConfig > > events_;
   History history_;
   std::map< std::string, Ptr< StageEar > > ears_;
};

History historyOf( std::uint64_t seed, AnswersBy answers ) {
   Stage::answersBy = answers;
   History const history = Play( seed ).run();
   Stage::answersBy = AnswersBy::index;
   return history;
}

class Histories : public testing::TestWithParam< std::string > {
 public:
   Histories() { Kiv::tracesIs( "Ordovan:" + GetParam() ); }
   ~Histories() override { Kiv::tracesIs( "Ordovan:" ); }
};

TEST_P( Histories, AreTheSameByWalksAndByWhatIsKnown ) {
   char const * const count = std::getenv( "ORDOVAN_TEST_SEEDS" );
   std::uint64_t const seeds = count ? std::strtoull( count, nullptr, 10 ) : 40;
   for( std::uint64_t seed = 1; seed <= seeds; ++seed ) {
      History const walked = historyOf( seed, AnswersBy::walk );
      ASSERT_GT( walked.size(), 100U );
      for( AnswersBy answers : { AnswersBy::index, AnswersBy::both } ) {
         History const known = historyOf( seed, answers );
         ASSERT_EQ( known.size(), walked.size() ) << "seed " << seed;
         for( std::size_t i = 0; i != known.size(); ++i )
            ASSERT_EQ( known[ i ], walked[ i ] ) << "seed " << seed << ", line " << i;
      }
   }
}

// Without traces, with the usual ones, and with those inside of loops.
INSTANTIATE_TEST_SUITE_P( ManyEvents, Histories, testing::Values( "", "8", "8-9" ) );

} // namespace
