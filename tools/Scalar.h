// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>
#include <variant>

#include <tools/YamlTree.h>

namespace Tools {

// The value of a scalar after YAML 1.2's core schema: text, quoting and tag decide, nothing else.
// Numbers are doubles; one beyond their range becomes an infinity, so the text tells the two apart.
using Scalar = std::variant< std::monostate, bool, double, std::string >;

// REQUIRES: `node` is a scalar.
Scalar scalarOf( YamlNode const & node );

// Whether the text of a number says "infinity", as opposed to a number too large for a double.
bool isWrittenInfinity( std::string_view text );

// Whether `node`, a scalar, fits its tag: the text of a !!int must be an integer, and so on.
bool fitsItsTag( YamlNode const & node );

} // namespace Tools
