// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <simulation/detail/Watch.h>

#include <algorithm>

namespace Simulation::detail {

namespace {

// What the stage itself says.
StageResult stageResult( Stage::StageStatus const & stage ) {
   StageResult result;
   result.critical = stage.critical();
   result.timeout = stage.timeout();
   for( auto i = stage.dependencyIteratorConst(); i; ++i )
      result.dependency.push_back( i.key().str() );
   std::sort( result.dependency.begin(), result.dependency.end() );
   for( auto i = stage.eventIteratorConst(); i; ++i )
      result.event[ i.key().str() ] = i.ptr()->complete();
   return result;
}

} // namespace

StageWatch::StageWatch( Kiv::Ptr< Stage::StageSm > const & stageSm,
                        Kiv::Ptr< Stage::StageStatus const > const & stage, Chronicle & chronicle,
                        Causes & causes, std::size_t & finished )
   : stageSm_( stageSm ), stage_( stage ), chronicle_( chronicle ), causes_( causes ),
     finished_( finished ), activeSince_( Kiv::now() ) {
   watch( stageSm );
   for( auto i = stageSm->pendingEventIterator(); i; ++i )
      lookAtPending( i.key() );
   tell( StageChange::Kind::active );
   look(); // a stage may be complete as soon as it is active
}

void StageWatch::onPendingEvent( Kiv::String8 uid ) {
   chronicle_.keepingExceptions( [ & ] { lookAtPending( uid ); } );
}

void StageWatch::addTo( StageResult & result ) const {
   result.complete = stageSm_->complete();
   result.timedOut = stageSm_->timedOut();
   result.completionTime = stageSm_->completionTime();
   result.pendingFor = pendingBefore_;
   for( auto i = stageSm_->pendingEventIterator(); i; ++i ) {
      auto const uid = i.key().str();
      auto const since = pendingSince_.find( uid );
      result.pending[ uid ] = since == pendingSince_.end() ? activeSince_ : since->second;
      result.pendingFor[ uid ] += Kiv::now() - result.pending[ uid ];
   }
   result.activeSince = activeSince_;
   result.timedOutAt = timedOutAt_;
   if( auto const timer = stageSm_->stageUncompleted(); timer && !result.complete )
      result.timeIsUp = timer->timeMin();
}

void StageWatch::look() {
   auto const complete = stageSm_->complete();
   auto const timedOut = stageSm_->timedOut();
   auto const completionTime = stageSm_->completionTime();
   using Kind = StageChange::Kind;
   if( complete && !complete_ )
      causes_.stageComplete( stage_->name().str(), timedOut && !timedOut_ );
   if( timedOut && !timedOut_ ) {
      timedOutAt_ = Kiv::now();
      tell( complete ? Kind::timedOut : Kind::suspended );
   } else if( complete && !complete_ ) {
      tell( timedOut ? Kind::resumed : Kind::complete );
   } else if( timedOut && completionTime != completionTime_ && !completeAfterAll_ ) {
      tell( Kind::completedLate );
   }
   if( timedOut_ && complete && completionTime != completionTime_ )
      completeAfterAll_ = true;
   if( complete && !complete_ )
      ++finished_;
   else if( !complete && complete_ )
      --finished_;
   complete_ = complete;
   timedOut_ = timedOut;
   completionTime_ = completionTime;
}

void StageWatch::tell( StageChange::Kind kind ) const {
   chronicle_.keepingExceptions( [ & ] {
      StageChange change;
      change.t = Kiv::now();
      change.stage = stage_->name().str();
      change.kind = kind;
      change.critical = stage_->critical();
      change.activeSince = activeSince_;
      change.events = stage_->events();
      if( kind == StageChange::Kind::timedOut || kind == StageChange::Kind::suspended ) {
         for( auto i = stageSm_->pendingEventIterator(); i; ++i )
            change.pending.push_back( i.key().str() );
         std::sort( change.pending.begin(), change.pending.end() );
      }
      chronicle_.stage( change );
   } );
}

void StageWatch::lookAtPending( Kiv::String8 const & uid ) {
   if( stageSm_->pendingEvent( uid ) )
      pendingSince_.try_emplace( uid.str(), Kiv::now() );
   else if( auto const since = pendingSince_.extract( uid.str() ) )
      pendingBefore_[ since.key() ] += Kiv::now() - since.mapped();
}

DependencyWatch::DependencyWatch( Kiv::Ptr< Stage::StageStatus const > const & stage,
                                  Chronicle & chronicle, Causes & causes )
   : chronicle_( chronicle ), causes_( causes ) {
   watch( stage );
   auto const name = stage->name().str();
   for( auto i = stage->dependencyIteratorConst(); i; ++i )
      causes_.dependency( name, i.key().str(), i.value() );
}

void DependencyWatch::onDependency( Kiv::String8 on ) {
   chronicle_.keepingExceptions( [ & ] {
      causes_.dependency( notifier()->name().str(), on.str(), notifier()->dependency( on ) );
   } );
}

StatusWatch::StatusWatch( Kiv::Ptr< Stage::Status const > const & status,
                          Kiv::Ptr< Stage::StatusSm > const & statusSm, Chronicle & chronicle,
                          Reports & reports, Causes & causes )
   : status_( status ), statusSm_( statusSm ), chronicle_( chronicle ), reports_( reports ),
     causes_( causes ) {
   watch( status );
   for( auto i = status->stageIteratorConst(); i; ++i )
      stageKnown( i.key() );
}

void StatusWatch::onStage( Kiv::Name name ) {
   chronicle_.keepingExceptions( [ & ] { stageKnown( name ); } );
}

void StatusWatch::stageKnown( Kiv::Name const & name ) {
   auto const stage = status_->stage( name );
   auto const text = name.str();
   if( stage && !dependency_.count( text ) ) {
      causes_.stageKnown( text );
      dependency_[ text ] = new DependencyWatch( stage, chronicle_, causes_ );
   }
}

void StatusWatch::onActiveStage( Kiv::Name name ) {
   chronicle_.keepingExceptions( [ & ] { stageActive( name ); } );
}

void StatusWatch::stageActive( Kiv::Name const & name ) {
   auto const stage = status_->activeStage( name );
   auto const stageSm = statusSm_->stageSm( name );
   auto const text = name.str();
   if( !stage || !stageSm || stage_.count( text ) )
      return;
   reports_.stageActive( text );
   causes_.stageStarted( text, stage->critical() );
   stage_[ text ] = new StageWatch( stageSm, stage, chronicle_, causes_, finished_ );
}

Result StatusWatch::result() const {
   Result result;
   result.complete = status_->complete();
   for( auto i = status_->stageIteratorConst(); i; ++i ) {
      auto const name = i.key().str();
      auto stage = stageResult( *i.ptr() );
      stage.active = bool( status_->activeStage( i.key() ) );
      if( auto const watch = stage_.find( name ); watch != stage_.end() )
         watch->second->addTo( stage );
      result.stage[ name ] = std::move( stage );
   }
   return result;
}

} // namespace Simulation::detail
