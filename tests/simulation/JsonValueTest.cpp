// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <simulation/JsonValue.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <simulation/Json.h>

namespace {

using namespace Simulation;
using namespace std::string_literals;
using Kind = JsonValue::Kind;

std::string mistakeIn( std::string_view text ) {
   try {
      jsonValue( text );
   } catch( JsonError const & error ) {
      return error.what();
   }
   return "none";
}

TEST( JsonValue, EveryKindOfValueIsRead ) {
   EXPECT_EQ( jsonValue( " null " ).kind, Kind::null );
   EXPECT_TRUE( jsonValue( "true" ).boolean );
   EXPECT_EQ( jsonValue( "false" ).kind, Kind::boolean );
   EXPECT_EQ( jsonValue( "-12.5e1" ).number, -125 );
   EXPECT_EQ( jsonValue( "\"abc\"" ).text, "abc" );
   EXPECT_EQ( jsonValue( "[1, 2 ,[ ] ]" ).item.size(), 3U );
   auto const object = jsonValue( "{ \"b\" : 1,\"a\":{\"c\": [true]}}\n" );
   ASSERT_EQ( object.member.size(), 2U );
   EXPECT_EQ( object.member[ 0 ].name, "b" ); // in the order of the text
   EXPECT_TRUE( object.find( "a" )->find( "c" )->item.at( 0 ).boolean );
   EXPECT_EQ( object.find( "c" ), nullptr );
}

TEST( JsonValue, EveryEscapeIsRead ) {
   EXPECT_EQ( jsonValue( R"("\"\\\/\b\f\n\r\t")" ).text, "\"\\/\b\f\n\r\t" );
   EXPECT_EQ( jsonValue( R"("\u0000\u0041\u00e9\u20AC\ud83d\ude00")" ).text,
              "\0A\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"s );
}

TEST( JsonValue, WhatIsWrittenIsReadBack ) {
   std::string every;
   for( int c = 0; c != 128; ++c )
      every += static_cast< char >( c );
   every += "\xC3\xA9\xF0\x9F\x98\x80";
   EXPECT_EQ( jsonValue( jsonString( every ) ).text, every );
   for( double const number :
        { 0.0, 1.0, 0.1, 1e-6, 123456789.123456, 1e300, 5e-324, 9007199254740993.0 } )
      EXPECT_EQ( jsonValue( jsonNumber( number ) ).number, number );
}

TEST( JsonValue, WhatIsNoJsonIsRefusedWithItsPlace ) {
   std::vector< std::pair< std::string, std::string > > const wrong = {
      { "", "byte 1: expected a value" },
      { "nul", "byte 1: expected a value" },
      { "01", "byte 2: expected nothing after the value" },
      { "+1", "byte 1: expected a value" },
      { "1.", "byte 1: expected a value" },
      { ".5", "byte 1: expected a value" },
      { "1e", "byte 1: expected a value" },
      { "-", "byte 1: expected a value" },
      { "1e999", "byte 6: the number is out of range" },
      { "NaN", "byte 1: expected a value" },
      { "{} {}", "byte 4: expected nothing after the value" },
      { "{\"a\": 1,}", "byte 9: expected a key in quotes" },
      { "{\"a\" 1}", "byte 6: expected \":\" after a key" },
      { "{\"a\": 1", "byte 8: expected \",\" or \"}\"" },
      { "{\"a\": 1, \"a\": 1}", "byte 13: the key \"a\" stands there twice" },
      { "[1, ]", "byte 5: expected a value" },
      { "[1 2]", "byte 4: expected \",\" or \"]\"" },
      { "\"abc", "byte 5: the text does not end" },
      { "\"a\tb\"", "byte 3: a control character stands in a text; it must be escaped" },
      { "\"\\x\"", "byte 3: unknown escape" },
      { "\"\\", "byte 3: unknown escape" },
      { "\"\\u12\"", "byte 4: expected four hexadecimal digits" },
      { "\"\\u-123\"", "byte 4: expected four hexadecimal digits" },
      { "\"\\ud800\"", "byte 8: half of a pair of surrogates" },
      { "\"\\ud800\\u0041\"", "byte 14: half of a pair of surrogates" },
      { "\"\\udc00\"", "byte 8: half of a pair of surrogates" },
      { "\"\xFF\"", "byte 2: this is no UTF-8" } };
   for( auto const & [ text, what ] : wrong )
      EXPECT_EQ( mistakeIn( text ), "no JSON at " + what ) << text;
}

TEST( JsonValue, LevelsAreLimited ) {
   auto const nested = []( unsigned levels ) {
      return std::string( levels, '[' ) + std::string( levels, ']' );
   };
   EXPECT_EQ( mistakeIn( nested( jsonDepth ) ), "none" );
   EXPECT_EQ( mistakeIn( nested( jsonDepth + 1 ) ), "no JSON at byte 33: more than 32 levels" );
   EXPECT_NE( mistakeIn( std::string( 1000000, '[' ) ), "none" );
}

TEST( JsonValue, TheOrderOfMembersDoesNotCountInComparing ) {
   auto const same = []( char const * a, char const * b ) {
      return jsonValue( a ) == jsonValue( b );
   };
   EXPECT_TRUE( same( R"({"a": 1, "b": [1, "x", null]})", R"({"b":[1.0,"x",null],"a":1})" ) );
   EXPECT_FALSE( same( R"({"a": 1})", R"({"a": 2})" ) );
   EXPECT_FALSE( same( R"({"a": 1})", R"({"a": "1"})" ) );
   EXPECT_FALSE( same( R"({"a": 1})", R"({"b": 1})" ) );
   EXPECT_FALSE( same( R"({"a": 1})", R"({"a": 1, "b": 1})" ) );
   EXPECT_FALSE( same( "[1, 2]", "[2, 1]" ) );
   EXPECT_FALSE( same( "true", "false" ) );
}

} // namespace
