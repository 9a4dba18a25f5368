// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <map>
#include <string>
#include <vector>

#include <simulation/Instant.h>
#include <simulation/detail/Outside.h>

namespace Simulation::detail {

// Judges what is to be taken in together, each input after those before it, before any of it is
// written. Cost: that of the input alone, whatever is there already.
class Admission {
 public:
   // REQUIRES: `outside` outlives this and is not written meanwhile.
   explicit Admission( Outside const & outside ) : outside_( outside ) {}

   // Throws std::invalid_argument for one that cannot be taken in after those before.
   void admit( Operation const & operation );
   void admit( std::vector< Input > const & input );

   // After all that was admitted: the agent is in the directory; some event is declared; somebody
   // has said whether progression is enabled.
   bool isThere( std::string const & agent ) const;
   bool isAnythingDeclared() const;
   bool saysEnabled() const { return saysEnabled_; }

 private:
   struct Change {
      bool there = true;                   // in the directory
      bool anew = false;                   // with none of the events that it had before
      std::map< std::string, bool > event; // come or gone, by stage
   };

   void judge( Join const & join );
   void judge( Leave const & leave );
   void judge( Declare const & declare );
   void judge( Withdraw const & withdraw );
   void judge( Set const & set );
   void judge( Enable const & enable );
   void come( std::string const & agent, Event const & event );
   void requireAgent( std::string const & agent ) const;
   void requireEvent( std::string const & agent, std::string const & stage ) const;
   bool hasEvent( std::string const & agent, std::string const & stage ) const;
   std::size_t eventsOf( std::string const & agent ) const;

   Outside const & outside_;
   std::map< std::string, Change > change_; // by agent
   bool saysEnabled_ = false;
};

} // namespace Simulation::detail
