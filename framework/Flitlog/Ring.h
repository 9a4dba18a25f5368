// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Binary traces in a ring buffer: the library's frame.
#pragma once

#include <Flitlog/Export.h>

namespace Flitlog {

// A trace file in use. Its contents and the ring come with the first recorder.
class TraceFile;

// Where binary traces go; null, as it is now, while nothing records.
FLITLOG_EXPORT extern TraceFile * theTraceFile;

} // namespace Flitlog
