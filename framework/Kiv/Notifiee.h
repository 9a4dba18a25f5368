// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Reactors: objects that watch another object and are told of its changes, later.
//
// The contract, in one place:
//
//  - A setter changes the value and queues; it never calls a reactor. Callbacks are delivered by
//    the activity's loop (Activity.h), one at a time, never nested, first in, first out.
//  - At most one callback is pending per (reactor, attribute, key). It keeps its first place and
//    sees the state that holds when it runs. Reactors of one object are served in the order in
//    which they registered.
//  - on<Attr>( key ) is called for every changed member of a collection. on<Attr>kivImmediate()
//    follows, once, when two or more keys of one collection were pending together; it runs when
//    nothing else is queued. on<Attr>() of a collection is not used for changes of members.
//  - What is queued for a reactor whose notifications are off is kept, and goes to the end of the
//    queue, in order, when they are turned on. Marking for deletion drops it; so do detaching,
//    unregistering and destroying.
//  - A callback may do anything: delete, detach or re-attach any reactor or object, itself
//    included. A reactor that is held by a Ptr lives at least until its running callback returns.
//  - A reactor of one's own watches by one call, watch( object ), and is best made by newReactor()
//    (NewReactor.h), which has the compiler refuse what would never be told of anything.
//  - An exception that leaves a callback goes to handleNotificationException( attribute ); the
//    loop goes on with the next callback. A callback that std::bad_alloc has cut short is delivered
//    again: at once when nothing else is queued, then, while it keeps failing, after a rest that
//    grows from a millisecond to a second. It is reported once, and once more with their number
//    when it has been delivered after two failures or more. A callback cut short by anything else
//    is given up, unless its reactor said deliveredUntilDoneIs( true ); one cut short by a
//    Kiv::Exception always, since what a caller did wrong is as wrong the next time. A key that is
//    delivered again may come after the deferred form. What is asked for of the same (reactor,
//    attribute, key) meanwhile is the same callback; the timer of a Clock is put back in the same
//    way. So write callbacks that may run twice: what they have done by the time something throws
//    must not keep them from doing it again.
#pragma once

#include <Kiv/Export.h>
#include <Kiv/Ptr.h>
#include <Kiv/Text.h>

#include <type_traits>
#include <typeinfo>

namespace Kiv {

class Activity;
class ActivityConfig;
class Clock;
struct Attribute;

namespace detail {
struct QueueItem;
class Queue;
} // namespace detail

// Base of every reactor.
//
// Owned by whoever made it, like any counted object; holds a reference to what it watches, so
// that a watched object outlives its reactors. To be told of changes takes three things: being
// attached (notifierIs), being registered (isRegisteredNotifieeIs), from where on changes are
// queued, and being switched on (hasNotificationActiveIs), from where on they are delivered. The
// typed reactors' watch() does all three; forgetting one of them is not noticed by anything.
class KIV_EXPORT PtrInterface::NotifieeConst : public PtrInterface {
 public:
   void hasNotificationActiveIs( bool active ) override;
   // Calls onZeroReferences().
   void zeroReferencesIs( bool zero ) override;
   ~NotifieeConst() override;

   // The reactor that an adapter stands for: the object itself.
   virtual Ptr< PtrInterface const > kivReactor() const;
   virtual PtrInterface const * kivRawReactor() const;
   // Whether it passes notifications on over a stream: false.
   virtual bool isStreamAdapter() const;
   // Registers with the watched object, or unregisters and drops what is queued. Registering while
   // nothing is attached, or twice, does nothing.
   virtual void isRegisteredNotifieeIs( bool registered ) const;
   virtual void kiv_bitSetIs( Kiv_BitSet bits );
   // The watched object's name; empty without one, or when it has no name.
   virtual Name name() const;
   // Watches another object (null: none): unregisters, drops what is queued, attaches. Does
   // nothing, not even drop callbacks, for the object that is watched already. A range exception
   // when the object is of another type than the reactor watches.
   virtual void notifierIs( Ptr< PtrInterface const > const & notifier );
   // Delivers this reactor's oldest pending callback now, if there is one and none is running.
   virtual void handleNotification( ActivityConfig * activity );
   // Generic fallbacks, empty.
   virtual void handleDefault( ActivityConfig * activity, AttributeId attribute, bool deferred );
   virtual void onAttribute( AttributeId attribute );
   virtual void onNotification();
   virtual void onCollectionNotification( String8 key );
   // Called after an exception was reported; empty.
   virtual void onNotificationException();
   virtual void onNotificationException( AttributeId attribute );
   // A callback for `attribute` has thrown, and std::current_exception() is what; not called again
   // while the same callback, delivered again, goes on throwing. The default
   // reports it (what, reactor, attribute) through the trace facility and on standard error,
   // unless it was expected, then calls onNotificationException( attribute ).
   virtual void handleNotificationException( AttributeId attribute );
   // The same for an exception outside of any attribute.
   virtual void handleNotificationException();
   // The last reference has gone.
   virtual void onZeroReferences();
   // Where the callbacks run: the process's one activity.
   virtual ActivityConfig * activityPtr() const;
   virtual Ptr< ActivityConfig > kivFwkActivity();
   virtual Ptr< ActivityConfig const > kivFwkActivity() const;
   virtual Activity * actsm();

   Ptr< PtrInterface const > const & notifierPtr() const { return notifier_; }
   bool isRegisteredNotifiee() const { return flag( registered ); }
   // How many callbacks are pending. Cost: linear in their number.
   std::size_t pendingNotifications() const;
   bool deliveredUntilDone() const { return flag( untilDone ); }

 protected:
   NotifieeConst();

   // Whether a callback that any exception but a Kiv::Exception has cut short is delivered again,
   // as one that std::bad_alloc cut short always is. Off. For reactors that may not lose a callback
   // and to which others' code throws.
   void deliveredUntilDoneIs( bool on ) { flagIs( untilDone, on ); }

   // What watch() of every type does.
   void watchObject( Ptr< PtrInterface const > const & object );
   // The range exception of notifierIs(), for an object of another type.
   [[noreturn]] static void throwOtherType( PtrInterface const & object );

 private:
   friend class PtrInterface;
   friend class detail::Queue;
   friend struct detail::Ring;

   // What a change writes stands together, at the front.
   Ptr< PtrInterface const > notifier_;
   // Ring of the reactors of one object, while registered.
   mutable NotifieeConst * nextNotifiee_ = nullptr;
   mutable NotifieeConst * previousNotifiee_ = nullptr;
   // What is pending for this reactor, oldest first: the number of the first of a ring, 0 for none.
   mutable std::uint32_t pending_ = 0;
   // A bit for each attribute without keys that is pending.
   mutable std::uint32_t pendingAttributes_ = 0;
};

// A NotifieeConst lists the names of its callbacks, so that newReactor() can look at how a class R
// of reactors has them: a row of kivCallbacks tells whether Form() can be called with &R::onX and
// &NotifieeConst::onX. The deferred form of a collection's callback has a row of its own, behind
// that of the others, which are one row.

// What the NotifieeConst of every type E adds, without a virtual operation of its own, to Base, the
// NotifieeConst of Entity or PtrInterface: what is watched, as an E, the refusal of anything else,
// and one call that does all that watching takes.
template< class E, class Base >
class NotifieeOf : public Base {
 public:
   // Null while nothing is watched.
   Ptr< E const > notifier() const { return static_cast< E const * >( this->notifierPtr().get() ); }

   // Watches this object from now on, and is told of its changes: attaches, registers, and switches
   // notifications on. Can be said in a constructor. What the object is like already is not told:
   // whoever needs it looks.
   //
   // Another object takes the place of the one before, and what was queued for that is dropped;
   // null stops, in the same way. For the object that is watched already it makes good what was
   // missing of the three, and drops nothing.
   //
   // The reactor belongs in a Ptr, which somebody keeps: it is told of nothing once that is gone.
   // newReactor() gives it out in one. Nothing refuses a reactor on the stack or as a member of
   // another object, and it is told as long as it lives; but its own callback may not destroy it,
   // and no Ptr may ever refer to it: that would destroy it with the last one. It holds the object.
   //
   // Of a collection override on<Attribute>( key ): it is called for each member that changes. It
   // hides on<Attribute>() of that name, which does no harm, since callbacks are called through the
   // base; -Woverloaded-virtual of the compiler tells of it, and `using NotifieeConst::onX;` beside
   // the override says that it is meant. Say override: it is what makes the compiler compare the
   // signature.
   //
   // Throws std::bad_alloc, for a timer (Clock) only; nothing is watched then. Cost: some stores.
   //
   // Not for the reactors that a state machine makes: they are switched on and off with their
   // owner, and switched on too early they would be told before the owner is complete. Not on a
   // state machine itself either. Those are made of the templates in Reactor.h.
   void watch( Ptr< E const > const & object ) { this->watchObject( object ); }
   void notifierIs( Ptr< PtrInterface const > const & object ) override {
      // Most are an E and nothing further, which a look at the type tells.
      PtrInterface const * const o = object.get();
      if( o && typeid( *o ) != typeid( E ) && !dynamic_cast< E const * >( o ) )
         this->throwOtherType( *o );
      // Base would look at the type again, for one that E is derived from.
      PtrInterface::NotifieeConst::notifierIs( object );
   }

 protected:
   NotifieeOf() {
      this->flagIs( PtrInterface::hearsEntity, true );
      this->flagIs( PtrInterface::hearsOwn, true );
   }
};

// The same for a reactor that writes what it watches: Base is E's NotifieeConst.
template< class E, class Base >
class WritingNotifieeOf : public Base {
 public:
   Ptr< E > notifier() const { return const_cast< E * >( Base::notifier().get() ); }
   // As NotifieeOf has it, but not for an object that may only be read.
   void watch( Ptr< E > const & object ) { Base::watch( object ); }
   using Base::notifierIs;
   void notifierIs( Ptr< E > const & object ) {
      this->notifierIs( Ptr< PtrInterface const >( object ) );
   }
};

// While it lives, reactors are switched on together: what is pending for them is queued in the
// order in which it was asked for, as if they had never been off. For what switches several on, as
// a state machine does with those that it owns (Reactor.h has it). Objects of this kind nest. Needs
// no memory.
class KIV_EXPORT InOrder {
 public:
   InOrder();
   ~InOrder();
   InOrder( InOrder const & ) = delete;
   InOrder & operator=( InOrder const & ) = delete;
};

} // namespace Kiv
