// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string_view>

#include <simulation/Result.h>

namespace Tools {

enum class Telling {
   causes, // what holds the start-up up, and how many stages wait for each; the others are counted
   all     // then what each of the others waits for
};

// Says on standard error, below `heading`, why a start-up did not complete: a line for each
// sentence, on a terminal broken at blanks where it ends. REQUIRES: the heading is printable, and
// the start-up did not complete.
void tellReasons( std::string_view heading, Simulation::Result const & result, Telling telling );

} // namespace Tools
