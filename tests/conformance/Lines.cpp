// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include "Lines.h"

#include <cctype>
#include <limits>
#include <map>
#include <stdexcept>
#include <type_traits>
#include <utility>

using Kiv::Dir;
using Kiv::Entity;
using Kiv::Name;
using Kiv::Ptr;
using Kiv::String8;
using Stage::AgentConfig;
using Stage::Config;
using Stage::EventConfig;
using Stage::Log;
using Stage::Progress;
using Stage::StageStatus;
using Stage::Status;

namespace conformance {

std::string Line::name() const {
   std::string const full = type.name();
   return full.substr( full.rfind( ':' ) + 1 ) + "_" + attribute;
}

std::string Line::callback() const {
   std::string text = "on" + attribute;
   text[ 2 ] = static_cast< char >( std::toupper( static_cast< unsigned char >( text[ 2 ] ) ) );
   return text;
}

Kiv::Attribute const & Line::row() const {
   Kiv::Attribute const * const found = type.attribute( String8( attribute ) );
   if( !found )
      throw std::logic_error( name() + " is in no table" );
   return *found;
}

std::vector< std::string > const & KeyedLine::keys() {
   static std::vector< std::string > const keys = [] {
      std::vector< std::string > made = { "Boot", "Net", "Disk" };
      for( int n = 0; n != 40; ++n )
         made.push_back( "key" + std::to_string( n ) );
      return made;
   }();
   return keys;
}

namespace {

// ------------------------------------------------------------------- a fresh entity of each type

template< class E >
Ptr< E > made();
template<>
Ptr< Dir > made() {
   return Dir::DirIs( "dir" );
}
template<>
Ptr< Config > made() {
   return Config::ConfigIs( "config" );
}
template<>
Ptr< AgentConfig > made() {
   return AgentConfig::AgentConfigIs( "agent" );
}
template<>
Ptr< EventConfig > made() {
   return EventConfig::EventConfigIs( "stage", "agent" );
}
template<>
Ptr< Status > made() {
   return Status::StatusIs( "status" );
}
template<>
Ptr< StageStatus > made() {
   return Status::StatusIs( "status" )->stageIs( "stage" );
}
template<>
Ptr< Progress > made() {
   return Progress::ProgressIs( "progress" );
}
template<>
Ptr< Log > made() {
   return Log::LogIs( "log" );
}

// ------------------------------------------------------------------------------- kinds of lines

template< class V >
bool same( V const & a, V const & b ) {
   return a == b || ( a != a && b != b ); // a NaN is the same as a NaN
}

template< class E, class Base >
class LineOf : public Base {
 public:
   explicit LineOf( std::string label ) : Base( E::_fwkType(), std::move( label ) ) {}
   Ptr< Entity > make() const override { return made< E >(); }
   Ptr< Kiv::PtrInterface::NotifieeConst > watch( Entity & entity, Trail & trail,
                                                  std::string const & who ) const override {
      return Ptr< Kiv::PtrInterface::NotifieeConst >(
         new Recorder< E >( &cast( entity ), trail, who ) );
   }
   Ptr< Kiv::PtrInterface::NotifieeConst > watchSilently( Entity & entity ) const override {
      struct Silent : E::NotifieeConst {};
      Ptr< Silent > const reactor = new Silent;
      reactor->watch( &static_cast< E & >( entity ) );
      return reactor;
   }

 protected:
   static E & cast( Entity & entity ) { return dynamic_cast< E & >( entity ); }
   static E const & cast( Entity const & entity ) { return dynamic_cast< E const & >( entity ); }
};

template< class E, auto get, auto set_, class V >
class Scalar : public LineOf< E, ScalarLine > {
 public:
   Scalar( std::string label, std::vector< V > values )
      : LineOf< E, ScalarLine >( std::move( label ) ), values_( std::move( values ) ) {}
   std::size_t values() const override { return values_.size(); }
   void set( Entity & entity, std::size_t value ) const override {
      ( this->cast( entity ).*set_ )( values_[ value ] );
   }
   bool holds( Entity const & entity, std::size_t value ) const override {
      auto const held = ( this->cast( entity ).*get )();
      return same( held, decltype( held )( values_[ value ] ) );
   }

 private:
   std::vector< V > const values_;
};

template< class E, class K, auto get, auto del_, auto delAll_, auto count_, auto iterator,
          auto iteratorConst >
class Keyed : public LineOf< E, KeyedLine > {
 public:
   using V = decltype( ( std::declval< E const & >().*get )( std::declval< K const & >() ) );
   // The value number so and so for a key, and how it is put into the entity.
   using Value = std::function< V( E &, K const &, std::size_t ) >;
   using Put = std::function< void( E &, K const &, V const & ) >;

   using Prepare = std::function< void( E & ) >;

   Keyed( std::string label, std::size_t values, Value value, Put put, Prepare prepare )
      : LineOf< E, KeyedLine >( std::move( label ) ), values_( values ),
        value_( std::move( value ) ), put_( std::move( put ) ), prepare_( std::move( prepare ) ) {}
   Ptr< Entity > make() const override {
      Ptr< E > const entity = made< E >();
      prepare_( *entity );
      return entity;
   }
   std::size_t values() const override { return values_; }
   void put( Entity & entity, std::string const & key, std::size_t value ) const override {
      E & e = this->cast( entity );
      put_( e, key, value_( e, key, value ) );
   }
   void del( Entity & entity, std::string const & key ) const override {
      ( this->cast( entity ).*del_ )( key );
   }
   void delAll( Entity & entity ) const override { ( this->cast( entity ).*delAll_ )(); }
   std::size_t count( Entity const & entity ) const override {
      return ( this->cast( entity ).*count_ )();
   }
   bool holds( Entity & entity, std::string const & key, std::size_t value ) const override {
      E & e = this->cast( entity );
      V const held = ( e.*get )( key );
      return held == value_( e, key, value ) && ( std::is_same_v< V, bool > || held );
   }
   bool absent( Entity const & entity, std::string const & key ) const override {
      return !( this->cast( entity ).*get )( key );
   }
   Trail iterated( Entity & entity, KeyedLine::Change const & change ) const override {
      return walk( this->cast( entity ), ( this->cast( entity ).*iterator )(), change );
   }
   Trail iteratedConst( Entity const & entity, KeyedLine::Change const & change ) const override {
      return walk( this->cast( entity ), ( this->cast( entity ).*iteratorConst )(), change );
   }

 private:
   template< class I >
   static Trail walk( E const & e, I i, KeyedLine::Change const & change ) {
      Trail keys;
      for( ; i; ++i ) {
         K const key = i.key();
         keys.push_back( key.str() );
         if( !( i.value() == ( e.*get )( key ) ) || !( i.ptr() == i.value() ) )
            keys.push_back( "another value than the getter's" );
         change( key.str() );
      }
      return keys;
   }

   std::size_t const values_;
   Value const value_;
   Put const put_;
   Prepare const prepare_;
};

using ScalarPtr = std::shared_ptr< ScalarLine >;
using KeyedPtr = std::shared_ptr< KeyedLine >;

// A line each: the accessors, the name in the table, the values; the first is that of a new entity.
template< class E, auto get, auto set, class V >
ScalarPtr scalar( char const * attribute, std::vector< V > values ) {
   return std::make_shared< Scalar< E, get, set, V > >( attribute, std::move( values ) );
}
template< class E >
ScalarPtr ending() {
   return scalar< E, &E::isNondestructing, &E::isNondestructingIs, bool >( "isNondestructing",
                                                                           { true, false } );
}
constexpr auto parentGet =
   static_cast< Ptr< Entity const > ( Entity::* )() const >( &Entity::parent );
template< class E >
ScalarPtr parent() {
   return scalar< E, parentGet, &Entity::parentIs, Ptr< Entity > >(
      "parent", { nullptr, Dir::DirIs( "outer" ), Dir::DirIs( "other" ) } );
}

template< class E, class K, auto get, auto del, auto delAll, auto count, auto iterator,
          auto iteratorConst, class Value, class Put >
KeyedPtr keyed(
   char const * attribute, std::size_t values, Value value, Put put,
   std::function< void( E & ) > prepare = []( E & ) {} ) {
   return std::make_shared< Keyed< E, K, get, del, delAll, count, iterator, iteratorConst > >(
      attribute, values, value, put, prepare );
}

// --------------------------------------------------------------------------------- values to try

// The same object for the same arguments.
Ptr< EventConfig const > event( Name const & stage, Name const & agent, std::size_t number ) {
   static std::map< std::string, Ptr< EventConfig > > events;
   Ptr< EventConfig > & held =
      events[ stage.str() + ":" + agent.str() + "#" + std::to_string( number ) ];
   if( !held )
      held = EventConfig::EventConfigIs( stage, agent );
   return held;
}
Ptr< Entity > entry( Name const & name, std::size_t number ) {
   static std::map< std::string, Ptr< Entity > > entries;
   Ptr< Entity > & held = entries[ name.str() + "#" + std::to_string( number ) ];
   if( !held )
      held = Dir::DirIs( name );
   return held;
}

constexpr auto flag = []( auto &, auto const &, std::size_t number ) { return number == 0; };

std::vector< bool > const off = { false, true };
std::vector< double > times( double first ) {
   double const nan = std::numeric_limits< double >::quiet_NaN();
   return { first, 30, 0.1, nan, -1, 1e300 };
}

} // namespace

// ------------------------------------------------------------------------------------- the lines

std::vector< ScalarPtr > const & scalarLines() {
   static std::vector< ScalarPtr > const lines = {
      parent< Dir >(),
      parent< Config >(),
      parent< AgentConfig >(),
      parent< EventConfig >(),
      parent< Status >(),
      parent< StageStatus >(),
      parent< Progress >(),
      parent< Log >(),
      ending< Config >(),
      ending< AgentConfig >(),
      ending< EventConfig >(),
      ending< Status >(),
      ending< StageStatus >(),
      ending< Progress >(),
      ending< Log >(),
      scalar< Config, &Config::agentDir, &Config::agentDirIs, Ptr< Dir > >(
         "agentDir", { nullptr, Dir::DirIs( "one" ), Dir::DirIs( "two" ) } ),
      scalar< Config, &Config::enabled, &Config::enabledIs >( "enabled", off ),
      scalar< EventConfig, &EventConfig::timeout, &EventConfig::timeoutIs >(
         "timeout", times( Kiv::infinity ) ),
      scalar< EventConfig, &EventConfig::critical, &EventConfig::criticalIs >( "critical", off ),
      scalar< EventConfig, &EventConfig::complete, &EventConfig::completeIs >( "complete", off ),
      scalar< Status, &Status::complete, &Status::completeIs >( "complete", off ),
      scalar< Status, &Status::progress, &Status::progressIs, Ptr< Progress > >(
         "progress", { nullptr, Progress::ProgressIs( "one" ), Progress::ProgressIs( "two" ) } ),
      scalar< Status, &Status::sorted, &Status::sortedIs >( "sorted", off ),
      scalar< StageStatus, &StageStatus::timeout, &StageStatus::timeoutIs >( "timeout",
                                                                             times( 0 ) ),
      scalar< StageStatus, &StageStatus::critical, &StageStatus::criticalIs >( "critical", off ),
   };
   return lines;
}

std::vector< KeyedPtr > const & keyedLines() {
   static std::vector< KeyedPtr > const lines = {
      keyed< Dir, Name, &Dir::entityPtr, &Dir::entityPtrDel, &Dir::entityPtrDelAll,
             &Dir::entityPtrs, &Dir::entityPtrIterator, &Dir::entityPtrIteratorConst >(
         "entityPtr", 2, []( Dir &, Name const & k, std::size_t n ) { return entry( k, n ); },
         []( Dir & e, Name const &, auto const & v ) { e.entityPtrIs( v ); } ),
      keyed< AgentConfig, Name, &AgentConfig::event, &AgentConfig::eventDel,
             &AgentConfig::eventDelAll, &AgentConfig::events, &AgentConfig::eventIterator,
             &AgentConfig::eventIteratorConst >(
         "event", 2,
         []( AgentConfig & e, Name const & k, std::size_t n ) { return event( k, e.name(), n ); },
         &AgentConfig::eventIs ),
      keyed< EventConfig, String8, &EventConfig::dependency, &EventConfig::dependencyDel,
             &EventConfig::dependencyDelAll, &EventConfig::dependencys,
             &EventConfig::dependencyIterator, &EventConfig::dependencyIteratorConst >(
         "dependency", 2, flag, &EventConfig::dependencyIs ),
      keyed< Status, Name, &Status::stage, &Status::stageDel, &Status::stageDelAll, &Status::stages,
             &Status::stageIterator, &Status::stageIteratorConst >(
         "stage", 1, []( Status & e, Name const & k, std::size_t ) { return e.stage( k ); },
         []( Status & e, Name const & k, auto const & ) { e.stageIs( k ); } ),
      keyed< Status, Name, &Status::activeStage, &Status::activeStageDel,
             &Status::activeStageDelAll, &Status::activeStages, &Status::activeStageIterator,
             &Status::activeStageIteratorConst >(
         "activeStage", 1, []( Status & e, Name const & k, std::size_t ) { return e.stage( k ); },
         []( Status & e, Name const &, auto const & v ) { e.activeStageIs( v ); },
         []( Status & e ) {
            for( std::string const & k : KeyedLine::keys() )
               e.stageIs( k );
         } ),
      keyed< StageStatus, String8, &StageStatus::event, &StageStatus::eventDel,
             &StageStatus::eventDelAll, &StageStatus::events, &StageStatus::eventIterator,
             &StageStatus::eventIteratorConst >(
         "event", 2,
         []( StageStatus & e, String8 const & k, std::size_t n ) {
            return event( e.name(), k, n );
         },
         []( StageStatus & e, String8 const &, auto const & v ) { e.eventIs( v ); } ),
      keyed< StageStatus, String8, &StageStatus::dependency, &StageStatus::dependencyDel,
             &StageStatus::dependencyDelAll, &StageStatus::dependencys,
             &StageStatus::dependencyIterator, &StageStatus::dependencyIteratorConst >(
         "dependency", 2, flag, &StageStatus::dependencyIs ),
      keyed< Progress, String8, &Progress::stage, &Progress::stageDel, &Progress::stageDelAll,
             &Progress::stages, &Progress::stageIterator, &Progress::stageIteratorConst >(
         "stage", 2, flag, &Progress::stageIs ),
   };
   return lines;
}

std::vector< FixedLine > const & fixedLines() {
   static std::vector< FixedLine > const lines = {
      { EventConfig::_fwkType(), "uid",
        [] { return made< EventConfig >()->uid() == String8( "stage:agent" ); } },
      { EventConfig::_fwkType(), "agent",
        [] { return made< EventConfig >()->agent() == String8( "agent" ); } },
      { StageStatus::_fwkType(), "name",
        [] { return made< StageStatus >()->name() == Name( "stage" ); } },
   };
   return lines;
}

} // namespace conformance
