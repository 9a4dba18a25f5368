// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Reactors with one vice each, between two that behave, on every collection that notifies.
//
// The rules that they try: a reactor that is detached, marked or destroyed receives nothing that
// was queued before; callbacks do not nest; everybody else gets everything, in order.
#include "../support/Loop.h"
#include "Collections.h"
#include "Watchers.h"

#include <gtest/gtest.h>

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
      void attach( Kiv::Ptr< Entity > const & entity ) {
         this->watch( entity );
      }
      Misbehaviour & room() { return room_; }

    private:
      std::string const id_;
      Misbehaviour & room_;
      bool alive_ = true;
   };

   // Its vice, in the words of the test.
   class Bad : public Good {
    public:
      Bad( Misbehaviour & room, Kiv::Ptr< Entity > const & entity ) : Good( "bad", room, entity ) {}
   };

   template< class Vicious >
   void meet() {
      bad = new Vicious( *this, home.entity );
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
      return { "first A", "bad A", "last A", "first B", "bad B", "last B",
               "first...", "bad...", "last..." };
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

// The beginning of every vicious class.
#define VICE( Name )                                                                              \
   using Fixture = Misbehaviour< TypeParam >;                                                     \
   class Name : public Fixture::Bad {                                                             \
    public:                                                                                       \
      using Fixture::Bad::Bad;                                                                    \
      void vice() override

} // namespace

TYPED_TEST( Misbehaviour, OneThatBehavesIsTheMeasure ) {
   VICE( Behaves ){}
   };
   this->template meet< Behaves >();
   EXPECT_EQ( this->journal, this->everything() );
   EXPECT_EQ( this->errors, "" );
}

TYPED_TEST( Misbehaviour, OneDeletesItself ) {
   VICE( DeletesItself ) { this->room().bad = nullptr; }
   };
   this->template meet< DeletesItself >();
   EXPECT_EQ( this->journal, ( Lines{ "first A", "bad A", "last A", "first B", "last B", "first...",
                                      "last..." } ) );
}

TYPED_TEST( Misbehaviour, OneDeletesThoseServedBeforeAndAfterIt ) {
   VICE( DeletesOthers ) { this->room().first = this->room().last = nullptr; }
   };
   this->template meet< DeletesOthers >();
   EXPECT_EQ( this->journal, ( Lines{ "first A", "bad A", "bad B", "bad..." } ) );
}

TYPED_TEST( Misbehaviour, OneDeletesEverybodyAndTheEntity ) {
   VICE( DeletesAll ) {
      auto & room = this->room();
      room.home.entity = nullptr;
      room.first = room.last = room.bad = nullptr;
   }
   };
   this->template meet< DeletesAll >();
   EXPECT_EQ( this->journal, ( Lines{ "first A", "bad A" } ) );
}

TYPED_TEST( Misbehaviour, OneDropsTheLastReferenceToTheEntityButThoseOfItsReactors ) {
   VICE( DropsEntity ) { this->room().home.entity = nullptr; }
   };
   this->template meet< DropsEntity >();
   EXPECT_EQ( this->journal, this->everything() );
}

TYPED_TEST( Misbehaviour, OneDetachesAllFromAnEntityThatNobodyElseHolds ) {
   VICE( DetachesAll ) {
      auto & room = this->room();
      room.home.entity = nullptr;
      room.first->notifierIs( nullptr );
      room.last->notifierIs( nullptr );
      this->notifierIs( nullptr );
      EXPECT_EQ( this->notifier(), nullptr );
   }
   };
   this->template meet< DetachesAll >();
   EXPECT_EQ( this->journal, ( Lines{ "first A", "bad A" } ) );
}

TYPED_TEST( Misbehaviour, OneMovesToAnotherEntity ) {
   VICE( Moves ) { this->attach( this->room().elsewhere.entity ); }
   };
   this->template meet< Moves >();
   EXPECT_EQ( this->journal, ( Lines{ "first A", "bad A", "last A", "first B", "last B", "first...",
                                      "last..." } ) );
   this->journal.clear();
   TypeParam::add( *this->elsewhere.entity, "C" );
   this->loop.deliver();
   EXPECT_EQ( this->journal, Lines{ "bad C" } );
}

TYPED_TEST( Misbehaviour, OneAttachesAnew ) {
   VICE( AttachesAnew ) {
      this->notifierIs( nullptr );
      this->attach( this->room().home.entity );
   }
   };
   this->template meet< AttachesAnew >();
   EXPECT_EQ( this->journal, ( Lines{ "first A", "bad A", "last A", "first B", "last B", "first...",
                                      "last..." } ) );
   this->journal.clear();
   TypeParam::add( *this->home.entity, "C" );
   this->loop.deliver();
   EXPECT_EQ( this->journal, ( Lines{ "first C", "last C", "bad C" } ) );
}

TYPED_TEST( Misbehaviour, OneAttachesToWhatItWatchesAlready ) {
   VICE( AttachesToTheSame ) { this->attach( this->room().home.entity ); }
   };
   this->template meet< AttachesToTheSame >();
   EXPECT_EQ( this->journal, this->everything() );
}

TYPED_TEST( Misbehaviour, OneUnregistersItself ) {
   VICE( Unregisters ) { this->isRegisteredNotifieeIs( false ); }
   };
   this->template meet< Unregisters >();
   EXPECT_EQ( this->journal, ( Lines{ "first A", "bad A", "last A", "first B", "last B", "first...",
                                      "last..." } ) );
}

TYPED_TEST( Misbehaviour, OneUnregistersAnother ) {
   VICE( UnregistersAnother ) { this->room().last->isRegisteredNotifieeIs( false ); }
   };
   this->template meet< UnregistersAnother >();
   EXPECT_EQ( this->journal,
              ( Lines{ "first A", "bad A", "first B", "bad B", "first...", "bad..." } ) );
}

TYPED_TEST( Misbehaviour, OneMarksItselfForDeletion ) {
   VICE( MarksItself ) { this->kivMarkedForDeletionIs( true ); }
   };
   this->template meet< MarksItself >();
   EXPECT_EQ( this->journal, ( Lines{ "first A", "bad A", "last A", "first B", "last B", "first...",
                                      "last..." } ) );
}

TYPED_TEST( Misbehaviour, OneMarksAnother ) {
   VICE( MarksAnother ) { this->room().last->kivMarkedForDeletionIs( true ); }
   };
   this->template meet< MarksAnother >();
   EXPECT_EQ( this->journal,
              ( Lines{ "first A", "bad A", "first B", "bad B", "first...", "bad..." } ) );
}

TYPED_TEST( Misbehaviour, OneSwitchesItselfOffAndOn ) {
   // What it has to hear yet goes to the end, behind the others.
   VICE( Blinks ) {
      this->hasNotificationActiveIs( false );
      this->hasNotificationActiveIs( true );
   }
   };
   this->template meet< Blinks >();
   EXPECT_EQ( this->journal, ( Lines{ "first A", "bad A", "last A", "first B", "last B", "bad B",
                                      "first...", "last...", "bad..." } ) );
}

TYPED_TEST( Misbehaviour, OneAddsAMember ) {
   VICE( Adds ) { TypeParam::add( *this->room().home.entity, "C" ); }
   };
   this->template meet< Adds >();
   EXPECT_EQ( this->journal,
              ( Lines{ "first A", "bad A", "last A", "first B", "bad B", "last B", "first C",
                       "bad C", "last C", "first...", "bad...", "last..." } ) );
}

TYPED_TEST( Misbehaviour, OneRemovesTheMemberThatItIsToldOf ) {
   // Pending callbacks keep their places and find the member gone; those that had run come again.
   VICE( Removes ) { TypeParam::remove( *this->room().home.entity, "A" ); }
   };
   this->template meet< Removes >();
   EXPECT_EQ( this->journal,
              ( Lines{ "first A", "bad A", "last A", "first B", "bad B", "last B", "first A",
                       "bad A", "first...", "bad...", "last..." } ) );
}

TYPED_TEST( Misbehaviour, OneRemovesAllMembers ) {
   VICE( RemovesAll ) { TypeParam::removeAll( *this->room().home.entity ); }
   };
   this->template meet< RemovesAll >();
   EXPECT_EQ( this->journal,
              ( Lines{ "first A", "bad A", "last A", "first B", "bad B", "last B", "first A",
                       "bad A", "first...", "bad...", "last..." } ) );
}

TYPED_TEST( Misbehaviour, OneAddsAndRemovesAllAndAddsAgain ) {
   VICE( Churns ) {
      auto & entity = *this->room().home.entity;
      if( this->room().journal.size() > 100 )
         return;
      TypeParam::removeAll( entity );
      TypeParam::add( entity, "A" );
   }
   };
   this->template meet< Churns >(); // ends only because it stops after a while
   EXPECT_GT( this->journal.size(), 100U );
   EXPECT_EQ( this->journal.front(), "first A" );
}

TYPED_TEST( Misbehaviour, OneThrows ) {
   VICE( Throws ) { throw std::runtime_error( "a vice" ); }
   };
   this->template meet< Throws >();
   EXPECT_EQ( this->journal, this->everything() );
   EXPECT_EQ( std::count( this->errors.begin(), this->errors.end(), '\n' ), 3 );
}

TYPED_TEST( Misbehaviour, OneDeletesItselfAndThrows ) {
   VICE( DeletesItselfAndThrows ) {
      this->room().bad = nullptr;
      throw std::runtime_error( "last words" );
   }
   };
   this->template meet< DeletesItselfAndThrows >();
   EXPECT_EQ( this->journal, ( Lines{ "first A", "bad A", "last A", "first B", "last B", "first...",
                                      "last..." } ) );
   EXPECT_NE( this->errors.find( "last words" ), std::string::npos );
}

TYPED_TEST( Misbehaviour, OneRunsTheLoopInsideItsCallback ) {
   VICE( RunsTheLoop ) {
      auto const & manager = Kiv::activityManager();
      auto const before = this->room().journal.size();
      EXPECT_THROW( manager->runOne(), Kiv::Exception );
      EXPECT_THROW( manager->runQueued(), Kiv::Exception );
      EXPECT_THROW( manager->fireOne(), Kiv::Exception );
      EXPECT_THROW( manager->runDue(), Kiv::Exception );
      EXPECT_THROW( manager->run(), Kiv::Exception );
      this->room().last->handleNotification( nullptr );
      EXPECT_EQ( this->room().journal.size(), before );
   }
   };
   this->template meet< RunsTheLoop >();
   EXPECT_EQ( this->journal, this->everything() );
   EXPECT_EQ( this->errors, "" );
}

TYPED_TEST( Misbehaviour, OneMakesAnother ) {
   VICE( MakesAnother ) {
      auto & room = this->room();
      if( !room.late )
         room.late = new typename Fixture::Good( "late", room, room.home.entity );
   }
   };
   this->template meet< MakesAnother >();
   EXPECT_EQ( this->journal, this->everything() ); // nothing that was queued before it came
   this->journal.clear();
   TypeParam::add( *this->home.entity, "C" );
   this->loop.deliver();
   EXPECT_EQ( this->journal, ( Lines{ "first C", "bad C", "last C", "late C" } ) );
   this->late = nullptr;
}

TYPED_TEST( Misbehaviour, OneReplacesItselfByAnother ) {
   VICE( Replaces ) {
      auto & room = this->room();
      room.bad = new typename Fixture::Good( "heir", room, room.home.entity );
   }
   };
   this->template meet< Replaces >();
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
      explicit DirWatcher( Kiv::Ptr< Kiv::Dir > const & watched ) {
         watch( watched );
      }
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
      explicit ParentWatcher( Kiv::Ptr< Kiv::Entity > const & watched ) {
         watch( watched );
      }
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
