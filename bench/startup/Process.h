// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Measuring in processes of their own, so that no measurement finds the memory as another left it.
#pragma once

#include <cstdint>
#include <cstring>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace Bench {

// Seconds of processor time, user and system, of the calling thread: nothing that is measured with
// it sleeps, and what else runs on the machine counts for less that way.
double processorSeconds();

// What the heap holds, the allocator's own overhead included.
std::uint64_t heapInUse();

// Takes so many bytes from the system, touches each page and gives them back to the allocator,
// which keeps them: until they are used up nobody waits for a page. Nothing is given back to the
// system from then on.
void touchHeap( std::size_t bytes );

// Runs `work` in a process with 8 MiB of stack; what it returned, or nothing when it needed more
// than `limit` seconds of processor time (0: no limit). Throws std::runtime_error when the process
// failed, with what it said on standard error. The caller must not have used the libraries' loop,
// which stays with the process that began it.
std::optional< std::string > inProcess( std::uint32_t limit,
                                        std::function< std::string() > const & work );

// Values of plain types, and vectors of them, one behind the other.
class Bytes {
 public:
   Bytes() = default;
   explicit Bytes( std::string text ) : text_( std::move( text ) ) {}

   template< class T >
      requires std::is_trivially_copyable_v< T >
   void put( T const & value ) {
      text_.append( reinterpret_cast< char const * >( &value ), sizeof value );
   }
   template< class T >
   void put( std::vector< T > const & values ) {
      put( values.size() );
      for( T const & value : values )
         put( value );
   }
   template< class T >
      requires std::is_trivially_copyable_v< T >
   void get( T & value ) {
      if( text_.size() - at_ < sizeof value )
         throw std::runtime_error( "the process of a measurement said too little" );
      std::memcpy( &value, text_.data() + at_, sizeof value );
      at_ += sizeof value;
   }
   template< class T >
   void get( std::vector< T > & values ) {
      std::size_t size = 0;
      get( size );
      values.resize( size );
      for( T & value : values )
         get( value );
   }
   std::string const & text() const { return text_; }

 private:
   std::string text_;
   std::size_t at_ = 0;
};

// REQUIRES: values is not empty.
double least( std::vector< double > const & values );
double median( std::vector< double > values );

// Throws std::invalid_argument unless `text` is a whole number from `lowest` on.
std::uint32_t numberOf( std::string_view text, std::uint32_t lowest, char const * what );

// Calls `run` with the arguments; 2 and a message for std::invalid_argument, 1 for others.
int mainOf( int count, char ** arguments,
            std::function< int( std::vector< std::string_view > const & ) > const & run );

} // namespace Bench
