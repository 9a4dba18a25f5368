// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include <Kiv/Kiv.h>

#include <tools/Path.h>

// Whatever can be reached from an object by the names of attributes, as text.

namespace Tools {

enum class Format { text, json };

std::size_t constexpr everyLevel = static_cast< std::size_t >( -1 );

// What `path` leads to from `root`: a value as it is, an object or collection with all that
// belongs to it. Everything is found and read through Kiv::GenericIf alone, and nothing is changed.
//
// Each object is shown in one place, the nearest to the root (at equal distance, that which comes
// first in the tables); elsewhere stands where that is. So the tree ends, however the objects
// point at each other. Handlers, operations and what every state machine has besides are left out
// of it; a path may lead to a switch of the latter kind.
//
// Of what belongs to it, `depth` levels are shown, of which members of a collection are one. Of an
// object below them stands where it can be asked for, of a collection that and how many members it
// has (in JSON their number alone, in place of the object).
//
// As text, names and texts that hold blanks, quotes, brackets, backslashes or what does not print
// stand between double quotes, as keys in a path do. A text that is all there is has no quotes, but
// its backslashes are doubled.
//
// Throws PathError for a path that leads nowhere, with the names that there are.
// Cost: one look at everything that can be reached from the root.
std::string shown( Kiv::Ptr< Kiv::PtrInterface const > const & root, std::string_view path,
                   Format format, std::size_t depth = everyLevel );

} // namespace Tools
