// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The slow-stage timer, and what happens when it fires.
#include "ProgressionTest.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <new>
#include <stdexcept>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace testing_support;
using Kiv::Ptr;

namespace {

class SlowStageTest : public ProgressionTest {
 protected:
   SlowStageTest() {
      make();
      stage_ = newStage( "S" );
      stage_->timeoutIs( 5 );
   }
   Ptr< Stage::StageSm > activate() {
      s = sm->stageSmIs( stage_, sm->logSm() );
      return s;
   }
   double due() const { return s->stageUncompleted()->timeMin(); }
   // Lets the time pass, and gives what was printed meanwhile.
   std::string printedWhile( double seconds ) {
      testing::internal::CaptureStdout();
      pass( seconds );
      return testing::internal::GetCapturedStdout();
   }
   // Each pending event as the report of a timeout shows it, in the order of the collection.
   std::string pendingAsReported() const {
      std::string text;
      for( auto i = s->pendingEventIteratorConst(); i; ++i )
         text += "  " + i.key().str();
      return text;
   }

   Ptr< Stage::StageStatus > stage_;
   Ptr< Stage::StageSm > s;
   MessageRecorder messages;
};

class CriticalSlowStageTest : public SlowStageTest {
 protected:
   CriticalSlowStageTest() {
      stage_->criticalIs( true );
      event = newEvent( "S", "a" );
      activate();
      texts();
   }
   Ptr< Stage::EventConfig > event;
};

constexpr double notANumber = std::numeric_limits< double >::quiet_NaN();

} // namespace

// ---- the timer

TEST_F( SlowStageTest, WithPendingEventsATimerIsArmedOnceForNowPlusTheTimeout ) {
   newEvent( "S", "a" );
   clock->nowIs( 1010 );
   activate();
   ASSERT_TRUE( s->stageUncompleted() );
   EXPECT_EQ( s->stageUncompleted()->notifier(), clock );
   EXPECT_EQ( s->stageUncompleted()->stageSm(), s.get() );
   EXPECT_EQ( due(), 1015 );
}

TEST_F( SlowStageTest, WithoutPendingEventsThereIsNoTimer ) {
   newEvent( "S", "a", true );
   activate();
   EXPECT_FALSE( s->stageUncompleted() );
}

TEST_F( SlowStageTest, TheTimerGoesWhenNothingIsPendingAtTheEndOfInitialisation ) {
   auto const a = newEvent( "S", "a" );
   activate();
   a->completeIs( true );
   deliver();
   ASSERT_TRUE( s->stageUncompleted() );
   auto const timer = s->stageUncompleted();
   s->handleInitialized();
   EXPECT_FALSE( s->stageUncompleted() );
   EXPECT_TRUE( timer->kivMarkedForDeletion() );
   EXPECT_EQ( timer->stageSm(), nullptr );
}

TEST_F( SlowStageTest, TheTimerFiresAtItsTimeAndNotBefore ) {
   newEvent( "S", "a" );
   activate();
   pass( 4.75 );
   EXPECT_FALSE( s->timedOut() );
   pass( 0.25 );
   EXPECT_TRUE( s->timedOut() );
   EXPECT_EQ( s->completionTime(), 1005 );
}

// What is queued is delivered before any timer is fired.
TEST_F( SlowStageTest, AnEventThatCompletesAtTheInstantOfTheTimerIsInTime ) {
   auto const a = newEvent( "S", "a" );
   activate();
   clock->nowIs( 1005 );
   a->completeIs( true );
   idle();
   EXPECT_TRUE( s->complete() );
   EXPECT_FALSE( s->timedOut() );
   EXPECT_EQ( s->completionTime(), 1005 );
   Lines const lines = texts();
   EXPECT_EQ( std::count( lines.begin(), lines.end(), "stage S is complete" ), 1 );
   EXPECT_EQ( std::count( lines.begin(), lines.end(), "stage S is complete (timeout)" ), 0 );
}

TEST_F( SlowStageTest, TheTimerFiresOnce ) {
   newEvent( "S", "a" );
   activate();
   pass( 5 );
   texts();
   EXPECT_EQ( due(), Kiv::infinity );
   pass( 1000 );
   EXPECT_EQ( texts(), Lines() );
}

TEST_F( SlowStageTest, CompletionDisarmsTheTimer ) {
   auto const a = newEvent( "S", "a" );
   activate();
   pass( 4 );
   a->completeIs( true );
   idle();
   ASSERT_TRUE( s->stageUncompleted() );
   EXPECT_EQ( due(), Kiv::infinity );
   texts();
   pass( 1000 );
   EXPECT_EQ( texts(), Lines() );
   EXPECT_FALSE( s->timedOut() );
}

TEST_F( SlowStageTest, AnInfiniteTimeoutNeverFires ) {
   stage_->timeoutIs( Kiv::infinity );
   newEvent( "S", "a" );
   activate();
   ASSERT_TRUE( s->stageUncompleted() );
   EXPECT_EQ( due(), Kiv::infinity );
   pass( 1e9 );
   EXPECT_FALSE( s->timedOut() );
}

TEST_F( SlowStageTest, ATimeoutThatIsNoNumberNeverFires ) {
   stage_->timeoutIs( notANumber );
   newEvent( "S", "a" );
   activate();
   ASSERT_TRUE( s->stageUncompleted() );
   pass( 1e9 );
   EXPECT_FALSE( s->timedOut() );
}

TEST_F( SlowStageTest, ATimeoutOfZeroFiresAtOnceAndANegativeOneToo ) {
   for( double const timeout : { 0.0, -7.0 } ) {
      auto const name = timeout == 0 ? "Zero" : "Negative";
      newEvent( name, "a" );
      status->stage( name )->timeoutIs( timeout );
      auto const made = sm->stageSmIs( status->stage( name ), sm->logSm() );
      EXPECT_FALSE( made->timedOut() ) << "it fires inside the constructor";
      EXPECT_EQ( made->stageUncompleted()->timeMin(), 1000 + timeout );
      idle();
      EXPECT_TRUE( made->timedOut() );
      EXPECT_EQ( made->completionTime(), 1000 );
   }
}

TEST_F( SlowStageTest, ALaterChangeOfTheTimeoutDoesNotMoveTheTimer ) {
   newEvent( "S", "a" );
   activate();
   stage_->timeoutIs( 1 );
   idle();
   EXPECT_EQ( due(), 1005 );
   stage_->timeoutIs( 500 );
   idle();
   EXPECT_EQ( due(), 1005 );
   pass( 5 );
   EXPECT_TRUE( s->timedOut() );
}

TEST_F( SlowStageTest, AnEventThatJoinsLaterArmsNothing ) {
   auto const a = newEvent( "S", "a" );
   activate();
   pass( 3 );
   newEvent( "S", "b" );
   idle();
   EXPECT_EQ( due(), 1005 ) << "the timer was moved";
   status->stage( "S" )->eventDel( "b" );
   a->completeIs( true );
   idle();
   newEvent( "S", "c" );
   idle();
   EXPECT_EQ( due(), Kiv::infinity ) << "the timer was armed again";
   pass( 1000 );
   EXPECT_FALSE( s->timedOut() );
}

TEST_F( SlowStageTest, AnEventThatJoinsAStageThatWasCompleteFromTheStartHasNoTimer ) {
   activate();
   newEvent( "S", "late" );
   pass( 1000 );
   EXPECT_FALSE( s->stageUncompleted() );
   EXPECT_FALSE( s->timedOut() );
}

TEST_F( SlowStageTest, BeforeInitialisationTheTimerIsIgnored ) {
   newEvent( "S", "a" );
   activate();
   texts();
   s->initializedIs( false );
   TraceRecorder trace;
   s->stageUncompleted()->onTime();
   EXPECT_EQ( trace.taken(),
              ( Lines{ "void Stage::StageSm::handleStageUncompleted() S",
                       " not yet initialized; ignore initial handler for timeout." } ) );
   EXPECT_EQ( texts(), Lines() );
   EXPECT_FALSE( s->timedOut() );
   EXPECT_FALSE( s->complete() );
}

TEST_F( SlowStageTest, AMarkedTimerFiresNothing ) {
   newEvent( "S", "a" );
   activate();
   s->stageUncompleted()->kivDoZombieReactors( true );
   s->stageUncompleted()->onTime();
   pass( 1000 );
   EXPECT_FALSE( s->timedOut() );
}

TEST_F( SlowStageTest, ADetachedStateMachineSurvivesItsTimer ) {
   newEvent( "S", "a" );
   activate();
   s->notifierIs( nullptr );
   pass( 1000 );
   EXPECT_EQ( messages.lines, Lines() );
}

TEST_F( CriticalSlowStageTest, ADetachedStateMachineSurvivesALateEvent ) {
   printedWhile( 5 );
   messages.lines.clear();
   s->notifierIs( nullptr );
   event->completeIs( true );
   idle();
   EXPECT_EQ( messages.lines, Lines() );
}

TEST_F( SlowStageTest, AStageWhoseStateMachineIsGoneTimesOutNoMore ) {
   newEvent( "S", "a" );
   activate();
   Ptr< Stage::StageSm::KivStageUncompleted > const timer = s->stageUncompleted();
   s = nullptr;
   sm->stageSmDel( "S" );
   texts();
   pass( 1000 );
   timer->onTime();
   EXPECT_EQ( texts(), Lines() );
   EXPECT_EQ( timer->stageSm(), nullptr );
}

// ---- a stage that is not critical

TEST_F( SlowStageTest, AnOrdinaryStageIsCompletedByItsTimeout ) {
   newEvent( "S", "a" );
   newEvent( "S", "b" );
   newEvent( "S", "c", true );
   activate();
   texts();
   TraceRecorder trace;
   clock->nowIs( 1005 );
   testing::internal::CaptureStdout();
   EXPECT_TRUE( fire() );
   EXPECT_EQ( testing::internal::GetCapturedStdout(), "" );
   EXPECT_TRUE( s->timedOut() );
   EXPECT_TRUE( s->complete() );
   EXPECT_EQ( s->completionTime(), 1005 );
   EXPECT_TRUE( sm->needRecalculateNextStage() );
   EXPECT_EQ( s->pendingEvents(), 2U ) << "the pending events stay";
   EXPECT_EQ( messages.lines, Lines() );
   EXPECT_EQ( logged(), ( Lines{ "1005 stage S is complete (timeout)" } ) );
   EXPECT_EQ(
      trace.taken(),
      ( Lines{ "void Stage::StageSm::handleStageUncompleted() S", "S has 2 pendingEvents remaining",
               " Incomplete events: " + pendingAsReported(),
               "void Stage::LogSm::logIs(Kiv::String8) stage S is complete (timeout)",
               decisionAsked } ) );
}

TEST_F( SlowStageTest, AnEntryWithoutItsEventIsReportedAsUnknown ) {
   newEvent( "S", "a" );
   activate();
   s->pendingEvent( "S:a" )->pendingEventIs( nullptr );
   TraceRecorder trace;
   pass( 5 );
   EXPECT_EQ( trace.count( " Incomplete events:   <unknown>" ), 1U );
}

TEST_F( SlowStageTest, TheLateCompletionOfAnOrdinaryStageCompletesItAgainWithoutAMessage ) {
   auto const a = newEvent( "S", "a" );
   activate();
   pass( 8 );
   texts();
   TraceRecorder trace;
   a->completeIs( true );
   deliver();
   EXPECT_EQ( logged(), ( Lines{ "1008   event S:a completed", "1008 stage S is complete" } ) );
   EXPECT_EQ( s->completionTime(), 1008 );
   EXPECT_TRUE( s->timedOut() ) << "that is never taken back";
   EXPECT_TRUE( s->complete() );
   EXPECT_TRUE( sm->needRecalculateNextStage() );
   EXPECT_EQ( messages.lines, Lines() );
   EXPECT_EQ(
      trace.taken(),
      ( Lines{ "void Stage::StageSm::KivEvent::handleComplete() S:a (stage: S, agent:a)",
               "void Stage::LogSm::logIs(Kiv::String8)   event S:a completed",
               "void Stage::StageSm::handlePendingEvent(Kiv::String8) S:a",
               "void Stage::StageSm::handlePendingEvent() S", lateTrace,
               "void Stage::LogSm::logIs(Kiv::String8) stage S is complete", decisionAsked } ) );
}

TEST_F( SlowStageTest, OneOfTwoLateEventsCompletesNothing ) {
   auto const a = newEvent( "S", "a" );
   newEvent( "S", "b" );
   activate();
   pass( 8 );
   texts();
   a->completeIs( true );
   idle();
   EXPECT_EQ( texts(), ( Lines{ "  event S:a completed" } ) );
   EXPECT_EQ( s->completionTime(), 1005 );
}

// ---- a critical stage

TEST_F( CriticalSlowStageTest, ACriticalStageIsSuspendedByItsTimeout ) {
   TraceRecorder trace;
   clock->nowIs( 1005 );
   testing::internal::CaptureStdout();
   EXPECT_TRUE( fire() );
   EXPECT_EQ( testing::internal::GetCapturedStdout(), suspensionLine );
   EXPECT_TRUE( s->timedOut() );
   EXPECT_FALSE( s->complete() );
   EXPECT_EQ( s->completionTime(), 0.0 );
   EXPECT_FALSE( sm->needRecalculateNextStage() );
   EXPECT_EQ( s->pendingEvents(), 1U );
   EXPECT_EQ( messages.lines, ( Lines{ slowMessage } ) );
   EXPECT_EQ( logged(), ( Lines{ "1005 stage S is complete (timeout)" } ) )
      << "on purpose, although it is not complete";
   EXPECT_EQ( trace.taken(),
              ( Lines{ "void Stage::StageSm::handleStageUncompleted() S",
                       "S has 1 pendingEvents remaining", " Incomplete events:   S:a",
                       "void Stage::LogSm::logIs(Kiv::String8) stage S is complete (timeout)",
                       suspensionLine } ) );
}

// On purpose: whoever searches the log for times that were up finds all of them by one text.
TEST_F( CriticalSlowStageTest, TheLogSaysOfACriticalStageTooThatItsTimeWasUpInTheSameWords ) {
   newEvent( "T", "a" )->timeoutIs( 5 );
   status->stage( "T" )->timeoutIs( 5 );
   sm->stageSmIs( status->stage( "T" ), sm->logSm() );
   texts();
   printedWhile( 5 );
   Lines const lines = texts();
   for( char const * line : { "stage S is complete (timeout)", "stage T is complete (timeout)" } )
      EXPECT_EQ( std::count( lines.begin(), lines.end(), line ), 1 ) << line;
   EXPECT_FALSE( s->complete() );
   EXPECT_TRUE( sm->stageSm( "T" )->complete() );
}

// Whoever watches the console knows the line by that: the blank at its beginning, none but what
// comes next at its end, and the names in the other order than in the message.
TEST_F( CriticalSlowStageTest, TheConsoleLineIsKeptAsItIsKnownWithItsBlankAndWithoutANewline ) {
   EXPECT_EQ( printedWhile( 5 ), " Critical stage S timed out! App suspended for debugging." );
   EXPECT_EQ( messages.lines, ( Lines{ "ORDOVAN_STAGE_SLOW: App stage S timed out" } ) );
}

TEST_F( CriticalSlowStageTest, TheSuspensionIsReportedInOrder ) {
   // What can be seen at the moment of the message.
   Lines seen;
   Kiv::logSinkIs( [ & ]( Kiv::LogMessage const & message ) {
      seen.push_back( message.id.str() );
      for( auto const & text : texts() )
         seen.push_back( "logged before: " + text );
      std::fflush( stdout );
      seen.push_back( "printed before: " + testing::internal::GetCapturedStdout() );
      testing::internal::CaptureStdout();
      seen.emplace_back( s->timedOut() ? "timed out" : "not timed out yet" );
   } );
   testing::internal::CaptureStdout();
   pass( 5 );
   EXPECT_EQ( testing::internal::GetCapturedStdout(), suspensionLine );
   EXPECT_EQ( seen, ( Lines{ "ORDOVAN_STAGE_SLOW", "logged before: stage S is complete (timeout)",
                             "printed before: ", "not timed out yet" } ) );
}

TEST_F( CriticalSlowStageTest, TheMessageCarriesWhatItsHandleDeclares ) {
   printedWhile( 5 );
   ASSERT_EQ( messages.messages.size(), 1U );
   auto const & message = messages.messages.front();
   EXPECT_EQ( message.time, 1005 );
   EXPECT_EQ( message.severity, 4U );
   EXPECT_EQ( message.explanation, Stage::ORDOVAN_STAGE_SLOW.explanation() );
   EXPECT_EQ( message.recommendedAction, std::string_view( Kiv::NoActionRequired ) );
}

TEST_F( CriticalSlowStageTest, TheLateCompletionOfACriticalStageLiftsTheSuspensionWithAMessage ) {
   printedWhile( 9 );
   texts();
   messages.lines.clear();
   TraceRecorder trace;
   event->completeIs( true );
   testing::internal::CaptureStdout();
   deliver();
   EXPECT_EQ( testing::internal::GetCapturedStdout(), "" );
   EXPECT_EQ( messages.lines, ( Lines{ lateMessage } ) );
   EXPECT_EQ( logged(), ( Lines{ "1009   event S:a completed", "1009 stage S is complete" } ) );
   EXPECT_TRUE( s->complete() );
   EXPECT_TRUE( s->timedOut() );
   EXPECT_EQ( s->completionTime(), 1009 );
   EXPECT_TRUE( sm->needRecalculateNextStage() );
   EXPECT_EQ( trace.count( lateTrace ), 1U );
   EXPECT_EQ( trace.count( decisionAsked ), 1U );
}

TEST_F( CriticalSlowStageTest, TheLiftingIsReportedBeforeAnythingOfTheCompletionIsSeen ) {
   printedWhile( 9 );
   texts();
   TraceRecorder trace;
   Lines seen;
   Kiv::logSinkIs( [ & ]( Kiv::LogMessage const & message ) {
      seen.push_back( message.id.str() );
      for( auto const & text : texts() )
         seen.push_back( "logged before: " + text );
      seen.push_back( "traced before: " + std::to_string( trace.count( lateTrace ) ) );
      seen.push_back( "completed at " + Kiv::valueToString( s->completionTime() ).str() );
      seen.emplace_back( s->complete() ? "complete" : "not complete yet" );
   } );
   event->completeIs( true );
   deliver();
   EXPECT_EQ(
      seen, ( Lines{ "ORDOVAN_STAGE_COMPLETE_AFTER_TIMEOUT", "logged before:   event S:a completed",
                     "traced before: 1", "completed at 0", "not complete yet" } ) );
}

TEST_F( CriticalSlowStageTest, EachFurtherCompletionIsReportedAgain ) {
   printedWhile( 9 );
   event->completeIs( true );
   idle();
   event->completeIs( false );
   idle();
   messages.lines.clear();
   event->completeIs( true );
   idle();
   EXPECT_EQ( messages.lines, ( Lines{ lateMessage } ) ) << "complete is not tested, on purpose";
}

TEST_F( CriticalSlowStageTest, AWithdrawnEventLiftsTheSuspensionToo ) {
   printedWhile( 9 );
   texts();
   messages.lines.clear();
   stage_->eventDel( "a" );
   idle();
   EXPECT_EQ( messages.lines, ( Lines{ lateMessage } ) );
   EXPECT_TRUE( s->complete() );
}

TEST_F( CriticalSlowStageTest, ASuspendedStageIsNotReportedTwice ) {
   EXPECT_EQ( printedWhile( 5 ), suspensionLine );
   texts();
   EXPECT_EQ( printedWhile( 1000 ), "" );
   EXPECT_EQ( messages.lines, ( Lines{ slowMessage } ) );
   EXPECT_EQ( texts(), Lines() );
}

TEST_F( CriticalSlowStageTest, ACriticalStageInTimeIsNotReported ) {
   event->completeIs( true );
   EXPECT_EQ( printedWhile( 1000 ), "" );
   EXPECT_EQ( messages.lines, Lines() );
   EXPECT_FALSE( s->timedOut() );
}

TEST_F( CriticalSlowStageTest, AStageThatIsNoMoreCriticalWhenTheTimeIsUpIsOrdinary ) {
   stage_->criticalIs( false );
   EXPECT_EQ( printedWhile( 5 ), "" );
   EXPECT_TRUE( s->complete() );
   EXPECT_EQ( messages.lines, Lines() );
}

TEST_F( CriticalSlowStageTest, AStageThatIsNoMoreCriticalWhenItCompletesGivesNoMessage ) {
   printedWhile( 5 );
   messages.lines.clear();
   stage_->criticalIs( false );
   event->completeIs( true );
   idle();
   EXPECT_EQ( messages.lines, Lines() );
   EXPECT_TRUE( s->complete() );
}

TEST_F( SlowStageTest, AStageThatTurnedCriticalAfterItsTimeoutGivesTheMessageWhenItCompletes ) {
   auto const a = newEvent( "S", "a" );
   activate();
   pass( 5 );
   stage_->criticalIs( true );
   a->completeIs( true );
   idle();
   EXPECT_EQ( messages.lines, ( Lines{ lateMessage } ) );
}

TEST_F( SlowStageTest, NamesArePrintedAsTheyAre ) {
   sm = new Stage::StatusSm( "100%s App", config, status, progress, log );
   sm->hasNotificationActiveIs( true );
   auto const odd = newStage( "%d %n" );
   odd->criticalIs( true );
   odd->timeoutIs( 0 );
   newEvent( "%d %n", "a" );
   sm->stageSmIs( odd, sm->logSm() );
   EXPECT_EQ( printedWhile( 0 ),
              " Critical stage %d %n timed out! 100%s App suspended for debugging." );
   EXPECT_EQ( messages.lines, ( Lines{ "ORDOVAN_STAGE_SLOW: 100%s App stage %d %n timed out" } ) );
}

TEST_F( CriticalSlowStageTest, TheSuspensionLineGoesThroughStandardOutputAndIsNotFlushed ) {
   char path[] = "/tmp/ordovan-suspension-XXXXXX";
   int const file = mkstemp( path );
   ASSERT_GE( file, 0 );
   unlink( path );
   std::fflush( stdout );
   int const before = dup( STDOUT_FILENO );
   dup2( file, STDOUT_FILENO );
   pass( 5 );
   struct stat unflushed {};
   int const unflushedResult = fstat( file, &unflushed );
   std::fflush( stdout );
   struct stat flushed {};
   int const flushedResult = fstat( file, &flushed );
   dup2( before, STDOUT_FILENO );
   close( before );
   close( file );
   ASSERT_EQ( unflushedResult, 0 );
   ASSERT_EQ( flushedResult, 0 );
   EXPECT_EQ( unflushed.st_size, 0 );
   EXPECT_EQ( flushed.st_size, static_cast< off_t >( sizeof suspensionLine - 1 ) );
}

// ---- a sink that fails

namespace {

// What a sink may throw, and how that is told.
struct Thrown {
   char const * name;
   void ( *sink )( Kiv::LogMessage const & );
   char const * what;
};
Thrown const everythingThrown[] = {
   { "AnException", []( Kiv::LogMessage const & ) { throw std::runtime_error( "no paper" ); },
     "no paper" },
   { "NoStdException", []( Kiv::LogMessage const & ) { throw 1; }, "not a std::exception" },
   { "BadAlloc", []( Kiv::LogMessage const & ) { throw std::bad_alloc(); }, "std::bad_alloc" },
};

class ThrowingSinkTest : public CriticalSlowStageTest,
                         public testing::WithParamInterface< Thrown > {
 protected:
   // What is told on standard error while the sink throws.
   template< class Call >
   std::string toldWhile( Call call ) {
      Kiv::LogSink const before = Kiv::logSinkIs( GetParam().sink );
      testing::internal::CaptureStderr();
      call();
      Kiv::logSinkIs( before );
      return testing::internal::GetCapturedStderr();
   }
   static std::string lost( char const * message ) {
      return std::string( "kiv: a log message was lost (" ) + GetParam().what + "): " + message +
             "\n";
   }
};

} // namespace

TEST_P( ThrowingSinkTest, ACriticalStageIsSuspendedAndItsLineIsPrinted ) {
   std::string printed;
   EXPECT_EQ( toldWhile( [ & ] { printed = printedWhile( 5 ); } ), lost( slowMessage ) );
   EXPECT_EQ( printed, suspensionLine );
   EXPECT_TRUE( s->timedOut() );
   EXPECT_FALSE( s->complete() );
   EXPECT_EQ( texts(), ( Lines{ "stage S is complete (timeout)" } ) );
}

TEST_P( ThrowingSinkTest, TheSuspensionIsLifted ) {
   printedWhile( 9 );
   texts();
   EXPECT_EQ( toldWhile( [ & ] {
                 event->completeIs( true );
                 deliver();
              } ),
              lost( lateMessage ) );
   EXPECT_TRUE( s->complete() );
   EXPECT_EQ( s->completionTime(), 1009 );
   EXPECT_TRUE( sm->needRecalculateNextStage() );
   EXPECT_EQ( logged(), ( Lines{ "1009   event S:a completed", "1009 stage S is complete" } ) );
}

INSTANTIATE_TEST_SUITE_P(, ThrowingSinkTest, testing::ValuesIn( everythingThrown ),
                         []( auto const & tested ) { return tested.param.name; } );

TEST_F( CriticalSlowStageTest, ASuspensionLineThatCannotBeWrittenIsIgnored ) {
   std::fflush( stdout );
   int const before = dup( STDOUT_FILENO );
   int const full = open( "/dev/full", O_WRONLY | O_CLOEXEC );
   ASSERT_GE( full, 0 );
   dup2( full, STDOUT_FILENO );
   std::setvbuf( stdout, nullptr, _IONBF, 0 ); // so that it fails at once
   pass( 5 );
   bool const failed = std::ferror( stdout ) != 0;
   std::clearerr( stdout );
   std::setvbuf( stdout, nullptr, _IOLBF, BUFSIZ );
   dup2( before, STDOUT_FILENO );
   close( before );
   close( full );
   EXPECT_TRUE( failed );
   EXPECT_TRUE( s->timedOut() );
   EXPECT_EQ( messages.lines, ( Lines{ slowMessage } ) );
   event->completeIs( true );
   idle();
   EXPECT_TRUE( s->complete() );
}

TEST_F( CriticalSlowStageTest, OnlyWhatWentWrongIsTracedAtLevelZero ) {
   TraceRecorder trace;
   printedWhile( 5 );
   event->completeIs( true );
   idle();
   Lines zero;
   for( Kiv::TraceLine const & line : trace.lines() )
      if( line.level == 0 )
         zero.push_back( line.text.str() );
   EXPECT_EQ( zero, ( Lines{ suspensionLine, lateTrace } ) );
}
