// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Ordovan/Manager.h>

#include <Kiv/Access.h>
#include <Kiv/Exception.h>
#include <Kiv/GenericIf.h>

#include <initializer_list>

namespace Stage {

using Kiv::Attribute;
using Kiv::Ptr;
using Kiv::Role;
using Kiv::String8;

namespace {

// By name a state machine is asked for with a list of the arguments that its mutator takes. All of
// them have to be there: without its objects a state machine cannot work.
class Arguments {
 public:
   Arguments( String8 const & attribute, Kiv::Value const & value,
              std::initializer_list< char const * > names )
      : list_( listOf( attribute, value ) ) {
      std::size_t known = 0;
      for( char const * name : names )
         known += list_.value( name ) != nullptr;
      if( known != names.size() || list_.size() != known )
         Kiv::GenericIf::throwUnknownArgException( attribute, wanted( names ) );
   }
   template< class T >
   T get( char const * name ) const {
      T const value = Kiv::detail::fromValue< T >( name, *list_.value( name ) );
      if constexpr( Kiv::detail::Pointer< T > )
         Kiv::valid( value );
      return value;
   }

 private:
   static Kiv::List_ const & listOf( String8 const & attribute, Kiv::Value const & value ) {
      if( !value.is( Kiv::Value::Kind::list ) )
         Kiv::detail::throwWrongObject( attribute, value );
      return value.list();
   }
   static String8 wanted( std::initializer_list< char const * > names ) {
      String8 text( "it takes each of" );
      for( char const * name : names )
         text += String8( " " ) + name;
      return text;
   }

   Kiv::List_ const & list_;
};

void configSmWith( Kiv::PtrInterface & object, String8 const & attribute,
                   Kiv::Value const & value ) {
   Arguments const a( attribute, value, { "config", "status", "agentDir" } );
   // One after the other, so that the first that is wrong is the one that is named.
   auto const config = a.get< Ptr< Config const > >( "config" );
   auto const status = a.get< Ptr< Status > >( "status" );
   auto const agentDir = a.get< Ptr< Kiv::Dir const > >( "agentDir" );
   static_cast< Ordovan & >( object ).configSmIs( config, status, agentDir );
}
void statusSmWith( Kiv::PtrInterface & object, String8 const & attribute,
                   Kiv::Value const & value ) {
   Arguments const a( attribute, value, { "application", "config", "status", "progress", "log" } );
   auto const application = a.get< String8 >( "application" );
   auto const config = a.get< Ptr< Config const > >( "config" );
   auto const status = a.get< Ptr< Status > >( "status" );
   auto const progress = a.get< Ptr< Progress > >( "progress" );
   auto const log = a.get< Ptr< Log > >( "log" );
   static_cast< Ordovan & >( object ).statusSmIs( application, config, status, progress, log );
}

template< auto get, auto del >
constexpr Kiv::Access machine( void ( *make )( Kiv::PtrInterface &, String8 const &,
                                               Kiv::Value const & ) ) {
   Kiv::Access access = Kiv::reads< get >().template deletes< del >();
   access.write = make;
   return access;
}

constexpr auto rows = Kiv::numbered( {
   Attribute( "isNondestructing", "bool", "", Role::value,
              Kiv::value< &Kiv::PtrInterface::isNondestructing,
                          &Kiv::PtrInterface::isNondestructingIs >() ),
   Attribute( "configSm", "Kiv::Ptr<Stage::ConfigSm>", "", Role::value,
              machine< &Ordovan::configSm, &Ordovan::configSmDel >( &configSmWith ) ),
   Attribute( "statusSm", "Kiv::Ptr<Stage::StatusSm>", "", Role::value,
              machine< &Ordovan::statusSm, &Ordovan::statusSmDel >( &statusSmWith ) ),
} );

} // namespace

Ptr< Ordovan > Ordovan::OrdovanIs( Kiv::Name const & name ) {
   return Kiv::valid( Ptr< Ordovan >( new Ordovan( name ) ) );
}
Ordovan::Ordovan( Kiv::Name const & name ) : Entity( name ) {}
Ordovan::~Ordovan() {
   configSmDel();
   statusSmDel();
}

void Ordovan::isNondestructingIs( bool on ) { Entity::isNondestructingIs( on ); }
String8 Ordovan::attributeString( Kiv::AttributeId attribute ) const {
   return Entity::attributeString( attribute );
}
Kiv::KivType const & Ordovan::fwkType() const { return _fwkType(); }
Kiv::KivType const & Ordovan::_fwkType() {
   static Kiv::KivType const type( "Stage::Ordovan", &Entity::_fwkType(), rows );
   return type;
}

Ptr< ConfigSm > Ordovan::newConfigSm( Ptr< Config const > const & config,
                                      Ptr< Status > const & status,
                                      Ptr< Kiv::Dir const > const & agentDir ) {
   return configSmFactory( config, status, agentDir );
}

Ptr< ConfigSm > Ordovan::configSmIs( Ptr< Config const > const & config,
                                     Ptr< Status > const & status,
                                     Ptr< Kiv::Dir const > const & agentDir ) {
   if( configSm_ ) {
      // The configuration is not part of what a ConfigSm is: it may change under a living one.
      configSm_->notifierIs( Ptr< Kiv::PtrInterface const >( config ) );
      if( configSm_->status() == status && configSm_->agentDir() == agentDir )
         return configSm_;
   }
   Ptr< ConfigSm > const made = newConfigSm( config, status, agentDir );
   configSm_ = made;
   made->hasNotificationActiveIs( true );
   return Kiv::valid( made );
}

void Ordovan::configSmDel() { configSm_ = nullptr; }

Ptr< StatusSm > Ordovan::newStatusSm( String8 const & application,
                                      Ptr< Config const > const & config,
                                      Ptr< Status > const & status,
                                      Ptr< Progress > const & progress, Ptr< Log > const & log ) {
   Ptr< StatusSm > const made = new StatusSm( application, config, status, progress, log );
   made->hasNotificationActiveIs( true );
   return Kiv::valid( made );
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
   return Kiv::valid( made );
}

void Ordovan::statusSmDel() { statusSm_ = nullptr; }

} // namespace Stage
