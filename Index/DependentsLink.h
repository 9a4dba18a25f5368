// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// What keeps Dependents right about one stage.
#pragma once

#include <Kiv/Ptr.h>
#include <Stage/Index.h>
#include <Stage/StageStatus.h>

namespace Stage {

class Dependents;

// No part of the interface: it stands in a reactor, and is used by the library alone.
class DependentsLink final : public StageIndex {
 public:
   ~DependentsLink() override;
   // From now on these hold the dependencies of this stage, and no more those of the one before.
   // Null for none.
   void stageIs( Kiv::Ptr< StageStatus > const & stage,
                 Kiv::Ptr< Dependents > const & dependents ) noexcept;
   void dependencyCame( Kiv::String8 const & name ) noexcept override;
   void dependencyWent( Kiv::String8 const & name ) noexcept override;

 private:
   Kiv::Ptr< StageStatus > stage_;
   Kiv::Ptr< Dependents > dependents_;
};

} // namespace Stage
