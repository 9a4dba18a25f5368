// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Kiv/Kiv.h>

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <locale>
#include <random>
#include <string>

using Kiv::Ptr;
using Kiv::String8;
using Kiv::valueFromString;
using Kiv::valueToString;
using Limits = std::numeric_limits< double >;

TEST( ValueToString, OfADoubleIsTheShortestTextThatReadsBackTheSame ) {
   EXPECT_EQ( valueToString( 0.0 ), String8( "0" ) );
   EXPECT_EQ( valueToString( -0.0 ), String8( "-0" ) );
   EXPECT_EQ( valueToString( 30.0 ), String8( "30" ) );
   EXPECT_EQ( valueToString( 0.1 ), String8( "0.1" ) );
   EXPECT_EQ( valueToString( -2.5 ), String8( "-2.5" ) );
   EXPECT_EQ( valueToString( 1.0 / 3 ), String8( "0.3333333333333333" ) );
   EXPECT_EQ( valueToString( 1e300 ), String8( "1e+300" ) );
   EXPECT_EQ( valueToString( static_cast< double >( 0.1F ) ), String8( "0.10000000149011612" ) );
}

TEST( ValueToString, OfADoubleReadsBackTheSameForEveryPatternOfBits ) {
   std::mt19937_64 random( 1 );
   for( int n = 0; n != 100000; ++n ) {
      double const value = std::bit_cast< double >( static_cast< std::uint64_t >( random() ) );
      if( std::isnan( value ) )
         continue;
      String8 const text = valueToString( value );
      char * end = nullptr;
      double const again = std::strtod( text.charPtr(), &end );
      ASSERT_EQ( *end, '\0' ) << text;
      ASSERT_EQ( std::bit_cast< std::uint64_t >( again ), std::bit_cast< std::uint64_t >( value ) )
         << text;
   }
}

TEST( ValueToString, OfTheEndsOfTheRangeReadsBackTheSame ) {
   for( double value : { Limits::max(), Limits::lowest(), Limits::min(), Limits::denorm_min(),
                         -Limits::denorm_min(), Limits::epsilon(), 1752624000.123456 } )
      EXPECT_EQ( std::strtod( valueToString( value ).charPtr(), nullptr ), value );
}

TEST( ValueToString, OfWhatIsNoNumberIsAWord ) {
   EXPECT_EQ( valueToString( Limits::infinity() ), String8( "inf" ) );
   EXPECT_EQ( valueToString( -Limits::infinity() ), String8( "-inf" ) );
   EXPECT_EQ( valueToString( Limits::quiet_NaN() ), String8( "nan" ) );
   EXPECT_EQ( valueToString( std::copysign( Limits::quiet_NaN(), -1.0 ) ), String8( "nan" ) );
}

TEST( ValueToString, OfTheOtherBuiltInTypes ) {
   EXPECT_EQ( valueToString( true ), String8( "true" ) );
   EXPECT_EQ( valueToString( false ), String8( "false" ) );
   EXPECT_EQ( valueToString( 0U ), String8( "0" ) );
   EXPECT_EQ( valueToString( 4294967295U ), String8( "4294967295" ) );
   EXPECT_EQ( valueToString( String8( "a b" ) ), String8( "a b" ) );
   EXPECT_EQ( valueToString( Kiv::Name( "Net" ) ), String8( "Net" ) );
   EXPECT_EQ( valueToString( "literal" ), String8( "literal" ) );
}

TEST( ValueToString, OfAnObjectIsWhatItIsKnownBy ) {
   struct Watcher : Kiv::Dir::NotifieeConst {};
   struct Thing : Kiv::PtrInterface {};
   Ptr< Kiv::Dir > const outer = Kiv::Dir::DirIs( "outer" );
   Ptr< Kiv::Dir > const inner = Kiv::Dir::DirIs( "inner" );
   inner->parentIs( outer );
   EXPECT_EQ( valueToString( *inner ), String8( "outer/inner" ) );
   EXPECT_EQ( valueToString( inner ), String8( "outer/inner" ) );
   EXPECT_EQ( valueToString( Ptr< Kiv::Entity const >( inner ) ), String8( "outer/inner" ) );
   EXPECT_EQ( valueToString( Ptr< Kiv::Dir >() ), String8( "null" ) );
   EXPECT_EQ( valueToString( Ptr< Thing >( new Thing ) ), String8( "Kiv::PtrInterface" ) );
   Ptr< Watcher > const watcher = new Watcher;
   EXPECT_EQ( valueToString( watcher ), String8( "Kiv::PtrInterface" ) ) << "it watches nothing";
   watcher->notifierIs( Ptr< Kiv::PtrInterface const >( inner ) );
   EXPECT_EQ( valueToString( watcher ), String8( "outer/inner" ) );
}

namespace {

// What valueFromString refuses a text with.
template< class T >
std::string refusal( String8 const & text ) {
   try {
      valueFromString< T >( text );
   } catch( Kiv::RangeException const & e ) {
      return e.what();
   }
   return "accepted";
}

void expectRoundTrip( double value ) {
   double const again = valueFromString< double >( valueToString( value ) );
   EXPECT_EQ( std::bit_cast< std::uint64_t >( again ), std::bit_cast< std::uint64_t >( value ) )
      << valueToString( value );
}

} // namespace

TEST( ValueFromString, OfADoublesTextIsThatVeryDouble ) {
   for( double value : { 0.0, -0.0, 30.0, 0.1, -2.5, 1.0 / 3, 1e300, 5e-324, -5e-324, Limits::max(),
                         Limits::lowest(), Limits::min(), Limits::infinity(), -Limits::infinity(),
                         2.2250738585072009e-308, 9007199254740993.0 } )
      expectRoundTrip( value );
   EXPECT_TRUE( std::isnan( valueFromString< double >( "nan" ) ) );
   EXPECT_TRUE( std::isnan( valueFromString< double >( valueToString( -Limits::quiet_NaN() ) ) ) );
}

TEST( ValueFromString, OfADoublesTextIsThatVeryDoubleForEveryPatternOfBits ) {
   std::mt19937_64 random( 2 );
   for( int n = 0; n != 100000; ++n ) {
      double const value = std::bit_cast< double >( static_cast< std::uint64_t >( random() ) );
      if( !std::isnan( value ) )
         expectRoundTrip( value );
      // Small exponents: numbers that have no full precision.
      expectRoundTrip( std::bit_cast< double >( random() & 0x800fffffffffffffU ) );
   }
}

// Where arithmetic is done with more precision than a double has, these are rounded twice.
TEST( ValueFromString, OfADoublesTextIsRoundedOnce ) {
   for( double value : { 1.790026006329031e+21, 1.793133084552349e+30, -1.790026006329031e+21 } )
      expectRoundTrip( value );
}

TEST( ValueFromString, OfADoublesTextIsThatVeryDoubleWhereItHasMoreDigitsThanAWordHolds ) {
   std::mt19937_64 random( 3 );
   int different = 0;
   for( int n = 0; n != 1000000; ++n ) {
      std::uint64_t const exponent = 1023 + 50 + static_cast< std::uint64_t >( n % 81 );
      std::uint64_t const bits = exponent << 52 | ( random() & 0x000fffffffffffffU );
      double const value = std::bit_cast< double >( bits );
      String8 const text = valueToString( value );
      if( std::bit_cast< std::uint64_t >( valueFromString< double >( text ) ) != bits &&
          ++different < 5 )
         ADD_FAILURE() << text;
   }
   EXPECT_EQ( different, 0 );
}

TEST( ValueFromString, OfTheOtherTypesIsWhatWasWritten ) {
   EXPECT_TRUE( valueFromString< bool >( "true" ) );
   EXPECT_FALSE( valueFromString< bool >( "false" ) );
   for( unsigned int value : { 0U, 1U, 4294967295U } )
      EXPECT_EQ( valueFromString< unsigned int >( valueToString( value ) ), value );
   String8 const bytes( std::string_view( " a\0b\n", 5 ) );
   EXPECT_EQ( valueFromString< String8 >( bytes ), bytes );
   EXPECT_EQ( valueFromString< Kiv::Name >( bytes ), Kiv::Name( bytes ) );
   EXPECT_EQ( valueFromString< String8 >( "" ), String8() );
}

TEST( ValueFromString, OtherSpellingsOfANumberAreRead ) {
   EXPECT_EQ( valueFromString< double >( "0.50" ), 0.5 );
   EXPECT_EQ( valueFromString< double >( "1E3" ), 1000.0 );
   EXPECT_EQ( valueFromString< double >( ".5" ), 0.5 );
   EXPECT_EQ( valueFromString< unsigned int >( "007" ), 7U );
}

TEST( ValueFromString, OfAnyOtherTextIsRefused ) {
   for( char const * text :
        { "",       " ",      "1 ",       " 1",  "+1",   "1,5", "1.5x", "0x10",   "--1",
          "1e",     "e5",     "infinity", "INF", "Inf",  "NaN", "-nan", "nan(1)", "1e999",
          "-1e999", "1e-999", ".",        "-",   "true", "1\n", "1'000" } )
      EXPECT_NE( refusal< double >( text ), "accepted" ) << text;
   for( char const * text : { "", "True", "TRUE", "1", "0", "yes", " true", "true ", "truefalse" } )
      EXPECT_NE( refusal< bool >( text ), "accepted" ) << text;
   for( char const * text : { "", "-1", "+1", "-0", "4294967296", "99999999999999999999", "1.0",
                              "0x1", " 1", "1 ", "true" } )
      EXPECT_NE( refusal< unsigned int >( text ), "accepted" ) << text;
   EXPECT_NE( refusal< double >( String8( std::string_view( "1\0", 2 ) ) ), "accepted" );
   EXPECT_NE( refusal< unsigned int >( String8( std::string_view( "1\0", 2 ) ) ), "accepted" );
}

TEST( ValueFromString, TheRefusalNamesTheTextAndWhatWasExpected ) {
   EXPECT_EQ( refusal< bool >( "yes\n" ),
              "\"yes\\x0a\" is no value here: true or false was expected" );
   EXPECT_EQ( refusal< unsigned int >( "-1" ),
              "\"-1\" is no value here: a whole number from 0 to 4294967295 was expected" );
   EXPECT_EQ( refusal< double >( "1,5" ),
              "\"1,5\" is no value here: a number such as 30, 0.1 or 1e+300 in the range of a "
              "double, inf, -inf or nan was expected" );
   EXPECT_EQ( refusal< bool >( std::string( 70, 'x' ) ),
              "\"" + std::string( 60, 'x' ) +
                 "...\" is no value here: true or false was expected" );
}

TEST( ValueFromString, TheLocaleHasNoSay ) {
   struct Commas : std::numpunct< char > {
      char do_decimal_point() const override { return ','; }
      char do_thousands_sep() const override { return '.'; }
      std::string do_grouping() const override { return "\3"; }
   };
   std::locale const before = std::locale::global( std::locale( std::locale(), new Commas ) );
   EXPECT_EQ( valueFromString< double >( "1.5" ), 1.5 );
   EXPECT_EQ( valueToString( 1234.5 ), String8( "1234.5" ) );
   EXPECT_EQ( valueToString( 123456U ), String8( "123456" ) );
   EXPECT_NE( refusal< double >( "1,5" ), "accepted" );
   EXPECT_NE( refusal< unsigned int >( "1.234" ), "accepted" );
   std::locale::global( before );
}

TEST( Type, OfBuiltInsHaveTheirNamesAndOneObjectEach ) {
   EXPECT_STREQ( Kiv::Builtin< bool >::_fwkType().name(), "bool" );
   EXPECT_STREQ( Kiv::Builtin< double >::_fwkType().name(), "double" );
   EXPECT_STREQ( Kiv::Builtin< unsigned int >::_fwkType().name(), "unsigned int" );
   EXPECT_STREQ( Kiv::Builtin< String8 >::_fwkType().name(), "Kiv::String8" );
   EXPECT_STREQ( Kiv::Builtin< Kiv::Name >::_fwkType().name(), "Kiv::Name" );
   EXPECT_EQ( &Kiv::Builtin< bool >::_fwkType(), &Kiv::Builtin< bool >::_fwkType() );
   EXPECT_TRUE( Kiv::Builtin< double >::_fwkType().attributes().empty() );
   EXPECT_EQ( Kiv::Builtin< double >::_fwkType().base(), nullptr );
}

TEST( Type, FindsItsAttributesAndThoseOfItsBasesByNameAndByNumber ) {
   Kiv::KivType const & dir = Kiv::Dir::_fwkType();
   EXPECT_STREQ( dir.name(), "Kiv::Dir" );
   EXPECT_EQ( dir.base(), &Kiv::Entity::_fwkType() );
   EXPECT_EQ( Kiv::Entity::_fwkType().base(), &Kiv::PtrInterface::_fwkType() );
   ASSERT_NE( dir.attribute( "entityPtr" ), nullptr );
   EXPECT_EQ( dir.attribute( "entityPtr" ), dir.attribute( Kiv::firstOwnAttribute ) );
   EXPECT_EQ( dir.attribute( "entityPtr" ), &dir.attributes()[ 0 ] );
   ASSERT_NE( dir.attribute( "parent" ), nullptr );
   EXPECT_EQ( dir.attribute( "parent" ),
              Kiv::Entity::_fwkType().attribute( Kiv::parentAttribute ) );
   EXPECT_EQ( dir.attribute( "absent" ), nullptr );
   EXPECT_EQ( dir.attribute( Kiv::AttributeId{ 99 } ), nullptr );
   EXPECT_EQ( dir.attribute( Kiv::noAttribute ), nullptr );
}

TEST( Type, OfAnObjectIsThatOfItsClass ) {
   Ptr< Kiv::Entity const > const entity = Kiv::Dir::DirIs( "dir" );
   EXPECT_EQ( &entity->fwkType(), &Kiv::Dir::_fwkType() );
}
