// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// That newReactor() knows every callback of every entity type: what is missing in a type's list it
// would take for silence.
#include "Recorders.h"

#include <gtest/gtest.h>

using namespace Kiv::detail;

namespace {

// How many rows the list of E has. Of each the recorder, which overrides all there is, has written
// out every form.
template< class E, int n = 0 >
constexpr int callbacks() {
   using Base = typename E::NotifieeConst;
   using Recorder = conformance::Recorder< E >;
   if constexpr( HasForm< Base, Base, n, KeyOf > ) {
      using Key = ForKey< Found< Base, Base, n, KeyOf > >;
      static_assert( writesOut< Base, Recorder, Base, n, Key >() );
      static_assert( writesOut< Base, Recorder, Base, n, Whole >() );
      static_assert( writesOut< Base, Recorder, Base, n + 1, Whole >(),
                     "the deferred form stands after the others" );
      return 2 + callbacks< E, n + 2 >();
   } else if constexpr( HasForm< Base, Base, n, Whole > ) {
      static_assert( writesOut< Base, Recorder, Base, n, Whole >() );
      return 1 + callbacks< E, n + 1 >();
   } else {
      return 0;
   }
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
static_assert( areSeen< DirOnEntityPtr, DirOnEntityPtrkivImmediate >() );

// How many names of callbacks the type's table of attributes asks for.
int notifying( Kiv::KivType const & type ) {
   int count = 0;
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
   EXPECT_EQ( callbacks< TypeParam >(), notifying( TypeParam::_fwkType() ) );
   EXPECT_GT( callbacks< TypeParam >(), 0 );
}
