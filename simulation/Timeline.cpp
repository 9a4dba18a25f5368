// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <simulation/Timeline.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <numeric>
#include <set>
#include <stdexcept>
#include <string_view>

#include <Kiv/Printable.h>
#include <simulation/Json.h>

namespace Simulation {

namespace {

using Kiv::quoted;

// Who stands in the directory, with the stages of its events, as the timeline goes by.
class Directory {
 public:
   explicit Directory( std::vector< Mistake > & mistakes ) : mistakes_( mistakes ) {}

   void filed( Agent const & agent ) {
      if( stages_.count( agent.name ) ) {
         mistake( agent.place, "agent " + quoted( agent.name ) +
                                  " stands twice; an agent is "
                                  "listed once, with all its events" );
      }
      declared( agent.name, agent.event );
   }

   void unclear( UnclearEntry const & e ) {
      if( e.mayHaveCome )
         perhapsThere_.insert( e.agent );
      if( e.mayHaveGone )
         perhapsGone_.insert( e.agent );
   }

   void entry( TimelineEntry const & e ) {
      entry_ = &e;
      std::visit( [ this ]( auto const & operation ) { judge( operation ); }, e.operation );
   }

 private:
   void judge( Join const & join ) {
      if( stages_.count( join.agent ) && !perhapsGone_.count( join.agent ) ) {
         mistake( entry_->agentPlace, "agent " + quoted( join.agent ) + " is there already" +
                                         moment() +
                                         "; only an agent that is not in the directory can join" );
      }
      declared( join.agent, join.event );
   }

   void judge( Leave const & leave ) {
      if( agentIsThere( leave.agent ) )
         stages_.erase( leave.agent );
   }

   void judge( Declare const & declare ) {
      if( !agentIsThere( declare.agent ) )
         return;
      auto const & stage = declare.event.stage;
      if( !stages_[ declare.agent ].insert( stage ).second &&
          !perhapsGone_.count( declare.agent ) ) {
         mistake( entry_->stagePlace,
                  "agent " + quoted( declare.agent ) +
                     " has an event for "
                     "stage " +
                     quoted( stage ) + " already" + moment() +
                     "; it can declare one only for a stage for which it has none" );
      }
   }

   void judge( Withdraw const & withdraw ) {
      if( eventIsThere( withdraw.agent, withdraw.stage ) )
         stages_[ withdraw.agent ].erase( withdraw.stage );
   }

   void judge( Set const & set ) { eventIsThere( set.agent, set.stage ); }

   void judge( Enable const & ) {}

   // The events are told apart even where the agent was there before.
   void declared( std::string const & agent, std::vector< Event > const & events ) {
      std::set< std::string_view > own;
      for( auto const & event : events ) {
         if( !own.insert( event.stage ).second ) {
            mistake( event.place, "agent " + quoted( agent ) + " has two events for stage " +
                                     quoted( event.stage ) + "; it can have one for each stage" );
         }
      }
      stages_[ agent ].merge( own );
   }

   bool agentIsThere( std::string const & agent ) {
      if( stages_.count( agent ) || perhapsThere_.count( agent ) )
         return true;
      mistake(
         entry_->agentPlace,
         "agent " + quoted( agent ) + " is not there" + moment() +
            "; only agents that are in the directory can leave, declare, withdraw or be set" );
      return false;
   }

   bool eventIsThere( std::string const & agent, std::string const & stage ) {
      if( !agentIsThere( agent ) )
         return false;
      if( stages_[ agent ].count( stage ) || perhapsThere_.count( agent ) )
         return true;
      mistake( entry_->stagePlace, "agent " + quoted( agent ) + " has no event for stage " +
                                      quoted( stage ) + moment() +
                                      "; only an event that is there can be set or withdrawn" );
      return false;
   }

   std::string moment() const { return " at " + jsonNumber( entry_->at ); }

   void mistake( Place place, std::string text ) {
      mistakes_.push_back( { place, std::move( text ) } );
   }

   std::vector< Mistake > & mistakes_;
   // Names are those of the plan.
   std::map< std::string_view, std::set< std::string_view > > stages_; // of each agent there is
   std::set< std::string_view > perhapsThere_;
   std::set< std::string_view > perhapsGone_;
   TimelineEntry const * entry_ = nullptr;
};

// Without an order of its times a timeline cannot be sorted.
void requireTime( double at ) {
   if( std::isnan( at ) )
      throw std::invalid_argument( "an entry of the timeline is at NaN, which is no time" );
}

} // namespace

std::vector< std::size_t > timelineOrder( std::vector< TimelineEntry > const & timeline ) {
   for( auto const & entry : timeline )
      requireTime( entry.at );
   std::vector< std::size_t > order( timeline.size() );
   std::iota( order.begin(), order.end(), std::size_t{ 0 } );
   std::stable_sort( order.begin(), order.end(), [ & ]( std::size_t a, std::size_t b ) {
      return timeline[ a ].at < timeline[ b ].at;
   } );
   return order;
}

std::vector< Mistake > planMistakes( Plan const & plan,
                                     std::vector< UnclearEntry > const & unclear ) {
   for( auto const & entry : unclear )
      requireTime( entry.at );
   std::vector< Mistake > mistakes;
   Directory directory( mistakes );
   for( auto const & agent : plan.agent )
      directory.filed( agent );
   auto pending = unclear;
   std::stable_sort( pending.begin(), pending.end(),
                     []( auto const & a, auto const & b ) { return a.at < b.at; } );
   auto next = pending.begin();
   for( auto index : timelineOrder( plan.timeline ) ) {
      auto const & entry = plan.timeline[ index ];
      for( ; next != pending.end() && next->at <= entry.at; ++next )
         directory.unclear( *next );
      directory.entry( entry );
   }
   return mistakes;
}

} // namespace Simulation
