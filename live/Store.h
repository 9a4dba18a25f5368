// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// What a start-up has taken in, kept in a file, so that it can be had again.
#pragma once

#include <live/Export.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

namespace Simulation {
struct Beginning;
struct Instant;
} // namespace Simulation

namespace Live {

// A store cannot be had, or cannot be written: what() names the file and says why.
class LIVE_EXPORT StoreError : public std::runtime_error {
 public:
   enum class Kind {
      inUse,   // by another living process, which is named
      damaged, // or the file of something else
      full,    // the disk, or what this user may have of it
      failed   // whatever else the system said
   };
   StoreError( Kind kind, std::string const & what );
   ~StoreError() override;
   Kind kind() const { return kind_; }

 private:
   Kind kind_;
};

// Whether there are stores: a build may do without. Where there are none, every function that needs
// one throws StoreError.
LIVE_EXPORT bool hasStores();

struct StoreOptions {
   // Waits for the disk at each instant. Without it a crash of the machine may lose the last
   // moments; a crash of the process loses nothing either way.
   bool durable = false;
   // In bytes. Nothing is refused when it is reached; room() says so.
   std::uint64_t limit = 256U << 20;
   // Is told, in a sentence for people, what they should know: that half of the limit is reached,
   // that the store of an earlier start-up was put aside.
   std::function< void( std::string const & ) > notice;
   // Which start-up of the system this is; that of thisBoot() if empty.
   std::string boot;
};

// Names the present start-up of the system: the kernel's identifier of the boot, and when process 1
// was started, which is another time in a container that was begun again.
LIVE_EXPORT std::string thisBoot();

using InstantTaker = std::function< void( Simulation::Instant const & ) >;

// A file that belongs to one start-up, and to one living process. Each instant is appended, whole,
// before anything acts on it; the instants of timers alone are as well, before anybody is told.
// Whoever opens it again has them all, whatever ended the process before: what was appended is
// there. Each entry carries a checksum over all up to it.
//
// The file is an SQLite database; files of the same name with "-wal" or "-journal" at its end
// belong to it. Lives on one thread, and must not be used in a forked child.
class LIVE_EXPORT Store {
 public:
   // Makes the store, or opens the one that is there, if it is of this boot: then `beginning` does
   // not count. One of another boot is renamed to FILE.previous, in place of what stands there. A
   // new file can be read by its owner alone. Throws StoreError, and std::invalid_argument for a
   // beginning that cannot be written.
   Store( std::string const & file, Simulation::Beginning const & beginning,
          StoreOptions const & options = {} );
   ~Store();
   Store( Store const & ) = delete;
   Store & operator=( Store const & ) = delete;

   // Nothing was there, or nothing of this boot.
   bool isNew() const;
   // A random identifier of the start-up, of letters and digits.
   std::string const & startup() const;
   // As it was when the store was made.
   Simulation::Beginning const & beginning() const;

   // Hands over all instants that were appended, in order. Throws StoreError when they are damaged,
   // and passes on what `take` throws. REQUIRES: `take` appends nothing.
   void replay( InstantTaker const & take ) const;

   // All of the instant in one transaction; when this returns, it is kept. Throws StoreError, with
   // nothing kept, and std::invalid_argument for an instant that does not lie after the last one or
   // that cannot be written. After a failure it may be tried again.
   void append( Simulation::Instant const & instant );

   enum class Room { plenty, overHalf, none };
   Room room() const;
   std::uint64_t size() const; // bytes

   // Reads the store of a start-up without changing anything, also one of another boot. Calls
   // `begin` once, first. Throws as the functions above do, for one that is not there as well.
   static void read( std::string const & file,
                     std::function< void( Simulation::Beginning const & ) > const & begin,
                     InstantTaker const & take );
   // Whether that file is a store, going by its first bytes; false for one that cannot be read.
   static bool isStore( std::string const & file );

 private:
   class Database;
   std::unique_ptr< Database > database_;
};

} // namespace Live
