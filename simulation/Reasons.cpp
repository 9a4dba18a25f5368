// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <simulation/Reasons.h>

#include <cassert>

namespace Simulation {

using Stage::Explanation;

Explanation explained( Stage::StatusSm const & statusSm, Result const & result ) {
   auto explanation = Stage::explain( statusSm );
   for( auto & stage : explanation.stage ) {
      if( stage.state == Explanation::State::waiting ||
          stage.state == Explanation::State::untracked )
         continue;
      auto const & seen = result.stage.at( stage.name.str() );
      assert( seen.active && !seen.complete );
      stage.activeSince = seen.activeSince;
      if( seen.timedOut )
         stage.timedOutAt = seen.timedOutAt;
      for( auto & event : stage.event ) {
         auto const since = seen.pending.find( event.uid.str() );
         if( since != seen.pending.end() )
            event.since = since->second;
      }
   }
   return explanation;
}

std::vector< std::string > causes( Result const & result ) {
   return Stage::causes( result.explanation );
}

std::vector< Reason > reasons( Result const & result ) {
   std::vector< Reason > found;
   for( auto const & stage : result.explanation.stage ) {
      found.push_back( { stage.name.str(), Stage::sentence( result.explanation, stage ),
                         stage.state != Explanation::State::waiting } );
   }
   return found;
}

} // namespace Simulation
