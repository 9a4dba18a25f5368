// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <live/Protocol.h>

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>

namespace {

TEST( InterfaceText, IsTheInstalledFileToTheLetter ) {
   std::ifstream file( ORDOVAN_INTERFACE );
   std::string const text( std::istreambuf_iterator< char >( file ), {} );
   ASSERT_FALSE( text.empty() );
   EXPECT_EQ( Live::interfaceText(), text );
   EXPECT_NE( text.find( "interface " + std::string( Live::interfaceName ) + "\n" ),
              std::string::npos );
}

} // namespace
