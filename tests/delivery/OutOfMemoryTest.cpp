// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Every mutator, with every one of its allocations failing in turn: it does all that it says, or
// throws and has changed nothing and queued nothing.
#include "../support/Loop.h"
#include "../support/Memory.h"

#include <Stage/Stage.h>

#include <Kiv/detail/Queue.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <new>
#include <string>
#include <vector>

namespace {

using Kiv::Ptr;
using Kiv::String8;
using testing_support::Memory;

std::string text( Kiv::PtrInterface const * object ) {
   return object ? std::to_string( reinterpret_cast< std::uintptr_t >( object ) ) : "null";
}
std::string text( bool value ) { return value ? "true" : "false"; }
template< class T >
std::string text( Ptr< T > const & p ) {
   return text( static_cast< Kiv::PtrInterface const * >( p.get() ) );
}

// One of each entity, filled a little, and three reactors on each that have nothing pending.
class Entities {
 public:
   Entities() {
      for( char const * stage : { "Boot", "Disk", "Net" } ) {
         auto const made = Stage::EventConfig::EventConfigIs( stage, "agent" );
         agent->eventIs( stage, made );
         event->dependencyIs( stage, true );
         status->activeStageIs( status->stageIs( stage ) );
         progress->stageIs( stage, true );
         dir->entityPtrIs( Stage::AgentConfig::AgentConfigIs( stage ) );
         stage_->dependencyIs( stage, true );
         stage_->eventIs( Stage::EventConfig::EventConfigIs( "Disk", stage ) );
      }
      status->stageIs( "Idle" );
      for( int i = 0; i != 3; ++i ) {
         watch< Stage::Config >( config );
         watch< Stage::AgentConfig >( agent );
         watch< Stage::EventConfig >( event );
         watch< Stage::Status >( status );
         watch< Stage::StageStatus >( stage_ );
         watch< Stage::Progress >( progress );
         watch< Kiv::Dir >( dir );
      }
   }

   // All that can be seen of them, and what is pending.
   std::vector< std::string > seen() const {
      std::vector< std::string > lines{
         "config " + text( config->agentDir() ) + text( config->enabled() ) +
            text( config->isNondestructing() ),
         "event " + Kiv::valueToString( event->timeout() ).str() + text( event->critical() ) +
            text( event->complete() ) + text( event->isNondestructing() ) + text( event->parent() ),
         "status " + text( status->complete() ) + text( status->sorted() ) +
            text( status->progress() ),
         "stage " + Kiv::valueToString( stage_->timeout() ).str() + text( stage_->critical() ),
      };
      auto const members = [ & ]( char const * what, auto i ) {
         for( ; i; ++i )
            lines.push_back( what + i.key().str() + " " + text( i.value() ) );
      };
      members( "agent event ", agent->eventIteratorConst() );
      members( "event dependency ", event->dependencyIteratorConst() );
      members( "status stage ", std::as_const( *status ).stageIteratorConst() );
      members( "status active ", status->activeStageIteratorConst() );
      members( "stage event ", stage_->eventIteratorConst() );
      members( "stage dependency ", stage_->dependencyIteratorConst() );
      members( "progress stage ", progress->stageIteratorConst() );
      members( "dir entry ", dir->entityPtrIteratorConst() );
      for( auto const & reactor : reactors )
         lines.push_back( "pending " + std::to_string( reactor->pendingNotifications() ) );
      return lines;
   }

   Ptr< Kiv::Dir > const dir = Kiv::Dir::DirIs( "agents" );
   Ptr< Stage::Config > const config = Stage::Config::ConfigIs( "config" );
   Ptr< Stage::AgentConfig > const agent = Stage::AgentConfig::AgentConfigIs( "agent" );
   Ptr< Stage::EventConfig > const event = Stage::EventConfig::EventConfigIs( "Gui", "agent" );
   Ptr< Stage::Status > const status = Stage::Status::StatusIs( "status" );
   Ptr< Stage::Status > const other = Stage::Status::StatusIs( "other" );
   Ptr< Stage::StageStatus > const stage_ = other->stageIs( "Disk" );
   Ptr< Stage::Progress > const progress = Stage::Progress::ProgressIs( "progress" );
   // What mutators file: made before memory fails.
   Ptr< Stage::EventConfig > const newDisk = Stage::EventConfig::EventConfigIs( "Disk", "agent" );
   Ptr< Stage::EventConfig > const newGui = Stage::EventConfig::EventConfigIs( "Gui", "agent" );
   Ptr< Stage::AgentConfig > const newNet = Stage::AgentConfig::AgentConfigIs( "Net" );
   Ptr< Stage::AgentConfig > const newEntry = Stage::AgentConfig::AgentConfigIs( "Entry" );
   std::vector< Ptr< Kiv::PtrInterface::NotifieeConst > > reactors;

 private:
   template< class E >
   void watch( Ptr< E > const & entity ) {
      Ptr< typename E::NotifieeConst > const reactor = new typename E::NotifieeConst;
      reactor->watch( entity );
      reactors.push_back( reactor );
   }
};

// Uses up the room that the queue keeps from earlier changes, so that the next change allocates.
class Thirst {
 public:
   explicit Thirst( Memory const & memory ) {
      while( useOne( memory ) == 0 ) {
      }
      for( std::size_t more = 1; more != Kiv::detail::QueueBlock::size; ++more )
         useOne( memory );
   }

 private:
   // How often it has allocated.
   std::size_t useOne( Memory const & memory ) {
      auto const event = Stage::EventConfig::EventConfigIs( "Stage", "agent" );
      Ptr< Stage::EventConfig::NotifieeConst > const off = new Stage::EventConfig::NotifieeConst;
      off->notifierIs( Ptr< Kiv::PtrInterface const >( event ) );
      off->isRegisteredNotifieeIs( true );
      pending_.push_back( off );
      std::size_t const before = memory.allocations();
      event->criticalIs( true );
      return memory.allocations() - before;
   }

   std::vector< Ptr< Stage::EventConfig::NotifieeConst > > pending_;
};

struct Mutator {
   char const * name;
   std::function< void( Entities & ) > call;
   bool allocates = true;
};

void PrintTo( Mutator const & mutator, std::ostream * out ) { *out << mutator.name; }

class OutOfMemory : public testing::TestWithParam< Mutator > {
 protected:
   // What the mutator does when nothing fails.
   static std::vector< std::string > change( Entities & entities ) {
      auto before = entities.seen();
      GetParam().call( entities );
      auto after = entities.seen();
      EXPECT_NE( before, after ) << "the mutator changes nothing";
      return shape( before, after );
   }
   // Which lines differ: addresses are not the same from one set of entities to another.
   static std::vector< std::string > shape( std::vector< std::string > const & before,
                                            std::vector< std::string > const & after ) {
      std::vector< std::string > lines;
      auto const name = []( std::string const & line ) {
         return line.substr( 0, line.rfind( ' ' ) );
      };
      for( auto const & line : before )
         if( std::find( after.begin(), after.end(), line ) == after.end() )
            lines.push_back( "- " + name( line ) );
      for( auto const & line : after )
         if( std::find( before.begin(), before.end(), line ) == before.end() )
            lines.push_back( "+ " + name( line ) );
      std::size_t pending = 0;
      for( auto const & line : after )
         if( line.starts_with( "pending " ) )
            pending += std::stoul( line.substr( 8 ) );
      lines.push_back( "pending in all " + std::to_string( pending ) );
      return lines;
   }

   void failEveryOne( Memory::Failing failing ) {
      std::vector< std::string > expected;
      {
         Entities entities;
         loop.deliver();
         expected = change( entities );
         loop.deliver();
      }
      std::size_t n = 0;
      for( ;; ++n ) {
         Entities entities;
         loop.deliver();
         Memory memory;
         Thirst const thirst( memory );
         auto const before = entities.seen();
         bool threw = false;
         memory.failAfter( n, failing );
         try {
            GetParam().call( entities );
         } catch( std::bad_alloc const & ) {
            threw = true;
         }
         memory.failNever();
         auto const after = entities.seen();
         if( threw ) {
            EXPECT_EQ( before, after ) << "allocation " << n;
            EXPECT_FALSE( Kiv::activityManager()->runOne() ) << "allocation " << n;
         } else {
            EXPECT_EQ( shape( before, after ), expected ) << "allocation " << n;
         }
         GetParam().call( entities ); // it works again
         if( threw )
            EXPECT_EQ( shape( before, entities.seen() ), expected );
         loop.deliver();
         if( memory.failures() == 0 )
            break;
      }
      if( GetParam().allocates )
         EXPECT_GT( n, 0U ) << "nothing could fail";
   }

   testing_support::Loop loop;
};

} // namespace

TEST_P( OutOfMemory, OneFailedAllocationLeavesNothingHalfDone ) {
   failEveryOne( Memory::Failing::once );
}
TEST_P( OutOfMemory, NoMemoryFromSomePointOnLeavesNothingHalfDone ) {
   failEveryOne( Memory::Failing::fromThenOn );
}

#define CALL( expression ) []( [[maybe_unused]] Entities & e ) { expression; }

INSTANTIATE_TEST_SUITE_P(
   EveryMutator, OutOfMemory,
   testing::Values(
      Mutator{ "configAgentDirIs", CALL( e.config->agentDirIs( e.dir ) ) },
      Mutator{ "configEnabledIs", CALL( e.config->enabledIs( true ) ) },
      Mutator{ "configIsNondestructingIs", CALL( e.config->isNondestructingIs( false ) ) },
      Mutator{ "agentEventIsNew", CALL( e.agent->eventIs( "Gui", e.newGui ) ) },
      Mutator{ "agentEventIsReplaces", CALL( e.agent->eventIs( "Disk", e.newDisk ) ) },
      Mutator{ "agentEventDel", CALL( e.agent->eventDel( "Disk" ) ) },
      Mutator{ "agentEventDelAll", CALL( e.agent->eventDelAll() ) },
      Mutator{ "eventDependencyIsNew", CALL( e.event->dependencyIs( "Gui", true ) ) },
      Mutator{ "eventDependencyIsChanges", CALL( e.event->dependencyIs( "Disk", false ) ) },
      Mutator{ "eventDependencyDel", CALL( e.event->dependencyDel( "Disk" ) ) },
      Mutator{ "eventDependencyDelAll", CALL( e.event->dependencyDelAll() ) },
      Mutator{ "eventTimeoutIs", CALL( e.event->timeoutIs( 5 ) ) },
      Mutator{ "eventCriticalIs", CALL( e.event->criticalIs( true ) ) },
      Mutator{ "eventCompleteIs", CALL( e.event->completeIs( true ) ) },
      Mutator{ "eventParentIs", CALL( e.event->parentIs( e.agent ) ) },
      Mutator{ "statusStageIs", CALL( e.status->stageIs( "Gui" ) ) },
      Mutator{ "statusStageDel", CALL( e.status->stageDel( "Idle" ) ) },
      Mutator{ "statusStageDelOfAnActiveOne", CALL( e.status->stageDel( "Disk" ) ) },
      Mutator{ "statusStageDelAll", CALL( e.status->stageDelAll() ) },
      Mutator{ "statusActiveStageIs",
               CALL( e.status->activeStageIs( e.status->stage( "Idle" ) ) ) },
      Mutator{ "statusActiveStageDel", CALL( e.status->activeStageDel( "Disk" ) ) },
      Mutator{ "statusActiveStageDelAll", CALL( e.status->activeStageDelAll() ) },
      Mutator{ "statusCompleteIs", CALL( e.status->completeIs( true ) ) },
      Mutator{ "statusSortedIs", CALL( e.status->sortedIs( true ) ) },
      Mutator{ "statusProgressIs", CALL( e.status->progressIs( e.progress ) ) },
      Mutator{ "stageEventIsNew", CALL( e.stage_->eventIs( e.newDisk ) ) },
      Mutator{ "stageEventDel", CALL( e.stage_->eventDel( "Net" ) ) },
      Mutator{ "stageEventDelAll", CALL( e.stage_->eventDelAll() ) },
      Mutator{ "stageDependencyIs", CALL( e.stage_->dependencyIs( "Gui", true ) ) },
      Mutator{ "stageDependencyDel", CALL( e.stage_->dependencyDel( "Disk" ) ) },
      Mutator{ "stageDependencyDelAll", CALL( e.stage_->dependencyDelAll() ) },
      Mutator{ "stageTimeoutIs", CALL( e.stage_->timeoutIs( 5 ) ) },
      Mutator{ "stageCriticalIs", CALL( e.stage_->criticalIs( true ) ) },
      Mutator{ "progressStageIs", CALL( e.progress->stageIs( "Gui", true ) ) },
      Mutator{ "progressStageDel", CALL( e.progress->stageDel( "Disk" ) ) },
      Mutator{ "progressStageDelAll", CALL( e.progress->stageDelAll() ), false },
      Mutator{ "dirEntityPtrIsNew", CALL( e.dir->entityPtrIs( e.newEntry ) ) },
      Mutator{ "dirEntityPtrIsReplaces", CALL( e.dir->entityPtrIs( e.newNet ) ) },
      Mutator{ "dirEntityPtrDel", CALL( e.dir->entityPtrDel( "Disk" ) ) },
      Mutator{ "dirEntityPtrDelAll", CALL( e.dir->entityPtrDelAll() ) } ),
   []( auto const & mutator ) { return std::string( mutator.param.name ); } );

// ---- the table in which keyed callbacks are found grows as well, and may fail to

TEST( OutOfMemoryWhileTheQueueGrows, EveryFailureLeavesTheValuesAndTheQueueInStep ) {
   testing_support::Loop loop;
   auto const event = Stage::EventConfig::EventConfigIs( "Gui", "agent" );
   std::vector< Ptr< Stage::EventConfig::NotifieeConst > > off;
   for( int i = 0; i != 40; ++i ) { // a block of the queue has room for some thirty callbacks
      off.push_back( new Stage::EventConfig::NotifieeConst );
      off.back()->notifierIs( Ptr< Kiv::PtrInterface const >( event ) );
      off.back()->isRegisteredNotifieeIs( true );
   }
   Memory memory;
   for( unsigned key = 0; key != 500; ++key ) {
      String8 const name( "stage" + std::to_string( key ) );
      for( std::size_t n = 0;; ++n ) {
         memory.failAfter( n );
         try {
            event->dependencyIs( name, true );
            break;
         } catch( std::bad_alloc const & ) {
            EXPECT_FALSE( event->hasDependency( name ) );
            EXPECT_EQ( event->dependencys(), key );
            for( auto const & reactor : off )
               EXPECT_EQ( reactor->pendingNotifications(), key + ( key > 1 ? 1U : 0U ) );
         }
      }
      memory.failNever();
      EXPECT_EQ( event->dependencys(), key + 1 );
      for( auto const & reactor : off ) // the keys, and one deferred callback from the second on
         EXPECT_EQ( reactor->pendingNotifications(), key + 1 + ( key > 0 ? 1U : 0U ) );
   }
   EXPECT_GT( memory.failures(), 500U );
}

TEST( OutOfMemoryWhileSwitching, TurningOffAndOnRegisteringAndMarkingNeedNoMemory ) {
   testing_support::Loop loop;
   auto const event = Stage::EventConfig::EventConfigIs( "Gui", "agent" );
   Ptr< Stage::EventConfig::NotifieeConst > const reactor = new Stage::EventConfig::NotifieeConst;
   Ptr< Kiv::PtrInterface const > const watched = event;
   reactor->notifierIs( watched );
   reactor->isRegisteredNotifieeIs( true );
   event->timeoutIs( 1 );
   event->dependencyIs( "Disk", true );
   event->dependencyIs( "Boot", true );
   Memory memory;
   memory.failAfter( 0, Memory::Failing::fromThenOn );
   reactor->hasNotificationActiveIs( true );
   reactor->hasNotificationActiveIs( false );
   reactor->hasNotificationActiveIs( true );
   EXPECT_TRUE( Kiv::activityManager()->runOne() );
   reactor->kivMarkedForDeletionIs( true );
   reactor->kivMarkedForDeletionIs( false );
   reactor->isRegisteredNotifieeIs( false );
   reactor->isRegisteredNotifieeIs( true );
   reactor->notifierIs( nullptr );
   reactor->notifierIs( watched );
   EXPECT_FALSE( Kiv::activityManager()->runOne() );
   EXPECT_EQ( memory.failures(), 0U );
}
