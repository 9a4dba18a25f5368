// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <simulation/detail/Changes.h>

#include <algorithm>

namespace Simulation::detail {

void Changes::over( bool complete ) {
   if( changed_.empty() && complete == complete_ )
      return;
   complete_ = complete;
   ++sequence_;
   for( auto const & stage : changed_ ) {
      auto & last = last_[ stage ];
      byLastTime_.erase( { last, stage } );
      last = sequence_;
      byLastTime_.insert( { last, stage } );
   }
   changed_.clear();
}

std::vector< std::string > Changes::since( std::uint64_t after ) const {
   std::vector< std::string > stages;
   for( auto i = byLastTime_.lower_bound( { after + 1, std::string() } ); i != byLastTime_.end();
        ++i )
      stages.push_back( i->second );
   std::sort( stages.begin(), stages.end() );
   return stages;
}

class ChangeWatch::OfEvent : public Stage::EventConfig::NotifieeConst {
 public:
   OfEvent( Kiv::Ptr< Stage::EventConfig const > const & event, std::string stage,
            Changes & changes )
      : stage_( std::move( stage ) ), changes_( changes ) {
      watch( event );
   }
   void onComplete() override { changes_.stageChanged( stage_ ); }

 private:
   std::string stage_;
   Changes & changes_;
};

class ChangeWatch::OfStage : public Stage::StageStatus::NotifieeConst {
 public:
   OfStage( Kiv::Ptr< Stage::StageStatus const > const & stage, Changes & changes )
      : changes_( changes ) {
      watch( stage );
      changed();
      for( auto i = stage->eventIteratorConst(); i; ++i )
         look( i.key() );
   }
   using Stage::StageStatus::NotifieeConst::onDependency;
   using Stage::StageStatus::NotifieeConst::onEvent;
   void onDependency( Kiv::String8 ) override { changed(); }
   void onTimeout() override { changed(); }
   void onCritical() override { changed(); }
   void onEvent( Kiv::String8 agent ) override {
      changed();
      look( agent );
   }

 private:
   void changed() { changes_.stageChanged( notifier()->name().str() ); }
   void look( Kiv::String8 const & agent ) {
      auto const event = notifier()->event( agent );
      if( event )
         event_[ agent.str() ] = new OfEvent( event, notifier()->name().str(), changes_ );
      else
         event_.erase( agent.str() );
   }

   Changes & changes_;
   std::map< std::string, Kiv::Ptr< OfEvent > > event_; // by agent
};

class ChangeWatch::OfMachine : public Stage::StageSm::NotifieeConst {
 public:
   OfMachine( Kiv::Ptr< Stage::StageSm > const & stageSm, std::string stage, Changes & changes )
      : stage_( std::move( stage ) ), changes_( changes ) {
      watch( stageSm );
      changes_.stageChanged( stage_ );
   }
   void onComplete() override { changes_.stageChanged( stage_ ); }
   void onTimedOut() override { changes_.stageChanged( stage_ ); }

 private:
   std::string stage_;
   Changes & changes_;
};

ChangeWatch::ChangeWatch( Kiv::Ptr< Stage::Status const > const & status,
                          Kiv::Ptr< Stage::StatusSm > const & statusSm, Changes & changes )
   : status_( status ), statusSm_( statusSm ), changes_( changes ) {
   watch( status );
   for( auto i = status->stageIteratorConst(); i; ++i )
      onStage( i.key() );
}

ChangeWatch::~ChangeWatch() = default;

void ChangeWatch::onStage( Kiv::Name name ) {
   auto const stage = status_->stage( name );
   if( stage && !stage_.count( name.str() ) )
      stage_[ name.str() ] = new OfStage( stage, changes_ );
}

void ChangeWatch::onActiveStage( Kiv::Name name ) {
   auto const stageSm = statusSm_->stageSm( name );
   if( stageSm && !machine_.count( name.str() ) )
      machine_[ name.str() ] = new OfMachine( stageSm, name.str(), changes_ );
}

} // namespace Simulation::detail
