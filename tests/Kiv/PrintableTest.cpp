// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Kiv/Printable.h>

#include <gtest/gtest.h>

namespace {

using Kiv::characterLength;
using Kiv::printable;
using Kiv::quoted;

TEST( Printable, OrdinaryTextIsShownAsItIs ) {
   EXPECT_EQ( printable( "network-online.target h\u00f6 \u20ac \U0001F600" ),
              "network-online.target h\u00f6 \u20ac \U0001F600" );
}

TEST( Printable, NothingReachesATerminalThatCouldSteerIt ) {
   EXPECT_EQ( printable( "\x1b[2J" ), R"(\x1b[2J)" );
   EXPECT_EQ( printable( "a\nb\r\t\x7f" ), R"(a\x0ab\x0d\x09\x7f)" );
   EXPECT_EQ( printable( "\u0085\u009b" ), R"(\u0085\u009b)" );
   EXPECT_EQ( printable( "\u202e\u2066\u200f\u2028" ), R"(\u202e\u2066\u200f\u2028)" );
   EXPECT_EQ( printable( "\xff\xc3" ), R"(\xff\xc3)" );
   EXPECT_EQ( printable( std::string_view( "\0", 1 ) ), R"(\x00)" );
}

TEST( Printable, QuotedTextStandsBetweenQuotes ) { EXPECT_EQ( quoted( "Boot" ), R"("Boot")" ); }

TEST( Printable, TheLengthOfACharacterIsTheNumberOfItsBytes ) {
   EXPECT_EQ( characterLength( "" ), 0U );
   EXPECT_EQ( characterLength( "ab" ), 1U );
   EXPECT_EQ( characterLength( "\u00f6x" ), 2U );
   EXPECT_EQ( characterLength( "\u20acx" ), 3U );
   EXPECT_EQ( characterLength( "\U0010FFFFx" ), 4U );
}

TEST( Printable, WhatIsNoCharacterHasNoLength ) {
   for( auto text : { "\x80", "\xbf", "\xc0\x80", "\xc1\xbf", "\xe0\x9f\xbf", "\xed\xa0\x80",
                      "\xf0\x8f\xbf\xbf", "\xf4\x90\x80\x80", "\xf5\x80\x80\x80", "\xff", "\xc3",
                      "\xe2\x82", "\xe2\x28\xa1", "\xe2\x82\x28" } )
      EXPECT_EQ( characterLength( text ), 0U ) << printable( text );
}

} // namespace
