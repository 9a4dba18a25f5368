// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Reactors that write down what they are told, and do what a test asks them to do inside.
#pragma once

#include <Stage/Stage.h>

#include <functional>
#include <string>
#include <vector>

namespace delivery {

// What reactors were told, in order, one line each: who, what, and the value that was seen.
using Journal = std::vector< std::string >;
using Lines = std::vector< std::string >;

inline std::string text( Kiv::String8 const & s ) { return s.charPtr(); }

// Watches an event. Lines: "a timeout 5", "a dependency Net true", "a dependency Net gone",
// "a dependency..." for the deferred form, "a dependency (whole)".
class Watcher : public Stage::EventConfig::NotifieeConst {
 public:
   enum class Start { on, off, detached };

   Watcher( std::string id, Journal & journal, Kiv::Ptr< Stage::EventConfig const > const & event,
            Start start = Start::on )
      : id_( std::move( id ) ), journal_( journal ) {
      if( start == Start::detached )
         return;
      notifierIs( Kiv::Ptr< Kiv::PtrInterface const >( event ) );
      isRegisteredNotifieeIs( true );
      hasNotificationActiveIs( start == Start::on );
   }

   // Runs inside every callback, after its line was written.
   std::function< void() > act;

   void onIsNondestructing() override {
      tell( notifier()->isNondestructing() ? "isNondestructing true" : "isNondestructing false" );
   }
   void onComplete() override {
      tell( notifier()->complete() ? "complete true" : "complete false" );
   }
   void onDependency( Kiv::String8 stage ) override {
      auto const & event = *notifier();
      tell( "dependency " + text( stage ) +
            ( !event.hasDependency( stage ) ? " gone"
              : event.dependency( stage )   ? " true"
                                            : " false" ) );
   }
   void onDependencykivImmediate() override { tell( "dependency..." ); }
   void onDependency() override { tell( "dependency (whole)" ); }
   void onTimeout() override {
      tell( "timeout " + text( Kiv::valueToString( notifier()->timeout() ) ) );
   }
   void onCritical() override {
      tell( notifier()->critical() ? "critical true" : "critical false" );
   }

 private:
   void tell( std::string const & what ) {
      journal_.push_back( id_ + " " + what );
      if( auto const now = act )
         now();
   }

   std::string const id_;
   Journal & journal_;
};

inline Kiv::Ptr< Stage::EventConfig > newEvent( char const * stage = "Net" ) {
   return Stage::EventConfig::EventConfigIs( stage, "agent" );
}
inline Kiv::Ptr< Kiv::PtrInterface const > object( Kiv::Ptr< Stage::EventConfig > const & event ) {
   return event;
}

} // namespace delivery
