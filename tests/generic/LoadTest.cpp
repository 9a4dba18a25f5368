// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Loading the libraries while a process runs. This program is linked with the framework only.
#include <Kiv/Kiv.h>

#include "../support/Child.h"

#include <gtest/gtest.h>

#include <dlfcn.h>

#include <string>
#include <vector>

namespace {

// Looks at a declared message of the library whenever a type is registered.
struct Order : Kiv::IntrospectionReactor {
   void onTypeNode( Kiv::KivType const & type ) override {
      if( std::string( type.name() ) == "Stage::LogSm" )
         library = dlopen( LIBORDOVAN, RTLD_NOW | RTLD_NOLOAD );
      if( !library )
         return;
      types.push_back( type.name() );
      if( auto const * handle = static_cast< Kiv::LogHandle const * >(
             dlsym( library, "_ZN5Stage18ORDOVAN_STAGE_SLOWE" ) ) ) {
         ++looks;
         // Static memory is empty until its constructor has run.
         built = built || !handle->id().empty();
      }
   }
   void * library = nullptr;
   std::vector< std::string > types;
   int looks = 0;
   bool built = false;
};

} // namespace

TEST( Loading, TheDeclaredMessagesAreBuiltAfterAllTypesAreRegistered ) {
   ASSERT_EQ( Kiv::typeNode( "Stage::LogSm" ), nullptr ) << "the library is loaded already";
   Order order;
   order.isRegisteredIs( true );
   void * const library = dlopen( LIBORDOVAN, RTLD_NOW | RTLD_LOCAL );
   ASSERT_NE( library, nullptr ) << dlerror();
   ASSERT_GE( order.types.size(), 6U );
   EXPECT_EQ( order.types[ 0 ], "Stage::LogSm" );
   EXPECT_EQ( order.types[ 5 ], "Stage::Ordovan" );
   EXPECT_EQ( order.looks, static_cast< int >( order.types.size() ) );
   EXPECT_FALSE( order.built ) << "a handle was built before the last type was registered";
   auto const * handle =
      static_cast< Kiv::LogHandle const * >( dlsym( library, "_ZN5Stage18ORDOVAN_STAGE_SLOWE" ) );
   ASSERT_NE( handle, nullptr );
   EXPECT_EQ( handle->id(), Kiv::String8( "ORDOVAN_STAGE_SLOW" ) );
   dlclose( order.library );
   dlclose( library );
}

TEST( Loading, AProgramMayLoadAndUnloadTheLibraryAgainAndAgain ) {
   testing_support::Child const child( "\"" LOAD_CHILD "\" \"" LIBORDOVAN "\" \"" LIBKIV "\"" );
   EXPECT_TRUE( child.succeeded ) << child.output;
   EXPECT_EQ( child.output, "29\n" )
      << "9 of the framework, 7 entities, 6 state machines, 7 reactors";
}
