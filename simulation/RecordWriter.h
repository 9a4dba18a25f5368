// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include <simulation/Observer.h>

namespace Simulation {

// The record of a run for machines: JSON Lines, one object for each log entry and each message, and
// one for the end. Keys are sorted, numbers read back as the same double; the bytes depend on the
// run alone. Each line, with its newline, is handed to `line` as it happens; what to do when it
// cannot be stored is `line`'s to decide.
class RecordWriter : public Observer {
 public:
   using Line = std::function< void( std::string_view ) >;
   explicit RecordWriter( Line line ) : line_( std::move( line ) ) {}

   void onLogEntry( double t, std::string const & msg ) override;
   void onMessage( Message const & message ) override;
   void onEnd( Result const & result ) override;

 private:
   Line line_;
};

} // namespace Simulation
