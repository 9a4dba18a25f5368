// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <tools/YamlTree.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <optional>
#include <sstream>
#include <unordered_map>

#include <Kiv/Printable.h>
#include <fmt/format.h>
#include <yaml-cpp/eventhandler.h>
#include <yaml-cpp/exceptions.h>
#include <yaml-cpp/mark.h>
#include <yaml-cpp/parser.h>

#include <tools/PlainYaml.h>
#include <tools/Scalar.h>

namespace Tools {

namespace {

using Kiv::characterLength;
using Kiv::quoted;

// Turns byte offsets into lines and columns.
class Places {
 public:
   explicit Places( std::string_view text ) : text_( text ) {
      for( std::size_t i = 0; i < text.size(); ++i ) {
         bool const pair = text[ i ] == '\r' && i + 1 < text.size() && text[ i + 1 ] == '\n';
         if( ( text[ i ] == '\n' || text[ i ] == '\r' ) && !pair )
            start_.push_back( i + 1 );
      }
   }

   Place at( std::size_t offset ) {
      offset = std::min( offset, text_.size() );
      auto const line = std::upper_bound( start_.begin(), start_.end(), offset ) - 1;
      // Offsets come in ascending order nearly always, so that a very long line is not counted
      // from its start again for each place in it.
      bool const onward = *line == line_ && offset >= offset_;
      auto at = onward ? offset_ : *line;
      auto column = onward ? column_ : 1U;
      while( at < offset ) {
         at += std::max< std::size_t >( 1, characterLength( text_.substr( at, 4 ) ) );
         ++column;
      }
      line_ = *line;
      offset_ = offset;
      column_ = column;
      return { static_cast< unsigned >( line - start_.begin() + 1 ), column };
   }

 private:
   std::string_view text_;
   std::vector< std::size_t > start_ = { 0 }; // of each line
   std::size_t line_ = 0;                     // start, offset and column of the last answer
   std::size_t offset_ = 0;
   unsigned column_ = 1;
};

// What YAML allows in a file, of the characters below 0x80 and of those just above.
bool isYamlCharacter( std::string_view character ) {
   auto const byte = static_cast< unsigned char >( character.front() );
   if( character.size() == 1 )
      return byte >= 0x20 ? byte != 0x7F : byte == '\t' || byte == '\n' || byte == '\r';
   bool const c1 = character < std::string_view( "\xC2\xA0" ) && character != "\xC2\x85";
   bool const noCharacter = character == "\xEF\xBF\xBE" || character == "\xEF\xBF\xBF";
   return !c1 && !noCharacter;
}

// The offset of the first byte that cannot stand in a file; the size of `text` if there is none.
std::size_t firstBadByte( std::string_view text ) {
   std::size_t i = 0;
   while( i < text.size() ) {
      auto const length = characterLength( text.substr( i, 4 ) );
      if( length == 0 || !isYamlCharacter( text.substr( i, length ) ) )
         return i;
      i += length;
   }
   return i;
}

// The offset of the quote that opens the scalar at `offset`, past the properties that may stand
// before it; npos if the scalar is not quoted.
std::size_t openingQuote( std::string_view text, std::size_t offset ) {
   while( offset < text.size() ) {
      auto const c = text[ offset ];
      if( c == '"' || c == '\'' )
         return offset;
      auto const * const ends = c == '#' ? "\r\n" : c == '&' || c == '!' ? " \t\r\n" : nullptr;
      if( ends )
         offset = text.find_first_of( ends, offset );
      else if( std::strchr( " \t\r\n", c ) )
         ++offset;
      else
         break;
   }
   return std::string_view::npos;
}

// Whether the quoted scalar whose opening quote stands at `open` has a closing one.
bool isClosed( std::string_view text, std::size_t open ) {
   auto const quote = text[ open ];
   for( auto i = open + 1; i < text.size(); ++i ) {
      bool const escapes = quote == '"' ? text[ i ] == '\\' : text.substr( i, 2 ) == "''";
      if( escapes )
         ++i;
      else if( text[ i ] == quote )
         return true;
   }
   return false;
}

// JSON writes a character beyond U+FFFF as two escapes, \ud83d\ude00, where YAML has one,
// \U0001f600, and knows no other. This is a text with such pairs joined, and the way back to the
// places of the one that it was made from.
class Joined {
 public:
   explicit Joined( std::string_view text ) {
      while( !text.empty() ) {
         auto const taken = pairAt( text ) ? 2 * escape : text.substr( 0, 2 ) == "\\\\" ? 2U : 1U;
         if( taken == 2 * escape )
            join( text );
         else
            text_ += text.substr( 0, taken );
         text.remove_prefix( taken );
      }
   }

   std::string const & text() const { return text_; }
   bool hasPairs() const { return !pairEnd_.empty(); }
   // The offset in the original text.
   std::size_t original( std::size_t offset ) const {
      auto const pairs = std::upper_bound( pairEnd_.begin(), pairEnd_.end(), offset );
      return offset + 2 * static_cast< std::size_t >( pairs - pairEnd_.begin() );
   }

 private:
   static unsigned constexpr escape = 6; // the characters of \ud83d

   static unsigned surrogate( std::string_view text ) {
      bool const isEscape = text.size() >= escape && text[ 0 ] == '\\' && text[ 1 ] == 'u';
      unsigned value = 0;
      return isEscape && std::from_chars( text.data() + 2, text.data() + escape, value, 16 ).ptr ==
                            text.data() + escape
                ? value
                : 0;
   }
   static bool pairAt( std::string_view text ) {
      return ( surrogate( text ) & ~0x3FFU ) == 0xD800 &&
             ( surrogate( text.substr( escape ) ) & ~0x3FFU ) == 0xDC00;
   }
   void join( std::string_view text ) {
      auto const high = surrogate( text ) & 0x3FFU;
      auto const low = surrogate( text.substr( escape ) ) & 0x3FFU;
      text_ += fmt::format( "\\U{:08x}", 0x10000U + ( high << 10 ) + low );
      pairEnd_.push_back( text_.size() );
   }

   std::string text_;
   std::vector< std::size_t > pairEnd_; // offsets in text_
};

// The last byte before `offset` that is neither blank nor in a comment, where nothing stands
// between the two but blanks, comments and indicators.
std::size_t lastIndicatorBefore( std::string_view text, std::size_t offset ) {
   auto end = std::min( offset, text.size() );
   while( end > 0 ) {
      auto const newline = text.find_last_of( "\r\n", end - 1 );
      auto const start = newline == std::string_view::npos ? 0 : newline + 1;
      auto const line = text.substr( start, end - start );
      auto const content = line.substr( 0, std::min( line.find( '#' ), line.size() ) );
      auto const last = content.find_last_not_of( " \t" );
      if( last != std::string_view::npos )
         return start + last;
      end = start == 0 ? 0 : start - 1;
   }
   return 0;
}

// What stands before the first character of a node in the line of `offset`: blanks, tabs, and
// indicators that open an entry.
struct Indentation {
   std::size_t start;
   std::string_view text;
};
Indentation indentationAt( std::string_view text, std::size_t offset ) {
   auto const newline =
      offset == 0 ? std::string_view::npos : text.find_last_of( "\r\n", offset - 1 );
   auto const start = newline == std::string_view::npos ? 0 : newline + 1;
   auto end = start;
   while( end < text.size() ) {
      bool const entry = std::strchr( "-?:", text[ end ] ) && end + 1 < text.size() &&
                         ( text[ end + 1 ] == ' ' || text[ end + 1 ] == '\t' );
      if( text[ end ] != ' ' && text[ end ] != '\t' && !entry )
         break;
      ++end;
   }
   return { start, text.substr( start, end - start ) };
}

} // namespace

// Makes nodes from the parser's events.
class YamlTree::Builder : public YAML::EventHandler {
 public:
   // `joined`, if it is not null, is made from `text` and read in its place.
   Builder( YamlTree & tree, std::string_view text, Joined const * joined )
      : tree_( tree ), text_( joined ? joined->text() : text ), joined_( joined ), places_( text ) {
   }

   void run();

   void OnDocumentStart( YAML::Mark const & mark ) override {
      if( ++documents_ > 1 )
         throw SecondDocument{ offsetOf( mark ) };
   }
   void OnDocumentEnd() override {}

   void OnNull( YAML::Mark const & mark, YAML::anchor_t anchor ) override {
      auto const offset = offsetOf( mark );
      notAsWritten( offset );
      auto & node = make( anchor );
      node.tag = "?";
      node.place = placeAt( offset );
      // The parser does not say how a null was written, and places one that was left out at
      // whatever follows it, which may look like a null itself.
      for( auto literal : { "null", "Null", "NULL", "~" } )
         if( text_.substr( offset ).starts_with( literal ) )
            node.text = literal;
      place( &node, node.place );
      lastNull_ = { &node, open_.empty() ? nullptr : open_.back(), offset };
      if( node.text.empty() )
         leftOut( lastNull_ );
   }

   void OnScalar( YAML::Mark const & mark, std::string const & tag, YAML::anchor_t anchor,
                  std::string const & value ) override {
      notAsWritten( offsetOf( mark ) );
      auto & node = make( anchor );
      node.tag = tag;
      node.text = value;
      node.place = placeOf( mark );
      lastScalar_ = offsetOf( mark );
      if( !fitsItsTag( node ) ) {
         mistake( node.place, "tag " + quoted( tag ) + " does not fit " + quoted( value ) +
                                 "; YAML's own tags are allowed where the text fits them" );
      }
      place( &node, node.place );
   }

   void OnAlias( YAML::Mark const & mark, YAML::anchor_t anchor ) override {
      notAsWritten( offsetOf( mark ) );
      place( anchor_.at( anchor ), placeOf( mark ) );
   }

   void OnSequenceStart( YAML::Mark const & mark, std::string const & tag, YAML::anchor_t anchor,
                         YAML::EmitterStyle::value ) override {
      open( YamlNode::Kind::sequence, "tag:yaml.org,2002:seq", mark, tag, anchor );
   }
   void OnSequenceEnd() override { open_.pop_back(); }

   void OnMapStart( YAML::Mark const & mark, std::string const & tag, YAML::anchor_t anchor,
                    YAML::EmitterStyle::value ) override {
      open( YamlNode::Kind::map, "tag:yaml.org,2002:map", mark, tag, anchor );
   }
   void OnMapEnd() override {
      auto & map = *open_.back();
      open_.pop_back();
      checkKeys( map );
   }

 private:
   struct SecondDocument {
      std::size_t offset;
   };

   // Offsets are those in the text that is parsed.
   static std::size_t offsetOf( YAML::Mark const & mark ) {
      return mark.is_null() ? 0 : static_cast< std::size_t >( mark.pos );
   }
   Place placeAt( std::size_t offset ) {
      return places_.at( joined_ ? joined_->original( offset ) : offset );
   }
   Place placeOf( YAML::Mark const & mark ) { return placeAt( offsetOf( mark ) ); }

   YamlNode & make( YAML::anchor_t anchor ) {
      auto & node = tree_.node_.emplace_back();
      if( anchor != YAML::NullAnchor )
         anchor_[ anchor ] = &node;
      return node;
   }

   void open( YamlNode::Kind kind, std::string_view ownTag, YAML::Mark const & mark,
              std::string const & tag, YAML::anchor_t anchor ) {
      notAsWritten( offsetOf( mark ) );
      auto & node = make( anchor );
      node.kind = kind;
      node.tag = tag;
      node.place = placeOf( mark );
      if( tag != "?" && tag != "!" && tag != ownTag ) {
         mistake( node.place, "tag " + quoted( tag ) +
                                 " is unknown here; YAML's own tags are "
                                 "allowed where they fit" );
      }
      place( &node, node.place );
      open_.push_back( &node );
   }

   // Puts a finished or just opened node where it belongs.
   void place( YamlNode const * node, Place at ) {
      YamlNode::Use const use{ node, at };
      if( open_.empty() ) {
         tree_.root_ = node;
      } else if( open_.back()->kind == YamlNode::Kind::sequence ) {
         open_.back()->item.push_back( use );
      } else {
         auto & member = open_.back()->member;
         if( member.empty() || member.back().second.node )
            member.push_back( { use, {} } );
         else
            member.back().second = use;
      }
   }

   struct Null {
      YamlNode * node = nullptr;
      YamlNode * parent = nullptr;
      std::size_t offset = 0;
   };

   // A node begins at `offset`, so a null that seemed to stand there was left out.
   void notAsWritten( std::size_t offset ) {
      if( lastNull_.node && lastNull_.offset == offset ) {
         lastNull_.node->text.clear();
         leftOut( lastNull_ );
      }
      lastNull_ = {};
   }

   // People look for a value that was left out at its key, for an item at its dash or comma.
   void leftOut( Null const & null ) {
      if( !null.parent )
         return;
      if( null.parent->kind == YamlNode::Kind::sequence )
         null.parent->item.back().place = placeAt( lastIndicatorBefore( text_, null.offset ) );
      else if( auto & [ key, value ] = null.parent->member.back(); value.node == null.node )
         value.place = key.place;
   }

   struct SyntaxError {
      std::size_t offset;
      std::string what; // empty if a second document is all that is wrong
   };
   std::optional< SyntaxError > parse();
   std::size_t tabToBlame( SyntaxError const & error ) const;
   void lastQuote();

   void checkKeys( YamlNode const & map );
   void mistake( Place at, std::string what ) {
      tree_.mistakes_.push_back( { at, std::move( what ) } );
   }
   void syntaxError( std::size_t offset, std::string const & what ) {
      tree_.mistakes_ = { { placeAt( offset ), "not YAML: " + what } };
      tree_.root_ = nullptr;
   }
   void secondDocument( std::size_t offset );

   YamlTree & tree_;
   std::string_view text_;
   Joined const * joined_;
   Places places_;
   std::unordered_map< YAML::anchor_t, YamlNode const * > anchor_;
   std::vector< YamlNode * > open_; // sequences and maps that have not ended
   Null lastNull_;
   std::size_t lastScalar_ = std::string_view::npos; // its offset
   int documents_ = 0;
};

void YamlTree::Builder::run() {
   if( auto const bad = firstBadByte( text_ ); bad != text_.size() ) {
      syntaxError( bad, "a byte or character that cannot stand in a file; printable UTF-8 is "
                        "allowed" );
      return;
   }
   auto const error = parse();
   if( !error )
      lastQuote();
   else if( error->what.empty() )
      secondDocument( error->offset );
   else if( auto const tab = tabToBlame( *error ); tab != std::string_view::npos )
      syntaxError( tab, "a tab in the indentation; only blanks are allowed there" );
   else
      syntaxError( error->offset, error->what );
}

std::optional< YamlTree::Builder::SyntaxError > YamlTree::Builder::parse() {
   try {
      std::istringstream in{ std::string( text_ ) };
      YAML::Parser parser( in );
      while( parser.HandleNextDocument( *this ) ) {
      }
   } catch( SecondDocument const & second ) {
      return SyntaxError{ second.offset, "" };
   } catch( YAML::Exception const & error ) {
      return SyntaxError{ offsetOf( error.mark ), error.msg };
   }
   return std::nullopt;
}

// The first tab in the indentation of the line with the error, if blanks would change the error;
// else npos. They do not where brackets and commas alone say what belongs where, as in JSON: there
// tabs are as good as blanks.
std::size_t YamlTree::Builder::tabToBlame( SyntaxError const & error ) const {
   auto const [ start, indentation ] = indentationAt( text_, error.offset );
   auto const tab = indentation.find( '\t' );
   if( tab == std::string_view::npos )
      return tab;
   auto blanks = std::string( indentation );
   std::replace( blanks.begin(), blanks.end(), '\t', ' ' );
   // As many blanks as tabs may be as wrong as the tabs. As many as the line before has are not.
   auto const before = indentationAt( text_, lastIndicatorBefore( text_, start ) ).text;
   for( auto const & instead : { blanks, std::string( before.size(), ' ' ) } ) {
      auto text = std::string( text_ );
      text.replace( start, indentation.size(), instead );
      YamlTree tree( "" );
      auto const now = Builder( tree, text, nullptr ).parse();
      bool const same = now && now->what == error.what &&
                        ( now->offset == error.offset ||
                          text.size() - now->offset == text_.size() - error.offset );
      if( !same )
         return start + tab;
   }
   return std::string_view::npos;
}

// The parser lets the end of the file close a quote. Such a scalar is the last one.
void YamlTree::Builder::lastQuote() {
   auto const quote = openingQuote( text_, lastScalar_ );
   if( quote != std::string_view::npos && !isClosed( text_, quote ) )
      syntaxError( quote, "a quote that is never closed" );
}

// The parser takes whatever follows a finished document as another one.
void YamlTree::Builder::secondDocument( std::size_t offset ) {
   auto const end = text_.rfind( "\n...", offset );
   bool const ended =
      end != std::string_view::npos && lastIndicatorBefore( text_, offset ) <= end + 3;
   if( ended || text_.substr( offset ).starts_with( "---" ) )
      mistake( placeAt( offset ), "a second document begins; a file holds one" );
   else
      syntaxError( offset, "text after the end of the document" );
}

void YamlTree::Builder::checkKeys( YamlNode const & map ) {
   std::unordered_map< std::string_view, Place > seen;
   for( auto const & [ key, value ] : map.member ) {
      auto const & node = *key.node;
      if( node.kind != YamlNode::Kind::scalar ) {
         mistake( key.place, "a key that is a list or map; keys are names" );
      } else if( node.tag == "?" && node.text == "<<" ) {
         mistake( key.place, "a merge key; YAML 1.2 has none, and a name is written \"<<\" in "
                             "quotes" );
      } else if( auto const [ first, isNew ] = seen.emplace( node.text, key.place ); !isNew ) {
         auto const place = first->second;
         mistake( key.place, "key " + quoted( node.text ) + " stands twice in one map, first at " +
                                std::to_string( place.line ) + ':' +
                                std::to_string( place.column ) + "; each key may stand once" );
      }
   }
}

YamlTree::YamlTree( std::string_view text, Reading reading ) {
   std::string_view constexpr byteOrderMark = "\xEF\xBB\xBF";
   if( text.starts_with( byteOrderMark ) )
      text.remove_prefix( byteOrderMark.size() );
   quick_ = reading == Reading::quick && Plain( *this, text ).run();
   if( quick_ )
      return;
   Builder( *this, text, nullptr ).run();
   // Outside of double quotes such a pair is plain text, so it is joined only for want of it.
   bool const refused =
      !mistakes_.empty() && mistakes_.front().text.starts_with( "not YAML: invalid unicode" );
   if( Joined const joined( refused ? text : std::string_view() ); joined.hasPairs() ) {
      node_.clear();
      mistakes_.clear();
      Builder( *this, text, &joined ).run();
   }
}

} // namespace Tools
