// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <tools/PlanFile.h>

#include <utility>

#include <fmt/format.h>
#include <tools/Files.h>
#include <tools/PlanReader.h>
#include <tools/Streams.h>

namespace Tools {

std::optional< Simulation::Plan > planOf( std::string const & path ) {
   auto [ plan, mistakes ] = readPlan( fileText( path ) );
   for( auto const & mistake : mistakes ) {
      complain( fmt::format( "{}:{}:{}: {}", inputName( path ), mistake.place.line,
                             mistake.place.column, mistake.text ) );
   }
   return mistakes.empty() ? std::optional( std::move( plan ) ) : std::nullopt;
}

} // namespace Tools
