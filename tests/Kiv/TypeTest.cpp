// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Kiv/Kiv.h>

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <random>
#include <string>

using Kiv::Ptr;
using Kiv::String8;
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
   EXPECT_EQ( dir.attribute( "parent" ), Kiv::Entity::_fwkType().attribute( Kiv::parentAttribute ) );
   EXPECT_EQ( dir.attribute( "absent" ), nullptr );
   EXPECT_EQ( dir.attribute( Kiv::AttributeId{ 99 } ), nullptr );
   EXPECT_EQ( dir.attribute( Kiv::noAttribute ), nullptr );
}

TEST( Type, OfAnObjectIsThatOfItsClass ) {
   Ptr< Kiv::Entity const > const entity = Kiv::Dir::DirIs( "dir" );
   EXPECT_EQ( &entity->fwkType(), &Kiv::Dir::_fwkType() );
}
