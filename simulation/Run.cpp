// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <simulation/Run.h>

#include <cmath>
#include <cstddef>
#include <stdexcept>

#include <Kiv/Kiv.h>

#include <simulation/Engine.h>
#include <simulation/Timeline.h>

namespace Simulation {

namespace {

void requireRunnable( Plan const & plan ) {
   for( auto const & entry : plan.timeline ) {
      if( !( entry.at >= 0 ) || std::isinf( entry.at ) ) {
         throw std::invalid_argument( "a timeline entry is at no time of the run; times are "
                                      "finite and not negative" );
      }
   }
   auto const mistakes = planMistakes( plan );
   if( !mistakes.empty() )
      throw std::invalid_argument( mistakes.front().text );
}

// The entries of each time are one instant. Returns whether there are no later ones.
bool takeInTimeline( Engine & engine, Plan const & plan, double until ) {
   auto const order = timelineOrder( plan.timeline );
   for( std::size_t next = 0; next != order.size(); ) {
      Instant instant{ plan.timeline[ order[ next ] ].at, {} };
      if( instant.t > until )
         return false;
      for( ; next != order.size() && plan.timeline[ order[ next ] ].at == instant.t; ++next )
         instant.input.push_back( { plan.timeline[ order[ next ] ].operation, std::nullopt } );
      engine.takeIn( instant );
   }
   return true;
}

} // namespace

Beginning beginningOf( Plan const & plan ) {
   return { plan.application, plan.enabled, plan.agent, false };
}

Result run( Plan const & plan, std::vector< Observer * > const & observers, double until,
            Look const & look ) {
   if( Kiv::activityManager()->activity()->running() )
      throw std::logic_error( "a run cannot begin inside a callback" );
   requireRunnable( plan );
   if( !( until >= 0 ) )
      throw std::invalid_argument( "the time at which a run ends is a number of seconds from 0" );
   Engine engine( beginningOf( plan ), observers );
   bool const allTakenIn = takeInTimeline( engine, plan, until );
   engine.fireUntil( until );
   bool const exhausted = allTakenIn && engine.nextDue() == infinity;
   if( !exhausted )
      engine.stopAt( until );
   auto result = engine.result();
   result.exhausted = exhausted;
   engine.end( result );
   if( look )
      look( engine.manager() );
   return result;
}

} // namespace Simulation
