// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <vector>

#include <Ordovan/Ordovan.h>

#include <simulation/Instant.h>
#include <simulation/Observer.h>
#include <simulation/Plan.h>
#include <simulation/Result.h>

namespace Simulation {

// The plan's own, without the timeline.
Beginning beginningOf( Plan const & plan );

// Is shown the manager of a run's state machines when the run has ended, while they still live. It
// may read everything that can be reached from there; it must not change it, nor run the loop.
using Look = std::function< void( Kiv::Ptr< Stage::Ordovan > const & manager ) >;

// Runs `plan` through the real library on a manual clock that starts at 0 and jumps from one due
// time to the next, until nothing is due any more; the same plan gives the same run, always. With
// `until`, in seconds, what is due later than that does not happen: the result is how things stand
// then. The observers are told in the order given; none may be null. `look` is called last.
//
// First the agents are filed, then the state machines are made, then callbacks run until none is
// left. Then come the instants, from 0 on, as Engine.h has them; what is taken in is the timeline.
//
// A report is armed when the stage of its event becomes active, or when the event is declared if
// the stage is active then; once for each event object; those of one stage in the order of their
// declaration.
//
// Uses the activity manager, its clock and the sink of log messages of this process, gives clock
// and sink back as they were, and runs whatever else is queued. Throws std::logic_error when called
// inside a callback of the activity, std::invalid_argument for a plan with mistakes (Timeline.h) or
// values out of range, a negative `until` among them, before anything runs, and passes on what an
// observer or `look` throws.
// Cost: that of the library, plus a logarithmic step for each event.
Result run( Plan const & plan, std::vector< Observer * > const & observers = {},
            double until = infinity, Look const & look = {} );

} // namespace Simulation
