// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// What the agents of a measured start-up declare: the input that the library and its control share.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Bench {

//    chain     0 <- 1 <- 2 <- ...         each stage depends on the one before it
//    layers    layers of equal width, each stage depends on four stages of the layer before it
//    pairs     the same with two
//    fan-in    the last stage depends on every other, and those on nothing
//    agents    one stage, and as many agents as the start-up is large, with an event each on it
enum class Shape { chain, layers, pairs, fanIn, agents };

//    at-once      an agent reports its event complete in the callback that tells it of its stage
//    one-by-one   it waits until nothing is left to do; then one event is reported, in the order in
//                 which the stages became active, then nothing is left to do again, and so on: as
//                 many decisions as reports
enum class Reports { atOnce, oneByOne };

// One event of one agent. Stages and agents are places in the lists below; timeouts are in seconds.
struct Declaration {
   std::uint32_t stage;
   std::uint32_t agent;
   std::vector< std::uint32_t > dependency;
   double timeout;
   bool critical;
};

struct Declarations {
   std::vector< std::string > agent;
   std::vector< std::string > stage;
   std::vector< Declaration > event; // those of a stage follow those of the stages before it
};

// Throw std::invalid_argument, which names what there is, for a name that is none of them.
Shape shapeOf( std::string_view name );
Reports reportsOf( std::string_view name );

// As many events as said, all but those of `agents` on a stage of their own, dealt out to ten
// agents in turn. The last stage is critical, so every stage that it needs becomes so too.
// REQUIRES: events > 0.
Declarations declarations( Shape shape, std::uint32_t events );

// Whether `order` names every stage once, each after all that it depends on.
bool isOrderOf( std::vector< std::uint32_t > const & order, Declarations const & declared );

} // namespace Bench
