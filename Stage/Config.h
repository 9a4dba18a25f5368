// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The root of the configuration: where agents publish, and whether progression may run.
#pragma once

#include <Kiv/Kiv.h>
#include <Stage/Export.h>

namespace Stage {

// One instance. Made and written from outside; the stage manager only reads it.
class STAGE_EXPORT Config : public Kiv::Entity {
 public:
   class STAGE_EXPORT NotifieeConst : public Kiv::NotifieeOf< Config, Kiv::Entity::NotifieeConst > {
    public:
      virtual void onIsNondestructing();
      virtual void onAgentDir();
      virtual void onEnabled();

      // The names above, for newReactor().
      template< class R, class Form >
      static constexpr bool kivCallbacks[] = {
         ( requires { Form()( &R::onIsNondestructing, &NotifieeConst::onIsNondestructing ); } ),
         ( requires { Form()( &R::onAgentDir, &NotifieeConst::onAgentDir ); } ),
         ( requires { Form()( &R::onEnabled, &NotifieeConst::onEnabled ); } ),
      };
   };
   class STAGE_EXPORT Notifiee : public Kiv::WritingNotifieeOf< Config, NotifieeConst > {};

   // Without a directory and disabled. Throws the range exception "empty name".
   static Kiv::Ptr< Config > ConfigIs( Kiv::Name const & name );
   ~Config() override;
   void isNondestructingIs( bool nondestructing ) override;

   // The directory in which each agent publishes its AgentConfig, under the agent's name.
   Kiv::Ptr< Kiv::Dir > agentDir() const { return agentDir_.value(); }
   void agentDirIs( Kiv::Ptr< Kiv::Dir > const & dir );

   // Stage progression may run.
   bool enabled() const { return enabled_.value(); }
   void enabledIs( bool enabled );

   Kiv::KivType const & fwkType() const override;
   static Kiv::KivType const & _fwkType();

 private:
   explicit Config( Kiv::Name const & name );

   Kiv::Scalar< Kiv::Ptr< Kiv::Dir > > agentDir_;
   Kiv::Scalar< bool > enabled_;
};

} // namespace Stage
