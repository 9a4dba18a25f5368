// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include "../support/Loop.h"

#include <Kiv/Kiv.h>

#include <gtest/gtest.h>

#include <optional>
#include <sstream>
#include <string>
#include <vector>

using Kiv::Entity;
using Kiv::Name;
using Kiv::Ptr;
using Kiv::String8;
using testing_support::Loop;

namespace {

// An entity that tells when it goes, and of its parents.
class Node : public Entity {
 public:
   explicit Node( Name const & name, bool * gone = nullptr ) : Entity( name ), gone_( gone ) {}
   ~Node() override {
      if( gone_ )
         *gone_ = true;
   }
   void handleParent( Ptr< Entity > const & parent ) override {
      parents.push_back( valueToString( parent ).str() + " " + fullName().str() );
   }
   std::vector< std::string > parents;

 private:
   bool * gone_;
};
Ptr< Node > node( Name const & name ) { return new Node( name ); }

class Watcher : public Entity::NotifieeConst {
 public:
   explicit Watcher( Ptr< Entity const > const & entity ) { watch( entity ); }
   void onParent() override { ++parentChanges; }
   void onVersion() override { ADD_FAILURE() << "reserved, never called"; }
   int parentChanges = 0;
};

// The text of the range exception that `call` throws; nothing when it throws none.
template< class Call >
std::optional< std::string > rangeError( Call call ) {
   try {
      call();
   } catch( Kiv::RangeException const & e ) {
      return e.what();
   }
   return std::nullopt;
}

} // namespace

// ------------------------------------------------------------------------------------------ names

TEST( Entity, HasTheNameItWasMadeWith ) {
   Name const name( "Net" );
   Ptr< Node > const entity = node( name );
   EXPECT_EQ( entity->name(), name );
   EXPECT_EQ( static_cast< void const * >( entity->name().charPtr() ), name.charPtr() ) << "shared";
}

TEST( Entity, IsNotMadeWithAnEmptyName ) {
   EXPECT_EQ( rangeError( [] { node( Name() ); } ), "empty name" );
   EXPECT_EQ( rangeError( [] { Kiv::Dir::DirIs( "" ); } ), "empty name" );
}

TEST( Entity, OnItsOwnHasNoParentAndItsNameIsItsFullName ) {
   Ptr< Node > const entity = node( "Net" );
   EXPECT_EQ( entity->parent(), nullptr );
   EXPECT_EQ( Ptr< Node const >( entity )->parent(), nullptr );
   EXPECT_EQ( entity->fullName(), String8( "Net" ) );
   EXPECT_EQ( entity->uriPath(), String8( "/Net" ) );
   EXPECT_EQ( entity->parentAttr(), String8() );
   EXPECT_EQ( entity->parentAttrId(), Kiv::noAttribute );
}

TEST( Entity, HasAFullNameFromTheOutermostParentDown ) {
   Ptr< Node > const a = node( "a" );
   Ptr< Node > const b = node( "b" );
   Ptr< Node > const c = node( "c" );
   c->parentIs( b );
   EXPECT_EQ( c->fullName(), String8( "b/c" ) );
   b->parentIs( a );
   EXPECT_EQ( c->fullName(), String8( "a/b/c" ) );
   EXPECT_EQ( c->uriPath(), String8( "/a/b/c" ) );
   std::ostringstream out;
   out << *c;
   EXPECT_EQ( out.str(), "a/b/c" );
   b->parentIs( nullptr );
   EXPECT_EQ( c->fullName(), String8( "b/c" ) );
}

// ---------------------------------------------------------------------------------------- parents

TEST( Entity, GivesTheParentItWasToldForReadingAndForWriting ) {
   Ptr< Node > const a = node( "a" );
   Ptr< Node > const b = node( "b" );
   b->parentIs( a );
   EXPECT_EQ( b->parent(), a );
   EXPECT_EQ( Ptr< Node const >( b )->parent(), a );
   b->parentIs( nullptr );
   EXPECT_EQ( b->parent(), nullptr );
}

TEST( Entity, HoldsTheParentThatItWasToldUntilItHasAnother ) {
   bool firstGone = false;
   bool secondGone = false;
   Ptr< Node > child = node( "child" );
   child->parentIs( new Node( "first", &firstGone ) );
   EXPECT_FALSE( firstGone );
   EXPECT_EQ( child->fullName(), String8( "first/child" ) );
   child->parentIs( new Node( "second", &secondGone ) );
   EXPECT_TRUE( firstGone );
   EXPECT_FALSE( secondGone );
   child = nullptr;
   EXPECT_TRUE( secondGone );
}

TEST( Entity, CannotBeInsideItself ) {
   Ptr< Node > const a = node( "a" );
   Ptr< Node > const b = node( "b" );
   Ptr< Node > const c = node( "c" );
   b->parentIs( a );
   c->parentIs( b );
   EXPECT_EQ( rangeError( [ & ] { a->parentIs( a ); } ), "a cannot be inside itself" );
   EXPECT_EQ( rangeError( [ & ] { a->parentIs( c ); } ), "a cannot be inside itself" );
   EXPECT_EQ( rangeError( [ & ] { b->parentIs( c ); } ), "a/b cannot be inside itself" );
   EXPECT_EQ( a->parent(), nullptr );
   EXPECT_EQ( c->fullName(), String8( "a/b/c" ) ) << "nothing has changed";
   EXPECT_TRUE( a->parents.empty() );
   c->parentIs( a );
   EXPECT_EQ( c->fullName(), String8( "a/c" ) ) << "an ancestor further up is no cycle";
}

TEST( Entity, CallsHandleParentAfterTheChangeWithTheNewParent ) {
   Ptr< Node > const a = node( "a" );
   Ptr< Node > const b = node( "b" );
   b->parentIs( a );
   b->parentIs( a );
   b->parentIs( nullptr );
   EXPECT_EQ( b->parents, ( std::vector< std::string >{ "a a/b", "null b" } ) );
}

TEST( Entity, TellsOfAnotherParentAndNotOfTheSame ) {
   Loop loop;
   Ptr< Node > const a = node( "a" );
   Ptr< Node > const b = node( "b" );
   Ptr< Watcher > const watcher = new Watcher( b );
   b->parentIs( a );
   EXPECT_EQ( watcher->parentChanges, 0 ) << "later, not inside the setter";
   loop.idle();
   EXPECT_EQ( watcher->parentChanges, 1 );
   b->parentIs( a );
   EXPECT_THROW( b->parentIs( b ), Kiv::RangeException );
   loop.idle();
   EXPECT_EQ( watcher->parentChanges, 1 );
   b->parentIs( nullptr );
   loop.idle();
   EXPECT_EQ( watcher->parentChanges, 2 );
}

TEST( Entity, SaysWhichAttributeOfItsParentHoldsIt ) {
   Ptr< Node > const entity = node( "entity" );
   Ptr< Kiv::Dir > const dir = Kiv::Dir::DirIs( "dir" );
   entity->parentIs( dir );
   EXPECT_EQ( entity->parentAttr(), String8() );
   entity->parentAttrIdIs( Kiv::firstOwnAttribute );
   EXPECT_EQ( entity->parentAttrId(), Kiv::firstOwnAttribute );
   EXPECT_EQ( entity->parentAttr(), String8( "entityPtr" ) );
   entity->parentIs( nullptr );
   EXPECT_EQ( entity->parentAttr(), String8() );
   EXPECT_EQ( entity->parentAttrId(), Kiv::noAttribute );
}

TEST( Entity, GivesTheNamesOfItsTypesAttributesByNumber ) {
   Ptr< Kiv::Dir > const dir = Kiv::Dir::DirIs( "dir" );
   EXPECT_EQ( dir->attributeString( Kiv::firstOwnAttribute ), String8( "entityPtr" ) );
   EXPECT_EQ( dir->attributeString( Kiv::parentAttribute ), String8( "parent" ) );
   EXPECT_EQ( dir->attributeString( Kiv::versionAttribute ), String8( "version" ) );
   EXPECT_EQ( dir->attributeString( Kiv::noAttribute ), String8() );
   EXPECT_EQ( dir->attributeString( 99 ), String8() );
}

TEST( Entity, TakesAnAdapterWithoutEffect ) {
   Ptr< Node > const a = node( "a" );
   Ptr< Node > const b = node( "b" );
   a->kivNotifieeAdapterIs( b );
   EXPECT_EQ( b->references(), 1U );
   EXPECT_EQ( a->parent(), nullptr );
}

// --------------------------------------------------------------------------------------- reactors

TEST( Reactor, IsNamedAfterTheEntityThatItWatches ) {
   Ptr< Watcher > const watcher = new Watcher( nullptr );
   EXPECT_EQ( watcher->name(), Name() );
   watcher->notifierIs( Ptr< Kiv::PtrInterface const >( node( "Net" ) ) );
   EXPECT_EQ( watcher->name(), Name( "Net" ) ) << "and it keeps what it watches alive";
   watcher->notifierIs( nullptr );
   EXPECT_EQ( watcher->name(), Name() );
}
