// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// What all declarations say of one stage.
#pragma once

#include <Kiv/Kiv.h>
#include <Stage/EventConfig.h>
#include <Stage/Export.h>
#include <Stage/Index.h>

namespace Stage {

class Status;

namespace detail {
class EventSummary;
}

// One stage: a member of Status::stage, made by Status::stageIs() and nowhere else. Written by
// aggregation (ConfigSm), read by progression.
class STAGE_EXPORT StageStatus : public Kiv::Entity {
 public:
   class STAGE_EXPORT NotifieeConst
      : public Kiv::NotifieeOf< StageStatus, Kiv::Entity::NotifieeConst > {
    public:
      virtual void onIsNondestructing();
      virtual void onDependency( Kiv::String8 stage );
      virtual void onDependencykivImmediate();
      virtual void onDependency();
      virtual void onEvent( Kiv::String8 agent );
      virtual void onEventkivImmediate();
      virtual void onEvent();
      virtual void onTimeout();
      virtual void onCritical();

      // The names above, for newReactor().
      template< class R, class Form >
      static constexpr bool kivCallbacks[] = {
         ( requires { Form()( &R::onIsNondestructing, &NotifieeConst::onIsNondestructing ); } ),
         ( requires { Form()( &R::onDependency, &NotifieeConst::onDependency ); } ),
         ( requires {
            Form()( &R::onDependencykivImmediate, &NotifieeConst::onDependencykivImmediate );
         } ),
         ( requires { Form()( &R::onEvent, &NotifieeConst::onEvent ); } ),
         ( requires { Form()( &R::onEventkivImmediate, &NotifieeConst::onEventkivImmediate ); } ),
         ( requires { Form()( &R::onTimeout, &NotifieeConst::onTimeout ); } ),
         ( requires { Form()( &R::onCritical, &NotifieeConst::onCritical ); } ),
      };
   };
   class STAGE_EXPORT Notifiee : public Kiv::WritingNotifieeOf< StageStatus, NotifieeConst > {};

   using EventMap = Kiv::HashMap< EventConfig const, Kiv::String8 >;
   using EventIterator = Kiv::OwnedIterator< EventMap, StageStatus >;
   using EventIteratorConst = Kiv::OwnedIterator< EventMap, StageStatus const >;
   using DependencyMap = Kiv::HashMap< bool, Kiv::String8 >;
   using DependencyIterator = Kiv::OwnedIterator< DependencyMap, StageStatus >;
   using DependencyIteratorConst = Kiv::OwnedIterator< DependencyMap, StageStatus const >;

   ~StageStatus() override;
   void isNondestructingIs( bool nondestructing ) override;

   // Whether this is a member of `status`, without a look-up.
   bool isIn( Status const & status ) const { return status_ == &status; }

   // The events of all agents that belong to this stage, by the agent's name; null when absent.
   Kiv::Ptr< EventConfig const > event( Kiv::String8 const & agent ) const {
      return event_.member( agent );
   }
   std::uint32_t events() const { return event_.size(); }
   EventIterator eventIterator() { return { this, event_.map() }; }
   EventIteratorConst eventIteratorConst() const { return { this, event_.map() }; }
   // Files the event under the name of its agent. A range exception for null: "null ValidPtr".
   void eventIs( Kiv::Ptr< EventConfig const > const & event );
   void eventDel( Kiv::String8 const & agent );
   void eventDelAll();

   // The union of the events' dependencies, by stage name. Only true is ever written: a key that
   // is present counts.
   bool dependency( Kiv::String8 const & stage ) const { return dependency_.member( stage ); }
   bool hasDependency( Kiv::String8 const & stage ) const { return dependency_.has( stage ); }
   std::uint32_t dependencys() const { return dependency_.size(); }
   DependencyIterator dependencyIterator() { return { this, dependency_.map() }; }
   DependencyIteratorConst dependencyIteratorConst() const { return { this, dependency_.map() }; }
   void dependencyIs( Kiv::String8 const & stage, bool counts );
   void dependencyDel( Kiv::String8 const & stage );
   void dependencyDelAll();

   // The largest of the events' timeouts, in seconds, narrowed to single precision; 0 at first.
   double timeout() const { return timeout_.value(); }
   void timeoutIs( double const & seconds );

   // A critical event belongs to the stage, or a critical stage depends on it.
   bool critical() const { return critical_.value(); }
   void criticalIs( bool critical );

   // Has an index told of this stage from now on, or no more (Index.h). REQUIRES: it is removed
   // before it or the stage goes. Cost: none, and one comparison for each other index of the stage.
   void indexIs( StageIndex & index ) noexcept { indexes_.add( index ); }
   void indexDel( StageIndex & index ) noexcept { indexes_.remove( index ); }

   // ---- what all its events say together, as they are now. Cost: constant, for a stage with few
   // events a walk over them.

   // The first of them, in the order of `event`, that is critical; null when none is.
   Kiv::Ptr< EventConfig const > firstCriticalEvent() const;
   // Whether one of them has this dependency with value true.
   bool eventsDependOn( Kiv::String8 const & stage ) const;
   // True: each of the stage's dependencies is one that some event has with value true. False: that
   // is not so, or not known because it would take a walk.
   bool dependencysAreOfEvents() const;
   // The longest of their timeouts, in seconds. NaN when it would take a walk to know, and when one
   // is NaN or a negative zero: then their order may decide what counts as the longest.
   double longestEventTimeout() const;

   Kiv::KivType const & fwkType() const override;
   static Kiv::KivType const & _fwkType();

 private:
   friend class Status;
   explicit StageStatus( Kiv::Name const & name );
   void eventComes( EventConfig const & event, bool ofNewAgent );
   void eventHasGone( EventConfig const & event, bool withAgent ) noexcept;
   void summarizeEvents();
   void dropSummary() noexcept;

   Kiv::Scalar< bool > critical_; // stands where Entity ends
   Kiv::Collection< EventConfig const, Kiv::String8 > event_;
   Kiv::Collection< bool, Kiv::String8 > dependency_;
   Kiv::Scalar< double > timeout_;
   IndexList< StageIndex > indexes_;
   detail::EventSummary * eventSummary_ = nullptr; // ours; none while there are few
   Status * status_ = nullptr;                     // the one whose member this is
};

} // namespace Stage
