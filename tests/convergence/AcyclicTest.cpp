// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Dependencies without cycles: the stages are what their events say, computed from scratch.

#include "History.h"

#include <gtest/gtest.h>

namespace convergence {
namespace {

TEST( Convergence, StagesAreWhatTheAgentsDeclareNow ) {
   playMany( { .acyclic = true, .clean = true }, 2000 );
}

TEST( Convergence, StagesAreWhatTheAgentsDeclareNowAlsoWhenTheLoopRunsBetweenTheWrites ) {
   playMany( { .acyclic = true, .clean = true, .partial = true }, 2000 );
}

TEST( Convergence, AnAggregationMadeAnewFindsWhatTheAgentsDeclare ) {
   playMany( { .acyclic = true, .clean = true, .remade = true }, 1000 );
}

TEST( Convergence, StagesAreWhatTheirEventsSayWhateverIsReplacedOrComesBack ) {
   playMany( { .acyclic = true }, 2000 );
}

TEST( Convergence, StagesAreWhatTheirEventsSayAlsoWhenTheLoopRunsBetweenTheWrites ) {
   playMany( { .acyclic = true, .partial = true }, 2000 );
}

TEST( Convergence, StagesAreWhatTheirEventsSayAlsoAfterEachSingleWrite ) {
   playMany( { .acyclic = true, .single = true }, 1000 );
}

TEST( Convergence, StagesAreWhatTheirEventsSayAlsoWhenStagesAndTheAggregationComeAndGo ) {
   playMany( { .acyclic = true, .remade = true, .stagesGo = true }, 1000 );
}

TEST( Convergence, StagesAreWhatTheirEventsSayAlsoWhenStagesReturnBeforeAnybodyHeardThatTheyLeft ) {
   playMany( { .acyclic = true, .partial = true, .stagesGo = true }, 1000 );
   playMany( { .acyclic = true, .partial = true, .stagesGo = true, .links = true }, 2000 );
}

} // namespace
} // namespace convergence
