// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Whose thread this is: everything of the activity belongs to one.
#pragma once

#include <Kiv/Export.h>
#include <Kiv/Ptr.h>

#include <atomic>

namespace Kiv::detail {

// Every thread has a mark of its own, at an address of its own. Of the initial-exec model, so that
// it is reached without a call, from the setters of the libraries above, too.
[[gnu::tls_model( "initial-exec" )]] KIV_EXPORT extern constinit thread_local char const threadMark;
// The mark of the thread that owns the activity; null before the first use.
KIV_EXPORT extern constinit std::atomic< void const * > ownerMark;

// The calling thread owns the activity from now on.
void ownThread() noexcept;

// Called by a thread that does not own the activity: the first that uses it becomes its owner, any
// other one is told of (what it touches, which thread it is) and ends the process. `object` may be
// null, and `attribute` empty.
[[gnu::cold]] KIV_EXPORT void onOtherThread( PtrInterface const * object,
                                             char const * attribute ) noexcept;

inline bool onOwnThread() { return ownerMark.load( std::memory_order_relaxed ) == &threadMark; }

inline bool hasOwnThread() { return ownerMark.load( std::memory_order_relaxed ) != nullptr; }

// One comparison: made in every build, whenever something is changed.
inline void checkOwner( PtrInterface const * object, char const * attribute ) {
   if( !onOwnThread() ) [[unlikely]]
      onOtherThread( object, attribute );
}

} // namespace Kiv::detail
