// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <tools/Streams.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <system_error>

#include <fcntl.h>
#include <unistd.h>

#include <fmt/format.h>
#include <tools/Lines.h>

namespace Tools {

namespace {

// Why standard output could not be written, the first time that it could not; 0: not known to.
int outputError = 0;

bool isElsewhere = false;

void noteOutputError() {
   if( !isElsewhere && outputError == 0 )
      outputError = errno;
}

int checked( int descriptor ) {
   if( descriptor < 0 )
      throw std::system_error( errno, std::generic_category(), "standard output" );
   return descriptor;
}

int copyOf( int descriptor ) {
   return checked( fcntl( descriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1 ) );
}

} // namespace

void prepareStreams() {
   std::signal( SIGPIPE, SIG_IGN );
   std::signal( SIGXFSZ, SIG_IGN );
   // Opened the wrong way round, so that using the stream fails as if it were closed. From the
   // lowest on, since a file takes the lowest number that is free.
   for( int stream : { STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO } ) {
      if( fcntl( stream, F_GETFD ) < 0 ) {
         [[maybe_unused]] int const taken =
            open( "/dev/null", stream == STDIN_FILENO ? O_WRONLY : O_RDONLY );
      }
   }
}

void complain( std::string_view text ) {
   // One line for each message is what programs read; people have terminals.
   auto const line = broken( text, columnsOf( STDERR_FILENO ) ) + '\n';
   std::fwrite( line.data(), 1, line.size(), stderr );
}

void print( std::string_view text ) {
   if( std::fwrite( text.data(), 1, text.size(), stdout ) != text.size() )
      noteOutputError();
}

void flushOutput() {
   if( std::fflush( stdout ) != 0 )
      noteOutputError();
}

OutputElsewhere::OutputElsewhere( int descriptor ) : kept_( copyOf( STDOUT_FILENO ) ) {
   flushOutput();
   checked( dup2( descriptor, STDOUT_FILENO ) );
   isElsewhere = true;
}

OutputElsewhere::~OutputElsewhere() {
   std::fflush( stdout );
   std::clearerr( stdout ); // what failed before is known by its reason
   dup2( kept_, STDOUT_FILENO );
   close( kept_ );
   isElsewhere = false;
}

int OutputElsewhere::original() const { return copyOf( kept_ ); }

bool outputArrived( std::string_view command ) {
   flushOutput();
   if( outputError == EPIPE || ( outputError == 0 && !std::ferror( stdout ) ) )
      return true;
   complain( fmt::format( "{}: standard output cannot be written: {}", command,
                          outputError != 0 ? std::strerror( outputError ) : "earlier failure" ) );
   return false;
}

} // namespace Tools
