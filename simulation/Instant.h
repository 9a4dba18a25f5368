// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <simulation/Plan.h>

// What a start-up takes in from outside, as plain values. A start-up is a function of them and of
// their times: whoever plays them again has the same start-up again.

namespace Simulation {

// What one agent, or whoever may enable, has said.
struct Input {
   Operation operation;
   std::optional< std::uint32_t > user; // whose process said it, by the system's number
};

// What is taken in together: nothing reacts before the last of it is written.
struct Instant {
   double t = 0; // seconds since the start-up was made; inputs come in whole microseconds
   std::vector< Input > input; // in the order in which it is written; none: timers alone
};

// What is there before anything is taken in.
struct Beginning {
   std::string application = "application";
   bool enabled = true;
   std::vector< Agent > agent; // in the order in which they are filed
   // Whether an instant that takes in declarations asks for a decision together with its writes,
   // once progression has been started. Without it a stage that is declared late waits until
   // something else asks for one, which may never happen.
   bool decideOnDeclarations = false;
};

} // namespace Simulation
