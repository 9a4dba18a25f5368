// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// What the agents of a measured start-up declare: the input that the library and its control share.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Bench {

//    chain     0 <- 1 <- 2 <- ...         each stage depends on the one before it
//    layered   layers of equal width, each stage depends on two stages of the layer before it
//    fan-in    the last stage depends on every other, and those on nothing
enum class Shape { chain, layered, fanIn };

// One event of one agent; each stage has one. Timeouts are in seconds.
struct Declaration {
   std::string stage;
   std::string agent;
   std::vector< std::uint32_t > dependency; // places of the declarations of those stages
   double timeout;
   bool critical;
};

struct Declarations {
   std::vector< std::string > agent;
   std::vector< Declaration > event; // the event of the how many-th stage
};

// Throws std::invalid_argument, which names the shapes, for a name that is none of them.
Shape shapeOf( std::string_view name );

// The events of `stages` stages, dealt out to ten agents in turn. The last stage is critical, so
// every stage that it needs becomes so too. REQUIRES: stages > 0.
Declarations declarations( Shape shape, std::uint32_t stages );

// Whether `order` names every stage once, each after all that it depends on.
bool isOrderOf( std::vector< std::uint32_t > const & order, Declarations const & declared );

} // namespace Bench
