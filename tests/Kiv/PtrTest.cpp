// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Kiv/Kiv.h>

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <type_traits>
#include <unordered_set>
#include <utility>
#include <vector>

using Kiv::Ptr;
using Kiv::PtrInterface;
using Trail = std::vector< std::string >;

namespace {

// Says what happens to it.
class Thing : public PtrInterface {
 public:
   explicit Thing( Trail & trail, std::string name = "thing" )
      : trail_( trail ), name_( std::move( name ) ) {}
   ~Thing() override { trail_.push_back( "~" + name_ ); }
   void zeroReferencesIs( bool zero ) override {
      PtrInterface::zeroReferencesIs( zero );
      trail_.push_back( name_ + ( zero ? " zero" : " not zero" ) );
   }
   int value() const { return 7; }
   void write() { ++writes; }
   int writes = 0;
   Ptr< Thing > other;

 protected:
   Trail & trail_;
   std::string name_;
};

class Special : public Thing {
 public:
   using Thing::Thing;
};

class Reactor : public PtrInterface::NotifieeConst {
 public:
   explicit Reactor( Trail & trail ) : trail_( trail ) {}
   ~Reactor() override { trail_.push_back( "~reactor" ); }
   void onZeroReferences() override { trail_.push_back( "onZeroReferences" ); }

 private:
   Trail & trail_;
};

} // namespace

// --------------------------------------------------------------------------------------- counting

TEST( Ptr, CountsEveryCopyAndNoMove ) {
   Trail trail;
   Ptr< Thing > a = new Thing( trail );
   EXPECT_EQ( a->references(), 1U );
   Ptr< Thing > b = a;
   EXPECT_EQ( a->references(), 2U );
   Ptr< Thing > c = std::move( b );
   EXPECT_EQ( a->references(), 2U );
   EXPECT_FALSE( b ); // NOLINT: what a move leaves is the subject
   {
      Ptr< Thing const > const d = c;
      EXPECT_EQ( a->references(), 3U );
   }
   EXPECT_EQ( a->references(), 2U );
   c = nullptr;
   EXPECT_EQ( a->references(), 1U );
   EXPECT_TRUE( trail.empty() );
}

TEST( Ptr, DestroysTheObjectWithItsLastReferenceAndTellsItBefore ) {
   Trail trail;
   {
      Ptr< Thing > a = new Thing( trail );
      Ptr< Thing const > const b = a;
      a = nullptr;
      EXPECT_TRUE( trail.empty() );
   }
   EXPECT_EQ( trail, ( Trail{ "thing zero", "~thing" } ) );
}

TEST( Ptr, AssignmentReleasesWhatWasHeldAfterTheNewIsHeld ) {
   Trail trail;
   Ptr< Thing > a = new Thing( trail, "a" );
   a->other = new Thing( trail, "b" );
   a = a->other; // the only reference to what is assigned belongs to what goes
   EXPECT_EQ( trail, ( Trail{ "a zero", "~a" } ) );
   EXPECT_EQ( a->references(), 1U );
   EXPECT_EQ( a->value(), 7 );
}

TEST( Ptr, AssignedToItselfChangesNothing ) {
   Trail trail;
   Ptr< Thing > a = new Thing( trail );
   Ptr< Thing > const & same = a;
   a = same;
   EXPECT_EQ( a->references(), 1U );
   EXPECT_TRUE( trail.empty() );
}

TEST( Ptr, DestroysAChainFromTheOutsideIn ) {
   Trail trail;
   Ptr< Thing > a = new Thing( trail, "a" );
   a->other = new Thing( trail, "b" );
   a->other->other = new Thing( trail, "c" );
   a = nullptr;
   EXPECT_EQ( trail, ( Trail{ "a zero", "~a", "b zero", "~b", "c zero", "~c" } ) );
}

TEST( Ptr, MadeFromThePlainPointerOfAHeldObjectCountsWithTheOthers ) {
   Trail trail;
   Ptr< Thing > const a = new Thing( trail );
   Ptr< Thing > b( a.get() );
   EXPECT_EQ( a->references(), 2U );
   b = nullptr;
   EXPECT_TRUE( trail.empty() );
}

TEST( Ptr, ObjectThatNeverMetOneIsItsMakers ) {
   Trail trail;
   {
      Thing const onTheStack( trail );
      EXPECT_EQ( onTheStack.references(), 0U );
   }
   EXPECT_EQ( trail, ( Trail{ "~thing" } ) );
}

// ----------------------------------------------------------------------------- const and identity

TEST( Ptr, ToConstIsMadeFromOneThatWritesAndNotTheOtherWay ) {
   Trail trail;
   Ptr< Thing > const writes = new Thing( trail );
   Ptr< Thing const > const reads = writes;
   EXPECT_EQ( reads->value(), 7 );
   writes->write();
   EXPECT_EQ( reads->writes, 1 );
   static_assert( std::is_same_v< decltype( *reads ), Thing const & > );
   static_assert( !std::is_convertible_v< Ptr< Thing const >, Ptr< Thing > > );
   static_assert( !std::is_constructible_v< Ptr< Special >, Ptr< Thing > > );
   static_assert( std::is_convertible_v< Ptr< Special >, Ptr< PtrInterface const > > );
   static_assert( !std::is_convertible_v< Ptr< Thing >, bool > );
}

TEST( Ptr, IsComparedByIdentity ) {
   Trail trail;
   Ptr< Special > const a = new Special( trail );
   Ptr< Special > const b = new Special( trail );
   Ptr< Thing const > const sameAsA = a;
   EXPECT_TRUE( a == sameAsA );
   EXPECT_TRUE( sameAsA == a );
   EXPECT_FALSE( a == b );
   EXPECT_TRUE( a != b );
   EXPECT_FALSE( a == nullptr );
   EXPECT_TRUE( Ptr< Thing >() == nullptr );
   EXPECT_TRUE( Ptr< Thing >() == Ptr< Special >() );
   std::unordered_set< Ptr< Special > > set{ a, b, a };
   EXPECT_EQ( set.size(), 2U );
}

TEST( Ptr, IsNullUnlessMadeFromAnObject ) {
   Ptr< Thing > const null;
   EXPECT_FALSE( null );
   EXPECT_EQ( null.get(), nullptr );
   EXPECT_FALSE( Ptr< Thing >( nullptr ) );
   Trail trail;
   Ptr< Thing > const some = new Thing( trail );
   EXPECT_TRUE( some );
   EXPECT_EQ( &*some, some.get() );
}

TEST( Ptr, CastToATypeThatTheObjectHasNotIsNull ) {
   Trail trail;
   Ptr< Thing > const special = new Special( trail );
   Ptr< Thing > const plain = new Thing( trail );
   EXPECT_EQ( Kiv::ptrCast< Special >( special ), special );
   EXPECT_EQ( special->references(), 1U );
   EXPECT_FALSE( Kiv::ptrCast< Special >( plain ) );
   EXPECT_FALSE( Kiv::ptrCast< Special >( Ptr< Thing >() ) );
   EXPECT_EQ( Kiv::ptrCast< Special const >( Ptr< Thing const >( special ) ), special );
}

// ---------------------------------------------------------------------------- birth and
// destruction

namespace {

// Its constructor and destructor run what makes and drops references to it.
class Busy : public Thing {
 public:
   explicit Busy( Trail & trail ) : Thing( trail, "busy" ) {
      Kiv::KeepDuringConstruction const keep( *this );
      refer();
      trail_.push_back( "made" );
   }
   ~Busy() override { refer(); }
   void refer() { Ptr< Busy > const self = this; }
};

} // namespace

TEST( KeepDuringConstruction, LetsAConstructorMakeAndDropReferencesToItsObject ) {
   Trail trail;
   auto * const plain = new Busy( trail );
   EXPECT_EQ( trail, ( Trail{ "made" } ) );
   EXPECT_EQ( plain->references(), 0U ) << "the reference that kept it is gone, without deleting";
   Ptr< Busy > held = plain;
   EXPECT_EQ( held->references(), 1U );
   trail.clear();
   held = nullptr;
   EXPECT_EQ( trail, ( Trail{ "busy zero", "~busy" } ) );
}

TEST( Ptr, MadeAndDroppedByADestructorDoesNotDestroyASecondTime ) {
   Trail trail;
   { Ptr< Busy > const held = new Busy( trail ); }
   EXPECT_EQ( trail, ( Trail{ "made", "busy zero", "~busy" } ) );
}

TEST( ZeroReferences, IsToldWhileTheObjectIsWholeAndItsFlagReads ) {
   struct Watched : PtrInterface {
      explicit Watched( std::optional< bool > & s ) : seen( s ) {}
      void zeroReferencesIs( bool zero ) override {
         PtrInterface::zeroReferencesIs( zero );
         seen = zeroReferences();
      }
      std::optional< bool > & seen;
   };
   std::optional< bool > seen;
   {
      Ptr< Watched > const object = new Watched( seen );
      EXPECT_FALSE( object->zeroReferences() );
      EXPECT_FALSE( seen );
   }
   EXPECT_EQ( seen, true );
}

TEST( ZeroReferences, ReachAReactorAsACallbackBeforeItsDestruction ) {
   Trail trail;
   Ptr< Reactor > reactor = new Reactor( trail );
   reactor->zeroReferencesIs( false );
   EXPECT_TRUE( trail.empty() ) << "only the last reference going is a reason";
   reactor = nullptr;
   EXPECT_EQ( trail, ( Trail{ "onZeroReferences", "~reactor" } ) );
}

// ------------------------------------------------------------------------------------------ flags

TEST( Flags, OfANewObjectSayQuietUnmarkedAndNotEnding ) {
   Trail trail;
   Thing const object( trail );
   EXPECT_FALSE( object.hasNotificationActive() );
   EXPECT_FALSE( object.kivMarkedForDeletion() );
   EXPECT_TRUE( object.isNondestructing() );
   EXPECT_FALSE( object.zeroReferences() );
   EXPECT_FALSE( object.hasNotifiees() );
}

TEST( Flags, AreSetOneByOneAndTakenBack ) {
   Trail trail;
   Thing object( trail );
   auto const state = [ & ] {
      return std::vector< bool >{ object.hasNotificationActive(), object.kivMarkedForDeletion(),
                                  object.isNondestructing() };
   };
   object.hasNotificationActiveIs( true );
   EXPECT_EQ( state(), ( std::vector< bool >{ true, false, true } ) );
   object.kivMarkedForDeletionIs( true );
   EXPECT_EQ( state(), ( std::vector< bool >{ true, true, true } ) );
   object.isNondestructingIs( false );
   EXPECT_EQ( state(), ( std::vector< bool >{ true, true, false } ) );
   object.hasNotificationActiveIs( false );
   EXPECT_EQ( state(), ( std::vector< bool >{ false, true, false } ) );
   object.kivMarkedForDeletionIs( false );
   object.isNondestructingIs( true );
   EXPECT_EQ( state(), ( std::vector< bool >{ false, false, true } ) );
}

TEST( Flags, OfAReactorOutOfTheFrameworksHandsAreTheOnlyOnesSetAsBits ) {
   Trail trail;
   Ptr< Reactor > const reactor = new Reactor( trail );
   reactor->hasNotificationActiveIs( true );
   reactor->kiv_bitSetIs( ~Kiv::Kiv_BitSet{ 0 } );
   EXPECT_FALSE( reactor->kivMarkedForDeletion() );
   EXPECT_FALSE( reactor->isRegisteredNotifiee() );
   reactor->kiv_bitSetIs( 0 );
   EXPECT_TRUE( reactor->hasNotificationActive() );
   EXPECT_FALSE( reactor->isNondestructing() );
}

TEST( Audits, HaveNoEffect ) {
   Trail trail;
   Ptr< Thing > const object = new Thing( trail );
   object->kivAuditErrors( 3 );
   object->auditErrors( 3 );
   EXPECT_TRUE( trail.empty() );
   EXPECT_EQ( object->references(), 1U );
}
