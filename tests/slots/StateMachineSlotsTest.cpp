// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Every state machine and every reactor of one ends with kivDoZombieReactors( bool ), right after
// what its base has.
#include "Slots.h"

#include <Ordovan/Ordovan.h>

using Kiv::String8;
using namespace testing_support;

namespace {

// kivDoZombieReactors is the one operation that Machine adds to Base, and its last.
template< class Machine, class Base >
void expectEndsWithZombie( std::size_t expected ) {
   EXPECT_EQ( slots< Base >(), expected );
   EXPECT_EQ( slot( &Machine::kivDoZombieReactors ), expected );
   EXPECT_EQ( slots< Machine >(), expected + 1 );
}

} // namespace

TEST( VirtualOperations, OfAStateMachineThatReactsToNothingAreOneMore ) {
   expectEndsWithZombie< Stage::LogSm, Kiv::PtrInterface >( 8 );
   expectEndsWithZombie< Stage::StatusSm, Kiv::PtrInterface >( 8 );
}

TEST( VirtualOperations, OfAStateMachineThatIsAReactorEndWithZombie ) {
   expectEndsWithZombie< Stage::ConfigSm, Stage::Config::NotifieeConst >( 34 );
   expectEndsWithZombie< Stage::StageEnableSm, Stage::StageStatus::NotifieeConst >( 40 );
   expectEndsWithZombie< Stage::StageSm, Stage::StageStatus::NotifieeConst >( 40 );
}

TEST( VirtualOperations, OfTheReactorsOfAggregationEndWithZombie ) {
   using Sm = Stage::ConfigSm;
   expectEndsWithZombie< Sm::KivAgentDir, Kiv::Dir::NotifieeConst >( 34 );
   expectEndsWithZombie< Sm::KivAgentConfig, Stage::AgentConfig::NotifieeConst >( 35 );
   expectEndsWithZombie< Sm::KivStatus, Stage::Status::Notifiee >( 41 );
   expectEndsWithZombie< Sm::KivStageStatus, Stage::StageStatus::Notifiee >( 40 );
   expectEndsWithZombie< Sm::KivStageStatus::KivEventConfig, Stage::EventConfig::NotifieeConst >(
      38 );
   EXPECT_EQ( slots< Sm::KivStageStatus::KivCriticalAncestor >(), slotsOfPtrInterface );
}

TEST( VirtualOperations, OfTheReactorsOfProgressionEndWithZombie ) {
   expectEndsWithZombie< Stage::StatusSm::KivConfig, Stage::Config::NotifieeConst >( 34 );
   expectEndsWithZombie< Stage::StatusSm::KivStatus, Stage::Status::Notifiee >( 41 );
   using Timer = Kiv::Clock::NotifieeConst;
   expectEndsWithZombie< Stage::StatusSm::KivRecalculateNextStage, Timer >( 30 );
   expectEndsWithZombie< Stage::StageSm::KivStageUncompleted, Timer >( 30 );
   expectEndsWithZombie< Stage::StageSm::KivEvent, Stage::EventConfig::NotifieeConst >( 38 );
   EXPECT_EQ( slots< Stage::StageSm::KivPendingEvent >(), slotsOfPtrInterface );
}

TEST( VirtualOperations, OfAReactorOnAnActiveStageStandInOrder ) {
   using N = Stage::StageSm::NotifieeConst;
   expectInOrder( slotsOfReactor, {
      { "onComplete()", slot( &N::onComplete ) },
      { "onTimedOut()", slot( &N::onTimedOut ) },
      { "onCompletionTime()", slot( &N::onCompletionTime ) },
      { "onPendingEvent( String8 )", slot( as< void( String8 ) >( &N::onPendingEvent ) ) },
      { "onPendingEventkivImmediate()", slot( &N::onPendingEventkivImmediate ) },
      { "onPendingEvent()", slot( as< void() >( &N::onPendingEvent ) ) },
      { "onEvent( String8 )", slot( as< void( String8 ) >( &N::onEvent ) ) },
      { "onEventkivImmediate()", slot( &N::onEventkivImmediate ) },
      { "onEvent()", slot( as< void() >( &N::onEvent ) ) },
      { "onStageUncompleted()", slot( &N::onStageUncompleted ) },
      { "onInitialized()", slot( &N::onInitialized ) },
   } );
   EXPECT_EQ( slots< N >(), 40U );
}

TEST( VirtualOperations, OfTheManagerAreThoseOfAnEntity ) {
   EXPECT_EQ( slots< Stage::Ordovan >(), slotsOfEntity );
   EXPECT_EQ( slot( &Stage::Ordovan::isNondestructingIs ), 3U );
   EXPECT_EQ( slot( &Stage::Ordovan::fwkType ), 5U );
   EXPECT_EQ( slot( &Stage::Ordovan::attributeString ), 17U );
}
