// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// What must always hold, looked at after every single callback of random start-ups; and that each
// of these looks sees what it is there to see.
#include "../support/Invariants.h"
#include "Player.h"
#include "RandomPlan.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace {

using Kiv::Name;
using Kiv::Ptr;
using testing_support::Invariants;
using testing_support::World;

std::string brokenIn( Simulation::Plan const & plan ) {
   model::Player player( plan );
   Invariants invariants( player.world.status, player.statusSm, player.world.progress );
   testing::internal::CaptureStdout();
   auto const sink = Kiv::logSinkIs( []( Kiv::LogMessage const & ) {} );
   player.play( [ & ] { invariants.settle(); } );
   Kiv::logSinkIs( sink );
   testing::internal::GetCapturedStdout();
   return invariants.broken();
}

TEST( Invariants, HoldAtEveryStepOfRandomStartUps ) {
   char const * const first = std::getenv( "ORDOVAN_TEST_FIRST_SEED" );
   char const * const count = std::getenv( "ORDOVAN_TEST_SEEDS" );
   std::uint64_t const begin = first ? std::strtoull( first, nullptr, 10 ) : 1;
   std::uint64_t const end = begin + ( count ? std::strtoull( count, nullptr, 10 ) : 500 );
   for( std::uint64_t seed = begin; seed != end; ++seed ) {
      auto const plan = model::randomPlan( seed );
      ASSERT_EQ( brokenIn( plan ), "" ) << "seed " << seed << "\n" << model::yamlOf( plan );
   }
}

// Two stages: Early is active and waits for its event, Late waits for Early.
struct BrokenInvariants : testing::Test {
   BrokenInvariants() {
      early = w.declare( "agent", "Early", {}, 10 );
      w.declare( "agent", "Late", { "Early" }, 10 );
      w.config->enabledIs( true );
      configSm = w.configSm();
      statusSm = manager->statusSmIs( "application", w.config, w.status, w.progress, w.log );
      w.idle();
   }
   // Under the eyes of the invariants, `act` breaks one; which one, is returned.
   template< class Act >
   std::string brokenBy( Act act ) {
      Invariants invariants( w.status, statusSm, w.progress );
      invariants.settle();
      EXPECT_EQ( invariants.broken(), "" );
      act();
      invariants.settle();
      return invariants.broken();
   }
   Ptr< Stage::StageSm > sm() const { return statusSm->stageSm( "Early" ); }

   World w;
   Ptr< Stage::EventConfig > early;
   Ptr< Stage::Ordovan > manager = Stage::Ordovan::OrdovanIs( "ordovan" );
   Ptr< Stage::ConfigSm > configSm;
   Ptr< Stage::StatusSm > statusSm;
};

TEST_F( BrokenInvariants, AreNoneWhenAStageCompletes ) {
   EXPECT_EQ( brokenBy( [ & ] { early->completeIs( true ); } ), "" );
   EXPECT_TRUE( statusSm->stageSm( "Late" ) );
}

TEST_F( BrokenInvariants, AreNoneWhenTheTimeIsUp ) {
   EXPECT_EQ( brokenBy( [ & ] { w.clock->nowIs( w.clock->now() + 10 ); } ), "" );
   EXPECT_TRUE( sm()->timedOut() && sm()->complete() );
}

TEST_F( BrokenInvariants, AreSeenInAnActiveStageThatIsNotTracked ) {
   EXPECT_EQ( brokenBy( [ & ] { statusSm->stageSmDel( "Early" ); } ),
              "Early is active, but has no StageSm of its own" );
}

TEST_F( BrokenInvariants, AreSeenInAnActiveStageWhoseStageSmIsOfAnother ) {
   EXPECT_EQ( brokenBy( [ & ] { sm()->notifierIs( w.stage( "Late" ) ); } ),
              "Early is active, but has no StageSm of its own" );
}

TEST_F( BrokenInvariants, AreSeenInAnActiveStageThatStillWaits ) {
   EXPECT_EQ( brokenBy( [ & ] { statusSm->stageEnableSmIs( w.stage( "Early" ) ); } ),
              "Early is active, but still waits" );
}

TEST_F( BrokenInvariants, AreSeenInAStageThatIsTrackedWithoutBeingActive ) {
   EXPECT_EQ( brokenBy( [ & ] { statusSm->stageSmIs( w.stage( "Late" ), statusSm->logSm() ); } ),
              "the StageSms are not those of the stages made active" );
}

TEST_F( BrokenInvariants, AreSeenInProgressThatShowsTooMuch ) {
   EXPECT_EQ( brokenBy( [ & ] { w.progress->stageIs( "Late", true ); } ),
              "progress does not show the stages made active" );
}

TEST_F( BrokenInvariants, AreSeenInProgressThatShowsTooLittle ) {
   EXPECT_EQ( brokenBy( [ & ] { w.progress->stageDel( "Early" ); } ),
              "progress does not show the stages made active" );
}

TEST_F( BrokenInvariants, AreSeenInProgressThatShowsFalse ) {
   EXPECT_EQ( brokenBy( [ & ] { w.progress->stageIs( "Early", false ); } ),
              "progress shows Early as false" );
}

TEST_F( BrokenInvariants, AreSeenInAStageThatIsCompleteWithPendingEvents ) {
   EXPECT_EQ( brokenBy( [ & ] { sm()->completeIs( true ); } ),
              "Early is complete, but events are pending and its time is not up" );
}

TEST_F( BrokenInvariants, AreSeenInACriticalStageThatCompletesByItsTime ) {
   early->criticalIs( true );
   w.idle();
   EXPECT_EQ( brokenBy( [ & ] {
                 sm()->timedOutIs( true );
                 sm()->completeIs( true );
              } ),
              "Early is complete, but events are pending and its time is not up" );
}

TEST_F( BrokenInvariants, AreSeenInACompleteStageWhoseTimerIsArmed ) {
   EXPECT_EQ( brokenBy( [ & ] {
                 early->completeIs( true );
                 w.idle();
                 sm()->stageUncompleted()->timeMinIs( w.clock->now() + 1 );
              } ),
              "Early is complete, but its timer is armed" );
}

TEST_F( BrokenInvariants, AreSeenInACompletionThatIsTakenBack ) {
   EXPECT_EQ( brokenBy( [ & ] {
                 early->completeIs( true );
                 w.idle();
              } ),
              "" );
   EXPECT_EQ( brokenBy( [ & ] { sm()->completeIs( false ); } ), "Early is no longer complete" );
}

TEST_F( BrokenInvariants, AreSeenInATimeOutThatIsTakenBack ) {
   w.pass( 10 );
   EXPECT_EQ( brokenBy( [ & ] { sm()->timedOutIs( false ); } ), "Early is no longer timed out" );
}

TEST_F( BrokenInvariants, AreSeenInACompleteStatusWithAStageThatIsNot ) {
   std::string const broken = brokenBy( [ & ] { w.status->completeIs( true ); } );
   EXPECT_TRUE( broken.starts_with( "everything is complete, but " ) ) << broken;
}

} // namespace
