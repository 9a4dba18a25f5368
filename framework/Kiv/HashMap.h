// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Keyed collections with a fixed order and iterators that survive every change.
//
//    bucket    0         1         2         3         (spare)
//             +---------+---------+---------+---------+---------+---------+
//    hash     | 0c..    | 31..    | 3f..    | c0..    | -       | (end)   |
//    member   | Boot    | Disk    | Net     | Gui     |         |
//             +---------+---------+---------+---------+---------+
//
// Invariants:
//  1. A table has some buckets, one slot each and some spare ones behind them. The buckets share
//     the range of hashes evenly, in its order. A member stands in the slot of its bucket, or
//     behind it with no free slot in between.
//  2. Members stand in ascending order of (hash, key bytes). So a walk over the slots meets all
//     members in that order, whatever the number of buckets is.
//  3. A position is therefore described by (hash, key) alone: the bookmark of an iterator. The
//     member after it is found again after any insertion, removal, growth or shrinking.
//  4. There is no table for a map that was never filled or was emptied. A table of up to eight
//     slots is one bucket; any other has at most 7/8 as many members as buckets. After a removal
//     there are at most four buckets, or four slots of one bucket, to a member, as far as there
//     was memory to shrink, and as far as members then do not crowd: a map that is emptied in
//     the order of its walk has the last of them in its last buckets, and each that goes would
//     move all others.
//  5. Every iterator of a map stands in the map's list. It knows the slot of its member until
//     members move; before they do, the map gives it the key to find its place again by.
#pragma once

#include <Kiv/Export.h>
#include <Kiv/Memory.h>
#include <Kiv/Ptr.h>
#include <Kiv/Text.h>

#include <cstddef>
#include <cstdint>
#include <new>
#include <type_traits>
#include <utility>

namespace Kiv {

// Whether a map is walked to key a before b: for those who keep keys in that order beside one.
inline bool standsBefore( Text const & a, Text const & b ) {
   return a.hash() != b.hash() ? a.hash() < b.hash() : a < b;
}

namespace detail {

class MapPlace;

// The slots of a map, in one block of memory. Slots go downwards from the head, hashes upwards, so
// that both are found without knowing how many there are:
//
//    | slot n-1 | ... | slot 1 | slot 0 | head | hash 0 | hash 1 | ... | hash n-1 | free |
//                                       ^ MapTable *
struct MapTable {
   // Stands for the hash of a free slot, and of the one behind the last. A member has its
   // filedHash(), which is less.
   static constexpr std::uint32_t free = 0xffffffffU;

   // From so many buckets on a table is too large for the caches near the processor.
   static constexpr std::uint32_t far = 4096;

   std::uint32_t bucketOf( std::uint32_t hash ) const {
      return static_cast< std::uint32_t >( std::uint64_t{ hash } * buckets >> 32 );
   }
   std::uint32_t * hash() { return reinterpret_cast< std::uint32_t * >( this + 1 ); }
   std::byte * slot( std::size_t place, std::size_t stride ) {
      return reinterpret_cast< std::byte * >( this ) - ( place + 1 ) * stride;
   }
   Text & key( std::size_t place, std::size_t stride ) {
      return *reinterpret_cast< Text * >( slot( place, stride ) );
   }
   bool isFree( std::uint32_t place ) { return hash()[ place ] == free; }
   // The first member at that place or behind it; `slots` when there is none.
   std::uint32_t takenFrom( std::uint32_t place ) {
      while( place != slots && isFree( place ) )
         ++place;
      return place;
   }

   // The first place, from `place` on, whose hash is not less. REQUIRES: `place` is the bucket of
   // `hash`, or behind it with only lesser ones in between. A free slot counts as the greatest, and
   // behind one that is behind the bucket no hash is less: so the places are ascending in this.
   std::size_t notLess( std::size_t place, std::uint32_t hash ) {
      std::uint32_t const * const hashes = this->hash();
      for( std::size_t end = place + nearby; hashes[ place ] < hash; )
         if( ++place == end )
            return farNotLess( place, hash );
      return place;
   }
   // The same for one that is far from its bucket.
   KIV_EXPORT std::size_t farNotLess( std::size_t place, std::uint32_t hash );

   // Few members stand further behind their bucket. But keys that come in the order of a walk over
   // another map lie in the first buckets all, while a map grows: one long run.
   static constexpr std::size_t nearby = 16;

   std::uint32_t size;
   std::uint32_t slots;
   std::uint32_t buckets;
};

// What every map does, whatever its members are. `stride`: the bytes of a slot, in which the key
// comes first; what a slot holds can be moved by moving its bytes.
class KIV_EXPORT MapBase {
 public:
   MapBase() = default;
   MapBase( MapBase const & ) = delete;
   MapBase & operator=( MapBase const & ) = delete;

   std::uint32_t size() const { return table_ ? table_->size : 0; }
   std::uint32_t buckets() const { return table_ ? table_->buckets : 0; }
   // How many members there is a place for, and which are taken: 0 is the first.
   std::uint32_t slots() const { return table_ ? table_->slots : 0; }
   bool taken( std::uint32_t place ) const { return !table_->isFree( place ); }

 protected:
   ~MapBase();

   // The slot of the member, null when absent. In line is what most look-ups need: the key was
   // asked for before and is the very one that was filed, or there is none of its hash.
   std::byte * find( Text const & key, std::size_t stride ) const {
      if( !table_ )
         return nullptr;
      if( !key.hashKnown() || table_->buckets >= MapTable::far )
         return findFar( key, stride );
      std::uint32_t const hash = key.knownHash();
      std::uint32_t const * const hashes = table_->hash();
      std::size_t const place = table_->notLess( table_->bucketOf( hash ), hash );
      if( hashes[ place ] != hash )
         return nullptr;
      if( table_->key( place, stride ).identity() == key.identity() )
         return table_->slot( place, stride );
      return findEqual( key, place, hash, stride );
   }
   std::uint32_t placeOf( std::byte const * slot, std::size_t stride ) const {
      auto const bytes = reinterpret_cast< std::byte const * >( table_ ) - slot;
      return static_cast< std::uint32_t >( static_cast< std::size_t >( bytes ) / stride - 1 );
   }

   // Makes room for so many members in all. Throws std::bad_alloc and has then changed nothing.
   void reserve( std::uint32_t members, std::size_t stride );
   // Makes a place for a new member, with a copy of its key. The value's bytes are the caller's to
   // fill. REQUIRES: room was made, and the key is absent. Ends the process otherwise.
   std::uint32_t insert( Text const & key, std::size_t stride ) noexcept;
   // Before members move or go: gives every iterator its key.
   void membersMove() const noexcept {
      if( places_ )
         bookmark();
   }
   // Closes the gap of a member that was moved out; gives memory back when it can.
   void close( std::uint32_t place, std::size_t stride ) noexcept;
   // Empties the map and returns its table, null for none. Its members are the caller's.
   MapTable * takeAll() noexcept;
   static void dispose( MapTable * table, std::size_t stride ) noexcept;

   MapTable * table_ = nullptr;

 private:
   friend class MapPlace;

   std::byte * findFar( Text const & key, std::size_t stride ) const;
   std::byte * findEqual( Text const & key, std::size_t place, std::uint32_t hash,
                          std::size_t stride ) const;
   void bookmark() const noexcept;
   std::uint32_t notBefore( Text const & key, std::size_t stride ) const;
   std::uint32_t after( Text const & key, std::size_t stride ) const;
   struct Extent {
      std::uint32_t slots;
      std::uint32_t crowd; // so many in a row are behind their buckets
   };
   Extent extent( std::uint32_t buckets ) const;
   void shrink( std::size_t stride ) noexcept;
   bool resize( std::uint32_t buckets, std::uint32_t slots, std::size_t stride ) noexcept;

   mutable MapPlace * places_ = nullptr; // the iterators, a list
};

// A place in a map: at a member, or at the key of one that is gone or has moved, or nowhere.
class KIV_EXPORT MapPlace {
 public:
   bool bookmarked() const { return bookmarked_; }

 protected:
   explicit MapPlace( std::size_t stride ) : stride_( static_cast< std::uint16_t >( stride ) ) {}
   MapPlace( MapBase const & map, std::size_t stride ) : MapPlace( stride ) { enter( &map ); }
   MapPlace( MapPlace const & other ) : MapPlace( other.stride_ ) {
      enter( other.map_ );
      stand( other );
   }
   MapPlace & operator=( MapPlace const & other ) {
      if( map_ != other.map_ ) {
         leave();
         enter( other.map_ );
      }
      stand( other );
      return *this;
   }
   ~MapPlace() { leave(); }

   void first() {
      table_ = map_ ? map_->table_ : nullptr;
      bookmark_ = Text();
      place_ = table_ ? table_->takenFrom( 0 ) : 0;
      bookmarked_ = table_ && place_ != table_->slots;
      if( !bookmarked_ )
         table_ = nullptr;
   }
   void next() {
      if( !table_ ) {
         findNext();
         return;
      }
      place_ = table_->takenFrom( place_ + 1 );
      if( place_ == table_->slots )
         end();
   }

   // Where the member stands; null while the place is at a key alone.
   MapTable * table() const { return table_; }
   std::uint32_t place() const { return place_; }
   // The key where the member stood; while there is no table.
   Text const & bookmark() const { return bookmark_; }

 private:
   friend class MapBase;

   void stand( MapPlace const & other ) {
      table_ = other.table_;
      place_ = other.place_;
      bookmarked_ = other.bookmarked_;
      bookmark_ = other.bookmark_;
   }
   void end() {
      table_ = nullptr;
      bookmarked_ = false;
      bookmark_ = Text();
   }
   void enter( MapBase const * map );
   void leave() {
      if( !map_ )
         return;
      *link_ = next_;
      if( next_ )
         next_->link_ = link_;
   }
   void findNext();

 protected:
   MapBase const * map_ = nullptr; // null without a map, and after its end

 private:
   MapTable * table_ = nullptr; // the map's, while the place of the member is known
   std::uint32_t place_ = 0;    // of the member, while there is a table
   std::uint16_t const stride_;
   bool bookmarked_ = false;
   Text bookmark_; // the key, while there is no table
   MapPlace * next_ = nullptr;
   MapPlace ** link_ = nullptr; // what points to this
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
// Cost: finding, adding and removing are constant on average. Members stand in a table: none is
// allocated by itself. A table that is full is made anew, a third to a half larger, from 4096 slots
// on twice as large, by the member that does not fit. A slot is two words and four bytes, and there
// are 1.14 to 1.8 slots to a member while a map grows, in a large one up to 2.3. An iterator costs
// each change of the map while it lives: a few instructions.
template< class T, class K >
class HashMap : public detail::MapBase {
 public:
   using Value = std::conditional_t< std::is_arithmetic_v< T >, T, Ptr< T > >;

   HashMap() = default;
   ~HashMap() { clear(); }

   bool has( K const & key ) const { return find( key ) != nullptr; }
   // Null (zero, false) when absent.
   Value member( K const & key ) const {
      Value const * const value = find( key );
      return value ? *value : Value();
   }
   // What is held under that key, null when absent. Valid until the map is changed.
   Value const * find( K const & key ) const {
      std::byte * const slot = MapBase::find( key, stride );
      return slot ? &valueIn( slot ) : nullptr;
   }
   Value * find( K const & key ) {
      return const_cast< Value * >( std::as_const( *this ).find( key ) );
   }
   // Adds or replaces. Throws std::bad_alloc and has then changed nothing.
   void memberIs( K const & key, Value value ) {
      if( Value * const held = find( key ) ) {
         std::swap( *held, value );
         return;
      }
      reserve();
      insert( key, std::move( value ) );
   }
   // Makes room for one more member, which insert() then adds without fail. Throws std::bad_alloc
   // and has then changed nothing. REQUIRES, for insert(): the key is absent.
   void reserve() { reserve( size() + 1 ); }
   // The same for so many members in all. For who is about to add many in the order of a walk: they
   // would stand close together while the map grows, in runs that have to be searched.
   void reserve( std::uint32_t members ) { MapBase::reserve( members, stride ); }
   void insert( K const & key, Value value ) noexcept {
      std::uint32_t const place = MapBase::insert( key, stride );
      new( &valueIn( table_, place ) ) Value( std::move( value ) );
   }
   // False when it was not there.
   bool memberDel( K const & key ) {
      Value gone{};
      return take( key, gone );
   }
   // The same, and gives what was there to the caller.
   bool take( K const & key, Value & gone ) noexcept {
      std::byte * const slot = MapBase::find( key, stride );
      if( !slot )
         return false;
      membersMove();
      std::uint32_t const place = placeOf( slot, stride );
      Text const kept = std::move( table_->key( place, stride ) ); // it may be `key`
      gone = std::move( valueIn( slot ) );
      close( place, stride );
      return true;
   }
   // Members may look at the map while they are destroyed: it is empty by then.
   void clear() { takeAll(); }

   // What was in a map. The members are destroyed in the map's order.
   class Members {
    public:
      explicit Members( detail::MapTable * table ) : table_( table ) {}
      Members( Members const & ) = delete;
      Members & operator=( Members const & ) = delete;
      ~Members() {
         each( [ this ]( std::uint32_t place ) {
            valueIn( table_, place ).~Value();
            table_->key( place, stride ).~Text();
         } );
         dispose( table_, stride );
      }
      // Calls `call( key )` for each, in the map's order.
      template< class Call >
      void eachKey( Call call ) const {
         each( [ & ]( std::uint32_t place ) { call( table_->key( place, stride ) ); } );
      }

    private:
      template< class Call >
      void each( Call call ) const {
         if( table_ )
            for( auto p = table_->takenFrom( 0 ); p != table_->slots;
                 p = table_->takenFrom( p + 1 ) )
               call( p );
      }
      detail::MapTable * const table_;
   };
   // Empties the map and returns what was in it.
   Members takeAll() noexcept { return Members( MapBase::takeAll() ); }

   // The member at a place that is taken.
   Text const & keyAt( std::uint32_t place ) const { return table_->key( place, stride ); }
   Value const & valueAt( std::uint32_t place ) const { return valueIn( table_, place ); }

   // May be used across any change of the map. After the map's end it stands at its key, where no
   // member is, and advances to the end. (The iterators that entities hand out keep their entity
   // alive themselves.)
   class IteratorConst : public detail::MapPlace {
    public:
      IteratorConst() : MapPlace( stride ) {}
      explicit IteratorConst( HashMap const & map ) : MapPlace( map, stride ) { reset(); }

      // True while the iterator stands at a place: more members may follow, this one may be gone.
      explicit operator bool() const { return bookmarked(); }
      bool hasBookmark() const { return bookmarked(); }
      void reset() { first(); }
      // To the first member after the bookmark.
      void advance() { next(); }
      IteratorConst & operator++() {
         advance();
         return *this;
      }
      // The key at the bookmark, also when the member is gone.
      K key() const { return K( table() ? table()->key( place(), stride ) : bookmark() ); }
      // The member at the bookmark; null (zero, false) when it is gone.
      Value value() const {
         if( table() )
            return valueIn( table(), place() );
         auto const * const map = static_cast< HashMap const * >( map_ );
         return map && bookmarked() ? map->member( key() ) : Value();
      }
      Value ptr() const { return value(); }
   };
   using Iterator = IteratorConst;

   IteratorConst iterator() const { return IteratorConst( *this ); }

 private:
   static constexpr std::size_t word =
      sizeof( Value ) < sizeof( void * ) ? sizeof( void * ) : sizeof( Value );
   static constexpr std::size_t valueOffset = sizeof( Text ) < word ? word : sizeof( Text );
   static constexpr std::size_t stride = valueOffset + word;

   static Value & valueIn( std::byte * slot ) {
      return *reinterpret_cast< Value * >( slot + valueOffset );
   }
   static Value & valueIn( detail::MapTable * table, std::uint32_t place ) {
      return valueIn( table->slot( place, stride ) );
   }
};

} // namespace Kiv
