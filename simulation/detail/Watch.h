// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <map>
#include <string>
#include <unordered_map>

#include <Kiv/Kiv.h>
#include <Ordovan/Ordovan.h>
#include <Stage/Stage.h>

#include <simulation/Result.h>
#include <simulation/detail/Causes.h>
#include <simulation/detail/Chronicle.h>
#include <simulation/detail/Reports.h>

namespace Simulation::detail {

// Watches one active stage, and tells what becomes of it. Each callback compares the state machine
// with what was seen last, so their order does not matter.
class StageWatch : public Stage::StageSm::NotifieeConst {
 public:
   StageWatch( Kiv::Ptr< Stage::StageSm > const & stageSm,
               Kiv::Ptr< Stage::StageStatus const > const & stage, Chronicle & chronicle,
               Causes & causes, std::size_t & finished );

   using Stage::StageSm::NotifieeConst::onPendingEvent;
   void onComplete() override { look(); }
   void onTimedOut() override { look(); }
   void onCompletionTime() override { look(); }
   void onPendingEvent( Kiv::String8 uid ) override;

   // The second group of `result` and what follows it.
   void addTo( StageResult & result ) const;

 private:
   void look();
   void tell( StageChange::Kind kind ) const;
   void lookAtPending( Kiv::String8 const & uid );

   Kiv::Ptr< Stage::StageSm > stageSm_;
   Kiv::Ptr< Stage::StageStatus const > stage_;
   Chronicle & chronicle_;
   Causes & causes_;
   std::size_t & finished_; // how many stages are complete
   double activeSince_;
   double timedOutAt_ = 0;
   std::unordered_map< std::string, double > pendingSince_; // by uid
   std::map< std::string, double > pendingBefore_;          // how long, by uid, until it was not

   // As it was when last looked at.
   bool complete_ = false;
   bool timedOut_ = false;
   double completionTime_ = 0;
   bool completeAfterAll_ = false; // all its events were complete at some time after it timed out
};

// Watches what a stage depends on.
class DependencyWatch : public Stage::StageStatus::NotifieeConst {
 public:
   DependencyWatch( Kiv::Ptr< Stage::StageStatus const > const & stage, Chronicle & chronicle,
                    Causes & causes );

   using Stage::StageStatus::NotifieeConst::onDependency;
   void onDependency( Kiv::String8 on ) override;

 private:
   Chronicle & chronicle_;
   Causes & causes_;
};

// Watches the status: which stages there are, and which become active. Arms the reports of these
// stages' events, and keeps a StageWatch for each. REQUIRES: is made after the library's own
// reactor on `status`, and served after it therefore, so that an active stage has its state machine
// when it is told of here.
class StatusWatch : public Stage::Status::NotifieeConst {
 public:
   StatusWatch( Kiv::Ptr< Stage::Status const > const & status,
                Kiv::Ptr< Stage::StatusSm > const & statusSm, Chronicle & chronicle,
                Reports & reports, Causes & causes );

   using Stage::Status::NotifieeConst::onActiveStage;
   using Stage::Status::NotifieeConst::onStage;
   void onStage( Kiv::Name name ) override;
   void onActiveStage( Kiv::Name name ) override;

   // What the entities and state machines say now; the rest of the result is not touched.
   Result result() const;
   // The status says so, and every stage that is known is active and complete.
   bool complete() const { return status_->complete() && finished_ == status_->stages(); }

 private:
   void stageKnown( Kiv::Name const & name );
   void stageActive( Kiv::Name const & name );

   Kiv::Ptr< Stage::Status const > status_;
   Kiv::Ptr< Stage::StatusSm > statusSm_;
   Chronicle & chronicle_;
   Reports & reports_;
   Causes & causes_;
   std::size_t finished_ = 0;
   std::unordered_map< std::string, Kiv::Ptr< StageWatch > > stage_;
   std::unordered_map< std::string, Kiv::Ptr< DependencyWatch > > dependency_; // by stage
};

} // namespace Simulation::detail
