// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include "../support/Loop.h"

#include <Kiv/Kiv.h>

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

using Kiv::Dir;
using Kiv::Entity;
using Kiv::Name;
using Kiv::Ptr;
using testing_support::Loop;
using Trail = std::vector< std::string >;

namespace {

class Recorder : public Dir::NotifieeConst {
 public:
   Recorder( Ptr< Dir const > const & dir, Trail & trail ) : trail_( trail ) { watch( dir ); }
   void onEntityPtr( Name name ) override { trail_.push_back( name.str() ); }
   void onEntityPtrkivImmediate() override { trail_.push_back( "(deferred)" ); }
   void onEntityPtr() override { trail_.push_back( "(whole)" ); }

 private:
   Trail & trail_;
};

std::set< std::string > namesIn( Ptr< Dir const > const & dir ) {
   std::set< std::string > names;
   for( auto i = dir->entityPtrIteratorConst(); i; ++i )
      names.insert( i.key().str() );
   return names;
}

} // namespace

TEST( Dir, IsMadeEmptyUnderItsName ) {
   Ptr< Dir > const dir = Dir::DirIs( "agents" );
   EXPECT_EQ( dir->name(), Name( "agents" ) );
   EXPECT_EQ( dir->entityPtrs(), 0U );
   EXPECT_EQ( dir->entityPtr( "a" ), nullptr );
   EXPECT_FALSE( dir->entityPtrIterator() );
}

TEST( Dir, FilesEntitiesUnderTheirOwnNames ) {
   Ptr< Dir > const dir = Dir::DirIs( "agents" );
   Ptr< Entity > const a = Dir::DirIs( "a" );
   Ptr< Entity > const b = Dir::DirIs( "b" );
   dir->entityPtrIs( a );
   dir->entityPtrIs( b );
   EXPECT_EQ( dir->entityPtrs(), 2U );
   EXPECT_EQ( dir->entityPtr( "a" ), a );
   EXPECT_EQ( dir->entityPtr( "b" ), b );
   EXPECT_EQ( namesIn( dir ), ( std::set< std::string >{ "a", "b" } ) );
}

TEST( Dir, ReplacesTheEntryOfThatNameAndTellsOnce ) {
   Loop loop;
   Trail trail;
   Ptr< Dir > const dir = Dir::DirIs( "agents" );
   Ptr< Entity > const first = Dir::DirIs( "a" );
   Ptr< Entity > const second = Dir::DirIs( "a" );
   dir->entityPtrIs( first );
   Ptr< Recorder > const recorder = new Recorder( dir, trail );
   dir->entityPtrIs( second );
   EXPECT_EQ( dir->entityPtrs(), 1U );
   EXPECT_EQ( dir->entityPtr( "a" ), second );
   EXPECT_EQ( first->references(), 1U ) << "let go";
   loop.idle();
   EXPECT_EQ( trail, ( Trail{ "a" } ) );
   dir->entityPtrIs( second );
   loop.idle();
   EXPECT_EQ( trail, ( Trail{ "a" } ) ) << "the same entity again is no change";
}

TEST( Dir, RefusesNull ) {
   Loop loop;
   Trail trail;
   Ptr< Dir > const dir = Dir::DirIs( "agents" );
   Ptr< Recorder > const recorder = new Recorder( dir, trail );
   try {
      dir->entityPtrIs( nullptr );
      FAIL() << "accepted";
   } catch( Kiv::RangeException const & e ) {
      EXPECT_STREQ( e.what(), "null ValidPtr" );
   }
   EXPECT_EQ( dir->entityPtrs(), 0U );
   loop.idle();
   EXPECT_TRUE( trail.empty() );
   dir->entityPtrIs( Dir::DirIs( "a" ) );
   loop.idle();
   EXPECT_EQ( trail, ( Trail{ "a" } ) ) << "it works afterwards";
}

TEST( Dir, ForgetsAnEntryAndIgnoresANameThatIsNotThere ) {
   Loop loop;
   Trail trail;
   Ptr< Dir > const dir = Dir::DirIs( "agents" );
   Ptr< Entity > const a = Dir::DirIs( "a" );
   dir->entityPtrIs( a );
   Ptr< Recorder > const recorder = new Recorder( dir, trail );
   dir->entityPtrDel( "b" );
   dir->entityPtrDel( Name() );
   loop.idle();
   EXPECT_TRUE( trail.empty() );
   dir->entityPtrDel( "a" );
   EXPECT_EQ( dir->entityPtr( "a" ), nullptr );
   EXPECT_EQ( a->references(), 1U );
   loop.idle();
   EXPECT_EQ( trail, ( Trail{ "a" } ) );
}

TEST( Dir, ForgetsAllAndTellsOfEach ) {
   Loop loop;
   Trail trail;
   Ptr< Dir > const dir = Dir::DirIs( "agents" );
   dir->entityPtrIs( Dir::DirIs( "a" ) );
   dir->entityPtrIs( Dir::DirIs( "b" ) );
   Ptr< Recorder > const recorder = new Recorder( dir, trail );
   dir->entityPtrDelAll();
   EXPECT_EQ( dir->entityPtrs(), 0U );
   loop.idle();
   ASSERT_EQ( trail.size(), 3U );
   EXPECT_EQ( trail.back(), "(deferred)" );
   trail.pop_back();
   EXPECT_EQ( std::set< std::string >( trail.begin(), trail.end() ),
              ( std::set< std::string >{ "a", "b" } ) );
}

TEST( Dir, IsNotTheParentOfItsEntriesWhichMayStandInSeveral ) {
   Ptr< Dir > const one = Dir::DirIs( "one" );
   Ptr< Dir > const two = Dir::DirIs( "two" );
   Ptr< Entity > const a = Dir::DirIs( "a" );
   one->entityPtrIs( a );
   two->entityPtrIs( a );
   EXPECT_EQ( a->parent(), nullptr );
   EXPECT_EQ( a->fullName(), Kiv::String8( "a" ) );
   one->entityPtrDel( "a" );
   EXPECT_EQ( two->entityPtr( "a" ), a );
}

TEST( Dir, IsKeptByItsIteratorsWhichSurviveItsChanges ) {
   Ptr< Dir > dir = Dir::DirIs( "agents" );
   for( int n = 0; n != 50; ++n )
      dir->entityPtrIs( Dir::DirIs( "agent" + std::to_string( n ) ) );
   auto i = dir->entityPtrIterator();
   Dir * const raw = dir.get();
   dir = nullptr;
   int seen = 0;
   for( ; i; ++i ) {
      EXPECT_TRUE( i.ptr() );
      raw->entityPtrDel( i.key() );
      EXPECT_FALSE( i.ptr() );
      ++seen;
   }
   EXPECT_EQ( seen, 50 );
}
