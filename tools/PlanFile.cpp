// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <tools/PlanFile.h>

#include <charconv>
#include <cstdio>
#include <system_error>
#include <utility>

#include <CLI/Config.hpp>
#include <CLI/Error.hpp>
#include <CLI/Formatter.hpp>
#include <fmt/format.h>
#include <simulation/detail/Text.h>
#include <tools/Files.h>
#include <tools/PlanReader.h>

namespace Tools {

std::optional< Simulation::Plan > planOf( std::string const & path ) {
   auto [ plan, mistakes ] = readPlan( fileText( path ) );
   for( auto const & mistake : mistakes ) {
      fmt::print( stderr, "{}:{}:{}: {}\n", Simulation::Detail::printable( path ),
                  mistake.place.line, mistake.place.column, mistake.text );
   }
   return mistakes.empty() ? std::optional( std::move( plan ) ) : std::nullopt;
}

void addTime( CLI::App & command, std::string const & option, double & seconds,
              std::string const & description ) {
   auto const read = [ option, &seconds ]( std::string const & text ) {
      auto const end = text.data() + text.size();
      auto const done = std::from_chars( text.data(), end, seconds );
      if( done.ec != std::errc() || done.ptr != end || !( seconds >= 0 ) ) {
         throw CLI::ValidationError( option, "SECONDS is a number from 0 on" );
      }
   };
   command.add_option_function< std::string >( option, read, description )->type_name( "SECONDS" );
}

}  // namespace Tools
