// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <tools/Inspect.h>

#include <memory>
#include <optional>
#include <string>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <fmt/format.h>
#include <simulation/Run.h>
#include <tools/Lines.h>
#include <tools/Number.h>
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
   std::optional< std::size_t > depth;
   bool json = false;
};

struct Nowhere {
   Nowhere() = default;
   ~Nowhere() { close( descriptor ); }
   Nowhere( Nowhere const & ) = delete;
   Nowhere & operator=( Nowhere const & ) = delete;

   int const descriptor = open( "/dev/null", O_WRONLY | O_CLOEXEC );
};

struct Screen {
   std::size_t width, height;
};

// The screen that what is shown has to fit; none if it goes to no terminal, where there may be a
// program or a pager, or if it was said how much is wanted.
std::optional< Screen > screenFor( Options const & options ) {
   if( options.json || options.depth || isatty( STDOUT_FILENO ) == 0 )
      return std::nullopt;
   auto const columns = columnsOf( STDOUT_FILENO );
   return Screen{ columns != 0 ? columns : 80, heightOf( STDOUT_FILENO ) };
}

struct Shown {
   std::string text;
   bool isCut = false; // to fit the screen
};

// As many levels as the screen has room for, but one at least.
Shown fitting( Kiv::Ptr< Kiv::PtrInterface const > const & root, std::string const & path,
               Screen const & screen ) {
   std::size_t constexpr ownRows = 2; // for the hint that there is more, and the shell's prompt
   auto text = shown( root, path, Format::text, 1 );
   for( std::size_t depth = 2;; ++depth ) {
      auto deeper = shown( root, path, Format::text, depth );
      if( deeper == text )
         return { text, false };
      if( rowsOf( deeper, screen.width ) + ownRows > screen.height )
         return { text, true };
      text = std::move( deeper );
   }
}

Shown whatIsAskedFor( Options const & options, Simulation::Plan const & plan ) {
   auto const screen = screenFor( options );
   // What the state machines print when a critical stage is late would stand in the middle of what
   // was asked for.
   Nowhere const nowhere;
   OutputElsewhere const silence( nowhere.descriptor );
   Shown result;
   Simulation::run( plan, {}, options.at, [ & ]( auto const & manager ) {
      Kiv::Ptr< Kiv::PtrInterface const > const root( manager );
      auto const format = options.json ? Format::json : Format::text;
      result =
         screen
            ? fitting( root, options.path, *screen )
            : Shown{ shown( root, options.path, format, options.depth.value_or( everyLevel ) ) };
   } );
   return result;
}

Status inspect( Options const & options ) {
   readPath( options.path ); // before anything runs
   auto const plan = planOf( options.plan );
   if( !plan )
      return Status::wrong;
   auto const [ text, isCut ] = whatIsAskedFor( options, *plan );
   print( text );
   if( isCut ) {
      flushOutput();
      complain( "There is more than fits the screen; --depth shows it." );
   }
   return Status::complete;
}

std::size_t levels( std::string const & text ) {
   auto const count = numberOf< std::size_t >( text );
   if( !count )
      throw CLI::ValidationError( "--depth", "N is a whole number from 0 on" );
   return *count;
}

} // namespace

void addInspect( CLI::App & app, Status & status ) {
   auto const options = std::make_shared< Options >();
   auto * const command = app.add_subcommand(
      "inspect", "Walk through a plan up to a moment and show any attribute of any object then" );
   command->add_option( "PLAN", options->plan, "The plan, a YAML file; - is standard input" )
      ->required();
   command->add_option( "PATH", options->path,
                        "What to show, such as statusSm/stageSm[Boot]/pendingEvent; all if not "
                        "said otherwise" );
   addTime( *command, "--at", options->at,
            "When everything due until then has happened; at the end if not said otherwise" );
   addText( *command, "--depth", "N",
            "Show N levels of what belongs to it; if not said otherwise as many as fit the screen, "
            "all where there is none, and with --json",
            [ options ]( std::string const & text ) { options->depth = levels( text ); } );
   command->add_flag( "--json", options->json, "Show it as JSON" );
   command->set_version_flag( "--version", "ordovan " ORDOVAN_VERSION );
   command->footer(
      "A key that is not plain stands in quotes: stageSm[\"a ] b\"], with \\\", \\\\, "
      "\\n and \\xNN.\nExit status: 0 it was shown, 2 the command line, the path or the "
      "plan is wrong or a file cannot be read." );
   command->callback( [ options, &status ] { status = inspect( *options ); } );
}

} // namespace Tools
