// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The manager's end of the protocol: agents in processes of their own declare and report here, and
// whoever watches is told.
#pragma once

#include <live/Export.h>
#include <live/Varlink.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <sys/types.h>

namespace Live {

// Users that may speak for agents, besides root and the hub's own.
struct Allowed {
   std::string agent; // a name, or a pattern as the shell has them: * ? [...]
   uid_t user = 0;
};

struct HubOptions {
   std::string application = "application";
   // Start-up begins when a stage is declared and all these agents have joined, or by Enable.
   std::vector< std::string > expect;
   std::vector< Allowed > allow;
   // Every user may speak for agents that nobody has spoken for before; they are his from then on.
   bool open = false;
   // More than these are refused with TooMuch.
   std::size_t eventsOfAgent = 1000;
   std::size_t agents = 10000;
   std::size_t stages = 100000;
   Varlink::Limits limits;
   Varlink::About about;
   // The name of this start-up, that no other one has; made at random if empty.
   std::string startup;
   // Seconds since the hub was made, never less than before. Null: by CLOCK_MONOTONIC.
   std::function< double() > time;
   // As Varlink::Server::peerIs(). Null: the kernel is asked.
   std::function< Varlink::Peer( int ) > peer;
};

// One start-up, for agents elsewhere. It owns the entities and the state machines, whose clock it
// moves: what one turn of the loop has brought is one instant, and a second call about one agent
// begins the next. Nothing is kept over its end.
//
// While it lives the activity manager runs on its clock. At most one may live at a time. Belongs to
// whoever made it, who runs the activity's loop and calls turn() after each of its turns, outside
// of callbacks; or calls run(), which does that.
class LIVE_EXPORT Hub {
 public:
   // Takes over a socket that listens. Throws std::system_error.
   explicit Hub( int listening, HubOptions options = {} );
   ~Hub();
   Hub( Hub const & ) = delete;
   Hub & operator=( Hub const & ) = delete;

   // Takes in what was said since the last one, lets happen what is due, and answers.
   void turn();
   // On the scale of `time`: when turn() has something to do though nobody says anything;
   // +infinity: never.
   double nextTime() const;

   // Turns until stop() is called, inside the loop. Throws std::system_error when the system
   // refuses to wait.
   void run();
   void stop();

   class Impl;

 private:
   std::unique_ptr< Impl > const impl_;
};

} // namespace Live
