// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <tools/Inspect.h>

#include <memory>
#include <string>

#include <fcntl.h>
#include <unistd.h>

#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <fmt/format.h>
#include <simulation/Engine.h>
#include <tools/Options.h>
#include <tools/PlanFile.h>
#include <tools/Streams.h>
#include <tools/Tree.h>

namespace Tools {

namespace {

struct Options {
   std::string plan;
   std::string path;
   double at = Simulation::infinity;
   bool json = false;
};

struct Nowhere {
   Nowhere() = default;
   ~Nowhere() { close( descriptor ); }
   Nowhere( Nowhere const & ) = delete;
   Nowhere & operator=( Nowhere const & ) = delete;

   int const descriptor = open( "/dev/null", O_WRONLY | O_CLOEXEC );
};

std::string textOf( Options const & options, Simulation::Plan const & plan ) {
   // What the state machines print when a critical stage is late would stand in the middle of what
   // was asked for.
   Nowhere const nowhere;
   OutputElsewhere const silence( nowhere.descriptor );
   std::string text;
   Simulation::run( plan, {}, options.at, [ & ]( auto const & manager ) {
      text = shown( Kiv::Ptr< Kiv::PtrInterface const >( manager ), options.path,
                    options.json ? Format::json : Format::text );
   } );
   return text;
}

Status inspect( Options const & options ) {
   readPath( options.path );  // before anything runs
   auto const plan = planOf( options.plan );
   if( !plan ) {
      return Status::wrong;
   }
   auto const text = textOf( options, *plan );
   print( text );
   return Status::complete;
}

}  // namespace

void addInspect( CLI::App & app, Status & status ) {
   auto const options = std::make_shared< Options >();
   auto * const command = app.add_subcommand(
      "inspect", "Walk through a plan up to a moment and show any attribute of any object then" );
   command->add_option( "PLAN", options->plan, "The plan, a YAML file; - is standard input" )->required();
   command->add_option( "PATH", options->path,
                        "What to show, such as statusSm/stageSm[Boot]/pendingEvent; all if not "
                        "said otherwise" );
   addTime( *command, "--at", options->at,
            "When everything due until then has happened; at the end if not said otherwise" );
   command->add_flag( "--json", options->json, "Show it as JSON" );
   command->set_version_flag( "--version", "ordovan " ORDOVAN_VERSION );
   command->footer( "A key that is not plain stands in quotes: stageSm[\"a ] b\"], with \\\", \\\\, "
                    "\\n and \\xNN.\nExit status: 0 it was shown, 2 the command line, the path or the "
                    "plan is wrong or a file cannot be read." );
   command->callback( [ options, &status ] { status = inspect( *options ); } );
}

}  // namespace Tools
