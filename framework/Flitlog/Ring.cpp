#include <Flitlog/Ring.h>

namespace Flitlog {

TraceFile * theTraceFile = nullptr;

} // namespace Flitlog
