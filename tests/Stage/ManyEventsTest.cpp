// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// What a stage with many events knows of them together, and a status of an agent's stages: after
// every change, by whomever, it is what a walk finds. A setter that fails for want of memory has
// changed none of it.

#include "../support/Allocations.h"

#include <Kiv/Kiv.h>
#include <Stage/Stage.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace {

using Kiv::Name;
using Kiv::Ptr;
using Kiv::String8;
using Stage::EventConfig;
using Stage::StageStatus;
using Stage::Status;
using testing_support::Allocations;

constexpr double nan = std::numeric_limits< double >::quiet_NaN();
constexpr double inf = std::numeric_limits< double >::infinity();

std::string const names[] = { "Base", "Disks", "Net", "Gui", "Late" };

// ---- by a walk

EventConfig const * firstCritical( StageStatus const & stage ) {
   for( auto i = stage.eventIteratorConst(); i; ++i )
      if( i.ptr()->critical() )
         return i.ptr().get();
   return nullptr;
}

bool eventsDependOn( StageStatus const & stage, String8 const & name ) {
   for( auto i = stage.eventIteratorConst(); i; ++i )
      if( i.ptr()->dependency( name ) )
         return true;
   return false;
}

bool dependencysAreOfEvents( StageStatus const & stage ) {
   for( auto i = stage.dependencyIteratorConst(); i; ++i )
      if( !eventsDependOn( stage, i.key() ) )
         return false;
   return true;
}

// NaN when their order could matter.
double longestTimeout( StageStatus const & stage ) {
   double longest = -inf;
   for( auto i = stage.eventIteratorConst(); i; ++i ) {
      double const timeout = i.ptr()->timeout();
      if( std::isnan( timeout ) || ( timeout == 0 && std::signbit( timeout ) ) )
         return nan;
      longest = std::max( longest, timeout );
   }
   return longest;
}

bool same( double a, double b ) {
   return std::isnan( a ) ? std::isnan( b ) : a == b && std::signbit( a ) == std::signbit( b );
}

// What the stage knows that is not so; empty when there is nothing of the kind.
std::string wrongIn( StageStatus const & stage ) {
   std::string wrong;
   if( stage.firstCriticalEvent().get() != firstCritical( stage ) )
      wrong += " first critical event;";
   for( std::string const & name : names )
      if( stage.eventsDependOn( name ) != eventsDependOn( stage, name ) )
         wrong += " events' dependency on " + name + ";";
   // With few events it may say that it does not know.
   bool const many = stage.events() >= 8;
   if( many ? stage.dependencysAreOfEvents() != dependencysAreOfEvents( stage )
            : stage.dependencysAreOfEvents() && !dependencysAreOfEvents( stage ) )
      wrong += " dependencies that no event has;";
   double const longest = stage.longestEventTimeout();
   if( ( many || !std::isnan( longest ) ) && !same( longest, longestTimeout( stage ) ) )
      wrong += " longest timeout;";
   return wrong.empty() ? wrong : stage.name().str() + ":" + wrong;
}

std::string wrongIn( Status const & status, std::vector< std::string > const & agents ) {
   std::string wrong;
   for( std::string const & agent : agents ) {
      auto known = status.eventStageIteratorConst( agent );
      for( auto i = status.stageIteratorConst(); i; ++i )
         if( i.ptr()->event( agent ) ) {
            if( !known || known.key() != i.key() )
               wrong += " " + agent + " lacks " + i.key().str();
            ++known;
         }
      if( known )
         wrong += " " + agent + " has too many";
   }
   return wrong;
}

// ---- random changes

class Random {
 public:
   explicit Random( std::uint64_t seed ) : engine_( seed ) {}
   std::size_t below( std::size_t n ) { return static_cast< std::size_t >( engine_() % n ); }
   bool oneIn( std::size_t n ) { return below( n ) == 0; }
   template< class List >
   auto const & of( List const & list ) {
      return list[ below( std::size( list ) ) ];
   }
   double timeout() {
      static double const odd[] = { nan, -0.0, inf, -inf, 0, 0.1, 1e-60, -1e-60, 1e300 };
      return oneIn( 20 ) ? of( odd ) : static_cast< double >( below( 6 ) );
   }

 private:
   std::mt19937_64 engine_;
};

class Changes {
 public:
   explicit Changes( std::uint64_t seed ) : random( seed ) {
      for( int i = 0; i != 14; ++i )
         agents.push_back( "agent" + std::to_string( i ) );
      for( std::string const & agent : agents )
         for( int i = 0; i != 2; ++i )
            events.push_back( EventConfig::EventConfigIs( names[ 0 ], agent ) );
      for( std::string const & name : { names[ 0 ], names[ 1 ], names[ 2 ] } )
         stages.push_back( status->stageIs( name ) );
   }

   void one() {
      EventConfig & event = *random.of( events );
      StageStatus & stage = *random.of( stages );
      std::string const & name = random.of( names );
      switch( random.below( 13 ) ) {
      case 0:
      case 1:
      case 2:
      case 3:
         return stage.eventIs( Ptr< EventConfig const >( &event ) );
      case 4:
      case 5:
         return stage.eventDel( random.of( agents ) );
      case 6:
         return event.timeoutIs( random.timeout() );
      case 7:
         return event.criticalIs( random.oneIn( 4 ) );
      case 8:
         return event.dependencyIs( name, !random.oneIn( 3 ) );
      case 9:
         return random.oneIn( 4 ) ? event.dependencyDelAll() : event.dependencyDel( name );
      case 10:
         return stage.dependencyIs( name, true );
      case 11:
         return random.oneIn( 4 ) ? stage.dependencyDelAll() : stage.dependencyDel( name );
      default:
         return rare();
      }
   }
   void rare() {
      if( random.oneIn( 3 ) )
         return random.of( stages )->eventDelAll();
      if( random.oneIn( 4 ) ) {
         // What was a member stays with whoever holds it, who may write to it and let go of it.
         std::string const & name = names[ random.below( 3 ) ];
         status->stageDel( name );
         stages.push_back( status->stageIs( name ) );
         if( stages.size() > 5 )
            stages.erase( stages.begin() );
      } else if( random.oneIn( 3 ) ) {
         auto & event = events[ random.below( events.size() ) ];
         event = EventConfig::EventConfigIs( names[ 0 ], event->agent() );
      }
   }
   std::string wrong() const {
      std::string all = wrongIn( *status, agents );
      for( Ptr< StageStatus > const & stage : stages )
         all += wrongIn( *stage );
      return all;
   }

   Random random;
   std::vector< std::string > agents;
   std::vector< Ptr< EventConfig > > events;
   Ptr< Status > status = Status::StatusIs( "status" );
   std::vector< Ptr< StageStatus > > stages;
};

std::uint64_t seeds( std::uint64_t usual ) {
   char const * const count = std::getenv( "ORDOVAN_TEST_SEEDS" );
   return count ? std::strtoull( count, nullptr, 10 ) : usual;
}

TEST( ManyEvents, AreKnownTogetherAfterEveryRandomChange ) {
   for( std::uint64_t seed = 1; seed <= seeds( 100 ); ++seed ) {
      Changes changes( seed );
      for( int i = 0; i != 400; ++i ) {
         changes.one();
         ASSERT_EQ( changes.wrong(), "" ) << "seed " << seed << ", change " << i;
      }
   }
}

// All that the entities hold, as text.
std::string picture( Changes const & changes ) {
   std::string all;
   for( Ptr< StageStatus > const & stage : changes.stages ) {
      all += stage->name().str() + ": ";
      for( auto i = stage->eventIteratorConst(); i; ++i ) {
         all += i.key().str() + "=" + std::to_string( i.ptr()->timeout() ) +
                ( i.ptr()->critical() ? "!" : "" ) + "(";
         for( auto d = i.ptr()->dependencyIteratorConst(); d; ++d )
            all += d.key().str() + ( d.value() ? "+" : "-" );
         all += ") ";
      }
      for( auto d = stage->dependencyIteratorConst(); d; ++d )
         all += d.key().str() + " ";
   }
   return all;
}

// The same changes are made twice: once with memory, and once so that each allocation of each of
// them fails first.
TEST( ManyEvents, AreAsTheyWereAfterAChangeThatFailedForWantOfMemory ) {
   std::size_t failures = 0;
   for( std::uint64_t seed = 1; seed <= seeds( 10 ); ++seed ) {
      Changes changes( seed );
      for( int i = 0; i != 300; ++i ) {
         Random const before = changes.random;
         std::size_t const stages = changes.stages.size();
         for( std::size_t others = 0;; ++others ) {
            std::string const was = picture( changes );
            changes.random = before;
            bool failed = false;
            {
               Allocations const failing( others );
               try {
                  changes.one();
               } catch( std::bad_alloc const & ) {
                  failed = true;
               }
               failed = failed && Allocations::hasFailed();
               Allocations::failNone();
            }
            ASSERT_EQ( changes.wrong(), "" ) << "seed " << seed << ", change " << i;
            if( !failed )
               break;
            ++failures;
            if( changes.stages.size() == stages )
               ASSERT_EQ( picture( changes ), was ) << "seed " << seed << ", change " << i;
         }
      }
   }
   EXPECT_GT( failures, 1000U );
}

TEST( ManyEvents, MayOutliveTheirStageAndTheirStatus ) {
   Ptr< Status > status = Status::StatusIs( "status" );
   Ptr< StageStatus > stage = status->stageIs( "Stage" );
   std::vector< Ptr< EventConfig > > events;
   for( int i = 0; i != 20; ++i ) {
      events.push_back( EventConfig::EventConfigIs( "Stage", "agent" + std::to_string( i ) ) );
      stage->eventIs( events.back() );
   }
   status = nullptr;
   stage->eventDel( "agent3" );
   events[ 5 ]->criticalIs( true );
   EXPECT_EQ( wrongIn( *stage ), "" );
   stage = nullptr;
   for( Ptr< EventConfig > const & event : events ) {
      event->timeoutIs( 5 );
      event->criticalIs( true );
      event->dependencyIs( "Base", true );
   }
}

} // namespace
