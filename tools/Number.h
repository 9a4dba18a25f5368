// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <charconv>
#include <optional>
#include <string_view>
#include <system_error>

namespace Tools {

// The number that `text` is from its first character to its last, written without blanks or a "+";
// nothing if it is something else, or too large for its type.
template< class Number >
std::optional< Number > numberOf( std::string_view text ) {
   Number number{};
   auto const end = text.data() + text.size();
   auto const [ read, error ] = std::from_chars( text.data(), end, number );
   return error == std::errc() && read == end ? std::optional( number ) : std::nullopt;
}

} // namespace Tools
