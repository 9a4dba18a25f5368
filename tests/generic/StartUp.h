// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// A start-up in the middle: Boot is complete, Net is active with one of two events pending, and
// the critical Gui waits for it.
#pragma once

#include "../support/World.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace testing_support {

struct StartUp : World {
   StartUp() {
      config->enabledIs( true );
      config->agentDirIs( dir );
      manager->configSmIs( config, status, dir );
      declare( "platform", "Boot" )->completeIs( true );
      declare( "platform", "Net", { "Boot" }, 30 )->completeIs( true );
      net = declare( "routing", "Net", { "Boot" }, 60 );
      gui = declare( "screen", "Gui", { "Net" }, 10, true );
      idle();
      manager->statusSmIs( "Router", config, status, progress, log );
      idle();
   }

   Kiv::Ptr< Stage::ConfigSm > configSmHeld() const { return manager->configSm(); }
   Kiv::Ptr< Stage::StatusSm > statusSm() const { return manager->statusSm(); }
   Kiv::Ptr< Stage::LogSm > logSm() const { return statusSm()->logSm(); }
   Kiv::Ptr< Stage::StageSm > stageSm( char const * name = "Net" ) const {
      return statusSm()->stageSm( name );
   }
   Kiv::Ptr< Stage::StageEnableSm > stageEnableSm( char const * name = "Gui" ) const {
      return statusSm()->stageEnableSm( name );
   }

   // One object of each type, and of each nested reactor.
   std::vector< Kiv::Value > machines() const {
      using Kiv::Value;
      auto const stageStatus = configSmHeld()->stageStatus( "Net" );
      return { Value( manager ),
               Value( configSmHeld() ),
               Value( statusSm() ),
               Value( logSm() ),
               Value( stageSm() ),
               Value( stageEnableSm() ),
               Value( configSmHeld()->agentConfig( "routing" ) ),
               Value( stageStatus ),
               Value( stageStatus->eventConfig( "routing" ) ),
               Value( stageSm()->event( "routing" ) ),
               Value( stageSm()->pendingEvent( "Net:routing" ) ),
               Value( stageSm()->stageUncompleted() ),
               Value( statusSm()->recalculateNextStage() ) };
   }

   Kiv::Ptr< Stage::Ordovan > manager = Stage::Ordovan::OrdovanIs( "ordovan" );
   Kiv::Ptr< Stage::EventConfig > net; // pending
   Kiv::Ptr< Stage::EventConfig > gui;
};

using Op = Kiv::GenericIf::Op;
using Kind = Kiv::Value::Kind;
using Lines = std::vector< std::string >;

// Everything that can be read of an object, one line an attribute, by name alone.
inline Lines textOf( Kiv::GenericIf const & object ) {
   Lines lines;
   for( Kiv::KivType const * type = &object.type(); type; type = type->base() )
      for( Kiv::Attribute const & row : type->attributes() )
         if( row.access.read || row.access.member )
            lines.push_back( std::string( row.name ) + " = " +
                             object.read( row.name ).toString().str() );
   return lines;
}

// What is thrown, as "kind name: text"; "" when nothing is.
template< class Call >
std::string thrownBy( Call call ) {
   auto const told = []( char const * kind, auto const & error ) {
      return std::string( kind ) + " " + error.name().str() + " | " + error.what();
   };
   try {
      call();
   } catch( Kiv::ConstException const & e ) {
      return std::string( "const | " ) + e.what();
   } catch( Kiv::TypeException const & e ) {
      return told( "type", e );
   } catch( Kiv::UnknownArgException const & e ) {
      return told( "unknownArg", e );
   } catch( Kiv::OpNotSupportedException const & e ) {
      return told( "notSupported", e );
   } catch( Kiv::BadIndexAttrException const & e ) {
      return told( "badIndex", e );
   } catch( Kiv::UnknownAttrException const & e ) {
      return told( "unknownAttr", e );
   } catch( Kiv::RangeException const & e ) {
      return std::string( "range | " ) + e.what();
   }
   return "";
}
inline std::string const constError = "const | attempting to modify a const instance";

} // namespace testing_support
