// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// What agents in processes of their own and the hub say to each other: the interface
// io.ordovan.Stages as values. What each member means stands in its text, interfaceText().
//
// A value becomes parameters by encoded(), and comes back by decoded(), which checks all of it. For
// each method there is a value of what is asked and one of what is answered.
#pragma once

#include <live/Export.h>
#include <live/Varlink.h>

#include <cstddef>
#include <cstdint>
#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Live {

inline constexpr std::string_view interfaceName = "io.ordovan.Stages";

// The interface's description, io.ordovan.Stages.varlink to the letter.
LIVE_EXPORT std::string_view interfaceText();

namespace Protocol {

// Bytes that the name of an agent or a stage may have; it has one at least, and none that is zero.
inline constexpr std::size_t longestName = 255;
// Bytes that a note may have.
inline constexpr std::size_t longestNote = 1024;

enum class Lost { keep, withdraw };
enum class State { active, complete };

struct Event {
   std::string stage;
   std::optional< double > timeout; // seconds; none: for ever
   bool critical = false;
   std::vector< std::string > dependency;
   std::optional< bool > complete; // none: as it is
   bool operator==( Event const & ) const = default;
};

struct StageEvent {
   std::string agent;
   bool complete = false;
   bool connected = false;
   std::optional< std::string > note;
   bool operator==( StageEvent const & ) const = default;
};

struct Stage {
   std::string name;
   bool active = false;
   bool complete = false;
   bool timedOut = false;
   bool suspended = false;
   bool critical = false;
   std::optional< double > timeout; // seconds; none: for ever
   std::vector< std::string > dependency;
   std::vector< StageEvent > event;
   bool operator==( Stage const & ) const = default;
};

struct Agent {
   std::string name;
   bool connected = false;
   bool joined = false;
   Lost lost = Lost::keep;
   std::vector< Event > event;
   bool operator==( Agent const & ) const = default;
};

struct Entry {
   std::int64_t sequence = 0;
   double time = 0;
   std::string message;
   bool operator==( Entry const & ) const = default;
};

// ---- what is asked; an agent that is none is the one that has joined on the connection

struct Join {
   std::string agent;
   std::optional< std::vector< Event > > event;
   Lost lost = Lost::keep;
   bool take = false;
   bool operator==( Join const & ) const = default;
};

struct Declare {
   std::optional< std::string > agent;
   std::vector< Event > event;
   std::vector< std::string > withdraw;
   bool operator==( Declare const & ) const = default;
};

struct Report {
   std::optional< std::string > agent;
   std::string stage;
   std::optional< bool > complete; // none, and no note either: true
   std::optional< std::string > note;
   bool operator==( Report const & ) const = default;
};

struct Leave {
   std::optional< std::string > agent;
   bool operator==( Leave const & ) const = default;
};

struct Watch {
   bool all = false;
   std::optional< std::int64_t > after;
   std::optional< std::string > startup;
   bool operator==( Watch const & ) const = default;
};

struct Wait {
   std::optional< std::string > stage; // none: start-up
   State state = State::complete;
   std::optional< double > timeout; // seconds; none: for ever
   bool operator==( Wait const & ) const = default;
};

struct Status {
   bool operator==( Status const & ) const = default;
};

struct Explain {
   std::optional< std::string > stage; // none: start-up
   bool operator==( Explain const & ) const = default;
};

struct Log {
   std::optional< std::int64_t > after;
   bool follow = false;
   bool operator==( Log const & ) const = default;
};

struct Enable {
   bool enabled = false;
   bool operator==( Enable const & ) const = default;
};

// ---- what is answered; Declare, Report, Leave and Enable are answered with nothing

struct JoinReply {
   std::string startup;
   std::int64_t sequence = 0;
   bool operator==( JoinReply const & ) const = default;
};

struct WatchReply {
   std::string startup;
   std::int64_t sequence = 0;
   double time = 0;
   bool snapshot = false;
   bool partial = false;
   bool complete = false;
   std::vector< Stage > stage;
   bool operator==( WatchReply const & ) const = default;
};

struct WaitReply {
   double time = 0;
   bool timedOut = false;
   bool operator==( WaitReply const & ) const = default;
};

struct StatusReply {
   std::string application;
   std::string startup;
   bool enabled = false;
   bool complete = false;
   std::int64_t sequence = 0;
   double time = 0;
   std::vector< Stage > stage;
   std::vector< Agent > agent;
   bool operator==( StatusReply const & ) const = default;
};

struct ExplainReply {
   std::string text;
   std::vector< Json > cause; // objects
   bool operator==( ExplainReply const & ) const = default;
};

struct LogReply {
   std::vector< Entry > entry;
   bool operator==( LogReply const & ) const = default;
};

// ---- errors

// What a call is answered with that cannot be done.
struct LIVE_EXPORT Error {
   std::string name; // in full
   Json parameters = Json::object();

   static Error noSuchAgent();
   static Error noSuchStage();
   static Error notYours();
   static Error notJoined();
   static Error alreadyJoined();
   static Error connected( std::int64_t pid );
   static Error invalidEvent( std::string const & field, std::string const & reason );
   static Error tooMuch( std::string const & limit );
   static Error timedOut();
   static Error invalidParameter( std::string const & parameter );
   static Error permissionDenied();
   static Error expectedMore();

   // Whether it is one of this interface's: `is( "NotYours" )`.
   bool is( std::string_view ofInterface ) const;
   bool operator==( Error const & ) const = default;
};

// Thrown where a call cannot be done.
class LIVE_EXPORT Refused : public std::exception {
 public:
   explicit Refused( Error error );
   ~Refused() override;
   Refused( Refused const & );
   Refused & operator=( Refused const & ) = delete;
   char const * what() const noexcept override { return error_.name.c_str(); }
   Error const & error() const { return error_; }

 private:
   Error error_;
};

// ---- between values and parameters

// What the parameters of a call ask for. Throws Refused: InvalidParameter with the name of what is
// missing, unknown or cannot be; InvalidEvent with the place, as event[2].timeout, and the reason;
// TooMuch for a note. `value` is as it was then.
LIVE_EXPORT void decode( Json const & parameters, Join & value );
LIVE_EXPORT void decode( Json const & parameters, Declare & value );
LIVE_EXPORT void decode( Json const & parameters, Report & value );
LIVE_EXPORT void decode( Json const & parameters, Leave & value );
LIVE_EXPORT void decode( Json const & parameters, Watch & value );
LIVE_EXPORT void decode( Json const & parameters, Wait & value );
LIVE_EXPORT void decode( Json const & parameters, Status & value );
LIVE_EXPORT void decode( Json const & parameters, Explain & value );
LIVE_EXPORT void decode( Json const & parameters, Log & value );
LIVE_EXPORT void decode( Json const & parameters, Enable & value );

// The same for answers, whose members that are not known are for others to know.
LIVE_EXPORT void decode( Json const & parameters, JoinReply & value );
LIVE_EXPORT void decode( Json const & parameters, WatchReply & value );
LIVE_EXPORT void decode( Json const & parameters, WaitReply & value );
LIVE_EXPORT void decode( Json const & parameters, StatusReply & value );
LIVE_EXPORT void decode( Json const & parameters, ExplainReply & value );
LIVE_EXPORT void decode( Json const & parameters, LogReply & value );

template< class Value >
Value decoded( Json const & parameters ) {
   Value value;
   decode( parameters, value );
   return value;
}

// The other way. What is none is left out. The last three are parts of answers, for who puts these
// together piece by piece.
LIVE_EXPORT Json encoded( Join const & value );
LIVE_EXPORT Json encoded( Declare const & value );
LIVE_EXPORT Json encoded( Report const & value );
LIVE_EXPORT Json encoded( Leave const & value );
LIVE_EXPORT Json encoded( Watch const & value );
LIVE_EXPORT Json encoded( Wait const & value );
LIVE_EXPORT Json encoded( Status const & value );
LIVE_EXPORT Json encoded( Explain const & value );
LIVE_EXPORT Json encoded( Log const & value );
LIVE_EXPORT Json encoded( Enable const & value );
LIVE_EXPORT Json encoded( JoinReply const & value );
LIVE_EXPORT Json encoded( WatchReply const & value );
LIVE_EXPORT Json encoded( WaitReply const & value );
LIVE_EXPORT Json encoded( StatusReply const & value );
LIVE_EXPORT Json encoded( ExplainReply const & value );
LIVE_EXPORT Json encoded( LogReply const & value );
LIVE_EXPORT Json encoded( Stage const & value );
LIVE_EXPORT Json encoded( Agent const & value );
LIVE_EXPORT Json encoded( Entry const & value );

// Calls `answer`, which answers `call`; what it throws as Refused becomes the call's error.
template< class Answer >
void answerOrRefuse( Kiv::Ptr< Varlink::Call > const & call, Answer const & answer ) {
   try {
      answer();
   } catch( Refused const & refused ) {
      call->fail( refused.error().name, refused.error().parameters );
   }
}

} // namespace Protocol
} // namespace Live
