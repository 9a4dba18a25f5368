// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <simulation/Json.h>

#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <random>

#include <gtest/gtest.h>

namespace {

using Simulation::Json;
using Simulation::jsonNumber;
using Simulation::jsonString;

TEST( Json, AStringStandsBetweenQuotes ) {
   EXPECT_EQ( jsonString( "" ), R"("")" );
   EXPECT_EQ( jsonString( "Boot" ), R"("Boot")" );
}

TEST( Json, QuotesAndBackslashesAreEscaped ) {
   EXPECT_EQ( jsonString( R"(a"b\c/d)" ), R"("a\"b\\c/d")" );
}

TEST( Json, ControlCharactersAreEscapedAndNulIsNoEnd ) {
   EXPECT_EQ( jsonString( std::string_view( "a\0b", 3 ) ), R"("a\u0000b")" );
   EXPECT_EQ( jsonString( "\b\t\n\f\r\x01\x1f\x7f" ), R"("\b\t\n\f\r\u0001\u001f\u007f")" );
}

TEST( Json, CharactersBeyondAsciiStayAsTheyAre ) {
   EXPECT_EQ( jsonString( "h\u00f6ren \u20ac \U0001F600" ), "\"h\u00f6ren \u20ac \U0001F600\"" );
}

TEST( Json, BytesThatAreNoUtf8AreReplacedOneByOne ) {
   EXPECT_EQ( jsonString( "a\xff"
                          "b" ),
              "\"a\uFFFD"
              "b\"" );
   EXPECT_EQ( jsonString( "\xc3" ), "\"\uFFFD\"" );                     // cut off
   EXPECT_EQ( jsonString( "\xc0\xaf" ), "\"\uFFFD\uFFFD\"" );           // overlong
   EXPECT_EQ( jsonString( "\xed\xa0\x80" ), "\"\uFFFD\uFFFD\uFFFD\"" ); // a surrogate
   EXPECT_EQ( jsonString( "\xf4\x90\x80\x80" ), "\"\uFFFD\uFFFD\uFFFD\uFFFD\"" );
}

TEST( Json, IntegersAreWrittenInFull ) {
   EXPECT_EQ( jsonNumber( 0 ), "0" );
   EXPECT_EQ( jsonNumber( 30 ), "30" );
   EXPECT_EQ( jsonNumber( 100000 ), "100000" );
   EXPECT_EQ( jsonNumber( 9007199254740992.0 ), "9007199254740992" );
   EXPECT_EQ( jsonNumber( -7 ), "-7" );
}

TEST( Json, FractionsAreWrittenAsTheShortestTextThatReadsBack ) {
   EXPECT_EQ( jsonNumber( 31.5 ), "31.5" );
   EXPECT_EQ( jsonNumber( 0.1 ), "0.1" );
   EXPECT_EQ( jsonNumber( 0.1 + 0.2 ), "0.30000000000000004" );
   EXPECT_EQ( jsonNumber( 1e300 ), "1e+300" );
   EXPECT_EQ( jsonNumber( DBL_MIN ), "2.2250738585072014e-308" );
}

TEST( Json, WhatIsNoNumberInJsonIsAString ) {
   EXPECT_EQ( jsonNumber( std::numeric_limits< double >::infinity() ), R"("inf")" );
   EXPECT_EQ( jsonNumber( -std::numeric_limits< double >::infinity() ), R"("-inf")" );
   EXPECT_EQ( jsonNumber( std::numeric_limits< double >::quiet_NaN() ), R"("nan")" );
}

TEST( Json, EveryNumberReadsBackAsTheSameDouble ) {
   std::mt19937_64 random( 1 );
   for( int i = 0; i < 100000; ++i ) {
      std::uint64_t const bits = random();
      double value = 0;
      std::memcpy( &value, &bits, sizeof value );
      if( std::isfinite( value ) )
         ASSERT_EQ( std::strtod( jsonNumber( value ).c_str(), nullptr ), value );
   }
}

TEST( Json, AValueMayStandAlone ) {
   EXPECT_EQ( Json().value( "true" ).text(), R"("true")" );
   EXPECT_EQ( Json().value( true ).text(), "true" );
   EXPECT_EQ( Json().value( std::uint64_t( -1 ) ).text(), "18446744073709551615" );
   EXPECT_EQ( Json().null().text(), "null" );
   EXPECT_EQ( Json().object( Json::Layout::lines ).end().text(), "{}" );
}

// The same members in an object of a layout, with an object and an array in the usual one.
std::string laidOut( Json::Layout layout ) {
   Json json;
   json.object( layout ).member( "a", 1 ).key( "b" ).object().member( "c", "d" ).end();
   json.key( "e" ).array().value( 2.5 ).value( false ).end().end();
   return json.text();
}

TEST( Json, MembersAreSetApartAsTheirOwnObjectOrArraySays ) {
   EXPECT_EQ( laidOut( Json::Layout::dense ), R"({"a":1,"b":{"c": "d"},"e":[2.5, false]})" );
   EXPECT_EQ( laidOut( Json::Layout::spaced ), R"({"a": 1, "b": {"c": "d"}, "e": [2.5, false]})" );
   EXPECT_EQ( laidOut( Json::Layout::lines ), "{\n  \"a\": 1,\n  \"b\": {\"c\": \"d\"},\n"
                                              "  \"e\": [2.5, false]\n}" );
}

TEST( Json, LinesAreIndentedByWhatIsLaidOutInLines ) {
   Json json;
   json.object( Json::Layout::lines ).key( "a" ).object().key( "b" );
   json.array( Json::Layout::lines ).null().null().end().end().member( "c", 0 ).end();
   EXPECT_EQ( json.text(), "{\n  \"a\": {\"b\": [\n    null,\n    null\n  ]},\n  \"c\": 0\n}" );
}

} // namespace
