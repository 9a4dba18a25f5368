// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// What agents in processes of their own and the hub say to each other.
#pragma once

#include <live/Export.h>

#include <string_view>

namespace Live {

inline constexpr std::string_view interfaceName = "io.ordovan.Stages";

// The interface's description, io.ordovan.Stages.varlink to the letter.
LIVE_EXPORT std::string_view interfaceText();

} // namespace Live
