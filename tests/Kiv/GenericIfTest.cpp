// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Kiv/Kiv.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

using Kiv::GenericIf;
using Kiv::Ptr;
using Kiv::String8;
using Kiv::Value;
using Kind = Value::Kind;
using Op = GenericIf::Op;

namespace {

template< class E, class Call >
std::string thrown( Call call ) {
   try {
      call();
   } catch( E const & e ) {
      return e.what();
   }
   return "nothing was thrown";
}

struct GenericDir : testing::Test {
   Ptr< Kiv::Dir > const dir = Kiv::Dir::DirIs( "dir" );
   Ptr< Kiv::Dir > const a = Kiv::Dir::DirIs( "a" );
   Ptr< Kiv::Dir > const b = Kiv::Dir::DirIs( "b" );
   GenericIf const access{ dir };
   Kiv::AttributeId const entityPtr = access.attributeId( "entityPtr" );
};

} // namespace

// ------------------------------------------------------------------------------------- values

TEST( Value, KnowsItsKindAndGivesNoOther ) {
   EXPECT_TRUE( Value().is( Kind::nothing ) );
   EXPECT_TRUE( Value( true ).boolean() );
   EXPECT_EQ( Value( 2.5 ).real(), 2.5 );
   EXPECT_EQ( Value( 7U ).number(), 7U );
   EXPECT_EQ( Value( "text" ).text(), String8( "text" ) );
   EXPECT_EQ( Value( Kiv::Name( "name" ) ).text(), String8( "name" ) );
   EXPECT_EQ( Value( GenericIf::List_{ { "a", true } } ).list().size(), 1U );
   EXPECT_EQ( thrown< Kiv::RangeException >( [] { Value( 1.0 ).boolean(); } ),
              "the value is no bool but double" );
   EXPECT_EQ( thrown< Kiv::RangeException >( [] { Value().list(); } ),
              "the value is no list but nothing" );
   EXPECT_EQ( thrown< Kiv::RangeException >( [] { Value( true ).object(); } ),
              "the value is no object but bool" );
}

TEST( Value, OfAnObjectSaysWhetherItMayBeChanged ) {
   Ptr< Kiv::Dir > const dir = Kiv::Dir::DirIs( "dir" );
   EXPECT_FALSE( Value( dir ).isConst() );
   EXPECT_EQ( Value( dir ).mutableObject(), dir );
   EXPECT_TRUE( Value( Ptr< Kiv::Dir const >( dir ) ).isConst() );
   EXPECT_FALSE( Value( Ptr< Kiv::Dir const >( dir ) ).mutableObject() );
   Value const inside = Value( GenericIf::List_{ { "dir", dir } } ).readOnly();
   EXPECT_TRUE( inside.list()[ 0 ].value.isConst() );
   EXPECT_TRUE( Value( Ptr< Kiv::Dir >() ).is( Kind::nothing ) );
   EXPECT_EQ( dir->references(), 2U ) << "a value holds its object";
}

TEST( Value, IsToldAsText ) {
   Ptr< Kiv::Dir > const dir = Kiv::Dir::DirIs( "dir" );
   EXPECT_EQ( Value().toString(), String8() );
   EXPECT_EQ( Value( 0.1 ).toString(), String8( "0.1" ) );
   EXPECT_EQ( Value( dir ).toString(), String8( "dir" ) );
   EXPECT_EQ( Value( GenericIf::List_{ { "a", true }, { "b", dir } } ).toString(),
              String8( "[a: true, b: dir]" ) );
   EXPECT_EQ( Value( Ptr< Kiv::Dir const >( dir ) ).typeName(), String8( "Kiv::Dir const" ) );
}

TEST( Value, IsComparedByWhatItHolds ) {
   Ptr< Kiv::Dir > const dir = Kiv::Dir::DirIs( "dir" );
   double const nan = Kiv::valueFromString< double >( "nan" );
   EXPECT_EQ( Value( nan ), Value( nan ) );
   EXPECT_EQ( Value( dir ), Value( Ptr< Kiv::Entity const >( dir ) ) );
   EXPECT_FALSE( Value( dir ) == Value( Kiv::Dir::DirIs( "dir" ) ) ) << "by identity";
   EXPECT_FALSE( Value( true ) == Value( "true" ) );
   EXPECT_FALSE( Value( 1U ) == Value( 1.0 ) );
   EXPECT_EQ( Value( GenericIf::List_{ { "a", nan } } ),
              Value( GenericIf::List_{ { "a", nan } } ) );
   EXPECT_FALSE( Value( GenericIf::List_{ { "a", 1U } } ) ==
                 Value( GenericIf::List_{ { "b", 1U } } ) );
}

// --------------------------------------------------------------------------------- exceptions

TEST( GenericExceptions, CarryWhatTheyAreAboutAndTheirKind ) {
   try {
      GenericIf::throwTypeException( "msg" );
   } catch( Kiv::TypeException const & e ) {
      EXPECT_EQ( e.name(), String8( "msg" ) );
      EXPECT_STREQ( e.what(), "wrong type: msg" );
      EXPECT_TRUE( e.ids().has( Kiv::Exception::type ) );
      EXPECT_FALSE( e.expected() );
   }
   EXPECT_EQ( thrown< Kiv::ConstException >( [] {
                 GenericIf::throwConstException( "attempting to modify a const instance" );
              } ),
              "attempting to modify a const instance" );
   EXPECT_EQ(
      thrown< Kiv::UnknownArgException >( [] { GenericIf::throwUnknownArgException( "logIs" ); } ),
      "unknown argument: logIs" );
   EXPECT_EQ( thrown< Kiv::OpNotSupportedException >(
                 [] { GenericIf::throwOpNotSupportedException( "stageLog" ); } ),
              "operation not supported: stageLog" );
   EXPECT_EQ( thrown< Kiv::BadIndexAttrException >(
                 [] { GenericIf::throwBadIndexAttrException( "stageLog" ); } ),
              "bad index: stageLog" );
   EXPECT_EQ( thrown< Kiv::UnknownAttrException >(
                 [] { GenericIf::throwUnknownAttrException( "x", "y" ); } ),
              "unknown attribute: x (y)" );
}

TEST( GenericExceptions, AreExceptionsOfTheFrameworkAndCanBeExpected ) {
   Kiv::Expect const region( Kiv::Exception::constInstance );
   try {
      GenericIf::throwConstException( "attempting to modify a const instance" );
   } catch( Kiv::Exception const & e ) {
      EXPECT_TRUE( e.expected() );
      EXPECT_TRUE( e.ids().has( Kiv::Exception::constInstance ) );
   }
}

// ------------------------------------------------------------------------------------- access

TEST_F( GenericDir, ToNothingIsRefused ) {
   EXPECT_EQ( thrown< Kiv::RangeException >( [] { GenericIf{ Ptr< Kiv::Dir >() }; } ),
              "null ValidPtr" );
   EXPECT_EQ( thrown< Kiv::TypeException >( [] { GenericIf{ Value( "dir" ) }; } ),
              "wrong type: Kiv::PtrInterface (an object was expected, Kiv::String8 was given)" );
}

TEST_F( GenericDir, HoldsItsObject ) {
   auto const before = dir->references();
   GenericIf const second{ Ptr< Kiv::Dir const >( dir ) };
   EXPECT_GT( dir->references(), before );
   EXPECT_TRUE( second.isConst() );
   EXPECT_FALSE( access.isConst() );
   EXPECT_EQ( &access.type(), &Kiv::Dir::_fwkType() );
}

TEST_F( GenericDir, WritesAndDeletesMembersAsTheSettersDo ) {
   struct Watcher : Kiv::Dir::NotifieeConst {
      void onEntityPtr( Kiv::Name name ) override { told.push_back( name.str() ); }
      using Kiv::Dir::NotifieeConst::onEntityPtr;
      std::vector< std::string > told;
   };
   Ptr< Watcher > const watcher = new Watcher;
   watcher->watch( dir );
   access.attributeOp( entityPtr, Op::write, GenericIf::Index{ "a" }, a );
   access.attributeOp( entityPtr, Op::write, GenericIf::Index{ "a" }, a );
   access.attributeOp( entityPtr, Op::write, GenericIf::Index{ "b" }, b );
   EXPECT_EQ( access.attributeCount( entityPtr ), 2U );
   EXPECT_TRUE( watcher->told.empty() ) << "a setter queues";
   Kiv::activityManager()->runQueued();
   EXPECT_EQ( watcher->told, ( std::vector< std::string >{ "a", "b" } ) );
   EXPECT_EQ( dir->entityPtr( "b" ), b );
   access.attributeOp( entityPtr, Op::del, GenericIf::Index{ "a" } );
   access.attributeOp( entityPtr, Op::del, GenericIf::Index{ "absent" } );
   EXPECT_EQ( access.attributeCount( entityPtr ), 1U );
   access.attributeOp( entityPtr, Op::delAll );
   EXPECT_EQ( access.attributeCount( entityPtr ), 0U );
   Kiv::activityManager()->runQueued();
}

TEST_F( GenericDir, AMemberGoesUnderItsOwnNameOnly ) {
   EXPECT_EQ( thrown< Kiv::RangeException >( [ & ] {
                 access.attributeOp( entityPtr, Op::write, GenericIf::Index{ "x\n" }, a );
              } ),
              "key x\\x0a for what stands under a" );
   EXPECT_EQ( dir->entityPtrs(), 0U );
}

TEST_F( GenericDir, AWalkSurvivesEveryChangeAndItsOwner ) {
   for( char const * name : { "k1", "k2", "k3", "k4" } )
      dir->entityPtrIs( Kiv::Dir::DirIs( name ) );
   auto i = access.attributeIterator( entityPtr );
   std::vector< std::string > met;
   while( i ) {
      met.push_back( i.key().str() );
      EXPECT_TRUE( i.value().is( Kind::object ) );
      dir->entityPtrDel( i.key() );
      EXPECT_TRUE( i.value().is( Kind::nothing ) ) << "it is gone";
      ++i;
   }
   EXPECT_EQ( met.size(), 4U );
   EXPECT_TRUE( i.value().is( Kind::nothing ) );
   EXPECT_EQ( thrown< Kiv::RangeException >( [ & ] { GenericIf::attributeIteratorKey( i ); } ),
              "the iterator stands at no member" );
   dir->entityPtrIs( a );
   i.reset();
   EXPECT_TRUE( i.hasBookmark() );

   Ptr< Kiv::Dir > gone = Kiv::Dir::DirIs( "gone" );
   gone->entityPtrIs( b );
   auto kept = GenericIf( gone ).attributeIteratorConst( entityPtr );
   gone = nullptr;
   EXPECT_EQ( kept.key(), String8( "b" ) );
   EXPECT_EQ( kept.value().object(), b );
   EXPECT_TRUE( kept.value().isConst() );
}

TEST_F( GenericDir, TheIteratorsMembersMayBeChangedUnlessItIsAConstOne ) {
   dir->entityPtrIs( a );
   EXPECT_FALSE( access.attributeIterator( entityPtr ).value().isConst() );
   EXPECT_TRUE( access.attributeIteratorConst( entityPtr ).value().isConst() );
}

TEST_F( GenericDir, RequestsThatItsOwnRowsDoNotAnswerGoToTheBase ) {
   EXPECT_EQ( access.attributeId( "parent" ), Kiv::parentAttribute );
   EXPECT_TRUE( access.read( "parent" ).is( Kind::nothing ) );
   dir->parentIs( a );
   EXPECT_EQ( access.read( "parent" ).object(), a );
   EXPECT_TRUE( access.read( "parent" ).isConst() );
   EXPECT_EQ( thrown< Kiv::OpNotSupportedException >( [ & ] { access.write( "parent", b ); } ),
              "operation not supported: parent (write)" );
   EXPECT_EQ( thrown< Kiv::OpNotSupportedException >( [ & ] { access.read( "version" ); } ),
              "operation not supported: version (read)" )
      << "it is reserved";
   EXPECT_EQ( thrown< Kiv::UnknownAttrException >( [ & ] { access.read( "name" ); } ),
              "unknown attribute: name (Kiv::Dir has entityPtr, parent, version)" );
   struct Thing : Kiv::PtrInterface {};
   EXPECT_EQ( thrown< Kiv::UnknownAttrException >(
                 [] { GenericIf{ Ptr< Thing >( new Thing ) }.read( "x" ); } ),
              "unknown attribute: x (Kiv::PtrInterface has none)" );
}

TEST( GenericClock, ShowsItsTime ) {
   Ptr< Kiv::ManualClock > const clock = Kiv::ManualClock::ManualClockIs( 12.5 );
   EXPECT_EQ( GenericIf( clock ).read( "time" ), Value( 12.5 ) );
   EXPECT_EQ(
      thrown< Kiv::OpNotSupportedException >( [ & ] { GenericIf( clock ).write( "time", 13.0 ); } ),
      "operation not supported: time (write)" );
}
