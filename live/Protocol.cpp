// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
//
// The members of each value are listed once, by describe(). A Reader and a Writer go through that
// list: what one writes the other reads.
#include <live/Protocol.h>

#include <algorithm>
#include <limits>
#include <set>
#include <type_traits>
#include <utility>

namespace Live::Protocol {

namespace {

// What can be wrong with a name, empty for nothing.
std::string wrongWithName( std::string const & name ) {
   if( name.empty() )
      return "is empty";
   if( name.size() > longestName )
      return "has more than " + std::to_string( longestName ) + " bytes";
   if( name.find( '\0' ) != std::string::npos )
      return "has a zero byte";
   return {};
}

// ---- members: what a value is called, of which kind it is

template< class Visitor, class Value >
void describe( Visitor & visit, Value & value )
   requires std::same_as< std::remove_const_t< Value >, Event >
{
   visit.name( "stage", value.stage );
   visit.duration( "timeout", value.timeout );
   visit.orDefault( "critical", value.critical );
   visit.names( "dependency", value.dependency );
   visit.optional( "complete", value.complete );
}

template< class Visitor, class Value >
void describe( Visitor & visit, Value & value )
   requires std::same_as< std::remove_const_t< Value >, StageEvent >
{
   visit.name( "agent", value.agent );
   visit.value( "complete", value.complete );
   visit.value( "connected", value.connected );
   visit.optional( "note", value.note );
}

template< class Visitor, class Value >
void describe( Visitor & visit, Value & value )
   requires std::same_as< std::remove_const_t< Value >, Stage >
{
   visit.name( "name", value.name );
   visit.value( "active", value.active );
   visit.value( "complete", value.complete );
   visit.value( "timedOut", value.timedOut );
   visit.value( "suspended", value.suspended );
   visit.value( "critical", value.critical );
   visit.duration( "timeout", value.timeout );
   visit.value( "dependency", value.dependency );
   visit.value( "event", value.event );
}

template< class Visitor, class Value >
void describe( Visitor & visit, Value & value )
   requires std::same_as< std::remove_const_t< Value >, Agent >
{
   visit.name( "name", value.name );
   visit.value( "connected", value.connected );
   visit.value( "joined", value.joined );
   visit.value( "lost", value.lost );
   visit.value( "event", value.event );
}

template< class Visitor, class Value >
void describe( Visitor & visit, Value & value )
   requires std::same_as< std::remove_const_t< Value >, Entry >
{
   visit.value( "sequence", value.sequence );
   visit.value( "time", value.time );
   visit.value( "message", value.message );
}

template< class Visitor, class Value >
void describe( Visitor & visit, Value & value )
   requires std::same_as< std::remove_const_t< Value >, Join >
{
   visit.name( "agent", value.agent );
   visit.optional( "event", value.event );
   visit.orDefault( "lost", value.lost );
   visit.orDefault( "take", value.take );
}

template< class Visitor, class Value >
void describe( Visitor & visit, Value & value )
   requires std::same_as< std::remove_const_t< Value >, Declare >
{
   visit.optionalName( "agent", value.agent );
   visit.value( "event", value.event );
   visit.names( "withdraw", value.withdraw );
}

template< class Visitor, class Value >
void describe( Visitor & visit, Value & value )
   requires std::same_as< std::remove_const_t< Value >, Report >
{
   visit.optionalName( "agent", value.agent );
   visit.name( "stage", value.stage );
   visit.optional( "complete", value.complete );
   visit.optional( "note", value.note );
}

template< class Visitor, class Value >
void describe( Visitor & visit, Value & value )
   requires std::same_as< std::remove_const_t< Value >, Leave >
{
   visit.optionalName( "agent", value.agent );
}

template< class Visitor, class Value >
void describe( Visitor & visit, Value & value )
   requires std::same_as< std::remove_const_t< Value >, Watch >
{
   visit.orDefault( "all", value.all );
   visit.count( "after", value.after );
   visit.optional( "startup", value.startup );
}

template< class Visitor, class Value >
void describe( Visitor & visit, Value & value )
   requires std::same_as< std::remove_const_t< Value >, Wait >
{
   visit.optionalName( "stage", value.stage );
   visit.value( "state", value.state );
   visit.duration( "timeout", value.timeout );
}

template< class Visitor, class Value >
void describe( Visitor &, Value & )
   requires std::same_as< std::remove_const_t< Value >, Status >
{}

template< class Visitor, class Value >
void describe( Visitor & visit, Value & value )
   requires std::same_as< std::remove_const_t< Value >, Explain >
{
   visit.optionalName( "stage", value.stage );
}

template< class Visitor, class Value >
void describe( Visitor & visit, Value & value )
   requires std::same_as< std::remove_const_t< Value >, Log >
{
   visit.count( "after", value.after );
   visit.orDefault( "follow", value.follow );
}

template< class Visitor, class Value >
void describe( Visitor & visit, Value & value )
   requires std::same_as< std::remove_const_t< Value >, Enable >
{
   visit.value( "enabled", value.enabled );
}

template< class Visitor, class Value >
void describe( Visitor & visit, Value & value )
   requires std::same_as< std::remove_const_t< Value >, JoinReply >
{
   visit.value( "startup", value.startup );
   visit.value( "sequence", value.sequence );
}

template< class Visitor, class Value >
void describe( Visitor & visit, Value & value )
   requires std::same_as< std::remove_const_t< Value >, WatchReply >
{
   visit.value( "startup", value.startup );
   visit.value( "sequence", value.sequence );
   visit.value( "time", value.time );
   visit.value( "snapshot", value.snapshot );
   visit.value( "partial", value.partial );
   visit.value( "complete", value.complete );
   visit.value( "stage", value.stage );
}

template< class Visitor, class Value >
void describe( Visitor & visit, Value & value )
   requires std::same_as< std::remove_const_t< Value >, WaitReply >
{
   visit.value( "time", value.time );
   visit.value( "timedOut", value.timedOut );
}

template< class Visitor, class Value >
void describe( Visitor & visit, Value & value )
   requires std::same_as< std::remove_const_t< Value >, StatusReply >
{
   visit.value( "application", value.application );
   visit.value( "startup", value.startup );
   visit.value( "enabled", value.enabled );
   visit.value( "complete", value.complete );
   visit.value( "sequence", value.sequence );
   visit.value( "time", value.time );
   visit.value( "stage", value.stage );
   visit.value( "agent", value.agent );
}

template< class Visitor, class Value >
void describe( Visitor & visit, Value & value )
   requires std::same_as< std::remove_const_t< Value >, ExplainReply >
{
   visit.value( "text", value.text );
   visit.value( "cause", value.cause );
}

template< class Visitor, class Value >
void describe( Visitor & visit, Value & value )
   requires std::same_as< std::remove_const_t< Value >, LogReply >
{
   visit.value( "entry", value.entry );
}

// ---- enumerations, by their words

char const * wordOf( Lost lost ) { return lost == Lost::keep ? "keep" : "withdraw"; }
char const * wordOf( State state ) { return state == State::active ? "active" : "complete"; }

template< class Word >
bool fromWord( Json const & json, Word & value, Word first, Word second ) {
   if( !json.is_string() )
      return false;
   for( Word const word : { first, second } ) {
      if( json == wordOf( word ) ) {
         value = word;
         return true;
      }
   }
   return false;
}

// ---- reading

enum class Unknown { refused, ignored };

class Reader {
 public:
   // `place` is where the object stands in an event's list, empty for the parameters themselves.
   Reader( Json const & object, Unknown unknown, std::string place = {} )
      : object_( object ), unknown_( unknown ), place_( std::move( place ) ) {}

   template< class Value >
   void value( char const * member, Value & value ) {
      Json const * const found = find( member );
      if( !found )
         refuse( member, "is missing" );
      read( member, *found, value );
   }
   template< class Value >
   void orDefault( char const * member, Value & value ) {
      if( Json const * const found = find( member ) )
         read( member, *found, value );
   }
   template< class Value >
   void optional( char const * member, std::optional< Value > & value ) {
      if( Json const * const found = find( member ) )
         read( member, *found, value.emplace() );
   }
   void name( char const * member, std::string & name ) {
      value( member, name );
      checkName( member, name );
   }
   void optionalName( char const * member, std::optional< std::string > & name ) {
      optional( member, name );
      if( name )
         checkName( member, *name );
   }
   void names( char const * member, std::vector< std::string > & names ) {
      orDefault( member, names );
      for( auto const & one : names )
         checkName( member, one );
   }
   // Seconds.
   void duration( char const * member, std::optional< double > & seconds ) {
      optional( member, seconds );
      if( seconds && !( *seconds >= 0 ) )
         refuse( member, "is less than 0" );
   }
   void count( char const * member, std::optional< std::int64_t > & count ) {
      optional( member, count );
      if( count && *count < 0 )
         refuse( member, "is less than 0" );
   }

   // After all members were asked for.
   void end() const {
      if( unknown_ == Unknown::ignored )
         return;
      for( auto const & [ member, value ] : object_.items() )
         if( !known_.contains( member ) )
            refuse( member, "is not known" );
   }
   [[noreturn]] void refuse( std::string const & member, std::string const & reason ) const {
      if( place_.empty() )
         throw Refused( Error::invalidParameter( member ) );
      throw Refused( Error::invalidEvent( place_ + "." + member, reason ) );
   }

 private:
   // Null is as if it were not there.
   Json const * find( char const * member ) {
      known_.insert( member );
      auto const found = object_.find( member );
      return found == object_.end() || found->is_null() ? nullptr : &*found;
   }
   void checkName( char const * member, std::string const & name ) const {
      if( auto const wrong = wrongWithName( name ); !wrong.empty() )
         refuse( member, wrong );
   }

   void read( char const * member, Json const & json, std::string & value ) const {
      if( !json.is_string() )
         refuse( member, "is no text" );
      value = json.get_ref< std::string const & >();
   }
   void read( char const * member, Json const & json, bool & value ) const {
      if( !json.is_boolean() )
         refuse( member, "is neither true nor false" );
      value = json.get< bool >();
   }
   void read( char const * member, Json const & json, double & value ) const {
      if( !json.is_number() )
         refuse( member, "is no number" );
      value = json.get< double >();
   }
   void read( char const * member, Json const & json, std::int64_t & value ) const {
      constexpr std::uint64_t most = std::numeric_limits< std::int64_t >::max();
      if( !json.is_number_integer() ||
          ( json.is_number_unsigned() && json.get< std::uint64_t >() > most ) )
         refuse( member, "is no whole number" );
      value = json.get< std::int64_t >();
   }
   void read( char const * member, Json const & json, Lost & value ) const {
      if( !fromWord( json, value, Lost::keep, Lost::withdraw ) )
         refuse( member, "is neither keep nor withdraw" );
   }
   void read( char const * member, Json const & json, State & value ) const {
      if( !fromWord( json, value, State::active, State::complete ) )
         refuse( member, "is neither active nor complete" );
   }
   void read( char const * member, Json const & json, Json & value ) const {
      if( !json.is_object() )
         refuse( member, "is no object" );
      value = json;
   }
   template< class Value >
   void read( char const * member, Json const & json, std::vector< Value > & value ) const {
      if( !json.is_array() )
         refuse( member, "is no list" );
      value.reserve( json.size() );
      for( std::size_t n = 0; n != json.size(); ++n ) {
         Value & one = value.emplace_back();
         if constexpr( requires( Reader & visit ) { describe( visit, one ); } )
            readObject( member, n, json[ n ], one );
         else
            read( member, json[ n ], one );
      }
   }
   // An event says where it stands; all else is one parameter that is wrong.
   template< class Value >
   void readObject( char const * member, std::size_t index, Json const & json,
                    Value & value ) const {
      std::string place;
      if( std::same_as< Value, Event > && unknown_ == Unknown::refused )
         place = member + ( "[" + std::to_string( index ) + "]" );
      if( !json.is_object() ) {
         if( place.empty() )
            refuse( member, "is no object" );
         throw Refused( Error::invalidEvent( place, "is no object" ) );
      }
      Reader reader( json, unknown_, std::move( place ) );
      describe( reader, value );
      reader.end();
   }

   Json const & object_;
   Unknown const unknown_;
   std::string const place_;
   std::set< std::string_view > known_;
};

// ---- writing

class Writer {
 public:
   Json result = Json::object();

   template< class Value >
   void value( char const * member, Value const & value ) {
      result[ member ] = json( value );
   }
   template< class Value >
   void orDefault( char const * member, Value const & given ) {
      value( member, given );
   }
   template< class Value >
   void optional( char const * member, std::optional< Value > const & given ) {
      if( given )
         value( member, *given );
   }
   void name( char const * member, std::string const & name ) { value( member, name ); }
   void optionalName( char const * member, std::optional< std::string > const & name ) {
      optional( member, name );
   }
   void names( char const * member, std::vector< std::string > const & names ) {
      if( !names.empty() )
         value( member, names );
   }
   void duration( char const * member, std::optional< double > const & seconds ) {
      optional( member, seconds );
   }
   void count( char const * member, std::optional< std::int64_t > const & count ) {
      optional( member, count );
   }

 private:
   template< class Value >
   static Json json( Value const & value ) {
      if constexpr( std::is_enum_v< Value > ) {
         return wordOf( value );
      } else if constexpr( requires( Writer & visit ) { describe( visit, value ); } ) {
         Writer writer;
         describe( writer, value );
         return std::move( writer.result );
      } else {
         return value;
      }
   }
   template< class Value >
   static Json json( std::vector< Value > const & values ) {
      Json list = Json::array();
      for( auto const & one : values )
         list.push_back( json( one ) );
      return list;
   }
};

template< class Value >
Json written( Value const & value ) {
   Writer writer;
   describe( writer, value );
   return std::move( writer.result );
}

template< class Value >
void readInto( Json const & parameters, Value & value, Unknown unknown ) {
   Value read;
   Reader reader( parameters, unknown );
   describe( reader, read );
   reader.end();
   value = std::move( read );
}

// ---- what no member tells alone

void checkStagesOnce( std::vector< Event > const & events ) {
   std::set< std::string_view > stages;
   for( std::size_t n = 0; n != events.size(); ++n )
      if( !stages.insert( events[ n ].stage ).second )
         throw Refused( Error::invalidEvent( "event[" + std::to_string( n ) + "].stage",
                                             "is the stage of another event of this call" ) );
}

Error error( char const * name, Json parameters = Json::object() ) {
   return { std::string( interfaceName ) + "." + name, std::move( parameters ) };
}

} // namespace

Error Error::noSuchAgent() { return Protocol::error( "NoSuchAgent" ); }
Error Error::noSuchStage() { return Protocol::error( "NoSuchStage" ); }
Error Error::notYours() { return Protocol::error( "NotYours" ); }
Error Error::notJoined() { return Protocol::error( "NotJoined" ); }
Error Error::alreadyJoined() { return Protocol::error( "AlreadyJoined" ); }
Error Error::connected( std::int64_t pid ) {
   return Protocol::error( "Connected", { { "pid", pid } } );
}
Error Error::invalidEvent( std::string const & field, std::string const & reason ) {
   return Protocol::error( "InvalidEvent", { { "field", field }, { "reason", reason } } );
}
Error Error::tooMuch( std::string const & limit ) {
   return Protocol::error( "TooMuch", { { "limit", limit } } );
}
Error Error::timedOut() { return Protocol::error( "TimedOut" ); }
Error Error::invalidParameter( std::string const & parameter ) {
   return { Varlink::errors::invalidParameter, { { "parameter", parameter } } };
}
Error Error::permissionDenied() { return { Varlink::errors::permissionDenied }; }
Error Error::expectedMore() { return { Varlink::errors::expectedMore }; }

bool Error::is( std::string_view ofInterface ) const {
   return name.size() == interfaceName.size() + 1 + ofInterface.size() &&
          name.starts_with( interfaceName ) && name[ interfaceName.size() ] == '.' &&
          name.ends_with( ofInterface );
}

Refused::Refused( Error error ) : error_( std::move( error ) ) {}
Refused::Refused( Refused const & ) = default;
Refused::~Refused() = default;

void decode( Json const & parameters, Join & value ) {
   Join read;
   readInto( parameters, read, Unknown::refused );
   if( read.event )
      checkStagesOnce( *read.event );
   value = std::move( read );
}
void decode( Json const & parameters, Declare & value ) {
   Declare read;
   readInto( parameters, read, Unknown::refused );
   checkStagesOnce( read.event );
   std::set< std::string_view > stages;
   for( auto const & event : read.event )
      stages.insert( event.stage );
   if( std::any_of( read.withdraw.begin(), read.withdraw.end(),
                    [ & ]( auto const & stage ) { return stages.contains( stage ); } ) )
      throw Refused( Error::invalidParameter( "withdraw" ) );
   value = std::move( read );
}
void decode( Json const & parameters, Report & value ) {
   Report read;
   readInto( parameters, read, Unknown::refused );
   if( read.note && read.note->size() > longestNote )
      throw Refused( Error::tooMuch( std::to_string( longestNote ) + " bytes of a note" ) );
   value = std::move( read );
}
void decode( Json const & parameters, Leave & value ) {
   readInto( parameters, value, Unknown::refused );
}
void decode( Json const & parameters, Watch & value ) {
   readInto( parameters, value, Unknown::refused );
}
void decode( Json const & parameters, Wait & value ) {
   readInto( parameters, value, Unknown::refused );
}
void decode( Json const & parameters, Status & value ) {
   readInto( parameters, value, Unknown::refused );
}
void decode( Json const & parameters, Explain & value ) {
   readInto( parameters, value, Unknown::refused );
}
void decode( Json const & parameters, Log & value ) {
   readInto( parameters, value, Unknown::refused );
}
void decode( Json const & parameters, Enable & value ) {
   readInto( parameters, value, Unknown::refused );
}
void decode( Json const & parameters, JoinReply & value ) {
   readInto( parameters, value, Unknown::ignored );
}
void decode( Json const & parameters, WatchReply & value ) {
   readInto( parameters, value, Unknown::ignored );
}
void decode( Json const & parameters, WaitReply & value ) {
   readInto( parameters, value, Unknown::ignored );
}
void decode( Json const & parameters, StatusReply & value ) {
   readInto( parameters, value, Unknown::ignored );
}
void decode( Json const & parameters, ExplainReply & value ) {
   readInto( parameters, value, Unknown::ignored );
}
void decode( Json const & parameters, LogReply & value ) {
   readInto( parameters, value, Unknown::ignored );
}

Json encoded( Join const & value ) { return written( value ); }
Json encoded( Declare const & value ) { return written( value ); }
Json encoded( Report const & value ) { return written( value ); }
Json encoded( Leave const & value ) { return written( value ); }
Json encoded( Watch const & value ) { return written( value ); }
Json encoded( Wait const & value ) { return written( value ); }
Json encoded( Status const & value ) { return written( value ); }
Json encoded( Explain const & value ) { return written( value ); }
Json encoded( Log const & value ) { return written( value ); }
Json encoded( Enable const & value ) { return written( value ); }
Json encoded( JoinReply const & value ) { return written( value ); }
Json encoded( WatchReply const & value ) { return written( value ); }
Json encoded( WaitReply const & value ) { return written( value ); }
Json encoded( StatusReply const & value ) { return written( value ); }
Json encoded( ExplainReply const & value ) { return written( value ); }
Json encoded( LogReply const & value ) { return written( value ); }
Json encoded( Stage const & value ) { return written( value ); }
Json encoded( Agent const & value ) { return written( value ); }
Json encoded( Entry const & value ) { return written( value ); }

} // namespace Live::Protocol
