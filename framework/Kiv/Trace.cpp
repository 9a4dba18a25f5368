// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Kiv/Trace.h>

#include <Kiv/Exception.h>
#include <Kiv/detail/ErrorLine.h>
#include <Kiv/detail/Forever.h>
#include <Kiv/detail/LineBuffer.h>
#include <Kiv/detail/Queue.h>

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <list>
#include <memory>
#include <new>
#include <ostream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <unistd.h>

namespace Kiv {

std::ostream * coverageStream_ = nullptr;

namespace {

// One entry of the settings.
struct Setting {
   std::string handle; // "*": all
   unsigned levels;
};

struct Registry {
   Registry();
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

[[noreturn]] void refuse( char const * what, std::string_view text, std::size_t at,
                          std::string const & expected ) {
   throwRangeException( String8( what + std::string( " \"" ) + std::string( text ) +
                                 "\", character " + std::to_string( at + 1 ) + ": expected " +
                                 expected ) );
}
[[noreturn]] void refuse( std::string_view settings, std::size_t at,
                          std::string const & expected ) {
   refuse( "trace settings", settings, at, expected );
}

// Takes levels like "7-9,0" from a text up to its end or to a separator.
class LevelsReader {
 public:
   // `separators`: "" or one character. `what`: the text is called so in errors.
   LevelsReader( char const * what, std::string_view text, std::size_t & at,
                 char const * separators )
      : what_( what ), text_( text ), at_( at ), separators_( separators ) {}

   bool ended() const {
      return at_ == text_.size() || separators_.find( text_[ at_ ] ) != separators_.npos;
   }
   unsigned levels() {
      for( unsigned levels = 0;; ++at_ ) {
         unsigned const first = digit();
         unsigned last = first;
         bool const range = at_ != text_.size() && text_[ at_ ] == '-';
         if( range ) {
            std::size_t const dash = ++at_;
            last = digit();
            if( last < first )
               refuse( what_, text_, dash, "a level that is not below the first of the range" );
         }
         for( unsigned level = first; level <= last; ++level )
            levels |= 1U << level;
         if( ended() )
            return levels;
         if( text_[ at_ ] != ',' )
            refuse( what_, text_, at_, "\",\"" + std::string( range ? "" : ", \"-\"" ) + ends() );
      }
   }

 private:
   unsigned digit() {
      if( at_ == text_.size() || text_[ at_ ] < '0' || text_[ at_ ] > '9' )
         refuse( what_, text_, at_, "a level, 0 to 9" );
      return static_cast< unsigned >( text_[ at_++ ] - '0' );
   }
   std::string ends() const {
      return separators_.empty() ? " or the end"
                                 : ", \"" + std::string( separators_ ) + "\" or the end";
   }

   char const * what_;
   std::string_view text_;
   std::size_t & at_;
   std::string_view separators_;
};

// Levels up to the end of an entry; none at all is none on.
unsigned parseLevels( std::string_view settings, std::size_t & at ) {
   LevelsReader reader( "trace settings", settings, at, ";" );
   return reader.ended() ? 0 : reader.levels();
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

Registry::Registry() {
   char const * const wanted = secure_getenv( "KIV_TRACE" );
   if( !wanted )
      return;
   try {
      settings = parse( wanted );
   } catch( Exception const & e ) {
      detail::ErrorLine() << "kiv: KIV_TRACE ignored: " << e.what();
   }
}

Registry & registry() {
   static detail::Forever< Registry > theRegistry;
   return *theRegistry;
}

// tracesIs() was called with anything in it.
bool settingsGiven = false;

// Whether a trace that nobody can say the switches of may have been wanted.
bool tracesWanted() {
   char const * const settings = secure_getenv( "KIV_TRACE" );
   return settingsGiven || ( settings && *settings ) || coverageStream_ || Flitlog::theTraceFile ||
          detail::ringWanted;
}

TraceSink & sink() {
   static detail::Forever< TraceSink > theSink;
   return *theSink;
}

TraceHandle & kivTrace() {
   static detail::Forever< TraceHandle > handle( "Kiv", false );
   return *handle;
}

} // namespace

namespace {

void compose( detail::LineBuffer & text, TraceLine const & line ) {
   // Not printf: its decimal point follows the user's locale.
   char time[ 400 ]; // the largest double has 309 digits before the point
   char * const end =
      std::to_chars( time, time + sizeof time, line.time, std::chars_format::fixed, 6 ).ptr;
   text << std::string_view( time, static_cast< std::size_t >( end - time ) ) << " ";
   text.oneLine( line.handle.view() );
   text << "/";
   text.number( line.level );
   text << " ";
   text.oneLine( line.source );
   text << ":";
   text.number( line.line );
   text << " ";
   text.oneLine( line.function );
   text << ": ";
   text.oneLine( line.text.view() );
}

// To coverageStream_, and if it is `enabled` to the text sink.
void give( TraceLine const & line, bool enabled ) {
   if( coverageStream_ )
      *coverageStream_ << line.text << '\n';
   if( !enabled )
      return;
   TraceSink const current = sink(); // which may be replaced while it runs
   if( current ) {
      current( line );
      return;
   }
   detail::LineBuffer text;
   compose( text, line );
   text << "\n";
   std::string_view const whole = text.view();
   (void)std::fwrite( whole.data(), 1, whole.size(), stderr );
}

} // namespace

std::string traceText( TraceLine const & line ) {
   detail::LineBuffer text;
   compose( text, line );
   return std::string( text.view() );
}

unsigned traceLevels( String8 const & text ) {
   std::size_t at = 0;
   return LevelsReader( "levels", text.view(), at, "" ).levels();
}

TraceSink traceSinkIs( TraceSink next ) {
   std::swap( sink(), next );
   return next;
}

// What handles leave behind: reachable for ever, one for each name.
struct TraceStates {
   static TraceHandle::State & stateOf( String8 const & name ) {
      static detail::Forever< std::list< TraceHandle::State > > left;
      for( TraceHandle::State & state : *left )
         if( state.name == name && !inUse( state ) )
            return state;
      return ( *left ).emplace_back( TraceHandle::State{ name } );
   }
   static bool inUse( TraceHandle::State const & state ) {
      for( TraceHandle const * handle : registry().handles )
         if( handle->state_ == &state )
            return true;
      return false;
   }
};

TraceHandle::TraceHandle( String8 name, bool on ) : state_( &TraceStates::stateOf( name ) ) {
   state_->levels = 0;
   state_->master = on;
   update();
   applySettings( *this, registry().settings );
   registry().handles.push_back( this );
}

TraceHandle::~TraceHandle() {
   registry().handles.remove( this );
   state_->master = false;
   update();
}

void TraceHandle::masterIs( bool on ) {
   state_->master = on;
   update();
}

void TraceHandle::levelIs( unsigned level, bool on ) {
   if( level > 9 )
      return;
   state_->levels = on ? state_->levels | 1U << level : state_->levels & ~( 1U << level );
   update();
}

void tracesIs( String8 const & settings ) {
   std::vector< Setting > const entries = parse( settings.view() );
   Registry & r = registry();
   settingsGiven = settingsGiven || !entries.empty();
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
                  bool enabled, char const * source, int line, char const * function,
                  double time ) {
   std::string text = stream.str();
   // What a stream has no memory for is missing in it without an exception, unless it was asked
   // for.
   if( stream.bad() )
      text += "... (cut short: no memory)";
   give( { time, handle, level, source, line, function, text }, enabled );
}

namespace {

// The process's trace file; not destroyed at its end, because traces may come until then.
Flitlog::TraceFile * traceFile = nullptr;

std::string withProcessId( std::string_view path ) {
   std::string text;
   for( std::size_t i = 0; i != path.size(); ++i ) {
      bool const escape = path[ i ] == '%' && i + 1 != path.size();
      if( escape && path[ i + 1 ] == 'p' ) {
         text += std::to_string( getpid() );
         ++i;
      } else {
         text += path[ i ];
         i += escape && path[ i + 1 ] == '%';
      }
   }
   return text;
}

// What the environment asked for when the library was loaded.
struct Wanted {
   std::string path;
   std::string bytes;  // as written; empty: not said
   std::string levels; // likewise
   unsigned taken = Flitlog::allLevels;
};
Wanted & wanted() {
   static detail::Forever< Wanted > theWanted;
   return *theWanted;
}

// The levels that the environment asks for. When those cannot be understood, all: rather too much
// than nothing.
unsigned wantedLevels( bool report ) {
   if( wanted().levels.empty() )
      return Flitlog::allLevels;
   try {
      return traceLevels( wanted().levels );
   } catch( Exception const & e ) {
      if( report )
         detail::ErrorLine() << "kiv: KIV_TRACE_RING_LEVELS ignored: " << e.what();
      return Flitlog::allLevels;
   }
}

struct AtLoad {
   AtLoad() {
      auto const said = []( char const * variable ) {
         char const * const text = secure_getenv( variable );
         return std::string( text ? text : "" );
      };
      std::string const path = said( "KIV_TRACE_RING" );
      if( path.empty() )
         return;
      wanted() = { path, said( "KIV_TRACE_RING_SIZE" ), said( "KIV_TRACE_RING_LEVELS" ) };
      wanted().taken = wantedLevels( false ); // what is wrong with them is said to those who trace
      detail::ringWanted = true;
   }
} const atLoad;

// The size that the environment asks for, if that is one.
std::uint64_t wantedBytes() {
   if( wanted().bytes.empty() )
      return Flitlog::defaultRingBytes;
   try {
      return ringBytes( wanted().bytes );
   } catch( Exception const & e ) {
      detail::ErrorLine() << "kiv: KIV_TRACE_RING_SIZE ignored: " << e.what();
      return Flitlog::defaultRingBytes;
   }
}

bool wantedTakes( unsigned level ) {
   return detail::ringWanted && ( level > 9 || ( wanted().taken >> level & 1U ) != 0 );
}

// An environment that asks for the impossible must not stop a program. Throws std::bad_alloc; the
// next trace point asks again then.
void openWantedRing() {
   detail::ringWanted = false;
   try {
      std::uint64_t const bytes = wantedBytes();
      traceRingIs( wanted().path, bytes, wantedLevels( true ) );
   } catch( std::bad_alloc const & ) {
      detail::ringWanted = true;
      throw;
   } catch( std::exception const & e ) {
      detail::ErrorLine() << "kiv: KIV_TRACE_RING ignored: " << e.what();
   }
}

} // namespace

std::uint64_t ringBytes( String8 const & text ) {
   std::string_view const view = text.view();
   std::uint64_t value = 0;
   auto const [ end, error ] = std::from_chars( view.data(), view.data() + view.size(), value );
   auto const suffix = view.substr( static_cast< std::size_t >( end - view.data() ) );
   unsigned const shift = suffix == "K" ? 10 : suffix == "M" ? 20 : suffix == "G" ? 30 : 0;
   if( error != std::errc() || ( shift == 0 && !suffix.empty() ) || value == 0 ||
       value > UINT64_MAX >> shift )
      throwRangeException( String8( "size \"" + std::string( view ) +
                                    "\": expected a number of bytes above 0, which may end in K, "
                                    "M or G" ) );
   return value << shift;
}

void traceRingIs( String8 const & path, std::uint64_t bytes, unsigned levels ) {
   if( path.empty() ) {
      detail::ringWanted = false;
      Flitlog::theTraceFile = nullptr;
      delete std::exchange( traceFile, nullptr );
      return;
   }
   auto file = Flitlog::TraceFile::TraceFileIs(
      withProcessId( path.view() ), { bytes, &now, Flitlog::defaultDescriptorBytes, levels } );
   detail::ringWanted = false;
   // The old one first: it forgets the numbers of the points' messages, which are its own.
   delete traceFile;
   traceFile = file.release();
   Flitlog::theTraceFile = traceFile;
}

namespace detail {

bool ringWanted = false;

bool ringTakes( unsigned level ) noexcept {
   return ( Flitlog::theTraceFile && Flitlog::theTraceFile->takes( level ) ) ||
          wantedTakes( level );
}

void TracePiece::print( LineBuffer & line ) const {
   switch( kind_ ) {
   case Kind::literal:
   case Kind::text:
      line << text();
      break;
   case Kind::boolean:
      line << ( boolean_ ? "true" : "false" );
      break;
   case Kind::integer:
   case Kind::wideInteger:
      line.number( integer_ );
      break;
   case Kind::unsignedInteger:
   case Kind::wideUnsigned:
      line.number( unsigned_ );
      break;
   case Kind::real:
      if( std::isnan( real_ ) ) // of either sign
         line << "nan";
      else
         line.number( real_ );
      break;
   case Kind::object:
      line << name().view();
      break;
   }
}

void TracePiece::describe( Flitlog::MsgDesc & message ) const {
   switch( kind_ ) {
   case Kind::literal:
      message << bytes_;
      break;
   case Kind::text:
      message << Flitlog::Varg{ "s" };
      break;
   case Kind::boolean:
      message << Flitlog::Varg{ "b" };
      break;
   case Kind::integer:
      message << Flitlog::Varg{ "i" };
      break;
   case Kind::wideInteger:
      message << Flitlog::Varg{ "l" };
      break;
   case Kind::unsignedInteger:
      message << Flitlog::Varg{ "u" };
      break;
   case Kind::wideUnsigned:
      message << Flitlog::Varg{ "m" };
      break;
   case Kind::real:
      message << Flitlog::Varg{ "d" };
      break;
   case Kind::object:
      message << Flitlog::Varg{ "p" };
      break;
   }
}

void TracePiece::record( Flitlog::RingBuf & ring, std::string_view name ) const {
   switch( kind_ ) {
   case Kind::literal:
      break;
   case Kind::text:
      put( ring, text() );
      break;
   case Kind::boolean:
      put( ring, boolean_ );
      break;
   case Kind::integer:
      put( ring, static_cast< std::int32_t >( integer_ ) );
      break;
   case Kind::wideInteger:
      put( ring, integer_ );
      break;
   case Kind::unsignedInteger:
      put( ring, static_cast< std::uint32_t >( unsigned_ ) );
      break;
   case Kind::wideUnsigned:
      put( ring, unsigned_ );
      break;
   case Kind::real:
      put( ring, real_ );
      break;
   case Kind::object:
      put( ring, name );
      break;
   }
}

namespace {

// The point's message in the trace file, described there on the first pass.
int messageOf( TraceHandle const & handle, TracePoint & point,
               std::initializer_list< TracePiece > pieces ) {
   if( point.message == 0 ) {
      Flitlog::MsgDesc message( Flitlog::theTraceFile, point.source, point.line );
      message.handleIs( handle.name().view() );
      message.levelIs( point.level );
      message.functionIs( point.function );
      bool hasObjects = false;
      for( TracePiece const & piece : pieces ) {
         piece.describe( message );
         hasObjects = hasObjects || piece.isObject();
      }
      Flitlog::theTraceFile->msgIdArrIs( &point.message );
      point.message = message.finish();
      point.hasObjects = hasObjects;
   }
   return point.message;
}

// An object is asked for its name before anything else: it may be a user's, who traces too, or has
// another file written to from now on, in which the point's message has another number.
void recordTrace( TraceHandle const & handle, TracePoint & point,
                  std::initializer_list< TracePiece > pieces, double time ) {
   std::vector< String8 > names;
   Flitlog::TraceFile * file = Flitlog::theTraceFile;
   if( point.hasObjects ) {
      for( TracePiece const & piece : pieces )
         if( piece.isObject() )
            names.push_back( piece.name() );
      file = Flitlog::theTraceFile;
      if( !file || !file->takes( point.level ) )
         return; // ended, or another one, since names were asked for
   }
   int const message = messageOf( handle, point, pieces );
   // A point for which the file had no room is counted there.
   Flitlog::RingBuf & ring = Flitlog::RingBuf::startMsg( file, message, time );
   auto name = names.begin();
   for( TracePiece const & piece : pieces )
      piece.record( ring, piece.isObject() ? ( name++ )->view() : std::string_view() );
   ring.endMsg();
}

// Text for the text sink and coverageStream_.
void writeTrace( TraceHandle const & handle, TracePoint const & point,
                 std::initializer_list< TracePiece > pieces, double time ) {
   bool const enabled = handle.enabled( point.level );
   LineBuffer text;
   for( TracePiece const & piece : pieces )
      piece.print( text );
   give(
      { time, handle.name(), point.level, point.source, point.line, point.function, text.view() },
      enabled );
}

} // namespace

void trace( TraceHandle const & handle, TracePoint & point,
            std::initializer_list< TracePiece > pieces ) noexcept {
   double time = 0; // one for both sinks
   try {
      time = now();
   } catch( ... ) {
      traceLost( point.function, true );
      return;
   }
   // The ring first: it is the one that is read when nothing else is left.
   try {
      if( wantedTakes( point.level ) )
         openWantedRing();
      if( Flitlog::theTraceFile && Flitlog::theTraceFile->takes( point.level ) )
         recordTrace( handle, point, pieces, time );
   } catch( ... ) {
      traceLost( point.function, true );
   }
   if( !handle.enabled( point.level ) && !coverageStream_ )
      return;
   try {
      writeTrace( handle, point, pieces, time );
   } catch( ... ) {
      traceLost( point.function, true );
   }
}

void traceLost( char const * function, bool handleMade ) noexcept {
   if( !handleMade && !tracesWanted() )
      return;
   ErrorLine line;
   line << "kiv: a trace of " << function << " was lost";
   try {
      throw;
   } catch( std::exception const & e ) {
      line << ": " << e.what();
   } catch( ... ) { // that is all there is to say
   }
}

void reportBusy( std::size_t delivered, std::span< std::string_view const > busy,
                 bool more ) noexcept {
   auto const who = [ & ]( auto put ) {
      for( std::size_t i = 0; i != busy.size(); ++i ) {
         put( i == 0 ? "" : ", " );
         put( busy[ i ] );
      }
      put( !more ? "" : busy.empty() ? "whom there is no memory to name" : ", and others" );
   };
   static constexpr char before[] = "the loop is kept busy by ";
   static constexpr char after[] = " callbacks and timers in one turn, and no end; due timers, "
                                   "descriptors and posts go first until there is one";
   try {
      std::string names;
      who( [ & ]( std::string_view name ) { names += name; } );
      KIV_TRACE( kivTrace(), 0, "Trace", before, names, ": ", delivered, after );
   } catch( std::bad_alloc const & ) {
      // The line needs none.
   }
   char digits[ 24 ];
   char * const end = std::to_chars( digits, digits + sizeof digits, delivered ).ptr;
   ErrorLine line;
   line << "kiv: " << before;
   who( [ & ]( std::string_view name ) { line << name; } );
   line << ": " << std::string_view( digits, static_cast< std::size_t >( end - digits ) ) << after;
}

void reportException( char const * where, String8 const & what ) noexcept {
   char const * const before = !*where ? "" : what.empty() ? " of " : " in ";
   char const * const of = what.empty() ? "" : " of a reactor on ";
   withCurrentException( [ & ]( std::string_view text ) {
      KIV_TRACE_IN( kivTrace(), 0, "Trace", "reportException", "exception", before, where, of, what,
                    ": ", text );
      ErrorLine() << "kiv: exception" << before << where << of << what.view() << ": " << text;
   } );
}

void reportRecovery( PtrInterface const * notifier, AttributeId attribute,
                     unsigned failures ) noexcept {
   try {
      Attribute const * const row = notifier ? notifier->fwkType().attribute( attribute ) : nullptr;
      std::fprintf( stderr, "kiv: delivered after %u exceptions in a row: %s of a reactor on %s\n",
                    failures, row ? row->name : "a callback",
                    oneLine( valueToString( notifier ).view() ).c_str() );
   } catch( ... ) {
      std::fprintf( stderr, "kiv: a callback was delivered after %u exceptions in a row\n",
                    failures );
   }
}

} // namespace detail

} // namespace Kiv
