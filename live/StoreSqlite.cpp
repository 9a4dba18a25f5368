// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
//
// Two tables. `about` has what is known of the start-up, `instant` one row for each instant: its
// time, its inputs as the lines that a record has for them, and the checksum.
//
// The file is locked for as long as it is open, by the lock that SQLite itself takes in its
// exclusive mode: the system gives it back when the process dies, however that happens, a forked
// child does not have it, and the system knows whose it is.
#ifdef ORDOVAN_STORE

#include <live/Store.h>
#include <live/detail/StoreFile.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <set>
#include <utility>

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <Kiv/Printable.h>
#include <simulation/InputLine.h>
#include <simulation/Instant.h>
#include <simulation/JsonValue.h>
#include <sqlite3.h>

namespace Live {

namespace {

using Kind = StoreError::Kind;
using Simulation::Instant;

// In the file's header, where tools look for whose it is: "Ordo".
int constexpr applicationId = 0x4F72646F;
char constexpr format[] = "1";

// ---------------------------------------------------------------------------------------- checksum

// CRC-32, of each row over the sum of the row before it as well: a row that was changed, lost or
// moved does not fit. It is no protection against somebody who wants to deceive.
class Checksum {
 public:
   explicit Checksum( std::uint32_t before ) { number( before ); }

   void text( std::string_view bytes ) {
      number( bytes.size() );
      for( char const c : bytes )
         byte( static_cast< unsigned char >( c ) );
   }
   void number( std::uint64_t value ) {
      for( int shift = 0; shift != 64; shift += 8 )
         byte( static_cast< unsigned char >( value >> shift ) );
   }
   void real( double value ) { number( std::bit_cast< std::uint64_t >( value + 0.0 ) ); }
   std::uint32_t sum() const { return ~crc_; }

 private:
   static constexpr std::array< std::uint32_t, 256 > table = [] {
      std::array< std::uint32_t, 256 > made{};
      for( std::uint32_t i = 0; i != 256; ++i ) {
         auto value = i;
         for( int bit = 0; bit != 8; ++bit )
            value = value & 1 ? 0xEDB88320U ^ ( value >> 1 ) : value >> 1;
         made[ i ] = value;
      }
      return made;
   }();

   void byte( unsigned char value ) { crc_ = table[ ( crc_ ^ value ) & 0xFF ] ^ ( crc_ >> 8 ); }

   std::uint32_t crc_ = 0xFFFFFFFFU;
};

std::uint32_t sumOf( std::uint32_t before, double t, std::string_view lines ) {
   Checksum checksum( before );
   checksum.real( t );
   checksum.text( lines );
   return checksum.sum();
}

// --------------------------------------------------------------------------------------- the file

// The files that this process has open: the lock is the process's, and so does not keep it from
// opening one twice.
using Inode = std::pair< dev_t, ino_t >;

std::set< Inode > & opened() {
   static std::set< Inode > inodes;
   return inodes;
}

std::optional< Inode > inodeOf( std::string const & file ) {
   struct stat status;
   if( stat( file.c_str(), &status ) != 0 )
      return std::nullopt;
   return Inode( status.st_dev, status.st_ino );
}

// A name as SQLite takes it: some have a meaning there.
std::string plainName( std::string const & file ) {
   return file.starts_with( ':' ) ? "./" + file : file;
}

// For a file that nobody changes meanwhile.
std::string uriOf( std::string const & file ) {
   std::string uri = file.starts_with( '/' ) ? "file:" : "file:./";
   for( char const c : file ) {
      char text[ 4 ];
      std::snprintf( text, sizeof text, "%%%02X",
                     static_cast< unsigned >( static_cast< unsigned char >( c ) ) );
      uri += c == '/' ? "/" : text;
   }
   return uri + "?immutable=1";
}

[[noreturn]] void inUse( std::string const & file, pid_t pid ) {
   auto const who = pid > 0 ? "process " + std::to_string( pid ) : std::string( "another process" );
   throw StoreError( Kind::inUse, Kiv::printable( file ) + ": is in use by " + who );
}

[[noreturn]] void noStore( std::string const & file ) {
   throw StoreError( Kind::damaged,
                     Kiv::printable( file ) + ": is no store, or its beginning is damaged" );
}

bool isOpenHere( std::string const & file ) {
   auto const inode = inodeOf( file );
   return inode && opened().count( *inode );
}

// The living process that has the store open; 0 if nobody knows. REQUIRES: not this process, whose
// locks would go with the descriptor.
pid_t ownerOf( std::string const & file ) {
   int const descriptor = open( file.c_str(), O_RDONLY | O_CLOEXEC );
   if( descriptor < 0 )
      return 0;
   struct flock lock = {};
   lock.l_type = F_WRLCK;
   lock.l_whence = SEEK_SET;
   bool const known = fcntl( descriptor, F_GETLK, &lock ) == 0 && lock.l_type != F_UNLCK;
   close( descriptor );
   return known ? lock.l_pid : 0;
}

void requireRegular( std::string const & file ) {
   struct stat status;
   if( stat( file.c_str(), &status ) == 0 && !S_ISREG( status.st_mode ) )
      throw StoreError( Kind::failed, Kiv::printable( file ) + ": is no regular file" );
}

// Makes an empty file that nobody else may read, unless there is one.
void makeFile( std::string const & file ) {
   int const descriptor = open( file.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600 );
   if( descriptor >= 0 )
      close( descriptor );
   else if( errno != EEXIST )
      throw StoreError( Kind::failed, Kiv::printable( file ) + ": " + std::strerror( errno ) );
}

// ------------------------------------------------------------------------------------- connection

class Connection {
 public:
   enum class Access { write, read };

   Connection( std::string const & file, Access access ) : file_( file ) {
      if( isOpenHere( file ) )
         inUse( file, getpid() );
      open( access );
      inode_ = inodeOf( file );
      if( inode_ )
         opened().insert( *inode_ );
   }
   ~Connection() {
      if( inode_ )
         opened().erase( *inode_ );
      sqlite3_close( connection_ );
   }
   Connection( Connection const & ) = delete;
   Connection & operator=( Connection const & ) = delete;

   sqlite3 * get() const { return connection_; }

   void run( char const * sql ) const {
      int const code = sqlite3_exec( connection_, sql, nullptr, nullptr, nullptr );
      if( code != SQLITE_OK )
         fail( code );
   }

   // Throws what the code means; the connection has the last error's details.
   // `system`: the system's own number, if it is known.
   [[noreturn]] void fail( int code, int system = 0 ) const {
      auto const name = Kiv::printable( file_ );
      if( system == 0 )
         system = sqlite3_system_errno( connection_ );
      std::string why = sqlite3_errstr( code );
      if( system != 0 )
         why += std::string( " (" ) + std::strerror( system ) + ")";
      bool const noSpace = system == ENOSPC || system == EDQUOT || system == EFBIG;
      switch( code & 0xFF ) {
      case SQLITE_BUSY:
      case SQLITE_LOCKED:
         inUse( file_, ownerOf( file_ ) );
      case SQLITE_NOTADB:
         noStore( file_ );
      case SQLITE_CORRUPT:
         damaged( why );
      case SQLITE_FULL:
         throw StoreError( Kind::full, name + ": cannot be written: " + why );
      default:
         throw StoreError( noSpace ? Kind::full : Kind::failed,
                           name + ( noSpace ? ": cannot be written: " : ": " ) + why );
      }
   }

   [[noreturn]] void damaged( std::string const & why ) const {
      throw StoreError( Kind::damaged,
                        Kiv::printable( file_ ) + ": is damaged: " + why +
                           "; moved out of the way it can be looked at, and a new start-up begun" );
   }

 private:
   void open( Access access ) {
      // Who may not write can neither lock it nor bring it in order, and so reads it only when that
      // is not needed.
      bool const asItIs = access == Access::read && ::access( file_.c_str(), F_OK ) == 0 &&
                          ::access( file_.c_str(), W_OK ) != 0;
      if( asItIs )
         requireWhole();
      int const flags = asItIs ? SQLITE_OPEN_READONLY | SQLITE_OPEN_URI : SQLITE_OPEN_READWRITE;
      int const code = sqlite3_open_v2( ( asItIs ? uriOf( file_ ) : plainName( file_ ) ).c_str(),
                                        &connection_, flags | SQLITE_OPEN_NOMUTEX, nullptr );
      try {
         if( code != SQLITE_OK )
            fail( code );
         sqlite3_extended_result_codes( connection_, 1 );
         sqlite3_db_config( connection_, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr );
         sqlite3_db_config( connection_, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr );
         if( access == Access::read )
            sqlite3_db_config( connection_, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr );
         run( "PRAGMA locking_mode = EXCLUSIVE; PRAGMA cell_size_check = ON" );
      } catch( ... ) {
         sqlite3_close( connection_ );
         throw;
      }
   }

   void requireWhole() const {
      struct stat status;
      if( stat( ( file_ + "-wal" ).c_str(), &status ) == 0 && status.st_size != 0 ) {
         throw StoreError( Kind::failed, Kiv::printable( file_ ) +
                                            ": its last entries stand in another file, \"-wal\"; "
                                            "only who may write both can read them, or copies" );
      }
   }

   std::string file_;
   std::optional< Inode > inode_;
   sqlite3 * connection_ = nullptr;
};

class Statement {
 public:
   Statement( Connection const & connection, char const * sql ) : connection_( connection ) {
      int const code = sqlite3_prepare_v2( connection.get(), sql, -1, &statement_, nullptr );
      if( code != SQLITE_OK )
         connection.fail( code );
   }
   ~Statement() { sqlite3_finalize( statement_ ); }
   Statement( Statement const & ) = delete;
   Statement & operator=( Statement const & ) = delete;

   void bind( int place, double value ) { sqlite3_bind_double( statement_, place, value ); }
   void bind( int place, std::int64_t value ) { sqlite3_bind_int64( statement_, place, value ); }
   // REQUIRES: the text outlives the step.
   void bind( int place, std::string_view value ) {
      sqlite3_bind_text( statement_, place, value.data(), static_cast< int >( value.size() ),
                         SQLITE_STATIC );
   }

   // Whether there is a row.
   bool step() {
      errno = 0; // of what fails while a transaction ends nothing else is known
      int const code = sqlite3_step( statement_ );
      int const system = errno;
      if( code == SQLITE_ROW )
         return true;
      if( code == SQLITE_DONE )
         return false;
      try {
         connection_.fail( code, system );
      } catch( ... ) {
         sqlite3_reset( statement_ ); // which may change what is known of the failure
         throw;
      }
   }
   void reset() { sqlite3_reset( statement_ ); }

   bool isOf( int column, int type ) const {
      return sqlite3_column_type( statement_, column ) == type;
   }
   double real( int column ) const { return sqlite3_column_double( statement_, column ); }
   std::int64_t integer( int column ) const { return sqlite3_column_int64( statement_, column ); }
   std::string text( int column ) const {
      auto const * const bytes =
         static_cast< char const * >( sqlite3_column_blob( statement_, column ) );
      auto const size = static_cast< std::size_t >( sqlite3_column_bytes( statement_, column ) );
      return bytes ? std::string( bytes, size ) : std::string();
   }

 private:
   Connection const & connection_;
   sqlite3_stmt * statement_ = nullptr;
};

std::int64_t number( Connection const & connection, char const * sql ) {
   Statement statement( connection, sql );
   return statement.step() ? statement.integer( 0 ) : 0;
}

// What is known of a start-up.
struct About {
   std::string format, startup, boot, beginning;

   std::uint32_t sum() const {
      Checksum checksum( 0 );
      for( auto const * text : { &format, &startup, &boot, &beginning } )
         checksum.text( *text );
      return checksum.sum();
   }
};

std::string newStartup() {
   std::array< unsigned char, 16 > bytes{};
   if( getrandom( bytes.data(), bytes.size(), 0 ) != static_cast< ssize_t >( bytes.size() ) )
      throw StoreError( Kind::failed, std::string( "no random bytes: " ) + std::strerror( errno ) );
   std::string text;
   for( auto const byte : bytes ) {
      text += "0123456789abcdef"[ byte >> 4 ];
      text += "0123456789abcdef"[ byte & 0xF ];
   }
   return text;
}

// ------------------------------------------------------------------------------------------- rows

About aboutIn( Connection const & connection ) {
   About about;
   std::uint32_t sum = 0;
   unsigned found = 0;
   Statement statement( connection, "SELECT name, value FROM about" );
   while( statement.step() ) {
      auto const name = statement.text( 0 );
      auto * const member = name == "format"      ? &about.format
                            : name == "startup"   ? &about.startup
                            : name == "boot"      ? &about.boot
                            : name == "beginning" ? &about.beginning
                                                  : nullptr;
      if( member )
         *member = statement.text( 1 );
      else if( name == "sum" )
         sum = static_cast< std::uint32_t >( statement.integer( 1 ) );
      found += member || name == "sum";
   }
   if( found == 5 && about.format != format )
      connection.damaged( "it has the format " + Kiv::quoted( about.format ) +
                          ", which is unknown here" );
   if( found != 5 || sum != about.sum() )
      connection.damaged( "what it says of its start-up does not fit together" );
   return about;
}

Instant instantOf( Connection const & connection, double t, std::string_view lines ) {
   Instant instant{ t, {} };
   try {
      while( !lines.empty() ) {
         auto const end = std::min( lines.find( '\n' ), lines.size() );
         auto stamped = Simulation::readInput( Simulation::jsonValue( lines.substr( 0, end ) ) );
         if( stamped.t != t )
            connection.damaged( "an input has another time than its instant" );
         instant.input.push_back( std::move( stamped.input ) );
         lines.remove_prefix( std::min( end + 1, lines.size() ) );
      }
   } catch( Simulation::JsonError const & error ) {
      connection.damaged( error.what() );
   } catch( Simulation::LineError const & error ) {
      connection.damaged( error.what() );
   }
   return instant;
}

// The last row that was seen.
struct Position {
   std::int64_t row = 0;
   double t = -1;
   std::uint32_t sum = 0;
};

// Hands over all instants in order.
Position walk( Connection const & connection, std::uint32_t firstSum, InstantTaker const & take ) {
   Position last;
   last.sum = firstSum;
   Statement statement( connection, "SELECT row, t, input, sum FROM instant ORDER BY row" );
   while( statement.step() ) {
      auto const lines = statement.text( 2 );
      double const t = statement.real( 1 );
      auto const sum = sumOf( last.sum, t, lines );
      if( statement.integer( 0 ) != last.row + 1 || statement.integer( 3 ) != sum ||
          !( t > last.t ) )
         connection.damaged( "instant " + std::to_string( last.row + 1 ) +
                             " does not fit the one before" );
      last = { last.row + 1, t, sum };
      take( instantOf( connection, t, lines ) );
   }
   return last;
}

Simulation::Beginning beginningIn( Connection const & connection, About const & about ) {
   try {
      return Simulation::readBeginning( Simulation::jsonValue( about.beginning ) );
   } catch( std::runtime_error const & error ) {
      connection.damaged( error.what() );
   }
}

void requireOurs( Connection const & connection ) {
   if( number( connection, "PRAGMA application_id" ) != applicationId )
      connection.damaged( "it is the database of something else" );
}

} // namespace

// ------------------------------------------------------------------------------------ the database

class Store::Database {
 public:
   Database( std::string const & file, Simulation::Beginning const & beginning,
             StoreOptions const & options )
      : file_( file ), options_( options ) {
      if( options_.boot.empty() )
         options_.boot = thisBoot();
      auto const line = Simulation::beginLine( beginning );
      connect();
      if( !isEmpty() && ( about_ = known() ).boot != options_.boot )
         putAside();
      if( isEmpty() )
         make( line );
      connection_->run( "PRAGMA journal_mode = WAL" );
      connection_->run( options_.durable ? "PRAGMA synchronous = FULL"
                                         : "PRAGMA synchronous = NORMAL" );
      beginning_ = beginningIn( *connection_, about_ );
      last_ = walk( *connection_, about_.sum(), []( auto const & ) {} );
      append_.emplace( *connection_,
                       "INSERT INTO instant( row, t, input, sum ) VALUES( ?, ?, ?, ? )" );
      pages_.emplace( *connection_, "PRAGMA page_count" );
      pageSize_ = static_cast< std::uint64_t >( number( *connection_, "PRAGMA page_size" ) );
      measure();
   }

   bool isNew() const { return isNew_; }
   std::string const & startup() const { return about_.startup; }
   Simulation::Beginning const & beginning() const { return beginning_; }
   void replay( InstantTaker const & take ) const { walk( *connection_, about_.sum(), take ); }

   void append( Instant const & instant ) {
      if( !( instant.t > last_.t ) || !( instant.t >= 0 ) )
         throw std::invalid_argument( "an instant is kept that does not lie after the last one" );
      std::string lines;
      if( !instant.input.empty() )
         for( auto const & line : inputLines( instant ) )
            lines += ( lines.empty() ? "" : "\n" ) + line;
      Position const next{ last_.row + 1, instant.t, sumOf( last_.sum, instant.t, lines ) };
      append_->bind( 1, next.row );
      append_->bind( 2, next.t );
      append_->bind( 3, lines );
      append_->bind( 4, std::int64_t{ next.sum } );
      append_->step();
      append_->reset();
      last_ = next;
      measure();
   }

   std::uint64_t size() const { return size_; }
   Room room() const {
      return size_ >= options_.limit       ? Room::none
             : size_ >= options_.limit / 2 ? Room::overHalf
                                           : Room::plenty;
   }

 private:
   void connect() {
      requireRegular( file_ );
      makeFile( file_ );
      if( isOpenHere( file_ ) )
         inUse( file_, getpid() );
      struct stat status;
      // SQLite begins anew in a file of one byte.
      if( stat( file_.c_str(), &status ) == 0 && status.st_size != 0 &&
          !detail::beginsAsStore( file_ ) )
         noStore( file_ );
      connection_.emplace( file_, Connection::Access::write );
      // The first to read takes the lock.
      connection_->run( "BEGIN EXCLUSIVE; COMMIT" );
   }

   bool isEmpty() const {
      return number( *connection_, "SELECT count( * ) FROM sqlite_schema" ) == 0 &&
             number( *connection_, "PRAGMA application_id" ) == 0;
   }

   About known() const {
      requireOurs( *connection_ );
      return aboutIn( *connection_ );
   }

   // Renamed while the lock is held, and without a file beside it that would keep the old name: so
   // whoever comes at the same time finds the one store or the other, and neither without its
   // owner.
   void putAside() {
      connection_->run( "PRAGMA journal_mode = DELETE" );
      auto const previous = file_ + ".previous";
      if( std::rename( file_.c_str(), previous.c_str() ) != 0 )
         throw StoreError( Kind::failed,
                           Kiv::printable( previous ) + ": " + std::strerror( errno ) );
      connection_.reset();
      notice( Kiv::printable( file_ ) + ": is of an earlier start-up of the system, and kept as " +
              Kiv::printable( previous ) );
      connect();
      if( !isEmpty() )
         inUse( file_, 0 );
   }

   void make( std::string const & beginning ) {
      isNew_ = true;
      about_ = { format, newStartup(), options_.boot, beginning };
      auto const & connection = *connection_;
      connection.run( "BEGIN EXCLUSIVE" );
      connection.run( ( "PRAGMA application_id = " + std::to_string( applicationId ) ).c_str() );
      connection.run( "CREATE TABLE about( name TEXT PRIMARY KEY, value ) WITHOUT ROWID" );
      connection.run( "CREATE TABLE instant( row INTEGER PRIMARY KEY, t REAL NOT NULL, "
                      "input TEXT NOT NULL, sum INTEGER NOT NULL )" );
      Statement insert( connection, "INSERT INTO about VALUES( ?, ? )" );
      auto const put = [ & ]( std::string_view name, auto const & value ) {
         insert.bind( 1, name );
         insert.bind( 2, value );
         insert.step();
         insert.reset();
      };
      put( "format", std::string_view( about_.format ) );
      put( "startup", std::string_view( about_.startup ) );
      put( "boot", std::string_view( about_.boot ) );
      put( "beginning", std::string_view( about_.beginning ) );
      put( "sum", std::int64_t{ about_.sum() } );
      connection.run( "COMMIT" );
   }

   void measure() {
      pages_->reset();
      size_ =
         ( pages_->step() ? static_cast< std::uint64_t >( pages_->integer( 0 ) ) : 0 ) * pageSize_;
      pages_->reset();
      if( room() == Room::plenty || std::exchange( halfTold_, true ) )
         return;
      notice( Kiv::printable( file_ ) + ": has reached half of its limit of " +
              std::to_string( options_.limit ) + " bytes" );
   }

   void notice( std::string const & text ) const {
      if( options_.notice )
         options_.notice( text );
   }

   std::string file_;
   StoreOptions options_;
   std::optional< Connection > connection_;
   About about_;
   Simulation::Beginning beginning_;
   bool isNew_ = false;
   Position last_;
   std::optional< Statement > append_;
   std::optional< Statement > pages_;
   std::uint64_t pageSize_ = 0;
   std::uint64_t size_ = 0;
   bool halfTold_ = false;
};

bool hasStores() { return true; }

bool Store::isStore( std::string const & file ) {
   return isOpenHere( file ) || detail::beginsAsStore( file );
}

Store::Store( std::string const & file, Simulation::Beginning const & beginning,
              StoreOptions const & options )
   : database_( std::make_unique< Database >( file, beginning, options ) ) {}

Store::~Store() = default;

bool Store::isNew() const { return database_->isNew(); }

std::string const & Store::startup() const { return database_->startup(); }

Simulation::Beginning const & Store::beginning() const { return database_->beginning(); }

void Store::replay( InstantTaker const & take ) const { database_->replay( take ); }

void Store::append( Instant const & instant ) { database_->append( instant ); }

Store::Room Store::room() const { return database_->room(); }

std::uint64_t Store::size() const { return database_->size(); }

void Store::read( std::string const & file,
                  std::function< void( Simulation::Beginning const & ) > const & begin,
                  InstantTaker const & take ) {
   requireRegular( file );
   Connection const connection( file, Connection::Access::read );
   requireOurs( connection );
   auto const about = aboutIn( connection );
   begin( beginningIn( connection, about ) );
   walk( connection, about.sum(), take );
}

} // namespace Live

#endif
