// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Index/Oracle.h>

#include <cstdio>
#include <cstdlib>

namespace Stage {

AnswersBy answersBy = AnswersBy::index;

void differs( char const * what ) noexcept {
   std::fprintf( stderr, "Ordovan: the index and the walk differ in %s\n", what );
   std::abort();
}

} // namespace Stage
