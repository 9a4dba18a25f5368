// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <startup/Library.h>

#include <filesystem>
#include <unordered_map>

#include <unistd.h>

namespace Bench {

// All agents' work, and a reader of the log: reports events complete once their stage is active,
// and throws away what the log says. Has all its memory from the start, so that it does not count
// as the library's.
class World : public Stage::Status::NotifieeConst {
 public:
   World( Declarations const & declared, Reports reports, LogIs log )
      : reports_( reports ), logIs_( log ) {
      event_.reserve( declared.event.size() );
      waiting_.reserve( declared.event.size() );
      order_.reserve( declared.stage.size() );
      firstEvent_.resize( declared.stage.size() + 1 );
      for( Declaration const & d : declared.event )
         ++firstEvent_[ d.stage + 1 ];
      for( std::size_t i = 0; i != declared.stage.size(); ++i ) {
         firstEvent_[ i + 1 ] += firstEvent_[ i ];
         number_.emplace( declared.stage[ i ], static_cast< std::uint32_t >( i ) );
      }
   }

   void eventAdd( Kiv::Ptr< Stage::EventConfig > const & event ) { event_.push_back( event ); }
   void watch( Kiv::Ptr< Stage::Status > const & status, Kiv::Ptr< Stage::Log > const & log ) {
      log_ = log;
      NotifieeConst::watch( status );
   }
   using Stage::Status::NotifieeConst::onActiveStage;
   void onActiveStage( Kiv::Name stage ) override {
      std::uint32_t const number = number_.at( stage );
      order_.push_back( number );
      for( std::uint32_t i = firstEvent_[ number ]; i != firstEvent_[ number + 1 ]; ++i )
         if( reports_ == Reports::atOnce )
            event_[ i ]->completeIs( true );
         else
            waiting_.push_back( i );
      readLog();
   }
   // Reports one event that was not reported before; false when there is none.
   bool reportNext() {
      if( next_ == waiting_.size() )
         return false;
      event_[ waiting_[ next_++ ] ]->completeIs( true );
      readLog();
      return true;
   }
   void readLog() {
      for( Stage::LogEntry entry; log_->logDeq( entry ); )
         if( logIs_ == LogIs::kept )
            logText_.append( entry.msg.view() ) += '\n';
   }

   Kiv::Ptr< Stage::EventConfig > const & event( std::uint32_t place ) const {
      return event_[ place ];
   }
   std::uint32_t numberOf( Kiv::Name const & stage ) const { return number_.at( stage ); }
   std::vector< std::uint32_t > const & order() const { return order_; }
   std::string const & logText() const { return logText_; }

 private:
   Reports const reports_;
   LogIs const logIs_;
   std::unordered_map< Kiv::Name, std::uint32_t > number_;
   std::vector< std::uint32_t > firstEvent_; // of a stage: where they begin
   std::vector< Kiv::Ptr< Stage::EventConfig > > event_;
   std::vector< std::uint32_t >
      waiting_; // events of active stages; those before next_ are reported
   std::size_t next_ = 0;
   std::vector< std::uint32_t > order_;
   std::string logText_;
   Kiv::Ptr< Stage::Log > log_;
};

Ring::Ring() {
   Flitlog::TraceFileOptions options;
   options.ringBytes = std::uint64_t{ 1 } << 20;
   options.levels = Flitlog::allLevels & ~( 1U << 9 ); // as in the field
   auto const path = std::filesystem::temp_directory_path() /
                     ( "ordovan-bench-" + std::to_string( getpid() ) + ".trace" );
   file_ = Flitlog::TraceFile::TraceFileIs( path, options );
   std::filesystem::remove( path );
   Flitlog::theTraceFile = file_.get();
   Kiv::TraceHandle const handle( "bench", false );
   for( std::uint64_t bytes = 0; bytes < options.ringBytes; bytes += 16 ) // a record has more
      KIV_TRACE( handle, 8, "bench", "void Bench::Ring::Ring() ", bytes );
}
Ring::~Ring() { Flitlog::theTraceFile = nullptr; }

void runUntilIdle() {
   Kiv::ActivityManager & manager = *Kiv::activityManager();
   do
      manager.runQueued();
   while( manager.fireOne() );
}

LibraryStartup::LibraryStartup( Declarations const & declared, Reports reports, LogIs log )
   : declared_( declared ), world_( new World( declared, reports, log ) ) {
   Kiv::activityManager()->clockIs( Kiv::ManualClock::ManualClockIs( 0 ) );
}
LibraryStartup::~LibraryStartup() = default;

void LibraryStartup::declare() {
   agents_ = Kiv::Dir::DirIs( "agents" );
   config_ = Stage::Config::ConfigIs( "config" );
   config_->agentDirIs( agents_ );
   std::vector< Kiv::Ptr< Stage::AgentConfig > > agents;
   for( std::string const & name : declared_.agent )
      agents.push_back( Stage::AgentConfig::AgentConfigIs( name ) );
   for( Declaration const & d : declared_.event ) {
      Kiv::Name const stage = declared_.stage[ d.stage ];
      Stage::AgentConfig & agent = *agents[ d.agent ];
      auto const event = Stage::EventConfig::EventConfigIs( stage, agent.name() );
      event->timeoutIs( d.timeout );
      event->criticalIs( d.critical );
      for( std::uint32_t needed : d.dependency )
         event->dependencyIs( declared_.stage[ needed ], true );
      agent.eventIs( stage, event );
      world_->eventAdd( event );
   }
   for( auto const & agent : agents )
      agents_->entityPtrIs( agent );
}

void LibraryStartup::aggregate() {
   status_ = Stage::Status::StatusIs( "status" );
   auto const progress = Stage::Progress::ProgressIs( "progress" );
   auto const log = Stage::Log::LogIs( "log" );
   manager_ = Stage::Ordovan::OrdovanIs( "manager" );
   manager_->configSmIs( config_, status_, agents_ );
   manager_->statusSmIs( "Router", config_, status_, progress, log );
   // After the library's own reactor: a stage has its state machine by the time the world hears of
   // it, so that its timer and its pending event are part of what is measured.
   world_->watch( status_, log );
   runUntilIdle();
}

void LibraryStartup::progress() {
   config_->enabledIs( true );
   do
      runUntilIdle();
   while( world_->reportNext() );
}

Result LibraryStartup::result() const {
   std::unordered_map< std::string, std::uint32_t > number; // of an event, by its uid
   for( std::uint32_t i = 0; i != declared_.event.size(); ++i ) {
      Declaration const & d = declared_.event[ i ];
      number[ declared_.stage[ d.stage ] + ":" + declared_.agent[ d.agent ] ] = i;
   }
   Result result;
   result.complete = status_->complete();
   result.activated = world_->order();
   for( auto i = status_->stageIteratorConst(); i; ++i ) {
      result.criticalStages += i.ptr()->critical();
      result.table.stage.push_back( world_->numberOf( i.key() ) );
      for( auto j = i.ptr()->eventIteratorConst(); j; ++j )
         result.table.event.push_back( number.at( j.ptr()->uid().str() ) );
   }
   return result;
}

std::string const & LibraryStartup::log() const {
   world_->readLog();
   return world_->logText();
}

Kiv::Ptr< Stage::EventConfig > const & LibraryStartup::event( std::uint32_t place ) const {
   return world_->event( place );
}

std::unique_ptr< Startup > libraryStartup( Declarations const & declared, Reports reports,
                                           LogIs log ) {
   return std::make_unique< LibraryStartup >( declared, reports, log );
}

} // namespace Bench
