// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <live/detail/Json.h>

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace Live::detail {

namespace {

using Json = nlohmann::json;

// Builds the value while it is read, so that reading ends at the first thing that is not allowed.
class Builder : public nlohmann::json_sax< Json > {
 public:
   explicit Builder( unsigned nesting ) : nesting_( nesting ) {}

   Json & result() { return root_; }

   bool null() override { return add( nullptr ); }
   bool boolean( bool value ) override { return add( value ); }
   bool number_integer( number_integer_t value ) override { return add( value ); }
   bool number_unsigned( number_unsigned_t value ) override { return add( value ); }
   bool number_float( number_float_t value, string_t const & ) override { return add( value ); }
   bool string( string_t & value ) override { return add( std::move( value ) ); }
   bool binary( binary_t & ) override { return false; } // no text has any
   bool start_object( std::size_t ) override { return begin( Json::object() ); }
   bool start_array( std::size_t ) override { return begin( Json::array() ); }
   bool end_object() override { return end(); }
   bool end_array() override { return end(); }
   bool key( string_t & name ) override {
      auto const [ place, added ] = open_.back()->emplace( std::move( name ), nullptr );
      member_ = &*place;
      return added;
   }
   bool parse_error( std::size_t, std::string const &,
                     nlohmann::detail::exception const & ) override {
      return false;
   }

 private:
   // Where the next value belongs.
   Json * put( Json && value ) {
      if( open_.empty() )
         return &( root_ = std::move( value ) );
      if( member_ )
         return &( *std::exchange( member_, nullptr ) = std::move( value ) );
      open_.back()->push_back( std::move( value ) );
      return &open_.back()->back();
   }
   bool add( Json value ) {
      put( std::move( value ) );
      return true;
   }
   // Pointers to what is open stay valid: an outer array grows only when the inner one has ended.
   bool begin( Json value ) {
      if( open_.size() == nesting_ )
         return false;
      open_.push_back( put( std::move( value ) ) );
      return true;
   }
   bool end() {
      open_.pop_back();
      return true;
   }

   unsigned const nesting_;
   Json root_;
   std::vector< Json * > open_;
   Json * member_ = nullptr; // of the innermost object, named and without a value yet
};

} // namespace

std::optional< Json > objectFrom( std::string_view text, unsigned nesting ) {
   // The parser would step over a byte-order mark.
   std::size_t const first = text.find_first_not_of( " \t\r\n" );
   if( first == std::string_view::npos || text[ first ] != '{' )
      return std::nullopt;
   Builder builder( nesting );
   if( !Json::sax_parse( text.begin(), text.end(), &builder ) )
      return std::nullopt;
   return std::move( builder.result() );
}

std::string textOf( Json const & value ) {
   return value.dump( -1, ' ', false, Json::error_handler_t::replace );
}

} // namespace Live::detail
