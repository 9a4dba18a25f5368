// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Debug traces: what the handlers decide, for those who look for the reason.
//
//    KIV_TRACE( handle, 8, "Ordovan", "Stage ", name, " in progress, but not yet complete." );
//
// A trace point that is switched off costs loads and branches: its pieces are not evaluated.
//
// Switches are set in code (levelIs, tracesIs) or by the environment variable KIV_TRACE, which is
// read when a handle is made: entries separated by ";", each a handle's name (or "*" for all), ":"
// and levels, as in  KIV_TRACE='Ordovan:7-9,0;Kiv:0'.
#pragma once

#include <Kiv/Clock.h>
#include <Kiv/Entity.h>
#include <Kiv/Export.h>
#include <Kiv/Text.h>

#include <functional>
#include <iosfwd>
#include <sstream>
#include <string>
#include <type_traits>

namespace Kiv {

// One line of trace.
struct TraceLine {
   double time;        // seconds, as Kiv::now()
   String8 handle;     // name of the trace handle
   unsigned level;     // 0 to 9
   char const * source; // name of the source file, without folder and suffix
   int line;
   char const * function; // short name of the function
   String8 text;
};

// The line as the default sink writes it, without the line end; control characters as \xNN:
//    TIME HANDLE/LEVEL SOURCE:LINE FUNCTION: TEXT
KIV_EXPORT std::string traceText( TraceLine const & line );

using TraceSink = std::function< void( TraceLine const & ) >;

// Where text traces go from now on; an empty function stands for the default, which writes each
// line (traceText) to standard error. Returns what was there before. The sink must not touch
// entities.
KIV_EXPORT TraceSink traceSinkIs( TraceSink sink );

// When not null, the text of every trace point is written here too, whatever the switches say: for
// tests that want to pass every trace point.
KIV_EXPORT extern std::ostream * coverageStream_;

// The switches of a library's traces: a master switch and one for each level, 0 to 9.
class KIV_EXPORT TraceHandle {
 public:
   // `on`: the master switch; all levels start off. KIV_TRACE and tracesIs() are applied after.
   TraceHandle( String8 name, bool on );
   ~TraceHandle();
   TraceHandle( TraceHandle const & ) = delete;
   TraceHandle & operator=( TraceHandle const & ) = delete;

   String8 const & name() const { return name_; }
   bool master() const { return master_; }
   void masterIs( bool on );
   bool level( unsigned level ) const { return ( levels_ >> level & 1U ) != 0; }
   // Nothing happens for a level above 9.
   void levelIs( unsigned level, bool on );
   // Whether a trace of this level is produced: master switch and level switch are on.
   bool enabled( unsigned level ) const { return ( effective_ >> level & 1U ) != 0; }

 private:
   void update() { effective_ = master_ ? levels_ : 0; }

   String8 name_;
   unsigned levels_ = 0;
   unsigned effective_ = 0;
   bool master_;
};

// Applies settings in the grammar of KIV_TRACE to all handles, also those made later. The levels
// that an entry names are on, the handle's others off. Throws a range exception that names the
// place of a mistake; nothing is changed then.
KIV_EXPORT void tracesIs( String8 const & settings );

// Writes a composed line to the sinks. `enabled`: to the text sink too, not only to
// coverageStream_.
KIV_EXPORT void traceHelper( String8 const & handle, std::ostringstream const & stream,
                             unsigned level, bool enabled, char const * source, int line,
                             char const * function );

namespace detail {

template< class T >
void tracePiece( std::ostream & out, T const & piece ) {
   if constexpr( std::is_same_v< T, bool > || std::is_same_v< T, double > )
      out << valueToString( piece );
   else
      out << piece;
}
template< class T >
void tracePiece( std::ostream & out, Ptr< T > const & piece ) {
   out << valueToString( piece );
}

template< class... Pieces >
[[gnu::cold, gnu::noinline]] void trace( TraceHandle const & handle, unsigned level,
                                         char const * source, int line, char const * function,
                                         Pieces const &... pieces ) {
   std::ostringstream stream;
   ( tracePiece( stream, pieces ), ... );
   traceHelper( handle.name(), stream, level, handle.enabled( level ), source, line, function );
}

} // namespace detail

// A trace point. A macro because it needs the line, and pieces that are evaluated when it is on.
#define KIV_TRACE( handle, level, source, ... )                                                   \
   KIV_TRACE_IN( handle, level, source, __func__, __VA_ARGS__ )

// The same, on behalf of the function named.
#define KIV_TRACE_IN( handle, level, source, function, ... )                                      \
   do {                                                                                           \
      if( ( handle ).enabled( level ) || ::Kiv::coverageStream_ ) [[unlikely]]                    \
         ::Kiv::detail::trace( handle, level, source, __LINE__, function, __VA_ARGS__ );          \
   } while( false )

} // namespace Kiv
