// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// What is known of all stages, and how far progression has come.
#pragma once

#include <Kiv/Kiv.h>
#include <Stage/Export.h>
#include <Stage/Index.h>
#include <Stage/Progress.h>
#include <Stage/StageStatus.h>

namespace Stage {

namespace detail {
class StagesByAgent;
}

// One per application. `stage` is written by aggregation, `activeStage` and `complete` by
// progression.
class STAGE_EXPORT Status : public Kiv::Entity {
 public:
   class STAGE_EXPORT NotifieeConst : public Kiv::NotifieeOf< Status, Kiv::Entity::NotifieeConst > {
    public:
      virtual void onIsNondestructing();
      virtual void onStage( Kiv::Name stage );
      virtual void onStagekivImmediate();
      virtual void onStage();
      virtual void onActiveStage( Kiv::Name stage );
      virtual void onActiveStagekivImmediate();
      virtual void onActiveStage();
      virtual void onProgress();
      virtual void onSorted();
      virtual void onComplete();

      // The names above, for newReactor().
      template< class R, class Form >
      static constexpr bool kivCallbacks[] = {
         ( requires { Form()( &R::onIsNondestructing, &NotifieeConst::onIsNondestructing ); } ),
         ( requires { Form()( &R::onStage, &NotifieeConst::onStage ); } ),
         ( requires { Form()( &R::onStagekivImmediate, &NotifieeConst::onStagekivImmediate ); } ),
         ( requires { Form()( &R::onActiveStage, &NotifieeConst::onActiveStage ); } ),
         ( requires {
            Form()( &R::onActiveStagekivImmediate, &NotifieeConst::onActiveStagekivImmediate );
         } ),
         ( requires { Form()( &R::onProgress, &NotifieeConst::onProgress ); } ),
         ( requires { Form()( &R::onSorted, &NotifieeConst::onSorted ); } ),
         ( requires { Form()( &R::onComplete, &NotifieeConst::onComplete ); } ),
      };
   };
   class STAGE_EXPORT Notifiee : public Kiv::WritingNotifieeOf< Status, NotifieeConst > {};

   using StageMap = Kiv::HashMap< StageStatus, Kiv::Name >;
   using StageIterator = Kiv::OwnedIterator< StageMap, Status >;
   using StageIteratorConst = Kiv::OwnedIterator< StageMap, Status const >;
   using EventStageMap = Kiv::HashMap< bool, Kiv::Name >;
   using EventStageIteratorConst = Kiv::OwnedIterator< EventStageMap, Kiv::PtrInterface const >;
   using ActiveStageIterator = Kiv::OwnedIterator< StageMap, Status >;
   using ActiveStageIteratorConst = Kiv::OwnedIterator< StageMap, Status const >;

   // Throws the range exception "empty name".
   static Kiv::Ptr< Status > StatusIs( Kiv::Name const & name );
   ~Status() override;
   void isNondestructingIs( bool nondestructing ) override;

   // Every stage known from any agent's events, by name; null when absent.
   Kiv::Ptr< StageStatus > stage( Kiv::Name const & name ) const { return stage_.member( name ); }
   std::uint32_t stages() const { return stage_.size(); }
   StageIterator stageIterator() { return { this, stage_.map() }; }
   StageIteratorConst stageIteratorConst() const { return { this, stage_.map() }; }
   // The stage of that name, made when absent, else unchanged. Throws "empty name".
   Kiv::Ptr< StageStatus > stageIs( Kiv::Name const & name );
   // The stage goes, from `activeStage` too. For the outside: the stage manager removes none.
   void stageDel( Kiv::Name const & name );
   void stageDelAll();
   // Over the names of the stages that hold an event of this agent, in the order of `stage`. Cost:
   // linear in their number.
   EventStageIteratorConst eventStageIteratorConst( Kiv::String8 const & agent ) const;

   // The stages whose dependencies are met and which run now or have run; null when absent.
   Kiv::Ptr< StageStatus > activeStage( Kiv::Name const & name ) const {
      return activeStage_.member( name );
   }
   std::uint32_t activeStages() const { return activeStage_.size(); }
   ActiveStageIterator activeStageIterator() { return { this, activeStage_.map() }; }
   ActiveStageIteratorConst activeStageIteratorConst() const {
      return { this, activeStage_.map() };
   }
   // Files a member of `stage` under its name. A range exception for null ("null ValidPtr") and
   // for a stage that is no member.
   void activeStageIs( Kiv::Ptr< StageStatus > const & stage );
   void activeStageDel( Kiv::Name const & name );
   void activeStageDelAll();

   // Reserved for the outside; the stage manager neither reads nor writes these two.
   Kiv::Ptr< Progress > progress() const { return progress_.value(); }
   void progressIs( Kiv::Ptr< Progress > const & progress );
   bool sorted() const { return sorted_.value(); }
   void sortedIs( bool sorted );

   // Every stage of this application was active and complete when progression last decided.
   bool complete() const { return complete_.value(); }
   void completeIs( bool complete );

   // Has an index told of the stages from now on, or no more (Index.h). REQUIRES: it is removed
   // before it goes. Cost: none, and one comparison for each other index.
   void indexIs( StatusIndex & index ) noexcept { indexes_.add( index ); }
   void indexDel( StatusIndex & index ) noexcept { indexes_.remove( index ); }

   Kiv::KivType const & fwkType() const override;
   static Kiv::KivType const & _fwkType();

 private:
   friend class StageStatus;
   explicit Status( Kiv::Name const & name );
   void activeChanged( StageStatus & stage );

   Kiv::Collection< StageStatus, Kiv::Name > stage_;
   Kiv::Collection< StageStatus, Kiv::Name > activeStage_;
   Kiv::Scalar< bool > complete_;
   Kiv::Scalar< Kiv::Ptr< Progress > > progress_;
   Kiv::Scalar< bool > sorted_;
   IndexList< StatusIndex > indexes_;
   detail::StagesByAgent * const byAgent_; // ours
};

} // namespace Stage
