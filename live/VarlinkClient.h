// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The calling side of Varlink: on the activity's loop, for links, and without one, for commands.
#pragma once

#include <live/Export.h>
#include <live/Varlink.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

namespace Live::Varlink {

struct Reply {
   std::string error; // empty: none
   Json parameters = Json::object();
   bool continues = false;
};

// How often a call is answered.
enum class Answers { none, one, more };

// A connected socket, close-on-exec and non-blocking; the caller's. Throws std::system_error:
// ENOENT or ECONNREFUSED where nobody listens, EAGAIN when too many wait to be accepted.
LIVE_EXPORT int connectedSocket( std::string const & path );

// Calls, and is told of the answers by the loop. What does not answer as Varlink has it, or answers
// what was not asked, is closed. Limits count from the other side: it receives at most
// Limits::received and sends at most Limits::sent.
//
// Belongs to whoever made it; functions that it was given are called by the loop alone, never
// inside one of its own operations, and may destroy it.
class LIVE_EXPORT Client {
 public:
   using Answer = std::function< void( Reply const & ) >;

   // Takes over a connected socket. Throws std::system_error.
   explicit Client( int connected, Limits const & limits = {} );
   ~Client();
   Client( Client const & ) = delete;
   Client & operator=( Client const & ) = delete;

   // Calls `method`; `answer`, which may be null, is called with each answer, in order of calls.
   // Parameters are an object, or null for none. False when it is closed or there is no room.
   // Throws std::length_error for a message beyond the limit, and sends nothing then.
   bool call( std::string const & method, Json const & parameters, Answer answer,
              Answers answers = Answers::one );
   // The other side has read enough of what it was sent before.
   bool room() const;
   // Calls `room` each time when there is room again after there was none.
   void onRoomIs( std::function< void() > room );
   bool open() const;
   void close();
   // Calls `closed` once when the other side has ended the connection, or was closed for breaking a
   // rule; not for close(). Calls without an answer get none any more.
   void onClosedIs( std::function< void() > closed );
   // The process at the other end, as it was when it began to listen.
   Peer peer() const;

   class Impl;

 private:
   Kiv::Ptr< Impl > const impl_;
};

// Calls and waits, in programs without a loop. Throws std::system_error when the connection fails
// (ECONNRESET: ended, EPROTO: no Varlink, ETIMEDOUT: no answer in time).
class LIVE_EXPORT Caller {
 public:
   // Takes over a connected socket. Each wait ends after `timeout` seconds; +infinity: never.
   Caller( int connected, double timeout, Limits const & limits = {} );
   ~Caller();
   Caller( Caller const & ) = delete;
   Caller & operator=( Caller const & ) = delete;

   // One call, one answer.
   Reply call( std::string const & method, Json const & parameters = nullptr );
   // Calls without waiting; next() waits for each answer, in order.
   void send( std::string const & method, Json const & parameters, Answers answers );
   Reply next();
   // Readable when next() may find something; the caller's own poll() may watch it.
   int descriptor() const;

 private:
   class Impl;
   std::unique_ptr< Impl > const impl_;
};

} // namespace Live::Varlink
