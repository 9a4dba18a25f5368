// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <simulation/RecordWriter.h>

#include <map>
#include <vector>

#include <simulation/detail/Json.h>

namespace Simulation {

namespace {

using detail::jsonNumber;
using detail::jsonString;

std::string json( bool value ) { return value ? "true" : "false"; }
std::string json( double value ) { return jsonNumber( value ); }

// An object is written from the pairs that it is given, in their order, so callers give the keys
// in ascending order.
class Object {
 public:
   Object & add( std::string_view key, std::string const & json ) {
      text_ += ( text_.empty() ? "" : ", " ) + jsonString( key ) + ": " + json;
      return *this;
   }
   std::string text() const { return '{' + text_ + '}'; }

 private:
   std::string text_;
};

template< class Value, class ToJson >
std::string objectOf( std::map< std::string, Value > const & members, ToJson toJson ) {
   Object object;
   for( auto const & [ key, value ] : members )
      object.add( key, toJson( value ) );
   return object.text();
}

std::string arrayOf( std::vector< std::string > const & names ) {
   std::string text;
   for( auto const & name : names )
      text += ( text.empty() ? "" : ", " ) + jsonString( name );
   return '[' + text + ']';
}

std::string eventJson( bool complete ) {
   return Object().add( "complete", json( complete ) ).text();
}

std::string stageJson( StageResult const & stage ) {
   std::vector< std::string > pending;
   for( auto const & [ uid, since ] : stage.pending )
      pending.push_back( uid );
   return Object()
      .add( "active", json( stage.active ) )
      .add( "complete", json( stage.complete ) )
      .add( "completionTime", json( stage.completionTime ) )
      .add( "critical", json( stage.critical ) )
      .add( "dependency", arrayOf( stage.dependency ) )
      .add( "event", objectOf( stage.event, eventJson ) )
      .add( "pending", arrayOf( pending ) )
      .add( "timedOut", json( stage.timedOut ) )
      .add( "timeout", json( stage.timeout ) )
      .text();
}

} // namespace

void RecordWriter::onLogEntry( double t, std::string const & msg ) {
   line_( Object()
             .add( "kind", jsonString( "log" ) )
             .add( "msg", jsonString( msg ) )
             .add( "t", json( t ) )
             .text() +
          '\n' );
}

void RecordWriter::onMessage( Message const & message ) {
   line_( Object()
             .add( "id", jsonString( message.id ) )
             .add( "kind", jsonString( "message" ) )
             .add( "severity", json( static_cast< double >( message.severity ) ) )
             .add( "t", json( message.t ) )
             .add( "text", jsonString( message.text ) )
             .text() +
          '\n' );
}

void RecordWriter::onEnd( Result const & result ) {
   auto const progressJson = []( bool active ) { return json( active ); };
   auto const status = Object()
                          .add( "complete", json( result.complete ) )
                          .add( "stage", objectOf( result.stage, stageJson ) )
                          .text();
   line_( Object()
             .add( "kind", jsonString( "end" ) )
             .add( "outcome", jsonString( outcomeName( result.outcome ) ) )
             .add( "progress", objectOf( result.progress, progressJson ) )
             .add( "status", status )
             .add( "t", json( result.t ) )
             .text() +
          '\n' );
}

} // namespace Simulation
