// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// That newReactor() knows every callback of every entity type: what is missing in a type's list it
// would take for silence.
#include "Recorders.h"

#include <Ordovan/StageSm.h>

#include <Kiv/Clock.h>

#include <gtest/gtest.h>

#include <iterator>

using namespace Kiv::detail;

namespace {

template< class E, class R, class Form >
constexpr auto const & rows = E::NotifieeConst::template kivCallbacks< R, Form >;

// The recorder overrides all there is: the list sees each of its callbacks, in every form.
template< class E >
constexpr bool seesAllOf() {
   using Base = typename E::NotifieeConst;
   using Recorder = conformance::Recorder< E >;
   for( std::size_t n = 0; n < std::size( rows< E, Base, Whole > ); ++n )
      if( !rows< E, Recorder, OwnWhole< Base > >[ n ] ||
          rows< E, Base, ForKey >[ n ] != rows< E, Recorder, OwnForKey< Base > >[ n ] )
         return false;
   return true;
}

// A reactor for each callback, which overrides nothing else. The only one of Progress and of Log is
// seen by the number of their rows.
struct ConfigOnIsNondestructing : Stage::Config::NotifieeConst {
   void onIsNondestructing() override {}
};
struct ConfigOnAgentDir : Stage::Config::NotifieeConst {
   void onAgentDir() override {}
};
struct ConfigOnEnabled : Stage::Config::NotifieeConst {
   void onEnabled() override {}
};
struct AgentConfigOnIsNondestructing : Stage::AgentConfig::NotifieeConst {
   void onIsNondestructing() override {}
};
struct AgentConfigOnEvent : Stage::AgentConfig::NotifieeConst {
   using NotifieeConst::onEvent;
   void onEvent( Kiv::Name ) override {}
};
struct AgentConfigOnEventkivImmediate : Stage::AgentConfig::NotifieeConst {
   void onEventkivImmediate() override {}
};
struct EventConfigOnIsNondestructing : Stage::EventConfig::NotifieeConst {
   void onIsNondestructing() override {}
};
struct EventConfigOnComplete : Stage::EventConfig::NotifieeConst {
   void onComplete() override {}
};
struct EventConfigOnDependency : Stage::EventConfig::NotifieeConst {
   using NotifieeConst::onDependency;
   void onDependency( Kiv::String8 ) override {}
};
struct EventConfigOnDependencykivImmediate : Stage::EventConfig::NotifieeConst {
   void onDependencykivImmediate() override {}
};
struct EventConfigOnTimeout : Stage::EventConfig::NotifieeConst {
   void onTimeout() override {}
};
struct EventConfigOnCritical : Stage::EventConfig::NotifieeConst {
   void onCritical() override {}
};
struct StatusOnIsNondestructing : Stage::Status::NotifieeConst {
   void onIsNondestructing() override {}
};
struct StatusOnStage : Stage::Status::NotifieeConst {
   using NotifieeConst::onStage;
   void onStage( Kiv::Name ) override {}
};
struct StatusOnStagekivImmediate : Stage::Status::NotifieeConst {
   void onStagekivImmediate() override {}
};
struct StatusOnActiveStage : Stage::Status::NotifieeConst {
   using NotifieeConst::onActiveStage;
   void onActiveStage( Kiv::Name ) override {}
};
struct StatusOnActiveStagekivImmediate : Stage::Status::NotifieeConst {
   void onActiveStagekivImmediate() override {}
};
struct StatusOnProgress : Stage::Status::NotifieeConst {
   void onProgress() override {}
};
struct StatusOnSorted : Stage::Status::NotifieeConst {
   void onSorted() override {}
};
struct StatusOnComplete : Stage::Status::NotifieeConst {
   void onComplete() override {}
};
struct StageStatusOnIsNondestructing : Stage::StageStatus::NotifieeConst {
   void onIsNondestructing() override {}
};
struct StageStatusOnDependency : Stage::StageStatus::NotifieeConst {
   using NotifieeConst::onDependency;
   void onDependency( Kiv::String8 ) override {}
};
struct StageStatusOnDependencykivImmediate : Stage::StageStatus::NotifieeConst {
   void onDependencykivImmediate() override {}
};
struct StageStatusOnEvent : Stage::StageStatus::NotifieeConst {
   using NotifieeConst::onEvent;
   void onEvent( Kiv::String8 ) override {}
};
struct StageStatusOnEventkivImmediate : Stage::StageStatus::NotifieeConst {
   void onEventkivImmediate() override {}
};
struct StageStatusOnTimeout : Stage::StageStatus::NotifieeConst {
   void onTimeout() override {}
};
struct StageStatusOnCritical : Stage::StageStatus::NotifieeConst {
   void onCritical() override {}
};
struct StageSmOnComplete : Stage::StageSm::NotifieeConst {
   void onComplete() override {}
};
struct StageSmOnTimedOut : Stage::StageSm::NotifieeConst {
   void onTimedOut() override {}
};
struct StageSmOnCompletionTime : Stage::StageSm::NotifieeConst {
   void onCompletionTime() override {}
};
struct StageSmOnPendingEvent : Stage::StageSm::NotifieeConst {
   using NotifieeConst::onPendingEvent;
   void onPendingEvent( Kiv::String8 ) override {}
};
struct StageSmOnPendingEventkivImmediate : Stage::StageSm::NotifieeConst {
   void onPendingEventkivImmediate() override {}
};
struct StageSmOnEvent : Stage::StageSm::NotifieeConst {
   using NotifieeConst::onEvent;
   void onEvent( Kiv::String8 ) override {}
};
struct StageSmOnEventkivImmediate : Stage::StageSm::NotifieeConst {
   void onEventkivImmediate() override {}
};
struct StageSmOnStageUncompleted : Stage::StageSm::NotifieeConst {
   void onStageUncompleted() override {}
};
struct StageSmOnInitialized : Stage::StageSm::NotifieeConst {
   void onInitialized() override {}
};
struct ClockOnTime : Kiv::Clock::NotifieeConst {
   void onTime() override {}
};
struct DirOnEntityPtr : Kiv::Dir::NotifieeConst {
   using NotifieeConst::onEntityPtr;
   void onEntityPtr( Kiv::Name ) override {}
};
struct DirOnEntityPtrkivImmediate : Kiv::Dir::NotifieeConst {
   void onEntityPtrkivImmediate() override {}
};

// Whether each of the classes overrides a callback for all that newReactor() knows.
template< class... Reactors >
constexpr bool areSeen() {
   return ( !findings< Reactors >().silent && ... ) && ( !findings< Reactors >().hides && ... );
}
static_assert( areSeen< ConfigOnIsNondestructing, ConfigOnAgentDir, ConfigOnEnabled >() );
static_assert(
   areSeen< AgentConfigOnIsNondestructing, AgentConfigOnEvent, AgentConfigOnEventkivImmediate >() );
static_assert(
   areSeen< EventConfigOnIsNondestructing, EventConfigOnComplete, EventConfigOnDependency,
            EventConfigOnDependencykivImmediate, EventConfigOnTimeout, EventConfigOnCritical >() );
static_assert( areSeen< StatusOnIsNondestructing, StatusOnStage, StatusOnStagekivImmediate,
                        StatusOnActiveStage, StatusOnActiveStagekivImmediate, StatusOnProgress,
                        StatusOnSorted, StatusOnComplete >() );
static_assert(
   areSeen< StageStatusOnIsNondestructing, StageStatusOnDependency,
            StageStatusOnDependencykivImmediate, StageStatusOnEvent, StageStatusOnEventkivImmediate,
            StageStatusOnTimeout, StageStatusOnCritical >() );
static_assert(
   areSeen< StageSmOnComplete, StageSmOnTimedOut, StageSmOnCompletionTime, StageSmOnPendingEvent,
            StageSmOnPendingEventkivImmediate, StageSmOnEvent, StageSmOnEventkivImmediate,
            StageSmOnStageUncompleted, StageSmOnInitialized >() );
static_assert( areSeen< ClockOnTime >() );
static_assert( areSeen< DirOnEntityPtr, DirOnEntityPtrkivImmediate >() );

// How many names of callbacks the type's table of attributes asks for.
std::size_t notifying( Kiv::KivType const & type ) {
   std::size_t count = 0;
   for( Kiv::Attribute const & row : type.attributes() )
      if( Kiv::has( row.role, Kiv::Role::notifying ) )
         count += Kiv::has( row.role, Kiv::Role::collection ) ? 2 : 1;
   return count;
}

template< class E >
class CallbacksOf : public testing::Test {};
using Types = testing::Types< Stage::Config, Stage::AgentConfig, Stage::EventConfig, Stage::Status,
                              Stage::StageStatus, Stage::Progress, Stage::Log, Kiv::Dir >;
TYPED_TEST_SUITE( CallbacksOf, Types );

} // namespace

TYPED_TEST( CallbacksOf, AreAllListed ) {
   using Base = typename TypeParam::NotifieeConst;
   EXPECT_EQ( std::size( rows< TypeParam, Base, Whole > ), notifying( TypeParam::_fwkType() ) );
   static_assert( seesAllOf< TypeParam >() );
}
TEST( Callbacks, OfAnActiveStageAreAllListed ) {
   using Base = Stage::StageSm::NotifieeConst;
   EXPECT_EQ( std::size( rows< Stage::StageSm, Base, Whole > ),
              notifying( Stage::StageSm::_fwkType() ) );
}
