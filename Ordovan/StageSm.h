// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// An active stage and its events.
#pragma once

#include <Index/Completion.h>
#include <Kiv/Kiv.h>
#include <Ordovan/Export.h>
#include <Ordovan/LogSm.h>
#include <Stage/EventConfig.h>
#include <Stage/StageStatus.h>

#include <utility>

namespace Stage {

class StatusSm;

// Tracks one active stage of one application: mirrors the stage's events, keeps the set of those
// that are not complete (the pending events), and declares the stage complete when that set is
// empty, or when the stage's time is up and the stage is not critical.
//
// Owned by its StatusSm from the stage's activation on, also after the stage is complete and if it
// leaves the active stages. Reads its stage and never writes it. Others may watch it through
// StageSm::NotifieeConst.
//
//   constructed -> initialised -+-> complete                                (timedOut false)
//                               +-> timed out and complete     (not critical) -> complete again
//                               +-> timed out, suspended          (critical)  -> complete
class ORDOVAN_EXPORT StageSm
   : public Kiv::OwnedReactor< StageStatus::NotifieeConst, StatusSm, Kiv::Name, StageSm > {
 public:
   // Watches a StageSm.
   class ORDOVAN_EXPORT NotifieeConst
      : public Kiv::NotifieeOf< StageSm, Kiv::PtrInterface::NotifieeConst > {
    public:
      virtual void onComplete();
      virtual void onTimedOut() {}
      virtual void onCompletionTime() {}
      virtual void onPendingEvent( [[maybe_unused]] Kiv::String8 uid ) {}
      virtual void onPendingEventkivImmediate() {}
      virtual void onPendingEvent() {}
      virtual void onEvent( [[maybe_unused]] Kiv::String8 agent ) {}
      virtual void onEventkivImmediate() {}
      virtual void onEvent() {}
      virtual void onStageUncompleted() {}
      virtual void onInitialized() {}

      // The names above, for newReactor().
      template< class R, class Form >
      static constexpr bool kivCallbacks[] = {
         ( requires { Form()( &R::onComplete, &NotifieeConst::onComplete ); } ),
         ( requires { Form()( &R::onTimedOut, &NotifieeConst::onTimedOut ); } ),
         ( requires { Form()( &R::onCompletionTime, &NotifieeConst::onCompletionTime ); } ),
         ( requires { Form()( &R::onPendingEvent, &NotifieeConst::onPendingEvent ); } ),
         ( requires {
            Form()( &R::onPendingEventkivImmediate, &NotifieeConst::onPendingEventkivImmediate );
         } ),
         ( requires { Form()( &R::onEvent, &NotifieeConst::onEvent ); } ),
         ( requires { Form()( &R::onEventkivImmediate, &NotifieeConst::onEventkivImmediate ); } ),
         ( requires { Form()( &R::onStageUncompleted, &NotifieeConst::onStageUncompleted ); } ),
         ( requires { Form()( &R::onInitialized, &NotifieeConst::onInitialized ); } ),
      };
   };

   // Watches one event of the stage.
   class ORDOVAN_EXPORT KivEvent
      : public Kiv::OwnedReactor< EventConfig::NotifieeConst, StageSm, Kiv::String8 > {
    public:
      // Runs handleComplete(). The key is the agent's name.
      KivEvent( Kiv::Ptr< EventConfig const > const & event, Kiv::String8 const & key,
                StageSm * stageSm );
      Kiv::KivType const & fwkType() const override { return _fwkType(); }
      static Kiv::KivType const & _fwkType();
      StageSm * stageSm() const { return owner(); }
      Kiv::Ptr< EventConfig const > event() const { return notifier(); }
      // Runs handleComplete(), unless null or marked for deletion.
      void notifierIs( Kiv::Ptr< Kiv::PtrInterface const > const & event ) override;
      void onComplete() override { react( &KivEvent::handleComplete ); }

      void handleComplete();
   };

   // An event that is not complete yet.
   class ORDOVAN_EXPORT KivPendingEvent : public Kiv::PtrInterface {
    public:
      explicit KivPendingEvent( Kiv::Ptr< EventConfig const > const & event ) : event_( event ) {}
      Kiv::KivType const & fwkType() const override { return _fwkType(); }
      static Kiv::KivType const & _fwkType();
      Kiv::Ptr< EventConfig const > pendingEvent() const { return event_; }
      void pendingEventIs( Kiv::Ptr< EventConfig const > const & event ) { event_ = event; }

    private:
      Kiv::Ptr< EventConfig const > event_;
   };

   // The slow-stage timer.
   class ORDOVAN_EXPORT KivStageUncompleted
      : public Kiv::OwnedReactor< Kiv::Clock::NotifieeConst, StageSm > {
    public:
      using OwnedReactor::OwnedReactor;
      Kiv::KivType const & fwkType() const override { return _fwkType(); }
      static Kiv::KivType const & _fwkType();
      StageSm * stageSm() const { return owner(); }
      void stageSmIs( StageSm * stageSm ) { ownerIs( stageSm ); }
      void onTime() override;
   };

   using PendingEventMap = Kiv::HashMap< KivPendingEvent, Kiv::String8 >;
   using PendingEventIterator = Kiv::OwnedIterator< PendingEventMap, StageSm >;
   using PendingEventIteratorConst = Kiv::OwnedIterator< PendingEventMap, StageSm const >;
   using KivPendingEventIterator = PendingEventIterator;
   using KivPendingEventIteratorConst = PendingEventIteratorConst;
   using EventMap = Kiv::HashMap< KivEvent, Kiv::String8 >;
   using EventIterator = Kiv::OwnedIterator< EventMap, StageSm >;
   using EventIteratorConst = Kiv::OwnedIterator< EventMap, StageSm const >;
   using KivEventIterator = EventIterator;
   using KivEventIteratorConst = EventIteratorConst;

   // Catches up with the stage's events; may complete the stage at once. A range exception for a
   // null stage, logSm or mainSm. mainSm is not held: it lets go of each of its own before it goes,
   // after which nothing is handled any more.
   StageSm( Kiv::Ptr< StageStatus const > const & stage, Kiv::Ptr< LogSm > const & logSm,
            StatusSm * mainSm );
   Kiv::KivType const & fwkType() const override { return _fwkType(); }
   ~StageSm() override;
   // Mirrors the events of another stage; does not run handleInitialized().
   void notifierIs( Kiv::Ptr< Kiv::PtrInterface const > const & stage ) override;
   void onEvent( Kiv::String8 agentName ) override;
   void onEventkivImmediate() override;
   void onEvent() override { onEventkivImmediate(); }

   static Kiv::KivType const & _fwkType();

   Kiv::Ptr< StageStatus const > stage() const { return notifier(); }
   Kiv::Ptr< LogSm > logSm() const { return logSm_; }
   // Null once the StatusSm has let go of this: then it does not react any more.
   StatusSm * mainSm() const { return owner(); }

   // The stage is complete. Never taken back.
   bool complete() const { return complete_.value(); }
   void completeIs( bool complete );
   // The timer fired before the stage was complete. Never taken back.
   bool timedOut() const { return timedOut_.value(); }
   void timedOutIs( bool timedOut );
   // When the stage was last declared complete, in seconds as Kiv::now(); 0 before.
   double completionTime() const { return completionTime_.value(); }
   void completionTimeIs( double const & seconds );
   // The initial pass is over.
   bool initialized() const { return initialized_.value(); }
   void initializedIs( bool initialized );

   // ---- the events that are not complete, by uid (stage name, ":", agent name)

   Kiv::Ptr< KivPendingEvent > pendingEvent( Kiv::String8 const & uid ) const {
      return pendingEvent_.member( uid );
   }
   std::uint32_t pendingEvents() const { return pendingEvent_.size(); }
   PendingEventIterator pendingEventIterator() { return { this, pendingEvent_ }; }
   PendingEventIteratorConst pendingEventIteratorConst() const { return { this, pendingEvent_ }; }
   // Each changes the collection, runs handlePendingEvent( uid ), then tells the observers; for
   // an event that is held already, or an absent uid, it does nothing.
   void pendingEventIs( Kiv::Ptr< EventConfig const > const & event );
   void pendingEventDel( Kiv::String8 const & uid );
   void pendingEventDelAll();
   Kiv::Ptr< KivPendingEvent > newPendingEvent( Kiv::Ptr< EventConfig const > const & event ) {
      return new KivPendingEvent( event );
   }
   // Tells the observers of a member that has come, changed or, null, gone. They look it up.
   void pendingEventNotify( Kiv::String8 const & uid,
                            Kiv::Ptr< KivPendingEvent > const & pendingEvent );

   // ---- one reactor per event, by agent name

   Kiv::Ptr< KivEvent > event( Kiv::String8 const & agent ) const { return event_.member( agent ); }
   std::uint32_t events() const { return event_.size(); }
   EventIterator eventIterator() { return { this, event_ }; }
   EventIteratorConst eventIteratorConst() const { return { this, event_ }; }
   // Makes the reactor, or re-attaches the one there is. A range exception for null.
   Kiv::Ptr< KivEvent > eventIs( Kiv::String8 const & agentName,
                                 Kiv::Ptr< EventConfig const > const & event );
   void eventDel( Kiv::String8 const & agentName );
   void eventDelAll() { event_.memberDelAll( *this, &StageSm::eventDel ); }
   Kiv::Ptr< KivEvent > newEvent( Kiv::String8 const & agentName,
                                  Kiv::Ptr< EventConfig const > const & event ) {
      return Kiv::newOwned< KivEvent >( *this, Kiv::valid( event ), agentName );
   }
   // Tells the observers of a member that has come, changed or, null, gone. They look it up.
   void eventNotify( Kiv::String8 const & agentName, Kiv::Ptr< KivEvent > const & event );

   // ---- the slow-stage timer, null when there is none

   Kiv::Ptr< KivStageUncompleted > stageUncompleted() const { return stageUncompleted_.reactor(); }
   void stageUncompletedIs( Kiv::Ptr< Kiv::Clock const > const & clock );
   void stageUncompletedDel();
   Kiv::Ptr< KivStageUncompleted >
   newStageUncompleted( Kiv::Ptr< Kiv::Clock const > const & clock ) {
      return Kiv::newOwned< KivStageUncompleted >( *this, Kiv::valid( clock ) );
   }

   // ---- handlers. One that has lost its stage or its owner does not react.

   void handleInitialized();
   void handleEventDel( Kiv::String8 agentName );
   void handlePendingEvent( Kiv::String8 uid );
   // The completion check.
   void handlePendingEvent();
   // The stage's time is up.
   void handleStageUncompleted();

 private:
   friend class StatusSm;
   friend Machine;

   auto owned() { return Kiv::inOrder( stageUncompleted_, event_ ); }
   // Keep its owner and itself while something passes through code of others, the sink of log
   // messages, which may let go of them all.
   using Kept = std::pair< Kiv::Ptr< StatusSm >, Kiv::Ptr< StageSm > >;
   Kept keep();
   void mirrorEvents();
   void catchUp();
   void pendingEventChanged( Kiv::String8 const & uid );
   void tellUntold();

   Kiv::Ptr< LogSm > logSm_;
   Kiv::Scalar< double > completionTime_;
   PendingEventMap pendingEvent_;
   Kiv::OwnedByKey< KivEvent, Kiv::String8 > event_;
   Kiv::Owned< KivStageUncompleted > stageUncompleted_;
   Kiv::String8 untold_; // a pending event whose change was not reacted to
   Kiv::Scalar< bool > complete_;
   Kiv::Scalar< bool > timedOut_;
   Kiv::Scalar< bool > initialized_;
   bool progressOwed_ = false; // the owner has not recorded the stage in its progress
   Completion completion_;     // for its owner's candidates
};

} // namespace Stage
