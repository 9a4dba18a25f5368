// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include <Ordovan/Ordovan.h>

#include <simulation/Result.h>

// Why a start-up did not complete. The library says so of any state machines, a run since when.

namespace Simulation {

// What the library says of `statusSm` now, and what the run saw: since when events are pending, and
// when stages became active and timed out. REQUIRES: `result` was read from `statusSm` now.
Stage::Explanation explained( Stage::StatusSm const & statusSm, Result const & result );

// What holds the start-up up, a sentence for each, what most stages wait for first.
// Both read `result.explanation` and nothing else. Cost: linear in it.
std::vector< std::string > causes( Result const & result );

// Why a stage is unfinished, as one sentence for people.
struct Reason {
   std::string stage;
   std::string sentence;
   bool cause = false; // the stage is a cause by itself, with the same words
};

// For every stage that is not both active and complete, what it is waiting for: the stages that it
// depends on and what each of them lacks, the critical stages that hold it back, or the events that
// are pending and since when; and what will happen when its time is up, if that is ever. By name of
// stage.
std::vector< Reason > reasons( Result const & result );

} // namespace Simulation
