// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <tools/YamlTree.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <new>
#include <optional>
#include <stdexcept>
#include <unordered_map>

#include <Kiv/Printable.h>
#include <fmt/format.h>
#include <yaml.h>

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

// With this begins what is said of an escape that stands for no character.
std::string_view constexpr invalidEscape = "not YAML: found invalid Unicode character escape code";

// What is said of the parser's own errors.
struct SyntaxError {
   std::size_t offset;
   std::string what; // empty if a second document is all that is wrong
   // In what it stands, and where that begins; empty if that says no more.
   std::string around;
   std::size_t aroundOffset = 0;
};

// The parser counts characters, and everything else here counts bytes.
class Offsets {
 public:
   explicit Offsets( std::string_view text ) : text_( text ) {}

   std::size_t of( std::size_t character ) {
      if( character < characters_ )
         characters_ = offset_ = 0;
      for( ; characters_ < character && offset_ < text_.size(); ++characters_ )
         offset_ += std::max< std::size_t >( 1, characterLength( text_.substr( offset_, 4 ) ) );
      return offset_;
   }

 private:
   std::string_view text_;
   std::size_t characters_ = 0; // of the last answer, which the next one mostly follows
   std::size_t offset_ = 0;
};

// The events of a text, one after the other.
class Events {
 public:
   explicit Events( std::string_view text ) : offsets_( text ) {
      if( !yaml_parser_initialize( &parser_ ) )
         throw std::bad_alloc();
      yaml_parser_set_encoding( &parser_, YAML_UTF8_ENCODING );
      yaml_parser_set_input_string(
         &parser_, reinterpret_cast< unsigned char const * >( text.data() ), text.size() );
   }
   ~Events() {
      yaml_event_delete( &event_ );
      yaml_parser_delete( &parser_ );
   }
   Events( Events const & ) = delete;
   Events & operator=( Events const & ) = delete;

   // Stays until the next one. Throws SyntaxError.
   yaml_event_t const & next() {
      yaml_event_delete( &event_ );
      if( yaml_parser_parse( &parser_, &event_ ) )
         return event_;
      event_ = {};
      if( parser_.error == YAML_MEMORY_ERROR )
         throw std::bad_alloc();
      throw error();
   }
   std::size_t offsetOf( yaml_mark_t const & mark ) { return offsets_.of( mark.index ); }

 private:
   SyntaxError error() {
      if( parser_.error == YAML_READER_ERROR )
         return { parser_.problem_offset, parser_.problem, {} };
      std::string_view const what = parser_.problem;
      // The parser takes whatever follows a finished document as another one.
      if( what.ends_with( "expected <document start>" ) )
         return { offsetOf( parser_.problem_mark ), {}, {} };
      if( what == "found unexpected end of stream" )
         return { offsetOf( parser_.context_mark ), "a quote that is never closed", {} };
      std::string_view around = parser_.context ? parser_.context : "";
      for( std::string_view const verb : { "while parsing a ", "while scanning a " } )
         if( around.starts_with( verb ) )
            around.remove_prefix( verb.size() );
      return { offsetOf( parser_.problem_mark ), std::string( what ), std::string( around ),
               offsetOf( parser_.context_mark ) };
   }

   yaml_parser_t parser_ = {};
   yaml_event_t event_ = {};
   Offsets offsets_;
};

std::string textOf( unsigned char const * characters ) {
   return characters ? reinterpret_cast< char const * >( characters ) : "";
}

} // namespace

// Makes nodes from the parser's events.
class YamlTree::Builder {
 public:
   // `joined`, if it is not null, is made from `text` and read in its place.
   Builder( YamlTree & tree, std::string_view text, Joined const * joined )
      : tree_( tree ), text_( joined ? joined->text() : text ), joined_( joined ), places_( text ),
        events_( text_ ) {}

   void run();

 private:
   void take( yaml_event_t const & event ) {
      auto const offset = events_.offsetOf( event.start_mark );
      switch( event.type ) {
      case YAML_DOCUMENT_START_EVENT:
         if( ++documents_ > 1 )
            throw SyntaxError{ offset, {}, {} };
         break;
      case YAML_ALIAS_EVENT:
         alias( offset, textOf( event.data.alias.anchor ) );
         break;
      case YAML_SCALAR_EVENT:
         scalar( offset, event.data.scalar );
         break;
      case YAML_SEQUENCE_START_EVENT:
         open( YamlNode::Kind::sequence, YAML_SEQ_TAG, offset, event.data.sequence_start );
         break;
      case YAML_MAPPING_START_EVENT:
         open( YamlNode::Kind::map, YAML_MAP_TAG, offset, event.data.mapping_start );
         break;
      case YAML_SEQUENCE_END_EVENT:
         open_.pop_back();
         break;
      case YAML_MAPPING_END_EVENT: {
         auto & map = *open_.back();
         open_.pop_back();
         checkKeys( map );
         break;
      }
      default:
         break;
      }
   }

   // Far more than any plan has. The parser takes time with the square of it.
   static std::size_t constexpr mostDepth = 500;

   using Scalar = decltype( yaml_event_t::data.scalar );

   void scalar( std::size_t offset, Scalar const & said ) {
      auto & node = make( textOf( said.anchor ) );
      node.tag = tagOf( offset, said );
      node.text.assign( reinterpret_cast< char const * >( said.value ), said.length );
      node.place = placeAt( offset );
      if( !fitsItsTag( node ) ) {
         mistake( node.place, "tag " + quoted( node.tag ) + " does not fit " + quoted( node.text ) +
                                 "; YAML's own tags are allowed where the text fits them" );
      }
      place( &node, node.place );
      if( said.style == YAML_PLAIN_SCALAR_STYLE && said.length == 0 )
         leftOut( node, offset );
   }

   // The parser takes a plain scalar with the tag "!", which is a string, as one without a tag.
   std::string tagOf( std::size_t offset, Scalar const & said ) const {
      if( said.tag )
         return textOf( said.tag );
      bool const plain = said.style == YAML_PLAIN_SCALAR_STYLE;
      return plain && text_.substr( offset, 1 ) != "!" ? "?" : "!";
   }

   void alias( std::size_t offset, std::string const & name ) {
      auto const found = anchor_.find( name );
      if( found == anchor_.end() )
         throw SyntaxError{ offset,
                            "an alias of " + quoted( name ) +
                               ", which no node before has as its anchor",
                            {} };
      place( found->second, placeAt( offset ) );
   }

   // Offsets are those in the text that is parsed.
   Place placeAt( std::size_t offset ) {
      return places_.at( joined_ ? joined_->original( offset ) : offset );
   }

   YamlNode & make( std::string const & anchor ) {
      auto & node = tree_.node_.emplace_back();
      if( !anchor.empty() )
         anchor_[ anchor ] = &node;
      return node;
   }

   template< class Said >
   void open( YamlNode::Kind kind, std::string_view ownTag, std::size_t offset,
              Said const & said ) {
      if( open_.size() == mostDepth )
         throw SyntaxError{
            offset, fmt::format( "more than {} lists and maps inside each other", mostDepth ), {} };
      auto & node = make( textOf( said.anchor ) );
      node.kind = kind;
      node.tag = said.tag ? textOf( said.tag ) : "?";
      node.place = placeAt( offset );
      if( node.tag != "?" && node.tag != "!" && node.tag != ownTag ) {
         mistake( node.place, "tag " + quoted( node.tag ) +
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

   // People look for a value that was left out at its key, for an item at its dash or comma.
   void leftOut( YamlNode const & node, std::size_t offset ) {
      if( open_.empty() )
         return;
      YamlNode & parent = *open_.back();
      if( parent.kind == YamlNode::Kind::sequence )
         parent.item.back().place = placeAt( lastIndicatorBefore( text_, offset ) );
      else if( auto & [ key, value ] = parent.member.back(); value.node == &node )
         value.place = key.place;
   }

   std::optional< SyntaxError > parse();
   std::string around( SyntaxError const & error ) {
      if( error.around.empty() )
         return {};
      auto const [ line, column ] = placeAt( error.aroundOffset );
      return fmt::format( ", in the {} at {}:{}", error.around, line, column );
   }
   std::size_t tabToBlame( SyntaxError const & error ) const;

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
   Events events_;
   std::unordered_map< std::string, YamlNode const * > anchor_;
   std::vector< YamlNode * > open_; // sequences and maps that have not ended
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
      return;
   if( error->what.empty() )
      secondDocument( error->offset );
   else if( auto const tab = tabToBlame( *error ); tab != std::string_view::npos )
      syntaxError( tab, "a tab in the indentation; only blanks are allowed there" );
   else
      syntaxError( error->offset, error->what + around( *error ) );
}

std::optional< SyntaxError > YamlTree::Builder::parse() {
   try {
      for( bool more = true; more; ) {
         auto const & event = events_.next();
         more = event.type != YAML_STREAM_END_EVENT;
         take( event );
      }
   } catch( SyntaxError const & error ) {
      return error;
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

YamlTree::YamlTree( std::string_view text ) {
   std::string_view constexpr byteOrderMark = "\xEF\xBB\xBF";
   if( text.starts_with( byteOrderMark ) )
      text.remove_prefix( byteOrderMark.size() );
   Builder( *this, text, nullptr ).run();
   // Outside of double quotes such a pair is plain text, so it is joined only for want of it.
   bool const refused = !mistakes_.empty() && mistakes_.front().text.starts_with( invalidEscape );
   if( Joined const joined( refused ? text : std::string_view() ); joined.hasPairs() ) {
      node_.clear();
      mistakes_.clear();
      Builder( *this, text, &joined ).run();
   }
}

} // namespace Tools
