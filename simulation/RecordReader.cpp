// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <simulation/RecordReader.h>

#include <Kiv/Printable.h>

#include <simulation/InputLine.h>
#include <simulation/Json.h>
#include <simulation/JsonValue.h>

namespace Simulation {

namespace {

class Reader {
 public:
   Record read( std::string_view text ) {
      while( !text.empty() ) {
         auto const end = text.find( '\n' );
         if( end == text.npos ) {
            record_.cutShort = true;
            break;
         }
         ++number_;
         line( text.substr( 0, end ) );
         text.remove_prefix( end + 1 );
      }
      if( !begun_ )
         fail( "the record has no line" );
      return std::move( record_ );
   }

 private:
   [[noreturn]] void fail( std::string const & what ) const { throw RecordError( number_, what ); }

   void line( std::string_view text ) {
      try {
         auto const value = jsonValue( text );
         take( kindOf( value ), value, text );
      } catch( JsonError const & error ) {
         fail( error.what() );
      } catch( LineError const & error ) {
         fail( error.what() );
      }
   }

   void take( std::string const & kind, JsonValue const & value, std::string_view text ) {
      if( !begun_ && kind != "begin" ) {
         fail( "the first line is of kind " + Kiv::quoted( kind ) +
               "; a record that can be played again begins with one of kind \"begin\"" );
      }
      if( record_.ended )
         fail( "nothing is expected after the line of kind \"end\"" );
      bool const known =
         kind == "begin" || kind == "input" || kind == "log" || kind == "message" || kind == "end";
      if( !known )
         return;
      double const t = timeOf( value );
      if( t < t_ )
         fail( "time goes back, from " + jsonNumber( t_ ) + " to " + jsonNumber( t ) );
      t_ = t;
      if( kind == "begin" )
         begin( value );
      else if( kind == "input" )
         input( value );
      record_.ended = kind == "end";
      record_.line.push_back( { number_, t, kind, std::string( text ) } );
   }

   void begin( JsonValue const & value ) {
      if( begun_ )
         fail( "a second line of kind \"begin\"; there is one, the first" );
      begun_ = true;
      record_.beginning = readBeginning( value );
   }

   // The inputs of an instant stand one after the other, and nothing stands between them.
   void input( JsonValue const & value ) {
      auto stamped = readInput( value );
      auto & instants = record_.instant;
      bool const same = record_.line.back().kind == "input" && record_.line.back().t == stamped.t;
      if( !same ) {
         if( !instants.empty() && stamped.t <= instants.back().instant.t ) {
            fail( "\"t\" is " + jsonNumber( stamped.t ) +
                  " again; what is taken in later has a later time" );
         }
         instants.push_back( { { stamped.t, {} }, number_ } );
      }
      instants.back().instant.input.push_back( std::move( stamped.input ) );
   }

   Record record_;
   std::size_t number_ = 0;
   double t_ = 0;
   bool begun_ = false;
};

} // namespace

Record readRecord( std::string_view text ) { return Reader().read( text ); }

} // namespace Simulation
