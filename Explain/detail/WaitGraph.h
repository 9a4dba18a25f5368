// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Who waits for whom, as numbers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace Stage::detail {

// Nodes are numbered from 0 on, and are told one after the other, each with its edges:
//
//    graph.nodeIs();  graph.edgeIs( 1 );  graph.edgeIs( 2 );     node 0 waits for nodes 1 and 2
//    graph.nodeIs();  graph.edgeIs( 2 );                         node 1 waits for node 2
//    graph.nodeIs();                                             node 2 waits for nothing
class WaitGraph {
 public:
   using Node = std::uint32_t;

   void nodeIs() { begin_.push_back( to_.size() ); }
   // The node told last waits for `node`.
   void edgeIs( Node node ) { to_.push_back( node ); }

   Node nodes() const { return static_cast< Node >( begin_.size() ); }
   std::span< Node const > waitsFor( Node node ) const {
      std::size_t const end = node + 1 == begin_.size() ? to_.size() : begin_[ node + 1 ];
      return std::span( to_ ).subspan( begin_[ node ], end - begin_[ node ] );
   }

 private:
   std::vector< std::size_t > begin_; // of each node's edges in to_
   std::vector< Node > to_;
};

// The strongly connected components of a graph: nodes that wait for each other are one.
struct Components {
   // By node. A component waits for itself and those of smaller numbers only.
   std::vector< std::uint32_t > of;
   // All nodes, by component: whoever walks along it has met what a node waits for before the node,
   // or meets it in the same component.
   std::vector< WaitGraph::Node > order;
   std::uint32_t count = 0;
};

// Cost: linear in nodes and edges. Keeps its own stack.
Components componentsOf( WaitGraph const & graph );

// The nodes of a shortest way from `start` back to itself, `start` once; empty if there is none.
// Cost: linear in the nodes and edges of its component, for all components together if `work`,
// which it leaves as it was, is one vector: of zeros, one for each node.
std::vector< WaitGraph::Node > shortestCycle( WaitGraph const & graph,
                                              Components const & components, WaitGraph::Node start,
                                              std::vector< WaitGraph::Node > & work );

// By component, a bit for each root: whether the component has the root or waits for it, directly
// or through others. REQUIRES: at most 64 roots. Cost: linear in nodes and edges.
std::vector< std::uint64_t > waitersOf( WaitGraph const & graph, Components const & components,
                                        std::span< WaitGraph::Node const > roots );

// By root, how many of the nodes below `limit` are it, are in its component, or wait for it.
// Cost: linear in nodes and edges, for every 64 roots once more.
std::vector< std::uint32_t > countWaiters( WaitGraph const & graph, Components const & components,
                                           std::span< WaitGraph::Node const > roots,
                                           WaitGraph::Node limit );

// By node, whether `start` is it or waits for it. Cost: linear in nodes and edges.
std::vector< bool > waitedForBy( WaitGraph const & graph, WaitGraph::Node start );

} // namespace Stage::detail
