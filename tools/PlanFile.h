// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>

#include <simulation/Plan.h>

namespace Tools {

// The plan of a file, or of standard input if `path` is "-"; nothing when it has mistakes, which
// standard error then names with their places. Throws FileError for a file that cannot be read.
std::optional< Simulation::Plan > planOf( std::string const & path );

} // namespace Tools
