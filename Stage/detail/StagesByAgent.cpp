// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Stage/detail/StagesByAgent.h>

namespace Stage::detail {

using Kiv::Name;
using Kiv::Ptr;
using Kiv::String8;

void StagesByAgent::add( String8 const & agent, Name const & stage ) {
   if( Ptr< Stages > const held = agents_.member( agent ) ) {
      held->names.memberIs( stage, true );
      return;
   }
   Ptr< Stages > const made = new Stages;
   made->names.memberIs( stage, true );
   agents_.memberIs( agent, made );
}

void StagesByAgent::del( String8 const & agent, Name const & stage ) noexcept {
   Ptr< Stages > const held = agents_.member( agent );
   if( !held )
      return;
   held->names.memberDel( stage );
   if( held->names.size() == 0 )
      agents_.memberDel( agent );
}

} // namespace Stage::detail
