// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include "Selfchecking.h"

#include <csignal>
#include <ctime>

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Rings {

std::string selfcheckingText( std::uint64_t number ) {
   std::uint64_t mixed = number * 0x9e3779b97f4a7c15U;
   std::string text( static_cast< std::size_t >( mixed >> 57 ), '\0' ); // up to 127 bytes
   for( char & c : text ) {
      mixed = mixed * 6364136223846793005U + 1442695040888963407U;
      c = static_cast< char >( 'a' + ( mixed >> 40 ) % 26 );
   }
   return text;
}

std::string Checker::wrong( Flitlog::Record const & record ) {
   std::string const expected = "number " + std::to_string( record.sequence ) + " text " +
                                selfcheckingText( record.sequence );
   if( record.text != expected )
      return "record " + std::to_string( record.sequence ) + " is " + record.text;
   if( last_ != 0 && record.sequence <= last_ )
      return "record " + std::to_string( record.sequence ) + " after " + std::to_string( last_ );
   if( last_ == 0 )
      first_ = record.sequence;
   else
      gaps_ += record.sequence - last_ - 1;
   last_ = record.sequence;
   return {};
}

Writer::Writer( std::string const & path, std::uint64_t ringBytes ) {
   void * const shared = mmap( nullptr, sizeof *published_, PROT_READ | PROT_WRITE,
                               MAP_SHARED | MAP_ANONYMOUS, -1, 0 );
   published_ = new( shared ) std::atomic< std::uint64_t >( 0 );
   std::filesystem::remove( path );
   process_ = fork();
   if( process_ == 0 ) {
      auto const file = TraceFile::TraceFileIs( path, { ringBytes, &tick, 1024 } );
      int const id = numberAndText( file.get() );
      for( std::uint64_t i = 1;; ++i ) {
         write( file.get(), id, i, selfcheckingText( i ) );
         published_->store( i, std::memory_order_release );
      }
   }
   while( process_ > 0 && published() == 0 && waitpid( process_, nullptr, WNOHANG ) == 0 )
      usleep( 100 );
}

void Writer::kill() {
   if( process_ > 0 ) {
      ::kill( process_, SIGKILL );
      waitpid( process_, nullptr, 0 );
   }
   process_ = -1;
}

Writer::~Writer() {
   kill();
   munmap( published_, sizeof *published_ );
}

double steady() {
   timespec t{};
   clock_gettime( CLOCK_MONOTONIC, &t );
   return static_cast< double >( t.tv_sec ) + 1e-9 * static_cast< double >( t.tv_nsec );
}

double secondsOf( char const * variable, double otherwise ) {
   char const * const text = std::getenv( variable );
   return text ? std::atof( text ) : otherwise;
}

unsigned long countOf( char const * variable, unsigned long otherwise ) {
   char const * const text = std::getenv( variable );
   return text ? std::strtoul( text, nullptr, 10 ) : otherwise;
}

} // namespace Rings
