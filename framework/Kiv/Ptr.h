// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Counted objects and the references that count them.
#pragma once

#include <Kiv/Export.h>
#include <Kiv/Memory.h>

#include <cassert>
#include <compare>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <utility>

namespace Kiv {

class KivType;

namespace detail {
struct Ring;
} // namespace detail

// Numbers an attribute within its type. 0 is no attribute; a type's own rows start at 8.
using AttributeId = std::uint16_t;
inline constexpr AttributeId noAttribute = 0;

// Bits that kiv_bitSetIs() sets in an object's word of flags.
using Kiv_BitSet = std::uint32_t;

// Base of every counted object: entities, reactors, state machines.
//
// Owned by the Ptr's that refer to it; made on the heap and destroyed when the last Ptr goes. An
// object that never met a Ptr (a reactor on the stack, say) is destroyed by whoever made it; state
// machines and entities refer to themselves while they work and are always held by one. The count
// is a plain integer: objects belong to the activity thread (Activity.h).
//
// Cost: 16 bytes (12 where pointers have 32 bits) and the table of virtual operations. The order of
// these is part of the interface and is tested on both word sizes.
class KIV_EXPORT PtrInterface : public VFPtrInterface {
 public:
   class NotifieeConst;

   PtrInterface( PtrInterface const & ) = delete;
   PtrInterface & operator=( PtrInterface const & ) = delete;

   // Turns the delivery of notifications to this object (and to the reactors that it owns) on or
   // off; does nothing when it is so already. Off when constructed. See Notifiee.h for what
   // happens to that which is queued meanwhile.
   virtual void hasNotificationActiveIs( bool active );
   // Audits are reserved: they have no effect.
   virtual void kivAuditErrors( unsigned int depth ) const;
   virtual void auditErrors( unsigned int depth ) const;
   // True from construction on; an owner sets it false to announce the object's end.
   virtual void isNondestructingIs( bool nondestructing );
   // Told true when the last reference has gone, right before the object is destroyed.
   virtual void zeroReferencesIs( bool zero );
   // The registered type of the object.
   virtual KivType const & fwkType() const;
   virtual ~PtrInterface() {
      assert( !notifiees_ && "reactors hold a reference to what they watch" );
   }

   static KivType const & _fwkType();

   bool hasNotificationActive() const { return flag( notificationActive ); }
   bool kivMarkedForDeletion() const { return flag( markedForDeletion ); }
   bool isNondestructing() const { return flag( nondestructing ); }
   bool zeroReferences() const { return flag( zeroReference ); }

   // Marks a reactor as one that must not react any more, and drops what is queued for it.
   void kivMarkedForDeletionIs( bool marked );

   // What Ptr calls. References are counted on const objects too.
   void newRef() const { ++references_; }
   void deleteRef() const {
      if( --references_ == 0 ) [[unlikely]]
         onZeroReferences();
   }
   std::uint32_t references() const { return references_; }

   // True while some reactor is registered with this object.
   bool hasNotifiees() const { return notifiees_ != nullptr; }

 protected:
   PtrInterface() = default;

   // The last reference has gone: tells zeroReferencesIs( true ), then destroys the object.
   void onZeroReferences() const;
   void handleZeroRef();

   enum Flag : Kiv_BitSet {
      markedForDeletion = 1U << 0,
      notificationActive = 1U << 1,
      nondestructing = 1U << 2,
      zeroReference = 1U << 3,
      isReactor = 1U << 4,   // the object is a NotifieeConst
      registered = 1U << 5,  // it stands in its notifier's list
      queued = 1U << 6,      // what is pending for it stands in the activity's queue
      keepsParent = 1U << 7, // an entity that holds a reference to its parent
      untilDone = 1U << 8,   // see NotifieeConst::deliveredUntilDoneIs()
      hearsEntity = 1U << 9, // a reactor with callbacks for what every entity has,
      hearsOwn = 1U << 10    // and for the attributes of a type
   };
   bool flag( Flag f ) const { return ( flags_ & f ) != 0; }
   void flagIs( Flag f, bool on ) const {
      flags_ = static_cast< std::uint16_t >( on ? flags_ | f : flags_ & ~Kiv_BitSet{ f } );
   }

 private:
   friend class KeepDuringConstruction;
   friend struct detail::Ring;

   mutable std::uint32_t references_ = 0;
   mutable std::uint16_t flags_ = nondestructing;
   // The reactors registered with this object: how many, up to what fits, and the first of a ring
   // in order of registration.
   mutable std::uint16_t registered_ = 0;
   mutable NotifieeConst * notifiees_ = nullptr;
};

// Lets a constructor run handlers that make and drop references to the object under construction:
// such an object has no reference yet, and would be destroyed by the first one that goes.
class KeepDuringConstruction {
 public:
   explicit KeepDuringConstruction( PtrInterface const & object ) : object_( object ) {
      object_.newRef();
   }
   ~KeepDuringConstruction() { --object_.references_; }
   KeepDuringConstruction( KeepDuringConstruction const & ) = delete;
   KeepDuringConstruction & operator=( KeepDuringConstruction const & ) = delete;

 private:
   PtrInterface const & object_;
};

// An intrusive counted reference. Copying increments a plain integer, destruction decrements it.
// Compared by identity. T may be incomplete where only the type Ptr< T > is named.
template< class T >
class Ptr {
 public:
   using element_type = T;

   Ptr() = default;
   Ptr( std::nullptr_t ) {}
   [[nodiscard]] Ptr( T * object ) : object_( object ) { hold(); }
   Ptr( Ptr const & other ) : object_( other.object_ ) { hold(); }
   Ptr( Ptr && other ) noexcept : object_( std::exchange( other.object_, nullptr ) ) {}
   template< class U >
      requires std::convertible_to< U *, T * >
   Ptr( Ptr< U > const & other ) : object_( other.get() ) {
      hold();
   }
   ~Ptr() {
      if( object_ )
         object_->deleteRef();
   }
   Ptr & operator=( Ptr other ) noexcept {
      std::swap( object_, other.object_ );
      return *this;
   }

   T * get() const { return object_; }
   T * operator->() const { return object_; }
   T & operator*() const { return *object_; }
   explicit operator bool() const { return object_ != nullptr; }

   friend bool operator==( Ptr const & a, std::nullptr_t ) { return a.object_ == nullptr; }
   template< class U >
   friend bool operator==( Ptr const & a, Ptr< U > const & b ) {
      return a.get() == b.get();
   }

 private:
   void hold() const {
      if( object_ )
         object_->newRef();
   }

   T * object_ = nullptr;
};

// Keeps an object for as long as the reference lives. Null for null, and for an object that nobody
// refers to: it belongs to whoever made it, and would be destroyed with this reference.
template< class T >
Ptr< T > kept( T * object ) {
   return Ptr< T >( object && object->references() ? object : nullptr );
}

// The object as a U, null when it is none.
template< class U, class T >
Ptr< U > ptrCast( Ptr< T > const & p ) {
   return Ptr< U >( dynamic_cast< U * >( p.get() ) );
}

} // namespace Kiv

template< class T >
struct std::hash< Kiv::Ptr< T > > {
   std::size_t operator()( Kiv::Ptr< T > const & p ) const { return std::hash< T * >()( p.get() ); }
};
