// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The stack on which the push of critical flags walks from stage to stage.
#pragma once

#include <Ordovan/ConfigSm.h>

#include <vector>

namespace Stage::detail {

// One stage whose flag was written, and how far its dependencies have been told.
struct CriticalFrame {
   Kiv::Ptr< ConfigSm::KivStageStatus > stage;
   StageStatus::DependencyIteratorConst dependency;
   bool critical;
};

// A chain of stages can be as long as the configuration makes it, so the walk keeps its frames here
// and not on the thread's stack. A walk that an exception cuts short leaves a mark on each stage
// that it has not done with: their links are written, and nothing else would tell that what follows
// from them is not.
class CriticalStack {
 public:
   explicit CriticalStack( ConfigSm::KivStageStatus & first ) : next( &first ) {}
   ~CriticalStack() {
      if( next )
         next->undecidedIs();
      for( CriticalFrame const & frame : frames_ )
         frame.stage->undecidedIs();
   }
   CriticalStack( CriticalStack const & ) = delete;
   CriticalStack & operator=( CriticalStack const & ) = delete;

   void push( CriticalFrame frame ) {
      frames_.push_back( std::move( frame ) );
      next = nullptr;
   }
   void pop() { frames_.pop_back(); }
   CriticalFrame & top() { return frames_.back(); }
   bool done() const { return !next && frames_.empty(); }

   Kiv::Ptr< ConfigSm::KivStageStatus > next; // the stage that decides now; null: go on at the top

 private:
   std::vector< CriticalFrame > frames_;
};

} // namespace Stage::detail
