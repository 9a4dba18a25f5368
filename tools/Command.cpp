// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <tools/Command.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <fmt/format.h>
#include <tools/Inspect.h>
#include <tools/Simulate.h>

namespace Tools {

namespace {

Status run( int count, char ** arguments ) {
   CLI::App app( "Start-up stage manager: agents declare events, stages start in an agreed order",
                 "ordovan" );
   app.set_version_flag( "--version", "ordovan " ORDOVAN_VERSION );
   app.require_subcommand( 1 );
   auto status = Status::complete;
   addSimulate( app, status );
   addInspect( app, status );
   try {
      app.parse( count, arguments );
   } catch( CLI::ParseError const & error ) {
      // Asking for help or the version ends here, too.
      return app.exit( error ) == 0 ? Status::complete : Status::wrong;
   }
   return status;
}

// What was printed but never arrived must not look like success.
bool outputArrived() {
   errno = 0;
   if( std::fflush( stdout ) == 0 && !std::ferror( stdout ) ) {
      return true;
   }
   fmt::print( stderr, "standard output cannot be written: {}\n",
               errno != 0 ? std::strerror( errno ) : "earlier failure" );
   return false;
}

}  // namespace

int command( int count, char ** arguments ) {
   auto status = Status::wrong;
   try {
      status = run( count, arguments );
   } catch( std::exception const & error ) {
      fmt::print( stderr, "ordovan: {}\n", error.what() );
   }
   return static_cast< int >( outputArrived() ? status : Status::wrong );
}

}  // namespace Tools
