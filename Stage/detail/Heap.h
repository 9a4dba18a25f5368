// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The first of many things, while any of them comes and goes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace Stage::detail {

// The place of something that stands in no heap.
inline constexpr std::uint32_t nowhere = UINT32_MAX;

// A binary heap of T's, which it points to. Each knows its place in `T::*place`, so that any of
// them can leave; of none in the heap may change what `before( a, b )` looks at. Cost: constant for
// the first, logarithmic for what comes or goes. Memory is needed by reserve() alone.
template< class T, std::uint32_t T::*place, auto before >
class Heap {
 public:
   // Null while it is empty.
   T * first() const { return items_.empty() ? nullptr : items_.front(); }

   // Makes room for so many in all. Throws std::bad_alloc, having changed nothing.
   void reserve( std::size_t items ) {
      if( items > items_.capacity() )
         items_.reserve( items < 8 ? 8 : items + items / 2 );
   }
   // REQUIRES: there is room, and it does not stand here.
   void add( T & item ) noexcept {
      items_.push_back( &item );
      up( items_.size() - 1 );
   }
   // Nothing happens for one that does not stand here.
   void remove( T & item ) noexcept {
      if( item.*place == nowhere )
         return;
      std::size_t const gap = item.*place;
      T * const last = items_.back();
      items_.pop_back();
      item.*place = nowhere;
      if( last == &item )
         return;
      items_[ gap ] = last;
      up( gap );
      down( last->*place );
   }

 private:
   void put( std::size_t at, T * item ) noexcept {
      items_[ at ] = item;
      item->*place = static_cast< std::uint32_t >( at );
   }
   void up( std::size_t at ) noexcept {
      T * const item = items_[ at ];
      while( at != 0 && before( *item, *items_[ ( at - 1 ) / 2 ] ) ) {
         put( at, items_[ ( at - 1 ) / 2 ] );
         at = ( at - 1 ) / 2;
      }
      put( at, item );
   }
   void down( std::size_t at ) noexcept {
      T * const item = items_[ at ];
      for( std::size_t child; ( child = 2 * at + 1 ) < items_.size(); at = child ) {
         if( child + 1 < items_.size() && before( *items_[ child + 1 ], *items_[ child ] ) )
            ++child;
         if( !before( *items_[ child ], *item ) )
            break;
         put( at, items_[ child ] );
      }
      put( at, item );
   }

   std::vector< T * > items_;
};

} // namespace Stage::detail
