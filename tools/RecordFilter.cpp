// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <tools/RecordFilter.h>

#include <algorithm>
#include <cmath>

#include <Kiv/Trace.h>
#include <simulation/Json.h>

namespace Tools {

bool RecordFilter::wants( Flitlog::Record const & record, std::string_view line ) const {
   // A time that is no number is in no range.
   bool const ranged = std::isfinite( from ) || std::isfinite( to );
   if( ranged && !( record.time >= from && record.time <= to ) )
      return false;
   if( levels != 0 && ( record.level > 9 || ( levels >> record.level & 1U ) == 0 ) )
      return false;
   if( !handles.empty() && std::ranges::find( handles, record.handle ) == handles.end() )
      return false;
   return line.find( grep ) != line.npos;
}

std::string levelsText( unsigned levels ) {
   std::string text;
   for( unsigned first = 0; levels >> first != 0; ++first ) {
      if( ( levels >> first & 1U ) == 0 )
         continue;
      unsigned last = first;
      while( ( levels >> ( last + 1 ) & 1U ) != 0 )
         ++last;
      text += ( text.empty() ? "" : "," ) + std::to_string( first );
      if( last != first )
         text += "-" + std::to_string( last );
      first = last;
   }
   return text;
}

std::string jsonOfLevels( unsigned levels ) {
   Simulation::Json json;
   json.object( Simulation::Json::Layout::dense ).key( "levels" );
   json.array( Simulation::Json::Layout::dense );
   for( unsigned level = 0; level <= 9; ++level )
      if( ( levels >> level & 1U ) != 0 )
         json.value( level );
   json.end().end();
   return json.text();
}

std::string lineOf( Flitlog::Record const & record ) {
   return Kiv::traceText( { record.time, record.handle, record.level, record.source.c_str(),
                            record.line, record.function.c_str(), record.text } );
}

std::string jsonOf( Flitlog::Record const & record ) {
   Simulation::Json json;
   json.object( Simulation::Json::Layout::dense ).member( "sequence", record.sequence );
   json.member( "time", record.time ).member( "handle", record.handle );
   json.member( "level", record.level ).member( "source", record.source );
   json.member( "line", record.line ).member( "function", record.function );
   json.member( "text", record.text ).end();
   return json.text();
}

} // namespace Tools
