// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include "../support/Types.h"

#include <Kiv/Kiv.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

using Kiv::KivType;
using Kiv::Ptr;
using Kiv::String8;
using testing_support::registeredTypes;
using Names = std::vector< std::string >;

namespace {

// Registered types live as long as the process; so each test makes its own.
KivType const & made( char const * name ) {
   return *new KivType( name, &Kiv::PtrInterface::_fwkType(), {} );
}

struct Recorder : Kiv::IntrospectionReactor {
   void onTypeNode( KivType const & type ) override { told.push_back( type.name() ); }
   Names told;
};

} // namespace

TEST( TypeNodes, BeginWithTheBuiltInTypesAndTheFrameworksOwn ) {
   Names const first = { "bool",         "double",    "unsigned int",
                         "Kiv::String8", "Kiv::Name", "Kiv::PtrInterface",
                         "Kiv::Entity",  "Kiv::Dir",  "Kiv::Clock" };
   Names names = registeredTypes();
   ASSERT_GE( names.size(), first.size() );
   names.resize( first.size() );
   EXPECT_EQ( names, first );
}

TEST( TypeNodes, ANumberThatIsNotThereIsRefused ) {
   std::size_t const count = Kiv::typeNodes();
   EXPECT_STREQ( Kiv::typeNode( 0 ).name(), "bool" );
   EXPECT_NO_THROW( Kiv::typeNode( count - 1 ) );
   EXPECT_THROW( Kiv::typeNode( count ), Kiv::RangeException );
   EXPECT_THROW( Kiv::typeNode( static_cast< std::size_t >( -1 ) ), Kiv::RangeException );
}

TEST( TypeNodesDeathTest, AnotherThreadThanTheActivitysRegistersNone ) {
   testing::GTEST_FLAG( death_test_style ) = "threadsafe";
   // Only the two children register it, so here nothing would hold it but this test.
   static KivType const type( "Test::Elsewhere", &Kiv::PtrInterface::_fwkType(), {} );
   EXPECT_EXIT(
      {
         // Nobody owns the activity yet: a library may be loaded on any thread.
         std::thread loader( [ & ] { Kiv::typeNodeIs( type ); } );
         loader.join();
         std::_Exit( Kiv::typeNode( "Test::Elsewhere" ) == &type ? 0 : 1 );
      },
      testing::ExitedWithCode( 0 ), "" );
   EXPECT_DEATH(
      {
         Kiv::activityManager()->runQueued();
         std::thread loader( [ & ] { Kiv::typeNodeIs( type ); } );
         loader.join();
      },
      "outside of the activity's thread" );
}

TEST( TypeNodes, AreFoundByTheirFullNames ) {
   EXPECT_EQ( Kiv::typeNode( "Kiv::Dir" ), &Kiv::Dir::_fwkType() );
   EXPECT_EQ( Kiv::typeNode( "double" ), &Kiv::Builtin< double >::_fwkType() );
   EXPECT_EQ( Kiv::typeNode( "Dir" ), nullptr );
   EXPECT_EQ( Kiv::typeNode( "" ), nullptr );
   KivType const & type = made( "Test::Found" );
   EXPECT_EQ( Kiv::typeNode( "Test::Found" ), nullptr );
   Kiv::typeNodeIs( type );
   EXPECT_EQ( Kiv::typeNode( "Test::Found" ), &type );
}

TEST( TypeNodes, TheSameTypeAgainIsNothing ) {
   KivType const & type = made( "Test::Same" );
   Kiv::typeNodeIs( type );
   std::size_t const before = Kiv::typeNodes();
   Kiv::typeNodeIs( type );
   EXPECT_EQ( Kiv::typeNodes(), before );
}

TEST( TypeNodes, AnotherTypeOfANameThatIsTakenIsRefused ) {
   KivType const & type = made( "Test::Taken" );
   Kiv::typeNodeIs( type );
   KivType const other( "Test::Taken", nullptr, {} );
   try {
      Kiv::typeNodeIs( other );
      FAIL() << "it was accepted";
   } catch( Kiv::NameInUseException const & e ) {
      EXPECT_STREQ( e.what(), "another type is registered as Test::Taken" );
   }
   EXPECT_EQ( Kiv::typeNode( "Test::Taken" ), &type );
}

TEST( IntrospectionReactors, AreToldOfTypesBeforeAndAfterThemInOrder ) {
   Recorder recorder;
   EXPECT_TRUE( recorder.told.empty() );
   recorder.isRegisteredIs( true );
   EXPECT_EQ( recorder.told, registeredTypes() );
   Kiv::typeNodeIs( made( "Test::After" ) );
   EXPECT_EQ( recorder.told.back(), "Test::After" );
   EXPECT_EQ( recorder.told, registeredTypes() );
}

TEST( IntrospectionReactors, ThatWereAwayAreToldWhatTheyMissed ) {
   Recorder recorder;
   recorder.isRegisteredIs( true );
   recorder.isRegisteredIs( false );
   std::size_t const before = recorder.told.size();
   Kiv::typeNodeIs( made( "Test::Missed" ) );
   EXPECT_EQ( recorder.told.size(), before );
   recorder.isRegisteredIs( true );
   recorder.isRegisteredIs( true );
   EXPECT_EQ( recorder.told, registeredTypes() ) << "each once";
}

TEST( IntrospectionReactors, MayRegisterTypesAndGoWhileTheyAreTold ) {
   struct Busy : Recorder {
      void onTypeNode( KivType const & type ) override {
         Recorder::onTypeNode( type );
         if( std::string( type.name() ) == "Test::Outer" )
            Kiv::typeNodeIs( made( "Test::Inner" ) );
      }
   };
   struct Leaving : Recorder {
      void onTypeNode( KivType const & type ) override {
         Recorder::onTypeNode( type );
         if( std::string( type.name() ) == "Test::Outer" )
            isRegisteredIs( false );
      }
   };
   Busy busy;
   Leaving leaving;
   Recorder after;
   busy.isRegisteredIs( true );
   leaving.isRegisteredIs( true );
   after.isRegisteredIs( true );
   Kiv::typeNodeIs( made( "Test::Outer" ) );
   EXPECT_EQ( busy.told, registeredTypes() );
   EXPECT_EQ( after.told, registeredTypes() );
   EXPECT_EQ( leaving.told.back(), "Test::Outer" );
   EXPECT_FALSE( leaving.isRegistered() );
}

TEST( IntrospectionReactors, ThatAreDestroyedAreToldNoMore ) {
   { Recorder().isRegisteredIs( true ); }
   Kiv::typeNodeIs( made( "Test::AfterTheEnd" ) );
}

TEST( AttributeDescriptors, SayWhatTheRowSaysAndAreTheSameEachTime ) {
   Ptr< Kiv::KivAttr const > const attr = Kiv::Dir::_fwkType().attr( "entityPtr" );
   ASSERT_TRUE( attr );
   EXPECT_EQ( attr->name(), String8( "entityPtr" ) );
   EXPECT_EQ( attr->type(), String8( "Kiv::Ptr<Kiv::Entity>" ) );
   EXPECT_EQ( attr->key(), String8( "Kiv::Name" ) );
   EXPECT_EQ( attr->role(), Kiv::Role::collection | Kiv::Role::notifying );
   EXPECT_EQ( attr->id(), Kiv::firstOwnAttribute );
   EXPECT_EQ( &attr->owner(), &Kiv::Dir::_fwkType() );
   EXPECT_EQ( Kiv::Dir::_fwkType().attr( "entityPtr" ), attr );
}

TEST( AttributeDescriptors, OfABaseBelongToIt ) {
   Ptr< Kiv::KivAttr const > const attr = Kiv::Dir::_fwkType().attr( "parent" );
   ASSERT_TRUE( attr );
   EXPECT_EQ( &attr->owner(), &Kiv::Entity::_fwkType() );
   EXPECT_EQ( attr, Kiv::Entity::_fwkType().attr( "parent" ) );
   EXPECT_FALSE( Kiv::Dir::_fwkType().attr( "absent" ) );
}
