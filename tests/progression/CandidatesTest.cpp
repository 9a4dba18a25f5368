// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// What progression and aggregation keep from one decision to the next is what they would find by
// walking over everything, whoever writes what in between. Where it is not, the process ends with
// "the index and the walk differ".
#include "../support/World.h"

#include <gtest/gtest.h>

#include <Index/Candidates.h>
#include <Index/Oracle.h>
#include <Kiv/Exception.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace {

using Kiv::Name;
using Kiv::Ptr;
using Kiv::String8;
using Stage::AnswersBy;
using Stage::StageSm;
using Stage::StageStatus;
using testing_support::World;

class Random {
 public:
   explicit Random( std::uint64_t seed ) : state_( seed * 0x9e3779b97f4a7c15ULL + 1 ) {}
   unsigned below( unsigned limit ) {
      state_ ^= state_ << 13;
      state_ ^= state_ >> 7;
      state_ ^= state_ << 17;
      return static_cast< unsigned >( ( state_ >> 20 ) % limit );
   }

 private:
   std::uint64_t state_;
};

class Compared : public testing::Test {
 protected:
   void SetUp() override { Stage::answersBy = AnswersBy::both; }
   void TearDown() override { Stage::answersBy = AnswersBy::index; }
};

// A start-up into which others write what only the state machines ought to.
class Meddled {
 public:
   explicit Meddled( std::uint64_t seed ) : random_( seed ) {
      configSm_ = world_.configSm();
      statusSm_ = new Stage::StatusSm( "application", world_.config, world_.status, world_.progress,
                                       world_.log );
      statusSm_->hasNotificationActiveIs( true );
      for( unsigned i = 0; i != 6; ++i )
         declare();
      world_.config->enabledIs( true );
   }
   void step() {
      try {
         doSomething();
      } catch( Kiv::Exception const & ) {
         ++refused;
      }
      switch( random_.below( 4 ) ) {
      case 0:
         world_.idle();
         break;
      case 1:
         Kiv::activityManager()->runQueued();
         break;
      case 2:
         statusSm_->doNextStage();
         break;
      default:
         break;
      }
   }
   // How many stages were started, by the log.
   unsigned started() {
      world_.pass( 100 );
      unsigned count = 0;
      for( Stage::LogEntry entry; world_.log->logDeq( entry ); )
         count += entry.msg.str().ends_with( " started" );
      return count;
   }

   unsigned refused = 0;

 private:
   Name someName() { return std::string( "S" ) + std::to_string( random_.below( 9 ) ); }
   Name someAgent() { return std::string( "a" ) + std::to_string( random_.below( 3 ) ); }
   Ptr< StageStatus > someStage() { return world_.status->stage( someName() ); }
   // Declared once; it may have been withdrawn or replaced.
   Ptr< Stage::EventConfig > someEvent() {
      return event_[ random_.below( static_cast< unsigned >( event_.size() ) ) ];
   }
   bool coin() { return random_.below( 2 ) == 0; }

   void declare() {
      Ptr< Stage::EventConfig > const event = world_.declare( someAgent(), someName() );
      for( unsigned i = random_.below( 3 ); i != 0; --i )
         event->dependencyIs( String8( someName() ), true );
      event->timeoutIs( random_.below( 3 ) * 10 );
      event->criticalIs( random_.below( 4 ) == 0 );
      event->completeIs( coin() );
      event_.push_back( event );
   }
   void writeEvent() {
      Ptr< Stage::EventConfig > const event = someEvent();
      switch( random_.below( 5 ) ) {
      case 0:
         return event->criticalIs( coin() );
      case 1:
         return event->dependencyIs( String8( someName() ), coin() );
      case 2:
         return event->dependencyDelAll();
      default:
         return event->completeIs( random_.below( 4 ) != 0 );
      }
   }
   void writeStage() {
      Ptr< StageStatus > const stage = someStage();
      if( !stage )
         return static_cast< void >( world_.status->stageIs( someName() ) );
      switch( random_.below( 4 ) ) {
      case 0:
         return stage->criticalIs( coin() );
      case 1:
         return stage->dependencyIs( String8( someName() ), true );
      case 2:
         return stage->dependencyDel( String8( someName() ) );
      default:
         return stage->dependencyDelAll();
      }
   }
   void writeStatus() {
      switch( random_.below( 12 ) ) {
      case 0:
         return world_.status->stageDel( someName() );
      case 1:
         return world_.status->activeStageDelAll();
      case 2:
      case 3:
         return world_.status->activeStageDel( someName() );
      case 4:
         return world_.status->stageDelAll();
      default:
         return world_.status->activeStageIs( someStage() );
      }
   }
   void writeMachine() {
      Name const name = someName();
      Ptr< StageSm > const sm = statusSm_->stageSm( name );
      switch( random_.below( 6 ) ) {
      case 0:
         return statusSm_->stageSmDel( name );
      case 1:
         return static_cast< void >( statusSm_->stageSmIs(
            Ptr< StageStatus const >( world_.status->stage( name ) ), statusSm_->logSm() ) );
      case 2:
         return random_.below( 8 ) == 0 ? statusSm_->stageSmDelAll() : void();
      case 3:
         return random_.below( 8 ) == 0 ? anotherStatus() : void();
      default:
         return sm ? sm->completeIs( coin() ) : void();
      }
   }
   void anotherStatus() {
      Ptr< Stage::Status > const before = statusSm_->status();
      statusSm_->statusIs( Stage::Status::StatusIs( "another" ) );
      statusSm_->doNextStage();
      world_.idle();
      statusSm_->statusIs( before );
   }
   void doSomething() {
      switch( random_.below( 10 ) ) {
      case 0:
         return declare();
      case 1:
         return world_.agent( someAgent() )->eventDel( someName() );
      case 2:
      case 3:
         return writeStage();
      case 4:
         return writeStatus();
      case 5:
         return writeMachine();
      case 6:
         return world_.pass( random_.below( 12 ) );
      default:
         return writeEvent();
      }
   }

   World world_;
   Ptr< Stage::ConfigSm > configSm_;
   Ptr< Stage::StatusSm > statusSm_;
   std::vector< Ptr< Stage::EventConfig > > event_;
   Random random_;
};

TEST_F( Compared, CandidatesAreWhatAWalkWouldFindWhoeverWritesWhat ) {
   unsigned started = 0, refused = 0;
   testing::internal::CaptureStdout();
   auto const sink = Kiv::logSinkIs( []( Kiv::LogMessage const & ) {} );
   for( std::uint64_t seed = 1; seed != 3000; ++seed ) {
      SCOPED_TRACE( seed );
      Meddled start( seed );
      for( unsigned i = 0; i != 60; ++i )
         start.step();
      started += start.started();
      refused += start.refused;
   }
   Kiv::logSinkIs( sink );
   testing::internal::GetCapturedStdout();
   EXPECT_GT( started, 10000U );
   EXPECT_LT( refused, 3000U * 15 );
}

// Progression over stages that this test writes itself.
class Decision : public Compared {
 protected:
   Decision() {
      sm->hasNotificationActiveIs( true );
      for( char const * name : { "A", "B", "C", "D" } )
         world.status->stageIs( name );
      world.config->enabledIs( true );
   }
   // Has an event, which keeps it from being complete, until it is told.
   void holdUp( char const * name ) {
      event.push_back( Stage::EventConfig::EventConfigIs( name, "agent" ) );
      world.stage( name )->timeoutIs( 1000 );
      world.stage( name )->eventIs( event.back() );
   }
   bool active( char const * name ) { return world.status->activeStage( name ) != nullptr; }

   World world;
   Ptr< Stage::StatusSm > sm =
      new Stage::StatusSm( "application", world.config, world.status, world.progress, world.log );
   std::vector< Ptr< Stage::EventConfig > > event;
};

// Those whose place in the table is before it have had their turn.
TEST_F( Decision, AStagePutBackWithACompleteStageSmMakesThoseAfterItReadyInTheSamePass ) {
   world.idle();
   ASSERT_TRUE( world.status->complete() );
   // All are complete. They are put back by a decision: first whoever depends on nobody.
   for( char const * name : { "A", "B", "D" } )
      world.stage( name )->dependencyIs( "C", true );
   world.status->activeStageDelAll();
   sm->doNextStage();
   Kiv::activityManager()->runQueued();
   ASSERT_TRUE( Kiv::activityManager()->fireOne() );
   for( char const * name : { "A", "B", "D" } )
      EXPECT_EQ( active( name ), Name( "C" ).hash() < Name( name ).hash() ) << name;
   EXPECT_TRUE( active( "C" ) );
   sm->doNextStage();
   world.idle();
   for( char const * name : { "A", "B", "D" } )
      EXPECT_TRUE( active( name ) );
}

TEST_F( Decision, AStageThatDependsNoMoreOnWhatItWaitedForIsLookedAtAgain ) {
   holdUp( "A" );
   world.stage( "B" )->dependencyIs( "A", true );
   world.idle();
   ASSERT_FALSE( active( "B" ) );
   world.stage( "B" )->dependencyDel( "A" );
   sm->doNextStage();
   world.idle();
   EXPECT_TRUE( active( "B" ) );
}

TEST_F( Decision, AllDependenciesCanGoAtOnce ) {
   holdUp( "A" );
   world.stage( "B" )->dependencyIs( "A", true );
   world.stage( "B" )->dependencyIs( "nobody", true );
   world.idle();
   ASSERT_FALSE( active( "B" ) );
   world.stage( "B" )->dependencyDelAll();
   sm->doNextStage();
   world.idle();
   EXPECT_TRUE( active( "B" ) );
}

TEST_F( Decision, TheGateOpensWhenTheLastCriticalStageIsActiveOrNotCriticalAnyMore ) {
   holdUp( "A" );
   world.stage( "B" )->criticalIs( true );
   world.stage( "B" )->dependencyIs( "A", true );
   world.stage( "A" )->criticalIs( true );
   world.idle();
   ASSERT_TRUE( active( "A" ) );
   ASSERT_FALSE( active( "C" ) );
   world.stage( "B" )->criticalIs( false );
   sm->doNextStage();
   world.idle();
   EXPECT_TRUE( active( "C" ) );
   EXPECT_FALSE( active( "B" ) );
}

TEST_F( Decision, AStageAtTheGateThatBecomesCriticalGoesThrough ) {
   holdUp( "A" );
   for( char const * name : { "A", "B" } )
      world.stage( name )->criticalIs( true );
   world.stage( "B" )->dependencyIs( "A", true );
   world.idle();
   ASSERT_FALSE( active( "C" ) );
   world.stage( "C" )->criticalIs( true );
   sm->doNextStage();
   world.idle();
   EXPECT_TRUE( active( "C" ) );
   EXPECT_FALSE( active( "D" ) );
}

TEST_F( Decision, AStageThatComesLaterIsLookedAt ) {
   world.idle();
   ASSERT_TRUE( world.status->complete() );
   world.status->stageIs( "late" );
   sm->doNextStage();
   world.idle();
   EXPECT_TRUE( active( "late" ) );
}

// A StageSm that goes takes its completion with it.
TEST_F( Decision, AStageWithoutItsStageSmSatisfiesNobody ) {
   world.idle();
   world.status->activeStageDel( "B" );
   world.stage( "B" )->dependencyIs( "A", true );
   sm->stageSmDel( "A" );
   sm->doNextStage();
   world.idle();
   EXPECT_FALSE( active( "B" ) );
   sm->stageSmIs( Ptr< StageStatus const >( world.stage( "A" ) ), sm->logSm() );
   sm->doNextStage();
   world.idle();
   EXPECT_TRUE( active( "B" ) );
}

// In a pass nothing changes but what the pass itself activates; but if it does, no stage is handed
// out that is not there.
TEST( Candidates, AStageThatGoesDuringThePassIsNotHandedOut ) {
   Ptr< Stage::Status > const status = Stage::Status::StatusIs( "status" );
   for( char const * name : { "A", "B", "C" } )
      status->stageIs( name );
   Stage::Candidates candidates( *status, []( Kiv::Text const & ) { return nullptr; } );
   candidates.passBegins();
   Ptr< StageStatus > const first = candidates.next();
   ASSERT_TRUE( first );
   for( char const * name : { "A", "B", "C" } )
      if( first->name() != Name( name ) )
         status->stageDel( name );
   EXPECT_FALSE( candidates.next() );
   candidates.passBegins();
   EXPECT_EQ( candidates.next(), first );
}

TEST( Candidates, ServeNobodyWhenTheirStatusHasGone ) {
   Ptr< Stage::Status > status = Stage::Status::StatusIs( "status" );
   status->stageIs( "A" );
   Ptr< StageStatus > const kept = status->stage( "A" );
   Stage::Candidates candidates( *status, []( Kiv::Text const & ) { return nullptr; } );
   Stage::Status const & gone = *status;
   ASSERT_TRUE( candidates.serves( gone ) );
   Kiv::activityManager()->runQueued();
   status = nullptr;
   EXPECT_FALSE( candidates.serves( gone ) );
   kept->criticalIs( true ); // tells nobody
}

} // namespace
