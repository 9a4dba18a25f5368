// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Reads trace files, of processes that are gone and of those that still write.
//
//    auto const reader = Flitlog::Reader::ReaderIs( "/run/agent.trace" );
//    for( Flitlog::Record r; reader->next( r ); )
//       std::cout << r.time << ' ' << r.text << '\n';
//    for( std::string const & problem : reader->problems() )
//       std::cerr << problem << '\n';
#pragma once

#include <Flitlog/Error.h>
#include <Flitlog/Export.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace Flitlog {

// One record, with what its trace point says of itself.
struct Record {
   std::uint64_t sequence = 0; // 1 for the first that the file was given
   double time = 0;            // seconds, of the writer's clock
   std::string handle;
   unsigned level = 0;
   std::string source;
   int line = 0;
   std::string function;
   std::string text; // literals and values, as the writer's text trace has them
};

// A trace file, read from its oldest record to the newest. Nothing in the file is believed before
// it has been checked: whatever the bytes are, reading ends, and says what it had to leave out. It
// takes memory for 8 MiB of the ring and for the descriptors, ten times their bytes at most. The
// file may be written meanwhile, and be overwritten faster than it is read.
class FLITLOG_EXPORT Reader {
 public:
   // At the oldest record. Throws FileError for what is no trace file, or one whose header cannot
   // be used. Damage further on is a problem, and what can be read is.
   static std::unique_ptr< Reader > ReaderIs( std::string const & path );
   ~Reader();
   Reader( Reader const & ) = delete;
   Reader & operator=( Reader const & ) = delete;

   // The next record of those that were there at the last poll(), or when the file was opened;
   // false when there is none.
   bool next( Record & record );
   // Lets next() go on to what has been written since.
   void poll();

   // Whether a process has the file open to write it. Ask before poll(): what a writer that is
   // gone has left is then complete.
   bool hasWriter() const;

   // What could not be read: sentences that say where, what was expected, what was found. Of very
   // many only the first are kept, problemsInAll() counts them all.
   std::vector< std::string > const & problems() const;
   std::uint64_t problemsInAll() const;
   // Records that were overwritten after an older one had been read and before they were.
   std::uint64_t overwritten() const;
   // As of the last poll(): trace points for which the file had no room, and records that were not
   // written for that reason, or because they were not put together as their descriptor says.
   std::uint64_t lostDescriptors() const;
   std::uint64_t lostRecords() const;

   // Of the writer.
   std::uint32_t process() const;
   double created() const; // wall-clock time, seconds
   // The levels that it was to record, a bit for each from 0 to 9: what has another one was never
   // recorded. All of them for a file that does not say, or whose words for it are damaged, which
   // is then a problem.
   unsigned levels() const;

 private:
   struct State;
   explicit Reader( std::unique_ptr< State > state );
   std::unique_ptr< State > state_;
};

} // namespace Flitlog
