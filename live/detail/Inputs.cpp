// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <live/detail/Inputs.h>

#include <algorithm>

namespace Live::detail {

namespace {

double timeoutOf( Protocol::Event const & event ) {
   return event.timeout.value_or( Simulation::infinity );
}

std::vector< Simulation::Write > writes( Stage::EventConfig const & declared,
                                         Protocol::Event const & event ) {
   std::vector< Simulation::Write > writes;
   if( declared.critical() != event.critical )
      writes.push_back( Simulation::CriticalWrite{ event.critical } );
   if( declared.timeout() != timeoutOf( event ) )
      writes.push_back( Simulation::TimeoutWrite{ timeoutOf( event ) } );
   auto const & wanted = event.dependency;
   std::vector< std::string > gone;
   for( auto i = declared.dependencyIteratorConst(); i; ++i )
      if( std::find( wanted.begin(), wanted.end(), i.key().str() ) == wanted.end() )
         gone.push_back( i.key().str() );
   std::sort( gone.begin(), gone.end() );
   for( auto & stage : gone )
      writes.push_back( Simulation::DependencyWrite{ std::move( stage ), std::nullopt } );
   for( auto const & stage : wanted )
      if( !declared.dependency( stage ) )
         writes.push_back( Simulation::DependencyWrite{ stage, true } );
   if( event.complete && declared.complete() != *event.complete )
      writes.push_back( Simulation::CompleteWrite{ *event.complete } );
   return writes;
}

} // namespace

Simulation::Event inputOf( Protocol::Event const & event ) {
   using Kind = Simulation::Behaviour::Kind;
   Simulation::Event input;
   input.stage = event.stage;
   input.timeout = timeoutOf( event );
   input.critical = event.critical;
   for( auto const & stage : event.dependency )
      input.dependency.push_back( { stage, true } );
   input.complete.kind = event.complete.value_or( false ) ? Kind::already : Kind::never;
   return input;
}

std::vector< Simulation::Operation > changes( Stage::AgentConfig const & declared,
                                              std::vector< Protocol::Event > const & events,
                                              std::vector< std::string > const & withdraw ) {
   std::string const agent = declared.name().str();
   std::vector< Simulation::Operation > all;
   for( auto const & stage : withdraw )
      if( declared.event( stage ) )
         all.push_back( Simulation::Withdraw{ agent, stage } );
   for( auto const & event : events ) {
      auto const there = declared.event( event.stage );
      if( !there ) {
         all.push_back( Simulation::Declare{ agent, inputOf( event ) } );
         continue;
      }
      if( auto write = writes( *there, event ); !write.empty() )
         all.push_back( Simulation::Set{ agent, event.stage, std::move( write ) } );
   }
   return all;
}

std::vector< std::string > others( Stage::AgentConfig const & declared,
                                   std::vector< Protocol::Event > const & events ) {
   std::vector< std::string > stages;
   for( auto i = declared.eventIteratorConst(); i; ++i )
      if( std::none_of( events.begin(), events.end(),
                        [ & ]( auto const & event ) { return i.key() == event.stage; } ) )
         stages.push_back( i.key().str() );
   std::sort( stages.begin(), stages.end() );
   return stages;
}

} // namespace Live::detail
