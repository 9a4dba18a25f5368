// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include "StartUp.h"

#include "../support/Allocations.h"

#include <Ordovan/Ordovan.h>

#include <algorithm>
#include <functional>
#include <new>

namespace testing_support {

namespace {

using Kiv::Name;
using Kiv::Ptr;
using Kiv::String8;

// What an outside does that is told of a lack of memory: the same again.
template< class Call >
auto again( Call call ) {
   Allocations::Counted const counted;
   for( ;; ) {
      try {
         return call();
      } catch( std::bad_alloc const & ) {
      }
   }
}

// An agent with one event: it reports the event complete some time after the event's stage has
// become active.
class Agent {
 public:
   Agent( Name const & stage, Name const & name, double takes )
      : event( Stage::EventConfig::EventConfigIs( stage, name ) ), takes_( takes ) {
      timer_ = new Timer( *this );
      reactor_ = new Reactor( *this );
   }
   Agent( Agent const & ) = delete;
   Agent & operator=( Agent const & ) = delete;
   void watch( Ptr< Stage::Status > const & status ) { reactor_->watch( status ); }
   void leave() {
      reactor_->notifierIs( nullptr );
      timer_->timeMinIs( Kiv::infinity );
   }

   Ptr< Stage::EventConfig > const event;

 private:
   struct Timer : Kiv::Clock::NotifieeConst {
      explicit Timer( Agent & a ) : agent( a ) { watch( Kiv::activityManager()->clock() ); }
      void onTime() override { agent.event->completeIs( true ); }
      Agent & agent;
   };
   struct Reactor : Stage::Status::NotifieeConst {
      explicit Reactor( Agent & a ) : agent( a ) {}
      using Stage::Status::NotifieeConst::onActiveStage;
      void onActiveStage( Name stage ) override {
         if( String8( stage ) + ":" + agent.event->agent() == agent.event->uid() &&
             agent.timer_->timeMin() == Kiv::infinity && !agent.event->complete() )
            agent.timer_->timeMinIs( Kiv::now() + agent.takes_ );
      }
      Agent & agent;
   };

   double const takes_;
   Ptr< Timer > timer_;
   Ptr< Reactor > reactor_;
};

class StartUp {
 public:
   StartUp() {
      before_ = Kiv::activityManager()->clock();
      Kiv::activityManager()->clockIs( clock_ );
      sinkBefore_ = Kiv::logSinkIs( [ this ]( Kiv::LogMessage const & message ) {
         Allocations::Apart const apart;
         ++messages_[ message.text.str() ];
      } );
   }
   ~StartUp() {
      manager_ = nullptr;
      agents_.clear();
      Kiv::logSinkIs( std::move( sinkBefore_ ) );
      Kiv::activityManager()->clockIs( before_ );
   }
   StartUp( StartUp const & ) = delete;
   StartUp & operator=( StartUp const & ) = delete;

   std::vector< Picture > play();

 private:
   static std::string stageName( int n ) { return ( n < 10 ? "S0" : "S" ) + std::to_string( n ); }

   Ptr< Stage::AgentConfig > config( char const * agent ) {
      return again(
         [ & ] { return Kiv::ptrCast< Stage::AgentConfig >( dir_->entityPtr( Name( agent ) ) ); } );
   }
   void join( char const * agent ) {
      again( [ & ] { dir_->entityPtrIs( Stage::AgentConfig::AgentConfigIs( agent ) ); } );
   }
   void leave( char const * agent ) {
      for( auto & a : agents_ )
         if( a.second->event->agent() == Name( agent ) )
            a.second->leave();
      again( [ & ] { dir_->entityPtrDel( agent ); } );
   }
   // `needs`: numbers of stages.
   Agent & declare( char const * agent, std::string const & stage, double takes, double timeout,
                    std::vector< std::string > const & needs, bool critical = false ) {
      auto made =
         again( [ & ] { return std::make_unique< Agent >( stage.c_str(), agent, takes ); } );
      Agent & a = *made;
      again( [ & ] { a.event->timeoutIs( timeout ); } );
      again( [ & ] { a.event->criticalIs( critical ); } );
      for( std::string const & need : needs )
         again( [ & ] { a.event->dependencyIs( need.c_str(), true ); } );
      agents_[ stage + ":" + agent ] = std::move( made );
      a.watch( status_ );
      again( [ & ] { config( agent )->eventIs( stage.c_str(), a.event ); } );
      return a;
   }
   Stage::EventConfig & event( char const * uid ) {
      Allocations::Apart const apart;
      return *agents_.at( uid )->event;
   }

   void thirtyStages();
   void changeDeclarations();
   void makeMachines();
   void idle();
   // Until nothing is due any more.
   void rest() {
      until( [] { return false; } );
   }
   template< class Condition >
   void until( Condition condition );
   Picture picture() const;

   Ptr< Kiv::ManualClock > clock_ = Kiv::ManualClock::ManualClockIs( 0 );
   Ptr< Kiv::Clock > before_;
   Kiv::LogSink sinkBefore_;
   Ptr< Stage::Config > config_ = Stage::Config::ConfigIs( "config" );
   Ptr< Stage::Status > status_ = Stage::Status::StatusIs( "status" );
   Ptr< Kiv::Dir > dir_ = Kiv::Dir::DirIs( "agents" );
   Ptr< Stage::Progress > progress_ = Stage::Progress::ProgressIs( "progress" );
   Ptr< Stage::Log > log_ = Stage::Log::LogIs( "log" );
   Ptr< Stage::Ordovan > manager_;
   std::map< std::string, std::unique_ptr< Agent > > agents_;
   std::map< std::string, int > messages_;
};

// Every event takes a minute or more: longer than callbacks ever rest here while memory is short,
// so that what the outside does comes in the order in which it always comes.
//
// Five layers of six; each stage needs two of the layer before. Of every layer one is critical by
// itself, and one has two agents.
void StartUp::thirtyStages() {
   for( char const * agent : { "one", "two", "three" } )
      join( agent );
   for( int n = 0; n != 30; ++n ) {
      std::vector< std::string > needs;
      if( n >= 6 )
         needs = { stageName( n - 6 ), stageName( n - n % 6 - 6 + ( n + 1 ) % 6 ) };
      declare( n % 2 ? "one" : "two", stageName( n ), 60.25 + n % 4, 1000, needs, n % 6 == 4 );
      if( n % 6 == 2 )
         declare( "three", stageName( n ), n % 12 == 2 ? 60 : 63.125, 300 + n, {} );
   }
   // Given up, and completed late; suspended, and resumed.
   declare( "three", "Slow", 300, 100, { "S01" } );
   declare( "three", "Held", 250, 120, { "S04" }, true );
   again( [ & ] { event( "S00:two" ).completeIs( true ); } );
}

// Flags, timeouts, dependencies that come and go, events that are withdrawn.
void StartUp::changeDeclarations() {
   again( [ & ] { event( "S22:two" ).criticalIs( false ); } );
   again( [ & ] { event( "S21:one" ).criticalIs( true ); } );
   again( [ & ] { event( "S26:three" ).timeoutIs( 500 ); } );
   again( [ & ] { event( "S28:two" ).dependencyIs( "S03", true ); } );
   again( [ & ] { event( "S28:two" ).dependencyIs( "S04", true ); } );
   rest();
   again( [ & ] { event( "S22:two" ).criticalIs( true ); } );
   again( [ & ] { event( "S21:one" ).criticalIs( false ); } );
   again( [ & ] { event( "S28:two" ).dependencyDelAll(); } );
   rest();
   again( [ & ] { event( "S28:two" ).dependencyIs( "S22", true ); } );
   again( [ & ] { config( "one" )->eventDel( "S23" ); } );
   again( [ & ] { config( "three" )->eventDel( "S26" ); } );
   again( [ & ] { config( "two" )->eventDel( "S10" ); } ); // critical
}

void StartUp::makeMachines() {
   manager_ = again( [] { return Stage::Ordovan::OrdovanIs( "manager" ); } );
   again( [ & ] { config_->agentDirIs( dir_ ); } );
   again( [ & ] { manager_->configSmIs( config_, status_, dir_ ); } );
   again( [ & ] { manager_->statusSmIs( "Application", config_, status_, progress_, log_ ); } );
}

void StartUp::idle() {
   Allocations::Counted const counted;
   while( Kiv::activityManager()->runQueued() != 0 || Kiv::activityManager()->fireOne() ) {
   }
}

// Lets time pass until it is so, or nothing is due any more.
template< class Condition >
void StartUp::until( Condition condition ) {
   idle();
   while( !condition() ) {
      double const next = Kiv::activityManager()->nextTime();
      if( next == Kiv::infinity )
         return;
      clock_->nowIs( std::max( clock_->now(), next ) );
      idle();
   }
}

std::string flags( bool active, Stage::StageSm const * sm ) {
   return std::string( active ? " active" : "" ) + ( sm && sm->complete() ? " complete" : "" ) +
          ( sm && sm->timedOut() ? " timedOut" : "" );
}

Picture StartUp::picture() const {
   Picture p;
   Ptr< Stage::StatusSm > const statusSm =
      manager_ ? manager_->statusSm() : Ptr< Stage::StatusSm >();
   for( auto i = status_->stageIteratorConst(); i; ++i ) {
      Stage::StageStatus const & stage = *i.ptr();
      Ptr< Stage::StageSm > const sm =
         statusSm ? statusSm->stageSm( i.key() ) : Ptr< Stage::StageSm >();
      std::string line =
         i.key().str() + flags( bool( status_->activeStage( i.key() ) ), sm.get() ) +
         ( stage.critical() ? " critical " : " " ) + Kiv::valueToString( stage.timeout() ).str();
      if( statusSm && statusSm->stageEnableSm( i.key() ) )
         line += " waits";
      for( auto d = stage.dependencyIteratorConst(); d; ++d )
         line += " <" + d.key().str();
      for( auto e = stage.eventIteratorConst(); e; ++e )
         line += " " + e.ptr()->uid().str() + ( e.ptr()->complete() ? "!" : "?" );
      if( sm ) {
         for( auto e = sm->pendingEventIteratorConst(); e; ++e )
            line += " pending " + e.key().str();
         for( auto e = sm->eventIteratorConst(); e; ++e )
            line += " mirrors " + e.key().str();
         p.times.push_back( i.key().str() + " " +
                            Kiv::valueToString( sm->completionTime() ).str() );
      }
      if( manager_ )
         if( Ptr< Stage::ConfigSm > const configSm = manager_->configSm() ) {
            auto const reactor = configSm->stageStatus( i.key() );
            if( reactor ) {
               for( auto a = reactor->criticalAncestorIteratorConst(); a; ++a )
                  line += " ancestor " + a.key().str();
               for( auto e = reactor->eventConfigIteratorConst(); e; ++e )
                  line += " watches " + e.key().str();
            }
         }
      p.states.push_back( line );
   }
   for( auto i = progress_->stageIteratorConst(); i; ++i )
      p.states.push_back( "progress " + i.key().str() );
   p.states.push_back( status_->complete() ? "complete" : "not complete" );
   for( std::size_t n = 0; n != log_->logs(); ++n )
      ++p.log[ log_->log( n ).msg.str() ];
   p.messages = messages_;
   return p;
}

std::vector< Picture > StartUp::play() {
   std::vector< Picture > pictures;
   auto const look = [ & ]( bool midway = false ) {
      pictures.push_back( picture() );
      pictures.back().midway = midway;
   };
   auto const stageSm = [ & ]( char const * stage ) {
      return manager_->statusSm()->stageSm( stage );
   };
   thirtyStages();
   makeMachines();
   rest();
   look();
   changeDeclarations();
   rest();
   look();
   again( [ & ] { config_->enabledIs( true ); } );
   // Two join late: stages of their own, an event for a stage that is active already and one for a
   // stage that waits, a dependency on a stage that nobody has declared yet.
   until( [ & ] { return bool( status_->activeStage( "S06" ) ); } );
   look( true );
   join( "late" );
   declare( "late", "Late", 61, 1000, { "S29", "Later" }, true );
   declare( "late", "S02", 62, 1000, {} );
   declare( "late", "S27", 61, 1000, { "Later" } );
   until( [ & ] { return stageSm( "S08" ) && stageSm( "S08" )->complete(); } );
   look( true );
   join( "later" );
   declare( "later", "Later", 62, 1000, { "S08" } );
   again( [ & ] { event( "S25:one" ).criticalIs( true ); } );
   again( [ & ] { event( "S22:two" ).criticalIs( false ); } );
   rest();
   look();
   // An event turns incomplete and complete again; an agent leaves, and a stage.
   again( [ & ] { event( "S03:one" ).completeIs( false ); } );
   rest();
   look();
   again( [ & ] { event( "S03:one" ).completeIs( true ); } );
   leave( "late" );
   rest();
   look();
   again( [ & ] { status_->stageDel( "S26" ); } );
   rest();
   look();
   // Nothing is left of an agent that goes.
   for( char const * agent : { "three", "one" } )
      leave( agent );
   rest();
   look();
   again( [ & ] { dir_->entityPtrDelAll(); } );
   rest();
   look();
   {
      Allocations::Counted const counted;
      manager_ = nullptr;
   }
   rest();
   look();
   return pictures;
}

} // namespace

std::vector< Picture > playStartUp() {
   StartUp startUp;
   return startUp.play();
}

} // namespace testing_support
