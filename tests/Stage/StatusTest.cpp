// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include "../support/Loop.h"
#include "../support/Memory.h"

#include <Stage/Stage.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <new>
#include <optional>
#include <set>
#include <string>
#include <vector>

using Kiv::Name;
using Kiv::Ptr;
using Kiv::String8;
using Stage::EventConfig;
using Stage::StageStatus;
using Stage::Status;
using testing_support::Loop;
using Trail = std::vector< std::string >;

namespace {

class Recorder : public Status::NotifieeConst {
 public:
   explicit Recorder( Ptr< Status const > const & status ) { watch( status ); }
   using Status::NotifieeConst::onActiveStage;
   using Status::NotifieeConst::onStage;
   void onStage( Name stage ) override { trail.push_back( "stage " + stage.str() ); }
   void onActiveStage( Name stage ) override { trail.push_back( "active " + stage.str() ); }
   Trail trail;
};

template< class Call >
std::optional< std::string > rangeError( Call call ) {
   try {
      call();
   } catch( Kiv::RangeException const & e ) {
      return e.what();
   }
   return std::nullopt;
}

class StatusEntity : public testing::Test {
 protected:
   Trail told() {
      loop.idle();
      Trail trail;
      trail.swap( recorder->trail );
      return trail;
   }
   Loop loop;
   Ptr< Status > status = Status::StatusIs( "status" );
   Ptr< Recorder > recorder = new Recorder( status );
};

} // namespace

// ------------------------------------------------------------------------------------------ stages

TEST_F( StatusEntity, StartsWithNothing ) {
   EXPECT_EQ( status->stages(), 0U );
   EXPECT_EQ( status->activeStages(), 0U );
   EXPECT_FALSE( status->complete() );
   EXPECT_EQ( status->progress(), nullptr );
   EXPECT_FALSE( status->sorted() );
}

TEST_F( StatusEntity, MakesAStageUnderItsName ) {
   Ptr< StageStatus > const net = status->stageIs( "Net" );
   ASSERT_TRUE( net );
   EXPECT_EQ( net->name(), Name( "Net" ) );
   EXPECT_EQ( status->stage( "Net" ), net );
   EXPECT_EQ( status->stages(), 1U );
   EXPECT_EQ( net->events(), 0U );
   EXPECT_EQ( net->dependencys(), 0U );
   EXPECT_EQ( net->timeout(), 0.0 );
   EXPECT_FALSE( net->critical() );
   EXPECT_EQ( told(), ( Trail{ "stage Net" } ) );
}

TEST_F( StatusEntity, GivesTheStageThatIsThereUnchanged ) {
   Ptr< StageStatus > const net = status->stageIs( "Net" );
   auto const event = EventConfig::EventConfigIs( "Net", "dhcp" );
   net->eventIs( event );
   net->dependencyIs( "Boot", true );
   net->timeoutIs( 30 );
   net->criticalIs( true );
   told();
   EXPECT_EQ( status->stageIs( "Net" ), net );
   EXPECT_EQ( status->stages(), 1U );
   EXPECT_EQ( net->event( "dhcp" ), event );
   EXPECT_EQ( net->events(), 1U );
   EXPECT_TRUE( net->dependency( "Boot" ) );
   EXPECT_EQ( net->dependencys(), 1U );
   EXPECT_EQ( net->timeout(), 30.0 );
   EXPECT_TRUE( net->critical() );
   EXPECT_TRUE( told().empty() );
}

TEST_F( StatusEntity, RefusesAStageWithoutAName ) {
   EXPECT_EQ( rangeError( [ & ] { status->stageIs( "" ); } ), "empty name" );
   EXPECT_EQ( status->stages(), 0U );
   EXPECT_TRUE( told().empty() );
}

TEST_F( StatusEntity, IsTheParentOfItsStages ) {
   Ptr< StageStatus > const net = status->stageIs( "Net" );
   EXPECT_EQ( net->parent(), status );
   EXPECT_EQ( net->fullName(), String8( "status/Net" ) );
   EXPECT_EQ( net->parentAttr(), String8( "stage" ) );
   EXPECT_EQ( status->references(), 2U ) << "the test and the recorder: its stages do not hold it";
}

TEST_F( StatusEntity, LeavesAStageThatIsHeldElsewhereWithoutAParentWhenItGoes ) {
   Ptr< StageStatus > const net = status->stageIs( "Net" );
   recorder = nullptr;
   status = nullptr;
   EXPECT_EQ( net->parent(), nullptr );
   EXPECT_EQ( net->fullName(), String8( "Net" ) );
}

TEST_F( StatusEntity, LetsGoOfADeletedStageAndOfItsActivity ) {
   Ptr< StageStatus > const net = status->stageIs( "Net" );
   status->stageIs( "Disk" );
   status->activeStageIs( net );
   told();
   status->stageDel( "Net" );
   EXPECT_EQ( status->stage( "Net" ), nullptr );
   EXPECT_EQ( status->activeStage( "Net" ), nullptr );
   EXPECT_EQ( status->stages(), 1U );
   EXPECT_EQ( net->parent(), nullptr );
   EXPECT_EQ( net->references(), 1U );
   EXPECT_EQ( told(), ( Trail{ "active Net", "stage Net" } ) );
   EXPECT_NE( status->stageIs( "Net" ), net ) << "another one from then on";
}

TEST_F( StatusEntity, AStageThatWasGivenAnotherParentKeepsItWhenItsStatusDropsItOrGoes ) {
   auto const shelf = Kiv::Dir::DirIs( "shelf" );
   auto const dropped = status->stageIs( "Dropped" );
   auto const left = status->stageIs( "Left" );
   auto const own = status->stageIs( "Own" );
   dropped->parentIs( shelf );
   left->parentIs( shelf );
   status->stageDel( "Dropped" );
   EXPECT_EQ( dropped->parent(), shelf );
   EXPECT_EQ( dropped->fullName(), String8( "shelf/Dropped" ) );
   recorder = nullptr;
   status = nullptr;
   EXPECT_EQ( dropped->parent(), shelf );
   EXPECT_EQ( left->parent(), shelf );
   EXPECT_EQ( own->parent(), nullptr );
}

TEST_F( StatusEntity, LetsGoOfAllStagesAtOnce ) {
   for( char const * name : { "Boot", "Net", "Disk" } )
      status->activeStageIs( status->stageIs( name ) );
   status->stageDelAll();
   EXPECT_EQ( status->stages(), 0U );
   EXPECT_EQ( status->activeStages(), 0U );
}

TEST_F( StatusEntity, MayBeToldToDeleteAStageByTheNameThatTheStageHolds ) {
   status->stageIs( "Net" );
   for( auto i = status->stageIterator(); i; ++i )
      status->stageDel( i.ptr()->name() );
   EXPECT_EQ( status->stages(), 0U );
}

namespace {

class ParentWatcher : public StageStatus::NotifieeConst {
 public:
   explicit ParentWatcher( Ptr< StageStatus const > const & stage ) { watch( stage ); }
   void onParent() override { ++parentChanges; }
   int parentChanges = 0;
};

// So many that telling them takes memory that nothing has made room for.
std::vector< Ptr< ParentWatcher > > manyWatchers( Ptr< StageStatus > const & stage ) {
   std::vector< Ptr< ParentWatcher > > watchers;
   for( int n = 0; n != 500; ++n )
      watchers.push_back( new ParentWatcher( stage ) );
   return watchers;
}

} // namespace

TEST_F( StatusEntity, TellsThoseWhoWatchAStageThatItHasNoParentAnyMore ) {
   Ptr< ParentWatcher > const deleted = new ParentWatcher( status->stageIs( "Net" ) );
   Ptr< ParentWatcher > const left = new ParentWatcher( status->stageIs( "Disk" ) );
   loop.idle();
   EXPECT_EQ( deleted->parentChanges, 0 );
   status->stageDel( "Net" );
   loop.idle();
   EXPECT_EQ( deleted->parentChanges, 1 );
   EXPECT_EQ( left->parentChanges, 0 );
   recorder = nullptr;
   status = nullptr;
   loop.idle();
   EXPECT_EQ( left->parentChanges, 1 );
   EXPECT_EQ( deleted->parentChanges, 1 );
}

TEST_F( StatusEntity, DeletesAStageWhollyOrNotAtAllWhenMemoryRunsOut ) {
   Ptr< StageStatus > const net = status->stageIs( "Net" );
   status->activeStageIs( net );
   told();
   auto const watchers = manyWatchers( net );
   testing_support::Memory memory;
   std::size_t refusals = 0;
   for( ;; ++refusals ) {
      memory.failAfter( refusals, testing_support::Memory::Failing::fromThenOn );
      try {
         status->stageDel( "Net" );
         break;
      } catch( std::bad_alloc const & ) {
         memory.failNever();
         ASSERT_EQ( status->stage( "Net" ), net );
         ASSERT_EQ( status->activeStage( "Net" ), net );
         ASSERT_EQ( net->parent(), status );
         ASSERT_TRUE( told().empty() );
      }
   }
   memory.failNever();
   EXPECT_GT( refusals, 0U ) << "it was never short of memory";
   EXPECT_EQ( status->stage( "Net" ), nullptr );
   EXPECT_EQ( net->parent(), nullptr );
   EXPECT_EQ( told(), ( Trail{ "active Net", "stage Net" } ) );
}

TEST( StatusDeathTest, GoesWithoutMemoryToo ) {
   EXPECT_EXIT(
      {
         Ptr< Status > status = Status::StatusIs( "status" );
         Ptr< StageStatus > const net = status->stageIs( "Net" );
         auto const watchers = manyWatchers( net );
         testing_support::Memory memory;
         memory.failAfter( 0, testing_support::Memory::Failing::fromThenOn );
         status = nullptr;
         memory.failNever();
         std::_Exit( net->parent() ? 1 : 0 );
      },
      testing::ExitedWithCode( 0 ), "" );
}

// ------------------------------------------------------------------------------------ active
// stages

TEST_F( StatusEntity, FilesAnActiveStageUnderItsName ) {
   Ptr< StageStatus > const net = status->stageIs( "Net" );
   EXPECT_EQ( status->activeStage( "Net" ), nullptr ) << "known, and not active";
   status->activeStageIs( net );
   EXPECT_EQ( status->activeStage( "Net" ), net );
   EXPECT_EQ( status->activeStage( "Disk" ), nullptr );
   EXPECT_EQ( status->activeStages(), 1U );
   EXPECT_EQ( net->parentAttr(), String8( "stage" ) ) << "its place is where it was";
   EXPECT_EQ( told(), ( Trail{ "stage Net", "active Net" } ) );
   status->activeStageIs( net );
   EXPECT_TRUE( told().empty() );
}

TEST_F( StatusEntity, KeepsAStageThatIsNoLongerActive ) {
   Ptr< StageStatus > const net = status->stageIs( "Net" );
   status->activeStageIs( net );
   status->activeStageDel( "Net" );
   EXPECT_EQ( status->stage( "Net" ), net );
   EXPECT_EQ( net->parent(), status );
}

TEST_F( StatusEntity, RefusesAnActiveStageThatIsNoMember ) {
   Ptr< Status > const other = Status::StatusIs( "other" );
   Ptr< StageStatus > const foreign = other->stageIs( "Net" );
   EXPECT_EQ( rangeError( [ & ] { status->activeStageIs( foreign ); } ),
              "stage other/Net is no member of status" );
   status->stageIs( "Net" );
   EXPECT_EQ( rangeError( [ & ] { status->activeStageIs( foreign ); } ),
              "stage other/Net is no member of status" )
      << "one of its name is another one";
   Ptr< StageStatus > const gone = status->stageIs( "Gone" );
   status->stageDel( "Gone" );
   EXPECT_EQ( rangeError( [ & ] { status->activeStageIs( gone ); } ),
              "stage Gone is no member of status" );
   EXPECT_EQ( status->activeStages(), 0U );
   EXPECT_EQ( told(), ( Trail{ "stage Net", "stage Gone" } ) );
}

TEST_F( StatusEntity, RefusesANullActiveStage ) {
   EXPECT_EQ( rangeError( [ & ] { status->activeStageIs( nullptr ); } ), "null ValidPtr" );
   EXPECT_EQ( status->activeStages(), 0U );
   EXPECT_TRUE( told().empty() );
}

// ----------------------------------------------------------------------------------------- a stage

TEST( StageStatus, HasAMemberForEveryAgentThatDeclaresAnEventForIt ) {
   Ptr< Status > const status = Status::StatusIs( "status" );
   Ptr< StageStatus > const net = status->stageIs( "Net" );
   auto const dhcp = EventConfig::EventConfigIs( "Net", "dhcp" );
   auto const dns = EventConfig::EventConfigIs( "Net", "dns" );
   net->eventIs( dhcp );
   net->eventIs( dns );
   EXPECT_EQ( net->events(), 2U );
   EXPECT_EQ( net->event( "dhcp" ), dhcp );
   EXPECT_EQ( net->event( "dns" ), dns );
   EXPECT_EQ( net->event( "ntp" ), nullptr );
   EXPECT_EQ( net->event( "Net:dhcp" ), nullptr ) << "the key is the agent's name, not the uid";
   auto const again = EventConfig::EventConfigIs( "Net", "dhcp" );
   net->eventIs( again );
   EXPECT_EQ( net->events(), 2U );
   EXPECT_EQ( net->event( "dhcp" ), again );
}

TEST( StageStatus, RefusesANullEvent ) {
   Ptr< StageStatus > const net = Status::StatusIs( "status" )->stageIs( "Net" );
   EXPECT_EQ( rangeError( [ & ] { net->eventIs( nullptr ); } ), "null ValidPtr" );
   EXPECT_EQ( net->events(), 0U );
}

TEST( StageStatus, KeepsADependencyWithItsValue ) {
   Ptr< StageStatus > const net = Status::StatusIs( "status" )->stageIs( "Net" );
   net->dependencyIs( "Boot", true );
   EXPECT_TRUE( net->dependency( "Boot" ) );
   EXPECT_TRUE( net->hasDependency( "Boot" ) );
   EXPECT_FALSE( net->hasDependency( "Disk" ) );
   net->dependencyDel( "Boot" );
   EXPECT_FALSE( net->hasDependency( "Boot" ) );
}
