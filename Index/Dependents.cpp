// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Index/Dependents.h>

#include <Index/DependentsLink.h>

#include <Kiv/HashMap.h>

#include <algorithm>
#include <new>

namespace Stage {

using namespace Kiv;

void Dependents::add( String8 const & stage, Name const & dependent ) noexcept {
   try {
      dependents_[ stage ].push_back( dependent );
   } catch( std::bad_alloc const & ) {
      complete_ = false;
   }
}

void Dependents::remove( String8 const & stage, Name const & dependent ) noexcept {
   auto const found = dependents_.find( stage );
   if( found == dependents_.end() )
      return;
   std::vector< Name > & names = found->second;
   // The latest are the likeliest to go again.
   auto const last = std::find( names.rbegin(), names.rend(), dependent );
   if( last == names.rend() )
      return;
   *last = names.back();
   names.pop_back();
   if( names.empty() )
      dependents_.erase( found );
}

std::vector< Name > Dependents::of( Name const & stage ) const {
   auto const found = dependents_.find( String8( stage ) );
   if( found == dependents_.end() )
      return {};
   std::vector< Name > names = found->second;
   std::sort( names.begin(), names.end(), &standsBefore );
   return names;
}

void DependentsLink::stageIs( Ptr< StageStatus > const & stage,
                              std::shared_ptr< Dependents > const & dependents ) noexcept {
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
