// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <simulation/Result.h>

#include <algorithm>

namespace Simulation {

std::string_view outcomeName( Outcome outcome ) {
   switch( outcome ) {
   case Outcome::complete:
      return "complete";
   case Outcome::suspended:
      return "suspended";
   case Outcome::disabled:
      return "disabled";
   case Outcome::stalled:
      break;
   }
   return "stalled";
}

Outcome outcomeOf( Result const & result ) {
   auto const & stages = result.stage;
   auto const finished = []( auto const & stage ) { return stage.second.finished(); };
   if( result.complete && std::all_of( stages.begin(), stages.end(), finished ) )
      return Outcome::complete;
   auto const suspended = []( auto const & stage ) {
      return stage.second.critical && stage.second.timedOut && !stage.second.complete;
   };
   if( std::any_of( stages.begin(), stages.end(), suspended ) )
      return Outcome::suspended;
   return result.started ? Outcome::stalled : Outcome::disabled;
}

std::string_view stateName( Result const & result ) {
   if( result.exhausted || result.outcome == Outcome::complete )
      return outcomeName( result.outcome );
   return result.started ? "in progress" : "not started";
}

} // namespace Simulation
