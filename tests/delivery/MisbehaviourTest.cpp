// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Reactors with one vice each, between two that behave, on every collection that notifies.
//
// The rules that they try: a reactor that is detached, marked or destroyed receives nothing that
// was queued before; callbacks do not nest; everybody else gets everything, in order.
#include "../support/Loop.h"
#include "Collections.h"
#include "Watchers.h"

#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <vector>

using namespace delivery;

namespace {

template< class Home >
class Misbehaviour : public testing::Test {
 public:
   using Entity = typename Home::Entity;

   // Writes down what it is told: "first A", and "first..." for the deferred form.
   class Good : public Home::Watcher {
    public:
      Good( std::string id, Misbehaviour & room, Kiv::Ptr< Entity > const & entity )
         : id_( std::move( id ) ), room_( room ) {
         attach( entity );
      }
      // Not inside of a destructor's or a handler's neighbour: on a living object.
      ~Good() override { alive_ = false; }

      void told( std::string const & key ) override {
         EXPECT_TRUE( alive_ );
         room_.journal.push_back( id_ + " " + key );
         vice();
         EXPECT_TRUE( alive_ );
      }
      void toldDeferred() override {
         room_.journal.push_back( id_ + "..." );
         vice();
      }

    protected:
      virtual void vice() {}
      void attach( Kiv::Ptr< Entity > const & entity ) { this->watch( entity ); }
      Misbehaviour & room() { return room_; }

    private:
      std::string const id_;
      Misbehaviour & room_;
      bool alive_ = true;
   };

   class Bad : public Good {
    public:
      using Vice = std::function< void( Bad & ) >;
      Bad( Misbehaviour & where, Kiv::Ptr< Entity > const & entity, Vice const & vice )
         : Good( "bad", where, entity ), vice_( vice ) {}
      void vice() override { vice_( *this ); }
      using Good::attach;
      using Good::room;

    private:
      Vice const vice_;
   };

   // Lets one with this vice, which is done at each call, stand between two that behave.
   void meet( typename Bad::Vice const & vice ) {
      bad = new Bad( *this, home.entity, vice );
      last = new Good( "last", *this, home.entity );
      Home::add( *home.entity, "A" );
      Home::add( *home.entity, "B" );
      EXPECT_EQ( journal, Lines{} );
      testing::internal::CaptureStderr();
      loop.deliver();
      errors = testing::internal::GetCapturedStderr();
      EXPECT_TRUE( Kiv::activityManager()->idle() );
   }
   // That the loop and the entity are as good as before.
   void expectStillWorking() {
      bad = nullptr;
      first = last = nullptr;
      loop.deliver();
      journal.clear();
      Home fresh;
      Kiv::Ptr< Good > const watcher = new Good( "fresh", *this, fresh.entity );
      Home::add( *fresh.entity, "A" );
      loop.deliver();
      EXPECT_EQ( journal, Lines{ "fresh A" } );
   }
   void TearDown() override { expectStillWorking(); }

   static Lines everything() {
      return { "first A", "bad A",    "last A", "first B", "bad B",
               "last B",  "first...", "bad...", "last..." };
   }

   testing_support::Loop loop;
   Journal journal;
   std::string errors;
   Home home;
   Home elsewhere;
   Kiv::Ptr< Good > first = new Good( "first", *this, home.entity );
   Kiv::Ptr< Good > bad;
   Kiv::Ptr< Good > last;
   Kiv::Ptr< Good > late;
};

using Collections =
   testing::Types< DirEntries, AgentEvents, EventDependencies, Stages, ActiveStages, StageEvents,
                   StageDependencies, PendingEvents, MirroredEvents >;
TYPED_TEST_SUITE( Misbehaviour, Collections );

} // namespace

TYPED_TEST( Misbehaviour, OneThatBehavesIsTheMeasure ) {
   this->meet( []( auto & ) {} );
   EXPECT_EQ( this->journal, this->everything() );
   EXPECT_EQ( this->errors, "" );
}

TYPED_TEST( Misbehaviour, OneDeletesItself ) {
   this->meet( []( auto & self ) { self.room().bad = nullptr; } );
   EXPECT_EQ( this->journal, ( Lines{ "first A", "bad A", "last A", "first B", "last B", "first...",
                                      "last..." } ) );
}

TYPED_TEST( Misbehaviour, OneDeletesThoseServedBeforeAndAfterIt ) {
   this->meet( []( auto & self ) { self.room().first = self.room().last = nullptr; } );
   EXPECT_EQ( this->journal, ( Lines{ "first A", "bad A", "bad B", "bad..." } ) );
}

TYPED_TEST( Misbehaviour, OneDeletesEverybodyAndTheEntity ) {
   this->meet( []( auto & self ) {
      auto & room = self.room();
      room.home.entity = nullptr;
      room.first = room.last = room.bad = nullptr;
   } );
   EXPECT_EQ( this->journal, ( Lines{ "first A", "bad A" } ) );
}

TYPED_TEST( Misbehaviour, OneDropsTheLastReferenceToTheEntityButThoseOfItsReactors ) {
   this->meet( []( auto & self ) { self.room().home.entity = nullptr; } );
   EXPECT_EQ( this->journal, this->everything() );
}

TYPED_TEST( Misbehaviour, OneDetachesAllFromAnEntityThatNobodyElseHolds ) {
   this->meet( []( auto & self ) {
      auto & room = self.room();
      room.home.entity = nullptr;
      room.first->notifierIs( nullptr );
      room.last->notifierIs( nullptr );
      self.notifierIs( nullptr );
      EXPECT_EQ( self.notifier(), nullptr );
   } );
   EXPECT_EQ( this->journal, ( Lines{ "first A", "bad A" } ) );
}

TYPED_TEST( Misbehaviour, OneMovesToAnotherEntity ) {
   this->meet( []( auto & self ) { self.attach( self.room().elsewhere.entity ); } );
   EXPECT_EQ( this->journal, ( Lines{ "first A", "bad A", "last A", "first B", "last B", "first...",
                                      "last..." } ) );
   this->journal.clear();
   TypeParam::add( *this->elsewhere.entity, "C" );
   this->loop.deliver();
   EXPECT_EQ( this->journal, Lines{ "bad C" } );
}

TYPED_TEST( Misbehaviour, OneAttachesAnew ) {
   this->meet( []( auto & self ) {
      self.notifierIs( nullptr );
      self.attach( self.room().home.entity );
   } );
   EXPECT_EQ( this->journal, ( Lines{ "first A", "bad A", "last A", "first B", "last B", "first...",
                                      "last..." } ) );
   this->journal.clear();
   TypeParam::add( *this->home.entity, "C" );
   this->loop.deliver();
   EXPECT_EQ( this->journal, ( Lines{ "first C", "last C", "bad C" } ) );
}

TYPED_TEST( Misbehaviour, OneAttachesToWhatItWatchesAlready ) {
   this->meet( []( auto & self ) { self.attach( self.room().home.entity ); } );
   EXPECT_EQ( this->journal, this->everything() );
}

TYPED_TEST( Misbehaviour, OneUnregistersItself ) {
   this->meet( []( auto & self ) { self.isRegisteredNotifieeIs( false ); } );
   EXPECT_EQ( this->journal, ( Lines{ "first A", "bad A", "last A", "first B", "last B", "first...",
                                      "last..." } ) );
}

TYPED_TEST( Misbehaviour, OneUnregistersAnother ) {
   this->meet( []( auto & self ) { self.room().last->isRegisteredNotifieeIs( false ); } );
   EXPECT_EQ( this->journal,
              ( Lines{ "first A", "bad A", "first B", "bad B", "first...", "bad..." } ) );
}

TYPED_TEST( Misbehaviour, OneMarksItselfForDeletion ) {
   this->meet( []( auto & self ) { self.kivMarkedForDeletionIs( true ); } );
   EXPECT_EQ( this->journal, ( Lines{ "first A", "bad A", "last A", "first B", "last B", "first...",
                                      "last..." } ) );
}

TYPED_TEST( Misbehaviour, OneMarksAnother ) {
   this->meet( []( auto & self ) { self.room().last->kivMarkedForDeletionIs( true ); } );
   EXPECT_EQ( this->journal,
              ( Lines{ "first A", "bad A", "first B", "bad B", "first...", "bad..." } ) );
}

TYPED_TEST( Misbehaviour, OneSwitchesItselfOffAndOn ) {
   // What it has to hear yet goes to the end, behind the others.
   this->meet( []( auto & self ) {
      self.hasNotificationActiveIs( false );
      self.hasNotificationActiveIs( true );
   } );
   EXPECT_EQ( this->journal, ( Lines{ "first A", "bad A", "last A", "first B", "last B", "bad B",
                                      "first...", "last...", "bad..." } ) );
}

TYPED_TEST( Misbehaviour, OneAddsAMember ) {
   this->meet( []( auto & self ) { TypeParam::add( *self.room().home.entity, "C" ); } );
   EXPECT_EQ( this->journal,
              ( Lines{ "first A", "bad A", "last A", "first B", "bad B", "last B", "first C",
                       "bad C", "last C", "first...", "bad...", "last..." } ) );
}

TYPED_TEST( Misbehaviour, OneRemovesTheMemberThatItIsToldOf ) {
   // Pending callbacks keep their places and find the member gone; those that had run come again.
   this->meet( []( auto & self ) { TypeParam::remove( *self.room().home.entity, "A" ); } );
   EXPECT_EQ( this->journal, ( Lines{ "first A", "bad A", "last A", "first B", "bad B", "last B",
                                      "first A", "bad A", "first...", "bad...", "last..." } ) );
}

TYPED_TEST( Misbehaviour, OneRemovesAllMembers ) {
   this->meet( []( auto & self ) { TypeParam::removeAll( *self.room().home.entity ); } );
   EXPECT_EQ( this->journal, ( Lines{ "first A", "bad A", "last A", "first B", "bad B", "last B",
                                      "first A", "bad A", "first...", "bad...", "last..." } ) );
}

TYPED_TEST( Misbehaviour, OneAddsAndRemovesAllAndAddsAgain ) {
   this->meet( []( auto & self ) {
      auto & entity = *self.room().home.entity;
      if( self.room().journal.size() > 100 )
         return; // or it would never end
      TypeParam::removeAll( entity );
      TypeParam::add( entity, "A" );
   } );
   EXPECT_GT( this->journal.size(), 100U );
   EXPECT_EQ( this->journal.front(), "first A" );
}

TYPED_TEST( Misbehaviour, OneThrows ) {
   this->meet( []( auto & ) { throw std::runtime_error( "a vice" ); } );
   EXPECT_EQ( this->journal, this->everything() );
   EXPECT_EQ( std::count( this->errors.begin(), this->errors.end(), '\n' ), 3 );
}

TYPED_TEST( Misbehaviour, OneDeletesItselfAndThrows ) {
   this->meet( []( auto & self ) {
      self.room().bad = nullptr;
      throw std::runtime_error( "last words" );
   } );
   EXPECT_EQ( this->journal, ( Lines{ "first A", "bad A", "last A", "first B", "last B", "first...",
                                      "last..." } ) );
   EXPECT_NE( this->errors.find( "last words" ), std::string::npos );
}

TYPED_TEST( Misbehaviour, OneRunsTheLoopInsideItsCallback ) {
   this->meet( []( auto & self ) {
      auto const & manager = Kiv::activityManager();
      auto const before = self.room().journal.size();
      EXPECT_THROW( manager->runOne(), Kiv::Exception );
      EXPECT_THROW( manager->runQueued(), Kiv::Exception );
      EXPECT_THROW( manager->fireOne(), Kiv::Exception );
      EXPECT_THROW( manager->runDue(), Kiv::Exception );
      EXPECT_THROW( manager->run(), Kiv::Exception );
      self.room().last->handleNotification( nullptr );
      EXPECT_EQ( self.room().journal.size(), before );
   } );
   EXPECT_EQ( this->journal, this->everything() );
   EXPECT_EQ( this->errors, "" );
}

TYPED_TEST( Misbehaviour, OneMakesAnother ) {
   this->meet( []( auto & self ) {
      auto & room = self.room();
      if( !room.late )
         room.late = new typename TestFixture::Good( "late", room, room.home.entity );
   } );
   EXPECT_EQ( this->journal, this->everything() ); // nothing that was queued before it came
   this->journal.clear();
   TypeParam::add( *this->home.entity, "C" );
   this->loop.deliver();
   EXPECT_EQ( this->journal, ( Lines{ "first C", "bad C", "last C", "late C" } ) );
   this->late = nullptr;
}

TYPED_TEST( Misbehaviour, OneReplacesItselfByAnother ) {
   this->meet( []( auto & self ) {
      auto & room = self.room();
      room.bad = new typename TestFixture::Good( "heir", room, room.home.entity );
   } );
   EXPECT_EQ( this->journal, ( Lines{ "first A", "bad A", "last A", "first B", "last B", "first...",
                                      "last..." } ) );
}

// ---- members whose end is not quiet

namespace {

// Writes into an event when it is destroyed.
class Parting : public Kiv::Entity {
 public:
   Parting( Kiv::Name const & name, Kiv::Ptr< Stage::EventConfig > const & event )
      : Entity( name ), event_( event ) {}
   ~Parting() override {
      for( char const * stage : { "A", "B", "C" } )
         event_->dependencyIs( stage, !event_->dependency( stage ) );
      event_->timeoutIs( event_->timeout() + 1 );
   }

 private:
   Kiv::Ptr< Stage::EventConfig > const event_;
};

} // namespace

TEST( MembersThatAreDestroyed, MayChangeOthersFromTheirDestructorsWhateverRemovesThem ) {
   testing_support::Loop loop;
   Journal journal;
   auto const event = newEvent();
   event->timeoutIs( 0 );
   std::vector< Kiv::Ptr< Watcher > > watchers;
   for( int i = 0; i != 20; ++i )
      watchers.push_back( new Watcher( "w" + std::to_string( i ), journal, event ) );
   auto const dir = Kiv::Dir::DirIs( "dir" );
   class DirWatcher : public Kiv::Dir::NotifieeConst {
    public:
      explicit DirWatcher( Kiv::Ptr< Kiv::Dir > const & watched ) { watch( watched ); }
      void onEntityPtr( Kiv::Name ) override { ++calls; }
      void onEntityPtrkivImmediate() override { ++deferred; }
      void onEntityPtr() override {}
      int calls = 0;
      int deferred = 0;
   };
   Kiv::Ptr< DirWatcher > const watcher = new DirWatcher( dir );
   for( int i = 0; i != 10; ++i )
      dir->entityPtrIs( new Parting( "p" + std::to_string( i ), event ) );
   loop.deliver();
   EXPECT_EQ( watcher->calls, 10 );
   journal.clear();

   dir->entityPtrDel( "p0" );
   EXPECT_EQ( event->timeout(), 1 );
   dir->entityPtrIs( new Parting( "p1", newEvent() ) ); // replaces
   EXPECT_EQ( event->timeout(), 2 );
   dir->entityPtrDelAll();
   EXPECT_EQ( event->timeout(), 10 );
   EXPECT_EQ( dir->entityPtrs(), 0U );
   loop.deliver();
   EXPECT_EQ( watcher->calls, 20 );
   EXPECT_EQ( watcher->deferred, 2 );
   EXPECT_EQ( journal.size(), watchers.size() * ( 3 + 1 + 1 ) );
}

TEST( MembersThatAreDestroyed, MayLoseAParentWhoseDestructorChangesOthers ) {
   testing_support::Loop loop;
   Journal journal;
   auto const event = newEvent();
   event->timeoutIs( 0 );
   std::vector< Kiv::Ptr< Watcher > > watchers;
   for( int i = 0; i != 20; ++i )
      watchers.push_back( new Watcher( "w" + std::to_string( i ), journal, event ) );
   class ParentWatcher : public Kiv::Entity::NotifieeConst {
    public:
      explicit ParentWatcher( Kiv::Ptr< Kiv::Entity > const & watched ) { watch( watched ); }
      void onParent() override { ++calls; }
      int calls = 0;
   };
   Kiv::Ptr< Kiv::Entity > const child = newEvent( "Child" );
   Kiv::Ptr< ParentWatcher > const watcher = new ParentWatcher( child );
   child->parentIs( new Parting( "parent", event ) );
   loop.deliver();
   EXPECT_EQ( watcher->calls, 1 );
   child->parentIs( nullptr );
   EXPECT_EQ( child->parent(), nullptr );
   EXPECT_EQ( event->timeout(), 1 );
   loop.deliver();
   EXPECT_EQ( watcher->calls, 2 );
   EXPECT_EQ( journal.size(), watchers.size() * ( 3 + 1 + 1 ) );
}
