// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Kiv/HashMap.h>

#include <Kiv/Exception.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <limits>

namespace Kiv::detail {

namespace {

// So many members stand in one bucket.
constexpr std::uint32_t oneBucket = 8;
constexpr std::uint32_t leastBuckets = 16; // of more than one
constexpr std::uint32_t mostBuckets = 1U << 31;
// Where so many in a row are behind their buckets, taking one away costs as much as finding some.
constexpr std::uint32_t crowded = 256;

// How many members a table of so many buckets is made for.
std::uint64_t limit( std::uint32_t buckets ) { return std::uint64_t{ buckets } * 7 / 8; }

// At least so many buckets: 2 or 3 times a power of two. Large tables, which it takes long to make
// anew, have twice as many each time.
std::uint32_t bucketsFrom( std::uint64_t least ) {
   if( least <= leastBuckets )
      return leastBuckets;
   if( least >= mostBuckets )
      return mostBuckets;
   auto const below = std::bit_floor( static_cast< std::uint32_t >( least - 1 ) );
   bool const between = below < MapTable::far && least <= below + below / 2;
   return between ? below + below / 2 : 2 * below;
}
std::uint32_t bucketsFor( std::uint64_t members ) {
   return members <= oneBucket ? 1 : bucketsFrom( ( members * 8 + 6 ) / 7 );
}
// The number of slots at least. Few members stand behind the last bucket, the more the larger the
// table.
std::uint32_t slotsFor( std::uint32_t buckets, std::uint32_t members ) {
   return buckets == 1 ? std::bit_ceil( members )
                       : buckets + static_cast< std::uint32_t >( std::bit_width( buckets ) ) - 2;
}

std::uint64_t tableBytes( std::uint32_t slots, std::size_t stride ) {
   return sizeof( MapTable ) + ( std::uint64_t{ slots } + 1 ) * sizeof( std::uint32_t ) +
          std::uint64_t{ slots } * stride;
}

// In which a slot's number is that of its bucket: no member is there.
MapTable * newTable( std::uint32_t buckets, std::uint32_t slots, std::size_t stride ) noexcept {
   std::uint64_t const bytes = tableBytes( slots, stride );
   if( bytes > std::numeric_limits< std::size_t >::max() / 2 )
      return nullptr;
   auto * const block = static_cast< std::byte * >(
      KivMemPool::operator new( static_cast< std::size_t >( bytes ), std::nothrow ) );
   if( !block )
      return nullptr;
   auto * const table = new( block + slots * stride ) MapTable{ 0, slots, buckets };
   std::fill_n( table->hash(), std::size_t{ slots } + 1, MapTable::free );
   return table;
}

// Moves `count` slots from place `from` to place `to`, with their hashes.
void move( MapTable & table, std::uint32_t from, std::uint32_t to, std::uint32_t count,
           std::size_t stride ) {
   if( count == 0 )
      return;
   std::memmove( table.hash() + to, table.hash() + from, count * sizeof( std::uint32_t ) );
   // Slots go downwards: the last of them comes first in memory.
   std::memmove( table.slot( to + count - 1, stride ), table.slot( from + count - 1, stride ),
                 count * stride );
}

} // namespace

std::size_t MapTable::farNotLess( std::size_t place, std::uint32_t hash ) {
   std::uint32_t const * const hashes = this->hash();
   std::size_t step = nearby;
   while( place + step < slots && hashes[ place + step ] < hash ) {
      place += step + 1;
      step *= 2;
   }
   auto const * const end = hashes + std::min< std::size_t >( place + step, slots );
   return static_cast< std::size_t >( std::lower_bound( hashes + place, end, hash ) - hashes );
}

MapBase::~MapBase() {
   while( MapPlace * const place = places_ ) {
      place->leave();
      place->map_ = nullptr;
   }
}

// As find(), for memory that is slow to come: a branch that depends on it and goes the other way
// than expected would wait for it, so there is none before the member is most likely found. And for
// keys that were never asked for.
std::byte * MapBase::findFar( Text const & key, std::size_t stride ) const {
   std::uint32_t const hash = key.filedHash();
   std::size_t const bucket = table_->bucketOf( hash );
   if( table_->buckets < MapTable::far )
      return findEqual( key, table_->notLess( bucket, hash ), hash, stride );
   constexpr std::size_t ahead = 8; // few members stand further behind their bucket
   __builtin_prefetch( table_->slot( bucket, stride ) );
   std::uint32_t const * const hashes = table_->hash() + bucket;
   std::size_t before = 0;
   for( std::size_t i = 0; i != ahead; ++i )
      before += hashes[ i ] < hash;
   if( before == ahead )
      before = table_->notLess( bucket + ahead, hash ) - bucket;
   if( hashes[ before ] != hash )
      return nullptr;
   std::byte * const slot = table_->slot( bucket + before, stride );
   return *reinterpret_cast< Text * >( slot ) == key
             ? slot
             : findEqual( key, bucket + before + 1, hash, stride );
}

// The same from a place on, for members of one hash.
std::byte * MapBase::findEqual( Text const & key, std::size_t place, std::uint32_t hash,
                                std::size_t stride ) const {
   for( ; table_->hash()[ place ] == hash; ++place )
      if( table_->key( place, stride ) == key )
         return table_->slot( place, stride );
   return nullptr;
}

void MapBase::bookmark() const noexcept {
   for( MapPlace * p = places_; p; p = p->next_ )
      if( p->table_ ) {
         p->bookmark_ = p->table_->key( p->place_, p->stride_ );
         p->table_ = nullptr;
      }
}

// The place of the first member not before `key`, or a free one at which it would stand.
std::uint32_t MapBase::notBefore( Text const & key, std::size_t stride ) const {
   std::uint32_t const filed = key.filedHash();
   std::uint32_t const * const hashes = table_->hash();
   auto place = static_cast< std::uint32_t >( table_->notLess( table_->bucketOf( filed ), filed ) );
   while( hashes[ place ] == filed && standsBefore( table_->key( place, stride ), key ) )
      ++place;
   return place;
}

std::uint32_t MapBase::after( Text const & key, std::size_t stride ) const {
   std::uint32_t place = notBefore( key, stride );
   if( place != table_->slots && !table_->isFree( place ) && table_->key( place, stride ) == key )
      ++place;
   return table_->takenFrom( place );
}

// How many slots the members need in a table of so many buckets.
MapBase::Extent MapBase::extent( std::uint32_t buckets ) const {
   if( !table_ )
      return { 0, 0 };
   MapTable const made{ 0, 0, buckets };
   std::uint32_t end = 0;
   std::uint32_t behind = 0;
   std::uint32_t crowd = 0;
   for( std::uint32_t p = table_->takenFrom( 0 ); p != table_->slots;
        p = table_->takenFrom( p + 1 ) ) {
      std::uint32_t const bucket = made.bucketOf( table_->hash()[ p ] );
      behind = bucket < end ? behind + 1 : 0;
      crowd = std::max( crowd, behind );
      end = std::max( end, bucket ) + 1;
   }
   return { end, crowd };
}

void MapBase::reserve( std::uint32_t wanted, std::size_t stride ) {
   if( wanted <= size() )
      return;
   std::uint32_t buckets = table_ ? table_->buckets : 1;
   bool const one = buckets == 1;
   std::uint32_t slots = 0;
   if( table_ &&
       ( one ? wanted <= oneBucket : wanted <= limit( buckets ) || buckets == mostBuckets ) ) {
      if( table_->isFree( table_->slots - 1 ) )
         return;
      // Too many have the last buckets in common: half as many slots more behind these.
      std::uint32_t const behind = table_->slots - buckets;
      slots = one ? slotsFor( 1, wanted )
                  : table_->slots + slotsFor( buckets, wanted ) - buckets + behind / 2;
   } else {
      buckets = bucketsFor( wanted );
      slots = slotsFor( buckets, wanted );
   }
   if( resize( buckets, slots, stride ) )
      return;
   // Most likely for want of memory, else of slots.
   std::uint32_t const needed = extent( buckets ).slots + 1;
   if( needed <= slots || !resize( buckets, needed, stride ) )
      throw std::bad_alloc();
}

std::uint32_t MapBase::insert( Text const & key, std::size_t stride ) noexcept {
   assertInvariant( table_, "room was made for a new member" );
   membersMove();
   std::uint32_t const place = notBefore( key, stride );
   std::uint32_t end = place;
   while( end != table_->slots && !table_->isFree( end ) )
      ++end;
   assertInvariant( end == place || !( table_->key( place, stride ) == key ),
                    "a new member's key is new" );
   assertInvariant( end != table_->slots, "room was made for a new member" );
   move( *table_, place, place + 1, end - place, stride );
   new( table_->slot( place, stride ) ) Text( key );
   table_->hash()[ place ] = key.filedHash();
   ++table_->size;
   return place;
}

void MapBase::close( std::uint32_t place, std::size_t stride ) noexcept {
   std::uint32_t end = place + 1;
   while( end != table_->slots && !table_->isFree( end ) &&
          table_->bucketOf( table_->hash()[ end ] ) != end )
      ++end;
   // One bucket is as good as another place: the members behind the gap close up.
   move( *table_, place + 1, place, end - place - 1, stride );
   table_->hash()[ end - 1 ] = MapTable::free;
   std::uint32_t const size = --table_->size;
   if( size == 0 ) {
      dispose( std::exchange( table_, nullptr ), stride );
      return;
   }
   if( size < ( table_->buckets == 1 ? table_->slots : table_->buckets ) / 4 )
      shrink( stride );
}

// There are few members for the table. One that cannot shrink stays as it is, and is looked at
// again when it has half as many.
void MapBase::shrink( std::size_t stride ) noexcept {
   std::uint32_t const size = table_->size;
   std::uint32_t const buckets = table_->buckets;
   if( buckets == 1 || size < leastBuckets / 4 ) {
      resize( 1, buckets == 1 ? table_->slots / 2 : oneBucket, stride );
      return;
   }
   if( size != buckets / 4 - 1 && !std::has_single_bit( size ) )
      return;
   std::uint32_t const next = bucketsFrom( 2 * std::uint64_t{ size } + 2 );
   Extent const needed = extent( next );
   if( needed.crowd < crowded )
      resize( next, std::max( slotsFor( next, size ), needed.slots + 1 ), stride );
}

MapTable * MapBase::takeAll() noexcept {
   membersMove();
   return std::exchange( table_, nullptr );
}

void MapBase::dispose( MapTable * table, std::size_t stride ) noexcept {
   if( table )
      KivMemPool::operator delete(
         table->slot( table->slots - 1, stride ),
         static_cast< std::size_t >( tableBytes( table->slots, stride ) ) );
}

// A walk in order meets the members of each new bucket in order, which keeps invariant 2. False,
// and nothing changed, without memory, and when the slots are too few for there to be a free one
// behind all members.
bool MapBase::resize( std::uint32_t buckets, std::uint32_t slots, std::size_t stride ) noexcept {
   MapTable * const made = newTable( buckets, slots, stride );
   if( !made )
      return false;
   std::uint32_t free = 0;
   if( table_ )
      for( std::uint32_t p = table_->takenFrom( 0 ); p != table_->slots;
           p = table_->takenFrom( p + 1 ) ) {
         std::uint32_t const hash = table_->hash()[ p ];
         std::uint32_t const to = std::max( free, made->bucketOf( hash ) );
         if( to + 1 >= slots ) {
            dispose( made, stride );
            return false;
         }
         made->hash()[ to ] = hash;
         std::memcpy( made->slot( to, stride ), table_->slot( p, stride ), stride );
         free = to + 1;
      }
   made->size = size();
   membersMove();
   dispose( std::exchange( table_, made ), stride );
   return true;
}

// Not in line: compilers would see a pointer to something local being kept, but not that the
// destructor takes it away again.
void MapPlace::enter( MapBase const * map ) {
   map_ = map;
   if( !map )
      return;
   next_ = map->places_;
   link_ = &map->places_;
   if( next_ )
      next_->link_ = &next_;
   map->places_ = this;
}

void MapPlace::findNext() {
   if( !bookmarked_ )
      return;
   MapTable * const table = map_ ? map_->table_ : nullptr;
   std::uint32_t const place = table ? map_->after( bookmark_, stride_ ) : 0;
   if( !table || place == table->slots ) {
      end();
      return;
   }
   table_ = table;
   place_ = place;
   bookmark_ = Text();
}

} // namespace Kiv::detail
