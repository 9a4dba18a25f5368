// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

namespace Tools {

// The command `ordovan` with the arguments of main(); returns its exit status.
int command( int count, char ** arguments );

} // namespace Tools
