// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// A start-up by the library, and what it is made of.
#pragma once

#include <startup/Startup.h>

#include <Kiv/Kiv.h>
#include <Ordovan/Ordovan.h>
#include <Stage/Stage.h>

namespace Bench {

class World;

// Through the public interface, on a manual clock that stands still, unless another clock is
// installed between the making and aggregate(). `declared` is kept by reference.
class LibraryStartup : public Startup {
 public:
   LibraryStartup( Declarations const & declared, Reports reports, LogIs log = LogIs::dropped );
   ~LibraryStartup() override;
   void declare() override;
   void aggregate() override;
   void progress() override;
   Result result() const override;
   std::string const & log() const override;

   // As declared.
   Kiv::Ptr< Stage::EventConfig > const & event( std::uint32_t place ) const;
   Kiv::Ptr< Stage::Config > const & config() const { return config_; }
   Kiv::Ptr< Stage::Status > const & status() const { return status_; } // from aggregate() on

 private:
   Declarations const & declared_;
   Kiv::Ptr< World > const world_;
   Kiv::Ptr< Kiv::Dir > agents_;
   Kiv::Ptr< Stage::Config > config_;
   Kiv::Ptr< Stage::Status > status_;
   Kiv::Ptr< Stage::Ordovan > manager_;
};

// A trace file that takes every trace point but those of level 9, as long as the object lives. It
// has no path any more, and all its pages have been written.
class Ring {
 public:
   Ring();
   ~Ring();

 private:
   std::unique_ptr< Flitlog::TraceFile > file_;
};

// What is queued, then the first thing that is due, until there is neither.
void runUntilIdle();

} // namespace Bench
