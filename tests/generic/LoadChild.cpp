// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Loads and unloads a library that this program is not linked with, again and again:
//
//    LoadChild LIBRARY KIV
//
// and looks through the functions that KIV exports at what has been registered. KIV, which LIBRARY
// needs, is looked up only while LIBRARY is loaded. Prints what went wrong and fails, or prints
// the number of types.

#include <dlfcn.h>

#include <cstddef>
#include <cstdio>

namespace {

int fail( char const * what ) {
   char const * const why = dlerror();
   std::fprintf( stderr, "%s: %s\n", what, why ? why : "" );
   return 1;
}

// Kiv::typeNodes()
std::size_t typesIn( void * kiv ) {
   void * const symbol = dlsym( kiv, "_ZN3Kiv9typeNodesEv" );
   if( !symbol )
      return 0;
   return reinterpret_cast< std::size_t ( * )() >( symbol )();
}

} // namespace

int main( int count, char ** arguments ) {
   if( count != 3 )
      return fail( "usage" );
   std::size_t types = 0;
   void const * first = nullptr;
   for( int round = 0; round != 5; ++round ) {
      void * const library = dlopen( arguments[ 1 ], RTLD_NOW | RTLD_LOCAL );
      if( !library )
         return fail( "dlopen" );
      void * const kiv = dlopen( arguments[ 2 ], RTLD_NOW | RTLD_NOLOAD );
      if( !kiv )
         return fail( "the library it needs was not loaded with it" );
      std::size_t const now = typesIn( kiv );
      // Stage::Ordovan::_fwkType()
      void * const symbol = dlsym( library, "_ZN5Stage7Ordovan8_fwkTypeEv" );
      if( !symbol || now == 0 )
         return fail( "dlsym" );
      void const * const type = reinterpret_cast< void const * (*)() >( symbol )();
      if( round != 0 && ( now != types || type != first ) )
         return fail( "types were registered again" );
      types = now;
      first = type;
      dlclose( kiv );
      if( dlclose( library ) != 0 )
         return fail( "dlclose" );
      // What was registered is used by nobody else now, and has to be there all the same.
      void * const kept = dlopen( arguments[ 1 ], RTLD_NOW | RTLD_NOLOAD );
      if( !kept )
         return fail( "the library was unloaded" );
      dlclose( kept );
   }
   std::printf( "%zu\n", types );
   return 0;
}
