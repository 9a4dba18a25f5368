// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The quick reading of plans beside the thorough one: the same tree, or none of its own.
#include <tools/YamlTree.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

namespace {

using Tools::Place;
using Tools::YamlNode;
using Tools::YamlTree;
using Reading = YamlTree::Reading;

std::string written( Place place ) {
   return std::to_string( place.line ) + ':' + std::to_string( place.column );
}

void write( YamlNode::Use const & use, std::string & text ) {
   auto const & node = *use.node;
   text += written( use.place ) + ' ' + written( node.place ) + ' ' + node.tag;
   if( node.kind == YamlNode::Kind::scalar ) {
      text += " \"" + node.text + "\"\n";
      return;
   }
   text += node.kind == YamlNode::Kind::map ? " {\n" : " [\n";
   for( auto const & item : node.item )
      write( item, text );
   for( auto const & [ key, value ] : node.member ) {
      write( key, text );
      write( value, text );
   }
   text += node.kind == YamlNode::Kind::map ? "}\n" : "]\n";
}

// All that can be seen of a tree.
std::string shown( YamlTree const & tree ) {
   std::string text = std::to_string( tree.size() ) + '\n';
   if( tree.root() )
      write( { tree.root(), tree.root()->place }, text );
   for( auto const & mistake : tree.mistakes() )
      text += written( mistake.place ) + ": " + mistake.text + '\n';
   return text;
}

// Whether the quick reading has sufficed for `text`; fails unless both make the same tree.
bool isQuick( std::string_view text ) {
   YamlTree const quick( text );
   if( quick.wasQuick() ) {
      EXPECT_TRUE( quick.mistakes().empty() );
      EXPECT_EQ( shown( quick ), shown( YamlTree( text, Reading::thorough ) ) ) << text;
   }
   return quick.wasQuick();
}

std::vector< std::string > examples() {
   std::vector< std::string > texts;
   for( auto const & file : std::filesystem::directory_iterator( ORDOVAN_EXAMPLES ) ) {
      if( file.path().extension() != ".yaml" )
         continue;
      std::ifstream in( file.path() );
      texts.emplace_back( std::istreambuf_iterator< char >( in ),
                          std::istreambuf_iterator< char >() );
   }
   return texts;
}

TEST( PlainYaml, EveryExampleIsReadTheQuickWay ) {
   auto const texts = examples();
   EXPECT_GT( texts.size(), 8U );
   for( auto const & text : texts )
      EXPECT_TRUE( isQuick( text ) ) << text;
}

// One for each thing that the quick way knows.
std::vector< std::string > const plain = {
   "a: 1",
   "a: 1\n",
   "\n# c\n\na: 1 # d\n\n  # e\nb: 2\n#",
   "a: x y  z \nb: .inf\nc: -1\nd: -.5\ne: +3\nf: 1e-3\ng: /h\ni_: A::B:c\n",
   "a: null\nb: Null\nnull: true\nc: NULL\n",
   "a: 'x y'\n\"b c\": \"d # {[e\"\n'': ''\n",
   "a:\n  b:\n    c: 1\n    d: 2\n  e: 3\nf: 4\n",
   "a: # why\n   b: 1\n",
   "a:\n- 1\n- b\n-   'c'\nd:\n  - e\n  # f\n  - g: 1\n    h: 2\n  - i: {j: k}\n",
   "- a\n- {}\n- []\n- b: c\n",
   "{a: [], b: {}, c: [x, 'y', [z]], 'd': {e: {f: 1}}}",
   "[a,b, {c: 1,d: 2} ] # e\n",
   "a: {\n  b: 1,\n    c: [\n2\n,\n3]\n}\nd: 4\n",
   "{\n \"a\": {\n  \"b\": [\n   1,\n   2\n  ]\n },\n \"c\": 0.5\n}\n",
};

TEST( PlainYaml, WhatItKnowsIsTheTreeOfTheThoroughReading ) {
   for( auto const & text : plain )
      EXPECT_TRUE( isQuick( text ) ) << text;
}

TEST( PlainYaml, WhatItDoesNotKnowIsLeftToTheThoroughReading ) {
   for( std::string_view const text : { "",
                                        "# c\n",
                                        " ",
                                        "x",
                                        "'x'",
                                        "a: \xC3\xB6\n",
                                        "a:\t1\n",
                                        "a: 1\r\nb: 2\r\n",
                                        "--- {a: 1}\n",
                                        "a: 1\n...\n",
                                        "%YAML 1.2\n---\na: 1\n",
                                        "a: &x 1\nb: *x\n",
                                        "a: !!str 1\n",
                                        "a: |\n  x\n",
                                        "a: >\n  x\n",
                                        "a: x\n  y\n",
                                        "a: 'x\n  y'\n",
                                        "a: \"\\n\"\n",
                                        "a: 'it''s'\n",
                                        "a:\n",
                                        "a:\nb: 1\n",
                                        "a: ~\n",
                                        "? a\n: 1\n",
                                        "<<: {a: 1}\n",
                                        "a: 1\na: 2\n",
                                        "{a: 1, 'a': 2}",
                                        "{a}",
                                        "{a: }",
                                        "{a: 1,}",
                                        "[a,]",
                                        "[a: b]",
                                        "[a",
                                        "{a: 1",
                                        "{a: 1}}",
                                        "{a: 1} b",
                                        "[a]b",
                                        "a:1\n",
                                        "{a:1}",
                                        "'a':1\n",
                                        "a: b: c\n",
                                        "a : 1\n",
                                        "a: 1 #b\nc: 'd' e\n",
                                        "a: b#c\n",
                                        "a: [b]# c\n",
                                        "  a: 1\n b: 2\n",
                                        " a: 1\n",
                                        "a:\n   b: 1\n  c: 2\n",
                                        "a:\n b: 1\n  c: 2\n",
                                        "- a\nb: 1\n",
                                        "- a\n - b\n",
                                        "- - a\n",
                                        "-\n",
                                        "- a: 1\n  - b\n",
                                        "a: - b\n",
                                        "a: @b\n",
                                        "a: x?\n",
                                        "{a: 1}\nb: 2\n",
                                        "a: b\x7F\n",
                                        "a: {b: 1,\n# c\nd: 2}\n" } )
      EXPECT_FALSE( isQuick( text ) ) << text;
   EXPECT_FALSE( isQuick( std::string( "a: b\0\n", 6 ) ) );
   EXPECT_FALSE( isQuick( std::string( 40, '[' ) + std::string( 40, ']' ) ) );
   EXPECT_FALSE( isQuick( std::string( 1100, 'k' ) + ": 1\n" ) );
}

TEST( PlainYaml, TextsThatAreNearlyPlainAreNoDifferent ) {
   std::string_view constexpr pieces[] = {
      ":",  ": ", " ",  "  ", "\n", "\n  ", "-",   "- ",  "{",  "}",      "[",    "]", ",",
      ", ", "#",  " #", "'",  "\"", ".",    "...", "---", "a",  "1",      "null", "?", "? ",
      "&",  "*",  "!",  "|",  "<<", "\t",   "\\",  "a: ", "{}", "b: 1\n", "(",    "@", "=" };
   char const * const wanted = std::getenv( "ORDOVAN_TEST_TEXTS" );
   int const texts = wanted ? std::atoi( wanted ) : 4000;
   std::mt19937 random( 1 );
   auto const below = [ & ]( std::size_t n ) { return random() % n; };
   int quick = 0;
   for( int n = 0; n != texts && !testing::Test::HasFailure(); ++n ) {
      auto text = plain[ below( plain.size() ) ];
      for( auto changes = 1 + below( 3 ); changes != 0; --changes ) {
         auto const from = below( text.size() + 1 );
         text.replace( from, below( 3 ),
                       below( 4 ) == 0 ? "" : pieces[ below( std::size( pieces ) ) ] );
      }
      quick += isQuick( text ) ? 1 : 0;
   }
   EXPECT_GT( quick, texts / 20 );
}

} // namespace
