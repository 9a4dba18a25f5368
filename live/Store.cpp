// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <live/Store.h>
#include <live/detail/StoreFile.h>

#include <fstream>
#include <sstream>
#include <string_view>

namespace Live {

StoreError::StoreError( Kind kind, std::string const & what )
   : std::runtime_error( what ), kind_( kind ) {}

StoreError::~StoreError() = default;

std::string thisBoot() {
   std::string boot;
   std::ifstream( "/proc/sys/kernel/random/boot_id" ) >> boot;
   // The program's name stands in parentheses and may hold anything; the 20th field behind it is
   // when it was started.
   std::ifstream file( "/proc/1/stat" );
   std::ostringstream all;
   all << file.rdbuf();
   auto const text = all.str();
   std::string started;
   if( auto const end = text.rfind( ')' ); end != text.npos ) {
      std::istringstream fields( text.substr( end + 1 ) );
      for( int i = 0; i != 20; ++i )
         fields >> started;
   }
   return boot + '/' + started;
}

namespace detail {

bool beginsAsStore( std::string const & file ) {
   std::string_view constexpr magic( "SQLite format 3\0", 16 );
   char begin[ 16 ] = {};
   std::ifstream( file, std::ios::binary ).read( begin, sizeof begin );
   return std::string_view( begin, sizeof begin ) == magic;
}

} // namespace detail

} // namespace Live

#ifndef ORDOVAN_STORE

namespace Live {

class Store::Database {};

namespace {

[[noreturn]] void none( std::string const & file ) {
   throw StoreError( StoreError::Kind::failed,
                     file + ": this program was built without SQLite, which stores need" );
}

} // namespace

bool hasStores() { return false; }

bool Store::isStore( std::string const & file ) { return detail::beginsAsStore( file ); }

Store::Store( std::string const & file, Simulation::Beginning const &, StoreOptions const & ) {
   none( file );
}
Store::~Store() = default;

// There is no object to call these of.
bool Store::isNew() const { none( "" ); }
std::string const & Store::startup() const { none( "" ); }
Simulation::Beginning const & Store::beginning() const { none( "" ); }
void Store::replay( InstantTaker const & ) const { none( "" ); }
void Store::append( Simulation::Instant const & ) { none( "" ); }
Store::Room Store::room() const { none( "" ); }
std::uint64_t Store::size() const { none( "" ); }

void Store::read( std::string const & file,
                  std::function< void( Simulation::Beginning const & ) > const &,
                  InstantTaker const & ) {
   none( file );
}

} // namespace Live

#endif
