// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <startup/Declarations.h>

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace Bench {

namespace {

std::vector< std::uint32_t > dependenciesOf( std::uint32_t stage, Shape shape,
                                             std::uint32_t stages ) {
   std::vector< std::uint32_t > all;
   switch( shape ) {
   case Shape::chain:
      if( stage > 0 )
         all = { stage - 1 };
      break;
   case Shape::layered: {
      auto const width = std::max( 2U, static_cast< std::uint32_t >( std::sqrt( stages ) ) );
      std::uint32_t const layer = stage / width;
      if( layer > 0 ) {
         std::uint32_t const before = ( layer - 1 ) * width;
         all = { before + stage % width, before + ( stage + 1 ) % width };
      }
      break;
   }
   case Shape::fanIn:
      if( stage + 1 == stages )
         for( std::uint32_t i = 0; i != stage; ++i )
            all.push_back( i );
      break;
   }
   return all;
}

} // namespace

Shape shapeOf( std::string_view name ) {
   if( name == "chain" )
      return Shape::chain;
   if( name == "layered" )
      return Shape::layered;
   if( name == "fan-in" )
      return Shape::fanIn;
   throw std::invalid_argument( "\"" + std::string( name ) +
                                "\" is no shape; expected chain, layered or fan-in" );
}

Declarations declarations( Shape shape, std::uint32_t stages ) {
   Declarations all;
   for( int i = 0; i != 10; ++i )
      all.agent.push_back( "Agent" + std::to_string( i ) );
   all.event.reserve( stages );
   for( std::uint32_t i = 0; i != stages; ++i )
      all.event.push_back( { "Stage" + std::to_string( i ), all.agent[ i % all.agent.size() ],
                             dependenciesOf( i, shape, stages ), 60.0 + i % 7, i + 1 == stages } );
   return all;
}

bool isOrderOf( std::vector< std::uint32_t > const & order, Declarations const & declared ) {
   std::vector< bool > started( declared.event.size() );
   for( std::uint32_t stage : order ) {
      if( stage >= started.size() || started[ stage ] )
         return false;
      for( std::uint32_t needed : declared.event[ stage ].dependency )
         if( !started[ needed ] )
            return false;
      started[ stage ] = true;
   }
   return order.size() == started.size();
}

} // namespace Bench
