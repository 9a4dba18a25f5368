// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Traces of objects that outlive main().
#include "../support/Child.h"
#include "../support/Folder.h"

#include <Flitlog/Reader.h>

#include <gtest/gtest.h>

#include <string>

namespace {

// What the child prints to standard output, in this environment.
std::string child( std::string const & environment ) {
   return testing_support::Child( "( " + environment + " '" EXIT_CHILD "' 2>/dev/null )" )
      .printed();
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
