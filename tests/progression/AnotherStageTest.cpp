// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// A StageSm that is attached to a stage of another name told of that stage's events under the name
// of the one before.
#include "ProgressionTest.h"

using namespace testing_support;
using Kiv::Ptr;

namespace {

class AnotherStageTest : public ProgressionTest {
 protected:
   // A StageSm for First, attached to Second, whose event is pending and whose time is up.
   void attachAndPass( bool critical ) {
      newStage( "First" )->timeoutIs( 5 );
      newEvent( "First", "a" );
      newStage( "Second" )->criticalIs( critical );
      event = newEvent( "Second", "a" );
      s = sm->stageSmIs( status->stage( "First" ), sm->logSm() );
      s->notifierIs( status->stage( "Second" ) );
      texts();
      traces.taken();
      testing::internal::CaptureStdout();
      clock->nowIs( clock->now() + 5 );
      EXPECT_TRUE( fire() ); // and not the decision that follows
      printed = testing::internal::GetCapturedStdout();
   }
   // Whether any trace names First.
   bool firstIsNamed() {
      for( std::string const & line : traces.taken() )
         if( line.find( "First" ) != line.npos )
            return true;
      return false;
   }

   Ptr< Stage::StatusSm > const made = make();
   Ptr< Stage::EventConfig > event;
   Ptr< Stage::StageSm > s;
   MessageRecorder messages;
   TraceRecorder traces;
   std::string printed;
};

TEST_F( AnotherStageTest, IsTheOneThatIsCompleteInTheLog ) {
   newEvent( "First", "a" );
   event = newEvent( "Second", "a" );
   s = sm->stageSmIs( status->stage( "First" ), sm->logSm() );
   s->notifierIs( status->stage( "Second" ) );
   texts();
   traces.taken();
   event->completeIs( true );
   deliver();
   EXPECT_TRUE( s->complete() );
   EXPECT_EQ( texts(), ( Lines{ "  event Second:a completed", "stage Second is complete" } ) );
   EXPECT_EQ( traces.count( "void Stage::StageSm::KivEvent::handleComplete() Second:a (stage: "
                            "Second, agent:a)" ),
              1U );
   EXPECT_EQ( traces.count( "void Stage::StageSm::handlePendingEvent() Second" ), 1U );
   EXPECT_EQ( s->fwkKey(), "First" ) << "the key is the owner's";
   EXPECT_EQ( sm->stageSm( "First" ), s );
   EXPECT_FALSE( sm->stageSm( "Second" ) );
}

TEST_F( AnotherStageTest, IsTheOneThatTimesOut ) {
   attachAndPass( false );
   EXPECT_TRUE( s->timedOut() && s->complete() );
   EXPECT_EQ( texts(), ( Lines{ "stage Second is complete (timeout)" } ) );
   EXPECT_FALSE( firstIsNamed() );
   event->completeIs( true );
   deliver();
   EXPECT_EQ( texts(), ( Lines{ "  event Second:a completed", "stage Second is complete" } ) );
   EXPECT_EQ( traces.count( " Stage Second completed, but had previously timed out." ), 1U );
   EXPECT_EQ( messages.lines, Lines() );
}

TEST_F( AnotherStageTest, IsTheOneThatIsSuspendedAndResumes ) {
   attachAndPass( true );
   EXPECT_EQ( printed, " Critical stage Second timed out! App suspended for debugging." );
   EXPECT_EQ( messages.lines, ( Lines{ "ORDOVAN_STAGE_SLOW: App stage Second timed out" } ) );
   EXPECT_FALSE( firstIsNamed() );
   messages.lines.clear();
   event->completeIs( true );
   deliver();
   EXPECT_EQ( messages.lines, ( Lines{ "ORDOVAN_STAGE_COMPLETE_AFTER_TIMEOUT: App resumed after "
                                       "stage Second completed after timeout." } ) );
   EXPECT_FALSE( firstIsNamed() );
}

TEST_F( AnotherStageTest, IsNamedWhenItsEventsComeAndItIsInitialisedAnew ) {
   newEvent( "First", "a" );
   newEvent( "Second", "a" );
   s = sm->stageSmIs( status->stage( "First" ), sm->logSm() );
   s->notifierIs( status->stage( "Second" ) );
   traces.taken();
   newEvent( "Second", "b" );
   deliver();
   EXPECT_EQ( traces.count( "void Stage::StageSm::handleEventDel(Kiv::String8) Second b" ), 1U );
   s->handleInitialized();
   EXPECT_EQ( traces.count( "void Stage::StageSm::handleInitialized() Second" ), 1U );
   EXPECT_NE( traces.count( "Second has 2 pendingEvents." ), 0U );
   EXPECT_FALSE( firstIsNamed() );
}

} // namespace
