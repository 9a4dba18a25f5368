// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Ordovan/Manager.h>

#include <Kiv/Access.h>
#include <Kiv/Exception.h>

namespace Stage {

using namespace Kiv;

namespace {

// By name a state machine is asked for with a list of the arguments that its mutator takes.
constexpr char const * configSmArguments[] = { "config", "status", "agentDir" };
constexpr char const * statusSmArguments[] = { "application", "config", "status", "progress",
                                               "log" };

constexpr auto rows = numbered( {
   Attribute( "isNondestructing", "bool", "", Role::value,
              value< &PtrInterface::isNondestructing, &PtrInterface::isNondestructingIs >() ),
   Attribute( "configSm", "Kiv::Ptr<Stage::ConfigSm>", "", Role::value,
              reads< &Ordovan::configSm >()
                 .writesList< &Ordovan::configSmIs, configSmArguments >()
                 .deletes< &Ordovan::configSmDel >() ),
   Attribute( "statusSm", "Kiv::Ptr<Stage::StatusSm>", "", Role::value,
              reads< &Ordovan::statusSm >()
                 .writesList< &Ordovan::statusSmIs, statusSmArguments >()
                 .deletes< &Ordovan::statusSmDel >() ),
} );

} // namespace

Ptr< Ordovan > Ordovan::OrdovanIs( Name const & name ) {
   return valid( Ptr< Ordovan >( new Ordovan( name ) ) );
}
Ordovan::Ordovan( Name const & name ) : Entity( name ) {}
Ordovan::~Ordovan() {
   configSmDel();
   statusSmDel();
}

void Ordovan::isNondestructingIs( bool on ) { Entity::isNondestructingIs( on ); }
String8 Ordovan::attributeString( AttributeId attribute ) const {
   return Entity::attributeString( attribute );
}
KivType const & Ordovan::_fwkType() {
   return typeOf< rows >( "Stage::Ordovan", Entity::_fwkType() );
}

Ptr< ConfigSm > Ordovan::newConfigSm( Ptr< Config const > const & config,
                                      Ptr< Status > const & status,
                                      Ptr< Dir const > const & agentDir ) {
   return configSmFactory( config, status, agentDir );
}

Ptr< ConfigSm > Ordovan::configSmIs( Ptr< Config const > const & config,
                                     Ptr< Status > const & status,
                                     Ptr< Dir const > const & agentDir ) {
   if( configSm_ ) {
      // The configuration is not part of what a ConfigSm is: it may change under a living one.
      configSm_->notifierIs( Ptr< PtrInterface const >( config ) );
      if( configSm_->status() == status && configSm_->agentDir() == agentDir )
         return configSm_;
   }
   Ptr< ConfigSm > const made = newConfigSm( config, status, agentDir );
   configSm_ = made;
   made->hasNotificationActiveIs( true );
   return valid( made );
}

Ptr< StatusSm > Ordovan::newStatusSm( String8 const & application,
                                      Ptr< Config const > const & config,
                                      Ptr< Status > const & status,
                                      Ptr< Progress > const & progress, Ptr< Log > const & log ) {
   Ptr< StatusSm > const made = new StatusSm( application, config, status, progress, log );
   made->hasNotificationActiveIs( true );
   return valid( made );
}

Ptr< StatusSm > Ordovan::statusSmIs( String8 const & application,
                                     Ptr< Config const > const & config,
                                     Ptr< Status > const & status, Ptr< Progress > const & progress,
                                     Ptr< Log > const & log ) {
   if( statusSm_ && statusSm_->application() == application && statusSm_->config() == config &&
       statusSm_->status() == status && statusSm_->progress() == progress &&
       statusSm_->log() == log )
      return statusSm_;
   Ptr< StatusSm > const made = newStatusSm( application, config, status, progress, log );
   statusSm_ = made;
   made->hasNotificationActiveIs( true );
   return valid( made );
}

} // namespace Stage
