// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Kiv/detail/Turn.h>

#include <Kiv/Type.h>

#include <span>
#include <string_view>
#include <tuple>

namespace Kiv::detail {

void Turn::lookAt( Reactor const & reactor, AttributeId attribute ) noexcept {
   if( told_ || generations_ + generationsLookedAt < leastGenerations )
      return;
   PtrInterface const * const watched = reactor.notifierPtr().get();
   for( std::size_t i = 0; i != found_; ++i )
      if( busy_[ i ].watched == watched && busy_[ i ].attribute == attribute )
         return;
   if( found_ == busy_.size() ) {
      more_ = true;
      return;
   }
   try {
      Attribute const * const row = watched ? watched->fwkType().attribute( attribute ) : nullptr;
      busy_[ found_ ] = { watched, attribute,
                          String8( row ? row->name : "?" ) + String8( " of a reactor on " ) +
                             valueToString( watched ) };
      ++found_;
   } catch( ... ) {
      more_ = true; // no memory for its name
   }
}

void Turn::forgetBusy() {
   while( found_ != 0 )
      busy_[ --found_ ] = {};
   more_ = false;
}

void Turn::othersBegin( double time ) {
   othersHaveBegun_ = true;
   asked_ = queue().asked();
   time_ = time;
   if( told_ )
      return;
   told_ = true;
   std::array< std::string_view, std::tuple_size_v< decltype( busy_ ) > > names;
   for( std::size_t i = 0; i != found_; ++i )
      names[ i ] = busy_[ i ].text.view();
   reportBusy( limit_, std::span( names ).first( found_ ), more_ );
   forgetBusy();
}

void Turn::goesOn() {
   othersHaveBegun_ = false;
   delivered_ = 0;
   generations_ = 0;
}

void Turn::ends() {
   if( delivered_ == 0 && !told_ )
      return;
   goesOn();
   forgetBusy();
   told_ = false;
}

} // namespace Kiv::detail
