// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Kiv/Log.h>

#include <Kiv/Clock.h>
#include <Kiv/detail/ErrorLine.h>
#include <Kiv/detail/Forever.h>

#include <algorithm>
#include <string>
#include <string_view>

namespace Kiv {

char const NoActionRequired[] = "No action is required.";

template KIV_EXPORT void log( LogHandle &, String8 const &, String8 const & ) noexcept;
template KIV_EXPORT void log( LogHandle &, String8 const &, Name const & ) noexcept;

namespace {

LogSink & sink() {
   static detail::Forever< LogSink > theSink;
   return *theSink;
}

// Gives `put` the text of a message in pieces. Of the arguments, `known` are known.
template< class Put >
void compose( String8 const & format, String8 const * arguments, unsigned int count,
              unsigned int known, Put put ) {
   unsigned int used = 0;
   std::string_view const text = format.view();
   for( std::size_t i = 0; i != text.size(); ++i ) {
      char const next = text[ i ] == '%' && i + 1 < text.size() ? text[ i + 1 ] : '\0';
      if( next == 's' && used < count ) {
         put( used < known ? arguments[ used ].view() : "?" );
         ++used;
         ++i;
      } else {
         put( text.substr( i, 1 ) );
         if( next == '%' )
            ++i;
      }
   }
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

bool LogHandle::okToLog( unsigned int key ) noexcept {
   if( !( interval_ > 0 ) )
      return true;
   try {
      double const time = now();
      std::erase_if( windows_, [ & ]( Window const & w ) { return time >= w.start + interval_; } );
      auto window = std::find_if( windows_.begin(), windows_.end(),
                                  [ key ]( Window const & w ) { return w.key == key; } );
      if( window == windows_.end() )
         window = windows_.insert( window, { key, time, 0 } );
      if( window->emitted + 1 > count_ )
         return false;
      ++window->emitted;
   } catch( ... ) { // not counted
   }
   return true;
}

void LogHandle::log( unsigned int keyHash, String8 * arguments, unsigned int count ) noexcept {
   try {
      LogSink const current = sink(); // the sink may replace itself
      if( !current ) {
         detail::ErrorLine line;
         line << id_.view() << ": ";
         compose( format_, arguments, count, count,
                  [ &line ]( std::string_view p ) { line << p; } );
         return;
      }
      std::string text;
      compose( format_, arguments, count, count, [ &text ]( std::string_view p ) { text += p; } );
      current( { now(), id_, severity_, text, explanation_, recommendedAction_, keyHash } );
   } catch( ... ) {
      lost( arguments, count, count );
   }
}

void LogHandle::lost( String8 const * arguments, unsigned int count,
                      unsigned int known ) const noexcept {
   detail::withCurrentException( [ & ]( std::string_view what ) {
      detail::ErrorLine line;
      line << "kiv: a log message was lost (" << what << "): " << id_.view() << ": ";
      compose( format_, arguments, count, known, [ &line ]( std::string_view p ) { line << p; } );
   } );
}

} // namespace Kiv
