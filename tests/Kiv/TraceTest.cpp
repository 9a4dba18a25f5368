// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include "../support/Loop.h"
#include "../support/Sink.h"

#include <Kiv/Kiv.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

using Kiv::Ptr;
using Kiv::String8;
using Kiv::TraceHandle;
using Kiv::TraceLine;
using testing_support::Loop;
using Sink = testing_support::TraceLines;
using Texts = std::vector< std::string >;

namespace {

// Everything goes to a stream too while it lives.
class Coverage {
 public:
   Coverage() { Kiv::coverageStream_ = &stream_; }
   ~Coverage() { Kiv::coverageStream_ = nullptr; }
   Coverage( Coverage const & ) = delete;
   Coverage & operator=( Coverage const & ) = delete;
   std::string text() const { return stream_.str(); }

 private:
   std::ostringstream stream_;
};

std::string enabledLevels( TraceHandle const & handle ) {
   std::string text;
   for( unsigned level = 0; level != 10; ++level )
      if( handle.enabled( level ) )
         text += std::to_string( level );
   return text;
}

} // namespace

// ------------------------------------------------------------------------------------ the switches

TEST( TraceHandle, StartsWithAllLevelsOffWhateverItsMasterSwitchIs ) {
   TraceHandle const off( "StartsOff", false );
   TraceHandle const on( "StartsOn", true );
   EXPECT_EQ( off.name(), String8( "StartsOff" ) );
   EXPECT_FALSE( off.master() );
   EXPECT_TRUE( on.master() );
   EXPECT_EQ( enabledLevels( off ), "" );
   EXPECT_EQ( enabledLevels( on ), "" );
}

TEST( TraceHandle, ProducesATraceWhenItsMasterAndTheLevelsSwitchAreBothOn ) {
   TraceHandle handle( "BothOn", false );
   handle.levelIs( 8, true );
   EXPECT_TRUE( handle.level( 8 ) );
   EXPECT_FALSE( handle.enabled( 8 ) ) << "the master switch is off";
   handle.masterIs( true );
   EXPECT_EQ( enabledLevels( handle ), "8" );
   handle.levelIs( 0, true );
   handle.levelIs( 9, true );
   EXPECT_EQ( enabledLevels( handle ), "089" );
   handle.levelIs( 8, false );
   EXPECT_EQ( enabledLevels( handle ), "09" );
   handle.masterIs( false );
   EXPECT_EQ( enabledLevels( handle ), "" );
   EXPECT_TRUE( handle.level( 9 ) ) << "the master switch keeps the others as they are";
   handle.masterIs( true );
   EXPECT_EQ( enabledLevels( handle ), "09" );
}

TEST( TraceHandle, HasNoLevelAboveNine ) {
   TraceHandle handle( "NoTen", true );
   handle.levelIs( 10, true );
   handle.levelIs( 40, true );
   EXPECT_EQ( enabledLevels( handle ), "" );
   for( unsigned const level : { 10U, 31U, 32U, 40U, 64U, 0xffffffffU } ) {
      EXPECT_FALSE( handle.level( level ) ) << level;
      EXPECT_FALSE( handle.enabled( level ) ) << level;
   }
   handle.levelIs( 0, true );
   handle.levelIs( 8, true );
   EXPECT_FALSE( handle.level( 32 ) ) << "as level 0";
   EXPECT_FALSE( handle.enabled( 40 ) ) << "as level 8";
}

// ------------------------------------------------------------------------------------ trace points

TEST( TracePoint, SaysWhereItIsAndWhatWhen ) {
   Loop loop( 12.5 );
   Sink sink;
   TraceHandle handle( "Somewhere", true );
   handle.levelIs( 8, true );
   int const line = __LINE__ + 1;
   KIV_TRACE( handle, 8, "Ordovan", "stage ", Kiv::Name( "Net" ), " is ", String8( "next" ) );
   ASSERT_EQ( sink.lines.size(), 1U );
   TraceLine const & written = sink.lines[ 0 ];
   EXPECT_EQ( written.time, 12.5 );
   EXPECT_EQ( written.handle, String8( "Somewhere" ) );
   EXPECT_EQ( written.level, 8U );
   EXPECT_STREQ( written.source, "Ordovan" );
   EXPECT_EQ( written.line, line );
   EXPECT_STREQ( written.function, "TestBody" );
   EXPECT_EQ( written.text, String8( "stage Net is next" ) );
}

TEST( TracePoint, WritesOnlyWhenItsOwnLevelIsOn ) {
   Loop loop;
   Sink sink;
   TraceHandle handle( "OwnLevel", true );
   handle.levelIs( 7, true );
   KIV_TRACE( handle, 8, "Ordovan", "eight" );
   KIV_TRACE( handle, 7, "Ordovan", "seven" );
   handle.masterIs( false );
   KIV_TRACE( handle, 7, "Ordovan", "seven again" );
   EXPECT_EQ( sink.taken(), ( Texts{ "seven" } ) );
}

TEST( TracePoint, ThatIsSwitchedOffEvaluatesNoPiece ) {
   Loop loop;
   Sink sink;
   TraceHandle handle( "NotEvaluated", false );
   handle.levelIs( 8, true );
   int evaluated = 0;
   auto const piece = [ & ] {
      ++evaluated;
      return "piece";
   };
   KIV_TRACE( handle, 8, "Ordovan", piece(), piece() );
   EXPECT_EQ( evaluated, 0 );
   handle.masterIs( true );
   KIV_TRACE( handle, 9, "Ordovan", piece(), piece() );
   EXPECT_EQ( evaluated, 0 );
   KIV_TRACE( handle, 8, "Ordovan", piece(), piece() );
   EXPECT_EQ( evaluated, 2 ) << "each once when it is on";
}

TEST( TracePoint, IsOneStatement ) {
   Loop loop;
   Sink sink;
   TraceHandle handle( "Statement", true );
   handle.levelIs( 8, true );
   if( handle.level( 9 ) )
      KIV_TRACE( handle, 8, "Ordovan", "then" );
   else
      KIV_TRACE( handle, 8, "Ordovan", "else" );
   EXPECT_EQ( sink.taken(), ( Texts{ "else" } ) );
}

TEST( TracePoint, PrintsValuesAsTextsOfTheSystemDo ) {
   Loop loop;
   Sink sink;
   TraceHandle handle( "Values", true );
   handle.levelIs( 8, true );
   Ptr< Kiv::Dir > const outer = Kiv::Dir::DirIs( "outer" );
   Ptr< Kiv::Dir > const inner = Kiv::Dir::DirIs( "inner" );
   inner->parentIs( outer );
   KIV_TRACE( handle, 8, "S", true, " ", false );
   KIV_TRACE( handle, 8, "S", 0.1, " ", 30.0, " ", Kiv::infinity );
   KIV_TRACE( handle, 8, "S", 3, " ", 4U, " ", std::size_t{ 5 } );
   KIV_TRACE( handle, 8, "S", *inner, " ", inner, " ", Ptr< Kiv::Dir const >( outer ), " ",
              Ptr< Kiv::Dir >() );
   KIV_TRACE( handle, 8, "S", std::string( "string" ) );
   EXPECT_EQ( sink.taken(), ( Texts{ "true false", "0.1 30 inf", "3 4 5",
                                     "outer/inner outer/inner outer null", "string" } ) );
}

TEST( TracePoint, PrintsNumbersToTheirLimits ) {
   Loop loop;
   Sink sink;
   TraceHandle handle( "Limits", true );
   handle.levelIs( 8, true );
   using Wide = std::numeric_limits< std::int64_t >;
   KIV_TRACE( handle, 8, "S", Wide::min(), " ", std::numeric_limits< std::uint64_t >::max() );
   KIV_TRACE( handle, 8, "S", std::numeric_limits< int >::min(), " ",
              std::numeric_limits< unsigned >::max() );
   std::string reals;
   for( double const real :
        { 0.0, -0.0, 1e22, 1.0 / 3, 5e-324, -1.7976931348623157e308, Kiv::infinity, -Kiv::infinity,
          std::nan( "" ), -std::nan( "" ), 123456789.125 } ) {
      KIV_TRACE( handle, 8, "S", real );
      EXPECT_EQ( sink.lines.back().text, Kiv::valueToString( real ) );
      reals += sink.lines.back().text.str() + ' ';
   }
   EXPECT_EQ( reals, "0 -0 1e+22 0.3333333333333333 5e-324 -1.7976931348623157e+308 inf -inf nan "
                     "nan 123456789.125 " );
   sink.lines.resize( 2 );
   EXPECT_EQ( sink.taken(),
              ( Texts{ "-9223372036854775808 18446744073709551615", "-2147483648 4294967295" } ) );
}

// A line stands in a buffer on the stack while it fits there.
TEST( TracePoint, PrintsLinesOfEveryLength ) {
   Loop loop;
   Sink sink;
   TraceHandle handle( "Lengths", true );
   handle.levelIs( 8, true );
   std::string const text( 2000, 'x' );
   for( std::size_t length = 0; length != text.size(); ++length ) {
      std::string const first = text.substr( 0, length );
      std::string const second = text.substr( 0, length * 7 % 1000 );
      Coverage const coverage;
      KIV_TRACE( handle, 8, "S", first, "|", length, "|", second, "|", second, "|end" );
      std::string const whole =
         first + "|" + std::to_string( length ) + "|" + second + "|" + second + "|end";
      ASSERT_EQ( sink.taken(), Texts{ whole } );
      ASSERT_EQ( coverage.text(), whole + "\n" );
   }
}

TEST( TracePoint, ThatCannotEvaluateAPieceLosesTheTraceAndDisturbsNobody ) {
   Loop loop;
   Sink sink;
   TraceHandle handle( "Thrower", true );
   handle.levelIs( 8, true );
   auto const piece = []() -> int { throw std::runtime_error( "no\npiece" ); };
   auto const other = []() -> int { throw 1; };
   testing::internal::CaptureStderr();
   KIV_TRACE( handle, 8, "S", "a piece: ", piece() );
   KIV_TRACE( handle, 8, "S", "another: ", other() );
   KIV_TRACE( handle, 9, "S", "off: ", piece() );
   EXPECT_EQ( testing::internal::GetCapturedStderr(),
              "kiv: a trace of TestBody was lost: no\\x0apiece\n"
              "kiv: a trace of TestBody was lost\n" );
   EXPECT_EQ( sink.taken(), Texts() );
}

TEST( TracePoint, MayStandInACatchOfAFunctionThatPromisesNotToThrow ) {
   Loop loop;
   TraceHandle handle( "Promise", true );
   handle.levelIs( 8, true );
   Kiv::TraceSink const before = Kiv::traceSinkIs( []( TraceLine const & ) { throw 1; } );
   std::string still;
   auto const promise = [ & ]() noexcept {
      try {
         throw std::runtime_error( "outer" );
      } catch( std::exception const & ) {
         KIV_TRACE( handle, 8, "S", "failed" );
         try {
            throw;
         } catch( std::exception const & e ) {
            still = e.what();
         }
      }
   };
   testing::internal::CaptureStderr();
   promise();
   EXPECT_EQ( testing::internal::GetCapturedStderr(), "kiv: a trace of operator() was lost\n" );
   Kiv::traceSinkIs( before );
   EXPECT_EQ( still, "outer" ) << "the exception that is being handled is the same after the trace";
}

// An array that can change is no literal part, whose text the ring keeps once. Those that can be
// told apart by their type are not even a piece; tests/refused has the others.
static_assert( !std::is_constructible_v< Kiv::detail::TracePiece, char ( & )[ 4 ] > );
static_assert( std::is_constructible_v< Kiv::detail::TracePiece, char const * > );
static_assert( std::is_constructible_v< Kiv::detail::TracePiece, char * > );

TEST( TraceHelper, MarksALineWhoseStreamHasRunOutOfMemory ) {
   Loop loop;
   Sink sink;
   std::ostringstream stream;
   stream << "only the beg";
   Kiv::traceHelper( "H", stream, 8, true, "S", 1, "f" );
   stream.setstate( std::ios::badbit );
   Kiv::traceHelper( "H", stream, 8, true, "S", 1, "f" );
   EXPECT_EQ( sink.taken(), ( Texts{ "only the beg", "only the beg... (cut short: no memory)" } ) );
}

// ----------------------------------------------------------------------------------------- sinks

TEST( TraceSink, IsReplacedAndGivenBack ) {
   Loop loop;
   TraceHandle handle( "Replaced", true );
   handle.levelIs( 1, true );
   Texts first;
   Kiv::TraceSink const before =
      Kiv::traceSinkIs( [ & ]( TraceLine const & l ) { first.push_back( l.text.str() ); } );
   {
      Sink second;
      KIV_TRACE( handle, 1, "S", "to the second" );
      EXPECT_EQ( second.taken(), ( Texts{ "to the second" } ) );
   }
   KIV_TRACE( handle, 1, "S", "to the first" );
   Kiv::traceSinkIs( before );
   EXPECT_EQ( first, ( Texts{ "to the first" } ) );
}

TEST( TraceSink, ByDefaultWritesALineEachToStandardError ) {
   Loop loop( 12.5 );
   Kiv::TraceSink const before = Kiv::traceSinkIs( {} );
   TraceHandle handle( "Somewhere", true );
   handle.levelIs( 8, true );
   testing::internal::CaptureStderr();
   int const line = __LINE__ + 1;
   KIV_TRACE( handle, 8, "Ordovan", "first" );
   KIV_TRACE( handle, 9, "Ordovan", "off" );
   KIV_TRACE( handle, 8, "Ordovan", "second" );
   std::string const written = testing::internal::GetCapturedStderr();
   Kiv::traceSinkIs( before );
   EXPECT_EQ( written, "12.500000 Somewhere/8 Ordovan:" + std::to_string( line ) +
                          " TestBody: first\n" + "12.500000 Somewhere/8 Ordovan:" +
                          std::to_string( line + 2 ) + " TestBody: second\n" );
}

TEST( TraceSink, ByDefaultWritesOneLineAlsoForAPieceWithANewLineOrANul ) {
   Loop loop;
   Kiv::TraceSink const before = Kiv::traceSinkIs( {} );
   TraceHandle handle( "OddPieces", true );
   handle.levelIs( 8, true );
   testing::internal::CaptureStderr();
   KIV_TRACE( handle, 8, "S", String8( "a\nb" ), "|", String8( std::string_view( "\0", 1 ) ),
              "|end" );
   std::string const written = testing::internal::GetCapturedStderr();
   Kiv::traceSinkIs( before );
   EXPECT_EQ( written.substr( written.find( "TestBody: " ) ), "TestBody: a\\x0ab|\\x00|end\n" );
}

TEST( TraceSink, ByDefaultWritesLongLinesWholeWithTheirControlCharactersShown ) {
   Loop loop;
   Kiv::TraceSink const before = Kiv::traceSinkIs( {} );
   TraceHandle handle( "LongLines", true );
   handle.levelIs( 8, true );
   for( std::size_t const between : { 1U, 2U, 255U, 256U, 257U, 300U, 5000U } ) {
      std::string text;
      std::string shown;
      for( std::size_t i = 0; i != 4000; ++i ) {
         bool const control = i % between == between - 1;
         text += control ? '\n' : 'a';
         shown += control ? "\\x0a" : "a";
      }
      testing::internal::CaptureStderr();
      KIV_TRACE( handle, 8, "S", text );
      std::string const written = testing::internal::GetCapturedStderr();
      EXPECT_EQ( written.substr( written.find( "TestBody: " ) + 10 ), shown + "\n" );
      EXPECT_TRUE( Kiv::traceText( { 1.5, "H", 8, "S", 7, "f", text } ) ==
                   "1.500000 H/8 S:7 f: " + shown );
      // What is written without memory goes through the same.
      testing::internal::CaptureStderr();
      KIV_TRACE( handle, 8, "S", [ & ]() -> int { throw std::runtime_error( text ); }() );
      EXPECT_EQ( testing::internal::GetCapturedStderr(),
                 "kiv: a trace of TestBody was lost: " + shown + "\n" );
   }
   Kiv::traceSinkIs( before );
}

TEST( TraceSink, ThatThrowsLosesTheTraceAndDisturbsNobody ) {
   Loop loop;
   TraceHandle handle( "Throwing", true );
   handle.levelIs( 1, true );
   Kiv::TraceSink const before =
      Kiv::traceSinkIs( []( TraceLine const & ) { throw std::runtime_error( "no\npaper" ); } );
   testing::internal::CaptureStderr();
   KIV_TRACE( handle, 1, "S", "to nobody" );
   EXPECT_EQ( testing::internal::GetCapturedStderr(),
              "kiv: a trace of TestBody was lost: no\\x0apaper\n" );
   Kiv::traceSinkIs( before );
}

// -------------------------------------------------------------------------------------- coverage

TEST( CoverageStream, GetsTheTextOfEveryPointWhateverTheSwitchesSay ) {
   Loop loop;
   Sink sink;
   TraceHandle handle( "Covered", false );
   {
      Coverage const coverage;
      KIV_TRACE( handle, 8, "S", "off ", 1 );
      KIV_TRACE( handle, 0, "S", "off ", 2 );
      EXPECT_EQ( coverage.text(), "off 1\noff 2\n" );
      EXPECT_TRUE( sink.taken().empty() ) << "the sink follows the switches";
      handle.masterIs( true );
      handle.levelIs( 8, true );
      KIV_TRACE( handle, 8, "S", "on" );
      EXPECT_EQ( coverage.text(), "off 1\noff 2\non\n" );
      EXPECT_EQ( sink.taken(), ( Texts{ "on" } ) );
   }
   KIV_TRACE( handle, 0, "S", "after" );
   EXPECT_TRUE( sink.taken().empty() );
}
