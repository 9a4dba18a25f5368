// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <tools/Command.h>

#include <exception>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <fmt/format.h>
#include <tools/CommandLine.h>
#include <tools/Inspect.h>
#include <tools/Replay.h>
#include <tools/Simulate.h>
#include <tools/Streams.h>

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
   addReplay( app, status );
   auto const parsed = parse( app, count, arguments );
   return parsed == Parsed::wrong ? Status::wrong : status;
}

} // namespace

int command( int count, char ** arguments ) {
   prepareStreams();
   auto status = Status::wrong;
   try {
      status = run( count, arguments );
   } catch( std::exception const & error ) {
      complain( fmt::format( "ordovan: {}", error.what() ) );
   }
   // What was printed but never arrived must not look like success.
   return static_cast< int >( outputArrived( "ordovan" ) ? status : Status::wrong );
}

} // namespace Tools
