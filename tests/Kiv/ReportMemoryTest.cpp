// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The report of an exception that left a callback, when there is no memory for it.
#include "../support/Allocations.h"
#include "../support/Loop.h"
#include "../support/Sink.h"

#include <Kiv/Kiv.h>

#include <gtest/gtest.h>

#include <exception>
#include <optional>
#include <string>

using Kiv::Ptr;
using testing_support::Allocations;
using testing_support::FailingAllocations;

namespace {

struct Failure : std::exception {
   char const * what() const noexcept override { return "what went\nwrong"; }
};

// From its callback on there is no memory: it throws when `others` more allocations have been made.
class Failing : public Kiv::Dir::NotifieeConst {
 public:
   Failing( Ptr< Kiv::Dir > const & dir, std::optional< Allocations > & allocations )
      : allocations_( allocations ) {
      watch( dir );
   }
   using NotifieeConst::onEntityPtr;
   void onEntityPtr( Kiv::Name ) override {
      allocations_.emplace( others, failing );
      throw Failure();
   }
   std::size_t others = 0;
   FailingAllocations failing = FailingAllocations::one;

 private:
   std::optional< Allocations > & allocations_;
};

struct ReportMemory : testing::TestWithParam< FailingAllocations > {
   // What is reported with that allocation failing.
   std::string reported( std::size_t others, bool & failed ) {
      reactor->others = others;
      reactor->failing = GetParam();
      dir->entityPtrIs( Kiv::Dir::DirIs( "entry" ) );
      testing::internal::CaptureStderr();
      loop.deliver();
      failed = Allocations::hasFailed();
      allocations.reset();
      return testing::internal::GetCapturedStderr();
   }

   testing_support::Loop loop;
   Ptr< Kiv::Dir > const outer = Kiv::Dir::DirIs( "a folder with a name" );
   Ptr< Kiv::Dir > const dir = Kiv::Dir::DirIs( "inner" );
   std::optional< Allocations > allocations;
   Ptr< Failing > const reactor = new Failing( dir, allocations );
   char const * const whole = "kiv: exception in entityPtr of a reactor on a folder with a "
                              "name/inner: what went\\x0awrong\n";
   char const * const nameless = "kiv: exception of entityPtr: what went\\x0awrong\n";
   char const * const traceLost = "kiv: a trace of reportException was lost: std::bad_alloc\n";
};

} // namespace

TEST_P( ReportMemory, SaysWhatWentWrongWithoutIt ) {
   dir->parentIs( outer );
   Kiv::tracesIs( "Kiv:" );
   int withoutName = 0;
   bool failed = true;
   for( std::size_t others = 0; failed; ++others ) {
      std::string printed = reported( others, failed );
      if( printed.starts_with( traceLost ) && failed ) // the first use of the framework's handle
         printed.erase( 0, std::string( traceLost ).size() );
      withoutName += printed == nameless ? 1 : 0;
      EXPECT_TRUE( printed == whole || ( printed == nameless && failed ) ) << printed;
   }
   EXPECT_GT( withoutName, 0 );
}

TEST_P( ReportMemory, WithTracesSaysThatTheTraceIsLost ) {
   dir->parentIs( outer );
   Kiv::tracesIs( "Kiv:0" );
   testing_support::TraceLines lines;
   int lost = 0;
   bool failed = true;
   for( std::size_t others = 0; failed; ++others ) {
      std::string printed = reported( others, failed );
      bool const told = printed.starts_with( traceLost );
      if( told )
         printed.erase( 0, std::string( traceLost ).size() );
      EXPECT_TRUE( printed == whole || ( printed == nameless && failed ) ) << printed;
      EXPECT_EQ( lines.lines.size(), told ? 0U : 1U );
      for( Kiv::TraceLine const & line : lines.lines )
         EXPECT_EQ( line.text, printed == whole
                                  ? "exception in entityPtr of a reactor on a folder with a "
                                    "name/inner: what went\nwrong"
                                  : "exception of entityPtr: what went\nwrong" );
      lines.lines.clear();
      lost += told ? 1 : 0;
   }
   Kiv::tracesIs( "Kiv:" );
   EXPECT_GT( lost, 0 );
}

INSTANTIATE_TEST_SUITE_P(, ReportMemory,
                         testing::Values( FailingAllocations::one,
                                          FailingAllocations::allFromThenOn ),
                         []( auto const & tested ) {
                            return tested.param == FailingAllocations::one
                                      ? "WhenOneAllocationFails"
                                      : "WhenAllFailFromThenOn";
                         } );
