// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Reads the state machines into a value, then looks for the roots in that value alone.

#include <Explain/Explain.h>

#include <Explain/detail/WaitGraph.h>

#include <Ordovan/StatusSm.h>

#include <algorithm>
#include <cassert>
#include <limits>
#include <unordered_map>
#include <utility>

namespace Stage {

using detail::WaitGraph;
using Kiv::Name;
using Kiv::Ptr;
using Kiv::String8;

using Event = Explanation::Event;
using Index = Explanation::Index;
using Root = Explanation::Root;
using State = Explanation::State;
using UnfinishedStage = Explanation::UnfinishedStage;

namespace {

// =============================================================================================
// What the state machines say
// =============================================================================================

// NaN arms no timer.
double timeOf( Kiv::Clock::NotifieeConst const * timer ) {
   return timer && timer->timeMin() < Kiv::infinity ? timer->timeMin() : Explanation::never;
}

// Whether progression has begun, or the configuration lets it. Once there is anything of it, it is
// not asked any more whether it is enabled.
bool isEnabled( StatusSm const & sm, Status const & status ) {
   return ( sm.config() && sm.config()->enabled() ) || sm.stageEnableSms() != 0 ||
          sm.stageSms() != 0 || sm.needRecalculateNextStage() || status.activeStages() != 0 ||
          status.complete();
}

template< class Item >
void sortByUid( std::vector< Item > & items ) {
   std::sort( items.begin(), items.end(),
              []( Item const & a, Item const & b ) { return a.uid < b.uid; } );
}

class Reader {
 public:
   explicit Reader( StatusSm const & sm ) : sm_( sm ) {
      found_.now = Kiv::now();
      if( !sm.status() )
         return;
      Status const & status = *sm.status();
      found_.enabled = isEnabled( sm, status );
      if( sm.needRecalculateNextStage() )
         found_.nextDecision = timeOf( sm.recalculateNextStage().get() );
      findUnfinished( status );
      for( Index i = 0; i != unfinished_.size(); ++i )
         describe( status, *unfinished_[ i ] );
      for( UnfinishedStage & stage : found_.stage )
         stage.heldBack =
            stage.state == State::waiting && !stage.critical && !found_.critical.empty();
   }

   Explanation found_;

 private:
   bool finished( Status const & status, StageStatus const & stage ) const {
      Ptr< StageSm > const sm = sm_.stageSm( stage.name() );
      return sm && sm->complete() && status.activeStage( stage.name() );
   }

   void findUnfinished( Status const & status ) {
      for( auto i = status.stageIteratorConst(); i; ++i )
         if( !finished( status, *i.ptr() ) )
            unfinished_.push_back( i.ptr() );
      std::sort( unfinished_.begin(), unfinished_.end(),
                 []( auto const & a, auto const & b ) { return a->name() < b->name(); } );
      place_.reserve( unfinished_.size() );
      for( Index i = 0; i != unfinished_.size(); ++i )
         place_.emplace( unfinished_[ i ]->name(), i );
      found_.stage.reserve( unfinished_.size() );
   }

   void describe( Status const & status, StageStatus const & stage ) {
      UnfinishedStage & made = found_.stage.emplace_back();
      made.name = stage.name();
      made.critical = stage.critical();
      made.timeout = stage.timeout();
      if( status.activeStage( stage.name() ) ) {
         describeActive( made );
         return;
      }
      if( made.critical )
         found_.critical.push_back( static_cast< Index >( found_.stage.size() - 1 ) );
      describeWaiting( made, status, stage );
   }

   void describeActive( UnfinishedStage & made ) const {
      Ptr< StageSm > const sm = sm_.stageSm( made.name );
      if( !sm ) {
         made.state = State::untracked;
         return;
      }
      made.state = sm->timedOut() ? State::suspended : State::active;
      if( made.state == State::active )
         made.timeIsUp = timeOf( sm->stageUncompleted().get() );
      std::size_t const prefix = made.name.length() + 1;
      for( auto i = sm->pendingEventIteratorConst(); i; ++i ) {
         String8 const uid = i.key();
         Ptr< EventConfig const > const event = i.ptr()->pendingEvent();
         // One without its event is named by its key.
         made.event.push_back(
            { uid,
              event ? event->agent() : uid.view().substr( std::min( prefix, uid.length() ) ),
              {} } );
      }
      sortByUid( made.event );
   }

   void describeWaiting( UnfinishedStage & made, Status const & status,
                         StageStatus const & stage ) const {
      for( auto i = stage.dependencyIteratorConst(); i; ++i ) {
         auto const place = place_.find( Name( i.key() ) );
         if( place != place_.end() )
            made.dependency.push_back( { place->first, place->second, {} } );
         else if( !status.stage( i.key() ) )
            made.dependency.push_back( { i.key(), {}, {} } );
      }
      std::sort( made.dependency.begin(), made.dependency.end(),
                 []( auto const & a, auto const & b ) { return a.stage < b.stage; } );
      if( !made.dependency.empty() )
         for( auto i = stage.eventIteratorConst(); i; ++i )
            addDeclarations( made, *i.ptr() );
      for( auto & dependency : made.dependency )
         sortByUid( dependency.by );
   }

   void addDeclarations( UnfinishedStage & made, EventConfig const & event ) const {
      for( auto i = event.dependencyIteratorConst(); i; ++i ) {
         String8 const name = i.key();
         auto const found = std::lower_bound(
            made.dependency.begin(), made.dependency.end(), name.view(),
            []( auto const & one, std::string_view key ) { return one.stage.view() < key; } );
         if( i.value() && found != made.dependency.end() && found->stage == name )
            found->by.push_back( { event.uid(), event.agent() } );
      }
   }

   StatusSm const & sm_;
   std::vector< Ptr< StageStatus > > unfinished_;
   std::unordered_map< Name, Index > place_;
};

// =============================================================================================
// Who waits for whom
// =============================================================================================

// The nodes are the unfinished stages, then those that are no stage of these.
struct Waits {
   explicit Waits( Explanation const & explanation );

   WaitGraph::Node heldBack, disabled, decision;
   std::vector< Name > undeclared; // by name
   WaitGraph graph;

   // Of a name in `undeclared`.
   WaitGraph::Node place( Name const & name ) const {
      auto const found = std::lower_bound( undeclared.begin(), undeclared.end(), name );
      return static_cast< WaitGraph::Node >( found - undeclared.begin() );
   }
   WaitGraph::Node node( Name const & name ) const { return decision + 1 + place( name ); }

 private:
   void addEdges( Explanation const & explanation, UnfinishedStage const & stage );
};

Waits::Waits( Explanation const & explanation )
   : heldBack( static_cast< WaitGraph::Node >( explanation.stage.size() ) ),
     disabled( heldBack + 1 ), decision( heldBack + 2 ) {
   for( UnfinishedStage const & stage : explanation.stage )
      for( auto const & dependency : stage.dependency )
         if( !dependency.unfinished )
            undeclared.push_back( dependency.stage );
   std::sort( undeclared.begin(), undeclared.end() );
   undeclared.erase( std::unique( undeclared.begin(), undeclared.end() ), undeclared.end() );
   for( UnfinishedStage const & stage : explanation.stage ) {
      graph.nodeIs();
      if( stage.state == State::waiting )
         addEdges( explanation, stage );
   }
   // One node between those that are held back and those that hold back: an edge for each pair
   // would be too many.
   graph.nodeIs();
   for( Index const critical : explanation.critical )
      graph.edgeIs( critical );
   for( std::size_t leaves = 2 + undeclared.size(); leaves != 0; --leaves )
      graph.nodeIs();
}

void Waits::addEdges( Explanation const & explanation, UnfinishedStage const & stage ) {
   for( auto const & dependency : stage.dependency )
      graph.edgeIs( dependency.unfinished ? *dependency.unfinished : node( dependency.stage ) );
   if( stage.heldBack )
      graph.edgeIs( heldBack );
   if( !explanation.enabled )
      graph.edgeIs( disabled );
   else if( stage.dependency.empty() && !stage.heldBack )
      graph.edgeIs( decision );
}

// Where the root is in the graph.
WaitGraph::Node nodeOf( Waits const & waits, Root const & root ) {
   switch( root.kind ) {
   case Root::Kind::undeclared:
      return waits.node( root.stage );
   case Root::Kind::disabled:
      return waits.disabled;
   case Root::Kind::decision:
      return waits.decision;
   case Root::Kind::events:
   case Root::Kind::cycle:
   case Root::Kind::untracked:
      break;
   }
   return root.of.front();
}

// =============================================================================================
// The roots
// =============================================================================================

class Roots {
 public:
   explicit Roots( Explanation & explanation )
      : explanation_( explanation ), waits_( explanation ),
        components_( detail::componentsOf( waits_.graph ) ) {
      findActive();
      findUndeclared();
      findCycles();
      findOthers();
      count();
      sort();
   }

 private:
   UnfinishedStage const & stage( Index i ) const { return explanation_.stage[ i ]; }

   Root & rootIs( Root::Kind kind, std::vector< Index > of ) {
      Root & root = explanation_.root.emplace_back();
      root.kind = kind;
      root.of = std::move( of );
      if( !root.of.empty() )
         root.stage = stage( root.of.front() ).name;
      return root;
   }

   void findActive() {
      for( Index i = 0; i != explanation_.stage.size(); ++i ) {
         UnfinishedStage const & active = stage( i );
         if( active.state == State::waiting )
            continue;
         bool const untracked = active.state == State::untracked;
         Root & root = rootIs( untracked ? Root::Kind::untracked : Root::Kind::events, { i } );
         if( !active.critical )
            root.goesOnAt = active.timeIsUp;
      }
   }

   void findUndeclared() {
      std::size_t const first = explanation_.root.size();
      for( Name const & name : waits_.undeclared )
         rootIs( Root::Kind::undeclared, {} ).stage = name;
      for( UnfinishedStage const & waiting : explanation_.stage )
         for( auto const & dependency : waiting.dependency )
            if( !dependency.unfinished ) {
               auto & by = explanation_.root[ first + waits_.place( dependency.stage ) ].by;
               by.insert( by.end(), dependency.by.begin(), dependency.by.end() );
            }
   }

   void findCycles() {
      std::vector< WaitGraph::Node > work( waits_.graph.nodes() );
      auto const & order = components_.order;
      for( auto begin = order.begin(), end = begin; begin != order.end(); begin = end ) {
         std::uint32_t const component = components_.of[ *begin ];
         end = std::find_if( begin, order.end(), [ & ]( WaitGraph::Node node ) {
            return components_.of[ node ] != component;
         } );
         if( end == begin + 1 && !waitsForItself( *begin ) )
            continue;
         std::vector< Index > of( begin, end );
         std::sort( of.begin(), of.end() );
         if( of.back() == waits_.heldBack ) // no stage
            of.pop_back();
         Root & root = rootIs( Root::Kind::cycle, std::move( of ) );
         root.path =
            pathOf( detail::shortestCycle( waits_.graph, components_, root.of.front(), work ) );
      }
   }

   bool waitsForItself( WaitGraph::Node node ) const {
      auto const to = waits_.graph.waitsFor( node );
      return std::find( to.begin(), to.end(), node ) != to.end();
   }

   std::vector< Explanation::Link > pathOf( std::vector< WaitGraph::Node > const & cycle ) const {
      std::vector< Explanation::Link > path;
      for( std::size_t i = 0; i != cycle.size(); ++i ) {
         if( cycle[ i ] == waits_.heldBack )
            continue;
         WaitGraph::Node const next = cycle[ ( i + 1 ) % cycle.size() ];
         Explanation::Link & link = path.emplace_back();
         link.stage = cycle[ i ];
         link.heldBack = next == waits_.heldBack;
         if( !link.heldBack )
            link.by = declarationsOf( stage( cycle[ i ] ), stage( next ).name );
      }
      return path;
   }

   static std::vector< Event > declarationsOf( UnfinishedStage const & from, Name const & to ) {
      auto const found =
         std::lower_bound( from.dependency.begin(), from.dependency.end(), to,
                           []( auto const & one, Name const & name ) { return one.stage < name; } );
      return found->by;
   }

   void findOthers() {
      if( !explanation_.enabled )
         rootIs( Root::Kind::disabled, {} );
      std::vector< Index > ready;
      for( Index i = 0; i != explanation_.stage.size(); ++i ) {
         auto const to = waits_.graph.waitsFor( i );
         if( to.size() == 1 && to.front() == waits_.decision )
            ready.push_back( i );
      }
      if( !ready.empty() )
         rootIs( Root::Kind::decision, std::move( ready ) ).goesOnAt = explanation_.nextDecision;
   }

   void count() {
      std::vector< WaitGraph::Node > nodes;
      for( Root const & root : explanation_.root )
         nodes.push_back( nodeOf( waits_, root ) );
      auto const counts = detail::countWaiters( waits_.graph, components_, nodes,
                                                static_cast< Index >( explanation_.stage.size() ) );
      for( std::size_t i = 0; i != counts.size(); ++i ) {
         Root & root = explanation_.root[ i ];
         root.waiting = counts[ i ] - static_cast< std::uint32_t >( root.of.size() );
      }
   }

   void sort() {
      auto & roots = explanation_.root;
      std::sort( roots.begin(), roots.end(), []( Root const & a, Root const & b ) {
         if( a.waiting != b.waiting )
            return a.waiting > b.waiting;
         return a.stage != b.stage ? a.stage < b.stage : a.kind < b.kind;
      } );
      for( Index i = 0; i != roots.size(); ++i )
         if( roots[ i ].kind == Root::Kind::cycle )
            for( Index const member : roots[ i ].of )
               explanation_.stage[ member ].cycle = i;
   }

   Explanation & explanation_;
   Waits const waits_;
   detail::Components const components_;
};

// =============================================================================================
// A part
// =============================================================================================

constexpr Index gone = std::numeric_limits< Index >::max();

// Leaves of `places` what `to` keeps, under its new number.
void renumber( std::vector< Index > & places, std::vector< Index > const & to ) {
   for( Index & place : places )
      place = to[ place ];
   places.erase( std::remove( places.begin(), places.end(), gone ), places.end() );
}

template< class Item >
std::vector< Index > keep( std::vector< Item > & items, std::vector< bool > const & kept ) {
   std::vector< Index > to( items.size(), gone );
   Index count = 0;
   for( Index i = 0; i != items.size(); ++i )
      if( kept[ i ] ) {
         to[ i ] = count;
         if( i != count )
            items[ count ] = std::move( items[ i ] );
         ++count;
      }
   items.erase( items.begin() + static_cast< std::ptrdiff_t >( count ), items.end() );
   return to;
}

// What `start` waits for is kept.
void narrow( Explanation & explanation, Index start ) {
   Waits const waits( explanation );
   std::vector< bool > const kept = detail::waitedForBy( waits.graph, start );
   std::vector< bool > keptRoots;
   for( Root const & root : explanation.root )
      keptRoots.push_back( kept[ nodeOf( waits, root ) ] );
   std::vector< Index > const roots = keep( explanation.root, keptRoots );
   std::vector< Index > const stages = keep( explanation.stage, kept );
   renumber( explanation.critical, stages );
   for( Root & root : explanation.root ) {
      // Whoever is not named any more is one of the others that wait for it.
      root.waiting += static_cast< std::uint32_t >( root.of.size() );
      renumber( root.of, stages );
      root.waiting -= static_cast< std::uint32_t >( root.of.size() );
      if( !root.of.empty() )
         root.stage = explanation.stage[ root.of.front() ].name;
      for( auto & link : root.path )
         link.stage = stages[ link.stage ];
   }
   for( UnfinishedStage & stage : explanation.stage ) {
      if( stage.cycle )
         stage.cycle = roots[ *stage.cycle ];
      for( auto & dependency : stage.dependency )
         if( dependency.unfinished )
            dependency.unfinished = stages[ *dependency.unfinished ];
   }
}

} // namespace

Explanation explain( StatusSm const & sm ) {
   Explanation found = std::move( Reader( sm ).found_ );
   Roots const roots( found );
   return found;
}

Explanation explain( StatusSm const & sm, Name const & name ) {
   Explanation found = explain( sm );
   auto const place = std::lower_bound(
      found.stage.begin(), found.stage.end(), name,
      []( UnfinishedStage const & stage, Name const & key ) { return stage.name < key; } );
   if( place != found.stage.end() && place->name == name ) {
      narrow( found, static_cast< Index >( place - found.stage.begin() ) );
      return found;
   }
   bool const undeclared = sm.status() && !sm.status()->stage( name );
   auto const isIt = [ & ]( Root const & root ) {
      return root.kind == Root::Kind::undeclared && root.stage == name;
   };
   auto const root = std::find_if( found.root.begin(), found.root.end(), isIt );
   Root kept = root == found.root.end() ? Root() : *root;
   kept.kind = Root::Kind::undeclared;
   kept.stage = name;
   found.stage.clear();
   found.critical.clear();
   found.root.clear();
   if( undeclared )
      found.root.push_back( std::move( kept ) );
   return found;
}

std::vector< Index > waitingFor( Explanation const & explanation, Root const & root ) {
   assert( std::any_of( explanation.root.begin(), explanation.root.end(), [ & ]( Root const & r ) {
      return r.kind == root.kind && r.stage == root.stage && r.of == root.of;
   } ) );
   Waits const waits( explanation );
   detail::Components const components = detail::componentsOf( waits.graph );
   WaitGraph::Node const node = nodeOf( waits, root );
   if( node >= waits.graph.nodes() )
      return {}; // the part of a stage that is not declared: no stage of it is there
   auto const word = detail::waitersOf( waits.graph, components, { &node, 1 } );
   std::vector< Index > waiting;
   for( Index i = 0; i != explanation.stage.size(); ++i )
      if( word[ components.of[ i ] ] != 0 &&
          !std::binary_search( root.of.begin(), root.of.end(), i ) )
         waiting.push_back( i );
   return waiting;
}

} // namespace Stage
