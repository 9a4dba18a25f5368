// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// What one agent declares.
#pragma once

#include <Kiv/Kiv.h>
#include <Stage/EventConfig.h>
#include <Stage/Export.h>

namespace Stage {

// One agent's events, at most one per stage. Made and written by the agent, which files it in the
// directory of agents; the stage manager only reads it.
//
// It gives out what it holds as const, to its agent as well: an agent that wants to report an event
// complete, or to change it later, keeps the Ptr< EventConfig > that EventConfigIs() returned
// (examples/keeps-its-events.cpp).
class STAGE_EXPORT AgentConfig : public Kiv::Entity {
 public:
   class STAGE_EXPORT NotifieeConst
      : public Kiv::NotifieeOf< AgentConfig, Kiv::Entity::NotifieeConst > {
    public:
      virtual void onIsNondestructing();
      virtual void onEvent( Kiv::Name stage );
      virtual void onEventkivImmediate();
      virtual void onEvent();

      // The names above, for newReactor().
      template< class R, class Form >
      static constexpr bool kivCallbacks[] = {
         ( requires { Form()( &R::onIsNondestructing, &NotifieeConst::onIsNondestructing ); } ),
         ( requires { Form()( &R::onEvent, &NotifieeConst::onEvent ); } ),
         ( requires { Form()( &R::onEventkivImmediate, &NotifieeConst::onEventkivImmediate ); } ),
      };
   };
   class STAGE_EXPORT Notifiee : public Kiv::WritingNotifieeOf< AgentConfig, NotifieeConst > {};

   using EventMap = Kiv::HashMap< EventConfig const, Kiv::Name >;
   using EventIterator = Kiv::OwnedIterator< EventMap, AgentConfig >;
   using EventIteratorConst = Kiv::OwnedIterator< EventMap, AgentConfig const >;

   // The name is the agent's. Throws the range exception "empty name".
   static Kiv::Ptr< AgentConfig > AgentConfigIs( Kiv::Name const & name );
   ~AgentConfig() override;
   void isNondestructingIs( bool nondestructing ) override;

   // Declared events, to be read, by the name of the stage they belong to; null when absent.
   Kiv::Ptr< EventConfig const > event( Kiv::Name const & stage ) const {
      return event_.member( stage );
   }
   std::uint32_t events() const { return event_.size(); }
   EventIterator eventIterator() { return { this, event_.map() }; }
   EventIteratorConst eventIteratorConst() const { return { this, event_.map() }; }
   // Declares `event` for `stage`, in place of one declared before. A range exception for null
   // ("null ValidPtr") and unless the event's uid is `stage`, ":" and its agent, and its agent is
   // this one.
   void eventIs( Kiv::Name const & stage, Kiv::Ptr< EventConfig const > const & event );
   // Withdraws; nothing happens when there is none.
   void eventDel( Kiv::Name const & stage );
   void eventDelAll();

   Kiv::KivType const & fwkType() const override;
   static Kiv::KivType const & _fwkType();

 private:
   explicit AgentConfig( Kiv::Name const & name );

   Kiv::Collection< EventConfig const, Kiv::Name > event_;
};

} // namespace Stage
