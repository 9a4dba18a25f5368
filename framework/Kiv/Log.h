// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Declared system log messages: named, with an explanation, limited in rate.
#pragma once

#include <Kiv/Export.h>
#include <Kiv/Text.h>
#include <Kiv/Type.h>

#include <cstdint>
#include <functional>
#include <map>

namespace Kiv {

// As syslog counts: 0 is an emergency, 3 an error, 4 a warning, 6 information, 7 debugging.
using LogSeverity = unsigned int;

// For messages after which nobody has to do anything.
KIV_EXPORT extern char const NoActionRequired[];

// A message that was emitted.
struct LogMessage {
   double time; // seconds, as Kiv::now()
   String8 id;
   LogSeverity severity;
   String8 text; // format and arguments
   String8 explanation;
   String8 recommendedAction;
   unsigned int keyHash; // hash of the arguments by which the rate is limited
};

using LogSink = std::function< void( LogMessage const & ) >;

// Where emitted messages go from now on; an empty function stands for the default, one line a
// message on standard error (control characters as \xNN). Returns what was there before. The sink is
// called inside the handler that emits; it may do what a callback may do, except run the loop.
KIV_EXPORT LogSink logSinkIs( LogSink sink );

// Declares a log message; made once, for the life of the process.
//
// `interval` in seconds (0: no limit) and `count` say how many messages with the same key are
// emitted per interval; `rateLimitArgs` how many leading arguments form the key. `format` holds a
// "%s" for each argument; "%%" is a percent sign.
class KIV_EXPORT LogHandle {
 public:
   LogHandle( String8 id, LogSeverity severity, String8 format, String8 explanation,
              String8 recommendedAction, double interval, double count,
              unsigned char rateLimitArgs );
   ~LogHandle();
   LogHandle( LogHandle const & ) = delete;
   LogHandle & operator=( LogHandle const & ) = delete;

   String8 const & id() const { return id_; }
   LogSeverity severity() const { return severity_; }
   String8 const & format() const { return format_; }
   String8 const & explanation() const { return explanation_; }
   String8 const & recommendedAction() const { return recommendedAction_; }
   double interval() const { return interval_; }
   double count() const { return count_; }
   unsigned int rateLimitArgs() const { return rateLimitArgs_; }
   unsigned int idHash() const { return id_.hash(); }

   // Whether one more message with this key is within the limit; counts it when it is. Cost:
   // nothing without a limit, else linear in the number of keys of the running interval, as keys
   // whose interval has passed are forgotten.
   bool okToLog( unsigned int key );
   // Emits the message with `count` arguments. `keyHash` names the key within the id.
   void log( unsigned int keyHash, String8 * arguments, unsigned int count );

 private:
   struct Window {
      double start;
      double emitted;
   };

   String8 const id_;
   LogSeverity const severity_;
   String8 const format_;
   String8 const explanation_;
   String8 const recommendedAction_;
   double const interval_;
   double const count_;
   unsigned char const rateLimitArgs_;
   std::map< unsigned int, Window > windows_;
};

// Emits a declared message with two arguments, unless its key is over the limit.
template< class A1, class A2 >
void log( LogHandle & handle, A1 const & a1, A2 const & a2 ) {
   unsigned int const keyed = handle.rateLimitArgs() < 2 ? handle.rateLimitArgs() : 2;
   String8 arguments[ 2 ];
   String8 key;
   auto const convert = [ & ]( unsigned int i ) {
      arguments[ i ] = i == 0 ? valueToString( a1 ) : valueToString( a2 );
   };
   for( unsigned int i = 0; i != keyed; ++i ) {
      convert( i );
      key += arguments[ i ];
   }
   unsigned int const keyHash = key.hash();
   if( !handle.okToLog( handle.idHash() ^ keyHash ) )
      return;
   for( unsigned int i = keyed; i != 2; ++i )
      convert( i );
   handle.log( keyHash, arguments, 2 );
}

extern template KIV_EXPORT void log( LogHandle &, String8 const &, String8 const & );
extern template KIV_EXPORT void log( LogHandle &, String8 const &, Name const & );

} // namespace Kiv
