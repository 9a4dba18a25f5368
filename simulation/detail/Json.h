// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>

// JSON's scalars as text, the same bytes on every machine.

namespace Simulation::detail {

// A JSON string with its quotes. What is no UTF-8 is replaced byte by byte by U+FFFD, since JSON
// can hold nothing else.
std::string jsonString( std::string_view text );

// A number that reads back as the same double: integers up to 2^53 in full (30, not 3e+01), all
// else the shortest text. Infinities, which JSON lacks, become the strings "inf" and "-inf".
// REQUIRES: not NaN.
std::string jsonNumber( double value );

} // namespace Simulation::detail
