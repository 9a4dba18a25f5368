// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Values of the protocol that could be, at random.
#pragma once

#include <live/Protocol.h>

#include <cmath>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

namespace LiveTest {

class RandomValues {
 public:
   enum class Everything { maybe, given };

   explicit RandomValues( unsigned seed, Everything everything = Everything::maybe )
      : random_( seed ), everything_( everything ) {}

   template< class Value >
   Value value() {
      Value value;
      fill( value );
      return value;
   }

 private:
   unsigned upTo( unsigned most ) { return static_cast< unsigned >( random_() % ( most + 1 ) ); }
   bool flag() { return upTo( 1 ) == 1; }
   bool given() { return everything_ == Everything::given || flag(); }
   double number() {
      double const size =
         std::ldexp( 1 + upTo( 1000 ) / 1000.0, static_cast< int >( upTo( 60 ) ) - 30 );
      return upTo( 4 ) == 0 ? std::floor( size ) : size;
   }
   std::string text() {
      static char const * const pieces[] = {
         "a", "Z", " ", "\"", "\\", "\n", "\x01", "\u00e9", "\u20ac", "\U0001f600", "/", "{", "0" };
      std::string text = "t";
      for( unsigned n = upTo( 12 ); n != 0; --n )
         text += pieces[ upTo( std::size( pieces ) - 1 ) ];
      return text;
   }
   template< class Value >
   std::vector< Value > list( Value ( RandomValues::*make )() ) {
      std::vector< Value > list;
      for( unsigned n = upTo( 3 ) + ( everything_ == Everything::given ); n != 0; --n )
         list.push_back( ( this->*make )() );
      return list;
   }
   template< class Value >
   std::optional< Value > maybe( Value value ) {
      return given() ? std::optional< Value >( std::move( value ) ) : std::nullopt;
   }
   std::int64_t count() { return static_cast< std::int64_t >( random_() >> upTo( 62 ) >> 1 ); }

   using Lost = Live::Protocol::Lost;
   Lost lost() { return flag() ? Lost::keep : Lost::withdraw; }

   // Stages of one call's events differ.
   Live::Protocol::Event event() {
      return { text() + std::to_string( ++events_ ), maybe( number() ), flag(),
               list( &RandomValues::text ), maybe( flag() ) };
   }
   Live::Protocol::StageEvent stageEvent() { return { text(), flag(), flag(), maybe( text() ) }; }
   Live::Protocol::Stage stage() {
      return { text(),
               flag(),
               flag(),
               flag(),
               flag(),
               flag(),
               maybe( number() ),
               list( &RandomValues::text ),
               list( &RandomValues::stageEvent ) };
   }
   Live::Protocol::Agent agent() {
      return { text(), flag(), flag(), lost(), list( &RandomValues::event ) };
   }
   Live::Protocol::Entry entry() { return { count(), number(), text() }; }
   Live::Json cause() { return { { "stage", text() }, { "n", count() } }; }

   void fill( Live::Protocol::Stage & value ) { value = stage(); }
   void fill( Live::Protocol::Agent & value ) { value = agent(); }
   void fill( Live::Protocol::Entry & value ) { value = entry(); }
   void fill( Live::Protocol::Join & value ) {
      value = { text(), maybe( list( &RandomValues::event ) ), lost(), flag() };
   }
   void fill( Live::Protocol::Declare & value ) {
      value = { maybe( text() ), list( &RandomValues::event ), {} };
      if( given() )
         value.withdraw = { text() };
   }
   void fill( Live::Protocol::Report & value ) {
      value = { maybe( text() ), text(), maybe( flag() ), maybe( text() ) };
   }
   void fill( Live::Protocol::Leave & value ) { value = { maybe( text() ) }; }
   void fill( Live::Protocol::Watch & value ) {
      value = { flag(), maybe( count() ), maybe( text() ) };
   }
   void fill( Live::Protocol::Wait & value ) {
      using State = Live::Protocol::State;
      value = { maybe( text() ), flag() ? State::active : State::complete, maybe( number() ) };
   }
   void fill( Live::Protocol::Status & ) {}
   void fill( Live::Protocol::Explain & value ) { value = { maybe( text() ) }; }
   void fill( Live::Protocol::Log & value ) { value = { maybe( count() ), flag() }; }
   void fill( Live::Protocol::Enable & value ) { value = { flag() }; }
   void fill( Live::Protocol::JoinReply & value ) { value = { text(), count() }; }
   void fill( Live::Protocol::WatchReply & value ) {
      value = { text(), count(), number(), flag(), flag(), flag(), list( &RandomValues::stage ) };
   }
   void fill( Live::Protocol::WaitReply & value ) { value = { number(), flag() }; }
   void fill( Live::Protocol::StatusReply & value ) {
      value = { text(),
                text(),
                flag(),
                flag(),
                count(),
                number(),
                list( &RandomValues::stage ),
                list( &RandomValues::agent ) };
   }
   void fill( Live::Protocol::ExplainReply & value ) {
      value = { text(), list( &RandomValues::cause ) };
   }
   void fill( Live::Protocol::LogReply & value ) { value = { list( &RandomValues::entry ) }; }

   std::mt19937_64 random_;
   Everything const everything_;
   int events_ = 0;
};

} // namespace LiveTest
