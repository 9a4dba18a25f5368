// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <simulation/detail/Reports.h>

namespace Simulation::detail {

void Reports::declared( SimulatedEventPtr const & event ) {
   if( event->behaviour.kind != Behaviour::Kind::afterSeconds )
      return;
   if( status_->activeStage( event->stage ) )
      arm( event );
   else
      waiting_[ event->stage ].push_back( event );
}

void Reports::stageActive( std::string const & stage ) {
   auto const waiting = waiting_.extract( stage );
   if( waiting.empty() )
      return;
   for( auto const & event : waiting.mapped() )
      arm( event );
}

double Reports::nextTime() {
   while( !due_.empty() && !due_.top().event->there )
      due_.pop();
   return due_.empty() ? infinity : due_.top().at;
}

bool Reports::makeOne( double now ) {
   if( nextTime() > now )
      return false;
   auto const [ at, armed, step, event ] = due_.top();
   due_.pop();
   causes_.report( event->stage, event->config->uid().str(), step );
   event->config->completeIs( true );
   return true;
}

void Reports::arm( SimulatedEventPtr const & event ) {
   if( event->there )
      due_.push( { Kiv::now() + event->behaviour.seconds, ++armed_, causes_.now(), event } );
}

} // namespace Simulation::detail
