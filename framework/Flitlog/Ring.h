// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Binary traces in a ring: a file in memory that outlives its process, however that ends.
//
//    auto const file = Flitlog::TraceFile::TraceFileIs( "/run/agent.trace" );
//    Flitlog::MsgDesc desc( file.get(), "Source", __LINE__ );
//    desc << "count " << Flitlog::Varg{ "i" };
//    int id = desc.finish();
//    file->msgIdArrIs( &id );
//    Flitlog::RingBuf & record = Flitlog::RingBuf::startMsg( file.get(), id );
//    put( record, 7 );
//    record.endMsg();
//
// Flitlog/Reader.h reads such files, also while they are written; so does the command flitlog.
#pragma once

#include <Flitlog/Error.h>
#include <Flitlog/Export.h>
#include <Flitlog/MsgDesc.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

namespace Flitlog {

class TraceFile;

// Where binary traces go; null while nothing records. Whoever makes a TraceFile sets it. The ids of
// trace points belong to one file, so it changes only to null, or from null once the file before
// is gone.
FLITLOG_EXPORT extern TraceFile * theTraceFile;

inline constexpr std::uint64_t defaultRingBytes = 8 << 20;
inline constexpr std::uint64_t defaultDescriptorBytes = 256 << 10;

// A set of levels: level N is the bit 1 << N, for 0 to 9. This is the set of all.
inline constexpr unsigned allLevels = 0x3ff;

// The record that a file is being given. One per file: values are computed before startMsg(), so
// that no other record begins before endMsg(). If one does, the outer record is dropped and
// counted. A record that is never ended is as if it had not begun. For one thread, and not for
// signal handlers.
class FLITLOG_EXPORT RingBuf {
 public:
   // Takes the time. An id that is none of the file's gives a record that is dropped and counted.
   static RingBuf & startMsg( TraceFile * file, int id );
   // With a time that the caller has taken already, in seconds.
   static RingBuf & startMsg( TraceFile * file, int id, double time );
   // Publishes: when this returns, the record survives the process.
   void endMsg();

   RingBuf( RingBuf const & ) = delete;
   RingBuf & operator=( RingBuf const & ) = delete;

   // For put(). `T` is a number of 1, 4 or 8 bytes.
   template< class T >
   void value( T v ) {
      if( room_ < sizeof v ) [[unlikely]] {
         tooLong_ = true;
         return;
      }
      room_ -= sizeof v;
      std::uint64_t word = 0;
      std::memcpy( &word, &v, sizeof v );
      add( word, 8 * sizeof v );
   }
   void string( std::string_view bytes ) {
      if( bytes.size() > spare_ ) [[unlikely]] {
         shortened( bytes );
         return;
      }
      value( static_cast< std::uint32_t >( bytes.size() ) );
      text( bytes );
   }

 private:
   friend class TraceFile;
   RingBuf() = default;
   void shortened( std::string_view bytes );
   void text( std::string_view bytes ) {
      if( room_ < bytes.size() ) [[unlikely]] {
         tooLong_ = true;
         return;
      }
      room_ -= bytes.size();
      spare_ -= bytes.size();
      char const * at = bytes.data();
      std::size_t left = bytes.size();
      for( ; left >= 8; left -= 8, at += 8 )
         add( wordOf< std::uint64_t >( at ), 64 );
      if( left != 0 )
         add( fewer( at, left ), static_cast< unsigned >( 8 * left ) );
   }

   template< class Word >
   static std::uint64_t wordOf( char const * at ) {
      Word word;
      std::memcpy( &word, at, sizeof word );
      return word;
   }
   // Up to seven bytes, one at least, as a word.
   static std::uint64_t fewer( char const * at, std::size_t bytes ) {
      if( bytes >= 4 )
         return wordOf< std::uint32_t >( at ) | wordOf< std::uint32_t >( at + bytes - 4 )
                                                   << 8 * ( bytes - 4 );
      if( bytes == 1 )
         return wordOf< std::uint8_t >( at );
      return wordOf< std::uint16_t >( at ) | wordOf< std::uint16_t >( at + bytes - 2 )
                                                << 8 * ( bytes - 2 );
   }
   // The lowest `bits` of a word, whose others are 0. Values are put together in whole words, since
   // reading words back at once that were written in pieces costs more than all the rest.
   void add( std::uint64_t word, unsigned bits ) {
      partial_ |= word << partialBits_;
      partialBits_ += bits;
      if( partialBits_ < 64 )
         return;
      *at_++ = partial_;
      partialBits_ -= 64;
      partial_ = partialBits_ == 0 ? 0 : word >> ( bits - partialBits_ );
   }

   TraceFile * file_ = nullptr;
   std::uint64_t * at_ = nullptr; // where the next whole word goes
   std::uint64_t partial_ = 0;    // what comes after the last one
   unsigned partialBits_ = 0;
   std::size_t room_ = 0;  // bytes that there are for values
   std::size_t spare_ = 0; // of that room, what strings may fill: the other values have theirs
   std::uint32_t id_ = 0;
   double time_ = 0;
   bool open_ = false;
   bool tooLong_ = false;
};

// Values, in the order and of the types that the descriptor says. A string for which a record has
// no room is shortened, and the reader says by how much.
inline void put( RingBuf & record, bool v ) { record.value( static_cast< unsigned char >( v ) ); }
inline void put( RingBuf & record, std::int32_t v ) { record.value( v ); }
inline void put( RingBuf & record, std::uint32_t v ) { record.value( v ); }
inline void put( RingBuf & record, std::int64_t v ) { record.value( v ); }
inline void put( RingBuf & record, std::uint64_t v ) { record.value( v ); }
inline void put( RingBuf & record, double v ) { record.value( v ); }
inline void put( RingBuf & record, std::string_view v ) { record.string( v ); }
// Without it a literal would become a bool.
inline void put( RingBuf & record, char const * v ) { record.string( v ); }

struct TraceFileOptions {
   std::uint64_t ringBytes = defaultRingBytes; // rounded up to a multiple of 8; 4096 at least
   double ( *clock )() = nullptr;              // seconds; null: the wall clock
   // For descriptors, rounded up likewise; 1024 at least. A trace point takes some 100 bytes.
   std::uint64_t descriptorBytes = defaultDescriptorBytes;
   unsigned levels = allLevels; // that it takes: bits of allLevels, one at least
};

// A trace file in use by this process. Its owner keeps it as long as records may come. A trace file
// that was at the path is kept as PATH.old, in place of an older one, so that a process that is
// started again does not destroy what the one before it left.
//
// The file is in memory that it shares with the system: whatever ends the process, all records
// whose endMsg() has returned can be read; they reach the disk when the system writes them there,
// so they do not outlive a loss of power. All of the disk space is taken at once. The file may be
// renamed, moved within its file system or removed while it is written, but never shortened: the
// next record behind its new end would bring this process SIGBUS. Only its owner may open it
// (0600). It stays when the process has ended.
//
// A child made by fork() does not write into its parent's file: theTraceFile is null there, the
// points' ids are 0, and what it still writes to the object is lost. (A child of vfork() or a bare
// clone() does not count as made by fork(); it must not trace.)
//
// Cost: a record of three values is some tens of nanoseconds, most of it the clock's.
class FLITLOG_EXPORT TraceFile {
 public:
   using Options = TraceFileOptions;

   // Throws FileError, having done nothing, when a size or the levels are out of range, when there
   // is no room, when another process writes the file or anything but a trace file is at the path.
   // Between the renaming of a file that was there and the appearance of the new one the path is
   // vacant for a moment; nobody ever sees a file that is not complete.
   static std::unique_ptr< TraceFile > TraceFileIs( std::string const & path,
                                                    Options const & options = {} );
   // Sets every registered id to 0, and theTraceFile to null when it is this one.
   ~TraceFile();
   TraceFile( TraceFile const & ) = delete;
   TraceFile & operator=( TraceFile const & ) = delete;

   // Registers the variable that holds a point's id: it becomes 0 when this file closes, and the
   // point then gives its descriptor to the next one. So it is a variable of static lifetime, or of
   // something that lives longer than this file.
   void msgIdArrIs( int * id );

   std::string const & path() const;
   // What it was opened for, which stands in the file for its reader. Trace points ask before they
   // describe or record anything; the file itself keeps whatever it is given.
   unsigned levels() const { return levels_; }
   // True for what has no bit, a level above 9.
   bool takes( unsigned level ) const { return level > 9 || ( levels_ >> level & 1U ) != 0; }

 private:
   friend class MsgDesc;
   friend class RingBuf;
   struct State;
   TraceFile( std::unique_ptr< State > state, unsigned levels );
   int descriptorIs( std::string bytes, std::uint32_t leastValueBytes );
   static void afterForkInChild();

   std::unique_ptr< State > state_;
   unsigned levels_;
   RingBuf record_;
};

} // namespace Flitlog
