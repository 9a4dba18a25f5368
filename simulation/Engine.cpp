// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <simulation/Engine.h>

#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstdint>
#include <stdexcept>

#include <Kiv/Kiv.h>
#include <Ordovan/Ordovan.h>
#include <Stage/Stage.h>

#include <simulation/Timeline.h>
#include <simulation/detail/Causes.h>
#include <simulation/detail/Chronicle.h>
#include <simulation/detail/Outside.h>
#include <simulation/detail/Reports.h>
#include <simulation/detail/Watch.h>

namespace Simulation {

namespace {

using namespace detail;

// Lets the process's activity run on `clock` while it lives.
class ClockInstalled {
 public:
   explicit ClockInstalled( Kiv::Ptr< Kiv::Clock > const & clock )
      : previous_( Kiv::activityManager()->clock() ) {
      Kiv::activityManager()->clockIs( clock );
   }
   ~ClockInstalled() { Kiv::activityManager()->clockIs( previous_ ); }
   ClockInstalled( ClockInstalled const & ) = delete;
   ClockInstalled & operator=( ClockInstalled const & ) = delete;

 private:
   Kiv::Ptr< Kiv::Clock > previous_;
};

void requireRunnable( Plan const & plan ) {
   for( auto const & entry : plan.timeline ) {
      if( !( entry.at >= 0 ) || std::isinf( entry.at ) ) {
         throw std::invalid_argument( "a timeline entry is at no time of the run; times are "
                                      "finite and not negative" );
      }
   }
   auto const mistakes = planMistakes( plan );
   if( !mistakes.empty() )
      throw std::invalid_argument( mistakes.front().text );
}

// What the library says of `statusSm`, and what the run saw: since when events are pending, and
// when stages became active and timed out.
Stage::Explanation explained( Stage::StatusSm const & statusSm, Result const & result ) {
   using State = Stage::Explanation::State;
   auto explanation = Stage::explain( statusSm );
   for( auto & stage : explanation.stage ) {
      if( stage.state == State::waiting || stage.state == State::untracked )
         continue;
      auto const & seen = result.stage.at( stage.name.str() );
      assert( seen.active && !seen.complete );
      stage.activeSince = seen.activeSince;
      if( seen.timedOut )
         stage.timedOutAt = seen.timedOutAt;
      for( auto & event : stage.event ) {
         auto const since = seen.pending.find( event.uid.str() );
         if( since != seen.pending.end() )
            event.since = since->second;
      }
   }
   return explanation;
}

class Run {
 public:
   Run( Plan const & plan, std::vector< Observer * > const & observers )
      : plan_( plan ), clock_( Kiv::ManualClock::ManualClockIs( 0 ) ), clockInstalled_( clock_ ),
        outside_( plan.enabled ), status_( Stage::Status::StatusIs( "status" ) ),
        progress_( Stage::Progress::ProgressIs( "progress" ) ),
        chronicle_( Stage::Log::LogIs( "log" ), observers ), reports_( status_, causes_ ),
        manager_( Stage::Ordovan::OrdovanIs( "ordovan" ) ),
        order_( timelineOrder( plan.timeline ) ) {
      outside_.declarationIs( [ this ]( auto const & event ) { reports_.declared( event ); } );
   }

   Result run( double until, Look const & look ) {
      start();
      double t = 0;
      for( ; t <= until && t != infinity; t = nextTime() ) {
         clock_->nowIs( std::max( t, clock_->now() ) );
         instant();
      }
      if( t != infinity )
         clock_->nowIs( until );
      auto result = ended();
      result.exhausted = t == infinity;
      chronicle_.end( result );
      if( look )
         look( manager_ );
      return result;
   }

 private:
   void start() {
      causes_.outside();
      for( auto const & agent : plan_.agent )
         outside_.join( agent.name, agent.event );
      manager_->configSmIs( outside_.config(), status_, outside_.agentDir() );
      statusSm_ = manager_->statusSmIs( plan_.application, outside_.config(), status_, progress_,
                                        chronicle_.log() );
      // Registered after the library's own reactor, so that a stage has its state machine by the
      // time this one hears of it.
      watch_ = new StatusWatch( status_, statusSm_, chronicle_, reports_, causes_ );
      endStep();
   }

   // When the next thing is due; at an instant that is over, that lies in the future.
   double nextTime() {
      return std::min( { nextWrite(), reports_.nextTime(), Kiv::activityManager()->nextTime() } );
   }

   double nextWrite() const {
      return next_ < order_.size() ? plan_.timeline[ order_[ next_ ] ].at : infinity;
   }

   void instant() {
      double const now = clock_->now();
      if( nextWrite() <= now ) {
         causes_.outside();
         for( ; nextWrite() <= now; ++next_ )
            outside_.write( plan_.timeline[ order_[ next_ ] ].operation );
         lastDue_ = now;
         endStep();
      }
      while( reports_.makeOne( now ) || fireOne() ) {
         lastDue_ = now;
         endStep();
      }
   }

   bool fireOne() {
      bool const wanted = statusSm_->needRecalculateNextStage();
      if( !Kiv::activityManager()->fireOne() )
         return false;
      causes_.timer( wanted && !statusSm_->needRecalculateNextStage() );
      return true;
   }

   void endStep() {
      deliver();
      causes_.over( statusSm_->needRecalculateNextStage(), chronicle_.started() );
   }

   void deliver() {
      do {
         chronicle_.drain();
      } while( Kiv::activityManager()->runOne() );
      chronicle_.drain();
   }

   Result ended() const {
      auto result = watch_->result();
      result.t = lastDue_;
      result.now = clock_->now();
      result.started = chronicle_.started();
      result.enabled = outside_.config()->enabled();
      for( auto i = progress_->stageIteratorConst(); i; ++i )
         result.progress[ i.key().str() ] = i.value();
      result.outcome = outcomeOf( result );
      if( result.outcome == Outcome::complete )
         result.determined = causes_.determined();
      else
         result.explanation = explained( *statusSm_, result );
      return result;
   }

   Plan const & plan_;

   // Destroyed from the last to the first: the watchers, the library's state machines, then the
   // entities that both refer to, at last the clock.
   Kiv::Ptr< Kiv::ManualClock > clock_;
   ClockInstalled clockInstalled_;
   Outside outside_;
   Kiv::Ptr< Stage::Status > status_;
   Kiv::Ptr< Stage::Progress > progress_;
   Chronicle chronicle_;
   Causes causes_;
   Reports reports_;
   Kiv::Ptr< Stage::Ordovan > manager_;
   Kiv::Ptr< Stage::StatusSm > statusSm_;
   Kiv::Ptr< StatusWatch > watch_;

   std::vector< std::size_t > order_; // of the timeline
   std::size_t next_ = 0;             // in it
   double lastDue_ = 0;
};

} // namespace

Result run( Plan const & plan, std::vector< Observer * > const & observers, double until,
            Look const & look ) {
   if( Kiv::activityManager()->activity()->running() )
      throw std::logic_error( "a run cannot begin inside a callback" );
   requireRunnable( plan );
   if( !( until >= 0 ) )
      throw std::invalid_argument( "the time at which a run ends is a number of seconds from 0" );
   return Run( plan, observers ).run( until, look );
}

} // namespace Simulation
