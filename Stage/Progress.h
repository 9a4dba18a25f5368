// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Which stages an application has activated.
#pragma once

#include <Kiv/Kiv.h>
#include <Stage/Export.h>

namespace Stage {

// One per application. Written by progression when a stage becomes active; completion is not
// recorded here. Tells nobody of changes: look when Status says that a stage became active.
class STAGE_EXPORT Progress : public Kiv::Entity {
 public:
   class STAGE_EXPORT NotifieeConst
      : public Kiv::NotifieeOf< Progress, Kiv::Entity::NotifieeConst > {
    public:
      virtual void onIsNondestructing();

      // The names above, for newReactor().
      template< class R, class Form >
      static constexpr bool kivCallbacks[] = {
         ( requires { Form()( &R::onIsNondestructing, &NotifieeConst::onIsNondestructing ); } ),
      };
   };
   class STAGE_EXPORT Notifiee : public Kiv::WritingNotifieeOf< Progress, NotifieeConst > {};

   using StageMap = Kiv::HashMap< bool, Kiv::String8 >;
   using StageIterator = Kiv::OwnedIterator< StageMap, Progress >;
   using StageIteratorConst = Kiv::OwnedIterator< StageMap, Progress const >;

   // Throws the range exception "empty name".
   static Kiv::Ptr< Progress > ProgressIs( Kiv::Name const & name );
   ~Progress() override;
   void isNondestructingIs( bool nondestructing ) override;

   // By stage name; false when absent.
   bool stage( Kiv::String8 const & name ) const { return stage_.member( name ); }
   bool hasStage( Kiv::String8 const & name ) const { return stage_.has( name ); }
   std::uint32_t stages() const { return stage_.size(); }
   StageIterator stageIterator() { return { this, stage_ }; }
   StageIteratorConst stageIteratorConst() const { return { this, stage_ }; }
   void stageIs( Kiv::String8 const & name, bool active );
   void stageDel( Kiv::String8 const & name );
   void stageDelAll();

   Kiv::KivType const & fwkType() const override;
   static Kiv::KivType const & _fwkType();

 private:
   explicit Progress( Kiv::Name const & name );

   StageMap stage_;
};

} // namespace Stage
