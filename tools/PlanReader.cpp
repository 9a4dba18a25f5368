// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <tools/PlanReader.h>

#include <algorithm>
#include <cmath>
#include <initializer_list>
#include <map>
#include <optional>
#include <string>
#include <unordered_set>

#include <Kiv/Printable.h>
#include <fmt/format.h>
#include <simulation/Timeline.h>

#include <tools/Scalar.h>
#include <tools/YamlTree.h>

namespace Tools {

namespace {

using namespace Simulation;
using Kiv::characterLength;
using Kiv::quoted;

using Use = YamlNode::Use;
using Keys = std::initializer_list< std::string_view >;

// How a value looks to the person who wrote it.
std::string described( Use const & use ) {
   auto const & node = *use.node;
   if( node.kind != YamlNode::Kind::scalar )
      return node.kind == YamlNode::Kind::map ? "a map" : "a list";
   auto const value = scalarOf( node );
   if( std::holds_alternative< std::monostate >( value ) )
      return node.text.empty() ? "empty" : node.text;
   std::size_t shown = 0;
   std::size_t constexpr most = 60;
   while( shown < node.text.size() && shown < most )
      shown += characterLength( std::string_view( node.text ).substr( shown ) );
   auto const text = node.text.substr( 0, shown ) + ( shown < node.text.size() ? "..." : "" );
   return std::holds_alternative< std::string >( value ) ? quoted( text ) : text;
}

std::string listed( Keys keys ) {
   std::string text;
   for( auto key : keys ) {
      text += text.empty() ? "" : key == *( keys.end() - 1 ) ? " and " : ", ";
      text += key;
   }
   return text;
}

// What a message is about. It is put together when there is a message, which nearly never is.
class What {
 public:
   What( char const * text ) : text_( text ) {}
   What( std::string_view text, std::string_view name ) : text_( text ), name_( name ) {}
   std::string str() const { return std::string( text_ ) + ( name_ ? quoted( *name_ ) : "" ); }

 private:
   std::string_view text_;
   std::optional< std::string_view > name_;
};

// The value as a T; nothing if it is something else.
template< class T >
std::optional< T > valueAs( Use const & use ) {
   if( use.node->kind != YamlNode::Kind::scalar )
      return std::nullopt;
   auto value = scalarOf( *use.node );
   auto * const held = std::get_if< T >( &value );
   return held ? std::optional( std::move( *held ) ) : std::nullopt;
}

// Builds a plan from a tree, collecting mistakes on the way. Each reading function returns what it
// could make of its value, so that whatever else is wrong is found as well.
class Reader {
 public:
   explicit Reader( YamlTree const & tree )
      : mistakes_( tree.mistakes() ), treeHasMistakes_( !mistakes_.empty() ),
        visitsLeft_( tree.size() + visitsByAliases ) {}

   void plan( YamlNode const & root );
   PlanText result();

 private:
   // A file of a few lines can unfold to any size through aliases of aliases.
   static std::size_t constexpr visitsByAliases = 1'000'000;
   struct TooLarge {};

   enum class Infinite { allowed, refused };

   template< class F >
   void members( Use const & use, What const & what, F const & f );
   template< class F >
   void fields( Use const & use, What const & what, Keys allowed, F const & f );
   template< class F >
   void items( Use const & use, What const & what, F const & f );

   std::optional< bool > boolean( Use const & use, What const & what );
   std::optional< double > seconds( Use const & use, What const & what, Infinite infinite,
                                    std::string_view allowed );
   std::optional< double > timeout( Use const & use );
   std::optional< std::string > name( Use const & use, What const & what );
   bool isTrue( Use const & use, What const & what );

   void agents( Use const & use );
   std::vector< Event > events( Use const & use, What const & what );
   Event event( Use const & use, What const & what );
   void dependencies( Use const & use, Event & event );
   Behaviour behaviour( Use const & use );

   void timeline( Use const & use );
   class Entry;
   std::vector< Write > writes( Use const & use );
   void dependencyWrites( Use const & use, std::vector< Write > & writes );

   void mistake( Place place, std::string text ) {
      mistakes_.push_back( { place, std::move( text ) } );
   }
   void wrong( Use const & use, What const & what, std::string_view allowed ) {
      mistake( use.place,
               fmt::format( "{} is {}; it must be {}", what.str(), described( use ), allowed ) );
   }
   void visit( Use const & use ) {
      if( visitsLeft_-- == 0 ) {
         mistake( use.place, fmt::format( "aliases unfold to more than {} values; write fewer of "
                                          "them",
                                          visitsByAliases ) );
         throw TooLarge();
      }
   }

   Plan plan_;
   std::vector< Mistake > mistakes_;
   bool const treeHasMistakes_;
   std::vector< UnclearEntry > unclear_;
   std::size_t visitsLeft_;
   bool tooLarge_ = false; // so the plan is only a part of what the file says
};

// Calls `f( name, key, value )` for each member of a map whose keys are names.
template< class F >
void Reader::members( Use const & use, What const & what, F const & f ) {
   if( use.node->kind != YamlNode::Kind::map ) {
      wrong( use, what, "a map" );
      return;
   }
   std::unordered_set< std::string_view > seen; // stays empty where no key stands twice anywhere
   for( auto const & [ key, value ] : use.node->member ) {
      visit( key );
      auto const & node = *key.node;
      bool const isMerge = node.tag == "?" && node.text == "<<";
      if( node.kind != YamlNode::Kind::scalar || isMerge ||
          ( treeHasMistakes_ && !seen.insert( node.text ).second ) )
         continue; // the tree has told already
      if( std::holds_alternative< std::monostate >( scalarOf( node ) ) ) {
         mistake( key.place, fmt::format( "a key of {} is {}; it must be a name, in quotes if it "
                                          "looks like that",
                                          what.str(), described( key ) ) );
      } else if( node.text.empty() ) {
         mistake( key.place, fmt::format( "a name in {} is empty; it must have a character at "
                                          "least",
                                          what.str() ) );
      } else {
         f( node.text, key, value );
      }
   }
}

// The same for a map whose keys are fixed.
template< class F >
void Reader::fields( Use const & use, What const & what, Keys allowed, F const & f ) {
   members( use, what, [ & ]( std::string const & name, Use const & key, Use const & value ) {
      if( std::find( allowed.begin(), allowed.end(), name ) == allowed.end() )
         mistake( key.place, fmt::format( "unknown key {} in {}; allowed are {}", quoted( name ),
                                          what.str(), listed( allowed ) ) );
      else
         f( name, key, value );
   } );
}

template< class F >
void Reader::items( Use const & use, What const & what, F const & f ) {
   if( use.node->kind != YamlNode::Kind::sequence ) {
      wrong( use, what, "a list" );
      return;
   }
   for( auto const & item : use.node->item ) {
      visit( item );
      f( item );
   }
}

std::optional< bool > Reader::boolean( Use const & use, What const & what ) {
   auto const value = valueAs< bool >( use );
   if( !value )
      wrong( use, what, "true or false" );
   return value;
}

std::optional< double > Reader::seconds( Use const & use, What const & what, Infinite infinite,
                                         std::string_view allowed ) {
   auto const number = valueAs< double >( use );
   bool const infinityStands = infinite == Infinite::allowed && isWrittenInfinity( use.node->text );
   if( number && *number >= 0 && ( !std::isinf( *number ) || infinityStands ) )
      return *number + 0.0; // never the negative zero
   wrong( use, what, allowed );
   return std::nullopt;
}

std::optional< double > Reader::timeout( Use const & use ) {
   return seconds( use, "\"timeout\"", Infinite::allowed,
                   "a number of seconds, 0 or more, or .inf" );
}

std::optional< std::string > Reader::name( Use const & use, What const & what ) {
   auto text = valueAs< std::string >( use );
   if( text && !text->empty() )
      return text;
   wrong( use, what, "a name: text that is not empty, in quotes if it looks like something else" );
   return std::nullopt;
}

bool Reader::isTrue( Use const & use, What const & what ) {
   bool const is = valueAs< bool >( use ).value_or( false );
   if( !is )
      wrong( use, what, "true" );
   return is;
}

void Reader::agents( Use const & use ) {
   members( use, "\"agents\"",
            [ & ]( std::string const & name, Use const & key, Use const & value ) {
               plan_.agent.push_back( { name, events( value, { "agent ", name } ), key.place } );
            } );
}

std::vector< Event > Reader::events( Use const & use, What const & what ) {
   std::vector< Event > found;
   members( use, what, [ & ]( std::string const & stage, Use const & key, Use const & value ) {
      auto declared = event( value, { "the event for stage ", stage } );
      declared.stage = stage;
      declared.place = key.place;
      found.push_back( std::move( declared ) );
   } );
   return found;
}

Event Reader::event( Use const & use, What const & what ) {
   Event event;
   event.place = use.place;
   if( use.node->kind != YamlNode::Kind::map ) {
      wrong( use, what, "a map, {} for an event with the default values" );
      return event;
   }
   fields( use, what, { "complete", "critical", "dependency", "timeout" },
           [ & ]( std::string const & name, Use const &, Use const & value ) {
              if( name == "complete" )
                 event.complete = behaviour( value );
              else if( name == "critical" )
                 event.critical = boolean( value, "\"critical\"" ).value_or( false );
              else if( name == "dependency" )
                 dependencies( value, event );
              else
                 event.timeout = timeout( value ).value_or( infinity );
           } );
   return event;
}

void Reader::dependencies( Use const & use, Event & event ) {
   if( use.node->kind == YamlNode::Kind::map ) {
      members( use, "\"dependency\"",
               [ & ]( std::string const & stage, Use const &, Use const & value ) {
                  if( auto const counts = boolean( value, { "dependency ", stage } ) )
                     event.dependency.push_back( { stage, *counts } );
               } );
   } else if( use.node->kind == YamlNode::Kind::sequence ) {
      items( use, "\"dependency\"", [ & ]( Use const & item ) {
         if( auto stage = name( item, "a stage in \"dependency\"" ) )
            event.dependency.push_back( { std::move( *stage ), true } );
      } );
   } else {
      wrong( use, "\"dependency\"", "a list of stages, or a map of stages to true or false" );
   }
}

Behaviour Reader::behaviour( Use const & use ) {
   if( valueAs< bool >( use ).value_or( false ) )
      return { Behaviour::Kind::already, 0 };
   if( valueAs< std::string >( use ) == "never" )
      return { Behaviour::Kind::never, 0 };
   auto const after = seconds( use, "\"complete\"", Infinite::allowed,
                               "a number of seconds, 0 or more, never, or true" );
   if( after && std::isinf( *after ) )
      return { Behaviour::Kind::never, 0 };
   return { Behaviour::Kind::afterSeconds, after.value_or( 0 ) };
}

std::vector< Write > Reader::writes( Use const & use ) {
   std::vector< Write > found;
   fields(
      use, "\"set\"", { "complete", "critical", "dependency", "timeout" },
      [ & ]( std::string const & name, Use const &, Use const & value ) {
         if( name == "complete" )
            found.push_back( CompleteWrite{ boolean( value, "\"complete\"" ).value_or( false ) } );
         else if( name == "critical" )
            found.push_back( CriticalWrite{ boolean( value, "\"critical\"" ).value_or( false ) } );
         else if( name == "dependency" )
            dependencyWrites( value, found );
         else
            found.push_back( TimeoutWrite{ timeout( value ).value_or( infinity ) } );
      } );
   return found;
}

void Reader::dependencyWrites( Use const & use, std::vector< Write > & found ) {
   members( use, "\"dependency\" in \"set\"",
            [ & ]( std::string const & stage, Use const &, Use const & value ) {
               auto const counts = valueAs< bool >( value );
               if( counts || valueAs< std::monostate >( value ) )
                  found.push_back( DependencyWrite{ stage, counts } );
               else
                  wrong( value, { "dependency ", stage }, "true, false, or null to remove it" );
            } );
}

// One entry of the timeline: its keys are read one by one first, then put together.
class Reader::Entry {
 public:
   Entry( Reader & reader, Use const & use ) : reader_( reader ), use_( use ) {}
   void read();

 private:
   struct Key {
      std::string name;
      Place place;
   };

   void field( Key const & key, Use const & value );
   void operation( std::string const & name, Use const & value );
   void checkKeys();
   void checkOperand( std::string const & operand, std::optional< Place > place, bool needed );
   void file();
   bool has( std::string_view operation ) const;

   void mistake( Place place, std::string text ) { reader_.mistake( place, std::move( text ) ); }

   static auto constexpr operations_ = "declare, enabled, join, leave, set and withdraw";

   Reader & reader_;
   Use const & use_;
   std::optional< Place > atPlace_, agentPlace_, stagePlace_; // of the keys
   std::vector< Key > operationKey_;

   // What could be made of the values.
   std::optional< double > at_;
   std::optional< std::string > agent_, stage_;
   std::optional< Operation > operation_;
   TimelineEntry entry_;
};

void Reader::Entry::read() {
   Keys const allowed = { "agent", "at",  "declare", "enabled", "join",
                          "leave", "set", "stage",   "withdraw" };
   reader_.fields( use_, "an entry of the timeline", allowed,
                   [ this ]( std::string const & name, Use const & key, Use const & value ) {
                      field( { name, key.place }, value );
                   } );
   if( use_.node->kind == YamlNode::Kind::map ) {
      checkKeys();
      file();
   }
}

void Reader::Entry::field( Key const & key, Use const & value ) {
   if( key.name == "at" ) {
      atPlace_ = key.place;
      at_ = reader_.seconds( value, "\"at\"", Infinite::refused,
                             "a finite number of seconds, 0 or more" );
   } else if( key.name == "agent" ) {
      agentPlace_ = key.place;
      entry_.agentPlace = value.place;
      agent_ = reader_.name( value, "\"agent\"" );
   } else if( key.name == "stage" ) {
      stagePlace_ = key.place;
      entry_.stagePlace = value.place;
      stage_ = reader_.name( value, "\"stage\"" );
   } else {
      operationKey_.push_back( key );
      operation( key.name, value );
   }
}

// Reads the value of an operation, without the names of agent and stage.
void Reader::Entry::operation( std::string const & name, Use const & value ) {
   if( name == "join" )
      operation_ = Join{ {}, reader_.events( value, "\"join\"" ) };
   else if( name == "declare" )
      operation_ = Declare{ {}, reader_.event( value, "\"declare\"" ) };
   else if( name == "set" )
      operation_ = Set{ {}, {}, reader_.writes( value ) };
   else if( name == "enabled" )
      operation_ = Enable{ reader_.boolean( value, "\"enabled\"" ).value_or( false ) };
   else if( !reader_.isTrue( value, { "", name } ) )
      return;
   else if( name == "leave" )
      operation_ = Leave();
   else
      operation_ = Withdraw();
}

void Reader::Entry::checkKeys() {
   if( !atPlace_ )
      mistake( use_.place, "an entry without \"at\"; it must say when, in seconds" );
   if( operationKey_.empty() ) {
      mistake( use_.place,
               fmt::format( "an entry that does nothing; it must have one of {}", operations_ ) );
   } else if( operationKey_.size() > 1 ) {
      mistake( operationKey_[ 1 ].place,
               fmt::format( "{} in an entry that has {} already; it must have one of {}",
                            quoted( operationKey_[ 1 ].name ), quoted( operationKey_[ 0 ].name ),
                            operations_ ) );
   } else {
      auto const & name = operationKey_[ 0 ].name;
      checkOperand( "agent", agentPlace_, name != "enabled" );
      checkOperand( "stage", stagePlace_,
                    name == "declare" || name == "withdraw" || name == "set" );
   }
}

void Reader::Entry::checkOperand( std::string const & operand, std::optional< Place > place,
                                  bool needed ) {
   auto const & name = operationKey_[ 0 ].name;
   if( needed && !place ) {
      mistake( use_.place, fmt::format( "an entry with {} but without {}; it needs both",
                                        quoted( name ), quoted( operand ) ) );
   } else if( !needed && place ) {
      mistake( *place, fmt::format( "{} in an entry with {}; they do not go together",
                                    quoted( operand ), quoted( name ) ) );
   }
}

// Names the agent and the stage of an operation.
struct Named {
   std::string const & agent;
   std::string const & stage;

   void operator()( Join & join ) const { join.agent = agent; }
   void operator()( Leave & leave ) const { leave.agent = agent; }
   void operator()( Declare & declare ) const {
      declare.agent = agent;
      declare.event.stage = stage;
   }
   void operator()( Withdraw & withdraw ) const {
      withdraw.agent = agent;
      withdraw.stage = stage;
   }
   void operator()( Set & set ) const {
      set.agent = agent;
      set.stage = stage;
   }
   void operator()( Enable & ) const {}
};

void Reader::Entry::file() {
   bool const one = operationKey_.size() == 1;
   bool const named = ( agent_ || has( "enabled" ) ) &&
                      ( stage_ || !( has( "declare" ) || has( "withdraw" ) || has( "set" ) ) );
   if( one && at_ && named ) {
      if( operation_ ) {
         auto const agent = agent_.value_or( "" );
         auto const stage = stage_.value_or( "" );
         std::visit( Named{ agent, stage }, *operation_ );
         entry_.at = *at_;
         entry_.place = use_.place;
         entry_.operation = std::move( *operation_ );
         reader_.plan_.timeline.push_back( std::move( entry_ ) );
      }
   } else if( agent_ ) {
      reader_.unclear_.push_back( { at_.value_or( -infinity ), *agent_,
                                    has( "join" ) || has( "declare" ),
                                    has( "leave" ) || has( "withdraw" ) } );
   }
}

bool Reader::Entry::has( std::string_view operation ) const {
   return std::any_of( operationKey_.begin(), operationKey_.end(),
                       [ & ]( auto const & key ) { return key.name == operation; } );
}

void Reader::timeline( Use const & use ) {
   items( use, "\"timeline\"", [ & ]( Use const & item ) { Entry( *this, item ).read(); } );
}

void Reader::plan( YamlNode const & root ) {
   Use const use{ &root, root.place };
   try {
      fields( use, "the plan", { "agents", "application", "enabled", "timeline" },
              [ & ]( std::string const & key, Use const &, Use const & value ) {
                 if( key == "agents" )
                    agents( value );
                 else if( key == "application" )
                    plan_.application = name( value, "\"application\"" ).value_or( "application" );
                 else if( key == "enabled" )
                    plan_.enabled = boolean( value, "\"enabled\"" ).value_or( true );
                 else
                    timeline( value );
              } );
   } catch( TooLarge const & ) {
      tooLarge_ = true;
   }
}

PlanText Reader::result() {
   if( !tooLarge_ ) {
      auto const more = planMistakes( plan_, unclear_ );
      mistakes_.insert( mistakes_.end(), more.begin(), more.end() );
   }
   // What is used through several aliases is told once.
   std::sort( mistakes_.begin(), mistakes_.end() );
   mistakes_.erase( std::unique( mistakes_.begin(), mistakes_.end() ), mistakes_.end() );
   return { std::move( plan_ ), std::move( mistakes_ ) };
}

} // namespace

PlanText readPlan( std::string_view text ) {
   YamlTree const tree( text );
   if( !tree.root() ) {
      auto mistakes = tree.mistakes();
      if( mistakes.empty() ) {
         mistakes.push_back( { { 1, 1 },
                               "the plan is empty; it must be a map, {} for one with "
                               "the default values" } );
      }
      return { {}, mistakes };
   }
   Reader reader( tree );
   reader.plan( *tree.root() );
   return reader.result();
}

} // namespace Tools
