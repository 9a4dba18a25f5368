// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The two sinks of a trace point: lines of text, and the ring of a trace file.
#include "../support/Folder.h"
#include "../support/Sink.h"
#include "../support/World.h"

#include <Flitlog/Reader.h>
#include <Kiv/Kiv.h>
#include <Ordovan/detail/Trace.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <utility>
#include <vector>

using Kiv::Ptr;
using Kiv::String8;

namespace {

using Lines = std::vector< std::string >;

// The lines that a ring's records stand for.
Lines linesOf( std::string const & path ) {
   auto const reader = Flitlog::Reader::ReaderIs( path );
   Lines lines;
   for( Flitlog::Record record; reader->next( record ); )
      lines.push_back(
         Kiv::traceText( { record.time, record.handle, record.level, record.source.c_str(),
                           record.line, record.function.c_str(), record.text } ) );
   EXPECT_EQ( reader->problems(), Lines() );
   EXPECT_EQ( reader->overwritten(), 0U );
   EXPECT_EQ( reader->lostDescriptors(), 0U );
   EXPECT_EQ( reader->lostRecords(), 0U );
   return lines;
}

// Never shows the same time twice.
class RunningClock : public Kiv::Clock {
 public:
   double now() const override { return time_ += 0.001; }

 private:
   double mutable time_ = 500;
};

// One that traces when it is asked for its name.
class Talkative : public Kiv::Entity {
 public:
   Talkative( Kiv::TraceHandle const & handle, Kiv::Name const & name )
      : Entity( name ), handle_( handle ) {}
   Kiv::KivType const & fwkType() const override { return _fwkType(); }
   String8 fullName() const override {
      KIV_TRACE( handle_, 8, "S", "somebody asks" );
      return Entity::fullName();
   }

 private:
   Kiv::TraceHandle const & handle_;
};

// As many trace points as there are numbers.
template< int... numbers >
void passPoints( Kiv::TraceHandle const & handle, std::integer_sequence< int, numbers... > ) {
   ( [ & ] { KIV_TRACE( handle, 8, "S", "one of very many trace points ", numbers ); }(), ... );
}

struct Started : testing_support::World {
   // A start-up with everything in it: dependencies, a critical stage that is suspended and goes
   // on, one that times out, an agent that leaves.
   void startUp() {
      auto const disks = declare( "platform", "Disks", {}, 5, true );
      declare( "platform", "Net", { "Disks" }, 0.5 );
      declare( "routing", "Net", { "Disks", "Never" }, 30 );
      config->enabledIs( true );
      testing::internal::CaptureStdout();
      {
         testing_support::LogMessages const quiet;
         auto const manager = Stage::Ordovan::OrdovanIs( "manager" );
         manager->configSmIs( config, status, dir );
         manager->statusSmIs( "App", config, status, progress, log );
         pass( 10 );
         disks->completeIs( true );
         pass( 10 );
         dir->entityPtrDel( "routing" );
         pass( 10 );
         EXPECT_TRUE( status->complete() );
      }
      testing::internal::GetCapturedStdout();
   }
};

struct Sinks : testing::Test, protected Started {
   ~Sinks() override {
      Kiv::traceRingIs( "" );
      Kiv::tracesIs( "Ordovan:" );
   }
   Lines texts() const {
      Lines lines;
      for( Kiv::TraceLine const & line : text.lines )
         lines.push_back( Kiv::traceText( line ) );
      return lines;
   }

   testing_support::Folder const folder;
   testing_support::TraceLines text;
};

TEST_F( Sinks, ShowTheSameLinesOfAWholeStartUp ) {
   Kiv::tracesIs( "Ordovan:0-9" );
   Kiv::traceRingIs( folder / "ring" );
   startUp();
   Kiv::traceRingIs( "" );
   ASSERT_GT( text.lines.size(), 100U );
   EXPECT_EQ( linesOf( folder / "ring" ), texts() );
}

TEST_F( Sinks, TheRingTakesWhatTheSwitchesKeepFromTheText ) {
   Kiv::tracesIs( "Ordovan:7" );
   Kiv::traceRingIs( folder / "ring" );
   startUp();
   Kiv::traceRingIs( "" );
   Lines const all = linesOf( folder / "ring" );
   ASSERT_GT( all.size(), 100U );
   Lines started;
   for( std::string const & line : all )
      if( line.find( " Ordovan/7 " ) != line.npos )
         started.push_back( line );
   EXPECT_EQ( started, texts() );
   EXPECT_EQ( started.size(), 2U );
}

// What runs in full only to be traced decides nothing.
TEST_F( Sinks, ARingWithoutLevel9HasTheOtherLinesOfAWholeStartUp ) {
   Kiv::traceRingIs( folder / "all" );
   Started().startUp();
   EXPECT_TRUE( Stage::detail::traces( 9 ) );
   Kiv::traceRingIs( folder / "most", Flitlog::defaultRingBytes, Kiv::traceLevels( "0-8" ) );
   EXPECT_FALSE( Stage::detail::traces( 9 ) ) << "they need not run";
   Kiv::activityManager()->clockIs( clock );
   startUp();
   Kiv::traceRingIs( "" );
   Lines others;
   for( std::string const & line : linesOf( folder / "all" ) )
      if( line.find( " Ordovan/9 " ) == line.npos )
         others.push_back( line );
   ASSERT_GT( others.size(), 50U );
   ASSERT_LT( others.size(), linesOf( folder / "all" ).size() );
   EXPECT_EQ( linesOf( folder / "most" ), others );
}

TEST_F( Sinks, ShowTheSameOfEveryKindOfPiece ) {
   Kiv::TraceHandle handle( "Pieces", true );
   handle.levelIs( 8, true );
   Kiv::traceRingIs( folder / "ring", 1 << 20 );
   auto const inner = Kiv::Dir::DirIs( "in\nner" );
   inner->parentIs( Kiv::Dir::DirIs( "outer" ) );
   KIV_TRACE( handle, 8, "S", "literal alone" );
   KIV_TRACE( handle, 8, "S", "" );
   KIV_TRACE( handle, 8, "S", true, "|", false );
   for( int const n : { 0, -1, 1, INT_MIN, INT_MAX } )
      KIV_TRACE( handle, 8, "S", n, " ", static_cast< short >( n ), " ",
                 static_cast< unsigned >( n ), " ", std::int64_t{ n } * 4294967295, " ",
                 static_cast< std::uint64_t >( n ), " ", static_cast< long >( n ) );
   for( double const d : { 0.0, -0.0, 0.1, -1e300, 5e-324, 30.0, 1e21, Kiv::infinity,
                           -Kiv::infinity, std::nan( "" ), std::numeric_limits< double >::max() } )
      KIV_TRACE( handle, 8, "S", "double ", d, ", single ", static_cast< float >( d * 0 + 0.5 ) );
   for( std::string const & bytes :
        { std::string(), std::string( "plain" ), std::string( "a\nb\\x\x7f\0\xff", 9 ),
          std::string( 3000, 'x' ) } )
      KIV_TRACE( handle, 8, "S", Kiv::Name( bytes ), " ", String8( bytes ), " ", bytes, " ",
                 std::string_view( bytes ), " ", bytes.c_str() );
   KIV_TRACE( handle, 8, "S", static_cast< char const * >( nullptr ), "." );
   KIV_TRACE( handle, 8, "S", *inner, " ", inner, " ", Ptr< Kiv::Dir const >( inner ), " ",
              Ptr< Kiv::Dir >(), " ", inner.get() );
   Kiv::traceRingIs( "" );
   ASSERT_EQ( text.lines.size(), 3U + 5 + 11 + 4 + 2 );
   EXPECT_EQ( linesOf( folder / "ring" ), texts() );
}

TEST_F( Sinks, EachFileGetsADescriptionOfThePointsThatWriteToIt ) {
   Kiv::TraceHandle const handle( "Twice", false );
   for( auto const * name : { "first", "second" } ) {
      Kiv::traceRingIs( folder / name, 65536 );
      for( int i = 0; i != 3; ++i )
         KIV_TRACE( handle, 3, "S", "turn ", i, " of ", name );
      Kiv::traceRingIs( "" );
   }
   for( auto const * name : { "first", "second" } ) {
      Lines const lines = linesOf( folder / name );
      ASSERT_EQ( lines.size(), 3U );
      EXPECT_NE( lines[ 2 ].find( std::string( " Twice/3 S:" ) ), std::string::npos ) << lines[ 2 ];
      EXPECT_NE( lines[ 2 ].find( std::string( "TestBody: turn 2 of " ) + name ),
                 std::string::npos )
         << lines[ 2 ];
   }
}

TEST_F( Sinks, TheRingHasTheTimeOfTheActivitysClock ) {
   Kiv::TraceHandle const handle( "Timed", false );
   Kiv::traceRingIs( folder / "ring", 65536 );
   clock->nowIs( 1234.5 );
   KIV_TRACE( handle, 3, "S", "now" );
   Kiv::traceRingIs( "" );
   Lines const lines = linesOf( folder / "ring" );
   ASSERT_EQ( lines.size(), 1U );
   EXPECT_EQ( lines[ 0 ].substr( 0, 12 ), "1234.500000 " );
}

TEST_F( Sinks, HaveTheSameTimeOfAClockThatRuns ) {
   Kiv::TraceHandle handle( "Running", true );
   handle.levelIs( 3, true );
   Kiv::traceRingIs( folder / "ring", 65536 );
   Kiv::activityManager()->clockIs( new RunningClock );
   for( int i = 0; i != 3; ++i )
      KIV_TRACE( handle, 3, "S", "turn ", i );
   Kiv::activityManager()->clockIs( clock );
   Kiv::traceRingIs( "" );
   ASSERT_EQ( text.lines.size(), 3U );
   EXPECT_LT( text.lines[ 0 ].time, text.lines[ 1 ].time );
   EXPECT_EQ( linesOf( folder / "ring" ), texts() );
}

TEST_F( Sinks, ATextSinkThatThrowsCostsTheRingNothing ) {
   Kiv::TraceHandle handle( "Thrown", true );
   handle.levelIs( 3, true );
   Kiv::traceRingIs( folder / "ring", 65536 );
   auto const before = Kiv::traceSinkIs( []( Kiv::TraceLine const & ) { throw 1; } );
   testing::internal::CaptureStderr();
   KIV_TRACE( handle, 3, "S", "kept" );
   EXPECT_EQ( testing::internal::GetCapturedStderr(), "kiv: a trace of TestBody was lost\n" );
   Kiv::traceSinkIs( before );
   Kiv::traceRingIs( "" );
   EXPECT_EQ( linesOf( folder / "ring" ).size(), 1U );
}

TEST_F( Sinks, AnObjectMayTraceWhenItIsAskedForItsName ) {
   Kiv::TraceHandle handle( "Talk", true );
   handle.levelIs( 8, true );
   Kiv::traceRingIs( folder / "ring", 65536 );
   Ptr< Talkative > const object = new Talkative( handle, "talkative" );
   KIV_TRACE( handle, 8, "S", "this is ", object );
   Kiv::traceRingIs( "" );
   Lines const lines = linesOf( folder / "ring" );
   ASSERT_EQ( lines.size(), 3U ) << "once for each sink, and the one that asked";
   EXPECT_NE( lines[ 0 ].find( "fullName: somebody asks" ), std::string::npos );
   EXPECT_NE( lines[ 1 ].find( "TestBody: this is talkative" ), std::string::npos );
   ASSERT_EQ( text.lines.size(), 3U );
}

TEST_F( Sinks, AnObjectMayHaveAnotherFileWrittenToWhenItIsAskedForItsName ) {
   struct Moving : Talkative {
      using Talkative::Talkative;
      String8 fullName() const override {
         if( !to.empty() )
            Kiv::traceRingIs( to.c_str(), 65536 );
         return Talkative::fullName();
      }
      std::string to;
   };
   Kiv::TraceHandle handle( "Moved", false );
   Kiv::traceRingIs( folder / "before", 65536 );
   KIV_TRACE( handle, 8, "S", "in the first place" ); // so that the numbers differ
   Ptr< Moving > const object = new Moving( handle, "moving" );
   object->to = folder / "after";
   KIV_TRACE( handle, 8, "S", "this is ", object );
   Kiv::traceRingIs( "" );
   EXPECT_EQ( linesOf( folder / "before" ).size(), 1U );
   Lines const lines = linesOf( folder / "after" );
   ASSERT_EQ( lines.size(), 2U );
   EXPECT_NE( lines[ 0 ].find( "fullName: somebody asks" ), std::string::npos ) << lines[ 0 ];
   EXPECT_NE( lines[ 1 ].find( "TestBody: this is moving" ), std::string::npos ) << lines[ 1 ];
}

TEST_F( Sinks, PointsForWhichTheFileHasNoRoomAreCounted ) {
   Kiv::TraceHandle const handle( "Many", false );
   {
      auto const file =
         Flitlog::TraceFile::TraceFileIs( folder / "ring", { 1 << 20, &Kiv::now, 1024 } );
      Flitlog::theTraceFile = file.get();
      for( int turn = 0; turn != 2; ++turn )
         passPoints( handle, std::make_integer_sequence< int, 40 >() );
   }
   auto const reader = Flitlog::Reader::ReaderIs( folder / "ring" );
   std::uint64_t recorded = 0;
   for( Flitlog::Record record; reader->next( record ); )
      ++recorded;
   EXPECT_GT( reader->lostDescriptors(), 0U );
   EXPECT_EQ( recorded, 2 * ( 40 - reader->lostDescriptors() ) );
   EXPECT_EQ( reader->lostRecords(), 2 * reader->lostDescriptors() );
}

} // namespace
