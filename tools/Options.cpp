// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <tools/Options.h>

#include <charconv>
#include <system_error>

#include <CLI/Config.hpp>
#include <CLI/Error.hpp>
#include <CLI/Formatter.hpp>
#include <Kiv/Exception.h>
#include <Kiv/Printable.h>
#include <Kiv/Trace.h>

namespace Tools {

void addTime( CLI::App & command, std::string const & option, double & seconds,
              std::string const & description ) {
   auto const read = [ option, &seconds ]( std::string const & text ) {
      auto const end = text.data() + text.size();
      auto const done = std::from_chars( text.data(), end, seconds );
      if( done.ec != std::errc() || done.ptr != end || !( seconds >= 0 ) )
         throw CLI::ValidationError( option, "SECONDS is a number from 0 on" );
   };
   command.add_option_function< std::string >( option, read, description )->type_name( "SECONDS" );
}

unsigned levelsOf( std::string const & option, std::string const & text ) {
   try {
      return Kiv::traceLevels( text );
   } catch( Kiv::Exception const & error ) {
      throw CLI::ValidationError( option, Kiv::printable( error.what() ) );
   }
}

} // namespace Tools
