// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// What tests of tables and registrations write of types.
#pragma once

#include <Kiv/Kiv.h>

#include <string>
#include <vector>

namespace testing_support {

// "fixed+reactor"; nothing for a plain value.
inline std::string rolesOf( Kiv::Role role ) {
   std::string text;
   auto const add = [ & ]( Kiv::Role r, char const * name ) {
      if( has( role, r ) )
         text += std::string( text.empty() ? "" : "+" ) + name;
   };
   add( Kiv::Role::constructorArgument, "fixed" );
   add( Kiv::Role::collection, "collection" );
   add( Kiv::Role::queue, "queue" );
   add( Kiv::Role::notifying, "notifying" );
   add( Kiv::Role::handler, "handler" );
   add( Kiv::Role::operation, "operation" );
   add( Kiv::Role::reactor, "reactor" );
   add( Kiv::Role::framework, "framework" );
   return text;
}

// The names of all registered types, in the order of their registration.
inline std::vector< std::string > registeredTypes() {
   std::vector< std::string > names;
   for( std::size_t n = 0; n != Kiv::typeNodes(); ++n )
      names.push_back( Kiv::typeNode( n ).name() );
   return names;
}

} // namespace testing_support
