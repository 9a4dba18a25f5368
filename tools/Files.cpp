// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <tools/Files.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <Kiv/Printable.h>

namespace Tools {

namespace {

[[noreturn]] void throwFileError( std::string const & name, std::string const & what ) {
   throw FileError( name + ": " + what );
}

// A device can go on for ever.
std::size_t constexpr largestFile = 64 * 1024 * 1024;

// ---------------------------------------------------------------------------- where a name leads

// The folder that a name stands in, with a "/" at its end, or "" for the current one.
std::string folderOf( std::string const & path ) {
   auto const slash = path.rfind( '/' );
   return slash == std::string::npos ? "" : path.substr( 0, slash + 1 );
}

// The links of this file system do not lead to names but to what processes have open.
bool isOfProcesses( std::string const & folder ) {
   struct statfs system {};
   return statfs( folder.empty() ? "." : folder.c_str(), &system ) == 0 &&
          system.f_type == PROC_SUPER_MAGIC;
}

// What a symbolic link says; nothing, with errno set, when it cannot be read.
std::optional< std::string > linkText( std::string const & path ) {
   char text[ 4096 ];
   auto const size = readlink( path.c_str(), text, sizeof text );
   return size < 0 ? std::nullopt
                   : std::optional( std::string( text, static_cast< std::size_t >( size ) ) );
}

// The name of the regular file that is to be replaced or made when `path` is written, past all
// links; nothing when it has to be written directly. Whatever is wrong with the name comes out
// there as well.
std::optional< std::string > replaceable( std::string path ) {
   int constexpr mostLinks = 40; // as the system follows
   for( int links = 0; links <= mostLinks && !path.empty() && path.back() != '/'; ++links ) {
      struct stat is {};
      if( lstat( path.c_str(), &is ) != 0 )
         return errno == ENOENT ? std::optional( path ) : std::nullopt;
      if( !S_ISLNK( is.st_mode ) )
         return S_ISREG( is.st_mode ) ? std::optional( path ) : std::nullopt;
      auto const folder = folderOf( path );
      auto const text = linkText( path );
      if( !text || isOfProcesses( folder ) )
         return std::nullopt;
      path = text->starts_with( '/' ) ? *text : folder + *text;
   }
   return std::nullopt;
}

// ------------------------------------------------------------------------------ ends by a signal

// Those that end a process from outside, and that of a broken invariant.
int constexpr endingSignals[] = { SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGXCPU, SIGABRT };

sigset_t endingSignalSet() {
   sigset_t set;
   sigemptyset( &set );
   for( int const number : endingSignals )
      sigaddset( &set, number );
   return set;
}

// While this lives, none of the signals is delivered.
class WithoutSignals {
 public:
   WithoutSignals() {
      auto const set = endingSignalSet();
      sigprocmask( SIG_BLOCK, &set, &before_ );
   }
   ~WithoutSignals() {
      // What is told in between keeps its reason.
      int const error = errno;
      sigprocmask( SIG_SETMASK, &before_, nullptr );
      errno = error;
   }
   WithoutSignals( WithoutSignals const & ) = delete;
   WithoutSignals & operator=( WithoutSignals const & ) = delete;

 private:
   sigset_t before_;
};

mode_t modeOfNewFiles() {
   auto const mask = umask( 0 );
   umask( mask );
   return 0666 & ~mask;
}

} // namespace

// ------------------------------------------------------------------------------- the file beside

// The file beside that which it will replace. All that exist are in a list, through which the
// handler of signals goes: it is changed only while none can come, and the handler does nothing but
// unlink() and what leads to the end.
class OutputFile::Temporary {
 public:
   // Makes it. Without one, errno says why.
   static std::unique_ptr< Temporary > temporaryIs( std::string const & target );
   ~Temporary();
   Temporary( Temporary const & ) = delete;
   Temporary & operator=( Temporary const & ) = delete;

   // REQUIRES: once; whoever asks closes it.
   int descriptor() const { return descriptor_; }
   // Puts it in the place of its target. False, with errno set, when it cannot.
   bool replaceTarget();

 private:
   explicit Temporary( std::string target ) : target_( std::move( target ) ) {}

   bool make();
   void takeAfter( struct stat const & old ) const;
   static void handlersAre( bool wanted );
   static void onSignal( int number );

   static Temporary * first_;
   static struct sigaction before_[ std::size( endingSignals ) ];

   std::string target_;
   std::string path_;
   int descriptor_ = -1;
   Temporary * next_ = nullptr;
};

OutputFile::Temporary * OutputFile::Temporary::first_ = nullptr;
struct sigaction OutputFile::Temporary::before_[ std::size( endingSignals ) ];

std::unique_ptr< OutputFile::Temporary >
OutputFile::Temporary::temporaryIs( std::string const & target ) {
   WithoutSignals const quiet;
   std::unique_ptr< Temporary > temporary( new Temporary( target ) );
   return temporary->make() ? std::move( temporary ) : nullptr;
}

bool OutputFile::Temporary::make() {
   // Renaming would replace what must not be written, too.
   struct stat old {};
   bool const replaces = stat( target_.c_str(), &old ) == 0;
   if( replaces && faccessat( AT_FDCWD, target_.c_str(), W_OK, AT_EACCESS ) != 0 )
      return false;
   path_ = folderOf( target_ ) + ".ordovan-XXXXXX";
   descriptor_ = mkostemp( path_.data(), O_CLOEXEC );
   if( descriptor_ < 0 ) {
      path_.clear();
      return false;
   }
   next_ = first_;
   first_ = this;
   if( !next_ )
      handlersAre( true );
   if( replaces )
      takeAfter( old );
   else
      fchmod( descriptor_, modeOfNewFiles() );
   return true;
}

// What the system does not allow stays as it is for a new file, with no more rights than before.
void OutputFile::Temporary::takeAfter( struct stat const & old ) const {
   struct stat made {};
   fstat( descriptor_, &made );
   bool const sameOwner = old.st_uid == made.st_uid ||
                          fchown( descriptor_, old.st_uid, static_cast< gid_t >( -1 ) ) == 0;
   bool const sameGroup = old.st_gid == made.st_gid ||
                          fchown( descriptor_, static_cast< uid_t >( -1 ), old.st_gid ) == 0;
   auto const rights = sameGroup ? 0777U : 0707U;
   auto const special = sameOwner && sameGroup ? 07000U : 0U;
   fchmod( descriptor_, old.st_mode & ( rights | special ) );
}

bool OutputFile::Temporary::replaceTarget() {
   WithoutSignals const quiet;
   if( std::rename( path_.c_str(), target_.c_str() ) != 0 )
      return false;
   path_.clear();
   return true;
}

OutputFile::Temporary::~Temporary() {
   WithoutSignals const quiet;
   if( descriptor_ < 0 )
      return;
   if( !path_.empty() )
      unlink( path_.c_str() );
   auto ** place = &first_;
   while( *place != this )
      place = &( *place )->next_;
   *place = next_;
   if( !first_ )
      handlersAre( false );
}

void OutputFile::Temporary::handlersAre( bool wanted ) {
   struct sigaction handler {};
   handler.sa_handler = &onSignal;
   handler.sa_mask = endingSignalSet();
   for( std::size_t i = 0; i != std::size( endingSignals ); ++i ) {
      if( !wanted ) {
         sigaction( endingSignals[ i ], &before_[ i ], nullptr );
      } else if( sigaction( endingSignals[ i ], nullptr, &before_[ i ] ) == 0 &&
                 before_[ i ].sa_handler == SIG_DFL ) {
         // Whoever started the process may have it ignored.
         sigaction( endingSignals[ i ], &handler, nullptr );
      }
   }
}

// Ends the process as the signal would have.
void OutputFile::Temporary::onSignal( int number ) {
   for( auto const * file = first_; file; file = file->next_ )
      if( !file->path_.empty() )
         unlink( file->path_.c_str() );
   std::signal( number, SIG_DFL );
   raise( number );
}

// -------------------------------------------------------------------------------------- reading

bool isStandardOutput( std::string const & path ) {
   return path == standardStream || path == "/dev/stdout" || path == "/dev/fd/1" ||
          path == "/proc/self/fd/1";
}

std::string inputName( std::string const & path ) {
   return path == standardStream ? "<stdin>" : Kiv::printable( path );
}

std::string outputName( std::string const & path ) {
   return path == standardStream ? "<stdout>" : Kiv::printable( path );
}

std::string fileText( std::string const & path ) {
   auto const closeUnlessStandard = []( std::FILE * file ) {
      return file == stdin ? 0 : std::fclose( file );
   };
   std::unique_ptr< std::FILE, int ( * )( std::FILE * ) > const file(
      path == standardStream ? stdin : std::fopen( path.c_str(), "rbe" ), closeUnlessStandard );
   std::string text;
   char part[ 65536 ];
   while( file && text.size() <= largestFile ) {
      auto const count = std::fread( part, 1, sizeof part, file.get() );
      text.append( part, count );
      if( count == 0 )
         break;
   }
   if( !file || std::ferror( file.get() ) )
      throwFileError( inputName( path ),
                      std::string( "cannot be read: " ) + std::strerror( errno ) );
   if( text.size() > largestFile )
      throwFileError( inputName( path ), "is larger than 64 MiB, which no plan can be" );
   return text;
}

// -------------------------------------------------------------------------------------- writing

OutputFile::OutputFile( std::string const & path ) : name_( outputName( path ) ) { open( path ); }

OutputFile::OutputFile( int descriptor, std::string name )
   : name_( std::move( name ) ), file_( fdopen( descriptor, "wb" ) ), mayLoseReader_( true ) {
   if( !file_ && errno == EINVAL )
      errno = EBADF; // as writing to a descriptor says that is for reading only
   check( file_ != nullptr );
}

OutputFile::~OutputFile() = default;

void OutputFile::open( std::string const & path ) {
   auto const target = replaceable( path );
   if( !target ) {
      openDirectly( path );
      return;
   }
   temporary_ = Temporary::temporaryIs( *target );
   if( temporary_ ) {
      file_.reset( fdopen( temporary_->descriptor(), "wb" ) );
      check( file_ != nullptr );
      return;
   }
   bool const folderRefuses = errno == EACCES || errno == EPERM || errno == EROFS;
   check( folderRefuses && access( target->c_str(), F_OK ) == 0 );
   openDirectly( *target );
}

void OutputFile::openDirectly( std::string const & path ) {
   file_.reset( std::fopen( path.c_str(), "wbe" ) );
   check( file_ != nullptr );
}

void OutputFile::write( std::string_view text ) {
   check( std::fwrite( text.data(), 1, text.size(), file_.get() ) == text.size() );
}

void OutputFile::close() {
   check( std::fflush( file_.get() ) == 0 );
   if( temporary_ ) {
      // Some systems find out here only that they are full.
      check( fsync( fileno( file_.get() ) ) == 0 );
   }
   check( std::fclose( file_.release() ) == 0 );
   check( !temporary_ || temporary_->replaceTarget() );
   temporary_.reset();
}

void OutputFile::check( bool done ) const {
   if( !done && !( mayLoseReader_ && errno == EPIPE ) )
      fail();
}

void OutputFile::fail() const {
   throwFileError( name_, std::string( "cannot be written: " ) + std::strerror( errno ) );
}

} // namespace Tools
