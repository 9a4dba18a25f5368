// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
//
// turns ROUNDS [--name NAME COMMAND...]...
//
// Runs the commands in turn, as processes of their own whose standard output goes nowhere; prints
// for each how long it took, and the ratio to the last one, which is the control. Fails when a
// command does.
#include <startup/Process.h>

#include <chrono>
#include <cstdio>
#include <system_error>

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>

extern char ** environ;

namespace {

using namespace Bench;
using Time = std::chrono::steady_clock;

struct Command {
   std::string_view name;
   std::vector< std::string > arguments = {};
   std::vector< double > seconds = {};          // from spawning until its end was known
   std::vector< double > processorSeconds = {}; // user and system
};

double secondsOf( timeval const & time ) {
   return static_cast< double >( time.tv_sec ) + static_cast< double >( time.tv_usec ) * 1e-6;
}

void runOnce( Command & command ) {
   std::vector< char * > arguments;
   for( std::string & argument : command.arguments )
      arguments.push_back( argument.data() );
   arguments.push_back( nullptr );
   posix_spawn_file_actions_t actions;
   posix_spawn_file_actions_init( &actions );
   posix_spawn_file_actions_addopen( &actions, 1, "/dev/null", O_WRONLY, 0 );
   auto const begin = Time::now();
   pid_t child = 0;
   int const error =
      posix_spawnp( &child, arguments[ 0 ], &actions, nullptr, arguments.data(), environ );
   posix_spawn_file_actions_destroy( &actions );
   if( error != 0 )
      throw std::system_error( error, std::generic_category(), command.arguments[ 0 ] );
   int status = 0;
   rusage usage{};
   if( wait4( child, &status, 0, &usage ) != child || status != 0 )
      throw std::runtime_error( command.arguments[ 0 ] + " has failed" );
   command.seconds.push_back( std::chrono::duration< double >( Time::now() - begin ).count() );
   command.processorSeconds.push_back( secondsOf( usage.ru_utime ) + secondsOf( usage.ru_stime ) );
}

std::vector< Command > commandsOf( std::vector< std::string_view > const & arguments ) {
   std::vector< Command > commands;
   for( std::size_t i = 1; i < arguments.size(); ++i )
      if( arguments[ i ] == "--name" && i + 1 != arguments.size() )
         commands.push_back( { arguments[ ++i ] } );
      else if( commands.empty() )
         throw std::invalid_argument( "expected --name NAME COMMAND" );
      else
         commands.back().arguments.emplace_back( arguments[ i ] );
   for( Command const & command : commands )
      if( command.arguments.empty() )
         throw std::invalid_argument( "a name without a command" );
   return commands;
}

int run( std::vector< std::string_view > const & arguments ) {
   if( arguments.size() < 4 )
      throw std::invalid_argument( "usage: turns ROUNDS [--name NAME COMMAND...]..." );
   std::uint32_t const rounds = numberOf( arguments[ 0 ], 1, "rounds" );
   std::vector< Command > commands = commandsOf( arguments );
   for( std::uint32_t round = 0; round != rounds; ++round )
      for( Command & command : commands )
         runOnce( command );
   Command const & control = commands.back();
   for( Command const & c : commands )
      std::printf( "%-36.36s | %9.2f %9.2f %6.2f | %9.2f %9.2f %6.2f\n", c.name.data(),
                   least( c.seconds ) * 1e3, median( c.seconds ) * 1e3,
                   least( c.seconds ) / least( control.seconds ), least( c.processorSeconds ) * 1e3,
                   median( c.processorSeconds ) * 1e3,
                   least( c.processorSeconds ) / least( control.processorSeconds ) );
   return 0;
}

} // namespace

int main( int count, char ** arguments ) { return mainOf( count, arguments, run ); }
