// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>

// Stamps: the times at which something is taken in, in whole microseconds, so that they are the
// same numbers wherever they are written and read.

namespace Simulation {

// The microseconds of a stamp; nothing for a time that is not in whole microseconds, negative, or
// beyond what a double can tell apart (some 285 years).
std::optional< std::int64_t > microsecondsOf( double seconds );
double secondsOf( std::int64_t microseconds );

// The latest stamp not after `seconds`, or the earliest after `last` if that is later.
double stampFrom( double seconds, std::optional< double > last );

} // namespace Simulation
