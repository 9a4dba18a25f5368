// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include "ProgressionTest.h"

#include <functional>
#include <initializer_list>

using namespace testing_support;
using Kiv::Ptr;

namespace {

char const notInitializedEnabled[] =
   "Not initialized.  Return from void Stage::StatusSm::handleEnabled()";

class StatusSmTest : public ProgressionTest {
 protected:
   std::size_t waiting() const { return sm->stageEnableSms(); }
};

} // namespace

// ---- construction

TEST_F( StatusSmTest, ConstructionRunsItsHandlersInOrder ) {
   TraceRecorder trace;
   make();
   EXPECT_EQ( trace.taken(), ( Lines{
                                "void Stage::StatusSm::handleActiveStage()",
                                "Not initialized.  Return from "
                                "void Stage::StatusSm::handleActiveStage()",
                                "void Stage::StatusSm::handleInitialized()",
                                "void Stage::StatusSm::handleEnabled()",
                             } ) );
}

TEST_F( StatusSmTest, ConstructionStoresItsArguments ) {
   make();
   EXPECT_EQ( sm->application(), "App" );
   EXPECT_EQ( sm->config(), config );
   EXPECT_EQ( sm->kivConfig()->notifier(), config );
   EXPECT_EQ( sm->kivConfig()->statusSm(), sm.get() );
   EXPECT_EQ( sm->status(), status );
   EXPECT_EQ( sm->kivStatus()->notifier(), status );
   EXPECT_EQ( sm->kivStatus()->statusSm(), sm.get() );
   EXPECT_EQ( sm->progress(), progress );
   EXPECT_EQ( sm->log(), log );
}

TEST_F( StatusSmTest, ConstructionMakesTheLogSmAndAnIdleTimer ) {
   make();
   EXPECT_TRUE( sm->initialized() );
   ASSERT_TRUE( sm->logSm() );
   EXPECT_EQ( sm->logSm()->stageLog(), log );
   EXPECT_TRUE( sm->logSm()->hasNotificationActive() );
   ASSERT_TRUE( sm->recalculateNextStage() );
   EXPECT_EQ( sm->recalculateNextStage()->notifier(), clock );
   EXPECT_EQ( sm->recalculateNextStage()->statusSm(), sm.get() );
   EXPECT_EQ( sm->recalculateNextStage()->timeMin(), Kiv::infinity );
   EXPECT_FALSE( sm->needRecalculateNextStage() );
   EXPECT_EQ( waiting(), 0U );
   EXPECT_EQ( sm->stageSms(), 0U );
   idle();
   EXPECT_EQ( texts(), Lines() );
}

TEST_F( StatusSmTest, NotificationsAreOffUntilTheyAreTurnedOn ) {
   Ptr< Stage::StatusSm > const made = new Stage::StatusSm( "App", config, status, progress, log );
   EXPECT_FALSE( made->hasNotificationActive() );
   EXPECT_FALSE( made->kivConfig()->hasNotificationActive() );
   config->enabledIs( true );
   idle();
   EXPECT_EQ( texts(), Lines() );
   made->hasNotificationActiveIs( true );
   EXPECT_TRUE( made->kivConfig()->hasNotificationActive() );
   EXPECT_TRUE( made->kivStatus()->hasNotificationActive() );
   EXPECT_TRUE( made->recalculateNextStage()->hasNotificationActive() );
   idle();
   EXPECT_EQ( texts(), ( Lines{ "Stage progression started", "Stage progression is complete" } ) )
      << "what was queued before is lost";
}

TEST_F( StatusSmTest, SwitchingOffAndOnReachesEveryReactorAndKeepsTheOrderOfWhatWaited ) {
   newEvent( "Active", "a" );
   auto const waits = newStage( "Waits", { "Active" } );
   start();
   auto const all = [ & ]( bool active ) {
      for( Kiv::PtrInterface const * reactor : std::initializer_list< Kiv::PtrInterface const * >{
              sm.get(), sm->kivConfig().get(), sm->kivStatus().get(),
              sm->recalculateNextStage().get(), sm->stageEnableSm( "Waits" ).get(),
              stageSm( "Active" ).get(), stageSm( "Active" )->event( "a" ).get(),
              stageSm( "Active" )->stageUncompleted().get() } )
         EXPECT_EQ( reactor->hasNotificationActive(), active );
   };
   all( true );
   sm->hasNotificationActiveIs( false );
   all( false );
   newEvent( "Active", "b" );
   status->activeStageIs( waits );
   config->enabledIs( false );
   TraceRecorder trace;
   deliver();
   EXPECT_EQ( trace.taken(), Lines() );
   sm->hasNotificationActiveIs( true );
   all( true );
   deliver();
   Lines handlers;
   for( Kiv::TraceLine const & line : trace.lines() ) {
      std::string const text = line.text.str();
      if( text == "void Stage::StatusSm::handleEnabled()" ||
          text == "void Stage::StatusSm::handleActiveStage(Kiv::String) Waits" ||
          text.rfind( "void Stage::StageSm::handleEventDel(Kiv::String8)", 0 ) == 0 )
         handlers.push_back( text.substr( 0, text.find( '(' ) ) );
   }
   EXPECT_EQ( handlers, ( Lines{ "void Stage::StageSm::handleEventDel",
                                 "void Stage::StatusSm::handleActiveStage",
                                 "void Stage::StatusSm::handleEnabled" } ) );
}

// ---- enabled

TEST_F( StatusSmTest, AnEnabledConfigurationStartsProgressionInsideTheConstructor ) {
   config->enabledIs( true );
   newStage( "A" );
   newStage( "B" );
   Ptr< Stage::StatusSm > const made = new Stage::StatusSm( "App", config, status, progress, log );
   EXPECT_TRUE( made->stageEnableSm( "A" ) );
   EXPECT_TRUE( made->stageEnableSm( "B" ) );
   EXPECT_EQ( made->stageEnableSms(), 2U );
   EXPECT_EQ( logged(), ( Lines{ "1000 Stage progression started" } ) );
   EXPECT_TRUE( made->needRecalculateNextStage() );
   EXPECT_EQ( made->recalculateNextStage()->timeMin(), 1000 );
   EXPECT_EQ( status->activeStages(), 0U );
}

TEST_F( StatusSmTest, TheFirstReactionsTraceWhatTheyMake ) {
   config->enabledIs( true );
   newStage( "A" );
   newStage( "B" );
   TraceRecorder trace;
   make();
   Lines expected{ "void Stage::StatusSm::handleActiveStage()",
                   "Not initialized.  Return from void Stage::StatusSm::handleActiveStage()",
                   "void Stage::StatusSm::handleInitialized()",
                   "void Stage::StatusSm::handleEnabled()" };
   for( auto const & name : stageNames() )
      expected.push_back( "Creating Stage Enable Sm for " + name );
   expected.insert( expected.end(), { "void Stage::LogSm::logIs(Kiv::String8) "
                                      "Stage progression started",
                                      decisionAsked,     // by the reaction to `enabled`
                                      decisionAsked } ); // once more: a request was pending
   EXPECT_EQ( trace.taken(), expected );
}

TEST_F( StatusSmTest, AConfigurationThatIsEnabledLaterStartsProgressionThen ) {
   newEvent( "A", "a" );
   make();
   idle();
   EXPECT_EQ( waiting(), 0U );
   pass( 5 );
   EXPECT_EQ( texts(), Lines() );
   config->enabledIs( true );
   EXPECT_EQ( waiting(), 0U ) << "a setter calls nobody";
   deliver();
   EXPECT_EQ( waiting(), 1U );
   EXPECT_EQ( logged(), ( Lines{ "1005 Stage progression started" } ) );
   idle();
   EXPECT_EQ( logged(), ( Lines{ "1005 stage A started", "1005   event A:a started" } ) );
}

TEST_F( StatusSmTest, OffAndOnAgainBeforeAnythingIsActiveStartsAgainWithoutASecondSet ) {
   // A stage that waits for one that does not exist never becomes active.
   newStage( "A", { "Nowhere" } );
   start();
   auto const held = sm->stageEnableSm( "A" );
   texts();
   TraceRecorder trace;
   config->enabledIs( false );
   idle();
   EXPECT_EQ( texts(), Lines() );
   EXPECT_EQ( sm->stageEnableSm( "A" ), held ) << "disabling does nothing";
   newStage( "Late", { "Nowhere" } );
   config->enabledIs( true );
   deliver();
   EXPECT_EQ( texts(), ( Lines{ "Stage progression started" } ) );
   EXPECT_EQ( trace.count( decisionAsked ), 1U );
   EXPECT_EQ( trace.countStarting( "Creating Stage Enable Sm for" ), 0U );
   EXPECT_EQ( sm->stageEnableSm( "A" ), held );
   EXPECT_EQ( waiting(), 1U );
   idle();
   EXPECT_EQ( trace.count( decisionMade ), 1U );
}

TEST_F( StatusSmTest, OffAndOnAgainWhileAStageIsActiveDoesNothing ) {
   newEvent( "A", "a" );
   newStage( "B", { "A" } );
   start();
   texts();
   TraceRecorder trace;
   config->enabledIs( false );
   idle();
   config->enabledIs( true );
   idle();
   EXPECT_EQ( texts(), Lines() );
   EXPECT_EQ( trace.taken(), ( Lines{ "void Stage::StatusSm::handleEnabled()",
                                      "void Stage::StatusSm::handleEnabled()" } ) );
   EXPECT_EQ( waiting(), 1U );
   EXPECT_EQ( sm->stageSms(), 1U );
}

TEST_F( StatusSmTest, OffAndOnAgainWhenEverythingIsCompleteDoesNothing ) {
   newEvent( "A", "a", true );
   start();
   ASSERT_TRUE( status->complete() );
   texts();
   config->enabledIs( false );
   idle();
   config->enabledIs( true );
   idle();
   EXPECT_EQ( texts(), Lines() );
}

TEST_F( StatusSmTest, OffAndOnAgainAfterACompletionWithoutStagesSaysNothing ) {
   start();
   ASSERT_TRUE( status->complete() );
   texts();
   TraceRecorder trace;
   config->enabledIs( false );
   idle();
   newStage( "Late" );
   config->enabledIs( true );
   idle();
   EXPECT_EQ( texts(), Lines() ) << "progression was recorded as complete";
   EXPECT_EQ( trace.count( decisionAsked ), 0U );
   EXPECT_EQ( trace.count( "Creating Stage Enable Sm for Late" ), 1U );
   EXPECT_EQ( waiting(), 1U );
}

TEST_F( StatusSmTest, OffAndOnAgainWhileOnlyAStageSmIsLeftMakesNoSecondSet ) {
   newEvent( "A", "a" );
   start();
   ASSERT_EQ( waiting(), 0U );
   ASSERT_EQ( sm->stageSms(), 1U );
   status->activeStageDel( "A" );
   idle();
   texts();
   config->enabledIs( false );
   idle();
   config->enabledIs( true );
   deliver();
   EXPECT_EQ( waiting(), 0U );
   EXPECT_EQ( texts(), ( Lines{ "Stage progression started" } ) );
}

TEST_F( StatusSmTest, SwitchingOffStopsNothingThatIsUnderWay ) {
   auto const a = newEvent( "A", "a" );
   newEvent( "B", "b", true );
   status->stage( "B" )->dependencyIs( "A", true );
   start();
   config->enabledIs( false );
   idle();
   a->completeIs( true );
   idle();
   EXPECT_TRUE( status->complete() );
}

TEST_F( StatusSmTest, AStatusWithoutStagesIsCompleteAtTheFirstDecision ) {
   config->enabledIs( true );
   make();
   EXPECT_EQ( waiting(), 0U );
   EXPECT_EQ( logged(), ( Lines{ "1000 Stage progression started" } ) );
   EXPECT_FALSE( status->complete() );
   idle();
   EXPECT_TRUE( status->complete() );
   EXPECT_EQ( logged(), ( Lines{ "1000 Stage progression is complete" } ) );
}

TEST_F( StatusSmTest, OverAStatusWithActiveStagesItWaits ) {
   newEvent( "A", "a", true );
   status->activeStageIs( status->stage( "A" ) );
   newStage( "B" );
   start();
   pass( 100 );
   EXPECT_EQ( texts(), Lines() );
   EXPECT_EQ( waiting(), 0U );
   EXPECT_EQ( sm->stageSms(), 0U );
   EXPECT_EQ( status->activeStages(), 1U );
   EXPECT_FALSE( status->complete() );
   EXPECT_EQ( progressed(), Lines() );
}

TEST_F( StatusSmTest, OverAStatusThatIsCompleteItMakesItsReactorsAndSaysNothing ) {
   newStage( "A" );
   status->completeIs( true );
   config->enabledIs( true );
   make();
   idle();
   EXPECT_EQ( waiting(), 1U );
   EXPECT_EQ( texts(), Lines() );
   EXPECT_EQ( status->activeStages(), 0U );
}

TEST_F( StatusSmTest, BeforeInitialisationTheReactionToEnabledOnlyTraces ) {
   newStage( "A" );
   make();
   config->enabledIs( true );
   sm->initializedIs( false );
   TraceRecorder trace;
   deliver();
   EXPECT_EQ( trace.taken(),
              ( Lines{ "void Stage::StatusSm::handleEnabled()", notInitializedEnabled } ) );
   EXPECT_EQ( waiting(), 0U );
   EXPECT_EQ( texts(), Lines() );
   sm->initializedIs( true );
   sm->handleEnabled();
   EXPECT_EQ( waiting(), 1U );
}

TEST_F( StatusSmTest, ARequestFromBeforeInitialisationIsMadeGoodByIt ) {
   newStage( "A" );
   make();
   sm->initializedIs( false );
   sm->doNextStage();
   ASSERT_TRUE( sm->needRecalculateNextStage() );
   ASSERT_EQ( sm->recalculateNextStage()->timeMin(), Kiv::infinity );
   TraceRecorder trace;
   sm->handleInitialized();
   EXPECT_EQ( trace.taken(), ( Lines{ "void Stage::StatusSm::handleInitialized()",
                                      "void Stage::StatusSm::handleEnabled()", decisionAsked } ) );
   EXPECT_EQ( sm->recalculateNextStage()->timeMin(), 1000 );
   idle();
   EXPECT_EQ( texts(), ( Lines{ "stage A started", "stage A is complete",
                                "Stage progression is complete" } ) );
}

TEST_F( StatusSmTest, InitialisationLeavesTheTimerIdle ) {
   make();
   sm->recalculateNextStage()->timeMinIs( 2000 );
   sm->initializedIs( false );
   sm->handleInitialized();
   EXPECT_EQ( sm->recalculateNextStage()->timeMin(), Kiv::infinity );
}

TEST_F( StatusSmTest, WithoutAPendingRequestInitialisationAsksForNothing ) {
   make();
   TraceRecorder trace;
   sm->initializedIs( false );
   sm->handleInitialized();
   EXPECT_TRUE( sm->initialized() );
   EXPECT_EQ( trace.count( decisionAsked ), 0U );
}

// ---- single attributes

TEST_F( StatusSmTest, AnotherConfigurationIsWatchedInPlaceOfTheFirst ) {
   make();
   auto const other = Stage::Config::ConfigIs( "other" );
   sm->configIs( other );
   EXPECT_EQ( sm->config(), other );
   EXPECT_FALSE( config->hasNotifiees() );
   other->enabledIs( true );
   idle();
   EXPECT_TRUE( status->complete() );
}

TEST_F( StatusSmTest, WithoutItsReactorsItHasNeitherConfigurationNorStatus ) {
   make();
   sm->configDel();
   sm->statusDel();
   sm->recalculateNextStageDel();
   sm->logSmDel();
   EXPECT_FALSE( sm->config() );
   EXPECT_FALSE( sm->kivConfig() );
   EXPECT_FALSE( sm->status() );
   EXPECT_FALSE( sm->kivStatus() );
   EXPECT_FALSE( sm->recalculateNextStage() );
   EXPECT_FALSE( sm->logSm() );
   EXPECT_FALSE( config->hasNotifiees() );
   EXPECT_FALSE( status->hasNotifiees() );
   EXPECT_FALSE( clock->hasNotifiees() );
   sm->configDel();
   sm->statusDel();
   sm->recalculateNextStageDel();
   sm->logSmDel();
   sm->configIs( config );
   sm->statusIs( status );
   sm->recalculateNextStageIs( clock );
   sm->logSmIs( log );
   config->enabledIs( true );
   idle();
   EXPECT_TRUE( status->complete() );
}

TEST_F( StatusSmTest, ReactorsThatAreTakenAwayAreMarkedAndDetached ) {
   make();
   auto const kivConfig = sm->kivConfig();
   auto const kivStatus = sm->kivStatus();
   auto const timer = sm->recalculateNextStage();
   config->enabledIs( true );
   sm->configDel();
   sm->statusDel();
   sm->recalculateNextStageDel();
   EXPECT_TRUE( kivConfig->kivMarkedForDeletion() );
   EXPECT_TRUE( kivStatus->kivMarkedForDeletion() );
   EXPECT_TRUE( timer->kivMarkedForDeletion() );
   EXPECT_EQ( kivConfig->statusSm(), nullptr );
   EXPECT_EQ( kivStatus->statusSm(), nullptr );
   EXPECT_EQ( timer->statusSm(), nullptr );
   idle();
   EXPECT_EQ( texts(), Lines() );
}

TEST_F( StatusSmTest, AReactorMadeLaterTakesItsOwnersState ) {
   Ptr< Stage::StatusSm > const made = new Stage::StatusSm( "App", config, status, progress, log );
   EXPECT_FALSE( made->newConfig( config )->hasNotificationActive() );
   made->hasNotificationActiveIs( true );
   EXPECT_TRUE( made->newConfig( config )->hasNotificationActive() );
   EXPECT_TRUE( made->newStatus( status )->hasNotificationActive() );
   EXPECT_TRUE( made->newRecalculateNextStage( clock )->hasNotificationActive() );
}

TEST_F( StatusSmTest, AnotherLogGivesAnotherLogSmAndTheSameLogTheSame ) {
   make();
   auto const first = sm->logSm();
   sm->logSmIs( log );
   EXPECT_EQ( sm->logSm(), first );
   auto const other = Stage::Log::LogIs( "other" );
   sm->logSmIs( other );
   EXPECT_NE( sm->logSm(), first );
   EXPECT_EQ( sm->logSm()->stageLog(), other );
}

// ---- stages that wait

TEST_F( StatusSmTest, AStageEnableSmIsMadeStoredAndSwitchedOn ) {
   make();
   auto const a = newStage( "A" );
   auto const made = sm->stageEnableSmIs( a );
   EXPECT_EQ( sm->stageEnableSm( "A" ), made );
   EXPECT_EQ( made->stage(), a );
   EXPECT_EQ( made->mainSm(), sm.get() );
   EXPECT_EQ( made->fwkKey(), "A" );
   EXPECT_TRUE( made->hasNotificationActive() );
   EXPECT_EQ( waiting(), 1U );
   EXPECT_EQ( sm->stageEnableSmIs( a ), made );
   EXPECT_EQ( waiting(), 1U );
}

TEST_F( StatusSmTest, AHeldStageEnableSmIsReattachedToAnotherStageOfItsName ) {
   make();
   auto const held = sm->stageEnableSmIs( newStage( "A" ) );
   auto const otherStatus = Stage::Status::StatusIs( "other" );
   auto const other = otherStatus->stageIs( "A" );
   EXPECT_EQ( sm->stageEnableSmIs( other ), held );
   EXPECT_EQ( held->stage(), other );
   EXPECT_EQ( sm->stageEnableSm( "A" ), held );
}

TEST_F( StatusSmTest, ANewStageEnableSmIsNotStored ) {
   make();
   auto const made = sm->newStageEnableSm( newStage( "A" ) );
   EXPECT_TRUE( made );
   EXPECT_FALSE( made->hasNotificationActive() );
   EXPECT_EQ( waiting(), 0U );
}

TEST_F( StatusSmTest, StageEnableSmsAreRemovedOneByOneAndAllAtOnce ) {
   make();
   auto const a = newStage( "A" );
   Ptr< Stage::StageEnableSm > const first = sm->stageEnableSmIs( a );
   sm->stageEnableSmIs( newStage( "B" ) );
   sm->stageEnableSmIs( newStage( "C" ) );
   a->criticalIs( true );
   sm->stageEnableSmDel( "A" );
   sm->stageEnableSmDel( "A" );
   sm->stageEnableSmDel( "Nowhere" );
   EXPECT_TRUE( first->kivMarkedForDeletion() );
   EXPECT_EQ( waiting(), 2U );
   TraceRecorder trace;
   idle();
   EXPECT_EQ( trace.count( decisionAsked ), 0U ) << "a removed one reacts";
   sm->stageEnableSmDelAll();
   EXPECT_EQ( waiting(), 0U );
   EXPECT_FALSE( status->stage( "B" )->hasNotifiees() );
}

// ---- active stages

TEST_F( StatusSmTest, AStageSmIsMadeStoredAndSwitchedOn ) {
   make();
   newEvent( "A", "a" );
   auto const a = status->stage( "A" );
   auto const made = sm->stageSmIs( a, sm->logSm() );
   EXPECT_EQ( sm->stageSm( "A" ), made );
   EXPECT_EQ( made->stage(), a );
   EXPECT_EQ( made->logSm(), sm->logSm() );
   EXPECT_EQ( made->mainSm(), sm.get() );
   EXPECT_EQ( made->fwkKey(), "A" );
   EXPECT_TRUE( made->hasNotificationActive() );
   EXPECT_TRUE( made->event( "a" )->hasNotificationActive() );
   EXPECT_TRUE( made->stageUncompleted()->hasNotificationActive() );
   EXPECT_EQ( sm->stageSmIs( a, sm->logSm() ), made );
   EXPECT_EQ( sm->stageSms(), 1U );
   EXPECT_EQ( texts(), ( Lines{ "  event A:a started" } ) );
}

TEST_F( StatusSmTest, AHeldStageSmIsReattachedToAnotherStageOfItsName ) {
   make();
   newEvent( "A", "a" );
   auto const held = sm->stageSmIs( status->stage( "A" ), sm->logSm() );
   auto const otherStatus = Stage::Status::StatusIs( "other" );
   auto const other = otherStatus->stageIs( "A" );
   EXPECT_EQ( sm->stageSmIs( other, sm->logSm() ), held );
   EXPECT_EQ( held->stage(), other );
}

TEST_F( StatusSmTest, AStageSmWithAnotherLogSmIsRefusedAfterTheHeldOneWasReattached ) {
   make();
   newEvent( "A", "a" );
   auto const held = sm->stageSmIs( status->stage( "A" ), sm->logSm() );
   auto const otherStatus = Stage::Status::StatusIs( "other" );
   auto const other = otherStatus->stageIs( "A" );
   EXPECT_EQ( thrownBy( [ & ] { sm->stageSmIs( other, sm->newLogSm( log ) ); } ),
              "name in use: Reinstantiating the pointer interface where constructor parameter "
              "attribute _logSm has a different value of Stage::LogSm than the current value of "
              "Stage::LogSm not allowed" );
   EXPECT_EQ( sm->stageSm( "A" ), held );
   EXPECT_EQ( held->stage(), other );
   EXPECT_EQ( held->logSm(), sm->logSm() );
   EXPECT_EQ( thrownBy( [ & ] { sm->stageSmIs( other, nullptr ); } ),
              "name in use: Reinstantiating the pointer interface where constructor parameter "
              "attribute _logSm has a different value of null than the current value of "
              "Stage::LogSm not allowed" );
   EXPECT_EQ( sm->stageSm( "A" ), held );
}

TEST_F( StatusSmTest, StageSmsAreRemovedOneByOneAndAllAtOnce ) {
   make();
   auto const a = newEvent( "A", "a" );
   newEvent( "B", "b" );
   newEvent( "C", "c" );
   Ptr< Stage::StageSm > const first = sm->stageSmIs( status->stage( "A" ), sm->logSm() );
   sm->stageSmIs( status->stage( "B" ), sm->logSm() );
   sm->stageSmIs( status->stage( "C" ), sm->logSm() );
   a->completeIs( true );
   sm->stageSmDel( "A" );
   sm->stageSmDel( "A" );
   sm->stageSmDel( "Nowhere" );
   EXPECT_TRUE( first->kivMarkedForDeletion() );
   EXPECT_EQ( sm->stageSms(), 2U );
   texts();
   idle();
   EXPECT_EQ( texts(), Lines() ) << "a removed one reacts";
   sm->stageSmDelAll();
   EXPECT_EQ( sm->stageSms(), 0U );
   EXPECT_FALSE( status->stage( "B" )->hasNotifiees() );
}

TEST_F( StatusSmTest, NullStagesAreRefusedAndNothingIsStored ) {
   make();
   EXPECT_EQ( thrownBy( [ & ] { sm->stageEnableSmIs( nullptr ); } ), nullValidPtr );
   EXPECT_EQ( thrownBy( [ & ] { sm->newStageEnableSm( nullptr ); } ), nullValidPtr );
   EXPECT_EQ( thrownBy( [ & ] { sm->stageSmIs( nullptr, sm->logSm() ); } ), nullValidPtr );
   EXPECT_EQ( thrownBy( [ & ] { sm->newStageSm( nullptr, sm->logSm() ); } ), nullValidPtr );
   EXPECT_EQ( waiting(), 0U );
   EXPECT_EQ( sm->stageSms(), 0U );
   config->enabledIs( true );
   idle();
   EXPECT_TRUE( status->complete() ) << "the loop does not work any more";
}

TEST_F( StatusSmTest, IteratorsVisitEveryStageStateMachine ) {
   newEvent( "A", "a" );
   newStage( "B", { "A" } );
   newStage( "C", { "A" } );
   start();
   std::set< std::string > waits;
   for( auto i = sm->stageEnableSmIterator(); i; ++i )
      waits.insert( i.key().str() + i.ptr()->fwkKey().str() );
   EXPECT_EQ( waits, ( std::set< std::string >{ "BB", "CC" } ) );
   Ptr< Stage::StatusSm const > const readOnly = sm;
   std::set< std::string > active;
   for( auto i = readOnly->stageSmIteratorConst(); i; ++i )
      active.insert( i.key().str() + i.ptr()->fwkKey().str() );
   EXPECT_EQ( active, ( std::set< std::string >{ "AA" } ) );
}

// ---- marking for deletion

TEST_F( StatusSmTest, MarkingMarksEveryReactorAndUnmarkingTakesItBack ) {
   newEvent( "A", "a" );
   newStage( "B", { "A" } );
   start();
   Kiv::Ptr< Stage::StageSm > const stage = stageSm( "A" );
   auto const all = [ & ]( bool marked ) {
      for( Kiv::PtrInterface const * reactor : std::initializer_list< Kiv::PtrInterface const * >{
              sm->kivConfig().get(), sm->kivStatus().get(), sm->recalculateNextStage().get(),
              sm->stageEnableSm( "B" ).get(), stage.get(), stage->event( "a" ).get(),
              stage->stageUncompleted().get() } ) {
         EXPECT_EQ( reactor->kivMarkedForDeletion(), marked );
         EXPECT_EQ( reactor->hasNotificationActive(), !marked );
      }
      EXPECT_EQ( sm->kivMarkedForDeletion(), marked );
   };
   all( false );
   sm->kivDoZombieReactors( true );
   all( true );
   sm->kivDoZombieReactors( false );
   all( false );
}

TEST_F( StatusSmTest, AMarkedStateMachineReactsToNothing ) {
   auto const a = newEvent( "A", "a" );
   auto const b = newStage( "B", { "A" } );
   start();
   texts();
   // Some of it is queued before the mark, some comes after.
   a->completeIs( true );
   config->enabledIs( false );
   sm->kivDoZombieReactors( true );
   b->criticalIs( true );
   b->dependencyDel( "A" );
   status->activeStageIs( b );
   config->enabledIs( true );
   TraceRecorder trace;
   idle();
   pass( 100 );
   EXPECT_EQ( trace.taken(), Lines() );
   EXPECT_EQ( texts(), Lines() );
}

TEST_F( StatusSmTest, MarkingTwiceIsMarkingOnce ) {
   newEvent( "A", "a" );
   start();
   sm->kivDoZombieReactors( true );
   // One reactor is unmarked behind its owner's back: the owner's mark says there is nothing to do.
   stageSm( "A" )->kivDoZombieReactors( false );
   sm->kivDoZombieReactors( true );
   EXPECT_FALSE( stageSm( "A" )->kivMarkedForDeletion() );
}

// ---- destruction

TEST_F( StatusSmTest, ItsEndDetachesItsReactorsAndReleasesItsChildren ) {
   newEvent( "A", "a" );
   newStage( "B", { "A" } );
   start();
   Ptr< Stage::StatusSm::KivConfig > const kivConfig = sm->kivConfig();
   Ptr< Stage::StatusSm::KivStatus > const kivStatus = sm->kivStatus();
   Ptr< Stage::StatusSm::KivRecalculateNextStage > const timer = sm->recalculateNextStage();
   Ptr< Stage::StageSm > const stage = stageSm( "A" );
   Ptr< Stage::StageEnableSm > const waits = sm->stageEnableSm( "B" );
   sm->doNextStage();
   sm = nullptr;
   EXPECT_EQ( kivConfig->statusSm(), nullptr );
   EXPECT_EQ( kivStatus->statusSm(), nullptr );
   EXPECT_EQ( timer->statusSm(), nullptr );
   for( Kiv::PtrInterface const * reactor : std::initializer_list< Kiv::PtrInterface const * >{
           kivConfig.get(), kivStatus.get(), timer.get(), stage.get(), waits.get() } ) {
      EXPECT_TRUE( reactor->kivMarkedForDeletion() );
      EXPECT_EQ( reactor->references(), 1U );
   }
   // What is held by somebody still is called by nobody.
   TraceRecorder trace;
   config->enabledIs( false );
   status->stage( "B" )->criticalIs( true );
   status->stage( "A" )->eventDel( "a" );
   pass( 100 );
   kivConfig->onEnabled();
   kivStatus->onActiveStage( "A" );
   kivStatus->onActiveStage();
   timer->onTime();
   waits->onCritical();
   EXPECT_EQ( trace.taken(), Lines() );
}

namespace {

// Says when the last reference to it goes: here that is when the StageSm that has its timer goes.
struct WatchedClock : Kiv::Clock {
   explicit WatchedClock( std::function< void() > atEnd ) : atEnd_( std::move( atEnd ) ) {}
   ~WatchedClock() override { atEnd_(); }
   std::function< void() > const atEnd_;
};

} // namespace

TEST_F( StatusSmTest, ItsEndReleasesWaitingStagesFirstThenActiveOnesThenItsOwnReactors ) {
   newEvent( "A", "a" );
   newStage( "B", { "A" } );
   start();
   Lines left;
   stageSm( "A" )->stageUncompletedDel();
   stageSm( "A" )->stageUncompletedIs( new WatchedClock( [ & ] {
      left.emplace_back( status->stage( "B" )->hasNotifiees() ? "waiting stage" : "" );
      left.emplace_back( config->hasNotifiees() ? "reactors" : "" );
   } ) );
   sm = nullptr;
   EXPECT_EQ( left, ( Lines{ "", "reactors" } ) );
}

TEST_F( StatusSmTest, DestructionRunsNoHandler ) {
   auto const a = newEvent( "A", "a" );
   newStage( "B", { "A" } );
   start();
   a->completeIs( true );
   config->enabledIs( false );
   TraceRecorder trace;
   sm = nullptr;
   idle();
   EXPECT_EQ( trace.taken(), Lines() );
}

TEST_F( StatusSmTest, TheWholeFormOfActiveStageLooksAtEveryActiveStage ) {
   newEvent( "A", "a" );
   newEvent( "B", "b" );
   newStage( "C", { "Nowhere" } );
   make();
   // Nothing of this is told by name.
   sm->kivStatus()->isRegisteredNotifieeIs( false );
   status->activeStageIs( status->stage( "A" ) );
   status->activeStageIs( status->stage( "B" ) );
   TraceRecorder trace;
   sm->kivStatus()->onActiveStage();
   EXPECT_EQ( trace.count( "void Stage::StatusSm::handleActiveStage()" ), 1U );
   EXPECT_TRUE( sm->stageSm( "A" ) && sm->stageSm( "B" ) );
   EXPECT_FALSE( sm->stageSm( "C" ) );
   EXPECT_EQ( progress->stages(), 2U );
   sm->kivStatus()->kivDoZombieReactors( true );
   trace.clear();
   sm->kivStatus()->onActiveStage();
   EXPECT_EQ( trace.taken(), Lines() ) << "a marked reactor reacts";
}

TEST_F( StatusSmTest, TheDeferredFormOfActiveStageDoesNothing ) {
   newStage( "A" );
   newStage( "B" );
   start();
   TraceRecorder trace;
   sm->kivStatus()->onActiveStagekivImmediate();
   EXPECT_EQ( trace.taken(), Lines() );
}
