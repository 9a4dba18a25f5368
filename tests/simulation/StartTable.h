// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <limits>
#include <map>
#include <string>
#include <utility>
#include <vector>

// When the stages of a plan have to start and complete, computed twice over without the library,
// the engine, or anything that they use. Both computations hold for plans without a timeline, in
// which progression is enabled from the start, every event is reported after a number of seconds
// and before its stage's timeout, and every dependency is a stage of the plan.

namespace StartTable {

struct Row {
   std::vector< std::string > dependency;
   double seconds = 0; // of its slowest event
   bool critical = false;

   bool started = false, complete = false;
   double start = 0, end = 0;
};
using Table = std::map< std::string, Row >;

// A stage is critical, too, when a critical stage depends on it.
inline void spreadCritical( Table & table ) {
   for( bool changed = true; changed; ) {
      changed = false;
      for( auto & [ name, row ] : table ) {
         for( auto const & dependency : row.dependency ) {
            auto & other = table.at( dependency );
            if( row.critical && !other.critical )
               other.critical = changed = true;
         }
      }
   }
}

// Walks the table through the decisions. One is made at 0 and one after the completions of each
// instant, none in between; a stage without seconds completes at the instant at which it starts,
// after the decision that started it, and brings about another. A decision starts every stage
// whose dependencies are complete, but no stage that is not critical as long as a critical one had
// not been started before it.
inline void walk( Table & table ) {
   double now = 0;
   for( bool more = true; more; ) {
      bool const criticalWaits = std::any_of( table.begin(), table.end(), []( auto const & entry ) {
         return entry.second.critical && !entry.second.started;
      } );
      for( auto & [ name, row ] : table ) {
         bool const ready =
            std::all_of( row.dependency.begin(), row.dependency.end(),
                         [ & ]( auto const & d ) { return table.at( d ).complete; } );
         if( !row.started && ready && ( row.critical || !criticalWaits ) ) {
            row.started = true;
            row.start = now;
            row.end = now + row.seconds;
         }
      }
      double next = std::numeric_limits< double >::infinity();
      for( auto const & [ name, row ] : table )
         next = row.started && !row.complete ? std::min( next, row.end ) : next;
      more = next != std::numeric_limits< double >::infinity();
      now = next;
      for( auto & [ name, row ] : table )
         row.complete = row.complete || ( row.started && row.end == now );
   }
}

// The total duration as the longest path through the dependencies, with one more node: the gate
// that keeps stages back that are not critical.
//
// A moment is a time and the number of the decision at that time. A stage that starts in a
// decision and takes no time completes between that decision and the next; one that takes time
// completes before the first decision of a later instant, which therefore has the number 1. A
// stage starts in the decision that follows the last of the completions that it waits for. The
// decision that starts the last critical stage still found it waiting, so the gate opens with the
// first completion after that decision; until then only critical stages run.
class LongestPath {
 public:
   explicit LongestPath( Table const & table ) : table_( table ) {
      Moment last;
      for( auto const & [ name, row ] : table )
         last = row.critical ? std::max( last, start( name ) ) : last;
      Moment const never{ std::numeric_limits< double >::infinity(), 0 };
      auto gate = never;
      for( auto const & [ name, row ] : table ) {
         bool const opens = row.critical && completion( name ) >= last;
         gate = opens ? std::min( gate, completion( name ) ) : gate;
      }
      // Without critical stages there is no gate.
      gate_ = gate != never ? gate : Moment();
      for( auto const & [ name, row ] : table )
         total_ = std::max( total_, completion( name ).first );
   }

   double total() const { return total_; }

 private:
   using Moment = std::pair< double, int >;

   // REQUIRES for a stage that is not critical: the gate is known.
   Moment start( std::string const & name ) {
      if( auto const known = start_.find( name ); known != start_.end() )
         return known->second;
      auto const & row = table_.at( name );
      auto last = row.critical ? Moment() : gate_;
      for( auto const & dependency : row.dependency )
         last = std::max( last, completion( dependency ) );
      return start_[ name ] = { last.first, last.second + 1 };
   }

   Moment completion( std::string const & name ) {
      auto const seconds = table_.at( name ).seconds;
      auto const moment = start( name );
      return seconds > 0 ? Moment( moment.first + seconds, 0 ) : moment;
   }

   Table const & table_;
   std::map< std::string, Moment > start_;
   Moment gate_;
   double total_ = 0;
};

} // namespace StartTable
