// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Callbacks that are cut short at one place after the other, by the allocations in them.
#pragma once

#include "../support/Allocations.h"
#include "../support/World.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <map>
#include <new>
#include <set>
#include <string>

namespace testing_support {

// Reports of what was cut short go nowhere.
class CutShort : public testing::Test {
 protected:
   void SetUp() override { testing::internal::CaptureStderr(); }
   void TearDown() override { testing::internal::GetCapturedStderr(); }

   // Runs `call` with the allocation after `others` more failing; whether one did. What it throws
   // is told to nobody.
   template< class Call >
   static bool failing( std::size_t others, Call call ) {
      Allocations const allocations( others );
      try {
         call();
      } catch( std::bad_alloc const & ) { // as whoever calls from outside is told
      }
      return Allocations::hasFailed();
   }

   static void deliverUntilCutShort() {
      while( !Allocations::hasFailed() && Kiv::activityManager()->runOne() ) {
      }
   }
   // Fires timers, too.
   static void untilCutShort() {
      Kiv::Ptr< Kiv::ActivityManager > const & loop = Kiv::activityManager();
      while( !Allocations::hasFailed() && ( loop->runOne() || loop->fireOne() ) ) {
      }
   }
};

// A progression over a world.
struct Progressing : World {
   // Where stages `names` are declared by "agent", each with a time of 5 s.
   explicit Progressing( std::set< std::string > const & names = { "A" } ) {
      for( std::string const & name : names )
         event[ name ] = declare( "agent", name.c_str(), {}, 5 );
      machine = configSm();
      config->enabledIs( true );
      pass( 0 );
   }
   void begin() {
      manager = Stage::Ordovan::OrdovanIs( "manager" );
      manager->statusSmIs( "App", config, status, progress, log );
   }
   Stage::StatusSm & sm() const { return *manager->statusSm(); }
   Kiv::Ptr< Stage::StageSm > active( char const * stage = "A" ) const {
      return sm().stageSm( stage );
   }
   // How often this stands in the log.
   int logged( std::string const & text ) const {
      int count = 0;
      for( std::size_t n = 0; n != log->logs(); ++n )
         count += log->log( n ).msg.str() == text;
      return count;
   }

   Kiv::Ptr< Stage::ConfigSm > machine;
   Kiv::Ptr< Stage::Ordovan > manager;
   std::map< std::string, Kiv::Ptr< Stage::EventConfig > > event; // by stage
};

} // namespace testing_support
