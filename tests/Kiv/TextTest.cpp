// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include "../support/Memory.h"

#include <Kiv/Exception.h>
#include <Kiv/Memory.h>
#include <Kiv/Text.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <new>
#include <random>
#include <sstream>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

using Kiv::Name;
using Kiv::String8;
using namespace std::string_view_literals;

// ------------------------------------------------------------------------------ what it holds

TEST( Text, WithoutCharactersIsEmptyAndEndsWithANul ) {
   for( String8 const & text : { String8(), String8( "" ), String8( ""sv ), String8( Name() ),
                                 String8( static_cast< char const * >( nullptr ) ) } ) {
      EXPECT_TRUE( text.empty() );
      EXPECT_EQ( text.length(), 0U );
      ASSERT_NE( text.charPtr(), nullptr );
      EXPECT_STREQ( text.charPtr(), "" );
      EXPECT_EQ( text, String8() );
      EXPECT_EQ( text.hash(), String8().hash() );
   }
   EXPECT_TRUE( Name( static_cast< char const * >( nullptr ) ).empty() );
}

TEST( Text, HoldsACopyOfWhatItIsMadeFrom ) {
   char source[] = "Boot";
   String8 const fromPointer( source );
   String8 const fromView( std::string_view( source, 2 ) );
   Name const name( std::string( source ) + "s" );
   source[ 0 ] = 'F';
   EXPECT_STREQ( fromPointer.charPtr(), "Boot" );
   EXPECT_EQ( fromPointer.length(), 4U );
   EXPECT_EQ( fromView.view(), "Bo"sv );
   EXPECT_EQ( name.str(), "Boots" );
}

TEST( Text, MayHoldNulBytesAndEndsWithOneMore ) {
   String8 const text( "a\0b"sv );
   EXPECT_EQ( text.length(), 3U );
   EXPECT_EQ( text.view(), "a\0b"sv );
   EXPECT_EQ( text.charPtr()[ 3 ], '\0' );
   EXPECT_NE( text, String8( "a" ) );
   EXPECT_NE( text, String8( "a\0c"sv ) );
   EXPECT_LT( String8( "a" ), text );
   EXPECT_LT( text, String8( "a\0c"sv ) );
   EXPECT_EQ( ( text + "c" ).view(), "a\0bc"sv );
   EXPECT_EQ( Name( text ).view(), "a\0b"sv );
   EXPECT_EQ( String8( "\0"sv ).length(), 1U );
   EXPECT_NE( String8( "\0"sv ), String8() );
}

TEST( Text, IsAssignedFromANulTerminatedString ) {
   String8 text( "before" );
   String8 const kept = text;
   text = "after";
   EXPECT_EQ( text.view(), "after"sv );
   EXPECT_EQ( kept.view(), "before"sv ) << "a copy does not follow";
   String8 const & same = text;
   text = same;
   EXPECT_EQ( text.view(), "after"sv );
}

// ---------------------------------------------------------------------- shared representation

TEST( Text, CopiesShareTheirCharacters ) {
   String8 const text( "multi-user" );
   String8 const copy = text; // NOLINT: the copy is the subject
   EXPECT_EQ( static_cast< void const * >( copy.charPtr() ), text.charPtr() );
   String8 moved = copy;
   String8 const target = std::move( moved );
   EXPECT_EQ( static_cast< void const * >( target.charPtr() ), text.charPtr() );
}

TEST( Text, IsConvertedBetweenTheTypesWithoutCopyingACharacter ) {
   String8 const text( "multi-user" );
   testing_support::Memory memory;
   Name const name = text;
   String8 const back = name;
   EXPECT_EQ( static_cast< void const * >( name.charPtr() ), text.charPtr() );
   EXPECT_EQ( static_cast< void const * >( back.charPtr() ), text.charPtr() );
   EXPECT_EQ( memory.allocations(), 0U );
}

TEST( Text, TakesOneAllocationAndNoneWhenEmpty ) {
   testing_support::Memory memory;
   String8 const empty( "" );
   EXPECT_EQ( memory.allocations(), 0U );
   String8 const text( "Boot" );
   EXPECT_EQ( memory.allocations(), 1U );
   String8 const joined = text + ".target";
   EXPECT_EQ( memory.allocations(), 3U ) << "one for the literal, one for the result";
}

TEST( Text, KeepsItsCharactersWhileAnyCopyOfEitherTypeLives ) {
   Name name;
   {
      String8 const text( "stays" );
      name = text;
   }
   EXPECT_STREQ( name.charPtr(), "stays" );
}

TEST( Text, ThatCannotGrowForLackOfMemoryIsUnchanged ) {
   String8 text( "Boot" );
   String8 const more( ".target" );
   testing_support::Memory memory;
   memory.failAfter( 0 );
   EXPECT_THROW( text += more, std::bad_alloc );
   EXPECT_EQ( text.view(), "Boot"sv );
   text += more;
   EXPECT_EQ( text.view(), "Boot.target"sv );
}

TEST( Text, LongerThanItsLengthFieldAllowsIsRefused ) {
   char const byte = 'x';
   std::size_t const tooLong = 0x80000000U;
   try {
      String8 const text( std::string_view( &byte, tooLong ) ); // refused before a byte is read
      FAIL() << "accepted";
   } catch( Kiv::RangeException const & e ) {
      EXPECT_STREQ( e.what(), "text longer than 2147483647 bytes" );
   }
}

// ------------------------------------------------------------------------------- joining, order

TEST( Text, IsJoinedWithEverythingThatBecomesText ) {
   Name const stage( "Net" );
   String8 const agent( "dhcp" );
   EXPECT_EQ( ( stage + ":" + agent ).view(), "Net:dhcp"sv );
   EXPECT_EQ( ( "stage " + agent ).view(), "stage dhcp"sv );
   String8 text;
   text += "a";
   text += stage;
   text += std::string( "b" );
   text += text;
   EXPECT_EQ( text.view(), "aNetbaNetb"sv );
   EXPECT_EQ( ( String8() + String8() ), String8() );
   EXPECT_EQ( stage.view(), "Net"sv );
}

TEST( Text, IsJoinedFromPiecesOfEveryKindInOneAllocation ) {
   Name const stage( "Net" );
   String8 const agent( "dhcp" );
   std::string const text( "t\0t"sv );
   char const * const pointer = " is";
   testing_support::Memory memory;
   String8 const joined = Kiv::joined( "stage ", stage, ":", agent, text, pointer, "."sv );
   EXPECT_EQ( memory.allocations(), 1U );
   EXPECT_EQ( joined.view(), "stage Net:dhcpt\0t is."sv );
   EXPECT_STREQ( joined.charPtr() + joined.length(), "" );
   EXPECT_EQ( stage.view(), "Net"sv );
   EXPECT_EQ( Kiv::joined( agent, agent ).view(), "dhcpdhcp"sv );
}

TEST( Text, IsJoinedFromNothingWithoutAnAllocation ) {
   testing_support::Memory memory;
   EXPECT_EQ( Kiv::joined( "", String8(), ""sv, Name() ), String8() );
   EXPECT_EQ( memory.allocations(), 0U );
   EXPECT_EQ( Kiv::joined( "", "a", String8() ).view(), "a"sv );
}

TEST( Text, IsNotJoinedWithoutMemoryOrWhenItIsTooLong ) {
   String8 const part( "part" );
   testing_support::Memory memory;
   memory.failAfter( 0 );
   EXPECT_THROW( Kiv::joined( part, part ), std::bad_alloc );
   std::string_view const half( "x", 0x40000000U ); // refused before a byte is read
   EXPECT_THROW( Kiv::joined( half, half ), Kiv::RangeException );
}

TEST( Text, IsOrderedByItsBytesAsUnsignedNumbers ) {
   std::vector< std::string_view > const ascending = {
      ""sv, "\0"sv, "\0a"sv, "A"sv, "a"sv, "a\0"sv, "aa"sv, "b"sv, "\x7f"sv, "\x80"sv, "\xff"sv };
   for( std::size_t i = 0; i != ascending.size(); ++i )
      for( std::size_t j = 0; j != ascending.size(); ++j ) {
         EXPECT_EQ( String8( ascending[ i ] ) < String8( ascending[ j ] ), i < j ) << i << " " << j;
         EXPECT_EQ( Name( ascending[ i ] ) < Name( ascending[ j ] ), i < j ) << i << " " << j;
         EXPECT_EQ( String8( ascending[ i ] ) == String8( ascending[ j ] ), i == j )
            << i << " " << j;
      }
}

TEST( Text, IsEqualToTheSameBytesHoweverTheyAreHeld ) {
   EXPECT_EQ( String8( "Boot" ), String8( std::string( "Boot" ) ) );
   EXPECT_EQ( String8( "Boot" ), Name( "Boot" ) );
   EXPECT_EQ( String8( "Boot" ), "Boot"sv );
   EXPECT_NE( String8( "Boot" ), String8( "boot" ) );
   EXPECT_NE( Name( "Boot" ), Name( "Boo" ) );
}

TEST( Text, IsEqualToTheSameBytesWhateverTheirMemoryHeldBefore ) {
   static char filling;
   Kiv::MemoryHooks const before =
      Kiv::memoryHooksIs( { []( std::size_t size ) {
                              void * const memory = ::operator new( size, std::nothrow );
                              return memory ? std::memset( memory, filling, size ) : memory;
                           },
                            []( void * memory, std::size_t ) { ::operator delete( memory ); } } );
   for( std::size_t length = 0; length != 40; ++length ) {
      std::string text( length, 'a' );
      filling = '\x55';
      String8 const one( text );
      filling = '\xaa';
      String8 const other( text );
      EXPECT_EQ( one, other ) << length;
      EXPECT_NE( one, String8( text + '\0' ) ) << length;
      for( std::size_t i = 0; i != length; ++i ) {
         text[ i ] = 'b';
         EXPECT_NE( one, String8( text ) ) << length << " " << i;
         text[ i ] = 'a';
      }
   }
   Kiv::memoryHooksIs( before );
}

TEST( Text, IsPrintedWithAllItsBytes ) {
   std::ostringstream out;
   out << String8( "a\0b"sv ) << '|' << Name( "Net" ) << '|' << String8();
   EXPECT_EQ( out.str(), std::string( "a\0b|Net|"sv ) );
}

// ------------------------------------------------------------------------------------------ hash

// The order of every collection follows from these, so they never change, on no machine.
TEST( Text, HasTheSameHashOnEveryWordSizeAndInEveryRun ) {
   EXPECT_EQ( String8().hash(), 0x01fce552U );
   EXPECT_EQ( String8( "a" ).hash(), 0xfc90aa51U );
   EXPECT_EQ( String8( "Boot" ).hash(), 0x4961d04bU );
   EXPECT_EQ( String8( "Network" ).hash(), 0x207256eaU );
   EXPECT_EQ( String8( "multi-user.target" ).hash(), 0x111fe204U );
   EXPECT_EQ( String8( "a\0b"sv ).hash(), 0x2156c6ffU );
   EXPECT_EQ( String8( "\xff\x80"sv ).hash(), 0x66e45271U );
}

TEST( Text, HasAHashForTablesThatIsNeverTheHighest ) {
   EXPECT_EQ( String8( "Boot" ).filedHash(), String8( "Boot" ).hash() );
   EXPECT_EQ( String8().filedHash(), String8().hash() );
   {
      String8 const least( "u2wgaamQ" );
      String8 const highest( "4WF6aauQ" );
      EXPECT_EQ( least.hash(), 0U );
      EXPECT_EQ( least.filedHash(), 0U );
      EXPECT_EQ( highest.hash(), 0xffffffffU );
      EXPECT_EQ( highest.filedHash(), 0xfffffffeU );
      EXPECT_EQ( highest.hash(), 0xffffffffU ) << "also when it was asked for before";
      EXPECT_EQ( String8( "KMRIaact" ).filedHash(), 0xfffffffeU );
   }
}

TEST( Text, HasTheSameHashInBothTypesAndHoweverItWasMade ) {
   String8 const text( "Network" );
   EXPECT_EQ( Name( "Network" ).hash(), text.hash() );
   EXPECT_EQ( Name( text ).hash(), text.hash() );
   EXPECT_EQ( ( String8( "Net" ) + "work" ).hash(), text.hash() );
   EXPECT_EQ( std::hash< String8 >()( text ), text.hash() );
   EXPECT_EQ( std::hash< Name >()( text ), text.hash() );
   EXPECT_NE( String8( "Network\0"sv ).hash(), text.hash() );
}

TEST( Text, HasAHashOfWhichEveryBitDependsOnEveryBitOfTheText ) {
   std::array< int, 32 > flips{};
   int tries = 0;
   std::mt19937 random( 1 );
   for( int i = 0; i != 500; ++i ) {
      std::string text( 1 + random() % 20, '\0' );
      for( char & c : text )
         c = static_cast< char >( random() );
      std::uint32_t const before = String8( text ).hash();
      for( std::size_t bit = 0; bit != 8 * text.size(); ++bit, ++tries ) {
         text[ bit / 8 ] = static_cast< char >( text[ bit / 8 ] ^ ( 1 << bit % 8 ) );
         std::uint32_t const changed = before ^ String8( text ).hash();
         text[ bit / 8 ] = static_cast< char >( text[ bit / 8 ] ^ ( 1 << bit % 8 ) );
         for( std::size_t b = 0; b != 32; ++b )
            flips[ b ] += static_cast< int >( changed >> b & 1U );
      }
   }
   for( std::size_t b = 0; b != 32; ++b ) {
      EXPECT_GT( flips[ b ], tries * 45 / 100 ) << "bit " << b;
      EXPECT_LT( flips[ b ], tries * 55 / 100 ) << "bit " << b;
   }
}

TEST( Text, HasHashesWhoseTopBitsSpreadNamesThatDifferInANumberOnly ) {
   std::array< int, 64 > buckets{};
   for( int i = 0; i != 64 * 50; ++i )
      ++buckets[ String8( "stage" + std::to_string( i ) ).hash() >> 26 ];
   EXPECT_GT( *std::min_element( buckets.begin(), buckets.end() ), 20 );
   EXPECT_LT( *std::max_element( buckets.begin(), buckets.end() ), 90 );
}

// ---------------------------------------------------------------------------------------- format

TEST( Format, WritesAsPrintfDoes ) {
   EXPECT_EQ( Kiv::format( "%s stage %s timed out, %d%%", "app", "Net", 7 ).view(),
              "app stage Net timed out, 7%"sv );
   EXPECT_EQ( Kiv::format( "%s", "" ), String8() );
   EXPECT_EQ( Kiv::format( "%.3f", 1.5 ).view(), "1.500"sv );
}

TEST( Format, HasRoomForTextOfAnyLength ) {
   for( std::size_t length = 250; length != 260; ++length ) {
      std::string const longer( length, 'y' );
      EXPECT_EQ( Kiv::format( "%s|", longer.c_str() ).str(), longer + "|" );
   }
   std::string const text( 100000, 'x' );
   EXPECT_EQ( Kiv::format( "<%s>", text.c_str() ).str(), "<" + text + ">" );
}
