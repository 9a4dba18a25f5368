// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The main program of rows in which several ways have their turns in each round (Rounds.h).
//
//    void Bench::benchmarks( Rows const & rows ) {
//       rows.measure( "what", 1000, [ & ]( Row & row ) { row.add( "ours", 0, [ & ] { ... } ); } );
//    }
//
// A program defines benchmarks() and links Rows.cpp and Rounds.cpp.
#pragma once

#include <support/Rounds.h>

#include <functional>
#include <string>

namespace Bench {

// Which rows are wanted, and how long each is to be measured.
class Rows {
 public:
   // Has `enter` give the row its ways, and measures it, if the name is wanted. `operations`: in
   // one call of a way.
   void measure( std::string const & what, std::int64_t operations,
                 std::function< void( Row & ) > const & enter ) const;
   bool wanted( std::string const & what ) const { return what.find( filter ) != what.npos; }

   Rounds rounds;
   std::string filter; // names of rows that have this text
};

// The program's own.
void benchmarks( Rows const & rows );

} // namespace Bench
