// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Traces of objects that outlive main().
#include "../support/Folder.h"

#include <Flitlog/Reader.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace {

// What the child prints to standard output, in this environment.
std::string child( std::string const & environment ) {
   std::FILE * const pipe = popen( ( environment + " '" EXIT_CHILD "' 2>/dev/null" ).c_str(), "r" );
   if( !pipe )
      return "popen failed";
   std::string printed;
   for( int c = std::fgetc( pipe ); c != EOF; c = std::fgetc( pipe ) )
      printed += static_cast< char >( c );
   return pclose( pipe ) == 0 ? printed : "failed: " + printed;
}

TEST( Exit, WithoutTraces ) { EXPECT_EQ( child( "" ), "done\n" ); }

TEST( Exit, WithTextThatIsSwitchedOn ) { EXPECT_EQ( child( "KIV_TRACE=Ordovan:0-9" ), "done\n" ); }

TEST( Exit, WithARingThatHasTheVeryLastTraces ) {
   testing_support::Folder const folder;
   EXPECT_EQ( child( "KIV_TRACE=Ordovan:0-9 KIV_TRACE_RING='" + ( folder / "ring" ) + "'" ),
              "done\n" );
   auto const reader = Flitlog::Reader::ReaderIs( folder / "ring" );
   Flitlog::Record last;
   for( Flitlog::Record record; reader->next( record ); )
      last = record;
   EXPECT_EQ( last.handle, "Ordovan" );
   EXPECT_EQ( last.function, "logIs" ) << "progression is complete at once";
}

} // namespace
