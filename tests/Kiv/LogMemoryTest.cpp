// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Declared messages when there is no memory: with every one of their allocations failing in turn,
// each reaches its sink, or is told on standard error, and whoever emits it goes on.
#include "../support/Allocations.h"
#include "../support/Loop.h"

#include <Kiv/Kiv.h>

#include <gtest/gtest.h>

#include <functional>
#include <string>

using Kiv::LogHandle;
using Kiv::LogMessage;
using Kiv::Name;
using Kiv::String8;
using testing_support::Allocations;
using testing_support::FailingAllocations;
using testing_support::Loop;

namespace {

// Long enough for a string to need memory.
char const text[] = "an application with a long name stage S timed out";
char const told[] = "kiv: a log message was lost (std::bad_alloc): SOME_ID: an application with a "
                    "long name stage S timed out\n";

// Emits a message again and again, with one more of its allocations failing later each time, until
// none fails. Gives how often one did.
int emitWithFailures(
   std::function< void() > const & emit, FailingAllocations failing,
   std::function< void( bool failed, std::string const & printed ) > const & look ) {
   for( std::size_t others = 0;; ++others ) {
      testing::internal::CaptureStderr();
      bool failed = false;
      bool thrown = false;
      {
         Allocations const allocations( others, failing );
         try {
            emit();
         } catch( ... ) {
            thrown = true;
         }
         failed = Allocations::hasFailed();
      }
      std::string const printed = testing::internal::GetCapturedStderr();
      EXPECT_FALSE( thrown ) << "allocation " << others;
      look( failed, printed );
      if( !failed )
         return static_cast< int >( others );
   }
}

// One that counts, without memory, how often it got the text above.
struct Counting {
   Counting()
      : before( Kiv::logSinkIs( [ this ]( LogMessage const & message ) {
           right += message.text == std::string_view( text ) ? 1 : 0;
           ++messages;
        } ) ) {}
   ~Counting() { Kiv::logSinkIs( before ); }
   Counting( Counting const & ) = delete;
   Counting & operator=( Counting const & ) = delete;

   Kiv::LogSink before;
   int messages = 0;
   int right = 0;
};

struct LogMemory : testing::TestWithParam< FailingAllocations > {
   Loop loop;
   String8 const application = "an application with a long name";
   Name const stage = "S";
};

} // namespace

TEST_P( LogMemory, AMessageThatIsNotEmittedForLackOfItIsToldInFull ) {
   for( unsigned char rateLimitArgs = 0; rateLimitArgs != 3; ++rateLimitArgs ) {
      LogHandle handle( "SOME_ID", 4, "%s stage %s timed out", "", "", 0, 1, rateLimitArgs );
      Counting sink;
      int lost = 0;
      int const failures =
         emitWithFailures( [ & ] { Kiv::log( handle, application, stage ); }, GetParam(),
                           [ & ]( bool, std::string const & printed ) {
                              EXPECT_EQ( printed, sink.right == 1 ? "" : told );
                              EXPECT_EQ( sink.messages, sink.right );
                              lost += printed.empty() ? 0 : 1;
                              sink.messages = sink.right = 0;
                           } );
      EXPECT_GT( failures, 0 );
      EXPECT_EQ( lost, failures );
   }
}

TEST_P( LogMemory, AKeyThatCannotBeCountedForLackOfItIsLetThrough ) {
   int uncounted = 0;
   Counting sink;
   for( std::size_t others = 0;; ++others ) {
      LogHandle handle( "SOME_ID", 4, "%s", "", "", 10, 1, 0 );
      bool failed = false;
      {
         Allocations const allocations( others, GetParam() );
         EXPECT_TRUE( handle.okToLog( 7 ) );
         failed = Allocations::hasFailed();
      }
      EXPECT_EQ( handle.okToLog( 7 ), failed ) << "counted, unless there was no memory for that";
      if( !failed )
         break;
      ++uncounted;
   }
   EXPECT_EQ( uncounted, 1 );
}

TEST_P( LogMemory, TheDefaultSinkNeedsNone ) {
   Kiv::LogSink const before = Kiv::logSinkIs( {} );
   LogHandle handle( "SOME_ID", 4, "%s stage %s timed out", "", "", 0, 1, 0 );
   int const failures =
      emitWithFailures( [ & ] { Kiv::log( handle, application, stage ); }, GetParam(),
                        []( bool, std::string const & printed ) {
                           EXPECT_EQ( printed, std::string( "SOME_ID: " ) + text + "\n" );
                        } );
   Kiv::logSinkIs( before );
   EXPECT_EQ( failures, 0 );
}

TEST_P( LogMemory, AnArgumentThatCannotBeConvertedIsToldAsAQuestionMark ) {
   LogHandle handle( "SOME_ID", 4, "%s after %s", "", "", 0, 1, 0 );
   Counting const sink;
   int unknown = 0;
   emitWithFailures( [ & ] { Kiv::log( handle, application, 123456.5 ); }, GetParam(),
                     [ & ]( bool failed, std::string const & printed ) {
                        std::string const line = "kiv: a log message was lost (std::bad_alloc): "
                                                 "SOME_ID: an application with a long name after ";
                        if( printed == line + "?\n" )
                           ++unknown;
                        else
                           EXPECT_EQ( printed, failed ? line + "123456.5\n" : "" );
                     } );
   EXPECT_EQ( unknown, GetParam() == FailingAllocations::one ? 0 : 1 )
      << "memory for it is asked for once more";
}

INSTANTIATE_TEST_SUITE_P(, LogMemory,
                         testing::Values( FailingAllocations::one,
                                          FailingAllocations::allFromThenOn ),
                         []( auto const & tested ) {
                            return tested.param == FailingAllocations::one
                                      ? "WhenOneAllocationFails"
                                      : "WhenAllFailFromThenOn";
                         } );
