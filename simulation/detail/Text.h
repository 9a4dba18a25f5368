// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Kiv/Printable.h>

// Text that comes from outside, made fit for a person's eyes.

namespace Simulation::detail {

using Kiv::characterLength;
using Kiv::printable;
using Kiv::quoted;

} // namespace Simulation::detail
