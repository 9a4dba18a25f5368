// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Where a virtual operation stands in its class's table of virtual operations.
//
// In the ABI of both word sizes a pointer to a virtual member holds the operation's distance from
// the start of the table in bytes, plus one. So the compiler itself says the slot's number, of any
// class, without an object of it.
#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <initializer_list>

namespace testing_support {

// The slot of the operation; a failure when it is not virtual at all.
template< class Member >
std::size_t slot( Member member ) {
   static_assert( sizeof( Member ) == 2 * sizeof( void * ), "the ABI that this relies on" );
   std::ptrdiff_t word[ 2 ];
   std::memcpy( word, &member, sizeof member );
   EXPECT_EQ( word[ 0 ] & 1, 1 ) << "the operation is not virtual";
   EXPECT_EQ( word[ 1 ], 0 ) << "the class has more than one table";
   return static_cast< std::size_t >( word[ 0 ] - 1 ) / sizeof( void * );
}

// One of several operations of a name: as< void( int ) const >( &C::f ).
template< class Signature, class C >
constexpr auto as( Signature C::*member ) {
   return member;
}

// How many slots the class has: what the next operation of a class derived from it would get.
template< class C >
class Beyond : public C {
 public:
   virtual void next() = 0;
};
template< class C >
std::size_t slots() {
   return slot( &Beyond< C >::next );
}

struct Operation {
   char const * name;
   std::size_t slot;
};

// The operations stand one after the other, the first of them in slot `first`.
inline void expectInOrder( std::size_t first, std::initializer_list< Operation > operations ) {
   std::size_t expected = first;
   for( Operation const & operation : operations ) {
      EXPECT_EQ( operation.slot, expected ) << operation.name;
      ++expected;
   }
}

// Slots of the bases, on which those of derived classes follow.
inline constexpr std::size_t slotsOfPtrInterface = 8;
inline constexpr std::size_t slotsOfReactor = 29;
inline constexpr std::size_t slotsOfEntity = 20;
inline constexpr std::size_t slotsOfEntityReactor = 31;

} // namespace testing_support
