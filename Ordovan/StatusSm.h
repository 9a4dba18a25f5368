// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Progression: one application is walked through the stages.
#pragma once

#include <Kiv/Kiv.h>
#include <Ordovan/Export.h>
#include <Ordovan/LogSm.h>
#include <Ordovan/StageEnableSm.h>
#include <Ordovan/StageSm.h>
#include <Stage/Stage.h>

#include <memory>

namespace Stage {

class Candidates;

// Waits for the configuration to be enabled, activates stages whose dependencies are active and
// complete (critical stages first), and records progression as complete when every stage is.
//
//    constructed -> initialised -> enabled -> stages activated and complete, one by one -> complete
//
// Per stage: a StageEnableSm while it waits, then a StageSm from its activation on. Progression is
// not restarted: once any of these exists, a further change of `enabled` makes none. Made over a
// status that already has active stages, it waits.
//
// Made with new and owned by whoever holds a Ptr to it, as the manager does (Manager.h). Its
// children point back to it without holding it and go with it.
class ORDOVAN_EXPORT StatusSm : public Kiv::Machine< Kiv::PtrInterface, StatusSm > {
 public:
   // Watches the configuration.
   class ORDOVAN_EXPORT KivConfig : public Kiv::OwnedReactor< Config::NotifieeConst, StatusSm > {
    public:
      using OwnedReactor::OwnedReactor;
      StatusSm * statusSm() const { return owner(); }
      void onEnabled() override { react( &StatusSm::handleEnabled ); }
   };

   // Watches the status.
   class ORDOVAN_EXPORT KivStatus : public Kiv::OwnedReactor< Status::Notifiee, StatusSm > {
    public:
      using OwnedReactor::OwnedReactor;
      StatusSm * statusSm() const { return owner(); }
      void onActiveStage( Kiv::Name name ) override { react( &StatusSm::handleActiveStage, name ); }
      // Nothing: every stage is told by name.
      void onActiveStagekivImmediate() override {}
      void onActiveStage() override { react( &StatusSm::handleActiveStage ); }
   };

   // The timer that runs the decision after the handler that asked for it has returned.
   class ORDOVAN_EXPORT KivRecalculateNextStage
      : public Kiv::OwnedReactor< Kiv::Clock::NotifieeConst, StatusSm > {
    public:
      using OwnedReactor::OwnedReactor;
      Kiv::KivType const & fwkType() const override { return _fwkType(); }
      static Kiv::KivType const & _fwkType();
      StatusSm * statusSm() const { return owner(); }
      void onTime() override { react( &StatusSm::handleNextStage ); }
   };

   void stageEnableSmDel( Kiv::Name const & name ) { stageEnableSm_.memberDel( name ); }
   void stageSmDel( Kiv::Name const & name );
   using StageEnableSmMap = Kiv::HashMap< StageEnableSm, Kiv::Name >;
   using StageEnableSmIteratorConst = Kiv::OwnedIterator< StageEnableSmMap, StatusSm const >;
   using StageSmMap = Kiv::HashMap< StageSm, Kiv::Name >;
   using StageSmIteratorConst = Kiv::OwnedIterator< StageSmMap, StatusSm const >;
   using StageEnableSmIterator =
      Kiv::DeletingIterator< StageEnableSmMap, StatusSm, &StatusSm::stageEnableSmDel >;
   using StageSmIterator = Kiv::DeletingIterator< StageSmMap, StatusSm, &StatusSm::stageSmDel >;

   // Initialises itself, and starts progression when the configuration is enabled: both before the
   // constructor returns. Notifications are off until hasNotificationActiveIs( true ). A range
   // exception without a configuration, status, or log that it has to write to.
   StatusSm( Kiv::String8 const & application, Kiv::Ptr< Config const > const & config,
             Kiv::Ptr< Status > const & status, Kiv::Ptr< Progress > const & progress,
             Kiv::Ptr< Log > const & log );
   Kiv::KivType const & fwkType() const override { return _fwkType(); }
   // Its children point to it no more, its LogSm, the waiting and the active stages go, then the
   // timer and what watches the status and the configuration, in this order.
   ~StatusSm() override;

   static Kiv::KivType const & _fwkType();

   // The name of the application whose progression this is. Fixed.
   Kiv::String8 application() const { return application_; }

   Kiv::Ptr< Config const > config() const { return config_.notifier(); }
   Kiv::Ptr< KivConfig > kivConfig() const { return config_.reactor(); }
   void configIs( Kiv::Ptr< Config const > const & config ) {
      config_.notifierIs( config, [ & ] { return newConfig( config ); } );
   }
   void configDel() { config_.del(); }
   Kiv::Ptr< KivConfig > newConfig( Kiv::Ptr< Config const > const & config ) {
      return Kiv::newOwned< KivConfig >( *this, config );
   }

   Kiv::Ptr< Status > status() const { return status_.notifier(); }
   Kiv::Ptr< KivStatus > kivStatus() const { return status_.reactor(); }
   void statusIs( Kiv::Ptr< Status > const & status ) {
      status_.notifierIs( status, [ & ] { return newStatus( status ); } );
   }
   void statusDel() { status_.del(); }
   Kiv::Ptr< KivStatus > newStatus( Kiv::Ptr< Status > const & status ) {
      return Kiv::newOwned< KivStatus >( *this, status );
   }

   Kiv::Ptr< Progress > progress() const { return progress_; }
   Kiv::Ptr< Log > log() const { return log_; }

   // Made at initialisation over `log`; null before.
   Kiv::Ptr< LogSm > logSm() const { return logSm_; }
   void logSmIs( Kiv::Ptr< Log > const & log );
   void logSmDel() { logSm_ = nullptr; }
   Kiv::Ptr< LogSm > newLogSm( Kiv::Ptr< Log > const & log );

   // ---- stages that wait, by name; null when absent

   Kiv::Ptr< StageEnableSm > stageEnableSm( Kiv::Name const & name ) const {
      return stageEnableSm_.member( name );
   }
   std::uint32_t stageEnableSms() const { return stageEnableSm_.size(); }
   StageEnableSmIterator stageEnableSmIterator() { return { this, stageEnableSm_ }; }
   StageEnableSmIteratorConst stageEnableSmIteratorConst() const {
      return { this, stageEnableSm_ };
   }
   // Makes one, or re-attaches the one there is.
   Kiv::Ptr< StageEnableSm > stageEnableSmIs( Kiv::Ptr< StageStatus const > const & stageStatus );
   Kiv::Ptr< StageEnableSm > newStageEnableSm( Kiv::Ptr< StageStatus const > const & stageStatus );
   void stageEnableSmDelAll() { stageEnableSm_.memberDelAll(); }

   // ---- active stages, by name; null when absent

   Kiv::Ptr< StageSm > stageSm( Kiv::Name const & name ) const { return stageSm_.member( name ); }
   std::uint32_t stageSms() const { return stageSm_.size(); }
   StageSmIterator stageSmIterator() { return { this, stageSm_ }; }
   StageSmIteratorConst stageSmIteratorConst() const { return { this, stageSm_ }; }
   // Makes one, or re-attaches the one there is. The name-in-use exception when that one writes
   // through another LogSm.
   Kiv::Ptr< StageSm > stageSmIs( Kiv::Ptr< StageStatus const > const & stageStatus,
                                  Kiv::Ptr< LogSm > const & logSm );
   Kiv::Ptr< StageSm > newStageSm( Kiv::Ptr< StageStatus const > const & stageStatus,
                                   Kiv::Ptr< LogSm > const & logSm );
   void stageSmDelAll() { stageSm_.memberDelAll( *this, &StatusSm::stageSmDel ); }
   // For a StageSm: its `complete` was written.
   void completionChanged( Kiv::Name const & stage ) noexcept;

   // A decision was asked for and not made yet.
   bool needRecalculateNextStage() const { return needRecalculateNextStage_; }
   void needRecalculateNextStageIs( bool need ) { needRecalculateNextStage_ = need; }
   Kiv::Ptr< KivRecalculateNextStage > recalculateNextStage() const {
      return recalculateNextStage_.reactor();
   }
   // A range exception for null: a timer without a clock would never decide.
   void recalculateNextStageIs( Kiv::Ptr< Kiv::Clock const > const & clock ) {
      recalculateNextStage_.notifierIs( Kiv::valid( clock ),
                                        [ & ] { return newRecalculateNextStage( clock ); } );
   }
   void recalculateNextStageDel() { recalculateNextStage_.del(); }
   Kiv::Ptr< KivRecalculateNextStage >
   newRecalculateNextStage( Kiv::Ptr< Kiv::Clock const > const & clock ) {
      return Kiv::newOwned< KivRecalculateNextStage >( *this, Kiv::valid( clock ) );
   }

   bool initialized() const { return initialized_; }
   void initializedIs( bool initialized ) { initialized_ = initialized; }

   // ---- handlers and operations. A range exception ("null ValidPtr") when one comes to need what
   // was deleted: the configuration, the status, the LogSm, the timer.

   void handleInitialized();
   void handleEnabled();
   // Asks for a decision; many requests before it is made give one.
   void doNextStage();
   // Makes the decision.
   void handleNextStage();
   void handleActiveStage();
   void handleActiveStage( Kiv::String8 name );

 private:
   friend Machine;
   auto owned() {
      return Kiv::inOrder( config_, status_, recalculateNextStage_, stageEnableSm_, stageSm_ );
   }
   bool criticalStageWaits( Status const & status ) const;
   bool dependenciesSatisfied( Status const & status, StageStatus const & stage ) const;
   bool inProgress( StageStatus const & stage, bool criticalWaiting ) const;
   // What a decision has found besides the stages that it activates.
   struct Found {
      bool inactiveStages = false;
      bool incompleteActiveStages = false;
      bool operator==( Found const & ) const = default;
   };
   Found decide( Status & stages );
   Found compareBoth( Status & stages );
   Found walkStages( Status & stages, Candidates * beside );
   Found askCandidates( Status & stages );
   Candidates & candidatesOf( Status & stages );
   void activate( Status & stages, Kiv::Ptr< StageStatus > const & stage );
   void recordProgress( Kiv::String8 const & name );

   Kiv::String8 const application_;
   Kiv::Owned< KivConfig > config_;
   Kiv::Owned< KivStatus > status_;
   Kiv::Ptr< Progress > progress_;
   Kiv::Ptr< Log > log_;
   Kiv::Ptr< LogSm > logSm_;
   Kiv::OwnedByKey< StageEnableSm, Kiv::Name > stageEnableSm_;
   Kiv::OwnedByKey< StageSm, Kiv::Name > stageSm_;
   Kiv::Owned< KivRecalculateNextStage > recalculateNextStage_;
   std::unique_ptr< Candidates > candidates_; // from the first decision on
   bool needRecalculateNextStage_ = false;
   bool initialized_ = false;
};

} // namespace Stage
