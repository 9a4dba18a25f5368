// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include <simulation/Observer.h>

namespace Tools {

// Shows people a run while it happens: one line for each stage that becomes active, complete or
// late, one for each declared message, and a summary at the end: of the outcome and of what has
// determined how long it took, or, when more would have been due, of how things stand then.
//
// Writes to the stdio stream that the library prints its suspension line to, and ends that line,
// which the library leaves open. Failures of the stream are left for its owner to find.
class Display : public Simulation::Observer {
 public:
   struct Style {
      bool colour = false;
      bool quiet = false; // nothing but the end of the library's own lines
   };

   Display( std::FILE * out, std::string application, Style style )
      : out_( out ), application_( std::move( application ) ), style_( style ) {}

   void onMessage( Simulation::Message const & message ) override;
   void onStage( Simulation::StageChange const & change ) override;
   void onEnd( Simulation::Result const & result ) override;

 private:
   enum class Colour { none, dim, green, yellow, red };

   void line( double t, Colour colour, std::string_view what, std::string_view name,
              std::string_view detail = {} );
   void ended( Simulation::Result const & result );
   void counts( Simulation::Result const & result, bool over );
   void summaryLine( std::string_view what, std::string const & text );
   void print( std::string_view text );
   std::string coloured( Colour colour, std::string_view text ) const;

   std::FILE * out_;
   std::string application_;
   Style style_;
};

} // namespace Tools
