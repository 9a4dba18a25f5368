// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Long lines on a terminal.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace Tools {

// How many columns `text` takes: one for each character, also for one that a terminal shows in two.
// REQUIRES: printable text.
std::size_t columnsOf( std::string_view text );

// How many columns the terminal at the descriptor has; 0 if it is no terminal, whose lines somebody
// may search, or if nobody knows. A terminal that does not know itself is as wide as COLUMNS in the
// environment says.
std::size_t columnsOf( int descriptor );

// Its rows; 24 if nobody knows.
std::size_t heightOf( int descriptor );

// `text` broken at blanks so that no line is longer than `columns`, if it has such blanks; lines
// that breaking makes are indented. Line ends that are there stay.
// 0 columns: not broken. `used` columns stand before the text already. REQUIRES: printable text.
std::string broken( std::string_view text, std::size_t columns, std::size_t indent = 3,
                    std::size_t used = 0 );

// The rows that `text` takes on a terminal, which breaks it anywhere. REQUIRES: columns above 0.
std::size_t rowsOf( std::string_view text, std::size_t columns );

} // namespace Tools
