// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include <simulation/Plan.h>

namespace Simulation {

// The entries of a timeline as indexes into it, in the order in which they run: by `at`, equal
// times in the order of the file. Throws std::invalid_argument for an `at` that is NaN.
std::vector< std::size_t > timelineOrder( std::vector< TimelineEntry > const & timeline );

// An entry that a reader could not make sense of, though it names an agent: from its time on the
// agent and its events may have come, or may have gone, so that an entry is not held to be wrong
// because of that. `at` is minus infinity where the time is not known either.
struct UnclearEntry {
   double at = -infinity;
   std::string agent;
   bool mayHaveCome = false;
   bool mayHaveGone = false;
};

// What keeps a plan whose single values are in order from being run: an agent or an event that
// stands there twice, and each entry of the timeline about an agent or event that is not there at
// that moment, or there already, judged in order of time after the entries before it. A wrong
// entry counts as not made, but for the events of a wrong `Join`: they count as declared, so that
// one slip is not reported again at each entry that follows from it.
//
// Empty for a plan that can be run. Throws std::invalid_argument for an `at` that is NaN.
// Cost: n log n.
std::vector< Mistake > planMistakes( Plan const & plan,
                                     std::vector< UnclearEntry > const & unclear = {} );

} // namespace Simulation
