// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <CLI/App.hpp>

namespace Tools {

// What became of a command line.
enum class Parsed {
   wrong,    // standard error says why, and what may have been meant
   answered, // help or the version was asked for, and is printed
   run       // everything has its value, and the callbacks have run
};

// Reads the arguments of main(). Help breaks at blanks to the width of the terminal. Whatever a
// callback throws goes through, unless it is an error of the command line.
Parsed parse( CLI::App & app, int count, char const * const * arguments );

} // namespace Tools
