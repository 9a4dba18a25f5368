// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// What was registered is there before main begins, and until the process is gone.
#include "../support/Child.h"

#include <gtest/gtest.h>

namespace {

std::string const everything = "before main\nmain\natexit\nstatic destructor\natexit before "
                               "main\ndestructor function\nthe last\n";

} // namespace

TEST( Exit, TypesAndMachinesAreOfUseBeforeMainAndUntilTheEnd ) {
   testing_support::Child const child( "\"" EXIT_CHILD "\"" );
   EXPECT_TRUE( child.succeeded );
   EXPECT_EQ( child.output, everything );
}

TEST( Exit, TheOrderInWhichTheLibrariesAreLinkedHasNoSay ) {
   testing_support::Child const child( "\"" EXIT_CHILD_REVERSED "\"" );
   EXPECT_TRUE( child.succeeded );
   EXPECT_EQ( child.output, everything );
}
