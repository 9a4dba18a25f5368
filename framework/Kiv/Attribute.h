// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The storage behind the attributes of entities: comparing, storing, queueing and iterating are
// written here once; the accessors of a type are one line each over these templates.
//
// Every setter here keeps the same order: make room for all that will be queued and stored, then
// change, then queue. When memory runs out it throws std::bad_alloc and has changed nothing.
#pragma once

#include <Kiv/Export.h>
#include <Kiv/HashMap.h>
#include <Kiv/Notifiee.h>
#include <Kiv/Type.h>
#include <Kiv/detail/Thread.h>

#include <concepts>
#include <utility>

namespace Kiv {

namespace detail {

template< class M >
struct MemberClass;
template< class C, class... A >
struct MemberClass< void ( C::* )( A... ) > {
   using type = C;
};

template< auto callback >
void deliverWhole( PtrInterface::NotifieeConst & r ) {
   using C = typename MemberClass< decltype( callback ) >::type;
   ( static_cast< C & >( r ).*callback )();
}
template< class K, auto callback >
void deliverMember( PtrInterface::NotifieeConst & r, Text const & key ) {
   using C = typename MemberClass< decltype( callback ) >::type;
   ( static_cast< C & >( r ).*callback )( K( key ) );
}

} // namespace detail

// A change of one attribute of `notifier`, for setters that Scalar and Collection below are not
// enough for:
//
//    Change change( *this, rows[ event ], 1 );     before anything is changed
//    ...                                           the change, which may not fail any more
//    change.queue( key );
//
// The constructor makes room for all that will be queued; it throws std::bad_alloc, and ends the
// process on another thread than the activity's. Then queue() tells every reactor that is
// registered and needs no memory. Nothing else may be queued in between. Not queueing is no
// mistake: the room is used by the next change. Cost: constant, and for each registered reactor;
// without one no call.
class KIV_EXPORT Change {
 public:
   // `keys`: how many members will be told of; 0 for an attribute without keys. Both arguments
   // outlive the change.
   Change( PtrInterface const & notifier, Attribute const & attribute, std::size_t keys )
      : notifier_( notifier ), attribute_( attribute ) {
      detail::checkOwner( &notifier, attribute.name );
      if( notifier.hasNotifiees() )
         makeRoom( notifier, keys );
   }
   void queue() noexcept {
      if( notifier_.hasNotifiees() )
         queue( notifier_, attribute_ );
   }
   void queue( Text const & key ) noexcept {
      if( notifier_.hasNotifiees() )
         queue( notifier_, attribute_, key );
   }

 private:
   static void makeRoom( PtrInterface const & notifier, std::size_t keys );
   static void queue( PtrInterface const & notifier, Attribute const & attribute ) noexcept;
   static void queue( PtrInterface const & notifier, Attribute const & attribute,
                      Text const & key ) noexcept;

   PtrInterface const & notifier_;
   Attribute const & attribute_;
};

// For a writer that changes several things and may not fail in between: makes room for `items`
// callbacks, and says how many a change can need (`keys` as for Change). The first throws
// std::bad_alloc and has changed nothing. Cost of the second: linear in the registered reactors.
KIV_EXPORT void makeRoom( std::size_t items );
KIV_EXPORT std::size_t itemsFor( PtrInterface const & notifier, std::size_t keys );

// For setters that queue nothing. Ends the process, with a message that says what was touched, when
// it is called on another thread than the activity's. Cost: one comparison.
inline void checkThread( PtrInterface const & object, char const * attribute ) {
   detail::checkOwner( &object, attribute );
}

// The callback of an attribute without keys, as a row needs it: changes< &NotifieeConst::onX >().
template< auto callback >
constexpr Delivery changes() {
   return { &detail::deliverWhole< callback >, nullptr, nullptr };
}

// The callbacks of a collection under keys K: per member, deferred, whole.
template< class K, class C >
struct MemberCallbacks {
   using Keyed = void ( C::* )( K );
   using Plain = void ( C::* )();
};
template< class K, class C, typename MemberCallbacks< K, C >::Keyed onMember,
          typename MemberCallbacks< K, C >::Plain onDeferred,
          typename MemberCallbacks< K, C >::Plain onWhole >
constexpr Delivery members() {
   return { &detail::deliverWhole< onWhole >, &detail::deliverMember< K, onMember >,
            &detail::deliverWhole< onDeferred > };
}

// An attribute with one value.
template< class T >
class Scalar {
 public:
   Scalar() = default;
   explicit Scalar( T value ) : value_( std::move( value ) ) {}

   T const & value() const { return value_; }
   void valueIs( PtrInterface const & owner, Attribute const & row, T value ) {
      if( detail::sameValue( value_, value ) )
         return;
      Change change( owner, row, 0 );
      std::swap( value_, value );
      change.queue();
   }

 private:
   T value_{};
};

// A keyed collection that tells of every member that comes, changes or goes.
template< class T, class K >
class Collection {
 public:
   using Map = HashMap< T, K >;
   using Value = typename Map::Value;

   std::uint32_t size() const { return map_.size(); }
   bool has( K const & key ) const { return map_.has( key ); }
   Value member( K const & key ) const { return map_.member( key ); }
   Map const & map() const { return map_; }

   // Adds or replaces. A value that is held already changes nothing.
   void memberIs( PtrInterface const & owner, Attribute const & row, K const & key, Value value ) {
      if( Value * const held = map_.find( key ) ) {
         if( detail::sameValue( *held, value ) )
            return;
         Change change( owner, row, 1 );
         std::swap( *held, value );
         change.queue( key );
         return;
      }
      // First, as it also finds out whether this is the activity's thread.
      Change change( owner, row, 1 );
      map_.reserve();
      map_.insert( key, std::move( value ) );
      change.queue( key );
   }
   // False, and nothing changed, when the key is absent.
   bool memberDel( PtrInterface const & owner, Attribute const & row, K const & key ) {
      if( !map_.has( key ) )
         return false;
      Change change( owner, row, 1 );
      Text const kept = key; // the caller's key may belong to what goes
      Value gone{};
      map_.take( K( kept ), gone );
      change.queue( kept );
      return true;
   }
   void memberDelAll( PtrInterface const & owner, Attribute const & row ) {
      if( map_.size() == 0 )
         return;
      Change change( owner, row, map_.size() );
      // Members are destroyed last: a destructor may change what is watched, and would use up the
      // room that was made.
      typename Map::Members const all = map_.takeAll();
      all.eachKey( [ & ]( Text const & key ) { change.queue( key ); } );
   }

 private:
   Map map_;
};

// Iterates over a collection of an entity or state machine, which it keeps alive.
//    for( auto i = status->stageIterator(); i; ++i ) use( i.key(), i.ptr() );
template< class Map, class Owner >
class OwnedIterator {
 public:
   using Value = typename Map::Value;

   OwnedIterator( Owner * owner, Map const & map ) : owner_( owner ), place_( map ) {}
   explicit operator bool() const { return static_cast< bool >( place_ ); }
   bool hasBookmark() const { return place_.hasBookmark(); }
   void reset() { place_.reset(); }
   void advance() { place_.advance(); }
   OwnedIterator & operator++() {
      place_.advance();
      return *this;
   }
   auto key() const { return place_.key(); }
   // The member; null (false) once it is gone from the collection.
   Value value() const { return place_.value(); }
   Value ptr() const { return place_.value(); }

 protected:
   Ptr< Owner > const & owner() const { return owner_; }

 private:
   Ptr< Owner > owner_;
   typename Map::IteratorConst place_;
};

// One that can also delete: `del` is the owner's deleter, so that what watches the collection hears
// of it.
template< class Map, class Owner, auto del >
class DeletingIterator : public OwnedIterator< Map, Owner > {
 public:
   using OwnedIterator< Map, Owner >::OwnedIterator;
   // Deletes the member at the bookmark; the iterator stays there.
   void deleteNotify() {
      if( this->hasBookmark() )
         ( this->owner().get()->*del )( this->key() );
   }
};

} // namespace Kiv
