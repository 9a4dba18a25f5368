// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// What must always hold of a start-up.
//
//    Invariants invariants( status, statusSm, progress );
//    ...write...
//    invariants.settle();                       // in place of the quiet loop; or call stepped()
//    after EXPECT_EQ( invariants.broken(), "" );      // each callback and each timer, and quiet()
//    at last
#pragma once

#include <Kiv/Kiv.h>
#include <Ordovan/Ordovan.h>
#include <Stage/Stage.h>

#include <map>
#include <set>
#include <string>

namespace testing_support {

class Invariants {
 public:
   // REQUIRES: the loop is quiet.
   Invariants( Kiv::Ptr< Stage::Status > const & status,
               Kiv::Ptr< Stage::StatusSm > const & statusSm,
               Kiv::Ptr< Stage::Progress > const & progress )
      : status_( status ), statusSm_( statusSm ), progress_( progress ),
        complete_( status->complete() ) {
      for( auto i = statusSm_->stageSmIteratorConst(); i; ++i )
         before_[ i.key().str() ] = { i.ptr()->complete(), i.ptr()->timedOut() };
   }

   // Delivers and fires what is due now until nothing is left, and looks after each.
   void settle() {
      stepped();
      while( Kiv::activityManager()->runOne() || Kiv::activityManager()->fireOne() )
         stepped();
      quiet();
   }

   // After one callback, or one timer, or what the outside wrote: how things became what they are.
   void stepped() {
      for( auto i = statusSm_->stageSmIteratorConst(); i; ++i )
         completedRightly( i.key().str(), *i.ptr() );
      if( status_->complete() && !complete_ )
         requireEveryStageFinished();
      complete_ = status_->complete();
   }

   // When the loop is quiet: what belongs to what.
   void quiet() {
      for( auto i = status_->activeStageIteratorConst(); i; ++i ) {
         std::string const name = i.key().str();
         everActive_.insert( name );
         Kiv::Ptr< Stage::StageSm > const sm = statusSm_->stageSm( i.key() );
         require( sm && sm->stage() == i.ptr(),
                  name + " is active, but has no StageSm of its own" );
         require( !statusSm_->stageEnableSm( i.key() ), name + " is active, but still waits" );
      }
      std::set< std::string > running;
      for( auto i = statusSm_->stageSmIteratorConst(); i; ++i )
         require( running.insert( i.key().str() ).second, i.key().str() + " has two StageSms" );
      require( running == everActive_, "the StageSms are not those of the stages made active" );
      std::set< std::string > shown;
      for( auto i = progress_->stageIteratorConst(); i; ++i ) {
         shown.insert( i.key().str() );
         require( i.value(), "progress shows " + i.key().str() + " as false" );
      }
      require( shown == everActive_, "progress does not show the stages made active" );
   }

   // The first thing that did not hold; empty when everything did.
   std::string const & broken() const { return broken_; }

 private:
   struct Before {
      bool complete = false;
      bool timedOut = false;
   };

   void require( bool holds, std::string const & otherwise ) {
      if( !holds && broken_.empty() )
         broken_ = otherwise;
   }

   void completedRightly( std::string const & name, Stage::StageSm const & sm ) {
      Before & before = before_[ name ];
      require( sm.complete() || !before.complete, name + " is no longer complete" );
      require( sm.timedOut() || !before.timedOut, name + " is no longer timed out" );
      if( sm.complete() && !before.complete ) {
         bool const timeIsUp = sm.timedOut() && !before.timedOut && !sm.stage()->critical();
         require( sm.pendingEvents() == 0 || timeIsUp,
                  name + " is complete, but events are pending and its time is not up" );
      }
      require( !sm.complete() || !sm.stageUncompleted() ||
                  sm.stageUncompleted()->timeMin() == Kiv::infinity,
               name + " is complete, but its timer is armed" );
      before = { sm.complete(), sm.timedOut() };
   }

   void requireEveryStageFinished() {
      for( auto i = status_->stageIteratorConst(); i; ++i ) {
         Kiv::Ptr< Stage::StageSm > const sm = statusSm_->stageSm( i.key() );
         require( status_->activeStage( i.key() ) && sm && sm->complete(),
                  "everything is complete, but " + i.key().str() + " is not" );
      }
   }

   Kiv::Ptr< Stage::Status > const status_;
   Kiv::Ptr< Stage::StatusSm > const statusSm_;
   Kiv::Ptr< Stage::Progress > const progress_;
   bool complete_;
   std::map< std::string, Before > before_;
   std::set< std::string > everActive_;
   std::string broken_;
};

} // namespace testing_support
