// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include "RandomPlan.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <set>

namespace model {

namespace {

using namespace Simulation;

class Maker {
 public:
   explicit Maker( std::uint64_t seed ) : state_( seed * 0x9e3779b97f4a7c15U + 1 ) {}

   Plan plan() {
      bool const large = below( 2 ) != 0;
      stages_ = large ? 7 + below( 6 ) : 1 + below( 12 );
      agents_ = large ? 3 + below( 4 ) : 1 + below( 6 );
      critical_ = below( 4 );
      dense_ = below( 4 ) == 0;
      acyclic_ = below( 5 ) != 0 && !dense_;
      Plan plan;
      plan.application = "App";
      plan.enabled = below( 8 ) != 0;
      auto const first = large ? agents_ - below( 2 ) : 1 + below( agents_ );
      for( unsigned i = 0; i != first; ++i )
         plan.agent.push_back( { agentName( i ), events( agentName( i ) ), {} } );
      auto const entries = below( 11 );
      instants_.clear();
      for( unsigned i = 0; i != ( dense_ ? 2 : 1 + entries / 2 ); ++i )
         instants_.push_back( 0.5 * below( dense_ ? 4 : 16 ) );
      std::vector< double > when;
      for( unsigned i = 0; i != entries; ++i )
         when.push_back( instants_[ below( static_cast< unsigned >( instants_.size() ) ) ] );
      std::sort( when.begin(), when.end() );
      for( double const at : when )
         plan.timeline.push_back( { at, operation(), {}, {}, {} } );
      mix( plan.timeline );
      return plan;
   }

 private:
   // The file's order counts among equal times only.
   void mix( std::vector< TimelineEntry > & timeline ) {
      std::map< double, std::uint64_t > turn;
      for( auto const & entry : timeline )
         turn.emplace( entry.at, next() );
      if( below( 2 ) ) {
         auto const earlier = [ & ]( auto const & a, auto const & b ) {
            return turn.at( a.at ) < turn.at( b.at );
         };
         std::stable_sort( timeline.begin(), timeline.end(), earlier );
      }
   }

   std::uint64_t next() {
      std::uint64_t mixed = state_ += 0x9e3779b97f4a7c15U;
      mixed = ( mixed ^ ( mixed >> 30 ) ) * 0xbf58476d1ce4e5b9U;
      mixed = ( mixed ^ ( mixed >> 27 ) ) * 0x94d049bb133111ebU;
      return mixed ^ ( mixed >> 31 );
   }
   unsigned below( unsigned limit ) { return static_cast< unsigned >( next() % limit ); }

   static std::string agentName( unsigned i ) { return "agent" + std::to_string( i ); }
   static std::string stageName( unsigned i ) {
      return std::string( 1, static_cast< char >( 'A' + i ) );
   }
   // One agent and one stage may bear the same name.
   std::string anyStage() { return below( 60 ) ? stageName( below( stages_ ) ) : "agent0"; }

   double timeout() {
      switch( below( dense_ ? 5 : 8 ) ) {
      case 0:
         return 0;
      case 1:
         return 0.1 * ( 1 + below( 20 ) );
      case 2:
      case 3:
         return 0.5 * below( 8 );
      case 4:
         return 1e39 * below( 2 ) + 7;
      default:
         return infinity;
      }
   }

   Behaviour behaviour() {
      switch( below( 20 ) ) {
      case 0:
         return { Behaviour::Kind::never, 0 };
      case 1:
         return { Behaviour::Kind::already, 0 };
      case 2:
      case 3:
         return { Behaviour::Kind::afterSeconds, 0 };
      case 4:
      case 5:
         return { Behaviour::Kind::afterSeconds, 0.1 * ( 1 + below( 20 ) ) };
      default:
         return { Behaviour::Kind::afterSeconds, 0.5 * below( dense_ ? 3 : 7 ) };
      }
   }

   // Of a stage; most plans have no cycles, a few dependencies are on what nobody declares.
   std::string dependencyOf( std::string const & stage ) {
      if( below( 100 ) == 0 )
         return "Nowhere";
      if( acyclic_ && stage.size() == 1 ) {
         auto const own = static_cast< unsigned >( stage[ 0 ] - 'A' );
         return own == 0 ? std::string() : stageName( below( own ) );
      }
      return anyStage();
   }

   Event event( std::string const & stage ) {
      Event made;
      made.stage = stage;
      made.timeout = timeout();
      made.critical = below( 8 ) < critical_;
      made.complete = behaviour();
      for( unsigned count = below( 4 ); count > 1 || ( count == 1 && below( 2 ) ); --count )
         if( auto const on = dependencyOf( stage ); !on.empty() )
            made.dependency.push_back( { on, below( 8 ) != 0 } );
      return made;
   }

   std::vector< Event > events( std::string const & agent ) {
      std::vector< Event > made;
      auto & declared = declared_[ agent ];
      unsigned count = below( 2 + stages_ / 2 + stages_ / 4 );
      count += below( 2 );
      for( ; count != 0; --count ) {
         auto const stage = anyStage();
         if( declared.insert( stage ).second )
            made.push_back( event( stage ) );
      }
      return made;
   }

   Operation operation() {
      auto const agent = agentName( below( agents_ ) );
      if( below( 10 ) == 0 )
         return Enable{ below( 4 ) != 0 };
      if( !declared_.contains( agent ) ) {
         auto const made = events( agent );
         return Join{ agent, made };
      }
      auto & declared = declared_[ agent ];
      auto const what = below( 12 );
      if( what == 0 ) {
         declared_.erase( agent );
         return Leave{ agent };
      }
      if( declared.empty() || what < 4 ) {
         auto const stage = anyStage();
         if( declared.insert( stage ).second )
            return Declare{ agent, event( stage ) };
      }
      auto const size = static_cast< unsigned >( declared.size() );
      auto const stage = *std::next( declared.begin(), below( size ) );
      if( what < 6 ) {
         declared.erase( stage );
         return Withdraw{ agent, stage };
      }
      return Set{ agent, stage, writes( stage ) };
   }

   std::vector< Write > writes( std::string const & stage ) {
      std::vector< Write > made;
      for( unsigned count = 1 + below( 3 ); count != 0; --count ) {
         switch( below( 5 ) ) {
         case 0:
            made.emplace_back( CriticalWrite{ below( 2 ) != 0 } );
            break;
         case 1:
            made.emplace_back( TimeoutWrite{ timeout() } );
            break;
         case 2:
            made.emplace_back( CompleteWrite{ below( 3 ) != 0 } );
            break;
         default:
            if( auto const on = dependencyOf( stage ); !on.empty() ) {
               auto const value = below( 3 );
               made.emplace_back( DependencyWrite{ on, value == 2
                                                          ? std::optional< bool >()
                                                          : std::optional< bool >( value == 1 ) } );
            }
         }
      }
      return made;
   }

   std::uint64_t state_;
   unsigned stages_ = 0;
   unsigned agents_ = 0;
   unsigned critical_ = 0; // eighths of the events
   bool acyclic_ = true;
   bool dense_ = false; // much falls together
   std::vector< double > instants_;
   std::map< std::string, std::set< std::string > > declared_; // stages, by agent
};

// ------------------------------------------------------------------------------------------ YAML

std::string number( double value ) {
   if( value == infinity )
      return ".inf";
   char text[ 32 ];
   std::snprintf( text, sizeof text, "%.17g", value );
   return text;
}

std::string word( bool value ) { return value ? "true" : "false"; }

std::string yamlOfEvent( Event const & event ) {
   std::string dependency;
   std::map< std::string, bool > last;
   for( auto const & one : event.dependency )
      last[ one.stage ] = one.value;
   for( auto const & [ stage, value ] : last )
      dependency += ( dependency.empty() ? "" : ", " ) + stage + ": " + word( value );
   auto const & behaviour = event.complete;
   auto const complete = behaviour.kind == Behaviour::Kind::never     ? std::string( "never" )
                         : behaviour.kind == Behaviour::Kind::already ? std::string( "true" )
                                                                      : number( behaviour.seconds );
   return "{timeout: " + number( event.timeout ) + ( event.critical ? ", critical: true" : "" ) +
          ( dependency.empty() ? "" : ", dependency: {" + dependency + "}" ) +
          ", complete: " + complete + "}";
}

std::string yamlOfEvents( std::vector< Event > const & events ) {
   std::string text;
   for( auto const & event : events )
      text += ( text.empty() ? "" : ", " ) + event.stage + ": " + yamlOfEvent( event );
   return "{" + text + "}";
}

std::string yamlOfWrite( CriticalWrite const & write ) {
   return "critical: " + word( write.value );
}
std::string yamlOfWrite( TimeoutWrite const & write ) {
   return "timeout: " + number( write.value );
}
std::string yamlOfWrite( CompleteWrite const & write ) {
   return "complete: " + word( write.value );
}
std::string yamlOfWrite( DependencyWrite const & write ) {
   auto const value = write.value ? word( *write.value ) : "null";
   return "dependency: {" + write.stage + ": " + value + "}";
}

std::string yamlOfOperation( Join const & join ) {
   return "agent: " + join.agent + ", join: " + yamlOfEvents( join.event );
}
std::string yamlOfOperation( Leave const & leave ) {
   return "agent: " + leave.agent + ", leave: true";
}
std::string yamlOfOperation( Declare const & declare ) {
   return "agent: " + declare.agent + ", stage: " + declare.event.stage +
          ", declare: " + yamlOfEvent( declare.event );
}
std::string yamlOfOperation( Withdraw const & withdraw ) {
   return "agent: " + withdraw.agent + ", stage: " + withdraw.stage + ", withdraw: true";
}
std::string yamlOfOperation( Enable const & enable ) { return "enabled: " + word( enable.value ); }

// One entry for each write, as an attribute may be written twice: that means the same.
std::string yamlOfSet( std::string const & at, Set const & set ) {
   std::string text;
   for( auto const & write : set.write ) {
      text += at + "agent: " + set.agent + ", stage: " + set.stage + ", set: {" +
              std::visit( []( auto const & one ) { return yamlOfWrite( one ); }, write ) + "}}\n";
   }
   return text;
}

std::string yamlOfEntry( TimelineEntry const & entry ) {
   std::string const at = "  - {at: " + number( entry.at ) + ", ";
   return std::visit(
      [ & ]( auto const & operation ) -> std::string {
         if constexpr( std::is_same_v< std::decay_t< decltype( operation ) >, Set > )
            return yamlOfSet( at, operation );
         else
            return at + yamlOfOperation( operation ) + "}\n";
      },
      entry.operation );
}

} // namespace

Plan randomPlan( std::uint64_t seed ) { return Maker( seed ).plan(); }

std::string yamlOf( Plan const & plan ) {
   std::string text =
      "application: " + plan.application + "\nenabled: " + word( plan.enabled ) + "\nagents:\n";
   for( auto const & agent : plan.agent )
      text += "  " + agent.name + ": " + yamlOfEvents( agent.event ) + "\n";
   if( !plan.timeline.empty() )
      text += "timeline:\n";
   for( auto const & entry : plan.timeline )
      text += yamlOfEntry( entry );
   return text;
}

} // namespace model
