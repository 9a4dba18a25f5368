// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string_view>
#include <vector>

#include <simulation/Plan.h>

namespace Tools {

// A plan and everything that is wrong with it, by place. A plan with mistakes must not be run.
struct PlanText {
   Simulation::Plan plan;
   std::vector< Simulation::Mistake > mistakes;
};

// Reads the text of a plan file: one YAML document in UTF-8. Throws nothing but std::bad_alloc,
// whatever the text is.
PlanText readPlan( std::string_view text );

} // namespace Tools
