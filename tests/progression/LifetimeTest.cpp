// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// State machines that go away in the middle of what they do. That nothing is touched afterwards is
// what the address sanitizer says; that nothing reacts, and the loop goes on, is said here.
#include "ProgressionTest.h"

#include <functional>

using namespace testing_support;
using Kiv::Ptr;

namespace {

class LifetimeTest : public ProgressionTest {
 protected:
   LifetimeTest() {
      config->enabledIs( true );
      event = newEvent( "S", "a" );
      status->stage( "S" )->criticalIs( true );
      status->stage( "S" )->timeoutIs( 5 );
      newStage( "After", { "S" } );
      manager->statusSmIs( "App", config, status, progress, log );
      idle();
      texts();
   }
   Ptr< Stage::StageSm > stageS() { return manager->statusSm()->stageSm( "S" ); }
   void suspend() {
      Kiv::logSinkIs( []( Kiv::LogMessage const & ) {} );
      testing::internal::CaptureStdout();
      pass( 5 );
      testing::internal::GetCapturedStdout();
   }
   // A whole start-up works in the same process, on the same loop.
   void expectALoopThatWorks() {
      Kiv::logSinkIs( {} );
      auto const other = Stage::Status::StatusIs( "other" );
      other->stageIs( "T" );
      auto const otherManager = Stage::Ordovan::OrdovanIs( "manager" );
      otherManager->statusSmIs( "Other", config, other, progress, Stage::Log::LogIs( "log" ) );
      idle();
      EXPECT_TRUE( other->complete() );
   }

   Ptr< Stage::Ordovan > manager = Stage::Ordovan::OrdovanIs( "manager" );
   Ptr< Stage::EventConfig > event;
};

// What a sink of messages does to the state machine that is just saying something.
struct Vice {
   char const * name;
   std::function< void( LifetimeTest &, Ptr< Stage::Ordovan > &, World & ) > act;
};

// How a suspended stage comes to its message.
struct Road {
   char const * name;
   std::function< void( Ptr< Stage::StageSm >, Ptr< Stage::EventConfig > const &, World & ) > go;
};

class SinkTest : public LifetimeTest,
                 public testing::WithParamInterface< std::tuple< Vice, Road > > {
 protected:
   Vice const & vice() const { return std::get< 0 >( GetParam() ); }
   Road const & road() const { return std::get< 1 >( GetParam() ); }
   void installSink() {
      Kiv::logSinkIs( [ this ]( Kiv::LogMessage const & ) {
         ++messages;
         vice().act( *this, manager, *this );
      } );
   }
   int messages = 0;
};

Vice const vices[] = {
   { "DestroysTheManager",
     []( LifetimeTest &, Ptr< Stage::Ordovan > & manager, World & ) { manager = nullptr; } },
   { "ReleasesTheStatusSm",
     []( LifetimeTest &, Ptr< Stage::Ordovan > & manager, World & ) { manager->statusSmDel(); } },
   { "ReplacesTheStatusSm",
     []( LifetimeTest &, Ptr< Stage::Ordovan > & manager, World & w ) {
        manager->statusSmIs( "Other", w.config, w.status, w.progress, w.log );
     } },
   { "RemovesTheStageSm", []( LifetimeTest &, Ptr< Stage::Ordovan > & manager,
                              World & ) { manager->statusSm()->stageSmDel( "S" ); } },
   { "RemovesTheTimerAndTheEvents",
     []( LifetimeTest &, Ptr< Stage::Ordovan > & manager, World & ) {
        auto const sm = manager->statusSm()->stageSm( "S" );
        sm->stageUncompletedDel();
        sm->eventDelAll();
     } },
   { "DetachesTheStageSm",
     []( LifetimeTest &, Ptr< Stage::Ordovan > & manager, World & ) {
        manager->statusSm()->stageSm( "S" )->notifierIs( nullptr );
     } },
   { "RemovesTheStage",
     []( LifetimeTest &, Ptr< Stage::Ordovan > &, World & w ) { w.status->stageDelAll(); } },
};

// Delivered by the loop, as everything is in a running system.
Road const roads[] = {
   { "TheEventCompletes", []( Ptr< Stage::StageSm >, Ptr< Stage::EventConfig > const & event,
                              World & ) { event->completeIs( true ); } },
   { "TheEventIsWithdrawn", []( Ptr< Stage::StageSm >, Ptr< Stage::EventConfig > const &,
                                World & w ) { w.status->stage( "S" )->eventDel( "a" ); } },
   { "TheEventIsReplacedByACompleteOne",
     []( Ptr< Stage::StageSm >, Ptr< Stage::EventConfig > const &, World & w ) {
        auto const complete = Stage::EventConfig::EventConfigIs( "S", "a" );
        complete->completeIs( true );
        w.status->stage( "S" )->eventIs( complete );
     } },
   { "ManyEventsChangeAtOnce",
     []( Ptr< Stage::StageSm >, Ptr< Stage::EventConfig > const & event, World & w ) {
        for( char const * agent : { "b", "c" } ) {
           auto const complete = Stage::EventConfig::EventConfigIs( "S", agent );
           complete->completeIs( true );
           w.status->stage( "S" )->eventIs( complete );
        }
        event->completeIs( true );
        w.status->stage( "S" )->eventDel( "a" );
     } },
};

// Called by somebody who holds nothing but the StageSm.
Road const calls[] = {
   { "PendingEventDel", []( Ptr< Stage::StageSm > s, Ptr< Stage::EventConfig > const &,
                            World & ) { s->pendingEventDel( "S:a" ); } },
   { "PendingEventDelAll", []( Ptr< Stage::StageSm > s, Ptr< Stage::EventConfig > const &,
                               World & ) { s->pendingEventDelAll(); } },
   { "HandleStageUncompleted", []( Ptr< Stage::StageSm > s, Ptr< Stage::EventConfig > const &,
                                   World & ) { s->handleStageUncompleted(); } },
   { "NotifierIs",
     []( Ptr< Stage::StageSm > s, Ptr< Stage::EventConfig > const &, World & ) {
        auto const other = Stage::Status::StatusIs( "other" )->stageIs( "S" );
        other->criticalIs( true );
        s->notifierIs( other );
     } },
   { "EventIs",
     []( Ptr< Stage::StageSm > s, Ptr< Stage::EventConfig > const &, World & ) {
        auto const complete = Stage::EventConfig::EventConfigIs( "S", "a" );
        complete->completeIs( true );
        s->eventIs( "a", complete );
     } },
};

std::string nameOf( testing::TestParamInfo< SinkTest::ParamType > const & info ) {
   return std::string( std::get< 0 >( info.param ).name ) + "When" +
          std::get< 1 >( info.param ).name;
}

using SlowSinkTest = SinkTest;
using LateSinkTest = SinkTest;
using CalledSinkTest = SinkTest;

} // namespace

TEST_P( SlowSinkTest, ASinkOfTheSlowMessageMayDoAnything ) {
   auto const stage = status->stage( "S" );
   installSink();
   testing::internal::CaptureStdout();
   pass( 5 );
   EXPECT_EQ( testing::internal::GetCapturedStdout(), suspensionLine );
   EXPECT_GE( messages, 1 );
   event->completeIs( true );
   pass( 100 );
   expectALoopThatWorks();
}

TEST_P( LateSinkTest, ASinkOfTheLateMessageMayDoAnything ) {
   suspend();
   installSink();
   road().go( nullptr, event, *this );
   pass( 100 );
   EXPECT_GE( messages, 1 );
   expectALoopThatWorks();
}

TEST_P( CalledSinkTest, ASinkOfAMessageMayDoAnythingWhateverWasCalled ) {
   suspend();
   installSink();
   testing::internal::CaptureStdout();
   road().go( stageS(), event, *this );
   pass( 100 );
   testing::internal::GetCapturedStdout();
   EXPECT_GE( messages, 1 );
   expectALoopThatWorks();
}

namespace {
Road const timer[] = { { "TheTimeIsUp", {} } };
} // namespace
INSTANTIATE_TEST_SUITE_P( Slow, SlowSinkTest,
                          testing::Combine( testing::ValuesIn( vices ),
                                            testing::ValuesIn( timer ) ),
                          nameOf );
INSTANTIATE_TEST_SUITE_P( Late, LateSinkTest,
                          testing::Combine( testing::ValuesIn( vices ),
                                            testing::ValuesIn( roads ) ),
                          nameOf );
INSTANTIATE_TEST_SUITE_P( Called, CalledSinkTest,
                          testing::Combine( testing::ValuesIn( vices ),
                                            testing::ValuesIn( calls ) ),
                          nameOf );

TEST_F( LifetimeTest, ACallThroughAPlainPointerSurvivesTheEndOfWhatItPointsTo ) {
   suspend();
   Stage::StageSm * const plain = stageS().get();
   Kiv::logSinkIs( [ this ]( Kiv::LogMessage const & ) {
      manager->statusSm()->stageSmDel( "S" );
      manager = nullptr;
   } );
   plain->pendingEventDel( "S:a" );
   EXPECT_FALSE( manager );
   expectALoopThatWorks();
}

// ---- observers

TEST_F( LifetimeTest, AnObserverOfTheStageSmMayDestroyTheManager ) {
   struct Observer : Stage::StageSm::NotifieeConst {
      void onComplete() override {
         called = true;
         *manager = nullptr;
      }
      Ptr< Stage::Ordovan > * manager = nullptr;
      bool called = false;
   };
   Ptr< Observer > const observer = new Observer;
   observer->manager = &manager;
   observer->watch( stageS() );
   event->completeIs( true );
   idle();
   EXPECT_TRUE( observer->called );
   EXPECT_FALSE( manager );
   EXPECT_FALSE( status->activeStage( "After" ) );
   expectALoopThatWorks();
}

TEST_F( LifetimeTest, AnObserverOfTheStatusMayDestroyTheManager ) {
   struct Observer : Stage::Status::NotifieeConst {
      using NotifieeConst::onActiveStage;
      void onActiveStage( Kiv::Name ) override { *manager = nullptr; }
      Ptr< Stage::Ordovan > * manager = nullptr;
   };
   Ptr< Observer > const observer = new Observer;
   observer->manager = &manager;
   observer->watch( status );
   event->completeIs( true );
   idle();
   EXPECT_FALSE( manager );
   EXPECT_FALSE( status->complete() );
   expectALoopThatWorks();
}

// ---- the end at any moment

namespace {

// One step of the loop; time passes when nothing is left at this one.
bool step( World & w ) {
   auto const & activity = Kiv::activityManager();
   if( activity->runOne() || activity->fireOne() )
      return true;
   if( activity->nextTime() == Kiv::infinity )
      return false;
   w.clock->nowIs( activity->nextTime() );
   return true;
}

struct WholeStartUp : World {
   WholeStartUp() {
      config->enabledIs( true );
      events = { declare( "a", "A", {}, 5 ), declare( "b", "A", {}, 9 ),
                 declare( "b", "B", { "A" }, 5, true ), declare( "c", "C", { "B" }, 5 ) };
      manager = Stage::Ordovan::OrdovanIs( "manager" );
      manager->configSmIs( config, status, dir );
      manager->statusSmIs( "App", config, status, progress, log );
   }
   std::vector< Ptr< Stage::EventConfig > > events;
   Ptr< Stage::Ordovan > manager;
};

} // namespace

TEST( ManagerLifetimeTest, TheManagerMayGoAfterAnyStepOfAStartUp ) {
   Kiv::logSinkIs( []( Kiv::LogMessage const & ) {} );
   bool over = false;
   int length = 0;
   for( ; !over; ++length ) {
      ASSERT_LT( length, 1000 );
      WholeStartUp w;
      std::size_t completed = 0;
      testing::internal::CaptureStdout();
      for( int i = 0; i != length && !over; ++i ) {
         // Every third step an event completes: some in time, some late, one after a suspension.
         if( completed != w.events.size() && ( i % 3 == 2 || !step( w ) ) )
            w.events[ completed++ ]->completeIs( true );
         else
            over = completed == w.events.size() && !step( w );
      }
      bool const complete = w.status->complete();
      w.manager = nullptr;
      auto const entries = w.log->logs();
      for( auto const & event : w.events )
         event->completeIs( !event->complete() );
      while( step( w ) ) {
      }
      testing::internal::GetCapturedStdout();
      EXPECT_TRUE( complete || !over ) << "after " << length << " steps";
      EXPECT_EQ( w.log->logs(), entries ) << "after " << length << " steps";
   }
   EXPECT_GT( length, 20 );
   Kiv::logSinkIs( {} );
}
