// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The order in which a table is walked (Kiv/HashMap.h), for keys that stand in none.
#pragma once

#include <Kiv/Text.h>

namespace Stage::detail {

inline bool standsBefore( Kiv::Text const & a, Kiv::Text const & b ) {
   return a.hash() != b.hash() ? a.hash() < b.hash() : a < b;
}

} // namespace Stage::detail
