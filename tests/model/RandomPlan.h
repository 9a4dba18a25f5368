// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Plans made of a seed: the same plan on every machine, so nothing here may come from the
// distributions of the standard library.
#pragma once

#include <simulation/Plan.h>

#include <cstdint>
#include <string>

namespace model {

// Up to 12 stages and 6 agents; dependencies also on stages that nobody declares, on the stage
// itself and in cycles; up to 10 entries of the timeline, some at one instant. Times lie on a
// coarse grid, so that many things fall together; in a quarter of the plans nearly everything does.
Simulation::Plan randomPlan( std::uint64_t seed );

// As a plan file, for people who want to run it again.
std::string yamlOf( Simulation::Plan const & plan );

} // namespace model
