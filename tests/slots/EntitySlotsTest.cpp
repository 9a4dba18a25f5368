// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// A reactor on an entity has its end first, then one callback for each notifying attribute; a
// collection has three in a row: for a member, deferred, for the whole.
#include "Slots.h"

#include <Stage/Stage.h>

using Kiv::Name;
using Kiv::String8;
using namespace testing_support;

TEST( VirtualOperations, OfAReactorOnAConfigStandInOrder ) {
   using N = Stage::Config::NotifieeConst;
   expectInOrder( slotsOfEntityReactor,
                  {
                     { "onIsNondestructing()", slot( &N::onIsNondestructing ) },
                     { "onAgentDir()", slot( &N::onAgentDir ) },
                     { "onEnabled()", slot( &N::onEnabled ) },
                  } );
   EXPECT_EQ( slots< N >(), 34U );
   EXPECT_EQ( slots< Stage::Config::Notifiee >(), 34U );
}

TEST( VirtualOperations, OfAReactorOnAnAgentConfigStandInOrder ) {
   using N = Stage::AgentConfig::NotifieeConst;
   expectInOrder( slotsOfEntityReactor,
                  {
                     { "onIsNondestructing()", slot( &N::onIsNondestructing ) },
                     { "onEvent( Name )", slot( as< void( Name ) >( &N::onEvent ) ) },
                     { "onEventkivImmediate()", slot( &N::onEventkivImmediate ) },
                     { "onEvent()", slot( as< void() >( &N::onEvent ) ) },
                  } );
   EXPECT_EQ( slots< N >(), 35U );
   EXPECT_EQ( slots< Stage::AgentConfig::Notifiee >(), 35U );
}

TEST( VirtualOperations, OfAReactorOnAnEventConfigStandInOrder ) {
   using N = Stage::EventConfig::NotifieeConst;
   expectInOrder(
      slotsOfEntityReactor,
      {
         { "onIsNondestructing()", slot( &N::onIsNondestructing ) },
         { "onComplete()", slot( &N::onComplete ) },
         { "onDependency( String8 )", slot( as< void( String8 ) >( &N::onDependency ) ) },
         { "onDependencykivImmediate()", slot( &N::onDependencykivImmediate ) },
         { "onDependency()", slot( as< void() >( &N::onDependency ) ) },
         { "onTimeout()", slot( &N::onTimeout ) },
         { "onCritical()", slot( &N::onCritical ) },
      } );
   EXPECT_EQ( slots< N >(), 38U );
   EXPECT_EQ( slots< Stage::EventConfig::Notifiee >(), 38U );
}

TEST( VirtualOperations, OfAReactorOnAStatusStandInOrder ) {
   using N = Stage::Status::NotifieeConst;
   expectInOrder( slotsOfEntityReactor,
                  {
                     { "onIsNondestructing()", slot( &N::onIsNondestructing ) },
                     { "onStage( Name )", slot( as< void( Name ) >( &N::onStage ) ) },
                     { "onStagekivImmediate()", slot( &N::onStagekivImmediate ) },
                     { "onStage()", slot( as< void() >( &N::onStage ) ) },
                     { "onActiveStage( Name )", slot( as< void( Name ) >( &N::onActiveStage ) ) },
                     { "onActiveStagekivImmediate()", slot( &N::onActiveStagekivImmediate ) },
                     { "onActiveStage()", slot( as< void() >( &N::onActiveStage ) ) },
                     { "onProgress()", slot( &N::onProgress ) },
                     { "onSorted()", slot( &N::onSorted ) },
                     { "onComplete()", slot( &N::onComplete ) },
                  } );
   EXPECT_EQ( slots< N >(), 41U );
   EXPECT_EQ( slots< Stage::Status::Notifiee >(), 41U );
}

TEST( VirtualOperations, OfAReactorOnAStageStandInOrder ) {
   using N = Stage::StageStatus::NotifieeConst;
   expectInOrder(
      slotsOfEntityReactor,
      {
         { "onIsNondestructing()", slot( &N::onIsNondestructing ) },
         { "onDependency( String8 )", slot( as< void( String8 ) >( &N::onDependency ) ) },
         { "onDependencykivImmediate()", slot( &N::onDependencykivImmediate ) },
         { "onDependency()", slot( as< void() >( &N::onDependency ) ) },
         { "onEvent( String8 )", slot( as< void( String8 ) >( &N::onEvent ) ) },
         { "onEventkivImmediate()", slot( &N::onEventkivImmediate ) },
         { "onEvent()", slot( as< void() >( &N::onEvent ) ) },
         { "onTimeout()", slot( &N::onTimeout ) },
         { "onCritical()", slot( &N::onCritical ) },
      } );
   EXPECT_EQ( slots< N >(), 40U );
   EXPECT_EQ( slots< Stage::StageStatus::Notifiee >(), 40U );
}

TEST( VirtualOperations, OfReactorsOnWhatTellsNobodyOfItsAttributesEndWithItsEnd ) {
   EXPECT_EQ( slot( &Stage::Progress::NotifieeConst::onIsNondestructing ), slotsOfEntityReactor );
   EXPECT_EQ( slots< Stage::Progress::NotifieeConst >(), 32U );
   EXPECT_EQ( slot( &Stage::Log::NotifieeConst::onIsNondestructing ), slotsOfEntityReactor );
   EXPECT_EQ( slots< Stage::Log::NotifieeConst >(), 32U );
}

TEST( VirtualOperations, NoEntityAddsAnyToThoseOfEveryEntity ) {
   EXPECT_EQ( slots< Stage::Config >(), slotsOfEntity );
   EXPECT_EQ( slots< Stage::AgentConfig >(), slotsOfEntity );
   EXPECT_EQ( slots< Stage::EventConfig >(), slotsOfEntity );
   EXPECT_EQ( slots< Stage::Status >(), slotsOfEntity );
   EXPECT_EQ( slots< Stage::StageStatus >(), slotsOfEntity );
   EXPECT_EQ( slots< Stage::Progress >(), slotsOfEntity );
   EXPECT_EQ( slots< Stage::Log >(), slotsOfEntity );
}
