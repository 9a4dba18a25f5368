// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <tools/Scalar.h>

#include <cmath>
#include <limits>
#include <string>

#include <gtest/gtest.h>

namespace {

using Tools::Scalar;

double constexpr infinity = std::numeric_limits< double >::infinity();

Scalar plain( std::string text ) {
   Tools::YamlNode node;
   node.tag = "?";
   node.text = std::move( text );
   return scalarOf( node );
}

Scalar tagged( std::string tag, std::string text ) {
   Tools::YamlNode node;
   node.tag = "tag:yaml.org,2002:" + tag;
   node.text = std::move( text );
   return scalarOf( node );
}

Scalar quoted( std::string text ) {
   Tools::YamlNode node;
   node.tag = "!";
   node.text = std::move( text );
   return scalarOf( node );
}

TEST( Scalar, NullsAreFiveTexts ) {
   for( auto text : { "", "~", "null", "Null", "NULL" } )
      EXPECT_EQ( plain( text ), Scalar( std::monostate() ) ) << text;
   EXPECT_EQ( plain( "nULL" ), Scalar( std::string( "nULL" ) ) );
}

TEST( Scalar, BooleansAreSixTextsAndYesIsNoneOfThem ) {
   for( auto text : { "true", "True", "TRUE" } )
      EXPECT_EQ( plain( text ), Scalar( true ) ) << text;
   for( auto text : { "false", "False", "FALSE" } )
      EXPECT_EQ( plain( text ), Scalar( false ) ) << text;
   for( auto text : { "yes", "no", "on", "off", "y", "n", "tRUE" } )
      EXPECT_EQ( plain( text ), Scalar( std::string( text ) ) ) << text;
}

TEST( Scalar, IntegersAreDecimalOctalOrHexadecimal ) {
   EXPECT_EQ( plain( "30" ), Scalar( 30.0 ) );
   EXPECT_EQ( plain( "-7" ), Scalar( -7.0 ) );
   EXPECT_EQ( plain( "+7" ), Scalar( 7.0 ) );
   EXPECT_EQ( plain( "017" ), Scalar( 17.0 ) );
   EXPECT_EQ( plain( "0o17" ), Scalar( 15.0 ) );
   EXPECT_EQ( plain( "0x1F" ), Scalar( 31.0 ) );
   EXPECT_EQ( plain( "0xaB" ), Scalar( 171.0 ) );
}

TEST( Scalar, NumbersOfOtherSchemasAreText ) {
   for( auto text : { "0b101", "1_000", "0o8", "-0x1", "0o", "0x", "1:30", "+", "-", "1e", "e5",
                      "1.2.3", "0x1.8p1", "inf", "nan", ".infinity", ".e5", "." } )
      EXPECT_EQ( plain( text ), Scalar( std::string( text ) ) ) << text;
}

TEST( Scalar, FractionsMayLackAPartButNotBoth ) {
   EXPECT_EQ( plain( "2.5" ), Scalar( 2.5 ) );
   EXPECT_EQ( plain( ".5" ), Scalar( 0.5 ) );
   EXPECT_EQ( plain( "5." ), Scalar( 5.0 ) );
   EXPECT_EQ( plain( "-1.5e3" ), Scalar( -1500.0 ) );
   EXPECT_EQ( plain( "1E+2" ), Scalar( 100.0 ) );
   EXPECT_EQ( plain( "1e-2" ), Scalar( 0.01 ) );
}

TEST( Scalar, InfinitiesAndNaNBeginWithAPoint ) {
   for( auto text : { ".inf", ".Inf", ".INF", "+.inf" } )
      EXPECT_EQ( plain( text ), Scalar( infinity ) ) << text;
   EXPECT_EQ( plain( "-.inf" ), Scalar( -infinity ) );
   for( auto text : { ".nan", ".NaN", ".NAN" } )
      EXPECT_TRUE( std::isnan( std::get< double >( plain( text ) ) ) ) << text;
   EXPECT_EQ( plain( "+.nan" ), Scalar( std::string( "+.nan" ) ) );
}

TEST( Scalar, ANumberTooLargeIsAnInfinityThatIsNotWritten ) {
   EXPECT_EQ( plain( "1e999" ), Scalar( infinity ) );
   EXPECT_FALSE( Tools::isWrittenInfinity( "1e999" ) );
   EXPECT_TRUE( Tools::isWrittenInfinity( "-.Inf" ) );
   EXPECT_EQ( plain( std::string( 400, '9' ) ), Scalar( infinity ) );
   EXPECT_EQ( plain( "0x" + std::string( 400, 'f' ) ), Scalar( infinity ) );
}

TEST( Scalar, WhatIsQuotedIsText ) {
   for( auto text : { "", "true", "30", ".inf", "null", "~" } )
      EXPECT_EQ( quoted( text ), Scalar( std::string( text ) ) ) << text;
}

TEST( Scalar, ATagDecidesWhateverTheTextLooksLike ) {
   EXPECT_EQ( tagged( "str", "30" ), Scalar( std::string( "30" ) ) );
   EXPECT_EQ( tagged( "int", "30" ), Scalar( 30.0 ) );
   EXPECT_EQ( tagged( "float", "30" ), Scalar( 30.0 ) );
   EXPECT_EQ( tagged( "bool", "true" ), Scalar( true ) );
   EXPECT_EQ( tagged( "null", "" ), Scalar( std::monostate() ) );
   EXPECT_EQ( tagged( "str", "" ), Scalar( std::string() ) );
}

TEST( Scalar, ATagThatTheTextDoesNotFitIsFound ) {
   auto const fits = []( std::string tag, std::string text ) {
      Tools::YamlNode node;
      node.tag = std::move( tag );
      node.text = std::move( text );
      return fitsItsTag( node );
   };
   std::string const core = "tag:yaml.org,2002:";
   EXPECT_TRUE( fits( "?", "x" ) );
   EXPECT_TRUE( fits( "!", "x" ) );
   EXPECT_TRUE( fits( core + "str", "x" ) );
   EXPECT_TRUE( fits( core + "int", "0x1F" ) );
   EXPECT_FALSE( fits( core + "int", "1.5" ) );
   EXPECT_FALSE( fits( core + "bool", "yes" ) );
   EXPECT_FALSE( fits( core + "null", "x" ) );
   EXPECT_FALSE( fits( core + "map", "x" ) );
   EXPECT_FALSE( fits( "!seconds", "3" ) );
}

} // namespace
