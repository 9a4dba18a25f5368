// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Explain/detail/WaitGraph.h>

#include <algorithm>
#include <array>
#include <limits>

namespace Stage::detail {

using Node = WaitGraph::Node;

namespace {

constexpr std::uint32_t none = std::numeric_limits< std::uint32_t >::max();

// Tarjan's walk, depth first: a node is open from when it is entered until its component is known,
// and its component is known when none of its nodes reaches an open node entered earlier.
class ComponentWalk {
 public:
   explicit ComponentWalk( WaitGraph const & graph ) : graph_( graph ) {
      entered_.assign( graph.nodes(), none );
      low_.assign( graph.nodes(), none );
      found_.of.assign( graph.nodes(), none );
      found_.order.reserve( graph.nodes() );
      for( Node node = 0; node != graph.nodes(); ++node )
         if( entered_[ node ] == none )
            walk( node );
   }

   Components found_;

 private:
   struct Frame {
      Node node;
      std::size_t next; // of its edges
   };

   void enter( Node node ) {
      entered_[ node ] = low_[ node ] = count_++;
      open_.push_back( node );
      frames_.push_back( { node, 0 } );
   }

   void walk( Node start ) {
      enter( start );
      while( !frames_.empty() ) {
         Frame & frame = frames_.back();
         auto const edges = graph_.waitsFor( frame.node );
         if( frame.next == edges.size() ) {
            leave();
            continue;
         }
         Node const from = frame.node, to = edges[ frame.next++ ];
         if( entered_[ to ] == none )
            enter( to ); // frame is gone
         else if( found_.of[ to ] == none )
            low_[ from ] = std::min( low_[ from ], entered_[ to ] );
      }
   }

   void leave() {
      Node const node = frames_.back().node;
      frames_.pop_back();
      if( !frames_.empty() ) {
         std::uint32_t & above = low_[ frames_.back().node ];
         above = std::min( above, low_[ node ] );
      }
      if( low_[ node ] != entered_[ node ] )
         return;
      Node member;
      do {
         member = open_.back();
         open_.pop_back();
         found_.of[ member ] = found_.count;
         found_.order.push_back( member );
      } while( member != node );
      ++found_.count;
   }

   WaitGraph const & graph_;
   std::vector< std::uint32_t > entered_; // as the how many-th
   std::vector< std::uint32_t > low_;     // the smallest of these that the node is known to reach
   std::vector< Node > open_;
   std::vector< Frame > frames_;
   std::uint32_t count_ = 0;
};

// Counts 64 things at once: bit b of plane k is bit k of the count of thing b. So adding one to any
// number of them takes as many steps as there are carries, two on average, and not one for each.
class Counts {
 public:
   void add( std::uint64_t things ) {
      for( std::size_t k = 0; things != 0; ++k ) {
         std::uint64_t const carry = plane_[ k ] & things;
         plane_[ k ] ^= things;
         things = carry;
      }
   }
   std::uint32_t of( std::size_t thing ) const {
      std::uint32_t count = 0;
      for( std::size_t k = 0; k != plane_.size(); ++k )
         count |= static_cast< std::uint32_t >( ( plane_[ k ] >> thing ) & 1U ) << k;
      return count;
   }

 private:
   std::array< std::uint64_t, 32 > plane_{}; // there are less than 2^32 nodes
};

} // namespace

Components componentsOf( WaitGraph const & graph ) { return ComponentWalk( graph ).found_; }

std::vector< Node > shortestCycle( WaitGraph const & graph, Components const & components,
                                   Node start, std::vector< Node > & work ) {
   // Breadth first. The node from which one was met first, plus one; 0 for one not met.
   std::vector< Node > & from = work;
   std::vector< Node > met{ start };
   std::vector< Node > cycle;
   for( std::size_t i = 0; i != met.size() && cycle.empty(); ++i )
      for( Node const to : graph.waitsFor( met[ i ] ) ) {
         if( to == start ) {
            for( Node node = met[ i ]; node != start; node = from[ node ] - 1 )
               cycle.push_back( node );
            cycle.push_back( start );
            break;
         }
         if( from[ to ] == 0 && components.of[ to ] == components.of[ start ] ) {
            from[ to ] = met[ i ] + 1;
            met.push_back( to );
         }
      }
   for( Node const node : met )
      from[ node ] = 0;
   std::reverse( cycle.begin(), cycle.end() );
   return cycle;
}

std::vector< std::uint64_t > waitersOf( WaitGraph const & graph, Components const & components,
                                        std::span< Node const > roots ) {
   std::vector< std::uint64_t > word( components.count );
   for( std::size_t i = 0; i != roots.size(); ++i )
      word[ components.of[ roots[ i ] ] ] |= std::uint64_t{ 1 } << i;
   for( Node const node : components.order )
      for( Node const to : graph.waitsFor( node ) )
         word[ components.of[ node ] ] |= word[ components.of[ to ] ];
   return word;
}

std::vector< std::uint32_t > countWaiters( WaitGraph const & graph, Components const & components,
                                           std::span< Node const > roots, Node limit ) {
   constexpr std::size_t atOnce = 64;
   std::vector< std::uint32_t > counts;
   for( std::size_t done = 0; done < roots.size(); done += atOnce ) {
      auto const some = roots.subspan( done, std::min( atOnce, roots.size() - done ) );
      auto const word = waitersOf( graph, components, some );
      Counts count;
      for( Node node = 0; node != limit; ++node )
         count.add( word[ components.of[ node ] ] );
      for( std::size_t i = 0; i != some.size(); ++i )
         counts.push_back( count.of( i ) );
   }
   return counts;
}

std::vector< bool > waitedForBy( WaitGraph const & graph, Node start ) {
   std::vector< bool > met( graph.nodes() );
   std::vector< Node > left{ start };
   met[ start ] = true;
   while( !left.empty() ) {
      Node const node = left.back();
      left.pop_back();
      for( Node const to : graph.waitsFor( node ) )
         if( !met[ to ] ) {
            met[ to ] = true;
            left.push_back( to );
         }
   }
   return met;
}

} // namespace Stage::detail
