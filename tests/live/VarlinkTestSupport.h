// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// A server with a few methods, each with one habit.
#pragma once

#include "LiveTestSupport.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace LiveTest {

namespace Varlink = Live::Varlink;
using Kiv::Ptr;

constexpr char zero = '\0';

class VarlinkTest : public testing::Test {
 protected:
   explicit VarlinkTest( Varlink::Limits const & limits = {} ) { serve( limits ); }
   ~VarlinkTest() override {
      later.clear();
      server.reset();
      turn();
   }

   void serve( Varlink::Limits const & limits ) {
      server.reset();
      std::filesystem::remove( path );
      server = std::make_unique< Varlink::Server >(
         Varlink::listeningSocket( path ),
         Varlink::About{ "maker", "thing", "1.2", "http://t.example" }, limits );
      server->interfaceIs(
         { "test.example",
           "interface test.example\n",
           { { "Echo",
               [ this ]( Ptr< Varlink::Call > const & call ) {
                  ++handled;
                  call->reply( call->parameters() );
               } },
             { "Later",
               [ this ]( Ptr< Varlink::Call > const & call ) { later.push_back( call ); } },
             { "Stream", [ this ]( Ptr< Varlink::Call > const & call ) { later.push_back( call ); },
               true },
             { "Forget", []( Ptr< Varlink::Call > const & ) {} },
             { "Throw",
               []( Ptr< Varlink::Call > const & ) { throw std::runtime_error( "on purpose" ); } },
             { "End", [ this ]( Ptr< Varlink::Call > const & ) { server.reset(); } },
             { "Missing", nullptr } } } );
      server->onClosedIs( [ this ]( Ptr< Varlink::Connection > const & connection ) {
         EXPECT_FALSE( connection->open() );
         ++closed;
      } );
   }

   static Json call( std::string const & method, Json const & parameters = nullptr ) {
      return { { "method", "test.example." + method }, { "parameters", parameters } };
   }
   static Json with( Json message, char const * flag ) {
      message[ flag ] = true;
      return message;
   }
   static Json answer( Json const & parameters ) { return { { "parameters", parameters } }; }
   static Json error( std::string const & name, Json const & parameters = Json::object() ) {
      return { { "error", name }, { "parameters", parameters } };
   }
   static std::string bytes( Json const & message ) { return message.dump() + zero; }

   Folder folder;
   std::string path = folder / "socket";
   std::vector< Ptr< Varlink::Call > > later;
   int handled = 0;
   int closed = 0;
   std::unique_ptr< Varlink::Server > server;
};

} // namespace LiveTest
