// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include "Bytes.h"

#include <stdexcept>

namespace Rings {

Whatever readWhatever( std::string const & path ) {
   Whatever all;
   try {
      auto const reader = Flitlog::Reader::ReaderIs( path );
      for( int poll = 0; poll != 2; ++poll ) {
         for( Flitlog::Record record; reader->next( record ); ) {
            if( !all.records.empty() && record.sequence <= all.records.back().sequence &&
                reader->problems().empty() )
               throw std::logic_error( "a record's number does not grow" );
            all.records.push_back( record );
            // 32 bytes are the least that a record takes.
            if( all.records.size() > ( std::size_t( 64 ) << 20 ) / 32 )
               throw std::logic_error( "there is no end of records" );
         }
         reader->poll();
      }
      all.problems = reader->problems();
   } catch( Flitlog::FileError const & e ) {
      all.refused = e.what();
      if( !all.refused.starts_with( path + ": " ) ||
          all.refused.find( "expected" ) == all.refused.npos )
         throw std::logic_error( "a refusal without the path or what was expected" );
   }
   return all;
}

} // namespace Rings
