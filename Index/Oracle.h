// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// What answers where an index and the plain walk over everything can: for tests.
#pragma once

namespace Stage {

enum class AnswersBy {
   index,
   walk,
   both // the walk, beside the index; the process ends where they differ
};
// Index, unless a test says otherwise. Not exported: such a test is built from the sources.
extern AnswersBy answersBy;

// Ends the process, with a message on standard error that says what differs.
[[noreturn]] void differs( char const * what ) noexcept;

} // namespace Stage
