// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace Tools {

// The columns of the terminal that a descriptor leads to; 80 if it leads to none.
std::size_t widthOf( int descriptor );

// Its rows; 24 if it leads to none.
std::size_t heightOf( int descriptor );

// `text` with line ends in place of blanks, so that no line has more than `width` characters where
// that can be had: what has no blank is not broken. Line ends that are there stay. The lines that
// breaking makes begin with `indent` blanks; `column` characters stand before the text already.
std::string wrapped( std::string_view text, std::size_t width, std::size_t indent = 0,
                     std::size_t column = 0 );

// The rows that `text` takes on a terminal of this width.
std::size_t rowsOf( std::string_view text, std::size_t width );

}  // namespace Tools
