// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Varlink: calls and answers as JSON objects, each ended by one zero byte, over a Unix stream
// socket. This is the side that is called; VarlinkClient.h has the other one. Neither knows what
// the calls are about.
//
//    call    {"method": "a.b.Method", "parameters": {...}, "oneway": bool, "more": bool}
//    answer  {"parameters": {...}, "continues": bool}
//            {"error": "a.b.Error", "parameters": {...}}
//
// All of it runs on the activity's loop and blocks nowhere. Whoever sends what is no call, or more
// than a limit allows, is cut off; nobody else notices.
#pragma once

#include <live/Export.h>

#include <Kiv/Ptr.h>

#include <nlohmann/json.hpp>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <sys/types.h>

namespace Live {

using Json = nlohmann::json;

namespace Varlink {

struct Limits {
   // Bytes of one message, its zero byte not counted, as the side that is called sees it.
   std::size_t received = std::size_t{ 1 } << 20;
   std::size_t sent = std::size_t{ 16 } << 20;
   // Objects and arrays inside each other, the message itself being the first.
   unsigned nesting = 32;
   // At a time: of everybody, and of each user who is neither root nor the server's own.
   std::size_t connections = 4096;
   std::size_t connectionsOfUser = 1024;
   // Bytes that a peer has not read yet. One message more may be added to so many.
   std::size_t unread = std::size_t{ 4 } << 20;
};

// The other end, by the word of the kernel: as it was when it connected.
struct Peer {
   pid_t pid;
   uid_t uid;
   gid_t gid;
};

namespace errors {
inline constexpr char const * interfaceNotFound = "org.varlink.service.InterfaceNotFound";
inline constexpr char const * methodNotFound = "org.varlink.service.MethodNotFound";
inline constexpr char const * methodNotImplemented = "org.varlink.service.MethodNotImplemented";
inline constexpr char const * invalidParameter = "org.varlink.service.InvalidParameter";
inline constexpr char const * permissionDenied = "org.varlink.service.PermissionDenied";
inline constexpr char const * expectedMore = "org.varlink.service.ExpectedMore";
} // namespace errors

class Call;

// One peer. Belongs to its server as long as it is open; may be kept longer, and is of no use then.
class LIVE_EXPORT Connection : public Kiv::PtrInterface {
 public:
   ~Connection() override;
   virtual Peer const & peer() const = 0;
   virtual bool open() const = 0;
   // Ends it, without waiting for the peer to read what it was sent.
   virtual void close() = 0;

 protected:
   Connection();
};

// One call, to be answered now or later. Who answers later keeps it; when the last reference goes
// and no answer was given, its connection is closed. Calls of one connection are handled one after
// the other: the next one comes when this one has got its last answer, or at once for `oneway`.
//
// Answers to a peer that is not there any more, or to a `oneway` call, go nowhere.
class LIVE_EXPORT Call : public Kiv::PtrInterface {
 public:
   ~Call() override;
   // As a.b.Method.
   virtual std::string const & method() const = 0;
   // An object, empty when the call has none.
   virtual Json const & parameters() const = 0;
   // The caller takes several answers.
   virtual bool more() const = 0;
   virtual bool oneway() const = 0;
   virtual Kiv::Ptr< Connection > connection() const = 0;

   // The last answer, which fits always: `parameters` are an object, or null for an empty one.
   // Throws std::length_error for a message beyond Limits::sent; then none was sent.
   virtual void reply( Json const & parameters = nullptr ) = 0;
   virtual void fail( std::string_view error, Json const & parameters = nullptr ) = 0;
   // An answer that is not the last. False, and nothing was sent, when there is no room, or the
   // caller did not ask for more, or the call is over. Throws as reply() does.
   virtual bool replyMore( Json const & parameters ) = 0;
   // Whether replyMore() would send: the peer has read enough of what it was sent before.
   virtual bool room() const = 0;
   // Calls `room` each time when there is room again after there was none.
   virtual void onRoomIs( std::function< void() > room ) = 0;
   // Calls `gone` once when the peer ends the call by going away.
   virtual void onGoneIs( std::function< void() > gone ) = 0;
   // It has got its last answer, or never will.
   virtual bool over() const = 0;

 protected:
   Call();
};

struct Method {
   std::string name; // without the interface
   // Null: the interface knows it, this server does not: MethodNotImplemented.
   std::function< void( Kiv::Ptr< Call > const & ) > handle;
   // Answers with ExpectedMore to who does not take several answers.
   bool needsMore = false;
};

struct Interface {
   std::string name;
   std::string description; // in Varlink's own language
   std::vector< Method > method;
};

// What GetInfo answers.
struct About {
   std::string vendor;
   std::string product;
   std::string version;
   std::string url;
};

// Accepts connections and hands their calls to the interfaces. org.varlink.service is there without
// being added. Belongs to whoever made it; may be destroyed inside a method: then all connections
// are closed and no function is called any more.
//
// What leaves a method as an exception closes the connection, and is reported by the loop.
//
// When the process has no descriptor left, connections wait; one is accepted when one of ours was
// closed, and otherwise it is tried ten times a second.
class LIVE_EXPORT Server {
 public:
   // Takes over a socket that listens. Throws std::system_error.
   Server( int listening, About about, Limits const & limits = {} );
   ~Server();
   Server( Server const & ) = delete;
   Server & operator=( Server const & ) = delete;

   Limits const & limits() const;
   // Replaces one of the same name.
   void interfaceIs( Interface interface );
   // Called once for each connection that has ended, in whatever way; not by the destructor.
   void onClosedIs( std::function< void( Kiv::Ptr< Connection > const & ) > closed );
   std::size_t connections() const;

   // Where the user of a new connection is taken from, given its descriptor. For tests; the kernel
   // is asked if this is not called.
   void peerIs( std::function< Peer( int ) > peer );

   class Impl;

 private:
   std::unique_ptr< Impl > const impl_;
};

// A socket that listens at `path`, with the rights `mode` from its first moment on. Close-on-exec
// and non-blocking; the caller's. Throws std::system_error, also for a path that is there already
// and one longer than the 107 bytes that a socket's address has room for.
LIVE_EXPORT int listeningSocket( std::string const & path, mode_t mode = 0660 );

} // namespace Varlink
} // namespace Live
