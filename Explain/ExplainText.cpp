// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// An explanation in sentences.

#include <Explain/Explain.h>

#include <Kiv/Printable.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstddef>

namespace Stage {

using Event = Explanation::Event;
using Index = Explanation::Index;
using Root = Explanation::Root;
using State = Explanation::State;
using UnfinishedStage = Explanation::UnfinishedStage;

namespace {

// How many names a sentence gives where the rest is better counted.
constexpr std::size_t namedAtMost = 3;
// How many stages of a cycle it names: people look at each of them.
constexpr std::size_t stepsAtMost = 12;

std::string quoted( Kiv::Text const & name ) { return Kiv::quoted( name.view() ); }

// Milliseconds are as fine as people care for.
std::string seconds( double time ) {
   double const rounded = std::round( time * 1000 ) / 1000;
   char text[ 32 ];
   bool const plain = std::fabs( rounded ) < 1e15;
   auto const end =
      plain ? std::to_chars( text, text + sizeof text, rounded, std::chars_format::fixed )
            : std::to_chars( text, text + sizeof text, time );
   return std::string( text, end.ptr ) + " s";
}

bool isLimited( double time ) {
   return time < Explanation::never; // false for NaN
}

// "a", "a and b", "a, b and c".
std::string listed( std::vector< std::string > const & parts ) {
   std::string text;
   for( std::size_t i = 0; i != parts.size(); ++i ) {
      text += i == 0 ? "" : i + 1 == parts.size() ? " and " : ", ";
      text += parts[ i ];
   }
   return text;
}

// The first of `items`, and how many there are besides.
template< class Item, class Spell >
std::string listedShort( std::vector< Item > const & items, Spell spell ) {
   std::vector< std::string > parts;
   for( std::size_t i = 0; i != std::min( items.size(), namedAtMost ); ++i )
      parts.push_back( spell( items[ i ] ) );
   if( items.size() > namedAtMost )
      parts.push_back( std::to_string( items.size() - namedAtMost ) + " more" );
   return listed( parts );
}

std::string subject( UnfinishedStage const & stage ) {
   return ( stage.critical ? "critical stage " : "stage " ) + quoted( stage.name );
}

template< class Declared >
std::string spelled( Declared const & event ) {
   return quoted( event.uid ) + " of agent " + quoted( event.agent );
}

// "event "Net:B" of agent "B" depends".
std::string dependingEvents( std::vector< Event > const & by ) {
   return ( by.size() == 1 ? "event " : "events " ) + listedShort( by, spelled< Event > ) +
          ( by.size() == 1 ? " depends" : " depend" );
}

// ---------------------------------------------------------------------------- a stage that waits

std::string dependencyText( Explanation const & explanation,
                            Explanation::Dependency const & dependency ) {
   std::string const name = "stage " + quoted( dependency.stage ) + ", which ";
   if( !dependency.unfinished )
      return name + "no agent has declared";
   switch( explanation.stage[ *dependency.unfinished ].state ) {
   case State::waiting:
      return name + "has not started";
   case State::suspended:
      return name + "timed out and is suspended";
   case State::active:
   case State::untracked:
      break;
   }
   return name + "is not complete";
}

std::string criticalText( Explanation const & explanation ) {
   auto const & critical = explanation.critical;
   return ( critical.size() == 1 ? "critical stage " : "critical stages " ) +
          listedShort( critical,
                       [ & ]( Index i ) { return quoted( explanation.stage[ i ].name ); } ) +
          ( critical.size() == 1 ? " has started" : " have started" );
}

// Through what a stage waits for itself.
std::string cycleText( Explanation const & explanation, UnfinishedStage const & stage ) {
   if( !stage.cycle )
      return "";
   for( auto const & dependency : stage.dependency ) {
      if( !dependency.unfinished )
         continue;
      if( dependency.stage == stage.name )
         return "; it depends on itself";
      if( explanation.stage[ *dependency.unfinished ].cycle == stage.cycle )
         return "; it depends on itself by way of stage " + quoted( dependency.stage );
   }
   return "; these wait for it in turn";
}

std::string decisionText( Explanation const & explanation ) {
   return isLimited( explanation.nextDecision )
             ? "nothing but the next decision, which is due"
             : "nothing but the next decision, which only a change elsewhere brings about";
}

std::string waitingText( Explanation const & explanation, UnfinishedStage const & stage ) {
   if( !explanation.enabled )
      return "waits for progression to be enabled";
   std::string text;
   if( stage.heldBack )
      text = "is held back until " + criticalText( explanation );
   if( !stage.dependency.empty() ) {
      std::vector< std::string > lacks;
      for( auto const & dependency : stage.dependency )
         lacks.push_back( dependencyText( explanation, dependency ) );
      text += ( text.empty() ? "waits for " : ", and waits for " ) + listed( lacks );
   }
   if( text.empty() )
      return "waits for " + decisionText( explanation );
   return text + cycleText( explanation, stage );
}

// When the time of a stage that has not started will run.
std::string timeToCome( UnfinishedStage const & stage ) {
   return isLimited( stage.timeout )
             ? "; its time of " + seconds( stage.timeout ) + " does not run before it has started"
             : "; it has no time limit";
}

// --------------------------------------------------------------------------------- an active stage

std::string pendingText( std::vector< Explanation::PendingEvent > const & events ) {
   if( events.empty() )
      return "nothing but to be declared complete";
   std::vector< std::string > parts;
   for( auto const & event : events )
      parts.push_back( spelled( event ) +
                       ( event.since ? " (pending since " + seconds( *event.since ) + ')' : "" ) );
   return ( events.size() == 1 ? "event " : "events " ) + listed( parts );
}

// What happens when its time is up.
std::string timeRunning( Explanation const & explanation, UnfinishedStage const & stage ) {
   if( stage.state == State::suspended )
      return std::string( ", with no time limit any more" ) +
             ( stage.critical ? "" : "; that it has ceased to be critical does not release it" );
   // The present timeout may be another than the one that the timer was armed with.
   bool const changed = stage.activeSince && *stage.activeSince + stage.timeout != stage.timeIsUp &&
                        ( isLimited( stage.timeout ) || isLimited( stage.timeIsUp ) );
   std::string const whatever = changed ? ", whatever its timeout is now" : "";
   if( !isLimited( stage.timeIsUp ) )
      return "; it has no time limit and waits for ever" + whatever;
   double const left = std::max( stage.timeIsUp - explanation.now, 0.0 );
   return "; its time is up at " + seconds( stage.timeIsUp ) + ", in " + seconds( left ) +
          whatever +
          ( stage.critical ? ", and it would then be suspended, with the message ORDOVAN_STAGE_SLOW"
                           : ", and it would then be declared complete all the same" );
}

std::string activeText( Explanation const & explanation, UnfinishedStage const & stage ) {
   if( stage.state == State::untracked )
      return "is active, but has no state machine that waits for its events";
   std::string text = "is active and ";
   if( stage.state == State::suspended )
      text = "timed out " + ( stage.timedOutAt ? "at " + seconds( *stage.timedOutAt ) + ' ' : "" ) +
             "and is suspended; it ";
   return text + "waits for " + pendingText( stage.event ) + timeRunning( explanation, stage );
}

// A sentence without its end.
std::string text( Explanation const & explanation, UnfinishedStage const & stage ) {
   return subject( stage ) + ' ' +
          ( stage.state == State::waiting ? waitingText( explanation, stage ) + timeToCome( stage )
                                          : activeText( explanation, stage ) );
}

// ------------------------------------------------------------------------------------------ roots

std::string undeclaredText( Root const & root ) {
   std::string const name = "stage " + quoted( root.stage ) + " is declared by no agent";
   return root.by.empty() ? name : name + ", but " + dependingEvents( root.by ) + " on it";
}

// One step of a cycle, after the name of the stage that it begins at.
std::string stepText( Explanation const & explanation, Explanation::Link const & link, Index to ) {
   std::string const name = "stage " + quoted( explanation.stage[ to ].name );
   if( link.heldBack )
      return "is held back by critical " + name;
   return "depends on " + name +
          ( link.by.empty() ? ""
                            : ( link.by.size() == 1 ? " (event " : " (events " ) +
                                 listedShort( link.by, spelled< Event > ) + ')' );
}

std::string cycleText( Explanation const & explanation, Root const & root ) {
   auto const & path = root.path;
   std::string made = subject( explanation.stage[ path.front().stage ] ) + " waits for itself: it ";
   std::size_t const steps = path.size() > stepsAtMost ? stepsAtMost - 1 : path.size();
   for( std::size_t i = 0; i != steps; ++i )
      made += ( i == 0 ? "" : ", which " ) +
              stepText( explanation, path[ i ], path[ ( i + 1 ) % path.size() ].stage );
   if( steps != path.size() )
      made += ", and so on by way of " + std::to_string( path.size() - steps - 1 ) +
              " more back to stage " + quoted( root.stage );
   if( root.of.size() > path.size() )
      made += "; in all, " + std::to_string( root.of.size() ) + " stages wait for each other";
   return made;
}

std::string rootText( Explanation const & explanation, Root const & root ) {
   switch( root.kind ) {
   case Root::Kind::undeclared:
      return undeclaredText( root );
   case Root::Kind::cycle:
      return cycleText( explanation, root );
   case Root::Kind::disabled:
      return "progression has not been enabled";
   case Root::Kind::decision: {
      auto const name = [ & ]( Index i ) { return quoted( explanation.stage[ i ].name ); };
      return ( root.of.size() == 1 ? "stage " : "stages " ) + listedShort( root.of, name ) +
             ( root.of.size() == 1 ? " waits for " : " wait for " ) + decisionText( explanation );
   }
   case Root::Kind::events:
   case Root::Kind::untracked:
      break;
   }
   return text( explanation, explanation.stage[ root.of.front() ] );
}

std::string waitersText( Root const & root ) {
   std::string const more = root.of.empty() ? "" : " more";
   if( root.waiting == 0 )
      return root.of.empty() ? "; no stage waits for this" : "; no other stage waits for this";
   std::string made = root.waiting == 1
                         ? "; 1" + more + " stage waits for this"
                         : "; " + std::to_string( root.waiting ) + more + " stages wait for this";
   if( root.kind == Root::Kind::events && isLimited( root.goesOnAt ) )
      made += ", which goes on at " + seconds( root.goesOnAt );
   return made;
}

} // namespace

std::string sentence( Explanation const & explanation, Root const & root ) {
   return rootText( explanation, root ) + waitersText( root ) + '.';
}

std::string sentence( Explanation const & explanation, UnfinishedStage const & stage ) {
   return text( explanation, stage ) + '.';
}

std::vector< std::string > causes( Explanation const & explanation ) {
   std::vector< std::string > lines;
   for( Root const & root : explanation.root )
      lines.push_back( sentence( explanation, root ) );
   return lines;
}

} // namespace Stage
