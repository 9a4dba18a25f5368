// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Kiv/HashMap.h>

#include <Kiv/Exception.h>

#include <new>

namespace Kiv::detail {

namespace {

// Whether a stands before b.
bool before( Text const & a, Text const & b ) {
   return a.hash() != b.hash() ? a.hash() < b.hash() : a < b;
}

std::size_t tableBytes( unsigned log2 ) {
   return ( std::size_t{ 1 } << log2 ) * sizeof( MapNode * );
}

} // namespace

// The link that holds the first member not before `key`, in the bucket of `key`.
MapNode ** MapBase::place( Text const & key ) const {
   MapNode ** link = &table_[ bucketOf( key.hash() ) ];
   while( *link && before( ( *link )->key, key ) )
      link = &( *link )->next;
   return link;
}

MapNode * MapBase::find( Text const & key ) const {
   if( !table_ )
      return nullptr;
   std::uint32_t const hash = key.hash();
   for( MapNode * n = table_[ bucketOf( hash ) ]; n; n = n->next )
      if( n->key == key )
         return n;
   return nullptr;
}

MapNode * MapBase::first() const {
   for( std::uint32_t b = 0; b != buckets(); ++b )
      if( table_[ b ] )
         return table_[ b ];
   return nullptr;
}

MapNode * MapBase::next( MapNode const * node ) const {
   if( node->next )
      return node->next;
   for( std::uint32_t b = bucketOf( node->key.hash() ) + 1; b < buckets(); ++b )
      if( table_[ b ] )
         return table_[ b ];
   return nullptr;
}

MapNode * MapBase::after( Text const & key ) const {
   if( !table_ )
      return nullptr;
   MapNode * n = *place( key );
   if( n && n->key == key )
      n = n->next;
   if( n )
      return n;
   for( std::uint32_t b = bucketOf( key.hash() ) + 1; b < buckets(); ++b )
      if( table_[ b ] )
         return table_[ b ];
   return nullptr;
}

void MapBase::reserve( std::uint32_t more ) {
   unsigned log2 = log2_;
   std::uint64_t const wanted = std::uint64_t{ size_ } + more;
   while( ( std::uint64_t{ 1 } << log2 ) < wanted && log2 < 31 )
      ++log2;
   if( ( !table_ || log2 != log2_ ) && !resize( log2 ) )
      throw std::bad_alloc();
}

void MapBase::insert( MapNode * node ) noexcept {
   assertInvariant( table_, "room was made for a new member" );
   MapNode ** link = place( node->key );
   assertInvariant( !*link || !( ( *link )->key == node->key ), "a new member's key is new" );
   node->next = *link;
   *link = node;
   ++size_;
}

MapNode * MapBase::remove( Text const & key ) noexcept {
   if( !table_ )
      return nullptr;
   MapNode ** link = place( key );
   MapNode * node = *link;
   if( !node || !( node->key == key ) )
      return nullptr;
   *link = node->next;
   node->next = nullptr;
   --size_;
   ++removals_;
   if( size_ == 0 ) {
      KivMemPool::operator delete( table_, tableBytes( log2_ ) );
      table_ = nullptr;
      log2_ = 0;
   } else if( size_ < buckets() / 4 ) {
      resize( log2_ - 1U ); // a map that cannot shrink stays as it is
   }
   return node;
}

MapNode * MapBase::takeAll() noexcept {
   MapNode * all = nullptr;
   MapNode ** tail = &all;
   for( std::uint32_t b = 0; b != buckets(); ++b )
      for( *tail = table_[ b ]; *tail; tail = &( *tail )->next ) {
      }
   if( table_ )
      KivMemPool::operator delete( table_, tableBytes( log2_ ) );
   table_ = nullptr;
   size_ = 0;
   log2_ = 0;
   ++removals_;
   return all;
}

// A walk in order meets the members of each new bucket in order, so appending keeps invariant 1.
bool MapBase::resize( unsigned log2 ) noexcept {
   auto * table =
      static_cast< MapNode ** >( KivMemPool::operator new( tableBytes( log2 ), std::nothrow ) );
   if( !table )
      return false;
   std::uint32_t const count = 1U << log2;
   for( std::uint32_t b = 0; b != count; ++b )
      table[ b ] = nullptr;
   MapNode ** const old = table_;
   std::uint32_t const oldCount = buckets();
   unsigned const oldLog2 = log2_;
   table_ = table;
   log2_ = log2 & 31U;
   MapNode ** tail = nullptr;
   std::uint32_t tailBucket = 0;
   for( std::uint32_t b = 0; b != oldCount; ++b )
      for( MapNode * n = old[ b ]; n; ) {
         MapNode * const following = n->next;
         std::uint32_t const to = bucketOf( n->key.hash() );
         if( !tail || to != tailBucket )
            tail = &table_[ to ];
         tailBucket = to;
         n->next = nullptr;
         *tail = n;
         tail = &n->next;
         n = following;
      }
   if( old )
      KivMemPool::operator delete( old, tableBytes( oldLog2 ) );
   return true;
}

} // namespace Kiv::detail
