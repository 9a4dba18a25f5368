// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <simulation/Engine.h>

#include <algorithm>
#include <cassert>
#include <cmath>
#include <optional>
#include <stdexcept>
#include <utility>

#include <Kiv/Kiv.h>
#include <Kiv/Printable.h>
#include <Stage/Stage.h>

#include <simulation/Stamp.h>
#include <simulation/detail/Admission.h>
#include <simulation/detail/Causes.h>
#include <simulation/detail/Changes.h>
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

void requireOutsideCallbacks() {
   if( Kiv::activityManager()->activity()->running() )
      throw std::logic_error( "a run cannot begin or go on inside a callback" );
}

// Whether the input changes what is declared: by what comes or is written, or by what goes.
enum class Declares { nothing, less, more };

Declares declares( Operation const & operation ) {
   if( auto const * const set = std::get_if< Set >( &operation ) ) {
      bool const reportsOnly =
         std::all_of( set->write.begin(), set->write.end(), []( auto const & write ) {
            return std::holds_alternative< CompleteWrite >( write );
         } );
      return reportsOnly ? Declares::nothing : Declares::more;
   }
   if( std::holds_alternative< Enable >( operation ) )
      return Declares::nothing;
   bool const goes = std::holds_alternative< Leave >( operation ) ||
                     std::holds_alternative< Withdraw >( operation );
   return goes ? Declares::less : Declares::more;
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

} // namespace

class Engine::Parts {
 public:
   Parts( Beginning const & beginning, std::vector< Observer * > const & observers,
          EngineOptions const & options )
      : options_( options ), clock_( Kiv::ManualClock::ManualClockIs( 0 ) ),
        clockInstalled_( clock_ ), outside_( beginning.enabled ),
        status_( Stage::Status::StatusIs( "status" ) ),
        progress_( Stage::Progress::ProgressIs( "progress" ) ),
        chronicle_( Stage::Log::LogIs( "log" ), observers ), reports_( status_, causes_ ),
        manager_( Stage::Ordovan::OrdovanIs( "ordovan" ) ),
        decideOnDeclarations_( beginning.decideOnDeclarations ),
        enabledIsSaid_( beginning.enabled ) {
      outside_.declarationIs( [ this ]( auto const & event ) { reports_.declared( event ); } );
      begin( beginning );
   }

   double now() const { return clock_->now(); }

   double nextDue() { return std::min( reports_.nextTime(), Kiv::activityManager()->nextTime() ); }

   void fire() {
      requireOutsideCallbacks();
      double const due = nextDue();
      assert( due != infinity );
      clock_->nowIs( std::max( due, now() ) );
      deliver(); // a callback that was cut short has its time as a timer has
      fireDue();
   }

   void stopAt( double t ) {
      if( !( t >= now() ) || nextDue() <= t )
         throw std::invalid_argument( "a start-up ends when all that is due until then is over" );
      clock_->nowIs( t );
   }

   Instant instant( double seconds, std::vector< Input > input ) const {
      Admission admission( outside_ );
      admission.admit( input );
      if( beginsWith( admission ) )
         input.push_back( { Enable{ true }, std::nullopt } );
      return { stampFrom( seconds, last_ ), std::move( input ) };
   }

   void check( std::vector< Input > const & input ) const { Admission( outside_ ).admit( input ); }

   void takeIn( Instant const & instant ) {
      requireOutsideCallbacks();
      if( !( instant.t >= 0 && instant.t < infinity ) || ( last_ && instant.t <= *last_ ) )
         throw std::invalid_argument( "an instant is at a time after the last one" );
      check( instant.input );
      while( nextDue() < instant.t )
         fire();
      clock_->nowIs( std::max( instant.t, now() ) );
      write( instant );
      fireDue();
   }

   bool started() const { return chronicle_.started(); }
   bool complete() const { return watch_->complete(); }
   Changes const & changes() const { return changes_; }

   Result result() {
      auto result = watch_->result();
      result.t = lastDue_;
      result.now = now();
      result.exhausted = nextDue() == infinity;
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

   void end( Result const & result ) { chronicle_.end( result ); }

   Outside const & outside() const { return outside_; }
   Kiv::Ptr< Stage::Status > const & status() const { return status_; }
   Kiv::Ptr< Stage::Log > const & log() const { return chronicle_.log(); }
   Kiv::Ptr< Stage::Ordovan > const & manager() const { return manager_; }

 private:
   void begin( Beginning const & beginning ) {
      requireOutsideCallbacks();
      chronicle_.begin( beginning );
      causes_.outside();
      for( auto const & agent : beginning.agent )
         file( agent );
      manager_->configSmIs( outside_.config(), status_, outside_.agentDir() );
      statusSm_ = manager_->statusSmIs( beginning.application, outside_.config(), status_,
                                        progress_, chronicle_.log() );
      // Registered after the library's own reactor, so that a stage has its state machine by the
      // time these hear of it.
      watch_ = new StatusWatch( status_, statusSm_, chronicle_, reports_, causes_ );
      if( options_.countChanges )
         changeWatch_ = new ChangeWatch( status_, statusSm_, changes_ );
      endStep();
      endInstant();
   }

   void file( Agent const & agent ) {
      auto const twice = [ & ]( char const * what ) {
         throw std::invalid_argument( "agent " + Kiv::quoted( agent.name ) + what );
      };
      if( outside_.isThere( agent.name ) )
         twice( " stands twice in the beginning; an agent is filed once, with all its events" );
      outside_.join( agent.name, agent.event );
      if( outside_.events( agent.name ) != agent.event.size() )
         twice( " has two events for one stage in the beginning; it can have one for each stage" );
   }

   // Over an empty status the rules complete at once, so progression is enabled when there is
   // something to walk through. Whoever says himself whether it is has that choice from then on.
   bool beginsWith( Admission const & admission ) const {
      if( enabledIsSaid_ || admission.saysEnabled() || !options_.expected )
         return false;
      auto const & expected = *options_.expected;
      return admission.isAnythingDeclared() &&
             std::all_of( expected.begin(), expected.end(),
                          [ & ]( auto const & agent ) { return admission.isThere( agent ); } );
   }

   void write( Instant const & instant ) {
      if( instant.input.empty() )
         return;
      chronicle_.takenIn( instant );
      causes_.outside();
      bool const wasComplete = complete();
      auto declared = Declares::nothing;
      for( auto const & input : instant.input ) {
         outside_.write( input.operation );
         declared = std::max( declared, declares( input.operation ) );
         enabledIsSaid_ |= std::holds_alternative< Enable >( input.operation );
      }
      // What goes can release a stage that nothing watches, since it was declared late; but once
      // all is complete, nothing is waiting.
      if( decideOnDeclarations_ && started() &&
          ( declared == Declares::more || ( declared == Declares::less && !wasComplete ) ) )
         statusSm_->doNextStage();
      lastDue_ = now();
      endStep();
   }

   // The rest of the instant, after its writes.
   void fireDue() {
      last_ = now();
      while( reports_.makeOne( now() ) || fireOne() ) {
         lastDue_ = now();
         endStep();
      }
      endInstant();
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

   void endInstant() {
      if( options_.countChanges )
         changes_.over( complete() );
   }

   EngineOptions options_;
   std::optional< double > last_; // instant
   double lastDue_ = 0;           // something that was

   // Destroyed from the last to the first: the watchers, the library's state machines, then the
   // entities that both refer to, at last the clock.
   Kiv::Ptr< Kiv::ManualClock > clock_;
   ClockInstalled clockInstalled_;
   Outside outside_;
   Kiv::Ptr< Stage::Status > status_;
   Kiv::Ptr< Stage::Progress > progress_;
   Chronicle chronicle_;
   Causes causes_;
   Changes changes_;
   Reports reports_;
   Kiv::Ptr< Stage::Ordovan > manager_;
   Kiv::Ptr< Stage::StatusSm > statusSm_;
   Kiv::Ptr< StatusWatch > watch_;
   Kiv::Ptr< ChangeWatch > changeWatch_;

   bool decideOnDeclarations_;
   bool enabledIsSaid_; // by the beginning or by an input
};

Engine::Engine( Beginning const & beginning, std::vector< Observer * > const & observers,
                EngineOptions const & options )
   : parts_( std::make_unique< Parts >( beginning, observers, options ) ) {}

Engine::~Engine() = default;

double Engine::now() const { return parts_->now(); }

double Engine::nextDue() const { return parts_->nextDue(); }

void Engine::fire() { parts_->fire(); }

void Engine::fireUntil( double t ) {
   while( nextDue() <= t && nextDue() != infinity )
      fire();
}

void Engine::stopAt( double t ) { parts_->stopAt( t ); }

Instant Engine::instant( double seconds, std::vector< Input > input ) const {
   return parts_->instant( seconds, std::move( input ) );
}

void Engine::check( std::vector< Input > const & input ) const { parts_->check( input ); }

void Engine::takeIn( Instant const & instant ) { parts_->takeIn( instant ); }

bool Engine::started() const { return parts_->started(); }

bool Engine::complete() const { return parts_->complete(); }

std::uint64_t Engine::sequence() const { return parts_->changes().sequence(); }

std::vector< std::string > Engine::changedSince( std::uint64_t after ) const {
   return parts_->changes().since( after );
}

Result Engine::result() const { return parts_->result(); }

void Engine::end( Result const & result ) { parts_->end( result ); }

Kiv::Ptr< Stage::Config > const & Engine::config() const { return parts_->outside().config(); }

Kiv::Ptr< Kiv::Dir > const & Engine::agentDir() const { return parts_->outside().agentDir(); }

Kiv::Ptr< Stage::Status > const & Engine::status() const { return parts_->status(); }

Kiv::Ptr< Stage::Log > const & Engine::log() const { return parts_->log(); }

Kiv::Ptr< Stage::Ordovan > const & Engine::manager() const { return parts_->manager(); }

} // namespace Simulation
