// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

#include <Flitlog/Reader.h>

namespace Tools {

// Which records of a trace file are wanted. Everything is, unless something is set.
struct RecordFilter {
   double from = -std::numeric_limits< double >::infinity(); // seconds, both included
   double to = std::numeric_limits< double >::infinity();
   std::vector< std::string > handles; // one of these; none: any
   unsigned levels = 0;                // a bit for each; 0: any
   std::string grep;                   // a part of the line

   // `line`: the record as it is printed.
   bool wants( Flitlog::Record const & record, std::string_view line ) const;
};

// Levels, as bits, in the grammar that names them: "0-8", "7,9".
std::string levelsText( unsigned levels );
// The levels that a ring was opened for, as an object of JSON; without line end.
std::string jsonOfLevels( unsigned levels );

// The record as the text trace has it, and as an object of JSON; without line ends.
std::string lineOf( Flitlog::Record const & record );
std::string jsonOf( Flitlog::Record const & record );

} // namespace Tools
