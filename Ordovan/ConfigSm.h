// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Aggregation: all agents' declarations become one status per stage.
#pragma once

#include <Index/DependentsLink.h>
#include <Kiv/Kiv.h>
#include <Ordovan/Export.h>
#include <Stage/Stage.h>

namespace Stage {

// Watches the directory of agents and everything in it, and writes Stage::Status: a stage for
// every stage name that an agent declares an event for, with the stage's events by agent, the
// union of their dependencies, the largest of their timeouts, and whether it is critical.
//
// Made with new and owned by whoever holds a Ptr to it, as the manager does (Manager.h). Reacts
// while its notifications are active; the factories turn them on. What it wrote stays when it goes.
//
// Errors: a range exception for a null status or directory ("null ValidPtr"). One ConfigSm writes
// one Status: two over the same Status would undo each other's work.
//
// Invariants, whenever the activity is idle:
//  1. A stage's events are those that agents in the directory declare for it. (An event or agent
//     object that was replaced by another in one go stays until it is withdrawn; an event that
//     stood in the status before this ConfigSm, of an agent that it never met, stays.)
//  2. A stage's dependencies are exactly those that one of its events has with value true.
//  3. A stage is critical exactly while it has a critical event or a critical ancestor; A is an
//     ancestor of B exactly while A is critical and depends on B.
//  4. A stage's timeout is the largest of its events', narrowed to single precision (a removal
//     recomputes it only when the event's timeout was exactly the stage's).
class ORDOVAN_EXPORT ConfigSm : public Kiv::Machine< Config::NotifieeConst, ConfigSm > {
 public:
   // Watches the directory of agents.
   class ORDOVAN_EXPORT KivAgentDir
      : public Kiv::OwnedReactor< Kiv::Dir::NotifieeConst, ConfigSm > {
    public:
      using OwnedReactor::OwnedReactor;
      ConfigSm * configSm() const { return owner(); }
      void onEntityPtr( Kiv::Name agent ) override { react( &ConfigSm::handleAgent, agent ); }
      void onEntityPtrkivImmediate() override { react( &ConfigSm::handleAgent ); }
      void onEntityPtr() override { onEntityPtrkivImmediate(); }
   };

   // Watches one agent's declarations. Its key is the agent's name.
   class ORDOVAN_EXPORT KivAgentConfig
      : public Kiv::OwnedReactor< AgentConfig::NotifieeConst, ConfigSm, Kiv::Name > {
    public:
      // Runs handleEvent().
      KivAgentConfig( Kiv::Ptr< AgentConfig const > const & agent, ConfigSm * configSm );
      Kiv::KivType const & fwkType() const override { return _fwkType(); }
      static Kiv::KivType const & _fwkType();
      ConfigSm * configSm() const { return owner(); }
      // Runs handleEvent(), also for null, unless marked for deletion.
      void notifierIs( Kiv::Ptr< Kiv::PtrInterface const > const & agent ) override {
         attachAndReact( agent, [ this ] { handleEvent(); } );
      }
      void onEvent( Kiv::Name stage ) override { react( &KivAgentConfig::handleEvent, stage ); }
      void onEventkivImmediate() override { react( &KivAgentConfig::handleEvent ); }
      void onEvent() override { onEventkivImmediate(); }

      // Brings all stages into line with what the agent declares, unless its owner is gone.
      void handleEvent();
      // The same for one stage.
      void handleEvent( Kiv::Name stageName );

    private:
      void handleHeldEvents();
   };

   // Watches the stages of the status.
   class ORDOVAN_EXPORT KivStatus : public Kiv::OwnedReactor< Status::Notifiee, ConfigSm > {
    public:
      using OwnedReactor::OwnedReactor;
      ConfigSm * configSm() const { return owner(); }
      void onStage( Kiv::Name stage ) override;
      void onStagekivImmediate() override { react( &ConfigSm::reconcileStages ); }
      void onStage() override { onStagekivImmediate(); }
   };

   // Watches one stage, and works out its dependencies, critical flag and timeout.
   class ORDOVAN_EXPORT KivStageStatus
      : public Kiv::OwnedReactor< StageStatus::Notifiee, ConfigSm, Kiv::Name, KivStageStatus > {
    public:
      // Watches one event of the stage. Its key is the agent's name.
      class ORDOVAN_EXPORT KivEventConfig
         : public Kiv::OwnedReactor< EventConfig::NotifieeConst, KivStageStatus, Kiv::String8 > {
       public:
         // Runs handleDependency(), handleTimeout() and handleCritical(), in this order.
         KivEventConfig( Kiv::Ptr< EventConfig const > const & event,
                         KivStageStatus * kivStageStatus );
         Kiv::KivType const & fwkType() const override { return _fwkType(); }
         static Kiv::KivType const & _fwkType();
         KivStageStatus * kivStageStatus() const { return owner(); }
         // Runs the same three, unless null or marked for deletion.
         void notifierIs( Kiv::Ptr< Kiv::PtrInterface const > const & event ) override;
         void onDependency( Kiv::String8 stage ) override {
            react( &KivEventConfig::handleDependency, stage );
         }
         void onDependencykivImmediate() override { react( &KivEventConfig::handleDependency ); }
         void onDependency() override { onDependencykivImmediate(); }
         void onTimeout() override { react( &KivEventConfig::handleTimeout ); }
         void onCritical() override { react( &KivEventConfig::handleCritical ); }

         // ---- handlers. One that watches no event or has lost its stage does not react.

         void handleDependency();
         void handleDependency( Kiv::String8 name );
         void handleTimeout();
         void handleCritical();

       private:
         bool reacts() const { return notifierPtr() && owner() && owner()->reacts(); }
         void handleAll();
      };

      // A critical stage that depends on this one.
      class ORDOVAN_EXPORT KivCriticalAncestor : public Kiv::PtrInterface {
       public:
         KivCriticalAncestor( Kiv::String8 const & name, bool value )
            : name_( name ), value_( value ) {}
         Kiv::String8 fwkKey() const { return name_; }
         bool criticalAncestor() const { return value_; }
         void criticalAncestorIs( bool value ) { value_ = value; }

       private:
         Kiv::String8 const name_;
         bool value_;
      };

      using EventConfigMap = Kiv::HashMap< KivEventConfig, Kiv::String8 >;
      using EventConfigIterator = Kiv::OwnedIterator< EventConfigMap, KivStageStatus >;
      using EventConfigIteratorConst = Kiv::OwnedIterator< EventConfigMap, KivStageStatus const >;
      using KivEventConfigIterator = EventConfigIterator;
      using KivEventConfigIteratorConst = EventConfigIteratorConst;
      using CriticalAncestorMap = Kiv::HashMap< KivCriticalAncestor, Kiv::String8 >;
      using CriticalAncestorIterator = Kiv::OwnedIterator< CriticalAncestorMap, KivStageStatus >;
      using CriticalAncestorIteratorConst =
         Kiv::OwnedIterator< CriticalAncestorMap, KivStageStatus const >;
      using KivCriticalAncestorIterator = CriticalAncestorIterator;
      using KivCriticalAncestorIteratorConst = CriticalAncestorIteratorConst;

      // Makes a reactor for every event that the stage has, then runs handleCritical().
      KivStageStatus( Kiv::Ptr< StageStatus > const & stage, ConfigSm * configSm );
      ~KivStageStatus() override;
      Kiv::KivType const & fwkType() const override { return _fwkType(); }
      static Kiv::KivType const & _fwkType();
      ConfigSm * configSm() const { return owner(); }
      Kiv::Ptr< StageStatus > stage() const { return notifier(); }
      using StageStatus::Notifiee::notifierIs;
      // Brings the event reactors into line and runs handleCritical(), unless null or marked.
      void notifierIs( Kiv::Ptr< Kiv::PtrInterface const > const & stage ) override;
      void onDependency( Kiv::String8 stage ) override {
         react( &KivStageStatus::handleDependency, stage );
      }
      void onDependencykivImmediate() override;
      void onDependency() override { onDependencykivImmediate(); }
      void onEvent( Kiv::String8 agent ) override;
      void onEventkivImmediate() override { react( &KivStageStatus::reconcileEvents ); }
      void onEvent() override { onEventkivImmediate(); }

      // ---- one reactor per event, by agent name

      Kiv::Ptr< KivEventConfig > eventConfig( Kiv::String8 const & agent ) const {
         return eventConfig_.member( agent );
      }
      std::uint32_t eventConfigs() const { return eventConfig_.size(); }
      EventConfigIterator eventConfigIterator() { return { this, eventConfig_ }; }
      EventConfigIteratorConst eventConfigIteratorConst() const { return { this, eventConfig_ }; }
      // Makes the reactor, or re-attaches the one there is. Null is refused with a range exception.
      Kiv::Ptr< KivEventConfig > eventConfigIs( Kiv::Ptr< EventConfig const > const & event );
      void eventConfigDel( Kiv::String8 const & agent ) { eventConfig_.memberDel( agent ); }
      void eventConfigDelAll() { eventConfig_.memberDelAll(); }
      Kiv::Ptr< KivEventConfig > newEventConfig( Kiv::Ptr< EventConfig const > const & event ) {
         return Kiv::newOwned< KivEventConfig >( *this, event );
      }

      // ---- the critical stages that depend on this one, by stage name

      // False when absent.
      bool criticalAncestor( Kiv::String8 const & name ) const;
      bool hasCriticalAncestor( Kiv::String8 const & name ) const {
         return criticalAncestor_.has( name );
      }
      std::uint32_t criticalAncestors() const { return criticalAncestor_.size(); }
      CriticalAncestorIterator criticalAncestorIterator() { return { this, criticalAncestor_ }; }
      CriticalAncestorIteratorConst criticalAncestorIteratorConst() const {
         return { this, criticalAncestor_ };
      }
      // Makes the entry or sets its value, then runs handleCritical( name ); nothing for an entry
      // that holds the value.
      void criticalAncestorIs( Kiv::String8 const & name, bool value );
      // Removes the entry, then runs handleCritical( name ); nothing when there is none.
      void criticalAncestorDel( Kiv::String8 const & name );
      void criticalAncestorDelAll();
      // Tells of an entry that has come, changed or, null, gone: runs handleCritical( name ).
      void criticalAncestorNotify( Kiv::String8 const & name,
                                   Kiv::Ptr< KivCriticalAncestor > const & ) {
         handleCritical( name );
      }
      Kiv::Ptr< KivCriticalAncestor > newCriticalAncestor( Kiv::String8 const & name, bool value ) {
         return new KivCriticalAncestor( name, value );
      }

      // For its reactors.
      void reactionBegins() {
         if( configSm() )
            configSm()->reactionBegins();
      }

      // ---- handlers. One that watches no stage any more, or has lost its owner, does not react.

      // The stage's own dependency on `name` changed, or stage `name` appeared: makes or removes
      // the link to it.
      void handleDependency( Kiv::String8 name );
      // Some event lost its dependency on `name`: removes the stage's unless another event has it.
      void handleDependencyDel( Kiv::String8 name );
      // Removes the agent's event from the stage, with what only that event brought.
      void handleEventDel( Kiv::String8 agentName );
      // Stage `name` has appeared in the status, or changed.
      void handleStage( Kiv::String8 name );
      // An ancestor came, changed or went.
      void handleCritical( Kiv::String8 name );
      // Decides the stage's flag, writes it and pushes it to the stages that this one depends on.
      void handleCritical();
      // Recomputes the stage's timeout.
      void handleTimeout();

    private:
      friend class ConfigSm;
      friend Machine;

      auto owned() { return Kiv::inOrder( eventConfig_ ); }
      bool reacts() const { return notifierPtr() && owner(); }
      struct CriticalFrame;
      Kiv::Ptr< KivStageStatus > pushCritical( CriticalFrame & frame ) const;
      bool decideCritical() const;
      void writeCritical( bool critical );
      bool criticalAncestorSet( Kiv::String8 const & name, bool value );
      bool criticalAncestorErase( Kiv::String8 const & name ) {
         return criticalAncestor_.memberDel( name );
      }
      void reconcileEvents();
      void link() noexcept {
         if( configSm() )
            link_.stageIs( stage(), configSm()->dependents_ );
      }
      void dropFormerAncestors();
      void withdrawLinks( Kiv::Ptr< StageStatus > const & before );
      void eventHasLeft( Kiv::Ptr< EventConfig const > const & event, bool setTimeout );

      // What an exception has kept this from doing, and what does it.
      void leftIs( Kiv::Ptr< EventConfig const > const & event, bool setTimeout );
      void undecidedIs();
      void settle();

      Kiv::OwnedByKey< KivEventConfig, Kiv::String8 > eventConfig_;
      CriticalAncestorMap criticalAncestor_;
      DependentsLink link_;
      Kiv::Ptr< EventConfig const > left_; // an event that left, and may have left things behind
      bool leftSetTimeout_ = false;
      bool undecided_ = false; // handleCritical() has to run, and push on
   };

   using AgentConfigMap = Kiv::HashMap< KivAgentConfig, Kiv::Name >;
   using AgentConfigIterator = Kiv::OwnedIterator< AgentConfigMap, ConfigSm >;
   using AgentConfigIteratorConst = Kiv::OwnedIterator< AgentConfigMap, ConfigSm const >;
   using KivAgentConfigIterator = AgentConfigIterator;
   using KivAgentConfigIteratorConst = AgentConfigIteratorConst;
   using StageStatusMap = Kiv::HashMap< KivStageStatus, Kiv::Name >;
   using StageStatusIterator = Kiv::OwnedIterator< StageStatusMap, ConfigSm >;
   using StageStatusIteratorConst = Kiv::OwnedIterator< StageStatusMap, ConfigSm const >;
   using KivStageStatusIterator = StageStatusIterator;
   using KivStageStatusIteratorConst = StageStatusIteratorConst;

   // Catches up with the agents and stages that are there. Notifications are off until
   // hasNotificationActiveIs( true ).
   ConfigSm( Kiv::Ptr< Config const > const & config, Kiv::Ptr< Status > const & status,
             Kiv::Ptr< Kiv::Dir const > const & agentDir );
   ~ConfigSm() override;

   Kiv::KivType const & fwkType() const override { return _fwkType(); }
   static Kiv::KivType const & _fwkType();
   // Attaches to another configuration, null for none.
   void notifierIs( Kiv::Ptr< Kiv::PtrInterface const > const & config ) override;

   Kiv::Ptr< Config const > config() const { return notifier(); }
   Kiv::Ptr< Status > status() const { return status_->notifier(); }
   Kiv::Ptr< Kiv::Dir const > agentDir() const { return agentDir_->notifier(); }

   // ---- one reactor per agent, by agent name

   Kiv::Ptr< KivAgentConfig > agentConfig( Kiv::Name const & agent ) const {
      return agentConfig_.member( agent );
   }
   std::uint32_t agentConfigs() const { return agentConfig_.size(); }
   AgentConfigIterator agentConfigIterator() { return { this, agentConfig_ }; }
   AgentConfigIteratorConst agentConfigIteratorConst() const { return { this, agentConfig_ }; }
   // Makes the reactor, or re-attaches the one there is. Null is refused with a range exception.
   Kiv::Ptr< KivAgentConfig > agentConfigIs( Kiv::Ptr< AgentConfig const > const & agent );
   // The agent's events leave their stages, except those that its entry in the directory, if it is
   // still there, declares; and unless this ConfigSm is being torn down.
   void agentConfigDel( Kiv::Name const & agent );
   void agentConfigDelAll() { agentConfig_.memberDelAll( *this, &ConfigSm::agentConfigDel ); }

   // ---- one reactor per stage, by stage name

   Kiv::Ptr< KivStageStatus > stageStatus( Kiv::Name const & stage ) const {
      return stageStatus_.member( stage );
   }
   std::uint32_t stageStatuss() const { return stageStatus_.size(); }
   StageStatusIterator stageStatusIterator() { return { this, stageStatus_ }; }
   StageStatusIteratorConst stageStatusIteratorConst() const { return { this, stageStatus_ }; }
   // Makes the reactor, or re-attaches the one there is. Null is refused with a range exception.
   Kiv::Ptr< KivStageStatus > stageStatusIs( Kiv::Ptr< StageStatus > const & stage );
   // The stage ceases to be a critical ancestor, unless this ConfigSm is being torn down.
   void stageStatusDel( Kiv::Name const & stage );
   void stageStatusDelAll() { stageStatus_.memberDelAll( *this, &ConfigSm::stageStatusDel ); }

   // Make a reactor without storing it.
   Kiv::Ptr< KivAgentDir > newAgentDir( Kiv::Ptr< Kiv::Dir const > const & dir ) {
      return Kiv::newOwned< KivAgentDir >( *this, Kiv::valid( dir ) );
   }
   Kiv::Ptr< KivStatus > newStatus( Kiv::Ptr< Status > const & status ) {
      return Kiv::newOwned< KivStatus >( *this, Kiv::valid( status ) );
   }
   Kiv::Ptr< KivAgentConfig > newAgentConfig( Kiv::Ptr< AgentConfig const > const & agent ) {
      return Kiv::newOwned< KivAgentConfig >( *this, agent );
   }
   Kiv::Ptr< KivStageStatus > newStageStatus( Kiv::Ptr< StageStatus > const & stage ) {
      return Kiv::newOwned< KivStageStatus >( *this, stage );
   }

   // For its reactors: does what callbacks that were cut short have left undone.
   void reactionBegins();

   // ---- handlers

   // Brings the agent reactors into line with the directory.
   void handleAgent();
   // The same for one name.
   void handleAgent( Kiv::Name agentName );
   // Stage `name` has appeared in the status, or changed: tells every stage.
   void handleStage( Kiv::Name name );

 private:
   // The agent's entry in the directory, null if there is none of that type.
   Kiv::Ptr< AgentConfig > agentEntry( Kiv::Name const & agent ) const;
   void reconcileStages();
   void compareDependents( Kiv::Name const & name );
   void withdrawLinks( Kiv::String8 const & name, Kiv::Ptr< StageStatus > const & present );
   friend Machine;
   auto owned() { return Kiv::inOrder( status_, agentDir_, agentConfig_, stageStatus_ ); }

   Kiv::Ptr< Dependents > const dependents_;
   Kiv::Owned< KivStatus > status_;
   Kiv::Owned< KivAgentDir > agentDir_;
   Kiv::OwnedByKey< KivAgentConfig, Kiv::Name > agentConfig_;
   Kiv::OwnedByKey< KivStageStatus, Kiv::Name > stageStatus_;
   bool unsettled_ = false; // some stage owes something
};

// Makes a ConfigSm without a manager, with its notifications on.
ORDOVAN_EXPORT Kiv::Ptr< ConfigSm > configSmFactory( Kiv::Ptr< Config const > const & config,
                                                     Kiv::Ptr< Status > const & status,
                                                     Kiv::Ptr< Kiv::Dir const > const & agentDir );

} // namespace Stage
