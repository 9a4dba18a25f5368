// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// What holds for the attributes of every state machine, and what each of them does by name.
#include "StartUp.h"

using Kiv::GenericIf;
using Kiv::Ptr;
using Kiv::Role;
using Kiv::Value;
using namespace testing_support;

namespace {

struct GenericMachine : testing::Test {
   template< class Call >
   void forEachRow( Call call ) const {
      for( Value const & object : world.machines() ) {
         ASSERT_TRUE( object.is( Kind::object ) );
         GenericIf const access( object );
         for( Kiv::Attribute const & row : access.type().attributes() ) {
            SCOPED_TRACE( std::string( access.type().name() ) + " " + row.name );
            call( access, row );
         }
      }
   }
   static Value readOnly( GenericIf const & access ) {
      return Value( access.instance() ).readOnly();
   }
   static bool isCall( Kiv::Attribute const & row ) {
      return has( row.role, Role::handler | Role::operation );
   }

   StartUp world;
};

} // namespace

TEST_F( GenericMachine, EveryAttributeIsReadOrCalled ) {
   forEachRow( []( GenericIf const & access, Kiv::Attribute const & row ) {
      EXPECT_EQ( row.access.call != nullptr, isCall( row ) );
      if( isCall( row ) ) {
         EXPECT_EQ( thrownBy( [ & ] { access.read( row.name ); } ),
                    "notSupported " + std::string( row.name ) +
                       " | operation not supported: " + row.name + " (read)" );
         return;
      }
      EXPECT_EQ( thrownBy( [ & ] { access.read( row.name ); } ), "" );
      EXPECT_EQ( access.read( row.name ).toString(),
                 access.attributeOp( row.id, Op::read ).toString() );
   } );
}

TEST_F( GenericMachine, ConstructorArgumentsNamesAndKeysRefuseWrites ) {
   int refused = 0;
   forEachRow( [ & ]( GenericIf const & access, Kiv::Attribute const & row ) {
      std::string const name = row.name;
      if( !has( row.role, Role::constructorArgument ) && name != "name" && name != "fwkKey" )
         return;
      Value const before = access.read( row.name );
      EXPECT_EQ( thrownBy( [ & ] { access.write( row.name, before ); } ),
                 "notSupported " + name + " | operation not supported: " + name + " (write)" );
      EXPECT_EQ( access.read( row.name ), before );
      ++refused;
   } );
   EXPECT_EQ( refused, 1 + 3 + 5 + 4 + 5 + 2 + 2 + 2 + 2 + 1 + 1 + 1 );
}

TEST_F( GenericMachine, AConstInstanceRefusesEverythingButReads ) {
   forEachRow( []( GenericIf const & access, Kiv::Attribute const & row ) {
      GenericIf const constAccess( readOnly( access ) );
      for( Op const op : { Op::write, Op::call, Op::del, Op::delAll } ) {
         EXPECT_EQ( thrownBy( [ & ] { constAccess.attributeOp( row.id, op ); } ), constError );
         EXPECT_EQ( thrownBy( [ & ] {
                       constAccess.attributeOp( row.id, op, GenericIf::Index{ "Net" }, true );
                    } ),
                    constError );
         EXPECT_EQ(
            thrownBy( [ & ] { constAccess.attributeOp( row.id, op, GenericIf::List_{} ); } ),
            constError );
      }
      EXPECT_EQ( thrownBy( [ & ] { constAccess.attributeIterator( row.id ); } ), constError );
   } );
}

TEST_F( GenericMachine, WhatIsReadThroughAConstInstanceIsConst ) {
   forEachRow( []( GenericIf const & access, Kiv::Attribute const & row ) {
      if( isCall( row ) )
         return;
      Value const value = GenericIf( readOnly( access ) ).read( row.name );
      if( value.is( Kind::object ) )
         EXPECT_TRUE( value.isConst() );
      if( !value.is( Kind::list ) )
         return;
      for( auto const & entry : value.list() )
         if( entry.value.is( Kind::object ) )
            EXPECT_TRUE( entry.value.isConst() ) << entry.name;
   } );
}

TEST_F( GenericMachine, AnIndexIsForCollectionsOnly ) {
   forEachRow( []( GenericIf const & access, Kiv::Attribute const & row ) {
      std::string const name = row.name;
      std::string const refused =
         "badIndex " + name + " | bad index: " + name + " (it is no collection of members)";
      if( has( row.role, Role::collection ) ) {
         EXPECT_EQ( thrownBy( [ & ] { access.read( name, { "absent" } ); } ), "" );
         EXPECT_TRUE( access.read( name, { "absent" } ).is( Kind::nothing ) );
         EXPECT_EQ( thrownBy( [ & ] { access.attributeIteratorConst( row.id ); } ), "" );
         return;
      }
      EXPECT_EQ( thrownBy( [ & ] { access.read( name, { "absent" } ); } ),
                 isCall( row )
                    ? "notSupported " + name + " | operation not supported: " + name + " (read)"
                    : refused );
      EXPECT_EQ( thrownBy( [ & ] { access.attributeIteratorConst( row.id ); } ), refused );
      EXPECT_EQ( thrownBy( [ & ] { access.attributeCount( row.id ); } ), refused );
   } );
}

TEST_F( GenericMachine, ACollectionIsReadWholeByKeyAndByWalking ) {
   int collections = 0;
   forEachRow( [ & ]( GenericIf const & access, Kiv::Attribute const & row ) {
      if( !has( row.role, Role::collection ) )
         return;
      ++collections;
      Value const whole = access.read( row.name );
      std::size_t n = 0;
      for( auto i = access.attributeIterator( row.id ); i; ++i, ++n ) {
         ASSERT_LT( n, whole.list().size() );
         EXPECT_EQ( i.key(), whole.list()[ n ].name );
         EXPECT_EQ( GenericIf::attributeIteratorKey( i ), i.key() );
         EXPECT_EQ( i.value(), whole.list()[ n ].value );
         EXPECT_EQ( access.read( row.name, { i.key() } ), i.value() );
      }
      EXPECT_EQ( n, whole.list().size() );
      EXPECT_EQ( n, access.attributeCount( row.id ) );
   } );
   EXPECT_EQ( collections, 2 + 2 + 2 + 2 );
}

TEST_F( GenericMachine, AWriteOrDeletionOfACollectionNeedsAKey ) {
   forEachRow( []( GenericIf const & access, Kiv::Attribute const & row ) {
      if( !row.access.memberDel )
         return;
      std::string const name = row.name;
      EXPECT_EQ( thrownBy( [ & ] { access.attributeOp( name, Op::del ); } ),
                 "badIndex " + name + " | bad index: " + name +
                    " (del needs the key of a member)" );
      if( row.access.memberIs )
         EXPECT_EQ( thrownBy( [ & ] { access.write( name, Value() ); } ),
                    "badIndex " + name + " | bad index: " + name +
                       " (write needs the key of a member)" );
      EXPECT_EQ(
         thrownBy( [ & ] { access.attributeOp( name, Op::delAll, GenericIf::Index{ "x" } ); } ),
         "badIndex " + name + " | bad index: " + name + " (delAll takes no key)" );
      EXPECT_EQ(
         thrownBy( [ & ] { access.attributeOp( name, Op::del, GenericIf::Index{ "x" }, 1U ); } ),
         "type " + name + " | wrong type: " + name + " (del takes no value)" );
   } );
}

TEST_F( GenericMachine, AHandlerRefusesWhatIsNotItsArgument ) {
   int handlers = 0;
   forEachRow( [ & ]( GenericIf const & access, Kiv::Attribute const & row ) {
      if( !isCall( row ) )
         return;
      ++handlers;
      std::string const name = row.name;
      char const * const argument = row.access.argument;
      EXPECT_EQ( argument != nullptr, *row.key != '\0' ) << "the table says whether it takes one";
      EXPECT_EQ( thrownBy( [ & ] { access.attributeOp( name, Op::call, "text" ); } ),
                 "type Kiv::GenericIf::List_ | wrong type: Kiv::GenericIf::List_ (a list of "
                 "arguments was expected, Kiv::String8 was given)" );
      EXPECT_EQ( thrownBy( [ & ] {
                    access.call( name, { { "other", "x" } } );
                 } ),
                 "unknownArg " + name + " | unknown argument: " + name +
                    ( argument ? " (it takes " + std::string( argument ) + ", other was given)"
                               : std::string( " (it takes none, other was given)" ) ) );
      if( !argument )
         return;
      EXPECT_EQ( thrownBy( [ & ] {
                    access.call( name, { { argument, true } } );
                 } ),
                 "type " + std::string( argument ) + " | wrong type: " + argument +
                    " (Kiv::String8 was expected, bool was given)" );
      if( !row.access.argumentMayMiss )
         EXPECT_EQ( thrownBy( [ & ] { access.call( name ); } ),
                    "type " + std::string( argument ) + " | wrong type: " + argument +
                       " (Kiv::String8 was expected, nothing was given)" );
   } );
   EXPECT_EQ( handlers, 1 + 2 + 2 + 4 + 5 + 1 + 6 + 3 + 1 );
}

TEST_F( GenericMachine, EveryHandlerRunsWhenItIsCalled ) {
   forEachRow( [ & ]( GenericIf const & access, Kiv::Attribute const & row ) {
      if( !isCall( row ) )
         return;
      if( row.access.argument )
         EXPECT_EQ( thrownBy( [ & ] {
                       access.call( row.name, { { row.access.argument, "Net" } } );
                    } ),
                    "" );
      if( !row.access.argument || row.access.argumentMayMiss )
         EXPECT_EQ( thrownBy( [ & ] { access.call( row.name ); } ), "" );
   } );
   world.idle();
}

TEST_F( GenericMachine, TextForAPointerIsRefused ) {
   GenericIf const config{ world.config };
   EXPECT_EQ( thrownBy( [ & ] { config.write( "agentDir", "agents" ); } ),
              "type agentDir | wrong type: agentDir (an object was expected, Kiv::String8 was "
              "given)" );
   GenericIf const enable{ world.stageEnableSm() };
   EXPECT_EQ( thrownBy( [ & ] { enable.write( "kivFwkActivity", "activity" ); } ),
              "type kivFwkActivity | wrong type: kivFwkActivity (an object was expected, "
              "Kiv::String8 was given)" );
   EXPECT_EQ( thrownBy( [ & ] { enable.write( "kivFwkActivity", world.config ); } ),
              "type kivFwkActivity | wrong type: kivFwkActivity (Stage::Config does not fit)" );
   enable.write( "kivFwkActivity", Kiv::activityManager()->config() );
   EXPECT_EQ( enable.read( "kivFwkActivity" ).object(), Kiv::activityManager()->config() );
   enable.write( "kivFwkActivity", Value() );
   EXPECT_TRUE( enable.read( "kivFwkActivity" ).is( Kind::nothing ) );
}

// ------------------------------------------------------------------------------ one by one

TEST_F( GenericMachine, ConfigSmShowsWhatItWatchesAndItsReactors ) {
   GenericIf const access{ world.configSmHeld() };
   EXPECT_EQ( access.read( "config" ).object(), world.config );
   EXPECT_TRUE( access.read( "config" ).isConst() );
   EXPECT_EQ( access.read( "status" ).object(), world.status );
   EXPECT_FALSE( access.read( "status" ).isConst() );
   EXPECT_EQ( access.read( "agentDir" ).object(), world.dir );
   EXPECT_EQ( access.read( "agentConfig", { "routing" } ).object(),
              world.configSmHeld()->agentConfig( "routing" ) );
   EXPECT_EQ( access.attributeCount( access.attributeId( "agentConfig" ) ), 3U );
   EXPECT_EQ( access.read( "stageStatus", { "Net" } ).object(),
              world.configSmHeld()->stageStatus( "Net" ) );
   access.attributeOp( "agentConfig", Op::del, GenericIf::Index{ "routing" } );
   EXPECT_FALSE( world.configSmHeld()->agentConfig( "routing" ) );
   access.call( "handleAgent", { { "name", "routing" } } );
   EXPECT_TRUE( world.configSmHeld()->agentConfig( "routing" ) ) << "it is still in the directory";
   access.attributeOp( "agentConfig", Op::delAll );
   EXPECT_EQ( world.configSmHeld()->agentConfigs(), 0U );
   access.call( "handleAgent" );
   EXPECT_EQ( world.configSmHeld()->agentConfigs(), 3U );
}

TEST_F( GenericMachine, StageSmShowsWhatIsPendingAndReportsItByName ) {
   GenericIf const access{ world.stageSm() };
   EXPECT_EQ( access.read( "name" ), Value( "Net" ) );
   EXPECT_EQ( access.read( "fwkKey" ), Value( "Net" ) );
   EXPECT_EQ( access.read( "complete" ), Value( false ) );
   EXPECT_EQ( access.read( "mainSm" ).object(), world.statusSm() );
   EXPECT_FALSE( access.read( "mainSm" ).isConst() );
   EXPECT_EQ( access.attributeCount( access.attributeId( "event" ) ), 2U );
   Value const pending = access.read( "pendingEvent", { "Net:routing" } );
   EXPECT_EQ( GenericIf( pending ).read( "pendingEvent" ).object(), world.net );
   EXPECT_TRUE( access.read( "pendingEvent", { "Net:platform" } ).is( Kind::nothing ) );

   access.attributeOp( "pendingEvent", Op::del, GenericIf::Index{ "Net:routing" } );
   EXPECT_TRUE( world.stageSm()->complete() ) << "the last pending event went";
   EXPECT_EQ( access.read( "completionTime" ), Value( 1000.0 ) );
}

TEST_F( GenericMachine, AMemberIsWrittenUnderItsOwnKeyOnly ) {
   GenericIf const access{ world.stageSm() };
   EXPECT_EQ( thrownBy( [ & ] {
                 access.attributeOp( "pendingEvent", Op::write, GenericIf::Index{ "other" },
                                     world.net );
              } ),
              "range | key other for what stands under Net:routing" );
   access.attributeOp( "pendingEvent", Op::del, GenericIf::Index{ "Net:routing" } );
   access.attributeOp( "pendingEvent", Op::write, GenericIf::Index{ "Net:routing" }, world.net );
   EXPECT_EQ( world.stageSm()->pendingEvents(), 1U );
   EXPECT_EQ( thrownBy( [ & ] {
                 access.attributeOp( "pendingEvent", Op::write, GenericIf::Index{ "x" } );
              } ),
              "range | null ValidPtr" );
   EXPECT_EQ( thrownBy( [ & ] {
                 access.attributeOp( "pendingEvent", Op::write, GenericIf::Index{ "x" },
                                     world.status );
              } ),
              "type pendingEvent | wrong type: pendingEvent (Stage::Status does not fit)" );
}

TEST_F( GenericMachine, AStageSmTakesAnEventOfItsStageUnderItsAgentOnly ) {
   GenericIf const access{ world.stageSm() };
   auto const write = [ & ]( char const * key, Value const & event ) {
      return thrownBy(
         [ & ] { access.attributeOp( "event", Op::write, GenericIf::Index{ key }, event ); } );
   };
   EXPECT_EQ( write( "bogus", world.net ), "range | key bogus for what stands under routing" );
   EXPECT_EQ( write( "", world.net ), "range | key  for what stands under routing" );
   EXPECT_EQ( write( "screen", world.gui ),
              "range | event Gui:screen is not the one that stage Net has of that agent" );
   auto const stranger = Stage::EventConfig::EventConfigIs( "Net", "routing" );
   EXPECT_EQ( write( "routing", stranger ),
              "range | event Net:routing is not the one that stage Net has of that agent" );
   EXPECT_EQ( thrownBy( [ & ] {
                 access.attributeOp( "pendingEvent", Op::write, GenericIf::Index{ "Gui:screen" },
                                     world.gui );
              } ),
              "range | event Gui:screen is not the one that stage Net has of that agent" );
   EXPECT_EQ( write( "routing", Value() ), "range | null ValidPtr" );
   EXPECT_EQ( write( "routing", world.status ),
              "type event | wrong type: event (Stage::Status does not fit)" );
   EXPECT_EQ( world.stageSm()->events(), 2U );
   EXPECT_EQ( world.stageSm()->event( "routing" )->event(), world.net );
   EXPECT_EQ( world.stageSm()->pendingEvents(), 1U );

   EXPECT_EQ( write( "routing", world.net ), "" ) << "as it is";
   access.attributeOp( "event", Op::del, GenericIf::Index{ "routing" } );
   EXPECT_EQ( write( "routing", world.net ), "" );
   EXPECT_EQ( world.stageSm()->event( "routing" )->event(), world.net );
   world.net->completeIs( true );
   world.idle();
   EXPECT_TRUE( world.stageSm()->complete() ) << "nothing else is pending";
}

TEST_F( GenericMachine, WritesOfAStageSmTellWhoWatchesIt ) {
   struct Watcher : Stage::StageSm::NotifieeConst {
      void onComplete() override { told += "complete "; }
      void onTimedOut() override { told += "timedOut "; }
      void onCompletionTime() override { told += "completionTime "; }
      void onInitialized() override { told += "initialized "; }
      std::string told;
   };
   Ptr< Watcher > const watcher = new Watcher;
   watcher->watch( world.stageSm() );
   GenericIf const access{ world.stageSm() };
   access.write( "timedOut", "true" );
   access.write( "complete", true );
   access.write( "completionTime", "0.1" );
   access.write( "initialized", true ); // as it is
   EXPECT_EQ( watcher->told, "" ) << "a setter queues";
   world.idle();
   EXPECT_EQ( watcher->told, "timedOut complete completionTime " );
   EXPECT_TRUE( world.stageSm()->timedOut() );
   EXPECT_TRUE( world.stageSm()->complete() );
   EXPECT_EQ( world.stageSm()->completionTime(), 0.1 );
   EXPECT_EQ( thrownBy( [ & ] { access.write( "complete", "yes" ); } ),
              "range | \"yes\" is no value here: true or false was expected" );
   EXPECT_EQ( thrownBy( [ & ] { access.write( "completionTime", 1U ); } ),
              "type completionTime | wrong type: completionTime (double was expected, unsigned "
              "int was given)" );
}

TEST_F( GenericMachine, StatusSmIsDrivenByItsOperations ) {
   GenericIf const access{ world.statusSm() };
   EXPECT_EQ( access.read( "application" ), Value( "Router" ) );
   EXPECT_EQ( access.read( "config" ).object(), world.config );
   EXPECT_EQ( access.read( "progress" ).object(), world.progress );
   EXPECT_EQ( access.read( "logSm" ).object(), world.logSm() );
   EXPECT_EQ( access.read( "needRecalculateNextStage" ), Value( false ) );
   access.call( "doNextStage" );
   EXPECT_EQ( access.read( "needRecalculateNextStage" ), Value( true ) );
   Value const timer = access.read( "recalculateNextStage" );
   EXPECT_EQ( GenericIf( timer ).read( "timeMin" ), Value( 1000.0 ) );
   access.call( "handleNextStage" );
   EXPECT_EQ( access.read( "needRecalculateNextStage" ), Value( false ) );
   EXPECT_EQ( thrownBy( [ & ] {
                 access.attributeOp( "stageSm", Op::write, GenericIf::Index{ "Gui" },
                                     world.stage( "Gui" ) );
              } ),
              "notSupported stageSm | operation not supported: stageSm (write)" )
      << "it takes a log state machine besides";
   access.attributeOp( "stageEnableSm", Op::delAll );
   EXPECT_EQ( world.statusSm()->stageEnableSms(), 0U );
   access.attributeOp( "stageEnableSm", Op::write, GenericIf::Index{ "Gui" },
                       world.stage( "Gui" ) );
   EXPECT_TRUE( world.stageEnableSm( "Gui" ) );
}

TEST_F( GenericMachine, TheManagerMakesAndReleasesStateMachinesByName ) {
   auto const manager = Stage::Ordovan::OrdovanIs( "second" );
   GenericIf const access{ manager };
   EXPECT_TRUE( access.read( "configSm" ).is( Kind::nothing ) );
   GenericIf::List_ const inputs{ { "agentDir", world.dir },
                                  { "config", world.config },
                                  { "status", Stage::Status::StatusIs( "other" ) } };
   access.write( "configSm", inputs );
   ASSERT_TRUE( manager->configSm() );
   EXPECT_EQ( access.read( "configSm" ).object(), manager->configSm() );
   auto const held = manager->configSm();
   access.write( "configSm", inputs );
   EXPECT_EQ( manager->configSm(), held ) << "the same arguments give the held object";
   EXPECT_TRUE( manager->configSm()->hasNotificationActive() );
   access.write( "statusSm", GenericIf::List_{ { "application", "Second" },
                                               { "config", world.config },
                                               { "status", held->status() },
                                               { "progress", world.progress },
                                               { "log", world.log } } );
   EXPECT_EQ( manager->statusSm()->application(), Kiv::String8( "Second" ) );
   access.attributeOp( "statusSm", Op::del );
   access.attributeOp( "configSm", Op::del );
   access.attributeOp( "configSm", Op::del );
   EXPECT_FALSE( manager->statusSm() );
   EXPECT_FALSE( manager->configSm() );
   world.idle();
}

TEST_F( GenericMachine, TheManagerRefusesArgumentsThatMissOrDoNotFit ) {
   auto const manager = Stage::Ordovan::OrdovanIs( "second" );
   GenericIf const access{ manager };
   std::string const takes = "unknownArg configSm | unknown argument: configSm (it takes each of "
                             "config status agentDir)";
   GenericIf::List_ two{ { "config", world.config }, { "status", world.status } };
   EXPECT_EQ( thrownBy( [ & ] { access.write( "configSm", two ); } ), takes );
   two.add( "agentDirs", world.dir );
   EXPECT_EQ( thrownBy( [ & ] { access.write( "configSm", two ); } ), takes );
   EXPECT_EQ( thrownBy( [ & ] {
                 access.write( "configSm", GenericIf::List_{ { "config", Value() },
                                                             { "status", world.status },
                                                             { "agentDir", world.dir } } );
              } ),
              "range | null ValidPtr" );
   EXPECT_EQ( thrownBy( [ & ] {
                 access.write( "configSm",
                               GenericIf::List_{ { "config", world.config },
                                                 { "status", Value( world.status ).readOnly() },
                                                 { "agentDir", world.dir } } );
              } ),
              "type status | wrong type: status (an object that may be changed was expected, "
              "Stage::Status const was given)" );
   EXPECT_EQ( thrownBy( [ & ] { access.write( "configSm", world.configSmHeld() ); } ),
              "type configSm | wrong type: configSm (Stage::ConfigSm does not fit)" );
   EXPECT_FALSE( manager->configSm() );
}

TEST_F( GenericMachine, TheManagerNamesTheFirstArgumentThatIsWrong ) {
   GenericIf const access{ Stage::Ordovan::OrdovanIs( "second" ) };
   struct Argument {
      char const * name;
      Value right;
   };
   auto const expectInOrder = [ & ]( char const * machine, std::vector< Argument > const & all ) {
      for( std::size_t wrong = 0; wrong != all.size(); ++wrong ) {
         // Those before it are right, it and those after it are not; given from the last on.
         GenericIf::List_ list;
         for( std::size_t n = all.size(); n-- != 0; )
            list.add( all[ n ].name, n < wrong ? all[ n ].right : Value( true ) );
         std::string const named = std::string( "type " ) + all[ wrong ].name + " |";
         EXPECT_EQ( thrownBy( [ & ] { access.write( machine, list ); } ).substr( 0, named.size() ),
                    named );
      }
   };
   expectInOrder(
      "configSm",
      { { "config", world.config }, { "status", world.status }, { "agentDir", world.dir } } );
   expectInOrder( "statusSm", { { "application", "Second" },
                                { "config", world.config },
                                { "status", world.status },
                                { "progress", world.progress },
                                { "log", world.log } } );
}

// ----------------------------------------------------------------- objects that somebody kept

TEST_F( GenericMachine, AStageSmThatItsOwnerLetGoOfNoLongerKnowsIt ) {
   Ptr< Stage::StageSm > const sm = world.stageSm();
   Ptr< Stage::StageEnableSm > const waiting = world.stageEnableSm();
   GenericIf const access{ sm };
   GenericIf const waitingAccess{ waiting };
   world.manager->statusSmDel();
   EXPECT_TRUE( access.read( "mainSm" ).is( Kind::nothing ) );
   EXPECT_TRUE( waitingAccess.read( "mainSm" ).is( Kind::nothing ) );
   EXPECT_EQ( thrownBy( [ & ] { access.call( "handleStageUncompleted" ); } ),
              "range | handleStageUncompleted cannot run: Stage::StageSm has lost its owner or "
              "what it watches" );
   EXPECT_EQ( thrownBy( [ & ] { access.attributeOp( "pendingEvent", Op::delAll ); } ),
              "range | pendingEvent cannot run: Stage::StageSm has lost its owner or what it "
              "watches" );
   auto const write = [ & ]( char const * name, Value const & value ) {
      return thrownBy(
         [ & ] { access.attributeOp( name, Op::write, GenericIf::Index{ "routing" }, value ); } );
   };
   EXPECT_EQ( write( "event", "text" ), "type event | wrong type: event (an object was expected, "
                                        "Kiv::String8 was given)" )
      << "the value is looked at first";
   EXPECT_EQ( write( "pendingEvent", world.status ),
              "type pendingEvent | wrong type: pendingEvent (Stage::Status does not fit)" );
   EXPECT_EQ( write( "event", world.net ),
              "range | event cannot run: Stage::StageSm has lost its owner or what it watches" );
   EXPECT_EQ( thrownBy( [ & ] { waitingAccess.call( "handleCritical" ); } ),
              "range | handleCritical cannot run: Stage::StageEnableSm has lost its owner or what "
              "it watches" );
   // Even awake again they do no harm.
   access.write( "kivDoZombieReactors", false );
   waitingAccess.write( "kivDoZombieReactors", false );
   auto const before = world.log->logs();
   world.net->completeIs( true );
   world.gui->criticalIs( false );
   world.stage( "Net" )->eventDelAll();
   world.pass( 100 );
   EXPECT_EQ( access.read( "complete" ), Value( false ) );
   ASSERT_EQ( world.log->logs(), before + 1 );
   EXPECT_EQ( world.log->log( before ).msg, Kiv::String8( "  event Net:routing completed" ) );
}

TEST_F( GenericMachine, ReactorsThatAggregationLetGoOfDoNoHarm ) {
   auto const stageStatus = world.configSmHeld()->stageStatus( "Net" );
   GenericIf const stage{ stageStatus };
   GenericIf const event{ stageStatus->eventConfig( "routing" ) };
   GenericIf const agent{ world.configSmHeld()->agentConfig( "routing" ) };
   world.manager->configSmDel();
   for( char const * handler : { "handleCritical", "handleDependency", "handleTimeout" } ) {
      EXPECT_EQ( thrownBy( [ & ] { event.call( handler ); } ),
                 "range | " + std::string( handler ) +
                    " cannot run: Stage::ConfigSm::KivStageStatus::KivEventConfig has lost its "
                    "owner or what it watches" );
   }
   EXPECT_EQ( thrownBy( [ & ] { agent.call( "handleEvent" ); } ).substr( 0, 30 ),
              "range | handleEvent cannot run" );
   EXPECT_EQ( thrownBy( [ & ] { stage.call( "handleCritical" ); } ).substr( 0, 30 ),
              "range | handleCritical cannot " );
   auto const writeAncestor = [ & ]( Value const & value ) {
      return thrownBy( [ & ] {
         stage.attributeOp( "criticalAncestor", Op::write, GenericIf::Index{ "Gui" }, value );
      } );
   };
   EXPECT_EQ( writeAncestor( 1U ), "type criticalAncestor | wrong type: criticalAncestor (bool was "
                                   "expected, unsigned int was given)" );
   EXPECT_EQ( writeAncestor( "yes" ),
              "range | \"yes\" is no value here: true or false was expected" );
   EXPECT_EQ( writeAncestor( true ).substr( 0, 35 ), "range | criticalAncestor cannot run" );
   for( GenericIf const * access : { &stage, &event, &agent } )
      access->write( "kivDoZombieReactors", false );
   world.net->criticalIs( true );
   world.net->dependencyIs( "Disk", true );
   world.stage( "Net" )->dependencyIs( "More", true );
   world.idle();
   EXPECT_FALSE( world.stage( "Disk" ) );
}
