// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// A second implementation of aggregation and progression, for comparison only: tables, loops and
// a list of work in place of reactors. It shares no line with the library, and knows its rules
// alone; where it and the library disagree, one of the two has a rule wrong.
#pragma once

#include <simulation/Plan.h>
#include <simulation/Result.h>

#include <compare>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace model {

// Every table is walked by ascending rank of its names, then by their bytes. Which order that is,
// is no part of the rules: any function does.
using Rank = std::function< std::uint64_t( std::string const & ) >;

// An entry of the log, or a declared message as "ID: text".
struct Line {
   double t = 0;
   std::string text;
   friend auto operator<=>( Line const &, Line const & ) = default;
};

struct Played {
   Simulation::Result result; // since when an event has been pending is left at 0
   std::vector< Line > line;  // in the order in which they are made
   std::string printed;       // to standard output
};

// REQUIRES: the plan has no mistakes.
Played play( Simulation::Plan const & plan, Rank const & rank );

} // namespace model
