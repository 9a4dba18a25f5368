// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// One start-up in its three parts, by the library or by its control.
#pragma once

#include <startup/Declarations.h>

#include <memory>

namespace Bench {

// The order in which the library's tables have what was declared: the stages, and the events, those
// of the first stage first. Stages that may become active in the same decision do so in this order.
struct TableOrder {
   std::vector< std::uint32_t > stage;
   std::vector< std::uint32_t > event;
};
// As declared.
TableOrder inOrder( Declarations const & declared );

// What came of a start-up.
struct Result {
   bool complete = false;
   std::uint32_t criticalStages = 0;
   std::vector< std::uint32_t > activated; // stages, in that order
   TableOrder table;
};

// Whether to throw away what the log says, as soon as it is read, or to keep it for comparison.
enum class LogIs { dropped, kept };

// The parts are called in this order, once each. What is there afterwards stays until the object is
// destroyed.
class Startup {
 public:
   virtual ~Startup() = default;
   virtual void declare() = 0;   // agents make their entities and file them
   virtual void aggregate() = 0; // declarations become stages; not enabled yet
   virtual void progress() = 0;  // from enabling until nothing is left to do
   virtual Result result() const = 0;
   // All lines, with line ends, if they were kept.
   virtual std::string const & log() const = 0;
};

// `declared` is kept by reference, as is `table`.

// Through the public interface of the libraries, on a manual clock that stands still.
std::unique_ptr< Startup > libraryStartup( Declarations const & declared, Reports reports,
                                           LogIs log = LogIs::dropped );
// By hand. Activates in the same order and writes the same log.
std::unique_ptr< Startup > controlStartup( Declarations const & declared, TableOrder const & table,
                                           Reports reports, LogIs log = LogIs::dropped );

} // namespace Bench
