// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Declared system log messages: named, with an explanation, limited in rate.
#pragma once

#include <Kiv/Export.h>
#include <Kiv/Text.h>
#include <Kiv/Type.h>

#include <cstdint>
#include <functional>
#include <vector>

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
// message on standard error (control characters as \xNN). Returns what was there before. The sink
// is called inside the handler that emits; it may do what a callback may do, except run the loop.
// What it throws stops nobody: see log().
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

   // Whether one more message with this key is within the limit; counts it when it is. One for
   // which there is no memory to count it in is let through: better one too many than one lost.
   // Cost: nothing without a limit, else linear in the number of keys of the running interval, as
   // keys whose interval has passed are forgotten.
   bool okToLog( unsigned int key ) noexcept;
   // Emits the message with `count` arguments. `keyHash` names the key within the id. Never throws,
   // as what a message reports goes on without it: when there is no memory for the message, or its
   // sink throws, it is told in full on standard error, with the reason, which needs no memory.
   void log( unsigned int keyHash, String8 * arguments, unsigned int count ) noexcept;

 private:
   template< class A1, class A2 >
   friend void log( LogHandle & handle, A1 const & a1, A2 const & a2 ) noexcept;

   // Tells on standard error of a message that the exception being handled has stopped; of its
   // arguments, the first `known` have been converted.
   void lost( String8 const * arguments, unsigned int count, unsigned int known ) const noexcept;

   struct Window {
      unsigned int key;
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
   std::vector< Window > windows_; // one of each key
};

// Emits a declared message with two arguments, unless its key is over the limit. Never throws: a
// message that cannot be made, or that its sink throws back, is told on standard error and the
// caller goes on, as from a message that is over the limit. (An argument for which there is no
// memory is shown there as "?"; texts and names need none.)
template< class A1, class A2 >
void log( LogHandle & handle, A1 const & a1, A2 const & a2 ) noexcept {
   unsigned int const keyed = handle.rateLimitArgs() < 2 ? handle.rateLimitArgs() : 2;
   String8 arguments[ 2 ];
   unsigned int known = 0;
   auto const convertUpTo = [ & ]( unsigned int end ) {
      for( ; known < end; ++known )
         arguments[ known ] = known == 0 ? valueToString( a1 ) : valueToString( a2 );
   };
   try {
      String8 key;
      for( unsigned int i = 0; i != keyed; ++i ) {
         convertUpTo( i + 1 );
         key += arguments[ i ];
      }
      unsigned int const keyHash = key.hash();
      if( !handle.okToLog( handle.idHash() ^ keyHash ) )
         return;
      convertUpTo( 2 );
      handle.log( keyHash, arguments, 2 );
   } catch( ... ) {
      try {
         convertUpTo( 2 );
      } catch( ... ) { // told with what there is
      }
      handle.lost( arguments, 2, known );
   }
}

extern template KIV_EXPORT void log( LogHandle &, String8 const &, String8 const & ) noexcept;
extern template KIV_EXPORT void log( LogHandle &, String8 const &, Name const & ) noexcept;

} // namespace Kiv
