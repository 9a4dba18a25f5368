// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// An agent declares each event for the event's own stage, under its own name.
#include "../support/Loop.h"

#include <Stage/Stage.h>

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

using Kiv::Name;
using Kiv::Ptr;
using Kiv::String8;
using Stage::AgentConfig;
using Stage::EventConfig;
using testing_support::Loop;

namespace {

class Recorder : public AgentConfig::NotifieeConst {
 public:
   explicit Recorder( Ptr< AgentConfig const > const & agent ) { watch( agent ); }
   using AgentConfig::NotifieeConst::onEvent;
   void onEvent( Name stage ) override { stages.push_back( stage.str() ); }
   std::vector< std::string > stages;
};

class Declaring : public testing::Test {
 protected:
   // The text with which the declaration is refused.
   std::optional< std::string > refused( Name const & stage,
                                         Ptr< EventConfig const > const & event ) {
      try {
         agent->eventIs( stage, event );
      } catch( Kiv::RangeException const & e ) {
         return e.what();
      }
      return std::nullopt;
   }
   void TearDown() override {
      loop.idle();
      EXPECT_EQ( recorder->stages, expectedCallbacks );
   }

   Loop loop;
   Ptr< AgentConfig > const agent = AgentConfig::AgentConfigIs( "dhcp" );
   Ptr< Recorder > const recorder = new Recorder( agent );
   std::vector< std::string > expectedCallbacks;
};

} // namespace

TEST_F( Declaring, TakesAnEventForItsStageByItsAgent ) {
   auto const event = EventConfig::EventConfigIs( "Net", "dhcp" );
   agent->eventIs( "Net", event );
   EXPECT_EQ( agent->event( "Net" ), event );
   EXPECT_EQ( agent->events(), 1U );
   expectedCallbacks = { "Net" };
}

TEST_F( Declaring, RefusesAnEventUnderAnotherStage ) {
   EXPECT_EQ( refused( "Disk", EventConfig::EventConfigIs( "Net", "dhcp" ) ),
              "event Net:dhcp cannot be declared for stage Disk by agent dhcp" );
   EXPECT_EQ( refused( "Ne", EventConfig::EventConfigIs( "Net", "dhcp" ) ),
              "event Net:dhcp cannot be declared for stage Ne by agent dhcp" );
   EXPECT_EQ( agent->events(), 0U );
}

TEST_F( Declaring, RefusesAnEventOfAnotherAgent ) {
   EXPECT_EQ( refused( "Net", EventConfig::EventConfigIs( "Net", "router" ) ),
              "event Net:router cannot be declared for stage Net by agent dhcp" );
   EXPECT_EQ( agent->events(), 0U );
}

TEST_F( Declaring, LooksAtTheAgentAndNotAtTheUidAlone ) {
   // Both events say "a:b:dhcp" of themselves.
   EXPECT_EQ( refused( "a:b", EventConfig::EventConfigIs( "a", "b:dhcp" ) ),
              "event a:b:dhcp cannot be declared for stage a:b by agent dhcp" );
   EXPECT_EQ( refused( "a", EventConfig::EventConfigIs( "a:b", "dhcp" ) ),
              "event a:b:dhcp cannot be declared for stage a by agent dhcp" );
   agent->eventIs( "a:b", EventConfig::EventConfigIs( "a:b", "dhcp" ) );
   EXPECT_EQ( agent->events(), 1U );
   expectedCallbacks = { "a:b" };
}

TEST_F( Declaring, RefusesAnEventUnderAStageWithoutAName ) {
   EXPECT_EQ( refused( "", EventConfig::EventConfigIs( "Net", "dhcp" ) ), "empty name" );
   EXPECT_EQ( agent->events(), 0U );
}

TEST_F( Declaring, RefusesNull ) {
   EXPECT_EQ( refused( "Net", nullptr ), "null ValidPtr" );
   EXPECT_EQ( agent->events(), 0U );
}

TEST_F( Declaring, KeepsWhatWasDeclaredBeforeWhenItRefuses ) {
   auto const event = EventConfig::EventConfigIs( "Net", "dhcp" );
   agent->eventIs( "Net", event );
   EXPECT_TRUE( refused( "Net", EventConfig::EventConfigIs( "Disk", "dhcp" ) ) );
   EXPECT_TRUE( refused( "Net", nullptr ) );
   EXPECT_EQ( agent->event( "Net" ), event );
   EXPECT_EQ( agent->events(), 1U );
   expectedCallbacks = { "Net" };
}

TEST_F( Declaring, HasOneEventPerStageTheLastOneDeclared ) {
   auto const first = EventConfig::EventConfigIs( "Net", "dhcp" );
   auto const second = EventConfig::EventConfigIs( "Net", "dhcp" );
   agent->eventIs( "Net", first );
   agent->eventIs( "Net", second );
   EXPECT_EQ( agent->event( "Net" ), second );
   EXPECT_EQ( agent->events(), 1U );
   EXPECT_EQ( first->references(), 1U );
   expectedCallbacks = { "Net" };
}

TEST_F( Declaring, MayTakeAKeyThatBelongsToTheEventThatGoes ) {
   agent->eventIs( "Net", EventConfig::EventConfigIs( "Net", "dhcp" ) );
   auto i = agent->eventIterator();
   agent->eventDel( i.key() );
   EXPECT_EQ( agent->events(), 0U );
   expectedCallbacks = { "Net" };
}
