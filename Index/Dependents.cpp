// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Index/Dependents.h>

#include <Index/DependentsLink.h>

#include <Kiv/Memory.h>

#include <algorithm>
#include <memory>
#include <new>
#include <utility>

namespace Stage {

using namespace Kiv;

class Dependents::Names {
 public:
   explicit Names( std::uintptr_t & held ) : held_( held ) {}

   std::span< Name > all() const {
      return held_ ? std::span( first(), head()->size ) : std::span< Name >();
   }
   // Throws std::bad_alloc, having changed nothing.
   void add( Name const & name ) {
      if( !held_ || head()->size == head()->room )
         makeRoom();
      new( first() + head()->size ) Name( name );
      ++head()->size;
   }
   void remove( Name & name ) noexcept {
      Name & last = all().back();
      std::swap( name, last );
      last.~Name();
      if( --head()->size == 0 )
         release();
   }
   void clear() noexcept {
      std::destroy_n( first(), head()->size );
      release();
   }

 private:
   struct Head {
      std::uint32_t size;
      std::uint32_t room;
   };
   static_assert( sizeof( Head ) % alignof( Name ) == 0 );

   Head * head() const { return reinterpret_cast< Head * >( held_ ); }
   Name * first() const { return reinterpret_cast< Name * >( head() + 1 ); }
   static std::size_t bytes( std::uint32_t room ) { return sizeof( Head ) + room * sizeof( Name ); }
   void release() noexcept {
      KivMemPool::operator delete( head(), bytes( head()->room ) );
      held_ = 0;
   }
   void makeRoom() {
      std::uint32_t const size = held_ ? head()->size : 0;
      std::uint32_t const room = size + 2 + size / 2 / 2 * 2;
      auto * const made = new( KivMemPool::operator new( bytes( room ) ) ) Head{ size, room };
      if( held_ ) {
         std::uninitialized_move_n( first(), size, reinterpret_cast< Name * >( made + 1 ) );
         clear();
      }
      held_ = reinterpret_cast< std::uintptr_t >( made );
   }

   std::uintptr_t & held_;
};

Dependents::~Dependents() {
   for( auto i = dependents_.iterator(); i; ++i )
      Names( *dependents_.find( i.key() ) ).clear();
}

void Dependents::add( String8 const & stage, Name const & dependent ) noexcept {
   try {
      if( std::uintptr_t * const held = dependents_.find( stage ) ) {
         Names( *held ).add( dependent );
         return;
      }
      dependents_.reserve();
      std::uintptr_t held = 0;
      Names( held ).add( dependent );
      dependents_.insert( stage, held );
   } catch( std::bad_alloc const & ) {
      complete_ = false;
   }
}

void Dependents::remove( String8 const & stage, Name const & dependent ) noexcept {
   std::uintptr_t * const held = dependents_.find( stage );
   if( !held )
      return;
   Names names( *held );
   std::span< Name > const all = names.all();
   // The latest are the likeliest to go again.
   auto const last = std::find( all.rbegin(), all.rend(), dependent );
   if( last == all.rend() )
      return;
   names.remove( *last );
   if( *held == 0 )
      dependents_.memberDel( stage );
}

std::vector< Name > Dependents::of( Name const & stage ) const {
   std::uintptr_t held = dependents_.member( String8( stage ) );
   std::span< Name > const all = Names( held ).all();
   std::vector< Name > names( all.begin(), all.end() );
   std::sort( names.begin(), names.end(), &standsBefore );
   return names;
}

DependentsLink::~DependentsLink() { stageIs( nullptr, nullptr ); }
void DependentsLink::stageIs( Ptr< StageStatus > const & stage,
                              Ptr< Dependents > const & dependents ) noexcept {
   if( stage_ ) {
      stage_->indexDel( *this );
      for( auto i = stage_->dependencyIteratorConst(); i; ++i )
         dependencyWent( i.key() );
   }
   stage_ = stage;
   dependents_ = dependents;
   if( stage_ ) {
      stage_->indexIs( *this );
      for( auto i = stage_->dependencyIteratorConst(); i; ++i )
         dependencyCame( i.key() );
   }
}
void DependentsLink::dependencyCame( String8 const & name ) noexcept {
   dependents_->add( name, stage_->name() );
}
void DependentsLink::dependencyWent( String8 const & name ) noexcept {
   dependents_->remove( name, stage_->name() );
}

} // namespace Stage
