// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// How a state machine makes, holds and lets go of the reactors that it owns (Reactor.h).
//
// Making. newOwned() makes one, and Owned or OwnedByKey makes it when there is none and stores it
// then. A constructor that has to catch up with the object runs its handlers before anything is
// stored: handlers that look for the reactor find none yet. When making or storing fails (for want
// of memory, or by what a handler throws) nothing is stored, the reactor is destroyed, the
// exception goes on to the caller, and what its handlers have written stays; a callback that is cut
// short by that is delivered again (Notifiee.h) and makes the reactor anew.
//
// Letting go. In this order, whichever of the two holds it:
//
//    1. It is marked for deletion, with all that it owns: what is pending for it is dropped, and it
//       ignores what comes.
//    2. It leaves its place: whoever looks for it from now on finds none.
//    3. The parting, if the owner has one, and was not being torn down itself (then the reactor was
//       marked before, and what was written stays). An owner whose reactor has to react to its own
//       going has it watch nothing before all this (ConfigSm::agentConfigDel): when that is cut
//       short the reactor is still whole, and in its place.
//    4. It loses its owner, also when the parting throws.
//    5. The owner's reference goes. If that was the last one it is destroyed, else it stays with
//       whoever keeps it, and never reacts any more.
//
// The members of a collection go one after the other, in the collection's order, each through all
// five. When the owner itself is destroyed, those whose place is left to its members' destructors
// are told by ownerGoes() first.
#pragma once

#include <Kiv/Attribute.h>
#include <Kiv/Exception.h>
#include <Kiv/HashMap.h>
#include <Kiv/Reactor.h>

namespace Kiv {

// Makes a reactor of `owner`, with these arguments and the owner, switched on if the owner is. It
// is the caller's: nothing is stored.
template< class R, class Owner, class... Arguments >
Ptr< R > newOwned( Owner & owner, Arguments const &... arguments ) {
   Ptr< R > const made = new R( arguments..., &owner );
   made->hasNotificationActiveIs( owner.hasNotificationActive() );
   return made;
}

// Lets go of a reactor as the head of this file says: `leave()` takes it from its place, `part( r
// )` is the parting.
template< class R, class Leave, class Part >
void letGo( Ptr< R > const reactor, Leave leave, Part part ) {
   bool const teardown = reactor->kivMarkedForDeletion();
   reactor->kivDoZombieReactors( true );
   leave();
   {
      OnException const alone( [ & ] { reactor->ownerIs( nullptr ); } );
      if( !teardown )
         part( *reactor );
   }
   reactor->ownerIs( nullptr );
}

// At most one reactor R. Belongs to its owner as a member, is empty when made, and is not copied.
template< class R >
class Owned {
 public:
   Owned() = default;
   Owned( Owned const & ) = delete;
   Owned & operator=( Owned const & ) = delete;

   // Null while there is none.
   Ptr< R > const & reactor() const { return reactor_; }
   R * operator->() const { return reactor_.get(); }
   explicit operator bool() const { return static_cast< bool >( reactor_ ); }
   // What it watches; null also while there is none.
   typename R::Watched notifier() const {
      return reactor_ ? reactor_->notifier() : typename R::Watched();
   }

   // Stores one that was made; REQUIRES: there is none.
   void reactorIs( Ptr< R > const & made ) { reactor_ = made; }
   // Makes the reactor by `make()`, or lets the one there is watch `object`, null for nothing.
   template< class Make >
   void notifierIs( typename R::Watched const & object, Make make ) {
      if( !reactor_ ) {
         reactor_ = make();
         return;
      }
      reactor_->notifierIs( object );
      reactor_->isRegisteredNotifieeIs( true );
   }
   void del() {
      if( reactor_ )
         letGo(
            reactor_, [ this ] { reactor_ = nullptr; }, []( R & ) {} );
   }
   void ownerGoes() {
      each( []( R & reactor ) { reactor.ownerIs( nullptr ); } );
   }
   template< class Call >
   void each( Call call ) {
      if( reactor_ )
         call( *reactor_ );
   }

 private:
   Ptr< R > reactor_;
};

// Reactors R under keys K, which are their fwkKey(). Belongs to its owner as a member and is not
// copied. Order and cost are those of HashMap; every walk survives what the handlers do meanwhile.
template< class R, class K >
class OwnedByKey {
 public:
   using Map = HashMap< R, K >;

   OwnedByKey() = default;
   OwnedByKey( OwnedByKey const & ) = delete;
   OwnedByKey & operator=( OwnedByKey const & ) = delete;

   // Null when absent.
   Ptr< R > member( K const & key ) const { return map_.member( key ); }
   std::uint32_t size() const { return map_.size(); }
   // For iterators: `return { this, parts_ };`.
   operator Map const &() const { return map_; }

   // Room for so many in all; for who makes many in the order of a walk (HashMap::reserve()).
   void reserve( std::uint32_t reactors ) { map_.reserve( reactors ); }

   // Makes the reactor by `make()`, stores it and calls `stored( r )`; or lets the one there is
   // watch `object`. Returns it.
   template< class Object, class Make, class Stored >
   Ptr< R > memberIs( K const & key, Object const & object, Make make, Stored stored ) {
      if( Ptr< R > const held = map_.member( key ) ) {
         held->notifierIs( object );
         return held;
      }
      Ptr< R > const made = make();
      memberIs( made );
      stored( *made );
      return made;
   }
   template< class Object, class Make >
   Ptr< R > memberIs( K const & key, Object const & object, Make make ) {
      return memberIs( key, object, make, []( R & ) {} );
   }

   // Stores one that was made. REQUIRES: there is none under its key.
   void memberIs( Ptr< R > const & made ) { map_.memberIs( made->fwkKey(), made ); }

   // False when there is none. `part( r )` is the parting. The key may belong to what goes.
   template< class Part >
   bool memberDel( K const & key, Part part ) {
      Ptr< R > const gone = map_.member( key );
      if( gone )
         letGo(
            gone, [ & ] { map_.memberDel( gone->fwkKey() ); }, part );
      return static_cast< bool >( gone );
   }
   bool memberDel( K const & key ) {
      return memberDel( key, []( R & ) {} );
   }
   // Lets go of every member by `del( key )`, or the owner's own, or as memberDel() does.
   template< class Del >
   void memberDelAll( Del del ) {
      for( auto i = map_.iterator(); i; ++i )
         del( i.key() );
   }
   template< class Owner >
   void memberDelAll( Owner & owner, void ( Owner::*del )( K const & ) ) {
      memberDelAll( [ & ]( K const & key ) { ( owner.*del )( key ); } );
   }
   void memberDelAll() {
      memberDelAll( [ this ]( K const & key ) { memberDel( key ); } );
   }
   void ownerGoes() {
      each( []( R & reactor ) { reactor.ownerIs( nullptr ); } );
   }
   template< class Call >
   void each( Call call ) {
      for( auto i = map_.iterator(); i; ++i )
         call( *i.ptr() );
   }

 private:
   Map map_;
};

} // namespace Kiv
