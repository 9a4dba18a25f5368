// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// From what agents say to what a start-up takes in.
#pragma once

#include <live/Protocol.h>

#include <simulation/Instant.h>

#include <Stage/AgentConfig.h>

#include <string>
#include <vector>

namespace Live::detail {

Simulation::Event inputOf( Protocol::Event const & event );

// What changes `agent`, whose declaration is `declared`, so that these events are as they say and
// the stages of `withdraw` have none; all others stay. Nothing for what is so already.
std::vector< Simulation::Operation > changes( Stage::AgentConfig const & declared,
                                              std::vector< Protocol::Event > const & events,
                                              std::vector< std::string > const & withdraw );

// Stages that are declared and not among `events`, sorted.
std::vector< std::string > others( Stage::AgentConfig const & declared,
                                   std::vector< Protocol::Event > const & events );

} // namespace Live::detail
