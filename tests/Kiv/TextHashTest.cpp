// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// When a text's hash is worked out: a seed that changes shows it.
#include <Kiv/HashMap.h>
#include <Kiv/Text.h>

#include <gtest/gtest.h>

using Kiv::Name;
using Kiv::String8;

namespace {

class TextHash : public testing::Test {
 protected:
   ~TextHash() override { Kiv::detail::hashSeed = before_; }
   static void seedIs( std::uint32_t seed ) { Kiv::detail::hashSeed = seed; }
   static std::uint32_t hashOf( char const * text ) { return String8( text ).hash(); }

 private:
   std::uint32_t const before_ = Kiv::detail::hashSeed;
};

} // namespace

TEST_F( TextHash, IsWorkedOutWhenItIsFirstAskedForAndKeptForAllCopies ) {
   seedIs( 1 );
   String8 const text( "Boot" );
   Name const copy( text );
   seedIs( 2 );
   std::uint32_t const second = hashOf( "Boot" );
   EXPECT_EQ( text.hash(), second ) << "not when it was made";
   seedIs( 3 );
   ASSERT_NE( hashOf( "Boot" ), second );
   EXPECT_EQ( text.hash(), second );
   EXPECT_EQ( copy.hash(), second ) << "once for all copies";
}

TEST_F( TextHash, IsNotAskedForByWhatIsNoKey ) {
   seedIs( 1 );
   String8 const text( "Boot" );
   String8 const same( "Boot" );
   EXPECT_EQ( text, same );
   EXPECT_FALSE( text < same );
   EXPECT_EQ( Kiv::joined( text, "s" ), text + "s" );
   seedIs( 2 );
   EXPECT_EQ( text.hash(), hashOf( "Boot" ) );
   EXPECT_EQ( same.hash(), hashOf( "Boot" ) );
}

TEST_F( TextHash, IsAskedForByATable ) {
   seedIs( 1 );
   String8 const text( "Boot" );
   std::uint32_t const first = hashOf( "Boot" );
   Kiv::HashMap< bool, String8 > map;
   map.memberIs( text, true );
   seedIs( 2 );
   EXPECT_EQ( text.hash(), first );
   EXPECT_TRUE( map.has( text ) );
}
