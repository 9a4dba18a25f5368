// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// What a callback that was cut short has done already, when nobody wants it any more by the time at
// which it is delivered again.
#include "CutShort.h"

using namespace testing_support;

namespace {

using LeftBehind = CutShort;

} // namespace

TEST_F( LeftBehind, AStageThatGoesBeforeItsReactorIsMadeIsNobodysCriticalAncestor ) {
   std::size_t places = 0;
   for( bool failed = true; failed; ++places ) {
      World w;
      w.declare( "agent", "B" )->dependencyIs( "D", true );
      w.declare( "agent", "D" );
      auto const sm = w.configSm();
      w.idle();
      // From outside, so that the reactor finds all of it when it is made.
      auto const event = Stage::EventConfig::EventConfigIs( "A", "other" );
      event->dependencyIs( "B", true );
      event->criticalIs( true );
      auto const stage = w.status->stageIs( "A" );
      stage->eventIs( event );
      stage->dependencyIs( "B", true );
      failed = failing( places, [] { Kiv::activityManager()->runOne(); } );
      w.status->stageDel( "A" );
      w.pass( 10 );
      EXPECT_FALSE( w.stage( "B" )->critical() ) << "allocation " << places;
      EXPECT_FALSE( w.stage( "D" )->critical() ) << "allocation " << places;
      EXPECT_EQ( sm->stageStatus( "B" )->criticalAncestors(), 0U ) << "allocation " << places;
   }
   EXPECT_GT( places, 8U );
}

TEST_F( LeftBehind, AStageThatReplacesOneWhoseCompletionWasCutShortIsNotCompleteBeforeItsEvents ) {
   std::size_t places = 0;
   for( bool failed = true; failed; ++places ) {
      World w;
      auto const event = w.declare( "agent", "A" );
      auto const sm = w.configSm();
      auto const manager = Stage::Ordovan::OrdovanIs( "manager" );
      w.config->enabledIs( true );
      auto const statusSm = manager->statusSmIs( "App", w.config, w.status, w.progress, w.log );
      w.pass( 1 );
      ASSERT_TRUE( statusSm->stageSm( "A" ) );
      event->completeIs( true );
      failed = failing( places, [] { untilCutShort(); } );
      bool const before = statusSm->stageSm( "A" )->complete();
      auto const elsewhere = Stage::Status::StatusIs( "elsewhere" );
      auto const other = elsewhere->stageIs( "A" );
      other->eventIs( Stage::EventConfig::EventConfigIs( "A", "slow" ) );
      statusSm->stageSmIs( Kiv::Ptr< Stage::StageStatus const >( other ), statusSm->logSm() );
      EXPECT_EQ( statusSm->stageSm( "A" )->complete(), before ) << "allocation " << places;
      EXPECT_EQ( statusSm->stageSm( "A" )->pendingEvents(), 1U );
   }
   EXPECT_GT( places, 3U );
}
