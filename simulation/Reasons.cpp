// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <simulation/Reasons.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <string_view>

#include <simulation/detail/Json.h>
#include <simulation/detail/Text.h>

namespace Simulation {

namespace {

using Detail::quoted;

std::string seconds( double t ) { return Detail::jsonNumber( t ) + " s"; }

// "a", "a and b", "a, b and c".
std::string listed( std::vector< std::string > const & parts ) {
   std::string text;
   for( std::size_t i = 0; i < parts.size(); ++i ) {
      text += i == 0 ? "" : i + 1 == parts.size() ? " and " : ", ";
      text += parts[ i ];
   }
   return text;
}

// Which stages depend on themselves, by way of others that wait too: the strongly connected
// components of the stages that have not started. The walk keeps its own stack, since a chain of
// stages can be longer than the thread's could bear.
class Cycles {
 public:
   explicit Cycles( Result const & result ) : result_( result ) {
      for( auto const & [ name, stage ] : result.stage ) {
         if( !stage.active && !node_.count( name ) ) {
            walk( name );
         }
      }
   }

   // A dependency of `stage` through which it depends on itself; empty if there is none.
   std::string through( std::string const & name, StageResult const & stage ) const {
      for( auto const & dependency : stage.dependency ) {
         auto const found = node_.find( dependency );
         if( found != node_.end() && found->second.component == node_.at( name ).component ) {
            return dependency;
         }
      }
      return {};
   }

 private:
   struct Node {
      std::size_t index = 0;
      std::size_t low = 0;        // the smallest index that it can reach
      std::size_t component = 0;  // 0 while it is not known
   };
   struct Frame {
      std::string const * name;
      std::vector< std::string > const * dependency;
      std::size_t next;
   };

   void enter( std::string const & name ) {
      auto const & [ key, stage ] = *result_.stage.find( name );
      ++entered_;
      node_[ key ] = { entered_, entered_, 0 };
      open_.push_back( &key );
      frames_.push_back( { &key, &stage.dependency, 0 } );
   }

   void walk( std::string const & root ) {
      enter( root );
      while( !frames_.empty() ) {
         auto & frame = frames_.back();
         if( frame.next < frame.dependency->size() ) {
            visit( node_[ *frame.name ], ( *frame.dependency )[ frame.next++ ] );
         } else {
            leave();
         }
      }
   }

   void visit( Node & from, std::string const & to ) {
      auto const stage = result_.stage.find( to );
      if( stage == result_.stage.end() || stage->second.active ) {
         return;
      }
      auto const seen = node_.find( to );
      if( seen == node_.end() ) {
         enter( to );
      } else if( seen->second.component == 0 ) {
         from.low = std::min( from.low, seen->second.index );
      }
   }

   void leave() {
      auto & node = node_[ *frames_.back().name ];
      frames_.pop_back();
      if( !frames_.empty() ) {
         auto & parent = node_[ *frames_.back().name ];
         parent.low = std::min( parent.low, node.low );
      }
      if( node.low != node.index ) {
         return;
      }
      for( bool last = false; !last; open_.pop_back() ) {
         auto & member = node_[ *open_.back() ];
         member.component = node.index;
         last = &member == &node;
      }
   }

   Result const & result_;
   std::map< std::string, Node > node_;
   std::vector< std::string const * > open_;  // entered, of a component that is not known yet
   std::vector< Frame > frames_;
   std::size_t entered_ = 0;
};

// What stage `name` lacks so that a stage that depends on it could start; empty if it lacks
// nothing.
std::string dependencyLack( Result const & result, std::string const & name ) {
   auto const found = result.stage.find( name );
   if( found == result.stage.end() ) {
      return "stage " + quoted( name ) + ", which no agent has declared";
   }
   auto const & stage = found->second;
   if( stage.finished() ) {
      return {};
   }
   auto const lack = !stage.active     ? "which has not started"
                     : !stage.timedOut ? "which is not complete"
                                       : "which timed out and is suspended";
   return "stage " + quoted( name ) + ", " + lack;
}

// The critical stages that have not started, named as far as that helps.
std::string criticalWaiting( Result const & result ) {
   std::size_t constexpr named = 3;
   std::vector< std::string > names;
   std::size_t count = 0;
   for( auto const & [ name, stage ] : result.stage ) {
      if( stage.critical && !stage.active && ++count <= named ) {
         names.push_back( quoted( name ) );
      }
   }
   if( count > named ) {
      names.push_back( std::to_string( count - named ) + " more" );
   }
   if( count == 0 ) {
      return {};
   }
   return count == 1 ? "critical stage " + listed( names ) + " has started"
                     : "critical stages " + listed( names ) + " have started";
}

bool isLimited( double seconds ) { return seconds < infinity; }  // false for NaN

// When the time of a stage that has not started will run.
std::string timeToCome( StageResult const & stage ) {
   return isLimited( stage.timeout )
             ? "; its time of " + seconds( stage.timeout ) + " does not run before it has started"
             : "; it has no time limit";
}

// What happens when the time of an active stage is up.
std::string timeRunning( Result const & result, StageResult const & stage ) {
   if( stage.timedOut ) {
      return std::string( ", with no time limit any more" ) +
             ( stage.critical ? "" : "; that it has ceased to be critical does not release it" );
   }
   // The present timeout may be another than the one that the timer was armed with.
   bool const changed = stage.activeSince + stage.timeout != stage.timeIsUp &&
                        ( isLimited( stage.timeout ) || isLimited( stage.timeIsUp ) );
   std::string const whatever = changed ? ", whatever its timeout is now" : "";
   if( !isLimited( stage.timeIsUp ) ) {
      return "; it has no time limit and waits for ever" + whatever;
   }
   auto const left = std::round( ( stage.timeIsUp - result.now ) * 1000 ) / 1000;
   return "; its time is up at " + seconds( stage.timeIsUp ) + ", in " + seconds( left ) +
          whatever +
          ( stage.critical ? ", and it would then be suspended, with the message "
                             "ORDOVAN_STAGE_SLOW"
                           : ", and it would then be declared complete all the same" );
}

std::string waitingText( Result const & result, Cycles const & cycles, std::string const & critical,
                         std::string const & name, StageResult const & stage ) {
   if( !result.started ) {
      return "waits for progression to be enabled";
   }
   std::vector< std::string > lacks;
   for( auto const & dependency : stage.dependency ) {
      if( auto lack = dependencyLack( result, dependency ); !lack.empty() ) {
         lacks.push_back( lack );
      }
   }
   std::string text;
   if( !stage.critical && !critical.empty() ) {
      text = "is held back until " + critical;
   }
   if( !lacks.empty() ) {
      text += ( text.empty() ? "waits for " : ", and waits for " ) + listed( lacks );
   }
   if( auto const through = cycles.through( name, stage ); !through.empty() ) {
      text += through == name ? "; it depends on itself"
                              : "; it depends on itself by way of stage " + quoted( through );
   }
   return text.empty() ? "waits for nothing but the next decision, which only a change elsewhere "
                         "brings about"
                       : text;
}

std::string activeText( Result const & result, std::string const & name,
                        StageResult const & stage ) {
   std::vector< std::string > agents;
   for( auto const & [ uid, since ] : stage.pending ) {
      auto const agent = std::string_view( uid ).substr( std::min( name.size() + 1, uid.size() ) );
      agents.push_back( "agent " + quoted( agent ) + " (pending since " + seconds( since ) + ')' );
   }
   std::string const state =
      stage.timedOut ? "timed out at " + seconds( stage.timedOutAt ) + " and is suspended; it "
                     : "is active and ";
   return state + "waits for the event" + ( agents.size() == 1 ? "" : "s" ) + " of " +
          listed( agents ) + timeRunning( result, stage );
}

}  // namespace

std::vector< Reason > reasons( Result const & result ) {
   Cycles const cycles( result );
   auto const critical = criticalWaiting( result );
   std::vector< Reason > found;
   for( auto const & [ name, stage ] : result.stage ) {
      if( stage.finished() ) {
         continue;
      }
      auto const text = stage.active
                           ? activeText( result, name, stage )
                           : waitingText( result, cycles, critical, name, stage ) +
                                timeToCome( stage );
      found.push_back( { name, ( stage.critical ? "critical stage " : "stage " ) + quoted( name ) +
                                  ' ' + text + '.' } );
   }
   return found;
}

}  // namespace Simulation
