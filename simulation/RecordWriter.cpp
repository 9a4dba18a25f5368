// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <simulation/RecordWriter.h>

#include <simulation/InputLine.h>
#include <simulation/Json.h>

namespace Simulation {

namespace {

// Keys stand in ascending order in all that follows.
void stageMember( Json & json, std::string const & name, StageResult const & stage ) {
   json.key( name ).object().member( "active", stage.active );
   json.member( "complete", stage.complete ).member( "completionTime", stage.completionTime );
   json.member( "critical", stage.critical );
   json.key( "dependency" ).array();
   for( auto const & on : stage.dependency )
      json.value( on );
   json.end();
   json.key( "event" ).object();
   for( auto const & [ agent, complete ] : stage.event )
      json.key( agent ).object().member( "complete", complete ).end();
   json.end();
   json.key( "pending" ).array();
   for( auto const & [ uid, since ] : stage.pending )
      json.value( uid );
   json.end();
   json.member( "timedOut", stage.timedOut ).member( "timeout", stage.timeout ).end();
}

} // namespace

void RecordWriter::onBegin( Beginning const & beginning ) {
   if( inputs_ == Inputs::written )
      line_( beginLine( beginning ) + '\n' );
}

void RecordWriter::onInstant( Instant const & instant ) {
   if( inputs_ == Inputs::written )
      for( auto const & line : inputLines( instant ) )
         line_( line + '\n' );
}

void RecordWriter::onLogEntry( double t, std::string const & msg ) {
   Json json;
   json.object().member( "kind", "log" ).member( "msg", msg ).member( "t", t ).end();
   line_( json.text() + '\n' );
}

void RecordWriter::onMessage( Message const & message ) {
   Json json;
   json.object().member( "id", message.id ).member( "kind", "message" );
   json.member( "severity", message.severity ).member( "t", message.t );
   json.member( "text", message.text ).end();
   line_( json.text() + '\n' );
}

void RecordWriter::onEnd( Result const & result ) {
   Json json;
   json.object().member( "kind", "end" ).member( "outcome", outcomeName( result.outcome ) );
   json.key( "progress" ).object();
   for( auto const & [ stage, active ] : result.progress )
      json.member( stage, active );
   json.end();
   json.key( "status" ).object().member( "complete", result.complete ).key( "stage" ).object();
   for( auto const & [ name, stage ] : result.stage )
      stageMember( json, name, stage );
   json.end().end();
   json.member( "t", result.t ).end();
   line_( json.text() + '\n' );
}

} // namespace Simulation
