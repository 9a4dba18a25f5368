// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include <simulation/Observer.h>

namespace Simulation {

// The record of a run for machines: JSON Lines, one object for each log entry and each message, and
// one for the end; if it is to be played again, also one for the beginning and one for each input.
// Keys are sorted, numbers read back as the same double; the bytes depend on the run alone. Each
// line, with its newline, is handed to `line` as it happens; what to do when it cannot be stored is
// `line`'s to decide.
class RecordWriter : public Observer {
 public:
   using Line = std::function< void( std::string_view ) >;
   enum class Inputs { leftOut, written };
   explicit RecordWriter( Line line, Inputs inputs = Inputs::leftOut )
      : line_( std::move( line ) ), inputs_( inputs ) {}

   void onBegin( Beginning const & beginning ) override;
   void onInstant( Instant const & instant ) override;
   void onLogEntry( double t, std::string const & msg ) override;
   void onMessage( Message const & message ) override;
   void onEnd( Result const & result ) override;

 private:
   Line line_;
   Inputs inputs_;
};

} // namespace Simulation
