// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// One agent's part in one stage.
#pragma once

#include <Kiv/Kiv.h>
#include <Stage/Export.h>

namespace Stage {

namespace detail {
struct EventShare;
class EventSummary;
} // namespace detail

// An event that an agent declares for a stage. Made and written by the agent, which also reports
// it complete; the stage manager only reads it.
class STAGE_EXPORT EventConfig : public Kiv::Entity {
 public:
   class STAGE_EXPORT NotifieeConst
      : public Kiv::NotifieeOf< EventConfig, Kiv::Entity::NotifieeConst > {
    public:
      virtual void onIsNondestructing();
      virtual void onComplete();
      virtual void onDependency( Kiv::String8 stage );
      virtual void onDependencykivImmediate();
      virtual void onDependency();
      virtual void onTimeout();
      virtual void onCritical();

      // The names above, for newReactor().
      template< class R, class Form >
      static constexpr bool kivCallbacks[] = {
         ( requires { Form()( &R::onIsNondestructing, &NotifieeConst::onIsNondestructing ); } ),
         ( requires { Form()( &R::onComplete, &NotifieeConst::onComplete ); } ),
         ( requires { Form()( &R::onDependency, &NotifieeConst::onDependency ); } ),
         ( requires {
            Form()( &R::onDependencykivImmediate, &NotifieeConst::onDependencykivImmediate );
         } ),
         ( requires { Form()( &R::onTimeout, &NotifieeConst::onTimeout ); } ),
         ( requires { Form()( &R::onCritical, &NotifieeConst::onCritical ); } ),
      };
   };
   class STAGE_EXPORT Notifiee : public Kiv::WritingNotifieeOf< EventConfig, NotifieeConst > {};

   using DependencyMap = Kiv::HashMap< bool, Kiv::String8 >;
   using DependencyIterator = Kiv::OwnedIterator< DependencyMap, EventConfig >;
   using DependencyIteratorConst = Kiv::OwnedIterator< DependencyMap, EventConfig const >;

   // Incomplete, not critical, without dependencies and without a limit of time. The event's name
   // and uid are stage + ":" + agent. Throws the range exception "empty name".
   static Kiv::Ptr< EventConfig > EventConfigIs( Kiv::Name const & stage, Kiv::Name const & agent );
   ~EventConfig() override;
   void isNondestructingIs( bool nondestructing ) override;

   // The stage's name, ":" and the agent's name. Fixed.
   Kiv::String8 uid() const { return Kiv::String8( Entity::name() ); }
   // The name of the agent that declared the event. Fixed.
   Kiv::String8 agent() const { return agent_; }

   // The stages that have to be complete before this event's stage may start, by name. An entry
   // counts only while its value is true.
   bool dependency( Kiv::String8 const & stage ) const { return dependency_.member( stage ); }
   bool hasDependency( Kiv::String8 const & stage ) const { return dependency_.has( stage ); }
   std::uint32_t dependencys() const { return dependency_.size(); }
   DependencyIterator dependencyIterator() { return { this, dependency_.map() }; }
   DependencyIteratorConst dependencyIteratorConst() const { return { this, dependency_.map() }; }
   void dependencyIs( Kiv::String8 const & stage, bool counts );
   void dependencyDel( Kiv::String8 const & stage );
   void dependencyDelAll();

   // How long the event's stage may take, in seconds; +infinity: for ever.
   double timeout() const { return timeout_.value(); }
   void timeoutIs( double const & seconds );

   // The event's stage is critical: nothing less important may start while it has not started.
   bool critical() const { return critical_.value(); }
   void criticalIs( bool critical );

   // The agent has done its part.
   bool complete() const { return complete_.value(); }
   void completeIs( bool complete );

   Kiv::KivType const & fwkType() const override;
   static Kiv::KivType const & _fwkType();

 private:
   friend class detail::EventSummary;
   EventConfig( Kiv::String8 const & uid, Kiv::Name const & agent );

   // The two flags stand where Entity ends, and take no room.
   Kiv::Scalar< bool > critical_;
   Kiv::Scalar< bool > complete_;
   Kiv::String8 const agent_;
   Kiv::Scalar< double > timeout_;
   Kiv::Collection< bool, Kiv::String8 > dependency_;
   // Its parts in what stages with many events know of them all: a list, one for each such stage.
   mutable detail::EventShare * shares_ = nullptr;
};

} // namespace Stage
