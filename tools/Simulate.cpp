// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <tools/Simulate.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <unistd.h>

#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <Kiv/Exception.h>
#include <Kiv/Printable.h>
#include <Kiv/Trace.h>
#include <fmt/format.h>
#include <simulation/RecordWriter.h>
#include <simulation/Run.h>
#include <tools/Display.h>
#include <tools/Files.h>
#include <tools/Options.h>
#include <tools/PlanFile.h>
#include <tools/Reasons.h>
#include <tools/Streams.h>

namespace Tools {

namespace {

using Kiv::printable;
using Simulation::Outcome;

struct Options {
   std::string plan;
   std::optional< std::string > record;
   double until = Simulation::infinity;
   std::optional< std::string > ring;
   std::uint64_t ringBytes = Flitlog::defaultRingBytes;
   unsigned ringLevels = Flitlog::allLevels;
   bool all = false;
   bool quiet = false;
   bool noColor = false;
};

bool wantsColour( Options const & options ) {
   auto const set = []( char const * variable ) {
      auto const value = std::getenv( variable );
      return std::string_view( value ? value : "" );
   };
   return !options.noColor && set( "NO_COLOR" ).empty() && set( "TERM" ) != "dumb" &&
          isatty( fileno( stdout ) ) != 0;
}

// Whether both names lead to one file, or would.
bool same( std::string const & one, std::string const & other ) {
   std::error_code error;
   if( std::filesystem::equivalent( one, other, error ) )
      return true;
   // Absolute first: a relative name of which nothing exists would stay relative.
   auto const whole = [ &error ]( std::string const & name ) {
      return std::filesystem::weakly_canonical( std::filesystem::absolute( name, error ), error );
   };
   auto const first = whole( one );
   return !first.empty() && first == whole( other );
}

bool recordsToOutput( Options const & options ) {
   return options.record && isStandardOutput( *options.record );
}

void refuseToOverwrite( Options const & options ) {
   if( !options.record || recordsToOutput( options ) )
      return;
   std::error_code error;
   auto const plan = options.plan == standardStream ? "/dev/stdin" : options.plan;
   if( std::filesystem::is_regular_file( plan, error ) && same( plan, *options.record ) ) {
      throw FileError( printable( *options.record ) +
                       ": is the plan itself; the record must be another file" );
   }
   if( options.ring && same( *options.ring, *options.record ) ) {
      throw FileError( printable( *options.record ) +
                       ": is the ring as well; the record must be another file" );
   }
}

// Switches the state machines' traces on.
void traceLevelsAre( std::string const & levels ) {
   levelsOf( "--trace", levels ); // nothing else may stand there, such as another handle
   Kiv::tracesIs( "Ordovan:" + Kiv::String8( levels ) );
}

std::uint64_t ringBytes( std::string const & text ) {
   try {
      return Kiv::ringBytes( text );
   } catch( Kiv::Exception const & error ) {
      throw CLI::ValidationError( "--ring-size", error.what() );
   }
}

// Records traces into a file while it lives.
class Ring {
 public:
   explicit Ring( Options const & options ) : on_( options.ring.has_value() ) {
      if( on_ )
         Kiv::traceRingIs( *options.ring, options.ringBytes, options.ringLevels );
   }
   ~Ring() {
      if( on_ )
         Kiv::traceRingIs( "" );
   }
   Ring( Ring const & ) = delete;
   Ring & operator=( Ring const & ) = delete;

 private:
   bool on_;
};

// The record, if it is wanted. While it goes to standard output, nothing else goes there.
class Recording : public Simulation::RecordWriter {
 public:
   explicit Recording( Options const & options )
      : RecordWriter( [ this ]( std::string_view line ) { file_->write( line ); } ) {
      if( recordsToOutput( options ) ) {
         aside_.emplace( STDERR_FILENO );
         file_.emplace( aside_->original(), outputName( "-" ) );
      } else if( options.record ) {
         file_.emplace( *options.record );
      }
   }
   void close() {
      if( file_ )
         file_->close();
   }

 private:
   std::optional< OutputElsewhere > aside_;
   std::optional< OutputFile > file_;
};

// Says what holds the start-up up.
void explain( Options const & options, Simulation::Result const & result ) {
   flushOutput();
   auto const state = Simulation::stateName( result );
   auto const so = result.exhausted ? fmt::format( "did not complete: {}", state )
                                    : fmt::format( "is {} at {} s", state, result.now );
   tellReasons( fmt::format( "{}: the start-up {}", inputName( options.plan ), so ), result,
                options.all ? Telling::all : Telling::causes );
}

Status simulate( Options const & options ) {
   auto const plan = planOf( options.plan );
   if( !plan )
      return Status::wrong;
   refuseToOverwrite( options );
   Recording recording( options );
   Display display( stdout, plan->application, { wantsColour( options ), options.quiet } );
   std::vector< Simulation::Observer * > observers = { &display };
   if( options.record )
      observers.push_back( &recording );
   Ring const ring( options );
   auto const result = Simulation::run( *plan, observers, options.until );
   recording.close();
   if( result.outcome == Outcome::complete )
      return Status::complete;
   explain( options, result );
   return Status::notComplete;
}

} // namespace

void addSimulate( CLI::App & app, Status & status ) {
   auto const options = std::make_shared< Options >();
   auto * const command = app.add_subcommand(
      "simulate", "Walk through a plan on a virtual clock and show the start-up that it gives" );
   command->add_option( "PLAN", options->plan, "The plan, a YAML file; - is standard input" )
      ->required();
   command
      ->add_option(
         "--record", options->record,
         "Write what happens to FILE, as JSON Lines; with - to standard output, and what "
         "people read to standard error" )
      ->type_name( "FILE" );
   addTime( *command, "--until", options->until,
            "End at this time and tell how things stand, though more would be due" );
   addText( *command, "--trace", "LEVELS",
            "Write the traces of these levels, such as 8 or 7-9,0, to standard error",
            traceLevelsAre );
   auto * const ring =
      command
         ->add_option( "--ring", options->ring,
                       "Record all traces into FILE, which flitlog reads; a trace file that is "
                       "there is kept as FILE.old; %p is the process id, %% a %" )
         ->type_name( "FILE" )
         ->check( []( std::string const & name ) {
            return name.empty() ? std::string( "the name of the file is empty" ) : std::string();
         } );
   addText( *command, "--ring-size", "BYTES",
            "How much of the latest traces the file of --ring holds, 8M if not said otherwise",
            [ options ]( std::string const & text ) { options->ringBytes = ringBytes( text ); } )
      .needs( ring );
   addText( *command, "--ring-levels", "LEVELS",
            "Record into the file of --ring only traces of these levels, such as 0-8; all if not "
            "said otherwise",
            [ options ]( std::string const & text ) {
               options->ringLevels = levelsOf( "--ring-levels", text );
            } )
      .needs( ring );
   command->add_flag( "--all", options->all,
                      "When the start-up does not complete, say of every unfinished stage why" );
   command->add_flag( "--quiet", options->quiet, "Show nothing but errors" );
   command->add_flag( "--no-color", options->noColor,
                      "Show no colours on a terminal; so does NO_COLOR in the environment" );
   command->set_version_flag( "--version", "ordovan " ORDOVAN_VERSION );
   command->footer( "Exit status: 0 the start-up completed, 1 it did not, and standard error says "
                    "why, 2 the command line or the plan is wrong or a file cannot be read or "
                    "written." );
   command->callback( [ options, &status ] { status = simulate( *options ); } );
}

} // namespace Tools
