// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <simulation/Instant.h>

namespace Simulation {

// A record that can be played again: one with its beginning and its inputs (RecordWriter.h).
struct Record {
   struct Line {
      std::size_t number = 0; // in the record, from 1
      double t = 0;
      std::string kind;
      std::string text; // without its end
   };
   struct Taken {
      Instant instant;
      std::size_t number = 0; // of the line of its first input
   };

   Beginning beginning;
   std::vector< Taken > instant; // each later than the one before
   std::vector< Line > line;     // all of them, of kinds that a record writer knows
   bool ended = false;           // the last line is that of the end
   bool cutShort = false;        // behind the last line stands a part of one; it is not in `line`
};

// A line of a record is not what it should be.
class RecordError : public std::runtime_error {
 public:
   RecordError( std::size_t line, std::string const & what )
      : std::runtime_error( what ), line_( line ) {}
   std::size_t line() const { return line_; }

 private:
   std::size_t line_;
};

// Reads a whole record. Lines of kinds that are not known are left out: others may write theirs
// between ours. What was cut off when its writer died is a last line without an end. Throws
// RecordError: what is wrong, and what is expected.
Record readRecord( std::string_view text );

} // namespace Simulation
