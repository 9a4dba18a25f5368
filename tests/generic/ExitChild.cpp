// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Looks up types before main, keeps state machines in statics, and uses both until the process is
// gone: in static destructors, in what atexit() calls, and after the libraries have destroyed what
// they destroy. Prints where it was, or says what was wrong and fails.
#include <Ordovan/Ordovan.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <unistd.h>

using Kiv::GenericIf;
using Kiv::Ptr;

namespace {

void require( bool holds, char const * when, char const * what ) {
   if( holds )
      return;
   std::fprintf( stderr, "%s: %s\n", when, what );
   _exit( 1 );
}

std::size_t types = 0;
unsigned long references = 0;

void look( char const * when ) {
   std::puts( when );
   std::fflush( stdout );
   Kiv::KivType const * const type = Kiv::typeNode( "Stage::StageSm" );
   require( type && std::strcmp( type->name(), "Stage::StageSm" ) == 0, when, "no type" );
   Ptr< Kiv::KivAttr const > const attr = type->attr( "complete" );
   require( attr && attr->name() == Kiv::String8( "complete" ), when, "no attribute" );
   require( &attr->owner() == type, when, "the attribute's owner is another" );
   if( types == 0 ) {
      types = Kiv::typeNodes();
      references = attr->references();
   }
   require( Kiv::typeNodes() == types, when, "another number of types" );
   require( attr->references() == references, when, "somebody has let go of the attribute" );
}

// As the first of all, before the libraries are initialised: what is called at exit in the reverse
// order comes last then, when they have been torn down. No sanitizer is ready yet.
__attribute__( ( no_sanitize( "address", "undefined" ) ) ) void beforeAll( int, char **, char ** ) {
   on_exit( []( int, void * ) { look( "the last" ); }, nullptr );
}
[[gnu::section( ".preinit_array" ), gnu::used]] void ( *first )( int, char **,
                                                                 char ** ) = &beforeAll;

[[gnu::destructor]] void destructorFunction() { look( "destructor function" ); }

bool const beforeMain = [] {
   look( "before main" );
   std::atexit( [] { look( "atexit before main" ); } );
   return true;
}();

struct Machines {
   Machines() {
      config->enabledIs( true );
      config->agentDirIs( dir );
      manager->configSmIs( config, status, dir );
      agent->eventIs( "Net", Stage::EventConfig::EventConfigIs( "Net", "routing" ) );
      dir->entityPtrIs( agent );
      manager->statusSmIs( "Router", config, status, progress, log );
   }
   ~Machines() { use( "static destructor" ); }

   void use( char const * when ) const {
      look( when );
      auto const before = log->logs();
      GenericIf( manager->statusSm()->logSm() ).call( "logIs", { { "msg", when } } );
      require( log->logs() == before + 1 && log->log( before ).msg == Kiv::String8( when ), when,
               "no entry" );
      manager->statusSm()->needRecalculateNextStageIs( false );
      GenericIf( manager->statusSm() ).call( "doNextStage" );
      require( manager->statusSm()->needRecalculateNextStage(), when, "no request" );
   }

   Ptr< Stage::Config > config = Stage::Config::ConfigIs( "config" );
   Ptr< Kiv::Dir > dir = Kiv::Dir::DirIs( "agents" );
   Ptr< Stage::AgentConfig > agent = Stage::AgentConfig::AgentConfigIs( "routing" );
   Ptr< Stage::Status > status = Stage::Status::StatusIs( "status" );
   Ptr< Stage::Progress > progress = Stage::Progress::ProgressIs( "progress" );
   Ptr< Stage::Log > log = Stage::Log::LogIs( "log" );
   Ptr< Stage::Ordovan > manager = Stage::Ordovan::OrdovanIs( "ordovan" );
} machines;

} // namespace

int main() {
   std::atexit( [] { machines.use( "atexit" ); } );
   machines.use( "main" );
   while( Kiv::activityManager()->runQueued() != 0 || Kiv::activityManager()->fireOne() ) {
   }
   require( static_cast< bool >( machines.manager->statusSm()->stageSm( "Net" ) ), "main",
            "the stage is not active" );
   return 0;
}
