// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
//
// The lock is one of the open file (F_OFD_SETLK), not of the process: two writers in one process
// exclude each other too, a reader can ask for it without taking it, and it ends with the last
// descriptor and mapping of the file, so with its process, however that ends.
#include <Flitlog/detail/Create.h>

#include <Flitlog/Error.h>
#include <Flitlog/detail/Format.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <system_error>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Flitlog::detail {

namespace {

static_assert( sizeof( off_t ) == 8, "trace files may be large: compile with "
                                     "_FILE_OFFSET_BITS=64" );

std::string errorText( int error ) { return std::generic_category().message( error ); }

// Of the whole file.
struct flock lockOf( short type ) {
   struct flock lock {};
   lock.l_type = type;
   lock.l_whence = SEEK_SET;
   return lock;
}

bool lockForWriting( int fd, std::string const & path ) {
   struct flock lock = lockOf( F_WRLCK );
   if( fcntl( fd, F_OFD_SETLK, &lock ) == 0 )
      return true;
   if( errno == EAGAIN || errno == EACCES )
      return false;
   fail( path, "cannot be locked", errno );
}

bool same( struct stat const & a, struct stat const & b ) {
   return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// By which a file that has no name can be given one.
std::string pathOf( int fd ) { return "/proc/self/fd/" + std::to_string( fd ); }

// A file in the folder of the path, without a name; none where the file system has no such files,
// or where it could not be given a name later.
Descriptor unnamed( std::string const & path ) {
   auto const slash = path.rfind( '/' );
   std::string const folder = slash == path.npos ? "." : path.substr( 0, slash + 1 );
   Descriptor file( ::open( folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600 ) );
   if( file && ::access( pathOf( file.get() ).c_str(), F_OK ) != 0 )
      file.close();
   return file;
}

// A file that goes with this object, unless it has been given its lasting name. Where that is
// possible it has none until then, so that nothing stays of it if the process is killed.
class Temporary {
 public:
   explicit Temporary( std::string const & path ) : file_( unnamed( path ) ) {
      if( file_ )
         return;
      name_ = path + ".XXXXXX";
      file_ = Descriptor( mkostemp( name_.data(), O_CLOEXEC ) );
      if( !file_ )
         fail( path, "cannot be made", errno );
   }
   ~Temporary() {
      if( !name_.empty() )
         ::unlink( name_.c_str() );
   }
   Temporary( Temporary const & ) = delete;
   Temporary & operator=( Temporary const & ) = delete;

   int fd() const { return file_.get(); }

   // False when something stands at the path.
   bool nameIs( std::string const & path ) {
      if( name_.empty() ) {
         if( ::linkat( AT_FDCWD, pathOf( fd() ).c_str(), AT_FDCWD, path.c_str(),
                       AT_SYMLINK_FOLLOW ) == 0 )
            return true;
      } else if( renameat2( AT_FDCWD, name_.c_str(), AT_FDCWD, path.c_str(), RENAME_NOREPLACE ) ==
                 0 ) {
         name_.clear();
         return true;
      } else if( errno != EEXIST && ::link( name_.c_str(), path.c_str() ) == 0 ) {
         // Not every file system knows that call; those that do not have links.
         return true;
      }
      if( errno == EEXIST )
         return false;
      fail( path, "cannot be made", errno );
   }
   Descriptor take() { return std::move( file_ ); }

 private:
   std::string name_;
   Descriptor file_;
};

void allocate( int fd, std::string const & path, std::uint64_t bytes ) {
   // A file beyond the process's limit would bring a signal, not an error.
   rlimit limit{};
   if( getrlimit( RLIMIT_FSIZE, &limit ) == 0 && limit.rlim_cur != RLIM_INFINITY &&
       bytes > limit.rlim_cur )
      fail( path, "cannot be made: its " + std::to_string( bytes ) +
                     " bytes are more than the process's limit for a file, " +
                     std::to_string( limit.rlim_cur ) );
   int error = EINTR;
   while( error == EINTR )
      error = posix_fallocate( fd, 0, static_cast< off_t >( bytes ) );
   if( error != 0 )
      fail( path, "has no room for " + std::to_string( bytes ) + " bytes", error );
}

// The trace file at the path, or nothing when the path is vacant. Throws for anything else.
std::optional< Descriptor > olderFile( std::string const & path ) {
   char const * const expected = "expected a trace file or nothing at this path";
   struct stat atPath {};
   if( ::lstat( path.c_str(), &atPath ) != 0 ) {
      if( errno == ENOENT )
         return std::nullopt;
      fail( path, "cannot be used", errno );
   }
   if( !S_ISREG( atPath.st_mode ) )
      fail( path, std::string( "is not a regular file; " ) + expected );
   Descriptor file( ::open( path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK ) );
   if( !file ) {
      if( errno == ENOENT )
         return std::nullopt;
      fail( path, "is there and cannot be opened", errno );
   }
   Header header{};
   auto const got = ::pread( file.get(), &header, sizeof header, 0 );
   if( got != static_cast< ssize_t >( sizeof header ) ||
       std::memcmp( header.magic, magic, sizeof magic ) != 0 )
      fail( path, std::string( "is not a trace file; " ) + expected );
   if( !lockForWriting( file.get(), path ) )
      fail( path, "is being written by process " + std::to_string( header.process ) +
                     "; expected a file that no process writes" );
   return file;
}

// Renames what is at the path, a file of which we hold the lock. False when something else is there
// by now.
bool keep( std::string const & path, Descriptor const & file ) {
   struct stat ours {};
   struct stat atPath {};
   if( ::fstat( file.get(), &ours ) != 0 || ::lstat( path.c_str(), &atPath ) != 0 ||
       !same( ours, atPath ) )
      return false;
   std::string const old = path + ".old";
   // What is replaced must be of our kind as well.
   (void)olderFile( old );
   if( ::rename( path.c_str(), old.c_str() ) != 0 )
      fail( path, "cannot be renamed to " + old, errno );
   return true;
}

} // namespace

void Descriptor::close() {
   if( fd_ >= 0 )
      ::close( fd_ );
   fd_ = -1;
}

void fail( std::string const & path, std::string const & what, int error ) {
   throw FileError( path + ": " + what + ( error != 0 ? ": " + errorText( error ) : "" ) );
}

Descriptor create( std::string const & path, std::uint64_t bytes,
                   std::function< void( int fd ) > const & fill ) {
   if( path.empty() )
      fail( "\"\"", "expected the path of a trace file" );
   // Everything that can be refused is refused before anything is made.
   (void)olderFile( path );
   Temporary made( path );
   allocate( made.fd(), path, bytes );
   fill( made.fd() );
   if( !lockForWriting( made.fd(), path ) )
      fail( path, "cannot be locked: another process has locked it while it was made" );
   // Others may do the same at the same time; whoever comes second finds a file in use.
   for( int attempt = 0; attempt != 100; ++attempt ) {
      std::optional< Descriptor > const older = olderFile( path );
      if( older && !keep( path, *older ) )
         continue;
      if( made.nameIs( path ) )
         return made.take();
   }
   fail( path, "is replaced by others again and again" );
}

bool hasWriter( int fd ) {
   struct flock lock = lockOf( F_RDLCK );
   return fcntl( fd, F_OFD_GETLK, &lock ) == 0 && lock.l_type != F_UNLCK;
}

} // namespace Flitlog::detail
