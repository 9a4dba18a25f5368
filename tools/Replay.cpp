// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <tools/Replay.h>

#include <algorithm>
#include <cstddef>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <unistd.h>

#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <Kiv/Printable.h>
#include <fmt/format.h>
#include <simulation/Engine.h>
#include <simulation/JsonValue.h>
#include <simulation/RecordReader.h>
#include <simulation/RecordWriter.h>
#include <tools/Files.h>
#include <tools/Options.h>
#include <tools/Streams.h>

#ifdef ORDOVAN_LIVE
#include <live/Store.h>
#endif

namespace Tools {

namespace {

using Kiv::printable;
using Simulation::Instant;

struct Options {
   std::string file;
   double until = Simulation::infinity;
   bool quiet = false;
};

// The replay does not say what the record says: which line, and what was expected and what came;
// empty where there is none.
struct Difference {
   std::size_t line;
   std::string recorded;
   std::string replayed;
};

// The lines of a replay: printed, and compared with those of a record if there is one.
class Lines : public Simulation::RecordWriter {
 public:
   // `record`: null, or outlives this.
   Lines( Options const & options, Simulation::Record const * record )
      : RecordWriter( [ this ]( std::string_view line ) { take( line ); }, Inputs::written ),
        quiet_( options.quiet ), aside_( STDERR_FILENO ),
        output_( aside_.original(), outputName( standardStream ) ), record_( record ) {}

   // What the record has until then must have come, but for its end.
   void requireAll( double until ) const {
      if( !record_ || next_ == record_->line.size() )
         return;
      auto const & line = record_->line[ next_ ];
      if( line.t <= until && line.kind != "end" )
         throw Difference{ line.number, line.text, "" };
   }
   // From now on lines are printed only.
   void compareNoMore() { record_ = nullptr; }
   void close() { output_.close(); }

 private:
   void take( std::string_view line ) {
      compare( line.substr( 0, line.size() - 1 ) );
      if( !quiet_ )
         output_.write( line );
   }

   void compare( std::string_view line ) {
      if( !record_ )
         return;
      if( next_ == record_->line.size() ) {
         if( !record_->ended )
            return; // whoever wrote it died before it could write this
         throw Difference{ record_->line.back().number + 1, "", std::string( line ) };
      }
      auto const & recorded = record_->line[ next_ ];
      bool const same = recorded.text == line ||
                        Simulation::jsonValue( recorded.text ) == Simulation::jsonValue( line );
      if( !same )
         throw Difference{ recorded.number, recorded.text, std::string( line ) };
      ++next_;
   }

   bool quiet_;
   OutputElsewhere aside_; // what the libraries print would stand in the middle of a line
   OutputFile output_;
   Simulation::Record const * record_;
   std::size_t next_ = 0; // of its lines
};

// Plays up to a time, and says how things stand then.
class Player {
 public:
   Player( Lines & lines, double until ) : lines_( lines ), until_( until ) {}

   void begin( Simulation::Beginning const & beginning ) {
      engine_ = std::make_unique< Simulation::Engine >(
         beginning, std::vector< Simulation::Observer * >{ &lines_ } );
   }

   void takeIn( Instant const & instant ) {
      last_ = instant.t;
      if( instant.t <= until_ )
         engine_->takeIn( instant );
   }

   // `known`: until then it is known what happened, if that is later than the last instant.
   void end( double known = 0 ) {
      auto const last = std::max( last_, known );
      auto const until = std::min( until_, last );
      engine_->fireUntil( until );
      lines_.requireAll( until );
      if( until < last )
         lines_.compareNoMore();
      engine_->end( engine_->result() );
   }

 private:
   Lines & lines_;
   double until_;
   double last_ = 0;
   std::unique_ptr< Simulation::Engine > engine_;
};

// What is played is not in order: where, and what is wrong with it.
struct Mistake {
   std::string text;
};

[[noreturn]] void wrongAt( Options const & options, std::size_t line, char const * what ) {
   throw Mistake{ fmt::format( "{}:{}: {}", inputName( options.file ), line, what ) };
}

Simulation::Record recordIn( Options const & options ) {
   auto const text = fileText( options.file );
   try {
      return Simulation::readRecord( text );
   } catch( Simulation::RecordError const & error ) {
      wrongAt( options, error.line(), error.what() );
   }
}

// Whether it says what followed from the inputs; if not, it is a list of inputs and nothing else.
bool saysMore( Simulation::Record const & record ) {
   return std::any_of( record.line.begin(), record.line.end(), []( auto const & line ) {
      return line.kind != "begin" && line.kind != "input";
   } );
}

void playRecord( Options const & options ) {
   auto const record = recordIn( options );
   Lines lines( options, saysMore( record ) ? &record : nullptr );
   Player player( lines, options.until );
   player.begin( record.beginning );
   for( auto const & [ instant, line ] : record.instant ) {
      try {
         player.takeIn( instant );
      } catch( std::invalid_argument const & error ) {
         wrongAt( options, line, error.what() );
      }
   }
   player.end( record.line.back().t );
   lines.close();
   if( record.cutShort )
      complain( fmt::format( "{}: its last line was cut short, and is left out",
                             inputName( options.file ) ) );
}

#ifdef ORDOVAN_LIVE

// All of it is read before anything is played, so that nobody who wants the store has to wait.
void playStore( Options const & options ) {
   Simulation::Beginning beginning;
   std::vector< Instant > instants;
   try {
      Live::Store::read(
         options.file, [ & ]( auto const & kept ) { beginning = kept; },
         [ & ]( auto const & instant ) { instants.push_back( instant ); } );
   } catch( Live::StoreError const & error ) {
      throw Mistake{ error.what() };
   }
   Lines lines( options, nullptr );
   Player player( lines, options.until );
   player.begin( beginning );
   try {
      for( auto const & instant : instants )
         player.takeIn( instant );
   } catch( std::invalid_argument const & error ) {
      throw Mistake{ fmt::format( "{}: {}", inputName( options.file ), error.what() ) };
   }
   player.end();
   lines.close();
}

bool isStore( std::string const & file ) {
   return file != standardStream && Live::Store::isStore( file );
}

#else

void playStore( Options const & ) {}
bool isStore( std::string const & ) { return false; }

#endif

std::string shown( std::string const & line ) {
   return line.empty() ? "nothing" : printable( line );
}

Status replay( Options const & options ) {
   try {
      if( isStore( options.file ) )
         playStore( options );
      else
         playRecord( options );
   } catch( Difference const & difference ) {
      complain(
         fmt::format( "{}:{}: the replay differs from the record\nrecorded: {}\nreplayed: {}",
                      inputName( options.file ), difference.line, shown( difference.recorded ),
                      shown( difference.replayed ) ) );
      return Status::notComplete;
   } catch( Mistake const & mistake ) {
      complain( mistake.text );
      return Status::wrong;
   }
   return Status::complete;
}

} // namespace

void addReplay( CLI::App & app, Status & status ) {
   auto const options = std::make_shared< Options >();
   auto * const command = app.add_subcommand(
      "replay", "Play what a start-up took in again and print its record, or where it differs" );
   command
      ->add_option( "FILE", options->file,
                    "A store, or a record with its inputs, or these alone; - is standard input" )
      ->required();
   addTime( *command, "--until", options->until,
            "Play no further than this time and tell how things stand then" );
   command->add_flag( "--quiet", options->quiet, "Print nothing but a difference, and errors" );
   command->set_version_flag( "--version", "ordovan " ORDOVAN_VERSION );
   command->footer( "Exit status: 0 it was played, and is what the record says, 1 it differs from "
                    "the record, and standard error says where, 2 the command line or the file is "
                    "wrong or cannot be read." );
   command->callback( [ options, &status ] { status = replay( *options ); } );
}

} // namespace Tools
