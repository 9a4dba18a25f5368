// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string_view>

// The standard streams of a command. Any of them may be closed, on a full disk, or a pipe that
// nobody reads any more; none of that may end the command otherwise than with an exit status.

namespace Tools {

// Call before anything is opened or printed. A standard stream that is closed stays of no use, but
// no file that is opened later takes its number and with it what is meant for the stream. Writing
// to a pipe that nobody reads, or beyond a limit, fails and no longer ends the process.
void prepareStreams();

// A message for people on standard error, as a line, which on a terminal is broken at blanks. It
// is lost when that cannot be written: there is nobody left to tell.
void complain( std::string_view text );

// To standard output. Failures are kept for outputArrived().
void print( std::string_view text );
// Hands everything that was printed over to the system, likewise.
void flushOutput();

// While this lives, what is printed to standard output goes to another descriptor: what the
// libraries print, too. That it may not arrive there is no failure. REQUIRES: at most one lives.
class OutputElsewhere {
 public:
   // Throws std::system_error when there are no descriptors left.
   explicit OutputElsewhere( int descriptor );
   ~OutputElsewhere();
   OutputElsewhere( OutputElsewhere const & ) = delete;
   OutputElsewhere & operator=( OutputElsewhere const & ) = delete;

   // A new descriptor of standard output itself, which whoever asks closes. Throws likewise.
   int original() const;

 private:
   int kept_;
};

// Whether all that was ever printed to standard output got there; if not, standard error says why.
// That whoever reads it has seen enough is no failure.
bool outputArrived( std::string_view command );

} // namespace Tools
