// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <tools/Display.h>

#include <algorithm>
#include <cmath>
#include <utility>

#include <fmt/format.h>
#include <simulation/detail/Text.h>

namespace Tools {

namespace {

using Simulation::Result;
using Simulation::StageChange;
using Simulation::Detail::printable;

// Milliseconds are as fine as people care for; trailing zeros tell them nothing.
std::string duration( double seconds ) {
   auto text = fmt::format( "{:.3f}", seconds );
   text.erase( text.find_last_not_of( '0' ) + 1 );
   if( text.back() == '.' ) {
      text.pop_back();
   }
   return text + " s";
}

// The agents of pending events, from their uids.
std::string agents( StageChange const & change ) {
   std::string text;
   for( auto const & uid : change.pending ) {
      text += ( text.empty() ? "" : ", " ) + printable( uid.substr( change.stage.size() + 1 ) );
   }
   return text;
}

// What the slowest stages took, slowest first.
std::string slowest( Result const & result ) {
   std::size_t constexpr shown = 5;
   std::vector< std::pair< double, std::string > > stages;
   for( auto const & [ name, stage ] : result.stage ) {
      auto const end = stage.complete ? stage.completionTime : result.now;
      if( stage.active && end > stage.activeSince ) {
         auto const incomplete = stage.complete ? "" : " (not complete)";
         stages.push_back( { stage.activeSince - end,
                             fmt::format( "{} {}{}", printable( name ),
                                          duration( end - stage.activeSince ), incomplete ) } );
      }
   }
   std::sort( stages.begin(), stages.end() );
   stages.resize( std::min( shown, stages.size() ) );
   std::string text;
   for( auto const & stage : stages ) {
      text += ( text.empty() ? "" : ", " ) + stage.second;
   }
   return text.empty() ? "none took any time" : text;
}

// The stages that something is still waited for in, the one that has been active longest first.
std::string active( Result const & result ) {
   std::size_t constexpr shown = 5;
   std::vector< std::pair< double, std::string > > stages;
   for( auto const & [ name, stage ] : result.stage ) {
      if( stage.active && !stage.complete ) {
         stages.push_back( { stage.activeSince,
                             fmt::format( "{} since {}{}", printable( name ),
                                          duration( stage.activeSince ),
                                          stage.timedOut ? " (suspended)" : "" ) } );
      }
   }
   std::sort( stages.begin(), stages.end() );
   std::string text;
   for( std::size_t i = 0; i < std::min( shown, stages.size() ); ++i ) {
      text += ( text.empty() ? "" : ", " ) + stages[ i ].second;
   }
   if( stages.size() > shown ) {
      text += fmt::format( ", {} more", stages.size() - shown );
   }
   return text.empty() ? "none" : text;
}

std::string timedOut( Result const & result ) {
   std::string text;
   for( auto const & [ name, stage ] : result.stage ) {
      if( stage.timedOut ) {
         text += fmt::format( "{}{} at {}", text.empty() ? "" : ", ", printable( name ),
                              duration( stage.timedOutAt ) );
      }
   }
   return text.empty() ? "none" : text;
}

}  // namespace

void Display::onMessage( Simulation::Message const & message ) {
   line( message.t, Colour::yellow, "message", message.text, message.id );
}

void Display::onStage( StageChange const & change ) {
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
   bool const complete = result.outcome == Simulation::Outcome::complete;
   bool const over = complete || result.exhausted;
   auto const colour = complete ? Colour::green : over ? Colour::red : Colour::none;
   print( fmt::format( "\n{}: {} {}\n", printable( application_ ),
                       coloured( colour, Simulation::stateName( result ) ),
                       over ? "after " + duration( result.t )
                             : "at " + duration( result.now ) ) );
   counts( result, over );
   if( !over ) {
      summaryLine( "active", active( result ) );
   }
   summaryLine( "slowest", slowest( result ) );
   summaryLine( "timed out", timedOut( result ) );
}

void Display::counts( Result const & result, bool over ) {
   std::size_t complete = 0, active = 0, critical = 0, events = 0, eventsComplete = 0, pending = 0;
   for( auto const & [ name, stage ] : result.stage ) {
      complete += stage.finished();
      active += stage.active;
      critical += stage.critical;
      events += stage.event.size();
      pending += stage.pending.size();
      for( auto const & [ agent, eventComplete ] : stage.event ) {
         eventsComplete += eventComplete;
      }
   }
   auto const stages = result.stage.size();
   auto const rest = over ? fmt::format( "{} started", active )
                           : fmt::format( "{} active, {} waiting", active - complete,
                                          stages - active );
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
   if( !style_.quiet ) {
      std::fwrite( text.data(), 1, text.size(), out_ );
   }
}

std::string Display::coloured( Colour colour, std::string_view text ) const {
   if( !style_.colour || colour == Colour::none || text.empty() ) {
      return std::string( text );
   }
   int constexpr codes[] = { 0, 2, 32, 33, 31 };  // in the order of Colour
   return fmt::format( "\x1b[{}m{}\x1b[0m", codes[ static_cast< int >( colour ) ], text );
}

}  // namespace Tools
