// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The log state machine by name: one test for each thing that can be asked of it.
#include "StartUp.h"

using Kiv::GenericIf;
using Kiv::Ptr;
using Kiv::Value;
using namespace testing_support;

namespace {

struct GenericLogSm : testing::Test {
   std::size_t entries() const { return world.log->logs(); }
   std::string last() const { return world.log->log( entries() - 1 ).msg.str(); }

   StartUp world;
   Ptr< Stage::LogSm > const sm = world.logSm();
   GenericIf const access{ sm };
   GenericIf const constAccess{ Ptr< Stage::LogSm const >( sm ) };
   std::size_t const before = entries();
};

} // namespace

TEST_F( GenericLogSm, ACallOfLogIsAppendsTheMessage ) {
   Value const result =
      access.attributeOp( "logIs", Op::call, GenericIf::List_{ { "msg", "hello" } } );
   EXPECT_TRUE( result.is( Kind::nothing ) );
   ASSERT_EQ( entries(), before + 1 );
   EXPECT_EQ( last(), "hello" );
   EXPECT_EQ( world.log->log( before ).time, 1000 );
}

TEST_F( GenericLogSm, ACallOfLogIsOnAConstInstanceIsRefused ) {
   EXPECT_EQ( thrownBy( [ & ] {
                 constAccess.call( "logIs", { { "msg", "hello" } } );
              } ),
              constError );
   EXPECT_EQ( entries(), before );
}

TEST_F( GenericLogSm, AConstInstanceIsRefusedBeforeAnythingElseIsLookedAt ) {
   EXPECT_EQ( thrownBy( [ & ] { constAccess.attributeOp( "logIs", Op::call, Value( true ) ); } ),
              constError );
   EXPECT_EQ( thrownBy( [ & ] { constAccess.call( "logIs", { { "text", 1.0 } } ); } ), constError );
   EXPECT_EQ( thrownBy( [ & ] { constAccess.write( "stageLog", "log" ); } ), constError );
   EXPECT_EQ( thrownBy( [ & ] {
                 constAccess.attributeOp( "stageLog", Op::write, GenericIf::Index{ "x" } );
              } ),
              constError );
   EXPECT_EQ( thrownBy( [ & ] { constAccess.call( "stageLog" ); } ), constError );
}

TEST_F( GenericLogSm, ACallOfLogIsWithAnythingButAListIsRefused ) {
   for( Value const & argument :
        { Value(), Value( true ), Value( 1.0 ), Value( 1U ), Value( "hello" ), Value( sm ) } )
      EXPECT_EQ( thrownBy( [ & ] { access.attributeOp( "logIs", Op::call, argument ); } ),
                 "type Kiv::GenericIf::List_ | wrong type: Kiv::GenericIf::List_ (a list of "
                 "arguments was expected, " +
                    argument.typeName().str() + " was given)" );
   EXPECT_EQ( entries(), before );
}

TEST_F( GenericLogSm, AnArgumentOfAnotherNameThanMsgIsRefused ) {
   EXPECT_EQ( thrownBy( [ & ] {
                 access.call( "logIs", { { "text", "hello" } } );
              } ),
              "unknownArg logIs | unknown argument: logIs (it takes msg, text was given)" );
   EXPECT_EQ( thrownBy( [ & ] {
                 access.call( "logIs", { { "msg", "a" }, { "more", "b" } } );
              } ),
              "unknownArg logIs | unknown argument: logIs (it takes msg, more was given)" );
   EXPECT_EQ( thrownBy( [ & ] {
                 access.call( "logIs", { { "msg", "a" }, { "msg", "b" } } );
              } ),
              "unknownArg logIs | unknown argument: logIs (it takes msg, msg was given)" );
   EXPECT_EQ( thrownBy( [ & ] {
                 access.call( "logIs", { { "Msg", true } } );
              } ),
              "unknownArg logIs | unknown argument: logIs (it takes msg, Msg was given)" )
      << "the name is looked at before the type";
   EXPECT_EQ( entries(), before );
}

TEST_F( GenericLogSm, AMessageThatIsNoStringIsRefused ) {
   for( Value const & msg : { Value(), Value( true ), Value( 1.0 ), Value( 1U ), Value( sm ),
                              Value( GenericIf::List_() ) } )
      EXPECT_EQ( thrownBy( [ & ] {
                    access.call( "logIs", { { "msg", msg } } );
                 } ),
                 "type msg | wrong type: msg (Kiv::String8 was expected, " + msg.typeName().str() +
                    " was given)" );
   EXPECT_EQ( thrownBy( [ & ] { access.call( "logIs" ); } ),
              "type msg | wrong type: msg (Kiv::String8 was expected, nothing was given)" );
   EXPECT_EQ( entries(), before );
}

TEST_F( GenericLogSm, WhatAnAttributeDoesNotSupportIsRefused ) {
   EXPECT_EQ( thrownBy( [ & ] { access.write( "stageLog", world.log ); } ),
              "notSupported stageLog | operation not supported: stageLog (write)" );
   EXPECT_EQ( thrownBy( [ & ] { access.call( "stageLog" ); } ),
              "notSupported stageLog | operation not supported: stageLog (call)" );
   EXPECT_EQ( thrownBy( [ & ] { access.attributeOp( "stageLog", Op::del ); } ),
              "notSupported stageLog | operation not supported: stageLog (del)" );
   EXPECT_EQ( thrownBy( [ & ] { access.attributeOp( "stageLog", Op::delAll ); } ),
              "notSupported stageLog | operation not supported: stageLog (delAll)" );
   EXPECT_EQ( thrownBy( [ & ] { access.read( "logIs" ); } ),
              "notSupported logIs | operation not supported: logIs (read)" );
   EXPECT_EQ( thrownBy( [ & ] { access.write( "logIs", "hello" ); } ),
              "notSupported logIs | operation not supported: logIs (write)" );
   EXPECT_EQ( entries(), before );
}

TEST_F( GenericLogSm, AnIndexOnWhatIsNoCollectionIsRefused ) {
   std::string const badIndex =
      "badIndex stageLog | bad index: stageLog (it is no collection of members)";
   EXPECT_EQ( thrownBy( [ & ] { access.read( "stageLog", { "x" } ); } ), badIndex );
   EXPECT_EQ( thrownBy( [ & ] { constAccess.read( "stageLog", { "x" } ); } ), badIndex );
   EXPECT_EQ(
      thrownBy( [ & ] { access.attributeIteratorConst( access.attributeId( "stageLog" ) ); } ),
      badIndex );
   EXPECT_EQ( thrownBy( [ & ] { access.attributeIterator( access.attributeId( "stageLog" ) ); } ),
              badIndex );
   EXPECT_EQ( thrownBy( [ & ] { access.attributeCount( access.attributeId( "stageLog" ) ); } ),
              badIndex );
   EXPECT_EQ( thrownBy( [ & ] {
                 access.attributeOp( "logIs", Op::call, GenericIf::Index{ "x" },
                                     GenericIf::List_{ { "msg", "hello" } } );
              } ),
              "badIndex logIs | bad index: logIs (it is no collection of members)" );
   EXPECT_EQ(
      thrownBy( [ & ] { access.attributeOp( "stageLog", Op::write, GenericIf::Index{ "x" } ); } ),
      "notSupported stageLog | operation not supported: stageLog (write)" )
      << "an operation that does not exist is refused whatever it is applied to";
   EXPECT_EQ( entries(), before );
}

TEST_F( GenericLogSm, TheLogItselfIsReadAndLeadsFurther ) {
   Value const log = access.read( "stageLog" );
   EXPECT_EQ( log.object(), world.log );
   EXPECT_FALSE( log.isConst() );
   EXPECT_EQ( log.toString(), Kiv::String8( "log" ) );
   EXPECT_EQ(
      GenericIf( log ).read( "log", { "0" } ),
      Value( GenericIf::List_{ { "time", 1000.0 }, { "msg", "Stage progression started" } } ) );
   EXPECT_TRUE( constAccess.read( "stageLog" ).isConst() )
      << "what is reached through a const instance cannot be changed either";
}

TEST_F( GenericLogSm, AnyOtherNameIsRefusedByTheDispatchThatAllObjectsShare ) {
   std::string const text = "unknownAttr stagelog | unknown attribute: stagelog (Stage::LogSm has "
                            "stageLog, logIs, kivFwkActivity, hasNotificationActiveIs, "
                            "kivDoZombieReactors)";
   EXPECT_EQ( thrownBy( [ & ] { access.read( "stagelog" ); } ), text );
   EXPECT_EQ( thrownBy( [ & ] { constAccess.write( "stagelog", true ); } ), text )
      << "what does not exist can be said of a const instance, too";
   EXPECT_EQ( thrownBy( [ & ] { access.attributeId( "stagelog" ); } ), text );
   EXPECT_EQ(
      thrownBy( [ & ] { access.attributeOp( Kiv::AttributeId{ 99 }, Op::read ); } ).substr( 0, 40 ),
      "unknownAttr 99 | unknown attribute: 99 (" );
   EXPECT_EQ( thrownBy( [ & ] { access.read( "a\nb" ); } ).substr( 0, 45 ),
              "unknownAttr a\nb | unknown attribute: a\\x0ab (" );
}

TEST_F( GenericLogSm, AnAttributesNumberServesAsItsName ) {
   EXPECT_EQ( access.attributeId( "stageLog" ), 8 );
   EXPECT_EQ( access.attributeId( "logIs" ), 9 );
   EXPECT_EQ( access.attributeOp( Kiv::AttributeId{ 8 }, Op::read ).object(), world.log );
   access.attributeOp( Kiv::AttributeId{ 9 }, Op::call,
                       GenericIf::List_{ { "msg", "by number" } } );
   EXPECT_EQ( last(), "by number" );
}

TEST_F( GenericLogSm, WhatEveryStateMachineHasWorksByName ) {
   EXPECT_EQ( access.read( "kivFwkActivity" ).object(), Kiv::activityManager()->config() );
   EXPECT_TRUE( access.read( "hasNotificationActiveIs" ).boolean() );
   access.write( "hasNotificationActiveIs", "false" );
   EXPECT_FALSE( sm->hasNotificationActive() );
   access.write( "hasNotificationActiveIs", true );
   EXPECT_TRUE( sm->hasNotificationActive() );
   EXPECT_FALSE( access.read( "kivDoZombieReactors" ).boolean() );
   access.write( "kivDoZombieReactors", true );
   EXPECT_TRUE( sm->kivMarkedForDeletion() );
   EXPECT_TRUE( access.read( "kivDoZombieReactors" ).boolean() );
   access.write( "kivDoZombieReactors", false );
   EXPECT_FALSE( sm->kivMarkedForDeletion() );
   EXPECT_EQ( thrownBy( [ & ] { access.write( "kivDoZombieReactors", 1.0 ); } ),
              "type kivDoZombieReactors | wrong type: kivDoZombieReactors (bool was expected, "
              "double was given)" );
   EXPECT_EQ( thrownBy( [ & ] { access.write( "kivFwkActivity", Value() ); } ),
              "notSupported kivFwkActivity | operation not supported: kivFwkActivity (write)" );
}

TEST_F( GenericLogSm, WithoutALogTheCallFailsAsTheOperationDoes ) {
   GenericIf const empty{ Ptr< Stage::LogSm >( new Stage::LogSm( nullptr ) ) };
   EXPECT_TRUE( empty.read( "stageLog" ).is( Kind::nothing ) );
   EXPECT_EQ( thrownBy( [ & ] {
                 empty.call( "logIs", { { "msg", "x" } } );
              } ),
              "range | null ValidPtr" );
}
