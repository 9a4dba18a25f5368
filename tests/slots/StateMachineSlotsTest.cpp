// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Every state machine and every reactor of one ends with kivDoZombieReactors( bool ), right after
// what its base has.
#include "Slots.h"

#include <Ordovan/Ordovan.h>

#include <vector>

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

using Own = std::vector< std::size_t >;

// The slots among the first `count` in which the object has another operation than `base`.
Own ownSlots( Kiv::PtrInterface const & object, Kiv::PtrInterface const & base,
              std::size_t count ) {
   auto const table = []( Kiv::PtrInterface const & o ) {
      void const * const * slots;
      std::memcpy( &slots, static_cast< void const * >( &o ), sizeof slots );
      return slots;
   };
   Own own;
   for( std::size_t n = 0; n != count; ++n )
      if( table( object )[ n ] != table( base )[ n ] )
         own.push_back( n );
   return own;
}

} // namespace

TEST( VirtualOperations, OfALogSmAreItsSwitchTypeAndDestructorAndElseThoseOfItsBase ) {
   struct Plain : Kiv::PtrInterface {};
   Kiv::Ptr< Plain > const plain = new Plain;
   Kiv::Ptr< Stage::LogSm > const logSm = new Stage::LogSm( nullptr );
   EXPECT_EQ( ownSlots( *logSm, *plain, slotsOfPtrInterface ), ( Own{ 0, 5, 6, 7 } ) );
   EXPECT_EQ( slot( &Stage::LogSm::hasNotificationActiveIs ), 0U );
   EXPECT_EQ( slot( &Stage::LogSm::fwkType ), 5U );
}

TEST( VirtualOperations, OfAStatusSmAreItsSwitchTypeAndDestructorAndElseThoseOfItsBase ) {
   struct Plain : Kiv::PtrInterface {};
   Kiv::Ptr< Plain > const plain = new Plain;
   auto const statusSm = Kiv::Ptr< Stage::StatusSm >(
      new Stage::StatusSm( "application", Stage::Config::ConfigIs( "config" ),
                           Stage::Status::StatusIs( "status" ), nullptr, nullptr ) );
   EXPECT_EQ( ownSlots( *statusSm, *plain, slotsOfPtrInterface ), ( Own{ 0, 5, 6, 7 } ) );
}

TEST( VirtualOperations, OfTheManagerAreItsEndTypeAndNamesAndElseThoseOfAnEntity ) {
   struct Plain : Kiv::Entity {
      Plain() : Entity( "plain" ) {}
   };
   Kiv::Ptr< Plain > const plain = new Plain;
   Kiv::Ptr< Stage::Ordovan > const manager = Stage::Ordovan::OrdovanIs( "manager" );
   EXPECT_EQ( ownSlots( *manager, *plain, slotsOfEntity ), ( Own{ 3, 5, 6, 7, 17 } ) );
}

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
   expectInOrder(
      slotsOfReactor,
      {
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
