// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Kiv/Kiv.h>
#include <Stage/Stage.h>

#include <functional>

#include "Timers.h"

namespace activity {

// Writes "told" and the timeout that it sees.
class Listener : public Stage::EventConfig::NotifieeConst {
 public:
   Listener( Journal & journal, Kiv::Ptr< Stage::EventConfig > const & event )
      : journal_( journal ) {
      watch( event );
   }
   std::function< void() > act;
   void onTimeout() override {
      journal_.push_back( "told " + Kiv::valueToString( notifier()->timeout() ).str() );
      if( auto const now = act )
         now();
   }

 private:
   Journal & journal_;
};

} // namespace activity
