// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Ordovan/Ordovan.h>

#include <iostream>

using Kiv::GenericIf;

int main() {
   auto event = Stage::EventConfig::EventConfigIs( "Net", "routing" );
   GenericIf const access( event );
   access.write( "timeout", "2.5" ); // text for any value but a pointer
   access.write( "critical", true );
   access.attributeOp( "dependency", GenericIf::Op::write, GenericIf::Index{ "Boot" }, true );
   for( Kiv::Attribute const & row : access.type().attributes() )
      std::cout << row.name << " = " << access.read( row.name ).toString() << '\n';

   auto log = Stage::Log::LogIs( "log" );
   GenericIf const logSm( Kiv::Ptr< Stage::LogSm >( new Stage::LogSm( log ) ) );
   logSm.call( "logIs", { { "msg", "hello" } } );
   std::cout << log->log( 0 ).msg << '\n';

   try {
      access.write( "complete", "yes" );
   } catch( Kiv::Exception const & error ) {
      std::cout << error.what() << '\n';
   }
}
