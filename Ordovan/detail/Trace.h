// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The trace handle of this library, and its trace points.
//
// Levels: 8 is the usual trace of a handler (entry, decisions, results); 9 detail inside loops;
// 7 the one event that a reader looks for first, a stage being activated; 0 what went wrong in the
// system that is being started: a critical stage that timed out, a stage completed after that.
#pragma once

#include <Kiv/Trace.h>

namespace Stage {

// Built on first use, destroyed at exit. Always inlined, so that a trace point that is switched off
// makes no call.
[[gnu::always_inline]] inline Kiv::TraceHandle & traceHandle() {
   static Kiv::TraceHandle handle( "Ordovan", false );
   return handle;
}

namespace detail {

// Whether a trace of that level goes anywhere: for loops that need not run without it. Runs them
// when it cannot be known for want of memory.
inline bool traces( unsigned level ) noexcept {
   try {
      return Kiv::tracesTo( traceHandle(), level );
   } catch( ... ) {
      return true;
   }
}

} // namespace detail

} // namespace Stage

#define ORDOVAN_TRACE( level, ... ) ORDOVAN_TRACE_IN( __func__, level, __VA_ARGS__ )
// In a helper of the handler named.
#define ORDOVAN_TRACE_IN( handler, level, ... )                                                    \
   KIV_TRACE_IN( ::Stage::traceHandle(), level, "Ordovan", handler, __VA_ARGS__ )
