// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <simulation/detail/Admission.h>

#include <algorithm>
#include <stdexcept>
#include <type_traits>

#include <Kiv/Printable.h>

namespace Simulation::detail {

namespace {

using Kiv::quoted;

[[noreturn]] void refuse( std::string const & what ) { throw std::invalid_argument( what ); }

void requireName( std::string const & name, char const * whose ) {
   if( name.empty() )
      refuse( std::string( "the name of " ) + whose + " is empty" );
}

} // namespace

void Admission::admit( Operation const & operation ) {
   std::visit( [ this ]( auto const & o ) { judge( o ); }, operation );
}

void Admission::admit( std::vector< Input > const & input ) {
   for( auto const & one : input )
      admit( one.operation );
}

bool Admission::isThere( std::string const & agent ) const {
   auto const found = change_.find( agent );
   return found == change_.end() ? outside_.isThere( agent ) : found->second.there;
}

bool Admission::isAnythingDeclared() const {
   std::size_t events = outside_.events();
   for( auto const & [ agent, change ] : change_ )
      events += eventsOf( agent ) - outside_.events( agent );
   return events != 0;
}

void Admission::judge( Join const & join ) {
   requireName( join.agent, "an agent" );
   if( isThere( join.agent ) ) {
      refuse( "agent " + quoted( join.agent ) +
              " is there already; only an agent that is not in the directory can join" );
   }
   auto & change = change_[ join.agent ];
   change = { true, true, {} };
   for( auto const & event : join.event )
      come( join.agent, event );
}

void Admission::judge( Leave const & leave ) {
   requireAgent( leave.agent );
   change_[ leave.agent ] = { false, true, {} };
}

void Admission::judge( Declare const & declare ) {
   requireAgent( declare.agent );
   come( declare.agent, declare.event );
}

void Admission::judge( Withdraw const & withdraw ) {
   requireEvent( withdraw.agent, withdraw.stage );
   change_[ withdraw.agent ].event[ withdraw.stage ] = false;
}

void Admission::judge( Set const & set ) {
   requireEvent( set.agent, set.stage );
   for( auto const & write : set.write )
      if( auto const * const dependency = std::get_if< DependencyWrite >( &write ) )
         requireName( dependency->stage, "a stage" );
}

void Admission::judge( Enable const & ) { saysEnabled_ = true; }

void Admission::come( std::string const & agent, Event const & event ) {
   requireName( event.stage, "a stage" );
   for( auto const & dependency : event.dependency )
      requireName( dependency.stage, "a stage" );
   if( hasEvent( agent, event.stage ) ) {
      refuse( "agent " + quoted( agent ) + " has an event for stage " + quoted( event.stage ) +
              " already; it can declare one only for a stage for which it has none" );
   }
   change_[ agent ].event[ event.stage ] = true;
}

void Admission::requireAgent( std::string const & agent ) const {
   if( !isThere( agent ) ) {
      refuse( "agent " + quoted( agent ) +
              " is not there; only agents that are in the directory can leave, declare, withdraw "
              "or be set" );
   }
}

void Admission::requireEvent( std::string const & agent, std::string const & stage ) const {
   requireAgent( agent );
   if( !hasEvent( agent, stage ) ) {
      refuse( "agent " + quoted( agent ) + " has no event for stage " + quoted( stage ) +
              "; only an event that is there can be set or withdrawn" );
   }
}

bool Admission::hasEvent( std::string const & agent, std::string const & stage ) const {
   auto const found = change_.find( agent );
   if( found == change_.end() )
      return outside_.isDeclared( agent, stage );
   auto const & change = found->second;
   if( auto const event = change.event.find( stage ); event != change.event.end() )
      return event->second;
   return !change.anew && outside_.isDeclared( agent, stage );
}

// REQUIRES: something of the agent has changed.
std::size_t Admission::eventsOf( std::string const & agent ) const {
   auto const & change = change_.at( agent );
   std::size_t count = change.anew ? 0 : outside_.events( agent );
   for( auto const & [ stage, there ] : change.event ) {
      bool const before = !change.anew && outside_.isDeclared( agent, stage );
      count += static_cast< std::size_t >( there ) - static_cast< std::size_t >( before );
   }
   return count;
}

} // namespace Simulation::detail
