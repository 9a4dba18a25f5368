// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include <simulation/Instant.h>
#include <simulation/JsonValue.h>

// What a start-up takes in, as lines of a record: one JSON object each, with the keys of a plan's
// timeline, but "t" for "at". Whatever is written reads back as what has the same effect, and what
// could not be read is not written.
//
//    {"agents": {...}, "application": "Router", "decideOnDeclarations": true, "enabled": false,
//    "kind": "begin", "t": 0}
//    {"agent": "Routing", "join": {"Protocols": {"complete": "never", "timeout": 20}}, "kind":
//    "input", "t": 1.5, "user": 1000}
//
// An agent that is no simulated one says when it is complete, so `complete` of an event is true or
// "never", and is always there.

namespace Simulation {

// A line is not what it should be: what is wrong with it, and what is expected.
class LineError : public std::runtime_error {
 public:
   using std::runtime_error::runtime_error;
};

// Without the end of the line. Throws std::invalid_argument for what cannot be written: names that
// are empty or no UTF-8, timeouts that are negative or NaN, events that a simulated agent reports.
std::string beginLine( Beginning const & beginning );
// One line or several for each input, in order, as a line has room for one write of each attribute.
// Throws likewise, and for a time that is no stamp (Stamp.h).
std::vector< std::string > inputLines( Instant const & instant );

struct StampedInput {
   double t = 0;
   Input input;
};

// Throw LineError. REQUIRES: the value's "kind" is "begin", or "input".
Beginning readBeginning( JsonValue const & line );
StampedInput readInput( JsonValue const & line );

// The member "kind" and "t" of a line of any kind. Throw LineError.
std::string const & kindOf( JsonValue const & line );
double timeOf( JsonValue const & line );

} // namespace Simulation
