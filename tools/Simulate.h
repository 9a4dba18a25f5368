// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <CLI/App.hpp>

namespace Tools {

// Exit statuses of the command.
enum class Status {
   complete = 0,
   notComplete = 1,
   wrong = 2 // the command line or the plan, or a file that cannot be read or written
};

// Adds `ordovan simulate` to the command. `status` is set when it has run, and must outlive `app`.
void addSimulate( CLI::App & app, Status & status );

} // namespace Tools
