// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>

#include <CLI/App.hpp>
#include <simulation/Plan.h>

namespace Tools {

// The plan of a file; nothing when it has mistakes, which standard error then names with their
// places. Throws FileError for a file that cannot be read.
std::optional< Simulation::Plan > planOf( std::string const & path );

// Adds an option that takes a time in seconds on a run's clock, which starts at 0; "inf" is one.
// REQUIRES: `seconds` outlives the command.
void addTime( CLI::App & command, std::string const & option, double & seconds,
              std::string const & description );

}  // namespace Tools
