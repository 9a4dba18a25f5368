// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Flitlog/Ring.h>

namespace Flitlog {

TraceFile * theTraceFile = nullptr;

} // namespace Flitlog
