// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <tools/Reasons.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include <fmt/format.h>
#include <tools/Streams.h>

namespace Tools {

namespace {

using Stage::Explanation;

// The stages that no cause names as its own.
std::size_t others( Explanation const & explanation ) {
   std::vector< bool > named( explanation.stage.size() );
   for( auto const & root : explanation.root )
      for( auto const place : root.of )
         named[ place ] = true;
   std::size_t count = 0;
   for( bool const one : named )
      count += one ? 0 : 1;
   return count;
}

// Says how many stages are not told of; not if the sentence of the only cause has just said so.
std::string restOf( Explanation const & explanation, std::size_t count ) {
   if( explanation.root.size() == 1 && explanation.root.front().waiting == count )
      return "--all says for what each stage waits.";
   if( count == 1 )
      return "1 other stage waits for these; --all says for what.";
   return fmt::format( "{} other stages wait for these; --all says for what each of them does.",
                       count );
}

} // namespace

void tellReasons( std::string_view heading, Simulation::Result const & result, Telling telling ) {
   auto const & explanation = result.explanation;
   complain( heading );
   for( auto const & cause : Stage::causes( explanation ) )
      complain( cause );
   if( telling == Telling::all ) {
      for( auto const & stage : explanation.stage ) {
         // A stage that is a cause by itself was told with the same words.
         if( stage.state == Explanation::State::waiting )
            complain( Stage::sentence( explanation, stage ) );
      }
   } else if( auto const count = others( explanation ); count != 0 ) {
      complain( restOf( explanation, count ) );
   }
   if( explanation.root.empty() )
      complain( "No stage is unfinished, but no decision has been made since." );
}

} // namespace Tools
