// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <exception>
#include <vector>

#include <Kiv/Kiv.h>
#include <Stage/Stage.h>

#include <simulation/Observer.h>

namespace Simulation::detail {

// Tells the observers what happens, in the order in which it happens: it empties the log of stages
// before it passes anything else on. While it lives, declared log messages come here and nowhere
// else.
//
// Messages and changes of stages arrive inside handlers of the library, where an exception would
// be taken for a failure of the handler: what an observer throws is kept, nothing is told after
// it, and the next drain() throws it.
class Chronicle {
 public:
   Chronicle( Kiv::Ptr< Stage::Log > const & log, std::vector< Observer * > const & observers );
   ~Chronicle();
   Chronicle( Chronicle const & ) = delete;
   Chronicle & operator=( Chronicle const & ) = delete;

   Kiv::Ptr< Stage::Log > const & log() const { return log_; }
   // Progression was started.
   bool started() const { return started_; }

   // Passes on what the log holds, and throws what was kept. To be called after each callback, and
   // never inside one.
   void drain();
   void begin( Beginning const & beginning );
   void takenIn( Instant const & instant );
   void stage( StageChange const & change );
   void end( Result const & result );

   // Calls `f`, and keeps what it throws.
   template< class F >
   void keepingExceptions( F const & f ) noexcept {
      try {
         f();
      } catch( ... ) {
         if( !thrown_ )
            thrown_ = std::current_exception();
      }
   }

 private:
   template< class F >
   void tell( F const & f );
   void tellLog();
   void message( Kiv::LogMessage const & message );
   void rethrow();

   Kiv::Ptr< Stage::Log > log_;
   std::size_t told_ = 0; // of the log's entries
   std::vector< Observer * > observers_;
   Kiv::LogSink previousSink_;
   std::exception_ptr thrown_;
   bool started_ = false;
};

} // namespace Simulation::detail
