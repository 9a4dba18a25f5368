// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// What Candidates has to be told of the state machine of an active stage.
#pragma once

namespace Stage {

class Completion {
 public:
   // The stage's events are complete.
   bool complete = false;

 private:
   friend class Candidates;
   bool satisfied_ = false; // complete, and its stage is active: counted
};

} // namespace Stage
