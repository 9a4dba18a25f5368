// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <tools/YamlTree.h>

#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace {

using Tools::Place;
using Tools::YamlTree;

// Everything that is wrong with `text`, as "LINE:COLUMN: what".
std::vector< std::string > mistakes( std::string_view text ) {
   YamlTree const tree( text );
   std::vector< std::string > found;
   for( auto const & mistake : tree.mistakes() ) {
      found.push_back( std::to_string( mistake.place.line ) + ':' +
                       std::to_string( mistake.place.column ) + ": " + mistake.text );
   }
   return found;
}

// The only mistake of `text`.
std::string mistake( std::string_view text ) {
   auto const found = mistakes( text );
   return found.size() == 1 ? found[ 0 ] : std::to_string( found.size() ) + " mistakes";
}

bool startsWith( std::string const & text, std::string const & start ) {
   return text.compare( 0, start.size(), start ) == 0;
}

TEST( YamlTree, KeepsMembersInOrderWithTheirPlaces ) {
   YamlTree const tree( "b: 1\na: [x, 'y']\n" );
   ASSERT_TRUE( tree.root() );
   auto const & members = tree.root()->member;
   ASSERT_EQ( members.size(), 2U );
   EXPECT_EQ( members[ 0 ].first.node->text, "b" );
   EXPECT_EQ( members[ 1 ].first.place, ( Place{ 2, 1 } ) );
   auto const & items = members[ 1 ].second.node->item;
   ASSERT_EQ( items.size(), 2U );
   EXPECT_EQ( items[ 1 ].place, ( Place{ 2, 8 } ) );
   EXPECT_EQ( items[ 0 ].node->tag, "?" );
   EXPECT_EQ( items[ 1 ].node->tag, "!" );
}

TEST( YamlTree, ColumnsCountCharactersAndLinesEndInAnyWay ) {
   YamlTree const tree( "\u00f6\u20ac: 1\r\nb: [\U0001F600, x]\nc: 2\n" );
   auto const & members = tree.root()->member;
   EXPECT_EQ( members[ 0 ].second.place, ( Place{ 1, 5 } ) );
   EXPECT_EQ( members[ 1 ].second.node->item[ 1 ].place, ( Place{ 2, 8 } ) );
   EXPECT_EQ( members[ 2 ].first.place, ( Place{ 3, 1 } ) );
}

TEST( YamlTree, JsonsPairsOfEscapesAreOneCharacter ) {
   YamlTree const tree( R"({"\ud83d\uDE00": "a\uD83D\uDE00\\ud83d\\ude00", "b": 1})" );
   ASSERT_TRUE( tree.root() );
   auto const & members = tree.root()->member;
   EXPECT_EQ( members[ 0 ].first.node->text, "\U0001F600" );
   EXPECT_EQ( members[ 0 ].second.node->text, "a\U0001F600\\ud83d\\ude00" );
   // Places are those of the file.
   EXPECT_EQ( members[ 0 ].second.place, ( Place{ 1, 18 } ) );
   EXPECT_EQ( members[ 1 ].first.place, ( Place{ 1, 49 } ) );
   EXPECT_TRUE( startsWith( mistake( R"({"\ud83d\ude00": "\ud83d"})" ), "1:2" ) );
   EXPECT_TRUE( startsWith( mistake( R"({"\ude00": 1})" ), "1:" ) );
   EXPECT_EQ( YamlTree( R"(\ud83d\ude00)" ).root()->text, R"(\ud83d\ude00)" );
}

TEST( YamlTree, AByteOrderMarkCountsForNothing ) {
   YamlTree const tree( "\xEF\xBB\xBF"
                        "a: 1\n" );
   ASSERT_TRUE( tree.root() );
   EXPECT_EQ( tree.root()->member[ 0 ].first.place, ( Place{ 1, 1 } ) );
}

TEST( YamlTree, TellsAWrittenNullFromOneThatWasLeftOut ) {
   YamlTree const tree( "a: null\nb: ~\nc:\nnull: 1\nd:\n~: 2\ne:\n" );
   auto const & members = tree.root()->member;
   ASSERT_EQ( members.size(), 7U );
   EXPECT_EQ( members[ 0 ].second.node->text, "null" );
   EXPECT_EQ( members[ 1 ].second.node->text, "~" );
   EXPECT_EQ( members[ 2 ].second.node->text, "" );
   EXPECT_EQ( members[ 3 ].first.node->text, "null" );
   EXPECT_EQ( members[ 4 ].second.node->text, "" );
   EXPECT_EQ( members[ 6 ].second.node->text, "" );
}

TEST( YamlTree, AValueThatWasLeftOutStandsAtItsKeyAndAnItemAtItsDash ) {
   YamlTree const tree( "a:\n  b:\nc:\n- # nothing - at all\n\n- x\n-\n" );
   auto const & members = tree.root()->member;
   EXPECT_EQ( members[ 0 ].second.node->member[ 0 ].second.place, ( Place{ 2, 3 } ) );
   auto const & items = members[ 1 ].second.node->item;
   ASSERT_EQ( items.size(), 3U );
   EXPECT_EQ( items[ 0 ].place, ( Place{ 4, 1 } ) );
   EXPECT_EQ( items[ 2 ].place, ( Place{ 7, 1 } ) );
   EXPECT_EQ( mistake( "d: [1, , 2]\n" ),
              "1:8: not YAML: did not find expected node content, in the flow node at 1:8" );
}

TEST( YamlTree, AnAliasStandsWhereItIsUsed ) {
   YamlTree const tree( "a: &x {b: 1}\nc: *x\n" );
   auto const & members = tree.root()->member;
   EXPECT_EQ( members[ 1 ].second.node, members[ 0 ].second.node );
   EXPECT_EQ( members[ 1 ].second.place, ( Place{ 2, 4 } ) );
}

TEST( YamlTree, ASyntaxErrorIsTheOnlyMistake ) {
   EXPECT_TRUE( startsWith( mistake( "a: 1\na: 2\nb: [1\n" ), "4:1: not YAML: " ) );
   EXPECT_TRUE( startsWith( mistake( "a: {b: 1}}\n" ), "1:10: not YAML: " ) );
   EXPECT_TRUE( startsWith( mistake( "a: b: c\n" ), "1:5: not YAML: " ) );
   EXPECT_EQ( mistake( "a: *b\n" ),
              "1:4: not YAML: an alias of \"b\", which no node before has as its anchor" );
   EXPECT_EQ( mistake( "a: 1\nb:\n  [1, 2\nc: 3\n" ),
              "4:2: not YAML: did not find expected ',' or ']', in the flow sequence at 3:3" );
   EXPECT_EQ( mistake( "a: 1\n- b\n" ),
              "2:1: not YAML: did not find expected key, in the block mapping at 1:1" );
   EXPECT_EQ( YamlTree( "a: 1\nb: [1\n" ).root(), nullptr );
}

TEST( YamlTree, AQuoteThatIsNeverClosedIsASyntaxError ) {
   for( std::string const text : { "a: 1\nb: \"x\n", "a: 1\nb: 'x\n\n", "a: 1\nb: \"x\\\"\n",
                                   "a: 1\nb: 'x''\n", "a: 1\nb: \"x\nc: 2\n" } )
      EXPECT_EQ( mistake( text ), "2:4: not YAML: a quote that is never closed" ) << text;
   EXPECT_EQ( mistake( "a: &x !!str # c\n  'b\n" ), "2:3: not YAML: a quote that is never closed" );
   EXPECT_EQ( mistake( "a: \"x" ), "1:4: not YAML: a quote that is never closed" );
   for( auto text : { "a: 'x'''\n", "a: \"\\\\\"\n", "a: it's\n", "a: &x !!str 'b'\n", "a: ''\n" } )
      EXPECT_TRUE( mistakes( text ).empty() ) << text;
}

TEST( YamlTree, ATabInTheIndentationIsToldAsWhatItIsAndWhereItStands ) {
   std::string const told = ": not YAML: a tab in the indentation; only blanks are allowed there";
   for( auto const & [ text, place ] : std::vector< std::pair< std::string, std::string > >{
           { "\ta: 1\n", "1:1" },
           { "a:\n\tb: {}\n", "2:1" },
           { "a:\n\t\n  b: 1\n", "2:1" },
           { "\t# c\na: 1\n", "1:1" },
           { "-\t{}\n", "1:2" },
           { "a:\n  b:\n  \tc: {}\n", "3:3" },
           { "a:\n  b: {}\n\tc: {}\n", "3:1" },
           { "a:\r\n  b: {}\r\n\r\n\tc: {}\r\n", "4:1" },
           { "a:\n  b: 1\n  # c\n \tc: 1\n", "4:2" },
           { "a:\n  b:\n    c:\n\t  d: 1\n", "4:1" },
           { "a:\n\tb:\n\t\tc: 1\n", "2:1" },
           { "a:\n  b:\n\t\tc: 1\n", "3:1" },
           { "a:\n\t- b\n", "2:1" },
           { "a:\n-\tb: 1\n", "2:2" },
           { "a:\n  - b: 1\n\tc: 2\n", "3:1" },
           { "a: |\n\tb\n", "2:1" },
           { "a: b\n\tc: d\n", "2:1" },
           { "a:\n  ? b\n  :\tc: 1\n", "3:4" } } )
      EXPECT_EQ( mistake( text ), place + told ) << text;
}

TEST( YamlTree, ATabThatIsAllowedIsNotToBlame ) {
   for( std::string const text :
        { "{\n\t\"a\": {},\n\t\"b\" true\n}\n", "{\n\t\"a\": {}\n\t\"b\": true\n}\n",
          "{\n\t\"a\": {\n", "a: [\n\t1,\n\t2\n", "a:\n  b: [\n\t1]]\n",
          "[\n\t\"a\",\n\t\t*b\n]\n" } ) {
      auto const what = mistake( text );
      EXPECT_NE( what.find( "not YAML: " ), std::string::npos ) << text;
      EXPECT_EQ( what.find( "tab" ), std::string::npos ) << what;
   }
   for( std::string const text :
        { "{\n\t\"a\":\t{},\n\t\t\"b\": [\n\t1\n\t]\n}\n", "a:\n  \n  b:\t1\n", "# c\na: 1\t# c\n",
          "a:\n  b: {\n\tc: 1}\n" } )
      EXPECT_EQ( mistakes( text ), std::vector< std::string >() ) << text;
}

TEST( YamlTree, TextAfterTheDocumentIsASyntaxError ) {
   EXPECT_EQ( mistake( "{a: 1} b\n" ), "1:8: not YAML: text after the end of the document" );
}

TEST( YamlTree, BytesThatAreNoTextAreFoundWhereTheyStand ) {
   for( auto bad : { "\xff", "\xc3", "\x01", "\x7f", "\u0080", "\uFFFE" } ) {
      EXPECT_TRUE(
         startsWith( mistake( "a: 1\nb: \u00f6" + std::string( bad ) + "\n" ), "2:5: not YAML: " ) )
         << bad;
   }
   EXPECT_TRUE( startsWith( mistake( std::string_view( "a\0b", 3 ) ), "1:2: not YAML: " ) );
   // The parser would take this one for the end of the file.
   EXPECT_TRUE( startsWith( mistake( "a: 1\n\x04z: 2\n" ), "2:1: not YAML: " ) );
   EXPECT_TRUE( mistakes( "a: \"\u0085\u00a0\t\U0001F600\"\n" ).empty() );
}

TEST( YamlTree, AKeyThatStandsTwiceIsFoundHoweverItIsWritten ) {
   EXPECT_EQ( mistake( "a: 1\nb: 2\n\"a\": 3\n" ),
              "3:1: key \"a\" stands twice in one map, first at 1:1; each key may stand once" );
   EXPECT_EQ( mistakes( "a: 1\na: 2\na: 3\n" ).size(), 2U );
   EXPECT_EQ( mistakes( "1: a\n0x1: b\n" ).size(), 0U );
   EXPECT_TRUE( startsWith( mistake( "x:\n  - {a: {c: 1, c: 2}}\n" ), "2:16: key \"c\"" ) );
}

TEST( YamlTree, MergeKeysAreRefusedAndQuotedOnesAreNames ) {
   EXPECT_TRUE( startsWith( mistake( "a: &x {}\nb: {<<: *x}\n" ), "2:5: a merge key" ) );
   EXPECT_TRUE( mistakes( "b: {\"<<\": 1}\n" ).empty() );
}

TEST( YamlTree, KeysAreScalars ) {
   EXPECT_TRUE( startsWith( mistake( "? [a, b]\n: 1\n" ), "1:3: a key that is a list or map" ) );
   EXPECT_TRUE( mistakes( "a: &x b\n*x : 1\n" ).empty() );
}

TEST( YamlTree, TagsAreYamlsOwnAndFit ) {
   EXPECT_TRUE(
      mistakes( "a: !!str 5\nb: !!map {}\nc: !!seq []\nd: ! x\ne: !!float 1\n" ).empty() );
   EXPECT_TRUE( startsWith( mistake( "a: !!int x\n" ), "1:4: tag " ) );
   EXPECT_TRUE( startsWith( mistake( "a: !mine x\n" ), "1:4: tag " ) );
   EXPECT_TRUE( startsWith( mistake( "a: !!seq {}\n" ), "1:4: tag " ) );
   EXPECT_TRUE( startsWith( mistake( "a: !!set {}\n" ), "1:4: tag " ) );
}

TEST( YamlTree, AFileHoldsOneDocument ) {
   EXPECT_EQ( mistake( "a: 1\n---\nb: 2\n" ), "2:1: a second document begins; a file holds one" );
   EXPECT_EQ( mistake( "a: 1\n... # end\n# b\nb: 2\n" ),
              "4:1: a second document begins; a file holds one" );
   EXPECT_TRUE( mistakes( "%YAML 1.2\n---\na: 1\n...\n# c\n" ).empty() );
}

TEST( YamlTree, AFileMayBeEmpty ) {
   for( auto text : { "", "# nothing\n", "\n\n" } ) {
      YamlTree const tree( text );
      EXPECT_EQ( tree.root(), nullptr );
      EXPECT_TRUE( tree.mistakes().empty() );
   }
}

TEST( YamlTree, DepthIsASyntaxErrorBeforeItIsDangerous ) {
   for( std::string const open : { "[", "{a: ", "- ", "? ", "[{a: " } ) {
      std::string text;
      for( int i = 0; i < 100000; ++i )
         text += open;
      auto const found = mistakes( text );
      ASSERT_EQ( found.size(), 1U ) << open;
      EXPECT_NE( found[ 0 ].find( "not YAML: more than 500 lists and maps" ), std::string::npos )
         << found[ 0 ];
   }
   EXPECT_TRUE( mistakes( std::string( 500, '[' ) + std::string( 500, ']' ) ).empty() );
}

TEST( YamlTree, AnAliasMayContainItself ) {
   YamlTree const tree( "&a [*a]\n" );
   ASSERT_TRUE( tree.root() );
   EXPECT_EQ( tree.root()->item[ 0 ].node, tree.root() );
}

} // namespace
