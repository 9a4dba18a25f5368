// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// JSON text that somebody else has sent.
#pragma once

#include <nlohmann/json.hpp>

#include <optional>
#include <string>
#include <string_view>

namespace Live::detail {

// The object that `text` is. None for what is no single object in valid UTF-8, nests deeper than
// `nesting` (the object itself is the first level), names a member of one object twice, or has a
// number that no double can hold. The depth of its recursion does not depend on the text.
std::optional< nlohmann::json > objectFrom( std::string_view text, unsigned nesting );

// On one line, as it is sent. Bytes that are no UTF-8 become U+FFFD.
std::string textOf( nlohmann::json const & value );

} // namespace Live::detail
