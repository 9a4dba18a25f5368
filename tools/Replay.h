// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <CLI/App.hpp>

#include <tools/Simulate.h>

namespace Tools {

// Adds `ordovan replay` to the command. `status` is set when it has run, and must outlive `app`.
void addReplay( CLI::App & app, Status & status );

} // namespace Tools
