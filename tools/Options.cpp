// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <tools/Options.h>

#include <CLI/Config.hpp>
#include <CLI/Error.hpp>
#include <CLI/Formatter.hpp>
#include <Kiv/Exception.h>
#include <Kiv/Printable.h>
#include <Kiv/Trace.h>
#include <tools/Number.h>

namespace Tools {

CLI::Option & addText( CLI::App & command, std::string const & option, std::string const & type,
                       std::string const & description,
                       std::function< void( std::string const & ) > const & set ) {
   return *command.add_option_function< std::string >( option, set, description )
              ->type_name( type );
}

void addTime( CLI::App & command, std::string const & option, double & seconds,
              std::string const & description ) {
   auto const read = [ option, &seconds ]( std::string const & text ) {
      seconds = numberOf< double >( text ).value_or( -1 );
      if( !( seconds >= 0 ) )
         throw CLI::ValidationError( option, "SECONDS is a number from 0 on" );
   };
   addText( command, option, "SECONDS", description, read );
}

unsigned levelsOf( std::string const & option, std::string const & text ) {
   try {
      return Kiv::traceLevels( text );
   } catch( Kiv::Exception const & error ) {
      throw CLI::ValidationError( option, Kiv::printable( error.what() ) );
   }
}

} // namespace Tools
