// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Debug traces: what the handlers decide, for those who look for the reason.
//
//    KIV_TRACE( handle, 8, "Ordovan", "Stage ", name, " in progress, but not yet complete." );
//
// A trace point writes to two sinks: lines of text, for handles and levels that are switched on,
// and the binary ring of a trace file (Flitlog), which takes all of them while there is one, or
// those of the levels that it was opened for, whatever the switches say. One that has nowhere to
// write to costs loads and branches: its pieces are not evaluated.
//
// A trace point never throws, whatever its pieces, its sinks or a lack of memory do, at its first
// use or later: what cannot be written is reported on standard error, and the function goes on.
//
// Switches are set in code (levelIs, tracesIs) or by the environment variable KIV_TRACE, which is
// read when a handle is made: entries separated by ";", each a handle's name (or "*" for all), ":"
// and levels, as in  KIV_TRACE='Ordovan:7-9,0;Kiv:0'; no levels, as in "Ordovan:", switch it off.
#pragma once

#include <Kiv/Clock.h>
#include <Kiv/Entity.h>
#include <Kiv/Export.h>
#include <Kiv/Text.h>

#include <Flitlog/MsgDesc.h>
#include <Flitlog/Ring.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <iosfwd>
#include <string>
#include <string_view>
#include <type_traits>

namespace Kiv {

// One line of trace.
struct TraceLine {
   double time;         // seconds, as Kiv::now()
   String8 handle;      // name of the trace handle
   unsigned level;      // 0 to 9
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
//
// A handle is usually a static object of a function, made on first use and destroyed at exit. An
// object that outlives it may still pass trace points: a destroyed handle is switched off and stays
// so, and what is recorded under it still has its name. Handles of one name share what is left of
// them, so that making and destroying one again and again uses no more memory than once.
class KIV_EXPORT TraceHandle {
 public:
   // `on`: the master switch; all levels start off. KIV_TRACE and tracesIs() are applied after.
   // Throws std::bad_alloc; a trace point whose handle that befalls tries again at its next pass.
   TraceHandle( String8 name, bool on );
   ~TraceHandle();
   TraceHandle( TraceHandle const & ) = delete;
   TraceHandle & operator=( TraceHandle const & ) = delete;

   String8 const & name() const { return state_->name; }
   bool master() const { return state_->master; }
   void masterIs( bool on );
   // False for a level above 9, and so is enabled().
   bool level( unsigned level ) const { return isOn( state_->levels, level ); }
   // Nothing happens for a level above 9.
   void levelIs( unsigned level, bool on );
   // Whether a trace of this level is produced: master switch and level switch are on.
   bool enabled( unsigned level ) const { return isOn( state_->effective, level ); }

 private:
   // Never destroyed.
   struct State {
      String8 name;
      unsigned levels = 0;
      unsigned effective = 0;
      bool master = false;
   };
   friend struct TraceStates;
   static bool isOn( unsigned levels, unsigned level ) {
      return level <= 9 && ( levels >> level & 1U ) != 0;
   }
   void update() { state_->effective = state_->master ? state_->levels : 0; }

   State * state_;
};

// The levels that a text like "7-9,0" names, as bits: 1 << 7 and so on. A range exception names the
// place of a mistake.
KIV_EXPORT unsigned traceLevels( String8 const & text );

// Applies settings in the grammar of KIV_TRACE to all handles, also those made later. The levels
// that an entry names are on, the handle's others off. Throws a range exception that names the
// place of a mistake; nothing is changed then.
KIV_EXPORT void tracesIs( String8 const & settings );

// Writes a composed line to the sinks. `enabled`: to the text sink too, not only to
// coverageStream_. `time`: in seconds. A stream that has run out of memory gives a line that says
// so at its end. Throws what the sink throws, and std::bad_alloc.
KIV_EXPORT void traceHelper( String8 const & handle, std::ostringstream const & stream,
                             unsigned level, bool enabled, char const * source, int line,
                             char const * function, double time = now() );

// Records every trace point of these levels, whatever the switches say, into a ring of `bytes` in
// this file from now on; an empty path ends recording. "%p" in the path stands for the process id,
// "%%" for "%". `levels` as traceLevels() gives them; the file remembers them. Throws
// Flitlog::FileError, and all stays as it was; a file that is being written already, also by this
// process, is refused, and so are levels that are none.
//
// A point that is left out costs little more than one that is switched off. Level 9 is the detail
// of loops, some of which run in full for their traces alone: in the field, leave it out ("0-8").
//
// The environment does the same: KIV_TRACE_RING names the file, KIV_TRACE_RING_SIZE the bytes, as a
// number that may end in K, M or G (of 1,024 each), KIV_TRACE_RING_LEVELS the levels, as
// traceLevels() takes them; not set or empty, all. That file is opened by the first trace point
// that it takes, so a program that only loads the library leaves alone what another one has left
// there. All variables are ignored in programs with raised privileges.
//
// A ring that is open at fork() stays the parent's: the child records nothing, unless it calls
// traceRingIs() itself, with another path. A ring that only the environment asks for is nobody's
// until the first trace. So a daemon forks before it traces; and of a parent and a child that both
// go on to trace, the first to do so has the file, and the other reports that on standard error and
// records nothing, or, once the first has ended, keeps its file as PATH.old. "%p" gives each its
// own.
KIV_EXPORT void traceRingIs( String8 const & path, std::uint64_t bytes = Flitlog::defaultRingBytes,
                             unsigned levels = Flitlog::allLevels );
// The number in that grammar; a range exception that says what was expected.
KIV_EXPORT std::uint64_t ringBytes( String8 const & text );

namespace detail {

class LineBuffer;

// The environment asks for a ring that no trace point has opened yet.
KIV_EXPORT extern bool ringWanted;

// Whether a ring takes that level: the one that is open, or the one that the environment asks for.
KIV_EXPORT bool ringTakes( unsigned level ) noexcept;

// One piece of a trace point's list. Both sinks are written from the same pieces, so that they
// cannot disagree. It refers to what it was made from, and lives as long as the call that it is
// made for.
class TracePiece {
 public:
   // A literal part of the message: described once, not recorded. It must be a constant, as only a
   // string literal, __func__ and a constexpr array of static duration are: any other array of
   // characters could change, or be another one, by the next pass, and the ring would go on to show
   // the first. Those are refused when compiling; say std::string_view or char const * for them.
   template< std::size_t size >
   consteval TracePiece( char const ( &literal )[ size ] ) // NOLINT: conversion is the purpose
      : kind_( Kind::literal ), bytes_( literal ),
        length_( std::char_traits< char >::length( literal ) ) {}
   template< std::size_t size >
   TracePiece( char ( &buffer )[ size ] ) = delete;
   // Everything else is a variable part.
   template< class T >
   TracePiece( T const & piece ) : object_( nullptr ) { // NOLINT: as above
      if constexpr( std::is_same_v< T, bool > ) {
         kind_ = Kind::boolean;
         boolean_ = piece;
      } else if constexpr( std::is_floating_point_v< T > ) {
         kind_ = Kind::real;
         real_ = piece;
      } else if constexpr( std::is_integral_v< T > && std::is_signed_v< T > ) {
         kind_ = sizeof( T ) > 4 ? Kind::wideInteger : Kind::integer;
         integer_ = piece;
      } else if constexpr( std::is_integral_v< T > ) {
         kind_ = sizeof( T ) > 4 ? Kind::wideUnsigned : Kind::unsignedInteger;
         unsigned_ = piece;
      } else if constexpr( std::is_same_v< T, char const * > || std::is_same_v< T, char * > ) {
         textIs( piece ? std::string_view( piece ) : std::string_view( "null" ) );
      } else if constexpr( std::is_convertible_v< T const &, PtrInterface const * > ) {
         object_ = piece;
      } else if constexpr( std::is_base_of_v< PtrInterface, T > ) {
         object_ = &piece;
      } else if constexpr( std::is_convertible_v< T const &, std::string_view > ) {
         textIs( piece );
      } else if constexpr( std::is_base_of_v< Text, T > ) {
         textIs( piece.view() );
      } else {
         object_ = piece.get(); // a Ptr
      }
   }

   void print( LineBuffer & line ) const;
   void describe( Flitlog::MsgDesc & message ) const;
   // `name`: of an object.
   void record( Flitlog::RingBuf & ring, std::string_view name ) const;
   bool isObject() const { return kind_ == Kind::object; }
   // What an object is known by.
   String8 name() const { return valueToString( object_ ); }

 private:
   enum class Kind : unsigned char {
      literal,
      text,
      boolean,
      integer,
      wideInteger,
      unsignedInteger,
      wideUnsigned,
      real,
      object
   };

   void textIs( std::string_view text ) {
      kind_ = Kind::text;
      bytes_ = text.data();
      length_ = text.size();
   }
   std::string_view text() const { return { bytes_, length_ }; }

   Kind kind_ = Kind::object;
   union {
      PtrInterface const * object_;
      bool boolean_;
      std::int64_t integer_;
      std::uint64_t unsigned_;
      double real_;
      char const * bytes_; // of a literal or text
   };
   std::size_t length_; // of these alone
};

// Where a trace point stands, and the number of its message in the trace file: 0 before its first
// pass, negative when the file had no room for it.
struct TracePoint {
   unsigned level;
   char const * source;
   int line;
   char const * function;
   int message = 0;
   bool hasObjects = true; // as far as is known: not before its first pass
};

// Writes to every sink that is on. Never throws: a trace that cannot be written is reported on
// standard error and changes nothing.
KIV_EXPORT void trace( TraceHandle const & handle, TracePoint & point,
                       std::initializer_list< TracePiece > pieces ) noexcept;

// Reports on standard error, without memory, that the exception that is being handled has cost
// `function` a trace. Says nothing when the point's handle could not even be made and nobody has
// asked for traces.
KIV_EXPORT void traceLost( char const * function, bool handleMade ) noexcept;

} // namespace detail

// Whether something takes a trace of that level: for loops that, without it, need not run. Always
// inlined, so that a trace point makes no call while nothing is on.
[[gnu::always_inline]] inline bool tracesTo( TraceHandle const & handle, unsigned level ) {
   return handle.enabled( level ) || coverageStream_ ||
          ( ( Flitlog::theTraceFile || detail::ringWanted ) && detail::ringTakes( level ) );
}

// A trace point. A macro because it needs the line, a number of its own for the trace file, and
// pieces that are evaluated only when something is on. Level, source and function are constants.
// A piece is text, a bool, a number, or an entity or Ptr, which shows its full name. A library with
// trace points must stay loaded (link it with -z nodelete): the trace file knows the points that
// have written to it.
#define KIV_TRACE( handle, level, source, ... )                                                    \
   KIV_TRACE_IN( handle, level, source, __func__, __VA_ARGS__ )

// The same, on behalf of the function named.
#define KIV_TRACE_IN( handle, level, source, function, ... )                                       \
   do {                                                                                            \
      ::Kiv::TraceHandle const * kivTraceHandle = nullptr;                                         \
      try {                                                                                        \
         kivTraceHandle = &( handle );                                                             \
         if( ::Kiv::tracesTo( *kivTraceHandle, level ) ) [[unlikely]] {                            \
            static constinit ::Kiv::detail::TracePoint kivTracePoint{ level, source, __LINE__,     \
                                                                      function };                  \
            ::Kiv::detail::trace( *kivTraceHandle, kivTracePoint, { __VA_ARGS__ } );               \
         }                                                                                         \
      } catch( ... ) {                                                                             \
         ::Kiv::detail::traceLost( function, kivTraceHandle != nullptr );                          \
      }                                                                                            \
   } while( false )

} // namespace Kiv
