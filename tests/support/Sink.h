// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Takes down what goes to a process-wide sink, of log messages or of traces.
#pragma once

#include <Kiv/Kiv.h>

#include <string>
#include <utility>
#include <vector>

namespace testing_support {

// While it lives, `lines` gets every Line that is given to the sink that `sinkIs` replaces.
template< class Line, auto sinkIs >
class Sink {
 public:
   Sink() : before_( sinkIs( [ this ]( Line const & line ) { lines.push_back( line ); } ) ) {}
   ~Sink() { sinkIs( std::move( before_ ) ); }
   Sink( Sink const & ) = delete;
   Sink & operator=( Sink const & ) = delete;

   // The texts since it was asked before.
   std::vector< std::string > taken() {
      std::vector< std::string > texts;
      for( Line const & line : lines )
         texts.push_back( line.text.str() );
      lines.clear();
      return texts;
   }
   std::vector< Line > lines;

 private:
   decltype( sinkIs( {} ) ) before_;
};

using LogMessages = Sink< Kiv::LogMessage, &Kiv::logSinkIs >;
using TraceLines = Sink< Kiv::TraceLine, &Kiv::traceSinkIs >;

} // namespace testing_support
