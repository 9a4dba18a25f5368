// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Who records into the ring of the environment when a process forks.
#include "../support/Child.h"
#include "../support/Folder.h"

#include <Flitlog/Reader.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Texts = std::vector< std::string >;

struct TraceFork : testing::Test {
   // Plays the letters that ForkChild.cpp explains. Gives what is printed.
   std::string played( std::string const & letters, std::string const & ring = "ring" ) const {
      return testing_support::Child( environment + "KIV_TRACE_RING_SIZE=64K KIV_TRACE_RING='" +
                                     ( folder / ring ) + "' '" FORK_CHILD "' " + letters + " '" +
                                     ( folder / "own" ) + "'" )
         .printed();
   }
   Texts recorded( std::string const & name = "ring" ) const {
      auto const reader = Flitlog::Reader::ReaderIs( folder / name );
      Texts texts;
      for( Flitlog::Record record; reader->next( record ); )
         texts.push_back( record.text );
      return texts;
   }
   // The report of the one that came second.
   static void expectRefusal( std::string const & printed ) {
      EXPECT_EQ( printed.rfind( "kiv: KIV_TRACE_RING ignored: ", 0 ), 0U ) << printed;
      EXPECT_NE( printed.find( " is being written by process " ), printed.npos ) << printed;
      EXPECT_EQ( printed.find( '\n' ), printed.size() - 1 ) << "once: " << printed;
   }

   std::string environment; // what else it says
   testing_support::Folder const folder;
};

} // namespace

TEST_F( TraceFork, AChildRecordsNothingIntoTheRingThatItsParentHasOpened ) {
   EXPECT_EQ( played( "pfcpcp" ), "" );
   EXPECT_EQ( recorded(), ( Texts{ "parent 1", "parent 4", "parent 6" } ) );
   EXPECT_EQ( folder.files(), Texts{ "ring" } );
}

TEST_F( TraceFork, AChildMayOpenARingOfItsOwn ) {
   EXPECT_EQ( played( "pfcocp" ), "" );
   EXPECT_EQ( recorded(), ( Texts{ "parent 1", "parent 6" } ) );
   EXPECT_EQ( recorded( "own" ), ( Texts{ "child 5" } ) );
}

TEST_F( TraceFork, AChildsOwnRingHasLevelsOfItsOwn ) {
   environment = "KIV_TRACE_RING_LEVELS=0-8 ";
   EXPECT_EQ( played( "pqfcdocdq" ), "" );
   EXPECT_EQ( recorded(), ( Texts{ "parent 1" } ) );
   EXPECT_EQ( recorded( "own" ), ( Texts{ "child 7", "child in detail 8" } ) );
}

TEST_F( TraceFork, TheRingOfTheEnvironmentHasItsLevelsInTheChildThatOpensIt ) {
   environment = "KIV_TRACE_RING_LEVELS=0-8 ";
   EXPECT_EQ( played( "qfdcd" ), "" );
   EXPECT_EQ( recorded(), ( Texts{ "child 4" } ) );
}

TEST_F( TraceFork, ADaemonForksBeforeItsFirstTraceAndRecords ) {
   EXPECT_EQ( played( "fcc" ), "" );
   EXPECT_EQ( recorded(), ( Texts{ "child 2", "child 3" } ) );
}

TEST_F( TraceFork, BeforeTheFirstTraceLeavesTheRingToTheChildIfThatTracesFirst ) {
   expectRefusal( played( "fcppc" ) );
   EXPECT_EQ( recorded(), ( Texts{ "child 2", "child 5" } ) );
   EXPECT_EQ( folder.files(), Texts{ "ring" } );
}

TEST_F( TraceFork, BeforeTheFirstTraceLeavesTheRingToTheParentIfThatTracesFirst ) {
   expectRefusal( played( "fpccp" ) );
   EXPECT_EQ( recorded(), ( Texts{ "parent 2", "parent 5" } ) );
   EXPECT_EQ( folder.files(), Texts{ "ring" } );
}

TEST_F( TraceFork, KeepsTheRingOfAChildThatHasEndedWhenItsParentTracesLater ) {
   EXPECT_EQ( played( "fcep" ), "" );
   EXPECT_EQ( recorded(), ( Texts{ "parent 4" } ) );
   EXPECT_EQ( recorded( "ring.old" ), ( Texts{ "child 2" } ) );
}

TEST_F( TraceFork, GivesEachItsOwnRingWithTheProcessIdInTheName ) {
   EXPECT_EQ( played( "fcpcp", "%p" ), "" );
   Texts all;
   for( std::string const & file : folder.files() )
      for( std::string const & text : recorded( file ) )
         all.push_back( text );
   EXPECT_EQ( folder.files().size(), 2U );
   bool const childFirst = !all.empty() && all[ 0 ] == "child 2";
   EXPECT_EQ( all, childFirst ? ( Texts{ "child 2", "child 4", "parent 3", "parent 5" } )
                              : ( Texts{ "parent 3", "parent 5", "child 2", "child 4" } ) );
}
