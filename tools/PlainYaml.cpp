// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <tools/PlainYaml.h>

#include <algorithm>
#include <array>
#include <unordered_set>
#include <utility>

namespace Tools {

namespace {

// What plain scalars are made of, beside blanks and colons, which depend on what follows.
constexpr auto plainCharacters = [] {
   std::array< bool, 256 > is{};
   for( unsigned char c : std::string_view( "0123456789abcdefghijklmnopqrstuvwxyz"
                                            "ABCDEFGHIJKLMNOPQRSTUVWXYZ_./+()=-@" ) )
      is[ c ] = true;
   return is;
}();

bool isPlain( char c ) { return plainCharacters[ static_cast< unsigned char >( c ) ]; }
bool isPrintable( char c ) { return c >= ' ' && c <= '~'; }
bool isAlphanumeric( char c ) {
   return ( c >= '0' && c <= '9' ) || ( c >= 'a' && c <= 'z' ) || ( c >= 'A' && c <= 'Z' );
}

bool hasKeyTwice( YamlNode const & map ) {
   std::size_t constexpr few = 8;
   auto const & member = map.member;
   if( member.size() > few ) {
      std::unordered_set< std::string_view > seen;
      return !std::all_of( member.begin(), member.end(), [ & ]( auto const & one ) {
         return seen.insert( one.first.node->text ).second;
      } );
   }
   for( auto one = member.begin(); one != member.end(); ++one )
      for( auto other = member.begin(); other != one; ++other )
         if( one->first.node->text == other->first.node->text )
            return true;
   return false;
}

void add( YamlNode & map, YamlNode const & key, YamlNode const & value ) {
   map.member.push_back( { { &key, key.place }, { &value, value.place } } );
}

} // namespace

bool YamlTree::Plain::run() {
   lineBegins();
   YamlNode const * root = nullptr;
   if( understood_ && indentation_ == 0 )
      root = atFlow() ? inLine( 0 ) : block();
   if( root && understood_ && atEnd() ) {
      tree_.root_ = root;
      return true;
   }
   tree_.node_.clear();
   return false;
}

// ---- between tokens

void YamlTree::Plain::skipBlanks() {
   while( next() == ' ' )
      ++at_;
}

// From a number sign to the end of the line.
bool YamlTree::Plain::skipComment() {
   while( isPrintable( next() ) )
      ++at_;
   return atEnd() || next() == '\n';
}

// Past blanks and a comment, which must be all that is left of the line, to the next line.
bool YamlTree::Plain::lineEnds() {
   auto const from = at_;
   skipBlanks();
   if( next() == '#' && ( at_ == from || !skipComment() ) )
      return false;
   if( !atEnd() && next() != '\n' )
      return false;
   lineBegins();
   return understood_;
}

// From the end of a line, or the beginning of the text, to the first character of the next line
// that has more than blanks and a comment.
void YamlTree::Plain::lineBegins() {
   indentation_ = none;
   for( ;; ) {
      if( next() == '\n' ) {
         lineStart_ = ++at_;
         ++line_;
      }
      skipBlanks();
      if( next() == '#' && !skipComment() )
         understood_ = false;
      if( atEnd() || !understood_ )
         return;
      if( next() != '\n' )
         break;
   }
   indentation_ = column();
   // Marks of a document stand there.
   if( indentation_ == 0 && ( next() == '.' || next() == '-' ) && next( 1 ) == next() )
      understood_ = false;
}

void YamlTree::Plain::skipFlowBlanks() {
   for( ;; ) {
      skipBlanks();
      if( next() != '\n' )
         return;
      lineStart_ = ++at_;
      ++line_;
   }
}

// ---- scalars

YamlNode * YamlTree::Plain::make( YamlNode::Kind kind ) {
   auto & node = tree_.node_.emplace_back();
   node.kind = kind;
   node.tag = "?";
   node.place = here();
   return &node;
}

YamlNode * YamlTree::Plain::scalar() {
   return next() == '"' || next() == '\'' ? quotedScalar() : plainScalar();
}

YamlNode * YamlTree::Plain::plainScalar() {
   // Some of the characters mean something where a scalar begins.
   bool const begins =
      isAlphanumeric( next() ) || next() == '_' || next() == '/' ||
      ( ( next() == '.' || next() == '-' || next() == '+' ) && isAlphanumeric( next( 1 ) ) ) ||
      ( next() == '-' && next( 1 ) == '.' && isAlphanumeric( next( 2 ) ) );
   if( !begins )
      return nullptr;
   auto end = at_;
   for( auto i = at_; i < text_.size(); ++i ) {
      if( isPlain( text_[ i ] ) ) {
         end = i + 1;
      } else if( text_[ i ] == ':' ) {
         auto const after = i + 1 < text_.size() ? text_[ i + 1 ] : '\0';
         if( after != ':' && !isAlphanumeric( after ) )
            break;
      } else if( text_[ i ] != ' ' ) {
         break;
      }
   }
   if( end - at_ > longest )
      return nullptr;
   auto * const node = make( YamlNode::Kind::scalar );
   node->text = text_.substr( at_, end - at_ );
   at_ = end;
   return node;
}

YamlNode * YamlTree::Plain::quotedScalar() {
   auto const quote = next();
   auto end = at_ + 1;
   while( end < text_.size() && text_[ end ] != quote && text_[ end ] != '\\' &&
          isPrintable( text_[ end ] ) )
      ++end;
   // Two single quotes stand for one.
   bool const ends = end < text_.size() && text_[ end ] == quote &&
                     ( end + 1 == text_.size() || text_[ end + 1 ] != quote );
   if( !ends || end - at_ > longest )
      return nullptr;
   auto * const node = make( YamlNode::Kind::scalar );
   node->tag = "!";
   node->text = text_.substr( at_ + 1, end - at_ - 1 );
   at_ = end + 1;
   return node;
}

// ---- by indentation

// What begins at the first character of a line.
YamlNode * YamlTree::Plain::block() {
   if( ++depth_ > deepest )
      return nullptr;
   auto * const node = atEntry() ? sequence() : blockMap( nullptr );
   --depth_;
   return node;
}

// `firstKey` has been read already where it is not null: behind the dash of an entry.
YamlNode * YamlTree::Plain::blockMap( YamlNode * firstKey ) {
   // The parser has the map before its first key, but nobody sees that.
   auto * const map = make( YamlNode::Kind::map );
   if( firstKey )
      map->place = firstKey->place;
   auto const indentation = map->place.column - 1;
   do {
      auto const * const key = firstKey ? firstKey : scalar();
      firstKey = nullptr;
      if( !key || next() != ':' )
         return nullptr;
      ++at_;
      auto const * const value = blockValue( indentation );
      if( !value )
         return nullptr;
      add( *map, *key, *value );
   } while( indentation_ == indentation && !atEntry() );
   bool const ends = indentation_ == none || indentation_ < indentation;
   return ends && !hasKeyTwice( *map ) ? map : nullptr;
}

// What stands behind the colon of a key of a map at `indentation`.
YamlNode * YamlTree::Plain::blockValue( std::size_t indentation ) {
   bool const blank = next() == ' ';
   skipBlanks();
   if( !atEnd() && next() != '\n' && next() != '#' )
      return blank ? inLine( indentation ) : nullptr;
   if( next() == '#' && !blank )
      return nullptr;
   if( blank )
      --at_; // for lineEnds(), which looks for the blank before a comment
   if( !lineEnds() || indentation_ == none )
      return nullptr;
   if( indentation_ > indentation || ( indentation_ == indentation && atEntry() ) )
      return atFlow() ? nullptr : block();
   return nullptr;
}

// A list whose first dash stands at the first character of the line.
YamlNode * YamlTree::Plain::sequence() {
   auto * const sequence = make( YamlNode::Kind::sequence );
   auto const indentation = column();
   do {
      at_ += 2;
      auto const * const item = entry( indentation );
      if( !item )
         return nullptr;
      sequence->item.push_back( { item, item->place } );
   } while( indentation_ == indentation && atEntry() );
   return indentation_ == none || indentation_ <= indentation ? sequence : nullptr;
}

// What stands behind the dash of a list at `indentation`.
YamlNode * YamlTree::Plain::entry( std::size_t indentation ) {
   skipBlanks();
   if( atFlow() )
      return inLine( indentation );
   auto * const first = scalar();
   if( !first )
      return nullptr;
   if( next() == ':' )
      return blockMap( first );
   return lineEnds() && ( indentation_ == none || indentation_ <= indentation ) ? first : nullptr;
}

// What ends in the line where it begins, or with a bracket. The next line may not go on with it.
YamlNode * YamlTree::Plain::inLine( std::size_t indentation ) {
   auto * const node = atFlow() ? flow() : scalar();
   bool const ends = node && lineEnds() && ( indentation_ == none || indentation_ <= indentation );
   return ends ? node : nullptr;
}

// ---- in brackets

YamlNode * YamlTree::Plain::flow() {
   if( ++depth_ > deepest )
      return nullptr;
   auto * const node = next() == '{' ? flowMap() : flowSequence();
   --depth_;
   return node;
}

YamlNode * YamlTree::Plain::flowMap() {
   auto * const map = make( YamlNode::Kind::map );
   do {
      ++at_; // the bracket or a comma
      skipFlowBlanks();
      if( next() == '}' && map->member.empty() )
         break;
      auto const * const key = scalar();
      if( !key || next() != ':' || next( 1 ) != ' ' )
         return nullptr;
      at_ += 2;
      skipFlowBlanks();
      auto const * const value = atFlow() ? flow() : scalar();
      if( !value )
         return nullptr;
      add( *map, *key, *value );
      skipFlowBlanks();
   } while( next() == ',' );
   if( next() != '}' || hasKeyTwice( *map ) )
      return nullptr;
   ++at_;
   return map;
}

YamlNode * YamlTree::Plain::flowSequence() {
   auto * const sequence = make( YamlNode::Kind::sequence );
   do {
      ++at_; // the bracket or a comma
      skipFlowBlanks();
      if( next() == ']' && sequence->item.empty() )
         break;
      auto const * const item = atFlow() ? flow() : scalar();
      if( !item )
         return nullptr;
      sequence->item.push_back( { item, item->place } );
      skipFlowBlanks();
   } while( next() == ',' );
   if( next() != ']' )
      return nullptr;
   ++at_;
   return sequence;
}

} // namespace Tools
