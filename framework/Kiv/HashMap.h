// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Keyed collections with a fixed order and iterators that survive every change.
//
//    buckets, a power of two          members of a bucket, ascending by (hash, key bytes)
//   +----+
//   | 00 | -> [hash 0x0c.. "Boot"] -> [hash 0x31.. "Disk"]
//   | 01 | -> (none)
//   | 10 | -> [hash 0x9a.. "Net"]
//   | 11 | -> [hash 0xc0.. "Gui"]
//   +----+
//
// Invariants:
//  1. The bucket of a key is the top bits of its hash, and the members of a bucket stand in
//     ascending order of (hash, key bytes). So a walk over all buckets meets all members in that
//     order, whatever the number of buckets is.
//  2. A position is therefore described by (hash, key) alone: the bookmark of an iterator. The
//     member after it is found again after any insertion, removal, growth or shrinking.
//  3. The number of buckets is 0 for a map that was never filled or was emptied, else a power of
//     two: at least the number of members for which room was made last, and at most four times the
//     number of members after a removal, as far as there was memory to shrink.
#pragma once

#include <Kiv/Export.h>
#include <Kiv/Memory.h>
#include <Kiv/Ptr.h>
#include <Kiv/Text.h>

#include <type_traits>

namespace Kiv {

namespace detail {

// One member of a map; the typed map derives its node from it.
struct MapNode : KivMemPool {
   explicit MapNode( Text const & k ) : key( k ) {}
   MapNode * next = nullptr;
   Text key;
};

// What every map does, whatever its members are.
class KIV_EXPORT MapBase {
 public:
   MapBase() = default;
   MapBase( MapBase const & ) = delete;
   MapBase & operator=( MapBase const & ) = delete;

   std::uint32_t size() const { return size_; }
   std::uint32_t buckets() const { return table_ ? 1U << log2_ : 0; }
   std::uint32_t removals() const { return removals_; }

   MapNode * find( Text const & key ) const;
   MapNode * first() const;
   // The member after `node`, which is in the map.
   MapNode * next( MapNode const * node ) const;
   // The first member after the place of `key`, whether or not `key` is in the map.
   MapNode * after( Text const & key ) const;

   // Makes room for `more` members. Throws std::bad_alloc and has then changed nothing.
   void reserve( std::uint32_t more );
   // REQUIRES: room was made, and the key is absent. Ends the process otherwise.
   void insert( MapNode * node ) noexcept;
   // Unlinks the member and returns it, null when absent; gives memory back when it can.
   MapNode * remove( Text const & key ) noexcept;
   // Empties the map and returns what was in it, linked by `next` in the map's order.
   MapNode * takeAll() noexcept;

 protected:
   ~MapBase() = default;

 private:
   std::uint32_t bucketOf( std::uint32_t hash ) const { return log2_ ? hash >> ( 32 - log2_ ) : 0; }
   MapNode ** place( Text const & key ) const;
   bool resize( unsigned log2 ) noexcept;

   MapNode ** table_ = nullptr;
   std::uint32_t size_ = 0;
   std::uint32_t removals_ : 27 = 0; // changes when a node becomes invalid; may wrap around
   std::uint32_t log2_ : 5 = 0;
};

// True when storing `b` over `a` changes nothing; a NaN is the same as a NaN.
template< class V >
bool sameValue( V const & a, V const & b ) {
   if constexpr( std::is_floating_point_v< V > )
      return a == b || ( a != a && b != b );
   else
      return a == b;
}

} // namespace detail

// A keyed collection of members T under keys K (Name or String8). T is a counted type, held by
// Ptr< T >, or an arithmetic type, held by value.
//
// Iteration goes in ascending order of the key's hash (ties: by the key's bytes), which depends on
// the keys alone: not on the order of insertion, nor on what was there before, nor on the word
// size. A member that is present during a whole iteration is visited exactly once; one that is
// removed before its turn is not visited; one that is added may be.
//
// Cost: finding, adding and removing are constant on average; one allocation per member.
template< class T, class K >
class HashMap : public detail::MapBase {
 public:
   using Value = std::conditional_t< std::is_arithmetic_v< T >, T, Ptr< T > >;

   HashMap() = default;
   ~HashMap() { clear(); }

   bool has( K const & key ) const { return find( key ) != nullptr; }
   // Null (zero, false) when absent.
   Value member( K const & key ) const {
      detail::MapNode * n = find( key );
      return n ? node( n )->value : Value();
   }
   // Adds or replaces. Throws std::bad_alloc and has then changed nothing.
   void memberIs( K const & key, Value const & value ) {
      if( detail::MapNode * n = find( key ) ) {
         Value old = value;
         std::swap( node( n )->value, old );
         return;
      }
      reserve( 1 );
      insert( new Node( key, value ) );
   }
   // False when it was not there.
   bool memberDel( K const & key ) {
      detail::MapNode * n = remove( key );
      dispose( n );
      return n != nullptr;
   }
   // Members may look at the map while they are destroyed: it is empty by then.
   void clear() { disposeAll( takeAll() ); }

   // May be used across any change of the map, not after its end: it points to the map (the
   // iterators that entities hand out keep their entity alive themselves).
   class IteratorConst {
    public:
      IteratorConst() = default;
      explicit IteratorConst( HashMap const & map ) : map_( &map ) { reset(); }

      // True while the iterator stands at a place: more members may follow, this one may be gone.
      explicit operator bool() const { return bookmarked_; }
      bool hasBookmark() const { return bookmarked_; }
      void reset() { stand( map_->first() ); }
      // To the first member after the bookmark.
      void advance() {
         if( !bookmarked_ )
            return;
         stand( valid() ? map_->next( node_ ) : map_->after( bookmark_ ) );
      }
      IteratorConst & operator++() {
         advance();
         return *this;
      }
      // The key at the bookmark, also when the member is gone.
      K key() const { return K( bookmark_ ); }
      // The member at the bookmark; null (zero, false) when it is gone.
      Value value() const {
         detail::MapNode const * n = valid() ? node_ : map_->find( bookmark_ );
         return n ? node( n )->value : Value();
      }
      Value ptr() const { return value(); }

    private:
      bool valid() const { return node_ && removals_ == map_->removals(); }
      void stand( detail::MapNode const * n ) {
         node_ = n;
         removals_ = map_->removals();
         bookmarked_ = n != nullptr;
         if( n )
            bookmark_ = n->key;
      }

      HashMap const * map_ = nullptr;
      detail::MapNode const * node_ = nullptr; // valid while nothing was removed
      Text bookmark_;
      std::uint32_t removals_ = 0;
      bool bookmarked_ = false;
   };
   using Iterator = IteratorConst;

   IteratorConst iterator() const { return IteratorConst( *this ); }

   struct Node : detail::MapNode {
      Node( K const & k, Value const & v ) : MapNode( k ), value( v ) {}
      Value value;
   };
   static Node * node( detail::MapNode * n ) { return static_cast< Node * >( n ); }
   static Node const * node( detail::MapNode const * n ) {
      return static_cast< Node const * >( n );
   }
   static void dispose( detail::MapNode * n ) { delete node( n ); }
   static void disposeAll( detail::MapNode * first ) {
      while( detail::MapNode * n = first ) {
         first = n->next;
         dispose( n );
      }
   }
};

} // namespace Kiv
