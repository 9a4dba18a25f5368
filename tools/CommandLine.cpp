// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <tools/CommandLine.h>

#include <algorithm>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include <unistd.h>

#include <CLI/Config.hpp>
#include <CLI/Error.hpp>
#include <CLI/Formatter.hpp>
#include <Kiv/Printable.h>
#include <fmt/format.h>
#include <tools/Lines.h>
#include <tools/Streams.h>

namespace Tools {

namespace {

// ---------------------------------------------------------------------------------------- help

class Help : public CLI::Formatter {
 public:
   explicit Help( std::size_t width ) : width_( width ) {}

   std::string make_description( CLI::App const * app ) const override {
      return broken( app->get_description(), width_, 0 ) + '\n';
   }
   std::string make_footer( CLI::App const * app ) const override {
      return app->get_footer().empty() ? "" : broken( app->get_footer(), width_, 0 ) + '\n';
   }
   std::string make_subcommand( CLI::App const * app ) const override {
      return entry( app->get_name(), app->get_description() );
   }
   std::string make_option( CLI::Option const * option, bool isPositional ) const override {
      auto const type = isPositional || option->get_type_size() == 0
                           ? std::string()
                           : " " + option->get_type_name();
      return entry( make_option_name( option, isPositional ) + type, option->get_description() );
   }

 private:
   std::string entry( std::string const & name, std::string const & text ) const {
      auto const column = std::min< std::size_t >( 30, width_ / 3 );
      auto const before = "  " + name;
      bool const fits = before.size() + 2 <= column;
      return before + ( fits ? "" : "\n" ) +
             std::string( fits ? column - before.size() : column, ' ' ) +
             broken( text, width_, column, column ) + '\n';
   }

   std::size_t width_;
};

// For help that goes to the descriptor. A subcommand has a formatter of its own.
void formatterIs( CLI::App & app, int descriptor ) {
   auto const columns = columnsOf( descriptor );
   auto const help = std::make_shared< Help >( columns != 0 ? columns : 80 );
   app.formatter( help );
   for( auto * const subcommand : app.get_subcommands( []( CLI::App * ) { return true; } ) )
      subcommand->formatter( help );
}

// --------------------------------------------------------------------------------- what was meant

// How many characters must be put in, left out, replaced or swapped with their neighbour to make
// one word of the other.
std::size_t distance( std::string_view one, std::string_view other ) {
   // Rows of the table of the distances of all beginnings: the one before the last, the last, and
   // the one that is made.
   std::vector< std::size_t > before, last( other.size() + 1 ), row( other.size() + 1 );
   for( std::size_t j = 0; j <= other.size(); ++j )
      row[ j ] = j;
   for( std::size_t i = 1; i <= one.size(); ++i ) {
      before = last;
      last = row;
      row[ 0 ] = i;
      for( std::size_t j = 1; j <= other.size(); ++j ) {
         auto const replaced = last[ j - 1 ] + ( one[ i - 1 ] == other[ j - 1 ] ? 0 : 1 );
         row[ j ] = std::min( { last[ j ] + 1, row[ j - 1 ] + 1, replaced } );
         if( i > 1 && j > 1 && one[ i - 1 ] == other[ j - 2 ] && one[ i - 2 ] == other[ j - 1 ] )
            row[ j ] = std::min( row[ j ], before[ j - 2 ] + 1 );
      }
   }
   return row.back();
}

// Names that `word` may have been meant to be, quoted and with "or" between them; "" if it is near
// none.
std::string meant( std::string_view word, std::vector< std::string > const & names ) {
   auto const bare = []( std::string_view name ) {
      return name.substr( std::min( name.find_first_not_of( '-' ), name.size() ) );
   };
   word = word.substr( 0, std::min< std::size_t >( word.size(), 100 ) );
   auto nearest = std::max< std::size_t >( 1, bare( word ).size() / 3 );
   std::string result;
   for( auto const & name : names ) {
      bool const begun = bare( word ).size() > 1 && bare( name ).starts_with( bare( word ) );
      auto const steps = begun ? 0 : distance( bare( word ), bare( name ) );
      if( steps > nearest )
         continue;
      result = steps < nearest || result.empty() ? Kiv::quoted( name )
                                                 : result + " or " + Kiv::quoted( name );
      nearest = steps;
   }
   return result;
}

std::vector< std::string > subcommandsOf( CLI::App const & app ) {
   std::vector< std::string > names;
   for( auto const * subcommand : app.get_subcommands( []( CLI::App const * ) { return true; } ) )
      names.push_back( subcommand->get_name() );
   return names;
}

std::vector< std::string > optionsOf( CLI::App const & app ) {
   std::vector< std::string > names;
   for( auto const * option : app.get_options() )
      for( auto const & name : option->get_lnames() )
         names.push_back( "--" + name );
   return names;
}

std::string didYouMean( std::string const & names ) {
   return names.empty() ? "" : fmt::format( "; did you mean {}?", names );
}

std::string unknownSubcommand( CLI::App const & app, std::string_view name ) {
   auto const names = subcommandsOf( app );
   auto const near = meant( name, names );
   return fmt::format( "unknown subcommand {}{}", Kiv::quoted( name ),
                       near.empty() ? fmt::format( "; there are {}", fmt::join( names, ", " ) )
                                    : didYouMean( near ) );
}

std::string unknownOption( CLI::App const & app ) {
   for( auto const & argument : app.remaining() ) {
      if( argument.size() > 1 && argument.front() == '-' && argument != "--" ) {
         auto const name = argument.substr( 0, argument.find( '=' ) );
         return fmt::format( "unknown option {}{}", Kiv::quoted( name ),
                             didYouMean( meant( name, optionsOf( app ) ) ) );
      }
   }
   return "";
}

// What is wrong with the arguments, of which `at` is the subcommand that they are for, or `app`
// itself.
std::string wrongWith( CLI::App const & app, CLI::App const & at, CLI::ParseError const & error ) {
   auto const left = app.remaining( true );
   bool const lacksSubcommand = &app == &at && !left.empty() && !subcommandsOf( app ).empty();
   // Whichever comes first: what follows an unknown subcommand may be its options, what follows an
   // unknown option its value.
   if( lacksSubcommand && !left.front().starts_with( '-' ) )
      return unknownSubcommand( app, left.front() );
   if( auto const unknown = unknownOption( at ); !unknown.empty() )
      return unknown;
   if( dynamic_cast< CLI::ExtrasError const * >( &error ) && !left.empty() )
      return fmt::format( "argument {} is one too many", Kiv::quoted( left.front() ) );
   return Kiv::printable( error.what() );
}

// Says what is wrong.
void complainOf( CLI::App const & app, CLI::ParseError const & error ) {
   auto const chosen = app.get_subcommands();
   auto const & at = chosen.empty() || !unknownOption( app ).empty() ? app : *chosen.front();
   auto const name = &at == &app ? app.get_name() : app.get_name() + " " + at.get_name();
   complain( fmt::format( "{}: {}", name, wrongWith( app, at, error ) ) );
   complain( fmt::format( "Run \"{} --help\" for more information.", name ) );
}

// Help for somebody who has not said what to do.
void complainWithHelp( CLI::App & app ) {
   formatterIs( app, STDERR_FILENO );
   auto help = app.help();
   help.erase( help.find_last_not_of( '\n' ) + 1 );
   complain( help );
}

} // namespace

Parsed parse( CLI::App & app, int count, char const * const * arguments ) {
   try {
      formatterIs( app, STDOUT_FILENO );
      app.parse( count, arguments );
      return Parsed::run;
   } catch( CLI::ParseError const & error ) {
      if( error.get_exit_code() == 0 ) {
         std::ostringstream out;
         app.exit( error, out, out );
         print( out.str() );
         return Parsed::answered;
      }
      if( count <= 1 && !subcommandsOf( app ).empty() )
         complainWithHelp( app );
      else
         complainOf( app, error );
      return Parsed::wrong;
   }
}

} // namespace Tools
