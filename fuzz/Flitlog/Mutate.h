// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <random>
#include <string>

// Trace files that are nearly right, for the short fuzzing that runs with the tests.

namespace Fuzz {

// A good file: several points with all types of values, a ring that has been around more than once.
std::string goodRing();

// Some random changes, at random places or at those that matter: bits, bytes, numbers near limits,
// pieces copied, removed, cut off; check sums of header, descriptors and records are often made
// right again, so that what lies behind them is reached.
std::string mutated( std::string bytes, std::mt19937 & random );

} // namespace Fuzz
