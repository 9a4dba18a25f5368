// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The first state machines of a process, with every one of its first allocations failing in turn.
// What is made at first use must be there where the exception of a failed one unwinds. Each try is
// a child of its own, because only a process that has used nothing yet has first uses; this program
// itself uses nothing of the libraries.
#include "../support/Allocations.h"

#include <Ordovan/Ordovan.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <new>

#include <sys/wait.h>
#include <unistd.h>

namespace {

using Kiv::Ptr;
using testing_support::Allocations;
using Failing = testing_support::FailingAllocations;

// A start-up of one stage.
struct StartUp {
   StartUp() {
      agent->eventIs( "Net", event );
      agents->entityPtrIs( agent );
      config->agentDirIs( agents );
      config->enabledIs( true );
      manager->configSmIs( config, status, agents );
      manager->statusSmIs( "agent", config, status, progress, log );
   }
   // Plays it to its end.
   bool completes() const {
      auto const & loop = Kiv::activityManager();
      event->completeIs( true );
      while( loop->runOne() || loop->fireOne() ) {
      }
      return status->complete() && progress->stage( "Net" );
   }

   Ptr< Stage::EventConfig > event = Stage::EventConfig::EventConfigIs( "Net", "agent" );
   Ptr< Stage::AgentConfig > agent = Stage::AgentConfig::AgentConfigIs( "agent" );
   Ptr< Kiv::Dir > agents = Kiv::Dir::DirIs( "agents" );
   Ptr< Stage::Config > config = Stage::Config::ConfigIs( "config" );
   Ptr< Stage::Status > status = Stage::Status::StatusIs( "status" );
   Ptr< Stage::Progress > progress = Stage::Progress::ProgressIs( "agent" );
   Ptr< Stage::Log > log = Stage::Log::LogIs( "log" );
   Ptr< Stage::Ordovan > manager = Stage::Ordovan::OrdovanIs( "manager" );
};

enum Outcome : int { noFailure, badAlloc, workedAllTheSame, wrong };

// What becomes of the first start-up of a process in which this allocation fails.
Outcome firstStartUp( std::size_t failing, Failing how ) {
   bool threw = false;
   Allocations const allocations( failing, how );
   try {
      StartUp const first;
      Allocations::failNone();
      if( !first.completes() )
         return wrong;
   } catch( std::bad_alloc const & ) {
      threw = true;
   }
   Allocations::failNone();
   StartUp const second;
   if( !second.completes() )
      return wrong;
   return threw ? badAlloc : Allocations::hasFailed() ? workedAllTheSame : noFailure;
}

// Exit status of a child, -1 when a signal ended it.
int inChild( std::size_t failing, Failing how, char const * traces ) {
   pid_t const child = ::fork();
   if( child == 0 ) {
      if( traces ) {
         ::setenv( "KIV_TRACE", traces, 1 );
         ::freopen( "/dev/null", "w", stderr );
      }
      ::_exit( firstStartUp( failing, how ) );
   }
   int status = 0;
   EXPECT_EQ( ::waitpid( child, &status, 0 ), child );
   return WIFEXITED( status ) ? WEXITSTATUS( status ) : -1;
}

// Fails one after the other until none is left to fail; how many were told of by an exception. What
// can do without, as a trace can, works all the same.
std::size_t failEach( Failing how, char const * traces ) {
   std::size_t told = 0;
   for( std::size_t n = 0;; ++n ) {
      int const outcome = inChild( n, how, traces );
      if( outcome == noFailure )
         return told;
      told += outcome == badAlloc;
      if( outcome != badAlloc && outcome != workedAllTheSame ) {
         ADD_FAILURE() << "allocation " << n << ": outcome " << outcome;
         return 0;
      }
   }
}

} // namespace

TEST( FirstUse, OneFailedAllocationIsBadAllocAndTheNextStartUpWorks ) {
   EXPECT_GT( failEach( Failing::one, nullptr ), 50U );
}

TEST( FirstUse, NoMemoryFromSomePointOnIsBadAllocAndTheNextStartUpWorks ) {
   EXPECT_GT( failEach( Failing::allFromThenOn, nullptr ), 50U );
}

TEST( FirstUse, TheSameHoldsWithTracesOn ) {
   EXPECT_GT( failEach( Failing::one, "*:0-9" ), 50U );
   EXPECT_GT( failEach( Failing::allFromThenOn, "*:0-9" ), 50U );
}
