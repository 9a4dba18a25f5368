// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Which stages a decision of progression can activate.
//
// A decision is a walk over all stages (StatusSm::handleNextStage), and there are about as many
// decisions as stages. This keeps, from one decision to the next, what the walk would find: a stage
// that is not active
//
//    is a candidate        it has to be looked at: it is new, or what it waited for has happened
//    waits for a stage     it depends on one that is not satisfied: of all such, on one of them
//    waits at the gate     it is not critical, and a critical stage was not active
//
// and is a candidate again when that stage becomes satisfied (active, with a StageSm that is
// complete), or when it ceases to depend on it, or when no critical stage waits any more. Whether a
// candidate is ready is found out from its dependencies themselves, when the decision comes to it:
// so all that has to be kept right is that no stage waits for what has happened. Of several
// dependencies that are not satisfied it waits for any, as if by chance: then it is woken only some
// log N times by the N of them, in whatever order they complete.
//
// Needed by the rows "progression" of bench/startup, and bench/growth.
#pragma once

#include <Index/Completion.h>
#include <Stage/Index.h>
#include <Stage/Status.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <unordered_map>
#include <vector>

namespace Stage {

class Candidates final : public StatusIndex {
 public:
   // What stands for the state machine of the stage of that name, null when it has none.
   using CompletionOf = std::function< Completion *( Kiv::Text const & stage ) >;
   // Looks at everything once. The status outlives this, unless statusGoes() is told.
   Candidates( Status & status, CompletionOf completionOf );
   ~Candidates() override;

   // Whether this can be relied on for that status: else a new one has to be made.
   bool serves( Status const & status ) const { return status_ == &status; }

   // ---- what the first pass of a decision finds out, and the flags that the second one has

   bool criticalStageWaits() const { return criticals_ != 0; }
   bool inactiveStages() const { return !waiting_.empty(); }
   bool incompleteActiveStages() const { return satisfied_ != status_->activeStages(); }

   // ---- the second pass: the stages to activate, one after the other, in the order of the table

   void passBegins();
   // The next one, null when there is none. Whoever gets it activates it, and asks again. It may
   // throw std::bad_alloc, as may passBegins(): then a pass can be begun anew.
   Kiv::Ptr< StageStatus > next();

   // ---- what only progression knows

   // The stage's state machine was added, or is complete, or not any more.
   void changed( Kiv::Text const & stage ) noexcept;
   // It leaves.
   void leaves( Completion & completion ) noexcept;

   void stageCame( StageStatus & stage ) noexcept override;
   void stageWent( StageStatus & stage ) noexcept override;
   void activeChanged( StageStatus & stage ) noexcept override;
   void statusGoes() noexcept override;

 private:
   struct Waiting;
   struct List {
      Waiting * first = nullptr;
   };
   struct Hash {
      std::size_t operator()( Kiv::Text const & name ) const { return name.hash(); }
   };

   void add( StageStatus & stage );
   void drop( StageStatus & stage ) noexcept;
   void move( Waiting & waiting, List & to ) noexcept;
   void leaveList( Waiting & waiting ) noexcept;
   void isCandidate( Waiting & waiting ) noexcept { move( waiting, arrived_ ); }
   void wake( Kiv::Text const & name ) noexcept;
   void waitFor( Waiting & waiting, Kiv::Text const & dependency );
   bool isSatisfied( Kiv::Text const & stage ) const;
   // Any of the dependencies that are not satisfied; false when all are.
   bool findUnsatisfied( StageStatus const & stage, Kiv::Text & found );
   std::vector< Waiting * >::iterator turnOf( Kiv::Text const & name );
   void takeArrived();
   void spoil() noexcept;

   CompletionOf const completionOf_;
   Status * status_; // null: of no use any more
   List arrived_;    // candidates since the pass began, or since the last one
   List seen_;       // the other candidates
   List gate_;
   std::unordered_map< Kiv::Text, List, Hash > waitFor_; // under the stage that they wait for
   std::unordered_map< Kiv::Text, std::unique_ptr< Waiting >, Hash > waiting_; // under their names
   std::size_t criticals_ = 0; // stages that wait and are critical
   std::size_t satisfied_ = 0; // stages that are active and whose state machine is
   std::uint32_t chance_ = 1;

   std::vector< Waiting * > pass_; // ascending
   std::size_t place_ = 0;         // in pass_, of the next one
   Kiv::Text last_;                // the name of the one before
   bool gateShut_ = false;
};

} // namespace Stage
