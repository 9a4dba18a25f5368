// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Progression: one application is walked through the stages.
#pragma once

#include <Kiv/Kiv.h>
#include <Ordovan/Export.h>
#include <Ordovan/LogSm.h>
#include <Ordovan/StageEnableSm.h>
#include <Ordovan/StageSm.h>
#include <Stage/Stage.h>

namespace Stage {

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
class ORDOVAN_EXPORT StatusSm : public Kiv::PtrInterface {
 public:
   // Watches the configuration.
   class ORDOVAN_EXPORT KivConfig : public Config::NotifieeConst {
    public:
      KivConfig( Kiv::Ptr< Config const > const & config, StatusSm * statusSm );
      ~KivConfig() override;
      StatusSm * statusSm() const { return statusSm_; }
      void onEnabled() override;
      virtual void kivDoZombieReactors( bool zombie );

    private:
      friend class StatusSm;
      StatusSm * statusSm_;
   };

   // Watches the status.
   class ORDOVAN_EXPORT KivStatus : public Status::Notifiee {
    public:
      KivStatus( Kiv::Ptr< Status > const & status, StatusSm * statusSm );
      ~KivStatus() override;
      StatusSm * statusSm() const { return statusSm_; }
      void onActiveStage( Kiv::Name name ) override;
      // Nothing: every stage is told by name.
      void onActiveStagekivImmediate() override;
      void onActiveStage() override;
      virtual void kivDoZombieReactors( bool zombie );

    private:
      friend class StatusSm;
      StatusSm * statusSm_;
   };

   // The timer that runs the decision after the handler that asked for it has returned.
   class ORDOVAN_EXPORT KivRecalculateNextStage : public Kiv::Clock::NotifieeConst {
    public:
      KivRecalculateNextStage( Kiv::Ptr< Kiv::Clock const > const & clock, StatusSm * statusSm );
      ~KivRecalculateNextStage() override;
      Kiv::KivType const & fwkType() const override;
      static Kiv::KivType const & _fwkType();
      StatusSm * statusSm() const { return statusSm_; }
      void onTime() override;
      virtual void kivDoZombieReactors( bool zombie );

    private:
      friend class StatusSm;
      StatusSm * statusSm_;
   };

   using StageEnableSmMap = Kiv::HashMap< StageEnableSm, Kiv::Name >;
   using StageEnableSmIteratorConst = Kiv::OwnedIterator< StageEnableSmMap, StatusSm const >;
   using StageSmMap = Kiv::HashMap< StageSm, Kiv::Name >;
   using StageSmIteratorConst = Kiv::OwnedIterator< StageSmMap, StatusSm const >;

   void stageEnableSmDel( Kiv::Name const & name );
   void stageSmDel( Kiv::Name const & name );
   using StageEnableSmIterator =
      Kiv::DeletingIterator< StageEnableSmMap, StatusSm, &StatusSm::stageEnableSmDel >;
   using StageSmIterator = Kiv::DeletingIterator< StageSmMap, StatusSm, &StatusSm::stageSmDel >;

   // Initialises itself, and starts progression when the configuration is enabled: both before the
   // constructor returns. Notifications are off until hasNotificationActiveIs( true ). A range
   // exception without a configuration, status, or log that it has to write to.
   StatusSm( Kiv::String8 const & application, Kiv::Ptr< Config const > const & config,
             Kiv::Ptr< Status > const & status, Kiv::Ptr< Progress > const & progress,
             Kiv::Ptr< Log > const & log );
   void hasNotificationActiveIs( bool active ) override;
   Kiv::KivType const & fwkType() const override;
   ~StatusSm() override;
   virtual void kivDoZombieReactors( bool zombie );

   static Kiv::KivType const & _fwkType();

   // The name of the application whose progression this is. Fixed.
   Kiv::String8 application() const { return application_; }

   Kiv::Ptr< Config const > config() const;
   Kiv::Ptr< KivConfig > kivConfig() const { return config_; }
   void configIs( Kiv::Ptr< Config const > const & config );
   void configDel();
   Kiv::Ptr< KivConfig > newConfig( Kiv::Ptr< Config const > const & config );

   Kiv::Ptr< Status > status() const;
   Kiv::Ptr< KivStatus > kivStatus() const { return status_; }
   void statusIs( Kiv::Ptr< Status > const & status );
   void statusDel();
   Kiv::Ptr< KivStatus > newStatus( Kiv::Ptr< Status > const & status );

   Kiv::Ptr< Progress > progress() const { return progress_; }
   Kiv::Ptr< Log > log() const { return log_; }

   // Made at initialisation over `log`; null before.
   Kiv::Ptr< LogSm > logSm() const { return logSm_; }
   void logSmIs( Kiv::Ptr< Log > const & log );
   void logSmDel();
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
   void stageEnableSmDelAll();

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
   void stageSmDelAll();

   // A decision was asked for and not made yet.
   bool needRecalculateNextStage() const { return needRecalculateNextStage_; }
   void needRecalculateNextStageIs( bool need ) { needRecalculateNextStage_ = need; }
   Kiv::Ptr< KivRecalculateNextStage > recalculateNextStage() const {
      return recalculateNextStage_;
   }
   // A range exception for null.
   void recalculateNextStageIs( Kiv::Ptr< Kiv::Clock const > const & clock );
   void recalculateNextStageDel();
   Kiv::Ptr< KivRecalculateNextStage >
   newRecalculateNextStage( Kiv::Ptr< Kiv::Clock const > const & clock );

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
   template< class F >
   void ownReactors( F f ) {
      if( config_ )
         f( *config_ );
      if( status_ )
         f( *status_ );
      if( recalculateNextStage_ )
         f( *recalculateNextStage_ );
      for( auto i = stageEnableSm_.iterator(); i; ++i )
         f( *i.ptr() );
      for( auto i = stageSm_.iterator(); i; ++i )
         f( *i.ptr() );
   }
   bool criticalStageWaits( Status const & status ) const;
   bool dependenciesSatisfied( Status const & status, StageStatus const & stage ) const;
   bool inProgress( StageStatus const & stage, bool criticalWaiting ) const;
   void recordProgress( Kiv::String8 const & name );

   Kiv::String8 const application_;
   Kiv::Ptr< KivConfig > config_;
   Kiv::Ptr< KivStatus > status_;
   Kiv::Ptr< Progress > progress_;
   Kiv::Ptr< Log > log_;
   Kiv::Ptr< LogSm > logSm_;
   StageEnableSmMap stageEnableSm_;
   StageSmMap stageSm_;
   Kiv::Ptr< KivRecalculateNextStage > recalculateNextStage_;
   bool needRecalculateNextStage_ = false;
   bool initialized_ = false;
};

} // namespace Stage
