// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The log state machine: progression's notes, with their time.
#pragma once

#include <Kiv/Kiv.h>
#include <Ordovan/Export.h>
#include <Stage/Log.h>

namespace Stage {

// Appends text to a Stage::Log. Owned by its StatusSm and by every StageSm that writes through it.
class ORDOVAN_EXPORT LogSm : public Kiv::Machine< Kiv::PtrInterface > {
 public:
   explicit LogSm( Kiv::Ptr< Log > const & stageLog ) : stageLog_( stageLog ) {}
   Kiv::KivType const & fwkType() const override { return _fwkType(); }
   static Kiv::KivType const & _fwkType();

   // The queue into which entries go. Fixed.
   Kiv::Ptr< Log > stageLog() const { return stageLog_; }

   // Appends an entry with the current time. A range exception without a log: "null ValidPtr".
   void logIs( Kiv::String8 msg );

 private:
   Kiv::Ptr< Log > const stageLog_;
};

// The declared messages of this library, built when it is loaded.
ORDOVAN_EXPORT extern Kiv::LogHandle ORDOVAN_STAGE_SLOW;
ORDOVAN_EXPORT extern Kiv::LogHandle ORDOVAN_STAGE_COMPLETE_AFTER_TIMEOUT;

} // namespace Stage
