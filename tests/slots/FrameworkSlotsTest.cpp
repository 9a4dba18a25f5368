// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include "Slots.h"

#include <Kiv/Kiv.h>

#include <cstdint>
#include <new>

using Kiv::AttributeId;
using Kiv::Entity;
using Kiv::Ptr;
using Kiv::PtrInterface;
using namespace testing_support;

namespace {

using Reactor = PtrInterface::NotifieeConst;

struct Destroyed : PtrInterface {
   explicit Destroyed( int & count ) : count_( count ) {}
   ~Destroyed() override { ++count_; }
   static void * operator new( std::size_t size ) { return PtrInterface::operator new( size ); }
   static void operator delete( void * memory, std::size_t size ) {
      ++deletions;
      PtrInterface::operator delete( memory, size );
   }
   static int deletions;

 private:
   int & count_;
};
int Destroyed::deletions = 0;

// Calls what stands in a slot of the object's table as an operation without arguments.
void call( PtrInterface & object, std::size_t slotNumber ) {
   using Function = void ( * )( void * );
   Function const * table;
   void * const address = &object;
   std::memcpy( &table, address, sizeof table );
   table[ slotNumber ]( address );
}

} // namespace

TEST( VirtualOperations, OfACountedObjectStandInOrder ) {
   expectInOrder(
      0, {
            { "hasNotificationActiveIs( bool )", slot( &PtrInterface::hasNotificationActiveIs ) },
            { "kivAuditErrors( unsigned ) const", slot( &PtrInterface::kivAuditErrors ) },
            { "auditErrors( unsigned ) const", slot( &PtrInterface::auditErrors ) },
            { "isNondestructingIs( bool )", slot( &PtrInterface::isNondestructingIs ) },
            { "zeroReferencesIs( bool )", slot( &PtrInterface::zeroReferencesIs ) },
            { "fwkType() const", slot( &PtrInterface::fwkType ) },
         } );
   EXPECT_EQ( slots< PtrInterface >(), slotsOfPtrInterface );
}

TEST( VirtualOperations, TheDestructorOfACountedObjectTakesTwoSlotsCompleteAndDeleting ) {
   int destroyed = 0;
   Destroyed::deletions = 0;
   void * const memory = PtrInterface::operator new( sizeof( Destroyed ) );
   auto * const complete = ::new( memory ) Destroyed( destroyed );
   call( *complete, 6 );
   EXPECT_EQ( destroyed, 1 );
   EXPECT_EQ( Destroyed::deletions, 0 ) << "the memory is the caller's";
   PtrInterface::operator delete( memory, sizeof( Destroyed ) );

   call( *new Destroyed( destroyed ), 7 );
   EXPECT_EQ( destroyed, 2 );
   EXPECT_EQ( Destroyed::deletions, 1 );
}

TEST( VirtualOperations, OfAReactorFollowThoseOfACountedObject ) {
   expectInOrder(
      slotsOfPtrInterface,
      {
         { "kivReactor() const", slot( &Reactor::kivReactor ) },
         { "kivRawReactor() const", slot( &Reactor::kivRawReactor ) },
         { "isStreamAdapter() const", slot( &Reactor::isStreamAdapter ) },
         { "isRegisteredNotifieeIs( bool ) const", slot( &Reactor::isRegisteredNotifieeIs ) },
         { "kiv_bitSetIs( Kiv_BitSet )", slot( &Reactor::kiv_bitSetIs ) },
         { "name() const", slot( &Reactor::name ) },
         { "notifierIs( Ptr )", slot( &Reactor::notifierIs ) },
         { "handleNotification( ActivityConfig * )", slot( &Reactor::handleNotification ) },
         { "handleDefault( ActivityConfig *, AttributeId, bool )",
           slot( &Reactor::handleDefault ) },
         { "onAttribute( AttributeId )", slot( &Reactor::onAttribute ) },
         { "onNotification()", slot( &Reactor::onNotification ) },
         { "onCollectionNotification( String8 )", slot( &Reactor::onCollectionNotification ) },
         { "onNotificationException()", slot( as< void() >( &Reactor::onNotificationException ) ) },
         { "onNotificationException( AttributeId )",
           slot( as< void( AttributeId ) >( &Reactor::onNotificationException ) ) },
         { "handleNotificationException( AttributeId )",
           slot( as< void( AttributeId ) >( &Reactor::handleNotificationException ) ) },
         { "handleNotificationException()",
           slot( as< void() >( &Reactor::handleNotificationException ) ) },
         { "onZeroReferences()", slot( &Reactor::onZeroReferences ) },
         { "activityPtr() const", slot( &Reactor::activityPtr ) },
         { "kivFwkActivity()",
           slot( as< Ptr< Kiv::ActivityConfig >() >( &Reactor::kivFwkActivity ) ) },
         { "kivFwkActivity() const",
           slot( as< Ptr< Kiv::ActivityConfig const >() const >( &Reactor::kivFwkActivity ) ) },
         { "actsm()", slot( &Reactor::actsm ) },
      } );
   EXPECT_EQ( slots< Reactor >(), slotsOfReactor );
}

TEST( VirtualOperations, OfAReactorThatACountedObjectHasTooKeepTheirSlots ) {
   expectInOrder(
      0, {
            { "hasNotificationActiveIs( bool )", slot( &Reactor::hasNotificationActiveIs ) },
            { "kivAuditErrors( unsigned ) const", slot( &Reactor::kivAuditErrors ) },
            { "auditErrors( unsigned ) const", slot( &Reactor::auditErrors ) },
            { "isNondestructingIs( bool )", slot( &Reactor::isNondestructingIs ) },
            { "zeroReferencesIs( bool )", slot( &Reactor::zeroReferencesIs ) },
            { "fwkType() const", slot( &Reactor::fwkType ) },
         } );
}

TEST( VirtualOperations, OfAnEntityFollowThoseOfACountedObject ) {
   expectInOrder(
      slotsOfPtrInterface,
      {
         { "name() const", slot( &Entity::name ) },
         { "parent() const", slot( as< Ptr< Entity const >() const >( &Entity::parent ) ) },
         { "parent()", slot( as< Ptr< Entity >() >( &Entity::parent ) ) },
         { "parentIs( Ptr )", slot( &Entity::parentIs ) },
         { "parentAttr() const", slot( &Entity::parentAttr ) },
         { "parentAttrId() const", slot( &Entity::parentAttrId ) },
         { "parentAttrIdIs( AttributeId )", slot( &Entity::parentAttrIdIs ) },
         { "uriPath() const", slot( &Entity::uriPath ) },
         { "fullName() const", slot( &Entity::fullName ) },
         { "attributeString( AttributeId ) const", slot( &Entity::attributeString ) },
         { "kivNotifieeAdapterIs( Ptr )", slot( &Entity::kivNotifieeAdapterIs ) },
         { "handleParent( Ptr )", slot( &Entity::handleParent ) },
      } );
   EXPECT_EQ( slots< Entity >(), slotsOfEntity );
   EXPECT_EQ( slots< Kiv::Dir >(), slotsOfEntity ) << "a directory adds none";
}

TEST( VirtualOperations, OfAReactorOnAnEntityEndWithParentAndVersion ) {
   using N = Entity::NotifieeConst;
   expectInOrder( slotsOfReactor, {
                                     { "onParent()", slot( &N::onParent ) },
                                     { "onVersion()", slot( &N::onVersion ) },
                                  } );
   EXPECT_EQ( slots< N >(), slotsOfEntityReactor );
   EXPECT_EQ( slot( &N::name ), slot( &Reactor::name ) );
}

TEST( VirtualOperations, OfAReactorOnADirectoryAreTheThreeOfItsCollection ) {
   using N = Kiv::Dir::NotifieeConst;
   expectInOrder( slotsOfEntityReactor,
                  {
                     { "onEntityPtr( Name )", slot( as< void( Kiv::Name ) >( &N::onEntityPtr ) ) },
                     { "onEntityPtrkivImmediate()", slot( &N::onEntityPtrkivImmediate ) },
                     { "onEntityPtr()", slot( as< void() >( &N::onEntityPtr ) ) },
                  } );
   EXPECT_EQ( slots< N >(), 34U );
   EXPECT_EQ( slots< Kiv::Dir::Notifiee >(), 34U ) << "one that writes has no more";
}

TEST( VirtualOperations, OfATimerEndWithItsTime ) {
   using N = Kiv::Clock::NotifieeConst;
   expectInOrder( slotsOfReactor, { { "onTime()", slot( &N::onTime ) } } );
   EXPECT_EQ( slots< N >(), 30U );
}
