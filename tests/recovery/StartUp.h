// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// A start-up in which everything happens that can: thirty stages in layers, critical ones and
// others, agents that join late, withdraw, change and leave, stages whose time is up, a suspension,
// and the end of it all. What the outside does is tried again when memory runs out, as an agent
// would.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

namespace testing_support {

// What there is to see at one moment, and what was said until then.
struct Picture {
   bool midway = false;               // what is seen depends on how long callbacks had to rest
   std::vector< std::string > states; // without times
   std::vector< std::string > times;  // completion times, by stage
   std::map< std::string, int > log;  // texts, and how often
   std::map< std::string, int > messages;
};

// Plays it from beginning to end on a manual clock; gives a picture for each of the moments at
// which the test looks.
std::vector< Picture > playStartUp();

} // namespace testing_support
