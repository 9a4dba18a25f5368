// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <simulation/detail/Chronicle.h>

#include <utility>

namespace Simulation::detail {

Chronicle::Chronicle( Kiv::Ptr< Stage::Log > const & log,
                      std::vector< Observer * > const & observers )
   : log_( log ), observers_( observers ) {
   previousSink_ = Kiv::logSinkIs( [ this ]( Kiv::LogMessage const & m ) { message( m ); } );
}

Chronicle::~Chronicle() { Kiv::logSinkIs( std::move( previousSink_ ) ); }

void Chronicle::drain() {
   tellLog();
   rethrow();
}

void Chronicle::begin( Beginning const & beginning ) {
   tell( [ & ]( Observer & observer ) { observer.onBegin( beginning ); } );
   rethrow();
}

void Chronicle::takenIn( Instant const & instant ) {
   tell( [ & ]( Observer & observer ) { observer.onInstant( instant ); } );
   rethrow();
}

void Chronicle::stage( StageChange const & change ) {
   tellLog();
   tell( [ & ]( Observer & observer ) { observer.onStage( change ); } );
}

void Chronicle::end( Result const & result ) {
   tell( [ & ]( Observer & observer ) { observer.onEnd( result ); } );
   rethrow();
}

template< class F >
void Chronicle::tell( F const & f ) {
   for( auto * observer : observers_ ) {
      if( thrown_ )
         return;
      keepingExceptions( [ & ] { f( *observer ); } );
   }
}

void Chronicle::tellLog() {
   // The entries stay: who looks at the run in the end wants to see them.
   for( ; told_ != log_->logs(); ++told_ ) {
      auto const entry = log_->log( told_ );
      started_ = started_ || entry.msg == "Stage progression started";
      auto const msg = entry.msg.str();
      tell( [ & ]( Observer & observer ) { observer.onLogEntry( entry.time, msg ); } );
   }
}

void Chronicle::message( Kiv::LogMessage const & message ) {
   // Entries that the same handler has appended before are older than the message.
   tellLog();
   Message const told{ message.time, message.id.str(), message.severity, message.text.str() };
   tell( [ & ]( Observer & observer ) { observer.onMessage( told ); } );
}

void Chronicle::rethrow() {
   if( auto const thrown = std::exchange( thrown_, nullptr ) )
      std::rethrow_exception( thrown );
}

} // namespace Simulation::detail
