// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <tools/FlitlogCommand.h>

#include <bit>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <deque>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include <poll.h>
#include <unistd.h>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <Flitlog/Reader.h>
#include <Flitlog/Ring.h>
#include <Kiv/Printable.h>
#include <fmt/format.h>
#include <tools/CommandLine.h>
#include <tools/Number.h>
#include <tools/Options.h>
#include <tools/RecordFilter.h>
#include <tools/Streams.h>

namespace Tools {

namespace {

using Kiv::printable;

enum Exit { allRead = 0, notAllRead = 1, wrong = 2 };

struct Options {
   std::string path;
   std::optional< double > from; // below 0: so long before the newest record
   std::optional< double > to;
   RecordFilter filter;
   std::optional< std::uint64_t > last;
   bool follow = false;
   bool json = false;
};

std::sig_atomic_t volatile interrupted = 0;

// Standard output, which may be a pipe that nobody reads any more, or a full disk.
class Output {
 public:
   // False when it is no use to go on.
   bool line( std::string text ) {
      text += '\n';
      if( std::fwrite( text.data(), 1, text.size(), stdout ) != text.size() )
         note();
      return ends_ == Ends::no;
   }
   bool flush() {
      if( std::fflush( stdout ) != 0 )
         note();
      return ends_ == Ends::no;
   }
   // Waits a moment; false when whoever read the output is gone.
   static bool wait() {
      pollfd output{ STDOUT_FILENO, 0, 0 };
      return poll( &output, 1, 100 ) <= 0;
   }
   bool failed() const { return ends_ == Ends::failed; }

 private:
   enum class Ends { no, quietly, failed };
   void note() {
      if( ends_ != Ends::no )
         return;
      bool const quiet = errno == EPIPE || ( errno == EINTR && interrupted );
      ends_ = quiet ? Ends::quietly : Ends::failed;
      if( !quiet ) {
         complain( fmt::format( "flitlog: standard output cannot be written: {}",
                                std::strerror( errno ) ) );
      }
   }

   Ends ends_ = Ends::no;
};

// Prints what a reader gives.
class Printing {
 public:
   explicit Printing( Options const & options )
      : options_( options ), reader_( Flitlog::Reader::ReaderIs( options.path ) ) {}

   int run();

 private:
   bool print( Flitlog::Record const & record );
   bool pass();
   void follow();
   bool head();
   void complain( std::string const & sentence ) const;
   void complainOfNew();
   void tellMore( std::uint64_t & told, std::uint64_t now, char const * what ) const;
   bool readAll() const;

   Options const & options_;
   std::unique_ptr< Flitlog::Reader > reader_;
   Output output_;
   bool passed_ = false;
   std::size_t problemsTold_ = 0;
   std::uint64_t overwrittenTold_ = 0;
   std::uint64_t lostPointsTold_ = 0;
   std::uint64_t lostTold_ = 0;
};

void Printing::complain( std::string const & sentence ) const {
   Tools::complain( fmt::format( "{}: {}", printable( options_.path ), sentence ) );
}

void Printing::complainOfNew() {
   for( ; problemsTold_ != reader_->problems().size(); ++problemsTold_ )
      complain( reader_->problems()[ problemsTold_ ] );
   tellMore( overwrittenTold_, reader_->overwritten(),
             "records were overwritten before they could be read" );
   tellMore( lostPointsTold_, reader_->lostDescriptors(),
             "trace points had no room for their descriptors; none of their records is there" );
   tellMore( lostTold_, reader_->lostRecords(), "records were not written" );
}

void Printing::tellMore( std::uint64_t & told, std::uint64_t now, char const * what ) const {
   if( now != told )
      complain( fmt::format( "{} {}", now - std::exchange( told, now ), what ) );
}

// What holds for all records. False when there is no use in going on.
bool Printing::head() {
   unsigned const levels = reader_->levels();
   if( levels == Flitlog::allLevels )
      return true;
   if( options_.json )
      return output_.line( jsonOfLevels( levels ) );
   complain( fmt::format( "the ring was opened for level{} {} alone",
                          std::has_single_bit( levels ) ? "" : "s", levelsText( levels ) ) );
   return true;
}

bool Printing::print( Flitlog::Record const & record ) {
   return output_.line( options_.json ? jsonOf( record ) : lineOf( record ) );
}

// Up to the newest record. False when there is no use in going on.
bool Printing::pass() {
   // What is printed of the first pass may be its end alone.
   std::deque< Flitlog::Record > kept;
   bool const all = !options_.last || passed_;
   passed_ = true;
   bool useful = true;
   for( Flitlog::Record record; useful && !interrupted && reader_->next( record ); ) {
      if( !options_.filter.wants( record, lineOf( record ) ) )
         continue;
      if( all ) {
         useful = print( record );
         continue;
      }
      kept.push_back( record );
      if( kept.size() > *options_.last )
         kept.pop_front();
   }
   for( auto const & record : kept )
      useful = useful && print( record );
   return output_.flush() && useful;
}

bool Printing::readAll() const {
   return reader_->problemsInAll() == 0 && reader_->overwritten() == 0;
}

int Printing::run() {
   bool useful = head() && pass();
   complainOfNew();
   while( options_.follow && useful && !interrupted ) {
      bool const written = reader_->hasWriter();
      reader_->poll();
      useful = pass() && written && Output::wait();
      complainOfNew();
   }
   if( auto const more = reader_->problemsInAll() - reader_->problems().size(); more != 0 )
      complain( fmt::format( "{} more problems of this kind", more ) );
   return output_.failed() ? wrong : readAll() ? allRead : notAllRead;
}

// The time of the newest record; nothing when there is none.
std::optional< double > newest( std::string const & path ) {
   auto const reader = Flitlog::Reader::ReaderIs( path );
   std::optional< double > time;
   for( Flitlog::Record record; reader->next( record ); )
      time = record.time;
   return time;
}

// Makes the times of the filter absolute.
void resolveTimes( Options & options ) {
   bool const relative = options.from.value_or( 0 ) < 0 || options.to.value_or( 0 ) < 0;
   auto const end = relative ? newest( options.path ).value_or( 0 ) : 0;
   auto const absolute = [ end ]( double seconds ) {
      return seconds < 0 ? end + seconds : seconds;
   };
   if( options.from )
      options.filter.from = absolute( *options.from );
   if( options.to )
      options.filter.to = absolute( *options.to );
}

// Adds an option that takes a finite number of something.
template< class Number >
void addNumber( CLI::App & app, std::string const & option, std::string const & type,
                std::string const & description, std::string const & of,
                std::optional< Number > & number ) {
   addText( app, option, type, description, [ =, &number ]( std::string const & text ) {
      number = numberOf< Number >( text );
      if( !number || !std::isfinite( static_cast< double >( *number ) ) ) {
         throw CLI::ValidationError(
            option, fmt::format( "\"{}\", expected a number of {}", printable( text ), of ) );
      }
   } );
}

void addOptions( CLI::App & app, Options & options ) {
   app.add_option( "FILE", options.path, "The trace file" )->required();
   addNumber( app, "--from", "SECONDS",
              "Only records of this time and later; below 0: as long before the newest record",
              "seconds", options.from );
   addNumber( app, "--to", "SECONDS", "Only records of this time and earlier, likewise", "seconds",
              options.to );
   app.add_option( "--handle", options.filter.handles,
                   "Only records of the trace handle NAME; may be given several times" )
      ->type_name( "NAME" )
      ->expected( 1 )
      ->multi_option_policy( CLI::MultiOptionPolicy::TakeAll );
   addText( app, "--level", "LEVELS", "Only records of these levels, as in 8 or 7-9,0",
            [ &options ]( std::string const & text ) {
               options.filter.levels = levelsOf( "--level", text );
            } );
   app.add_option( "--grep", options.filter.grep, "Only records whose line contains TEXT" )
      ->type_name( "TEXT" );
   addNumber( app, "--last", "N", "Of the records that are there, only the newest N", "records",
              options.last );
   app.add_flag( "--follow", options.follow,
                 "Go on with what is written meanwhile, until the writer is gone" );
   app.add_flag( "--json", options.json, "Print a JSON object for each record" );
   app.set_version_flag( "--version", "flitlog " ORDOVAN_VERSION );
   app.footer( "Exit status: 0 everything in the file has been read, 1 something could not be, and "
               "standard error says what, 2 the command line is wrong, FILE is no trace file, or "
               "the output cannot be written. Records that the writer had to leave out are not in "
               "the file: standard error counts them, and the exit status stays 0." );
}

// What has been read by then is printed.
void endAtSignals() {
   struct sigaction interrupt {};
   interrupt.sa_handler = []( int ) { interrupted = 1; };
   sigaction( SIGINT, &interrupt, nullptr );
   sigaction( SIGTERM, &interrupt, nullptr );
}

int run( int count, char ** arguments ) {
   CLI::App app( "Print the records of a binary trace file", "flitlog" );
   Options options;
   addOptions( app, options );
   if( auto const parsed = parse( app, count, arguments ); parsed != Parsed::run )
      return parsed == Parsed::wrong || !outputArrived( "flitlog" ) ? wrong : allRead;
   resolveTimes( options );
   if( options.filter.from > options.filter.to ) {
      complain(
         fmt::format( "flitlog: --from is {} and --to is {}; expected them the other way round",
                      options.filter.from, options.filter.to ) );
      return wrong;
   }
   if( options.follow )
      endAtSignals();
   return Printing( options ).run();
}

} // namespace

int flitlogCommand( int count, char ** arguments ) {
   prepareStreams();
   try {
      return run( count, arguments );
   } catch( std::exception const & error ) {
      complain( fmt::format( "flitlog: {}", printable( error.what() ) ) );
      return wrong;
   }
}

} // namespace Tools
