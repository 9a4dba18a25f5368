// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Long lines on a terminal.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace Tools {

// How many columns the terminal at the descriptor has; 0 if it is no terminal, whose lines somebody
// may search, or if nobody knows. A terminal that does not know itself is as wide as COLUMNS in the
// environment says.
std::size_t columnsOf( int descriptor );

// `text` broken at blanks so that no line is longer than `columns`, if it has such blanks; lines
// after the first are indented. 0 columns: not broken. REQUIRES: printable text. A character counts
// as one column, also one that a terminal shows in two.
std::string broken( std::string_view text, std::size_t columns );

}  // namespace Tools
