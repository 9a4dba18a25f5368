// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// What the tests of aggregation share: short names, and a state machine that reacts to nothing by
// itself, so that one handler can be called at a time.
#pragma once

#include <tests/support/TraceRecorder.h>
#include <tests/support/World.h>

#include <gtest/gtest.h>

#include <Kiv/Exception.h>

#include <string>
#include <vector>

namespace aggregation {

using Kiv::Name;
using Kiv::Ptr;
using Kiv::String8;
using Stage::AgentConfig;
using Stage::ConfigSm;
using Stage::EventConfig;
using Stage::StageStatus;
using testing_support::agentsOf;
using testing_support::dependenciesOf;
using testing_support::stagesOf;
using testing_support::TraceRecorder;
using testing_support::World;

using Lines = std::vector< std::string >;
using Names = std::set< std::string >;

// Made, but with its notifications off: what its inputs do stays queued.
inline Ptr< ConfigSm > silentConfigSm( World & w ) {
   return new ConfigSm( w.config, w.status, w.dir );
}

// A stage filled by hand, as if events had been filed in it already.
inline Ptr< EventConfig > fileEvent( World & w, Name const & agent, Name const & stage ) {
   Ptr< EventConfig > const event = EventConfig::EventConfigIs( stage, agent );
   w.status->stageIs( stage )->eventIs( event );
   return event;
}

// The text of the range exception that `call` throws; what happened instead when it throws none.
template< class Call >
std::string rangeText( Call call ) {
   try {
      call();
   } catch( Kiv::RangeException const & e ) {
      return e.what();
   } catch( std::exception const & e ) {
      return std::string( "another exception: " ) + e.what();
   }
   return "no exception";
}

// Signatures as traces write them.
inline std::string const sm = "void Stage::ConfigSm::";
inline std::string const ofAgent = "void Stage::ConfigSm::KivAgentConfig::";
inline std::string const ofStage = "void Stage::ConfigSm::KivStageStatus::";
inline std::string const ofEvent = "void Stage::ConfigSm::KivStageStatus::KivEventConfig::";

} // namespace aggregation
