// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include "../support/Loop.h"
#include "../support/Sink.h"

#include <Kiv/Kiv.h>

#include <gtest/gtest.h>

#include <limits>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

using Kiv::LogHandle;
using Kiv::LogMessage;
using Kiv::Name;
using Kiv::String8;
using testing_support::Loop;
using Sink = testing_support::LogMessages;
using Texts = std::vector< std::string >;

namespace {

// One that limits each key to `count` messages in ten seconds.
struct Limited : LogHandle {
   Limited( double count, unsigned char rateLimitArgs )
      : LogHandle( "LIMITED", 4, "%s %s", "why", Kiv::NoActionRequired, 10, count, rateLimitArgs ) {
   }
};

std::string formatted( String8 const & format, std::vector< String8 > arguments ) {
   Sink sink;
   LogHandle handle( "ID", 4, format, "", "", 0, 1, 0 );
   handle.log( 0, arguments.data(), static_cast< unsigned >( arguments.size() ) );
   return sink.taken().at( 0 );
}

} // namespace

// --------------------------------------------------------------------------------------- the
// handle

TEST( LogHandle, KeepsWhatItDeclares ) {
   LogHandle const handle( "SOME_ID", 4, "%s", "explained", "act", 2.5, 3.0, 255 );
   EXPECT_EQ( handle.id(), String8( "SOME_ID" ) );
   EXPECT_EQ( handle.severity(), 4U );
   EXPECT_EQ( handle.format(), String8( "%s" ) );
   EXPECT_EQ( handle.explanation(), String8( "explained" ) );
   EXPECT_EQ( handle.recommendedAction(), String8( "act" ) );
   EXPECT_EQ( handle.interval(), 2.5 );
   EXPECT_EQ( handle.count(), 3.0 );
   EXPECT_EQ( handle.rateLimitArgs(), 255U );
   EXPECT_EQ( handle.idHash(), String8( "SOME_ID" ).hash() );
}

TEST( Log, HandsTheSinkEverythingThatTheHandleDeclares ) {
   Loop loop( 12.5 );
   Sink sink;
   LogHandle handle( "SOME_ID", 4, "%s stage %s timed out", "explained", "act", 0, 1, 0 );
   Kiv::log( handle, String8( "app" ), Name( "Net" ) );
   ASSERT_EQ( sink.lines.size(), 1U );
   LogMessage const & message = sink.lines[ 0 ];
   EXPECT_EQ( message.time, 12.5 );
   EXPECT_EQ( message.id, String8( "SOME_ID" ) );
   EXPECT_EQ( message.severity, 4U );
   EXPECT_EQ( message.text, String8( "app stage Net timed out" ) );
   EXPECT_EQ( message.explanation, String8( "explained" ) );
   EXPECT_EQ( message.recommendedAction, String8( "act" ) );
}

TEST( Log, ConvertsItsArgumentsAsValuesAre ) {
   Loop loop;
   Sink sink;
   LogHandle handle( "ID", 4, "%s and %s", "", "", 0, 1, 1 );
   Kiv::log( handle, 2.5, true );
   Kiv::log( handle, 7U, Kiv::infinity );
   EXPECT_EQ( sink.taken(), ( Texts{ "2.5 and true", "7 and inf" } ) );
}

// ------------------------------------------------------------------------------------------ format

TEST( LogFormat, PutsAnArgumentInPlaceOfEachPercentS ) {
   EXPECT_EQ( formatted( "%s-%s", { "a", "b" } ), "a-b" );
   EXPECT_EQ( formatted( "%s%s", { "a", "b" } ), "ab" );
   EXPECT_EQ( formatted( "none", { "a", "b" } ), "none" );
   EXPECT_EQ( formatted( "", { "a" } ), "" );
   EXPECT_EQ( formatted( "%s", { "" } ), "" );
}

TEST( LogFormat, WritesAPercentSignForTwo ) {
   EXPECT_EQ( formatted( "100%%", {} ), "100%" );
   EXPECT_EQ( formatted( "%%s %s", { "a" } ), "%s a" );
   EXPECT_EQ( formatted( "%%%s%%", { "a" } ), "%a%" );
}

TEST( LogFormat, LeavesEverythingElseAsItIs ) {
   EXPECT_EQ( formatted( "%d %", { "a" } ), "%d %" );
   EXPECT_EQ( formatted( "%s %s", { "a" } ), "a %s" ) << "there is no second argument";
}

TEST( LogFormat, DoesNotLookInsideAnArgument ) {
   EXPECT_EQ( formatted( "%s %s", { "%s", "50%%" } ), "%s 50%%" );
   EXPECT_EQ( formatted( "<%s>", { String8( std::string_view( "a\0b", 3 ) ) } ),
              std::string( "<a\0b>", 5 ) );
}

// ---------------------------------------------------------------------------------------- the
// limit

TEST( LogLimit, IsNoneWithoutAnInterval ) {
   Loop loop;
   for( double interval : { 0.0, -1.0, std::numeric_limits< double >::quiet_NaN() } ) {
      LogHandle handle( "ID", 4, "%s %s", "", "", interval, 1, 0 );
      for( int n = 0; n != 100; ++n )
         EXPECT_TRUE( handle.okToLog( 1 ) );
   }
}

TEST( LogLimit, IsACountPerIntervalThatStartsWithItsFirstMessage ) {
   Loop loop( 1000 );
   Limited handle( 2, 0 );
   auto const ok = [ & ]( double time ) {
      loop.clock()->nowIs( time );
      return handle.okToLog( 1 );
   };
   EXPECT_TRUE( ok( 1003 ) );
   EXPECT_TRUE( ok( 1009 ) );
   EXPECT_FALSE( ok( 1009 ) );
   EXPECT_FALSE( ok( 1012.9 ) );
   EXPECT_TRUE( ok( 1013 ) ) << "ten seconds after the first: a new interval";
   EXPECT_TRUE( ok( 1013 ) );
   EXPECT_FALSE( ok( 1022 ) );
   EXPECT_TRUE( ok( 1040 ) );
}

TEST( LogLimit, OfNoMessagesSuppressesAll ) {
   Loop loop;
   Limited handle( 0, 0 );
   EXPECT_FALSE( handle.okToLog( 1 ) );
   loop.clock()->nowIs( 2000 );
   EXPECT_FALSE( handle.okToLog( 1 ) );
}

TEST( LogLimit, CountsEveryKeyByItself ) {
   Loop loop( 1000 );
   Limited handle( 1, 0 );
   EXPECT_TRUE( handle.okToLog( 1 ) );
   loop.clock()->nowIs( 1005 );
   EXPECT_TRUE( handle.okToLog( 2 ) );
   EXPECT_FALSE( handle.okToLog( 1 ) );
   EXPECT_FALSE( handle.okToLog( 2 ) );
   loop.clock()->nowIs( 1010 );
   EXPECT_TRUE( handle.okToLog( 1 ) );
   EXPECT_FALSE( handle.okToLog( 2 ) ) << "its interval began later";
}

TEST( LogLimit, OfOneHandleIsNoneOfAnother ) {
   Loop loop;
   Limited one( 1, 0 );
   Limited two( 1, 0 );
   EXPECT_TRUE( one.okToLog( 1 ) );
   EXPECT_TRUE( two.okToLog( 1 ) );
   EXPECT_FALSE( one.okToLog( 1 ) );
}

// ------------------------------------------------------------------------------------------ the
// key

namespace {

// Which of ( a x ), ( a y ), ( b x ), ( a x ) a limit of one message per key lets through.
Texts through( unsigned char rateLimitArgs ) {
   Loop loop;
   Sink sink;
   Limited handle( 1, rateLimitArgs );
   for( auto const & [ first, second ] : std::vector< std::pair< String8, Name > >{
           { "a", "x" }, { "a", "y" }, { "b", "x" }, { "a", "x" } } )
      Kiv::log( handle, first, second );
   return sink.taken();
}

} // namespace

TEST( LogKey, IsEmptyWithoutLimitArguments ) { EXPECT_EQ( through( 0 ), ( Texts{ "a x" } ) ); }

TEST( LogKey, IsTheFirstArgumentAlone ) { EXPECT_EQ( through( 1 ), ( Texts{ "a x", "b x" } ) ); }

TEST( LogKey, IsBothArguments ) { EXPECT_EQ( through( 2 ), ( Texts{ "a x", "a y", "b x" } ) ); }

TEST( LogKey, IsNeverMoreThanBothArguments ) {
   EXPECT_EQ( through( 3 ), ( Texts{ "a x", "a y", "b x" } ) );
   EXPECT_EQ( through( 255 ), ( Texts{ "a x", "a y", "b x" } ) );
}

TEST( LogKey, AsksWithTheHashOfTheIdXorThatOfTheArgumentsJoined ) {
   Loop loop;
   struct Case {
      unsigned char rateLimitArgs;
      char const * key;
   };
   for( auto const & [ rateLimitArgs, key ] :
        { Case{ 0, "" }, Case{ 1, "app" }, Case{ 2, "appNet" }, Case{ 255, "appNet" } } ) {
      Sink sink;
      Limited handle( 1, rateLimitArgs );
      ASSERT_TRUE( handle.okToLog( handle.idHash() ^ String8( key ).hash() ) );
      Kiv::log( handle, String8( "app" ), Name( "Net" ) );
      EXPECT_TRUE( sink.taken().empty() ) << "the key was used up: " << key;
      Limited other( 1, rateLimitArgs );
      ASSERT_TRUE( other.okToLog( String8( key ).hash() ) );
      Kiv::log( other, String8( "app" ), Name( "Net" ) );
      EXPECT_EQ( sink.taken(), ( Texts{ "app Net" } ) ) << "another key was: " << key;
   }
}

TEST( LogKey, HandsOnTheHashOfTheArgumentsJoinedAndNotThatWithTheId ) {
   Loop loop;
   struct Case {
      unsigned char rateLimitArgs;
      char const * key;
   };
   for( auto const & [ rateLimitArgs, key ] :
        { Case{ 0, "" }, Case{ 1, "app" }, Case{ 2, "appNet" }, Case{ 255, "appNet" } } ) {
      Sink sink;
      Limited handle( 1, rateLimitArgs );
      Kiv::log( handle, String8( "app" ), Name( "Net" ) );
      ASSERT_EQ( sink.lines.size(), 1U );
      EXPECT_EQ( sink.lines[ 0 ].keyHash, String8( key ).hash() );
   }
}

TEST( LogKey, JoinsTheArgumentsWithoutASeparator ) {
   Loop loop;
   Sink sink;
   Limited handle( 1, 2 );
   Kiv::log( handle, String8( "ab" ), String8( "c" ) );
   Kiv::log( handle, String8( "a" ), String8( "bc" ) );
   EXPECT_EQ( sink.taken(), ( Texts{ "ab c" } ) );
}

TEST( Log, ThatIsSuppressedReachesNoSinkAndTheNextIntervalIsHeardAgain ) {
   Loop loop( 1000 );
   Sink sink;
   Limited handle( 1, 1 );
   for( int n = 0; n != 5; ++n )
      Kiv::log( handle, String8( "app" ), String8( std::to_string( n ) ) );
   loop.clock()->nowIs( 1010 );
   Kiv::log( handle, String8( "app" ), String8( "later" ) );
   EXPECT_EQ( sink.taken(), ( Texts{ "app 0", "app later" } ) );
}

// ----------------------------------------------------------------------------------------- the
// sink

TEST( LogSink, IsReplacedAndGivenBack ) {
   Loop loop;
   int first = 0;
   int second = 0;
   LogHandle handle( "ID", 4, "%s%s", "", "", 0, 1, 0 );
   Kiv::LogSink const before = Kiv::logSinkIs( [ & ]( LogMessage const & ) { ++first; } );
   Kiv::log( handle, String8( "a" ), String8( "b" ) );
   Kiv::LogSink const replaced = Kiv::logSinkIs( [ & ]( LogMessage const & ) { ++second; } );
   Kiv::log( handle, String8( "a" ), String8( "b" ) );
   EXPECT_EQ( first, 1 );
   EXPECT_EQ( second, 1 );
   ASSERT_TRUE( replaced );
   Kiv::logSinkIs( replaced );
   Kiv::log( handle, String8( "a" ), String8( "b" ) );
   EXPECT_EQ( first, 2 );
   Kiv::logSinkIs( before );
}

TEST( LogSink, MayReplaceItselfAndLog ) {
   Loop loop;
   Texts texts;
   LogHandle handle( "ID", 4, "%s%s", "", "", 0, 1, 0 );
   Kiv::LogSink const before = Kiv::logSinkIs( [ & ]( LogMessage const & ) {
      Kiv::logSinkIs( [ & ]( LogMessage const & m ) { texts.push_back( m.text.str() ); } );
      Kiv::log( handle, String8( "from" ), String8( "inside" ) );
      texts.push_back( "outside" );
   } );
   Kiv::log( handle, String8( "a" ), String8( "b" ) );
   Kiv::logSinkIs( before );
   EXPECT_EQ( texts, ( Texts{ "frominside", "outside" } ) );
}

TEST( LogSink, ByDefaultWritesALineAMessageToStandardError ) {
   Loop loop;
   Kiv::LogSink const before = Kiv::logSinkIs( {} );
   LogHandle handle( "SOME_ID", 4, "%s stage %s timed out", "explained", "act", 0, 1, 0 );
   testing::internal::CaptureStderr();
   Kiv::log( handle, String8( "app" ), String8( "Net" ) );
   Kiv::log( handle, String8( "app" ), String8( "Disk" ) );
   std::string const written = testing::internal::GetCapturedStderr();
   Kiv::logSinkIs( before );
   EXPECT_EQ( written, "SOME_ID: app stage Net timed out\nSOME_ID: app stage Disk timed out\n" );
}

TEST( LogSink, ByDefaultWritesOneLineAlsoForAnArgumentWithANewLineOrANul ) {
   Loop loop;
   Kiv::LogSink const before = Kiv::logSinkIs( {} );
   LogHandle handle( "SOME_ID", 4, "%s|%s", "", "", 0, 1, 0 );
   testing::internal::CaptureStderr();
   Kiv::log( handle, String8( "a\nb" ), String8( "end" ) );
   Kiv::log( handle, String8( std::string_view( "a\0b", 3 ) ), String8( "\x7f" ) );
   Kiv::log( handle, String8( "a\\x0ab" ), String8( "C:\\y\xc3\xa4" ) );
   std::string const written = testing::internal::GetCapturedStderr();
   Kiv::logSinkIs( before );
   EXPECT_EQ( written, "SOME_ID: a\\x0ab|end\n"
                       "SOME_ID: a\\x00b|\\x7f\n"
                       "SOME_ID: a\\x5cx0ab|C:\\y\xc3\xa4\n" );
}

TEST( LogSink, OfOnesOwnGetsTheTextAsItIs ) {
   Loop loop;
   Sink sink;
   LogHandle handle( "SOME_ID", 4, "%s|%s", "", "", 0, 1, 0 );
   Kiv::log( handle, String8( "a\nb" ), String8( std::string_view( "\0", 1 ) ) );
   EXPECT_EQ( sink.taken(), Texts{ std::string( "a\nb|\0", 5 ) } );
}

// ------------------------------------------------------------------------------- a sink that fails

namespace {

// What standard error shows when a sink does that with a message.
std::string shownWhen( Kiv::LogSink sink ) {
   LogHandle handle( "SOME_ID", 4, "%s stage %s timed out", "", "", 0, 1, 0 );
   Kiv::LogSink const before = Kiv::logSinkIs( std::move( sink ) );
   testing::internal::CaptureStderr();
   EXPECT_NO_THROW( Kiv::log( handle, String8( "a\npp" ), String8( "Net" ) ) );
   std::string shown = testing::internal::GetCapturedStderr();
   Kiv::logSinkIs( before );
   return shown;
}

} // namespace

TEST( LogSink, ThatThrowsDisturbsNobodyAndTheMessageIsToldInFull ) {
   Loop loop;
   EXPECT_EQ(
      shownWhen( []( LogMessage const & ) { throw std::runtime_error( "no\npaper" ); } ),
      "kiv: a log message was lost (no\\x0apaper): SOME_ID: a\\x0app stage Net timed out\n" );
   EXPECT_EQ(
      shownWhen( []( LogMessage const & ) { throw 1; } ),
      "kiv: a log message was lost (not a std::exception): SOME_ID: a\\x0app stage Net timed "
      "out\n" );
}

TEST( LogSink, ThatThrowsIsCalledForTheNextMessageAsBefore ) {
   Loop loop;
   Texts texts;
   LogHandle handle( "ID", 4, "%s%s", "", "", 0, 1, 0 );
   Kiv::LogSink const before = Kiv::logSinkIs( [ & ]( LogMessage const & message ) {
      texts.push_back( message.text.str() );
      throw std::runtime_error( "every time" );
   } );
   testing::internal::CaptureStderr();
   handle.log( 0, std::vector< String8 >{ "a", "b" }.data(), 2 );
   Kiv::log( handle, String8( "c" ), String8( "d" ) );
   testing::internal::GetCapturedStderr();
   Kiv::logSinkIs( before );
   EXPECT_EQ( texts, ( Texts{ "ab", "cd" } ) );
}

TEST( LogSink, ThatThrowsIsToldOfALongMessageToo ) {
   Loop loop;
   std::string const longName( 5000, 'x' );
   LogHandle handle( "ID", 4, "%s%s", "", "", 0, 1, 0 );
   Kiv::LogSink const before = Kiv::logSinkIs( []( LogMessage const & ) { throw 1; } );
   testing::internal::CaptureStderr();
   Kiv::log( handle, String8( longName ), String8( "end" ) );
   EXPECT_EQ( testing::internal::GetCapturedStderr(),
              "kiv: a log message was lost (not a std::exception): ID: " + longName + "end\n" );
   Kiv::logSinkIs( before );
}
