// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Timers that write down when they fired, a clock that a test sets freely, and a limit for what
// could wait for ever.
#pragma once

#include <Kiv/Kiv.h>

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace activity {

using Journal = std::vector< std::string >;
using Lines = std::vector< std::string >;

class Timer : public Kiv::Clock::NotifieeConst {
 public:
   Timer( std::string id, Journal & journal,
          Kiv::Ptr< Kiv::Clock > const & clock = Kiv::activityManager()->clock() )
      : id_( std::move( id ) ), journal_( journal ) {
      watch( clock );
   }
   // Runs inside onTime(), after the id was written.
   std::function< void() > act;

   void onTime() override {
      journal_.push_back( id_ );
      if( auto const now = act )
         now();
   }

 private:
   std::string const id_;
   Journal & journal_;
};

// Runs the loop on the real clock until something stops it; a test that would wait for ever fails
// instead.
inline void runWithLimit() {
   Journal journal;
   Kiv::Ptr< Timer > const limit = new Timer( "limit", journal );
   limit->act = [] {
      ADD_FAILURE() << "nothing stopped the loop";
      Kiv::activityManager()->stop();
   };
   limit->timeMinIs( Kiv::now() + 30 );
   Kiv::activityManager()->run();
}

inline void post( std::function< void() > task ) {
   Kiv::activityManager()->post( std::move( task ) );
}

} // namespace activity
