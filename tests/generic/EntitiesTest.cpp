// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The entities by name: every attribute is read; those that can be written take text for every
// type but a pointer, give the same text back, and tell of the change.
#include "StartUp.h"

using Kiv::GenericIf;
using Kiv::Ptr;
using Kiv::String8;
using Kiv::Value;
using namespace testing_support;

namespace {

struct Line {
   char const * attribute;
   Lines texts; // each differs from the one before, the first from the value at first
};

template< class E >
struct Watcher : E::NotifieeConst {
   explicit Watcher( Ptr< E > const & entity ) { this->watch( entity ); }
};

// Writes each text, and looks for one notification after each.
template< class E >
void expectScalars( Ptr< E > const & entity, std::vector< Line > const & lines ) {
   GenericIf const access{ entity };
   for( Line const & line : lines ) {
      Ptr< Watcher< E > > const watcher = new Watcher< E >( entity );
      for( std::string const & text : line.texts ) {
         SCOPED_TRACE( std::string( access.type().name() ) + " " + line.attribute + " " + text );
         access.write( line.attribute, text );
         EXPECT_EQ( access.read( line.attribute ).toString(), String8( text ) );
         EXPECT_EQ( watcher->pendingNotifications(), 1U );
         access.write( line.attribute, access.read( line.attribute ) ); // the value itself
         access.write( line.attribute, text );
         EXPECT_EQ( watcher->pendingNotifications(), 1U );
         Kiv::activityManager()->runQueued();
         access.write( line.attribute, text );
         EXPECT_EQ( watcher->pendingNotifications(), 0U ) << "nothing has changed";
      }
      EXPECT_EQ( thrownBy( [ & ] { access.write( line.attribute, "neither" ); } ).substr( 0, 17 ),
                 "range | \"neither\"" );
      EXPECT_EQ( thrownBy( [ & ] { access.write( line.attribute, Value() ); } ).substr( 0, 4 ),
                 "type" );
      EXPECT_EQ( thrownBy( [ & ] {
                    GenericIf( Ptr< E const >( entity ) ).write( line.attribute, "true" );
                 } ),
                 constError );
      EXPECT_EQ( access.read( line.attribute ).toString(), String8( line.texts.back() ) );
   }
}

// A collection whose members are bool: writes, reads and removes them. `told` callbacks follow the
// first two writes: for each, and one for both.
template< class E >
void expectFlags( Ptr< E > const & entity, char const * attribute, std::size_t told ) {
   GenericIf const access{ entity };
   Ptr< Watcher< E > > const watcher = new Watcher< E >( entity );
   SCOPED_TRACE( std::string( access.type().name() ) + " " + attribute );
   access.attributeOp( attribute, Op::write, GenericIf::Index{ "a" }, "true" );
   access.attributeOp( attribute, Op::write, GenericIf::Index{ "b" }, false );
   EXPECT_EQ( access.read( attribute, { "a" } ), Value( true ) );
   EXPECT_EQ( access.read( attribute, { "b" } ), Value( false ) );
   EXPECT_TRUE( access.read( attribute, { "c" } ).is( Kind::nothing ) ) << "absent is not false";
   EXPECT_EQ( access.attributeCount( access.attributeId( attribute ) ), 2U );
   EXPECT_EQ( watcher->pendingNotifications(), told );
   EXPECT_EQ( thrownBy( [ & ] {
                 access.attributeOp( attribute, Op::write, GenericIf::Index{ "a" }, "1" );
              } ),
              "range | \"1\" is no value here: true or false was expected" );
   access.attributeOp( attribute, Op::del, GenericIf::Index{ "a" } );
   EXPECT_TRUE( access.read( attribute, { "a" } ).is( Kind::nothing ) );
   access.attributeOp( attribute, Op::delAll );
   EXPECT_EQ( access.attributeCount( access.attributeId( attribute ) ), 0U );
   Kiv::activityManager()->runQueued();
}

Lines const bools = { "true", "false", "true" };
Lines const doubles = { "0.1", "30", "-0", "1e+300", "5e-324", "nan", "-inf", "inf" };
Line const nondestructing = { "isNondestructing", { "false", "true" } };

} // namespace

TEST( GenericEntity, ConfigTakesWhatItsSettersTake ) {
   StartUp const world;
   Ptr< Stage::Config > const config = Stage::Config::ConfigIs( "config" );
   expectScalars( config, { nondestructing, { "enabled", bools } } );
   GenericIf const access{ config };
   access.write( "agentDir", world.dir );
   EXPECT_EQ( config->agentDir(), world.dir );
   EXPECT_EQ( access.read( "agentDir" ).object(), world.dir );
   EXPECT_EQ( access.read( "agentDir" ).toString(), String8( "agents" ) );
   EXPECT_EQ( thrownBy( [ & ] { access.write( "agentDir", world.config ); } ),
              "type agentDir | wrong type: agentDir (Stage::Config does not fit)" );
   EXPECT_EQ( thrownBy( [ & ] { access.write( "agentDir", Value( world.dir ).readOnly() ); } ),
              "type agentDir | wrong type: agentDir (an object that may be changed was expected, "
              "Kiv::Dir const was given)" );
   access.write( "agentDir", Value() );
   EXPECT_FALSE( config->agentDir() );
}

TEST( GenericEntity, AgentConfigTakesWhatItsSettersTake ) {
   Ptr< Stage::AgentConfig > const agent = Stage::AgentConfig::AgentConfigIs( "agent" );
   expectScalars( agent, { nondestructing } );
   GenericIf const access{ agent };
   auto const event = Stage::EventConfig::EventConfigIs( "Boot", "agent" );
   access.attributeOp( "event", Op::write, GenericIf::Index{ "Boot" }, event );
   EXPECT_EQ( agent->event( "Boot" ), event );
   EXPECT_TRUE( access.read( "event", { "Boot" } ).isConst() ) << "it is declared so";
   EXPECT_EQ( thrownBy( [ & ] {
                 access.attributeOp( "event", Op::write, GenericIf::Index{ "Net" }, event );
              } ),
              "range | event Boot:agent cannot be declared for stage Net by agent agent" );
   EXPECT_EQ( thrownBy( [ & ] {
                 access.attributeOp( "event", Op::write, GenericIf::Index{ "Boot" }, "Boot:agent" );
              } ),
              "type event | wrong type: event (an object was expected, Kiv::String8 was given)" );
   access.attributeOp( "event", Op::del, GenericIf::Index{ "Boot" } );
   EXPECT_EQ( agent->events(), 0U );
}

TEST( GenericEntity, EventConfigTakesWhatItsSettersTake ) {
   auto const event = Stage::EventConfig::EventConfigIs( "Boot", "agent" );
   expectScalars(
      event,
      { nondestructing, { "timeout", doubles }, { "critical", bools }, { "complete", bools } } );
   expectFlags( event, "dependency", 3 );
   GenericIf const access{ event };
   EXPECT_EQ( access.read( "uid" ), Value( "Boot:agent" ) );
   EXPECT_EQ( access.read( "agent" ), Value( "agent" ) );
   for( char const * fixed : { "uid", "agent" } )
      EXPECT_EQ( thrownBy( [ & ] { access.write( fixed, "other" ); } ),
                 std::string( "notSupported " ) + fixed + " | operation not supported: " + fixed +
                    " (write)" );
   EXPECT_EQ( thrownBy( [ & ] {
                 access.attributeOp( "dependency", Op::write, GenericIf::Index{ "" }, true );
              } ),
              "range | empty name" );
}

TEST( GenericEntity, StatusTakesWhatItsSettersTake ) {
   Ptr< Stage::Status > const status = Stage::Status::StatusIs( "status" );
   expectScalars( status, { nondestructing, { "complete", bools }, { "sorted", bools } } );
   GenericIf const access{ status };
   auto const progress = Stage::Progress::ProgressIs( "progress" );
   access.write( "progress", progress );
   EXPECT_EQ( status->progress(), progress );
   access.write( "progress", Value() );
   EXPECT_FALSE( status->progress() );
   access.attributeOp( "stage", Op::write, GenericIf::Index{ "Boot" } );
   ASSERT_TRUE( status->stage( "Boot" ) ) << "a stage is made by its name alone";
   Value const stage = access.read( "stage", { "Boot" } );
   EXPECT_EQ( stage.object(), status->stage( "Boot" ) );
   EXPECT_EQ( stage.toString(), String8( "status/Boot" ) );
   EXPECT_EQ( thrownBy( [ & ] {
                 access.attributeOp( "stage", Op::write, GenericIf::Index{ "Net" }, stage );
              } ),
              "type stage | wrong type: stage (Stage::StageStatus does not fit)" );
   EXPECT_EQ( thrownBy( [ & ] {
                 access.attributeOp( "activeStage", Op::write, GenericIf::Index{ "Net" }, stage );
              } ),
              "range | key Net for what stands under Boot" );
   access.attributeOp( "activeStage", Op::write, GenericIf::Index{ "Boot" }, stage );
   EXPECT_EQ( status->activeStage( "Boot" ), status->stage( "Boot" ) );
   EXPECT_EQ(
      thrownBy( [ & ] { access.attributeOp( "stage", Op::write, GenericIf::Index{ "" } ); } ),
      "range | empty name" );
   access.attributeOp( "stage", Op::delAll );
   EXPECT_EQ( status->activeStages(), 0U );
   EXPECT_EQ( status->stages(), 0U );
}

TEST( GenericEntity, StageStatusTakesWhatItsSettersTake ) {
   Ptr< Stage::Status > const status = Stage::Status::StatusIs( "status" );
   auto const stage = status->stageIs( "Boot" );
   expectScalars( stage, { nondestructing, { "timeout", doubles }, { "critical", bools } } );
   expectFlags( stage, "dependency", 3 );
   GenericIf const access{ stage };
   EXPECT_EQ( access.read( "name" ), Value( "Boot" ) );
   EXPECT_EQ( access.read( "parent" ).object(), status );
   EXPECT_EQ( thrownBy( [ & ] { access.write( "name", "Net" ); } ),
              "notSupported name | operation not supported: name (write)" );
   auto const event = Stage::EventConfig::EventConfigIs( "Boot", "agent" );
   access.attributeOp( "event", Op::write, GenericIf::Index{ "agent" }, event );
   EXPECT_EQ( stage->event( "agent" ), event );
   EXPECT_EQ( thrownBy( [ & ] {
                 access.attributeOp( "event", Op::write, GenericIf::Index{ "Boot" }, event );
              } ),
              "range | key Boot for what stands under agent" );
   access.attributeOp( "event", Op::delAll );
   EXPECT_EQ( stage->events(), 0U );
}

TEST( GenericEntity, ProgressTakesWhatItsSettersTake ) {
   auto const progress = Stage::Progress::ProgressIs( "progress" );
   expectScalars( progress, { nondestructing } );
   expectFlags( progress, "stage", 0 );
}

TEST( GenericEntity, LogIsReadByPlaceAndAppendedTo ) {
   auto const log = Stage::Log::LogIs( "log" );
   expectScalars( log, { nondestructing } );
   GenericIf const access{ log };
   GenericIf::List_ const first{ { "time", 1.5 }, { "msg", "first" } };
   access.write( "log", first );
   access.write( "log", GenericIf::List_{ { "msg", "second" }, { "time", "inf" } } );
   ASSERT_EQ( log->logs(), 2U );
   EXPECT_EQ( log->log( 0 ).msg, String8( "first" ) );
   EXPECT_EQ( log->log( 1 ).time, Kiv::infinity );
   EXPECT_EQ( access.read( "log", { "0" } ), Value( first ) );
   EXPECT_TRUE( access.read( "log", { "2" } ).is( Kind::nothing ) );
   EXPECT_EQ( access.read( "log" ).toString(),
              String8( "[0: [time: 1.5, msg: first], 1: [time: inf, msg: second]]" ) );
   EXPECT_EQ( thrownBy( [ & ] { access.read( "log", { "last" } ); } ),
              "range | \"last\" is no value here: a whole number from 0 to 4294967295 was "
              "expected" );
   EXPECT_EQ( thrownBy( [ & ] { access.write( "log", "text" ); } ),
              "type log | wrong type: log (Kiv::String8 does not fit)" );
   EXPECT_EQ( thrownBy( [ & ] {
                 access.write( "log", GenericIf::List_{ { "msg", "x" } } );
              } ),
              "unknownArg log | unknown argument: log (an entry has time and msg)" );
   EXPECT_EQ( thrownBy( [ & ] {
                 access.write( "log", GenericIf::List_{ { "time", true }, { "msg", "x" } } );
              } ),
              "type time | wrong type: time (double was expected, bool was given)" );
   EXPECT_EQ(
      thrownBy( [ & ] { access.attributeOp( "log", Op::write, GenericIf::Index{ "0" }, first ); } ),
      "notSupported log | operation not supported: log (write with an index)" );
   EXPECT_EQ( thrownBy( [ & ] { access.attributeOp( "log", Op::delAll ); } ),
              "notSupported log | operation not supported: log (delAll)" );
   EXPECT_EQ( log->logs(), 2U );
   Kiv::AttributeId const id = access.attributeId( "log" );
   EXPECT_EQ( access.attributeCount( id ), 2U );
   std::string keys;
   for( auto i = access.attributeIterator( id ); i; ++i )
      keys += i.key().str() + " ";
   EXPECT_EQ( keys, "0 1 " );
}

TEST( GenericEntity, EveryAttributeOfEveryEntityOfAStartUpIsRead ) {
   StartUp world;
   for( Value const & entity :
        { Value( world.config ), Value( world.agent( "routing" ) ), Value( world.net ),
          Value( world.status ), Value( world.stage( "Net" ) ), Value( world.progress ),
          Value( world.log ), Value( world.dir ) } ) {
      GenericIf const access( entity );
      for( Kiv::Attribute const & row : access.type().attributes() )
         EXPECT_EQ( thrownBy( [ & ] { access.read( row.name ); } ), "" )
            << access.type().name() << " " << row.name;
   }
}
