// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// A process that forks and traces in the order given by letters: f forks; p, the parent traces;
// c, the child traces; q and d, they do at level 9; o, the child records into the file given as
// second argument; e, the child ends.
#include <Kiv/Trace.h>

#include <cstdio>

#include <sys/wait.h>
#include <unistd.h>

namespace {

void pass( char const * who, int turn ) {
   static Kiv::TraceHandle handle( "ForkChild", false );
   KIV_TRACE( handle, 8, "ForkChild", who, " ", turn );
}
void passDetail( char const * who, int turn ) {
   static Kiv::TraceHandle handle( "ForkChild", false );
   KIV_TRACE( handle, 9, "ForkChild", who, " in detail ", turn );
}

// Does what it is told, one letter at a time, and answers each, until there are no more.
[[noreturn]] void beChild( int orders, int answers, char const * own ) {
   char order[ 2 ]; // what to do, and the turn
   while( read( orders, order, 2 ) == 2 ) {
      if( order[ 0 ] == 'o' )
         Kiv::traceRingIs( own, 65536 );
      else if( order[ 0 ] == 'd' )
         passDetail( "child", order[ 1 ] );
      else
         pass( "child", order[ 1 ] );
      if( write( answers, order, 1 ) != 1 )
         break;
   }
   _exit( 0 );
}

struct Process {
   void fork( char const * own ) {
      int down[ 2 ];
      int up[ 2 ];
      if( pipe( down ) != 0 || pipe( up ) != 0 )
         return;
      id = ::fork();
      if( id == 0 ) {
         close( down[ 1 ] );
         beChild( down[ 0 ], up[ 1 ], own );
      }
      close( down[ 0 ] );
      close( up[ 1 ] );
      orders = down[ 1 ];
      answers = up[ 0 ];
   }
   void does( char what, char turn ) const {
      char const order[ 2 ] = { what, turn };
      char answer;
      if( write( orders, order, 2 ) != 2 || read( answers, &answer, 1 ) != 1 )
         std::puts( "the child does not answer" );
   }
   void ends() {
      close( orders );
      waitpid( id, nullptr, 0 );
      orders = -1;
   }

   pid_t id = -1;
   int orders = -1;
   int answers = -1;
};

} // namespace

int main( int count, char ** arguments ) {
   if( count < 2 )
      return 2;
   Process child;
   char turn = 0;
   for( char const * letter = arguments[ 1 ]; *letter; ++letter ) {
      ++turn;
      if( *letter == 'f' )
         child.fork( count > 2 ? arguments[ 2 ] : "" );
      else if( *letter == 'p' )
         pass( "parent", turn );
      else if( *letter == 'q' )
         passDetail( "parent", turn );
      else if( *letter == 'e' )
         child.ends();
      else
         child.does( *letter, turn );
   }
   if( child.orders >= 0 )
      child.ends();
}
