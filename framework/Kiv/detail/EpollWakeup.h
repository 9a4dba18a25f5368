// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The loop's built-in way to sleep: epoll over an eventfd (wake-ups) and a timerfd (the alarm).
#pragma once

#include <Kiv/Activity.h>

#include <memory>

namespace Kiv::detail {

// Throws std::system_error when the process has no descriptors left.
std::unique_ptr< Wakeup > newEpollWakeup();

} // namespace Kiv::detail
