// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <tools/Display.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <utility>

#include <Kiv/Printable.h>
#include <fmt/format.h>
#include <tools/Lines.h>

namespace Tools {

namespace {

using Kiv::printable;
using Simulation::Result;
using Simulation::StageChange;

// Milliseconds are as fine as people care for; trailing zeros tell them nothing.
std::string duration( double seconds ) {
   auto text = fmt::format( "{:.3f}", seconds );
   text.erase( text.find_last_not_of( '0' ) + 1 );
   if( text.back() == '.' )
      text.pop_back();
   return text + " s";
}

// The agents of pending events, from their uids.
std::string agents( StageChange const & change ) {
   std::string text;
   for( auto const & uid : change.pending )
      text += ( text.empty() ? "" : ", " ) + printable( uid.substr( change.stage.size() + 1 ) );
   return text;
}

// Lines of a summary are broken so that they fit a terminal of the usual width.
std::size_t constexpr columns = 80;
std::size_t constexpr headingColumns = 13;

// The items with `between` between them, broken after it.
std::string lines( std::vector< std::string > const & items, std::string_view between ) {
   std::string text;
   std::size_t used = headingColumns;
   for( auto const & item : items ) {
      bool const last = &item == &items.back();
      auto const needed = columnsOf( item ) + ( last ? 0 : columnsOf( between ) );
      if( !text.empty() && used + 1 + needed > columns ) {
         text += '\n' + std::string( headingColumns, ' ' );
         used = headingColumns;
      } else if( !text.empty() ) {
         text += ' ';
         ++used;
      }
      text += item;
      text += last ? std::string_view() : between;
      used += needed;
   }
   return text;
}

// The same as one of the answers, of which there may be none.
std::string listed( std::vector< std::string > const & items, std::string const & none ) {
   return items.empty() ? none : lines( items, "," );
}

std::size_t constexpr mostListed = 5;

// The first of what has a number to be sorted by.
std::vector< std::string > first( std::vector< std::pair< double, std::string > > texts ) {
   std::sort( texts.begin(), texts.end() );
   texts.resize( std::min( mostListed, texts.size() ) );
   std::vector< std::string > items;
   for( auto const & [ number, text ] : texts )
      items.push_back( text );
   return items;
}

// An event, as people call it: by its stage, unless the stage has several.
std::string eventName( Result const & result, std::string const & stage, std::string const & uid ) {
   auto const found = result.stage.find( stage );
   bool const alone = found == result.stage.end() || found->second.event.size() < 2;
   return printable( alone ? stage : uid );
}

// The events that took longest, longest first.
std::string longest( Result const & result ) {
   std::vector< std::pair< double, std::string > > events;
   for( auto const & [ name, stage ] : result.stage ) {
      for( auto const & [ agent, complete ] : stage.event ) {
         auto const uid = name + ':' + agent;
         auto const found = stage.pendingFor.find( uid );
         if( found != stage.pendingFor.end() && found->second > 0 ) {
            events.emplace_back( -found->second,
                                 fmt::format( "{} {}{}", eventName( result, name, uid ),
                                              duration( found->second ),
                                              complete ? "" : " (not complete)" ) );
         }
      }
   }
   return listed( first( std::move( events ) ), "none took any time" );
}

using Link = Simulation::Determined::Link;

std::string linkText( Result const & result, Link const & link ) {
   auto const name = link.ended == Link::End::event ? eventName( result, link.stage, link.event )
                                                    : printable( link.stage );
   switch( link.ended ) {
   case Link::End::timeUp:
      return fmt::format( "{} timed out after {}", name, duration( link.end - link.begin ) );
   case Link::End::change:
      return name;
   default:
      return fmt::format( "{} {}", name, duration( link.end - link.begin ) );
   }
}

// Which links of a long way are shown: its two ends and the longest between.
std::vector< bool > worthShowing( std::vector< Link > const & links ) {
   std::size_t constexpr shown = 4;
   std::vector< std::size_t > order( links.size() );
   std::iota( order.begin(), order.end(), std::size_t{ 0 } );
   auto const weight = [ & ]( std::size_t i ) {
      bool const end = i == 0 || i + 1 == links.size();
      return end ? Simulation::infinity : links[ i ].end - links[ i ].begin;
   };
   std::stable_sort( order.begin(), order.end(),
                     [ & ]( auto a, auto b ) { return weight( a ) > weight( b ); } );
   std::vector< bool > worth( links.size(), links.size() <= shown + 1 );
   for( std::size_t i = 0; i < std::min( shown, order.size() ); ++i )
      worth[ order[ i ] ] = true;
   return worth;
}

// The links from the last to the first, with those that are not worth showing told together.
std::vector< std::string > linkTexts( Result const & result ) {
   auto const & links = result.determined->link;
   auto const worth = worthShowing( links );
   std::vector< std::string > items;
   for( std::size_t i = 0; i < links.size(); ++i ) {
      if( worth[ i ] ) {
         items.push_back( linkText( result, links[ i ] ) );
         continue;
      }
      auto const first = i;
      while( !worth[ i + 1 ] ) // the last is worth it
         ++i;
      items.push_back( fmt::format( "... {} more, {} ...", i + 1 - first,
                                    duration( links[ first ].end - links[ i ].begin ) ) );
   }
   return items;
}

// The way back from what ended a start-up to what began it; empty if there is nothing to say.
std::string wayBack( Result const & result ) {
   auto const & links = result.determined->link;
   auto const since = result.determined->since;
   auto items = linkTexts( result );
   if( !links.empty() && links.back().begun != Link::Begin::enabled )
      items.push_back( "timeline at " + duration( since ) );
   else if( since > 0 )
      items.push_back( "enabled at " + duration( since ) );
   return lines( items, " <-" );
}

// What "critical stages first" had to do with it; empty if nothing.
std::string heldBack( Result const & result ) {
   std::vector< std::string > stages;
   for( auto const & link : result.determined->link )
      if( link.begun == Link::Begin::critical && link.begin > link.ready )
         stages.push_back( printable( link.stage ) );
   if( stages.empty() )
      return {};
   auto const more = stages.size() - 1;
   return lines( { fmt::format( "of which {} were lost to \"critical stages first\"",
                                duration( result.determined->held ) ),
                   fmt::format( "({}{} waited)", stages.front(),
                                more ? fmt::format( " and {} more", more ) : "" ) },
                 "" );
}

// The stages that something is still waited for in, the one that has been active longest first.
std::string active( Result const & result ) {
   std::vector< std::pair< double, std::string > > stages;
   for( auto const & [ name, stage ] : result.stage ) {
      if( stage.active && !stage.complete ) {
         stages.emplace_back( stage.activeSince,
                              fmt::format( "{} since {}{}", printable( name ),
                                           duration( stage.activeSince ),
                                           stage.timedOut ? " (suspended)" : "" ) );
      }
   }
   auto items = first( stages );
   if( stages.size() > mostListed )
      items.push_back( fmt::format( "{} more", stages.size() - mostListed ) );
   return listed( items, "none" );
}

std::string timedOut( Result const & result ) {
   std::vector< std::string > items;
   for( auto const & [ name, stage ] : result.stage )
      if( stage.timedOut )
         items.push_back( printable( name ) + " at " + duration( stage.timedOutAt ) );
   return listed( items, "none" );
}

} // namespace

void Display::onMessage( Simulation::Message const & message ) {
   if( style_.quiet )
      return;
   line( message.t, Colour::yellow, "message", message.text, message.id );
}

void Display::onStage( StageChange const & change ) {
   if( style_.quiet && change.kind != StageChange::Kind::suspended )
      return;
   auto const took = "after " + duration( change.t - change.activeSince );
   auto const critical = change.critical ? "critical" : "";
   switch( change.kind ) {
   case StageChange::Kind::active:
      line( change.t, Colour::none, "started", change.stage, critical );
      break;
   case StageChange::Kind::complete:
      line( change.t, Colour::green, "complete", change.stage, took );
      break;
   case StageChange::Kind::timedOut:
      line( change.t, Colour::yellow, "timed out", change.stage,
            took + ", goes on without " + agents( change ) );
      break;
   case StageChange::Kind::suspended:
      std::fputc( '\n', out_ );
      line( change.t, Colour::red, "suspended", change.stage,
            took + ", waits for " + agents( change ) );
      break;
   case StageChange::Kind::resumed:
      line( change.t, Colour::green, "resumed", change.stage, "complete " + took );
      break;
   case StageChange::Kind::completedLate:
      line( change.t, Colour::green, "complete", change.stage, "late, " + took );
      break;
   }
}

void Display::onEnd( Result const & result ) {
   if( style_.quiet )
      return;
   bool const complete = result.outcome == Simulation::Outcome::complete;
   bool const over = complete || result.exhausted;
   auto const colour = complete ? Colour::green : over ? Colour::red : Colour::none;
   auto const after = result.determined ? result.determined->t : result.t;
   print( fmt::format( "\n{}: {} {}\n", printable( application_ ),
                       coloured( colour, Simulation::stateName( result ) ),
                       over ? "after " + duration( after ) : "at " + duration( result.now ) ) );
   counts( result, over );
   if( !over )
      summaryLine( "active", active( result ) );
   if( result.determined )
      ended( result );
   summaryLine( "longest", longest( result ) );
   summaryLine( "timed out", timedOut( result ) );
}

void Display::ended( Result const & result ) {
   if( auto const text = wayBack( result ); !text.empty() )
      summaryLine( "ended by", text );
   if( auto const text = heldBack( result ); !text.empty() )
      summaryLine( "", text );
}

void Display::counts( Result const & result, bool over ) {
   std::size_t complete = 0, active = 0, critical = 0, events = 0, eventsComplete = 0, pending = 0;
   for( auto const & [ name, stage ] : result.stage ) {
      complete += stage.finished();
      active += stage.active;
      critical += stage.critical;
      events += stage.event.size();
      pending += stage.pending.size();
      for( auto const & [ agent, eventComplete ] : stage.event )
         eventsComplete += eventComplete;
   }
   auto const stages = result.stage.size();
   auto const rest =
      over ? fmt::format( "{} started", active )
           : fmt::format( "{} active, {} waiting", active - complete, stages - active );
   summaryLine( "stages", fmt::format( "{} of {} complete, {}, {} critical", complete, stages, rest,
                                       critical ) );
   summaryLine( "events", fmt::format( "{} of {} complete", eventsComplete, events ) +
                             ( over ? "" : fmt::format( ", {} pending", pending ) ) );
}

void Display::line( double t, Colour colour, std::string_view what, std::string_view name,
                    std::string_view detail ) {
   auto const more = detail.empty() ? std::string() : fmt::format( "  {}", detail );
   print( fmt::format( "{} {}  {}{}\n", coloured( Colour::dim, fmt::format( "{:>10.3f}", t ) ),
                       coloured( colour, fmt::format( "{:<9}", what ) ), printable( name ),
                       coloured( Colour::dim, more ) ) );
}

void Display::summaryLine( std::string_view what, std::string const & text ) {
   auto const heading = coloured( Colour::dim, fmt::format( "{:<9}", what ) );
   print( fmt::format( "  {}  {}\n", heading, text ) );
}

void Display::print( std::string_view text ) {
   if( !style_.quiet )
      std::fwrite( text.data(), 1, text.size(), out_ );
}

std::string Display::coloured( Colour colour, std::string_view text ) const {
   if( !style_.colour || colour == Colour::none || text.empty() )
      return std::string( text );
   int constexpr codes[] = { 0, 2, 32, 33, 31 }; // in the order of Colour
   return fmt::format( "\x1b[{}m{}\x1b[0m", codes[ static_cast< int >( colour ) ], text );
}

} // namespace Tools
