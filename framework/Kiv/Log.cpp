// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Kiv/Log.h>

#include <Kiv/Clock.h>
#include <Kiv/detail/OneLine.h>

#include <cstdio>
#include <string>

namespace Kiv {

char const NoActionRequired[] = "No action is required.";

template KIV_EXPORT void log( LogHandle &, String8 const &, String8 const & );
template KIV_EXPORT void log( LogHandle &, String8 const &, Name const & );

namespace {

LogSink & sink() {
   static LogSink & theSink = *new LogSink;
   return theSink;
}

void toStandardError( LogMessage const & message ) {
   std::string const line =
      detail::oneLine( message.id.view() ) + ": " + detail::oneLine( message.text.view() ) + "\n";
   std::fputs( line.c_str(), stderr );
}

} // namespace

LogSink logSinkIs( LogSink next ) {
   std::swap( sink(), next );
   return next;
}

LogHandle::LogHandle( String8 id, LogSeverity severity, String8 format, String8 explanation,
                      String8 recommendedAction, double interval, double count,
                      unsigned char rateLimitArgs )
   : id_( std::move( id ) ), severity_( severity ), format_( std::move( format ) ),
     explanation_( std::move( explanation ) ), recommendedAction_( std::move( recommendedAction ) ),
     interval_( interval ), count_( count ), rateLimitArgs_( rateLimitArgs ) {}
LogHandle::~LogHandle() = default;

bool LogHandle::okToLog( unsigned int key ) {
   if( !( interval_ > 0 ) )
      return true;
   double const time = now();
   std::erase_if( windows_, [ & ]( auto const & w ) { return time >= w.second.start + interval_; } );
   auto const [ place, added ] = windows_.try_emplace( key, Window{ time, 0 } );
   if( place->second.emitted + 1 > count_ )
      return false;
   ++place->second.emitted;
   return true;
}

void LogHandle::log( unsigned int keyHash, String8 * arguments, unsigned int count ) {
   std::string text;
   unsigned int used = 0;
   std::string_view const format = format_.view();
   for( std::size_t i = 0; i != format.size(); ++i ) {
      char const next = format[ i ] == '%' && i + 1 < format.size() ? format[ i + 1 ] : '\0';
      if( next == 's' && used < count ) {
         text += arguments[ used++ ].view();
         ++i;
      } else {
         text += format[ i ];
         if( next == '%' )
            ++i;
      }
   }
   LogMessage const message{ now(), id_, severity_, text, explanation_, recommendedAction_,
                             keyHash };
   LogSink const current = sink(); // the sink may replace itself
   if( current )
      current( message );
   else
      toStandardError( message );
}

} // namespace Kiv
