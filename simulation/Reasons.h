// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include <simulation/Result.h>

namespace Simulation {

// Why a stage is unfinished, as one sentence for people.
struct Reason {
   std::string stage;
   std::string sentence;
};

// For every stage that is not both active and complete, what it is waiting for: the stages that it
// depends on and what each of them lacks, the critical stages that hold it back, or the agents
// whose events are pending and since when; and what will happen when its time is up, if that is
// ever. By name of stage; reads `result` and nothing else.
// Cost: linear in the stages and their dependencies.
std::vector< Reason > reasons( Result const & result );

}  // namespace Simulation
