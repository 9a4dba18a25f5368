// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <deque>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <simulation/Plan.h>

namespace Tools {

using Simulation::Mistake;
using Simulation::Place;

// One node of a YAML document as it stands in its file: nothing is resolved, merged or dropped.
struct YamlNode {
   // Where the node is used, which for an alias is not where it stands.
   struct Use {
      YamlNode const * node = nullptr;
      Place place;
   };
   enum class Kind { scalar, sequence, map };

   Kind kind = Kind::scalar;
   std::string tag;  // of a scalar: "?" if it is plain, "!" if it is quoted, else what is written
   std::string text; // of a scalar
   Place place;
   std::vector< Use > item;                     // of a sequence
   std::vector< std::pair< Use, Use > > member; // of a map, keys and values, in their order
};

// A YAML file as a tree, with everything that is wrong in it whatever it is used for: a syntax
// error, which is then the only mistake and leaves no root; else keys that stand twice, merge
// keys, keys that are no scalars, tags that are unknown or do not fit, and a second document. Nodes
// live as long as the tree. An alias uses the very node that it refers to, so a tree may be walked
// to many times its size, or without end: walkers must bound their work.
class YamlTree {
 public:
   // Reads UTF-8 text. Throws nothing but std::bad_alloc.
   explicit YamlTree( std::string_view text );
   YamlTree( YamlTree const & ) = delete;
   YamlTree & operator=( YamlTree const & ) = delete;

   // Null for a file with a syntax error or without any document.
   YamlNode const * root() const { return root_; }
   std::size_t size() const { return node_.size(); }
   // In the order in which they were found.
   std::vector< Mistake > const & mistakes() const { return mistakes_; }

 private:
   class Builder;

   std::deque< YamlNode > node_;
   YamlNode const * root_ = nullptr;
   std::vector< Mistake > mistakes_;
};

} // namespace Tools
