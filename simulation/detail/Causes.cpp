// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <simulation/detail/Causes.h>

#include <algorithm>
#include <cassert>
#include <limits>

#include <Kiv/Kiv.h>

namespace Simulation::detail {

namespace {

// How long "critical stages first" held back stages of the way: where two were held back at the
// same time, it counts once. The links go back in time.
double heldBack( std::vector< Determined::Link > const & links ) {
   double held = 0;
   double counted = std::numeric_limits< double >::infinity(); // from here on
   for( auto const & link : links ) {
      if( link.begun == Determined::Link::Begin::critical ) {
         held += std::max( std::min( link.begin, counted ) - link.ready, 0.0 );
         counted = std::min( counted, link.ready );
      }
   }
   return held;
}

} // namespace

void Causes::outside() { steps_.push_back( { Kiv::now(), Kind::outside, 0, {}, {} } ); }

void Causes::report( std::string const & stage, std::string const & uid, Step armed ) {
   steps_.push_back( { Kiv::now(), Kind::report, armed, stage, uid } );
}

void Causes::timer( bool decision ) {
   steps_.push_back( { Kiv::now(), Kind::timer, 0, {}, {} } );
   if( decision ) {
      assert( wanted_ );
      decisions_.push_back( now() );
      because_ = *std::exchange( wanted_, std::nullopt );
   }
}

void Causes::over( bool decisionWanted, bool started ) {
   if( decisionWanted && !wanted_ )
      wanted_ = now();
   if( started && !enabled_ )
      enabled_ = now();
}

void Causes::stageKnown( std::string const & stage ) { story_[ stage ].ready = now(); }

void Causes::dependency( std::string const & stage, std::string const & on, bool present ) {
   auto & story = story_[ stage ];
   if( present ) {
      story.dependency.try_emplace( on, now() );
   } else if( auto const gone = story.dependency.extract( on ) ) {
      auto const ready = isComplete( on ) ? satisfied( on, gone.mapped() ) : now();
      story.ready = std::max( story.ready, ready.value_or( 0 ) );
   }
}

void Causes::stageStarted( std::string const & stage, bool critical ) {
   auto & story = story_[ stage ];
   story.started = now();
   story.because = because_;
   auto ready = story.ready;
   for( auto const & [ on, since ] : story.dependency ) {
      if( auto const step = satisfied( on, since ); step && *step >= ready ) {
         ready = *step;
         story.by = on;
      }
   }
   explainStart( story, ready );
   if( critical ) {
      story.heldFor.clear(); // whatever released it was no start of another
      lastCritical_ = { now(), stage };
   }
}

// The stage has been ready since the step `ready`. If the decision before the present one was later
// than that and did not start it, nothing but a critical stage can have been the reason.
void Causes::explainStart( Story & story, Step ready ) const {
   using Begin = Link::Begin;
   auto const by = std::exchange( story.by, {} );
   auto const next = std::upper_bound( decisions_.begin(), decisions_.end(), ready );
   if( next != decisions_.end() && *next < now() ) {
      story.begun = Begin::critical;
      story.couldStart = *next;
      story.heldFor = lastCritical_.first >= *next ? lastCritical_.second : std::string();
   } else if( !by.empty() ) {
      story.begun = Begin::dependency;
      story.by = by;
   } else if( because_ == enabled_ ) {
      story.begun = Begin::enabled;
   } else if( isOutside( because_ ) ) {
      story.begun = Begin::change;
   } else {
      story.begun = Begin::decision;
      story.couldStart = ready;
   }
}

void Causes::stageComplete( std::string const & stage, bool timeUp ) {
   auto & story = story_[ stage ];
   if( !story.complete ) {
      story.complete = now();
      story.timeUp = timeUp;
      completions_.push_back( { now(), stage } );
   }
}

Determined Causes::determined() const {
   Determined found;
   found.t = found.since = timeOf( enabled_.value_or( 0 ) );
   if( completions_.empty() )
      return found;
   auto [ step, stage ] = completions_.back();
   found.t = timeOf( step );
   while( true ) {
      auto link = endOf( stage, step );
      auto const & story = story_.at( stage );
      bool const whole = link.begun != Link::Begin::change;
      if( whole )
         addBegin( link, story );
      found.link.push_back( link );
      found.since = link.begin;
      if( !whole || ( story.by.empty() && isOutside( story.because ) ) )
         break;
      stage = story.by.empty() ? stageOf( story.because ) : story.by;
      step = story.by.empty() ? story.because : *story_.at( stage ).complete;
   }
   found.held = heldBack( found.link );
   return found;
}

bool Causes::isComplete( std::string const & stage ) const {
   auto const found = story_.find( stage );
   return found != story_.end() && found->second.complete;
}

std::optional< Causes::Step > Causes::satisfied( std::string const & on, Step since ) const {
   auto const found = story_.find( on );
   return found != story_.end() && found->second.complete > since ? found->second.complete
                                                                  : std::nullopt;
}

// The stage that completed in `step`, first if several did, and so asked for a decision.
std::string const & Causes::stageOf( Step step ) const {
   if( steps_[ step ].kind == Kind::report )
      return steps_[ step ].stage;
   auto const found = std::lower_bound( completions_.begin(), completions_.end(), step,
                                        []( auto const & a, Step b ) { return a.first < b; } );
   assert( found != completions_.end() && found->first == step );
   return found->second;
}

// The link without its begin, unless the timeline determined that as well.
Causes::Link Causes::endOf( std::string const & stage, Step step ) const {
   auto const & cause = steps_[ step ];
   Link link;
   link.stage = stage;
   link.begin = link.end = cause.t;
   if( cause.kind == Kind::report ) {
      link.ended = Link::End::event;
      link.event = cause.uid;
      if( isOutside( cause.armed ) ) {
         link.begin = timeOf( cause.armed );
         link.begun = Link::Begin::change;
      }
   } else if( cause.kind == Kind::outside ) {
      link.ended = Link::End::change;
      link.begun = Link::Begin::change;
   } else {
      link.ended = story_.at( stage ).timeUp ? Link::End::timeUp : Link::End::noEvents;
   }
   return link;
}

void Causes::addBegin( Link & link, Story const & story ) const {
   link.begin = timeOf( story.started );
   link.begun = story.begun;
   bool const waited = link.begun == Link::Begin::critical || link.begun == Link::Begin::decision;
   link.ready = waited ? timeOf( story.couldStart ) : link.begin;
   link.heldFor = story.heldFor;
}

} // namespace Simulation::detail
