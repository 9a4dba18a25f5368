// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The stack on which the push of critical flags walks from stage to stage.
#pragma once

#include <Ordovan/ConfigSm.h>

#include <vector>

namespace Stage::detail {

// One stage whose flag was written, and how far its dependencies have been told. A chain of
// stages can be as long as the configuration makes it, so the walk keeps its frames here and not
// on the thread's stack.
struct CriticalFrame {
   Kiv::Ptr< ConfigSm::KivStageStatus > stage;
   StageStatus::DependencyIteratorConst dependency;
   bool critical;
};

using CriticalStack = std::vector< CriticalFrame >;

} // namespace Stage::detail
