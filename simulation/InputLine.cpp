// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <simulation/InputLine.h>

#include <cmath>
#include <initializer_list>
#include <set>
#include <string_view>
#include <utility>

#include <Kiv/Printable.h>

#include <simulation/Json.h>
#include <simulation/Stamp.h>

namespace Simulation {

namespace {

using Kiv::quoted;
using Kind = JsonValue::Kind;

// ---------------------------------------------------------------------------------------- writing

[[noreturn]] void unwritable( std::string const & what ) { throw std::invalid_argument( what ); }

std::string const & writable( std::string const & name ) {
   if( name.empty() )
      unwritable( "a name is empty" );
   std::string_view rest = name;
   while( !rest.empty() ) {
      auto const length = Kiv::characterLength( rest );
      if( length == 0 )
         unwritable( "the name " + quoted( name ) + " is no UTF-8" );
      rest.remove_prefix( length );
   }
   return name;
}

double writable( double timeout ) {
   if( !( timeout >= 0 ) )
      unwritable( "a timeout is a number of seconds from 0 on" );
   return timeout;
}

// Keys stand in ascending order in all that follows, names in the order in which they are declared.
void eventValue( Json & json, Event const & event ) {
   json.object().key( "complete" );
   switch( event.complete.kind ) {
   case Behaviour::Kind::already:
      json.value( true );
      break;
   case Behaviour::Kind::never:
      json.value( "never" );
      break;
   case Behaviour::Kind::afterSeconds:
      unwritable(
         "an event that is taken in is complete or not; only simulated agents report after "
         "some seconds" );
   }
   if( event.critical )
      json.member( "critical", true );
   if( !event.dependency.empty() ) {
      json.key( "dependency" ).object();
      for( auto i = event.dependency.begin(); i != event.dependency.end(); ++i ) {
         bool again = false; // the last of a name counts, and nothing sees the others
         for( auto later = i + 1; later != event.dependency.end(); ++later )
            again = again || later->stage == i->stage;
         if( !again )
            json.member( writable( i->stage ), i->value );
      }
      json.end();
   }
   if( writable( event.timeout ) != infinity )
      json.member( "timeout", event.timeout );
   json.end();
}

void eventsMember( Json & json, std::string_view key, std::vector< Event > const & events ) {
   json.key( key ).object();
   for( auto const & event : events )
      eventValue( json.key( writable( event.stage ) ), event );
   json.end();
}

// Cuts the writes of a `Set` into pieces that can be written as one object each: no attribute
// twice, and all dependencies together. There is one piece at least.
std::vector< std::vector< Write > > piecesOf( std::vector< Write > const & writes ) {
   std::vector< std::vector< Write > > pieces( 1 );
   std::set< std::pair< std::size_t, std::string > > written; // what is in the last piece
   for( auto const & write : writes ) {
      auto const * const dependency = std::get_if< DependencyWrite >( &write );
      auto const key = std::pair( write.index(), dependency ? writable( dependency->stage ) : "" );
      auto const & last = pieces.back();
      bool const apart = dependency && !last.empty() && last.back().index() != write.index() &&
                         written.lower_bound( { write.index(), "" } ) != written.end();
      if( apart || written.count( key ) ) {
         pieces.emplace_back();
         written.clear();
      }
      written.insert( key );
      pieces.back().push_back( write );
   }
   return pieces;
}

class AttributeMember {
 public:
   explicit AttributeMember( Json & json ) : json_( json ) {}

   void operator()( CriticalWrite const & write ) { plain().member( "critical", write.value ); }
   void operator()( TimeoutWrite const & write ) {
      plain().member( "timeout", writable( write.value ) );
   }
   void operator()( CompleteWrite const & write ) { plain().member( "complete", write.value ); }
   void operator()( DependencyWrite const & write ) {
      if( !std::exchange( inDependency_, true ) )
         json_.key( "dependency" ).object();
      json_.key( writable( write.stage ) );
      if( write.value )
         json_.value( *write.value );
      else
         json_.null();
   }
   void end() { plain().end(); }

 private:
   Json & plain() {
      if( std::exchange( inDependency_, false ) )
         json_.end();
      return json_;
   }

   Json & json_;
   bool inDependency_ = false;
};

// One object for each line that an input takes.
class LineWriter {
 public:
   LineWriter( double t, Input const & input, std::vector< std::string > & lines )
      : t_( t ), user_( input.user ), lines_( lines ) {}

   void operator()( Join const & join ) const {
      Json json;
      json.object().member( "agent", writable( join.agent ) );
      eventsMember( json, "join", join.event );
      end( kind( json ) );
   }
   void operator()( Leave const & leave ) const {
      Json json;
      json.object().member( "agent", writable( leave.agent ) );
      end( kind( json ).member( "leave", true ) );
   }
   void operator()( Declare const & declare ) const {
      Json json;
      json.object().member( "agent", writable( declare.agent ) );
      eventValue( json.key( "declare" ), declare.event );
      end( kind( json ).member( "stage", writable( declare.event.stage ) ) );
   }
   void operator()( Withdraw const & withdraw ) const {
      Json json;
      json.object().member( "agent", writable( withdraw.agent ) );
      end( kind( json ).member( "stage", writable( withdraw.stage ) ), true );
   }
   void operator()( Set const & set ) const {
      for( auto const & piece : piecesOf( set.write ) ) {
         Json json;
         json.object().member( "agent", writable( set.agent ) );
         kind( json ).key( "set" ).object();
         AttributeMember attribute( json );
         for( auto const & write : piece )
            std::visit( attribute, write );
         attribute.end();
         end( json.member( "stage", writable( set.stage ) ) );
      }
   }
   void operator()( Enable const & enable ) const {
      Json json;
      end( kind( json.object().member( "enabled", enable.value ) ) );
   }

 private:
   static Json & kind( Json & json ) { return json.member( "kind", "input" ); }

   void end( Json & json, bool withdraw = false ) const {
      json.member( "t", t_ );
      if( user_ )
         json.member( "user", *user_ );
      if( withdraw )
         json.member( "withdraw", true );
      lines_.push_back( json.end().text() );
   }

   double t_;
   std::optional< std::uint32_t > user_;
   std::vector< std::string > & lines_;
};

// ---------------------------------------------------------------------------------------- reading

[[noreturn]] void wrong( std::string const & what ) { throw LineError( what ); }

// The members of one object, each of which is asked for once.
class Members {
 public:
   // `what`: the object, for messages; `allowed`: its keys.
   Members( JsonValue const & object, std::string what, std::string_view allowed )
      : object_( object ), what_( std::move( what ) ), allowed_( allowed ) {
      if( object.kind != Kind::object )
         wrong( what_ + " is " + described( object ) + "; expected an object" );
      for( auto const & member : object.member )
         if( ( ' ' + allowed_ + ' ' ).find( ' ' + member.name + ' ' ) == std::string::npos )
            wrong( "unknown key " + quoted( member.name ) + " in " + what_ + "; known are " +
                   allowed_ );
   }

   bool has( std::string_view key ) const { return object_.find( key ) != nullptr; }

   JsonValue const & need( std::string_view key ) const {
      auto const * const value = object_.find( key );
      if( !value )
         wrong( quoted( key ) + " is missing in " + what_ );
      return *value;
   }

   bool truth( std::string_view key ) const {
      auto const & value = need( key );
      if( value.kind != Kind::boolean )
         expected( key, value, "true or false" );
      return value.boolean;
   }

   std::string const & name( std::string_view key ) const {
      auto const & value = need( key );
      if( value.kind != Kind::text || value.text.empty() )
         expected( key, value, "a name" );
      return value.text;
   }

   double timeout( std::string_view key ) const {
      auto const & value = need( key );
      if( value.kind == Kind::text && value.text == "inf" )
         return infinity;
      if( value.kind != Kind::number || !( value.number >= 0 ) )
         expected( key, value, "seconds from 0 on, or \"inf\"" );
      return value.number;
   }

   void isTrue( std::string_view key ) const {
      if( !truth( key ) )
         expected( key, need( key ), "true" );
   }

   [[noreturn]] static void expected( std::string_view key, JsonValue const & value,
                                      std::string const & what ) {
      wrong( quoted( key ) + " is " + described( value ) + "; expected " + what );
   }

 private:
   JsonValue const & object_;
   std::string what_;
   std::string allowed_;
};

std::string const & nameOf( JsonMember const & member ) {
   if( member.name.empty() )
      wrong( "a name is empty" );
   return member.name;
}

JsonValue const & objectUnder( Members const & members, std::string_view key ) {
   auto const & value = members.need( key );
   if( value.kind != Kind::object )
      Members::expected( key, value, "an object" );
   return value;
}

Event eventOf( std::string const & stage, JsonValue const & value ) {
   Members const members( value, "the event for stage " + quoted( stage ),
                          "complete critical dependency timeout" );
   Event event;
   event.stage = stage;
   auto const & complete = members.need( "complete" );
   bool const never = complete.kind == Kind::text && complete.text == "never";
   if( !never && !( complete.kind == Kind::boolean && complete.boolean ) )
      Members::expected( "complete", complete, "true or \"never\"" );
   event.complete.kind = never ? Behaviour::Kind::never : Behaviour::Kind::already;
   if( members.has( "critical" ) )
      event.critical = members.truth( "critical" );
   if( members.has( "timeout" ) )
      event.timeout = members.timeout( "timeout" );
   if( !members.has( "dependency" ) )
      return event;
   for( auto const & on : objectUnder( members, "dependency" ).member ) {
      if( on.value.kind != Kind::boolean )
         Members::expected( nameOf( on ), on.value, "true or false" );
      event.dependency.push_back( { nameOf( on ), on.value.boolean } );
   }
   return event;
}

std::vector< Event > eventsOf( JsonValue const & object ) {
   std::vector< Event > events;
   for( auto const & member : object.member )
      events.push_back( eventOf( nameOf( member ), member.value ) );
   return events;
}

std::vector< Write > writesOf( JsonValue const & value ) {
   Members const members( value, "\"set\"", "complete critical dependency timeout" );
   std::vector< Write > writes;
   for( auto const & [ key, content ] : value.member ) {
      if( key == "complete" )
         writes.emplace_back( CompleteWrite{ members.truth( key ) } );
      else if( key == "critical" )
         writes.emplace_back( CriticalWrite{ members.truth( key ) } );
      else if( key == "timeout" )
         writes.emplace_back( TimeoutWrite{ members.timeout( key ) } );
      else {
         for( auto const & on : objectUnder( members, key ).member ) {
            if( on.value.kind != Kind::boolean && on.value.kind != Kind::null )
               Members::expected( nameOf( on ), on.value, "true, false or null" );
            auto const is =
               on.value.kind == Kind::boolean ? std::optional( on.value.boolean ) : std::nullopt;
            writes.emplace_back( DependencyWrite{ nameOf( on ), is } );
         }
      }
   }
   return writes;
}

// What else an input has beside "kind", "t" and "user".
Operation operationOf( JsonValue const & line ) {
   std::string const always = "kind t user ";
   auto const members = [ & ]( char const * keys ) {
      return Members( line, "the input", always + keys );
   };
   if( line.find( "join" ) ) {
      auto const join = members( "agent join" );
      return Join{ join.name( "agent" ), eventsOf( objectUnder( join, "join" ) ) };
   }
   if( line.find( "leave" ) ) {
      auto const leave = members( "agent leave" );
      leave.isTrue( "leave" );
      return Leave{ leave.name( "agent" ) };
   }
   if( line.find( "declare" ) ) {
      auto const declare = members( "agent declare stage" );
      return Declare{ declare.name( "agent" ),
                      eventOf( declare.name( "stage" ), declare.need( "declare" ) ) };
   }
   if( line.find( "withdraw" ) ) {
      auto const withdraw = members( "agent stage withdraw" );
      withdraw.isTrue( "withdraw" );
      return Withdraw{ withdraw.name( "agent" ), withdraw.name( "stage" ) };
   }
   if( line.find( "set" ) ) {
      auto const set = members( "agent set stage" );
      return Set{ set.name( "agent" ), set.name( "stage" ), writesOf( set.need( "set" ) ) };
   }
   if( line.find( "enabled" ) )
      return Enable{ members( "enabled" ).truth( "enabled" ) };
   wrong( "the input says nothing; expected one of declare, enabled, join, leave, set, withdraw" );
}

std::optional< std::uint32_t > userOf( JsonValue const & line ) {
   auto const * const user = line.find( "user" );
   if( !user )
      return std::nullopt;
   if( user->kind != Kind::number || !( user->number >= 0 ) || user->number > 4294967295.0 ||
       user->number != std::floor( user->number ) )
      Members::expected( "user", *user, "the number of a user" );
   return static_cast< std::uint32_t >( user->number );
}

} // namespace

std::string beginLine( Beginning const & beginning ) {
   Json json;
   json.object().key( "agents" ).object();
   for( auto const & agent : beginning.agent )
      eventsMember( json, writable( agent.name ), agent.event );
   json.end().member( "application", writable( beginning.application ) );
   json.member( "decideOnDeclarations", beginning.decideOnDeclarations );
   json.member( "enabled", beginning.enabled ).member( "kind", "begin" ).member( "t", 0 );
   return json.end().text();
}

std::vector< std::string > inputLines( Instant const & instant ) {
   if( !microsecondsOf( instant.t ) )
      unwritable( "input is taken in at a whole number of microseconds from 0 on" );
   std::vector< std::string > lines;
   for( auto const & input : instant.input )
      std::visit( LineWriter( instant.t, input, lines ), input.operation );
   return lines;
}

Beginning readBeginning( JsonValue const & line ) {
   Members const members( line, "the beginning",
                          "agents application decideOnDeclarations enabled kind t" );
   if( timeOf( line ) != 0 )
      Members::expected( "t", members.need( "t" ), "0 at the beginning" );
   Beginning beginning;
   beginning.application = members.name( "application" );
   beginning.enabled = members.truth( "enabled" );
   beginning.decideOnDeclarations = members.truth( "decideOnDeclarations" );
   for( auto const & agent : objectUnder( members, "agents" ).member ) {
      if( agent.value.kind != Kind::object )
         Members::expected( nameOf( agent ), agent.value, "the agent's events" );
      beginning.agent.push_back( { nameOf( agent ), eventsOf( agent.value ), {} } );
   }
   return beginning;
}

StampedInput readInput( JsonValue const & line ) {
   StampedInput stamped;
   stamped.t = timeOf( line );
   if( !microsecondsOf( stamped.t ) )
      Members::expected( "t", *line.find( "t" ), "whole microseconds" );
   stamped.input = { operationOf( line ), userOf( line ) };
   return stamped;
}

std::string const & kindOf( JsonValue const & line ) {
   if( line.kind != Kind::object )
      wrong( "the line is " + described( line ) + "; expected an object" );
   auto const * const kind = line.find( "kind" );
   if( !kind || kind->kind != Kind::text )
      wrong( "\"kind\" is missing or no text; every line says what it is" );
   return kind->text;
}

double timeOf( JsonValue const & line ) {
   auto const * const t = line.find( "t" );
   if( !t )
      wrong( "\"t\" is missing" );
   if( t->kind != Kind::number || !( t->number >= 0 ) )
      Members::expected( "t", *t, "seconds from 0 on" );
   return t->number;
}

} // namespace Simulation
