// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

namespace Tools {

// The command `flitlog` with the arguments of main(); returns its exit status: 0 all has been read,
// 1 something in the file could not be, 2 the command line is wrong, there is no trace file or
// standard output cannot be written.
int flitlogCommand( int count, char ** arguments );

} // namespace Tools
