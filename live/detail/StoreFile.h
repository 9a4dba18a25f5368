// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace Live::detail {

// By its first bytes. REQUIRES: this process does not have it open as a store, whose lock would go
// with the descriptor that is used here.
bool beginsAsStore( std::string const & file );

} // namespace Live::detail
