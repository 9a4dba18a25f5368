// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
//
// A record is put together in private memory and then copied into the ring, in this order:
//
//    1. tail goes past the records that will be overwritten;
//    2. the record's bytes are written, behind head, where nobody reads;
//    3. head goes past them.
//
// A process that is killed between any two instructions leaves a ring whose records are whole; the
// one that was being written is not among them. A reader in another process copies first and looks
// at tail afterwards: what tail has passed by then may have been overwritten, the rest was not.
// For that the three steps must become visible in this order, and each position in one piece, on 32
// bits as well.
#include <Flitlog/Ring.h>

#include <Flitlog/detail/Create.h>
#include <Flitlog/detail/Format.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <cassert>
#include <cerrno>
#include <ctime>
#include <limits>
#include <vector>

#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

namespace Flitlog {

using detail::Header;
using detail::RecordHead;

TraceFile * theTraceFile = nullptr;

FileError::~FileError() = default;

namespace {

using Shared = std::atomic_ref< std::uint64_t >;
static_assert( Shared::is_always_lock_free, "positions change in one instruction" );
static_assert( alignof( Header ) >= Shared::required_alignment );

void publish( std::uint64_t & shared, std::uint64_t value ) {
   Shared( shared ).store( value, std::memory_order_release );
}

double wallClock() {
   timespec t{};
   clock_gettime( CLOCK_REALTIME, &t );
   return static_cast< double >( t.tv_sec ) + 1e-9 * static_cast< double >( t.tv_nsec );
}

// All that are open, for a child to let go of. Made and closed by one thread.
TraceFile * openFiles = nullptr;

} // namespace

// Positions stand here as well as in the file, so that a stray write into the mapping can spoil
// records, but not where this process writes.
struct TraceFile::State {
   std::string path;
   double ( *clock )() = nullptr;
   detail::Descriptor file;
   char * map = nullptr;
   std::size_t mapBytes = 0;
   Header * header = nullptr;

   char * ring = nullptr;
   std::uint64_t ringBytes = 0;
   std::uint64_t tail = 0;
   std::uint64_t head = 0;
   std::uint64_t tailAt = 0; // tail and head modulo ringBytes
   std::uint64_t headAt = 0;
   std::uint64_t sequence = 0;

   char * descriptors = nullptr;
   std::uint64_t descriptorsBytes = 0;
   std::uint64_t descriptorsUsed = 0;
   std::vector< std::uint32_t > leastValueBytes; // by id; [ 0 ] stands for none
   std::vector< int * > ids;

   std::uint32_t recordMost = 0;
   std::unique_ptr< std::uint64_t[] > staging; // where a record is put together
   TraceFile * next = nullptr;                 // of openFiles

   State() = default;
   State( State const & ) = delete;
   State & operator=( State const & ) = delete;
   ~State() {
      if( map )
         munmap( map, mapBytes );
   }

   // Where the values of a record begin.
   std::uint64_t * values() const { return staging.get() + sizeof( RecordHead ) / 8; }
   void forgetIds() {
      for( int * id : ids )
         *id = 0;
   }
   std::uint64_t wrapped( std::uint64_t offset ) const {
      return offset >= ringBytes ? offset - ringBytes : offset;
   }
   void dropOldest();
   void makeRoom( std::uint32_t size );
   [[gnu::always_inline]] void write( std::uint32_t size, std::uint32_t valueBytes, double time,
                                      std::uint32_t id );
};

// REQUIRES: the ring is not empty.
inline void TraceFile::State::dropOldest() {
   assert( tail != head );
   std::uint32_t size;
   std::memcpy( &size, ring + tailAt, sizeof size );
   if( size < sizeof( RecordHead ) || size % 8 != 0 || size > head - tail ) {
      // Somebody else has written here. What is left is not worth a guess.
      tail = head;
      tailAt = headAt;
      return;
   }
   tail += size;
   tailAt = wrapped( tailAt + size );
}

inline void TraceFile::State::makeRoom( std::uint32_t size ) {
   if( ringBytes - ( head - tail ) >= size )
      return;
   do
      dropOldest();
   while( ringBytes - ( head - tail ) < size );
   publish( header->tail, tail );
   // No byte of the record may appear before that.
   std::atomic_thread_fence( std::memory_order_release );
}

// Writes the record whose values have been put together, and publishes it. Its bytes go from word
// to word, the head's from registers, and what the sum goes over is copied in the same round.
inline void TraceFile::State::write( std::uint32_t size, std::uint32_t valueBytes, double time,
                                     std::uint32_t id ) {
   makeRoom( size );
   bool const whole = ringBytes - headAt >= size; // else it goes on at the beginning
   auto * const from = reinterpret_cast< char * >( staging.get() );
   char * const to = whole ? ring + headAt : from;
   detail::Sum sum( size - 8 );
   auto const put = [ & ]( std::size_t at, std::uint64_t word ) {
      sum.add( word );
      std::memcpy( to + at, &word, 8 );
   };
   put( offsetof( RecordHead, sequence ), ++sequence );
   put( offsetof( RecordHead, time ), std::bit_cast< std::uint64_t >( time ) );
   put( offsetof( RecordHead, id ), id | std::uint64_t( valueBytes ) << 32 );
   for( std::size_t at = sizeof( RecordHead ); at != size; at += 8 )
      put( at, staging[ at / 8 ] );
   std::uint64_t const first = size | std::uint64_t( sum.value() ) << 32;
   std::memcpy( to, &first, 8 );
   if( !whole ) [[unlikely]] {
      auto const before = static_cast< std::size_t >( ringBytes - headAt );
      std::memcpy( ring + headAt, from, before );
      std::memcpy( ring, from + before, size - before );
   }
   head += size;
   headAt = wrapped( headAt + size );
   publish( header->head, head );
}

RingBuf & RingBuf::startMsg( TraceFile * file, int id ) {
   assert( file );
   return startMsg( file, id, file->state_->clock() );
}

RingBuf & RingBuf::startMsg( TraceFile * file, int id, double time ) {
   assert( file );
   TraceFile::State const & state = *file->state_;
   RingBuf & record = file->record_;
   record.id_ = id > 0 && static_cast< std::size_t >( id ) < state.leastValueBytes.size()
                   ? static_cast< std::uint32_t >( id )
                   : 0;
   record.at_ = state.values();
   record.partial_ = 0;
   record.partialBits_ = 0;
   record.room_ = state.recordMost - sizeof( RecordHead );
   record.spare_ = record.room_ - state.leastValueBytes[ record.id_ ];
   record.open_ = true;
   record.tooLong_ = false;
   record.time_ = time;
   return record;
}

void RingBuf::endMsg() {
   TraceFile::State & state = *file_->state_;
   if( !open_ || tooLong_ || id_ == 0 ) [[unlikely]] {
      open_ = false;
      publish( state.header->lostRecords, state.header->lostRecords + 1 );
      return;
   }
   open_ = false;
   std::uint32_t const room =
      state.recordMost - static_cast< std::uint32_t >( sizeof( RecordHead ) );
   std::uint32_t const valueBytes = room - static_cast< std::uint32_t >( room_ );
   if( partialBits_ != 0 )
      *at_ = partial_; // with zeros up to a whole word
   state.write(
      static_cast< std::uint32_t >( sizeof( RecordHead ) + detail::upToEight( valueBytes ) ),
      valueBytes, time_, id_ );
}

void RingBuf::shortened( std::string_view bytes ) {
   std::string_view const kept = bytes.substr( 0, spare_ );
   value( static_cast< std::uint32_t >( kept.size() ) | detail::shortenedString );
   value( static_cast< std::uint64_t >( bytes.size() - kept.size() ) );
   text( kept );
}

namespace {

std::uint64_t checkedSize( std::string const & path, char const * what, std::uint64_t bytes,
                           std::uint64_t least, std::uint64_t most ) {
   if( bytes < least || bytes > most )
      detail::fail( path, std::string( what ) + " of " + std::to_string( bytes ) +
                             " bytes; expected " + std::to_string( least ) + " to " +
                             std::to_string( most ) );
   return detail::upToEight( bytes );
}

void checkLevels( std::string const & path, unsigned levels ) {
   if( levels == 0 || ( levels & ~allLevels ) != 0 )
      detail::fail( path, "levels as the bits " + std::to_string( levels ) + "; expected 1 to " +
                             std::to_string( allLevels ) + ", a bit for each level from 0 to 9" );
}

Header headerFor( std::string const & path, TraceFile::Options const & options ) {
   Header header{};
   std::copy( std::begin( detail::magic ), std::end( detail::magic ), header.magic );
   header.majorVersion = detail::majorVersion;
   header.minorVersion = detail::minorVersion;
   header.headerBytes = sizeof( Header );
   header.descriptorsAt = sizeof( Header );
   header.descriptorsBytes = checkedSize( path, "room for descriptors", options.descriptorBytes,
                                          detail::descriptorsLeast, detail::descriptorsMost );
   header.ringAt = header.descriptorsAt + header.descriptorsBytes;
   header.ringBytes =
      checkedSize( path, "a ring", options.ringBytes, detail::ringLeast, detail::ringMost );
   header.fileBytes = header.ringAt + header.ringBytes;
   if( header.fileBytes > std::numeric_limits< std::size_t >::max() / 2 )
      detail::fail( path, "a ring of " + std::to_string( options.ringBytes ) +
                             " bytes does not fit into this process's address space" );
   header.process = static_cast< std::uint32_t >( getpid() );
   header.recordMost = static_cast< std::uint32_t >(
      std::min< std::uint64_t >( header.ringBytes / 4 / 8 * 8, detail::recordMostOfAll ) );
   header.created = wallClock();
   header.check = detail::headerCheck( header );
   checkLevels( path, options.levels );
   header.levelsTaken = static_cast< std::uint16_t >( options.levels );
   header.levelsLeftOut = static_cast< std::uint16_t >( allLevels & ~options.levels );
   return header;
}

} // namespace

std::unique_ptr< TraceFile > TraceFile::TraceFileIs( std::string const & path,
                                                     Options const & options ) {
   static bool const registered =
      pthread_atfork( nullptr, nullptr, &TraceFile::afterForkInChild ) == 0;
   if( !registered )
      detail::fail( path, "cannot be made: no memory for the handler of fork()" );
   Header const header = headerFor( path, options );
   // What needs memory comes before the file has its name: nothing fails after that, and leaves a
   // file that has to make way for the next attempt's.
   std::unique_ptr< TraceFile > made(
      new TraceFile( std::make_unique< State >(), options.levels ) );
   State * const state = made->state_.get();
   state->path = path;
   state->clock = options.clock ? options.clock : &wallClock;
   state->ringBytes = header.ringBytes;
   state->descriptorsBytes = header.descriptorsBytes;
   state->leastValueBytes.push_back( 0 );
   state->recordMost = header.recordMost;
   state->staging = std::make_unique< std::uint64_t[] >( header.recordMost / 8 );
   state->mapBytes = static_cast< std::size_t >( header.fileBytes );
   state->file = detail::create( path, header.fileBytes, [ & ]( int fd ) {
      void * const map =
         mmap( nullptr, state->mapBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0 );
      if( map == MAP_FAILED )
         detail::fail( path, "cannot be mapped into memory", errno );
      state->map = static_cast< char * >( map );
      std::memcpy( map, &header, sizeof header );
   } );
   state->header = reinterpret_cast< Header * >( state->map );
   state->descriptors = state->map + header.descriptorsAt;
   state->ring = state->map + header.ringAt;
   return made;
}

TraceFile::TraceFile( std::unique_ptr< State > state, unsigned levels )
   : state_( std::move( state ) ), levels_( levels ) {
   record_.file_ = this;
   state_->next = openFiles;
   openFiles = this;
}

TraceFile::~TraceFile() {
   if( theTraceFile == this )
      theTraceFile = nullptr;
   state_->forgetIds();
   TraceFile ** at = &openFiles;
   while( *at != this )
      at = &( *at )->state_->next;
   *at = state_->next;
}

void TraceFile::msgIdArrIs( int * id ) { state_->ids.push_back( id ); }

std::string const & TraceFile::path() const { return state_->path; }

int TraceFile::descriptorIs( std::string bytes, std::uint32_t leastValueBytes ) {
   State & state = *state_;
   if( bytes.size() > detail::descriptorMost ||
       bytes.size() > state.descriptorsBytes - state.descriptorsUsed ||
       leastValueBytes > state.recordMost - sizeof( RecordHead ) ) {
      publish( state.header->lostDescriptors, state.header->lostDescriptors + 1 );
      return -1;
   }
   detail::DescriptorHead head;
   std::memcpy( &head, bytes.data(), sizeof head );
   head.id = static_cast< std::uint32_t >( state.leastValueBytes.size() );
   state.leastValueBytes.push_back( leastValueBytes );
   std::memcpy( bytes.data(), &head, sizeof head );
   head.check = detail::entryCheck( bytes.data(), bytes.size() );
   std::memcpy( bytes.data(), &head, sizeof head );
   std::memcpy( state.descriptors + state.descriptorsUsed, bytes.data(), bytes.size() );
   state.descriptorsUsed += bytes.size();
   publish( state.header->descriptorsUsed, state.descriptorsUsed );
   return static_cast< int >( head.id );
}

// Runs in the child, before fork() returns there: system calls and plain stores only. Private zeros
// take the place of the mapping, which would hold the parent's lock as long as it is there; and
// pointers into it, which the child may still have, stay harmless.
void TraceFile::afterForkInChild() {
   theTraceFile = nullptr;
   for( TraceFile * file = openFiles; file; file = file->state_->next ) {
      State & state = *file->state_;
      if( !state.map )
         continue; // another thread was just making it
      mmap( state.map, state.mapBytes, PROT_READ | PROT_WRITE,
            MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED, -1, 0 );
      state.file.close();
      state.tail = state.head;
      state.tailAt = state.headAt;
      state.forgetIds();
   }
}

} // namespace Flitlog
