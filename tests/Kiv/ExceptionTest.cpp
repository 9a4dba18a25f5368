// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Kiv/Kiv.h>

#include <gtest/gtest.h>

#include <csignal>
#include <thread>

using Kiv::Exception;
using Kiv::Expect;
using Kiv::IdBitArray;
using Kiv::Ptr;
using Kiv::String8;

namespace {

// Whether a range exception thrown here says that it was expected.
bool rangeIsExpected() {
   try {
      Kiv::throwRangeException( "x" );
   } catch( Exception const & e ) {
      return e.expected();
   }
}
bool nameInUseIsExpected() {
   try {
      Kiv::throwNameInUseException( "x" );
   } catch( Exception const & e ) {
      return e.expected();
   }
}

} // namespace

TEST( Exception, CarriesItsTextItsKindAndWhetherItWasExpected ) {
   Exception const e( "broken rule", IdBitArray( Exception::general ), true );
   EXPECT_STREQ( e.what(), "broken rule" );
   EXPECT_EQ( e.text(), String8( "broken rule" ) );
   EXPECT_TRUE( e.expected() );
   EXPECT_TRUE( e.ids().has( Exception::general ) );
   EXPECT_FALSE( e.ids().has( Exception::range ) );
   Exception const copy = e; // NOLINT: exceptions are copied when thrown
   EXPECT_STREQ( copy.what(), "broken rule" );
}

TEST( Exception, OfARangeIsCaughtAsWhatItIsAndAsAnyStandardOne ) {
   EXPECT_THROW( Kiv::throwRangeException( "x" ), Kiv::RangeException );
   EXPECT_THROW( Kiv::throwRangeException( "x" ), Exception );
   try {
      Kiv::throwRangeException( String8( "too " ) + "far" );
   } catch( std::exception const & e ) {
      EXPECT_STREQ( e.what(), "too far" );
      auto const * range = dynamic_cast< Kiv::RangeException const * >( &e );
      ASSERT_NE( range, nullptr );
      EXPECT_TRUE( range->ids().has( Exception::range ) );
      EXPECT_FALSE( range->ids().has( Exception::nameInUse ) );
      EXPECT_FALSE( range->expected() );
   }
}

TEST( Exception, OfANameInUseIsNoRangeException ) {
   try {
      Kiv::throwNameInUseException( "taken" );
   } catch( Kiv::RangeException const & ) {
      FAIL() << "the wrong kind";
   } catch( Kiv::NameInUseException const & e ) {
      EXPECT_STREQ( e.what(), "taken" );
      EXPECT_TRUE( e.ids().has( Exception::nameInUse ) );
      EXPECT_FALSE( e.ids().has( Exception::range ) );
   }
}

TEST( IdBitArray, IsASet ) {
   IdBitArray const none;
   IdBitArray const range( Exception::range );
   IdBitArray const both = range | IdBitArray( Exception::thread );
   EXPECT_FALSE( none.has( Exception::general ) );
   EXPECT_TRUE( both.has( Exception::range ) );
   EXPECT_TRUE( both.has( Exception::thread ) );
   EXPECT_FALSE( both.has( Exception::nameInUse ) );
   EXPECT_TRUE( both.meets( range ) );
   EXPECT_FALSE( both.meets( IdBitArray( Exception::nameInUse ) ) );
   EXPECT_FALSE( none.meets( none ) );
}

// ----------------------------------------------------------------------------------------- expect

TEST( Expect, MarksWhatIsThrownWhileItLives ) {
   EXPECT_FALSE( rangeIsExpected() );
   {
      Expect const region( Exception::range );
      EXPECT_TRUE( rangeIsExpected() );
   }
   EXPECT_FALSE( rangeIsExpected() );
}

TEST( Expect, MarksOnlyTheKindsItNames ) {
   Expect const region( Exception::range );
   EXPECT_FALSE( nameInUseIsExpected() );
   EXPECT_TRUE( Expect::isExpected( IdBitArray( Exception::range ) ) );
   EXPECT_FALSE( Expect::isExpected( IdBitArray( Exception::nameInUse ) ) );
   Expect const more( IdBitArray( Exception::nameInUse ) | IdBitArray( Exception::thread ) );
   EXPECT_TRUE( nameInUseIsExpected() );
   EXPECT_TRUE( Expect::isExpected( IdBitArray( Exception::thread ) ) );
}

TEST( Expect, NestsAndEndsInTheOrderMade ) {
   Expect const outer( Exception::range );
   {
      Expect const inner( Exception::nameInUse );
      EXPECT_TRUE( rangeIsExpected() ) << "the outer region holds inside the inner one";
      EXPECT_TRUE( nameInUseIsExpected() );
   }
   EXPECT_TRUE( rangeIsExpected() );
   EXPECT_FALSE( nameInUseIsExpected() );
}

TEST( Expect, EndsWhenAnExceptionLeavesIt ) {
   try {
      Expect const region( Exception::range );
      Kiv::throwRangeException( "x" );
   } catch( Exception const & e ) {
      EXPECT_TRUE( e.expected() );
   }
   EXPECT_FALSE( rangeIsExpected() );
}

TEST( Expect, BelongsToItsThread ) {
   Expect const region( Exception::range );
   bool there = true;
   std::thread( [ & ] { there = Expect::isExpected( IdBitArray( Exception::range ) ); } ).join();
   EXPECT_FALSE( there );
}

// -------------------------------------------------------------------------- valid() and invariants

TEST( Valid, GivesThePointerItselfAndRefusesNull ) {
   Ptr< Kiv::Dir > const dir = Kiv::Dir::DirIs( "dir" );
   EXPECT_EQ( &Kiv::valid( dir ), &dir );
   EXPECT_EQ( dir->references(), 1U );
   Ptr< Kiv::Dir > const null;
   try {
      Kiv::valid( null );
      FAIL() << "accepted";
   } catch( Kiv::RangeException const & e ) {
      EXPECT_STREQ( e.what(), "null ValidPtr" );
   }
}

TEST( InvariantDeathTest, BrokenEndsTheProcessAndSaysWhich ) {
   Kiv::assertInvariant( true, "holds" );
   EXPECT_EXIT( Kiv::assertInvariant( 1 + 1 == 3, "ec->dependencys() == before" ),
                testing::KilledBySignal( SIGABRT ),
                "invariant broken: ec->dependencys\\(\\) == before\n" );
}
