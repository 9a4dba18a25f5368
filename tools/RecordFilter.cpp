// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <tools/RecordFilter.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <stdexcept>

#include <Kiv/Trace.h>
#include <fmt/format.h>
#include <simulation/detail/Json.h>

namespace Tools {

namespace {

unsigned levelAt( std::string_view text, std::size_t at ) {
   if( at >= text.size() || text[ at ] < '0' || text[ at ] > '9' ) {
      throw std::invalid_argument(
         fmt::format( "character {}: expected a level, 0 to 9", at + 1 ) );
   }
   return static_cast< unsigned >( text[ at ] - '0' );
}

}  // namespace

bool RecordFilter::wants( Flitlog::Record const & record, std::string_view line ) const {
   // A time that is no number is in no range.
   bool const ranged = std::isfinite( from ) || std::isfinite( to );
   if( ranged && !( record.time >= from && record.time <= to ) ) {
      return false;
   }
   if( levels != 0 && ( record.level > 9 || ( levels >> record.level & 1U ) == 0 ) ) {
      return false;
   }
   if( !handles.empty() && std::ranges::find( handles, record.handle ) == handles.end() ) {
      return false;
   }
   return line.find( grep ) != line.npos;
}

unsigned levelsOf( std::string_view text ) {
   unsigned levels = 0;
   for( std::size_t at = 0;; ++at ) {
      auto const first = levelAt( text, at++ );
      auto last = first;
      if( at < text.size() && text[ at ] == '-' ) {
         last = levelAt( text, ++at );
         if( last < first ) {
            throw std::invalid_argument( fmt::format(
               "character {}: expected a level that is not below {}", at + 1, first ) );
         }
         ++at;
      }
      for( auto level = first; level <= last; ++level ) {
         levels |= 1U << level;
      }
      if( at == text.size() ) {
         return levels;
      }
      if( text[ at ] != ',' ) {
         throw std::invalid_argument( fmt::format(
            "character {}: expected levels as in 7-9,0", at + 1 ) );
      }
   }
}

double secondsOf( std::string_view text ) {
   double seconds = 0;
   auto const [ end, error ] = std::from_chars( text.data(), text.data() + text.size(), seconds );
   if( error != std::errc() || end != text.data() + text.size() || !std::isfinite( seconds ) ) {
      throw std::invalid_argument( "expected a number of seconds" );
   }
   return seconds;
}

std::uint64_t countOf( std::string_view text ) {
   std::uint64_t count = 0;
   auto const [ end, error ] = std::from_chars( text.data(), text.data() + text.size(), count );
   if( error != std::errc() || end != text.data() + text.size() ) {
      throw std::invalid_argument( "expected a number of records" );
   }
   return count;
}

std::string lineOf( Flitlog::Record const & record ) {
   return Kiv::traceText( { record.time, record.handle, record.level, record.source.c_str(),
                            record.line, record.function.c_str(), record.text } );
}

std::string jsonOf( Flitlog::Record const & record ) {
   using namespace Simulation::Detail;
   return fmt::format( R"({{"sequence":{},"time":{},"handle":{},"level":{},"source":{},"line":{},)"
                       R"("function":{},"text":{}}})",
                       record.sequence,
                       std::isnan( record.time ) ? "\"nan\"" : jsonNumber( record.time ),
                       jsonString( record.handle ), record.level, jsonString( record.source ),
                       record.line, jsonString( record.function ), jsonString( record.text ) );
}

}  // namespace Tools
