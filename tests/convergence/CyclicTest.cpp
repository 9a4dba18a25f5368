// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Dependencies with cycles: the sets are exact, and every critical stage has a reason, which in a
// cycle may be itself.

#include "History.h"

#include <gtest/gtest.h>

namespace convergence {
namespace {

TEST( Cycles, EveryCriticalStageHasAReasonAndEveryReasonMakesOne ) {
   playMany( { .acyclic = false }, 2000 );
}

TEST( Cycles, TheSameHoldsWhenTheLoopRunsBetweenTheWrites ) {
   playMany( { .acyclic = false, .clean = true, .partial = true }, 1000 );
}

TEST( Cycles, TheSameHoldsWhenStagesAndTheAggregationComeAndGo ) {
   playMany( { .acyclic = false, .remade = true, .stagesGo = true }, 1000 );
}

TEST( Cycles, TheSameHoldsWhenLittleButLinksChanges ) {
   playMany( { .acyclic = false, .links = true }, 2000 );
}

TEST( Cycles, TheSameHoldsWhenStagesReturnBeforeAnybodyHeardThatTheyLeft ) {
   playMany( { .acyclic = false, .partial = true, .stagesGo = true }, 1000 );
   playMany( { .acyclic = false, .partial = true, .stagesGo = true, .links = true }, 2000 );
}

} // namespace
} // namespace convergence
