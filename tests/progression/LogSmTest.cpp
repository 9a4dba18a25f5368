// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include "ProgressionTest.h"

using namespace testing_support;
using Kiv::Ptr;

namespace {

class LogSmTest : public ProgressionTest {};

} // namespace

TEST_F( LogSmTest, TwoTextsGiveTwoEntriesInOrderEachWithItsOwnTime ) {
   Ptr< Stage::LogSm > const logSm = new Stage::LogSm( log );
   logSm->logIs( "first" );
   clock->nowIs( 1002.5 );
   logSm->logIs( "second" );
   clock->nowIs( 2000 );
   EXPECT_EQ( logged(), ( Lines{ "1000 first", "1002.5 second" } ) )
      << "an entry has the time at which it was made";
}

TEST_F( LogSmTest, ATextIsNeitherFilteredNorFormatted ) {
   Ptr< Stage::LogSm > const logSm = new Stage::LogSm( log );
   for( char const * text : { "", "same", "same", "%s %d", "  blanks  " } )
      logSm->logIs( text );
   EXPECT_EQ( texts(), ( Lines{ "", "same", "same", "%s %d", "  blanks  " } ) );
}

TEST_F( LogSmTest, TheEntryKeepsACopyOfTheText ) {
   Ptr< Stage::LogSm > const logSm = new Stage::LogSm( log );
   Kiv::String8 text( "before" );
   logSm->logIs( text );
   text += " and after";
   EXPECT_EQ( texts(), ( Lines{ "before" } ) );
}

TEST_F( LogSmTest, WithoutALogATextIsRefused ) {
   Ptr< Stage::LogSm > const logSm = new Stage::LogSm( nullptr );
   EXPECT_FALSE( logSm->stageLog() );
   EXPECT_EQ( thrownBy( [ & ] { logSm->logIs( "text" ); } ), nullValidPtr );
}

TEST_F( LogSmTest, ItHoldsItsLogWhileItLives ) {
   auto const before = log->references();
   Ptr< Stage::LogSm > logSm = new Stage::LogSm( log );
   EXPECT_EQ( logSm->stageLog(), log );
   EXPECT_EQ( log->references(), before + 1 );
   logSm = nullptr;
   EXPECT_EQ( log->references(), before );
}

TEST_F( LogSmTest, TheFactorySwitchesItsNotificationsOn ) {
   make();
   auto const logSm = sm->newLogSm( log );
   ASSERT_TRUE( logSm );
   EXPECT_NE( logSm, sm->logSm() );
   EXPECT_EQ( logSm->stageLog(), log );
   EXPECT_TRUE( logSm->hasNotificationActive() );
   EXPECT_FALSE( Ptr< Stage::LogSm >( new Stage::LogSm( log ) )->hasNotificationActive() );
}

TEST_F( LogSmTest, ItIsMarkedAndUnmarked ) {
   Ptr< Stage::LogSm > const logSm = new Stage::LogSm( log );
   logSm->kivDoZombieReactors( true );
   EXPECT_TRUE( logSm->kivMarkedForDeletion() );
   logSm->kivDoZombieReactors( true );
   EXPECT_TRUE( logSm->kivMarkedForDeletion() );
   logSm->kivDoZombieReactors( false );
   EXPECT_FALSE( logSm->kivMarkedForDeletion() );
}

TEST_F( LogSmTest, EveryStageStateMachineWritesThroughTheLogSmOfItsOwner ) {
   newEvent( "A", "a" );
   newEvent( "B", "b" );
   start();
   EXPECT_EQ( stageSm( "A" )->logSm(), sm->logSm() );
   EXPECT_EQ( stageSm( "B" )->logSm(), sm->logSm() );
}

// ---- the declared messages

TEST( LogHandlesTest, TheSlowStageMessageIsDeclaredAsOperatorsKnowIt ) {
   Kiv::LogHandle const & handle = Stage::ORDOVAN_STAGE_SLOW;
   EXPECT_EQ( handle.id(), "ORDOVAN_STAGE_SLOW" );
   EXPECT_EQ( handle.severity(), 4U );
   EXPECT_EQ( handle.format(), "%s stage %s timed out" );
   EXPECT_EQ( handle.explanation(),
              "A stage in progression is taking longer than expected. Stages that depend on this "
              "stage will begin after this stage is completed." );
   EXPECT_EQ( handle.recommendedAction(), std::string_view( Kiv::NoActionRequired ) );
   EXPECT_EQ( handle.interval(), 0.0 );
   EXPECT_EQ( handle.count(), 1.0 );
   EXPECT_EQ( handle.rateLimitArgs(), 0U );
}

TEST( LogHandlesTest, TheCompletedAfterTimeoutMessageIsDeclaredWithTwoBlanksInItsExplanation ) {
   Kiv::LogHandle const & handle = Stage::ORDOVAN_STAGE_COMPLETE_AFTER_TIMEOUT;
   EXPECT_EQ( handle.id(), "ORDOVAN_STAGE_COMPLETE_AFTER_TIMEOUT" );
   EXPECT_EQ( handle.severity(), 4U );
   EXPECT_EQ( handle.format(), "%s resumed after stage %s completed after timeout." );
   EXPECT_EQ( handle.explanation(),
              "A stage that had been taking longer than expected to complete has now completed.  "
              "Stages that depend on this completion are able to proceed." );
   EXPECT_EQ( handle.recommendedAction(), std::string_view( Kiv::NoActionRequired ) );
   EXPECT_EQ( handle.interval(), 0.0 );
   EXPECT_EQ( handle.count(), 1.0 );
   EXPECT_EQ( handle.rateLimitArgs(), 0U );
}

TEST_F( LogSmTest, DeclaredMessagesAreNotSuppressedHoweverManyThereAre ) {
   MessageRecorder messages;
   for( int i = 0; i != 3; ++i )
      Kiv::log( Stage::ORDOVAN_STAGE_SLOW, Kiv::String8( "App" ), Kiv::String8( "S" ) );
   EXPECT_EQ( messages.lines, ( Lines{ slowMessage, slowMessage, slowMessage } ) );
   EXPECT_EQ( messages.messages.front().time, 1000 );
}

namespace {

// A handle with a limit of one message per 100 seconds and key, and a key of `arguments`.
struct Limited : Kiv::LogHandle {
   explicit Limited( unsigned char arguments )
      : LogHandle( "LIMITED", 4, "%s and %s", "", "", 100.0, 1.0, arguments ) {}
   void say( char const * a, char const * b ) {
      Kiv::log( *this, Kiv::String8( a ), Kiv::Name( b ) );
   }
};

} // namespace

TEST_F( LogSmTest, WithoutKeyArgumentsEveryMessageCountsAgainstTheSameLimit ) {
   MessageRecorder messages;
   Limited handle( 0 );
   handle.say( "a", "b" );
   handle.say( "c", "d" );
   EXPECT_EQ( messages.lines, ( Lines{ "LIMITED: a and b" } ) );
   clock->nowIs( 1100 );
   handle.say( "c", "d" );
   EXPECT_EQ( messages.lines, ( Lines{ "LIMITED: a and b", "LIMITED: c and d" } ) );
}

TEST_F( LogSmTest, WithOneKeyArgumentTheFirstNameAloneCounts ) {
   MessageRecorder messages;
   Limited handle( 1 );
   handle.say( "a", "b" );
   handle.say( "a", "d" );
   handle.say( "c", "b" );
   EXPECT_EQ( messages.lines, ( Lines{ "LIMITED: a and b", "LIMITED: c and b" } ) );
}

TEST_F( LogSmTest, WithTwoOrMoreKeyArgumentsBothNamesCount ) {
   for( char const arguments : { '\2', '\3', '\x7f' } ) {
      MessageRecorder messages;
      Limited handle( static_cast< unsigned char >( arguments ) );
      handle.say( "a", "b" );
      handle.say( "a", "d" );
      handle.say( "c", "b" );
      handle.say( "a", "b" );
      EXPECT_EQ( messages.lines,
                 ( Lines{ "LIMITED: a and b", "LIMITED: a and d", "LIMITED: c and b" } ) );
   }
}
