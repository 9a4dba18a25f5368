// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// What every test of progression starts with: one of each entity, and a StatusSm on demand. Stages
// are written by the test itself, so that each step can be met alone.
#pragma once

#include <Ordovan/Ordovan.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "../support/TraceRecorder.h"
#include "../support/World.h"

namespace testing_support {

using Lines = std::vector< std::string >;

// What a call throws, as "Kind: text"; "nothing" when it does not throw.
template< class Call >
std::string thrownBy( Call call ) {
   try {
      call();
   } catch( Kiv::RangeException const & e ) {
      return std::string( "range: " ) + e.what();
   } catch( Kiv::NameInUseException const & e ) {
      return std::string( "name in use: " ) + e.what();
   } catch( std::exception const & e ) {
      return std::string( "other: " ) + e.what();
   }
   return "nothing";
}

inline constexpr char nullValidPtr[] = "range: null ValidPtr";

class ProgressionTest : public testing::Test, protected World {
 protected:
   ~ProgressionTest() override { Kiv::logSinkIs( {} ); }

   // ---- the outside and aggregation

   // A stage without a limit of time.
   Kiv::Ptr< Stage::StageStatus > newStage( char const * name, Lines const & dependencies = {} ) {
      if( !status->stage( name ) )
         status->stageIs( name )->timeoutIs( Kiv::infinity );
      auto const made = status->stage( name );
      for( auto const & dependency : dependencies )
         made->dependencyIs( dependency, true );
      return made;
   }
   // An event of `agent`, filed in the stage, which is made when there is none.
   Kiv::Ptr< Stage::EventConfig > newEvent( char const * stageName, char const * agentName,
                                            bool complete = false ) {
      auto const made = Stage::EventConfig::EventConfigIs( stageName, agentName );
      made->completeIs( complete );
      newStage( stageName )->eventIs( made );
      return made;
   }

   // ---- the loop, step by step

   // Delivers what is queued; fires no timer.
   void deliver() { Kiv::activityManager()->runQueued(); }
   // Fires the first due timer and delivers nothing of what that queues.
   bool fire() { return Kiv::activityManager()->fireOne(); }

   // ---- progression

   // A StatusSm on what there is now, with its notifications on, as the manager makes it.
   Kiv::Ptr< Stage::StatusSm > make() {
      sm = new Stage::StatusSm( "App", config, status, progress, log );
      sm->hasNotificationActiveIs( true );
      return sm;
   }
   // The same for an enabled configuration, up to the point where nothing is left to do.
   void start() {
      config->enabledIs( true );
      make();
      idle();
   }
   Kiv::Ptr< Stage::StageSm > stageSm( char const * name ) { return sm->stageSm( name ); }

   // ---- what came out

   // The new entries of the log, as "TIME TEXT".
   Lines logged() {
      Lines lines;
      Stage::LogEntry entry;
      while( log->logDeq( entry ) )
         lines.push_back( Kiv::valueToString( entry.time ).str() + " " + entry.msg.str() );
      return lines;
   }
   // The new entries of the log without their times.
   Lines texts() {
      Lines lines;
      Stage::LogEntry entry;
      while( log->logDeq( entry ) )
         lines.push_back( entry.msg.str() );
      return lines;
   }
   Lines stageNames() const {
      Lines names;
      for( auto i = status->stageIteratorConst(); i; ++i )
         names.push_back( i.key().str() );
      return names;
   }
   Lines progressed() const {
      Lines names;
      for( auto i = progress->stageIteratorConst(); i; ++i )
         names.push_back( i.key().str() + ( i.value() ? "=true" : "=false" ) );
      return names;
   }

   Kiv::Ptr< Stage::StatusSm > sm;
};

// Collects the declared log messages while it lives, as "ID: TEXT".
class MessageRecorder {
 public:
   MessageRecorder() {
      Kiv::logSinkIs( [ this ]( Kiv::LogMessage const & message ) {
         messages.push_back( message );
         lines.push_back( message.id.str() + ": " + message.text.str() );
      } );
   }
   ~MessageRecorder() { Kiv::logSinkIs( {} ); }
   MessageRecorder( MessageRecorder const & ) = delete;
   MessageRecorder & operator=( MessageRecorder const & ) = delete;

   std::vector< Kiv::LogMessage > messages;
   Lines lines;
};

inline char const slowMessage[] = "ORDOVAN_STAGE_SLOW: App stage S timed out";
inline char const lateMessage[] =
   "ORDOVAN_STAGE_COMPLETE_AFTER_TIMEOUT: App resumed after stage S completed after timeout.";
inline char const suspensionLine[] = " Critical stage S timed out! App suspended for debugging.";
inline char const lateTrace[] = " Stage S completed, but had previously timed out.";
inline char const decisionAsked[] = "void Stage::StatusSm::doNextStage()";
inline char const decisionMade[] = "void Stage::StatusSm::handleNextStage()";

} // namespace testing_support
