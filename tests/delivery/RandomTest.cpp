// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Long random sequences of operations on several reactors and events, outside of callbacks and
// inside of them, against a plain model of the rules: a list of what is pending, in order.
#include "../support/Loop.h"
#include "Watchers.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <random>
#include <sstream>

using namespace delivery;

namespace {

constexpr int eventCount = 3;
constexpr int reactorCount = 5;
constexpr std::array< char const *, 4 > keys = { "A", "B", "C", "D" };

// The rules, as plainly as they can be written. Reactors and events are numbers; -1 is none.
class Model {
 public:
   struct Event {
      double timeout = 0;
      bool critical = false;
      std::map< std::string, bool > dependency;
      std::vector< int > registered; // in order
   };
   struct Callback {
      int reactor;
      std::string attribute; // "timeout", "critical", "dependency"
      std::string key;       // "" for a plain attribute
      bool deferred;
   };
   struct Reactor {
      int watches = -1;
      bool registered = false;
      bool active = false;
      bool marked = false;
      std::vector< Callback > kept; // while it is not active
   };

   std::array< Event, eventCount > events;
   std::array< Reactor, reactorCount > reactors;
   std::vector< Callback > first;
   std::vector< Callback > second;

   void change( int event, std::string const & attribute, std::string const & key = "" ) {
      for( int r : events[ index( event ) ].registered ) {
         if( reactors[ index( r ) ].marked || pending( r, attribute, key, false ) )
            continue;
         enqueue( { r, attribute, key, false } );
         if( !key.empty() && pendingKeys( r ) >= 2 && !pending( r, attribute, "", true ) )
            enqueue( { r, attribute, "", true } );
      }
   }
   void drop( int r ) {
      auto const his = [ r ]( Callback const & c ) { return c.reactor == r; };
      std::erase_if( first, his );
      std::erase_if( second, his );
      reactors[ index( r ) ].kept.clear();
   }
   void registerIs( int r, bool on ) {
      Reactor & reactor = reactors[ index( r ) ];
      if( on == reactor.registered || reactor.watches < 0 )
         return;
      reactor.registered = on;
      auto & list = events[ index( reactor.watches ) ].registered;
      if( on ) {
         list.push_back( r );
      } else {
         std::erase( list, r );
         drop( r );
      }
   }
   void watch( int r, int event ) {
      if( reactors[ index( r ) ].watches == event )
         return;
      registerIs( r, false );
      reactors[ index( r ) ].watches = event;
   }
   void activeIs( int r, bool on ) {
      Reactor & reactor = reactors[ index( r ) ];
      if( on == reactor.active )
         return;
      reactor.active = on;
      if( on ) {
         auto const kept = std::exchange( reactor.kept, {} );
         for( Callback const & c : kept )
            ( c.deferred ? second : first ).push_back( c );
         return;
      }
      // Kept in the order in which they came to be pending, which the two queues do not show for
      // deferred callbacks: those go to a queue of their own again, so that it makes no difference.
      for( auto * queue : { &first, &second } ) {
         for( Callback const & c : *queue )
            if( c.reactor == r )
               reactor.kept.push_back( c );
         std::erase_if( *queue, [ r ]( Callback const & c ) { return c.reactor == r; } );
      }
   }
   void mark( int r, bool on ) {
      reactors[ index( r ) ].marked = on;
      if( on )
         drop( r );
   }
   void destroy( int r ) {
      registerIs( r, false );
      reactors[ index( r ) ] = Reactor();
   }
   // What is delivered next.
   std::optional< Callback > next() {
      auto & queue = first.empty() ? second : first;
      if( queue.empty() )
         return std::nullopt;
      Callback const c = queue.front();
      queue.erase( queue.begin() );
      return c;
   }
   std::size_t pendingOf( int r ) const {
      auto const his = [ r ]( Callback const & c ) { return c.reactor == r; };
      return static_cast< std::size_t >( std::count_if( first.begin(), first.end(), his ) +
                                         std::count_if( second.begin(), second.end(), his ) ) +
             reactors[ index( r ) ].kept.size();
   }
   // What the reactor writes down when it is told now.
   std::string line( Callback const & c ) const {
      Event const & event = events[ index( reactors[ index( c.reactor ) ].watches ) ];
      std::string text = "r" + std::to_string( c.reactor ) + " " + c.attribute;
      if( c.deferred )
         return text + "...";
      if( c.attribute == "timeout" )
         return text + " " + std::to_string( static_cast< int >( event.timeout ) );
      if( c.attribute == "critical" )
         return text + ( event.critical ? " true" : " false" );
      auto const member = event.dependency.find( c.key );
      return text + " " + c.key +
             ( member == event.dependency.end() ? " gone"
               : member->second                 ? " true"
                                                : " false" );
   }

   static std::size_t index( int i ) { return static_cast< std::size_t >( i ); }

 private:
   template< class F >
   bool any( F f ) const {
      if( std::any_of( first.begin(), first.end(), f ) ||
          std::any_of( second.begin(), second.end(), f ) )
         return true;
      return std::any_of( reactors.begin(), reactors.end(), [ & ]( Reactor const & r ) {
         return std::any_of( r.kept.begin(), r.kept.end(), f );
      } );
   }
   bool pending( int r, std::string const & attribute, std::string const & key,
                 bool deferred ) const {
      return any( [ & ]( Callback const & c ) {
         return c.reactor == r && c.attribute == attribute && c.key == key &&
                c.deferred == deferred;
      } );
   }
   int pendingKeys( int r ) const {
      int count = 0;
      for( char const * key : keys )
         count += pending( r, "dependency", key, false ) ? 1 : 0;
      return count;
   }
   void enqueue( Callback const & c ) {
      Reactor & reactor = reactors[ index( c.reactor ) ];
      ( !reactor.active ? reactor.kept : c.deferred ? second : first ).push_back( c );
   }
};

// Does the same to the model and to the real thing, and compares after every step.
class Play {
 public:
   Play( std::uint32_t seed, int lively ) : random_( seed ), lively_( lively ) {
      for( int e = 0; e != eventCount; ++e ) {
         events_.push_back( newEvent( ( "E" + std::to_string( e ) ).c_str() ) );
         events_.back()->timeoutIs( 0 );
      }
      reactors_.resize( reactorCount );
      for( int r = 0; r != reactorCount; ++r ) {
         make( r );
         attach( r, roll( eventCount ) );
         registerIs( r, true );
         activeIs( r, true );
      }
   }

   // False, and why in `story`, when the two are not the same any more.
   bool steps( int count ) {
      for( int i = 0; i != count && same(); ++i )
         if( roll( 4 ) == 0 )
            deliverOne();
         else
            operation();
      while( same() && deliverOne() )
         if( ++calls_ > 100000 )
            return false;
      return same() && model_.first.empty() && model_.second.empty() &&
             Kiv::activityManager()->idle();
   }
   std::string story() const { return story_.str(); }

 private:
   int roll( int sides ) {
      return static_cast< int >( random_() % static_cast< unsigned >( sides ) );
   }
   static std::size_t index( int i ) { return static_cast< std::size_t >( i ); }

   // ---- what is done to both

   void make( int r ) {
      reactors_[ index( r ) ] =
         new Watcher( "r" + std::to_string( r ), journal_, nullptr, Watcher::Start::detached );
      reactors_[ index( r ) ]->act = [ this ] { inside(); };
   }
   void attach( int r, int e ) {
      story_ << "r" << r << " watches " << e << '\n';
      model_.watch( r, e );
      reactors_[ index( r ) ]->notifierIs( e < 0 ? nullptr : object( events_[ index( e ) ] ) );
   }
   void registerIs( int r, bool on ) {
      story_ << "r" << r << " registered " << on << '\n';
      model_.registerIs( r, on );
      reactors_[ index( r ) ]->isRegisteredNotifieeIs( on );
   }
   void activeIs( int r, bool on ) {
      story_ << "r" << r << " active " << on << '\n';
      model_.activeIs( r, on );
      reactors_[ index( r ) ]->hasNotificationActiveIs( on );
   }
   void mark( int r, bool on ) {
      story_ << "r" << r << " marked " << on << '\n';
      model_.mark( r, on );
      reactors_[ index( r ) ]->kivMarkedForDeletionIs( on );
   }
   void replace( int r ) {
      story_ << "r" << r << " replaced\n";
      model_.destroy( r );
      make( r );
   }
   void timeoutIs( int e, double seconds ) {
      story_ << "e" << e << " timeout " << seconds << '\n';
      auto & event = model_.events[ index( e ) ];
      if( event.timeout != seconds ) {
         event.timeout = seconds;
         model_.change( e, "timeout" );
      }
      events_[ index( e ) ]->timeoutIs( seconds );
   }
   void criticalIs( int e, bool on ) {
      story_ << "e" << e << " critical " << on << '\n';
      auto & event = model_.events[ index( e ) ];
      if( event.critical != on ) {
         event.critical = on;
         model_.change( e, "critical" );
      }
      events_[ index( e ) ]->criticalIs( on );
   }
   void dependencyIs( int e, char const * key, bool value ) {
      story_ << "e" << e << " dependency " << key << ' ' << value << '\n';
      auto & members = model_.events[ index( e ) ].dependency;
      auto const member = members.find( key );
      if( member == members.end() || member->second != value ) {
         members[ key ] = value;
         model_.change( e, "dependency", key );
      }
      events_[ index( e ) ]->dependencyIs( key, value );
   }
   void dependencyDel( int e, char const * key ) {
      story_ << "e" << e << " no dependency " << key << '\n';
      if( model_.events[ index( e ) ].dependency.erase( key ) )
         model_.change( e, "dependency", key );
      events_[ index( e ) ]->dependencyDel( key );
   }
   void dependencyDelAll( int e ) {
      story_ << "e" << e << " no dependency\n";
      // In the collection's own order.
      std::vector< std::string > gone;
      for( auto i = events_[ index( e ) ]->dependencyIterator(); i; ++i )
         gone.push_back( i.key().str() );
      model_.events[ index( e ) ].dependency.clear();
      for( auto const & key : gone )
         model_.change( e, "dependency", key );
      events_[ index( e ) ]->dependencyDelAll();
   }

   void operation() {
      int const r = roll( reactorCount );
      int const e = roll( eventCount );
      char const * const key = keys[ index( roll( static_cast< int >( keys.size() ) ) ) ];
      switch( roll( 20 ) ) {
      case 0:
         return attach( r, roll( eventCount + 1 ) - 1 );
      case 1:
         return registerIs( r, roll( 2 ) == 0 );
      case 2:
         return activeIs( r, roll( 2 ) == 0 );
      case 3:
         return mark( r, roll( 2 ) == 0 );
      case 4:
         return replace( r );
      case 5:
         return registerIs( r, true );
      case 6:
         return activeIs( r, true );
      case 7:
         return mark( r, false );
      case 8:
         return dependencyDelAll( e );
      case 9:
         return criticalIs( e, roll( 2 ) == 0 );
      case 10:
         return timeoutIs( e, roll( 3 ) );
      case 11:
      case 12:
      case 13:
         return dependencyDel( e, key );
      default:
         return dependencyIs( e, key, roll( 2 ) == 0 );
      }
   }
   // What a callback does, now and then; less as time goes by, so that the end comes.
   void inside() {
      if( roll( lively_ ) > calls_ )
         for( int i = roll( 3 ); i != 0; --i )
            operation();
   }
   bool deliverOne() {
      ++calls_;
      auto const expected = model_.next();
      if( expected )
         journalExpected_.push_back( model_.line( *expected ) );
      story_ << "delivers " << ( expected ? journalExpected_.back() : "nothing" ) << '\n';
      bool const ran = Kiv::activityManager()->runOne();
      if( ran != expected.has_value() )
         broken_ = true;
      return ran;
   }

   bool same() {
      if( broken_ || journal_ != journalExpected_ ) {
         story_ << "wrote " << ( journal_.empty() ? "nothing" : journal_.back() ) << '\n';
         return false;
      }
      for( int r = 0; r != reactorCount; ++r )
         if( reactors_[ index( r ) ]->pendingNotifications() != model_.pendingOf( r ) ) {
            story_ << "r" << r << " has " << reactors_[ index( r ) ]->pendingNotifications()
                   << " pending, not " << model_.pendingOf( r ) << '\n';
            return false;
         }
      // Only the last lines matter, and a long journal is slow to compare.
      journal_.clear();
      journalExpected_.clear();
      return true;
   }

   std::mt19937 random_;
   int const lively_; // callbacks after which nothing is done inside of them any more
   std::ostringstream story_;
   Journal journal_;
   Journal journalExpected_;
   int calls_ = 0;
   bool broken_ = false;
   Model model_;
   std::vector< Kiv::Ptr< Stage::EventConfig > > events_;
   std::vector< Kiv::Ptr< Watcher > > reactors_;
};

} // namespace

TEST( RandomDelivery, FollowsThePlainModelInThousandsOfSequences ) {
   testing_support::Loop loop;
   for( std::uint32_t seed = 1; seed <= 3000; ++seed ) {
      Play play( seed, 100 );
      ASSERT_TRUE( play.steps( 150 ) ) << "seed " << seed << ":\n" << play.story();
   }
}

TEST( RandomDelivery, FollowsThePlainModelInLongSequences ) {
   testing_support::Loop loop;
   for( std::uint32_t seed = 100001; seed <= 100020; ++seed ) {
      Play play( seed, 3000 );
      ASSERT_TRUE( play.steps( 5000 ) ) << "seed " << seed;
   }
}
