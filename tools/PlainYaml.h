// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <string_view>

#include <tools/YamlTree.h>

namespace Tools {

// Reads what nearly all plans are written in, some forty times as fast as the parser for all of
// YAML, and gives up at anything else: it finds no mistakes, and what it reads is the tree that the
// parser makes, with the same places. A test compares the two.
//
// It knows maps and lists, by indentation and in brackets (which may go over several lines), plain
// and quoted scalars that stand in one line, without escapes, and comments; all in printable ASCII,
// with lines that end in a line feed. Plain scalars are made of letters, digits, single or several
// blanks and a few other characters that mean nothing to YAML. No document marks, tags, anchors,
// aliases, multi-line scalars, values that are left out, or keys that stand twice.
class YamlTree::Plain {
 public:
   Plain( YamlTree & tree, std::string_view text ) : tree_( tree ), text_( text ) {}

   // Whether it has read the whole text into the tree; else the tree is as it was, empty.
   bool run();

 private:
   static std::size_t constexpr none = static_cast< std::size_t >( -1 );
   static std::size_t constexpr deepest = 30;  // the parser has a limit, too, beyond this
   static std::size_t constexpr longest = 500; // characters of a scalar; the parser limits keys

   // The character at `ahead` of the next one; NUL past the end, as where there is one.
   char next( std::size_t ahead = 0 ) const {
      return at_ + ahead < text_.size() ? text_[ at_ + ahead ] : '\0';
   }
   bool atEnd() const { return at_ == text_.size(); }
   Place here() const { return { line_, static_cast< unsigned >( at_ - lineStart_ + 1 ) }; }
   std::size_t column() const { return at_ - lineStart_; }
   bool atEntry() const { return next() == '-' && next( 1 ) == ' '; }
   bool atFlow() const { return next() == '{' || next() == '['; }

   void skipBlanks();
   bool skipComment();
   bool lineEnds();
   void lineBegins();
   void skipFlowBlanks();

   // These return null where they give up.
   YamlNode * make( YamlNode::Kind kind );
   YamlNode * scalar();
   YamlNode * plainScalar();
   YamlNode * quotedScalar();
   YamlNode * block();
   YamlNode * blockMap( YamlNode * firstKey );
   YamlNode * blockValue( std::size_t indentation );
   YamlNode * sequence();
   YamlNode * entry( std::size_t indentation );
   YamlNode * inLine( std::size_t indentation );
   YamlNode * flow();
   YamlNode * flowMap();
   YamlNode * flowSequence();

   YamlTree & tree_;
   std::string_view text_;
   std::size_t at_ = 0;
   std::size_t lineStart_ = 0;
   unsigned line_ = 1;
   // Of the line that at_ has come to: the column of its first character that is no blank, or none
   // after the last line. Set by lineBegins().
   std::size_t indentation_ = none;
   std::size_t depth_ = 0;
   bool understood_ = true;
};

} // namespace Tools
