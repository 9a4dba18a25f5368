// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <live/detail/View.h>

#include <Ordovan/Ordovan.h>
#include <Stage/Stage.h>

#include <algorithm>
#include <cmath>

namespace Live::detail {

namespace {

std::optional< double > seconds( double timeout ) {
   return std::isfinite( timeout ) ? std::optional( timeout ) : std::nullopt;
}

// Those that count, sorted.
template< class Depending >
std::vector< std::string > dependencies( Depending const & of ) {
   std::vector< std::string > names;
   for( auto i = of.dependencyIteratorConst(); i; ++i )
      if( i.value() )
         names.push_back( i.key().str() );
   std::sort( names.begin(), names.end() );
   return names;
}

Protocol::Event eventOf( std::string stage, ::Stage::EventConfig const & event ) {
   return { std::move( stage ), seconds( event.timeout() ), event.critical(), dependencies( event ),
            event.complete() };
}

} // namespace

bool View::known( std::string const & stage ) const {
   return engine_.status()->stage( stage ) != nullptr;
}
bool View::active( std::string const & stage ) const {
   return engine_.status()->activeStage( stage ) != nullptr;
}
bool View::complete( std::string const & stage ) const {
   auto const machine = engine_.manager()->statusSm()->stageSm( stage );
   return machine && machine->complete();
}
bool View::timedOut( std::string const & stage ) const {
   auto const machine = engine_.manager()->statusSm()->stageSm( stage );
   return machine && machine->timedOut();
}

std::vector< std::string > View::stages( bool activeAlone ) const {
   std::vector< std::string > names;
   ::Stage::Status const & status = *engine_.status();
   if( activeAlone )
      for( auto i = status.activeStageIteratorConst(); i; ++i )
         names.push_back( i.key().str() );
   else
      for( auto i = status.stageIteratorConst(); i; ++i )
         names.push_back( i.key().str() );
   std::sort( names.begin(), names.end() );
   return names;
}

Protocol::Stage View::stage( std::string const & name, bool events ) const {
   auto const entity = engine_.status()->stage( name );
   auto const machine = engine_.manager()->statusSm()->stageSm( name );
   Protocol::Stage stage;
   stage.name = name;
   stage.active = active( name );
   stage.complete = machine && machine->complete();
   stage.timedOut = machine && machine->timedOut();
   stage.suspended = stage.timedOut && !stage.complete;
   stage.critical = entity->critical();
   stage.timeout = seconds( entity->timeout() );
   stage.dependency = dependencies( *entity );
   if( !events )
      return stage;
   for( auto i = entity->eventIteratorConst(); i; ++i ) {
      Protocol::StageEvent event{ i.key().str(), i.ptr()->complete(), false, {} };
      if( auto const known = agents_.find( event.agent ); known != agents_.end() ) {
         event.connected = known->second.connection != nullptr;
         if( auto const note = known->second.note.find( name ); note != known->second.note.end() )
            event.note = note->second;
      }
      stage.event.push_back( std::move( event ) );
   }
   std::sort( stage.event.begin(), stage.event.end(),
              []( auto const & a, auto const & b ) { return a.agent < b.agent; } );
   return stage;
}

Protocol::Agent View::agent( std::string const & name ) const {
   auto const & known = agents_.find( name )->second;
   Protocol::Agent agent{ name, known.connection != nullptr, known.joined, known.lost, {} };
   auto const entity =
      Kiv::ptrCast< ::Stage::AgentConfig >( engine_.agentDir()->entityPtr( name ) );
   ::Stage::AgentConfig const & config = *entity;
   for( auto i = config.eventIteratorConst(); i; ++i )
      agent.event.push_back( eventOf( i.key().str(), *i.ptr() ) );
   std::sort( agent.event.begin(), agent.event.end(),
              []( auto const & a, auto const & b ) { return a.stage < b.stage; } );
   return agent;
}

std::vector< Protocol::Entry > View::log( std::int64_t after, std::size_t most ) const {
   std::vector< Protocol::Entry > entries;
   ::Stage::Log const & log = *engine_.log();
   auto place = static_cast< std::uint64_t >( after );
   for( ; place < log.logs() && entries.size() != most; ++place ) {
      auto const & entry = log.log( static_cast< std::size_t >( place ) );
      entries.push_back(
         { static_cast< std::int64_t >( place + 1 ), entry.time, entry.msg.str() } );
   }
   return entries;
}

} // namespace Live::detail
