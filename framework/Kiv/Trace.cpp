// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Kiv/Trace.h>

#include <Kiv/Exception.h>
#include <Kiv/detail/OneLine.h>
#include <Kiv/detail/Queue.h>

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <list>
#include <ostream>
#include <string>
#include <vector>

namespace Kiv {

std::ostream * coverageStream_ = nullptr;

namespace {

// One entry of the settings.
struct Setting {
   std::string handle; // "*": all
   unsigned levels;
};

struct Registry {
   std::list< TraceHandle * > handles;
   std::vector< Setting > settings;
};

void applySettings( TraceHandle & handle, std::vector< Setting > const & settings ) {
   for( Setting const & s : settings ) {
      if( s.handle != "*" && handle.name() != std::string_view( s.handle ) )
         continue;
      handle.masterIs( s.levels != 0 );
      for( unsigned level = 0; level != 10; ++level )
         handle.levelIs( level, ( s.levels >> level & 1U ) != 0 );
   }
}

[[noreturn]] void refuse( std::string_view settings, std::size_t at, char const * expected ) {
   throwRangeException( String8( "trace settings \"" + std::string( settings ) + "\", character " +
                                 std::to_string( at + 1 ) + ": expected " + expected ) );
}

// Levels up to the end of the entry, like "7-9,0".
unsigned parseLevels( std::string_view settings, std::size_t & at ) {
   unsigned levels = 0;
   auto const digit = [ & ] {
      if( at == settings.size() || settings[ at ] < '0' || settings[ at ] > '9' )
         refuse( settings, at, "a level, 0 to 9" );
      return static_cast< unsigned >( settings[ at++ ] - '0' );
   };
   for( ;; ) {
      unsigned const first = digit();
      unsigned last = first;
      bool const range = at != settings.size() && settings[ at ] == '-';
      if( range ) {
         std::size_t const dash = ++at;
         last = digit();
         if( last < first )
            refuse( settings, dash, "a level that is not below the first of the range" );
      }
      for( unsigned level = first; level <= last; ++level )
         levels |= 1U << level;
      if( at == settings.size() || settings[ at ] == ';' )
         return levels;
      if( settings[ at ] != ',' )
         refuse( settings, at,
                 range ? "\",\", \";\" or the end" : "\",\", \"-\", \";\" or the end" );
      ++at;
   }
}

std::vector< Setting > parse( std::string_view settings ) {
   std::vector< Setting > entries;
   for( std::size_t at = 0; at < settings.size(); ) {
      if( settings[ at ] == ';' ) {
         ++at;
         continue;
      }
      std::size_t const colon = settings.find( ':', at );
      if( colon == std::string_view::npos || colon == at ||
          settings.substr( at, colon - at ).find( ';' ) != std::string_view::npos )
         refuse( settings, at, "HANDLE:LEVELS" );
      std::string const handle( settings.substr( at, colon - at ) );
      at = colon + 1;
      entries.push_back( { handle, parseLevels( settings, at ) } );
   }
   return entries;
}

Registry & registry() {
   static Registry & theRegistry = [ ] () -> Registry & {
      auto & r = *new Registry;
      if( char const * settings = std::getenv( "KIV_TRACE" ) ) {
         try {
            r.settings = parse( settings );
         } catch( Exception const & e ) {
            std::fprintf( stderr, "kiv: KIV_TRACE ignored: %s\n", e.what() );
         }
      }
      return r;
   }();
   return theRegistry;
}

TraceSink & sink() {
   static TraceSink & theSink = *new TraceSink;
   return theSink;
}

TraceHandle & kivTrace() {
   static TraceHandle & handle = *new TraceHandle( "Kiv", false );
   return handle;
}

} // namespace

std::string traceText( TraceLine const & line ) {
   // Not printf: its decimal point follows the user's locale.
   char time[ 400 ]; // the largest double has 309 digits before the point
   char * const end =
      std::to_chars( time, time + sizeof time, line.time, std::chars_format::fixed, 6 ).ptr;
   return std::string( time, end ) + ' ' + detail::oneLine( line.handle.view() ) + '/' + std::to_string( line.level ) + ' ' +
          detail::oneLine( line.source ) + ':' + std::to_string( line.line ) + ' ' +
          detail::oneLine( line.function ) + ": " + detail::oneLine( line.text.view() );
}

TraceSink traceSinkIs( TraceSink next ) {
   std::swap( sink(), next );
   return next;
}

TraceHandle::TraceHandle( String8 name, bool on ) : name_( std::move( name ) ), master_( on ) {
   applySettings( *this, registry().settings );
   registry().handles.push_back( this );
}

TraceHandle::~TraceHandle() { registry().handles.remove( this ); }

void TraceHandle::masterIs( bool on ) {
   master_ = on;
   update();
}

void TraceHandle::levelIs( unsigned level, bool on ) {
   if( level > 9 )
      return;
   levels_ = on ? levels_ | 1U << level : levels_ & ~( 1U << level );
   update();
}

void tracesIs( String8 const & settings ) {
   std::vector< Setting > const entries = parse( settings.view() );
   Registry & r = registry();
   // Only what still counts is kept: the last entry for each name, none before one for all.
   for( Setting const & entry : entries ) {
      std::erase_if( r.settings, [ &entry ]( Setting const & s ) {
         return entry.handle == "*" || s.handle == entry.handle;
      } );
      r.settings.push_back( entry );
   }
   for( TraceHandle * handle : r.handles )
      applySettings( *handle, entries );
}

void traceHelper( String8 const & handle, std::ostringstream const & stream, unsigned level,
                  bool enabled, char const * source, int line, char const * function ) {
   std::string const text = stream.str();
   if( coverageStream_ )
      *coverageStream_ << text << '\n';
   if( !enabled )
      return;
   TraceLine const traced{ now(), handle, level, source, line, function, text };
   TraceSink const current = sink();
   if( current ) {
      current( traced );
      return;
   }
   std::fprintf( stderr, "%s\n", traceText( traced ).c_str() );
}

namespace detail {

void reportException( char const * where, String8 const & what ) noexcept {
   try {
      std::string text;
      try {
         throw;
      } catch( std::exception const & e ) {
         text = e.what();
      } catch( ... ) {
         text = "not a std::exception";
      }
      std::string place = what.empty() ? std::string() : " of a reactor on " + what.str();
      if( *where )
         place = ( what.empty() ? " of " : " in " ) + std::string( where ) + place;
      KIV_TRACE( kivTrace(), 0, "Trace", "exception", place, ": ", text );
      std::fprintf( stderr, "kiv: exception%s: %s\n", oneLine( place ).c_str(),
                    oneLine( text ).c_str() );
   } catch( ... ) {
      std::fputs( "kiv: exception, and no memory to say which\n", stderr );
   }
}

} // namespace detail

} // namespace Kiv
