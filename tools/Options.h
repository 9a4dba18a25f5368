// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Options that several commands have. Each throws the command line's own error for wrong text.
#pragma once

#include <functional>
#include <string>

#include <CLI/App.hpp>

namespace Tools {

// Adds an option whose text is given to `set`; help calls that text `type`.
CLI::Option & addText( CLI::App & command, std::string const & option, std::string const & type,
                       std::string const & description,
                       std::function< void( std::string const & ) > const & set );

// Adds an option that takes a time in seconds on a run's clock, which starts at 0; "inf" is one.
// REQUIRES: `seconds` outlives the command.
void addTime( CLI::App & command, std::string const & option, double & seconds,
              std::string const & description );

// Levels of traces like "8" or "7-9,0", a bit for each.
unsigned levelsOf( std::string const & option, std::string const & text );

} // namespace Tools
