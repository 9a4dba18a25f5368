// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Process.h"

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <pty.h>
#include <unistd.h>

namespace Process {

struct Size {
   unsigned columns = 0, rows = 0; // 0: the terminal does not know
};

// Runs the command in `folder` with its output on a terminal, and returns its exit status and, as
// its output, what the terminal was sent.
inline Finished onTerminal( std::filesystem::path const & folder, Size size,
                            std::vector< std::string > const & environment,
                            std::vector< std::string > arguments ) {
   winsize window{};
   window.ws_row = static_cast< unsigned short >( size.rows );
   window.ws_col = static_cast< unsigned short >( size.columns );
   int terminal = -1;
   auto const child = forkpty( &terminal, nullptr, nullptr, &window );
   if( child == 0 ) {
      clearenv();
      for( auto const & setting : environment )
         putenv( strdup( setting.c_str() ) );
      std::vector< char * > pointers = { strdup( "ordovan" ) };
      for( auto & argument : arguments )
         pointers.push_back( argument.data() );
      pointers.push_back( nullptr );
      if( chdir( folder.c_str() ) == 0 )
         execv( ORDOVAN_COMMAND, pointers.data() );
      _exit( 127 );
   }
   Finished finished;
   char part[ 4096 ];
   for( ssize_t count = 1; count > 0; ) {
      count = read( terminal, part, sizeof part );
      finished.out.append( part, count > 0 ? static_cast< std::size_t >( count ) : 0 );
   }
   close( terminal );
   int status = 0;
   EXPECT_EQ( waitpid( child, &status, 0 ), child );
   finished.status = WIFEXITED( status ) ? WEXITSTATUS( status ) : -1;
   return finished;
}

} // namespace Process
