// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// A stage that waits for its dependencies.
#pragma once

#include <Kiv/Kiv.h>
#include <Ordovan/Export.h>
#include <Stage/StageStatus.h>

namespace Stage {

class StatusSm;

// Watches one stage that is not active yet. Decides nothing: when something about the stage
// changes that could make it ready, it asks its StatusSm for a new decision. Holds no state but
// its two pointers.
//
// Owned by its StatusSm, which replaces it by a StageSm when the stage becomes active.
class ORDOVAN_EXPORT StageEnableSm
   : public Kiv::OwnedReactor< StageStatus::NotifieeConst, StatusSm, Kiv::Name > {
 public:
   // Attaches without running a handler. A range exception for a null stage. Without mainSm it asks
   // nobody for anything.
   StageEnableSm( Kiv::Ptr< StageStatus const > const & stage, StatusSm * mainSm );
   Kiv::KivType const & fwkType() const override { return _fwkType(); }
   // Re-attaches; runs handleCritical() once for a stage that is not null.
   void notifierIs( Kiv::Ptr< Kiv::PtrInterface const > const & stage ) override;
   // The activity, empty until it is set: then the process's one is meant.
   Kiv::Ptr< Kiv::ActivityConfig > kivFwkActivity() override { return activity_; }
   Kiv::Ptr< Kiv::ActivityConfig const > kivFwkActivity() const override { return activity_; }
   using StageStatus::NotifieeConst::onDependency;
   void onDependency( Kiv::String8 key ) override;
   // Nothing: only the notification by key is used.
   void onDependencykivImmediate() override {}
   void onCritical() override;

   static Kiv::KivType const & _fwkType();

   Kiv::Ptr< StageStatus const > stage() const { return notifier(); }
   void stageIs( Kiv::Ptr< StageStatus const > const & stage ) {
      notifierIs( Kiv::Ptr< Kiv::PtrInterface const >( stage ) );
   }
   // Null once the StatusSm has let go of this: then it does not react any more.
   StatusSm * mainSm() const { return owner(); }
   void mainSmIs( StatusSm * mainSm ) { ownerIs( mainSm ); }
   void kivFwkActivityIs( Kiv::Ptr< Kiv::ActivityConfig > const & activity ) {
      activity_ = activity;
   }

   // ---- handlers. A range exception while no stage is watched.

   // A stage that turned critical can change which stages are next.
   void handleCritical();
   // A dependency that went away can have made the stage ready.
   void handleDependencyDel( Kiv::String8 key );

 private:
   Kiv::Ptr< Kiv::ActivityConfig > activity_;
};

} // namespace Stage
