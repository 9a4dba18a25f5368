// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Timeouts that single precision cannot hold follow their rule step by step.

#include "History.h"

#include <gtest/gtest.h>

namespace convergence {
namespace {

TEST( TimeoutSteps, EachWriteRecomputesOrKeepsTheTimeoutAsTheRuleSays ) {
   playMany( { .acyclic = true, .single = true, .oddTimeouts = true }, 3000 );
}

TEST( TimeoutSteps, TheRestConvergesWhateverTheTimeoutsAre ) {
   playMany( { .acyclic = true, .partial = true, .oddTimeouts = true }, 1000 );
}

} // namespace
} // namespace convergence
