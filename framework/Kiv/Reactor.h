// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// What state machines, and the reactors that they own, have in common.
//
//    class Watchman : public Machine< Gate::NotifieeConst, Watchman > {       watches a Gate, and
//       class KivLamp : public OwnedReactor< Lamp::NotifieeConst, Watchman,   owns a reactor for
//                                            Name > {                        each of its lamps
//        public:
//          using OwnedReactor::OwnedReactor;
//          void onLit() override { react( &Watchman::handleLit ); }
//       };
//     private:
//       friend Machine;
//       auto owned() { return inOrder( kivLamp_ ); }
//       OwnedByKey< KivLamp, Name > kivLamp_;                                 Owned.h
//    };
//
// An owner holds its reactors; they point back to it and do not hold it. Owned.h says how they are
// made and let go.
#pragma once

#include <Kiv/Notifiee.h>
#include <Kiv/Ptr.h>

#include <concepts>
#include <exception>
#include <tuple>
#include <type_traits>
#include <utility>

namespace Kiv {

// Runs `undo` when an exception leaves the block in which this stands. A handler that an exception
// has cut short is delivered again; with this it finds then what made it act the first time.
// REQUIRES: `undo` does not throw.
template< class Undo >
class OnException {
 public:
   explicit OnException( Undo undo ) : undo_( std::move( undo ) ) {}
   ~OnException() {
      if( std::uncaught_exceptions() > before_ )
         undo_();
   }
   OnException( OnException const & ) = delete;
   OnException & operator=( OnException const & ) = delete;

 private:
   Undo undo_;
   int const before_ = std::uncaught_exceptions();
};

// Runs `last` when the block in which this stands is left, in whatever way. REQUIRES: `last` does
// not throw.
template< class Last >
class OnExit {
 public:
   explicit OnExit( Last last ) : last_( std::move( last ) ) {}
   ~OnExit() { last_(); }
   OnExit( OnExit const & ) = delete;
   OnExit & operator=( OnExit const & ) = delete;

 private:
   Last last_;
};

// Members that hold reactors, in their order, for owned() of a Machine: a function that goes
// through them. Compilers take much longer over a std::tie() of them.
template< class... Members >
auto inOrder( Members &... members ) {
   return [ & ]( auto & call ) -> void { ( members.each( call ), ... ); };
}

// A state machine, or a reactor that one owns: what can be switched on and off and marked for
// deletion, with all that it owns. Base is what it is besides: a NotifieeConst, or PtrInterface for
// one that watches nothing itself. Adds one virtual operation, after those of Base.
//
// One that owns reactors gives itself as Self, has `friend Machine;`, and a private function
// owned() which returns inOrder(), or a std::tie(), of the members that hold them, single ones
// first (Owned and OwnedByKey of Owned.h). That is the order in which everything is passed on. Its
// destructor begins with kivDoZombieReactors( true ), while they are still there. One that owns
// none says no Self, and is marked by the destructor here.
template< class Base, class Self = void >
class Machine : public Base {
 public:
   using Base::Base;

   // Switches itself, then what it owns. What is pending for any of them keeps its order. Does
   // nothing when it is so already. Needs no memory.
   void hasNotificationActiveIs( bool active ) override {
      if( active == this->hasNotificationActive() )
         return;
      if constexpr( std::is_void_v< Self > )
         return Base::hasNotificationActiveIs( active );
      InOrder const inOrder;
      Base::hasNotificationActiveIs( active );
      eachOwned( [ active ]( auto & reactor ) { reactor.hasNotificationActiveIs( active ); } );
   }
   // Marks it and what it owns for deletion, or takes the mark back; does nothing when it is so
   // already. First all notifications are switched off (or on again) if it watches something, then
   // the mark is passed on, and it is marked itself last. Who is marked ignores all that comes.
   // Needs no memory.
   virtual void kivDoZombieReactors( bool zombie ) {
      if( zombie == this->kivMarkedForDeletion() )
         return;
      if constexpr( std::is_base_of_v< PtrInterface::NotifieeConst, Base > )
         if( this->notifierPtr() )
            this->hasNotificationActiveIs( !zombie );
      eachOwned( [ zombie ]( auto & reactor ) { reactor.kivDoZombieReactors( zombie ); } );
      this->kivMarkedForDeletionIs( zombie );
   }

 protected:
   Machine() = default;
   ~Machine() override {
      if constexpr( std::is_void_v< Self > )
         Machine::kivDoZombieReactors( true );
   }

 private:
   // Once in the life of a machine, so it is small rather than fast.
   template< class Call >
   [[gnu::cold]] void eachOwned( Call call ) {
      if constexpr( !std::is_void_v< Self > ) {
         auto const owned = static_cast< Self * >( this )->owned();
         if constexpr( std::invocable< decltype( owned ), Call & > )
            owned( call );
         else
            std::apply( [ & ]( auto &... members ) { ( members.each( call ), ... ); }, owned );
      }
   }
};

// The key of a reactor that has none.
struct NoKey {};

// A reactor with an owner: Base is the NotifieeConst (or Notifiee) of what it watches, Key the type
// of the key under which its owner holds it. Self is as for Machine, if it owns reactors in turn.
//
// Made by its owner (newOwned() of Owned.h) and told of nothing before the owner switches it on.
// After its owner has let go of it, it does not react any more, whoever keeps it.
//
// A callback that an exception cuts short is delivered again (deliveredUntilDoneIs() of
// Notifiee.h): a state machine may not lose one.
template< class Base, class Owner, class Key = NoKey, class Self = void >
class OwnedReactor : public Machine< Base, Self > {
 public:
   // A Ptr to what is watched.
   using Watched = decltype( std::declval< Base const & >().notifier() );

   // Attaches and registers, and calls no handler: a class that has to catch up does it in its own
   // constructor. Null watches nothing. `owner` is not held.
   OwnedReactor( Watched const & object, Owner * owner, Key const & key = Key() )
      : owner_( owner ), key_( key ) {
      Base::notifierIs( Ptr< PtrInterface const >( object ) );
      this->deliveredUntilDoneIs( true );
      this->isRegisteredNotifieeIs( true );
   }

   // Null once it is let go of.
   Owner * owner() const { return owner_; }
   // For the owner.
   void ownerIs( Owner * owner ) { owner_ = owner; }
   // The key in its owner's collection. Fixed, also when it watches another object or none.
   Key fwkKey() const
      requires( !std::is_same_v< Key, NoKey > )
   {
      return key_;
   }

 protected:
   // For callbacks: runs `call( owner )`, unless this is marked for deletion or has no owner any
   // more. The owner lives until `call` returns, whatever that deletes. One that has a function
   // reactionBegins() is told so before each.
   template< std::invocable< Owner & > Call >
   void react( Call call ) {
      if( this->kivMarkedForDeletion() || !owner_ )
         return;
      Owner & owner = *owner_;
      Ptr< Owner > const keep = kept( &owner );
      if constexpr( requires { owner.reactionBegins(); } )
         owner.reactionBegins();
      call( owner );
   }
   // The same for callbacks that only forward: to a handler of the owner's, or of this reactor's
   // own.
   template< class Handles >
   void react( void ( Handles::*handler )() ) {
      react( [ & ]( Owner & owner ) { ( handling< Handles >( owner ).*handler )(); } );
   }
   template< class Handles, class Argument, class Given >
   void react( void ( Handles::*handler )( Argument ), Given const & key ) {
      react(
         [ & ]( Owner & owner ) { ( handling< Handles >( owner ).*handler )( Argument( key ) ); } );
   }

   // For notifierIs(), which its owner calls when another object has come under the key: watches
   // `object` and runs `then()`; nothing for the object that is watched already. When `then`
   // throws, what was watched before is watched again: whoever attaches it once more makes it react
   // once more.
   template< class Then >
   void attach( Ptr< PtrInterface const > const & object, Then then ) {
      if( this->notifierPtr() == object )
         return;
      Ptr< PtrInterface const > const before = this->notifierPtr();
      bool const wasRegistered = this->isRegisteredNotifiee();
      Base::notifierIs( object );
      OnException const undo( [ & ] {
         Base::notifierIs( before );
         this->isRegisteredNotifieeIs( wasRegistered );
      } );
      then();
   }
   // The same for one that is told of the object's changes from now on and reacts to what it is
   // like, by `handle()`: unless it is marked for deletion.
   template< class Handle >
   void attachAndReact( Ptr< PtrInterface const > const & object, Handle handle ) {
      attach( object, [ & ] {
         if( this->kivMarkedForDeletion() )
            return;
         this->isRegisteredNotifieeIs( true );
         handle();
      } );
   }

 private:
   template< class Handles >
   Handles & handling( Owner & owner ) {
      if constexpr( std::is_same_v< Handles, Owner > )
         return owner;
      else
         return static_cast< Handles & >( *this );
   }

   Owner * owner_;
   [[no_unique_address]] Key const key_;
};

} // namespace Kiv
